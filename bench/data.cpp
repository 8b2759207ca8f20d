#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>

#include "bench.h"

namespace bench {

void require(bool same, std::string_view what) {
    if (same) return;
    std::fprintf(stderr, "Nothing was timed: %s\n", std::string(what).c_str());
    std::exit(1);
}

std::vector<std::string> dataLines(const std::string& file) {
    std::ifstream stream(KORVO_BENCH_DATA "/" + file);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    require(!lines.empty(), "cannot read " KORVO_BENCH_DATA "/" + file);
    return lines;
}

const Pairs& configuration(int keys) {
    static const char* const groups[] = {
        "alarm", "audio", "camera", "cloud",  "event", "ftp",    "image",  "motion", "mqtt",     "network",
        "onvif", "osd",   "ptz",    "record", "rtsp",  "sdcard", "stream", "system", "timezone", "wireless"};
    static const std::vector<std::string> settings = dataLines("settings.txt");
    static std::map<int, Pairs> configurations;
    Pairs& pairs = configurations[keys];
    for (std::size_t i = pairs.size(); i < static_cast<std::size_t>(keys); ++i) {
        const std::size_t section = i / settings.size();
        const std::string& setting = settings[i % settings.size()];
        const std::size_t equals = setting.find('=');
        Pair pair{{groups[section % std::size(groups)], "section", setting.substr(0, equals)},
                  {},
                  setting.substr(equals + 1)};
        pair.path[1] += std::to_string(section / std::size(groups) + 1);
        pair.key = pair.path[0] + "." + pair.path[1] + "." + pair.path[2];
        pairs.push_back(std::move(pair));
    }
    std::sort(pairs.begin(), pairs.end(), [](const Pair& a, const Pair& b) { return a.path < b.path; });
    return pairs;
}

Pairs shuffled(Pairs pairs) {
    std::mt19937 random(1);
    std::shuffle(pairs.begin(), pairs.end(), random);
    return pairs;
}

std::string keyValueText(const Pairs& pairs, const std::string& quote) {
    std::string text;
    for (const Pair& pair : pairs) text += pair.key + "=" + quote + pair.value + quote + "\n";
    return text;
}

std::string deviceRoot() {
    const char* folder = std::getenv("KORVO_BENCH_ROOT");
    require(folder != nullptr, "KORVO_BENCH_ROOT is to name a copy of examples/device, on a tmpfs");
    return folder;
}

}  // namespace bench
