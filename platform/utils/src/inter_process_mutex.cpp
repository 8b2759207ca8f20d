// Record locks belong to the process: they exclude no other thread of it, and the first close of any
// descriptor of the file gives them back. So a process opens each lock file once, and its threads queue up
// before they lock it.

#include "korvo/utils/inter_process_mutex.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <map>
#include <mutex>
#include <new>
#include <string>

#include "korvo/utils/device_root.h"

namespace {

int setLock(int descriptor, int command, short type) {
    struct flock request {};
    request.l_type = type;
    request.l_whence = SEEK_SET;
    while (::fcntl(descriptor, command, &request) != 0) {
        if (errno != EINTR) return errno;
    }
    return 0;
}

/** The open lock file, or -1 with errno set. */
int openLockFile(const char* path) {
    const int flags = O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    for (;;) {
        // Without O_CREAT first: in a folder open to all the kernel refuses that for a file of another user.
        int descriptor = ::open(path, flags);
        if (descriptor < 0 && errno == ENOENT)
            descriptor = ::open(path, flags | O_CREAT | O_EXCL, S_IRUSR | S_IWUSR);
        // Between the two calls another process may have made it.
        if (descriptor >= 0 || (errno != EINTR && errno != EEXIST)) return descriptor;
    }
}

}  // namespace

/** What all objects of one name have in common. */
struct InterProcessMutex::Shared {
    std::string path;
    int users = 0;  ///< objects of this name
    int descriptor = -1;
    unsigned nextTicket = 0;                    ///< of the thread that comes next
    unsigned servedTicket = 0;                  ///< of the thread whose turn it is
    const InterProcessMutex* holder = nullptr;  ///< the object that holds the lock
    unsigned long long thread = 0;              ///< that acquired it for the holder
    std::condition_variable turn;

    /**
     * To be called with the table locked, since a fork copies open files and memory at two moments and would
     * see the one without the other.
     */
    int openFile() {
        if (descriptor >= 0) return 0;
        descriptor = openLockFile(path.c_str());
        if (descriptor < 0) return errno;
        struct stat status {};
        const int error = ::fstat(descriptor, &status) != 0 ? errno : S_ISREG(status.st_mode) ? 0 : EPERM;
        if (error != 0) closeFile();
        return error;
    }

    int lockFile() const { return setLock(descriptor, F_SETLKW, F_WRLCK); }

    int unlockFile() const { return setLock(descriptor, F_SETLK, F_UNLCK); }

    void closeFile() {
        if (descriptor >= 0) (void)::close(descriptor);
        descriptor = -1;
    }

    void endTurn() {
        holder = nullptr;
        ++servedTicket;
        turn.notify_all();
    }
};

/** What a process knows of its locks. Never destroyed: objects with static lifetime may live longer. */
struct InterProcessMutex::Table {
    std::mutex mutex;  ///< guards everything here, but is not held while waiting for the kernel
    std::map<std::string, Shared> names;
    unsigned long long threads = 0;  ///< so many have been numbered

    static Table& instance() {
        static Table& table = *new Table;
        return table;
    }

    /** A number that no other thread of this process has or had; the system's thread ids are used again. */
    unsigned long long callingThread() {
        thread_local const unsigned long long number = ++threads;
        return number;
    }

  private:
    Table() {
        if (forkHandlers != 0) throw std::bad_alloc();
    }

    /**
     * Installed when the library is loaded, not with the first use: a fork in another thread's first use would leave
     * the child a half-made table.
     */
    static const int forkHandlers;

    /** In a forked child, which has inherited neither the record locks nor the threads that wait. */
    void forgetLocks() {
        for (auto& name : names) {
            Shared& lock = name.second;
            lock.servedTicket = lock.nextTicket;
            lock.holder = nullptr;
            // Made anew without being destroyed, which would wait for threads that are not there.
            ::new (&lock.turn) std::condition_variable;
        }
        mutex.unlock();
    }
};

const int InterProcessMutex::Table::forkHandlers = ::pthread_atfork(
    [] { instance().mutex.lock(); }, [] { instance().mutex.unlock(); }, [] { instance().forgetLocks(); });

InterProcessMutex::InterProcessMutex(const char* name, bool /*reserved*/) : shared(nullptr) {
    const std::string text = name != nullptr ? name : "";
    if (text.empty() || text.find('/') != std::string::npos) return;
    const std::string path = korvo::utils::devicePath(("/tmp/" + text + ".lock").c_str());
    Table& table = Table::instance();
    const std::lock_guard<std::mutex> guard(table.mutex);
    Shared& entry = table.names[path];
    if (entry.path.empty()) entry.path = path;
    ++entry.users;
    shared = &entry;
}

InterProcessMutex::~InterProcessMutex() {
    if (shared == nullptr) return;
    Table& table = Table::instance();
    const std::lock_guard<std::mutex> guard(table.mutex);
    if (shared->holder == this) {
        if (shared->unlockFile() != 0) shared->closeFile();
        shared->endTurn();
    }
    if (--shared->users > 0) return;
    shared->closeFile();
    table.names.erase(table.names.find(shared->path));
}

int InterProcessMutex::acquire() {
    if (shared == nullptr) return EINVAL;
    Table& table = Table::instance();
    std::unique_lock<std::mutex> guard(table.mutex);
    const unsigned long long thread = table.callingThread();
    if (shared->holder != nullptr && shared->thread == thread) return EDEADLK;
    const unsigned ticket = shared->nextTicket++;
    shared->turn.wait(guard, [&] { return shared->servedTicket == ticket; });
    int error = shared->openFile();
    if (error == 0) {
        guard.unlock();
        error = shared->lockFile();
        guard.lock();
    }
    if (error != 0) {
        shared->endTurn();
        return error;
    }
    shared->holder = this;
    shared->thread = thread;
    return 0;
}

int InterProcessMutex::release() {
    if (shared == nullptr) return EINVAL;
    const std::lock_guard<std::mutex> guard(Table::instance().mutex);
    if (shared->holder != this) return EPERM;
    const int error = shared->unlockFile();
    if (error == 0) shared->endTurn();
    return error;
}
