// One use of the configuration store, step by step, for scripts/fault-injection: store_worker ROOT KEY VALUE

#include <unistd.h>

#include <iostream>
#include <string>

#include "korvo/utils/device_root.h"
#include "korvo/utils/inter_process_mutex.h"
#include "korvo/variant_utils/system_cfg.h"

namespace {

/** Reports a step and, where it failed, what it left behind. */
bool report(const char* step, bool succeeded) {
    const std::string temporary = "/tmp/system.cfg." + std::to_string(::getpid());
    const bool left = ::access(korvo::utils::devicePath(temporary.c_str()).c_str(), F_OK) == 0;
    std::cout << step << '=' << succeeded << (left ? " (left its temporary file)" : "") << std::endl;
    return succeeded;
}

int use(const char* key, const char* value) {
    SystemCfgManager store;
    if (!report("init", store.init())) {
        InterProcessMutex probe("system.cfg", true);
        return probe.acquire() == 0 ? 1 : 2;
    }
    (void)report("set", store.set(key, value, nullptr));
    return report("close", store.close(true, false)) ? 0 : 1;
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 4) return 3;
    korvo::utils::setDeviceRoot(arguments[1]);
    return use(arguments[2], arguments[3]);
}
