// Any text: parseURI() fills the whole record or nothing, and what it fills in fits together.

#include "korvo/variant_utils/uri.h"

#include "fuzz.h"

using namespace korvo::variant;

void check(const std::string& input) {
    URI uri;
    uri["stale"] = 1;
    if (!parseURI(input, uri)) {
        FUZZ_CHECK(VariantType(uri) == TypeNull);
        return;
    }
    const std::string path = uri["fullDocumentPath"], whole = uri["fullDocumentPathWithParameters"];
    FUZZ_CHECK(uri["fullUriWithAuth"] == input);
    FUZZ_CHECK(uri.documentPath() + uri["document"].As<std::string>() == path);
    FUZZ_CHECK(whole.compare(0, path.size(), path) == 0);
    FUZZ_CHECK((uri.port() == 0) == (uri.schema() == "file"));
    FUZZ_CHECK(VariantType(uri["parameters"]) == TypeMap);
    for (const auto& [name, value] : uri["parameters"])
        FUZZ_CHECK(!name.empty() && VariantType(value) == TypeString);
    const std::string base = uri.baseURI();
    FUZZ_CHECK(base.empty() == (uri.schema().empty() || uri.host().empty() || uri.documentPath().empty()));
    FUZZ_CHECK(uri.derivedURI("x", false) == base + "x");
    FUZZ_CHECK(uri.Size() == 16);
}
