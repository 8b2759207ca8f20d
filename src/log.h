/** @file How the facilities log and fail. Each source file names its own as `facility`. */
#pragma once

#include <cstddef>
#include <string_view>

#include "korvo/logger/logger.h"
#include "korvo/variant_utils/failure.h"

namespace korvo {

/** A Failure whose texts are views. */
struct Cause {
    Step step;
    int error = 0;
    std::string_view subject = {};
    std::size_t line = 0;
    std::string_view reason = {};
};

/** Stores a failure, if @p failure is not null; false, for the operation to return. */
bool fail(Failure* failure, const Cause& cause);

}  // namespace korvo

/** Logs one printf-style message of the operation @p function. */
#define KORVO_LOG(function, level, errorCode, ...) \
    logInternal("korvo_variant_utils", facility, function, __LINE__, level, errorCode, 0, __VA_ARGS__)

/** Logs why the operation @p function fails; false, for the caller to return. */
#define KORVO_FAIL(function, ...) (KORVO_LOG(function, ::korvo::logger::LevelError, 0, __VA_ARGS__), false)
