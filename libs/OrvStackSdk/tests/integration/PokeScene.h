// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "FakeConnman.h"
#include "FakeGateway.h"
#include "Journal.h"
#include "OrvRoute.h"

#include <atomic>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

namespace OrvStackSdk::Testing {

using namespace std::chrono_literals;
using OrvPlatformFake::Entries;
using OrvPlatformFake::FakeGateway;
using OrvPlatformFake::Journal;
using OrvPlatformFake::Only;
using Addresses = std::map<std::string, std::string>;
using Names = std::vector<std::string>;
using RealClock = std::chrono::steady_clock;

constexpr std::uint16_t PORT = 4433;
inline const std::string ENDPOINT = "127.0.0.1:4433";
inline const std::string ENDPOINT_BY_NAME = "cloud.example:4433";
inline const std::string ROUTE_TO_CELL = "log debug OrvRoute <Tick> \"poke success, route to Cell\"";
inline const std::string ROUTE_TO_ETHERNET = "log debug OrvRoute <Tick> \"poke success, route to ETH\"";
inline const std::string ABORTED = "log debug OrvRoute <Tick> \"poke cell aborted\"";

std::string PokeError(int code);

/// Runs a program, found on the PATH and without output, to its end; true when that was a good one.
bool RunToEnd(std::vector<std::string> words);

/// A socket bound to an address of the private loopback interface.
class BoundSocket {
public:
    BoundSocket(int type, const char* address, std::uint16_t port);
    ~BoundSocket();
    BoundSocket(const BoundSocket&) = delete;
    BoundSocket& operator=(const BoundSocket&) = delete;

    bool Listen() const;
    int Descriptor() const { return descriptor; }

    static sockaddr_in Address(const char* address, std::uint16_t port);

private:
    int descriptor;
    bool usable = false;
};

/// The system's only name server. It answers for the names it was told and is mute for all others.
class NameServer {
public:
    explicit NameServer(Addresses addresses = {});
    ~NameServer();
    NameServer(const NameServer&) = delete;
    NameServer& operator=(const NameServer&) = delete;

    /// From now on, and for questions that wait.
    void Answer(const std::string& name, const std::string& address);

    /// Each name once, in the order of the first questions.
    Names Asked() const;

private:
    struct Question;

    void Serve();
    void Note(const std::string& name);
    bool Reply(const Question& question) const;

    const BoundSocket socket;
    mutable std::mutex mutex;
    Addresses known;
    Names asked;
    std::atomic<bool> ended{false};
    std::thread thread;
};

/// A TLS server of its own process, ended with the object.
class TlsServer {
public:
    /// @param certificate one of those that support/with-test-endpoint makes
    explicit TlsServer(const std::string& certificate);
    ~TlsServer();
    TlsServer(const TlsServer&) = delete;
    TlsServer& operator=(const TlsServer&) = delete;

    bool IsReadyWithin(std::chrono::seconds limit) const;

private:
    pid_t pid = 0;
    bool started = false;
};

/// A route on a virtual clock that pokes with the real libcurl. Prints how long the ticks took.
class ThePokeOnRealSockets : public ::testing::Test {
protected:
    ThePokeOnRealSockets();
    ~ThePokeOnRealSockets() override;

    void PokeOverCellular(const std::string& endpoint);
    void Tick();

    /// The route's log lines, as soon as there are any; empty when there are none in time.
    Entries LogWithin(std::chrono::seconds limit);

    /// So that the route does not leave a poke behind.
    void Abort();

    RealClock::duration LongestTick() const;

    OrvPlatformFake::VirtualClock<OrvRoute::Clock> time;
    std::unique_ptr<OrvRoute> route;
    std::vector<RealClock::duration> durations;
};

} // namespace OrvStackSdk::Testing
