// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "AppOptions.h"
#include "CloudConnection.h"
#include "CsvWatch.h"
#include "DurationHistogram.h"
#include "EthernetGuard.h"
#include "EventLoop.h"
#include "FailOverHindrance.h"
#include "InstanceLock.h"
#include "Mailbox.h"
#include "NetworkWatcher.h"
#include "PokeExplainer.h"
#include "RouteContradiction.h"
#include "RouteMoves.h"
#include "RunStatus.h"
#include "ServiceManager.h"
#include "StatusWriter.h"
#include "TickRhythm.h"
#include "Transcript.h"
#include "signals/Signals.h"

#include <CommonUtils/Logger.h>
#include <OrvStackSdk/OrvStackSdk.h>

#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace GatewayApp {

class Callbacks;

/// The application: brings the kernel's news and the cloud connection's state to the client library, ticks it, and
/// connects to the cloud anew when it says so. Every call of the library is made on the thread that calls Run.
class Application {
public:
    /// @param commandLine without the program's name; read again on a reload
    /// @throws std::system_error
    /// @throws AnotherInstance
    Application(AppOptions appOptions, std::vector<std::string> commandLine);
    ~Application();

    /// Runs until SIGTERM or SIGINT. Both, and SIGHUP and SIGUSR1, must be blocked in every thread.
    /// @throws std::system_error
    void Run();

private:
    friend class Callbacks;

    // The client library's life
    void TryStart();
    bool CreateClient();
    void Started();
    void Tick();
    void Stop();

    // What comes from outside; all on the loop's thread
    void OnSignal();
    void OnNetworkEvents(const WanInterfaces::Events& events);
    void OnDefaultRoute(const std::string& interface);
    void OnCloudConnected(const std::string& source);
    void OnCloudLost(const std::string& reason);
    void CloudChanged(const std::string& reason);
    void OnCloudFailed(const std::string& reason, std::chrono::milliseconds delay);
    void OnAction(OrvStackSdk::AppAction action);
    void Reload();

    void Report(OrvStackSdk::OrvEvent event);
    void Withhold(OrvStackSdk::OrvEvent event);
    void SendEvent(OrvStackSdk::OrvEvent event);
    OrvStackSdk::OrvEvent CloudState() const;
    KeepAlive CloudKeepAlive() const;
    bool IsDetour(const std::string& source) const;
    std::string CloudInterfaceText() const;
    static const char* FamilyOf(const std::string& address);
    void WarnOfCredentials();
    void SetTickTimer();
    void FollowCloudPath();
    void OnRouteMoved();
    void CheckDefaultRoute();
    void ShowStatus();
    void WatchCsv();
    void RepairCsv();

    // What it tells about itself
    RouteMoves::Path PathOf(const std::string& interface) const;
    void FollowMoves();
    void FollowHindrance();
    void OnPokeFailed(const PokeExplainer::Failure& failure);
    std::string ReasonOf(const RouteMoves::Move& move) const;
    void RecordPoke(RouteMoves::Path path, bool good, std::optional<std::chrono::steady_clock::duration> atMost,
                    const std::string& text, const std::string& knownFrom);
    std::string StatusText();
    void Record(const std::string& what, const Transcript::Fields& fields);

    // Fixed at construction
    const std::vector<std::string> arguments;
    AppOptions options;
    const InstanceLock lock;
    CommonUtils::Logger logger;

    // The parts, in the order in which they need each other
    EventLoop loop;
    ServiceManager manager;
    Transcript transcript;
    std::mt19937 randomness;
    OrvSignals::Signals signals;
    std::shared_ptr<Mailbox> mailbox; // shared with the library's thread by way of the callbacks
    Timer startTimer;
    Timer tickTimer;
    Timer watchdogTimer;
    Timer moveTimer;
    BackOff startBackOff;
    NetworkWatcher network;
    CloudConnection cloud;
    EthernetGuard ethernetGuard;
    PokeExplainer pokeExplainer;
    FailOverHindrance hindrance;
    TickRhythm rhythm;
    RouteContradiction contradiction;
    RouteMoves moves;
    StatusWriter statusWriter;
    std::unique_ptr<CsvWatch> csvWatch; // none when its folder cannot be watched

    // The client library, and whether it has come so far that events can be reported
    std::shared_ptr<Callbacks> callbacks;
    std::shared_ptr<OrvStackSdk::IOrvStackClient> client;
    bool started = false;
    bool failed = false;       // FAILURE was reported
    bool neverMoves = false;   // the route: there is no endpoint
    bool ownDoing = false;     // the end of a cloud connection is the application's own doing, and no loss
    bool cloudChanged = false; // the cloud connection was made once
    bool csvForeign = false;   // said already
    bool csvQuarrel = false;

    std::string cloudInterface;   // the WAN interface that the cloud connection runs over; empty: none, or another one
    std::string lastCloudFailure; // as logged; empty after a success
    std::string lastCloudLoss;    // the reason
    std::string awaitedDefault;   // the default route's new interface when the library has moved first; else empty
    std::chrono::steady_clock::time_point cloudLostAt; // for the last time
    std::chrono::steady_clock::time_point lastMoveAt;  // of the route; at first when this was made
    RunStatus runStatus;
    GrowingCount cellularReceived;
    GrowingCount cellularSent;
    std::chrono::steady_clock::time_point defaultRouteSince; // when it last changed; at first the beginning of time
    std::chrono::steady_clock::time_point lastTick;
    std::chrono::steady_clock::time_point nextTick;
    std::string cloudPath;      // ConnInterfaceString as it was last seen
    std::string waitingOptions; // for the next start, as they were last logged
    DurationHistogram tickDurations;
    DurationHistogram eventDurations;
};

} // namespace GatewayApp
