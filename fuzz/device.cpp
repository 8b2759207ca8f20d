// Any firmware version, board file, uptime and host name (0xff bytes divide the input): CameraInfo::Init() ends, and a
// record that it calls complete has all its members.

#include <algorithm>

#include "fuzz.h"
#include "korvo/variant_utils/camerainfo.h"

using namespace korvo::variant;

void check(const std::string& input) {
    static const test::Device device;
    std::string rest = input;
    for (const char* file : {"lib/version", "etc/board.info", "proc/uptime", "proc/sys/kernel/hostname"}) {
        const std::size_t end = std::min(rest.find('\xff'), rest.size());
        device.write(file, rest.substr(0, end));
        rest.erase(0, end + 1);
    }
    CameraInfo info;
    if (!info.Init()) return;
    for (const char* key : {"hostName", "fullVersion", "version", "deviceModel", "hwaddrColons"})
        FUZZ_CHECK(VariantType(info[key]) == TypeString);
    FUZZ_CHECK(VariantType(info["feature_wifi"]) == TypeInt8);
    FUZZ_CHECK(VariantType(info["protocolVer"]) == TypeUInt32);
    FUZZ_CHECK(info["hwaddrColons"].As<std::string>().size() <= 17);
}
