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
         "enabled are 1, and off, disable and disabled are 0; a warning says so.",
         setValues},
        {"unset", "KEY...", 1, any, "save force", "Remove values",
         "All of them or none; a group of keys only with --force. Exit status 1, and nothing\n"
         "done, when a key does not exist. Removes any key that loads, even one that get refuses.",
         unsetKeys},
        {"apply", "FILE", 1, 1, "save force", "Store the key=value lines of a file",
         "All of them or none; of a repeated key the last line counts. With - for FILE, reads\n"
         "standard input, so that a password need not stand on a command line. --force as for\n"
         "set. Prints FILE:LINE: REASON for what it refuses; check does so beforehand.",
         applyFile},
        {"dump", "[KEY]", 0, 1, "json", "Print all values, or those below a key",
         "KEY=VALUE lines in the order of the keys, as apply takes them.", dump},
        {"diff", "", 0, 0, "json", "Compare the working copy with the flash copy",
         "-KEY=VALUE is what only the flash copy has, +KEY=VALUE what only the working copy\n"
         "has. Exit status 1 when they differ.",
         diff},
        {"watch", "[KEY]", 0, 1, "", "Print each change of the values as it happens",
         "-KEY=VALUE for the old value, +KEY=VALUE for the new one, until you stop it.\n"
         "Changes that come faster than they are read show as one.",
         watch},
        {"save", "", 0, 0, "", "Copy the configuration to flash",
         "Unless the flash copy already holds the same values. system.flash.cycles counts the\n"
         "copies, on from the larger count of the two.",
         save},
        {"restore", "", 0, 0, "defaults force", "Put the flash copy back, at boot",
         "If that is missing or damaged, the --defaults file; a damaged one is kept as\n"
         "system.cfg.damaged beside it. Keeps an existing working copy unless --force is\n"
         "given. Prints what it did.",
         restore},
        {"reset", "--defaults=FILE", 0, 0, "defaults save", "Back to the factory settings of --defaults",
         "The count of flash writes is kept. The flash copy changes only with --save.\n"
         "To back up the configuration, and later return to exactly that:\n"
         "  umask 077; korvoctl dump >backup\n"
         "  korvoctl reset --defaults=backup --save",
         reset},
        {"check", "[FILE]", 0, 1, "", "Check that a configuration loads and apply takes it",
         "Prints FILE:LINE: REASON for each line that does not load or that apply refuses.\n"
         "Without FILE checks the working copy; - is standard input. Exit status 1 when there\n"
         "are faults.",
         check},
        {"info", "[NAME]", 0, 1, "json", "Print what is known about the device, or one fact",
         "NAME=VALUE lines, or one fact's value; exit status 1 when there is no such fact. When\n"
         "a file is missing or damaged, prints the facts of the others and exits with 3.",
         printDeviceInformation},
        {"uri", "URI", 1, 1, "json resolve base derive with-parameters show-password", "Take a URI apart",
         "NAME=VALUE lines of its parts. Shows the password as *** unless asked for it.", parseAndPrintUri},
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
