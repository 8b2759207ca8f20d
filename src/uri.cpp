#include "korvo/variant_utils/uri.h"

#include <algorithm>
#include <charconv>
#include <initializer_list>
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

constexpr char facility[] = "src/uri";

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

/** Logs @p message and gives the caller @p reason, which repeats nothing of the text. */
[[nodiscard]] bool refuse(Failure* failure, const char* reason, const std::string& message) {
    KORVO_LOG("parseURI", logger::LevelError, 0, "%s", message.c_str());
    return fail(failure, {Step::Uri, 0, "", 0, reason});
}

/** @p text without the white space that utils::trim() removes from a string. */
std::string_view trimmed(std::string_view text) {
    constexpr char whiteSpace[] = " \t\n\v\f\r";
    const std::size_t begin = text.find_first_not_of(whiteSpace);
    if (begin == std::string_view::npos) return {};
    return text.substr(begin, text.find_last_not_of(whiteSpace) - begin + 1);
}

/** The parts of a URI text, as views of it. */
struct UriParts {
    std::string_view text;           ///< without white space around it
    std::string schema;              ///< in lower case
    std::string_view schemaAsGiven;  ///< with the "://"
    bool hasUserInfo = false;
    std::string_view userName;
    std::string_view password;
    std::string_view location;  ///< all that follows the user-info
    std::string_view host;
    unsigned short port = 0;
    bool portSpecified = false;
    std::string_view path = "/";
    std::string_view query;  ///< with the "?" in front; empty when there is none
};

[[nodiscard]] bool splitHostAndPort(std::string_view hostAndPort, UriParts& parts, Failure* failure) {
    hostAndPort = trimmed(hostAndPort);
    if (hostAndPort.empty()) return refuse(failure, "it names no host", "Invalid host:port specified");
    const std::size_t hostEnd = std::min(hostAndPort.find(':'), hostAndPort.size());
    parts.host = trimmed(hostAndPort.substr(0, hostEnd));
    parts.portSpecified = hostEnd < hostAndPort.size();
    constexpr char noPort[] = "its port is not a number from 1 to 65535";
    const std::string_view portText = hostAndPort.substr(std::min(hostEnd + 1, hostAndPort.size()));
    if (parts.portSpecified && !parsePort(portText, parts.port))
        return refuse(failure, noPort,
                      utils::format("Invalid port number specified: `%s`", std::string(portText).c_str()));
    if (parts.port != 0) return true;
    return refuse(
        failure, parts.portSpecified ? noPort : "it names no port, and its schema has no default",
        utils::format("Invalid URI. No port specified and the schema `%s` is unknown", parts.schema.c_str()));
}

[[nodiscard]] bool splitLocation(UriParts& parts, Failure* failure) {
    std::string_view pathAndQuery = parts.location;
    const bool isFile = parts.schema == "file";
    // A "?" ends the host only where there is no "/".
    std::size_t hostEnd = pathAndQuery.find('/');
    if (hostEnd == std::string_view::npos) hostEnd = pathAndQuery.find('?');
    if (!isFile && !splitHostAndPort(pathAndQuery.substr(0, hostEnd), parts, failure)) return false;
    if (hostEnd == std::string_view::npos) return true;
    if (!isFile) pathAndQuery.remove_prefix(hostEnd);
    const std::size_t pathEnd = std::min(pathAndQuery.find('?'), pathAndQuery.size());
    parts.query = pathAndQuery.substr(pathEnd);
    // A query without a path is one of the root, except for a file.
    if (isFile || pathEnd > 0) parts.path = pathAndQuery.substr(0, pathEnd);
    return true;
}

/**
 * Splits a text, without the white space around it, by the grammar
 *
 *   uri       = schema "://" [ user-info "@" ] location
 *   user-info = user-name [ ":" password ]
 *   location  = host [ ":" port ] [ path ] [ "?" query ]     for every schema but file
 *             | [ path ] [ "?" query ]                       for file
 *
 * where the "@" stands before the first "/" after the schema. False, with the error logged, when the text is
 * no URI.
 */
[[nodiscard]] bool splitUri(std::string_view text, UriParts& parts, Failure* failure) {
    text = trimmed(text);
    parts.text = text;
    if (text.empty()) return refuse(failure, "it is empty", "Empty uri");
    const std::size_t schemaEnd = text.find("://");
    if (schemaEnd == std::string_view::npos)
        return refuse(failure, "there is no \"://\"", "Unable to determine schema");
    parts.schema = utils::lowerCase(std::string(text.substr(0, schemaEnd)));
    parts.schemaAsGiven = text.substr(0, schemaEnd + 3);
    parts.port = defaultPort(parts.schema);
    parts.location = text.substr(schemaEnd + 3);
    const std::size_t at = parts.location.find('@');
    parts.hasUserInfo = at != std::string_view::npos && at < parts.location.find('/');
    if (parts.hasUserInfo) {
        std::tie(parts.userName, parts.password) = splitAt(parts.location.substr(0, at), ':');
        parts.location.remove_prefix(at + 1);
    }
    return splitLocation(parts, failure);
}

/** Where in the path the document begins. The first character belongs to the directory, whatever it is. */
std::size_t documentBegin(const UriParts& parts) {
    // A stream name such as mp4:folder/clip.mp4 is one document, slashes and all.
    const bool isStream = parts.schema.compare(0, 4, "rtmp") == 0;
    const std::size_t searchEnd = isStream ? parts.path.find(':') : std::string_view::npos;
    const std::size_t slash = parts.path.rfind('/', searchEnd);
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

std::string joined(std::initializer_list<std::string_view> pieces) {
    std::string text;
    std::size_t size = 0;
    for (const std::string_view piece : pieces) size += piece.size();
    text.reserve(size);
    for (const std::string_view piece : pieces) text += piece;
    return text;
}

/** Stores the parts of @p text. */
void store(const UriParts& parts, std::string&& text, URI& uri) {
    const std::size_t documentAt = documentBegin(parts);
    const std::string_view document = parts.path.substr(documentAt);
    const std::string_view query = trimmed(splitAt(parts.query, '?').second);
    // In key order: appending is the fastest insertion.
    uri.document(std::string(document));
    uri["documentPath"] = std::string(parts.path.substr(0, documentAt));
    uri.documentWithFullParameters(joined({document, query.empty() ? "" : "?", query}));
    uri["fullDocumentPath"] = std::string(parts.path);
    uri["fullDocumentPathWithParameters"] = joined({parts.path, parts.query});
    uri["fullParameters"] = std::string(query);
    uri["fullUri"] = parts.hasUserInfo ? joined({parts.schemaAsGiven, parts.location}) : text;
    Variant& givenText = uri["fullUriWithAuth"];
    uri.host(std::string(parts.host));
    uri.originalUri(std::string(parts.text));
    storeParameters(query, uri["parameters"]);
    uri["password"] = std::string(parts.password);
    uri["port"] = parts.port;
    uri["portSpecified"] = parts.portSpecified;
    uri.schema(parts.schema);
    uri.userName(std::string(parts.userName));
    givenText = std::move(text);  // Last: the parts are views of it.
}

}  // namespace

std::string percentDecode(const std::string& text) {
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char* const digits = &text[i] + 1;
        unsigned char byte = 0;
        if (text[i] == '%' && i + 2 < text.size() &&
            std::from_chars(digits, digits + 2, byte, 16).ptr == digits + 2) {
            decoded += static_cast<char>(byte);
            i += 2;
        } else {
            decoded += text[i];
        }
    }
    return decoded;
}

}  // namespace korvo::variant

bool parseURI(std::string text, korvo::variant::URI& uri) { return parseURI(std::move(text), uri, nullptr); }

bool parseURI(std::string text, korvo::variant::URI& uri, korvo::Failure* failure) {
    uri.Reset();
    korvo::variant::UriParts parts;
    if (!korvo::variant::splitUri(text, parts, failure)) return false;
    korvo::variant::store(parts, std::move(text), uri);
    if (failure != nullptr) *failure = {};
    return true;
}
