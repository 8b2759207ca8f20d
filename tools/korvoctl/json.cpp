#include "json.h"

#include <cmath>
#include <cstdio>

#include "korvo/logger/logger.h"

namespace korvoctl {
namespace {

using korvo::variant::Variant;
using korvo::variant::VariantType;

void appendText(std::string& out, std::string_view text) {
    out += '"';
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
    out += '"';
}

/** Nests no deeper than key=value text may, of which all maps are made: none has indices. */
void append(std::string& out, const Variant& value, std::size_t level) {
    const VariantType type = value;
    if (type == korvo::variant::TypeMap) {
        const std::string indent(2 * level + 2, ' ');
        const char* separator = "{\n";
        for (const auto& member : value) {
            out.append(separator).append(indent);
            appendText(out, member.first);
            out += ": ";
            append(out, member.second, level + 1);
            separator = ",\n";
        }
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
    Variant named;
    named["value"] = value;
    std::string text;
    (void)named.ToKVP(text, "=", "");
    return text.substr(text.find('=') + 1);
}

std::string json(const Variant& value) {
    std::string text;
    append(text, value, 0);
    return text += '\n';
}

}  // namespace korvoctl
