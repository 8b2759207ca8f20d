#include <string>

#include "arguments.h"
#include "commands.h"
#include "korvo/variant_utils/uri.h"
#include "output.h"

namespace korvoctl {
namespace {

using korvo::variant::URI;

const char hidden[] = "***";

/** Hides the password in the text that was parsed. The user-info stands right after the schema. */
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

ExitStatus parseAndPrintUri(const Arguments& arguments) {
    const bool wantsBase = arguments.has("base");
    const bool wantsDerived = arguments.has("derive");
    if (arguments.has("with-parameters") && !wantsDerived)
        return wrongUsage("--with-parameters goes with --derive", "uri");
    URI uri;
    // The text is not repeated: it may hold a password.
    if (!URI::FromString(arguments.operand(), arguments.has("resolve"), uri))
        return failed("the URI is refused: " + libraryFailure());
    if (!arguments.has("show-password")) hidePassword(uri);
    if (!wantsBase && !wantsDerived) {
        printRecord(uri, arguments.has("json"));
        return Done;
    }
    const std::string base = uri.baseURI();
    if (base.empty()) return failed("a URI without schema, host or path has no base URI");
    korvo::variant::Variant results;
    if (wantsBase) results["base"] = base;
    if (wantsDerived)
        results["derived"] = uri.derivedURI(arguments.text("derive"), arguments.has("with-parameters"));
    if (arguments.has("json")) {
        printRecord(results, true);
    } else {
        for (const auto& result : results) printLine(result.second);
    }
    return Done;
}

}  // namespace korvoctl
