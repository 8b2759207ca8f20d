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
    LogCapture() {
        lines().clear();
        previous = korvo::logger::setSink(collect);
    }
    ~LogCapture() { korvo::logger::setSink(previous); }

    /** What was logged since the last call. */
    std::vector<LogLine> take() {
        const std::lock_guard<std::mutex> guard(lock());
        return std::exchange(lines(), {});
    }

    /** The messages alone. */
    std::vector<std::string> takeMessages() {
        std::vector<std::string> messages;
        for (const LogLine& line : take()) messages.push_back(line.message);
        return messages;
    }

  private:
    static void collect(const korvo::logger::Record& record) {
        const std::lock_guard<std::mutex> guard(lock());
        lines().push_back(
            {record.sourceFile, record.function, record.level, record.errorCode, record.message});
    }
    static std::mutex& lock() {
        static std::mutex mutex;
        return mutex;
    }
    static std::vector<LogLine>& lines() {
        static std::vector<LogLine> collected;
        return collected;
    }

    korvo::logger::Sink previous;
};

}  // namespace test
