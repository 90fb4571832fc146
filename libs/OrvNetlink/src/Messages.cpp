// SPDX-License-Identifier: Apache-2.0
#include "OrvNetlink/Messages.h"

#include <libmnl/libmnl.h>
#include <linux/fib_rules.h>
#include <linux/icmpv6.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace OrvNetlink {

namespace {

constexpr std::size_t MAX_ATTRIBUTE = 64;
constexpr unsigned LOWER_UP = 1U << 16; // IFF_LOWER_UP; its header does not go with net/if.h

std::size_t SizeOf(std::uint8_t family) {
    return family == AF_INET6 ? 16 : 4;
}

bool IsIp(std::uint8_t family) {
    return family == AF_INET || family == AF_INET6;
}

/// The attributes of one message by their number.
class Attributes {
public:
    Attributes(const nlmsghdr& message, std::size_t headerSize) {
        mnl_attr_parse(&message, static_cast<unsigned>(headerSize), &Keep, &found);
    }

    bool Has(std::uint16_t type) const { return found.at(type) != nullptr; }
    std::uint32_t Number(std::uint16_t type, std::uint32_t otherwise = 0) const {
        return Sized(type, sizeof(std::uint32_t)) ? mnl_attr_get_u32(found.at(type)) : otherwise;
    }
    std::uint8_t Byte(std::uint16_t type) const {
        return Sized(type, sizeof(std::uint8_t)) ? mnl_attr_get_u8(found.at(type)) : std::uint8_t{0};
    }
    /// The attribute's bytes, which need not be aligned; what it lacks at its end stays zero.
    template <typename Struct>
    Struct Copy(std::uint16_t type) const {
        Struct copy{};
        if (Has(type))
            std::memcpy(&copy, mnl_attr_get_payload(found.at(type)),
                        std::min<std::size_t>(sizeof(copy), mnl_attr_get_payload_len(found.at(type))));
        return copy;
    }
    IpAddress Ip(std::uint16_t type, std::uint8_t family) const {
        return Sized(type, SizeOf(family)) ? IpAddress::Of(family, mnl_attr_get_payload(found.at(type))) : IpAddress{};
    }
    std::string Text(std::uint16_t type) const {
        const bool terminated = Has(type) && mnl_attr_validate(found.at(type), MNL_TYPE_NUL_STRING) >= 0;
        return terminated ? mnl_attr_get_str(found.at(type)) : std::string();
    }

private:
    using Found = std::array<const nlattr*, MAX_ATTRIBUTE>;

    static int Keep(const nlattr* attribute, void* data) noexcept {
        const std::uint16_t type = mnl_attr_get_type(attribute);
        if (type < MAX_ATTRIBUTE)
            (*static_cast<Found*>(data))[type] = attribute;
        return MNL_CB_OK;
    }
    bool Sized(std::uint16_t type, std::size_t size) const {
        return Has(type) && mnl_attr_get_payload_len(found.at(type)) >= size;
    }

    Found found{};
};

template <typename Header>
const Header* HeaderOf(const nlmsghdr& message, std::uint16_t added, std::uint16_t gone) {
    if ((message.nlmsg_type != added && message.nlmsg_type != gone) ||
        mnl_nlmsg_get_payload_len(&message) < sizeof(Header))
        return nullptr;
    return static_cast<const Header*>(mnl_nlmsg_get_payload(&message));
}

void PutIp(nlmsghdr& message, std::uint16_t type, const IpAddress& address) {
    if (address)
        mnl_attr_put(&message, type, SizeOf(address.Family()), &address.bytes[16 - SizeOf(address.Family())]);
}

nlmsghdr& Begin(void* buffer, std::uint16_t type, std::uint16_t flags) {
    nlmsghdr& message = *mnl_nlmsg_put_header(buffer);
    message.nlmsg_type = type;
    message.nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags);
    return message;
}

} // namespace

std::optional<Link> ReadLink(const nlmsghdr& message) {
    const auto* header = HeaderOf<ifinfomsg>(message, RTM_NEWLINK, RTM_DELLINK);
    // A bridge tells about its ports with the same message types.
    if (header == nullptr || header->ifi_family != AF_UNSPEC || header->ifi_index <= 0)
        return std::nullopt;
    const Attributes attributes(message, sizeof(*header));
    Link link;
    link.index = static_cast<unsigned>(header->ifi_index);
    link.name = attributes.Text(IFLA_IFNAME);
    link.running =
        message.nlmsg_type == RTM_NEWLINK && (header->ifi_flags & IFF_UP) != 0 && (header->ifi_flags & LOWER_UP) != 0;
    link.pointToPoint = (header->ifi_flags & (IFF_POINTOPOINT | IFF_NOARP)) != 0;
    const auto counted = attributes.Copy<rtnl_link_stats64>(IFLA_STATS64);
    link.receivedBytes = counted.rx_bytes;
    link.sentBytes = counted.tx_bytes;
    return link;
}

std::optional<Address> ReadAddress(const nlmsghdr& message) {
    const auto* header = HeaderOf<ifaddrmsg>(message, RTM_NEWADDR, RTM_DELADDR);
    if (header == nullptr || !IsIp(header->ifa_family))
        return std::nullopt;
    const Attributes attributes(message, sizeof(*header));
    const std::uint8_t family = header->ifa_family;
    const bool six = family == AF_INET6;
    Address address;
    address.link = header->ifa_index;
    // On a point-to-point link IFA_ADDRESS is the other end.
    address.address = attributes.Ip(attributes.Has(IFA_LOCAL) ? IFA_LOCAL : IFA_ADDRESS, family);
    address.prefixLength = header->ifa_prefixlen;
    const std::uint32_t flags = attributes.Number(IFA_FLAGS, header->ifa_flags);
    address.secondary = !six && (flags & IFA_F_SECONDARY) != 0;
    address.temporary = six && (flags & IFA_F_TEMPORARY) != 0;
    address.tentative = (flags & (IFA_F_TENTATIVE | IFA_F_OPTIMISTIC)) == IFA_F_TENTATIVE;
    address.duplicate = (flags & IFA_F_DADFAILED) != 0;
    address.deprecated = (flags & IFA_F_DEPRECATED) != 0;
    address.global = header->ifa_scope == RT_SCOPE_UNIVERSE && !address.address.IsLinkLocal();
    return address;
}

std::optional<Route> ReadRoute(const nlmsghdr& message) {
    const auto* header = HeaderOf<rtmsg>(message, RTM_NEWROUTE, RTM_DELROUTE);
    if (header == nullptr || !IsIp(header->rtm_family) || (header->rtm_flags & RTM_F_CLONED) != 0 ||
        (header->rtm_type != RTN_UNICAST && header->rtm_type != RTN_UNREACHABLE))
        return std::nullopt;
    const Attributes attributes(message, sizeof(*header));
    const bool leads = header->rtm_type == RTN_UNICAST;
    if (leads && !attributes.Has(RTA_OIF))
        return std::nullopt;
    Route route;
    route.family = header->rtm_family;
    route.table = attributes.Number(RTA_TABLE, header->rtm_table);
    route.protocol = header->rtm_protocol;
    route.link = leads ? attributes.Number(RTA_OIF) : 0; // the kernel names the loopback interface
    route.destination = attributes.Ip(RTA_DST, route.family);
    route.prefixLength = header->rtm_dst_len;
    route.gateway = attributes.Ip(RTA_GATEWAY, route.family);
    route.source = attributes.Ip(RTA_PREFSRC, route.family);
    route.metric = attributes.Number(RTA_PRIORITY);
    // In the kernel's hundredths of a second; zero: it does not expire.
    if (const auto left = attributes.Copy<rta_cacheinfo>(RTA_CACHEINFO).rta_expires; left != 0)
        route.lifetime = std::chrono::milliseconds(std::int64_t{left} * 10);
    if (const unsigned preference = attributes.Byte(RTA_PREF); preference != 0)
        route.preference = preference == ICMPV6_ROUTER_PREF_HIGH ? 1 : -1;
    return route;
}

std::optional<Rule> ReadRule(const nlmsghdr& message) {
    const auto* header = HeaderOf<fib_rule_hdr>(message, RTM_NEWRULE, RTM_DELRULE);
    if (header == nullptr || !IsIp(header->family) || header->action != FR_ACT_TO_TBL || header->dst_len != 0)
        return std::nullopt;
    const Attributes attributes(message, sizeof(*header));
    const bool forAnInterface = attributes.Has(FRA_OIFNAME) && header->src_len == 0;
    const bool forANetwork = !attributes.Has(FRA_OIFNAME) && header->src_len != 0;
    if (!forAnInterface && !forANetwork)
        return std::nullopt;
    Rule rule;
    rule.family = header->family;
    rule.priority = attributes.Number(FRA_PRIORITY);
    rule.table = attributes.Number(FRA_TABLE, header->table);
    rule.protocol = attributes.Byte(FRA_PROTOCOL);
    rule.interface = attributes.Text(FRA_OIFNAME);
    rule.source = attributes.Ip(FRA_SRC, rule.family);
    rule.prefixLength = header->src_len;
    return rule;
}

nlmsghdr& WriteRoute(void* buffer, std::uint16_t type, std::uint16_t flags, const Route& route) {
    nlmsghdr& message = Begin(buffer, type, flags);
    auto& header = *static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(&message, sizeof(rtmsg)));
    header.rtm_family = route.family;
    header.rtm_dst_len = static_cast<unsigned char>(route.prefixLength);
    header.rtm_table = RT_TABLE_UNSPEC; // the table's number may not fit here, RTA_TABLE has it
    header.rtm_protocol = route.protocol;
    header.rtm_scope = route.gateway || route.IsUnreachable() ? RT_SCOPE_UNIVERSE : RT_SCOPE_LINK;
    header.rtm_type = route.IsUnreachable() ? RTN_UNREACHABLE : RTN_UNICAST;
    // The gateway is looked up in the main table, where the network may come a moment later.
    header.rtm_flags = route.gateway && !route.gateway.IsLinkLocal() ? RTNH_F_ONLINK : 0;
    mnl_attr_put_u32(&message, RTA_TABLE, route.table);
    if (!route.IsUnreachable())
        mnl_attr_put_u32(&message, RTA_OIF, route.link);
    PutIp(message, RTA_DST, route.destination);
    PutIp(message, RTA_GATEWAY, route.gateway);
    PutIp(message, RTA_PREFSRC, route.source);
    if (route.metric != 0)
        mnl_attr_put_u32(&message, RTA_PRIORITY, route.metric);
    return message;
}

nlmsghdr& WriteRule(void* buffer, std::uint16_t type, std::uint16_t flags, const Rule& rule) {
    nlmsghdr& message = Begin(buffer, type, flags);
    auto& header = *static_cast<fib_rule_hdr*>(mnl_nlmsg_put_extra_header(&message, sizeof(fib_rule_hdr)));
    header.family = rule.family;
    header.action = FR_ACT_TO_TBL;
    header.src_len = static_cast<std::uint8_t>(rule.prefixLength);
    mnl_attr_put_u32(&message, FRA_TABLE, rule.table);
    mnl_attr_put_u32(&message, FRA_PRIORITY, rule.priority);
    mnl_attr_put_u8(&message, FRA_PROTOCOL, rule.protocol);
    if (!rule.interface.empty())
        mnl_attr_put_strz(&message, FRA_OIFNAME, rule.interface.c_str());
    PutIp(message, FRA_SRC, rule.source);
    return message;
}

} // namespace OrvNetlink
