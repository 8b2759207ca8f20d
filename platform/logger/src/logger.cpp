#include "korvo/logger/logger.h"

#include <pthread.h>
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

/** While one exists, its thread cannot be cancelled: a caller that logs a failure still has to clean up. */
class CancellationShield {
  public:
    CancellationShield() { (void)::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before); }
    CancellationShield(const CancellationShield&) = delete;
    CancellationShield& operator=(const CancellationShield&) = delete;
    ~CancellationShield() { (void)::pthread_setcancelstate(before, nullptr); }

  private:
    int before = PTHREAD_CANCEL_ENABLE;
};

const char* levelName(int level) {
    static const char names[][8] = {"emerg", "alert", "crit", "error", "warning", "notice", "info", "debug"};
    return level >= 0 && level < 8 ? names[level] : "unknown";
}

std::string formatMessage(const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (length < 0) return escaped(format);  // an argument that cannot be formatted must not hide the message
    std::string message(static_cast<std::size_t>(length), '\0');
    (void)std::vsnprintf(message.data(), message.size() + 1, format, arguments);
    return escaped(message.c_str());
}

}  // namespace

Sink setSink(Sink sink) { return currentSink.exchange(sink != nullptr ? sink : standardErrorSink); }

void standardErrorSink(const Record& record) {
    char line[16], error[32] = "";
    (void)std::snprintf(line, sizeof line, ":%d ", record.line);
    if (record.errorCode != 0) (void)std::snprintf(error, sizeof error, " (error %d)", record.errorCode);
    std::string text = levelName(record.level);
    text.append(" ").append(record.module).append(" ").append(record.sourceFile).append(line);
    text.append(record.function).append(": ").append(record.message).append(error).append("\n");
    // One write, not a stream, so lines of several threads and processes do not mix.
    (void)!::write(STDERR_FILENO, text.data(), text.size());
}

void syslogSink(const Record& record) {
    ::syslog(record.level & LOG_PRIMASK, "%s %s:%d %s: %s (error %d)", record.module, record.sourceFile,
             record.line, record.function, record.message, record.errorCode);
}

}  // namespace korvo::logger

void logInternal(const char* module, const char* sourceFile, const char* function, int line, int level,
                 int errorCode, int /*reserved*/, const char* format, ...) {
    const int savedErrno = errno;
    const korvo::logger::CancellationShield shield;
    va_list arguments;
    va_start(arguments, format);
    const std::string message = korvo::logger::formatMessage(format, arguments);
    va_end(arguments);
    korvo::logger::currentSink.load()(
        {module, sourceFile, function, line, level, errorCode, message.c_str()});
    errno = savedErrno;
}
