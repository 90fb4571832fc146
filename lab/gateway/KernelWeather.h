// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "gateway/World.h"

#include <cstdint>
#include <string>

namespace OrvLab {

/// What happens to the kernel's network on a gateway: cables, modems, leases, routers, the connection manager's routes
/// and other people's, of both families, for the interfaces eth0 and wwan0.
class KernelWeather {
public:
    KernelWeather(World& its, std::uint64_t seed) : world(its), random(seed) {}

    /// Both interfaces with an address and a router each, eth0 first, as after a boot.
    void Boot();
    void Act();
    /// As the connection manager does it. Nobody: there is none.
    void MoveDefault(const std::string& name);
    /// What is under way comes to its end.
    void Settle();

    /// An interface that was renamed gets only its own name back, so that no address is on both.
    bool givesNamesBack = false;

private:
    std::string AnyInterface() { return random.OneIn(2) ? "eth0" : "wwan0"; }
    void ChangeLink(const std::string& name);
    void Rename(const std::string& name);
    void ChangeFour(const std::string& name);
    void ChangeSix(const std::string& name);
    void ChangeDefault();
    void Interfere();
    void Storm();
    void PutFour(const std::string& name, unsigned number);
    void PutSix(const std::string& name);
    void Advertise(const std::string& name, Time lifetime);
    KernelRoute DefaultOf(const std::string& name, std::uint32_t metric) const;

    World& world;
    Random random;
    std::string renamed; // what old0 was
};

} // namespace OrvLab
