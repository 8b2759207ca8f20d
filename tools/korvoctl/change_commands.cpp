// What changes something works under the configuration's lock: all of it or nothing.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <string>
#include <vector>

#include "arguments.h"
#include "commands.h"
#include "configuration.h"
#include "korvo/utils/device_root.h"
#include "korvo/utils/file.h"
#include "korvo/utils/flash.h"
#include "waiting.h"

namespace korvoctl {
namespace {

using Change = SystemCfgManager::Change;

/** @param already  what has been done before, for the message about a failure */
[[nodiscard]] bool open(SystemCfgManager& store, const std::string& already = "") {
    const WaitNotice notice;
    if (store.init()) return true;
    tell(already + libraryFailure());
    return false;
}

/** Whether the flash copy loads as the same values as the working copy. */
bool flashHoldsTheSame() {
    std::string text;
    korvo::variant::Variant flash;
    korvo::variant::Variant working;
    if (!korvo::utils::loadFromFlashRaw(text) || !SystemCfgManager::load(text, flash, nullptr)) return false;
    return korvo::utils::File::ReadStringAll(workingCopyPath(), text) &&
           SystemCfgManager::load(text, working, nullptr) && flash == working;
}

/** Makes the name of the flash copy durable: whoever saved it may have been killed before doing so. */
[[nodiscard]] bool syncFlashFolder() {
    const std::string path = flashCopyPath();
    const int folder = ::open(path.substr(0, path.rfind('/')).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) return false;
    const bool synced = ::fsync(folder) == 0 || errno == EINVAL || errno == EROFS;
    (void)::close(folder);
    return synced;
}

/**
 * Ends the use of the store. What is saved is decided by what flash holds, not by what this call changed.
 * @param state  what the working copy is when saving fails: "changed" or "kept"
 */
ExitStatus close(SystemCfgManager& store, bool saveToFlash, const std::string& state) {
    if (!saveToFlash) return store.close(false, false) ? Done : failed(libraryFailure());
    const std::string notSaved = "the working copy is " + state + ", but not saved: ";
    if (!flashHoldsTheSame()) {
        const WaitNotice notice(korvo::utils::flashLock, "is saving the configuration");
        return store.close(true, true) ? Done : failed(notSaved + libraryFailure());
    }
    if (!syncFlashFolder())
        return failed(notSaved + "cannot make " + flashCopyPath() + " durable: " + systemError(errno));
    return store.close(false, false) ? Done : failed(libraryFailure());
}

/** The first of a key's parents that has a value; empty when none has. */
std::string parentWithValue(const Values& values, const std::string& key) {
    for (std::size_t dot = key.find('.'); dot != std::string::npos; dot = key.find('.', dot + 1)) {
        std::string parent = key.substr(0, dot);
        if (values.count(parent) != 0) return parent;
    }
    return {};
}

/** Why a key cannot be given a value, or be removed for a change without one; empty when it can. */
std::string refusal(const Values& values, const Change& change, bool force) {
    const std::string& key = change.key;
    if (const char* fault = SystemCfgManager::keyFault(key))
        return "the key '" + key + "' is refused: " + fault;
    if (change.value) {
        if (const char* fault = SystemCfgManager::valueFault(*change.value))
            return "the value of " + key + " is refused: " + fault;
        const std::string parent = parentWithValue(values, key);
        if (!parent.empty()) return parent + " has a value, so there can be no key " + key;
    }
    if (isGroup(values, key) && !force)
        return key + " is a group of keys, which only --force " + (change.value ? "replaces" : "removes");
    return {};
}

/** Applies changes to values. Not Done, with the reason told, where one of them is refused. */
ExitStatus tryOut(const Values& before, const std::vector<Change>& changes, bool force) {
    Values values = before;
    for (const Change& change : changes) {
        const std::string reason = refusal(values, change, force);
        if (!reason.empty()) return failed(reason);
        // A key that has gone with a group before it was there all the same.
        if (!change.value && part(before, change.key).empty())
            return answerNo("there is no key " + change.key);
        for (const auto& value : part(values, change.key)) values.erase(value.first);
        if (change.value) values[change.key] = *change.value;
    }
    return Done;
}

ExitStatus makeChanges(const std::vector<Change>& changes, const Arguments& arguments) {
    SystemCfgManager store;
    korvo::variant::Variant tree;
    if (!open(store)) return Failed;
    if (!store.getVariant(tree)) return failed(libraryFailure());
    const ExitStatus status = tryOut(valuesOf(tree), changes, arguments.has("force"));
    if (status != Done) return status;
    if (!store.apply(changes, nullptr)) return failed(libraryFailure());
    return close(store, arguments.has("save"), "changed");
}

/** Whether no key is given twice; tells the first that is. */
[[nodiscard]] bool eachOnce(const std::vector<Change>& changes, const char* command) {
    std::set<std::string> keys;
    for (const Change& change : changes) {
        if (keys.insert(change.key).second) continue;
        (void)wrongUsage("the key " + change.key + " is given twice", command);
        return false;
    }
    return true;
}

}  // namespace

ExitStatus setValues(const Arguments& arguments) {
    std::vector<Change> changes;
    for (const std::string& pair : arguments.operands()) {
        const std::size_t equals = pair.find('=');
        if (equals == std::string::npos) return wrongUsage("'" + pair + "' is no KEY=VALUE", "set");
        changes.push_back({pair.substr(0, equals), pair.substr(equals + 1)});
    }
    return eachOnce(changes, "set") ? makeChanges(changes, arguments) : WrongUsage;
}

ExitStatus unsetKeys(const Arguments& arguments) {
    std::vector<Change> changes;
    for (const std::string& key : arguments.operands()) changes.push_back({key, std::nullopt});
    return eachOnce(changes, "unset") ? makeChanges(changes, arguments) : WrongUsage;
}

ExitStatus applyFile(const Arguments& arguments) {
    const std::string name = arguments.operand();
    std::string text;
    std::vector<Change> changes;
    std::vector<SystemCfgManager::Fault> faults;
    if (!readWhole(name, text)) return failed("cannot read " + shownName(name) + ": " + systemError(errno));
    if (!SystemCfgManager::parse(text, changes, &faults)) return failed(describe(name, faults.front()));
    return eachOnce(changes, "apply") ? makeChanges(changes, arguments) : WrongUsage;
}

ExitStatus save(const Arguments&) {
    SystemCfgManager store;
    return open(store) ? close(store, true, "kept") : Failed;
}

ExitStatus restore(const Arguments& arguments) {
    const std::string defaults = arguments.text("defaults");
    {
        const WaitNotice notice;
        if (!SystemCfgManager::restore(defaults, arguments.has("force"))) return failed(libraryFailure());
    }
    // Or nobody would know why the services run with other settings than before the power cut.
    if (tookDefaults()) tell(firstFault(flashCopyPath()) + "; " + defaults + " has been taken instead");
    return Done;
}

ExitStatus reset(const Arguments& arguments) {
    const std::string defaults = arguments.text("defaults");
    if (defaults.empty()) return wrongUsage("reset needs --defaults=FILE", "reset");
    bool done = false;
    {
        const WaitNotice notice;
        done = SystemCfgManager::reset(defaults);
    }
    if (!done) return failed(libraryFailure());
    if (!arguments.has("save")) return Done;
    SystemCfgManager store;
    const bool opened = open(store, "the working copy is changed, but not saved: ");
    return opened ? close(store, true, "changed") : Failed;
}

}  // namespace korvoctl
