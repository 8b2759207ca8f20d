#include "korvo/utils/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace korvo::utils {
namespace {

/** Repeats a system call for as long as a signal interrupts it. */
template <class Call>
auto uninterrupted(Call call) {
    auto result = call();
    while (result == -1 && errno == EINTR) result = call();
    return result;
}

/** Empties a file that was there before, unless it is not ours alone to write. */
bool claimForWriting(int descriptor) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) return false;
    if (!S_ISREG(status.st_mode) || status.st_nlink != 1 || status.st_uid != ::geteuid()) {
        errno = EPERM;
        return false;
    }
    return status.st_size == 0 || ::ftruncate(descriptor, 0) == 0;
}

bool refuseAsTooLarge() {
    errno = EFBIG;
    return false;
}

}  // namespace

File::~File() {
    (void)Close();
}

bool File::Initialize(const std::string& path, FILE_OPEN_MODE mode) {
    (void)Close();
    const bool knownMode = mode == FILE_OPEN_MODE_READ || mode == FILE_OPEN_MODE_TRUNCATE;
    if (!knownMode || path.find('\0') != std::string::npos) {
        errno = EINVAL;
        return false;
    }
    if (mode == FILE_OPEN_MODE_READ) {
        descriptor = uninterrupted([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); });
        return descriptor >= 0;
    }
    // A file made here is ours without a further look, and nothing can fail any more that would leave it
    // behind.
    const int flags = O_WRONLY | O_CLOEXEC | O_NOFOLLOW;
    const auto create = [&] { return ::open(path.c_str(), flags | O_CREAT | O_EXCL, S_IRUSR | S_IWUSR); };
    descriptor = uninterrupted(create);
    if (descriptor >= 0) return true;
    if (errno != EEXIST) return false;
    // Not O_TRUNC, which would empty a planted file before it can be looked at; O_NONBLOCK, because opening a
    // planted pipe would wait for a reader forever.
    descriptor = uninterrupted([&] { return ::open(path.c_str(), flags | O_NONBLOCK); });
    if (descriptor < 0) return false;
    if (claimForWriting(descriptor)) return true;
    const int error = errno;
    (void)Close();
    errno = error;
    return false;
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
    struct stat own {};
    if (::stat(path.c_str(), &wanted) != 0) return errno == ENOENT;
    if (::fstat(descriptor, &own) != 0) return false;
    const mode_t bits = wanted.st_mode & (S_IRWXU | S_IRWXG | S_IRWXO);
    if (bits != (own.st_mode & 07777) && ::fchmod(descriptor, bits) != 0) return false;
    if (wanted.st_uid != own.st_uid || wanted.st_gid != own.st_gid) {
        // Only a privileged process may give a file away; what the others write becomes their own.
        [[maybe_unused]] const int ignored = ::fchown(descriptor, wanted.st_uid, wanted.st_gid);
    }
    return true;
}

bool File::Sync() {
    return uninterrupted([&] { return ::fsync(descriptor); }) == 0;
}

bool File::Close() {
    if (descriptor < 0) return true;
    const int closing = descriptor;
    descriptor = -1;
    // Not repeated on EINTR: the descriptor is gone either way, and another thread may have it by then.
    return ::close(closing) == 0 || errno == EINTR;
}

}  // namespace korvo::utils
