// A process that uses the configuration store, for the scripts that break it.
//   store_worker ROOT KEY VALUE             one use: scripts/fault-injection, scripts/power-cut
//   store_worker ROOT --step STEP           apply, restore, replace or reset: the same two
//   store_worker ROOT --storm SEED THREADS  counts until ROOT/stop exists: scripts/kill-storm

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <iostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "korvo/utils/device_root.h"
#include "korvo/utils/inter_process_mutex.h"
#include "korvo/utils/text.h"
#include "korvo/variant_utils/system_cfg.h"

#ifdef WITHOUT_LOCK
// Stands in front of the utility library's own, to show that scripts/kill-storm would see a lock that fails.
InterProcessMutex::InterProcessMutex(const char* /*name*/, bool /*reserved*/) : lock(nullptr) {}
InterProcessMutex::~InterProcessMutex() { (void)lock; }
int InterProcessMutex::acquire() { return 0; }
int InterProcessMutex::release() { return 0; }
bool InterProcessMutex::held() const { return lock == nullptr; }
pid_t InterProcessMutex::holder() const { return 0; }
#endif

namespace {

/** Tells what comes now, in a system call of its own, so that a record of all calls shows where it begins. */
void announce(const char* stage) { std::cout << stage << std::endl; }

/** Reports a stage and, where it failed, what it left behind. */
bool report(const char* stage, bool succeeded) {
    const std::string temporary = "/tmp/system.cfg." + std::to_string(::getpid());
    const bool left = ::access(korvo::utils::devicePath(temporary.c_str()).c_str(), F_OK) == 0;
    std::cout << stage << '=' << succeeded << (left ? " (left its temporary file)" : "") << std::endl;
    return succeeded;
}

int use(const char* key, const char* value) {
    SystemCfgManager store;
    announce("init");
    if (!report("init", store.init())) {
        InterProcessMutex probe("system.cfg", true);
        return probe.acquire() == 0 ? 1 : 2;
    }
    announce("set");
    (void)report("set", store.set(key, value, nullptr));
    announce("close");
    const bool closed = report("close", store.close(true, false));
    announce("end");
    return closed ? 0 : 1;
}

bool applyChanges() {
    SystemCfgManager store;
    if (!store.init() ||
        !store.apply({{"video.bitrate", "2048"}, {"audio", std::nullopt}, {"video.codec", "h265"}}, nullptr))
        return false;
    (void)store.close(false, false);  // which writes once more what has been written already
    return true;
}

/** A step in the life of a configuration; 0 done, 1 failed, 2 failed and the lock is still held. */
int performStep(const std::string& step, const std::string& defaults) {
    const bool done = step == "apply"   ? applyChanges()
                      : step == "reset" ? SystemCfgManager::reset(defaults)
                                        : SystemCfgManager::restore(defaults, step == "replace");
    InterProcessMutex probe("system.cfg", true);
    return done ? 0 : probe.acquire() == 0 ? 1 : 2;
}

/** Counts in the store, and notes each step in ROOT/journal, so that a killer knows how far it came. */
class Storm {
  public:
    explicit Storm(const std::string& root)
        : stop(root + "/stop"),
          journal(::open((root + "/journal").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC)) {}

    void run(unsigned seed, unsigned number) {
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < number; ++i) threads.emplace_back([=] { count(seed + i, 0); });
        for (unsigned i = 1; !stopped(); ++i) {
            const pid_t parent = ::getpid(), child = ::fork();
            if (child == 0) orphan(parent, seed + i);
            (void)::waitpid(child, nullptr, 0);
        }
        for (std::thread& thread : threads) thread.join();
    }

  private:
    bool stopped() const { return ::access(stop.c_str(), F_OK) == 0; }

    /** One call a line, so that lines of several processes do not mix. */
    void tell(const std::string& line) const {
        if (::write(journal, line.data(), line.size()) < 0) ::_exit(1);
    }

    /** What a forked child does: the parent's other threads may be anywhere, or all of it gone. */
    [[noreturn]] void orphan(pid_t parent, unsigned seed) {
        if (seed % 4 == 0 && ::getppid() == parent) {
            tell("killed " + std::to_string(parent) + '\n');
            (void)::kill(parent, SIGKILL);
        }
        ::usleep(seed % 16 * 1000);
        count(seed, 3);
        ::_exit(0);
    }

    /** Makes so many turns; with 0 it goes on until it is stopped. */
    void count(unsigned seed, unsigned turns) {
        std::minstd_rand random(seed);
        for (unsigned i = 0; turns == 0 ? !stopped() : i < turns; ++i) turn(random());
    }

    void turn(unsigned long random) {
        static std::atomic<unsigned> turns{0};
        const std::string key = "count." + std::to_string(random % 4);
        const bool save = random / 4 % 4 == 0, close = random / 16 % 8 != 0;
        const std::string id = std::to_string(::getpid()) + ':' + std::to_string(++turns);
        int value = -1, cycles = -1;
        {
            SystemCfgManager store;
            if (!store.init() || !store.get(key, &value, nullptr) ||
                !store.get("system.flash.cycles", &cycles, nullptr))
                return tell("failed " + id + " to begin\n");
            tell(korvo::utils::format("begin %s %s %d %d %d\n", id.c_str(), key.c_str(), value, cycles,
                                      save && close ? 1 : 0));
            tell((store.set(key, value + 1, nullptr) ? "set " : "failed to set ") + id + '\n');
            if (close && !store.close(save, false)) tell("failed to close " + id + '\n');
        }
        tell("end " + id + '\n');
    }

    const std::string stop;
    const int journal;
};

}  // namespace

int main(int count, char** arguments) {
    if (count < 4) return 3;
    korvo::utils::setDeviceRoot(arguments[1]);
    if (count == 4 && arguments[2] == std::string("--step"))
        return performStep(arguments[3], arguments[1] + std::string("/factory"));
    if (count == 4) return use(arguments[2], arguments[3]);
    Storm(arguments[1])
        .run(static_cast<unsigned>(std::stoul(arguments[3])),
             static_cast<unsigned>(std::stoul(arguments[4])));
}
