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
    for (const auto& [named, name] : names)
        if (named == type) return name;
    return "a type that no value has:";
}

inline void PrintTo(const Variant& value, std::ostream* out) {
    const VariantType type = value;
    std::string text = "(no key=value text)\n";
    Variant tree;
    tree[""] = value;
    if (type == TypeMap || type == TypeArray)
        (void)value.ToKVP(text, "=", "\n");
    else if (tree.ToKVP(text, "", ""))
        text += '\n';
    *out << typeName(type) << (type != TypeNull ? " " : "") << text.substr(0, text.size() - 1);
}

}  // namespace korvo::variant

namespace test {

inline std::string shown(const korvo::variant::Variant& value) { return testing::PrintToString(value); }

}  // namespace test
