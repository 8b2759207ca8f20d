#include "korvo/variant_utils/uri.h"

#include <algorithm>
#include <charconv>
#include <string_view>
#include <system_error>
#include <tuple>
#include <utility>

#include "korvo/utils/host.h"
#include "korvo/utils/text.h"
#include "log.h"
#include "record.h"

namespace korvo::variant {
namespace {

std::string stringMember(URI& uri, const char* key) {
    const std::string& text = memberOrDefault(uri, key, TypeString, "");
    return text;
}

void storeMember(URI& uri, const char* key, std::string value) {
    ensureMapForm(uri);
    uri[key] = std::move(value);
}

}  // namespace

void URI::originalUri(std::string value) { storeMember(*this, "originalUri", std::move(value)); }

void URI::schema(std::string value) { storeMember(*this, "schema", std::move(value)); }

void URI::userName(std::string value) { storeMember(*this, "userName", std::move(value)); }

void URI::host(std::string value) { storeMember(*this, "host", std::move(value)); }

void URI::document(std::string value) { storeMember(*this, "document", std::move(value)); }

void URI::documentWithFullParameters(std::string value) {
    storeMember(*this, "documentWithFullParameters", std::move(value));
}

std::string URI::schema() { return stringMember(*this, "schema"); }

std::string URI::userName() { return stringMember(*this, "userName"); }

std::string URI::password() { return stringMember(*this, "password"); }

std::string URI::host() { return stringMember(*this, "host"); }

std::string URI::documentPath() { return stringMember(*this, "documentPath"); }

std::string URI::fullParameters() { return stringMember(*this, "fullParameters"); }

unsigned short URI::port() { return memberOrDefault(*this, "port", TypeNumeric, 0); }

bool URI::portSpecified() { return memberOrDefault(*this, "portSpecified", TypeBool, false); }

std::string URI::baseURI() {
    // The getters leave defaults behind, so the order of these calls shows in the record.
    std::string base = schema();
    if (base.empty()) return {};
    const std::string hostName = host();
    if (hostName.empty()) return {};
    const std::string folder = documentPath();
    if (folder.empty()) return {};

    base += "://";
    const std::string user = userName();
    const std::string secret = user.empty() ? std::string() : password();
    if (!secret.empty()) base.append(user).append(":").append(secret).append("@");
    base += hostName;
    if (portSpecified()) base += utils::format(":%u", static_cast<unsigned>(port()));
    return base += folder;
}

std::string URI::derivedURI(std::string documentName, bool withParameters) {
    documentName.insert(0, baseURI());
    const std::string parameters = fullParameters();
    if (withParameters) documentName += parameters;
    return documentName;
}

bool URI::FromString(const std::string& text, bool resolveHost, URI& target) {
    if (!parseURI(text, target)) return false;
    std::string address;
    if (resolveHost && target.schema() != "file") {
        const std::string hostName = target.host();
        address = utils::getHostByName(hostName);
        if (address.empty()) {
            target.Reset();
            return KORVO_FAIL(__func__, "Unable to resolve host: %s", hostName.c_str());
        }
    }
    storeMember(target, "ip", std::move(address));
    return true;
}

namespace {

struct DefaultPort {
    std::string_view schema;
    unsigned short port;
};

constexpr DefaultPort defaultPorts[] = {
    {"file", 0},   {"http", 80},   {"rtmpt", 80},   {"rtmpte", 80},    {"https", 443},     {"rtmps", 443},
    {"rtsp", 554}, {"rtmp", 1935}, {"rtmpe", 1935}, {"websock", 7080}, {"websocks", 7443},
};

/** The port that a schema stands for, 0 when there is none. */
unsigned short defaultPort(std::string_view schema) {
    for (const DefaultPort& row : defaultPorts) {
        if (row.schema == schema) return row.port;
    }
    return 0;
}

/** Reads a port written in decimal without sign, blanks or leading zeros. */
[[nodiscard]] bool parsePort(std::string_view text, unsigned short& port) {
    const char* const end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data(), end, port);
    return error == std::errc() && last == end && (text.front() != '0' || text.size() == 1);
}

/** What stands before and after the first such character; the second is empty when there is none. */
std::pair<std::string_view, std::string_view> splitAt(std::string_view text, char separator) {
    const std::size_t found = text.find(separator);
    if (found == std::string_view::npos) return {text, {}};
    return {text.substr(0, found), text.substr(found + 1)};
}

/**
 * One URI text, taken apart from the left to the right by the grammar
 *
 *   uri       = schema "://" [ user-info "@" ] location
 *   user-info = user-name [ ":" password ]
 *   location  = host [ ":" port ] [ path ] [ "?" query ]     for every schema but file
 *             | [ path ] [ "?" query ]                       for file
 *
 * where the "@" stands before the first "/" after the schema.
 */
class UriParser {
  public:
    explicit UriParser(std::string uriText) : untrimmed(std::move(uriText)), text(untrimmed) {
        utils::trim(text);
    }

    /** False, with the error logged, when the text is no URI. */
    [[nodiscard]] bool parse();

    /** Stores every member. To be called once, since each is moved from a text of its own. */
    void store(URI& uri);

  private:
    void splitUserInfo();
    [[nodiscard]] bool splitLocation();
    [[nodiscard]] bool splitHostAndPort(std::string_view hostAndPort);
    void splitPath();
    std::size_t documentBegin() const;
    void joinAgain();
    Variant parameters() const;

    std::string untrimmed;
    std::string text;
    std::string schema;
    std::size_t schemaEnd = 0;      ///< after the "://"
    std::size_t locationBegin = 0;  ///< after the "@" too, when there is one
    std::string userName;
    std::string password;
    std::string host;
    unsigned short port = 0;
    bool portSpecified = false;
    std::string pathAndQuery = "/";
    std::string path;
    std::string query;
    std::string documentPath;
    std::string document;
    std::string documentWithParameters;
    std::string withoutUserInfo;
};

bool UriParser::parse() {
    if (text.empty()) return KORVO_FAIL("parseURI", "Empty uri");
    const std::size_t separator = text.find("://");
    if (separator == std::string::npos) return KORVO_FAIL("parseURI", "Unable to determine schema");
    schema = utils::lowerCase(text.substr(0, separator));
    schemaEnd = separator + 3;
    port = defaultPort(schema);
    splitUserInfo();
    if (!splitLocation()) return false;
    splitPath();
    if (port == 0 && schema != "file") {
        return KORVO_FAIL("parseURI", "Invalid URI. No port specified and the schema `%s` is unknown",
                          schema.c_str());
    }
    joinAgain();
    return true;
}

void UriParser::splitUserInfo() {
    locationBegin = schemaEnd;
    const std::size_t at = text.find('@', schemaEnd);
    if (at == std::string::npos || text.find('/', schemaEnd) < at) return;
    std::tie(userName, password) = splitAt(std::string_view(text).substr(schemaEnd, at - schemaEnd), ':');
    locationBegin = at + 1;
}

bool UriParser::splitLocation() {
    const std::string_view location = std::string_view(text).substr(locationBegin);
    if (schema == "file") {
        if (location.find_first_of("/?") != std::string_view::npos) pathAndQuery = location;
        return true;
    }
    std::size_t end = location.find('/');
    if (end == std::string_view::npos) end = location.find('?');
    if (end != std::string_view::npos) {
        // A query without a path is one of the root.
        if (location[end] == '?')
            pathAndQuery.append(location, end);
        else
            pathAndQuery = location.substr(end);
    }
    return splitHostAndPort(location.substr(0, end));
}

bool UriParser::splitHostAndPort(std::string_view hostAndPort) {
    host = hostAndPort;
    utils::trim(host);
    if (host.empty()) return KORVO_FAIL("parseURI", "Invalid host:port specified");
    const std::size_t colon = host.find(':');
    if (colon == std::string::npos) return true;
    const std::string portText = host.substr(colon + 1);
    if (!parsePort(portText, port))
        return KORVO_FAIL("parseURI", "Invalid port number specified: `%s`", portText.c_str());
    portSpecified = true;
    host.resize(colon);
    utils::trim(host);
    return true;
}

void UriParser::splitPath() {
    const auto [before, after] = splitAt(pathAndQuery, '?');
    path = before;
    query = after;
    utils::trim(query);
    const std::size_t documentAt = documentBegin();
    documentPath.assign(path, 0, documentAt);
    document.assign(path, documentAt);
}

std::size_t UriParser::documentBegin() const {
    std::size_t slash = path.rfind('/');
    if (schema.compare(0, 4, "rtmp") == 0) {
        // A stream name such as mp4:folder/clip.mp4 is one document, slashes and all.
        const std::size_t colon = path.find(':');
        const std::size_t before = colon != std::string::npos ? path.rfind('/', colon) : colon;
        if (before != std::string::npos) slash = before;
    }
    // The first character belongs to the folder, whatever it is.
    return slash == std::string::npos ? std::min<std::size_t>(path.size(), 1) : slash + 1;
}

Variant UriParser::parameters() const {
    Variant map;
    map.IsArray(false);
    for (std::string_view rest = query; !rest.empty();) {
        const auto [piece, after] = splitAt(rest, '&');
        const auto [name, value] = splitAt(piece, '=');
        if (!name.empty()) map[std::string(name)] = std::string(value);
        rest = after;
    }
    return map;
}

/** Makes the texts that leave out a part in the middle. */
void UriParser::joinAgain() {
    documentWithParameters.reserve(document.size() + 1 + query.size());
    documentWithParameters = document;
    if (!query.empty()) documentWithParameters.append(1, '?').append(query);
    if (locationBegin == schemaEnd) {
        withoutUserInfo = untrimmed;
    } else {
        withoutUserInfo.reserve(text.size());
        withoutUserInfo.append(text, 0, schemaEnd).append(text, locationBegin);
    }
}

void UriParser::store(URI& uri) {
    Variant parameterMap = parameters();
    // In the order of the keys, in which a map grows fastest.
    uri.document(std::move(document));
    uri["documentPath"] = std::move(documentPath);
    uri.documentWithFullParameters(std::move(documentWithParameters));
    uri["fullDocumentPath"] = std::move(path);
    uri["fullDocumentPathWithParameters"] = std::move(pathAndQuery);
    uri["fullParameters"] = std::move(query);
    uri["fullUri"] = std::move(withoutUserInfo);
    uri["fullUriWithAuth"] = std::move(untrimmed);
    uri.host(std::move(host));
    uri.originalUri(std::move(text));
    uri["parameters"] = std::move(parameterMap);
    uri["password"] = std::move(password);
    uri["port"] = port;
    uri["portSpecified"] = portSpecified;
    uri.schema(std::move(schema));
    uri.userName(std::move(userName));
}

/** The value of a hexadecimal digit, or -1. */
int hexDigit(char digit) {
    if (digit >= '0' && digit <= '9') return digit - '0';
    if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
    return -1;
}

}  // namespace

std::string percentDecode(const std::string& text) {
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool escape = text[i] == '%' && i + 2 < text.size();
        const int high = escape ? hexDigit(text[i + 1]) : -1;
        const int low = escape ? hexDigit(text[i + 2]) : -1;
        if (high >= 0 && low >= 0) {
            decoded += static_cast<char>(high * 16 + low);
            i += 2;
        } else {
            decoded += text[i];
        }
    }
    return decoded;
}

}  // namespace korvo::variant

bool parseURI(std::string text, korvo::variant::URI& uri) {
    uri.Reset();
    korvo::variant::UriParser parser(std::move(text));
    if (!parser.parse()) return false;
    parser.store(uri);
    return true;
}
