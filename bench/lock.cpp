// Taking and giving back a lock that nobody else wants, and passing it to another process and back.

#include <fcntl.h>
#include <korvo/utils/inter_process_mutex.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <memory>

#include "bench.h"

#ifdef KORVO_BENCH_BOOST
#include <boost/interprocess/sync/named_mutex.hpp>
#endif

namespace bench {
namespace {

struct Korvo {
    void lock() { require(mutex.acquire() == 0, "acquire failed"); }
    void unlock() { require(mutex.release() == 0, "release failed"); }
    InterProcessMutex mutex{"bench", true};
};

/** An open file to lock; each process opens its own. */
struct LockFile {
    LockFile()
        : descriptor(::open((deviceRoot() + "/tmp/peer.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {}
    LockFile(const LockFile&) = delete;
    LockFile& operator=(const LockFile&) = delete;
    ~LockFile() { ::close(descriptor); }
    const int descriptor;
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

#ifdef KORVO_BENCH_BOOST
/** Lives in shared memory; whoever dies with it held leaves it locked. */
struct BoostNamedMutex {
    void lock() { mutex.lock(); }
    void unlock() { mutex.unlock(); }
    boost::interprocess::named_mutex mutex{boost::interprocess::open_or_create, "korvo_bench"};
};
#endif

/** What the two processes that pass the lock share. */
struct Turn {
    std::atomic<int> whose{0};
    std::atomic<bool> over{false};
};

/** Takes the lock until it is this side's turn, then leaves it to the other side; or until all is over. */
template <class Lock>
void takeTurn(Lock& lock, Turn& turn, int side) {
    for (;;) {
        lock.lock();
        const bool mine = turn.whose == side;
        if (mine) turn.whose = 1 - side;
        lock.unlock();
        if (mine || turn.over) return;
        ::sched_yield();
    }
}

/** Times, by the clock, one passing to the other process and back: when it is this side's turn again, the
 * other has had its.
 */
template <class Lock>
void runPassing(benchmark::State& state) {
    void* memory = ::mmap(nullptr, sizeof(Turn), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    require(memory != MAP_FAILED, "no shared memory");
    Turn& turn = *::new (memory) Turn;
    const pid_t child = ::fork();
    require(child >= 0, "fork failed");
    if (child == 0) {
        Lock lock;
        while (!turn.over && ::getppid() != 1) takeTurn(lock, turn, 1);
        ::_exit(0);
    }
    {
        Lock lock;
        takeTurn(lock, turn, 0);
        for (auto iteration : state) takeTurn(lock, turn, 0);
    }
    // Not killed, since one that dies in the middle of waiting slows some locks down for good.
    turn.over = true;
    ::waitpid(child, nullptr, 0);
    ::munmap(memory, sizeof(Turn));
}

/** Whether another process cannot have the lock while it is held, and can afterwards. */
template <class Lock>
bool excludes() {
    Turn* turn = static_cast<Turn*>(
        ::mmap(nullptr, sizeof(Turn), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    Lock lock;
    lock.lock();
    const pid_t child = ::fork();
    if (child == 0) {
        Lock other;
        other.lock();
        turn->whose = 1;
        other.unlock();
        ::_exit(0);
    }
    ::usleep(20000);
    const bool waited = turn->whose == 0;
    lock.unlock();
    ::waitpid(child, nullptr, 0);
    const bool got = turn->whose == 1;
    ::munmap(turn, sizeof(Turn));
    return waited && got;
}

template <class Lock>
void addLock(const std::string& who) {
    require(excludes<Lock>(), who + " does not exclude");
    const auto lock = std::make_shared<std::unique_ptr<Lock>>();
    add("lock and unlock", who, 0, [lock] {
        if (*lock == nullptr) *lock = std::make_unique<Lock>();
        (*lock)->lock();
        (*lock)->unlock();
    });
    benchmark::RegisterBenchmark(("lock passed to another process and back|" + who + "|0").c_str(),
                                 runPassing<Lock>)
        ->UseRealTime();
}

}  // namespace

void addLockRows() {
    addLock<Korvo>(ours);
    addLock<Fcntl>("fcntl");
    addLock<Flock>("flock");
#ifdef KORVO_BENCH_BOOST
    const auto removeName = [] { (void)boost::interprocess::named_mutex::remove("korvo_bench"); };
    removeName();
    std::atexit(removeName);
    addLock<BoostNamedMutex>("Boost named_mutex");
#endif
}

}  // namespace bench
