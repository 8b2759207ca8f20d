#include "output.h"

#include <unistd.h>

#include <cstdio>

#include "configuration.h"
#include "korvo/logger/logger.h"
#include "korvo/utils/text.h"

namespace korvoctl {

void printLines(const std::string& lines) {
    if (::isatty(STDOUT_FILENO) == 0) {
        std::fwrite(lines.data(), 1, lines.size(), stdout);
        return;
    }
    for (std::size_t begin = 0; begin < lines.size();) {
        const std::size_t end = lines.find('\n', begin);
        printLine(lines.substr(begin, end - begin));
        begin = end + 1;
    }
}

void printLine(const std::string& text) {
    std::string line = text;
    korvo::utils::replaceAll(line, "\\", "\\\\");  // so that the reader can tell what has been escaped
    std::puts(korvo::logger::escaped(line).c_str());
}

void printRecord(korvo::variant::Variant record, bool asJson) {
    record.IsArray(false);
    if (asJson) return printJson(record);
    for (const auto& [key, value] : valuesOf(record)) printLine(std::string(key).append("=").append(value));
}

}  // namespace korvoctl
