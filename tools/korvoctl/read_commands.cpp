// What only looks takes no lock and writes nothing, so that it works for other users, on a read-only image,
// beside a writer and into a pipe that nobody reads for a while.

#include <cerrno>
#include <set>
#include <string>
#include <vector>

#include "arguments.h"
#include "commands.h"
#include "configuration.h"
#include "korvo/utils/file.h"
#include "output.h"

namespace korvoctl {
namespace {

std::string pairLines(const Values& values) {
    std::string lines;
    for (const auto& [key, value] : values) lines.append(key).append("=").append(value).append("\n");
    return lines;
}

ExitStatus groupInstead(const std::string& key) {
    return answerNo(key + " is a group of keys; 'korvoctl dump " + key + "' prints it");
}

/** The values under the keys; missing ones are told and make the status No. */
ExitStatus select(const Values& all, const std::vector<std::string>& keys, Values& found) {
    ExitStatus status = Done;
    for (const std::string& key : keys) {
        const auto value = all.find(key);
        if (value != all.end()) {
            found.insert(*value);
        } else if (isGroup(all, key)) {
            status = groupInstead(key);
        } else {
            status = answerNo("there is no value under the key " + key);
        }
    }
    return status;
}

}  // namespace

ExitStatus getValues(const Arguments& arguments) {
    const std::vector<std::string>& keys = arguments.operands();
    std::set<std::string> once;
    for (const std::string& key : keys) {
        if (!once.insert(key).second) return wrongUsage("the key " + key + " is given twice", "get");
    }
    for (const std::string& key : keys) {
        const char* const fault = SystemCfgManager::keyFault(key);
        if (fault != nullptr) return failed("the key '" + key + "' is refused: " + fault);
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
    Values values;
    if (!loadFile(workingCopyPath(), values)) return Failed;
    values = part(values, arguments.operand());
    if (values.empty() && !arguments.operand().empty())
        return answerNo("there is nothing under the key " + arguments.operand());
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
    korvo::variant::Variant tree;
    std::vector<SystemCfgManager::Fault> faults;
    // What stands in the working copy's place may be a pipe that nobody writes to; a named one is asked for.
    const bool read = named ? readWhole(name, text) : korvo::utils::File::ReadStringAll(name, text);
    if (!read) return failed("cannot read " + shownName(name) + ": " + systemError(errno));
    if (SystemCfgManager::load(text, tree, &faults)) return Done;
    for (const SystemCfgManager::Fault& fault : faults) printLine(describe(name, fault));
    return No;
}

}  // namespace korvoctl
