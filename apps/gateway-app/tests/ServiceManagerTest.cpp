// SPDX-License-Identifier: Apache-2.0
#include "ServiceManager.h"

#include "NoMoreDescriptors.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>

namespace GatewayApp {
namespace {

using namespace std::chrono_literals;

/// A service manager's end of the notification socket, with a name outside the file system.
class AServiceManager : public testing::Test {
protected:
    AServiceManager() : receiver(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        const std::string name = "@orv-test-" + std::to_string(getpid());
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path + 1, name.data() + 1, name.size() - 1);
        const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        bound = bind(receiver, reinterpret_cast<sockaddr*>(&address), size) == 0;
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
    }
    ~AServiceManager() override {
        close(receiver);
        for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"})
            unsetenv(name);
    }
    std::string Received() {
        char text[200];
        const ssize_t size = recv(receiver, text, sizeof(text), 0);
        return size < 0 ? "nothing" : std::string(text, static_cast<std::size_t>(size));
    }

    const int receiver;
    bool bound = false;
};

TEST_F(AServiceManager, IsNotified) {
    ASSERT_TRUE(bound);
    ServiceManager().Notify("READY=1");
    EXPECT_EQ(Received(), "READY=1");
}

TEST_F(AServiceManager, HearsOfAnApplicationThatHadNoSocketAtFirst) {
    auto none = std::make_unique<OrvTest::NoMoreDescriptors>();
    ServiceManager manager;
    manager.Notify("READY=1");
    none.reset();
    EXPECT_EQ(Received(), "nothing");
    manager.Notify("WATCHDOG=1");
    EXPECT_EQ(Received(), "WATCHDOG=1");
}

TEST_F(AServiceManager, IsPingedTwiceInItsWatchdogTime) {
    EXPECT_EQ(ServiceManager().WatchdogPeriod(), 0ms);
    setenv("WATCHDOG_USEC", "20000000", 1);
    EXPECT_EQ(ServiceManager().WatchdogPeriod(), 10s);
}

TEST_F(AServiceManager, IsNotPingedWhenItWatchesAnotherProcess) {
    setenv("WATCHDOG_USEC", "20000000", 1);
    setenv("WATCHDOG_PID", "1", 1);
    EXPECT_EQ(ServiceManager().WatchdogPeriod(), 0ms);
}

TEST(NoServiceManager, IsNoFault) {
    unsetenv("NOTIFY_SOCKET");
    ServiceManager manager;
    manager.Notify("READY=1");
    EXPECT_EQ(manager.WatchdogPeriod(), 0ms);
}

} // namespace
} // namespace GatewayApp
