// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>

namespace GatewayApp {

/// How often an idle connection is asked for a sign of life, and what follows from that. Each question and its answer
/// cost about a hundred bytes; a second between them is quick, half a minute cheap.
class KeepAlive {
public:
    /// @param time at least 1 s
    explicit KeepAlive(std::chrono::seconds time = std::chrono::seconds(1)) : period(time) {}

    std::chrono::seconds Period() const { return period; }
    /// After so long without an acknowledgement a path counts as dead: 2.5 s, with 5 s or more between the
    /// questions 7.5 s longer than that, because a modem may have to wake up first.
    std::chrono::milliseconds Silence() const;
    /// The kernel's own limit, a little longer: it stands in for an application that is held up.
    std::chrono::milliseconds UserTimeout() const;
    /// An answer is overdue, and so often the question is then repeated.
    std::chrono::milliseconds AnswerTime() const;
    std::chrono::milliseconds QuickPace() const;
    /// How often the kernel repeats it by itself.
    std::chrono::seconds Interval() const;
    std::chrono::milliseconds UsualPace() const;

private:
    std::chrono::milliseconds Patience() const;
    std::chrono::seconds period;
};

/// Whether the other end has been silent for too long, while the keep-alive may change: a silence that was in order
/// under the earlier one, which asked seldom, is no loss. The next one has its time from its own beginning on.
class SilenceLimit {
public:
    bool IsPassed(const KeepAlive& keepAlive, std::chrono::milliseconds silentFor,
                  std::chrono::steady_clock::time_point now);

private:
    std::chrono::seconds period{0};
    std::chrono::steady_clock::time_point begun;
};

/// Lets the kernel end the connection when its path is silent: an idle one is asked for a sign of life in every period,
/// and a limit without an acknowledgement is the end, whether data are under way or not.
void SetLossDetection(int socket, const KeepAlive& keepAlive);

/// How long ago the other end last acknowledged anything. The kernel's own limits count anew when data are sent in the
/// middle of a silence, and would take both together.
std::chrono::milliseconds SilentFor(int socket);

/// Asks again at once when the kernel's question of every period has no answer yet. By the kernel alone one lost packet
/// may end the connection, because it leaves a second between them. However often it is asked, a Linux peer answers
/// once in half a second (its net.ipv4.tcp_invalid_ratelimit). Takes over another keep-alive.
/// @return when to call again
std::chrono::milliseconds ProbeWhenOverdue(int socket, const KeepAlive& keepAlive);

} // namespace GatewayApp
