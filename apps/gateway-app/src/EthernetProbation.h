// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <deque>
#include <optional>

namespace GatewayApp {

/// Decides when Ethernet has to prove itself before it may carry the route again, so that an Ethernet that is only half
/// dead does not pull the route to and fro. While it is on probation its address is to be reported as lost.
///
/// The first return is free. A second move to Cellular within ten minutes, or a third within an hour, begins a
/// probation of one minute. Each further one within an hour begins a longer probation, with proofs that are held for
/// longer: the longest ones watch Ethernet nearly all the time. After the fifth move within an hour the probation lasts
/// until the first of them is an hour old. It ends
///  - when Ethernet has proved itself: several connections to the cloud in a row, spread over the probation;
///  - when Cellular has no address or link any more, at once: any path is better;
///  - when Cellular does not reach the cloud for some seconds and Ethernet does, by one proof, and then Cellular is
///    tried once more and fails: the cloud may have come back on both;
///  - when the cloud has been away for a quarter of an hour, whatever the proofs say.
///
/// Events and time in, decisions out: no socket, no clock, no lock. One thread.
class EthernetProbation {
public:
    using Clock = std::chrono::steady_clock;
    using Time = Clock::time_point;
    enum class End : int { NONE, PROVED, CELLULAR_LOST, CLOUD_LOST, CLOUD_LOST_FOR_LONG, MOVED };

    /// A connection to the cloud over Ethernet that is to be tried.
    struct Proof {
        /// For how long it must show signs of life.
        std::chrono::seconds hold;
    };

    /// @name What has happened
    /// @{
    /// The route has moved to Cellular. @return true when a probation begins
    bool MovedToCellular(Time now);
    /// Not to be expected on probation; it ends one.
    void MovedToEthernet(Time now);
    void CloudIs(bool connected, Time now);
    /// The cloud's broker has answered over Cellular and refused: the path is good, another one would not help.
    void CloudRefused();
    /// An attempt to connect to the cloud has failed otherwise.
    void CloudFailed(Time now);
    /// Link and address. Unusable ends a probation.
    void CellularIs(bool usable, Time now);
    void EthernetIs(bool usable, Time now);
    /// A proof has ended, the one that was asked for last.
    /// @return true when the cloud is to be tried over Cellular at once, in an attempt of its own. CloudIs,
    ///         CloudRefused or CloudFailed tells the end of that attempt.
    [[nodiscard]] bool Proved(bool good, Time now);
    /// Time has passed.
    void Passed(Time now);
    /// @}

    /// Ethernet's address is to be reported as lost.
    bool Active() const { return active; }
    /// Why the last probation has ended; NONE while there is one, and before the first.
    End Ended() const { return ended; }
    /// For how long Ethernet has to prove itself at least.
    std::chrono::seconds Length() const { return length; }

    /// The proof that is due. Asked for, it counts as begun and must be answered by Proved. A proof that is held for
    /// long is given up for a quick one when Cellular does not reach the cloud.
    std::optional<Proof> Due(Time now);
    /// When to ask for a proof, and call Passed, again; none without a probation or while there is nothing to wait for
    /// but the end of a proof.
    std::optional<Time> NextDue() const;

private:
    bool IsAgain(Time now);
    void Lift(End reason, Time now);
    void BeginSeries(Time now);
    bool CloudAwayFor(Clock::duration time, Time now) const;
    bool CellularFails(Time now) const;

    bool active = false;
    End ended = End::NONE;
    bool cellularUsable = false;
    bool ethernetUsable = false;
    std::optional<Proof> proving;
    bool refused = false;
    bool ethernetReaches = false; // the cloud, and whether Cellular does is being tried
    std::optional<Time> cloudAwaySince = Time();
    std::deque<Time> failOvers;  // the moves to Cellular of the last hour, at most five
    std::optional<Time> counted; // the last move to Cellular, or the end of the probation that followed it
    unsigned level = 0;          // how many probations this series has had before
    Time begun;
    std::chrono::seconds length{0};
    unsigned good = 0; // proofs in a row
    Time nextProof;
    Time nextWithoutCloud; // the same while the cloud is away on Cellular
};

} // namespace GatewayApp
