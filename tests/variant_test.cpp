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

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double nan = std::numeric_limits<double>::quiet_NaN();

const char longText[] = "a text that is too long for the small string optimisation";

Variant sampleTree() {
    Variant tree;
    tree["text"] = longText;
    tree["nan"] = nan;
    tree["list"][-1] = "first";
    tree["list"][-1]["nested"] = 2.5;
    tree["empty"].IsArray(false);
    return tree;
}

TEST(Variant, ConvertsEveryKindToEveryOther) {
    // A value => its type, then the value as bool, signed char, int, unsigned short, long long, double and text.
    const std::pair<Variant, const char*> rows[] = {
        {Variant(), "null: 0 0 0 0 0 0 "},
        {sampleTree(), "map: 0 0 0 0 0 0 "},
        {"12", "string: 0 0 0 0 0 0 12"},
        {true, "bool: 1 1 1 1 1 1 "},
        {static_cast<signed char>(-1), "int8: 1 -1 -1 65535 -1 -1 "},
        {0xffffffffU, "uint32: 1 -1 -1 65535 4294967295 4.29497e+09 "},
        {~0ULL, "uint64: 1 -1 -1 65535 -1 1.84467e+19 "},
        {-0.9, "double: 1 0 0 0 0 -0.9 "},
        {-129.5, "double: 1 -128 -129 0 -129 -129.5 "},
        {70000.5, "double: 1 127 70000 65535 70000 70000.5 "},
        {0x1p63, "double: 1 127 2147483647 65535 9223372036854775807 9.22337e+18 "},
        {-infinity, "double: 1 -128 -2147483648 0 -9223372036854775808 -inf "},
        {nan, "double: 0 0 0 0 0 nan "}};
    for (const auto& [value, expected] : rows) {
        std::ostringstream out;
        out << typeName(value) << ": " << bool(value) << ' ' << int(static_cast<signed char>(value)) << ' '
            << int(value) << ' ' << static_cast<unsigned short>(value) << ' ' << static_cast<long long>(value)
            << ' ' << double(value) << ' ' << static_cast<const char*>(value);
        EXPECT_EQ(out.str(), expected);
    }
    // An integer that a double does not hold exactly is rounded once, not twice.
    constexpr long long large = (1LL << 60) + (1LL << 36) + 1;
    EXPECT_EQ(Variant(large).As<float>(), static_cast<float>(large));
    EXPECT_EQ(Variant(-large).As<float>(), static_cast<float>(-large));
    EXPECT_EQ(Variant(~0ULL).As<float>(), static_cast<float>(~0ULL));
    EXPECT_EQ(Variant(0x1p64).As<unsigned long long>(), ~0ULL);
}

TEST(Variant, CopiesAreDeepAndMovesLeaveNull) {
    for (Variant value : {sampleTree(), Variant(longText), Variant(2.5)}) {
        const Variant expected = value;
        Variant moved(std::move(value));
        EXPECT_EQ(value, Variant());  // NOLINT(bugprone-use-after-move): that state is promised
        value = std::move(moved);
        EXPECT_EQ(moved, Variant());  // NOLINT(bugprone-use-after-move)
        EXPECT_EQ(value, expected);
        value["list"][1]["nested"] = 3.5;
        EXPECT_NE(value, expected);
    }
}

TEST(Variant, MayBeAssignedFromItselfAndFromWhatIsInsideOfIt) {
    const Variant tree = sampleTree();
    const auto after = [&](auto assign) {
        Variant value = tree;
        assign(value);
        return value;
    };
    EXPECT_EQ(after([](Variant& v) { v = *&v, v = std::move(*&v); }), tree);
    EXPECT_EQ(after([](Variant& v) { v = v["list"]; }), tree["list"]);
    EXPECT_EQ(after([](Variant& v) { v = std::move(v["list"]); }), tree["list"]);
    EXPECT_EQ(after([](Variant& v) { v["copy"] = v; })["copy"]["list"], tree["list"]);
    EXPECT_EQ(after([](Variant& v) { v = v["text"].As<std::string_view>(); }), longText);
    EXPECT_EQ(after([](Variant& v) { v = v["text"], v = v.As<const char*>() + 2; }), longText + 2);
    EXPECT_EQ(after([](Variant& v) { v = "short", v[v.As<const char*>()] = 1; })["short"], 1);
    Variant keyValues("a=1\nb=2\n");
    EXPECT_TRUE(keyValues.FromKVP(keyValues, true, true, true));
    EXPECT_EQ(keyValues["b"], "2");
}

/** One of many keys that begin alike and of which the order of their bytes decides. */
std::string keyNumber(unsigned number) {
    std::string key(number % 10, 'k');
    for (; number > 0; number /= 3) key += "\0a\xff"[number % 3];
    return key;
}

TEST(Variant, KeepsMembersInOrderAndInPlaceUntilTheyAreRemoved) {
    std::mt19937 random(1);
    Variant value;
    std::map<std::string, Variant*> named;
    std::map<long long, Variant*> indexed;
    const auto toggle = [&](auto& expected, const auto& key) {
        const bool isThere = expected.count(key) > 0;
        EXPECT_EQ(value.Contains(key), isThere) << key;
        EXPECT_EQ(value.Remove(key), isThere) << key;
        if (isThere)
            expected.erase(key);
        else
            *(expected[key] = &value[key]) = key;
    };
    const auto expectSame = [](auto member, const auto& expected) {
        for (const auto& [key, address] : expected) {
            ASSERT_EQ(member->first, key);
            ASSERT_EQ(&member->second, address) << key;
            ASSERT_EQ((member++)->second, key);
        }
    };
    for (unsigned round = 0; round < 20000; ++round) {
        // Mostly growing and mostly shrinking by turns.
        const unsigned number = static_cast<unsigned>(random()) % (round / 5000 % 2 == 0 ? 600 : 75);
        toggle(named, keyNumber(number));
        toggle(indexed, 2 * static_cast<long long>(number) - 600);
        if (round % 200 != 0) continue;
        Variant moved = std::move(value);
        if (round % 1000 == 0) moved.Compact();
        ASSERT_EQ(Variant(moved), moved);
        value = std::move(moved);
        ASSERT_EQ(value.Size(), named.size() + indexed.size());
        expectSame(value.begin(), named);
        expectSame(value.num_begin(), indexed);
    }
}

TEST(Variant, CompactsAllBelow) {
    Variant tree;
    for (const char* group : {"a", "b"}) {
        Variant& text = tree[group]["text"] = longText;
        text = std::string_view("short");  // keeps the room of the long one
    }
    tree.Compact();
    for (const char* group : {"a", "b"})
        EXPECT_LT(static_cast<const std::string&>(tree[group]["text"]).capacity(), sizeof longText - 1)
            << group;
}

TEST(Variant, AppendsAfterTheLastIndex) {
    constexpr long long max = std::numeric_limits<long long>::max();
    Variant value;
    value[-5] = "negative";
    value[-1] = "zero";
    value[7] = "seven";
    value[-1] = "eight";
    EXPECT_EQ(test::shown(value), "array -5=negative\n0=zero\n7=seven\n8=eight");
    value[max] = "last";
    EXPECT_EQ(&value[-1], &value[max]) << "there is no index after the largest";
}

TEST(Variant, KeyChainsFindWhatTheyNameAndCreateNothing) {
    Variant tree;
    ASSERT_TRUE(tree.FromKVP("a.=empty name\na.5=digits\na.b=1\na.x=2.5\n", true, false, true));
    tree["a"][5] = "index";
    tree["a"][-5] = "negative";
    tree["null"] = Variant();
    const Variant before = tree;
    for (const auto& [path, expected] : test::readCases("key_chains.txt")) {
        const Variant* found = tree.GetKeyChain(TypeAny, path.c_str(), false);
        EXPECT_EQ(found != nullptr ? test::shown(*found) : "nothing", expected) << path;
    }
    EXPECT_EQ(tree.GetKeyChain(TypeNumeric, "a/x", true), &tree["a"]["x"]);
    EXPECT_EQ(tree.GetKeyChain(TypeDouble, "a/b", true), nullptr);
    EXPECT_EQ(tree.GetKeyChain(TypeAny, nullptr, true), nullptr);
    EXPECT_EQ(tree, before);
}

TEST(Variant, EqualsOnlyTheSameValueOfTheSameType) {
    EXPECT_NE(Variant(1), Variant(1LL));
    EXPECT_NE(Variant(1), Variant(true));
    EXPECT_NE(Variant(0), Variant());
    Variant tree = sampleTree();
    tree[0] = 1;
    EXPECT_TRUE(tree != sampleTree() && sampleTree() != tree);
    tree.Remove(0);
    EXPECT_EQ(tree, sampleTree());
    tree.IsArray(true);
    EXPECT_NE(tree, sampleTree());
    tree.IsArray(false);
    EXPECT_EQ(tree, sampleTree());
    tree["text"].IsArray(false);
    EXPECT_EQ(tree["text"], tree["empty"]);
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
