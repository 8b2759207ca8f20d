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
 * first that the resolver names. An IPv4 address of four decimal numbers and an IPv6 address without a zone
 * are returned as they are. Other numeric forms are left to the C library, which mostly takes 127.1 for
 * 127.0.0.1. The empty text means that the name cannot be resolved.
 *
 * Waits for the name service, however long that takes. May be called from any thread; the C library's
 * resolver takes up to 14 KB of its stack. No cancellation point: a thread that is cancelled meanwhile ends
 * after the answer. The resolver's sockets are the C library's own: in a host that has closed its standard
 * streams, one may have such a number while it is open.
 */
[[nodiscard]] KORVO_UTILS_EXPORT std::string getHostByName(const std::string& name);

}  // namespace korvo::utils
