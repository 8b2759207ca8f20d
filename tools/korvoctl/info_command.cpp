#include <string>
#include <vector>

#include "arguments.h"
#include "commands.h"
#include "configuration.h"
#include "json.h"
#include "korvo/utils/device_root.h"
#include "korvo/utils/text.h"
#include "korvo/variant_utils/camerainfo.h"
#include "output.h"

namespace korvoctl {
namespace {

using korvo::variant::CameraInfo;
using korvo::variant::Variant;
using korvo::variant::VariantType;

/** Prints one fact alone; false when there is none of that name. */
[[nodiscard]] bool printFact(const CameraInfo& info, const std::string& name, bool asJson) {
    std::vector<std::string> components;  // a board file may nest facts
    korvo::utils::split(name, ".", components);
    const Variant* fact = &info;
    Variant result;
    Variant* copy = &result;
    for (const std::string& component : components) {
        fact = &(*fact)[component];
        copy = &(*copy)[component];
    }
    const VariantType type = *fact;
    if (type == korvo::variant::TypeNull || type == korvo::variant::TypeMap) return false;
    *copy = *fact;
    if (asJson)
        printJson(result);
    else
        printLine(type == korvo::variant::TypeString ? static_cast<const std::string&>(*fact)
                                                     : scalarText(*fact));
    return true;
}

/** Tells why a fact is missing. */
[[nodiscard]] ExitStatus failedToRead(const korvo::Failure& failure) {
    // For a damaged board file the library names no line; loadFile() does.
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
