// One step in the life of a configuration, for scripts/fault-injection-steps: life_worker ROOT apply|restore|replace|reset
// Exit status: 0 done, 1 failed, 2 failed and the lock is still held.

#include <iostream>
#include <string>

#include "korvo/utils/device_root.h"
#include "korvo/utils/inter_process_mutex.h"
#include "korvo/variant_utils/system_cfg.h"

namespace {

bool applyChanges() {
    SystemCfgManager store;
    const std::vector<SystemCfgManager::Change> changes = {
        {"video.bitrate", "2048"}, {"audio", std::nullopt}, {"video.codec", "h265"}};
    if (!store.init() || !store.apply(changes, nullptr)) return false;
    (void)store.close(false, false);  // which writes once more what has been written already
    return true;
}

bool perform(const std::string& step, const std::string& defaults) {
    if (step == "apply") return applyChanges();
    if (step == "reset") return SystemCfgManager::reset(defaults);
    return SystemCfgManager::restore(defaults, step == "replace");
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 3) return 3;
    const std::string root = arguments[1];
    korvo::utils::setDeviceRoot(root);
    if (perform(arguments[2], root + "/factory")) return 0;
    InterProcessMutex probe("system.cfg", true);
    return probe.acquire() == 0 ? 1 : 2;
}
