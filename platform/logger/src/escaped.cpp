#include <cstdio>

#include "korvo/logger/logger.h"

namespace korvo::logger {

std::size_t utf8Character(std::string_view text, char32_t& code) {
    const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const unsigned char first = byte(0);
    code = first;
    if (first < 0x80) return 1;
    const std::size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc2 || first > 0xf4 || text.size() < length) return 0;
    code = first & (0x7fU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0U) != 0x80) return 0;
        code = code << 6 | (byte(i) & 0x3fU);
    }
    const bool overlong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
    const bool surrogate = code >= 0xd800 && code < 0xe000;
    return overlong || surrogate || code > 0x10ffff ? 0 : length;
}

bool isControl(char32_t code) { return code < 0x20 || (code >= 0x7f && code < 0xa0); }

std::string escaped(std::string_view text) {
    std::string line;
    while (!text.empty()) {
        char32_t code = 0;
        const std::size_t length = utf8Character(text, code);
        const char first = text[0];
        const std::string_view character = text.substr(0, length != 0 ? length : 1);
        text.remove_prefix(character.size());
        if (length != 0 && !isControl(code)) {
            line += character;
        } else if (first == '\n') {
            line += "\\n";
        } else if (first == '\r') {
            line += "\\r";
        } else if (first == '\t') {
            line += "\\t";
        } else {
            for (const char byte : character) {
                char hex[5];
                (void)std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(byte));
                line += hex;
            }
        }
    }
    return line;
}

}  // namespace korvo::logger
