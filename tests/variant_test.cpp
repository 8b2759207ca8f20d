#include "korvo/variant/variant.h"

#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <random>
#include <sstream>

#include "support/cases.h"
#include "support/variant_printer.h"

using namespace korvo::variant;

namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
const char longText[] = "a text that is too long for the small string optimisation";

Variant sampleTree() {
    Variant tree;
    tree["text"] = longText;
    tree["list"][-1] = "first";
    tree["list"][-1]["nested"] = 2.5;
    tree["empty"].IsArray(false);
    return tree;
}

TEST(Variant, ConvertsEveryKindToEveryOther) {
    // A value => its type, then the value as bool, signed char, int, unsigned short, long long, double and text.
    const std::pair<Variant, const char*> rows[] = {
        {Variant(), "null: 0 0 0 0 0 0 "},
        {"12", "string: 0 0 0 0 0 0 12"},
        {static_cast<signed char>(-1), "int8: 1 -1 -1 65535 -1 -1 "},
        {~0ULL, "uint64: 1 -1 -1 65535 -1 1.84467e+19 "},
        {-129.5, "double: 1 -128 -129 0 -129 -129.5 "},
        {70000.5, "double: 1 127 70000 65535 70000 70000.5 "},
        {0x1p63, "double: 1 127 2147483647 65535 9223372036854775807 9.22337e+18 "},
        {-1e300, "double: 1 -128 -2147483648 0 -9223372036854775808 -1e+300 "},
        {nan, "double: 0 0 0 0 0 nan "}};
    for (const auto& [value, expected] : rows) {
        std::ostringstream out;
        out << typeName(value) << ": " << bool(value) << ' ' << int(static_cast<signed char>(value)) << ' '
            << int(value) << ' ' << static_cast<unsigned short>(value) << ' ' << static_cast<long long>(value)
            << ' ' << double(value) << ' ' << static_cast<const char*>(value);
        EXPECT_EQ(out.str(), expected);
    }
}

TEST(Variant, IsCopiedDeeplyAndMayBeAssignedFromItselfAndFromWhatIsInsideOfIt) {
    const Variant tree = sampleTree();
    Variant same = tree, copied = tree, moved = tree, nested = tree, text = longText, key = "short";
    nested["list"][1]["nested"] = 3.5;
    EXPECT_EQ(tree, sampleTree());
    same = *&same, same = std::move(*&same);
    copied = copied["list"];
    moved = std::move(moved["list"]);
    nested["copy"] = nested;
    text = text.As<const char*>() + 2;
    key[key.As<const char*>()] = 1;
    EXPECT_TRUE(same == tree && copied == tree["list"] && moved == copied &&
                nested["copy"]["list"] == nested["list"]);
    EXPECT_TRUE(text == longText + 2 && key["short"] == 1);
}

TEST(Variant, KeepsMembersInOrderAndInPlaceUntilTheyAreRemoved) {
    std::mt19937 random(1);
    Variant value;
    std::map<std::string, Variant*> named;
    std::map<long long, Variant*> indexed;
    const auto toggle = [&](auto& expected, const auto& key) {
        const bool isThere = expected.erase(key) > 0;
        EXPECT_EQ(value.Remove(key), isThere) << key;
        if (!isThere) *(expected[key] = &value[key]) = key;
    };
    const auto expectSame = [](auto member, const auto& expected) {
        for (const auto& [key, address] : expected)
            ASSERT_TRUE(member->first == key && &member->second == address && (member++)->second == key);
    };
    for (unsigned round = 0; round < 20000; ++round) {
        // Mostly growing and mostly shrinking by turns.
        const unsigned number = static_cast<unsigned>(random()) % (round / 5000 % 2 == 0 ? 600 : 75);
        // Keys that begin alike, and of which the order of their bytes decides.
        toggle(named, std::to_string(number / 12) + std::string(number % 12, number % 2 ? '\0' : '\xff'));
        toggle(indexed, 2 * static_cast<long long>(number) - 600);
        if (round % 200 != 0) continue;
        Variant moved = std::move(value);
        ASSERT_EQ(value, Variant());  // NOLINT(bugprone-use-after-move): that state is promised
        moved.Compact();
        ASSERT_EQ(Variant(moved), moved);
        value = std::move(moved);
        ASSERT_EQ(value.Size(), named.size() + indexed.size());
        expectSame(value.begin(), named);
        expectSame(value.num_begin(), indexed);
    }
}

TEST(Variant, CompactsAllBelow) {
    Variant tree;
    tree["a"]["text"] = tree["b"]["text"] = longText;
    tree["a"]["text"] = tree["b"]["text"] = std::string_view("short");  // keeps the room of the long one
    tree.Compact();
    for (const auto& [name, group] : tree)
        EXPECT_LT(static_cast<const std::string&>(group["text"]).capacity(), sizeof longText - 1) << name;
}

TEST(Variant, KeyChainsFindWhatTheyName) {
    Variant tree;
    ASSERT_TRUE(tree.FromKVP("a.=empty name\na.0=digits\na.b=1\na.x=2.5\n", true, false, true));
    tree["a"][-5] = "negative";
    tree["a"][-1] = "the first after it";
    for (const auto& [path, expected] : test::readCases("key_chains.txt")) {
        const Variant* found = tree.GetKeyChain(TypeAny, path.c_str(), false);
        EXPECT_EQ(found != nullptr ? test::shown(*found) : "nothing", expected);
    }
    EXPECT_EQ(tree.GetKeyChain(TypeDouble, "a/b", true), nullptr);
}

TEST(Variant, EqualsOnlyTheSameValueOfTheSameType) {
    Variant list = sampleTree(), longer = list;
    list.IsArray(true);
    longer[0] = 1;
    const Variant different[] = {Variant(), 0,        0LL,  false,  0.5,          nan,
                                 "",        longText, list, longer, sampleTree(), sampleTree()["empty"]};
    for (const Variant& left : different)
        for (const Variant& right : different)
            EXPECT_EQ(left == right, &left == &right) << test::shown(left) << ", " << test::shown(right);
    longer.Remove(0);
    EXPECT_EQ(longer, sampleTree());
}

TEST(Variant, TreesDeeperThanTheStackAreCopiedComparedAndDestroyed) {
    Variant deep;
    for (int level = 0; level < 300000; ++level) {
        Variant outer;
        outer["inner"] = std::move(deep);
        deep = std::move(outer);
    }
    Variant copy = deep;
    copy.Compact();
    EXPECT_TRUE(copy == deep);
}

}  // namespace
