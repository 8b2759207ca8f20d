/**
 * @file
 * Text helpers. They work on bytes and treat only ASCII specially, so the locale changes nothing. They keep
 * no state and may be called from any thread.
 */
#pragma once

#include <string>
#include <vector>

#include "korvo/utils/export.h"

namespace korvo::utils {

/**
 * Appends the pieces of @p text between occurrences of @p separator to @p pieces, in order, empty ones
 * included: n separators give n + 1 pieces. An empty text gives none; an empty separator, the whole text.
 */
KORVO_UTILS_EXPORT void split(const std::string& text, const std::string& separator,
                              std::vector<std::string>& pieces);

/** Removes ASCII white space at both ends: blank, tab, line and form feed, vertical tab, carriage return. */
KORVO_UTILS_EXPORT void trim(std::string& text);

/**
 * Replaces every occurrence of @p search in @p text, from left to right, without searching the replacements.
 * An empty search text changes nothing.
 */
KORVO_UTILS_EXPORT void replaceAll(std::string& text, const std::string& search,
                                   const std::string& replacement);

/** A copy of @p text with the letters A to Z in lower case and every other byte unchanged. */
KORVO_UTILS_EXPORT std::string lowerCase(const std::string& text);

/** The text that printf would print, of any length; empty if the arguments cannot be formatted. */
KORVO_UTILS_EXPORT std::string format(const char* format, ...) __attribute__((format(printf, 1, 2)));

/**
 * strtod() as in the "C" locale, whatever locale the host has set.
 * @param text  a zero-terminated text
 * @param end  if not null, receives the first character that is not part of the number, or @p text if there
 *             is no number
 * @return the number; 0 if there is none, or it is too small (with GCC 11's standard library, any subnormal
 *         number); plus or minus infinity if it is too large
 */
KORVO_UTILS_EXPORT double toDouble(const char* text, const char** end = nullptr);

}  // namespace korvo::utils
