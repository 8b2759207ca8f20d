// URI text to a record whose every field can be read by name. A peer parses a text and shows the parts as
// views of its own memory; what fills a record from them stands here once.

#include <Poco/Exception.h>
#include <Poco/URI.h>
#include <curl/curl.h>
#include <glib.h>
#include <korvo/variant_utils/uri.h>
#include <uriparser/Uri.h>

#include <algorithm>
#include <boost/url.hpp>
#include <cstdlib>
#include <functional>
#include <nlohmann/json.hpp>

#include "bench.h"

namespace bench {
namespace {

using korvo::variant::URI;
using korvo::variant::Variant;
using Json = nlohmann::json;

/** What every parser finds in a URI; port 0 stands for none. */
struct Parts {
    std::string_view schema, user, password, host, path, query;
    unsigned port = 0;

    void splitUserInfo(std::string_view userInfo) {
        const std::size_t colon = userInfo.find(':');
        user = userInfo.substr(0, colon);
        if (colon != std::string_view::npos) password = userInfo.substr(colon + 1);
    }
};

/** Receives parts that are gone when it returns. */
using Use = std::function<void(const Parts&)>;

std::string_view view(const char* text) { return text != nullptr ? text : ""; }

bool parseWithCurl(const std::string& text, const Use& use) {
    static const CURLUPart wanted[] = {CURLUPART_SCHEME, CURLUPART_USER,  CURLUPART_PASSWORD, CURLUPART_HOST,
                                       CURLUPART_PATH,   CURLUPART_QUERY, CURLUPART_PORT};
    const Owner<CURLU, curl_url_cleanup> url(curl_url());
    if (curl_url_set(url.get(), CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK)
        return false;
    Owner<char, curl_free> owners[std::size(wanted)];
    std::string_view parts[std::size(wanted)];
    for (std::size_t i = 0; i < std::size(wanted); ++i) {
        char* part = nullptr;
        (void)curl_url_get(url.get(), wanted[i], &part, 0);
        owners[i].reset(part);
        parts[i] = view(part);
    }
    use({parts[0], parts[1], parts[2], parts[3], parts[4], parts[5],
         static_cast<unsigned>(std::atoi(parts[6].data()))});
    return true;
}

std::string_view view(const UriTextRangeA& range) {
    return {range.first, static_cast<std::size_t>(range.afterLast - range.first)};
}

bool parseWithUriparser(const std::string& text, const Use& use) {
    UriUriA uri{};
    const char* error = nullptr;
    if (uriParseSingleUriA(&uri, text.c_str(), &error) != URI_SUCCESS) return false;
    const Owner<UriUriA, uriFreeUriMembersA> owner(&uri);
    Parts parts;
    parts.schema = view(uri.scheme);
    parts.splitUserInfo(view(uri.userInfo));
    parts.host = view(uri.hostText);
    for (const char digit : view(uri.portText))
        parts.port = parts.port * 10 + static_cast<unsigned>(digit - '0');
    if (uri.pathHead != nullptr) {
        // An empty segment, as after the last slash, points elsewhere.
        const char* end = uri.query.first != nullptr ? uri.query.first - 1 : text.c_str() + text.size();
        const UriTextRangeA& head = uri.pathHead->text;
        const char* begin = head.first != head.afterLast ? head.first - 1 : end - 1;
        parts.path = {begin, static_cast<std::size_t>(end - begin)};
    }
    parts.query = view(uri.query);
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
         static_cast<unsigned>(std::max(g_uri_get_port(uri), 0))});
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

bool parseWithPoco(const std::string& text, const Use& use) {
    try {
        const Poco::URI uri(text);
        Parts parts{uri.getScheme(),       {}, {}, uri.getHost(), uri.getPath(), uri.getRawQuery(),
                    uri.getSpecifiedPort()};
        parts.splitUserInfo(uri.getUserInfo());
        use(parts);
        return true;
    } catch (const Poco::Exception&) {
        return false;
    }
}

struct Peer {
    const char* who;
    bool (*parse)(const std::string& text, const Use& use);  ///< false when it refuses the text
};

const Peer peers[] = {{"libcurl", parseWithCurl},
                      {"uriparser", parseWithUriparser},
                      {"GLib", parseWithGlib},
                      {"Boost.URL", parseWithBoost},
                      {"POCO", parseWithPoco}};

unsigned defaultPort(const std::string& schema) {
    static const std::map<std::string, unsigned> ports = {
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
        const std::string_view value = piece.substr(std::min(equals + 1, piece.size()));
        if (equals > 0) map[std::string(piece.substr(0, equals))] = std::string(value);
        query.remove_prefix(std::min(piece.size() + 1, query.size()));
    }
    return map;
}

/** Fills the sixteen members of a record from the parts that a peer has found. */
Json record(const std::string& text, const Parts& parts) {
    std::string schema(parts.schema);
    for (char& letter : schema)
        letter = static_cast<char>(letter >= 'A' && letter <= 'Z' ? letter + 32 : letter);
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
    uri["userName"] = std::string(parts.user);
    uri["password"] = std::string(parts.password);
    uri["host"] = std::string(parts.host);
    uri["parameters"] = parameters(parts.query);
    uri["fullParameters"] = std::string(parts.query);
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

Json asJson(Variant& value) {
    const auto type = value.As<korvo::variant::VariantType>();
    if (type == korvo::variant::TypeString) return value.As<std::string>();
    if (type == korvo::variant::TypeBool) return value.As<bool>();
    if ((type & korvo::variant::TypeNumeric) != 0) return value.As<unsigned>();
    Json map = Json::object();
    for (const auto& member : value) map[std::string(member.first)] = asJson(member.second);
    return map;
}

/** The texts, of which all peers find the same parts as we do. */
std::vector<std::string> checkedTexts() {
    const std::vector<std::string> texts = dataLines("uris.txt");
    for (const std::string& text : texts) {
        URI uri;
        require(parseURI(text, uri), "refused by parseURI: " + text);
        const Json expected = asJson(uri);
        for (const Peer& peer : peers) {
            const auto compare = [&](const Parts& parts) {
                require(record(text, parts) == expected,
                        std::string(peer.who) + " finds other parts of " + text);
            };
            require(peer.parse(text, compare), std::string(peer.who) + " refused " + text);
        }
    }
    note("URI rows: times for all " + std::to_string(texts.size()) + " URIs");
    return texts;
}

}  // namespace

void addUriRows() {
    static const std::vector<std::string> texts = checkedTexts();
    const char bareWork[] = "URI text to a record, peers: bare parse";
    const char recordWork[] = "URI text to a record, peers: the same 16 members";
    for (const char* work : {bareWork, recordWork}) {
        add(work, ours, 0, [] {
            for (const std::string& text : texts) {
                URI uri;
                benchmark::DoNotOptimize(parseURI(text, uri));
                benchmark::DoNotOptimize(uri);
            }
        });
    }
    for (const auto& [who, parseWithPeer] : peers) {
        const auto parse = parseWithPeer;
        add(bareWork, who, 0, [parse] {
            for (const std::string& text : texts)
                parse(text, [](const Parts& parts) { benchmark::DoNotOptimize(parts); });
        });
        add(recordWork, who, 0, [parse] {
            for (const std::string& text : texts)
                parse(text, [&text](const Parts& parts) { benchmark::DoNotOptimize(record(text, parts)); });
        });
    }
}

}  // namespace bench
