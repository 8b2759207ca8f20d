// store_worker ROOT [canary]: counts in the configuration store, for tests/kill-storm, and notes each step in ROOT/journal.
// Two threads and forked children do so until ROOT/stop exists. A canary releases the lock between reading and writing.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "korvo/utils/device_root.h"
#include "korvo/utils/text.h"
#include "korvo/variant_utils/system_cfg.h"

int main(int argumentCount, char** arguments) {
    const std::string root = arguments[1];
    korvo::utils::setDeviceRoot(root);
    const int file = ::open((root + "/journal").c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    const auto stopped = [stop = root + "/stop"] { return ::access(stop.c_str(), F_OK) == 0; };
    const auto require = [](bool succeeded) { succeeded ? void() : ::_exit(1); };
    std::atomic<unsigned> number{0};
    const auto count = [&](int turns) {
        for (; turns != 0 && !stopped(); --turns) {
            const std::string id = ' ' + std::to_string(::getpid()) + ':' + std::to_string(++number);
            // One call a line, so that the lines of several processes do not mix.
            const auto note = [&](const std::string& step, const std::string& numbers = "") {
                const std::string line =
                    korvo::utils::format("%s%s%s\n", step.c_str(), id.c_str(), numbers.c_str());
                require(::write(file, line.data(), line.size()) > 0);
            };
            SystemCfgManager store;
            std::string value, saves;
            require(store.init() && store.get("count", &value, nullptr) &&
                    store.get("system.flash.cycles", &saves, nullptr));
            note("begin", korvo::utils::format(" %s %s", value.c_str(), saves.c_str()));
            require(argumentCount == 2 || (store.close(false, false) && store.init()));
            require(store.set("count", std::stoi(value) + 1, nullptr));
            note("set");
            require(store.close(std::stoi(value) % 4 == 0, false));
            note("end");
        }
    };

    std::thread first(count, -1), second(count, -1);
    while (!stopped()) {
        if (::fork() == 0) {
            count(3);
            ::_exit(0);
        }
        (void)::wait(nullptr);
    }
    first.join();
    second.join();
}
