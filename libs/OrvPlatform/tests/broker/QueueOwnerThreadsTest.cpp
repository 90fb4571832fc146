// SPDX-License-Identifier: Apache-2.0
// The thread that callbacks run on: when they end, what it waits on, and many threads at once.
#include "CallbackFixture.h"

#include <arpa/inet.h>
#include <atomic>
#include <fcntl.h>
#include <filesystem>
#include <future>
#include <memory>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace OrvTest {

TEST_F(ACallback, UnderWayIsTheLastOneOnceStopDeliveryReturns) {
    TestClient client;
    std::atomic<int> inside{0};
    std::atomic<int> calls{0};
    client.onMessage = [&](const std::string&, const std::string&) {
        ++inside;
        ++calls;
        std::this_thread::yield();
        --inside;
    };
    ASSERT_TRUE(client.Connect());
    ASSERT_TRUE(client.Subscribe("flood", 0));
    for (int round = 0; round < 20; ++round) {
        for (int number = 0; number < 50; ++number)
            client.PublishMessage("flood", std::to_string(number), false);
        ASSERT_TRUE(WaitUntil([&] { return calls > 0; }));
        client.StopDelivery();
        EXPECT_EQ(inside, 0);
        const int seen = calls;
        client.PublishMessage("flood", "after", true);
        WaitUntil([&] { return calls != seen; }, 5ms);
        EXPECT_EQ(calls, seen);
        ASSERT_TRUE(client.Connect());
        ASSERT_TRUE(client.Subscribe("flood", 0));
        calls = 0;
    }
}

TEST_F(ACallback, DoesNotBeginOnceDisconnectHasReturned) {
    std::atomic<int> calls{0};
    TestClient client;
    client.onMessage = [&](const std::string&, const std::string&) { ++calls; };
    for (int round = 0; round < 20; ++round) {
        calls = 0;
        ASSERT_TRUE(client.Connect());
        ASSERT_TRUE(client.Subscribe("flood", 0));
        for (int number = 0; number < 100; ++number)
            client.PublishMessage("flood", std::to_string(number), false);
        ASSERT_TRUE(WaitUntil([&] { return calls > 0; }));
        ASSERT_TRUE(client.Disconnect());
        // One that was under way may be between the library and its first line: let it come out.
        const int seen = calls;
        WaitUntil([&] { return calls > seen + 1; }, 2ms);
        EXPECT_LE(calls, seen + 1);
    }
}

/// Set in a thread, it notes when the thread has ended: a while after the thread's last function has returned.
struct EndOfThread {
    ~EndOfThread() {
        if (ended) {
            WaitUntil([] { return false; }, 50ms);
            *ended = true;
        }
    }

    std::atomic<bool>* ended = nullptr;
};

TEST_F(ACallback, RunsOnAThreadThatHasEndedWhenDisconnectReturns) {
    std::atomic<bool> ended{false};
    std::atomic<bool> inside{false};
    TestClient client;
    client.onConnect = [&] {
        thread_local EndOfThread end;
        end.ended = &ended;
        inside = true;
    };
    ASSERT_TRUE(client.Connect());
    ASSERT_TRUE(WaitUntil([&] { return inside.load(); }));
    client.StopDelivery(); // a callback that is under way would not be waited for
    ASSERT_TRUE(client.Disconnect());
    EXPECT_TRUE(ended);
}

/// Like a class without a callback of its own worth stopping: its destructor is the base's.
class PlainClient : public QUILMQTT::QueueOwner {
public:
    PlainClient(std::atomic<bool>& begun, std::shared_future<void> end, std::atomic<bool>& ended)
        : QueueOwner("plain"), inside(begun), released(std::move(end)), left(ended) {}

    void OnConnect() override {
        std::atomic<bool>& done = left; // the members are gone when it is released
        const std::shared_future<void> until = released;
        inside = true;
        until.wait();
        done = true;
    }

private:
    std::atomic<bool>& inside;
    const std::shared_future<void> released;
    std::atomic<bool>& left;
};

TEST_F(ACallback, UnderWayIsWaitedForByTheDestructorOfTheBase) {
    std::promise<void> release;
    std::atomic<bool> inside{false};
    std::atomic<bool> left{false};
    auto client = std::make_unique<PlainClient>(inside, release.get_future().share(), left);
    ASSERT_TRUE(client->Connect());
    ASSERT_TRUE(WaitUntil([&] { return inside.load(); }));
    auto destroying = std::async(std::launch::async, [&] { client.reset(); });
    EXPECT_EQ(destroying.wait_for(300ms), std::future_status::timeout);
    release.set_value();
    destroying.get();
    EXPECT_TRUE(left);
}

TEST_F(ACallback, AndADestructionUnderLoadDoNotMeet) {
    std::atomic<bool> stop{false};
    std::thread flood([&] {
        RawClient other(broker.Port());
        for (int number = 0; !stop; ++number)
            other.Publish({"flood", std::to_string(number), number % 50 == 0 ? 1 : 0, false, false, 0});
    });
    for (int round = 0; round < 30; ++round) {
        TestClient client;
        ASSERT_TRUE(client.Connect("will", "gone", false));
        ASSERT_TRUE(client.Subscribe("flood", 0));
        ASSERT_TRUE(WaitUntil([&] { return client.ReceivedCount() > 0; }));
    }
    stop = true;
    flood.join();
}

/// While it lives, the process may have as many descriptors as its hard limit allows.
class AsManyDescriptorsAsAllowed {
public:
    AsManyDescriptorsAsAllowed() {
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
        const rlimit most{before.rlim_max, before.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &most), 0);
    }
    ~AsManyDescriptorsAsAllowed() { setrlimit(RLIMIT_NOFILE, &before); }
    AsManyDescriptorsAsAllowed(const AsManyDescriptorsAsAllowed&) = delete;
    AsManyDescriptorsAsAllowed& operator=(const AsManyDescriptorsAsAllowed&) = delete;

    rlim_t Count() const { return before.rlim_max; }

private:
    rlimit before{};
};

TEST_F(ACallback, ComesOnDescriptorsAbove1024Too) {
    const AsManyDescriptorsAsAllowed allowed;
    std::vector<Descriptor> occupied;
    while (occupied.empty() || occupied.back().Get() < 1100) {
        occupied.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
        ASSERT_TRUE(occupied.back()) << "the hard limit is " << allowed.Count() << " descriptors";
    }
    TestClient client;
    ASSERT_TRUE(client.Connect());
    EXPECT_TRUE(IsUpToDate(client));
    EXPECT_TRUE(client.Disconnect());
}

TEST_F(ACallback, IsAwaitedOnADescriptorThatNoOtherProgramInherits) {
    TestClient client;
    int found = 0;
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
        std::error_code none;
        const auto target = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), none);
        if (target != "anon_inode:[eventfd]")
            continue;
        ++found;
        EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
    }
    EXPECT_EQ(found, 1);
}

TEST_F(ACallback, IsServedByASocketThatNoOtherProgramInherits) {
    TestClient client;
    ASSERT_TRUE(client.Connect());
    int connections = 0;
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
        sockaddr_in peer{};
        socklen_t size = sizeof peer;
        if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &size) != 0 || peer.sin_family != AF_INET ||
            ntohs(peer.sin_port) != broker.Port())
            continue;
        ++connections;
        EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
        int atOnce = 0;
        socklen_t length = sizeof atOnce;
        getsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &atOnce, &length);
        EXPECT_EQ(atOnce, 1) << "small publications in a row would wait for each other's acknowledgement";
    }
    EXPECT_EQ(connections, 1);
}

class ACallbackThatTakesItsTime : public RealBrokerTest {
protected:
    /// A client in the first of a hundred callbacks, most of which wait for it.
    ACallbackThatTakesItsTime() {
        client.onMessage = [this](const std::string&, const std::string&) { released.wait(); };
        EXPECT_TRUE(client.Connect() && client.Subscribe("go", 0));
        for (int number = 0; number < 100; ++number)
            client.PublishMessage("go", std::to_string(number), false);
        EXPECT_TRUE(WaitUntil([this] { return client.ReceivedCount() == 1; }));
    }

    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    TestClient client;
};

TEST_F(ACallbackThatTakesItsTime, IsTheLastOneWhenTheClientDisconnectsMeanwhile) {
    EXPECT_TRUE(client.Disconnect());
    release.set_value();
    ASSERT_TRUE(client.Connect());
    ASSERT_TRUE(IsUpToDate(client));
    EXPECT_EQ(client.ReceivedCount(), 2U) << "the first message and the mark";
}

TEST_F(ACallbackThatTakesItsTime, IsTheLastOneAndWaitedForWhenDeliveryIsStopped) {
    auto stopping = std::async(std::launch::async, [this] { client.StopDelivery(); });
    EXPECT_EQ(stopping.wait_for(20ms), std::future_status::timeout);
    release.set_value();
    stopping.get();
    EXPECT_EQ(client.ReceivedCount(), 1U);
}

TEST_F(ACallback, IsNotNeededByFourThreadsThatCallEverythingAtOnce) {
    TestClient client;
    ASSERT_TRUE(client.Connect());
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([&client, number] {
            for (int round = 0; round < 25; ++round) {
                client.Subscribe("t/#", 1);
                client.PublishMessage("t/" + std::to_string(number), "x", round % 2 == 0);
                if (round % 5 == number)
                    client.Connect("will", "gone", false);
                if (round % 7 == number)
                    client.Disconnect();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_TRUE(client.Connect());
    EXPECT_TRUE(IsUpToDate(client));
}

} // namespace OrvTest
