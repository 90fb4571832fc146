// SPDX-License-Identifier: Apache-2.0
// The poke for real: libcurl and a TLS peer on a loopback interface of the test's own, which plays both WAN interfaces.
// Runs under support/with-test-endpoint. Each test prints how long the ticks took.
#include "FakeConnman.h"
#include "FakeGateway.h"
#include "Journal.h"
#include "OrvRoute.h"

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <iostream>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace OrvStackSdk {
namespace {

using namespace std::chrono_literals;
using OrvPlatformFake::Entries;
using OrvPlatformFake::FakeGateway;
using OrvPlatformFake::Journal;
using OrvPlatformFake::Only;
using RealClock = std::chrono::steady_clock;

constexpr std::uint16_t PORT = 4433;
const std::string ENDPOINT = "127.0.0.1:4433";
const std::string ROUTE_TO_CELL = "log debug OrvRoute <Tick> \"poke success, route to Cell\"";
const std::string ROUTE_TO_ETHERNET = "log debug OrvRoute <Tick> \"poke success, route to ETH\"";
const std::string ABORTED = "log debug OrvRoute <Tick> \"poke cell aborted\"";

std::string PokeError(int code) {
    return "log error OrvRoute \"poke error " + std::to_string(code) + "\"";
}

/// A socket bound to an address of the private loopback interface.
class BoundSocket {
public:
    BoundSocket(int type, const char* address, std::uint16_t port)
        : descriptor(socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
        const int yes = 1;
        setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        const auto where = Address(address, port);
        usable = bind(descriptor, reinterpret_cast<const sockaddr*>(&where), sizeof where) == 0;
    }
    ~BoundSocket() { close(descriptor); }
    BoundSocket(const BoundSocket&) = delete;
    BoundSocket& operator=(const BoundSocket&) = delete;

    bool Listen() const { return usable && listen(descriptor, 8) == 0; }

    bool HasInput() const {
        pollfd waiting{descriptor, POLLIN, 0};
        return usable && ::poll(&waiting, 1, 0) == 1;
    }

    static sockaddr_in Address(const char* address, std::uint16_t port) {
        sockaddr_in result{};
        result.sin_family = AF_INET;
        result.sin_port = htons(port);
        inet_pton(AF_INET, address, &result.sin_addr);
        return result;
    }

private:
    int descriptor;
    bool usable = false;
};

/// A TLS server of its own process, ended with the object.
class TlsServer {
public:
    explicit TlsServer(const std::string& certificate) {
        const char* folder = std::getenv("ORV_ENDPOINT_DIR"); // NOLINT(concurrency-mt-unsafe)
        const std::string base = std::string(folder ? folder : ".") + "/" + certificate;
        std::vector<std::string> words{"openssl",     "s_server", "-accept",     ENDPOINT, "-cert",
                                       base + ".pem", "-key",     base + ".key", "-www",   "-quiet"};
        std::vector<char*> arguments;
        for (auto& word : words)
            arguments.push_back(word.data());
        arguments.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        for (const int descriptor : {0, 1, 2})
            posix_spawn_file_actions_addopen(&actions, descriptor, "/dev/null", O_RDWR, 0);
        started = posix_spawnp(&pid, "openssl", &actions, nullptr, arguments.data(), environ) == 0;
        posix_spawn_file_actions_destroy(&actions);
    }

    ~TlsServer() {
        if (!started)
            return;
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
    }
    TlsServer(const TlsServer&) = delete;
    TlsServer& operator=(const TlsServer&) = delete;

    bool IsReadyWithin(std::chrono::seconds limit) const {
        const auto deadline = RealClock::now() + limit;
        while (started && RealClock::now() < deadline) {
            const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            const auto where = BoundSocket::Address("127.0.0.1", PORT);
            const bool open = connect(probe, reinterpret_cast<const sockaddr*>(&where), sizeof where) == 0;
            close(probe);
            if (open)
                return true;
            std::this_thread::sleep_for(10ms);
        }
        return false;
    }

private:
    pid_t pid = 0;
    bool started = false;
};

class ThePokeOnRealSockets : public ::testing::Test {
protected:
    ThePokeOnRealSockets() {
        FakeGateway::Reset();
        FakeGateway::SetInterfaceName("Ethernet", "lo");
        FakeGateway::SetInterfaceName("Cellular", "lo");
        OrvPlatformFake::FakeConnman::Get().SetOrder({"lo"});
    }

    ~ThePokeOnRealSockets() override {
        if (durations.empty())
            return;
        std::sort(durations.begin(), durations.end());
        const auto microseconds = [](RealClock::duration duration) {
            return std::chrono::duration_cast<std::chrono::microseconds>(duration).count();
        };
        std::cout << durations.size() << " ticks, median " << microseconds(durations[durations.size() / 2])
                  << " us, worst " << microseconds(durations.back()) << " us\n";
    }

    void PokeOverCellular(const std::string& endpoint) {
        FakeGateway::SetCloudEndpoint(endpoint);
        route = std::make_unique<OrvRoute>(time.Now());
        route->UpdateRoute(false, false, true);
        route->Tick();
        time.Advance(10s);
        route->Tick();
        Journal::Clear();
    }

    void Tick() {
        const auto start = RealClock::now();
        route->Tick();
        durations.push_back(RealClock::now() - start);
    }

    /// The route's log lines, as soon as there are any; empty when there are none in time.
    Entries LogWithin(std::chrono::seconds limit) {
        const auto deadline = RealClock::now() + limit;
        while (RealClock::now() < deadline) {
            Tick();
            const auto log = Only(Journal::Take(), {"log"});
            if (!log.empty())
                return log;
            std::this_thread::sleep_for(5ms);
        }
        return {};
    }

    /// So that the route does not leave a poke behind.
    void Abort() {
        route->UpdateRoute(true, true, true);
        Journal::Clear();
        Tick();
        EXPECT_EQ(Only(Journal::Take(), {"log"}).back(), ABORTED);
    }

    OrvPlatformFake::VirtualClock<OrvRoute::Clock> time;
    std::unique_ptr<OrvRoute> route;
    std::vector<RealClock::duration> durations;
};

TEST_F(ThePokeOnRealSockets, SucceedsOnceTheTlsConnectionStandsOnEitherInterface) {
    const TlsServer server("good");
    ASSERT_TRUE(server.IsReadyWithin(10s));
    PokeOverCellular(ENDPOINT);
    EXPECT_EQ(LogWithin(15s), Entries{ROUTE_TO_CELL});
    route->Tick();
    route->UpdateRoute(true, true, true);
    route->Tick();
    Journal::Clear();
    EXPECT_EQ(LogWithin(15s), Entries{ROUTE_TO_ETHERNET});
}

TEST_F(ThePokeOnRealSockets, FailsWhenNobodyTrustsTheAuthority) {
    const TlsServer server("wrong");
    ASSERT_TRUE(server.IsReadyWithin(10s));
    PokeOverCellular(ENDPOINT);
    EXPECT_EQ(LogWithin(15s), Entries{PokeError(60)});
    Abort();
}

TEST_F(ThePokeOnRealSockets, FailsAtOnceWhereNobodyListensAndTriesAgain) {
    PokeOverCellular(ENDPOINT);
    EXPECT_EQ(LogWithin(15s), Entries{PokeError(7)});
    EXPECT_EQ(LogWithin(15s), Entries{PokeError(7)});
    const TlsServer server("good");
    ASSERT_TRUE(server.IsReadyWithin(10s));
    Entries log;
    const auto deadline = RealClock::now() + 15s;
    do
        log = LogWithin(15s);
    while (log == Entries{PokeError(7)} && RealClock::now() < deadline);
    EXPECT_EQ(log, Entries{ROUTE_TO_CELL});
}

TEST_F(ThePokeOnRealSockets, FailsOverAnInterfaceThatIsNotThere) {
    FakeGateway::SetInterfaceName("Cellular", "wwan9");
    PokeOverCellular(ENDPOINT);
    EXPECT_EQ(LogWithin(15s), Entries{PokeError(45)});
    Abort();
}

TEST_F(ThePokeOnRealSockets, FailsAfterFifteenSecondsOfSilence) {
    const BoundSocket silent(SOCK_STREAM, "127.0.0.1", PORT);
    ASSERT_TRUE(silent.Listen());
    PokeOverCellular(ENDPOINT);
    const auto start = RealClock::now();
    EXPECT_EQ(LogWithin(60s), Entries{PokeError(28)});
    EXPECT_GE(RealClock::now() - start, 14900ms);
    Abort();
}

TEST_F(ThePokeOnRealSockets, DoesNotWaitForAPendingNameLookUpWhenItIsAborted) {
    const BoundSocket muteNameServer(SOCK_DGRAM, "127.0.0.53", 53);
    PokeOverCellular("cloud.example");
    const auto deadline = RealClock::now() + 10s;
    while (!muteNameServer.HasInput() && RealClock::now() < deadline) {
        Tick();
        std::this_thread::sleep_for(5ms);
    }
    ASSERT_TRUE(muteNameServer.HasInput());
    Abort();
    // The look-up itself goes on for ten seconds.
    EXPECT_LT(*std::max_element(durations.begin(), durations.end()), 5s);
}

} // namespace
} // namespace OrvStackSdk
