// These commands take no lock and write nothing: they work for other users, on a read-only image, beside a
// writer, and into a pipe that nobody reads for a while.

#include <string>
#include <vector>

#include "arguments.h"
#include "commands.h"
#include "configuration.h"
#include "output.h"

namespace korvoctl {
namespace {

std::string pairLine(const std::string& key, const std::string& value) { return key + '=' + value + '\n'; }

}  // namespace

ExitStatus getValues(const Arguments& arguments) {
    const std::vector<std::string>& keys = arguments.operands();
    for (const std::string& key : keys) {
        const std::string refusal = keyRefusal(key);
        if (!refusal.empty()) return failed(refusal);
    }
    Values all;
    Values found;
    std::string lines;
    ExitStatus status = Done;
    if (!loadFile(workingCopyPath(), all)) return Failed;
    for (const std::string& key : keys) {
        const auto value = all.find(key);
        if (value != all.end()) {
            found.insert(*value);
            lines += keys.size() > 1 ? pairLine(key, value->second) : value->second + '\n';
        } else {
            status = answerNo(isGroup(all, key) ? key + " is a group of keys; use 'korvoctl dump'"
                                                : "no such key '" + key + "'");
        }
    }
    if (arguments.has("json")) {
        printJson(nested(found));
    } else {
        printLines(lines);
    }
    return status;
}

ExitStatus dump(const Arguments& arguments) {
    const std::string key = arguments.operand();
    const std::string refusal = arguments.operands().empty() ? "" : keyRefusal(key);
    if (!refusal.empty()) return failed(refusal);
    Values values;
    if (!loadFile(workingCopyPath(), values)) return Failed;
    values = part(values, key);
    if (values.empty() && !key.empty()) return answerNo("no such key '" + key + "'");
    if (arguments.has("json")) {
        printJson(nested(values));
    } else {
        std::string lines;
        for (const auto& [each, value] : values) lines += pairLine(each, value);
        printLines(lines);
    }
    return Done;
}

ExitStatus diff(const Arguments& arguments) {
    Values flash;
    Values working;
    if (!loadFile(flashCopyPath(), flash) || !loadFile(workingCopyPath(), working)) return Failed;
    subtractCommon(flash, working);
    if (arguments.has("json")) {
        korvo::variant::Variant both;
        both["flash"] = nested(flash);
        both["working"] = nested(working);
        printJson(both);
    } else {
        printLines(differenceLines(flash, working));
    }
    return flash.empty() && working.empty() ? Done : No;
}

ExitStatus check(const Arguments& arguments) {
    const bool named = !arguments.operands().empty();
    const std::string name = named ? arguments.operand() : workingCopyPath();
    std::string text;
    std::vector<SystemCfgManager::Change> unused;
    std::vector<SystemCfgManager::Fault> faults;
    // FILE may be a pipe; a pipe in the working copy's place would block forever.
    const bool read = named ? readWhole(name, text) : readCopy(name, text);
    if (!read) return failed(describeRead(name));
    if (SystemCfgManager::parse(text, unused, &faults)) return Done;
    for (const SystemCfgManager::Fault& fault : faults) printLine(describe(name, fault));
    return No;
}

}  // namespace korvoctl
