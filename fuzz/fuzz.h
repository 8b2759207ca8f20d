/** @file What the fuzz targets share. */
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "korvo/logger/logger.h"
#include "korvo/utils/device_root.h"

namespace fuzz {

/** Stops with the place of what does not hold. */
#define FUZZ_CHECK(condition)                                                    \
    do {                                                                         \
        if (!(condition)) {                                                      \
            std::fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                        \
        }                                                                        \
    } while (false)

/** Formats messages as always, and drops them. */
inline void beSilent() {
    korvo::logger::setSink([](const korvo::logger::Record&) {});
}

/** A device tree of this process's own, in memory where the machine has a folder for that. */
class DeviceTree {
  public:
    DeviceTree() {
        const std::filesystem::path memory = "/dev/shm";
        const auto parent =
            std::filesystem::is_directory(memory) ? memory : std::filesystem::temp_directory_path();
        std::string name = (parent / "korvo-fuzz-XXXXXX").string();
        FUZZ_CHECK(::mkdtemp(name.data()) != nullptr);
        root = name;
        korvo::utils::setDeviceRoot(root.string());
    }
    DeviceTree(const DeviceTree&) = delete;
    DeviceTree& operator=(const DeviceTree&) = delete;
    ~DeviceTree() { std::filesystem::remove_all(root); }

    void write(const char* path, const std::string& content) const {
        const std::filesystem::path file = root / path;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << content;
    }

  private:
    std::filesystem::path root;
};

}  // namespace fuzz
