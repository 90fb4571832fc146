// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "gateway/KernelWeather.h"
#include "gateway/World.h"
#include "sim/Random.h"

#include <cstdint>
#include <functional>
#include <string>

namespace OrvLab {

/// The connection manager as its contract shows it to an application: the interface that was ordered last comes to the
/// top as soon as it has a service, otherwise the other one, and whoever is on top has the default route. It takes its
/// time, may not obey, and may be away.
class ConnectionManager {
public:
    ConnectionManager(World& its, KernelWeather& itsWeather, std::uint64_t seed);
    ~ConnectionManager();
    ConnectionManager(const ConnectionManager&) = delete;
    ConnectionManager& operator=(const ConnectionManager&) = delete;

    static ConnectionManager* Present();

    /// Something happens to it.
    void Change();
    /// From now on it is there and does what it was asked for.
    void Heal();
    /// It looks after the kernel's network, as after each change there.
    void Follow();

    /// Told when the default route has moved.
    std::function<void()> onMoved;

    std::string Top() const { return away ? "" : top; }
    bool Order(const std::string& interface);
    const std::string& Ordered() const { return ordered; }
    bool HasService(const std::string& interface) const;

private:
    void LookAround();

    World& world;
    KernelWeather& weather;
    Random random;
    bool obeys = true;
    bool away = false;
    Time slowness = 10 * MILLISECOND;
    std::string top;
    std::string ordered = "eth0";
};

} // namespace OrvLab
