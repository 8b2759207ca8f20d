#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "bench.h"

void bench::require(bool same, const std::string& what) {
    if (same) return;
    std::fprintf(stderr, "No comparison: %s\n", what.c_str());
    std::exit(1);
}

bench::Pairs bench::configuration(int keys) {
    const char* const names[] = {"address", "description", "folder", "port", "uri"};
    const char* const values[] = {"192.168.1.64", "Camera at the north entrance", "/media/sdcard/recordings",
                                  "8554", "rtsp://10.0.0.2/live/ch0"};
    Pairs pairs;
    for (int i = 0; i < keys; ++i) {
        const std::string group = "group" + std::to_string(i / 5 % 10);
        pairs.push_back({{group, "section" + std::to_string(i / 50), names[i % 5]}, values[i % 5]});
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

int main(int argc, char** argv) {
    bench::addUriRows();
    bench::addKeyValueRows();
    bench::addTreeRows();
    bench::addCommandLineRows();
    bench::addStoreRows();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
