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
#include "korvo/utils/flash.h"

namespace {

using korvo::utils::CancellationShield;
using korvo::utils::closeFile;
using korvo::utils::Descriptor;
using korvo::utils::openFile;
using korvo::utils::uninterrupted;

constexpr mode_t ownerOnly = S_IRUSR | S_IWUSR;

constexpr long millisecond = 1000000;

void sleepFor(long nanoseconds) {
    timespec pause{0, nanoseconds};
    (void)uninterrupted([&] { return ::nanosleep(&pause, &pause); });
}

/** Who may own a lock file beside root: the caller, for root the store's owner. 0 or an errno value. */
int findOwner(uid_t& owner) {
    owner = ::geteuid();
    gid_t group = 0;
    return owner != 0 || korvo::utils::storeOwner(owner, group) ? 0 : errno;
}

/**
 * Whether the file can be trusted to be a lock: only root and @p owner can hold it, or ever get to it by
 * another name.
 */
bool isTrusted(const struct stat& status, uid_t owner) {
    // Root gives away no file that holds something: it could be a secret under another name.
    const bool isRoots = status.st_uid == 0 && (owner == 0 || status.st_size == 0);
    return S_ISREG(status.st_mode) && status.st_nlink == 1 && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0 &&
           (isRoots || status.st_uid == owner);
}

/** The open file's descriptor where the file is to be trusted; else -1 with errno set. */
int releaseTrusted(Descriptor& file, uid_t owner) {
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) return -1;
    if (!isTrusted(status, owner)) {
        // A file that was removed meanwhile is met as if that happened in the next moment.
        errno = status.st_nlink == 0 ? EEXIST : EPERM;
        return -1;
    }
    // A host with closed standard streams may have printed into it while it was opened.
    if (status.st_size > 0) (void)uninterrupted([&] { return ::ftruncate(file.get(), 0); });
    return file.release();
}

/** Makes a lock file; -1 with errno set. */
int createLockFile(const char* path, uid_t owner) {
    Descriptor file(openFile(path, O_RDWR | O_CREAT | O_EXCL, ownerOnly));
    // The umask may have taken away even what the owner needs. Some file systems have no modes or owners.
    if (!file || ::fchmod(file.get(), ownerOnly) != 0) return -1;
    return releaseTrusted(file, owner);
}

/**
 * Opens a lock file that is there and to be trusted; -1 with errno set, EPERM where it is not to be trusted.
 */
int openTrusted(const char* path, uid_t owner) {
    // Without O_CREAT: in a directory open to all the kernel refuses that for a file of another user.
    Descriptor file(openFile(path, O_RDWR | O_NOFOLLOW | O_NONBLOCK));
    if (file) return releaseTrusted(file, owner);
    const int error = errno;
    struct stat status {};
    // A link, a folder, a socket and a file of somebody else cannot be opened to be judged.
    const bool isRefused = error != ENOENT && ::lstat(path, &status) == 0 && !isTrusted(status, owner);
    errno = isRefused ? EPERM : error;
    return -1;
}

/** Removes what stands where the lock file belongs, if this process may judge that; false where it stays. */
[[nodiscard]] bool clearTheWay(const char* path, uid_t owner, int error) {
    const uid_t user = ::geteuid();
    const bool isRoot = user == 0;
    // Root may replace anything; an owner what it cannot open, which one killed under an odd umask left.
    if (!isRoot && error != EACCES) return false;
    struct stat status {};
    if (::lstat(path, &status) != 0) return errno == ENOENT;
    const bool isOwn = status.st_uid == user;
    const bool ownerMayOpen = (status.st_mode & ownerOnly) == ownerOnly;
    // Another process may have cleared the way already.
    if (isTrusted(status, owner) && ownerMayOpen && (isRoot || isOwn)) return true;
    if (!isRoot && (!isOwn || ownerMayOpen)) return false;
    return ::unlink(path) == 0 || ::rmdir(path) == 0 || errno == ENOENT;
}

/** The open lock file, which is made when it is missing; -1 with errno set. */
int openLockFile(const char* path, uid_t owner) {
    // Another user may put something there again; retry, since he cannot win every race.
    for (int attempt = 0; attempt < 1000; ++attempt) {
        int descriptor = openTrusted(path, owner);
        if (descriptor < 0 && errno == ENOENT) descriptor = createLockFile(path, owner);
        if (descriptor >= 0) return descriptor;
        const int error = errno;
        const bool isInTheWay = error == EPERM || error == EACCES;
        // EEXIST: another process has made or removed it between two calls.
        const bool again = error == EEXIST || (isInTheWay && clearTheWay(path, owner, error));
        if (!again) {
            errno = error;
            return -1;
        }
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
    int open(int (*openPath)(const char* path, uid_t owner), uid_t owner) {
        if (identify() == 0) return 0;
        close();
        Descriptor opened(openPath(path.c_str(), owner));
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

    /** Gives an empty file of root's to the owner, where the file system and the process can. */
    void giveTo(uid_t owner) const {
        struct stat status {};
        const bool isToBeGiven = owner != 0 && ::fstat(descriptor, &status) == 0 && status.st_uid == 0;
        if (isToBeGiven && status.st_size == 0) (void)!::fchown(descriptor, owner, static_cast<gid_t>(-1));
    }

    /** 0 or an errno value; EBADF when a host has closed the descriptor. */
    int waitForLock() const {
        struct flock request = wholeFile(F_WRLCK);
        long pause = millisecond;
        while (::fcntl(descriptor, F_SETLKW, &request) != 0) {
            if (errno == EDEADLK) {
                // The kernel judges whole processes, as if each waited for all that its threads wait for.
                sleepFor(pause);
                pause = std::min(pause * 2, 50 * millisecond);
            } else if (errno != EINTR) {
                return errno;
            }
            // The host may have closed the file meanwhile, and must not have its own locked.
            const int error = identify();
            if (error != 0) return error;
        }
        return 0;
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

    /** Gives up the file, and with it the lock. */
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
    int waitForFile(uid_t owner, std::unique_lock<std::mutex>& guard) {
        for (int patience = 100;;) {
            int error = file.open(openLockFile, owner);
            if (error == EACCES && --patience >= 0) {  // root's, who is about to give it to its owner
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

    /** A number that no other thread of this process has or had; the system's thread ids are used again. */
    unsigned long long callingThread() {
        thread_local const unsigned long long number = ++threads;
        return number;
    }

    /** In a forked child, which has inherited neither the record locks nor the threads that wait. */
    void forgetLocks() {
        for (auto& entry : locks) {
            NamedLock& forgotten = entry.second;
            forgotten.servedTicket = forgotten.nextTicket;
            forgotten.holder = nullptr;
            // Made anew without being destroyed, which would wait for threads that are not there.
            ::new (&forgotten.turn) std::condition_variable;
        }
    }
};

LockTable& lockTable() {
    static LockTable& table = *new LockTable;
    return table;
}

int installForkHandlers() {
    (void)lockTable();  // a fork handler may not throw for want of memory
    return ::pthread_atfork([] { lockTable().mutex.lock(); }, [] { lockTable().mutex.unlock(); },
                            [] {
                                lockTable().forgetLocks();
                                lockTable().mutex.unlock();
                            });
}

/** 0 or an errno value. Installed when the library is loaded, since the first use may meet a fork. */
const int forkHandlers = installForkHandlers();

}  // namespace
}  // namespace korvo::utils

using korvo::utils::LockTable;
using korvo::utils::lockTable;

InterProcessMutex::InterProcessMutex(const char* name, bool /*reserved*/) : lock(nullptr) {
    const std::string text = name != nullptr ? name : "";
    if (text.empty() || text.find('/') != std::string::npos) return;
    const std::string path = korvo::utils::devicePath(("/tmp/" + text + ".lock").c_str());
    if (korvo::utils::forkHandlers != 0) throw std::bad_alloc();
    LockTable& table = lockTable();
    const std::lock_guard<std::mutex> guard(table.mutex);
    lock = &table.locks.try_emplace(path, path).first->second;
    ++lock->users;
}

InterProcessMutex::~InterProcessMutex() {
    if (lock == nullptr) return;
    LockTable& table = lockTable();
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
    uid_t owner = 0;
    int error = findOwner(owner);  // before there is a turn, since it may throw
    if (error != 0) return error;
    LockTable& table = lockTable();
    std::unique_lock<std::mutex> guard(table.mutex);
    const unsigned long long thread = table.callingThread();
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
    const std::lock_guard<std::mutex> guard(lockTable().mutex);
    if (lock->holder != this) return EPERM;
    const int state = lock->file.identify();
    if (state == EBADF) {  // the host has closed the descriptor, and so given the lock back
        lock->endTurn();
        return EPERM;
    }
    if (state != 0 && state != ESTALE) return state;
    const int error = lock->file.unlock();
    if (error == 0) lock->endTurn();
    return error;
}

bool InterProcessMutex::acquired() const {
    if (lock == nullptr) return false;
    const std::lock_guard<std::mutex> guard(lockTable().mutex);
    return lock->holder == this;
}

bool InterProcessMutex::held() const {
    if (lock == nullptr) return false;
    const std::lock_guard<std::mutex> guard(lockTable().mutex);
    if (lock->holder != this) return false;
    const int error = lock->file.check();
    // What excludes nobody any more is not kept, so that the next one opens the file that the others use.
    if (error == ESTALE) lock->file.close();
    return error == 0;
}

pid_t InterProcessMutex::holder() const {
    uid_t owner = 0;
    if (lock == nullptr || findOwner(owner) != 0) return 0;
    const std::lock_guard<std::mutex> guard(lockTable().mutex);
    // What a thread holds or waits for is left as it is, and a lock that is lost is not brought back.
    const bool isKnown = lock->isUsed() ? lock->file.isOpen() : lock->file.open(openTrusted, owner) == 0;
    return isKnown ? lock->file.holder() : 0;
}
