// Any text: parseURI() fills the whole record or nothing, and what it fills in fits together.

#include "korvo/variant_utils/uri.h"

#include "fuzz.h"

using namespace korvo::variant;

namespace {

std::string member(URI& uri, const char* key) {
    FUZZ_CHECK(VariantType(uri[key]) == TypeString);
    return uri[key];
}

void checkRecord(URI& uri, const std::string& text) {
    const std::string path = member(uri, "fullDocumentPath");
    FUZZ_CHECK(member(uri, "fullUriWithAuth") == text);
    FUZZ_CHECK(member(uri, "documentPath") + member(uri, "document") == path);
    FUZZ_CHECK(member(uri, "fullDocumentPathWithParameters").compare(0, path.size(), path) == 0);
    FUZZ_CHECK((uri.port() == 0) == (uri.schema() == "file"));
    FUZZ_CHECK(VariantType(uri["parameters"]) == TypeMap);
    for (const auto& [name, value] : uri["parameters"])
        FUZZ_CHECK(!name.empty() && VariantType(value) == TypeString);
    const std::string base = uri.baseURI();
    FUZZ_CHECK(base.empty() == (uri.schema().empty() || uri.host().empty() || uri.documentPath().empty()));
    FUZZ_CHECK(uri.derivedURI("x", false) == base + "x");
    FUZZ_CHECK(uri.Size() == 16);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::beSilent();
    const std::string text(reinterpret_cast<const char*>(data), size);
    URI uri;
    uri["stale"] = 1;
    if (parseURI(text, uri))
        checkRecord(uri, text);
    else
        FUZZ_CHECK(VariantType(uri) == TypeNull);
    return 0;
}
