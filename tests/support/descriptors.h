/** @file Descriptors of a test's process, of which what is tested is to leave none open. */
#pragma once

#include <filesystem>
#include <iterator>

namespace test {

/** The number of descriptors that this process has open. */
inline std::ptrdiff_t openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

}  // namespace test
