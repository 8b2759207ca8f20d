// Taking and giving back a lock that nobody else wants, and passing it to another process and back.

#include <fcntl.h>
#include <korvo/utils/inter_process_mutex.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <boost/interprocess/sync/named_mutex.hpp>
#include <cstdlib>

#include "bench.h"

namespace bench {
namespace {

struct Korvo {
    void lock() { require(mutex.acquire() == 0, "acquire failed"); }
    void unlock() { require(mutex.release() == 0, "release failed"); }
    InterProcessMutex mutex{"bench", true};
};

/** An open file to lock; each process opens its own. */
struct LockFile {
    LockFile() = default;
    LockFile(const LockFile&) = delete;
    LockFile& operator=(const LockFile&) = delete;
    ~LockFile() { ::close(descriptor); }
    const std::string path = deviceRoot() + "/tmp/peer.lock";
    const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
};

struct Fcntl : LockFile {
    void lock() { set(F_SETLKW, F_WRLCK); }
    void unlock() { set(F_SETLK, F_UNLCK); }
    void set(int command, short type) {
        struct flock request {};
        request.l_type = type;
        request.l_whence = SEEK_SET;
        require(::fcntl(descriptor, command, &request) == 0, "fcntl failed");
    }
};

struct Flock : LockFile {
    void lock() { require(::flock(descriptor, LOCK_EX) == 0, "flock failed"); }
    void unlock() { require(::flock(descriptor, LOCK_UN) == 0, "flock failed"); }
};

/** Lives in shared memory; whoever dies with it held leaves it locked. */
struct BoostNamedMutex : boost::interprocess::named_mutex {
    static constexpr char name[] = "korvo_bench";
    BoostNamedMutex() : named_mutex(boost::interprocess::open_or_create, name) {}
    static void removeName() { (void)remove(name); }
};

/** Two processes that pass a lock to each other: this one, side 0, and a child, side 1. */
template <class Lock>
class Passing {
  public:
    Passing() {
        require(memory != MAP_FAILED && child >= 0, "no second process, or no memory to share with it");
        if (child == 0) {
            Lock other;
            while (!turn.over && ::getppid() != 1) takeTurn(other, 1);
            ::_exit(0);
        }
        lock = std::make_unique<Lock>();
        thereAndBack();
    }
    Passing(const Passing&) = delete;
    Passing& operator=(const Passing&) = delete;
    ~Passing() {
        // Not killed, since one that dies in the middle of waiting slows some locks down for good.
        turn.over = true;
        ::waitpid(child, nullptr, 0);
        ::munmap(memory, sizeof(Turn));
    }

    /** Until it is this side's turn again: then the other has had its. */
    void thereAndBack() { takeTurn(*lock, 0); }

    /** Whether the other process, whose turn it is, gets the lock only when it is not held any more. */
    bool excludes() {
        thereAndBack();
        lock->lock();
        turn.whose = 1;
        ::usleep(20000);
        const bool waited = turn.whose == 1;
        lock->unlock();
        thereAndBack();
        return waited;
    }

  private:
    struct Turn {
        std::atomic<int> whose{0};
        std::atomic<bool> over{false};
    };

    /** Takes the lock until it is this side's turn, then leaves it to the other side; or till all is over. */
    void takeTurn(Lock& own, int side) {
        for (;;) {
            own.lock();
            const bool mine = turn.whose == side;
            if (mine) turn.whose = 1 - side;
            own.unlock();
            if (mine || turn.over) return;
            ::sched_yield();
        }
    }

    void* const memory =
        ::mmap(nullptr, sizeof(Turn), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    Turn& turn = *::new (memory) Turn;
    const pid_t child = ::fork();
    std::unique_ptr<Lock> lock;
};

template <class Lock>
void addLock(const std::string& who) {
    require(Passing<Lock>().excludes(), who + " does not exclude");
    add(
        "lock and unlock", who, 0, [] { return Lock(); },
        [](Lock& lock) {
            lock.lock();
            lock.unlock();
        });
    add(
        "lock passed to another process and back", who, 0, [] { return Passing<Lock>(); },
        [](Passing<Lock>& passing) { passing.thereAndBack(); })
        ->UseRealTime();
}

}  // namespace

void addLockRows() {
    BoostNamedMutex::removeName();
    std::atexit(BoostNamedMutex::removeName);
    addLock<Korvo>(ours);
    addLock<Fcntl>("fcntl");
    addLock<Flock>("flock");
    addLock<BoostNamedMutex>("Boost named_mutex");
}

}  // namespace bench
