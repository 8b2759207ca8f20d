/** @file Collects what is logged while an object lives, only one at a time. */
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "korvo/logger/logger.h"

namespace test {

struct LogLine {
    std::string sourceFile, function, message;
    int level, errorCode;
};

class LogCapture {
  public:
    LogCapture() {
        korvo::logger::setSink([](const korvo::logger::Record& line) {
            lines.push_back({line.sourceFile, line.function, line.message, line.level, line.errorCode});
        });
    }
    ~LogCapture() { (void)take(), korvo::logger::setSink(nullptr); }

    /** What was logged since the last call. */
    std::vector<LogLine> take() { return std::exchange(lines, {}); }

    /** The messages alone, with "|" between them. */
    std::string messages() {
        std::string text;
        for (const LogLine& line : take()) text += (text.empty() ? "" : "|") + line.message;
        return text;
    }

  private:
    static inline std::vector<LogLine> lines;
};

}  // namespace test
