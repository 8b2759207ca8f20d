#include "output.h"

#include <cstdio>
#include <map>

namespace korvoctl {
namespace {

using korvo::variant::Variant;
using korvo::variant::VariantType;

/** A number or a boolean as it is written in key=value text. */
std::string scalarText(const Variant& value) {
    Variant line;
    line[""] = value;
    std::string text;
    (void)line.ToKVP(text, "", "");
    return text;
}

/** Records are a few levels deep at most: no input of this program nests deeper than key=value text may. */
void flatten(const Variant& value, const std::string& key, std::map<std::string, std::string>& lines) {
    const VariantType type = value;
    if (type == korvo::variant::TypeMap || type == korvo::variant::TypeArray) {
        const std::string prefix = key.empty() ? key : key + '.';
        for (const auto& member : value)
            flatten(member.second, prefix + onOneLine(std::string(member.first)), lines);
        for (auto member = value.num_begin(); member != value.num_end(); ++member) {
            flatten(member->second, prefix + std::to_string(member->first), lines);
        }
    } else if (type == korvo::variant::TypeString) {
        lines[key] = onOneLine(value);
    } else {
        lines[key] = scalarText(value);
    }
}

}  // namespace

ExitStatus failed(const std::string& message) {
    std::fprintf(stderr, "korvoctl: %s\n", onOneLine(message).c_str());
    return Failed;
}

ExitStatus wrongUsage(const std::string& message) {
    (void)failed(message);
    std::fprintf(stderr, "Try 'korvoctl --help'.\n");
    return WrongUsage;
}

std::string onOneLine(const std::string& text) {
    static const char hex[] = "0123456789abcdef";
    std::string line;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (character == '\\') {
            line += "\\\\";
        } else if (character == '\n') {
            line += "\\n";
        } else if (character == '\r') {
            line += "\\r";
        } else if (character == '\t') {
            line += "\\t";
        } else if (byte < 0x20 || byte == 0x7f) {
            line += {'\\', 'x', hex[byte >> 4], hex[byte & 0xf]};
        } else {
            line += character;
        }
    }
    return line;
}

void printRecord(const Variant& record) {
    std::map<std::string, std::string> lines;
    if (static_cast<VariantType>(record) != korvo::variant::TypeNull) flatten(record, "", lines);
    for (const auto& [key, value] : lines) std::printf("%s=%s\n", key.c_str(), value.c_str());
}

void printLine(const std::string& text) {
    std::printf("%s\n", onOneLine(text).c_str());
}

}  // namespace korvoctl
