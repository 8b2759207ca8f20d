/**
 * @file
 * The flash copy: the copy of the configuration that survives a power cut. No function here is a cancellation
 * point; each may be called from any thread and process.
 */
#pragma once

#include <sys/types.h>

#include <string>

#include "korvo/utils/export.h"
#include "korvo/utils/file.h"

namespace korvo::utils {

/** The path of the flash copy below the device root, whether it exists or not. */
KORVO_UTILS_EXPORT std::string flashCopyPath();

/**
 * Copies "/tmp/system.cfg" to "system.cfg" in the flash directory, which the build fixes as KORVO_FLASH_DIR,
 * and which is created with its parents. The copy gets the access of the working copy, as File::SetAccess()
 * gives it, but belongs only to root or the store's owner: otherwise it would look planted. A working
 * copy that is a symbolic link or has a second name is refused (ELOOP, EMLINK).
 *
 * Once it returns true, the copy is on the storage device. After false, or a power cut at any moment, the
 * flash directory holds the old copy or the new one, never a mix. A failure leaves no temporary file; one
 * that a power cut leaves is replaced by the next save. Saves wait for one another.
 *
 * @param reserved  not used
 * @return false, with errno set, if the configuration cannot be read or the copy cannot be made durable
 */
[[nodiscard]] KORVO_UTILS_EXPORT bool saveToFlashRaw(bool reserved);

/**
 * Reads the flash copy; during a save, the old or the new one. Takes no lock.
 *
 * @param text  receives the copy, byte for byte; left as it was on failure
 * @return false, with errno set, if there is no copy (ENOENT), it is a symbolic link or has a second name
 *         (ELOOP, EMLINK), or cannot be read
 */
[[nodiscard]] KORVO_UTILS_EXPORT bool loadFromFlashRaw(std::string& text);

/** The same; @p access receives the access of the very file that was read, and is unchanged on failure. */
[[nodiscard]] KORVO_UTILS_EXPORT bool loadFromFlashRaw(std::string& text, FileAccess& access);

/**
 * Who owns the store: the owner and group of the flash directory, or root (0 and 0) if that is missing.
 * Nobody becomes the owner by planting a file in "/tmp".
 * @return false, with errno set and the parameters left as they were, if the flash directory cannot be
 *         examined
 */
[[nodiscard]] KORVO_UTILS_EXPORT bool storeOwner(uid_t& owner, gid_t& group);

/**
 * Renames the flash copy, whatever it is, to "system.cfg.damaged" in its directory, in place of an older one,
 * so the next save cannot overwrite the only copy of the user's settings. Durable after true. Waits for
 * saves.
 * @return false, with errno set: ENOENT if there is no copy, EROFS if nothing can be changed there
 */
[[nodiscard]] KORVO_UTILS_EXPORT bool setFlashCopyAside();

/** Reads what setFlashCopyAside() has left, as loadFromFlashRaw() reads the copy. */
[[nodiscard]] KORVO_UTILS_EXPORT bool loadDamagedFlashCopy(std::string& text);

}  // namespace korvo::utils
