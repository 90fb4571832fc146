// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "EventLoop.h"
#include "Mailbox.h"
#include "NetworkWatcher.h"
#include "gateway/KernelWeather.h"
#include "gateway/NetworkModel.h"
#include "gateway/World.h"

#include <cstdint>
#include <memory>
#include <string>

namespace OrvLab {

/// The watcher of the kernel's network on an event loop, while everything changes. Whenever the loop waits, what it
/// knows has to be what the kernel has, and the events that it has told have to lead there, one for each change.
class WatcherProgram {
public:
    WatcherProgram(Simulation& simulation, std::uint64_t seed);
    void Run();

private:
    struct Told {
        bool running = false;
        bool address = false;
    };
    void Weather();
    void OnEvents(const GatewayApp::WanInterfaces::Events& events);
    void OnDefaultRoute(const std::string& interface);
    void Enter(const char* name);
    void CheckPicture();
    void Ask();

    Simulation& sim;
    Random random;
    World world;
    KernelWeather weather;
    std::unique_ptr<GatewayApp::EventLoop> loop;
    std::unique_ptr<GatewayApp::NetworkWatcher> watcher;
    int loopThread = 0;
    bool inCallback = false;
    Told told[2];
    std::string toldDefault;
};

/// Whether that thread waits for events, and nothing holds it up.
bool IsIdle(const Simulation& simulation, const Simulation::Thread* thread, const char* waiting);

} // namespace OrvLab
