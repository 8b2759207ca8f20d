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

/** Opens a regular file for reading; -1 with errno set. */
int openForReading(const char* path, bool anyLink, struct stat& status) {
    // Without waiting for the writer of a pipe, and without acquiring a controlling terminal.
    Descriptor file(openFile(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | (anyLink ? 0 : O_NOFOLLOW)));
    if (!file || ::fstat(file.get(), &status) != 0) return -1;
    const bool isRegular = S_ISREG(status.st_mode);
    if (isRegular && (anyLink || status.st_nlink <= 1)) return file.release();
    // A pipe or a device may never end.
    errno = isRegular ? EMLINK : S_ISDIR(status.st_mode) ? EISDIR : ENOTSUP;
    return -1;
}

/** Creates a file that nobody else has open, in place of what has the name; -1 with errno set. */
int openForWriting(const char* path, struct stat& status) {
    // Another user may put something there again; retry, since he cannot win every race.
    for (int attempt = 0; attempt < 1000; ++attempt) {
        Descriptor file(openFile(path, O_WRONLY | O_CREAT | O_EXCL, ownerOnly));
        // The umask may have taken away even what the owner needs.
        if (file && ::fchmod(file.get(), ownerOnly) == 0 && ::fstat(file.get(), &status) == 0)
            return file.release();
        if (file) keepingErrno([&] { (void)::unlink(path); });
        if (file || errno != EEXIST) return -1;
        if (::unlink(path) != 0 && errno != ENOENT) return -1;
    }
    errno = EEXIST;
    return -1;
}

FileAccess accessOf(const struct stat& status) {
    return {status.st_uid, status.st_gid, status.st_mode & permissionBits};
}

/** The permission bits with no more for the group than for everybody else. */
mode_t limitGroup(mode_t bits) {
    if ((bits & S_IROTH) == 0) bits &= ~mode_t{S_IRGRP};
    if ((bits & S_IWOTH) == 0) bits &= ~mode_t{S_IWGRP};
    if ((bits & S_IXOTH) == 0) bits &= ~mode_t{S_IXGRP};
    return bits;
}

}  // namespace

File::~File() {
    keepingErrno([this] { (void)Close(); });
}

bool File::Initialize(const std::string& path, FILE_OPEN_MODE openMode) {
    (void)Close();
    if (path.find('\0') != std::string::npos) {
        errno = EINVAL;
        return false;
    }
    struct stat status {};
    descriptor = openMode == FILE_OPEN_MODE_TRUNCATE
                     ? openForWriting(path.c_str(), status)
                     : openForReading(path.c_str(), openMode == FILE_OPEN_MODE_READ, status);
    if (descriptor < 0) return false;
    access = accessOf(status);
    return true;
}

bool File::ReadStringAll(std::string& text) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) return false;
    std::string content;
    std::size_t length = 0;
    ssize_t got = 0;
    off_t expected = status.st_size > 0 ? status.st_size : 4095;
    do {
        if (length == content.size()) {
            // A 32-bit device has files larger than any text.
            if (expected >= static_cast<off_t>(content.max_size() / 2)) {
                errno = EFBIG;
                return false;
            }
            // One byte more, so that the end is seen without growing again.
            content.resize(static_cast<std::size_t>(expected) + 1);
            expected *= 2;
        }
        got = uninterrupted([&] { return ::read(descriptor, &content[length], content.size() - length); });
        if (got < 0) return false;
        length += static_cast<std::size_t>(got);
    } while (got > 0);
    content.resize(length);
    text = std::move(content);
    return true;
}

bool File::ReadStringAll(const std::string& path, std::string& text, FILE_OPEN_MODE openMode,
                         FileAccess* access) {
    File file;
    if (!file.Initialize(path, openMode) || !file.ReadStringAll(text)) return false;
    if (access != nullptr) *access = file.access;
    return true;
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

bool File::SetAccess(const FileAccess& wanted) {
    mode_t bits = wanted.bits & permissionBits;
    if (wanted.owner != access.owner || wanted.group != access.group) {
        // Only a privileged process may give a file away; any other may still choose among its own groups.
        const bool ownerKept = ::fchown(descriptor, wanted.owner, wanted.group) == 0;
        const bool groupKept = ownerKept || ::fchown(descriptor, static_cast<uid_t>(-1), wanted.group) == 0;
        if (ownerKept) access.owner = wanted.owner;
        if (groupKept) access.group = wanted.group;
        // Members of any other group are "others" in the wanted access.
        if (access.group != wanted.group) bits = limitGroup(bits);
    }
    // Last, so that nobody gets access in between that `wanted` denies.
    if (bits != access.bits && ::fchmod(descriptor, bits) != 0) return false;
    access.bits = bits;
    return true;
}

bool File::CopyAccess(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return errno == ENOENT;
    return !S_ISREG(status.st_mode) || status.st_nlink != 1 || SetAccess(accessOf(status));
}

bool File::Sync() {
    return uninterrupted([&] { return ::fsync(descriptor); }) == 0;
}

bool File::Close() {
    const int closing = std::exchange(descriptor, -1);
    return closing < 0 || closeFile(closing);
}

}  // namespace korvo::utils
