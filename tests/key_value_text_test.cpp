#include <gtest/gtest.h>

#include <limits>

#include "korvo/variant/variant.h"
#include "support/cases.h"
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
    for (const auto& [text, written] : test::readCases("key_value_lines.txt")) {
        const bool isTaken = written != "refused";
        Variant tree(7), again(7);
        EXPECT_EQ(tree.FromKVP(text, true, true, true), isTaken);
        EXPECT_EQ(exported(tree), written);
        EXPECT_EQ(again.FromKVP(written, true, true, true), isTaken);
        EXPECT_EQ(again, tree);
    }
}

TEST(KeyValueText, HoldsAsNumberOnlyWhatReadsBackAsTyped) {
    for (const auto& [text, held] : test::readCases("key_value_numbers.txt")) {
        Variant tree;
        ASSERT_TRUE(tree.FromKVP("k=" + text, false, false, true));
        EXPECT_EQ(test::shown(tree["k"]), held);
        EXPECT_EQ(exported(tree), "k=" + text + "\n");
    }
}

TEST(KeyValueText, WritesEveryTypeAndLeavesOutWhatHasNoText) {
    Variant tree;
    tree["bool"][10] = true;
    tree["bool"][9] = false;
    tree["double"] = 1.0;
    tree["int8"] = static_cast<signed char>(-8);
    tree["nan"] = -std::numeric_limits<double>::quiet_NaN();
    // What has no line may have any key.
    tree["a=b"] = tree["#"] = tree["a.b"]["."] = tree["bool"]["10"] = tree["twin"][0]["none"] = Variant();
    tree["twin"]["0"] = "text";
    EXPECT_EQ(exported(tree), "bool.9=0\nbool.10=1\ndouble=1.0\nint8=-8\nnan=nan\ntwin.0=text\n");
}

TEST(KeyValueText, IsNotWrittenWhereItWouldReadBackAsAnotherTree) {
    Variant twice, below, dotted, value, tooDeep;
    twice["x"][1] = twice["x"]["1"] = "index and text";
    below["x"][1] = below["x"]["1"]["y"] = "index and group";
    dotted["a.b"]["c"] = "1";
    value["k"] = "a\r";
    Variant* innermost = &tooDeep;
    for (std::size_t level = 0; level <= maxKeyComponents; ++level) innermost = &(*innermost)["k"];
    *innermost = 1;
    for (const Variant& tree : {twice, below, dotted, value, tooDeep, Variant("text")})
        EXPECT_EQ(exported(tree), "refused");
    for (const char* key : {"a=b", "a\nb", "a.b", "#a"}) {
        Variant tree;
        tree[key] = "";
        EXPECT_EQ(exported(tree), "refused") << key;
    }
    EXPECT_EQ(exported(dotted["a.b"], "c", "\n"), "refused");
    EXPECT_EQ(exported(dotted["a.b"], "::", "1"), "refused");
    EXPECT_EQ(exported(dotted["a.b"], "::", ""), "c::1");
}

}  // namespace
