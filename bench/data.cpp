#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <random>

#include "bench.h"

namespace bench {
namespace {

struct Leaf {
    const char* name;
    const char* value;
};

const char* const groups[] = {"alarm",  "audio",  "camera",  "cloud",  "event",    "ftp",     "image",
                              "motion", "mqtt",   "network", "onvif",  "osd",      "ptz",     "record",
                              "rtsp",   "sdcard", "stream",  "system", "timezone", "wireless"};

const Leaf leaves[] = {{"address", "192.168.1.64"},
                       {"bitrate", "2048"},
                       {"brightness", "50"},
                       {"codec", "h264"},
                       {"contrast", "50"},
                       {"description", "Camera at the north entrance, second floor"},
                       {"enabled", "1"},
                       {"folder", "/media/sdcard/recordings/north"},
                       {"framerate", "15"},
                       {"gain", "2.5"},
                       {"gateway", "192.168.1.1"},
                       {"height", "1080"},
                       {"interval", "300"},
                       {"mask", "255.255.255.0"},
                       {"mode", "auto"},
                       {"name", "north-entrance"},
                       {"password", "c2VjcmV0"},
                       {"port", "8554"},
                       {"profile", "main"},
                       {"quality", "0.75"},
                       {"schedule", "0000-2359"},
                       {"sensitivity", "70"},
                       {"uri", "rtsp://10.0.0.2:8554/live/ch0"},
                       {"user", "operator"},
                       {"width", "1920"}};

}  // namespace

std::vector<Pair> configuration(int keys) {
    std::vector<Pair> pairs;
    for (int i = 0; i < keys; ++i) {
        const int section = i / static_cast<int>(std::size(leaves));
        const Leaf& leaf = leaves[i % static_cast<int>(std::size(leaves))];
        const std::string group = groups[section % static_cast<int>(std::size(groups))];
        const std::string number = std::to_string(section / static_cast<int>(std::size(groups)) + 1);
        Pair pair{{group, "section" + number, leaf.name}, {}, leaf.value};
        pair.key = pair.path[0] + "." + pair.path[1] + "." + pair.path[2];
        pairs.push_back(std::move(pair));
    }
    std::sort(pairs.begin(), pairs.end(), [](const Pair& a, const Pair& b) { return a.path < b.path; });
    return pairs;
}

std::vector<Pair> shuffled(std::vector<Pair> pairs) {
    std::mt19937 random(1);
    std::shuffle(pairs.begin(), pairs.end(), random);
    return pairs;
}

std::string keyValueText(const std::vector<Pair>& pairs) {
    std::string text;
    for (const Pair& pair : pairs) text += pair.key + "=" + pair.value + "\n";
    return text;
}

std::vector<std::string> uris() {
    std::ifstream file(KORVO_BENCH_URIS);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    require(lines.size() >= 40, "cannot read " KORVO_BENCH_URIS);
    return lines;
}

const std::string& deviceRoot() {
    struct Folder {
        Folder() : path("/dev/shm/korvo-bench-XXXXXX") {
            require(::mkdtemp(path.data()) != nullptr, "cannot make a folder in /dev/shm");
            std::filesystem::create_directory(path + "/tmp");
        }
        ~Folder() {
            std::error_code ignored;
            std::filesystem::remove_all(path, ignored);
        }
        std::string path;
    };
    static Folder folder;
    return folder.path;
}

}  // namespace bench
