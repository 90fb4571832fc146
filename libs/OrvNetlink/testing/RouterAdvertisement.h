// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>

namespace PrivateNetwork {

/// What a router tells the hosts on its link.
struct RouterAdvertisement {
    /// Seconds for which it is a default router; 0: it is none.
    std::uint16_t lifetime = 600;
    /// Of 64 bits; empty for none.
    std::string prefix{};
    /// Seconds for which the hosts may have addresses of the prefix, and use them for new connections.
    std::uint32_t valid = 7200, preferred = 3600;
};

/// Sends it to the hosts at the other end of the interface.
/// @return false when that was not possible
inline bool Advertise(const std::string& interface, const RouterAdvertisement& advertisement) {
    struct {
        nd_router_advert router{};
        nd_opt_prefix_info prefix{};
    } packet;
    packet.router.nd_ra_type = ND_ROUTER_ADVERT;
    packet.router.nd_ra_router_lifetime = htons(advertisement.lifetime);
    packet.prefix.nd_opt_pi_type = ND_OPT_PREFIX_INFORMATION;
    packet.prefix.nd_opt_pi_len = sizeof(packet.prefix) / 8;
    packet.prefix.nd_opt_pi_prefix_len = 64;
    packet.prefix.nd_opt_pi_flags_reserved = ND_OPT_PI_FLAG_ONLINK | ND_OPT_PI_FLAG_AUTO;
    packet.prefix.nd_opt_pi_valid_time = htonl(advertisement.valid);
    packet.prefix.nd_opt_pi_preferred_time = htonl(advertisement.preferred);
    inet_pton(AF_INET6, advertisement.prefix.c_str(), &packet.prefix.nd_opt_pi_prefix);

    sockaddr_in6 allHosts{};
    allHosts.sin6_family = AF_INET6;
    inet_pton(AF_INET6, "ff02::1", &allHosts.sin6_addr);
    allHosts.sin6_scope_id = if_nametoindex(interface.c_str());
    const int hops = 255; // any other number is not believed
    const int socket = ::socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6);
    if (socket < 0)
        return false;
    const std::size_t size = sizeof(packet.router) + (advertisement.prefix.empty() ? 0 : sizeof(packet.prefix));
    const bool sent = setsockopt(socket, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &hops, sizeof(hops)) == 0 &&
                      sendto(socket, &packet, size, 0, reinterpret_cast<const sockaddr*>(&allHosts),
                             sizeof(allHosts)) == static_cast<ssize_t>(size);
    close(socket);
    return sent;
}

} // namespace PrivateNetwork
