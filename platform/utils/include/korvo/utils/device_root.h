/**
 * @file
 * Where the device's fixed paths are: at "/", or below a directory that holds another device's tree, such as
 * a mounted firmware image or a test's sample device.
 */
#pragma once

#include <string>

#include "korvo/utils/export.h"

namespace korvo::utils {

/** @name The configuration's names
 * @{ */
inline constexpr char configurationPath[] = "/tmp/system.cfg";  ///< a fixed device path
inline constexpr char configurationLock[] = "system.cfg";       ///< its InterProcessMutex
inline constexpr char flashLock[] = "system.cfg.flash";         ///< held while it is saved to flash
/** @} */

/**
 * Puts @p directory in front of every fixed device path; the empty text, the default, means the real paths.
 * Holds for the whole process: call it once, before anything else of these libraries and before starting
 * threads. Absolute links below it resolve on the running system. No environment variable can set it, so no
 * user can redirect a service.
 */
KORVO_UTILS_EXPORT void setDeviceRoot(const std::string& directory);

/** The path to use for the fixed device path @p path, which begins with "/". */
KORVO_UTILS_EXPORT std::string devicePath(const char* path);

}  // namespace korvo::utils
