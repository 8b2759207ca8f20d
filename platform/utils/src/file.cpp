#include "korvo/utils/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "descriptor.h"

namespace korvo::utils {
namespace {

constexpr mode_t ownerOnly = S_IRUSR | S_IWUSR;
constexpr mode_t permissionBits = S_IRWXU | S_IRWXG | S_IRWXO;

bool refuseAsTooLarge() {
    errno = EFBIG;
    return false;
}

/** Opens a plain file for reading; -1 with errno set. */
int openForReading(const char* path) {
    // Without waiting for the writer of a pipe, and without becoming the session of a terminal.
    Descriptor file(openFile(path, O_RDONLY | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) return -1;
    if (S_ISREG(status.st_mode)) return file.release();
    // A pipe may never end, and a device may not end before the memory does.
    errno = S_ISDIR(status.st_mode) ? EISDIR : ENOTSUP;
    return -1;
}

/** Makes a file that nobody else can have open, in place of what has the name; -1 with errno set. */
int createAnew(const char* path) {
    // Whoever may write to the folder may put something there again, but is not always in time.
    constexpr int attempts = 1000;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        const int descriptor = openFile(path, O_WRONLY | O_CREAT | O_EXCL, ownerOnly);
        if (descriptor >= 0 || errno != EEXIST) return descriptor;
        if (::unlink(path) != 0 && errno != ENOENT) return -1;
    }
    errno = EEXIST;
    return -1;
}

/** Gives a new file its mode, of which the umask may have taken away even what the owner needs. */
[[nodiscard]] bool repairMode(int descriptor, struct stat& status) {
    if (::fstat(descriptor, &status) != 0) return false;
    if ((status.st_mode & permissionBits) == ownerOnly) return true;
    status.st_mode = ownerOnly;
    return ::fchmod(descriptor, ownerOnly) == 0;
}

}  // namespace

File::~File() {
    keepingErrno([this] { (void)Close(); });
}

bool File::Initialize(const std::string& path, FILE_OPEN_MODE openMode) {
    (void)Close();
    const bool knownMode = openMode == FILE_OPEN_MODE_READ || openMode == FILE_OPEN_MODE_TRUNCATE;
    if (!knownMode || path.find('\0') != std::string::npos) {
        errno = EINVAL;
        return false;
    }
    if (openMode == FILE_OPEN_MODE_READ) {
        descriptor = openForReading(path.c_str());
        return descriptor >= 0;
    }
    Descriptor made(createAnew(path.c_str()));
    struct stat status {};
    if (!made) return false;
    if (!repairMode(made.get(), status)) {
        keepingErrno([&] { (void)::unlink(path.c_str()); });
        return false;
    }
    descriptor = made.release();
    mode = status.st_mode & permissionBits;
    owner = status.st_uid;
    group = status.st_gid;
    return true;
}

bool File::ReadStringAll(std::string& text) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) return false;
    // A 32-bit device has files larger than any text. Half of the largest can still be doubled.
    const std::size_t limit = text.max_size() / 2;
    if (status.st_size >= static_cast<off_t>(limit)) return refuseAsTooLarge();
    // One byte more than the file claims, so that the end is seen without growing the buffer.
    std::string content(status.st_size > 0 ? static_cast<std::size_t>(status.st_size) + 1 : 4096, '\0');
    std::size_t length = 0;
    for (;;) {
        if (length > limit) return refuseAsTooLarge();
        if (length == content.size()) content.resize(content.size() * 2);
        const ssize_t got =
            uninterrupted([&] { return ::read(descriptor, &content[length], content.size() - length); });
        if (got < 0) return false;
        if (got == 0) break;
        length += static_cast<std::size_t>(got);
    }
    content.resize(length);
    text = std::move(content);
    return true;
}

bool File::ReadStringAll(const std::string& path, std::string& text) {
    File file;
    return file.Initialize(path, FILE_OPEN_MODE_READ) && file.ReadStringAll(text);
}

bool File::WriteString(const std::string& text) {
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count =
            uninterrupted([&] { return ::write(descriptor, &text[written], text.size() - written); });
        if (count < 0) return false;
        written += static_cast<std::size_t>(count);
    }
    return true;
}

bool File::CopyAccess(const std::string& path) {
    struct stat wanted {};
    if (::stat(path.c_str(), &wanted) != 0) return errno == ENOENT;
    mode_t bits = wanted.st_mode & permissionBits;
    if (wanted.st_uid != owner || wanted.st_gid != group) {
        // Only a privileged process may give a file away; any other may still choose among its own groups.
        const bool groupKept = ::fchown(descriptor, wanted.st_uid, wanted.st_gid) == 0 ||
                               ::fchown(descriptor, static_cast<uid_t>(-1), wanted.st_gid) == 0;
        // To the old file the members of the new group were others.
        if (!groupKept && wanted.st_gid != group) bits &= ~mode_t{S_IRWXG} | (bits & S_IRWXO) << 3;
    }
    // Last, so that nobody has access in between who had none to the old file.
    return bits == mode || ::fchmod(descriptor, bits) == 0;
}

bool File::Sync() {
    return uninterrupted([&] { return ::fsync(descriptor); }) == 0;
}

bool File::Close() {
    const int closing = std::exchange(descriptor, -1);
    return closing < 0 || closeFile(closing);
}

}  // namespace korvo::utils
