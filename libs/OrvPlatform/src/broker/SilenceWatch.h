// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>

namespace OrvPlatform {

/// Knows whether this client has been silent for so long that the broker was right to end the connection: for one and a
/// half times the keep-alive nothing was sent, because nobody served the connection meanwhile.
class SilenceWatch {
public:
    using Time = std::chrono::steady_clock::time_point;
    using Duration = std::chrono::steady_clock::duration;

    /// After a silence that the broker has not forgiven, the first bytes sent get an error or no answer, and the end of
    /// the connection is seen a moment later.
    static constexpr std::chrono::seconds UNFORGIVEN{2};

    explicit SilenceWatch(std::chrono::seconds keepAlive) : limit(keepAlive * 3 / 2) {}

    /// The connection has been made.
    void Begin(Time now);
    /// The connection has been served: what there was to send, a ping included, was sent.
    void Served(Time now);
    /// For how long this client has been silent, when that may have cost the connection that has just been lost; else
    /// 0.
    Duration BeforeLoss(Time now) const;

private:
    const Duration limit;

    Time servedAt{};
    Duration silence{}; // the latest one that exceeded the limit
    Time silenceEnded{};
};

} // namespace OrvPlatform
