// SPDX-License-Identifier: Apache-2.0
// The calls of the sockets' interface and of the resolver, as far as the programs make them themselves.
#include "gateway/World.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

namespace OrvLab {

namespace {

/// A datagram socket that is connected to ask for the route.
class ProbeSocket final : public OpenFile {
public:
    short Ready() const override { return POLLOUT; }
    long Receive(void* /*buffer*/, std::size_t /*size*/) override {
        errno = EAGAIN;
        return -1;
    }
    std::string source;
};

std::string TextOf(const sockaddr* address) {
    char text[INET6_ADDRSTRLEN] = {};
    if (address->sa_family == AF_INET6)
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr, text, sizeof text);
    else
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text, sizeof text);
    return text;
}

void Put(const std::string& text, sockaddr* room, socklen_t* size) {
    if (ScriptedCloud::IsSix(text)) {
        sockaddr_in6 six{};
        six.sin6_family = AF_INET6;
        inet_pton(AF_INET6, text.c_str(), &six.sin6_addr);
        std::memcpy(room, &six, *size = sizeof six);
    } else {
        sockaddr_in four{};
        four.sin_family = AF_INET;
        inet_pton(AF_INET, text.c_str(), &four.sin_addr);
        std::memcpy(room, &four, *size = sizeof four);
    }
}

CloudSocket* Cloud(int number) {
    return dynamic_cast<CloudSocket*>(Descriptors::Of().Find(number));
}

} // namespace

} // namespace OrvLab

using OrvLab::Descriptors;
using OrvLab::Simulation;
using OrvLab::World;

extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier)
int __real_getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** found);
int __real_socket(int domain, int type, int protocol);
int __real_connect(int number, const sockaddr* address, socklen_t size);
int __real_getsockname(int number, sockaddr* address, socklen_t* size);
int __real_getsockopt(int number, int level, int option, void* value, socklen_t* size);
int __real_setsockopt(int number, int level, int option, const void* value, socklen_t size);

int __wrap_getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** found) {
    const OrvLab::Unwatched unwatched;
    Simulation* const simulation = Simulation::Current();
    if (simulation == nullptr || (hints != nullptr && (hints->ai_flags & AI_NUMERICHOST) != 0))
        return __real_getaddrinfo(node, service, hints, found);
    if (simulation->Self().locks != 0)
        simulation->Fail("asks the name servers and holds a lock");
    simulation->Step("getaddrinfo");
    addrinfo** next = found;
    *found = nullptr;
    addrinfo numeric = *hints;
    numeric.ai_flags = AI_NUMERICHOST;
    for (const std::string& address : World::Of("getaddrinfo").resolver.LookUp(node)) {
        if (__real_getaddrinfo(address.c_str(), service, &numeric, next) == 0)
            next = &(*next)->ai_next;
    }
    simulation->Step("getaddrinfo ends");
    return *found == nullptr ? EAI_AGAIN : 0;
}

int __wrap_socket(int domain, int type, int protocol) {
    const OrvLab::Unwatched unwatched;
    if (Simulation::Current() == nullptr)
        return __real_socket(domain, type, protocol);
    Simulation::Current()->Step("socket");
    return Descriptors::Of().Open(std::make_shared<OrvLab::ProbeSocket>());
}

int __wrap_connect(int number, const sockaddr* address, socklen_t size) {
    const OrvLab::Unwatched unwatched;
    if (!Descriptors::IsSimulated(number))
        return __real_connect(number, address, size);
    auto& probe = dynamic_cast<OrvLab::ProbeSocket&>(*Descriptors::Of().Find(number));
    probe.source = World::Of("connect").cloud.SourceTowards(OrvLab::TextOf(address));
    errno = ENETUNREACH;
    return probe.source.empty() ? -1 : 0;
}

int __wrap_getsockname(int number, sockaddr* address, socklen_t* size) {
    const OrvLab::Unwatched unwatched;
    if (!Descriptors::IsSimulated(number))
        return __real_getsockname(number, address, size);
    if (const auto* const probe = dynamic_cast<OrvLab::ProbeSocket*>(Descriptors::Of().Find(number))) {
        OrvLab::Put(probe->source, address, size);
        return 0;
    }
    const OrvLab::CloudSocket* const socket = OrvLab::Cloud(number);
    errno = EBADF;
    if (socket == nullptr)
        return -1;
    OrvLab::Put(socket->source, address, size);
    return 0;
}

int __wrap_getsockopt(int number, int level, int option, void* value, socklen_t* size) {
    const OrvLab::Unwatched unwatched;
    if (!Descriptors::IsSimulated(number))
        return __real_getsockopt(number, level, option, value, size);
    OrvLab::CloudSocket* const socket = OrvLab::Cloud(number);
    errno = EBADF;
    if (socket == nullptr)
        return -1;
    if (level == IPPROTO_TCP && option == TCP_INFO) {
        tcp_info info{};
        info.tcpi_last_ack_recv = static_cast<std::uint32_t>(socket->SilentFor() / OrvLab::MILLISECOND);
        std::memcpy(value, &info, sizeof info);
        return 0;
    }
    const int answer = level == SOL_SOCKET && option == SO_ERROR ? socket->TakeError() : socket->Option(option);
    std::memcpy(value, &answer, sizeof answer);
    return 0;
}

int __wrap_setsockopt(int number, int level, int option, const void* value, socklen_t size) {
    const OrvLab::Unwatched unwatched;
    if (!Descriptors::IsSimulated(number))
        return __real_setsockopt(number, level, option, value, size);
    OrvLab::CloudSocket* const socket = OrvLab::Cloud(number);
    errno = EBADF;
    if (socket == nullptr)
        return -1;
    int given = 0;
    std::memcpy(&given, value, sizeof given);
    if (level == IPPROTO_TCP)
        socket->SetOption(option, given);
    return 0;
}
// NOLINTEND(bugprone-reserved-identifier)
}
