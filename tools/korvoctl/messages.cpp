#include "messages.h"

#include <cerrno>
#include <cstdio>
#include <system_error>

#include "configuration.h"
#include "korvo/logger/logger.h"

namespace korvoctl {
namespace {

using korvo::Failure;
using korvo::Step;

std::string cannot(const char* act, const std::string& subject, int error) {
    return std::string("cannot ") + act + ' ' + subject + ": " + systemError(error);
}

std::string cannotRead(const std::string& path, int error) {
    const bool notRestored = error == ENOENT && path == workingCopyPath();
    return cannot("read", path, error) + (notRestored ? "; run 'korvoctl restore'" : "");
}

}  // namespace

void tell(const std::string& message) {
    std::fprintf(stderr, "korvoctl: %s\n", korvo::logger::escaped(message).c_str());
}

ExitStatus failed(const std::string& message) {
    tell(message);
    return Failed;
}

ExitStatus answerNo(const std::string& message) {
    tell(message);
    return No;
}

ExitStatus wrongUsage(const std::string& message, const std::string& command) {
    tell(message);
    std::fprintf(stderr, "Try 'korvoctl help%s%s'.\n", command.empty() ? "" : " ", command.c_str());
    return WrongUsage;
}

std::string systemError(int number) {
    // The libraries give these four a meaning of their own.
    if (number == ENOTSUP) return "Not a regular file";
    if (number == ELOOP) return "Is a symbolic link";
    if (number == EMLINK) return "Has a second name";
    if (number == ESTALE) return "Its lock file was removed or replaced";
    return std::generic_category().message(number);
}

std::string describe(const Failure& failure) {
    const std::string line = failure.line != 0 ? std::to_string(failure.line) + ':' : "";
    switch (failure.step) {
        case Step::None:
        case Step::State:
            return failure.reason;
        case Step::Lock:
            return cannot("lock", failure.subject, failure.error);
        case Step::Unlock:
            return cannot("unlock", failure.subject, failure.error);
        case Step::Read:
            return cannotRead(failure.subject, failure.error) +
                   (failure.reason.empty() ? "" : "; " + failure.reason);
        case Step::Load:
            return failure.subject + ':' + line + ' ' + failure.reason;
        case Step::Key:
            return "invalid key '" + failure.subject + "': " + failure.reason;
        case Step::Value:
            return "invalid value for " + failure.subject + ": " + failure.reason;
        case Step::Serialize:
            return "cannot write the configuration as KEY=VALUE lines: " + failure.reason;
        case Step::Write:
        case Step::Save:
            return cannot("write", failure.subject, failure.error);
        case Step::Uri:
            return "invalid URI: " + failure.reason;
        case Step::Resolve:
            return "cannot resolve " + failure.subject;
    }
    return failure.reason;
}

}  // namespace korvoctl
