/**
 * @file
 * The logger: one function that every library of the device calls, and one place that decides where the lines
 * go.
 *
 * By default each message becomes one line on standard error. A host that wants its messages elsewhere
 * installs a sink with korvo::logger::setSink() before it starts threads or calls a library.
 *
 * Threads: logInternal() may be called from any thread. setSink() may too; messages that are being logged at
 * that moment go to the old or to the new sink, never to both.
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

/** One message, as a sink gets it. The pointers are valid during the call only. */
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
 * Where messages go. A sink is called by the thread that logs, so it may be called from several threads at
 * once; it must neither log nor throw. The thread waits for it, with the configuration locked if it holds that
 * lock: a sink, or a standard error, that blocks keeps every other service from changing anything.
 */
using Sink = void (*)(const Record& record);

/**
 * Sends later messages to @p sink; null brings back the default, standard error.
 * @return the sink that has been replaced, never null
 */
KORVO_LOGGER_EXPORT Sink setSink(Sink sink);

/** The default sink, standard error: `LEVEL module sourceFile:line function: message`, one write per line. */
KORVO_LOGGER_EXPORT void standardErrorSink(const Record& record);

/**
 * A ready-made sink for syslog(3). The host may call openlog() first, to choose name and facility. A host
 * that closes its standard streams calls it before that, with LOG_NDELAY, so that syslog's socket does not
 * get the number of one of them.
 */
KORVO_LOGGER_EXPORT void syslogSink(const Record& record);

/** @name Text of any origin
 * Not only for messages: a program uses them for whatever it prints. They keep no state.
 * @{ */

/**
 * A text that stays on one line and cannot steer a terminal. Control characters and bytes that belong to no
 * UTF-8 character are written as `\n`, `\r`, `\t` or, each of their bytes, as `\xNN`. All else stays, backslashes
 * too, so that escaping twice changes nothing.
 */
KORVO_LOGGER_EXPORT std::string escaped(std::string_view text);

/**
 * Decodes the UTF-8 character at the beginning of a text.
 * @param text  not empty
 * @param code  receives the code point; undefined where there is no such character
 * @return the length of the character; 0 where the bytes are none
 */
KORVO_LOGGER_EXPORT std::size_t utf8Character(std::string_view text, char32_t& code);

/** Reports whether a terminal may obey a character: the ASCII controls, DEL, and U+0080 to U+009F. */
KORVO_LOGGER_EXPORT bool isControl(char32_t code);
/** @} */

}  // namespace korvo::logger

/**
 * Logs one message.
 *
 * The message is formatted as printf does, and then escaped(), so that no argument can forge a second line or
 * steer a terminal. errno is left as it was. Logging is no cancellation point, whatever the sink does.
 *
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
