/**
 * @file
 * Facts about the device a program runs on: board, features, host name, load, firmware.
 *
 * @code
 * korvo::variant::CameraInfo info;
 * korvo::Failure why;
 * if (!info.Init(&why)) show(why.subject + ": " + (why.error != 0 ? strerror(why.error) : why.reason));
 * else if (info.feature_wifi() != 0) startWifi(info["hwaddrColons"]);
 * @endcode
 *
 * Threads: distinct records may be used from distinct threads. Guard one record with a lock even for reading,
 * since accessors may store defaults. Errors: failures are returned as false; the only exception is
 * std::bad_alloc.
 */
#pragma once

#include <string>

#include "korvo/variant/variant.h"
#include "korvo/variant_utils/export.h"
#include "korvo/variant_utils/failure.h"

namespace korvo::variant {

/** Where facts are read, below the device root. */
constexpr char boardFile[] = "/etc/board.info";
constexpr char firmwareVersionFile[] = "/lib/version";

/**
 * The facts about a device: a Variant map with a member for each.
 *
 * | member          | type         | meaning and source                                              |
 * |-----------------|--------------|-----------------------------------------------------------------|
 * | "hwaddr"        | string       | hardware address as written in the board file: 021b2ca1b2c3     |
 * | others          | any          | the rest of the board file's group "board": numbers, strings,   |
 * |                 |              | and a map for each group in it                                  |
 * | "hwaddrColons"  | string       | hwaddr, cut after 12 characters, in pairs: 02:1b:2c:a1:b2:c3    |
 * | "feature_mic"   | signed char  | board file: 0 without a microphone; likewise "feature_ir",      |
 * |                 |              | "feature_rtc", "feature_wifi", "feature_sdmmc", "feature_video" |
 * | "hostName"      | string       | first line of /proc/sys/kernel/hostname                         |
 * | "upTime"        | double       | /proc/uptime: seconds since the start; missing if it is empty   |
 * | "idleTime"      | double       | /proc/uptime: idle seconds, summed over the processors; the int |
 * |                 |              | 0 if there is only one field                                    |
 * | "totalLoad"     | double       | 1 - idleTime / upTime, so below 0 on several processors, minus  |
 * |                 |              | infinity if upTime is 0; missing if idleTime is 0               |
 * | "fullVersion"   | string       | /lib/version: AB1.xyz.v4.0.1.34.4f2a1b3.170101.1200             |
 * | "version"       | string       | without its second field: AB1.v4.0.1.34.4f2a1b3.170101.1200;    |
 * |                 |              | missing with fewer than two dots                                |
 * | "deviceModel"   | string       | its first field: AB1; missing without any text                  |
 * | "protocolVer"   | unsigned int | the fourth number of its version: 34                            |
 *
 * /etc/board.info is key=value text as Variant::FromKVP() reads it, with "board" as a group of dotted keys
 * and the features as keys of their own. A gathered fact replaces a member of that name from the board
 * file; a missing one leaves it. The map is the record's whole state, so it may be copied,
 * exported and changed like any Variant.
 */
class KORVO_VARIANT_UTILS_EXPORT CameraInfo : public Variant {
  public:
    /**
     * Gathers the facts anew, in this order: board and features, host name, times, firmware version, hardware
     * address with colons. Drops the record's old content once the board file has been read. Stops at the
     * first failure and keeps the facts found so far.
     *
     * A full version has fields with dots between them: the model; another of letters and digits; "v" with a
     * number, and three more numbers, the last with an optional suffix such as "-beta2"; a build identifier
     * of lower-case hexadecimal digits, with an optional "M_" in front; six digits; four digits. A protocol
     * version that does not fit is the largest unsigned int. Every locale gives the same record.
     *
     * @return false when a file cannot be read or the full version has another form. One error is logged,
     *         unless the board file or /lib/version cannot be read. An unreadable board file leaves the
     *         record as it was.
     */
    [[nodiscard]] bool Init();

    /**
     * As above; @p failure, which may be null, receives the reason: Step::Read with the path and errno, or
     * Step::Load with the path and a reason.
     */
    [[nodiscard]] bool Init(Failure* failure);

    /** @name Accessors
     * Each returns its member. One that is missing or has another type is first replaced by a default, which
     * stays in the record: false for a feature, the int 0 for a time, the empty string for the version. Any
     * number is accepted as a feature or a time and converted as Variant does. A record that is no map first
     * becomes an empty one.
     * @{ */
    signed char feature_mic();
    signed char feature_ir();
    signed char feature_rtc();
    signed char feature_wifi();
    signed char feature_sdmmc();
    signed char feature_video();
    double idleTime();
    double upTime();
    std::string fullVersion();
    /** @} */
};

}  // namespace korvo::variant
