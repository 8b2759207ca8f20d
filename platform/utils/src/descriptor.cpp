#include "descriptor.h"

namespace korvo::utils {

int openFile(const char* path, int flags, mode_t mode, int directory) {
    const int opened = uninterrupted([&] { return ::openat(directory, path, flags | O_CLOEXEC, mode); });
    if (opened < 0 || opened > STDERR_FILENO) return opened;

    Descriptor moved(::fcntl(opened, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    // Here, before anybody can lock the file: closing releases record locks.
    keepingErrno([&] { (void)closeFile(opened); });
    const bool isNew = (flags & O_EXCL) != 0;
    if (moved) {
        // The host may have read or printed through the low number meanwhile. A pipe has no position.
        (void)::lseek(moved.get(), 0, SEEK_SET);
        if (!isNew || uninterrupted([&] { return ::ftruncate(moved.get(), 0); }) == 0) return moved.release();
    }
    if (isNew) keepingErrno([&] { (void)::unlinkat(directory, path, 0); });
    return -1;
}

}  // namespace korvo::utils
