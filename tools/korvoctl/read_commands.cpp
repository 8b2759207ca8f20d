// These commands take no lock and write nothing, so that they work for other users, on a read-only image,
// beside a writer and into a pipe that nobody reads for a while.

#include <set>
#include <string>
#include <vector>

#include "arguments.h"
#include "commands.h"
#include "configuration.h"
#include "output.h"

namespace korvoctl {
namespace {

std::string pairLines(const Values& values) {
    std::string lines;
    for (const auto& [key, value] : values) lines.append(key).append("=").append(value).append("\n");
    return lines;
}

/** The values under the keys; prints the missing ones, which make the status No. */
ExitStatus select(const Values& all, const std::vector<std::string>& keys, Values& found) {
    ExitStatus status = Done;
    for (const std::string& key : keys) {
        const auto value = all.find(key);
        if (value != all.end()) {
            found.insert(*value);
        } else if (isGroup(all, key)) {
            status = answerNo(key + " is a group of keys; use 'korvoctl dump'");
        } else {
            status = answerNo("no such key '" + key + "'");
        }
    }
    return status;
}

}  // namespace

ExitStatus getValues(const Arguments& arguments) {
    const std::vector<std::string>& keys = arguments.operands();
    std::set<std::string> once;
    for (const std::string& key : keys) {
        if (!once.insert(key).second) return wrongUsage("key '" + key + "' given twice", "get");
    }
    for (const std::string& key : keys) {
        const std::string refusal = keyRefusal(key);
        if (!refusal.empty()) return failed(refusal);
    }
    Values all;
    Values found;
    if (!loadFile(workingCopyPath(), all)) return Failed;
    const ExitStatus status = select(all, keys, found);
    if (arguments.has("json")) {
        printJson(nested(found));
    } else if (keys.size() > 1) {
        for (const std::string& key : keys) {
            const auto value = found.find(key);
            if (value != found.end()) printLines(pairLines({*value}));
        }
    } else if (!found.empty()) {
        printLines(found.begin()->second + '\n');
    }
    return status;
}

ExitStatus dump(const Arguments& arguments) {
    const std::string refusal = arguments.operands().empty() ? "" : keyRefusal(arguments.operand());
    if (!refusal.empty()) return failed(refusal);
    Values values;
    if (!loadFile(workingCopyPath(), values)) return Failed;
    values = part(values, arguments.operand());
    if (values.empty() && !arguments.operand().empty())
        return answerNo("no such key '" + arguments.operand() + "'");
    if (arguments.has("json")) {
        printJson(nested(values));
    } else {
        printLines(pairLines(values));
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
    // A pipe may be given by name; in the working copy's place, one would block forever.
    const bool read = named ? readWhole(name, text) : readCopy(name, text);
    if (!read) return failed(describeRead(name));
    if (SystemCfgManager::parse(text, unused, &faults)) return Done;
    for (const SystemCfgManager::Fault& fault : faults) printLine(describe(name, fault));
    return No;
}

}  // namespace korvoctl
