/** @file Values as JSON. */
#pragma once

#include <string>

#include "korvo/variant/variant.h"

namespace korvoctl {

/** A number or a boolean as key=value text has it. For numbers, JSON has the same. */
std::string scalarText(const korvo::variant::Variant& value);

/**
 * A value as JSON, an object for a map with its members in the order of their keys, on lines of their own.
 *
 * It is valid whatever bytes the texts hold: what is no UTF-8 becomes U+FFFD, and control characters are
 * escaped. Numbers that JSON does not know, infinity and NaN, become null.
 */
std::string json(const korvo::variant::Variant& value);

}  // namespace korvoctl
