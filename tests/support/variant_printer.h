/** @file Shows a value in a test's failure message, and in tables of cases: `TYPE-TAG TEXT`. */
#pragma once

#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "korvo/variant/variant.h"

namespace korvo::variant {

inline void PrintTo(const Variant& value, std::ostream* out) {
    const VariantType type = value;
    const bool isContainer = type == TypeMap || type == TypeArray;
    Variant tree;
    tree[""] = value;
    std::string text = "(no key=value text)\n";
    (void)(isContainer ? value : tree).ToKVP(text, isContainer ? "=" : "", "\n");
    *out << std::hex << static_cast<int>(type) << std::dec << ' ' << text.substr(0, text.size() - 1);
}

}  // namespace korvo::variant

namespace test {

inline std::string shown(const korvo::variant::Variant& value) { return testing::PrintToString(value); }

}  // namespace test
