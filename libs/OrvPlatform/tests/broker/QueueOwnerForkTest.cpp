// SPDX-License-Identifier: Apache-2.0
// What a process shares with its children: nothing that they can spoil, and nothing that they inherit by exec.
#include "BrokerFixture.h"
#include "CountedNew.h"
#include "broker/ClientIdSuffix.h"

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <linux/sockios.h>
#include <memory>
#include <set>
#include <thread>

namespace OrvTest {

using QUILMQTT::QueueOwner;

class AForkedChild : public RealBrokerTest {
protected:
    AForkedChild() {
        EXPECT_TRUE(witness.Subscribe("#"));
        EXPECT_TRUE(client->Connect("will", "gone", true));
        EXPECT_TRUE(WaitUntil([&] { return client->Connects() == 1; }));
    }

    /// @return what the child's body has returned; -1 when the child was ended by a signal, such as the one that comes
    /// when it hangs
    static int InChild(const std::function<int()>& body) {
        const pid_t child = fork();
        if (child == 0) {
            alarm(20);
            _exit(body());
        }
        int status = 0;
        EXPECT_GT(child, 0);
        EXPECT_EQ(waitpid(child, &status, 0), child);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    /// That the parent's connection is the one that it was.
    void ExpectUndisturbed() {
        EXPECT_TRUE(IsUpToDate(*client));
        EXPECT_EQ(client->Connects(), 1);
        EXPECT_EQ(Logged("lost the connection"), 0U);
        EXPECT_EQ(Retained("will"), "(nothing)");
    }

    RawClient witness{broker.Port()};
    std::unique_ptr<TestClient> client = std::make_unique<TestClient>();
};

TEST_F(AForkedChild, ThatDestroysAClientLeavesTheParentsConnectionAlone) {
    EXPECT_EQ(InChild([this] {
                  client.reset();
                  return 7;
              }),
              7);
    ExpectUndisturbed();
}

TEST_F(AForkedChild, ThatExitsWithStaticObjectsLeavesTheParentsConnectionAlone) {
    static std::unique_ptr<TestClient> lastsUntilExit;
    lastsUntilExit = std::move(client);
    EXPECT_EQ(InChild([]() -> int { std::exit(7); }), 7);
    client = std::move(lastsUntilExit);
    ExpectUndisturbed();
}

TEST_F(AForkedChild, ThatDestroysAClientWhoseThreadHasEndedLives) {
    std::atomic<bool> done{false};
    client->onMessage = [&](const std::string& topic, const std::string&) {
        if (topic == "go") {
            client->Disconnect(); // the thread ends by itself and waits to be joined
            done = true;
        }
    };
    ASSERT_TRUE(client->Subscribe("go", 0));
    ASSERT_EQ(client->PublishMessage("go", "", false), 0);
    ASSERT_TRUE(WaitUntil([&] { return done.load(); }));
    EXPECT_EQ(InChild([this]() -> int {
                  client.reset();
                  // ThreadSanitizer would take the thread, which a child cannot join, for a leak when it sees the end.
                  syscall(SYS_exit_group, 7);
                  return 1;
              }),
              7);
}

TEST_F(AForkedChild, IsRefusedByAClientOfItsParent) {
    EXPECT_EQ(InChild([this] {
                  client->StopDelivery();
                  const bool refused = !client->Connect() && !client->Subscribe("a", 1) && !client->Disconnect() &&
                                       client->PublishMessage("a", "x", true) == QueueOwner::NOT_CONNECTED &&
                                       client->PublishRetainedMessage("a", "x", true) == QueueOwner::NOT_CONNECTED;
                  return refused && Logged("this object was made before a fork and belongs to the parent process; make "
                                           "another one\"") == 1
                             ? 7
                             : 1;
              }),
              7);
    ExpectUndisturbed();
}

#ifndef ORV_NO_THREADS_AFTER_FORK
TEST_F(AForkedChild, MayHaveAClientOfItsOwn) {
    EXPECT_EQ(InChild([] {
                  TestClient own("child");
                  return own.Connect() && own.PublishRetainedMessage("from the child", "x", true) == 0 &&
                                 own.Disconnect()
                             ? 7
                             : 1;
              }),
              7);
    EXPECT_EQ(Retained("from the child"), "x");
    ExpectUndisturbed();
}
#endif

TEST_F(AForkedChild, HangsOnNoLockThatWasHeldWhenItWasMade) {
    std::atomic<bool> stop{false};
    std::thread publisher([&] {
        while (!stop)
            client->PublishMessage("topic", "x", false);
    });
    for (int child = 0; child < 50; ++child)
        EXPECT_EQ(InChild([this] {
                      client->StopDelivery();
                      client.reset();
                      return 7;
                  }),
                  7);
    stop = true;
    publisher.join();
    ExpectUndisturbed();
}

#ifndef ORV_ALLOCATIONS_NOT_COUNTED
TEST_F(AForkedChild, ThatDestroysAClientNeedsNoMemoryForIt) {
    EXPECT_EQ(InChild([this] {
                  for (int allocation = 1; client != nullptr; allocation = 0) {
                      FailAllocation(allocation);
                      client.reset();
                  }
                  return 7;
              }),
              7);
}
#endif

TEST_F(AForkedChild, MayNumberItsClientsThoughItsParentDoesSoAtThatMoment) {
    std::atomic<bool> stop{false};
    std::thread parent([&] {
        while (!stop)
            OrvPlatform::ClientIdSuffix("%n", "numbered", "program");
    });
    for (int child = 0; child < 200 && !HasFailure(); ++child)
        EXPECT_EQ(InChild([] { return OrvPlatform::ClientIdSuffix("%n", "child", "program") == "1" ? 7 : 1; }), 7);
    stop = true;
    parent.join();
}

class AConnection : public RealBrokerTest {
protected:
    static std::set<int> Descriptors() {
        std::set<int> open;
        DIR* folder = opendir("/proc/self/fd");
        while (const dirent* entry = readdir(folder))
            if (const int descriptor = std::atoi(entry->d_name); descriptor != dirfd(folder) && entry->d_name[0] != '.')
                open.insert(descriptor);
        closedir(folder);
        return open;
    }

    /// Those that were opened while the client was made and connected, without what is open for a moment only.
    std::set<int> OwnDescriptors() {
        const auto before = Descriptors();
        client = std::make_unique<TestClient>();
        EXPECT_TRUE(client->Connect());
        std::set<int> own;
        EXPECT_TRUE(WaitUntil([&] {
            own = Descriptors();
            for (const int descriptor : before)
                own.erase(descriptor);
            return own.size() == 4;
        }));
        return own;
    }

    std::unique_ptr<TestClient> client;
};

TEST_F(AConnection, HasNoDescriptorThatAnotherProgramInherits) {
    const auto own = OwnDescriptors();
    for (const int descriptor : own)
        EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0) << descriptor;
    // A connection that is made again keeps to that.
    broker.Restart();
    ASSERT_TRUE(WaitUntil([&] { return client->Connects() == 2; }));
    for (const int descriptor : own)
        EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0) << descriptor;
}

TEST_F(AConnection, HasNoSuchDescriptorThoughOthersAreMadeAtTheSameTime) {
    constexpr int AT_ONCE = 6;
    const auto before = Descriptors();
    for (int round = 0; round < 10 && !HasFailure(); ++round) {
        std::vector<std::unique_ptr<TestClient>> clients;
        for (int number = 0; number < AT_ONCE; ++number)
            clients.push_back(std::make_unique<TestClient>("client" + std::to_string(number)));
        std::atomic<int> ready{0};
        std::vector<std::thread> threads;
        for (auto& one : clients)
            threads.emplace_back([&] {
                for (++ready; ready < AT_ONCE;) {
                }
                EXPECT_TRUE(one->Connect());
            });
        for (auto& thread : threads)
            thread.join();
        for (const int descriptor : Descriptors())
            if (before.count(descriptor) == 0) {
                EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0) << descriptor;
            }
    }
}

TEST_F(AConnection, TakesNoMoreOfTheKernelsMemoryTheMoreItPublishes) {
    const auto own = OwnDescriptors();
    for (int number = 0; number < 2000; ++number)
        ASSERT_TRUE(WaitUntil([&] { return client->PublishMessage("topic", "x", false) == 0; }));
    ASSERT_TRUE(IsUpToDate(*client));
    int unread = 0;
    for (const int descriptor : own) {
        int bytes = 0;
        if (ioctl(descriptor, SIOCOUTQ, &bytes) == 0)
            unread += bytes;
    }
    EXPECT_LT(unread, 10000);
    RecordProperty("unread", unread);
}

TEST_F(AConnection, TouchesNoSocketsOfTheApplication) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair), 0);
    int before = 0;
    int after = 0;
    socklen_t size = sizeof before;
    getsockopt(pair[0], SOL_SOCKET, SO_SNDBUF, &before, &size);
    OwnDescriptors();
    getsockopt(pair[0], SOL_SOCKET, SO_SNDBUF, &after, &size);
    EXPECT_EQ(before, after);
    for (const int end : pair) {
        EXPECT_EQ(fcntl(end, F_GETFD) & FD_CLOEXEC, 0);
        close(end);
    }
}

} // namespace OrvTest
