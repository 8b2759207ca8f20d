// korvoctl, the operator's tool: the library's facilities on the command line.

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <new>
#include <string>

#include "arguments.h"
#include "commands.h"
#include "korvo/logger/logger.h"
#include "korvo/utils/device_root.h"

namespace korvoctl {
namespace {

ExitStatus run(int argc, char** argv) {
    // The library's messages are for developers; korvoctl prints its own.
    korvo::logger::setSink([](const korvo::logger::Record&) {});
    const Arguments arguments(argc, argv);
    if (!arguments.ok()) return WrongUsage;
    if (arguments.has("help")) return help(arguments);
    if (arguments.command() == nullptr) return printVersion(arguments);
    if (arguments.has("root")) {
        const std::string root = arguments.text("root");
        struct stat ignored {};
        if (::stat((root + "/.").c_str(), &ignored) != 0)
            return failed("cannot use " + root + " as --root: " + systemError(errno));
        korvo::utils::setDeviceRoot(root);
    }
    return arguments.command()->perform(arguments);
}

}  // namespace
}  // namespace korvoctl

int main(int argc, char** argv) {
    int status = korvoctl::Failed;
    try {
        status = korvoctl::run(argc, argv);
    } catch (const std::bad_alloc&) {
        std::fputs("korvoctl: not enough memory\n", stderr);  // tell() would allocate
    } catch (const std::exception& error) {
        (void)korvoctl::failed(error.what());
    }
    // Otherwise results lost on a full disk or a closed stream would count as done.
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        korvoctl::tell("cannot write to standard output: " + korvoctl::systemError(errno));
        status = korvoctl::Failed;
    }
    return status;
}
