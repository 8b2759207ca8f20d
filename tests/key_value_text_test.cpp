#include <gtest/gtest.h>

#include <limits>

#include "korvo/variant/variant.h"
#include "support/cases.h"
#include "support/locales.h"
#include "support/variant_printer.h"

using namespace korvo::variant;

namespace {

std::string exported(const Variant& tree, const std::string& separator = "=", const std::string& end = "\n") {
    std::string text = "refused";
    const bool isWritten = tree.ToKVP(text, separator, end);
    EXPECT_EQ(isWritten, text != "refused");
    return text;
}

TEST(KeyValueText, IsWrittenInKeyOrderOrRefusedWhenItCouldNotBeGivenBack) {
    std::string deepest = "k";
    for (std::size_t i = 1; i < maxKeyComponents; ++i) deepest += ".k";
    auto cases = test::readCases("key_value_lines.txt");
    cases.emplace_back(deepest + "=1", deepest + "=1\n");
    cases.emplace_back("k." + deepest + "=1", "refused");
    for (const auto& [text, written] : cases) {
        Variant tree(7), again;
        EXPECT_EQ(tree.FromKVP(text, true, true, true), written != "refused") << text;
        EXPECT_EQ(exported(tree), written) << text;
        if (written == "refused") {
            EXPECT_EQ(tree, Variant(7)) << text;
        } else {
            ASSERT_TRUE(again.FromKVP(written, true, true, true)) << text;
            EXPECT_EQ(again, tree) << text;
        }
    }
}

TEST(KeyValueText, HoldsAsNumberOnlyWhatReadsBackAsTyped) {
    test::inEveryLocale([] {
        for (const auto& [text, held] : test::readCases("key_value_numbers.txt")) {
#if _GLIBCXX_RELEASE < 12
            if (text == "5e-324") continue;  // its from_chars() refuses subnormal numbers
#endif
            Variant tree;
            ASSERT_TRUE(tree.FromKVP("k=" + text, false, false, true)) << text;
            EXPECT_EQ(test::shown(tree["k"]), held);
            EXPECT_EQ(exported(tree), "k=" + text + "\n");
        }
    });
}

TEST(KeyValueText, WritesEveryTypeAndLeavesOutWhatHasNoText) {
    Variant tree;
    tree["bool"][0] = true;
    tree["bool"][10] = false;
    tree["bool"][9] = "nine";
    tree["double"] = 1.0;
    tree["int8"] = static_cast<signed char>(-8);
    tree["inf"] = std::numeric_limits<double>::infinity();
    tree["nan"] = -std::numeric_limits<double>::quiet_NaN();
    // What has no line may have any key.
    tree["a=b"] = tree["#"] = tree["none"]["."] = Variant();
    tree["a.b"].IsArray(false);
    tree["bool"]["10"] = tree["bool"]["9"]["none"] = tree["twin"][0]["none"] = Variant();
    tree["twin"]["0"] = "text";
    EXPECT_EQ(exported(tree),
              "bool.0=1\nbool.9=nine\nbool.10=0\ndouble=1.0\ninf=inf\nint8=-8\nnan=nan\ntwin.0=text\n");
    EXPECT_EQ(exported(Variant()), "");
}

TEST(KeyValueText, IsNotWrittenWhereItWouldReadBackAsAnotherTree) {
    Variant twice, below, dotted, tooDeep(1);
    twice["x"][1] = twice["x"]["1"] = "index and text";
    below["x"][1] = below["x"]["1"]["y"] = "index and group";
    dotted["a.b"]["c"] = "1";
    for (std::size_t level = 0; level <= maxKeyComponents; ++level) {
        Variant outer;
        outer["k"] = std::move(tooDeep);
        tooDeep = std::move(outer);
    }
    for (const Variant& tree : {twice, below, dotted, tooDeep, Variant(5), Variant("text")})
        EXPECT_EQ(exported(tree), "refused");
}

TEST(KeyValueText, IsWrittenOnlyWithSeparatorsAtWhichItCanBeSplit) {
    const struct {
        const char *key, *value, *separator, *end, *written;
    } rows[] = {{"ok", "1", "=", "\n", "ok=1\n"},   {"a=b", "", "=", "\n", "refused"},
                {"a\nb", "", "=", "\n", "refused"}, {"a.b", "", "=", "\n", "refused"},
                {"#a", "", "=", "\n", "refused"},   {"k", "a\nb", "=", "\n", "refused"},
                {"k", "a\r", "=", "\n", "refused"}, {"a=b", "c\nd", ": ", ";", "a=b: c\nd;"},
                {"k", "v", "", "", "kv"},           {"", "", "", "", ""},
                {"k", "v", ".", "\n", "k.v\n"},     {"k", "a;b", ": ", ";", "refused"},
                {"a: b", "", ": ", ";", "refused"}, {"a:", "", "::", ";", "refused"},
                {"k", "1;", "=", ";;", "refused"},  {"", "v", "#", "\n", "refused"}};
    for (const auto& row : rows) {
        Variant tree;
        tree[row.key] = row.value;
        EXPECT_EQ(exported(tree, row.separator, row.end), row.written)
            << row.key << row.separator << row.value;
    }
    Variant path;
    path["a"]["b"] = "v";
    EXPECT_EQ(exported(path, ".", "\n"), "refused");
}

}  // namespace
