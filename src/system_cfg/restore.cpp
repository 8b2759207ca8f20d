// restore() and reset(): how a configuration comes into its place.

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
#include "korvo/utils/flash.h"
#include "korvo/utils/text.h"
#include "korvo/variant_utils/system_cfg.h"

namespace configuration = korvo::configuration;
namespace utils = korvo::utils;
using korvo::fail;
using korvo::Failure;
using korvo::Step;
using korvo::logger::LevelWarning;

namespace {

constexpr char facility[] = "src/system_cfg";

/** What a flash copy is worth. */
enum class FlashCopy {
    Good,
    Missing,
    Empty,      ///< it holds no setting
    Damaged,    ///< set it aside, so that somebody can repair it
    Unreadable  ///< for now: it may be good
};

std::string damagedCopyPath() { return utils::flashCopyPath() + ".damaged"; }

/** Reads the flash copy. Retries for a second, because the reaction to a failure may be a factory reset. */
[[nodiscard]] bool loadFlashCopy(std::string& text, utils::FileAccess& access) {
    constexpr int attempts = 20;
    for (int attempt = 1;; ++attempt) {
        if (utils::loadFromFlashRaw(text, access)) return true;
        if (errno == ENOENT || attempt == attempts) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

/** Raises the count of flash writes in a text that loads. False where it has no place for the count. */
[[nodiscard]] bool raiseCount(std::string& text, int count, const std::string& path, Failure& failure) {
    configuration::raiseFlashWrites(text, count);
    if (configuration::loads(text, path, &failure)) return true;
    const std::string reason =
        utils::format("it has no place for %s: %s", configuration::flashCyclesKey, failure.reason.c_str());
    return fail(&failure, {Step::Load, 0, path, 0, reason});
}

/** One restore() or reset(): what it finds on the device, and what it puts in place. */
class Recovery {
  public:
    Recovery(const char* function, const std::string& defaultsPath)
        : call{function, failure}, lock(utils::configurationLock, true), path(defaultsPath) {}

    [[nodiscard]] bool restore(bool replace) {
        if (!configuration::acquireLock(lock, call)) return false;
        const std::string target = configuration::path();
        const bool hasWorking = readWorkingCopy(target);
        // A full disk may have left an empty configuration. A directory cannot be replaced.
        const bool isFree = hasWorking ? replace || !configuration::contentsOf(working).pairs
                                       : errno == ENOENT || (replace && errno != EISDIR);
        if (isFree) return bringBack();
        if (!hasWorking) return call.fail({Step::Read, errno, target}, "Failed to open system.cfg file");
        restored = SystemCfgManager::Restored::Kept;
        return configuration::loads(working, target, &failure) ||
               call.logFailure("Failed to deserialize system.cfg file");
    }

    [[nodiscard]] bool reset() {
        if (!configuration::acquireLock(lock, call)) return false;
        if (!readDefaults()) return call.logFailure("Failed to load the factory settings %s", path.c_str());
        if (!findOwner()) return false;
        (void)readWorkingCopy(configuration::path());
        (void)utils::loadFromFlashRaw(flash);
        (void)utils::loadDamagedFlashCopy(damaged);
        return installDefaults(false);
    }

    Failure failure;  ///< why nothing was put in place
    Failure noFlash;  ///< why the flash copy was not taken
    SystemCfgManager::Restored restored = SystemCfgManager::Restored::Flash;

  private:
    [[nodiscard]] bool readWorkingCopy(const std::string& from) {
        utils::File file;
        return file.Initialize(from, utils::FILE_OPEN_MODE_READ_NOFOLLOW) && file.ReadStringAll(working);
    }

    /** Reads the factory settings; after a failure, as much as possible. */
    [[nodiscard]] bool readDefaults() {
        utils::File file;
        if (!file.Initialize(path, utils::FILE_OPEN_MODE_READ) || !file.ReadStringAll(defaults))
            return fail(&failure, {Step::Read, errno, path, 0, path.empty() ? "no defaults are given" : ""});
        defaultsAccess = file.Access();
        if (!configuration::loads(defaults, path, &failure)) return false;
        return configuration::contentsOf(defaults).settings ||
               fail(&failure, {Step::Load, 0, path, 0, "it holds no settings"});
    }

    /** Finds out who owns the store: owner and group of the flash directory. */
    [[nodiscard]] bool findOwner() {
        return utils::storeOwner(owner.owner, owner.group) ||
               call.fail({Step::Read, errno, utils::flashCopyPath()},
                         "Failed to find the owner of the flash copy of system.cfg");
    }

    /** Whether a file belongs to root or the store's owner. */
    bool isTrusted(const utils::FileAccess& access) const {
        return access.owner == 0 || access.owner == owner.owner;
    }

    /** Reads the flash copy and judges it; `noFlash` receives why it is not good. */
    FlashCopy readFlashCopy() {
        const std::string copy = utils::flashCopyPath();
        if (!loadFlashCopy(flash, flashAccess)) {
            const int error = errno;
            (void)fail(&noFlash, {Step::Read, error, copy});
            if (error == ENOENT) return FlashCopy::Missing;
            const bool mayPass =
                error == EACCES || error == EPERM || error == EMFILE || error == ENFILE || error == ENOMEM;
            return mayPass ? FlashCopy::Unreadable : FlashCopy::Damaged;
        }
        if (!isTrusted(flashAccess)) {
            const std::string reason =
                utils::format("it belongs to user %lu", static_cast<unsigned long>(flashAccess.owner));
            (void)fail(&noFlash, {Step::Load, 0, copy, 0, reason});
            return FlashCopy::Damaged;
        }
        if (!configuration::loads(flash, copy, &noFlash)) return FlashCopy::Damaged;
        if (configuration::contentsOf(flash).settings) return FlashCopy::Good;
        (void)fail(&noFlash, {Step::Load, 0, copy, 0, "it holds no settings"});
        return FlashCopy::Empty;
    }

    int largestCount() const {
        int count = 0;
        for (const std::string* text : {&working, &flash, &damaged, &defaults})
            count = std::max(count, configuration::contentsOf(*text).largestCount);
        return count;
    }

    /** Puts a text in place. Sets a damaged flash copy aside right before the rename. */
    [[nodiscard]] bool install(const std::string& text, const utils::FileAccess& access, bool isDamaged) {
        configuration::Replacement file(lock, failure);
        return file.write(text, &access) && (!isDamaged || setAside()) && file.commit();
    }

    /** Chooses the access that factory settings get; false with errno if the working copy hides its own. */
    [[nodiscard]] bool chooseAccess(utils::FileAccess& access) const {
        struct stat status {};
        if (::lstat(configuration::path().c_str(), &status) != 0 && errno != ENOENT) return false;
        constexpr mode_t others = 07;
        access = {status.st_uid, status.st_gid, status.st_mode & 0777U};
        if (!S_ISREG(status.st_mode) || status.st_nlink != 1 || !isTrusted(access))
            access = {owner.owner, owner.group, defaultsAccess.bits & ~others};
        return true;
    }

    /** Keeps the next save from replacing a damaged flash copy; `noFlash` receives what became of that. */
    [[nodiscard]] bool setAside() {
        const std::string kept = damagedCopyPath();
        // Another holder of the lock may have saved a good copy meanwhile.
        const int error = !lock.held() ? ESTALE : utils::setFlashCopyAside() ? 0 : errno;
        if (error != 0 && error != EROFS)
            return call.fail({Step::Write, error, kept},
                             "Failed to set the damaged flash copy of system.cfg aside");
        if (!noFlash.reason.empty()) noFlash.reason += "; ";
        noFlash.reason += error == 0 ? "it is kept as " : "it stays in place, on a read-only file system";
        if (error == 0) noFlash.reason += kept;
        return true;
    }

    /** Puts the factory settings in place. If killed after setting a copy aside, the next restore() warns. */
    [[nodiscard]] bool installDefaults(bool isDamaged) {
        if (!raiseCount(defaults, largestCount(), path, failure))
            return call.logFailure("Failed to set system.cfg key %s", configuration::flashCyclesKey);
        utils::FileAccess access;
        if (!chooseAccess(access))
            return configuration::Call{"write", failure}.fail({Step::Write, errno, configuration::path()},
                                                              "Failed to write system.cfg");
        return install(defaults, access, isDamaged);
    }

    /** Warns of the factory settings, unless there never was a flash copy. */
    void warnOfDefaults() const {
        if (noFlash.error == ENOENT && noFlash.reason.empty()) return;
        if (noFlash.error != ENOENT)
            KORVO_LOG("restore", LevelWarning, 0, "damaged flash copy of system.cfg, taking %s",
                      path.c_str());
        const std::string line = noFlash.line != 0 ? utils::format(":%zu", noFlash.line) : "";
        KORVO_LOG("restore", LevelWarning, noFlash.error, "%s%s: %s", noFlash.subject.c_str(), line.c_str(),
                  noFlash.reason.c_str());
    }

    /** What restore() does where there is no working copy to keep. */
    [[nodiscard]] bool bringBack() {
        if (!findOwner()) return false;
        FlashCopy copy = readFlashCopy();
        const bool hasDefaults = readDefaults();
        const bool wasDamaged = utils::loadDamagedFlashCopy(damaged) || errno != ENOENT;
        if (copy == FlashCopy::Good && !raiseCount(flash, largestCount(), utils::flashCopyPath(), noFlash))
            copy = FlashCopy::Damaged;
        if (copy == FlashCopy::Good) {
            failure = {};
            // Root saved a root-owned copy in another user's directory for that user.
            if (flashAccess.owner == 0) flashAccess.owner = owner.owner;
            return install(flash, flashAccess, false);
        }
        if (copy == FlashCopy::Unreadable) failure = std::exchange(noFlash, {});
        if (copy == FlashCopy::Unreadable || !hasDefaults)
            return call.logFailure("Failed to restore system.cfg from flash or from %s", path.c_str());
        if (copy == FlashCopy::Missing && wasDamaged)
            noFlash.reason =
                utils::format("an earlier one, damaged, is kept as %s", damagedCopyPath().c_str());
        if (!installDefaults(copy == FlashCopy::Damaged)) return false;
        restored = SystemCfgManager::Restored::Defaults;
        warnOfDefaults();
        return true;
    }

    const configuration::Call call;
    InterProcessMutex lock;
    const std::string& path;  ///< of the factory settings
    std::string working, flash, defaults;
    std::string damaged;  ///< a flash copy that was set aside
    utils::FileAccess flashAccess, defaultsAccess;
    utils::FileAccess owner;  ///< of the store
};

}  // namespace

bool SystemCfgManager::restore(const std::string& defaults, bool replace) {
    return restore(defaults, replace, nullptr, nullptr, nullptr);
}

bool SystemCfgManager::restore(const std::string& defaults, bool replace, Restored* restored,
                               Failure* flashCopy, Failure* failure) {
    Recovery recovery(__func__, defaults);
    const bool done = recovery.restore(replace);
    if (done && restored != nullptr) *restored = recovery.restored;
    if (flashCopy != nullptr) *flashCopy = std::move(recovery.noFlash);
    if (failure != nullptr) *failure = std::move(recovery.failure);
    return done;
}

bool SystemCfgManager::reset(const std::string& defaults) { return reset(defaults, nullptr); }

bool SystemCfgManager::reset(const std::string& defaults, Failure* failure) {
    Recovery recovery(__func__, defaults);
    const bool done = recovery.reset();
    if (failure != nullptr) *failure = std::move(recovery.failure);
    return done;
}
