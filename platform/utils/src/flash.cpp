#include "korvo/utils/flash.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <utility>

#include "descriptor.h"
#include "korvo/utils/device_root.h"
#include "korvo/utils/file.h"
#include "korvo/utils/inter_process_mutex.h"

namespace korvo::utils {
namespace {

/** Creates a directory and its missing parents. */
[[nodiscard]] bool makeDirectories(const std::string& path) {
    constexpr mode_t mode = S_IRWXU | S_IRGRP | S_IXGRP | S_IROTH | S_IXOTH;
    for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
        const std::string directory = path.substr(0, end);
        if (::mkdir(directory.c_str(), mode) == 0) {
            // The umask may have taken away even what the owner needs.
            struct stat status {};
            if (::stat(directory.c_str(), &status) != 0) return false;
            if ((status.st_mode & S_IRWXU) != S_IRWXU && ::chmod(directory.c_str(), mode) != 0) return false;
        } else if (errno != EEXIST) {
            return false;
        }
        if (end == std::string::npos) return true;
    }
}

Descriptor openDirectory(const char* path, int above = AT_FDCWD) {
    return Descriptor(openFile(path, O_RDONLY | O_DIRECTORY, 0, above));
}

/** Waits until the names in a directory have reached the storage device. */
[[nodiscard]] bool syncDirectory(const Descriptor& directory) {
    if (uninterrupted([&] { return ::fsync(directory.get()); }) == 0) return true;
    return errno == EINVAL || errno == EROFS;  // it cannot be synced, or nothing can have changed
}

/**
 * Makes the names of a directory and of all above it durable, up to the root of its file system: a killed
 * save may have left any of them new.
 */
[[nodiscard]] bool syncDirectoriesAbove(const Descriptor& directory) {
    struct stat below {};
    if (::fstat(directory.get(), &below) != 0) return false;
    Descriptor current;
    for (int number = directory.get();; number = current.get()) {
        Descriptor above = openDirectory("..", number);
        if (!above && errno == EACCES) {
            ::sync();  // a directory that this process may not open can only be synced with everything else
            return true;
        }
        struct stat status {};
        if (!above || ::fstat(above.get(), &status) != 0) return false;
        const bool isTop = status.st_dev != below.st_dev || status.st_ino == below.st_ino;
        if (isTop) return true;
        if (!syncDirectory(above)) return false;
        below = status;
        current = std::move(above);
    }
}

/** Acquires a lock; false with errno set. */
[[nodiscard]] bool acquire(InterProcessMutex& lock) {
    const int error = lock.acquire();
    if (error != 0) errno = error;
    return error == 0;
}

/** rename(2), unless the lock is lost. */
[[nodiscard]] bool renameUnder(const InterProcessMutex& lock, const std::string& from,
                               const std::string& to) {
    if (lock.held()) return std::rename(from.c_str(), to.c_str()) == 0;
    errno = ESTALE;
    return false;
}

std::string flashDirectory() { return devicePath(KORVO_FLASH_DIR); }

std::string damagedCopyPath() { return flashCopyPath() + ".damaged"; }

}  // namespace

std::string flashCopyPath() { return flashDirectory() + "/system.cfg"; }

bool saveToFlashRaw(bool /*reserved*/) {
    // Lock before reading, so the last save has the newest text.
    InterProcessMutex lock(flashLock, true);
    std::string text;
    FileAccess access;
    if (!acquire(lock) ||
        !File::ReadStringAll(devicePath(configurationPath), text, FILE_OPEN_MODE_READ_NOFOLLOW, &access))
        return false;
    const std::string path = flashDirectory();
    if (!makeDirectories(path)) return false;
    const Descriptor directory = openDirectory(path.c_str());
    uid_t owner = 0;
    gid_t group = 0;
    if (!directory || !syncDirectoriesAbove(directory) || !storeOwner(owner, group)) return false;
    if (access.owner != 0) access.owner = owner;

    const std::string copy = flashCopyPath();
    // One name for all, so that power cuts cannot fill the flash.
    const std::string temporary = copy + ".tmp";
    File file;
    const bool isWritten = file.Initialize(temporary, FILE_OPEN_MODE_TRUNCATE) && file.WriteString(text) &&
                           file.SetAccess(access) && file.Sync() && file.Close();
    if (isWritten && renameUnder(lock, temporary, copy)) return syncDirectory(directory);
    // Without the lock, the file of that name may be another process's by now.
    keepingErrno([&] {
        if (lock.held()) (void)::unlink(temporary.c_str());
    });
    return false;
}

bool loadFromFlashRaw(std::string& text) {
    return File::ReadStringAll(flashCopyPath(), text, FILE_OPEN_MODE_READ_NOFOLLOW);
}

bool loadFromFlashRaw(std::string& text, FileAccess& access) {
    return File::ReadStringAll(flashCopyPath(), text, FILE_OPEN_MODE_READ_NOFOLLOW, &access);
}

bool storeOwner(uid_t& owner, gid_t& group) {
    struct stat status {};  // root's
    const bool isMissing = ::stat(flashDirectory().c_str(), &status) != 0;
    if (isMissing && errno != ENOENT && errno != ENOTDIR) return false;
    owner = status.st_uid;
    group = status.st_gid;
    return true;
}

bool setFlashCopyAside() {
    InterProcessMutex lock(flashLock, true);
    if (!acquire(lock)) return false;
    const Descriptor directory = openDirectory(flashDirectory().c_str());
    return directory && renameUnder(lock, flashCopyPath(), damagedCopyPath()) && syncDirectory(directory);
}

bool loadDamagedFlashCopy(std::string& text) {
    return File::ReadStringAll(damagedCopyPath(), text, FILE_OPEN_MODE_READ_NOFOLLOW);
}

}  // namespace korvo::utils
