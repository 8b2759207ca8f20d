#include "korvo/logger/logger.h"

#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>

namespace korvo::logger {
namespace {

std::atomic<Sink> currentSink{standardErrorSink};

/** The length of the UTF-8 sequence that a zero-terminated text begins with; 0 when it begins with none. */
std::size_t sequenceLength(const char* text) {
    const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const unsigned first = byte(0);
    if (first < 0x80) return 1;
    const std::size_t length = first < 0xc2 ? 0 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : first < 0xf5 ? 4 : 0;
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0) != 0x80) return 0;
    }
    // Forms longer than needed, surrogates, and what lies beyond the last code point.
    const unsigned second = length > 2 ? byte(1) : 0;
    const bool invalid = (first == 0xe0 && second < 0xa0) || (first == 0xed && second > 0x9f) ||
                         (first == 0xf0 && second < 0x90) || (first == 0xf4 && second > 0x8f);
    return invalid ? 0 : length;
}

/**
 * Whether the sequence that @p text begins with, or the byte where it begins with none, is a control
 * character.
 */
bool isControl(const char* text, std::size_t length) {
    const auto byte = static_cast<unsigned char>(*text);
    if (length == 0) return byte < 0xa0;
    if (length == 1) return byte < 0x20 || byte == 0x7f;
    return byte == 0xc2 && static_cast<unsigned char>(text[1]) < 0xa0;
}

void appendEscaped(std::string& line, char character) {
    static const char hex[] = "0123456789abcdef";
    const auto byte = static_cast<unsigned char>(character);
    const char letter = character == '\n' ? 'n' : character == '\r' ? 'r' : character == '\t' ? 't' : 'x';
    line += {'\\', letter};
    if (letter == 'x') line += {hex[byte >> 4], hex[byte & 0xf]};
}

/**
 * Writes control characters visibly, those of terminals above 127 too; other bytes that are no UTF-8 stay.
 */
std::string escapeControls(const char* text) {
    std::string escaped;
    while (*text != '\0') {
        const std::size_t length = sequenceLength(text);
        const bool control = isControl(text, length);
        for (const char* end = text + std::max<std::size_t>(length, 1); text != end; ++text) {
            if (control) {
                appendEscaped(escaped, *text);
            } else {
                escaped += *text;
            }
        }
    }
    return escaped;
}

/** Writes while the thread cannot be cancelled: who logs a failure still has to clean up. */
template <class Write>
void notCancelled(Write write) {
    int before = PTHREAD_CANCEL_ENABLE;
    (void)::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
    write();
    (void)::pthread_setcancelstate(before, nullptr);
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

Sink setSink(Sink sink) { return currentSink.exchange(sink != nullptr ? sink : standardErrorSink); }

void standardErrorSink(const Record& record) {
    std::string line = std::string(levelName(record.level)) + ' ' + record.module + ' ' + record.sourceFile +
                       ':' + std::to_string(record.line) + ' ' + record.function + ": " + record.message;
    if (record.errorCode != 0) line += " (error " + std::to_string(record.errorCode) + ')';
    line += '\n';
    // One write, not a stream: lines of several threads and processes must not mix. A line that cannot be
    // written has nowhere else to go.
    notCancelled([&] { (void)!::write(STDERR_FILENO, line.data(), line.size()); });
}

void syslogSink(const Record& record) {
    notCancelled([&] {
        ::syslog(record.level & LOG_PRIMASK, "%s %s:%d %s: %s (error %d)", record.module, record.sourceFile,
                 record.line, record.function, record.message, record.errorCode);
    });
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
