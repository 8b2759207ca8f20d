/** @file A device of a test's own: an empty tree that stands in front of all device paths. */
#pragma once

#include "korvo/utils/device_root.h"
#include "support/temporary_directory.h"

namespace test {

struct Device : TemporaryDirectory {
    Device() {
        std::filesystem::create_directory(path() / "tmp");
        korvo::utils::setDeviceRoot(path());
    }
    ~Device() { korvo::utils::setDeviceRoot(""); }
};

}  // namespace test
