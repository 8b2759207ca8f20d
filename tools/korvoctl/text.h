/** @file Bytes of any origin as text that a terminal or a JSON reader can be given. */
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace korvoctl {

/**
 * The length of the UTF-8 character at the beginning of @p text, whose code point @p code receives; 0 where
 * the bytes are none.
 */
std::size_t utf8Character(std::string_view text, char32_t& code);

/** Whether a terminal may take a character for a command: the ASCII controls and U+0080 to U+009F. */
bool isControl(char32_t code);

/**
 * @p text as it can stand on one line of a terminal: a backslash is written `\\`, a control character `\n`,
 * `\r`, `\t` or as `\xNN` for each of its bytes, and so is every byte that belongs to no UTF-8 character.
 */
std::string onOneLine(std::string_view text);

/** The same for a message: a backslash stays, since what the libraries tell has been escaped once already. */
std::string messageOnOneLine(std::string_view text);

}  // namespace korvoctl
