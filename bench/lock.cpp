// Taking and giving back a lock that nobody else wants, and passing it to another process and back.

#include <korvo/utils/inter_process_mutex.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <boost/interprocess/anonymous_shared_memory.hpp>
#include <boost/interprocess/sync/named_mutex.hpp>
#include <cstdio>
#include <mutex>

#include "bench.h"

namespace {

using namespace bench;
namespace ipc = boost::interprocess;

struct Korvo {
    void lock() { require(mutex.acquire() == 0, "acquire failed"); }
    void unlock() { require(mutex.release() == 0, "release failed"); }
    InterProcessMutex mutex{"bench", true};
};

/** By a file that each process opens for itself. */
struct Fcntl {
    void lock() { require(::lockf(descriptor, F_LOCK, 0) == 0, "fcntl failed"); }
    void unlock() { require(::lockf(descriptor, F_ULOCK, 0) == 0, "fcntl failed"); }
    const Owner<std::FILE, std::fclose> file{std::fopen((deviceRoot() + "/tmp/fcntl.lock").c_str(), "a")};
    const int descriptor = ::fileno(file.get());
};

struct Flock : Fcntl {
    void lock() { require(::flock(descriptor, LOCK_EX) == 0, "flock failed"); }
    void unlock() { require(::flock(descriptor, LOCK_UN) == 0, "flock failed"); }
};

/** Lives in shared memory; whoever dies with it held leaves it locked. */
struct BoostNamedMutex : ipc::named_mutex {
    static constexpr char name[] = "korvo_bench";
    BoostNamedMutex() : named_mutex(ipc::open_or_create, name) {}
    ~BoostNamedMutex() { (void)remove(name); }
};

/** Two processes that pass a lock to each other: this one, side 0, and a child, side 1. */
template <class Lock>
struct Passing {
    Passing() {
        require(child >= 0, "there is no second process");
        if (child == 0) {
            while (!shared.over && ::getppid() != 1) takeTurn(1);
            ::_exit(0);
        }
        takeTurn(0);
    }
    ~Passing() {
        // Not killed, since one that dies in the middle of waiting slows some locks down for good.
        shared.over = true;
        ::waitpid(child, nullptr, 0);
        require(shared.overlaps == 0, "a lock was held by two processes at once");
    }
    /** Takes the lock until it is this side's turn, then leaves it to the other side; or till all is over. */
    void takeTurn(int side) {
        for (;;) {
            lock.lock();
            if (shared.held.exchange(true)) ++shared.overlaps;
            const bool mine = shared.turn == side;
            if (mine) shared.turn = 1 - side;
            shared.held = false;
            lock.unlock();
            if (mine || shared.over) return;
            ::sched_yield();
        }
    }

    struct Shared {
        std::atomic<int> turn{1}, overlaps{0};
        std::atomic<bool> held{false}, over{false};
    };
    const ipc::mapped_region memory = ipc::anonymous_shared_memory(sizeof(Shared));
    Shared& shared = *::new (memory.get_address()) Shared;
    const pid_t child = ::fork();
    Lock lock;  // after the fork, so that each side has its own
};

template <class Lock>
void addLock(const std::string& who) {
    const auto own = [] { return Lock(); };
    const auto lockAndUnlock = [](Lock& lock) { const std::lock_guard guard(lock); };
    const auto passing = [] { return Passing<Lock>(); };
    const auto thereAndBack = [](Passing<Lock>& lock) { lock.takeTurn(0); };
    add("lock and unlock", who, 0, own, lockAndUnlock);
    add("lock passed to another process and back", who, 0, passing, thereAndBack, Clock::wall);
}

}  // namespace

void bench::addLockRows() {
    (void)ipc::named_mutex::remove(BoostNamedMutex::name);  // of a run that was killed
    addLock<Korvo>(ours);
    addLock<Fcntl>("fcntl");
    addLock<Flock>("flock");
    addLock<BoostNamedMutex>("Boost named_mutex");
}
