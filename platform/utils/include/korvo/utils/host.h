/**
 * @file
 * Host name resolution.
 */
#pragma once

#include <string>

#include "korvo/utils/export.h"

namespace korvo::utils {

/**
 * The address of host @p name as text: its first IPv4 address, or else its first IPv6 address; empty if the
 * name cannot be resolved. An IPv4 address of four decimal numbers and an IPv6 address without a zone are
 * returned unchanged. Other numeric forms are the C library's affair; most take 127.1 for 127.0.0.1.
 *
 * Waits for the name service, however long that takes; no cancellation point. Call it from any thread with 14
 * KB of stack to spare for the C library's resolver. The resolver's sockets are its own: in a host that has
 * closed its standard streams, one may have the number of such a stream.
 */
[[nodiscard]] KORVO_UTILS_EXPORT std::string getHostByName(const std::string& name);

}  // namespace korvo::utils
