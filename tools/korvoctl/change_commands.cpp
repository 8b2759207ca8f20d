// These commands hold the configuration's lock, and do everything or nothing.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "arguments.h"
#include "commands.h"
#include "configuration.h"
#include "korvo/utils/device_root.h"
#include "korvo/utils/flash.h"
#include "output.h"
#include "waiting.h"

namespace korvoctl {
namespace {

using Change = SystemCfgManager::Change;

/** Begins the message when a change was made but saving it failed. */
const char notSaved[] = "changed the working copy, but did not save it: ";

/** The result of work under the lock, printed without it: a stopped terminal must not stop other writers. */
struct Outcome {
    ExitStatus status = Done;
    std::string message = {};  ///< why it is not Done
};

/** Prints what is wrong. Call it once the lock is free. */
ExitStatus report(const Outcome& outcome) {
    if (outcome.status != Done) tell(outcome.message);
    return outcome.status;
}

/** What to change. */
struct Request {
    std::vector<Change> changes;
    std::string file = {};  ///< where the changes are from; empty for the command line
    std::string text = {};  ///< of the file
    bool force = false;     ///< to discard groups
};

/** Whether both copies load as the same values. @p flash receives the flash copy's, if that loads. */
bool flashHoldsTheSame(korvo::variant::Variant& flash) {
    std::string text;
    korvo::variant::Variant working;
    if (!korvo::utils::loadFromFlashRaw(text) || !SystemCfgManager::load(text, flash, nullptr)) return false;
    return readCopy(workingCopyPath(), text) && SystemCfgManager::load(text, working, nullptr) &&
           flash == working;
}

/** Raises the count of flash writes to the flash copy's, in the tree only: saving writes it. */
void raiseFlashWrites(SystemCfgManager& store, const korvo::variant::Variant& flash) {
    const std::string key = "system.flash.cycles";
    const Values values = valuesOf(flash);
    const auto saved = values.find(key);
    int count = 0;
    if (saved == values.end() || !store.get(key, &count, nullptr)) return;
    if (std::strtoll(saved->second.c_str(), nullptr, 10) <= count) return;
    korvo::variant::Variant* parent = nullptr;
    std::string name;
    store.getLastNode(key, parent, name);
    if (parent != nullptr) (*parent)[name] = saved->second;
}

/** Makes the flash copy's name durable: the process that saved it may have been killed before doing so. */
[[nodiscard]] bool syncFlashDirectory() {
    const std::string path = flashCopyPath();
    const int directory = ::open(path.substr(0, path.rfind('/')).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory < 0) return false;
    const bool synced = ::fsync(directory) == 0 || errno == EINVAL || errno == EROFS;
    (void)::close(directory);
    return synced;
}

/**
 * Closes the store. Whether to save depends on what flash holds, not on what this call changed.
 * @param already  what was done before, for the message when saving fails
 * @param changed  whether this call has changed values, so that the store need not be forced to save
 */
Outcome close(SystemCfgManager& store, bool saveToFlash, const std::string& already, bool changed) {
    korvo::variant::Variant flash;
    if (saveToFlash && !flashHoldsTheSame(flash)) {
        raiseFlashWrites(store, flash);
        if (store.close(true, !changed)) return {};
        return {Failed, already + describe(store.failure())};
    }
    if (saveToFlash && !syncFlashDirectory())
        return {Failed, already + "cannot sync " + flashCopyPath() + ": " + systemError(errno)};
    if (store.close(false, false)) return {};
    return {Failed, describe(store.failure())};
}

/** Why a change is refused, with the line it is from: the last one with its key. */
Outcome refused(const Request& request, const std::string& key, const std::string& reason) {
    if (request.file.empty()) return {Failed, reason};
    const std::size_t begin = ('\n' + request.text).rfind('\n' + key + '=');
    const auto linesBefore = std::count(request.text.data(), request.text.data() + begin, '\n');
    return {Failed, describe(request.file, {static_cast<std::size_t>(linesBefore) + 1, reason})};
}

/** Tries changes on values: each needs something to remove, and discards no group unless forced. */
Outcome tryOut(const Values& before, const Request& request) {
    Values values = before;
    for (const auto& [key, value] : request.changes) {
        if (isGroup(values, key) && !request.force) {
            const char* const reason = value ? " is a group of keys; use --force to replace it"
                                             : " is a group of keys; use --force to remove it";
            return refused(request, key, key + reason);
        }
        // A key that was removed with its group counts as found.
        if (!value && before.count(key) == 0 && !isGroup(before, key))
            return {No, "no such key '" + key + "'"};
        remove(values, key);
        if (value) values[key] = *value;
    }
    return {};
}

/** Makes the changes in the open store. @p changed receives whether any value differs. */
Outcome change(SystemCfgManager& store, const Request& request, bool& changed) {
    korvo::variant::Variant tree;
    if (!store.getVariant(tree)) return {Failed, describe(store.failure())};
    Outcome outcome = tryOut(valuesOf(tree), request);
    if (outcome.status != Done || store.apply(request.changes, &changed)) return outcome;
    const korvo::Failure& failure = store.failure();
    const bool isKey = failure.step == korvo::Step::Key;
    return isKey ? refused(request, failure.subject, describe(failure)) : Outcome{Failed, describe(failure)};
}

/**
 * Opens the store, makes changes and saves, all under the lock.
 * @param already  what was done before, for the message when this fails
 */
Outcome useStore(const Request& request, bool saveToFlash, const char* already = "") {
    announceWait();
    // Before init(), although close() takes this lock: nothing is printed while the store is open.
    if (saveToFlash) announceWait(korvo::utils::flashLock, "save the configuration");
    SystemCfgManager store;
    if (!store.init()) return {Failed, already + describe(store.failure())};
    bool changed = false;
    Outcome outcome = request.changes.empty() ? Outcome{} : change(store, request, changed);
    if (outcome.status != Done) return outcome;
    return close(store, saveToFlash, request.changes.empty() ? already : notSaved, changed);
}

/** Warns of values that load as different ones. */
void warnOfBooleanWords(const std::vector<Change>& changes) {
    for (const Change& change : changes) {
        korvo::variant::Variant tree;
        if (!change.value || !SystemCfgManager::load("value=" + *change.value, tree, nullptr)) continue;
        const std::string& loaded = tree["value"];
        if (loaded != *change.value)
            tell("warning: " + change.key + " will be read as " + loaded +
                 ": words such as on and off load as numbers");
    }
}

ExitStatus makeChanges(Request request, const Arguments& arguments) {
    request.force = arguments.has("force");
    const ExitStatus status = report(useStore(request, arguments.has("save")));
    if (status == Done) warnOfBooleanWords(request.changes);
    return status;
}

}  // namespace

ExitStatus setValues(const Arguments& arguments) {
    std::vector<Change> changes;
    for (const std::string& pair : arguments.operands()) {
        const std::size_t equals = pair.find('=');
        const char* const hint = changes.empty() ? "" : "; quote a value that has blanks";
        if (equals == std::string::npos)
            return wrongUsage("expected KEY=VALUE, got '" + pair + "'" + hint, "set");
        changes.push_back({pair.substr(0, equals), pair.substr(equals + 1)});
    }
    for (const Change& change : changes) {
        if (const char* const fault = SystemCfgManager::keyFault(change.key))
            return failed(describe({korvo::Step::Key, 0, change.key, 0, fault}));
        if (const char* const fault = SystemCfgManager::valueFault(*change.value))
            return failed(describe({korvo::Step::Value, 0, change.key, 0, fault}));
    }
    return makeChanges({changes}, arguments);
}

ExitStatus unsetKeys(const Arguments& arguments) {
    std::vector<Change> changes;
    for (const std::string& key : arguments.operands()) changes.push_back({key, std::nullopt});
    return makeChanges({changes}, arguments);
}

ExitStatus applyFile(const Arguments& arguments) {
    Request request;
    request.file = arguments.operand();
    std::vector<SystemCfgManager::Fault> faults;
    if (!readWhole(request.file, request.text)) return failed(describeRead(request.file));
    if (SystemCfgManager::parse(request.text, request.changes, &faults))
        return makeChanges(request, arguments);
    for (const SystemCfgManager::Fault& fault : faults) tell(describe(request.file, fault));
    return Failed;
}

ExitStatus save(const Arguments&) { return report(useStore({}, true)); }

ExitStatus restore(const Arguments& arguments) {
    using Restored = SystemCfgManager::Restored;
    const std::string defaults = arguments.text("defaults");
    Restored restored{};
    korvo::Failure flashCopy;
    korvo::Failure failure;
    announceWait();
    const bool done =
        SystemCfgManager::restore(defaults, arguments.has("force"), &restored, &flashCopy, &failure);
    const bool flashFailed = flashCopy.step != korvo::Step::None;
    if (!done)
        return failed((flashFailed ? describe(flashCopy) + "; " : "") +
                      (flashFailed && defaults.empty() ? "no --defaults given" : describe(failure)));
    const bool isFirstStart = flashCopy.error == ENOENT && flashCopy.reason.empty();
    if (flashFailed && !isFirstStart) tell(describe(flashCopy));
    printLine(restored == Restored::Flash      ? "restored the flash copy"
              : restored == Restored::Defaults ? "restored the factory settings " + defaults
                                               : "kept the working copy");
    // The next power-up may need the defaults: loadFile() prints what is wrong with them.
    Values unused;
    if (!defaults.empty()) (void)loadFile(defaults, unused);
    return Done;
}

ExitStatus reset(const Arguments& arguments) {
    const std::string defaults = arguments.text("defaults");
    if (defaults.empty()) return wrongUsage("reset: missing --defaults=FILE", "reset");
    korvo::Failure failure;
    announceWait();
    if (!SystemCfgManager::reset(defaults, &failure)) return failed(describe(failure));
    return arguments.has("save") ? report(useStore({}, true, notSaved)) : Done;
}

}  // namespace korvoctl
