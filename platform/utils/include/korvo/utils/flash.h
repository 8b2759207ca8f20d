/**
 * @file
 * The copy of the configuration that survives a power cut.
 */
#pragma once

#include <sys/types.h>

#include <string>

#include "korvo/utils/export.h"
#include "korvo/utils/file.h"

namespace korvo::utils {

/** The path of the flash copy, below the device root; whether there is one or not. */
KORVO_UTILS_EXPORT std::string flashCopyPath();

/**
 * Copies "/tmp/system.cfg" to "system.cfg" in the flash area, the directory that the build fixes as
 * KORVO_FLASH_DIR, which is made with its parents when it is missing. The copy gets the access of the working
 * copy, as File::SetAccess() gives it, but never belongs to a user other than root and the store's owner: it
 * could not be told from a planted one. A working copy that is a symbolic link or has a second name is refused
 * (ELOOP, EMLINK).
 *
 * After true the copy is on the storage device. After false, or when the power is cut at any moment, the
 * flash area holds the old copy or the new one, never a mix. A failure leaves no temporary file; the one that
 * a power cut may leave is replaced by the next save. Saves from several processes or threads follow one
 * another. No cancellation point.
 *
 * @param reserved  not used
 * @return false, with errno set, when the configuration cannot be read or the copy cannot be made durable
 */
[[nodiscard]] KORVO_UTILS_EXPORT bool saveToFlashRaw(bool reserved);

/**
 * Reads the flash copy. While a save goes on, that is the old copy or the new one; takes no lock. No
 * cancellation point.
 *
 * @param text  receives the copy, byte for byte; left as it was on failure
 * @return false, with errno set, when there is no copy (ENOENT), when it is a symbolic link or has a second
 *         name (ELOOP, EMLINK), or when it cannot be read
 */
[[nodiscard]] KORVO_UTILS_EXPORT bool loadFromFlashRaw(std::string& text);

/**
 * The same.
 * @param text    receives the copy
 * @param access  receives the access of the very file that was read; left as it was on failure
 */
[[nodiscard]] KORVO_UTILS_EXPORT bool loadFromFlashRaw(std::string& text, FileAccess& access);

/**
 * Who owns the store: the owner and group of the flash directory, root (0 and 0) where that is missing. Nobody
 * becomes the owner by planting a file in "/tmp".
 * @return false, with errno set and the parameters left as they were, when the flash directory cannot be
 *         examined
 */
[[nodiscard]] KORVO_UTILS_EXPORT bool storeOwner(uid_t& owner, gid_t& group);

/**
 * Renames the flash copy, whatever it is, to "system.cfg.damaged" in its directory, in place of an older one, so
 * that the next save cannot overwrite the only copy of what the user had set. Durable after true. Waits for
 * the lock of saveToFlashRaw(). No cancellation point.
 * @return false, with errno set: ENOENT when there is no copy, EROFS when nothing can be changed there
 */
[[nodiscard]] KORVO_UTILS_EXPORT bool setFlashCopyAside();

/** Reads what setFlashCopyAside() has left, as loadFromFlashRaw() reads the copy. */
[[nodiscard]] KORVO_UTILS_EXPORT bool loadDamagedFlashCopy(std::string& text);

}  // namespace korvo::utils
