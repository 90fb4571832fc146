// SPDX-License-Identifier: Apache-2.0
#include "OrvNetlink/IpAddress.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

namespace OrvNetlink {

namespace {

constexpr std::array<std::uint8_t, 12> MAPPED = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

} // namespace

bool IpAddress::IsIpv4() const {
    return std::equal(MAPPED.begin(), MAPPED.end(), bytes.begin());
}

std::uint8_t IpAddress::Family() const {
    if (!*this)
        return AF_UNSPEC;
    return IsIpv4() ? AF_INET : AF_INET6;
}

unsigned IpAddress::Bits() const {
    return IsIpv4() ? 32 : 128;
}

std::string IpAddress::Text() const {
    char text[INET6_ADDRSTRLEN] = "0.0.0.0";
    if (IsIpv4())
        inet_ntop(AF_INET, &bytes[MAPPED.size()], text, sizeof(text));
    else if (*this)
        inet_ntop(AF_INET6, bytes.data(), text, sizeof(text));
    return text;
}

IpAddress IpAddress::Network(unsigned length) const {
    const bool four = IsIpv4();
    const std::size_t first = four ? MAPPED.size() : 0;
    IpAddress network = *this;
    for (std::size_t i = first; i < bytes.size(); ++i) {
        const std::size_t before = (i - first) * 8;
        const unsigned kept = length <= before ? 0 : std::min<unsigned>(8, length - static_cast<unsigned>(before));
        network.bytes[i] &= static_cast<std::uint8_t>(0xff00U >> kept);
    }
    return four ? Of(AF_INET, &network.bytes[first]) : network;
}

bool IpAddress::IsLinkLocal() const {
    return IsIpv4() ? bytes[12] == 169 && bytes[13] == 254 : bytes[0] == 0xfe && (bytes[1] & 0xc0) == 0x80;
}

bool IpAddress::IsUniqueLocal() const {
    return (bytes[0] & 0xfe) == 0xfc;
}

IpAddress IpAddress::Of(std::uint8_t family, const void* address) {
    IpAddress result;
    if (family == AF_INET6) {
        std::memcpy(result.bytes.data(), address, result.bytes.size());
        return result;
    }
    std::memcpy(&result.bytes[MAPPED.size()], address, 4);
    if (result)
        std::copy(MAPPED.begin(), MAPPED.end(), result.bytes.begin());
    return result;
}

std::optional<IpAddress> IpAddress::Parse(const std::string& text) {
    std::uint8_t room[16];
    for (const std::uint8_t family : {std::uint8_t{AF_INET}, std::uint8_t{AF_INET6}}) {
        if (inet_pton(family, text.c_str(), room) == 1)
            return Of(family, room);
    }
    return std::nullopt;
}

} // namespace OrvNetlink
