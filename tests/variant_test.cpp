#include "korvo/variant/variant.h"

#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <numeric>
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
    tree["number"] = 7;
    tree["nan"] = nan;
    tree["list"][-1] = "first";
    tree["list"][-1]["nested"] = 2.5;
    tree["empty"].IsArray(false);
    return tree;
}

/** The type of a value, and what it is as bool, the integers from small to large, double and text. */
std::string conversions(const Variant& value) {
    std::ostringstream out;
    out << typeName(value) << ": " << bool(value) << ' ' << int(static_cast<signed char>(value)) << ' '
        << int(value) << ' ' << static_cast<unsigned short>(value) << ' ' << static_cast<long long>(value)
        << ' ' << double(value) << ' ' << static_cast<const char*>(value);
    EXPECT_EQ(static_cast<const std::string&>(value), static_cast<const char*>(value));
    return out.str();
}

TEST(Variant, ConvertsEveryKindToEveryOther) {
    EXPECT_EQ(conversions(Variant()), "null: 0 0 0 0 0 0 ");
    EXPECT_EQ(conversions(sampleTree()), "map: 0 0 0 0 0 0 ");
    EXPECT_EQ(conversions("12"), "string: 0 0 0 0 0 0 12");
    EXPECT_EQ(conversions(true), "bool: 1 1 1 1 1 1 ");
    EXPECT_EQ(conversions(300), "int32: 1 44 300 300 300 300 ");
    EXPECT_EQ(conversions(static_cast<signed char>(-1)), "int8: 1 -1 -1 65535 -1 -1 ");
    EXPECT_EQ(conversions(0xffffffffU), "uint32: 1 -1 -1 65535 4294967295 4.29497e+09 ");
    EXPECT_EQ(conversions(std::numeric_limits<long long>::min()),
              "int64: 1 0 0 0 -9223372036854775808 -9.22337e+18 ");
    EXPECT_EQ(conversions(~0ULL), "uint64: 1 -1 -1 65535 -1 1.84467e+19 ");
    EXPECT_EQ(conversions(-0.9), "double: 1 0 0 0 0 -0.9 ");
    EXPECT_EQ(conversions(-129.5), "double: 1 -128 -129 0 -129 -129.5 ");
    EXPECT_EQ(conversions(70000.5), "double: 1 127 70000 65535 70000 70000.5 ");
    EXPECT_EQ(conversions(9223372036854775808.0),
              "double: 1 127 2147483647 65535 9223372036854775807 9.22337e+18 ");
    EXPECT_EQ(conversions(-infinity), "double: 1 -128 -2147483648 0 -9223372036854775808 -inf ");
    EXPECT_EQ(conversions(nan), "double: 0 0 0 0 0 nan ");
    // An integer that a double does not hold exactly: rounded once, not twice.
    constexpr long long large = (1LL << 60) + (1LL << 36) + 1;
    for (const auto& [value, nearest] : {std::pair<Variant, float>(large, static_cast<float>(large)),
                                         {-large, static_cast<float>(-large)},
                                         {~0ULL, static_cast<float>(~0ULL)},
                                         {1e300, std::numeric_limits<float>::max()}})
        EXPECT_EQ(value.As<float>(), nearest) << test::shown(value);
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
    Variant tree = sampleTree();
    const auto after = [&](auto assign) {
        Variant value = tree;
        assign(value);
        return value;
    };
    EXPECT_EQ(after([](Variant& v) { v = *&v, v = std::move(*&v); }), tree);
    EXPECT_EQ(after([](Variant& v) { v = v["list"]; }), tree["list"]);
    EXPECT_EQ(after([](Variant& v) { v = std::move(v["list"]); }), tree["list"]);
    EXPECT_EQ(after([](Variant& v) { v["copy"] = v; })["copy"]["list"], tree["list"]);
    EXPECT_EQ(after([](Variant& v) { v = static_cast<const std::string&>(v["text"]); }), Variant(longText));
    EXPECT_EQ(after([](Variant& v) { v = static_cast<const char*>(v["text"]); }), Variant(longText));

    Variant text(longText);
    text = static_cast<const char*>(text) + 2;
    EXPECT_EQ(text, Variant(longText + 2));
    text[static_cast<const std::string&>(text)] = 1;
    EXPECT_NE(text.GetKeyChain(TypeNumeric, longText + 2, false), nullptr);
    Variant keyValues("a=1\nb=2\n");
    EXPECT_TRUE(keyValues.FromKVP(keyValues, true, true, true));
    EXPECT_EQ(keyValues["b"], Variant("2"));
}

TEST(Variant, ReferencesStayValidWhileMembersAreAddedMovedAndCompacted) {
    Variant value;
    Variant& named = value["k500"] = 500;
    Variant& indexed = value[500] = 500;
    std::vector<int> order(1000);
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), std::mt19937(1));
    for (const int i : order) value["k" + std::to_string(i)] = value[i] = i;
    Variant moved = std::move(value);
    const Variant copy = moved;
    moved.Compact();
    EXPECT_EQ(copy, moved);
    EXPECT_EQ(&moved["k500"], &named);
    EXPECT_EQ(&moved[500], &indexed);
    EXPECT_EQ(named, Variant(500));
    int count = 0;
    for (auto member = moved.num_begin(); member != moved.num_end(); ++member, ++count) {
        EXPECT_EQ(member->first, count);
        EXPECT_EQ(member->second, Variant(count));
    }
    EXPECT_EQ(count, 1000);
    EXPECT_EQ(std::distance(moved.begin(), moved.end()), count);
    EXPECT_TRUE(moved.begin() != std::next(moved.begin()));
}

/** A key out of so many, short or long, many of which begin alike. */
std::string keyNumber(unsigned number) {
    return std::string(number % 7, 'k') + std::to_string(number) + std::string(number % 40, 'x');
}

TEST(Variant, RemovesWhatItIsToldToAndNothingElse) {
    constexpr unsigned keys = 600;
    std::mt19937 random(1);
    Variant value;
    std::map<std::string, std::pair<unsigned, Variant*>> named;
    std::map<long long, std::pair<unsigned, Variant*>> indexed;
    const auto toggle = [&](auto& expected, const auto& key, unsigned number) {
        const bool isThere = expected.count(key) > 0;
        EXPECT_EQ(value.Contains(key), isThere) << key;
        EXPECT_EQ(value.Remove(key), isThere) << key;
        EXPECT_FALSE(value.Contains(key)) << key;
        if (isThere) {
            expected.erase(key);
        } else {
            Variant& member = value[key] = number;
            expected[key] = {number, &member};
        }
    };
    for (unsigned round = 0; round < 40000; ++round) {
        // Mostly growing and mostly shrinking by turns.
        const unsigned number = static_cast<unsigned>(random()) % (round / 5000 % 2 == 0 ? keys : keys / 8);
        toggle(named, keyNumber(number), round);
        toggle(indexed, 2 * static_cast<long long>(number) - keys, round);
        if (round % 1000 == 0) value.Compact();
        if (round % 100 != 0) continue;
        ASSERT_EQ(Variant(value), value);
        ASSERT_EQ(value.Size(), named.size() + indexed.size());
        const auto matches = [](auto member, const auto& expected) {
            for (const auto& [key, entry] : expected) {
                ASSERT_EQ(member->first, key);
                ASSERT_EQ(&member->second, entry.second) << key;
                ASSERT_EQ(member->second, entry.first) << key;
                ++member;
            }
        };
        matches(value.begin(), named);
        matches(value.num_begin(), indexed);
    }
    for (; !indexed.empty(); indexed.erase(indexed.begin())) {
        ASSERT_EQ(value.num_begin()->first, indexed.begin()->first);
        ASSERT_TRUE(value.Remove(indexed.begin()->first));
    }
}

TEST(Variant, TheLastMemberLeavesAnEmptyContainerOfTheSameKind) {
    Variant map, array;
    map["text"] = longText;
    EXPECT_TRUE(map.Remove(static_cast<const std::string&>(map["text"] = "text")));
    array[7] = 7;
    array[-1] = sampleTree();
    EXPECT_TRUE(array.Remove(8) && array.Remove(7));
    EXPECT_FALSE(array.Remove(7));
    EXPECT_EQ(test::shown(map), "map ");
    EXPECT_EQ(map.Size(), 0);
    array[-1] = "first again";
    EXPECT_EQ(test::shown(array), "array 0=first again");
}

TEST(Variant, OrdersKeysByBytes) {
    using namespace std::string_literals;
    const std::vector<std::string> sorted = {
        "",      "\0"s,      "\0a"s,        "a",         "a\0"s,       "a\0\0\0\0\0\0\0b"s,
        "a\0b"s, "abcdefgh", "abcdefgh\0"s, "abcdefghi", "abcdefghij", "abd",
        "a\xff", "b\xff",    "\x7f",        "\x80",      "\xff"};
    Variant map;
    for (auto key = sorted.rbegin(); key != sorted.rend(); ++key) map[*key] = *key;
    std::vector<std::string> found;
    for (const auto& [key, value] : map)
        found.emplace_back(value == Variant(std::string(key)) ? key : "mixed up");
    EXPECT_EQ(found, sorted);
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
    EXPECT_EQ(tree.GetKeyChain(TypeMap, "a", true), &tree["a"]);
    for (const VariantType type : {TypeString, TypeDouble})
        EXPECT_EQ(tree.GetKeyChain(type, "a/b", true), nullptr) << type;
    EXPECT_EQ(tree.GetKeyChain(TypeAny, nullptr, true), nullptr);
    EXPECT_EQ(tree, before);
}

TEST(Variant, EqualsOnlyTheSameValueOfTheSameType) {
    EXPECT_NE(Variant(1), Variant(1LL));
    EXPECT_NE(Variant(1), Variant(true));
    EXPECT_NE(Variant(0), Variant());
    EXPECT_EQ(Variant(nan), Variant(nan));
    EXPECT_EQ(Variant(static_cast<const char*>(nullptr)), Variant());
    Variant tree = sampleTree();
    tree[0] = 1;
    EXPECT_NE(tree, sampleTree());
    EXPECT_NE(sampleTree(), tree);
}

TEST(Variant, EqualsTheNumberThatAHostComparesItWith) {
    EXPECT_NE(Variant(1.5), 1);
    EXPECT_NE(Variant(), 0.0);
    EXPECT_NE(Variant(), 0);
    EXPECT_NE(Variant("0"), 0.0);
    EXPECT_EQ(Variant(-9223372036854775808.0), std::numeric_limits<long long>::min());
}

TEST(Variant, MarkingTheKindKeepsTheMembersOfAContainerAndMakesAnEmptyOneOfAnyOtherValue) {
    Variant tree = sampleTree();
    tree.IsArray(true);
    EXPECT_STREQ(typeName(tree), "array");
    EXPECT_NE(tree, sampleTree());
    tree.IsArray(false);
    EXPECT_EQ(tree, sampleTree());
    Variant text("text");
    text.IsArray(false);
    EXPECT_EQ(test::shown(text), "map ");
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
