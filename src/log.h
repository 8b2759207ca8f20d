/** @file How the facilities log, and fail. */
#pragma once

#include <cstddef>
#include <string_view>

#include "korvo/logger/logger.h"

namespace korvo {

/** A facility as messages name it: "src/uri" for src/uri.cpp, "src/system_cfg" for all in that folder. */
struct FacilityName {
    char text[32] = {};

    constexpr explicit FacilityName(std::string_view sourceFile) {
        const std::size_t begin = sourceFile.rfind("src/");
        const std::size_t end = sourceFile.find_first_of("./", begin + 4);
        for (std::size_t i = begin; i < end; ++i) text[i - begin] = sourceFile[i];
    }
};

/** That of the source file being compiled; a constant, so that no path of the build gets into the library. */
constexpr FacilityName facilityName(__BASE_FILE__);

}  // namespace korvo

/** Logs one printf-style message of the operation @p function. */
#define KORVO_LOG(function, level, errorCode, ...)                                                          \
    logInternal("korvo_variant_utils", ::korvo::facilityName.text, function, __LINE__, level, errorCode, 0, \
                __VA_ARGS__)

/** Logs why the operation @p function fails; false, for the caller to return. */
#define KORVO_FAIL(function, ...) (KORVO_LOG(function, ::korvo::logger::LevelError, 0, __VA_ARGS__), false)
