// SPDX-License-Identifier: Apache-2.0
// cloud-connection ADDRESS PORT: keeps a TCP connection to the cloud, and reports it and both interfaces. That is all
// that an application owes for LEDs, status and the route: see `script/demo --app`.

#include <OrvStackSdk/OrvStackSdk.h>

#include <csignal>
#include <iostream>
#include <string>

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace OrvStackSdk;

namespace {

volatile std::sig_atomic_t ended = 0;

class Nobody : public IOrvStackClientHandler {
    void OnInitConfirmation(const Confirmation&) override {}
    void OnAppActionIndication(const AppAction&) override {}
    void OnAppStatusIndication(const std::string&, const AppStatus&) override {}
    void OnDeviceProbeIndication(const std::string&) override {}
    void OnDeviceOnlineStatusIndication(bool) override {}
    void OnDeviceCellularStatusIndication(const CellularStatus&, const std::string&) override {}
    void OnFeatureShutdownReadinessIndication(const std::string&, bool) override {}
};

// Begins to connect. A cloud that says nothing for 3 s is lost.
int Connect(const sockaddr_in& cloud) {
    const int handle = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1, seconds = 1, times = 3, patience = 3000;
    setsockopt(handle, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(handle, IPPROTO_TCP, TCP_KEEPIDLE, &seconds, sizeof seconds);
    setsockopt(handle, IPPROTO_TCP, TCP_KEEPINTVL, &seconds, sizeof seconds);
    setsockopt(handle, IPPROTO_TCP, TCP_KEEPCNT, &times, sizeof times);
    setsockopt(handle, IPPROTO_TCP, TCP_USER_TIMEOUT, &patience, sizeof patience);
    // The result comes with POLLOUT or POLLERR.
    (void)connect(handle, reinterpret_cast<const sockaddr*>(&cloud), sizeof cloud);
    return handle;
}

void Run(const sockaddr_in& cloud) {
    const auto client = CreateClient();
    const auto handler = std::make_shared<Nobody>(); // the client does not keep it alive
    client->SetHandler(handler);
    client->Init("cloud-connection");
    client->Start();
    client->AppStatusRequest(AppStatus::READY);
    for (const OrvEvent up : {OrvEvent::ETHERNET_CONNECTED, OrvEvent::ETHERNET_IP_GAINED, OrvEvent::CELLULAR_CONNECTED,
                              OrvEvent::CELLULAR_IP_GAINED})
        client->EventUpdateRequest(up); // a real application hears of them from the kernel

    const std::chrono::milliseconds interval(100);
    bool connected = false;
    int handle = Connect(cloud);
    while (ended == 0) {
        pollfd wait{handle, static_cast<short>(connected ? POLLRDHUP : POLLOUT), 0};
        poll(&wait, 1, static_cast<int>(interval.count()));
        const bool lost = (wait.revents & (POLLERR | POLLHUP | POLLRDHUP)) != 0;
        client->Tick(interval);
        if (connected && lost)
            client->EventUpdateRequest(OrvEvent::CLOUD_DISCONNECTED);
        else if (!connected && !lost && (wait.revents & POLLOUT) != 0)
            client->EventUpdateRequest(OrvEvent::CLOUD_CONNECTED);
        connected = !lost && (connected || (wait.revents & POLLOUT) != 0);
        if (client->CloudReconnectNeeded() || lost) {
            close(handle);
            connected = false;
            poll(nullptr, 0, lost ? static_cast<int>(interval.count()) : 0);
            handle = Connect(cloud);
        }
    }
    close(handle);
    client->DeInit();
}

} // namespace

int main(int argc, char** argv) try {
    sockaddr_in cloud{};
    cloud.sin_family = AF_INET;
    if (argc != 3 || inet_pton(AF_INET, argv[1], &cloud.sin_addr) != 1) {
        std::cerr << "usage: cloud-connection ADDRESS PORT" << std::endl;
        return 2;
    }
    cloud.sin_port = htons(static_cast<uint16_t>(std::stoul(argv[2])));
    for (const int number : {SIGTERM, SIGINT})
        std::signal(number, [](int) { ended = 1; });
    Run(cloud);
} catch (const std::exception& error) {
    std::cerr << "cloud-connection: " << error.what() << std::endl;
    return 1;
}
