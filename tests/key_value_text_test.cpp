#include <gtest/gtest.h>

#include <array>
#include <limits>

#include "korvo/variant/variant.h"
#include "support/cases.h"
#include "support/locales.h"
#include "support/variant_printer.h"

using namespace korvo::variant;

namespace {

std::string exported(const Variant& tree, const std::string& separator = "=", const std::string& end = "\n") {
    std::string text = "refused";
    (void)tree.ToKVP(text, separator, end);
    return text;
}

TEST(KeyValueText, ReadsLinesAndWritesThemInKeyOrder) {
    for (const auto& [text, written] : test::readCases("key_value_lines.txt")) {
        SCOPED_TRACE(text);
        Variant tree, again;
        ASSERT_TRUE(tree.FromKVP(text, true, true, true));
        ASSERT_TRUE(again.FromKVP(written, true, true, true));
        EXPECT_STREQ(typeName(tree), "map");
        EXPECT_EQ(exported(tree), written);
        EXPECT_EQ(again, tree);
    }
}

TEST(KeyValueText, RefusesWhatItCouldNotGiveBackAndKeepsTheValue) {
    std::string sixtyFour = "k";
    for (int i = 1; i < 64; ++i) sixtyFour += ".k";
    auto cases = test::readCases("key_value_refused.txt");
    cases.emplace_back(std::string(300000, '.') + "=1", "too deep");
    cases.emplace_back("k." + sixtyFour + "=1", "too deep");
    for (const auto& [text, why] : cases) {
        Variant tree(7);
        EXPECT_FALSE(tree.FromKVP(text, true, true, true)) << why << ": " << text.substr(0, 100);
        EXPECT_EQ(tree, Variant(7)) << why;
    }
    Variant deepest, deeper;
    ASSERT_TRUE(deepest.FromKVP(sixtyFour + "=1", true, true, true));
    EXPECT_EQ(exported(deepest), sixtyFour + "=1\n");
    deeper["k"] = deepest;
    EXPECT_EQ(exported(deeper), "refused");
}

TEST(KeyValueText, HoldsAsNumberOnlyWhatReadsBackAsTyped) {
    test::inEveryLocale([] {
        for (const auto& [text, held] : test::readCases("key_value_numbers.txt")) {
#if _GLIBCXX_RELEASE < 12
            if (text == "5e-324") continue;  // its from_chars() refuses subnormal numbers
#endif
            SCOPED_TRACE(text);
            Variant tree;
            ASSERT_TRUE(tree.FromKVP("k=" + text, false, false, true));
            EXPECT_EQ(test::shown(tree["k"]), held);
            EXPECT_EQ(exported(tree), "k=" + text + "\n");
        }
    });
}

TEST(KeyValueText, WritesEveryTypeAndLeavesOutWhatHasNoText) {
    test::inEveryLocale([] {
        Variant tree;
        tree["bool"][0] = true;
        tree["bool"][10] = false;
        tree["bool"][9] = "nine";
        tree["double"] = 1.0;
        tree["int8"] = static_cast<signed char>(-8);
        tree["inf"] = std::numeric_limits<double>::infinity();
        tree["nan"] = std::numeric_limits<double>::quiet_NaN();
        tree["negative nan"] = -std::numeric_limits<double>::quiet_NaN();
        tree["null"] = Variant();
        tree["none"].IsArray(true);
        // What has no line may have any key.
        tree["a=b"] = tree["#"] = tree["none"]["."] = Variant();
        tree["a.b"].IsArray(false);
        tree["bool"]["10"] = tree["bool"]["9"]["none"] = tree["twin"][0]["none"] = Variant();
        tree["twin"]["0"] = "text";
        EXPECT_EQ(exported(tree),
                  "bool.0=1\nbool.9=nine\nbool.10=0\ndouble=1.0\ninf=inf\nint8=-8\nnan=nan\n"
                  "negative nan=nan\ntwin.0=text\n");
        EXPECT_EQ(exported(Variant()), "");
    });
}

TEST(KeyValueText, DoesNotWriteWhatWouldReadBackAsAnotherTree) {
    const auto with = [](const std::string& key, const std::string& value) {
        Variant tree;
        tree["ok"] = "1";
        tree[key] = value;
        return tree;
    };
    Variant twice, below, dotted;
    twice["x"][1] = "index";
    twice["x"]["1"] = "text";
    below["x"][1] = "index";
    below["x"]["1"]["y"] = "text";
    dotted["a.b"]["c"] = "1";
    for (const Variant& tree : {with("a=b", ""), with("a\nb", ""), with("a.b", ""), with("#a", ""),
                                with("k", "a\nb"), with("k", "a\r"), with("long key that goes on.", ""),
                                with("k", "a text of some length\nand more of it"), twice, below, dotted,
                                Variant(5), Variant("text")})
        EXPECT_EQ(exported(tree), "refused");
}

TEST(KeyValueText, WritesWithOtherSeparatorsWhatCanBeSplitAtThem) {
    Variant tree;
    for (const auto& [key, value, separator, end, written] : {std::array{"k", "a: b", ": ", ";", "k: a: b;"},
                                                              {"a=b", "c\nd", ": ", ";", "a=b: c\nd;"},
                                                              {"k", "v", "", "", "kv"},
                                                              {"", "", "", "", ""},
                                                              {"k", "v", ".", "\n", "k.v\n"},
                                                              {"k", "a;b", ": ", ";", "refused"},
                                                              {"a: b", "", ": ", ";", "refused"},
                                                              {"a:", "", "::", ";", "refused"},
                                                              {"k", "1;", "=", ";;", "refused"},
                                                              {"", "v", "#", "\n", "refused"},
                                                              {"k", "v", ";", ";", "refused"}}) {
        tree.Reset();
        tree[key] = value;
        EXPECT_EQ(exported(tree, separator, end), written) << key << separator << value << end;
    }
    tree.Reset();
    tree["a"]["b"] = "v";
    EXPECT_EQ(exported(tree, ".", "\n"), "refused");
}

}  // namespace
