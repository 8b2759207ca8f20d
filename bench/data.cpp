#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "bench.h"

void bench::require(bool same, std::string_view what) {
    if (same) return;
    std::fprintf(stderr, "No comparison: %s\n", std::string(what).c_str());
    std::exit(1);
}

std::vector<std::string> bench::dataLines(const std::string& file) {
    std::ifstream stream(KORVO_BENCH_DATA "/" + file);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    require(!lines.empty(), "cannot read " KORVO_BENCH_DATA "/" + file);
    return lines;
}

bench::Pairs bench::configuration(std::size_t keys) {
    const std::vector<std::string> groups = dataLines("groups.txt"), settings = dataLines("settings.txt");
    Pairs pairs;
    while (pairs.size() < keys) {
        const std::size_t section = pairs.size() / settings.size();
        const std::string sectionName = "section" + std::to_string(section / groups.size() + 1);
        const std::string& setting = settings[pairs.size() % settings.size()];
        const std::size_t equals = setting.find('=');
        pairs.push_back({{groups[section % groups.size()], sectionName, setting.substr(0, equals)},
                         setting.substr(equals + 1)});
    }
    std::sort(pairs.begin(), pairs.end(), [](const Pair& a, const Pair& b) { return a.path < b.path; });
    return pairs;
}

std::string bench::keyValueText(const Pairs& pairs) {
    std::string text;
    for (const auto& [path, value] : pairs)
        text += path[0] + "." + path[1] + "." + path[2] + "=" + value + "\n";
    return text;
}

std::string bench::deviceRoot() {
    const char* folder = std::getenv("KORVO_BENCH_ROOT");
    require(folder != nullptr, "KORVO_BENCH_ROOT is to name a copy of examples/device, on a tmpfs");
    return folder;
}
