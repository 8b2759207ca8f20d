// Linked into programs of the documents, so that they run below the root DEVICE_ROOT.

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
