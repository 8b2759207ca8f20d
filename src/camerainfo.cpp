#include "korvo/variant_utils/camerainfo.h"

#include <regex.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include "korvo/utils/device_root.h"
#include "korvo/utils/file.h"
#include "korvo/utils/text.h"
#include "log.h"
#include "record.h"

namespace korvo::variant {
namespace {

constexpr char facility[] = "src/camerainfo";

signed char feature(Variant& record, const char* key) {
    return memberOrDefault(record, key, TypeNumeric, false);
}

double seconds(CameraInfo& info, const char* key) { return memberOrDefault(info, key, TypeNumeric, 0); }

[[nodiscard]] bool readFile(const char* path, std::string& text, Failure* failure) {
    const std::string devicePath = utils::devicePath(path);
    if (utils::File::ReadStringAll(devicePath, text)) return true;
    return fail(failure, {Step::Read, errno, devicePath, 0, ""});
}

[[nodiscard]] bool refuseFile(const char* path, const std::string& reason, Failure* failure) {
    return fail(failure, {Step::Load, 0, utils::devicePath(path), 0, reason});
}

/** Replaces the record by the content of the board file. */
[[nodiscard]] bool readBoard(Variant& record, Failure* failure) {
    std::string text;
    if (!readFile(boardFile, text, failure)) return false;
    Variant description, texts;
    if (!description.FromKVP(text, false, false, true) || !texts.FromKVP(text, true, true, true))
        return refuseFile(boardFile, "it is no key=value text", failure);
    // An address stays a text even if it has only digits.
    const Variant* address = find(texts, TypeAny, "board/hwaddr");
    if (address != nullptr) description["board"]["hwaddr"] = *address;

    record = std::move(description["board"]);
    ensureMapForm(record);
    for (const char* key :
         {"feature_ir", "feature_mic", "feature_rtc", "feature_sdmmc", "feature_video", "feature_wifi"})
        record[key] = feature(description, key);
    return true;
}

[[nodiscard]] bool readFirstLine(const char* path, std::string& line, Failure* failure) {
    if (!readFile(path, line, failure)) return KORVO_FAIL("Init", "Unable to open %s", path);
    line.resize(std::min(line.find('\n'), line.size()));
    utils::trim(line);
    return true;
}

[[nodiscard]] bool readHostName(Variant& record, Failure* failure) {
    std::string name;
    if (!readFirstLine("/proc/sys/kernel/hostname", name, failure)) return false;
    record["hostName"] = std::move(name);
    return true;
}

/** Minus infinity if @p upTime is 0: IEEE 754 defines that division, the language does not. */
__attribute__((no_sanitize("float-divide-by-zero"))) double loadOf(double idleTime, double upTime) {
    static_assert(std::numeric_limits<double>::is_iec559);
    return 1.0 - idleTime / upTime;
}

[[nodiscard]] bool readTimes(CameraInfo& info, Failure* failure) {
    std::string line;
    if (!readFirstLine("/proc/uptime", line, failure)) return false;
    std::vector<std::string> fields;
    utils::split(line, " ", fields);
    if (!fields.empty()) info["upTime"] = utils::toDouble(fields[0].c_str());
    if (fields.size() >= 2) info["idleTime"] = utils::toDouble(fields[1].c_str());
    const double idleTime = info.idleTime();
    if (idleTime != 0.0) info["totalLoad"] = loadOf(idleTime, info.upTime());
    return true;
}

[[nodiscard]] bool readFirmwareVersion(Variant& record, Failure* failure) {
    std::string version;
    if (!readFile(firmwareVersionFile, version, failure)) return false;
    utils::trim(version);
    const std::size_t firstDot = version.find('.');
    const std::size_t secondDot = version.find('.', firstDot + 1);
    if (secondDot != std::string::npos)
        record["version"] = version.substr(0, firstDot) + version.substr(secondDot);
    if (!version.empty()) record["deviceModel"] = version.substr(0, firstDot);
    record["fullVersion"] = std::move(version);
    return true;
}

/** The form of a full firmware version; its sixth group is the protocol version. */
std::string versionPattern() {
    // Without the first group, regcomp() of glibc 2.36 frees twice when memory runs out. The sets are
    // written out, since in some locales a range such as a-z matches more than ASCII.
    const char* const letter = "[abcdefghijklmnopqrstuvwxyz]";
    const char* const digit = "[0123456789]";
    const char* const either = "[ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789]";
    return utils::format(
        "^(%s+)[.](%s+)"  // model, second field
        "[.]v(%s+)[.](%s+)[.](%s+)[.](%s+)"
        "(-%s+[123456789]?)?"                            // suffix
        "[.](M_)?[abcdef0123456789]+[.]%s{6}[.]%s{4}$",  // build
        either, either, digit, digit, digit, digit, letter, digit, digit);
}

[[nodiscard]] bool storeProtocolVersion(CameraInfo& info, Failure* failure) {
    regex_t pattern;
    const int error = ::regcomp(&pattern, versionPattern().c_str(), REG_EXTENDED);
    if (error != 0) {
        char why[1024];
        (void)::regerror(error, &pattern, why, sizeof why);
        KORVO_LOG("Init", logger::LevelError, 0, "Failed to compile FW version regex: %s", why);
        return refuseFile(firmwareVersionFile, why, failure);
    }
    const std::unique_ptr<regex_t, decltype(&::regfree)> compiled(&pattern, &::regfree);
    const std::string version = info.fullVersion();
    regmatch_t groups[7];  // the match, and the groups up to the protocol version
    // regexec() stops at a zero byte, and would accept the text before it.
    if (version.find('\0') != std::string::npos || ::regexec(&pattern, version.c_str(), 7, groups, 0) != 0) {
        KORVO_LOG("Init", logger::LevelError, errno, "Failed to match FW version regex, fw=%s",
                  version.c_str());
        return refuseFile(firmwareVersionFile, "it holds no firmware version, but '" + version + '\'',
                          failure);
    }
    constexpr unsigned long largest = std::numeric_limits<unsigned int>::max();
    const unsigned long protocolVersion = std::strtoul(version.c_str() + groups[6].rm_so, nullptr, 10);
    info["protocolVer"] = static_cast<unsigned int>(std::min(protocolVersion, largest));
    return true;
}

/** Stores up to twelve characters of the address, with a colon after each pair but the sixth. */
void storeAddressWithColons(Variant& record) {
    const Variant* member = find(record, TypeString, "hwaddr");
    const char* address = "";
    if (member != nullptr) address = *member;
    std::string pairs(address, ::strnlen(address, 12));
    for (std::size_t i = 2; i <= pairs.size() && i < 17; i += 3) pairs.insert(i, ":");
    record["hwaddrColons"] = std::move(pairs);
}

}  // namespace

signed char CameraInfo::feature_mic() { return feature(*this, "feature_mic"); }

signed char CameraInfo::feature_ir() { return feature(*this, "feature_ir"); }

signed char CameraInfo::feature_rtc() { return feature(*this, "feature_rtc"); }

signed char CameraInfo::feature_wifi() { return feature(*this, "feature_wifi"); }

signed char CameraInfo::feature_sdmmc() { return feature(*this, "feature_sdmmc"); }

signed char CameraInfo::feature_video() { return feature(*this, "feature_video"); }

double CameraInfo::idleTime() { return seconds(*this, "idleTime"); }

double CameraInfo::upTime() { return seconds(*this, "upTime"); }

std::string CameraInfo::fullVersion() {
    const std::string& version = memberOrDefault(*this, "fullVersion", TypeString, "");
    return version;
}

bool CameraInfo::Init() { return Init(nullptr); }

bool CameraInfo::Init(Failure* failure) {
    if (!readBoard(*this, failure) || !readHostName(*this, failure) || !readTimes(*this, failure) ||
        !readFirmwareVersion(*this, failure) || !storeProtocolVersion(*this, failure))
        return false;
    storeAddressWithColons(*this);
    if (failure != nullptr) *failure = {};
    return true;
}

}  // namespace korvo::variant
