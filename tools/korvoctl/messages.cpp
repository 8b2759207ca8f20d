#include "messages.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <system_error>

#include "configuration.h"
#include "korvo/logger/logger.h"
#include "korvo/utils/device_root.h"
#include "korvo/variant_utils/camerainfo.h"
#include "text.h"

namespace korvoctl {
namespace {

using korvo::utils::devicePath;

std::string firstError;
int firstErrorNumber = 0;
bool defaultsTaken = false;

/** Runs inside the library, so errno is still that of the call that failed. */
void keepFirstError(const korvo::logger::Record& record) {
    const std::string_view message = record.message;
    if (message.substr(0, message.find(',')) == "damaged flash copy of system.cfg") defaultsTaken = true;
    if (record.level > korvo::logger::LevelError || !firstError.empty()) return;
    firstErrorNumber = errno;
    firstError = record.message;
}

/** How a message of the library begins, and what it means to an operator. */
struct Meaning {
    const char* begin;
    std::string (*words)(const std::string& rest);
};

std::string because(const std::string& what) { return what + ": " + systemError(firstErrorNumber); }

std::string notReplaced() {
    const std::string what = "cannot replace " + workingCopyPath();
    if (firstErrorNumber != ESTALE) return because(what);
    return what + ": the lock file " + workingCopyPath() + ".lock has been removed or replaced meanwhile";
}

int number(const std::string& text) { return static_cast<int>(std::strtol(text.c_str(), nullptr, 10)); }

// Of two that begin alike the longer one comes first.
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
    {"Failed to open system.cfg", [](const std::string&) { return notReplaced(); }},
    {"Failed to write system.cfg", [](const std::string&) { return notReplaced(); }},
    {"Failed to move ", [](const std::string&) { return notReplaced(); }},
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
    {"Unable to open ",
     [](const std::string& rest) { return because("cannot read " + devicePath(rest.c_str())); }},
    {"Failed to match FW version regex, fw=",
     [](const std::string& rest) {
         return devicePath(korvo::variant::firmwareVersionFile) + " holds no firmware version, but '" + rest +
                "'";
     }},
};

}  // namespace

void tell(const std::string& message) {
    std::fprintf(stderr, "korvoctl: %s\n", messageOnOneLine(message).c_str());
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
    // What the libraries call a pipe, a socket or a device where a file belongs.
    if (number == ENOTSUP) return "it is no plain file";
    return std::generic_category().message(number);
}

void captureLibraryMessages() { korvo::logger::setSink(keepFirstError); }

std::string libraryFailure() {
    for (const Meaning& meaning : meanings) {
        const std::string begin = meaning.begin;
        if (firstError.compare(0, begin.size(), begin) == 0)
            return meaning.words(firstError.substr(begin.size()));
    }
    return firstError;
}

bool tookDefaults() { return defaultsTaken; }

}  // namespace korvoctl
