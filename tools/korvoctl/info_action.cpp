#include <cerrno>
#include <string>
#include <system_error>

#include "actions.h"
#include "korvo/utils/device_root.h"
#include "korvo/utils/file.h"
#include "korvo/variant_utils/camerainfo.h"

namespace korvoctl {
namespace {

/** Names a file that the library fails on without a message. */
void explainSilentFailure() {
    for (const char* fixedPath : {"/etc/board.info", "/lib/version"}) {
        const std::string path = korvo::utils::devicePath(fixedPath);
        std::string text;
        korvo::variant::Variant tree;
        if (!korvo::utils::File::ReadStringAll(path, text)) {
            (void)failed("cannot read " + path + ": " + std::generic_category().message(errno));
        } else if (fixedPath == std::string("/etc/board.info") && !tree.FromKVP(text, true, true, true)) {
            (void)failed(path + " is no key=value text");
        }
    }
}

}  // namespace

ExitStatus printDeviceInformation(const Options&) {
    korvo::variant::CameraInfo info;
    const bool complete = info.Init();
    if (!complete) explainSilentFailure();
    printRecord(info);
    return complete ? Done : Failed;
}

}  // namespace korvoctl
