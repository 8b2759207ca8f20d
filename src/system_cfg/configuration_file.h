/**
 * @file
 * The configuration as a file, and its lock. What fails is logged as a failure of the operation @p function,
 * or of "write".
 */
#pragma once

#include <string>

#include "korvo/utils/file.h"
#include "korvo/utils/inter_process_mutex.h"
#include "korvo/variant_utils/failure.h"

namespace korvo::configuration {

/** Where the file is. */
std::string path();

/** Where the lock file is. */
std::string lockPath();

/** Waits for the lock, which is utils::configurationLock. */
[[nodiscard]] bool acquireLock(InterProcessMutex& lock, const char* function, Failure* failure);

/** Reads the file whole. */
[[nodiscard]] bool readFile(std::string& text, const char* function, Failure* failure);

/** A text on its way to the place of the file. One that does not arrive leaves nothing. */
class Replacement {
  public:
    /** @param held  the lock, which outlives the object */
    explicit Replacement(const InterProcessMutex& held);
    Replacement(const Replacement&) = delete;
    ~Replacement();

    /** Writes the text beside the file. Null for @p access keeps that of the file. */
    [[nodiscard]] bool write(const std::string& text, const utils::FileAccess* access, Failure* failure);

    /** Puts it in the place of the file, in one step, if the lock is still held. */
    [[nodiscard]] bool commit(Failure* failure);

  private:
    const InterProcessMutex& lock;
    const std::string name;       ///< on the device
    const std::string temporary;  ///< the same below the device root
    bool exists = false;
};

/** Puts a text in the place of the file, with the access of that. */
[[nodiscard]] bool replaceFile(const std::string& text, const InterProcessMutex& lock, Failure* failure);

}  // namespace korvo::configuration
