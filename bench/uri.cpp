// URI text to a record whose every member can be read by name. A peer parses a text and shows the parts as
// views of its own memory; what fills the same record from them stands here once.

#include <glib.h>
#include <korvo/utils/text.h>
#include <korvo/variant_utils/uri.h>
#include <uriparser/Uri.h>

#include <algorithm>
#include <boost/url.hpp>
#include <cstdlib>
#include <map>
#include <nlohmann/json.hpp>

#include "bench.h"

namespace {

using namespace bench;
using korvo::variant::URI;
using Json = nlohmann::json;

/** What every parser finds in a URI; port 0 stands for none. */
struct Parts {
    std::string_view schema, user, password, host, path, query;
    int port = 0;
};

/** Receives parts that are gone when it returns. */
using Use = std::function<void(const Parts&)>;

std::string_view view(const char* text) { return text != nullptr ? text : ""; }
std::string_view view(const UriTextRangeA& range) {
    return {range.first, static_cast<std::size_t>(range.afterLast - range.first)};
}

bool parseWithUriparser(const std::string& text, const Use& use) {
    UriUriA uri{};
    if (uriParseSingleUriA(&uri, text.c_str(), nullptr) != URI_SUCCESS) return false;
    const Owner<UriUriA, uriFreeUriMembersA> owner(&uri);
    Parts parts{view(uri.scheme), view(uri.userInfo), {}, view(uri.hostText), {}, view(uri.query)};
    const std::size_t colon = parts.user.find(':');
    if (colon != std::string_view::npos) parts.password = parts.user.substr(colon + 1);
    parts.user = parts.user.substr(0, colon);
    if (uri.portText.first != nullptr) parts.port = std::atoi(uri.portText.first);
    if (uri.pathHead != nullptr) {
        // A list of segments, of which an empty one, as after the last slash, points elsewhere.
        const auto [first, afterLast] = uri.pathHead->text;
        const char* end = uri.query.first != nullptr ? uri.query.first - 1 : text.c_str() + text.size();
        const char* begin = (first != afterLast ? first : end) - 1;
        parts.path = {begin, static_cast<std::size_t>(end - begin)};
    }
    use(parts);
    return true;
}

bool parseWithGlib(const std::string& text, const Use& use) {
    const auto flags = GUriFlags(G_URI_FLAGS_HAS_PASSWORD | G_URI_FLAGS_ENCODED);
    const Owner<GUri, g_uri_unref> owner(g_uri_parse(text.c_str(), flags, nullptr));
    GUri* const uri = owner.get();
    if (uri == nullptr) return false;
    use({view(g_uri_get_scheme(uri)), view(g_uri_get_user(uri)), view(g_uri_get_password(uri)),
         view(g_uri_get_host(uri)), view(g_uri_get_path(uri)), view(g_uri_get_query(uri)),
         std::max(g_uri_get_port(uri), 0)});
    return true;
}

bool parseWithBoost(const std::string& text, const Use& use) {
    const auto uri = boost::urls::parse_uri(text);
    if (!uri.has_value()) return false;
    const auto part = [](const auto& found) { return std::string_view(found.data(), found.size()); };
    use({part(uri->scheme()), part(uri->encoded_user()), part(uri->encoded_password()),
         part(uri->encoded_host()), part(uri->encoded_path()), part(uri->encoded_query()),
         uri->port_number()});
    return true;
}

const std::pair<std::string, bool (*)(const std::string& text, const Use& use)> peers[] = {
    {"uriparser", parseWithUriparser}, {"GLib", parseWithGlib}, {"Boost.URL", parseWithBoost}};

int defaultPort(const std::string& schema) {
    static const std::map<std::string, int> ports = {
        {"http", 80},  {"rtmpt", 80},  {"rtmpte", 80},  {"https", 443},    {"rtmps", 443},
        {"rtsp", 554}, {"rtmp", 1935}, {"rtmpe", 1935}, {"websock", 7080}, {"websocks", 7443}};
    const auto found = ports.find(schema);
    return found != ports.end() ? found->second : 0;
}

Json parameters(std::string_view query) {
    Json map = Json::object();
    while (!query.empty()) {
        const std::string_view piece = query.substr(0, query.find('&'));
        const std::size_t equals = std::min(piece.find('='), piece.size());
        if (equals > 0)
            map[std::string(piece.substr(0, equals))] = piece.substr(std::min(equals + 1, piece.size()));
        query.remove_prefix(std::min(piece.size() + 1, query.size()));
    }
    return map;
}

/** The members of a record, from the parts that a peer has found. */
Json record(const std::string& text, const Parts& parts) {
    std::string schema = korvo::utils::lowerCase(std::string(parts.schema));
    std::string path(parts.path.empty() ? "/" : parts.path);
    const std::size_t colon = schema.compare(0, 4, "rtmp") == 0 ? path.find(':') : std::string::npos;
    const std::size_t documentAt = path.rfind('/', colon) + 1;
    std::string document = path.substr(documentAt);
    const std::string query = parts.query.empty() ? std::string() : "?" + std::string(parts.query);
    std::string withoutUserInfo = text;
    const std::size_t authority = text.find("://") + 3;
    const std::size_t at = text.find('@', authority);
    if (at < text.find('/', authority)) withoutUserInfo.erase(authority, at + 1 - authority);

    Json uri;
    uri["port"] = parts.port != 0 ? parts.port : defaultPort(schema);
    uri["portSpecified"] = parts.port != 0;
    uri["schema"] = std::move(schema);
    uri["userName"] = parts.user;
    uri["password"] = parts.password;
    uri["host"] = parts.host;
    uri["parameters"] = parameters(parts.query);
    uri["fullParameters"] = parts.query;
    uri["documentPath"] = path.substr(0, documentAt);
    uri["documentWithFullParameters"] = document + query;
    uri["document"] = std::move(document);
    uri["fullDocumentPathWithParameters"] = path + query;
    uri["fullDocumentPath"] = std::move(path);
    uri["fullUri"] = std::move(withoutUserInfo);
    uri["fullUriWithAuth"] = text;
    uri["originalUri"] = text;
    return uri;
}

bool isSame(const Json& theirs, const korvo::variant::Variant& mine) {
    if (theirs.is_string()) return mine == theirs.get<std::string>();
    if (!theirs.is_object()) return mine == theirs.get<int>();
    bool same = theirs.size() == mine.Size();
    for (const auto& [key, member] : theirs.items()) same = same && isSame(member, mine[key]);
    return same;
}

}  // namespace

void bench::addUriRows() {
    static const std::vector<std::string> texts = dataLines("uris.txt");
    const std::string work = std::to_string(texts.size()) + " URI texts to records";
    add(work, ours, 0, [] {
        for (const std::string& text : texts) {
            URI uri;
            benchmark::DoNotOptimize(parseURI(text, uri));
            benchmark::DoNotOptimize(uri);
        }
    });
    for (const auto& [who, parse] : peers) {
        for (const std::string& text : texts) {
            URI uri;
            bool same = false;
            const auto compare = [&](const Parts& parts) { same = isSame(record(text, parts), uri); };
            require(parseURI(text, uri) && parse(text, compare) && same, who + " differs: " + text);
        }
        const auto parseAll = [parse = parse](auto use) {
            for (const std::string& text : texts)
                parse(text, [&](const Parts& parts) { benchmark::DoNotOptimize(use(text, parts)); });
        };
        add(work, who, 0, [=] { parseAll(record); });
        add(work, who + ", bare parse", 0,
            [=] { parseAll([](auto& /*text*/, auto& parts) { return parts; }); });
    }
}
