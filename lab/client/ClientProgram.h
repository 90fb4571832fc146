// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "OrvStackSdk/IOrvStackClient.h"
#include "OrvStackSdk/IOrvStackClientHandler.h"
#include "client/Neighbour.h"
#include "client/Scene.h"
#include "client/Story.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace OrvLab {

class ClientProgram;

/// The application's callbacks: each does something at random.
class LabHandler final : public OrvStackSdk::IOrvStackClientHandler {
public:
    explicit LabHandler(ClientProgram& where) : program(where) {}

    void OnInitConfirmation(const OrvStackSdk::Confirmation& confirmation) override;
    void OnAppActionIndication(const OrvStackSdk::AppAction& action) override;
    void OnAppStatusIndication(const std::string& app, const OrvStackSdk::AppStatus& status) override;
    void OnDeviceProbeIndication(const std::string& guid) override;
    void OnDeviceOnlineStatusIndication(bool online) override;
    void OnDeviceCellularStatusIndication(const OrvStackSdk::CellularStatus& status, const std::string& value) override;
    void OnFeatureShutdownReadinessIndication(const std::string& app, bool ready) override;

private:
    ClientProgram& program;
};

/// An application at random, on a gateway with moods: one thread that makes all calls, others that report events and
/// tick, a broker, a connection manager, a cloud, and somebody else in the folder of the status files. At the end all
/// is well, and everything that is owed is collected.
class ClientProgram : public Scene {
public:
    ClientProgram(Simulation& simulation, std::uint64_t seed);
    ~ClientProgram();
    ClientProgram(const ClientProgram&) = delete;
    ClientProgram& operator=(const ClientProgram&) = delete;

    void Run();
    void Called(const std::string& what, bool isConfirmation);

private:
    using Client = std::shared_ptr<OrvStackSdk::IOrvStackClient>;

    void ApplicationThread();
    void HelperThread();
    void GatewayThread();
    void Pause();

    void ActAtRandom(bool inCallback);
    void Create();
    void Init();
    void DeInit();
    void Release(bool inConfirmation);
    void ReleaseHandler();
    void Report(int event);
    void Tick();
    void Ask();
    void RequestAtRandom();
    void SendAtRandom();
    Time ReactAtRandom();
    std::string AnyText();
    std::string OwnName() const;
    int AnyNumber(unsigned limit);
    /// A call that is watched. Keeps the client alive, so that another thread may release it meanwhile.
    template <typename Body>
    std::shared_ptr<Call> Watched(Call::Kind kind, const std::string& name, const std::string& text, int value,
                                  Time limit, Body body);
    void AwaitQuiet();
    bool IsInUse() const; // by a call or by a message

    void Collect();
    void Tour();
    void CheckRetained();
    void CheckTogether();
    void CheckDelivery();
    void ComeAndGo();
    void CheckRoute();
    void CheckFiles();
    void CheckEnd(int wills);

    std::unique_ptr<Neighbour> neighbour; // in some courses

    std::vector<std::unique_ptr<Story>> stories;
    Story* story = nullptr; // of the present client
    Client client;
    std::shared_ptr<LabHandler> handler;
    int budget;
    int threadsLeft = 0;
    bool isApplicationRunning = true;
    bool helpersTick;
    bool isCollecting = false;
    bool isAsking = false;
    bool isInInit = false;
    bool isHeldByInit = true;
    bool isConfirming = false;
    bool isReleasing = false;
    int calls = 0;     // that are in the client
    int callbacks = 0; // that are under way
};

} // namespace OrvLab
