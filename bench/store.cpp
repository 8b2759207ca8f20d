// Setting a key goes the whole way to the renamed file; its peer is the system calls that it cannot do without.

#include <fcntl.h>
#include <korvo/utils/device_root.h>
#include <korvo/variant_utils/system_cfg.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "bench.h"

namespace {

/** open, write, close and rename of the bytes and nothing else. */
bool replaceConfiguration(const std::string& text) {
    const std::string target = korvo::utils::devicePath("/tmp/system.cfg"), temporary = target + ".new";
    const int descriptor = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const bool written = ::write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    return written && ::close(descriptor) == 0 && std::rename(temporary.c_str(), target.c_str()) == 0;
}

}  // namespace

void bench::addStoreRows() {
    const char* root = std::getenv("KORVO_BENCH_ROOT");
    require(root != nullptr, "KORVO_BENCH_ROOT is to name a copy of examples/device, on a tmpfs");
    korvo::utils::setDeviceRoot(root);
    for (const int keys : {100, 1000, 10000}) {
        const std::string text = keyValueText(configuration(keys));
        const std::string work = "set one of " + std::to_string(keys) + " keys, on a tmpfs";
        add(work, "open+write+close+rename", [=] { return [=] { return replaceConfiguration(text); }; });
        add(work, "ours", [=] {
            require(replaceConfiguration(text), "the bare calls failed");
            const auto store = std::make_shared<SystemCfgManager>();
            require(store->init(), "init failed");
            return [store, port = 8554]() mutable {
                require(store->set("group7.section0.port", port ^= 1, nullptr), "set failed");
                return port;
            };
        });
    }
}
