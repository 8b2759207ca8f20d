/**
 * @file
 * The configuration as a file, and its lock. What fails is logged as a failure of the operation @p function,
 * or of "write".
 */
#pragma once

#include <string>

#include "korvo/utils/inter_process_mutex.h"

namespace korvo::configuration {

/** Where the file is. */
std::string path();

/** Waits for the lock, which is utils::configurationLock. */
[[nodiscard]] bool acquireLock(InterProcessMutex& lock, const char* function);

/** Reads the file whole. */
[[nodiscard]] bool readFile(std::string& text, const char* function);

/** Puts a text in the place of the file, in one step, under the lock. A failure leaves errno to tell why. */
[[nodiscard]] bool replaceFile(const std::string& text, const InterProcessMutex& lock);

}  // namespace korvo::configuration
