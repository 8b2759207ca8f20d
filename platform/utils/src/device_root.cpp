#include "korvo/utils/device_root.h"

#include <utility>

namespace korvo::utils {
namespace {

// A pointer, which is there before any other static object and outlives them all.
const std::string* deviceRoot = nullptr;

}  // namespace

void setDeviceRoot(const std::string& folder) {
    std::string root = folder;
    while (!root.empty() && root.back() == '/') root.pop_back();
    delete std::exchange(deviceRoot, root.empty() ? nullptr : new std::string(root));
}

std::string devicePath(const char* path) { return deviceRoot != nullptr ? *deviceRoot + path : path; }

}  // namespace korvo::utils
