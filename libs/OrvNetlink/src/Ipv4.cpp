// SPDX-License-Identifier: Apache-2.0
#include "OrvNetlink/Ipv4.h"

#include <arpa/inet.h>

namespace OrvNetlink {

std::string Ipv4::Text() const {
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &networkOrder, text, sizeof(text));
    return text;
}

Ipv4 Ipv4::Network(unsigned length) const {
    const std::uint32_t mask = length == 0 ? 0 : ~std::uint32_t{0} << (32 - length);
    return Ipv4{networkOrder & htonl(mask)};
}

std::optional<Ipv4> Ipv4::Parse(const std::string& text) {
    Ipv4 address;
    if (inet_pton(AF_INET, text.c_str(), &address.networkOrder) != 1)
        return std::nullopt;
    return address;
}

} // namespace OrvNetlink
