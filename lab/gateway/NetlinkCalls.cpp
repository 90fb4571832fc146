// SPDX-License-Identifier: Apache-2.0
// The sockets of libmnl, over the scripted kernel. What it does with messages in memory is its own.
#include "gateway/World.h"

#include <libmnl/libmnl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

using OrvLab::Descriptors;
using OrvLab::NetlinkSocket;
using OrvLab::World;

struct mnl_socket {
    int number;
    std::shared_ptr<NetlinkSocket> file;
};

namespace {

World& Enter(const char* call) {
    World& world = World::Of(call);
    world.sim.Step(call);
    if (world.sim.Self().locks != 0)
        world.sim.Fail(std::string(call) + " and holds a lock");
    return world;
}

} // namespace

extern "C" {

mnl_socket* mnl_socket_open2(int /*bus*/, int /*flags*/) {
    const OrvLab::Unwatched unwatched;
    World& world = Enter("open a netlink socket");
    auto made = std::make_unique<mnl_socket>();
    made->file = world.kernel.Open();
    made->number = Descriptors::Of().Open(made->file);
    return made.release();
}

int mnl_socket_bind(mnl_socket* socket, unsigned groups, pid_t /*pid*/) {
    const OrvLab::Unwatched unwatched;
    Enter("bind a netlink socket");
    socket->file->groups = groups;
    return 0;
}

int mnl_socket_get_fd(const mnl_socket* socket) {
    const OrvLab::Unwatched unwatched;
    return socket->number;
}

int mnl_socket_close(mnl_socket* socket) {
    const OrvLab::Unwatched unwatched;
    const std::unique_ptr<mnl_socket> owner(socket);
    return close(socket->number);
}

ssize_t mnl_socket_sendto(const mnl_socket* socket, const void* request, std::size_t size) {
    const OrvLab::Unwatched unwatched;
    Enter("ask the kernel");
    return socket->file->Send(request, size);
}

ssize_t mnl_socket_recvfrom(const mnl_socket* socket, void* buffer, std::size_t size) {
    const OrvLab::Unwatched unwatched;
    World& world = Enter("hear the kernel");
    if (world.sim.HasSpuriousWakeUps() && world.sim.OneInSchedule(30)) {
        errno = EINTR;
        return -1;
    }
    return socket->file->Receive(buffer, size);
}
}
