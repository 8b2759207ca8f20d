// One set() the whole way to the renamed file, beside the system calls that it cannot do without.

#include <fcntl.h>
#include <korvo/utils/file.h>
#include <korvo/variant_utils/system_cfg.h>
#include <unistd.h>

#include <memory>

#include "bench.h"

namespace bench {
namespace {

const char work[] = "set of one key, to the renamed file";

std::string configurationPath() { return deviceRoot() + "/tmp/system.cfg"; }

/** open, write, close and rename of the bytes and nothing else. */
void replaceFile(const std::string& target, const std::string& text) {
    const std::string temporary = target + ".new";
    const int descriptor = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const bool written = ::write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    require(written && ::close(descriptor) == 0 && std::rename(temporary.c_str(), target.c_str()) == 0,
            "the bare calls failed");
}

std::string fileText(const std::string& path) {
    std::string text;
    require(korvo::utils::File::ReadStringAll(path, text), "cannot read " + path);
    return text;
}

/** An open store on a file of so many keys; one at a time, since each holds the lock. */
struct Store {
    explicit Store(int keys) {
        replaceFile(configurationPath(), keyValueText(configuration(keys)));
        require(manager.init(), "the store cannot be opened");
    }
    void setNext() {
        number ^= 1;
        require(manager.set("camera.section1.port", 8000 + number, nullptr), "set failed");
    }
    SystemCfgManager manager;
    int number = 0;
};

/** Opens the store before the timed loop of each repetition and closes it afterwards. */
void runSet(benchmark::State& state, int keys) {
    Store store(keys);
    for (auto iteration : state) store.setNext();
}

void runBare(benchmark::State& state, const std::string& text) {
    for (auto iteration : state) replaceFile(configurationPath(), text);
}

/** The text of the file after a set, which is what the bare calls write. */
std::string textAfterSet(int keys) {
    std::vector<Pair> pairs = configuration(keys);
    for (Pair& pair : pairs) {
        if (pair.key == "camera.section1.port") pair.value = "8001";
    }
    Store store(keys);
    store.setNext();
    const std::string text = fileText(configurationPath());
    require(text == keyValueText(pairs), "set wrote another text than expected");
    return text;
}

}  // namespace

void addStoreRows() {
    for (const int keys : sizes) {
        const std::string text = textAfterSet(keys);
        const auto name = [keys](const char* who) {
            return std::string(work) + "|" + who + "|" + std::to_string(keys);
        };
        benchmark::RegisterBenchmark(name(ours).c_str(), runSet, keys);
        benchmark::RegisterBenchmark(name("open+write+close+rename").c_str(), runBare, text);
    }
}

}  // namespace bench
