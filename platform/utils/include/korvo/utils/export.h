/**
 * @file
 * Marks what the utility library exports.
 */
#pragma once

#define KORVO_UTILS_EXPORT __attribute__((visibility("default")))
