/** @file How korvoctl prints its results to standard output. */
#pragma once

#include <string>

#include "korvo/variant/variant.h"

namespace korvoctl {

/** Prints lines of a configuration: to a terminal escaped, to a file or a pipe byte for byte. */
void printLines(const std::string& lines);

/** Prints one line escaped, with each backslash doubled, wherever it goes. */
void printLine(const std::string& text);

/** Prints a value as JSON. */
void printJson(const korvo::variant::Variant& value);

/**
 * Prints a record as JSON, or one `key=value` line for each member, sorted by key and escaped like a line;
 * members of members under dotted keys. An empty map has no line. A null record is an empty one.
 */
void printRecord(korvo::variant::Variant record, bool asJson);

}  // namespace korvoctl
