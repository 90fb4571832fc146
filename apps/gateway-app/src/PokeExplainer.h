// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "EventLoop.h"
#include "PathProver.h"
#include "PokeDiagnosis.h"

#include <CommonUtils/Logger.h>
#include <OrvStackSdk/OrvEnums.h>

#include <functional>
#include <optional>
#include <string>

namespace GatewayApp {

/// Says over which interface, and as far as it can be known why, the client library's poke fails: when PokeDiagnosis
/// says so it makes a connection of its own to the endpoint, bound to that interface. One line for each cause, until
/// the poke succeeds. One thread.
class PokeExplainer {
public:
    struct Failure {
        PokeDiagnosis::Path path;
        PokeDiagnosis::Clock::duration took; ///< the look
        std::string reason;
        std::string line; ///< the same as a whole sentence, with the remedy
    };
    using OnFailure = std::function<void(const Failure& failure)>;

    /// @param endpoint what is poked, as gateway.ini names it; empty: there is nothing to explain
    /// @param failureReceiver told of each look that has failed
    PokeExplainer(EventLoop& eventLoop, std::string ethernet, std::string cellular, const std::string& endpoint,
                  OnFailure failureReceiver);

    /// @name What has happened
    /// @{
    void Reported(OrvStackSdk::OrvEvent event);
    void RouteHasMoved(bool toCellular);
    /// @}

    /// See PokeDiagnosis.
    std::optional<PokeDiagnosis::Time> CellularPokeBegan() const { return diagnosis.CellularBegan(); }

private:
    void OnTimer();
    void AfterChange();
    void OnProof(PokeDiagnosis::Path path, const PathProver::Result& result);

    const std::string ethernetName;
    const std::string cellularName;
    const OnFailure onFailure;
    const CloudSettings settings; // of the endpoint
    CommonUtils::Logger logger;
    PokeDiagnosis diagnosis;
    PathProver prover;
    Timer timer;
    PokeDiagnosis::Time proofBegun;
    std::string lastReported; // the last line, of the poke that goes on
};

} // namespace GatewayApp
