#include <cmath>
#include <cstdio>
#include <set>
#include <stdexcept>

#include "configuration.h"
#include "korvo/logger/logger.h"
#include "output.h"

namespace korvoctl {
namespace {

using korvo::variant::Variant;
using korvo::variant::VariantType;

std::string quoted(std::string_view text) {
    std::string out = "\"";
    while (!text.empty()) {
        char32_t code = 0;
        const std::size_t length = korvo::logger::utf8Character(text, code);
        if (length == 0) {
            out += "\xef\xbf\xbd";  // U+FFFD
        } else if (korvo::logger::isControl(code)) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(code));
            out += escape;
        } else {
            if (code == '"' || code == '\\') out += '\\';
            out += text.substr(0, length);
        }
        text.remove_prefix(length != 0 ? length : 1);
    }
    return out + '"';
}

std::string json(const Variant& value, const std::string& indent);

std::string object(const Variant& map, const std::string& indent) {
    std::string out;
    std::set<std::string> names;
    for (const auto& member : map) {
        const std::string name = quoted(member.first);
        // Such as two keys with different bytes that are not UTF-8.
        if (!names.insert(name).second) throw std::runtime_error("two keys are the same in JSON: " + name);
        out += out.empty() ? "{\n" : ",\n";
        out.append(indent).append("  ").append(name).append(": ").append(json(member.second, indent + "  "));
    }
    return out.empty() ? "{}" : out + '\n' + indent + '}';
}

/** All maps are made of key=value text: they have no indices and at most 64 levels. */
std::string json(const Variant& value, const std::string& indent) {
    const VariantType type = value;
    if (type == korvo::variant::TypeMap) return object(value, indent);
    if (type == korvo::variant::TypeString) return quoted(static_cast<const std::string&>(value));
    if (type == korvo::variant::TypeBool) return static_cast<bool>(value) ? "true" : "false";
    const bool isNumber = type != korvo::variant::TypeNull && std::isfinite(static_cast<double>(value));
    return isNumber ? textOf(value) : "null";
}

}  // namespace

void printJson(const Variant& value) { std::puts(json(value, "").c_str()); }

}  // namespace korvoctl
