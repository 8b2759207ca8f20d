// Linked into programs that are to run below another root than the machine's own, though they say nothing of
// roots.

#include <cstdlib>

#include "korvo/utils/device_root.h"

namespace {

[[maybe_unused]] const bool isSet = [] {
    const char* const root = std::getenv("DEVICE_ROOT");  // NOLINT(concurrency-mt-unsafe)
    if (root == nullptr) std::abort();
    korvo::utils::setDeviceRoot(root);
    return true;
}();

}  // namespace
