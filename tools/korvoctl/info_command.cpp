#include <string>

#include "arguments.h"
#include "commands.h"
#include "configuration.h"
#include "korvo/utils/device_root.h"
#include "korvo/variant_utils/camerainfo.h"
#include "output.h"

namespace korvoctl {
namespace {

using korvo::variant::CameraInfo;
using korvo::variant::Variant;
using korvo::variant::VariantType;

/** Prints one fact, which a board file may have nested; false when there is no such fact. */
[[nodiscard]] bool printFact(CameraInfo& info, const std::string& name, bool asJson) {
    const Variant& fact = at(info, name);
    const VariantType type = fact;
    if (type == korvo::variant::TypeNull || type == korvo::variant::TypeMap) return false;
    if (asJson) {
        Variant alone;
        at(alone, name) = fact;
        printJson(alone);
    } else {
        printLine(textOf(fact));
    }
    return true;
}

/** Prints why a fact is missing. */
[[nodiscard]] ExitStatus failedToRead(const korvo::Failure& failure) {
    // The library names no line of a damaged board file; loadFile() does.
    Values unused;
    const bool damagedBoard = failure.step == korvo::Step::Load &&
                              failure.subject == korvo::utils::devicePath(korvo::variant::boardFile);
    if (damagedBoard && !loadFile(failure.subject, unused)) return Failed;
    return failed(describe(failure));
}

}  // namespace

ExitStatus printDeviceInformation(const Arguments& arguments) {
    const bool asJson = arguments.has("json");
    CameraInfo info;
    korvo::Failure failure;
    const bool complete = info.Init(&failure);
    if (arguments.operands().empty()) {
        printRecord(info, asJson);
        return complete ? Done : failedToRead(failure);
    }
    if (printFact(info, arguments.operand(), asJson)) return Done;
    return complete ? answerNo("no such fact '" + arguments.operand() + "'") : failedToRead(failure);
}

}  // namespace korvoctl
