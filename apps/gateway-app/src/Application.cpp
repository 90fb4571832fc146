// SPDX-License-Identifier: Apache-2.0
#include "Application.h"

#include "Callbacks.h"
#include "Clock.h"
#include "log/LogLevel.h"

#include <ConnInterfaceString.h>
#include <GatewayMainBaseUnits/IpInterfacesMapping.h>
#include <OrvResources/StaticConfigStore.h>
#include <sys/epoll.h>
#if __has_include(<OrvPlatform/Settings.h>)
#include <OrvPlatform/Settings.h>
#define PLATFORM_RELOADS_LOG_LEVELS
#endif

#include <csignal>
#include <stdexcept>
#include <utility>

namespace GatewayApp {

using namespace std::chrono_literals;
using namespace OrvStackSdk;

namespace {

constexpr int ENDPOINT = 0;

std::string InterfaceName(const char* path) {
    return GatewayMainBaseUnits::IpInterfacesMapping::GetInstance().GetInterfaceName(path);
}

WanInterfaces ConfiguredInterfaces() {
    return WanInterfaces(InterfaceName("Ethernet"), InterfaceName("Cellular"));
}

} // namespace

Application::Application(AppOptions appOptions, std::vector<std::string> commandLine)
    : arguments(std::move(commandLine)),
      options(std::move(appOptions)),
      lock(options.lock),
      logger("GatewayApp", OrvLog::INFO),
      transcript(options.transcript),
      randomness(std::random_device()()),
      signals({SIGTERM, SIGINT, SIGHUP, SIGUSR1}),
      mailbox(std::make_shared<Mailbox>()),
      startTimer(loop, [this] { TryStart(); }),
      tickTimer(loop, [this] { Tick(); }),
      watchdogTimer(loop, [this] { manager.Notify("WATCHDOG=1"); }),
      moveTimer(loop, [this] { FollowMoves(); }),
      startBackOff(500ms, 5s, [this] { return std::generate_canonical<double, 32>(randomness); }),
      network(loop, ConfiguredInterfaces(),
              {[this](const WanInterfaces::Events& events) { OnNetworkEvents(events); },
               [this](const std::string& interface) { OnDefaultRoute(interface); }}),
      cloud(loop, options.cloud,
            {[this](const std::string& source) { OnCloudConnected(source); },
             [this](const std::string& reason) { OnCloudLost(reason); },
             [this](const std::string& reason, std::chrono::milliseconds delay) { OnCloudFailed(reason, delay); },
             [this] { return CloudKeepAlive(); }, [this](const std::string& source) { return IsDetour(source); }},
            [this] { return std::generate_canonical<double, 32>(randomness); }),
      ethernetGuard(
          loop, InterfaceName("Ethernet"), options.cloud, [this](OrvEvent event) { Report(event); },
          [this] { ShowStatus(); }, [this] { cloud.Reopen("Ethernet has been proved"); }),
      pokeExplainer(loop, InterfaceName("Ethernet"), InterfaceName("Cellular"),
                    OrvResources::CreateStaticConfigStore()->GetValue(ENDPOINT),
                    [this](const PokeExplainer::Failure& failure) { OnPokeFailed(failure); }),
      hindrance(InterfaceName("Cellular")),
      rhythm(options.tick),
      moves(PathOf(network.DefaultInterface()), Now()),
      statusWriter(loop, options.statusFile, [this] { return StatusText(); }),
      lastCloudLoss("it was not reached since the start"),
      cloudLostAt(Now()),
      lastMoveAt(Now()) {
    runStatus.started = runStatus.cloudSince = runStatus.routeSince = Moment::Now();
    runStatus.cloudReason = "not connected since the start";
    WatchCsv();
    callbacks = std::make_shared<Callbacks>(
        mailbox, Callbacks::Receiver{[this](AppAction action) { OnAction(action); },
                                     [this](const std::string& line) { logger.Info() << line; }});
}

Application::~Application() = default;

void Application::Run() {
    if (!lock.Missing().empty())
        logger.Warning() << lock.Missing() << ": a second gateway-app on this gateway would not be noticed";
    if (OrvResources::CreateStaticConfigStore()->GetValue(ENDPOINT).empty()) {
        runStatus.hindrance = "the WAN route will never move: gateway.ini names no endpoint to prove a path with. Set "
                              "endpoint = HOST in [cloud], and start the application anew";
        neverMoves = true;
        logger.Warning() << runStatus.hindrance;
    }
    loop.Watch(signals.Descriptor(), EPOLLIN, [this](std::uint32_t) { OnSignal(); });
    loop.Watch(mailbox->ReadyDescriptor(), EPOLLIN, [this](std::uint32_t) { mailbox->DoAll(); });
    if (manager.WatchdogPeriod() > 0ms)
        watchdogTimer.Every(manager.WatchdogPeriod());
    WarnOfCredentials();
    Record("start", {{"default_route", JsonText(network.DefaultInterface())}});
    statusWriter.Write();
    startTimer.Once(0ms);
    cloud.Reopen("start");
    // Ready means that it runs and obeys; the gateway's broker may still be on its way up.
    manager.Notify("READY=1\nSTATUS=connecting to the gateway's broker");
    loop.Run();
    manager.Notify("STOPPING=1\nSTATUS=stopping");
    Stop();
    loop.Forget(mailbox->ReadyDescriptor());
    loop.Forget(signals.Descriptor());
}

bool Application::CreateClient() {
    try {
        client = OrvStackSdk::CreateClient();
    } catch (const std::runtime_error& error) {
        logger.Warning() << "no client yet: " << error.what();
        return false;
    }
    client->SetHandler(callbacks);
    return true;
}

void Application::TryStart() {
    // These two calls may wait for the broker, 3 s each; the watchdog's limit allows for it.
    const bool confirmed = (client || CreateClient()) && (client->Init(options.name), callbacks->Confirmed());
    if (confirmed)
        return Started();
    const std::chrono::milliseconds delay = startBackOff.Next();
    logger.Warning() << "the gateway's broker does not answer, trying again in " << delay.count() << " ms";
    Record("broker_unreachable", {{"retry_ms", std::to_string(delay.count())}});
    startTimer.Once(delay);
}

void Application::Started() {
    client->Start();
    started = true;
    ethernetGuard.InterfacesAre(network.Wan());
    const bool enabled = !options.cloud.host.empty();
    Report(enabled ? OrvEvent::PANEL_CLOUD_ENABLED : OrvEvent::PANEL_CLOUD_DISABLED);
    for (const OrvEvent event : network.Wan().State())
        Report(event);
    Report(CloudState());
    if (failed)
        Report(OrvEvent::FAILURE);
    client->AppStatusRequest(AppStatus::READY);
    lastTick = Now(); // there was none yet
    if (csvWatch)
        csvWatch->SetActive(true);
    SetTickTimer();
    logger.Info() << options.name << " is ready";
    ShowStatus();
    Record("ready", {});
}

void Application::Tick() {
    const auto now = Now();
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(now - lastTick);
    tickDurations.Measure([&] { client->Tick(elapsed); });
    lastTick = now;
    rhythm.Ticked(Now());
    nextTick = {};
    FollowCloudPath();
    if (client->CloudReconnectNeeded())
        OnRouteMoved();
    CheckDefaultRoute();
    FollowHindrance();
    SetTickTimer();
}

void Application::Stop() {
    ownDoing = true;
    cloud.Close();
    csvWatch.reset();
    tickTimer.Stop();
    startTimer.Stop();
    if (client) {
        client->Stop();
        client->DeInit();
        client.reset();
    }
    started = false;
    runStatus.running = false;
    statusWriter.Write();
    Record("end", {{"tick", tickDurations.Json()}, {"event_update", eventDurations.Json()}});
    const auto us = [](std::chrono::nanoseconds time) {
        return std::chrono::duration_cast<std::chrono::microseconds>(time).count();
    };
    logger.Info() << "ended; " << tickDurations.Count() << " ticks, the longest took " << us(tickDurations.Longest())
                  << " us, " << eventDurations.Count() << " events, the longest took " << us(eventDurations.Longest())
                  << " us";
}

void Application::OnSignal() {
    while (const int number = signals.Take()) {
        Record("signal", {{"number", std::to_string(number)}});
        if (number == SIGHUP) {
            Reload();
        } else if (number == SIGUSR1) {
            // Stands for the product's own self-test.
            logger.Error() << "a failure was reported by SIGUSR1";
            failed = true;
            Report(OrvEvent::FAILURE);
        } else {
            logger.Info() << "ending on " << (number == SIGINT ? "SIGINT" : "SIGTERM");
            loop.Quit();
        }
    }
}

void Application::OnNetworkEvents(const WanInterfaces::Events& events) {
    // A probation that ends with this news tells of Ethernet's address itself.
    const bool onProbation = ethernetGuard.OnProbation();
    ethernetGuard.InterfacesAre(network.Wan());
    for (const OrvEvent event : events) {
        if (onProbation && EthernetGuard::IsAboutAddress(event))
            Withhold(event);
        else
            Report(event);
    }
    // The connection cannot outlive its own address; the kernel would find out only seconds later.
    const std::string owner = network.Wan().OwnerOf(cloud.Source());
    if (owner == cloudInterface)
        return;
    if (!cloudInterface.empty())
        return cloud.Reopen("its address " + cloud.Source() + " is gone");
    // The address was away while the broker answered, and is back. The connection is as old as it was.
    cloudInterface = owner;
    runStatus.cloudReason = "connected over " + CloudInterfaceText();
    ShowStatus();
}

void Application::OnDefaultRoute(const std::string& interface) {
    logger.Debug() << (interface.empty() ? "there is no default route" : "the default route is now over " + interface);
    Record("default_route", {{"interface", JsonText(interface)}});
    defaultRouteSince = Now();
    runStatus.routeSince = Moment::Now();
    moves.DefaultRouteIs(PathOf(interface), defaultRouteSince);
    FollowMoves();
    statusWriter.Changed();
    rhythm.RouteMoves(defaultRouteSince);
    SetTickTimer();
    if (interface.empty())
        return;
    // An attempt keeps the path on which it began; so does a connection that was made between the two moves.
    const bool awaited = std::exchange(awaitedDefault, {}) == interface;
    ownDoing = true;
    if (!cloud.Connected())
        cloud.Reopen("the default route has changed");
    else if (awaited && cloudInterface != interface)
        cloud.Reopen("the default route has followed");
    ownDoing = false;
}

const char* Application::FamilyOf(const std::string& address) {
    return address.find(':') == std::string::npos ? "IPv4" : "IPv6";
}

/// The two families may have their default routes over different interfaces.
bool Application::IsDetour(const std::string& source) const {
    const std::string interface = network.Wan().OwnerOf(source);
    return !interface.empty() && !network.DefaultInterface().empty() && interface != network.DefaultInterface();
}

std::string Application::CloudInterfaceText() const {
    return cloudInterface.empty() ? "another interface" : cloudInterface;
}

void Application::OnCloudConnected(const std::string& source) {
    lastCloudFailure.clear();
    cloudInterface = network.Wan().OwnerOf(source);
    logger.Info() << "connected to the cloud, from " << source
                  << (cloudInterface.empty() ? std::string() : " over " + cloudInterface);
    Record("cloud_connected", {{"source", JsonText(source)},
                               {"interface", JsonText(cloudInterface)},
                               {"family", JsonText(FamilyOf(source))}});
    ethernetGuard.CloudIs(true);
    Report(OrvEvent::CLOUD_CONNECTED);
    CloudChanged("connected over " + CloudInterfaceText());
}

void Application::OnCloudLost(const std::string& reason) {
    cloudInterface.clear();
    (ownDoing ? logger.Info() : logger.Warning()) << "the cloud connection has ended: " << reason;
    Record("cloud_lost", {{"reason", JsonText(reason)}});
    ethernetGuard.CloudIs(false);
    Report(OrvEvent::CLOUD_DISCONNECTED);
    if (!ownDoing) {
        ++runStatus.counters.cloudLosses;
        lastCloudLoss = reason;
        cloudLostAt = Now();
    }
    CloudChanged(reason);
}

void Application::CloudChanged(const std::string& reason) {
    runStatus.cloudSince = Moment::Now();
    runStatus.cloudReason = reason;
    cloudChanged = true;
    ShowStatus();
}

void Application::OnCloudFailed(const std::string& reason, std::chrono::milliseconds delay) {
    // Once for each reason: an outage lasts longer than a log.
    if (reason != lastCloudFailure)
        logger.Warning() << "no connection to the cloud: " << reason << "; trying again, now in " << delay.count()
                         << " ms";
    lastCloudFailure = reason;
    statusWriter.Changed();
    if (reason.rfind("the broker refused", 0) == 0)
        ethernetGuard.CloudRefused();
    else
        ethernetGuard.CloudFailed();
    Record("cloud_failed", {{"reason", JsonText(reason)}, {"retry_ms", std::to_string(delay.count())}});
}

void Application::OnAction(AppAction action) {
    logger.Info() << "ordered to: " << action;
    Record("action", {{"action", JsonText(AppActionText(action))}});
    if (action == AppAction::RELOAD)
        Reload();
}

void Application::Reload() {
#ifdef PLATFORM_RELOADS_LOG_LEVELS
    OrvPlatform::ReloadLogLevels(); // says itself what has become of it
#endif
    if (started)
        client->AppStatusRequest(AppStatus::BOOTING);
    try {
        const ReloadedOptions reloaded = ReloadOptions(options, arguments);
        const bool other = reloaded.options.cloud != options.cloud;
        if (reloaded.options.tick != options.tick)
            rhythm.SetFixed(reloaded.options.tick);
        options = reloaded.options;
        WarnOfCredentials();
        ethernetGuard.SettingsAre(options.cloud);
        logger.Info() << "options read anew" << (other ? ", the cloud is another one" : "");
        if (!reloaded.waiting.empty() && reloaded.waiting != waitingOptions)
            logger.Warning() << "changed options that are taken at the next start only: " << reloaded.waiting;
        waitingOptions = reloaded.waiting;
        SetTickTimer();
        if (other) {
            Report(options.cloud.host.empty() ? OrvEvent::PANEL_CLOUD_DISABLED : OrvEvent::PANEL_CLOUD_ENABLED);
            ownDoing = true;
            cloud.Reopen(options.cloud, "other cloud settings");
            ownDoing = false;
            ShowStatus();
        }
    } catch (const OptionsError& error) {
        logger.Error() << "options not read, the old ones stay: " << error.text;
    }
    Record("reload", {});
    if (started)
        client->AppStatusRequest(AppStatus::READY);
}

void Application::Report(OrvEvent event) {
    logger.Info() << "event " << event;
    if (started)
        SendEvent(event);
    Record("event", {{"event", JsonText(OrvEventText(event))}, {"reported", JsonBool(started)}});
}

void Application::Withhold(OrvEvent event) {
    logger.Info() << "event " << event << ", not reported: Ethernet is on probation";
    Record("event", {{"event", JsonText(OrvEventText(event))}, {"reported", "false"}});
}

void Application::SendEvent(OrvEvent event) {
    eventDurations.Measure([&] { client->EventUpdateRequest(event); });
    rhythm.Reported(event, Now());
    pokeExplainer.Reported(event);
    if (csvWatch)
        csvWatch->Reported(event);
    SetTickTimer();
}

OrvEvent Application::CloudState() const {
    return cloud.Connected() ? OrvEvent::CLOUD_CONNECTED : OrvEvent::CLOUD_DISCONNECTED;
}

/// The time of the next tick is brought forward when there is reason to, never put off.
void Application::SetTickTimer() {
    if (!started)
        return;
    const auto now = Now();
    const std::chrono::milliseconds delay = rhythm.Next(now);
    if (nextTick != std::chrono::steady_clock::time_point() && nextTick <= now + delay)
        return;
    nextTick = now + delay;
    tickTimer.Once(delay);
}

void Application::ShowStatus() {
    std::string status = "no cloud connection";
    if (cloud.Connected())
        status = "cloud over " + CloudInterfaceText();
    if (cloudChanged)
        status += " since " + runStatus.cloudSince.utc;
    if (ethernetGuard.OnProbation())
        status += ", Ethernet on probation";
    manager.Notify("STATUS=" + status);
    statusWriter.Changed();
}

void Application::Record(const std::string& what, const Transcript::Fields& fields) {
    Transcript::Fields all = fields;
    all.emplace_back("cloud", JsonBool(cloud.Connected()));
    all.emplace_back("path", JsonText(ConnInterfaceString));
    transcript.Write(what, all);
}

} // namespace GatewayApp
