// The life of a configuration before it is opened, and after.

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

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
using korvo::logger::LevelWarning;

namespace {

/**
 * Puts a text that loads in the place of the configuration, with the largest count of flash writes that it or
 * one of the others tells, which may be damaged.
 */
[[nodiscard]] bool install(std::string text, const std::string& other, const std::string& another,
                           const InterProcessMutex& lock, const char* function) {
    using configuration::flashWritesIn;
    const int count = std::max({flashWritesIn(text), flashWritesIn(other), flashWritesIn(another)});
    if (!configuration::raiseFlashWrites(text, count))
        return KORVO_FAIL(function, "Failed to set system.cfg key %s", configuration::flashCyclesKey);
    return configuration::replaceFile(text, lock);
}

/** Reads what can be read of a copy of the configuration. */
std::string readAtAll(const std::string& path) {
    std::string text;
    (void)utils::File::ReadStringAll(path, text);
    return text;
}

}  // namespace

bool SystemCfgManager::restore(const std::string& defaults, bool replace) {
    InterProcessMutex lock(utils::configurationLock, true);
    if (!configuration::acquireLock(lock, __func__)) return false;
    const bool missing = ::access(configuration::path().c_str(), F_OK) != 0 && errno == ENOENT;
    if (!missing && !replace) {
        std::string working;
        if (!configuration::readFile(working, __func__)) return false;
        return configuration::loads(working) || KORVO_FAIL(__func__, "Failed to deserialize system.cfg file");
    }
    const std::string working = readAtAll(configuration::path());
    std::string flash;
    std::string factory;
    const bool hasFlash = utils::loadFromFlashRaw(flash);
    const bool flashMissing = !hasFlash && errno == ENOENT;
    const bool hasFactory = !defaults.empty() && utils::File::ReadStringAll(defaults, factory);
    // A file that is cut short or emptied by a failing file system holds no settings.
    if (hasFlash && configuration::holdsSettings(flash) && configuration::loads(flash))
        return install(flash, working, factory, lock, __func__);
    if (!hasFactory || !configuration::loads(factory))
        return KORVO_FAIL(__func__, "Failed to restore system.cfg from flash or from %s", defaults.c_str());
    if (!flashMissing)
        KORVO_LOG(__func__, LevelWarning, 0, "damaged flash copy of system.cfg, taking %s", defaults.c_str());
    return install(factory, working, flash, lock, __func__);
}

bool SystemCfgManager::reset(const std::string& defaults) {
    InterProcessMutex lock(utils::configurationLock, true);
    if (!configuration::acquireLock(lock, __func__)) return false;
    std::string factory;
    if (!utils::File::ReadStringAll(defaults, factory) || !configuration::loads(factory))
        return KORVO_FAIL(__func__, "Failed to load the factory settings %s", defaults.c_str());
    std::string flash;
    (void)utils::loadFromFlashRaw(flash);
    return install(factory, readAtAll(configuration::path()), flash, lock, __func__);
}
