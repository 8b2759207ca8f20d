#include <string>
#include <vector>

#include "arguments.h"
#include "commands.h"
#include "configuration.h"
#include "korvo/utils/device_root.h"
#include "korvo/variant_utils/camerainfo.h"
#include "output.h"

namespace korvoctl {
namespace {

/** Why the device information is not complete; some files the library fails on without a message. */
std::string whyIncomplete() {
    const std::string told = libraryFailure();
    if (!told.empty()) return told;
    const std::string board = korvo::utils::devicePath("/etc/board.info");
    Values loaded;
    const std::string reason = firstFault(board);
    return !reason.empty() ? reason : firstFault(korvo::utils::devicePath("/lib/version"));
}

}  // namespace

ExitStatus printDeviceInformation(const Arguments& arguments) {
    korvo::variant::CameraInfo info;
    const bool complete = info.Init();
    printRecord(info, arguments.has("json"));
    return complete ? Done : failed(whyIncomplete());
}

}  // namespace korvoctl
