// store_worker ROOT: counts in the configuration store, for tests/kill-storm, and notes each step in ROOT/journal.
// Two threads and forked children do so until ROOT/stop exists.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <string>
#include <thread>

#include "korvo/utils/device_root.h"
#include "korvo/utils/inter_process_mutex.h"
#include "korvo/variant_utils/system_cfg.h"

#ifdef WITHOUT_LOCK
// Replaces the library's own, to show that kill-storm would notice a lock that fails.
InterProcessMutex::InterProcessMutex(const char* /*name*/, bool /*reserved*/) : lock(nullptr) {}
InterProcessMutex::~InterProcessMutex() { (void)lock; }
int InterProcessMutex::acquire() { return 0; }
int InterProcessMutex::release() { return 0; }
bool InterProcessMutex::acquired() const { return lock == nullptr; }
bool InterProcessMutex::held() const { return lock == nullptr; }
pid_t InterProcessMutex::holder() const { return 0; }
#endif

int main(int /*count*/, char** arguments) {
    const std::string root = arguments[1];
    korvo::utils::setDeviceRoot(root);
    const int file = ::open((root + "/journal").c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    const auto stopped = [stop = root + "/stop"] { return ::access(stop.c_str(), F_OK) == 0; };
    const auto require = [](bool succeeded) { succeeded ? void() : ::_exit(1); };
    // One call a line, so that the lines of several processes do not mix.
    const auto note = [&](const std::string& line) { require(::write(file, line.data(), line.size()) > 0); };
    std::atomic<unsigned> number{0};
    const auto count = [&](unsigned long turns) {
        for (; turns > 0 && !stopped(); --turns) {
            const std::string id = std::to_string(::getpid()) + ':' + std::to_string(++number);
            int value = -1, saves = -1;
            {
                SystemCfgManager store;
                require(store.init() && store.get("count", &value, nullptr) &&
                        store.get("system.flash.cycles", &saves, nullptr));
                const bool save = value % 4 == 0;
                note("begin " + id + ' ' + std::to_string(value) + ' ' + std::to_string(saves) + '\n');
                require(store.set("count", value + 1, nullptr));
                note("set " + id + '\n');
                require(!save || store.close(true, false));  // without a save the destructor closes
            }
            note("end " + id + '\n');
        }
    };

    std::thread first(count, ULONG_MAX), second(count, ULONG_MAX);
    while (!stopped()) {
        const pid_t child = ::fork();
        if (child == 0) {
            count(3);
            ::_exit(0);
        }
        (void)::waitpid(child, nullptr, 0);
    }
    first.join();
    second.join();
}
