// SPDX-License-Identifier: Apache-2.0
#include "SignsOfLife.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace GatewayApp {

namespace {

constexpr std::chrono::milliseconds kAnswerTime{1100}; // the kernel asks after 1 s
constexpr std::chrono::milliseconds kUsualPace{250};
constexpr std::chrono::milliseconds kQuickPace{100};

void SetOption(int socket, int level, int option, int value) {
    setsockopt(socket, level, option, &value, sizeof(value));
}

} // namespace

void SetFastLossDetection(int socket) {
    constexpr int userTimeoutMs = 2000;
    SetOption(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
    SetOption(socket, IPPROTO_TCP, TCP_KEEPIDLE, 1);
    SetOption(socket, IPPROTO_TCP, TCP_KEEPINTVL, 1);
    SetOption(socket, IPPROTO_TCP, TCP_KEEPCNT, 2);
    SetOption(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, userTimeoutMs);
}

std::chrono::milliseconds SilentFor(int socket) {
    tcp_info info{};
    socklen_t size = sizeof(info);
    getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size);
    return std::chrono::milliseconds(info.tcpi_last_ack_recv);
}

std::chrono::milliseconds AskAgain(int socket) {
    if (SilentFor(socket) < kAnswerTime)
        return kUsualPace;
    // Set anew, the time of idleness is found to be over, and the kernel asks.
    SetOption(socket, IPPROTO_TCP, TCP_KEEPIDLE, 1);
    return kQuickPace;
}

} // namespace GatewayApp
