// Record locks belong to the process: they exclude no other thread of it, and the first close of any
// descriptor of the file gives them back. So a process opens each lock file once, and its threads queue up
// before they lock it.

#include "korvo/utils/inter_process_mutex.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <map>
#include <mutex>
#include <new>
#include <string>

#include "descriptor.h"
#include "korvo/utils/device_root.h"

namespace {

using korvo::utils::CancellationShield;
using korvo::utils::closeFile;
using korvo::utils::Descriptor;
using korvo::utils::openFile;

constexpr mode_t ownerOnly = S_IRUSR | S_IWUSR;

/**
 * Whether the file can be trusted to be a lock: nobody else can hold it, or ever get to it by another name.
 */
bool isTrusted(const struct stat& status) {
    return S_ISREG(status.st_mode) && status.st_nlink == 1 && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0 &&
           (status.st_uid == 0 || status.st_uid == ::geteuid());
}

/** Makes a lock file; -1 with errno set. */
int createLockFile(const char* path) {
    Descriptor file(openFile(path, O_RDWR | O_CREAT | O_EXCL, ownerOnly));
    struct stat status {};
    // The umask may have taken away even what the owner needs.
    if (!file || ::fchmod(file.get(), ownerOnly) != 0 || ::fstat(file.get(), &status) != 0) return -1;
    if (isTrusted(status)) return file.release();
    // Removed again already, or on a file system without owners or modes.
    errno = status.st_nlink == 0 ? EEXIST : EPERM;
    return -1;
}

/**
 * Opens a lock file that is there and to be trusted; -1 with errno set, EPERM where it is not to be trusted.
 */
int openTrusted(const char* path) {
    // Without O_CREAT: in a folder open to all the kernel refuses that for a file of another user.
    Descriptor file(openFile(path, O_RDWR | O_NOFOLLOW | O_NONBLOCK));
    const int error = errno;
    struct stat status {};
    if (file) {
        if (::fstat(file.get(), &status) != 0) return -1;
        if (isTrusted(status)) return file.release();
        errno = status.st_nlink == 0 ? EEXIST : EPERM;  // EEXIST: as if it had been met in the next moment
    } else if (error != ENOENT) {  // also for a link, a folder, a socket, a file of somebody else
        errno = ::lstat(path, &status) == 0 && !isTrusted(status) ? EPERM : error;
    }
    return -1;
}

/** Removes what stands where the lock file belongs, if this process may judge that; false where it stays. */
[[nodiscard]] bool clearTheWay(const char* path, int error) {
    // Root may replace anything; an owner what it cannot open, which one killed under an odd umask left.
    if (::geteuid() != 0 && error != EACCES) return false;
    struct stat status {};
    if (::lstat(path, &status) != 0) return errno == ENOENT;
    // Another process may have cleared the way already.
    const bool isUsable = isTrusted(status) && (status.st_mode & ownerOnly) == ownerOnly;
    if (isUsable && (::geteuid() == 0 || status.st_uid == ::geteuid())) return true;
    if (::geteuid() != 0 && (status.st_uid != ::geteuid() || (status.st_mode & ownerOnly) == ownerOnly))
        return false;
    return ::unlink(path) == 0 || ::rmdir(path) == 0 || errno == ENOENT;
}

/** The open lock file, which is made when it is missing; -1 with errno set. */
int openLockFile(const char* path) {
    // Whoever else may write to the folder may be quicker again and again, but not always.
    for (int attempt = 0; attempt < 1000; ++attempt) {
        int descriptor = openTrusted(path);
        if (descriptor < 0 && errno == ENOENT) descriptor = createLockFile(path);
        if (descriptor >= 0) return descriptor;
        const int error = errno;
        // Another process may have made or removed it between two calls.
        if (error == EEXIST || ((error == EPERM || error == EACCES) && clearTheWay(path, error))) continue;
        errno = error;
        return -1;
    }
    errno = EPERM;
    return -1;
}

/** A lock file as this process has it open. */
class LockFile {
  public:
    explicit LockFile(std::string lockPath) : path(std::move(lockPath)) {}
    LockFile(const LockFile&) = delete;
    LockFile& operator=(const LockFile&) = delete;
    ~LockFile() { close(); }

    const std::string& name() const { return path; }

    /** Opens the file with @p openPath, unless it is open already; 0 or an errno value. */
    int open(int (*openPath)(const char* path)) {
        if (identify() == 0) return 0;
        close();
        Descriptor opened(openPath(path.c_str()));
        struct stat status {};
        if (!opened || ::fstat(opened.get(), &status) != 0) return errno;
        descriptor = opened.release();
        device = status.st_dev;
        inode = status.st_ino;
        return 0;
    }

    /**
     * 0 when the descriptor is still ours and the file still has its name; EBADF when a host has closed it,
     * and may have opened something else under its number; ESTALE when the file was removed or replaced; else
     * an errno value.
     */
    int identify() const {
        struct stat status {};
        if (descriptor < 0) return EBADF;
        if (::fstat(descriptor, &status) != 0) return errno;
        if (!isThis(status)) return EBADF;
        return status.st_nlink > 0 ? 0 : ESTALE;
    }

    /** Whether the descriptor is still ours, whatever has become of the file. */
    bool isOpen() const {
        const int error = identify();
        return error == 0 || error == ESTALE;
    }

    /**
     * The same as identify(), but sees a file that was moved away too, for which it takes a path through the
     * folders.
     */
    int check() const {
        const int error = identify();
        if (error != 0) return error;
        struct stat status {};
        if (::lstat(path.c_str(), &status) != 0) return errno == ENOENT ? ESTALE : errno;
        return isThis(status) ? 0 : ESTALE;
    }

    /** 0 or an errno value; EBADF when a host has closed the descriptor. */
    int waitForLock() const { return setLock(F_SETLKW, F_WRLCK); }
    int unlock() const { return setLock(F_SETLK, F_UNLCK); }

    /** The other process that holds the lock, or 0. */
    pid_t holder() const {
        struct flock request {};
        request.l_type = F_WRLCK;
        request.l_whence = SEEK_SET;
        return ::fcntl(descriptor, F_GETLK, &request) == 0 && request.l_type != F_UNLCK ? request.l_pid : 0;
    }

    /** Gives up the file, and with it the lock. */
    void close() {
        if (isOpen()) (void)closeFile(descriptor);
        descriptor = -1;
    }

  private:
    bool isThis(const struct stat& status) const { return status.st_dev == device && status.st_ino == inode; }

    int setLock(int command, short type) const {
        struct flock request {};
        request.l_type = type;
        request.l_whence = SEEK_SET;
        constexpr long millisecond = 1000000;
        timespec pause{0, millisecond};
        while (::fcntl(descriptor, command, &request) != 0) {
            if (errno != EINTR && errno != EDEADLK) return errno;
            if (errno == EDEADLK) {
                // The kernel judges whole processes, as if each waited for all that its threads wait for.
                (void)::nanosleep(&pause, nullptr);
                pause.tv_nsec = std::min(pause.tv_nsec * 2, 50 * millisecond);
            }
            // The host may have closed the file meanwhile, and must not have its own locked.
            const int known = type == F_WRLCK ? identify() : 0;
            if (known != 0) return known;
        }
        return 0;
    }

    const std::string path;
    int descriptor = -1;
    dev_t device = 0;
    ino_t inode = 0;
};

}  // namespace

namespace korvo::utils {

/** What all objects of one name have in common. */
struct NamedLock {
    explicit NamedLock(const std::string& path) : file(path) {}

    LockFile file;
    int users = 0;                              ///< objects of this name
    unsigned nextTicket = 0;                    ///< of the thread that comes next
    unsigned servedTicket = 0;                  ///< of the thread whose turn it is
    const InterProcessMutex* holder = nullptr;  ///< the object that holds the lock
    unsigned long long thread = 0;              ///< that acquired it for the holder
    std::condition_variable turn;

    /**
     * Waits for the kernel's lock on the file of that name, whatever happens to it meanwhile; 0 or an errno
     * value.
     */
    int waitForFile(std::unique_lock<std::mutex>& guard) {
        for (;;) {
            int error = file.open(openLockFile);
            if (error != 0) return error;
            guard.unlock();
            error = file.waitForLock();
            guard.lock();
            if (error == 0) error = file.identify();
            if (error == 0) return 0;
            // Removed, replaced or closed by the host: then the next one is waited for.
            file.close();
            if (error != ESTALE && error != EBADF) return error;
        }
    }

    /** Whether any thread holds the lock or waits for it. */
    bool isUsed() const { return servedTicket != nextTicket; }

    void endTurn() {
        holder = nullptr;
        ++servedTicket;
        turn.notify_all();
    }
};

namespace {

/** What a process knows of its locks. Never destroyed: objects with static lifetime may live longer. */
struct LockTable {
    /**
     * Guards everything here, but is not held while waiting for the kernel. Files are opened with it held,
     * since a fork copies open files and memory at two moments and would see the one without the other.
     */
    std::mutex mutex;
    std::map<std::string, NamedLock> locks;  ///< by path
    unsigned long long threads = 0;          ///< so many have got a number

    static LockTable& instance() {
        static LockTable& table = *new LockTable;
        return table;
    }

    /** A number that no other thread of this process has or had; the system's thread ids are used again. */
    unsigned long long callingThread() {
        thread_local const unsigned long long number = ++threads;
        return number;
    }

    /**
     * 0, or why there are no fork handlers. They and the table are there when the library is loaded, not with
     * the first use, for a child that is forked meanwhile.
     */
    static const int forkHandlers;

  private:
    LockTable() = default;
    static int installForkHandlers();

    /** In a forked child, which has inherited neither the record locks nor the threads that wait. */
    void forgetLocks() {
        for (auto& entry : locks) {
            NamedLock& forgotten = entry.second;
            forgotten.servedTicket = forgotten.nextTicket;
            forgotten.holder = nullptr;
            // Made anew without being destroyed, which would wait for threads that are not there.
            ::new (&forgotten.turn) std::condition_variable;
        }
        mutex.unlock();
    }
};

const int LockTable::forkHandlers = installForkHandlers();

int LockTable::installForkHandlers() {
    const int error = StandardStreamGuard::installForkHandlers();
    if (error != 0) return error;
    (void)instance();
    return ::pthread_atfork([] { instance().mutex.lock(); }, [] { instance().mutex.unlock(); },
                            [] { instance().forgetLocks(); });
}

}  // namespace
}  // namespace korvo::utils

using korvo::utils::LockTable;

InterProcessMutex::InterProcessMutex(const char* name, bool /*reserved*/) : lock(nullptr) {
    const std::string text = name != nullptr ? name : "";
    if (text.empty() || text.find('/') != std::string::npos) return;
    const std::string path = korvo::utils::devicePath(("/tmp/" + text + ".lock").c_str());
    if (LockTable::forkHandlers != 0) throw std::bad_alloc();
    LockTable& table = LockTable::instance();
    const std::lock_guard<std::mutex> guard(table.mutex);
    lock = &table.locks.try_emplace(path, path).first->second;
    ++lock->users;
}

InterProcessMutex::~InterProcessMutex() {
    if (lock == nullptr) return;
    LockTable& table = LockTable::instance();
    const std::lock_guard<std::mutex> guard(table.mutex);
    if (lock->holder == this) {
        if (lock->file.isOpen() && lock->file.unlock() != 0) lock->file.close();
        lock->endTurn();
    }
    if (--lock->users == 0) table.locks.erase(table.locks.find(lock->file.name()));
}

int InterProcessMutex::acquire() {
    if (lock == nullptr) return EINVAL;
    const CancellationShield shield;  // a turn that is not ended is never passed on
    LockTable& table = LockTable::instance();
    std::unique_lock<std::mutex> guard(table.mutex);
    const unsigned long long thread = table.callingThread();
    if (lock->holder != nullptr && lock->thread == thread) return EDEADLK;
    const unsigned ticket = lock->nextTicket++;
    lock->turn.wait(guard, [&] { return lock->servedTicket == ticket; });
    const int error = lock->waitForFile(guard);
    if (error != 0) {
        lock->endTurn();
        return error;
    }
    lock->holder = this;
    lock->thread = thread;
    return 0;
}

int InterProcessMutex::release() {
    if (lock == nullptr) return EINVAL;
    const CancellationShield shield;
    const std::lock_guard<std::mutex> guard(LockTable::instance().mutex);
    if (lock->holder != this) return EPERM;
    const int known = lock->file.identify();
    const bool lost = known == EBADF;
    const int error = known == 0 || known == ESTALE ? lock->file.unlock() : lost ? EPERM : known;
    if (error == 0 || lost) lock->endTurn();
    return error;
}

bool InterProcessMutex::held() const {
    if (lock == nullptr) return false;
    const std::lock_guard<std::mutex> guard(LockTable::instance().mutex);
    if (lock->holder != this) return false;
    const int error = lock->file.check();
    // What excludes nobody any more is not kept, so that the next one opens the file that the others use.
    if (error == ESTALE) lock->file.close();
    return error == 0;
}

pid_t InterProcessMutex::holder() const {
    if (lock == nullptr) return 0;
    const std::lock_guard<std::mutex> guard(LockTable::instance().mutex);
    // What a thread holds or waits for is left as it is, and a lock that is lost is not brought back.
    const bool isKnown = lock->isUsed() ? lock->file.isOpen() : lock->file.open(openTrusted) == 0;
    return isKnown ? lock->file.holder() : 0;
}
