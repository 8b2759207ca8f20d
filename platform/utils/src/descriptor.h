/** @file How this library opens files and keeps them open; private. */
#pragma once

#include <fcntl.h>
#include <pthread.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace korvo::utils {

/** While one exists, its thread cannot be cancelled, so it leaves no lock, descriptor or file behind. */
class CancellationShield {
  public:
    CancellationShield() { (void)::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before); }
    CancellationShield(const CancellationShield&) = delete;
    CancellationShield& operator=(const CancellationShield&) = delete;
    ~CancellationShield() { (void)::pthread_setcancelstate(before, nullptr); }

  private:
    int before = PTHREAD_CANCEL_ENABLE;
};

/** Repeats a system call while signals interrupt it. */
template <class Call>
auto uninterrupted(Call call) noexcept {
    const CancellationShield shield;
    auto result = call();
    while (result == -1 && errno == EINTR) result = call();
    return result;
}

/** close(2), not repeated after a signal: the descriptor is gone, and another thread may have its number. */
[[nodiscard]] inline bool closeFile(int descriptor) {
    const CancellationShield shield;
    return ::close(descriptor) == 0 || errno == EINTR;
}

/** Cleans up after a failure, and keeps its errno. */
template <class CleanUp>
void keepingErrno(CleanUp cleanUp) {
    const int error = errno;
    cleanUp();
    errno = error;
}

/**
 * openat(2) through signals, close-on-exec, and never with the number of a standard stream; -1 with errno
 * set.
 *
 * In a host that has closed one, the file has its number for a moment, and receives what the host prints. A
 * new file (O_EXCL) is emptied here; any other may be anybody's: its caller empties it once it is trusted.
 */
[[nodiscard]] int openFile(const char* path, int flags, mode_t mode = 0, int directory = AT_FDCWD);

/** Owns an open descriptor, or none. */
class Descriptor {
  public:
    explicit Descriptor(int opened = -1) : number(opened) {}
    Descriptor(Descriptor&& other) noexcept : number(std::exchange(other.number, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(number, other.number);
        return *this;
    }
    ~Descriptor() {
        if (number >= 0) keepingErrno([this] { (void)closeFile(number); });
    }

    int get() const { return number; }
    [[nodiscard]] int release() { return std::exchange(number, -1); }
    explicit operator bool() const { return number >= 0; }

  private:
    int number;
};

}  // namespace korvo::utils
