#include "descriptor.h"

#include <poll.h>
#include <sys/stat.h>

#include <mutex>

namespace korvo::utils {
namespace {

constexpr int standardStreams = 3;

/**
 * What all guards of the process share. Needs no initialization at run time, which a fork could cut in half.
 */
struct {
    std::mutex mutex;
    unsigned guards = 0;
    bool standing[standardStreams] = {};
    dev_t device = 0;  ///< of the file that they have open
    ino_t inode = 0;
} placeholders;

// Together hardly ever what a host opens a standard stream with, so that its own is not taken for a
// placeholder.
constexpr int placeholderFlags = O_NONBLOCK | O_APPEND;

/** Puts placeholders where streams are closed. */
void placeMissing() {
    pollfd streams[standardStreams];
    for (int number = 0; number < standardStreams; ++number) streams[number] = {number, 0, 0};
    // One call tells of all three which are closed, and it hardly ever tells of any.
    if (::poll(streams, standardStreams, 0) <= 0) return;
    for (int number = 0; number < standardStreams; ++number) {
        if ((streams[number].revents & POLLNVAL) == 0) continue;
        // A bare file system may lack /dev/null.
        int opened = uninterrupted([] { return ::open("/dev/null", O_RDWR | O_CLOEXEC | placeholderFlags); });
        if (opened < 0)
            opened = uninterrupted([] { return ::open("/", O_RDONLY | O_CLOEXEC | placeholderFlags); });
        if (opened >= standardStreams) (void)closeFile(opened);  // the host has filled the gap meanwhile
        struct stat status {};
        if (opened < 0 || opened >= standardStreams || ::fstat(opened, &status) != 0) continue;
        placeholders.standing[opened] = true;
        placeholders.device = status.st_dev;
        placeholders.inode = status.st_ino;
    }
}

/** Whether a placeholder still stands there: the host may have put something in its place, as dup2() does. */
bool isPlaceholder(int number) {
    struct stat status {};
    return ::fcntl(number, F_GETFD) == FD_CLOEXEC && ::fstat(number, &status) == 0 &&
           status.st_dev == placeholders.device && status.st_ino == placeholders.inode &&
           (::fcntl(number, F_GETFL) & placeholderFlags) == placeholderFlags;
}

void removePlaceholders() {
    for (int number = 0; number < standardStreams; ++number) {
        if (std::exchange(placeholders.standing[number], false) && isPlaceholder(number))
            (void)closeFile(number);
    }
}

/** Installed when the library is loaded, since a later moment could be another thread's fork. */
[[maybe_unused]] const int installedAtLoad = StandardStreamGuard::installForkHandlers();

}  // namespace

StandardStreamGuard::StandardStreamGuard() {
    const CancellationShield shield;  // or nobody would end what is begun here
    const std::lock_guard<std::mutex> lock(placeholders.mutex);
    ++placeholders.guards;
    placeMissing();
}

StandardStreamGuard::~StandardStreamGuard() {
    const std::lock_guard<std::mutex> lock(placeholders.mutex);
    if (--placeholders.guards == 0) keepingErrno(removePlaceholders);
}

int StandardStreamGuard::installForkHandlers() {
    static const int result =
        ::pthread_atfork([] { placeholders.mutex.lock(); }, [] { placeholders.mutex.unlock(); },
                         [] {
                             placeholders.guards = 0;
                             removePlaceholders();
                             placeholders.mutex.unlock();
                         });
    return result;
}

int openFile(const char* path, int flags, mode_t mode, int folder) {
    // Again where the host had a file there for a moment when the placeholders were set up.
    for (int attempt = 0; attempt < 100; ++attempt) {
        const StandardStreamGuard guard;
        const int descriptor = uninterrupted([&] { return ::openat(folder, path, flags | O_CLOEXEC, mode); });
        if (descriptor < 0 || descriptor >= standardStreams) return descriptor;
        (void)closeFile(descriptor);
    }
    errno = EMFILE;
    return -1;
}

}  // namespace korvo::utils
