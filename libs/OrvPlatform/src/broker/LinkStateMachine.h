// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Backoff.h"
#include "broker/EvictionWatch.h"

#include <chrono>
#include <cstdint>

namespace OrvPlatform {

/// Decides what becomes of one connection to the broker: when it is attempted again, when an attempt is given up, and
/// which of its misfortunes deserve a record. Each event tells what the caller has to do about it. It has no socket, no
/// clock and no lock; times are passed in. Not safe for several threads at a time.
///
/// CLOSED --ConnectBegun--> CONNECTING --accepted--> UP --lost--> PAUSING --pause over--> RECONNECTING --accepted--> UP
/// CONNECTING and RECONNECTING fail to CLOSED and PAUSING; Close leads from anywhere to CLOSED.
class LinkStateMachine {
public:
    using Time = std::chrono::steady_clock::time_point;
    using Duration = std::chrono::steady_clock::duration;

    enum class State { CLOSED, CONNECTING, UP, PAUSING, RECONNECTING };

    /// A broker that is alive answers at once. A frozen one keeps every attempt in its backlog and wades through them
    /// when it thaws, so attempts are given time rather than repeated.
    static constexpr std::chrono::seconds RECONNECT_LIMIT{10};
    /// How often a connection that is up is looked after.
    static constexpr std::chrono::seconds MAINTENANCE_INTERVAL{1};

    /// @param seed of the random part of the pauses
    explicit LinkStateMachine(std::uint32_t seed) : backoff(seed) {}

    State Current() const { return state; }
    bool IsUp() const { return state == State::UP; }

    /// @name What the application does
    /// @{

    /// A connection is going to be made: refusals of former ones do not count any more.
    void Prepare();
    /// An attempt is under way and has to be answered by then.
    void ConnectBegun(Time deadline);
    void Close() { state = State::CLOSED; }
    /// @}

    /// @name What the broker does
    /// @{

    enum class Answer {
        IGNORED,     // there is a connection already
        REFUSED,     // the loss of the connection follows
        CONNECTED,   // the one that the application asked for
        RECONNECTED, // the session is to be restored, see IsRestorePending
    };
    /// The broker's answer to an attempt, also to one that was given up. 0: accepted.
    Answer Answered(int code, Time now);

    enum class Loss {
        IGNORED,         // of the socket of an attempt that was given up
        CONNECT_FAILED,  // the application's attempt; the link is closed
        CONNECTION_LOST, // it will be made again after a pause
        ATTEMPT_FAILED,  // to make it again; another follows after a pause
    };
    /// The socket is gone.
    /// @param likeEviction as a broker does that prefers another client with the same id
    Loss Lost(Time now, bool likeEviction);
    /// An attempt could not even begin.
    void AttemptFailed(Time now);
    /// @}

    /// @name What time does
    /// @{

    enum class Due {
        NOTHING,
        MAINTENANCE,       // of a connection that is up
        ATTEMPT_TIMED_OUT, // its socket stays until the next one: an answer that comes late is welcome
        RECONNECT,         // an attempt is to begin now
    };
    Due Advance(Time now);
    /// When Advance is to be called next, at the latest; long ago when the link is closed.
    Time NextDue(Time now) const;
    /// @}

    /// @name Restoring the session after a reconnection
    /// @{

    bool IsRestorePending() const { return restorePending; }
    /// To be called before anything is sent: a failure while restoring ends this connection, not the restoring of the
    /// next.
    void BeginRestore();
    /// How long there was no connection.
    Duration Outage(Time now) const { return now - lostAt; }
    /// @}

    /// @name What deserves a record
    /// @{

    /// The broker's refusal of the latest attempt; 0 for none.
    int Refusal() const { return refusal; }
    /// Whether a failed attempt was refused for another reason than the one before. Asked once for each.
    bool TakeNewRefusal();

    enum class LossReport { LOSS, EVICTION, NONE };
    /// How the latest loss is to be reported: as one, or once as another client with the same id.
    LossReport ReportOfLoss();
    /// The eviction has been reported.
    void EvictionReported() { evictionReported = true; }
    bool IsEvictionReported() const { return evictionReported; }
    /// @}

private:
    void Pause(Time now);

    State state = State::CLOSED;
    Time attemptEnds{};
    Time pauseEnds{};
    Time maintained{};
    Time lostAt{};
    int attempt = 0; // since the connection was lost
    int refusal = 0;
    int refusalReported = 0;
    bool restorePending = false;
    bool evictionReported = false;
    Backoff backoff;
    EvictionWatch evictions;
};

} // namespace OrvPlatform
