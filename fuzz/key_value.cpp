// Any text: what is imported can be exported, and imported again as an equal tree; the rest is refused.

#include "fuzz.h"
#include "korvo/variant/variant.h"

using namespace korvo::variant;

namespace {

void checkRoundTrip(const std::string& text, bool valuesAsStrings) {
    Variant tree("as it was");
    if (!tree.FromKVP(text, true, valuesAsStrings, true)) {
        FUZZ_CHECK(tree == Variant("as it was"));
        return;
    }
    std::string written;
    std::string writtenAgain;
    Variant again;
    FUZZ_CHECK(tree.ToKVP(written, "=", "\n"));
    FUZZ_CHECK(again.FromKVP(written, true, valuesAsStrings, true));
    FUZZ_CHECK(again == tree);
    FUZZ_CHECK(again.ToKVP(writtenAgain, "=", "\n"));
    FUZZ_CHECK(writtenAgain == written);
    Variant copy = tree;
    copy.Compact();
    FUZZ_CHECK(copy == tree);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    checkRoundTrip(text, true);
    checkRoundTrip(text, false);
    return 0;
}
