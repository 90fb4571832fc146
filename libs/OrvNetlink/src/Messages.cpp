// SPDX-License-Identifier: Apache-2.0
#include "OrvNetlink/Messages.h"

#include <libmnl/libmnl.h>
#include <linux/fib_rules.h>
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
    Ipv4 Ip(std::uint16_t type) const { return Ipv4{Number(type)}; }
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
    if (header == nullptr || header->ifa_family != AF_INET)
        return std::nullopt;
    const Attributes attributes(message, sizeof(*header));
    Address address;
    address.link = header->ifa_index;
    // On a point-to-point link IFA_ADDRESS is the other end.
    address.address = attributes.Has(IFA_LOCAL) ? attributes.Ip(IFA_LOCAL) : attributes.Ip(IFA_ADDRESS);
    address.prefixLength = header->ifa_prefixlen;
    address.secondary = (header->ifa_flags & IFA_F_SECONDARY) != 0;
    const Ipv4 linkLocal = *Ipv4::Parse("169.254.0.0");
    address.global = header->ifa_scope == RT_SCOPE_UNIVERSE && address.address.Network(16) != linkLocal;
    return address;
}

std::optional<Route> ReadRoute(const nlmsghdr& message) {
    const auto* header = HeaderOf<rtmsg>(message, RTM_NEWROUTE, RTM_DELROUTE);
    if (header == nullptr || header->rtm_family != AF_INET || header->rtm_type != RTN_UNICAST ||
        (header->rtm_flags & RTM_F_CLONED) != 0)
        return std::nullopt;
    const Attributes attributes(message, sizeof(*header));
    if (!attributes.Has(RTA_OIF))
        return std::nullopt;
    Route route;
    route.table = attributes.Number(RTA_TABLE, header->rtm_table);
    route.protocol = header->rtm_protocol;
    route.link = attributes.Number(RTA_OIF);
    route.destination = attributes.Ip(RTA_DST);
    route.prefixLength = header->rtm_dst_len;
    route.gateway = attributes.Ip(RTA_GATEWAY);
    route.source = attributes.Ip(RTA_PREFSRC);
    route.metric = attributes.Number(RTA_PRIORITY);
    return route;
}

std::optional<Rule> ReadRule(const nlmsghdr& message) {
    const auto* header = HeaderOf<fib_rule_hdr>(message, RTM_NEWRULE, RTM_DELRULE);
    if (header == nullptr || header->family != AF_INET || header->action != FR_ACT_TO_TBL || header->dst_len != 0)
        return std::nullopt;
    const Attributes attributes(message, sizeof(*header));
    const bool forAnInterface = attributes.Has(FRA_OIFNAME) && header->src_len == 0;
    const bool forAnAddress = !attributes.Has(FRA_OIFNAME) && header->src_len == 32;
    if (!forAnInterface && !forAnAddress)
        return std::nullopt;
    Rule rule;
    rule.priority = attributes.Number(FRA_PRIORITY);
    rule.table = attributes.Number(FRA_TABLE, header->table);
    rule.protocol = attributes.Byte(FRA_PROTOCOL);
    rule.interface = attributes.Text(FRA_OIFNAME);
    rule.source = attributes.Ip(FRA_SRC);
    return rule;
}

nlmsghdr& WriteRoute(void* buffer, std::uint16_t type, std::uint16_t flags, const Route& route) {
    nlmsghdr& message = Begin(buffer, type, flags);
    auto& header = *static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(&message, sizeof(rtmsg)));
    header.rtm_family = AF_INET;
    header.rtm_dst_len = static_cast<unsigned char>(route.prefixLength);
    header.rtm_table = RT_TABLE_UNSPEC; // the table's number may not fit here, RTA_TABLE has it
    header.rtm_protocol = route.protocol;
    header.rtm_scope = route.gateway ? RT_SCOPE_UNIVERSE : RT_SCOPE_LINK;
    header.rtm_type = RTN_UNICAST;
    // The gateway is looked up in the main table, where the network may come a moment later.
    header.rtm_flags = route.gateway ? RTNH_F_ONLINK : 0;
    mnl_attr_put_u32(&message, RTA_TABLE, route.table);
    mnl_attr_put_u32(&message, RTA_OIF, route.link);
    if (route.destination)
        mnl_attr_put_u32(&message, RTA_DST, route.destination.networkOrder);
    if (route.gateway)
        mnl_attr_put_u32(&message, RTA_GATEWAY, route.gateway.networkOrder);
    if (route.source)
        mnl_attr_put_u32(&message, RTA_PREFSRC, route.source.networkOrder);
    if (route.metric != 0)
        mnl_attr_put_u32(&message, RTA_PRIORITY, route.metric);
    return message;
}

nlmsghdr& WriteRule(void* buffer, std::uint16_t type, std::uint16_t flags, const Rule& rule) {
    nlmsghdr& message = Begin(buffer, type, flags);
    auto& header = *static_cast<fib_rule_hdr*>(mnl_nlmsg_put_extra_header(&message, sizeof(fib_rule_hdr)));
    header.family = AF_INET;
    header.action = FR_ACT_TO_TBL;
    header.src_len = rule.source ? 32 : 0;
    mnl_attr_put_u32(&message, FRA_TABLE, rule.table);
    mnl_attr_put_u32(&message, FRA_PRIORITY, rule.priority);
    mnl_attr_put_u8(&message, FRA_PROTOCOL, rule.protocol);
    if (!rule.interface.empty())
        mnl_attr_put_strz(&message, FRA_OIFNAME, rule.interface.c_str());
    if (rule.source)
        mnl_attr_put_u32(&message, FRA_SRC, rule.source.networkOrder);
    return message;
}

} // namespace OrvNetlink
