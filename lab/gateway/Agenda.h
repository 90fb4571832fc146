// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "sim/Simulation.h"

#include <functional>
#include <map>
#include <utility>

namespace OrvLab {

/// What is going to happen by itself, in its order.
class Agenda final : public Surroundings {
public:
    void At(Time time, std::function<void()> what) { events.emplace(time, std::move(what)); }

    Time NextEvent() const override { return events.empty() ? NEVER : events.begin()->first; }
    void Advance(Time now) override {
        while (!events.empty() && events.begin()->first <= now) {
            const std::function<void()> what = std::move(events.begin()->second);
            events.erase(events.begin());
            what();
        }
    }

private:
    std::multimap<Time, std::function<void()>> events;
};

} // namespace OrvLab
