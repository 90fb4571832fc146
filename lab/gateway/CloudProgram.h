// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "CloudConnection.h"
#include "EventLoop.h"
#include "gateway/CloudModel.h"
#include "gateway/Tasks.h"
#include "gateway/World.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace OrvLab {

/// The cloud connection and a mailbox on one event loop. Other threads leave work for it: the connection is opened,
/// closed, opened elsewhere, destroyed and made anew, while the name servers and the cloud have moods. At the end both
/// are well, and it has to be connected.
class CloudProgram {
public:
    CloudProgram(Simulation& simulation, std::uint64_t seed);
    void Run();

private:
    void Make();
    void Destroy();
    void Open(bool withSettings);
    void Close();
    void Act();
    void ActInCallback();
    void Poster(int number);
    void Weather();
    void Conduct();
    void Collect();
    void CheckRest();
    void End();
    void Call(const std::string& name, const std::function<void()>& call);
    void InCallback(const std::string& name, const std::function<void()>& body);
    void Start(const std::string& name, std::function<void()> body);
    int LookUps() const;
    bool IsLoopIdle() const;
    void OnLoop(const std::string& name, std::function<void()> work);
    GatewayApp::CloudSettings Settings(bool withHost);

    Simulation& sim;
    Random random;
    World world;
    CloudModel model;
    std::unique_ptr<GatewayApp::EventLoop> loop;
    std::unique_ptr<Tasks> tasks;
    std::unique_ptr<GatewayApp::CloudConnection> cloud;
    int loopThread = 0;
    int ownThreads = 1; // that have not ended, with the loop's
    std::vector<Simulation::Thread*> started;
    int depth = 0; // of calls
    bool inCallback = false;
    bool quiet = false; // nobody does anything any more
    int period = 1;     // of the keep-alive, in seconds
    bool sixIsDetour = false;
    unsigned refusals = 0; // of threads, one in so many
    GatewayApp::CloudSettings settings;
};

} // namespace OrvLab
