#include "korvo/logger/logger.h"

#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>

namespace korvo::logger {
namespace {

std::atomic<Sink> currentSink{standardErrorSink};

/** Writes control characters visibly. Bytes of 128 and above stay: they belong to UTF-8 text. */
std::string escapeControls(const char* text) {
    static const char hex[] = "0123456789abcdef";
    std::string escaped;
    for (; *text != '\0'; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        if (byte >= 0x20 && byte != 0x7f) {
            escaped += *text;
        } else if (byte == '\n') {
            escaped += "\\n";
        } else if (byte == '\r') {
            escaped += "\\r";
        } else if (byte == '\t') {
            escaped += "\\t";
        } else {
            escaped += {'\\', 'x', hex[byte >> 4], hex[byte & 0xf]};
        }
    }
    return escaped;
}

const char* levelName(int level) {
    static const char* const names[] = {"emerg",   "alert",  "crit", "error",
                                        "warning", "notice", "info", "debug"};
    return level >= 0 && level < 8 ? names[level] : "unknown";
}

std::string formatMessage(const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    char small[256];
    const int length = std::vsnprintf(small, sizeof small, format, arguments);
    std::string message;
    if (length >= 0 && static_cast<std::size_t>(length) < sizeof small) {
        message = escapeControls(small);
    } else if (length >= 0) {
        std::string large(static_cast<std::size_t>(length) + 1, '\0');
        (void)std::vsnprintf(large.data(), large.size(), format, again);
        message = escapeControls(large.c_str());
    } else {
        message = escapeControls(format);  // an argument that cannot be formatted must not hide the message
    }
    va_end(again);
    return message;
}

}  // namespace

Sink setSink(Sink sink) {
    return currentSink.exchange(sink != nullptr ? sink : standardErrorSink);
}

void standardErrorSink(const Record& record) {
    std::string line = std::string(levelName(record.level)) + ' ' + record.module + ' ' + record.sourceFile +
                       ':' + std::to_string(record.line) + ' ' + record.function + ": " + record.message;
    if (record.errorCode != 0) line += " (error " + std::to_string(record.errorCode) + ')';
    line += '\n';
    // One write, not a stream: lines of several threads and processes must not mix. A line that cannot be
    // written has nowhere else to go.
    (void)!::write(STDERR_FILENO, line.data(), line.size());
}

void syslogSink(const Record& record) {
    ::syslog(record.level & LOG_PRIMASK, "%s %s:%d %s: %s (error %d)", record.module, record.sourceFile,
             record.line, record.function, record.message, record.errorCode);
}

}  // namespace korvo::logger

void logInternal(const char* module, const char* sourceFile, const char* function, int line, int level,
                 int errorCode, int /*reserved*/, const char* format, ...) {
    const int savedErrno = errno;
    va_list arguments;
    va_start(arguments, format);
    const std::string message = korvo::logger::formatMessage(format, arguments);
    va_end(arguments);
    korvo::logger::currentSink.load()(
        {module, sourceFile, function, line, level, errorCode, message.c_str()});
    errno = savedErrno;
}
