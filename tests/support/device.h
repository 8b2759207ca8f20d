/** @file A device of a test's own: a tree that stands in front of all device paths. */
#pragma once

#include "korvo/utils/device_root.h"
#include "support/temporary_folder.h"

namespace test {

struct Device : TemporaryFolder {
    Device() {
        std::filesystem::create_directory(path() / "tmp");
        korvo::utils::setDeviceRoot(path());
    }
    /** A copy of the tree @p sample, which may lack /tmp. */
    explicit Device(const std::filesystem::path& sample) : Device() {
        std::filesystem::copy(sample, path(), std::filesystem::copy_options::recursive);
    }
    ~Device() { korvo::utils::setDeviceRoot(""); }
};

}  // namespace test
