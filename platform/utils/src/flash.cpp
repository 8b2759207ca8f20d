#include "korvo/utils/flash.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "korvo/utils/device_root.h"
#include "korvo/utils/file.h"

namespace korvo::utils {
namespace {

/** An open folder, which can be made durable and locked against other users of this class. */
class Folder {
  public:
    Folder() = default;
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    ~Folder() {
        const int error = errno;
        // A child forked meanwhile has the descriptor too, and the lock would last until it closes it.
        if (locked) (void)::flock(descriptor, LOCK_UN);
        if (descriptor >= 0) (void)::close(descriptor);
        errno = error;
    }

    bool open(const std::string& path) {
        descriptor = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        return descriptor >= 0;
    }

    bool lock() {
        while (::flock(descriptor, LOCK_EX) != 0) {
            if (errno != EINTR) return false;
        }
        locked = true;
        return true;
    }

    /** Waits until the names in the folder have reached the storage device. */
    bool sync() {
        while (::fsync(descriptor) != 0) {
            if (errno != EINTR) return false;
        }
        return true;
    }

  private:
    int descriptor = -1;
    bool locked = false;
};

/** Makes a folder and what is missing of its parents, each durable in the one above. */
bool makeFolders(const std::string& path) {
    for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
        const std::string folder = path.substr(0, end);
        if (::mkdir(folder.c_str(), S_IRWXU | S_IRGRP | S_IXGRP | S_IROTH | S_IXOTH) == 0) {
            Folder parent;
            if (!parent.open(folder.substr(0, folder.rfind('/') + 1)) || !parent.sync()) return false;
        } else if (errno != EEXIST) {
            return false;
        }
        if (end == std::string::npos) return true;
    }
}

bool writeDurably(const std::string& path, const std::string& text) {
    File file;
    return file.Initialize(path, FILE_OPEN_MODE_TRUNCATE) && file.WriteString(text) && file.Sync() &&
           file.Close();
}

}  // namespace

bool saveToFlashRaw(bool /*reserved*/) {
    const std::string path = devicePath(KORVO_FLASH_DIR);
    Folder folder;
    if (!folder.open(path) && (errno != ENOENT || !makeFolders(path) || !folder.open(path))) return false;
    // Locked before reading, so that the later save has the later text.
    if (!folder.lock()) return false;
    std::string text;
    if (!File::ReadStringAll(devicePath("/tmp/system.cfg"), text)) return false;

    const std::string copy = path + "/system.cfg";
    // One name for all, so that power cuts cannot fill the flash; removed first, so that its mode is that of
    // a new file.
    const std::string temporary = copy + ".tmp";
    if (::unlink(temporary.c_str()) != 0 && errno != ENOENT) return false;
    if (!writeDurably(temporary, text) || std::rename(temporary.c_str(), copy.c_str()) != 0) {
        const int error = errno;
        (void)::unlink(temporary.c_str());
        errno = error;
        return false;
    }
    return folder.sync();
}

}  // namespace korvo::utils
