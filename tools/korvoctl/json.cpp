#include "json.h"

#include <cmath>
#include <cstdio>

#include "text.h"

namespace korvoctl {
namespace {

using korvo::variant::Variant;
using korvo::variant::VariantType;

void appendText(std::string& out, std::string_view text) {
    out += '"';
    while (!text.empty()) {
        char32_t code = 0;
        const std::size_t length = utf8Character(text, code);
        if (length == 0) {
            out += "\xef\xbf\xbd";  // U+FFFD
        } else if (isControl(code)) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(code));
            out += escape;
        } else {
            if (code == '"' || code == '\\') out += '\\';
            out += text.substr(0, length);
        }
        text.remove_prefix(length != 0 ? length : 1);
    }
    out += '"';
}

/** Nests no deeper than key=value text may. */
void append(std::string& out, const Variant& value, std::size_t level) {
    const VariantType type = value;
    if (type == korvo::variant::TypeMap || type == korvo::variant::TypeArray) {
        const std::string indent(2 * level + 2, ' ');
        const char* separator = "{\n";
        const auto appendMember = [&](std::string_view key, const Variant& member) {
            out.append(separator).append(indent);
            appendText(out, key);
            out += ": ";
            append(out, member, level + 1);
            separator = ",\n";
        };
        for (auto member = value.num_begin(); member != value.num_end(); ++member)
            appendMember(std::to_string(member->first), member->second);
        for (const auto& member : value) appendMember(member.first, member.second);
        if (*separator == '{') {
            out += "{}";
        } else {
            out.append("\n").append(indent, 2).append("}");
        }
    } else if (type == korvo::variant::TypeString) {
        appendText(out, static_cast<const std::string&>(value));
    } else if (type == korvo::variant::TypeBool) {
        out += static_cast<bool>(value) ? "true" : "false";
    } else if (type == korvo::variant::TypeNull || !std::isfinite(static_cast<double>(value))) {
        out += "null";
    } else {
        out += scalarText(value);
    }
}

}  // namespace

std::string scalarText(const Variant& value) {
    Variant line;
    line[""] = value;
    std::string text;
    (void)line.ToKVP(text, "", "");
    return text;
}

std::string json(const Variant& value) {
    std::string text;
    append(text, value, 0);
    return text += '\n';
}

}  // namespace korvoctl
