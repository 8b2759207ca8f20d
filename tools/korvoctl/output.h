/** @file How korvoctl prints its results to standard output. */
#pragma once

#include <string>

#include "korvo/variant/variant.h"

namespace korvoctl {

/** Prints lines of a configuration: to a terminal escaped, to a file or a pipe byte for byte. */
void printLines(const std::string& lines);

/** Prints one line escaped, with each backslash doubled, wherever it goes. */
void printLine(const std::string& text);

/**
 * Prints a value as JSON, a map as an object with a line for each member, in the order of their keys.
 *
 * It is valid whatever bytes the texts hold: what is not UTF-8 becomes U+FFFD, and control characters are
 * escaped. Numbers that JSON does not know, infinity and NaN, become null.
 * @throw std::runtime_error  where two keys of a map would look the same; nothing is printed then
 */
void printJson(const korvo::variant::Variant& value);

/**
 * Prints a record as JSON, or one `key=value` line for each value, sorted by key and escaped like a line;
 * members of members under dotted keys. A null record is an empty one.
 */
void printRecord(korvo::variant::Variant record, bool asJson);

}  // namespace korvoctl
