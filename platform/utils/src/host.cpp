#include "korvo/utils/host.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <memory>

#include "descriptor.h"

namespace korvo::utils {
namespace {

bool isNumericAddress(const std::string& name) {
    unsigned char address[sizeof(in6_addr)];
    return ::inet_pton(AF_INET, name.c_str(), address) == 1 ||
           ::inet_pton(AF_INET6, name.c_str(), address) == 1;
}

std::string firstAddress(const std::string& name, int family) {
    addrinfo hints{};
    hints.ai_family = family;
    hints.ai_socktype = SOCK_STREAM;  // one entry per address instead of one per socket type
    addrinfo* found = nullptr;
    const CancellationShield shield;
    if (::getaddrinfo(name.c_str(), nullptr, &hints, &found) != 0) return {};
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(found, &::freeaddrinfo);
    char text[NI_MAXHOST];
    if (::getnameinfo(found->ai_addr, found->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST) != 0)
        return {};
    return text;
}

}  // namespace

std::string getHostByName(const std::string& name) {
    // The resolver reads up to the first zero byte, and would answer for a name that was not asked for.
    if (name.empty() || name.find('\0') != std::string::npos) return {};
    if (isNumericAddress(name)) return name;
    std::string address = firstAddress(name, AF_INET);
    if (address.empty()) address = firstAddress(name, AF_INET6);
    return address;
}

}  // namespace korvo::utils
