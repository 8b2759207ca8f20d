#include "configuration_file.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "korvo/utils/device_root.h"
#include "korvo/utils/text.h"

namespace korvo::configuration {

bool Call::logFailure(const char* message, const char* argument, int line) const {
    logInternal("korvo_variant_utils", "src/system_cfg", function, line, logger::LevelError, 0, 0, message,
                argument);
    return false;
}

bool Call::fail(const Cause& cause, const char* message, const char* argument, int line) const {
    // Log first: the argument may be a text of the previous failure.
    (void)logFailure(message, argument, line);
    return korvo::fail(&failure, cause);
}

std::string path() { return utils::devicePath(utils::configurationPath); }

std::string lockPath() { return path() + ".lock"; }

bool acquireLock(InterProcessMutex& lock, const Call& call) {
    const int result = lock.acquire();
    return result == 0 ||
           call.fail({Step::Lock, result, lockPath()}, "Failed to acquire system.cfg mutex, res=%s",
                     utils::format("%d", result).c_str());
}

bool readFile(std::string& text, const Call& call) {
    utils::File file;
    const std::string from = path();
    const bool opened = file.Initialize(from, utils::FILE_OPEN_MODE_READ_NOFOLLOW);
    return (opened && file.ReadStringAll(text)) ||
           call.fail({Step::Read, errno, from},
                     opened ? "Failed to read system.cfg file" : "Failed to open system.cfg file");
}

Replacement::Replacement(const InterProcessMutex& held, Failure& failure)
    : lock(held),
      call{"write", failure},
      name(utils::format("%s.%d", utils::configurationPath, static_cast<int>(::getpid()))),
      temporary(utils::devicePath(name.c_str())),
      target(path()) {}

// Its name holds the process id: it is ours even if the lock is lost.
Replacement::~Replacement() {
    if (exists) (void)::unlink(temporary.c_str());
}

bool Replacement::write(const std::string& text, const utils::FileAccess* access) {
    utils::File file;
    exists = file.Initialize(temporary, utils::FILE_OPEN_MODE_TRUNCATE);
    return (exists && file.WriteString(text) &&
            (access != nullptr ? file.SetAccess(*access) : file.CopyAccess(target)) && file.Close()) ||
           call.fail({Step::Write, errno, target},
                     exists ? "Failed to write system.cfg" : "Failed to open system.cfg");
}

bool Replacement::commit() {
    // If the lock is lost, another process may hold it and have changed the file.
    if (!lock.held()) return call.fail({Step::Write, ESTALE, target}, "Failed to write system.cfg");
    if (std::rename(temporary.c_str(), target.c_str()) != 0)
        return call.fail({Step::Write, errno, target}, "Failed to move %s to /tmp/system.cfg", name.c_str());
    exists = false;
    return true;
}

}  // namespace korvo::configuration
