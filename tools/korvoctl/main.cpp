// korvoctl, the operator's tool: uses the library's facilities from the command line.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <new>
#include <string>

#include "arguments.h"
#include "commands.h"
#include "korvo/utils/device_root.h"

namespace korvoctl {
namespace {

/**
 * Keeps files from being opened in place of a standard stream that is closed; what is printed there still
 * fails.
 */
void occupyStandardStreams() {
    for (int descriptor = 0; descriptor <= 2; ++descriptor) {
        if (::fcntl(descriptor, F_GETFD) < 0 && errno == EBADF)
            (void)::open("/dev/null", descriptor == 0 ? O_WRONLY : O_RDONLY);
    }
}

ExitStatus run(int argc, const char** argv) {
    captureLibraryMessages();
    const Arguments arguments(argc, argv);
    if (!arguments.ok()) return WrongUsage;
    if (arguments.has("help")) return help(arguments);
    if (arguments.command() == nullptr) return printVersion(arguments);
    if (arguments.has("root")) {
        const std::string root = arguments.text("root");
        struct stat ignored {};
        if (::stat((root + "/.").c_str(), &ignored) != 0) {
            return failed(errno == ENOENT ? "there is no folder " + root
                                          : "cannot use " + root + " as --root: " + systemError(errno));
        }
        korvo::utils::setDeviceRoot(root);
    }
    return arguments.command()->perform(arguments);
}

}  // namespace
}  // namespace korvoctl

int main(int argc, char** argv) {
    korvoctl::occupyStandardStreams();
    int status = korvoctl::Failed;
    try {
        status = korvoctl::run(argc, const_cast<const char**>(argv));
    } catch (const std::bad_alloc&) {
        std::fputs("korvoctl: not enough memory\n", stderr);  // which tell() would need too
    } catch (const std::exception& error) {
        (void)korvoctl::failed(error.what());
    }
    // Results that did not reach their reader, as on a full disk, must not pass for done.
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        korvoctl::tell("cannot write to standard output: " + korvoctl::systemError(errno));
        status = korvoctl::Failed;
    }
    return status;
}
