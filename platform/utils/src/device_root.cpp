#include "korvo/utils/device_root.h"

#include <utility>

namespace korvo::utils {
namespace {

// A pointer: it exists before any other static object, and outlives them all.
const std::string* deviceRoot = nullptr;

}  // namespace

void setDeviceRoot(const std::string& directory) {
    const std::string root = directory.substr(0, directory.find_last_not_of('/') + 1);
    delete std::exchange(deviceRoot, root.empty() ? nullptr : new std::string(root));
}

std::string devicePath(const char* path) { return deviceRoot != nullptr ? *deviceRoot + path : path; }

}  // namespace korvo::utils
