#include "output.h"

#include <unistd.h>

#include <cstdio>
#include <map>

#include "json.h"
#include "korvo/logger/logger.h"
#include "korvo/utils/text.h"

namespace korvoctl {
namespace {

using korvo::variant::Variant;
using korvo::variant::VariantType;

/** A text escaped, and with a doubled backslash, so that the reader can tell what has been escaped. */
std::string onOneLine(std::string text) {
    korvo::utils::replaceAll(text, "\\", "\\\\");
    return korvo::logger::escaped(text);
}

/** Nests no deeper than key=value text may, of which all maps are made: none has indices. */
void flatten(const Variant& value, const std::string& key, std::map<std::string, std::string>& lines) {
    const VariantType type = value;
    if (type == korvo::variant::TypeMap) {
        const std::string prefix = key.empty() ? key : key + '.';
        for (const auto& member : value)
            flatten(member.second, prefix + onOneLine(std::string(member.first)), lines);
    } else if (type == korvo::variant::TypeString) {
        lines[key] = onOneLine(static_cast<const std::string&>(value));
    } else {
        lines[key] = scalarText(value);
    }
}

}  // namespace

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

void printLine(const std::string& text) { std::printf("%s\n", onOneLine(text).c_str()); }

void printJson(const Variant& value) { std::fputs(json(value).c_str(), stdout); }

void printRecord(Variant record, bool asJson) {
    record.IsArray(false);
    if (asJson) return printJson(record);
    std::map<std::string, std::string> lines;
    flatten(record, "", lines);
    for (const auto& [key, value] : lines) std::printf("%s=%s\n", key.c_str(), value.c_str());
}

}  // namespace korvoctl
