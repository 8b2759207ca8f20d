// Any text: what is imported can be exported, and imported again as an equal tree; the rest is refused.

#include "fuzz.h"
#include "korvo/variant/variant.h"

using namespace korvo::variant;

void check(const std::string& input) {
    for (const bool valuesAsStrings : {true, false}) {
        Variant tree("as it was"), again;
        if (!tree.FromKVP(input, true, valuesAsStrings, true)) {
            FUZZ_CHECK(tree == Variant("as it was"));
            continue;
        }
        std::string written, writtenAgain;
        FUZZ_CHECK(tree.ToKVP(written, "=", "\n"));
        FUZZ_CHECK(again.FromKVP(written, true, valuesAsStrings, true) && again == tree);
        FUZZ_CHECK(again.ToKVP(writtenAgain, "=", "\n") && writtenAgain == written);
        again.Compact();
        FUZZ_CHECK(again == tree);
    }
}
