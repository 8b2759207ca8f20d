/** @file Shows a value in a test's failure message, and in tables of cases: `TYPE TEXT`, as in `int32 7`. */
#pragma once

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <utility>

#include "korvo/variant/variant.h"

namespace korvo::variant {

inline const char* typeName(VariantType type) {
    static constexpr std::pair<VariantType, const char*> names[] = {
        {TypeNull, "null"},     {TypeMap, "map"},       {TypeArray, "array"},   {TypeString, "string"},
        {TypeBool, "bool"},     {TypeInt8, "int8"},     {TypeInt32, "int32"},   {TypeInt64, "int64"},
        {TypeUInt16, "uint16"}, {TypeUInt32, "uint32"}, {TypeUInt64, "uint64"}, {TypeDouble, "double"},
    };
    for (const auto& [named, name] : names) {
        if (named == type) return name;
    }
    return "a type that no value has:";
}

inline void PrintTo(const Variant& value, std::ostream* out) {
    const VariantType type = value;
    const bool isContainer = type == TypeMap || type == TypeArray;
    Variant tree;
    tree["v"] = value;
    std::string text = "v=(no key=value text)\n";
    (void)(isContainer ? value : tree).ToKVP(text, "=", "\n");
    *out << typeName(type);
    if (!isContainer) text.erase(0, 2);
    if (type != TypeNull) *out << ' ' << text.substr(0, text.size() - 1);
}

}  // namespace korvo::variant

namespace test {

inline std::string shown(const korvo::variant::Variant& value) { return testing::PrintToString(value); }

}  // namespace test
