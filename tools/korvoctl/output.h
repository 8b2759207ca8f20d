/** @file How korvoctl prints its results. */
#pragma once

#include <string>

#include "korvo/variant/variant.h"

namespace korvoctl {

/** The process's exit status. */
enum ExitStatus { Done = 0, Failed = 1, WrongUsage = 2 };

/** Prints a message to standard error; returns Failed. */
ExitStatus failed(const std::string& message);

/** Prints a message that tells where to read on to standard error; returns WrongUsage. */
ExitStatus wrongUsage(const std::string& message);

/**
 * @p text as it can stand on one line: a backslash is written `\\`, a control character `\n`, `\r`, `\t` or
 * `\xNN`.
 */
std::string onOneLine(const std::string& text);

/**
 * Prints a record to standard output, one `key=value` line for each member, sorted by key; members of members
 * under dotted keys. An empty map has no line.
 */
void printRecord(const korvo::variant::Variant& record);

/** Prints one line to standard output. */
void printLine(const std::string& text);

}  // namespace korvoctl
