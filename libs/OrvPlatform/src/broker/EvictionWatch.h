// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>

namespace OrvPlatform {

/// Recognises two clients with one client id. A broker that accepts the second throws the first off, the first comes
/// back and throws the second off, and so on. Seen from one of them: the broker closes a young connection, takes the
/// very next attempt without having been away, and closes that one too.
class EvictionWatch {
public:
    using Time = std::chrono::steady_clock::time_point;

    /// A connection that lives longer was not the victim of such a pair: reconnection pauses are shorter.
    static constexpr std::chrono::seconds YOUNG{10};
    /// So many in a row are no coincidence.
    static constexpr int SUSPICIOUS = 3;

    /// The broker has accepted a connection at the given attempt since the last one was lost (more than 1: the broker
    /// was away meanwhile).
    void Accepted(Time now, int attempt);

    /// The broker has closed the connection; `silently` when it did so without an error.
    void Lost(Time now, bool silently);

    /// True while the pattern holds.
    bool Suspects() const { return evictions >= SUSPICIOUS; }

private:
    Time acceptedAt{};
    int evictions = 0;
};

} // namespace OrvPlatform
