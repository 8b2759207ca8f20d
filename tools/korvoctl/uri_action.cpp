#include <string>

#include "actions.h"
#include "korvo/variant_utils/uri.h"

namespace korvoctl {
namespace {

using korvo::variant::URI;

const char hidden[] = "***";

/** Hides the password in the text that was parsed. The user-info stands right behind the schema. */
std::string withoutPassword(std::string text, const URI& parsed) {
    URI uri = parsed;
    const std::size_t begin = text.find("://") + 3 + uri.userName().size() + 1;
    return text.replace(begin, uri.password().size(), hidden);
}

void hidePassword(URI& uri) {
    if (uri.password().empty()) return;
    for (const char* key : {"originalUri", "fullUriWithAuth"}) uri[key] = withoutPassword(uri[key], uri);
    uri["password"] = hidden;
}

}  // namespace

ExitStatus parseAndPrintUri(const Options& options) {
    URI uri;
    if (!URI::FromString(options.text("uri"), options.has("resolve"), uri))
        return Failed;  // the library has said why
    if (!options.has("show-password")) hidePassword(uri);
    const bool wantsBase = options.has("base");
    const bool wantsDerived = options.has("derive");
    if (!wantsBase && !wantsDerived) {
        printRecord(uri);
        return Done;
    }
    const std::string base = uri.baseURI();
    if (base.empty()) return failed("a URI without schema, host or path has no base URI");
    if (wantsBase) printLine(base);
    if (wantsDerived) printLine(uri.derivedURI(options.text("derive"), options.has("with-parameters")));
    return Done;
}

}  // namespace korvoctl
