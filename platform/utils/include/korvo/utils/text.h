/**
 * @file
 * Text helpers. All of them work on bytes and treat only ASCII specially, so they give the same result in
 * every locale. None keeps state; all may be called from any thread.
 */
#pragma once

#include <string>
#include <vector>

#include "korvo/utils/export.h"

namespace korvo::utils {

/**
 * Appends the pieces of @p text between occurrences of @p separator to @p pieces, in order, empty pieces
 * included: n separators give n + 1 pieces, and an empty text gives none. An empty separator gives the whole
 * text as one piece.
 */
KORVO_UTILS_EXPORT void split(const std::string& text, const std::string& separator,
                              std::vector<std::string>& pieces);

/**
 * Removes ASCII white space at both ends: blank, tab, line feed, vertical tab, form feed, carriage return.
 */
KORVO_UTILS_EXPORT void trim(std::string& text);

/**
 * Replaces every occurrence of @p search in @p text, from left to right; what a replacement brings in is not
 * searched again. An empty search text changes nothing.
 */
KORVO_UTILS_EXPORT void replaceAll(std::string& text, const std::string& search,
                                   const std::string& replacement);

/** A copy of @p text with the letters A to Z in lower case and every other byte as it was. */
KORVO_UTILS_EXPORT std::string lowerCase(const std::string& text);

/** The text that printf would print, of any length; empty when the arguments cannot be formatted. */
KORVO_UTILS_EXPORT std::string format(const char* format, ...) __attribute__((format(printf, 1, 2)));

/**
 * strtod() as it works in the "C" locale, whatever locale the host has set: the decimal point is always ".".
 * @param text  a zero-terminated text
 * @param end   when not null, receives the first character that is not part of the number; @p text when there
 *              is no number
 * @return the number; 0 when there is none, or when it is too small, which with the standard library of
 *         GCC 11 begins at the subnormal numbers; plus or minus infinity when it is too large
 */
KORVO_UTILS_EXPORT double toDouble(const char* text, const char** end = nullptr);

}  // namespace korvo::utils
