// SPDX-License-Identifier: Apache-2.0
#include "gateway/Resolver.h"

namespace OrvLab {

std::vector<std::string> Resolver::LookUp(const std::string& host) {
    ++asked;
    ++underWay;
    const Mood then = mood;
    sim.Trace("    resolver: looks for " + host);
    const int longest = then == Mood::SILENT ? 90'000 : then == Mood::SLOW ? 8000 : 40;
    const std::uint64_t healsBefore = heals;
    sim.Wait(
        "getaddrinfo", [&] { return heals != healsBefore; },
        sim.Now() + static_cast<Time>(random.Below(static_cast<unsigned>(longest))) * MILLISECOND);
    --underWay;
    if (onEnd)
        onEnd();
    const bool silent = then == Mood::SILENT && random.OneIn(2); // or the answer has come at last
    const bool answers = healsBefore != heals || (then != Mood::REFUSING && !silent);
    sim.Trace(std::string("    resolver: ") + (answers ? "answers" : "has no answer"));
    return answers ? addresses : std::vector<std::string>{};
}

void Resolver::Heal() {
    mood = Mood::QUICK;
    ++heals;
}

} // namespace OrvLab
