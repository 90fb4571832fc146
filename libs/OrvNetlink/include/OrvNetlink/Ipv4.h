// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace OrvNetlink {

/// An IPv4 address. 0.0.0.0 is "none".
struct Ipv4 {
    /// As the kernel's messages carry it.
    std::uint32_t networkOrder = 0;

    explicit operator bool() const { return networkOrder != 0; }
    bool operator==(const Ipv4& other) const { return networkOrder == other.networkOrder; }
    bool operator!=(const Ipv4& other) const { return !(*this == other); }

    std::string Text() const;
    /// The network that this address and a prefix of `length` bits (at most 32) stand for.
    Ipv4 Network(unsigned length) const;
    static std::optional<Ipv4> Parse(const std::string& text);
};

} // namespace OrvNetlink
