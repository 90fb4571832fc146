// SPDX-License-Identifier: Apache-2.0
#include "KeepAlive.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>

namespace GatewayApp {

namespace {

constexpr std::chrono::seconds LONGEST_PATIENCE{5};

void SetOption(int socket, int level, int option, int value) {
    setsockopt(socket, level, option, &value, sizeof(value));
}

int GetOption(int socket, int level, int option) {
    int value = 0;
    socklen_t size = sizeof(value);
    getsockopt(socket, level, option, &value, &size);
    return value;
}

} // namespace

std::chrono::milliseconds KeepAlive::Patience() const {
    return std::min(period, LONGEST_PATIENCE);
}

std::chrono::milliseconds KeepAlive::Silence() const {
    return period + Patience() + Patience() / 2;
}

std::chrono::milliseconds KeepAlive::UserTimeout() const {
    return Silence() + Patience() / 2;
}

std::chrono::milliseconds KeepAlive::AnswerTime() const {
    return period + (period > std::chrono::seconds(1) ? Patience() / 3 : QuickPace());
}

std::chrono::seconds KeepAlive::Interval() const {
    return std::max(std::chrono::seconds(1), std::chrono::duration_cast<std::chrono::seconds>(Patience() / 2));
}

std::chrono::milliseconds KeepAlive::QuickPace() const {
    return Patience() / 10;
}

std::chrono::milliseconds KeepAlive::UsualPace() const {
    return Patience() / 4;
}

bool SilenceLimit::IsPassed(const KeepAlive& keepAlive, std::chrono::milliseconds silentFor,
                            std::chrono::steady_clock::time_point now) {
    if (keepAlive.Period() != period) {
        period = keepAlive.Period();
        begun = now;
    }
    return std::min<std::chrono::steady_clock::duration>(silentFor, now - begun) > keepAlive.Silence();
}

void SetLossDetection(int socket, const KeepAlive& keepAlive) {
    SetOption(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
    SetOption(socket, IPPROTO_TCP, TCP_KEEPINTVL, static_cast<int>(keepAlive.Interval().count()));
    SetOption(socket, IPPROTO_TCP, TCP_KEEPCNT, 2);
    SetOption(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, static_cast<int>(keepAlive.UserTimeout().count()));
    SetOption(socket, IPPROTO_TCP, TCP_KEEPIDLE, static_cast<int>(keepAlive.Period().count()));
}

std::chrono::milliseconds SilentFor(int socket) {
    tcp_info info{};
    socklen_t size = sizeof(info);
    getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size);
    return std::chrono::milliseconds(info.tcpi_last_ack_recv);
}

std::chrono::milliseconds ProbeWhenOverdue(int socket, const KeepAlive& keepAlive) {
    const int period = static_cast<int>(keepAlive.Period().count());
    if (GetOption(socket, IPPROTO_TCP, TCP_KEEPIDLE) != period)
        SetLossDetection(socket, keepAlive);
    const std::chrono::milliseconds left = keepAlive.AnswerTime() - SilentFor(socket);
    if (left > std::chrono::milliseconds::zero())
        return std::min(keepAlive.UsualPace(), left);
    // Set anew, the time of idleness is found to be over, and the kernel asks.
    SetOption(socket, IPPROTO_TCP, TCP_KEEPIDLE, period);
    return keepAlive.QuickPace();
}

} // namespace GatewayApp
