// A process that uses the configuration store, for scripts/kill-storm.
//   store_worker ROOT KEY VALUE             one use with a save; status 0 when it succeeds
//   store_worker ROOT --storm SEED THREADS  counts until ROOT/stop exists

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
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
bool InterProcessMutex::acquired() const { return lock == nullptr; }
bool InterProcessMutex::held() const { return lock == nullptr; }
pid_t InterProcessMutex::holder() const { return 0; }
#endif

namespace {

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
    if (count == 4) {
        SystemCfgManager store;
        return store.init() && store.set(arguments[2], arguments[3], nullptr) && store.close(true, false) ? 0
                                                                                                          : 1;
    }
    Storm(arguments[1])
        .run(static_cast<unsigned>(std::stoul(arguments[3])),
             static_cast<unsigned>(std::stoul(arguments[4])));
}
