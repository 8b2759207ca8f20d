/** @file korvoctl's messages: what is wrong, in the operator's words. */
#pragma once

#include <string>

#include "korvo/variant_utils/failure.h"

namespace korvoctl {

/** The process's exit status. */
enum ExitStatus {
    Done = 0,
    No = 1,          ///< the answer is no: there is no such key, there are differences, faults were found
    WrongUsage = 2,  ///< nothing was done
    Failed = 3
};

/** Prints one line to standard error, escaped. */
void tell(const std::string& message);

/** Prints a message; returns Failed. */
[[nodiscard]] ExitStatus failed(const std::string& message);

/** Prints a message; returns No. */
[[nodiscard]] ExitStatus answerNo(const std::string& message);

/** Prints a message and which help to read; returns WrongUsage. @p command may be empty. */
[[nodiscard]] ExitStatus wrongUsage(const std::string& message, const std::string& command);

/** What an errno value means. */
std::string systemError(int number);

/** Why the library failed. */
std::string describe(const korvo::Failure& failure);

}  // namespace korvoctl
