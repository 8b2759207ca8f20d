#include <string>

#include "arguments.h"
#include "commands.h"
#include "configuration.h"
#include "korvo/utils/device_root.h"
#include "korvo/utils/file.h"
#include "korvo/variant_utils/camerainfo.h"
#include "output.h"

namespace korvoctl {
namespace {

/** Why the device information is not complete; on some files the library fails without a message. */
std::string whyIncomplete() {
    std::string told = libraryFailure();
    if (!told.empty()) return told;
    const std::string board = korvo::utils::devicePath(korvo::variant::boardFile);
    std::string text;
    korvo::variant::Variant tree;
    const bool boardLoads =
        korvo::utils::File::ReadStringAll(board, text) && tree.FromKVP(text, true, true, true);
    return firstFault(boardLoads ? korvo::utils::devicePath(korvo::variant::firmwareVersionFile) : board);
}

}  // namespace

ExitStatus printDeviceInformation(const Arguments& arguments) {
    korvo::variant::CameraInfo info;
    const bool complete = info.Init();
    printRecord(info, arguments.has("json"));
    return complete ? Done : failed(whyIncomplete());
}

}  // namespace korvoctl
