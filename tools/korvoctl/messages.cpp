#include "messages.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <system_error>

#include "configuration.h"
#include "korvo/logger/logger.h"
#include "text.h"

namespace korvoctl {
namespace {

std::string firstError;
int firstErrorNumber = 0;

/** Runs inside the library, so errno is still that of the call that failed. */
void keepFirstError(const korvo::logger::Record& record) {
    if (record.level > korvo::logger::LevelError || !firstError.empty()) return;
    firstErrorNumber = errno;
    firstError = record.message;
}

/** How a message of the library begins, and what it means to an operator. */
struct Meaning {
    const char* begin;
    std::string (*words)(const std::string& rest);
};

std::string because(const std::string& what) {
    return what + ": " + systemError(firstErrorNumber);
}

int number(const std::string& text) {
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

const Meaning meanings[] = {
    {"Failed to acquire system.cfg mutex, res=",
     [](const std::string& rest) {
         return "cannot lock " + workingCopyPath() + ".lock: " + systemError(number(rest));
     }},
    {"Failed to release system.cfg mutex, res=",
     [](const std::string& rest) {
         return "cannot unlock " + workingCopyPath() + ".lock: " + systemError(number(rest));
     }},
    {"Failed to open system.cfg file",
     [](const std::string&) { return because("cannot read " + workingCopyPath()); }},
    {"Failed to read system.cfg file",
     [](const std::string&) { return because("cannot read " + workingCopyPath()); }},
    {"Failed to deserialize system.cfg file",
     [](const std::string&) { return firstFault(workingCopyPath()); }},
    {"Failed to open system.cfg",
     [](const std::string&) { return because("cannot replace " + workingCopyPath()); }},
    {"Failed to write system.cfg",
     [](const std::string&) { return because("cannot replace " + workingCopyPath()); }},
    {"Failed to move ", [](const std::string&) { return because("cannot replace " + workingCopyPath()); }},
    {"Failed to save to flash",
     [](const std::string&) { return because("cannot write " + flashCopyPath()); }},
    {"Failed to restore system.cfg from flash or from ",
     [](const std::string& rest) {
         return "nothing to restore: " + firstFault(flashCopyPath()) + "; " +
                (rest.empty() ? "no --defaults are given" : firstFault(rest));
     }},
    {"Failed to load the factory settings ", [](const std::string& rest) { return firstFault(rest); }},
    {"Failed to set system.cfg key system.flash.cycles",
     [](const std::string&) -> std::string {
         return "\"system.flash\" cannot hold the count of flash writes: \"system\" or \"system.flash\" has "
                "a value";
     }},
    {"Unable to open ", [](const std::string& rest) { return because("cannot read " + rest); }},
    {"Failed to match FW version regex, fw=",
     [](const std::string& rest) { return "/lib/version holds no firmware version, but '" + rest + "'"; }},
};

}  // namespace

void tell(const std::string& message) {
    std::fprintf(stderr, "korvoctl: %s\n", onOneLine(message).c_str());
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
    return std::generic_category().message(number);
}

void captureLibraryMessages() {
    korvo::logger::setSink(keepFirstError);
}

void forgetLibraryMessages() {
    firstError.clear();
}

std::string libraryFailure() {
    for (const Meaning& meaning : meanings) {
        const std::string begin = meaning.begin;
        if (firstError.compare(0, begin.size(), begin) == 0)
            return meaning.words(firstError.substr(begin.size()));
    }
    return firstError;
}

}  // namespace korvoctl
