// SPDX-License-Identifier: Apache-2.0
#include "gateway/KernelMessages.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/fib_rules.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <array>
#include <cstring>

namespace OrvLab {

namespace {

constexpr unsigned CARRIER = 1U << 16U; // IFF_LOWER_UP
using Attributes = std::array<const nlattr*, 64>;

int FamilyOf(const std::string& text) {
    return text.find(':') != std::string::npos ? AF_INET6 : AF_INET;
}

/// A message in the making.
class Writer {
public:
    Writer(int type, bool gone) : message(*mnl_nlmsg_put_header(room)) {
        message.nlmsg_type = static_cast<std::uint16_t>(type + (gone ? 1 : 0));
    }
    template <typename Header>
    Header& Extra() {
        return *static_cast<Header*>(mnl_nlmsg_put_extra_header(&message, sizeof(Header)));
    }
    void Ip(unsigned short type, const std::string& text) {
        if (text.empty())
            return;
        unsigned char bytes[16] = {};
        inet_pton(FamilyOf(text), text.c_str(), bytes);
        mnl_attr_put(&message, type, FamilyOf(text) == AF_INET6 ? 16 : 4, bytes);
    }
    std::string Bytes() const { return {room, message.nlmsg_len}; }

    alignas(nlmsghdr) char room[1024] = {};
    nlmsghdr& message;
};

int Keep(const nlattr* attribute, void* data) {
    if (mnl_attr_get_type(attribute) < 64)
        (*static_cast<Attributes*>(data))[mnl_attr_get_type(attribute)] = attribute;
    return MNL_CB_OK;
}

std::string IpOf(const nlattr* attribute, int family) {
    char text[INET6_ADDRSTRLEN] = {};
    if (attribute != nullptr)
        inet_ntop(family, mnl_attr_get_payload(attribute), text, sizeof text);
    return text;
}

std::uint32_t NumberOf(const nlattr* attribute, std::uint32_t otherwise = 0) {
    return attribute != nullptr ? mnl_attr_get_u32(attribute) : otherwise;
}

} // namespace

std::string KernelRoute::Text() const {
    return (unreachable ? "unreachable " : "") +
           (IsDefault() ? "default" : destination + "/" + std::to_string(length)) +
           (family == AF_INET6 ? " of IPv6" : "") + (gateway.empty() ? "" : " via " + gateway) + " link " +
           std::to_string(link) + (source.empty() ? "" : " from " + source) + " metric " + std::to_string(metric) +
           " table " + std::to_string(table) + " by " + std::to_string(protocol);
}

std::string KernelRule::Text() const {
    return std::to_string(priority) + ": " + (family == AF_INET6 ? "IPv6 " : "") +
           (interface.empty() ? "from " + source + "/" + std::to_string(length) : "oif " + interface) + " table " +
           std::to_string(table) + " by " + std::to_string(protocol);
}

std::string MessageOf(const KernelLink& link, bool gone) {
    Writer writer(RTM_NEWLINK, gone);
    auto& header = writer.Extra<ifinfomsg>();
    header.ifi_index = static_cast<int>(link.index);
    header.ifi_flags = (link.up ? static_cast<unsigned>(IFF_UP) : 0U) | (link.up && link.carrier ? CARRIER : 0U) |
                       (link.pointToPoint ? static_cast<unsigned>(IFF_NOARP) : 0U);
    mnl_attr_put_strz(&writer.message, IFLA_IFNAME, link.name.c_str());
    return writer.Bytes();
}

std::string MessageOf(const KernelAddress& address, bool gone) {
    Writer writer(RTM_NEWADDR, gone);
    auto& header = writer.Extra<ifaddrmsg>();
    header.ifa_family = static_cast<std::uint8_t>(FamilyOf(address.text));
    header.ifa_prefixlen = static_cast<std::uint8_t>(address.length);
    header.ifa_scope = address.IsGlobal() ? RT_SCOPE_UNIVERSE : RT_SCOPE_LINK;
    header.ifa_index = address.link;
    writer.Ip(IFA_ADDRESS, address.text);
    if (!address.IsSix())
        writer.Ip(IFA_LOCAL, address.text);
    mnl_attr_put_u32(&writer.message, IFA_FLAGS,
                     (address.tentative ? IFA_F_TENTATIVE : 0U) | (address.duplicate ? IFA_F_DADFAILED : 0U) |
                         (address.deprecated ? IFA_F_DEPRECATED : 0U));
    return writer.Bytes();
}

std::string MessageOf(const KernelRoute& route, bool gone, Time now) {
    Writer writer(RTM_NEWROUTE, gone);
    auto& header = writer.Extra<rtmsg>();
    header.rtm_family = static_cast<unsigned char>(route.family);
    header.rtm_dst_len = static_cast<unsigned char>(route.length);
    header.rtm_table =
        route.table < 256 ? static_cast<unsigned char>(route.table) : static_cast<unsigned char>(RT_TABLE_COMPAT);
    header.rtm_protocol = route.protocol;
    header.rtm_type = route.unreachable ? RTN_UNREACHABLE : RTN_UNICAST;
    mnl_attr_put_u32(&writer.message, RTA_TABLE, route.table);
    mnl_attr_put_u32(&writer.message, RTA_OIF, route.unreachable ? 1 : route.link);
    writer.Ip(RTA_DST, route.destination);
    writer.Ip(RTA_GATEWAY, route.gateway);
    writer.Ip(RTA_PREFSRC, route.source);
    if (route.metric != 0)
        mnl_attr_put_u32(&writer.message, RTA_PRIORITY, route.metric);
    if (route.expires != NEVER) {
        rta_cacheinfo info{};
        constexpr Time tick = 10 * MILLISECOND;
        const Time left = route.expires - now;
        info.rta_expires = static_cast<__s32>(left > 0 ? (left + tick - 1) / tick : left / tick - 1);
        mnl_attr_put(&writer.message, RTA_CACHEINFO, sizeof info, &info);
    }
    return writer.Bytes();
}

std::string MessageOf(const KernelRule& rule, bool gone) {
    Writer writer(RTM_NEWRULE, gone);
    auto& header = writer.Extra<fib_rule_hdr>();
    header.family = static_cast<std::uint8_t>(rule.family);
    header.action = FR_ACT_TO_TBL;
    header.src_len = static_cast<std::uint8_t>(rule.length);
    header.table = rule.table < 256 ? static_cast<std::uint8_t>(rule.table) : std::uint8_t{RT_TABLE_COMPAT};
    mnl_attr_put_u32(&writer.message, FRA_TABLE, rule.table);
    mnl_attr_put_u32(&writer.message, FRA_PRIORITY, rule.priority);
    mnl_attr_put_u8(&writer.message, FRA_PROTOCOL, rule.protocol);
    if (!rule.interface.empty())
        mnl_attr_put_strz(&writer.message, FRA_OIFNAME, rule.interface.c_str());
    writer.Ip(FRA_SRC, rule.source);
    return writer.Bytes();
}

std::string EndOf() {
    Writer writer(NLMSG_DONE, false);
    writer.Extra<int>() = 0;
    return writer.Bytes();
}

std::string VerdictOf(int error) {
    Writer writer(NLMSG_ERROR, false);
    writer.Extra<nlmsgerr>().error = -error;
    return writer.Bytes();
}

nlmsghdr& HeaderOf(std::string& message) {
    return *static_cast<nlmsghdr*>(static_cast<void*>(message.data()));
}

std::optional<KernelRoute> RouteOf(const nlmsghdr& message) {
    const auto& header = *static_cast<const rtmsg*>(mnl_nlmsg_get_payload(&message));
    Attributes found{};
    mnl_attr_parse(&message, sizeof header, &Keep, &found);
    KernelRoute route;
    route.family = header.rtm_family;
    if (route.family != AF_INET && route.family != AF_INET6)
        return std::nullopt;
    route.table = NumberOf(found[RTA_TABLE], header.rtm_table);
    route.protocol = header.rtm_protocol;
    route.unreachable = header.rtm_type == RTN_UNREACHABLE;
    route.link = route.unreachable ? 0 : NumberOf(found[RTA_OIF]);
    route.destination = IpOf(found[RTA_DST], route.family);
    route.length = header.rtm_dst_len;
    route.gateway = IpOf(found[RTA_GATEWAY], route.family);
    route.source = IpOf(found[RTA_PREFSRC], route.family);
    route.metric = NumberOf(found[RTA_PRIORITY], route.family == AF_INET6 ? 1024 : 0);
    return route;
}

std::optional<KernelRule> RuleOf(const nlmsghdr& message) {
    const auto& header = *static_cast<const fib_rule_hdr*>(mnl_nlmsg_get_payload(&message));
    Attributes found{};
    mnl_attr_parse(&message, sizeof header, &Keep, &found);
    KernelRule rule;
    rule.family = header.family;
    if ((rule.family != AF_INET && rule.family != AF_INET6) || header.action != FR_ACT_TO_TBL)
        return std::nullopt;
    rule.priority = NumberOf(found[FRA_PRIORITY]);
    rule.table = NumberOf(found[FRA_TABLE], header.table);
    rule.protocol = found[FRA_PROTOCOL] != nullptr ? mnl_attr_get_u8(found[FRA_PROTOCOL]) : std::uint8_t{0};
    rule.interface = found[FRA_OIFNAME] != nullptr ? mnl_attr_get_str(found[FRA_OIFNAME]) : "";
    rule.source = IpOf(found[FRA_SRC], rule.family);
    rule.length = header.src_len;
    return rule;
}

} // namespace OrvLab
