// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "sim/Random.h"
#include "sim/Simulation.h"

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace OrvLab {

/// The name servers: quick, slow, silent for minutes, or without an answer.
class Resolver {
public:
    enum class Mood { QUICK, SLOW, SILENT, REFUSING };

    Resolver(Simulation& simulation, std::uint64_t seed) : sim(simulation), random(seed) {}

    /// As getaddrinfo() by name: waits as long as the mood says.
    /// @return none when there is no answer
    std::vector<std::string> LookUp(const std::string& host);

    void SetMood(Mood now) { mood = now; }
    void SetAddresses(std::vector<std::string> those) { addresses = std::move(those); }
    const std::vector<std::string>& Addresses() const { return addresses; }
    /// Quick from now on; who waits gets an answer.
    void Heal();

    int UnderWay() const { return underWay; }
    int Asked() const { return asked; }
    /// A look-up has got its answer, or none.
    std::function<void()> onEnd;

private:
    Simulation& sim;
    Random random;
    Mood mood = Mood::QUICK;
    std::vector<std::string> addresses;
    std::uint64_t heals = 0;
    int underWay = 0;
    int asked = 0;
};

} // namespace OrvLab
