/**
 * @file
 * The copy of the configuration that survives a power cut.
 */
#pragma once

#include <string>

#include "korvo/utils/export.h"

namespace korvo::utils {

/** The path of the flash copy, below the device root; whether there is one or not. */
KORVO_UTILS_EXPORT std::string flashCopyPath();

/**
 * Copies "/tmp/system.cfg" to "system.cfg" in the flash area, the folder that the build fixes as
 * KORVO_FLASH_DIR, which is made with its parents when it is missing. The copy has mode 0600.
 *
 * After true the copy is on the storage device. After false, or when the power is cut at any moment, the
 * flash area holds the old copy or the new one, never a mix. A failure leaves no temporary file; the one that
 * a power cut may leave is replaced by the next save. Saves from several processes or threads follow one
 * another.
 *
 * @param reserved  not used
 * @return false, with errno set, when the configuration cannot be read or the copy cannot be made durable
 */
[[nodiscard]] KORVO_UTILS_EXPORT bool saveToFlashRaw(bool reserved);

/**
 * Reads the flash copy. While a save goes on, that is the old copy or the new one; nothing is waited for.
 *
 * @param text  receives the copy, byte for byte; left as it was on failure
 * @return false, with errno set, when there is no copy (ENOENT) or it cannot be read
 */
[[nodiscard]] KORVO_UTILS_EXPORT bool loadFromFlashRaw(std::string& text);

}  // namespace korvo::utils
