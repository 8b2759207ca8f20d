/**
 * @file
 * Marks what the utility library exports.
 */
#pragma once

#define KORVO_UTILS_EXPORT __attribute__((visibility("default")))

/** Marks what it does not export although its class is. */
#define KORVO_UTILS_PRIVATE __attribute__((visibility("hidden")))
