/** @file The configuration as a file, its lock, and how the operations on them fail. */
#pragma once

#include <string>

#include "../log.h"
#include "korvo/utils/file.h"
#include "korvo/utils/inter_process_mutex.h"

namespace korvo::configuration {

/** An operation of the store: its name for the log, and where its failure goes. */
struct Call {
    const char* function;
    Failure& failure;

    /** Logs a message, in which "%s" stands for @p argument; false, for the caller to return. */
    bool logFailure(const char* message, const char* argument = "", int line = __builtin_LINE()) const;

    /** The same, and stores the cause in the failure. */
    bool fail(const Cause& cause, const char* message, const char* argument = "",
              int line = __builtin_LINE()) const;
};

/** Where the file is. */
std::string path();

/** Where the lock file is. */
std::string lockPath();

/** Waits for the lock, which is utils::configurationLock. */
[[nodiscard]] bool acquireLock(InterProcessMutex& lock, const Call& call);

/** Reads the file whole. */
[[nodiscard]] bool readFile(std::string& text, const Call& call);

/** A text that is to replace the file. Without commit() nothing is left of it. */
class Replacement {
  public:
    /** Both must outlive the object. */
    Replacement(const InterProcessMutex& held, Failure& failure);
    Replacement(const Replacement&) = delete;
    ~Replacement();

    /** Writes the text beside the file, with the access of the file if @p access is null. */
    [[nodiscard]] bool write(const std::string& text, const utils::FileAccess* access);

    /** Replaces the file, in one step, if the lock is still held. */
    [[nodiscard]] bool commit();

  private:
    const InterProcessMutex& lock;
    const Call call;
    const std::string name;       ///< on the device
    const std::string temporary;  ///< the same below the device root
    const std::string target;     ///< the file
    bool exists = false;
};

}  // namespace korvo::configuration
