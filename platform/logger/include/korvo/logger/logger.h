/**
 * @file
 * The logger: one function that every library of the device calls, and one place that decides where the lines
 * go.
 *
 * By default each message becomes one line on standard error. To send messages elsewhere, a host installs a
 * sink before it starts threads or calls a library. All functions may be called from any thread.
 */
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/** Marks what the logger library exports. */
#define KORVO_LOGGER_EXPORT __attribute__((visibility("default")))

namespace korvo::logger {

/** Syslog's severities, as far as the device's libraries use them. */
enum Level : int { LevelError = 3, LevelWarning = 4 };

/** One message, as a sink gets it. The pointers are valid only during the call. */
struct Record {
    const char* module;      ///< the library or program that logs, such as "korvo_variant_utils"
    const char* sourceFile;  ///< the source file as the caller names it, such as "src/system_cfg"
    const char* function;    ///< the plain name of the operation
    int line;                ///< source line of the call
    int level;               ///< syslog severity, 0 (emergency) to 7 (debug)
    int errorCode;           ///< an errno value that belongs to the message, or 0
    const char* message;     ///< one line of text, as escaped() makes it
};

/**
 * Where messages go. The thread that logs calls the sink, so several may at once; it must neither log nor
 * throw. The thread may hold the configuration's lock: a sink, or a standard error, that blocks then keeps
 * every other service from changing anything.
 */
using Sink = void (*)(const Record& record);

/**
 * Sends later messages to @p sink; null means the default, standardErrorSink(). A message being logged
 * meanwhile goes to the old or the new sink, never to both.
 * @return the replaced sink, never null
 */
KORVO_LOGGER_EXPORT Sink setSink(Sink sink);

/** The default: writes `LEVEL module sourceFile:line function: message` to standard error, one write each. */
KORVO_LOGGER_EXPORT void standardErrorSink(const Record& record);

/**
 * A sink for syslog(3). The host may call openlog() first, to choose name and facility. A host that closes
 * its standard streams must first call it with LOG_NDELAY, so syslog's socket gets none of their numbers.
 */
KORVO_LOGGER_EXPORT void syslogSink(const Record& record);

/** @name Text of any origin, in messages and in whatever else a program prints
 * @{ */

/**
 * @p text on one line, unable to steer a terminal: control characters, and bytes that belong to no UTF-8
 * character, become `\n`, `\r`, `\t` or, byte by byte, `\xNN`. Backslashes stay, so escaping twice changes
 * nothing.
 */
KORVO_LOGGER_EXPORT std::string escaped(std::string_view text);

/**
 * Decodes the UTF-8 character at the beginning of a text.
 * @param text  not empty
 * @param code  receives the code point; undefined if there is no such character
 * @return the length of the character in bytes; 0 if there is none
 */
KORVO_LOGGER_EXPORT std::size_t utf8Character(std::string_view text, char32_t& code);

/** Whether a terminal may obey a character: the ASCII controls, DEL, and U+0080 to U+009F. */
KORVO_LOGGER_EXPORT bool isControl(char32_t code);
/** @} */

}  // namespace korvo::logger

/**
 * Logs one message, formatted as printf does and then escaped(), so no argument can forge a second line or
 * steer a terminal. Leaves errno as it was. No cancellation point, whatever the sink does.
 * @param module      the library or program that logs
 * @param sourceFile  the calling source file
 * @param function    the plain name of the calling operation
 * @param line        source line of the call
 * @param level       syslog severity: 3 for a failure, 4 for a warning
 * @param errorCode   an errno value that belongs to the message, or 0
 * @param reserved    0
 * @param format      printf-style format, checked by the compiler
 */
KORVO_LOGGER_EXPORT void logInternal(const char* module, const char* sourceFile, const char* function,
                                     int line, int level, int errorCode, int reserved, const char* format,
                                     ...) __attribute__((format(printf, 8, 9)));
