// The life of a configuration before it is opened, and after.

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <utility>

#include "../log.h"
#include "configuration_file.h"
#include "configuration_text.h"
#include "korvo/utils/device_root.h"
#include "korvo/utils/file.h"
#include "korvo/utils/flash.h"
#include "korvo/utils/inter_process_mutex.h"
#include "korvo/variant_utils/system_cfg.h"

namespace configuration = korvo::configuration;
namespace utils = korvo::utils;
using korvo::fail;
using korvo::Failure;
using korvo::Step;
using korvo::logger::LevelWarning;

namespace {

constexpr char facility[] = "src/system_cfg";

/** A configuration, and who may access the file it is from. */
struct Source {
    std::string text;
    utils::FileAccess access;
};

/** What a flash copy is good for. */
enum class FlashCopy {
    Good,
    Missing,
    Empty,      ///< it holds no setting
    Damaged,    ///< to be kept for whoever can repair it
    Unreadable  ///< for now: it may be good
};

std::string damagedCopyPath() { return utils::flashCopyPath() + ".damaged"; }

[[nodiscard]] bool readWorkingCopy(const std::string& path, std::string& text) {
    utils::File file;
    return file.Initialize(path, utils::FILE_OPEN_MODE_READ_NOFOLLOW) && file.ReadStringAll(text);
}

/** Reads the factory settings. After a failure the text is what could be read. */
[[nodiscard]] bool readDefaults(const std::string& path, Source& defaults, Failure* failure) {
    utils::File file;
    if (!file.Initialize(path, utils::FILE_OPEN_MODE_READ) || !file.ReadStringAll(defaults.text))
        return fail(failure, {Step::Read, errno, path, 0, path.empty() ? "no defaults are given" : ""});
    defaults.access = file.Access();
    if (!configuration::loads(defaults.text, path, failure)) return false;
    return configuration::holdsSettings(defaults.text) ||
           fail(failure, {Step::Load, 0, path, 0, "it holds no settings"});
}

/** Finds out who owns the store: owner and group of the flash directory. */
[[nodiscard]] bool findOwner(utils::FileAccess& owner, const char* function, Failure* failure) {
    return utils::storeOwner(owner.owner, owner.group) ||
           fail(failure, {Step::Read, errno, utils::flashCopyPath(), 0, ""}) ||
           KORVO_FAIL(function, "Failed to find the owner of the flash copy of system.cfg");
}

/** Root and the store's owner; anybody else's file is not the store's. */
bool isTrusted(const utils::FileAccess& access, const utils::FileAccess& owner) {
    return access.owner == 0 || access.owner == owner.owner;
}

/** Reads the flash copy. Retries for a second, because the reaction to a failure may be a factory reset. */
[[nodiscard]] bool loadFlashCopy(Source& flash) {
    constexpr int attempts = 20;
    for (int attempt = 1;; ++attempt) {
        if (utils::loadFromFlashRaw(flash.text, flash.access)) return true;
        if (errno == ENOENT || attempt == attempts) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

/** Whether the cause of a failed read may go away, and the file be good. */
bool mayPass(int error) {
    return error == EACCES || error == EPERM || error == EMFILE || error == ENFILE || error == ENOMEM;
}

/** Reads the flash copy and judges it; @p why tells why it is not good. */
FlashCopy readFlashCopy(Source& flash, const utils::FileAccess& owner, Failure& why) {
    const std::string path = utils::flashCopyPath();
    if (!loadFlashCopy(flash)) {
        why = {Step::Read, errno, path, 0, ""};
        return why.error == ENOENT  ? FlashCopy::Missing
               : mayPass(why.error) ? FlashCopy::Unreadable
                                    : FlashCopy::Damaged;
    }
    if (!isTrusted(flash.access, owner)) {
        why = {Step::Load, 0, path, 0, "it belongs to user " + std::to_string(flash.access.owner)};
        return FlashCopy::Damaged;
    }
    if (!configuration::loads(flash.text, path, &why)) return FlashCopy::Damaged;
    if (configuration::holdsSettings(flash.text)) return FlashCopy::Good;
    why = {Step::Load, 0, path, 0, "it holds no settings"};
    return FlashCopy::Empty;
}

/** Raises the count of flash writes in a text that loads. False where it has no place for the count. */
[[nodiscard]] bool raiseCount(std::string& text, int count, const std::string& path, Failure* failure) {
    configuration::raiseFlashWrites(text, count);
    Failure noPlace;
    return configuration::loads(text, path, &noPlace) ||
           fail(failure, {Step::Load, 0, path, 0,
                          std::string("it has no place for ") + configuration::flashCyclesKey + ": " +
                              noPlace.reason});
}

/** What restore() and reset() find on the device. */
struct Found {
    Source flash, defaults;
    std::string working;
    std::string damaged;        ///< a flash copy that was set aside
    utils::FileAccess owner{};  ///< of the store
};

int largestCount(const Found& found) {
    using configuration::flashWritesIn;
    return std::max({flashWritesIn(found.working), flashWritesIn(found.flash.text),
                     flashWritesIn(found.damaged), flashWritesIn(found.defaults.text)});
}

/** A root-owned copy in another user's directory comes as his: root has saved it for him. */
[[nodiscard]] bool installFlashCopy(const Found& found, const InterProcessMutex& lock, Failure* failure) {
    utils::FileAccess access = found.flash.access;
    if (access.owner == 0) access.owner = found.owner.owner;
    configuration::Replacement file(lock);
    return file.write(found.flash.text, &access, failure) && file.commit(failure);
}

/** The access that a working copy has with the factory settings; false, with errno set, if it cannot be told. */
[[nodiscard]] bool chooseAccess(const Found& found, utils::FileAccess& access) {
    struct stat status {};
    if (::lstat(configuration::path().c_str(), &status) != 0 && errno != ENOENT) return false;
    const utils::FileAccess working = {status.st_uid, status.st_gid, status.st_mode & 0777U};
    const bool isStores = S_ISREG(status.st_mode) && status.st_nlink == 1 && isTrusted(working, found.owner);
    constexpr mode_t others = 07;
    access = {found.owner.owner, found.owner.group, found.defaults.access.bits & ~others};
    if (isStores) access = working;
    return true;
}

/** Keeps a damaged flash copy from being replaced by the next save; @p why receives what became of it. */
[[nodiscard]] bool setAside(const InterProcessMutex& lock, Failure& why, Failure* failure) {
    const std::string kept = damagedCopyPath();
    std::string fate = "it is kept as " + kept;
    // Another holder of the lock may have saved a good copy meanwhile.
    const bool held = lock.held();
    if (!held || !utils::setFlashCopyAside()) {
        const int error = held ? errno : ESTALE;
        if (error != EROFS)
            return fail(failure, {Step::Write, error, kept, 0, ""}) ||
                   KORVO_FAIL("restore", "Failed to set the damaged flash copy of system.cfg aside");
        fate = "it stays in place, on a read-only file system";
    }
    why.reason += (why.reason.empty() ? "" : "; ") + fate;
    return true;
}

/**
 * Puts the factory settings in place, and before that a damaged flash copy aside: killed in between, the next
 * restore() finds neither, and warns.
 */
[[nodiscard]] bool installDefaults(Found& found, const std::string& path, const char* function,
                                   const InterProcessMutex& lock, Failure* damaged, Failure* failure) {
    if (!raiseCount(found.defaults.text, largestCount(found), path, failure))
        return KORVO_FAIL(function, "Failed to set system.cfg key %s", configuration::flashCyclesKey);
    utils::FileAccess access{};
    if (!chooseAccess(found, access))
        return fail(failure, {Step::Write, errno, configuration::path(), 0, ""}) ||
               KORVO_FAIL("write", "Failed to write system.cfg");
    configuration::Replacement file(lock);
    return file.write(found.defaults.text, &access, failure) &&
           (damaged == nullptr || setAside(lock, *damaged, failure)) && file.commit(failure);
}

/** Warns that the factory settings are in place, unless there never was a flash copy. */
void warnOfDefaults(const Failure& noFlash, const std::string& defaults) {
    if (noFlash.error == ENOENT && noFlash.reason.empty()) return;
    if (noFlash.error != ENOENT)
        KORVO_LOG("restore", LevelWarning, 0, "damaged flash copy of system.cfg, taking %s",
                  defaults.c_str());
    const std::string line = noFlash.line != 0 ? ':' + std::to_string(noFlash.line) : "";
    KORVO_LOG("restore", LevelWarning, noFlash.error, "%s%s: %s", noFlash.subject.c_str(), line.c_str(),
              noFlash.reason.c_str());
}

/** What restore() does where there is no working copy to keep. */
[[nodiscard]] bool bringBack(Found& found, const std::string& defaults, const InterProcessMutex& lock,
                             SystemCfgManager::Restored& restored, Failure& noFlash, Failure* failure) {
    if (!findOwner(found.owner, "restore", failure)) return false;
    Failure noDefaults;
    FlashCopy copy = readFlashCopy(found.flash, found.owner, noFlash);
    const bool hasDefaults = readDefaults(defaults, found.defaults, &noDefaults);
    const bool wasDamaged = utils::loadDamagedFlashCopy(found.damaged) || errno != ENOENT;
    if (copy == FlashCopy::Good) {
        if (raiseCount(found.flash.text, largestCount(found), utils::flashCopyPath(), &noFlash))
            return installFlashCopy(found, lock, failure);
        copy = FlashCopy::Damaged;
    }
    if (copy == FlashCopy::Unreadable) noDefaults = std::exchange(noFlash, {});
    if (copy == FlashCopy::Unreadable || !hasDefaults)
        return fail(failure, {noDefaults.step, noDefaults.error, noDefaults.subject, noDefaults.line,
                              noDefaults.reason}) ||
               KORVO_FAIL("restore", "Failed to restore system.cfg from flash or from %s", defaults.c_str());
    if (copy == FlashCopy::Missing && wasDamaged)
        noFlash.reason = "an earlier one, damaged, is kept as " + damagedCopyPath();
    Failure* const damaged = copy == FlashCopy::Damaged ? &noFlash : nullptr;
    if (!installDefaults(found, defaults, "restore", lock, damaged, failure)) return false;
    restored = SystemCfgManager::Restored::Defaults;
    warnOfDefaults(noFlash, defaults);
    return true;
}

/** What restore() does under the lock. */
[[nodiscard]] bool keepOrBringBack(const std::string& defaults, bool replace, const InterProcessMutex& lock,
                                   SystemCfgManager::Restored& restored, Failure& noFlash, Failure* failure) {
    Found found;
    const std::string path = configuration::path();
    const bool hasWorking = readWorkingCopy(path, found.working);
    // What has no pair at all is what a full disk leaves of a configuration. No directory can be replaced.
    const bool isFree = hasWorking ? replace || !configuration::holdsPairs(found.working)
                                   : errno == ENOENT || (replace && errno != EISDIR);
    if (isFree) return bringBack(found, defaults, lock, restored, noFlash, failure);
    if (!hasWorking)
        return fail(failure, {Step::Read, errno, path, 0, ""}) ||
               KORVO_FAIL("restore", "Failed to open system.cfg file");
    restored = SystemCfgManager::Restored::Kept;
    return configuration::loads(found.working, path, failure) ||
           KORVO_FAIL("restore", "Failed to deserialize system.cfg file");
}

/** What reset() does under the lock. */
[[nodiscard]] bool takeDefaults(const std::string& defaults, const InterProcessMutex& lock,
                                Failure* failure) {
    Found found;
    if (!readDefaults(defaults, found.defaults, failure))
        return KORVO_FAIL("reset", "Failed to load the factory settings %s", defaults.c_str());
    if (!findOwner(found.owner, "reset", failure)) return false;
    (void)readWorkingCopy(configuration::path(), found.working);
    (void)utils::loadFromFlashRaw(found.flash.text);
    (void)utils::loadDamagedFlashCopy(found.damaged);
    return installDefaults(found, defaults, "reset", lock, nullptr, failure);
}

}  // namespace

bool SystemCfgManager::restore(const std::string& defaults, bool replace) {
    return restore(defaults, replace, nullptr, nullptr, nullptr);
}

bool SystemCfgManager::restore(const std::string& defaults, bool replace, Restored* restored,
                               Failure* flashCopy, Failure* failure) {
    Failure why;
    Failure noFlash;
    Restored now = Restored::Flash;
    InterProcessMutex lock(utils::configurationLock, true);
    const bool done = configuration::acquireLock(lock, __func__, &why) &&
                      keepOrBringBack(defaults, replace, lock, now, noFlash, &why);
    if (done && restored != nullptr) *restored = now;
    if (flashCopy != nullptr) *flashCopy = std::move(noFlash);
    if (failure != nullptr) *failure = std::move(why);
    return done;
}

bool SystemCfgManager::reset(const std::string& defaults) { return reset(defaults, nullptr); }

bool SystemCfgManager::reset(const std::string& defaults, Failure* failure) {
    Failure why;
    InterProcessMutex lock(utils::configurationLock, true);
    const bool done = configuration::acquireLock(lock, __func__, &why) && takeDefaults(defaults, lock, &why);
    if (failure != nullptr) *failure = std::move(why);
    return done;
}
