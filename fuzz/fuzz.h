/** @file What the fuzz targets share: each defines check() for any input. */
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

void check(const std::string& input);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Messages are formatted as always, and dropped.
    korvo::logger::setSink([](const korvo::logger::Record&) {});
    check(std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}
