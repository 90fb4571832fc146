// SPDX-License-Identifier: Apache-2.0
#include "OrvNetlink/Socket.h"

#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <string>

namespace OrvNetlink {

namespace {

constexpr std::size_t RECEIVE_ROOM = 32768; // the largest part of a dump that the kernel sends at once
constexpr int DUMP_ATTEMPTS = 5;
constexpr std::size_t ALIGNMENT = NLMSG_ALIGNTO; // of the messages in a buffer

[[noreturn]] void Fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/// Calls `each` for every message in what was received.
template <typename Each>
void ForEachMessage(const char* data, ssize_t size, Each each) {
    int left = static_cast<int>(size);
    const auto* message = static_cast<const nlmsghdr*>(static_cast<const void*>(data));
    for (; mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left))
        each(*message);
}

int ErrorOf(const nlmsghdr& message) {
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(nlmsgerr))
        return EBADMSG;
    return -static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(&message))->error;
}

} // namespace

void Socket::Close::operator()(mnl_socket* opened) const {
    mnl_socket_close(opened);
}

Socket::Socket(unsigned groups)
    : socket(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | (groups != 0 ? SOCK_NONBLOCK : 0))), buffer(RECEIVE_ROOM) {
    if (!socket)
        Fail("open a netlink socket");
    if (mnl_socket_bind(socket.get(), groups, MNL_SOCKET_AUTOPID) < 0)
        Fail("bind a netlink socket");
}

int Socket::Descriptor() const {
    return mnl_socket_get_fd(socket.get());
}

bool Socket::ReadNotifications(const Receiver& receiver) {
    bool complete = true;
    for (;;) {
        const ssize_t size = mnl_socket_recvfrom(socket.get(), buffer.data(), buffer.size());
        if (size >= 0)
            ForEachMessage(buffer.data(), size, receiver);
        else if (errno == ENOBUFS)
            complete = false;
        else if (errno == EAGAIN)
            return complete;
        else if (errno != EINTR)
            Fail("read network notifications");
    }
}

bool Socket::Dump(std::uint16_t type, std::uint8_t family, const Receiver& receiver) {
    for (int attempt = 0; attempt < DUMP_ATTEMPTS; ++attempt) {
        std::string messages; // their bytes, as they would stand in one receive buffer
        const bool consistent = DumpOnce(type, family, [&messages](const nlmsghdr& message) {
            messages.append(static_cast<const char*>(static_cast<const void*>(&message)), message.nlmsg_len);
            messages.append((ALIGNMENT - messages.size() % ALIGNMENT) % ALIGNMENT, '\0');
        });
        if (!consistent)
            continue;
        ForEachMessage(messages.data(), static_cast<ssize_t>(messages.size()), receiver);
        return true;
    }
    return false;
}

bool Socket::DumpOnce(std::uint16_t type, std::uint8_t family, const Receiver& receiver) {
    alignas(nlmsghdr) char request[128];
    nlmsghdr& message = *mnl_nlmsg_put_header(request);
    message.nlmsg_type = type;
    message.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    message.nlmsg_seq = ++sequence;
    // Every kind of dump request begins with the family; the longest of their headers does for all.
    static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(&message, sizeof(ifinfomsg)))->rtm_family = family;
    if (mnl_socket_sendto(socket.get(), &message, message.nlmsg_len) < 0)
        Fail("ask for the network state");

    bool consistent = true;
    for (bool done = false; !done;) {
        const ssize_t size = mnl_socket_recvfrom(socket.get(), buffer.data(), buffer.size());
        if (size < 0 && errno == EINTR)
            continue;
        if (size < 0)
            Fail("read the network state");
        ForEachMessage(buffer.data(), size, [&](const nlmsghdr& answer) {
            if (answer.nlmsg_seq != sequence)
                return;
            consistent = consistent && (answer.nlmsg_flags & NLM_F_DUMP_INTR) == 0;
            if (answer.nlmsg_type == NLMSG_DONE) {
                done = true;
            } else if (answer.nlmsg_type == NLMSG_ERROR) {
                errno = ErrorOf(answer);
                Fail("read the network state");
            } else {
                receiver(answer);
            }
        });
    }
    return consistent;
}

std::error_code Socket::Request(nlmsghdr& message) {
    message.nlmsg_seq = ++sequence;
    if (mnl_socket_sendto(socket.get(), &message, message.nlmsg_len) < 0)
        Fail("send a routing request");
    for (;;) {
        const ssize_t size = mnl_socket_recvfrom(socket.get(), buffer.data(), buffer.size());
        if (size < 0 && errno == EINTR)
            continue;
        if (size < 0)
            Fail("read the answer to a routing request");
        std::error_code verdict;
        bool found = false;
        ForEachMessage(buffer.data(), size, [&](const nlmsghdr& answer) {
            if (answer.nlmsg_seq == sequence && answer.nlmsg_type == NLMSG_ERROR) {
                verdict = std::error_code(ErrorOf(answer), std::generic_category());
                found = true;
            }
        });
        if (found)
            return verdict;
    }
}

} // namespace OrvNetlink
