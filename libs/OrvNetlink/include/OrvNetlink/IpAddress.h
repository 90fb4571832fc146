// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace OrvNetlink {

/// An address of either family. 0.0.0.0 and :: are "none", which belongs to neither.
struct IpAddress {
    /// IPv4 in the form ::ffff:a.b.c.d, in network order.
    std::array<std::uint8_t, 16> bytes{};

    explicit operator bool() const { return bytes != std::array<std::uint8_t, 16>{}; }
    bool operator==(const IpAddress& other) const { return bytes == other.bytes; }
    bool operator!=(const IpAddress& other) const { return !(*this == other); }

    bool IsIpv4() const;
    /// AF_INET, AF_INET6, or AF_UNSPEC for "none".
    std::uint8_t Family() const;
    /// How many bits an address of this one's family has: 32 or 128.
    unsigned Bits() const;
    std::string Text() const;
    /// The network that this address and a prefix of `length` bits (at most Bits()) stand for.
    IpAddress Network(unsigned length) const;
    /// 169.254.x.y or fe80::.
    bool IsLinkLocal() const;
    /// An IPv6 address that is valid on one site only (fc00::/7).
    bool IsUniqueLocal() const;

    /// @param address its bytes as the kernel's messages carry them, 4 of AF_INET or 16 of AF_INET6
    static IpAddress Of(std::uint8_t family, const void* address);
    static std::optional<IpAddress> Parse(const std::string& text);
};

} // namespace OrvNetlink
