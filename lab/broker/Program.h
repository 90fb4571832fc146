// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "broker/Model.h"
#include "broker/ScriptedBroker.h"

#include "QuilMqtt/QueueOwner.h"

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace OrvLab {

class Program;

/// A QueueOwner that tells its model everything, and does something at random in its callbacks.
class LabClient final : public QUILMQTT::QueueOwner {
public:
    LabClient(Program& program, Model& model);
    ~LabClient() override;
    LabClient(const LabClient&) = delete;
    LabClient& operator=(const LabClient&) = delete;

    /// @name The calls, watched
    /// @{
    bool ConnectAsked(bool withWill);
    bool DisconnectAsked();
    bool SubscribeAsked(const std::string& filter, int qos);
    int PublishAsked(const std::string& topic, const std::string& payload, bool retained, bool assured);
    void StopAsked();
    /// @}

    Model& Story() { return model; }

protected:
    void OnPublish(const std::string& topic, const std::string& message) override;
    void OnConnect() override;
    void OnDeliveryCompleted(const std::string& topic) override;

private:
    template <typename Act>
    void Callback(const char* which, Act act);

    Program& program;
    Model& model;
    std::unique_ptr<int> canary; // a member that is gone when a callback comes too late
};

/// A call that must come back within a limit. The clock jumps only while everybody waits, so what a call has waited is
/// what the clock has jumped meanwhile.
class WatchedCall {
public:
    /// @param awaitsCallbacks the time does not count that a callback of this client takes
    WatchedCall(Program& program, Model& model, const char* name, Time limit, bool awaitsCallbacks);
    ~WatchedCall();
    WatchedCall(const WatchedCall&) = delete;
    WatchedCall& operator=(const WatchedCall&) = delete;

    void Jumped(Time by);

private:
    Program& program;
    Model& model;
    const char* const name;
    const Time limit;
    const bool awaitsCallbacks;
    const Time stallTimeBefore;
    Time waited = 0;
    std::list<WatchedCall*>::iterator place;
};

/// A program at random: some threads that call everything on some clients, and a broker with moods. At the end the
/// broker is well again, and everything that is owed is collected.
class Program {
public:
    Program(Simulation& simulation, std::uint64_t seed);
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    void Run();

    /// The same for a given program: each body on a thread of its own, all with one client, which is gone afterwards.
    void RunTogether(const std::vector<std::function<void(LabClient& client)>>& bodies);
    /// What is done in callbacks, in the place of something at random.
    std::function<void(LabClient& client)> inCallbacks;

    /// Something, by the thread that runs; in a callback with the client that was called.
    void ActAtRandom(LabClient* called);
    /// As an application's callback does that has gone wrong.
    void ThrowAtRandom();

    Simulation& sim;
    ScriptedBroker broker;
    std::list<WatchedCall*> calls;

private:
    void ApplicationThread();
    void TakeNumber();
    void BrokerThread();
    void Act(LabClient& client, std::shared_ptr<LabClient>& slot, bool inCallback);
    void SubscribeAtRandom(LabClient& client);
    void PublishAtRandom(LabClient& client);
    std::string Padding();
    void Pause();
    std::shared_ptr<LabClient> Make();
    void StayAway();
    void Collect();
    void CollectFrom(LabClient& client);
    void CheckRoom();
    void CheckNothingIsLeft();
    Model* Find(const std::string& name);
    static void Handed(const std::string& client, const Packet& publication);

    Random random;
    std::vector<std::unique_ptr<Model>> models; // of all clients, those that are gone too
    std::vector<std::shared_ptr<LabClient>> slots;
    int budget; // what is done in all, at most
    int payloads = 0;
    bool hasLittleRoom = false; // for publications and for what is announced again
    std::set<std::string> numbers;
    int threadsLeft = 0;
    bool isCollecting = false;
};

} // namespace OrvLab
