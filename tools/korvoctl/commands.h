/** @file The commands of korvoctl. */
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "messages.h"

namespace korvoctl {

class Arguments;

struct Command {
    const char* name;
    const char* operands;     ///< as the help shows them
    std::size_t least, most;  ///< the number of operands it takes
    const char* options;      ///< the long names of those it accepts, separated by blanks
    const char* summary;      ///< one line
    const char* description;  ///< the rest of its help
    ExitStatus (*perform)(const Arguments& arguments);
};

/** The command of that name, or null. */
const Command* findCommand(const std::string& name);

/** All commands, in the order in which the help lists them. */
const std::vector<Command>& allCommands();

/** @name What the commands do
 * Each prints what is wrong and returns the exit status.
 * @{ */
ExitStatus getValues(const Arguments& arguments);
ExitStatus dump(const Arguments& arguments);
ExitStatus diff(const Arguments& arguments);
ExitStatus check(const Arguments& arguments);
ExitStatus watch(const Arguments& arguments);
ExitStatus setValues(const Arguments& arguments);
ExitStatus unsetKeys(const Arguments& arguments);
ExitStatus applyFile(const Arguments& arguments);
ExitStatus save(const Arguments& arguments);
ExitStatus restore(const Arguments& arguments);
ExitStatus reset(const Arguments& arguments);
ExitStatus printDeviceInformation(const Arguments& arguments);
ExitStatus parseAndPrintUri(const Arguments& arguments);
ExitStatus help(const Arguments& arguments);
ExitStatus printVersion(const Arguments& arguments);
/** @} */

}  // namespace korvoctl
