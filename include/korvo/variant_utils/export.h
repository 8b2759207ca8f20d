/** @file Marks what the library exports. */
#pragma once

#define KORVO_VARIANT_UTILS_EXPORT __attribute__((visibility("default")))
