#include "configuration_file.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "../log.h"
#include "korvo/utils/device_root.h"
#include "korvo/utils/file.h"
#include "korvo/utils/text.h"

namespace korvo::configuration {
namespace {

void removeKeepingErrno(const std::string& temporary) {
    const int error = errno;
    (void)::unlink(temporary.c_str());
    errno = error;
}

}  // namespace

std::string path() { return utils::devicePath(utils::configurationPath); }

bool acquireLock(InterProcessMutex& lock, const char* function) {
    const int result = lock.acquire();
    return result == 0 || KORVO_FAIL(function, "Failed to acquire system.cfg mutex, res=%d", result);
}

bool readFile(std::string& text, const char* function) {
    utils::File file;
    if (!file.Initialize(path(), utils::FILE_OPEN_MODE_READ))
        return KORVO_FAIL(function, "Failed to open system.cfg file");
    return file.ReadStringAll(text) || KORVO_FAIL(function, "Failed to read system.cfg file");
}

bool replaceFile(const std::string& text, const InterProcessMutex& lock) {
    const std::string name = utils::format("%s.%d", utils::configurationPath, static_cast<int>(::getpid()));
    const std::string temporary = utils::devicePath(name.c_str());
    const std::string target = path();
    utils::File file;
    if (!file.Initialize(temporary, utils::FILE_OPEN_MODE_TRUNCATE))
        return KORVO_FAIL("write", "Failed to open system.cfg");
    bool ready = file.WriteString(text) && file.CopyAccess(target) && file.Close();
    // Whoever holds the lock by now may have written since this manager loaded the file.
    if (ready && !lock.held()) {
        ready = false;
        errno = ESTALE;
    }
    const bool replaced = ready && std::rename(temporary.c_str(), target.c_str()) == 0;
    // Named after this process, so it is no other's even when the lock is lost.
    if (!replaced) removeKeepingErrno(temporary);
    if (!ready) return KORVO_FAIL("write", "Failed to write system.cfg");
    return replaced || KORVO_FAIL("write", "Failed to move %s to /tmp/system.cfg", name.c_str());
}

}  // namespace korvo::configuration
