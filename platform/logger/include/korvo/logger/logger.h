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
    const char* message;     ///< one line of text without control characters
};

/**
 * Where messages go. A sink is called by the thread that logs, so it may be called from several threads at
 * once; it must neither log nor throw.
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

}  // namespace korvo::logger

/**
 * Logs one message.
 *
 * The message is formatted as printf does. Control characters in it, whichever argument they come from, are
 * written as `\n`, `\t`, `\xNN` and the like, so that nothing logged can pass for a second line or steer a
 * terminal. U+0080 to U+009F and single bytes of that range are control characters too; the same bytes within
 * another UTF-8 character are not. errno is left as it was, and the ready-made sinks are no cancellation
 * points.
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
