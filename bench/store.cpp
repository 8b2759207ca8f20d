// One set() the whole way to the renamed file, beside the system calls that it cannot do without.

#include <fcntl.h>
#include <korvo/utils/file.h>
#include <korvo/variant_utils/system_cfg.h>
#include <unistd.h>

#include "bench.h"

namespace bench {
namespace {

/** open, write, close and rename of the bytes and nothing else. */
void replaceConfiguration(const std::string& text) {
    const std::string target = configurationPath();
    const std::string temporary = target + ".new";
    const int descriptor = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const bool written = ::write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    require(written && ::close(descriptor) == 0 && std::rename(temporary.c_str(), target.c_str()) == 0,
            "the bare calls failed");
}

/** An open store on a file of so many keys; one at a time, since each holds the lock. */
struct Store {
    explicit Store(int keys) {
        replaceConfiguration(keyValueText(configuration(keys)));
        require(manager.init(), "the store cannot be opened");
    }
    void setNext() {
        number ^= 1;
        require(manager.set("camera.section1.port", 8000 + number, nullptr), "set failed");
    }
    SystemCfgManager manager;
    int number = 0;
};

/** The text of the file after a set, which is what the bare calls write. */
std::string textAfterSet(int keys) {
    Pairs pairs = configuration(keys);
    for (Pair& pair : pairs) {
        if (pair.key == "camera.section1.port") pair.value = "8001";
    }
    Store(keys).setNext();
    std::string text;
    require(korvo::utils::File::ReadStringAll(configurationPath(), text) && text == keyValueText(pairs),
            "set wrote another text than expected");
    return text;
}

}  // namespace

void addStoreRows() {
    const char work[] = "set of one key, to the renamed file";
    for (const int keys : sizes) {
        add(
            work, ours, keys, [keys] { return Store(keys); }, [](Store& store) { store.setNext(); });
        add(work, "open+write+close+rename", keys,
            [text = textAfterSet(keys)] { replaceConfiguration(text); });
    }
}

}  // namespace bench
