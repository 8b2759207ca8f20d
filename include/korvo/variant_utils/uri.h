/**
 * @file
 * URIs of the schemas a camera speaks: file, http, https, rtsp, rtmp, rtmpt, rtmpte, rtmps, rtmpe, websock,
 * websocks; any other if the text names a port.
 *
 * @code
 * korvo::variant::URI uri;
 * korvo::Failure why;
 * if (!parseURI("rtsp://cam:8554/live/ch0?a=1", uri, &why)) return show("no stream address: " + why.reason);
 * connect(uri.host(), uri.port());
 * @endcode
 *
 * Threads: distinct records may be used from distinct threads, even for the first call. Guard one record
 * with a lock even for reading, since getters may store defaults. Errors: failures are logged and returned
 * as false; the only exception is std::bad_alloc.
 */
#pragma once

#include <string>

#include "korvo/variant/variant.h"
#include "korvo/variant_utils/export.h"
#include "korvo/variant_utils/failure.h"

namespace korvo::variant {

/**
 * One parsed URI: a Variant map with a member for each piece.
 *
 * | member                           | type           | for rtsp://user:pw@10.0.0.2:8554/live/ch0?a=1&b |
 * |----------------------------------|----------------|-------------------------------------------------|
 * | "originalUri"                    | string         | the text without white space around it          |
 * | "fullUri"                        | string         | rtsp://10.0.0.2:8554/live/ch0?a=1&b (see below) |
 * | "fullUriWithAuth"                | string         | the text exactly as given                       |
 * | "schema"                         | string         | rtsp (in lower case)                            |
 * | "userName", "password"           | string         | user, pw (empty when not given)                 |
 * | "host"                           | string         | 10.0.0.2 (always empty for file)                |
 * | "port"                           | unsigned short | 8554 (the default when not given; 0 for file)   |
 * | "portSpecified"                  | bool           | true                                            |
 * | "fullDocumentPathWithParameters" | string         | /live/ch0?a=1&b                                 |
 * | "fullDocumentPath"               | string         | /live/ch0                                       |
 * | "fullParameters"                 | string         | a=1&b                                           |
 * | "documentPath", "document"       | string         | /live/, ch0                                     |
 * | "documentWithFullParameters"     | string         | ch0?a=1&b                                       |
 * | "parameters"                     | map of strings | a = 1, b = (empty)                              |
 * | "ip"                             | string         | the resolved address; FromString() only         |
 *
 * "fullUri" is "originalUri" without the user-info and its "@", or "fullUriWithAuth" when there is none.
 *
 * Nothing is decoded or escaped; call percentDecode() for a part that needs it, such as a password. The map
 * is the record's whole state, so it may be copied, exported and changed like any Variant.
 */
class KORVO_VARIANT_UTILS_EXPORT URI : public Variant {
  public:
    /** @name Setters
     * Each stores its member. A record that is not a map first becomes an empty one.
     * @{ */
    void originalUri(std::string value);
    void schema(std::string value);
    void userName(std::string value);
    void host(std::string value);
    void document(std::string value);
    void documentWithFullParameters(std::string value);
    /** @} */

    /** @name Getters
     * Each returns its member. One that is missing or has another type is first replaced by its default
     * (empty, 0 or false), which stays in the record. port() accepts any number: an integer modulo 65536, a
     * double rounded towards 0 and limited to 0 to 65535. portSpecified() accepts only a boolean.
     * @{ */
    std::string schema();
    std::string userName();
    std::string password();
    std::string host();
    std::string documentPath();
    std::string fullParameters();
    unsigned short port();
    bool portSpecified();
    /** @} */

    /**
     * The URI of the document's directory: schema, user name and password if both are set, host, the port if
     * one was given, and the document path. Empty if the schema, the host or the document path is empty, so
     * always for file. Like the getters, it may leave defaults in the record.
     */
    std::string baseURI();

    /**
     * The URI of another document in the same directory: baseURI(), @p documentName and, with
     * @p withParameters, "fullParameters". Nothing is put between them; end @p documentName with "?" if there
     * should be one.
     */
    std::string derivedURI(std::string documentName, bool withParameters);

    /**
     * Parses @p text into @p target like parseURI(). With @p resolveHost it also resolves the host, which
     * blocks for as long as the name service takes, and stores the address as "ip"; otherwise, and for file,
     * "ip" is empty.
     *
     * @return false when the text is no URI or its host cannot be resolved; @p target is then null
     */
    [[nodiscard]] static bool FromString(const std::string& text, bool resolveHost, URI& target);

    /**
     * As above; @p failure, which may be null, receives the reason: Step::Uri as from parseURI(), or
     * Step::Resolve with the host. The rest of a password after an "@" is in the host.
     */
    [[nodiscard]] static bool FromString(const std::string& text, bool resolveHost, URI& target,
                                         Failure* failure);
};

/**
 * @p text with each "%" and two hexadecimal digits replaced by the byte they stand for, zero included:
 * `p%40ss` becomes `p@ss`. Everything else stays, a "+" too; nothing is decoded twice.
 */
KORVO_VARIANT_UTILS_EXPORT std::string percentDecode(const std::string& text);

}  // namespace korvo::variant

/**
 * Parses `schema://[user[:password]@]host[:port][/path][?query]` into @p uri. Accepts any bytes.
 *
 * The port is a decimal number from 1 to 65535 without sign or leading zeros, and optional where the schema
 * has a default. An "@" ends the user-info if it stands before the first "/" after the schema:
 * `http://cam?mail=a@b` names the host b and the user "cam?mail=a", but `http://cam/?mail=a@b` the host cam.
 * For schemas that begin with "rtmp", the document begins after the last "/" before the path's first ":" and
 * may itself contain "/". Bracketed IPv6 addresses are not supported.
 *
 * @param text  the URI
 * @param uri   loses what it held; receives all members but "ip", or nothing
 * @return false, with one error logged, when the text is no URI; @p uri is then null
 */
[[nodiscard]] KORVO_VARIANT_UTILS_EXPORT bool parseURI(std::string text, korvo::variant::URI& uri);

/**
 * As above; @p failure, which may be null, receives Step::Uri and a reason. The reason never quotes the text,
 * which may hold a password.
 */
[[nodiscard]] KORVO_VARIANT_UTILS_EXPORT bool parseURI(std::string text, korvo::variant::URI& uri,
                                                       korvo::Failure* failure);
