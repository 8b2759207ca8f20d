#include "commands.h"

namespace korvoctl {

const std::vector<Command>& allCommands() {
    static const std::size_t any = static_cast<std::size_t>(-1);
    static const std::vector<Command> commands = {
        {"get", "KEY...", 1, any, "json", "Print values",
         "One key: its value, byte for byte. Several: KEY=VALUE lines for those that exist.\n"
         "Exit status 1 when a key does not exist.",
         getValues},
        {"set", "KEY=VALUE...", 1, any, "save force", "Store values",
         "All of them or none, as the very texts typed. A key that is a group of keys is\n"
         "replaced by a value only with --force. Once loaded, the words on, enable and\n"
         "enabled are 1, and off, disable and disabled are 0.",
         setValues},
        {"unset", "KEY...", 1, any, "save force", "Remove values",
         "All of them or none; a group of keys only with --force. Exit status 1, and nothing\n"
         "done, when a key does not exist.",
         unsetKeys},
        {"apply", "FILE", 1, 1, "save force", "Store the key=value lines of a file",
         "All of them or none. With - for FILE the lines are read from standard input, so that\n"
         "a password need not stand on a command line. --force as for set.",
         applyFile},
        {"dump", "[KEY]", 0, 1, "json", "Print all values, or those below a key",
         "KEY=VALUE lines in the order of the keys, as apply takes them.", dump},
        {"diff", "", 0, 0, "json", "Compare the working copy with the flash copy",
         "-KEY=VALUE is what only the flash copy has, +KEY=VALUE what only the working copy\n"
         "has. Exit status 1 when they differ.",
         diff},
        {"watch", "[KEY]", 0, 1, "", "Print each change of the values as it happens",
         "-KEY=VALUE for the old value, +KEY=VALUE for the new one, until it is stopped.\n"
         "Changes that follow one another faster than they are read show as one.",
         watch},
        {"save", "", 0, 0, "", "Copy the configuration to flash",
         "Unless the flash copy holds the same values already. Each copy is counted in\n"
         "system.flash.cycles.",
         save},
        {"restore", "", 0, 0, "defaults force", "Put the flash copy back, at boot",
         "Where that is missing or damaged, the file of --defaults. Does nothing when there is\n"
         "a working copy, unless --force is given.",
         restore},
        {"reset", "--defaults=FILE", 0, 0, "defaults save", "Back to the factory settings of --defaults",
         "The count of flash writes is kept. The flash copy changes only with --save.", reset},
        {"check", "[FILE]", 0, 1, "", "Tell whether a configuration loads",
         "FILE:LINE: REASON for each fault. Without FILE it is the working copy, and - is\n"
         "standard input. Exit status 1 when there are faults.",
         check},
        {"info", "", 0, 0, "json", "Print what is known about the device",
         "NAME=VALUE lines. When a file is missing or damaged, what the others tell is printed\n"
         "all the same; the exit status is then 3.",
         printDeviceInformation},
        {"uri", "URI", 1, 1, "json resolve base derive with-parameters show-password", "Take a URI apart",
         "NAME=VALUE lines of its parts. The password shows as *** unless asked for.", parseAndPrintUri},
        {"help", "[COMMAND]", 0, 1, "", "Explain a command, or list them all", "", help},
        {"version", "", 0, 0, "", "Print the version", "", printVersion},
    };
    return commands;
}

const Command* findCommand(const std::string& name) {
    for (const Command& command : allCommands()) {
        if (name == command.name) return &command;
    }
    return nullptr;
}

}  // namespace korvoctl
