/** @file How the facilities log. Each defines `sourceFile`, its own name in the messages. */
#pragma once

#include "korvo/logger/logger.h"

/** Logs one printf-style message as coming from @p function. */
#define KORVO_LOG_FROM(function, level, errorCode, ...) \
    logInternal("korvo_variant_utils", sourceFile, function, __LINE__, level, errorCode, 0, __VA_ARGS__)

/** Logs one printf-style message of the calling function. */
#define KORVO_LOG(level, ...) KORVO_LOG_FROM(__func__, level, 0, __VA_ARGS__)
