/**
 * @file
 * Why an operation failed, as a value from which a host makes its own message.
 */
#pragma once

#include <cstddef>
#include <string>

namespace korvo {

/** What failed, and which members of Failure say more. Any step may have a reason as well. */
enum class Step {
    None,       ///< nothing failed
    State,      ///< the manager is not open, or open already; reason
    Lock,       ///< taking a lock; subject is the lock file, error
    Unlock,     ///< releasing a lock; likewise
    Read,       ///< reading a file; subject is its path, error
    Load,       ///< a file was read, but its text is refused; subject is its path, line, reason
    Key,        ///< a key is refused; subject is the key, reason
    Value,      ///< a value is refused; subject is its key, reason
    Serialize,  ///< the tree cannot be written as key=value text; reason
    Write,      ///< replacing a file; subject is its path, error
    Save,       ///< saving to flash; subject is the path of the flash copy, error
    Uri,        ///< a text is no URI; reason, which repeats nothing of the text
    Resolve     ///< a host has no address; subject is the host
};

/**
 * One failure. A function that takes a `Failure*` accepts null, and clears the failure when it succeeds. The
 * texts are in English and never hold the value of a key.
 */
struct Failure {
    Step step = Step::None;
    int error = 0;             ///< errno value, or 0
    std::string subject = {};  ///< path, key or host
    std::size_t line = 0;      ///< of the file, counted from 1; 0 if none
    std::string reason = {};   ///< such as `there is no "="`
};

}  // namespace korvo
