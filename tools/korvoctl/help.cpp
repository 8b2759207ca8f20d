#include <cstdio>

#include "arguments.h"
#include "commands.h"
#include "korvo/variant_utils/commandline.h"
#include "korvo/variant_utils/version.h"

namespace korvoctl {
namespace {

ExitStatus explain(const Command& command) {
    const std::string synopsis =
        std::string("korvoctl ") + command.name + (*command.operands != '\0' ? " " : "") + command.operands;
    korvo::variant::Variant options;
    describeOptions(command, options);
    PrintHelp(synopsis.c_str(), options);
    std::printf("%s.\n%s%s", command.summary, command.description, *command.description != '\0' ? "\n" : "");
    return Done;
}

}  // namespace

ExitStatus help(const Arguments& arguments) {
    // `korvoctl get --help` asks for the same as `korvoctl help get`.
    if (arguments.has("help") && arguments.command() != nullptr) return explain(*arguments.command());
    if (!arguments.operands().empty()) {
        const Command* command = findCommand(arguments.operand());
        return command != nullptr ? explain(*command)
                                  : wrongUsage("unknown command '" + arguments.operand() + "'", "");
    }
    std::printf("korvoctl COMMAND [OPTION]...: a camera's configuration, device information and URIs\n\n");
    for (const Command& command : allCommands()) {
        const std::string synopsis = std::string(command.name) + ' ' + command.operands;
        std::printf("  %-21s %s\n", synopsis.c_str(), command.summary);
    }
    std::printf(
        "\nEvery command accepts --root=DIR to use the device tree in that directory.\n"
        "'korvoctl help COMMAND' explains a command and its options. -- ends the options.\n"
        "Exit status: 0 done; 1 the answer is no; 2 wrong usage; 3 failed.\n");
    return Done;
}

ExitStatus printVersion(const Arguments&) {
    std::printf("korvoctl %s\n", KORVO_VARIANT_UTILS_VERSION);
    return Done;
}

}  // namespace korvoctl
