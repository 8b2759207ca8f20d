// What works on the device's files. A set goes the whole way to the renamed file; its peer is the system
// calls that it cannot do without.

#include <fcntl.h>
#include <korvo/utils/file.h>
#include <korvo/variant_utils/camerainfo.h>
#include <korvo/variant_utils/system_cfg.h>
#include <unistd.h>

#include <cstdio>

#include "bench.h"

namespace {

using namespace bench;

std::string configurationPath() { return deviceRoot() + "/tmp/system.cfg"; }

/** open, write, close and rename of the bytes and nothing else. */
void replaceConfiguration(const std::string& text) {
    const std::string target = configurationPath();
    const std::string temporary = target + ".new";
    const int descriptor = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const bool written = ::write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    require(written && ::close(descriptor) == 0 && std::rename(temporary.c_str(), target.c_str()) == 0,
            "the bare calls failed");
}

/** An open store on a file with this text; one at a time, since each holds the lock. */
struct Store {
    explicit Store(const std::string& text) {
        replaceConfiguration(text);
        require(manager.init(), "init failed");
        get();
    }
    void get() { require(manager.get(key, &port, nullptr), "get failed"); }
    void setAnother() { require(manager.set(key, port ^= 1, nullptr), "set failed"); }

    const std::string key = "camera.section1.port";
    SystemCfgManager manager;
    int port = 0;
};

/** That setting another value and the first one again writes what the bare calls write. */
void checkSet(const std::string& text) {
    Store store(text);
    store.setAnother();
    store.setAnother();
    std::string written;
    require(korvo::utils::File::ReadStringAll(configurationPath(), written) && written == text,
            "set writes another text");
}

}  // namespace

void bench::addDeviceRows() {
    const auto loadAndClose = [](int /*nothing*/) {
        SystemCfgManager manager;
        require(manager.init() && manager.close(false, false), "init or close failed");
    };
    for (const int keys : sizes) {
        const std::string text = keyValueText(configuration(keys));
        checkSet(text);
        const auto opened = [text] { return Store(text); };
        const auto closed = [text] { return replaceConfiguration(text), 0; };
        const char set[] = "store: set one key, to the renamed file";
        add(set, ours, keys, opened, [](Store& store) { store.setAnother(); });
        add(set, "open+write+close+rename", keys, [text] { replaceConfiguration(text); });
        add("store: get one key", ours, keys, opened, [](Store& store) { store.get(); });
        add("store: load and close", ours, keys, closed, loadAndClose);
    }
    add("device information", ours, 0, [] { require(korvo::variant::CameraInfo().Init(), "Init failed"); });
}
