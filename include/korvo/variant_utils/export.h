/**
 * @file
 * Marks what the library exports.
 */
#pragma once

#define KORVO_VARIANT_UTILS_EXPORT __attribute__((visibility("default")))

/** Hides a member of an exported class. */
#define KORVO_VARIANT_UTILS_PRIVATE __attribute__((visibility("hidden")))
