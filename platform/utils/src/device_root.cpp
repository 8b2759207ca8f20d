#include "korvo/utils/device_root.h"

#include <atomic>

namespace korvo::utils {
namespace {

// A pointer, which needs no initialization at run time: a process may be forked while another thread makes
// its first use of the library, and the child must not wait for that thread.
std::atomic<const std::string*> deviceRoot{nullptr};

}  // namespace

void setDeviceRoot(const std::string& folder) {
    std::string root = folder;
    while (!root.empty() && root.back() == '/') root.pop_back();
    delete deviceRoot.exchange(root.empty() ? nullptr : new std::string(std::move(root)));
}

std::string devicePath(const char* path) {
    const std::string* root = deviceRoot;
    return root != nullptr ? *root + path : path;
}

}  // namespace korvo::utils
