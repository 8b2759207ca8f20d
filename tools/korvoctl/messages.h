/** @file What korvoctl tells its user beside results: why something failed, in the operator's words. */
#pragma once

#include <string>

namespace korvoctl {

/** The process's exit status. */
enum ExitStatus {
    Done = 0,
    No = 1,          ///< the answer is no: there is no such key, there are differences, faults were found
    WrongUsage = 2,  ///< nothing was done
    Failed = 3
};

/** Prints one line to standard error, with control characters escaped. */
void tell(const std::string& message);

/** Tells a message; returns Failed. */
[[nodiscard]] ExitStatus failed(const std::string& message);

/** Tells a message; returns No. */
[[nodiscard]] ExitStatus answerNo(const std::string& message);

/** Tells a message and which help to read; returns WrongUsage. @p command may be empty. */
[[nodiscard]] ExitStatus wrongUsage(const std::string& message, const std::string& command);

/** What an errno value means. */
std::string systemError(int number);

/** Keeps the library's messages, which are for developers, instead of letting it print them. */
void captureLibraryMessages();

/**
 * Why the library failed: its first error, which is where the failure was found, in the operator's words. It
 * tells of errors only when it fails, and a command ends at the first failure.
 */
std::string libraryFailure();

/** Whether it took the defaults in place of a flash copy that is there. */
bool tookDefaults();

}  // namespace korvoctl
