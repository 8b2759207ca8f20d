// korvoctl, the operator's tool: uses the library's facilities from the command line.

#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>

#include "actions.h"
#include "korvo/utils/device_root.h"

namespace korvoctl {
namespace {

struct Action {
    const char* name;
    ExitStatus (*perform)(const Options& options);
};

constexpr Action actions[] = {
    {"uri", parseAndPrintUri},    {"get", printConfigurationValue}, {"set", setConfigurationValue},
    {"dump", printConfiguration}, {"info", printDeviceInformation},
};

ExitStatus run(int argc, const char** argv) {
    Options options(argc, argv);
    if (!options.ok()) return WrongUsage;
    if (options.has("root")) {
        const std::string& root = options.text("root");
        std::error_code ignored;
        if (!std::filesystem::is_directory(root, ignored)) return failed("there is no folder " + root);
        korvo::utils::setDeviceRoot(root);
    }
    for (const Action& action : actions) {
        if (options.action() == action.name) return action.perform(options);
    }
    options.printHelp();
    return Done;
}

}  // namespace
}  // namespace korvoctl

int main(int argc, char** argv) {
    int status = korvoctl::Failed;
    try {
        status = korvoctl::run(argc, const_cast<const char**>(argv));
    } catch (const std::exception& error) {
        (void)korvoctl::failed(error.what());
    }
    // Results that did not reach their reader, as on a full disk, must not pass for done.
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        std::perror("korvoctl: standard output");
        if (status == korvoctl::Done) status = korvoctl::Failed;
    }
    return status;
}
