#include "korvo/variant_utils/uri.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <string_view>
#include <tuple>
#include <utility>

#include "korvo/utils/host.h"
#include "korvo/utils/text.h"
#include "log.h"
#include "record.h"

namespace korvo::variant {
namespace {

constexpr char facility[] = "src/uri";

const std::string& textMember(URI& uri, const char* key) { return memberOrDefault(uri, key, TypeString, ""); }

void storeMember(URI& uri, const char* key, std::string& value) {
    ensureMapForm(uri);
    uri[key] = std::move(value);
}

constexpr struct {
    std::string_view schema;
    unsigned short port;
} defaultPorts[] = {
    {"file", 0},   {"http", 80},   {"rtmpt", 80},   {"rtmpte", 80},    {"https", 443},     {"rtmps", 443},
    {"rtsp", 554}, {"rtmp", 1935}, {"rtmpe", 1935}, {"websock", 7080}, {"websocks", 7443},
};

/** The default port of a schema, 0 if it has none. */
unsigned short defaultPort(std::string_view schema) {
    for (const auto& row : defaultPorts) {
        if (row.schema == schema) return row.port;
    }
    return 0;
}

/** The texts before and after the first separator; the whole text and an empty one if there is none. */
std::pair<std::string_view, std::string_view> splitAt(std::string_view text, char separator) {
    const std::size_t end = std::min(text.find(separator), text.size());
    return {text.substr(0, end), text.substr(std::min(end + 1, text.size()))};
}

/** utils::trim() for a view. */
std::string_view trimmed(std::string_view text) {
    const auto isSpace = [](char c) { return c == ' ' || (c >= '\t' && c <= '\r'); };
    while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
    while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
    return text;
}

/** Logs a message, which may quote the text, and gives the caller @p reason, which must not. */
[[nodiscard]] bool refuse(Failure* failure, const char* reason, const char* message, const char* quoted = "",
                          const char* rest = "") {
    KORVO_LOG("parseURI", logger::LevelError, 0, "%s%s%s", message, quoted, rest);
    return fail(failure, {Step::Uri, 0, "", 0, reason});
}

/** The parts of a URI text, as views of it. */
struct UriParts {
    std::string_view text;                                          ///< without white space around it
    std::pair<std::string_view, std::string_view> withoutUserInfo;  ///< the text around it
    std::string schema;                                             ///< in lower case
    std::string_view userName;
    std::string_view password;
    std::string_view host;
    unsigned short port = 0;
    bool portSpecified = false;
    std::string_view path = "/";
    std::string_view query;  ///< with its "?"; empty if there is none
};

[[nodiscard]] bool splitHostAndPort(std::string_view hostAndPort, UriParts& parts, Failure* failure) {
    hostAndPort = trimmed(hostAndPort);
    if (hostAndPort.empty()) return refuse(failure, "it names no host", "Invalid host:port specified");
    const auto [host, port] = splitAt(hostAndPort, ':');
    parts.host = trimmed(host);
    parts.portSpecified = host.size() < hostAndPort.size();
    constexpr char noPort[] = "its port is not a number from 1 to 65535";
    if (parts.portSpecified) {
        const std::string digits(port);
        parts.port = static_cast<unsigned short>(std::strtoul(digits.c_str(), nullptr, 10));
        // Signs, blanks, leading zeros and overflow do not survive the way back to a text.
        if (std::to_string(parts.port) != digits)
            return refuse(failure, noPort, "Invalid port number specified: `", digits.c_str(), "`");
    }
    if (parts.port != 0) return true;
    return refuse(failure, parts.portSpecified ? noPort : "it names no port, and its schema has no default",
                  "Invalid URI. No port specified and the schema `", parts.schema.c_str(), "` is unknown");
}

[[nodiscard]] bool splitLocation(std::string_view location, UriParts& parts, Failure* failure) {
    const bool isFile = parts.schema == "file";
    // A "?" ends the host only if there is no "/".
    std::size_t hostEnd = location.find('/');
    if (hostEnd == std::string_view::npos) hostEnd = location.find('?');
    if (!isFile && !splitHostAndPort(location.substr(0, hostEnd), parts, failure)) return false;
    if (hostEnd == std::string_view::npos) return true;
    if (!isFile) location.remove_prefix(hostEnd);
    const std::size_t pathEnd = std::min(location.find('?'), location.size());
    parts.query = location.substr(pathEnd);
    // A query without a path belongs to the root, except for a file.
    if (isFile || pathEnd > 0) parts.path = location.substr(0, pathEnd);
    return true;
}

/**
 * Splits a trimmed text by the grammar
 *
 *   uri       = schema "://" [ user-info "@" ] location
 *   user-info = user-name [ ":" password ]
 *   location  = host [ ":" port ] [ path ] [ "?" query ]     for every schema but file
 *             | [ path ] [ "?" query ]                       for file
 *
 * where the "@" stands before the first "/" after the schema. Logs and returns false if that fails.
 */
[[nodiscard]] bool splitUri(std::string_view given, UriParts& parts, Failure* failure) {
    parts.withoutUserInfo.first = given;
    const std::string_view text = parts.text = trimmed(given);
    if (text.empty()) return refuse(failure, "it is empty", "Empty uri");
    const std::size_t schemaEnd = text.find("://");
    if (schemaEnd == std::string_view::npos)
        return refuse(failure, "there is no \"://\"", "Unable to determine schema");
    parts.schema = utils::lowerCase(std::string(text.substr(0, schemaEnd)));
    parts.port = defaultPort(parts.schema);
    std::string_view location = text.substr(schemaEnd + 3);
    const std::size_t at = location.find('@');
    if (at < location.find('/')) {
        std::tie(parts.userName, parts.password) = splitAt(location.substr(0, at), ':');
        location.remove_prefix(at + 1);
        parts.withoutUserInfo = {text.substr(0, schemaEnd + 3), location};
    }
    return splitLocation(location, parts, failure);
}

/** Where in the path the document begins. Its first character always belongs to the directory. */
std::size_t documentBegin(const UriParts& parts) {
    // A stream name such as mp4:folder/clip.mp4 is one document, slashes and all.
    const bool isStream = parts.schema.compare(0, 4, "rtmp") == 0;
    const std::size_t slash = parts.path.rfind('/', isStream ? parts.path.find(':') : std::string_view::npos);
    return slash == std::string_view::npos ? std::min<std::size_t>(parts.path.size(), 1) : slash + 1;
}

void storeParameters(std::string_view query, Variant& parameters) {
    parameters.IsArray(false);
    while (!query.empty()) {
        const auto [parameter, rest] = splitAt(query, '&');
        const auto [name, value] = splitAt(parameter, '=');
        if (!name.empty()) parameters[std::string(name)] = std::string(value);
        query = rest;
    }
}

/** Stores two pieces as one text. */
void store(URI& uri, const char* key, std::string_view begin, std::string_view end = {}) {
    std::string text(begin);
    if (!end.empty()) text.append(end);
    uri[key] = std::move(text);
}

/** Stores the parts of @p text in an empty record. */
void store(const UriParts& parts, std::string&& text, URI& uri) {
    const std::size_t documentAt = documentBegin(parts);
    const std::string_view document = parts.path.substr(documentAt);
    const std::string_view query = trimmed(splitAt(parts.query, '?').second);
    std::string parameters(query.empty() ? "" : "?");
    parameters += query;
    // In key order: appending is the fastest insertion.
    store(uri, "document", document);
    store(uri, "documentPath", parts.path.substr(0, documentAt));
    store(uri, "documentWithFullParameters", document, parameters);
    store(uri, "fullDocumentPath", parts.path);
    store(uri, "fullDocumentPathWithParameters", parts.path, parts.query);
    store(uri, "fullParameters", query);
    store(uri, "fullUri", parts.withoutUserInfo.first, parts.withoutUserInfo.second);
    Variant& givenText = uri["fullUriWithAuth"];
    store(uri, "host", parts.host);
    store(uri, "originalUri", parts.text);
    storeParameters(query, uri["parameters"]);
    store(uri, "password", parts.password);
    uri["port"] = parts.port;
    uri["portSpecified"] = parts.portSpecified;
    store(uri, "schema", parts.schema);
    store(uri, "userName", parts.userName);
    givenText = std::move(text);  // Last: the parts are views of it.
}

bool parse(std::string&& text, URI& uri, Failure* failure) {
    uri.Reset();
    UriParts parts;
    if (!splitUri(text, parts, failure)) return false;
    store(parts, std::move(text), uri);
    if (failure != nullptr) *failure = {};
    return true;
}

}  // namespace

void URI::originalUri(std::string value) { storeMember(*this, "originalUri", value); }

void URI::schema(std::string value) { storeMember(*this, "schema", value); }

void URI::userName(std::string value) { storeMember(*this, "userName", value); }

void URI::host(std::string value) { storeMember(*this, "host", value); }

void URI::document(std::string value) { storeMember(*this, "document", value); }

void URI::documentWithFullParameters(std::string value) {
    storeMember(*this, "documentWithFullParameters", value);
}

std::string URI::schema() { return textMember(*this, "schema"); }

std::string URI::userName() { return textMember(*this, "userName"); }

std::string URI::password() { return textMember(*this, "password"); }

std::string URI::host() { return textMember(*this, "host"); }

std::string URI::documentPath() { return textMember(*this, "documentPath"); }

std::string URI::fullParameters() { return textMember(*this, "fullParameters"); }

unsigned short URI::port() { return memberOrDefault(*this, "port", TypeNumeric, 0); }

bool URI::portSpecified() { return memberOrDefault(*this, "portSpecified", TypeBool, false); }

std::string URI::baseURI() {
    // The getters leave defaults behind, so the order of these calls shows in the record.
    std::string base = schema();
    const std::string hostName = base.empty() ? base : host();
    const std::string directory = hostName.empty() ? hostName : documentPath();
    if (directory.empty()) return {};
    base += "://";
    const std::string user = userName();
    const std::string secret = user.empty() ? std::string() : password();
    if (!secret.empty()) base.append(user).append(":").append(secret).append("@");
    base += hostName;
    if (portSpecified()) base += utils::format(":%u", static_cast<unsigned>(port()));
    return base += directory;
}

std::string URI::derivedURI(std::string documentName, bool withParameters) {
    documentName.insert(0, baseURI());
    const std::string& parameters = textMember(*this, "fullParameters");
    if (withParameters) documentName += parameters;
    return documentName;
}

bool URI::FromString(const std::string& text, bool resolveHost, URI& target) {
    return FromString(text, resolveHost, target, nullptr);
}

bool URI::FromString(const std::string& text, bool resolveHost, URI& target, Failure* failure) {
    if (!parseURI(text, target, failure)) return false;
    std::string address;
    if (resolveHost && target.schema() != "file") {
        const std::string hostName = target.host();
        address = utils::getHostByName(hostName);
        if (address.empty()) {
            target.Reset();
            KORVO_LOG(__func__, logger::LevelError, 0, "Unable to resolve host: %s", hostName.c_str());
            return fail(failure, {Step::Resolve, 0, hostName, 0, "it has no address"});
        }
    }
    storeMember(target, "ip", address);
    return true;
}

std::string percentDecode(const std::string& text) {
    const auto isDigit = [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; };
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        // The terminating zero is no digit, so this never reads past it.
        if (text[i] == '%' && isDigit(text[i + 1]) && isDigit(text[i + 2])) {
            decoded += static_cast<char>(std::strtoul(text.substr(i + 1, 2).c_str(), nullptr, 16));
            i += 2;
        } else {
            decoded += text[i];
        }
    }
    return decoded;
}

}  // namespace korvo::variant

bool parseURI(std::string text, korvo::variant::URI& uri) {
    return korvo::variant::parse(std::move(text), uri, nullptr);
}

bool parseURI(std::string text, korvo::variant::URI& uri, korvo::Failure* failure) {
    return korvo::variant::parse(std::move(text), uri, failure);
}
