// Any text: parseURI() fills the whole record or nothing, and what it fills in fits together.

#include "korvo/variant_utils/uri.h"

#include <iterator>

#include "fuzz.h"

using namespace korvo::variant;

namespace {

std::string member(URI& uri, const char* key) {
    FUZZ_CHECK(VariantType(uri[key]) == TypeString);
    return uri[key];
}

void checkRecord(URI uri, const std::string& text) {
    FUZZ_CHECK(std::distance(uri.begin(), uri.end()) == 16);
    FUZZ_CHECK(member(uri, "fullUriWithAuth") == text);
    FUZZ_CHECK(member(uri, "documentPath") + member(uri, "document") == member(uri, "fullDocumentPath"));
    const std::string path = member(uri, "fullDocumentPath");
    FUZZ_CHECK(member(uri, "fullDocumentPathWithParameters").compare(0, path.size(), path) == 0);
    FUZZ_CHECK((uri.port() == 0) == (uri.schema() == "file"));
    const Variant& parameters = uri["parameters"];
    FUZZ_CHECK(VariantType(parameters) == TypeMap);
    for (const auto& parameter : parameters) {
        FUZZ_CHECK(!parameter.first.empty() && VariantType(parameter.second) == TypeString);
    }

    const std::string base = uri.baseURI();
    FUZZ_CHECK(base.empty() == (uri.schema().empty() || uri.host().empty() || uri.documentPath().empty()));
    FUZZ_CHECK(uri.derivedURI("x", false) == base + "x");
    FUZZ_CHECK(std::distance(uri.begin(), uri.end()) == 16);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::beSilent();
    const std::string text(reinterpret_cast<const char*>(data), size);
    URI uri;
    uri["stale"] = 1;
    if (parseURI(text, uri)) {
        checkRecord(uri, text);
    } else {
        FUZZ_CHECK(VariantType(uri) == TypeNull);
    }
    return 0;
}
