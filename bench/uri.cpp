// URI text to a record whose every field can be read by name. A peer is a class that parses a text when it is
// made and shows the parts as views of its own memory; what fills a record from them stands here once.

#include <korvo/variant_utils/uri.h>

#include <algorithm>
#include <memory>
#include <string_view>

#include "bench.h"

#ifdef KORVO_BENCH_CURL
#include <curl/curl.h>
#endif
#ifdef KORVO_BENCH_URIPARSER
#include <uriparser/Uri.h>
#endif
#ifdef KORVO_BENCH_GLIB
#include <glib.h>
#endif
#ifdef KORVO_BENCH_BOOST_URL
#include <boost/url.hpp>
#endif
#ifdef KORVO_BENCH_POCO
#include <Poco/Exception.h>
#include <Poco/URI.h>
#endif
#ifdef KORVO_BENCH_NLOHMANN
#include <nlohmann/json.hpp>
#endif

namespace bench {
namespace {

using korvo::variant::URI;
using korvo::variant::Variant;

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

#ifdef KORVO_BENCH_CURL
struct Curl : Parts {
    explicit Curl(const std::string& text) : handle(curl_url()) {
        ok = curl_url_set(handle, CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME) == CURLUE_OK;
        schema = get(0, CURLUPART_SCHEME);
        user = get(1, CURLUPART_USER);
        password = get(2, CURLUPART_PASSWORD);
        host = get(3, CURLUPART_HOST);
        path = get(4, CURLUPART_PATH);
        query = get(5, CURLUPART_QUERY);
        port = static_cast<unsigned>(std::atoi(get(6, CURLUPART_PORT)));
    }
    Curl(const Curl&) = delete;
    Curl& operator=(const Curl&) = delete;
    ~Curl() {
        for (char* part : parts) curl_free(part);
        curl_url_cleanup(handle);
    }
    const char* get(int number, CURLUPart part) {
        (void)curl_url_get(handle, part, &parts[number], 0);
        return parts[number] != nullptr ? parts[number] : "";
    }
    CURLU* handle;
    char* parts[7] = {};
    bool ok = false;
};
#endif

#ifdef KORVO_BENCH_URIPARSER
struct Uriparser : Parts {
    explicit Uriparser(const std::string& text) {
        const char* error = nullptr;
        ok = uriParseSingleUriA(&uri, text.c_str(), &error) == URI_SUCCESS;
        if (!ok) return;
        schema = view(uri.scheme);
        splitUserInfo(view(uri.userInfo));
        host = view(uri.hostText);
        for (const char digit : view(uri.portText)) port = port * 10 + static_cast<unsigned>(digit - '0');
        if (uri.pathHead != nullptr) {
            // An empty segment, as after the last slash, points elsewhere.
            const char* end = uri.query.first != nullptr ? uri.query.first - 1 : text.c_str() + text.size();
            const UriTextRangeA& head = uri.pathHead->text;
            const char* begin = head.first != head.afterLast ? head.first - 1 : end - 1;
            path = {begin, static_cast<std::size_t>(end - begin)};
        }
        query = view(uri.query);
    }
    Uriparser(const Uriparser&) = delete;
    Uriparser& operator=(const Uriparser&) = delete;
    ~Uriparser() { uriFreeUriMembersA(&uri); }
    static std::string_view view(const UriTextRangeA& range) {
        return {range.first, static_cast<std::size_t>(range.afterLast - range.first)};
    }
    UriUriA uri{};
    bool ok = false;
};
#endif

#ifdef KORVO_BENCH_GLIB
struct Glib : Parts {
    explicit Glib(const std::string& text)
        : uri(g_uri_parse(text.c_str(), GUriFlags(G_URI_FLAGS_HAS_PASSWORD | G_URI_FLAGS_ENCODED), nullptr)),
          ok(uri != nullptr) {
        if (!ok) return;
        schema = view(g_uri_get_scheme(uri));
        user = view(g_uri_get_user(uri));
        password = view(g_uri_get_password(uri));
        host = view(g_uri_get_host(uri));
        path = view(g_uri_get_path(uri));
        query = view(g_uri_get_query(uri));
        port = static_cast<unsigned>(std::max(g_uri_get_port(uri), 0));
    }
    Glib(const Glib&) = delete;
    Glib& operator=(const Glib&) = delete;
    ~Glib() {
        if (uri != nullptr) g_uri_unref(uri);
    }
    static std::string_view view(const char* part) { return part != nullptr ? part : ""; }
    GUri* uri;
    bool ok;
};
#endif

#ifdef KORVO_BENCH_BOOST_URL
struct BoostUrl : Parts {
    explicit BoostUrl(const std::string& text) {
        const auto parsed = boost::urls::parse_uri(text);
        ok = parsed.has_value();
        if (!ok) return;
        schema = view(parsed->scheme());
        user = view(parsed->encoded_user());
        password = view(parsed->encoded_password());
        host = view(parsed->encoded_host());
        path = view(parsed->encoded_path());
        query = view(parsed->encoded_query());
        port = parsed->port_number();
    }
    template <class Text>
    static std::string_view view(const Text& part) {
        return {part.data(), part.size()};
    }
    bool ok = false;
};
#endif

#ifdef KORVO_BENCH_POCO
struct PocoUri : Parts {
    explicit PocoUri(const std::string& text) {
        try {
            uri = text;
            ok = true;
        } catch (const Poco::Exception&) {
            return;
        }
        schema = uri.getScheme();
        splitUserInfo(uri.getUserInfo());
        host = uri.getHost();
        path = uri.getPath();
        query = uri.getRawQuery();
        port = uri.getSpecifiedPort();
    }
    Poco::URI uri;
    bool ok = false;
};
#endif

#ifdef KORVO_BENCH_NLOHMANN
using Json = nlohmann::json;

unsigned defaultPort(const std::string& schema) {
    static const std::pair<const char*, unsigned> ports[] = {
        {"file", 0},   {"http", 80},   {"rtmpt", 80},   {"rtmpte", 80},    {"https", 443},    {"rtmps", 443},
        {"rtsp", 554}, {"rtmp", 1935}, {"rtmpe", 1935}, {"websock", 7080}, {"websocks", 7443}};
    for (const auto& row : ports) {
        if (schema == row.first) return row.second;
    }
    return 0;
}

Json parameters(std::string_view query) {
    Json map = Json::object();
    while (!query.empty()) {
        const std::size_t end = std::min(query.find('&'), query.size());
        const std::string_view piece = query.substr(0, end);
        const std::size_t equals = std::min(piece.find('='), piece.size());
        if (equals > 0) {
            const std::string_view value = piece.substr(std::min(equals + 1, piece.size()));
            map[std::string(piece.substr(0, equals))] = std::string(value);
        }
        query.remove_prefix(std::min(end + 1, query.size()));
    }
    return map;
}

/** Fills the sixteen members of a record from the parts that a peer has found. */
template <class Parsed>
Json record(const std::string& text, const Parsed& parts) {
    std::string schema(parts.schema);
    for (char& letter : schema)
        letter = static_cast<char>(letter >= 'A' && letter <= 'Z' ? letter + 32 : letter);
    std::string path(parts.path.empty() ? "/" : parts.path);
    std::size_t documentAt = path.rfind('/') + 1;
    if (schema.compare(0, 4, "rtmp") == 0) {
        const std::size_t colon = path.find(':');
        if (colon != std::string::npos) documentAt = path.rfind('/', colon) + 1;
    }
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

bool sameRecord(Variant& record, const Json& other) {
    std::size_t members = 0;
    for (const auto& member : record) {
        ++members;
        const auto found = other.find(std::string(member.first));
        if (found == other.end()) return false;
        if (found->is_object()) {
            if (!sameRecord(member.second, *found)) return false;
        } else if (found->is_string()) {
            const std::string& text = member.second;
            if (text != found->get_ref<const std::string&>()) return false;
        } else if (static_cast<int>(member.second) !=
                   (found->is_boolean() ? found->get<bool>() : found->get<int>())) {
            return false;
        }
    }
    return members == other.size();
}
#endif

using Texts = std::shared_ptr<std::vector<std::string>>;

const char bareWork[] = "URI text to a record, peers: bare parse";
const char recordWork[] = "URI text to a record, peers: the same 16 members";

/** Drops the texts that a peer does not take for what we take them, and says so. */
template <class Peer>
void keepCommon(const char* who, std::vector<std::string>& texts) {
#ifdef KORVO_BENCH_NLOHMANN
    const auto differs = [who](const std::string& text) {
        URI uri;
        require(parseURI(text, uri), "refused by parseURI: " + text);
        const Peer parsed(text);
        if (parsed.ok && sameRecord(uri, record(text, parsed))) return false;
        note(std::string(who) + " cannot give the same parts of " + text + ", which nobody is timed on");
        return true;
    };
    texts.erase(std::remove_if(texts.begin(), texts.end(), differs), texts.end());
#endif
}

template <class Peer>
void addPeer(const char* who, const Texts& texts) {
    add(bareWork, who, 0, [texts] {
        for (const std::string& text : *texts) {
            const Peer parsed(text);
            const Parts* parts = &parsed;
            benchmark::DoNotOptimize(parts);
            benchmark::ClobberMemory();
        }
    });
#ifdef KORVO_BENCH_NLOHMANN
    add(recordWork, who, 0, [texts] {
        for (const std::string& text : *texts) {
            const Peer parsed(text);
            Json filled = record(text, parsed);
            benchmark::DoNotOptimize(filled);
        }
    });
#endif
}

template <class Visit>
void forEachPeer(Visit visit) {
#ifdef KORVO_BENCH_CURL
    visit("libcurl", static_cast<Curl*>(nullptr));
#endif
#ifdef KORVO_BENCH_URIPARSER
    visit("uriparser", static_cast<Uriparser*>(nullptr));
#endif
#ifdef KORVO_BENCH_GLIB
    visit("GLib", static_cast<Glib*>(nullptr));
#endif
#ifdef KORVO_BENCH_BOOST_URL
    visit("Boost.URL", static_cast<BoostUrl*>(nullptr));
#endif
#ifdef KORVO_BENCH_POCO
    visit("POCO", static_cast<PocoUri*>(nullptr));
#endif
}

}  // namespace

void addUriRows() {
    const Texts texts = std::make_shared<std::vector<std::string>>(uris());
    const std::size_t all = texts->size();
    forEachPeer(
        [&](const char* who, auto* peer) { keepCommon<std::remove_pointer_t<decltype(peer)>>(who, *texts); });
    note("URI rows: " + std::to_string(texts->size()) + " of " + std::to_string(all) +
         " URIs, times for all of them");
    forEachPeer(
        [&](const char* who, auto* peer) { addPeer<std::remove_pointer_t<decltype(peer)>>(who, texts); });
    for (const char* work : {bareWork, recordWork}) {
        add(work, ours, 0, [texts] {
            for (const std::string& text : *texts) {
                URI uri;
                benchmark::DoNotOptimize(parseURI(text, uri));
                benchmark::DoNotOptimize(uri);
            }
        });
    }
}

}  // namespace bench
