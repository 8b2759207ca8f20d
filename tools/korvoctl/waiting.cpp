#include "waiting.h"

#include <chrono>
#include <string>
#include <thread>

#include "korvo/utils/file.h"
#include "korvo/utils/inter_process_mutex.h"
#include "korvo/utils/text.h"
#include "messages.h"

namespace korvoctl {

void announceWait(const char* name, const char* until) {
    const InterProcessMutex lock(name, true);
    pid_t holder = lock.holder();
    for (int tries = 0; holder != 0 && tries < 100; ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        holder = lock.holder();
    }
    if (holder == 0) return;
    std::string who = "a program without a process id";
    if (holder > 0) {
        std::string program;
        (void)korvo::utils::File::ReadStringAll("/proc/" + std::to_string(holder) + "/comm", program);
        korvo::utils::trim(program);
        who = "process " + std::to_string(holder) + (program.empty() ? "" : " (" + program + ')');
    }
    tell("waiting for " + who + " to " + until);
}

}  // namespace korvoctl
