/** @file What the fuzz targets share. */
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "korvo/logger/logger.h"
#include "support/device.h"

/** Stops with the place of what does not hold. */
#define FUZZ_CHECK(condition)                                                    \
    do {                                                                         \
        if (!(condition)) {                                                      \
            std::fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                        \
        }                                                                        \
    } while (false)

namespace fuzz {

/** Formats messages as always, and drops them. */
inline void beSilent() {
    korvo::logger::setSink([](const korvo::logger::Record&) {});
}

/** A device tree of this process's own; scripts/fuzz has it made in memory. */
using DeviceTree = test::Device;

}  // namespace fuzz
