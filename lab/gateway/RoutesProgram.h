// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "connman/SimulatedBus.h"
#include "gateway/KernelWeather.h"
#include "gateway/World.h"

#include <cstdint>
#include <string>

namespace OrvLab {

/// The whole of orv-source-routes, its main function too, between the kernel and a bus with a connection manager.
/// Whenever it waits, its entries have to be those that follow from what the kernel has; at its end there are none.
class RoutesProgram final : private BusListener {
public:
    RoutesProgram(Simulation& simulation, std::uint64_t seed);
    ~RoutesProgram();
    RoutesProgram(const RoutesProgram&) = delete;
    RoutesProgram& operator=(const RoutesProgram&) = delete;

    void Run();

private:
    /// What happens by itself: in the kernel, and on the bus.
    class Both final : public Surroundings {
    public:
        Both(Surroundings& one, Surroundings& other) : first(one), second(other) {}
        Time NextEvent() const override { return std::min(first.NextEvent(), second.NextEvent()); }
        void Advance(Time now) override {
            first.Advance(now);
            second.Advance(now);
        }

    private:
        Surroundings& first;
        Surroundings& second;
    };

    void Moved(const std::string& interfaceName) override;
    void Configured(const std::string& interfaceName, const std::vector<std::string>& servers) override;
    void Weather();
    void ChangeBus();
    void Collect();
    void CheckWhileItWaits();
    void ForgetRouterWithoutAddress(const std::string& name);
    /// @param told by the connection manager for the default interface
    void CheckAll(const std::string& told);

    Simulation& sim;
    Random random;
    World world;
    KernelWeather weather;
    SimulatedBus bus;
    Both both;
    int mainThread = 0;
    bool ended = false;
    bool quiet = false;
};

} // namespace OrvLab
