#include "korvo/utils/device_root.h"

namespace korvo::utils {
namespace {

std::string& deviceRoot() {
    static std::string root;
    return root;
}

}  // namespace

void setDeviceRoot(const std::string& directory) {
    std::string& root = deviceRoot();
    root = directory;
    while (!root.empty() && root.back() == '/') root.pop_back();
}

std::string devicePath(const char* path) {
    return deviceRoot() + path;
}

}  // namespace korvo::utils
