// Record locks belong to the process: they exclude none of its threads, and closing any descriptor of the
// file releases them. So a process opens each lock file once, and its threads queue up before they lock it.

#include "korvo/utils/inter_process_mutex.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <type_traits>

#include "descriptor.h"
#include "korvo/utils/device_root.h"
#include "korvo/utils/flash.h"

namespace korvo::utils {
namespace {

constexpr mode_t ownerOnly = S_IRUSR | S_IWUSR;
constexpr long millisecond = 1000000;

void sleepFor(long nanoseconds) {
    timespec pause{0, nanoseconds};
    (void)uninterrupted([&] { return ::nanosleep(&pause, &pause); });
}

/** Who may own a lock file, apart from root: the caller; for root, the store's owner. 0 or an errno value. */
int findOwner(uid_t& owner) {
    owner = ::geteuid();
    gid_t group = 0;
    return owner != 0 || storeOwner(owner, group) ? 0 : errno;
}

/** Whether only root and @p owner can lock the file, or ever reach it by another name. */
bool isTrusted(const struct stat& status, uid_t owner) {
    // Root gives away no file with content: it could be a secret under another name.
    const bool isRoots = status.st_uid == 0 && (owner == 0 || status.st_size == 0);
    return S_ISREG(status.st_mode) && status.st_nlink == 1 && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0 &&
           (isRoots || status.st_uid == owner);
}

/** Opens the lock file, or creates it; -1 with errno set, EPERM if it is not trusted. */
int openTrusted(const char* path, uid_t owner, bool create, struct stat& status) {
    // Only a missing file: in a world-writable directory, O_CREAT may fail on another user's file.
    Descriptor file(
        openFile(path, O_RDWR | O_NOFOLLOW | O_NONBLOCK | (create ? O_CREAT | O_EXCL : 0), ownerOnly));
    if (!file) {
        const int error = errno;
        // A link, a directory, a socket or another user's file does not open: judge it by lstat().
        const bool isRefused = error != ENOENT && ::lstat(path, &status) == 0 && !isTrusted(status, owner);
        errno = isRefused ? EPERM : error;
        return -1;
    }
    // The umask may have taken away even what the owner needs.
    if (create && ::fchmod(file.get(), ownerOnly) != 0) return -1;
    if (::fstat(file.get(), &status) != 0) return -1;
    if (!isTrusted(status, owner)) {
        errno = status.st_nlink == 0 ? EEXIST : EPERM;  // EEXIST: another process has just removed it
        return -1;
    }
    // A host with closed standard streams may have printed into it while it was opened.
    if (status.st_size > 0) (void)uninterrupted([&] { return ::ftruncate(file.get(), 0); });
    return file.release();
}

/** Removes what stands where the lock file belongs; false if this process may not. */
[[nodiscard]] bool clearTheWay(const char* path, uid_t owner, int error) {
    const bool isRoot = ::geteuid() == 0;
    // Root may replace anything; others, only a file of theirs that an odd umask has left inaccessible.
    if (error != EACCES && !(isRoot && error == EPERM)) return false;
    struct stat status {};
    if (::lstat(path, &status) != 0) return errno == ENOENT;
    if (!isRoot && status.st_uid != owner) return false;
    const bool ownerMayOpen = (status.st_mode & ownerOnly) == ownerOnly;
    if (ownerMayOpen && isTrusted(status, owner)) return true;  // another process has cleared the way
    return ::unlink(path) == 0 || ::rmdir(path) == 0 || errno == ENOENT;
}

/** Opens the lock file, or creates it, whatever stands in its place; -1 with errno set. */
int openOrCreate(const char* path, uid_t owner, struct stat& status) {
    // Another user may put something there again; retry, since he cannot win every race.
    for (int attempt = 0; attempt < 1000; ++attempt) {
        int descriptor = openTrusted(path, owner, false, status);
        if (descriptor < 0 && errno == ENOENT) descriptor = openTrusted(path, owner, true, status);
        if (descriptor >= 0) return descriptor;
        const int error = errno;
        // EEXIST: another process has created or removed it between two calls.
        if (error == EEXIST || clearTheWay(path, owner, error)) continue;
        errno = error;
        return -1;
    }
    errno = EPERM;
    return -1;
}

/** A lock file in this process, open or not. */
class LockFile {
  public:
    explicit LockFile(std::string lockPath) : path(std::move(lockPath)) {}
    LockFile(const LockFile&) = delete;
    LockFile& operator=(const LockFile&) = delete;
    ~LockFile() { close(); }

    const std::string path;

    /** Opens the file, unless it is open already; 0 or an errno value. */
    int open(uid_t owner, bool mayCreate) {
        if (check() == 0) return 0;
        close();
        struct stat status {};
        descriptor = mayCreate ? openOrCreate(path.c_str(), owner, status)
                               : openTrusted(path.c_str(), owner, false, status);
        if (descriptor < 0) return errno;
        device = status.st_dev;
        inode = status.st_ino;
        return 0;
    }

    /** Whether the descriptor is still ours: the host may have closed it, and reused its number. */
    bool isOpen() const {
        if (descriptor < 0) return false;
        struct stat status {};
        return ::fstat(descriptor, &status) == 0 ? isThis(status) : errno != EBADF;
    }

    /**
     * 0 if the file is open and still has its name; EBADF if it is not open; ESTALE if it was removed, moved
     * or replaced; else an errno value.
     */
    int check() const {
        if (!isOpen()) return EBADF;
        struct stat status {};
        if (::lstat(path.c_str(), &status) != 0) return errno == ENOENT ? ESTALE : errno;
        return isThis(status) ? 0 : ESTALE;
    }

    /** Gives an empty file of root's to the owner, if possible. */
    void giveTo(uid_t owner) const {
        struct stat status {};
        const bool isRoots = owner != 0 && ::fstat(descriptor, &status) == 0 && status.st_uid == 0;
        if (isRoots && status.st_size == 0) (void)!::fchown(descriptor, owner, static_cast<gid_t>(-1));
    }

    /** Waits for the lock on a file that still has its name; 0, or an errno value as check() gives it. */
    int waitForLock() const {
        struct flock request = wholeFile(F_WRLCK);
        for (long pause = millisecond;;) {
            const int error = ::fcntl(descriptor, F_SETLKW, &request) == 0 ? 0 : errno;
            // The host may have closed the file meanwhile, and opened another under its number.
            const int state = check();
            if (state != 0) return state;
            if (error == EDEADLK) {
                // The kernel takes a process's threads for one, and sees deadlocks where there are none.
                sleepFor(pause);
                pause = std::min(pause * 2, 50 * millisecond);
            } else if (error != EINTR) {
                return error;
            }
        }
    }

    /** 0 or an errno value. */
    int unlock() const {
        struct flock request = wholeFile(F_UNLCK);
        const int result = uninterrupted([&] { return ::fcntl(descriptor, F_SETLK, &request); });
        return result == 0 ? 0 : errno;
    }

    /** The other process that holds the lock, or 0. */
    pid_t holder() const {
        struct flock request = wholeFile(F_WRLCK);
        return ::fcntl(descriptor, F_GETLK, &request) == 0 && request.l_type != F_UNLCK ? request.l_pid : 0;
    }

    /** Closes the file, which releases the lock. */
    void close() {
        if (isOpen()) (void)closeFile(descriptor);
        descriptor = -1;
    }

  private:
    bool isThis(const struct stat& status) const { return status.st_dev == device && status.st_ino == inode; }

    static struct flock wholeFile(short type) {
        struct flock request {};
        request.l_type = type;
        request.l_whence = SEEK_SET;
        return request;
    }

    int descriptor = -1;
    dev_t device = 0;
    ino_t inode = 0;
};

}  // namespace

/** What all objects of one name have in common. */
struct NamedLock {
    explicit NamedLock(std::string path) : file(std::move(path)) {}

    LockFile file;
    NamedLock* next = nullptr;                  ///< of another name
    int users = 0;                              ///< objects of this name
    unsigned nextTicket = 0;                    ///< for the thread that comes next
    unsigned servedTicket = 0;                  ///< of the thread whose turn it is
    const InterProcessMutex* holder = nullptr;  ///< the object that holds the lock
    unsigned long long thread = 0;              ///< that acquired it for the holder
    std::condition_variable turn;

    /** Locks the file, opening it anew until it still has its name when locked; 0 or an errno value. */
    int waitForFile(uid_t owner, std::unique_lock<std::mutex>& guard) {
        for (int patience = 100;;) {
            int error = file.open(owner, true);
            if (error == EACCES && --patience >= 0) {  // root may be about to give it to its owner
                guard.unlock();
                sleepFor(10 * millisecond);
                guard.lock();
                continue;
            }
            if (error != 0) return error;
            file.giveTo(owner);
            guard.unlock();
            error = file.waitForLock();
            guard.lock();
            if (error == 0) return 0;
            file.close();
            if (error != ESTALE && error != EBADF) return error;
        }
    }

    void endTurn() {
        holder = nullptr;
        ++servedTicket;
        turn.notify_all();
    }
};

namespace {

/**
 * Guards the list of locks and what is in it; not held while waiting for the kernel. Files are opened with it
 * held, because a fork copies descriptors and memory at two different moments.
 */
std::mutex tableMutex;
NamedLock* firstLock = nullptr;

// Objects with static lifetime may use locks after the end of main().
static_assert(std::is_trivially_destructible_v<std::mutex>);

/** A number that no other thread of this process has ever had; the system reuses thread ids. */
unsigned long long callingThread() {
    static unsigned long long last = 0;
    thread_local const unsigned long long number = ++last;
    return number;
}

/** In a forked child, which inherits neither record locks nor waiting threads. */
void forgetLocks() {
    for (NamedLock* lock = firstLock; lock != nullptr; lock = lock->next) {
        lock->servedTicket = lock->nextTicket;
        lock->holder = nullptr;
        // Not destroyed first: that would wait for threads that do not exist here.
        ::new (&lock->turn) std::condition_variable;
    }
    tableMutex.unlock();
}

/** 0 or an errno value. Installed on loading: another thread may fork during the first use. */
const int forkHandlers =
    ::pthread_atfork([] { tableMutex.lock(); }, [] { tableMutex.unlock(); }, forgetLocks);

/** The list's pointer to the lock of that path, or the null one at its end. */
NamedLock** find(const std::string& path) {
    NamedLock** place = &firstLock;
    while (*place != nullptr && (*place)->file.path != path) place = &(*place)->next;
    return place;
}

}  // namespace
}  // namespace korvo::utils

using namespace korvo::utils;

InterProcessMutex::InterProcessMutex(const char* name, bool /*reserved*/) : lock(nullptr) {
    if (name == nullptr || *name == '\0' || std::strchr(name, '/') != nullptr) return;
    const std::string path = devicePath((std::string("/tmp/") + name + ".lock").c_str());
    if (forkHandlers != 0) throw std::bad_alloc();
    const std::lock_guard<std::mutex> guard(tableMutex);
    NamedLock*& found = *find(path);
    if (found == nullptr) found = new NamedLock(path);
    lock = found;
    ++lock->users;
}

InterProcessMutex::~InterProcessMutex() {
    if (lock == nullptr) return;
    const std::lock_guard<std::mutex> guard(tableMutex);
    if (lock->holder == this) {
        lock->file.close();
        lock->endTurn();
    }
    if (--lock->users > 0) return;
    *find(lock->file.path) = lock->next;
    delete lock;
}

int InterProcessMutex::acquire() {
    if (lock == nullptr) return EINVAL;
    const CancellationShield shield;  // a cancelled thread would keep its turn forever
    uid_t owner = 0;
    int error = findOwner(owner);  // may throw, so it comes before there is a turn to end
    if (error != 0) return error;
    std::unique_lock<std::mutex> guard(tableMutex);
    const unsigned long long thread = callingThread();
    if (lock->holder != nullptr && lock->thread == thread) return EDEADLK;
    const unsigned ticket = lock->nextTicket++;
    lock->turn.wait(guard, [&] { return lock->servedTicket == ticket; });
    error = lock->waitForFile(owner, guard);
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
    const std::lock_guard<std::mutex> guard(tableMutex);
    if (lock->holder != this) return EPERM;
    // A host that closed the descriptor has released the lock.
    const bool isOpen = lock->file.isOpen();
    const int error = isOpen ? lock->file.unlock() : EPERM;
    if (!isOpen || error == 0) lock->endTurn();
    return error;
}

bool InterProcessMutex::acquired() const {
    if (lock == nullptr) return false;
    const std::lock_guard<std::mutex> guard(tableMutex);
    return lock->holder == this;
}

bool InterProcessMutex::held() const {
    if (lock == nullptr) return false;
    const std::lock_guard<std::mutex> guard(tableMutex);
    if (lock->holder != this) return false;
    const int error = lock->file.check();
    // The file was replaced: close it, so the next acquire() opens the one others lock.
    if (error == ESTALE) lock->file.close();
    return error == 0;
}

pid_t InterProcessMutex::holder() const {
    uid_t owner = 0;
    if (lock == nullptr || findOwner(owner) != 0) return 0;
    const std::lock_guard<std::mutex> guard(tableMutex);
    // Asking must not close the file while a thread holds or awaits the lock, nor restore a lost lock.
    const bool isUsed = lock->servedTicket != lock->nextTicket;
    const bool isOpen = isUsed ? lock->file.isOpen() : lock->file.open(owner, false) == 0;
    return isOpen ? lock->file.holder() : 0;
}
