// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "sim/Simulation.h"

#include <linux/netlink.h>
#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <string>

namespace OrvLab {

/// What the kernel has, and how its messages say it: written anew after its headers, not after the programs' own code.
/// @{
struct KernelLink {
    unsigned index = 0;
    std::string name;
    bool up = true;
    bool carrier = true;
    bool pointToPoint = false;

    bool Running() const { return up && carrier; }
};

struct KernelAddress {
    unsigned link = 0;
    std::string text;
    unsigned length = 24;
    bool tentative = false;
    bool duplicate = false;
    bool deprecated = false;

    bool IsSix() const { return text.find(':') != std::string::npos; }
    /// Of the whole internet, or of one site.
    bool IsGlobal() const {
        return text.rfind("fe80:", 0) != 0 && text.rfind("169.254.", 0) != 0 && text != "::1" && text != "127.0.0.1";
    }
    bool operator==(const KernelAddress& other) const { return link == other.link && text == other.text; }
};

struct KernelRoute {
    int family = AF_INET;
    std::uint32_t table = 254;
    std::uint8_t protocol = 3;
    unsigned link = 0;
    bool unreachable = false;
    std::string destination{}; // empty: the default
    unsigned length = 0;
    std::string gateway{};
    std::string source{};
    std::uint32_t metric = 0;
    Time expires = NEVER;

    bool IsDefault() const { return length == 0; }
    bool SamePlace(const KernelRoute& other) const {
        return family == other.family && table == other.table && destination == other.destination &&
               length == other.length && metric == other.metric;
    }
    bool operator==(const KernelRoute& other) const {
        return SamePlace(other) && link == other.link && gateway == other.gateway && source == other.source &&
               protocol == other.protocol && unreachable == other.unreachable;
    }
    bool operator<(const KernelRoute& other) const { return Text() < other.Text(); }
    std::string Text() const;
};

struct KernelRule {
    int family = AF_INET;
    std::uint32_t priority = 0;
    std::uint32_t table = 0;
    std::uint8_t protocol = 0;
    std::string interface {};
    std::string source{};
    unsigned length = 0;

    bool operator==(const KernelRule& other) const { return Text() == other.Text(); }
    bool operator<(const KernelRule& other) const { return Text() < other.Text(); }
    std::string Text() const;
};

std::string MessageOf(const KernelLink& link, bool gone);
std::string MessageOf(const KernelAddress& address, bool gone);
std::string MessageOf(const KernelRoute& route, bool gone, Time now);
std::string MessageOf(const KernelRule& rule, bool gone);
/// NLMSG_DONE, or NLMSG_ERROR with this number.
std::string EndOf();
std::string VerdictOf(int error);
nlmsghdr& HeaderOf(std::string& message);

std::optional<KernelRoute> RouteOf(const nlmsghdr& message);
std::optional<KernelRule> RuleOf(const nlmsghdr& message);
/// @}

} // namespace OrvLab
