#include "waiting.h"

#include <chrono>
#include <new>
#include <string>
#include <system_error>

#include "korvo/utils/file.h"
#include "korvo/utils/inter_process_mutex.h"
#include "korvo/utils/text.h"
#include "messages.h"

namespace korvoctl {

WaitNotice::WaitNotice(const char* name, const char* holds) : lock(name), deed(holds) {
    try {
        watcher = std::thread([this] { watch(); });
    } catch (const std::system_error&) {
        // Where no thread can be started the waiting goes on without a word.
    }
}

WaitNotice::~WaitNotice() {
    {
        const std::lock_guard<std::mutex> guard(mutex);
        over = true;
    }
    ended.notify_one();
    if (watcher.joinable()) watcher.join();
}

void WaitNotice::watch() {
    std::unique_lock<std::mutex> guard(mutex);
    // Whoever holds the lock at one moment may be between two others that keep it for long.
    while (!ended.wait_for(guard, std::chrono::seconds(1), [this] { return over; })) {
        try {
            if (tellHolder()) return;
        } catch (const std::bad_alloc&) {
            return;  // likewise without a word
        }
    }
}

/** Tells who holds the lock; false when nobody is to be seen. */
bool WaitNotice::tellHolder() const {
    const pid_t holder = InterProcessMutex(lock, true).holder();
    if (holder == 0) return false;
    std::string name;
    (void)korvo::utils::File::ReadStringAll("/proc/" + std::to_string(holder) + "/comm", name);
    korvo::utils::trim(name);
    tell("waiting for process " + std::to_string(holder) + (name.empty() ? "" : " (" + name + ')') +
         ", which " + deed);
    return true;
}

}  // namespace korvoctl
