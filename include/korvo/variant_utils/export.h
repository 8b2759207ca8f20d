/**
 * @file
 * Marks what the library exports.
 */
#pragma once

#define KORVO_VARIANT_UTILS_EXPORT __attribute__((visibility("default")))

/** Marks what it does not export although its class is. */
#define KORVO_VARIANT_UTILS_PRIVATE __attribute__((visibility("hidden")))
