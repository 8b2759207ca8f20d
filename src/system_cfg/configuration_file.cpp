#include "configuration_file.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

#include "../log.h"
#include "korvo/utils/device_root.h"
#include "korvo/utils/file.h"
#include "korvo/utils/text.h"

namespace korvo::configuration {
namespace {

constexpr char facility[] = "src/system_cfg";

/** Whether the lock is still held; whoever holds it by now may have changed the file. */
bool stillHeld(const InterProcessMutex& lock) {
    if (lock.held()) return true;
    errno = ESTALE;
    return false;
}

}  // namespace

std::string path() { return utils::devicePath(utils::configurationPath); }

std::string lockPath() { return path() + ".lock"; }

bool acquireLock(InterProcessMutex& lock, const char* function, Failure* failure) {
    const int result = lock.acquire();
    return result == 0 || fail(failure, {Step::Lock, result, lockPath(), 0, ""}) ||
           KORVO_FAIL(function, "Failed to acquire system.cfg mutex, res=%d", result);
}

bool readFile(std::string& text, const char* function, Failure* failure) {
    utils::File file;
    const bool opened = file.Initialize(path(), utils::FILE_OPEN_MODE_READ_NOFOLLOW);
    if (opened && file.ReadStringAll(text)) return true;
    (void)fail(failure, {Step::Read, errno, path(), 0, ""});
    if (!opened) return KORVO_FAIL(function, "Failed to open system.cfg file");
    return KORVO_FAIL(function, "Failed to read system.cfg file");
}

Replacement::Replacement(const InterProcessMutex& held)
    : lock(held),
      name(utils::format("%s.%d", utils::configurationPath, static_cast<int>(::getpid()))),
      temporary(utils::devicePath(name.c_str())) {}

// Named after this process, so it is no other's even when the lock is lost.
Replacement::~Replacement() {
    if (exists) (void)::unlink(temporary.c_str());
}

bool Replacement::write(const std::string& text, const utils::FileAccess* access, Failure* failure) {
    utils::File file;
    exists = file.Initialize(temporary, utils::FILE_OPEN_MODE_TRUNCATE);
    if (exists && file.WriteString(text) &&
        (access != nullptr ? file.SetAccess(*access) : file.CopyAccess(path())) && file.Close())
        return true;
    (void)fail(failure, {Step::Write, errno, path(), 0, ""});
    return KORVO_FAIL("write", exists ? "Failed to write system.cfg" : "Failed to open system.cfg");
}

bool Replacement::commit(Failure* failure) {
    const std::string target = path();
    const bool held = stillHeld(lock);
    if (held && std::rename(temporary.c_str(), target.c_str()) == 0) {
        exists = false;
        return true;
    }
    (void)fail(failure, {Step::Write, errno, target, 0, ""});
    if (!held) return KORVO_FAIL("write", "Failed to write system.cfg");
    return KORVO_FAIL("write", "Failed to move %s to /tmp/system.cfg", name.c_str());
}

bool replaceFile(const std::string& text, const InterProcessMutex& lock, Failure* failure) {
    Replacement file(lock);
    return file.write(text, nullptr, failure) && file.commit(failure);
}

}  // namespace korvo::configuration
