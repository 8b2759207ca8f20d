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

constexpr mode_t folderMode = S_IRWXU | S_IRGRP | S_IXGRP | S_IROTH | S_IXOTH;

/** Makes a folder and what is missing of its parents. */
[[nodiscard]] bool makeFolders(const std::string& path) {
    for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
        const std::string folder = path.substr(0, end);
        if (::mkdir(folder.c_str(), folderMode) == 0) {
            // The umask may have taken away even what the owner needs.
            struct stat status {};
            if (::stat(folder.c_str(), &status) != 0) return false;
            if ((status.st_mode & S_IRWXU) != S_IRWXU && ::chmod(folder.c_str(), folderMode) != 0)
                return false;
        } else if (errno != EEXIST) {
            return false;
        }
        if (end == std::string::npos) return true;
    }
}

Descriptor openFolder(const char* path, int above = AT_FDCWD) {
    return Descriptor(openFile(path, O_RDONLY | O_DIRECTORY, 0, above));
}

/** Opens a folder, which is made when it is missing. */
Descriptor openOrMakeFolder(const std::string& path) {
    Descriptor folder = openFolder(path.c_str());
    if (!folder && errno == ENOENT && makeFolders(path)) folder = openFolder(path.c_str());
    return folder;
}

/** Waits until the names in a folder have reached the storage device. */
[[nodiscard]] bool syncFolder(const Descriptor& folder) {
    if (uninterrupted([&] { return ::fsync(folder.get()); }) == 0) return true;
    return errno == EINVAL || errno == EROFS;  // it cannot be waited for there, or nothing can have changed
}

/**
 * Makes the names of a folder and of all folders above it durable, up to where its file system begins: nobody
 * knows which of them a save that was killed has left new.
 */
[[nodiscard]] bool syncFoldersAbove(const Descriptor& folder) {
    struct stat below {};
    if (::fstat(folder.get(), &below) != 0) return false;
    Descriptor current;
    for (int number = folder.get();; number = current.get()) {
        Descriptor above = openFolder("..", number);
        if (!above && errno == EACCES) {
            ::sync();  // a folder that others keep closed can only be waited for together with all else
            return true;
        }
        struct stat status {};
        if (!above || ::fstat(above.get(), &status) != 0) return false;
        const bool isTop = status.st_dev != below.st_dev || status.st_ino == below.st_ino;
        if (isTop) return true;
        if (!syncFolder(above)) return false;
        below = status;
        current = std::move(above);
    }
}

[[nodiscard]] bool read(const std::string& path, std::string& text, FileAccess& access) {
    File file;
    if (!file.Initialize(path, FILE_OPEN_MODE_READ_NOFOLLOW) || !file.ReadStringAll(text)) return false;
    access = file.Access();
    return true;
}

[[nodiscard]] bool writeDurably(const std::string& path, const std::string& text, const FileAccess& access) {
    File file;
    return file.Initialize(path, FILE_OPEN_MODE_TRUNCATE) && file.WriteString(text) &&
           file.SetAccess(access) && file.Sync() && file.Close();
}

/** Waits for a lock; false with errno set. */
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
    if (!acquire(lock) || !read(devicePath(configurationPath), text, access)) return false;

    const Descriptor folder = openOrMakeFolder(flashDirectory());
    if (!folder || !syncFoldersAbove(folder)) return false;
    uid_t owner = 0;
    gid_t group = 0;
    if (!storeOwner(owner, group)) return false;
    if (access.owner != 0) access.owner = owner;

    const std::string copy = flashCopyPath();
    // One name for all, so that power cuts cannot fill the flash.
    const std::string temporary = copy + ".tmp";
    if (!writeDurably(temporary, text, access) || !renameUnder(lock, temporary, copy)) {
        // Without the lock, somebody else may be writing the file of that name by now.
        keepingErrno([&] {
            if (lock.held()) (void)::unlink(temporary.c_str());
        });
        return false;
    }
    return syncFolder(folder);
}

bool loadFromFlashRaw(std::string& text) {
    FileAccess access;
    return loadFromFlashRaw(text, access);
}

bool loadFromFlashRaw(std::string& text, FileAccess& access) { return read(flashCopyPath(), text, access); }

bool storeOwner(uid_t& owner, gid_t& group) {
    struct stat status {};  // of root's, unless told otherwise
    const bool isMissing = ::stat(flashDirectory().c_str(), &status) != 0;
    if (isMissing && errno != ENOENT && errno != ENOTDIR) return false;
    owner = status.st_uid;
    group = status.st_gid;
    return true;
}

bool setFlashCopyAside() {
    InterProcessMutex lock(flashLock, true);
    if (!acquire(lock)) return false;
    const Descriptor folder = openFolder(flashDirectory().c_str());
    return folder && renameUnder(lock, flashCopyPath(), damagedCopyPath()) && syncFolder(folder);
}

bool loadDamagedFlashCopy(std::string& text) {
    FileAccess access;
    return read(damagedCopyPath(), text, access);
}

}  // namespace korvo::utils
