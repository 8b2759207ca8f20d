/** @file Collects what is logged while an object lives. */
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "korvo/logger/logger.h"

namespace test {

struct LogLine {
    std::string sourceFile;
    std::string function;
    int level;
    int errorCode;
    std::string message;
};

/** One at a time; may be logged to from several threads. */
class LogCapture {
  public:
    LogCapture() : previous(korvo::logger::setSink(collect)) { lines.clear(); }
    ~LogCapture() { korvo::logger::setSink(previous); }

    /** What was logged since the last call. */
    std::vector<LogLine> take() {
        const std::lock_guard<std::mutex> guard(mutex);
        return std::exchange(lines, {});
    }

    /** The messages alone. */
    std::vector<std::string> takeMessages() {
        std::vector<std::string> messages;
        for (const LogLine& line : take()) messages.push_back(line.message);
        return messages;
    }

  private:
    static void collect(const korvo::logger::Record& line) {
        const std::lock_guard<std::mutex> guard(mutex);
        lines.push_back({line.sourceFile, line.function, line.level, line.errorCode, line.message});
    }

    static inline std::mutex mutex;
    static inline std::vector<LogLine> lines;
    korvo::logger::Sink previous;
};

}  // namespace test
