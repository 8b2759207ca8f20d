/** @file How korvoctl prints its results to standard output. */
#pragma once

#include <string>

#include "korvo/variant/variant.h"

namespace korvoctl {

/**
 * Prints lines of a configuration: to a terminal as onOneLine() has them, to a file or a pipe byte for byte.
 */
void printLines(const std::string& lines);

/** Prints one line as onOneLine() has it, wherever it goes. */
void printLine(const std::string& text);

/** Prints a value as JSON. */
void printJson(const korvo::variant::Variant& value);

/**
 * Prints a record as JSON, or one `key=value` line for each member, sorted by key, as onOneLine() has it;
 * members of members under dotted keys. An empty map has no line. A null record is an empty one.
 */
void printRecord(const korvo::variant::Variant& record, bool asJson);

}  // namespace korvoctl
