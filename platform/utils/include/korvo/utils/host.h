/**
 * @file
 * Host name resolution.
 */
#pragma once

#include <string>

#include "korvo/utils/export.h"

namespace korvo::utils {

/**
 * The address of host @p name as text: an IPv4 address where the host has one, else an IPv6 address; the
 * first that the resolver names. A numeric address is returned as it is. The empty text means that the name
 * cannot be resolved.
 *
 * Waits for the name service, however long that takes. May be called from any thread.
 */
KORVO_UTILS_EXPORT std::string getHostByName(const std::string& name);

}  // namespace korvo::utils
