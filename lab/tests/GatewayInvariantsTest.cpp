// SPDX-License-Identifier: Apache-2.0
// What the explorer of the gateway's programs demands of them, broken on purpose.
#include "EventLoop.h"
#include "gateway/CloudModel.h"
#include "gateway/Tasks.h"
#include "gateway/World.h"

#include <OrvNetlink/Socket.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <functional>
#include <memory>

#include <gtest/gtest.h>

namespace OrvLab {

namespace {

using GatewayApp::Mailbox;
using namespace std::chrono_literals;

/// Takes a cloud connection's place.
struct Scene {
    explicit Scene(Simulation& simulation) : sim(simulation), world(sim, 1), model(world) {
        model.lookUps = [] { return 0; };
        world.resolver.SetAddresses({"198.51.100.1", "198.51.100.2"});
        world.cloud.Heal();
        sim.DisableStalls();
        sim.SetJumpListener([this](Time) { model.Jumps(); });
    }
    std::shared_ptr<CloudSocket> Connect(const std::string& address) {
        model.Dials(address);
        auto socket = world.cloud.Connect(address);
        ++world.clients;
        sim.Sleep(SECOND / 10);
        return socket;
    }
    void GetConnected() {
        model.Opens(true);
        model.LookUpBegins();
        standing = Connect("198.51.100.1");
        model.Introduces(*standing);
        model.Connected(standing->source);
    }
    void LoseIt() {
        standing->closed = true;
        --world.clients;
        model.Lost();
    }

    Simulation& sim;
    World world;
    CloudModel model;
    std::shared_ptr<CloudSocket> standing;
};

void RunAll(const std::function<void(Scene&)>& program) {
    for (std::uint64_t seed = 0; seed < 5; ++seed) {
        Simulation simulation(seed, false);
        Scene scene(simulation);
        simulation.Run([&] { program(scene); });
        simulation.SetSurroundings(nullptr);
    }
}

void Fails(const std::function<void(Scene&)>& program, const char* text) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(RunAll(program), testing::ExitedWithCode(Simulation::FAILED), text);
}

} // namespace

TEST(AnInvariantOfTheCloudConnection, LetsAConnectionStandThatIsMadeInGoodOrder) {
    RunAll([](Scene& scene) {
        scene.GetConnected();
        scene.sim.Sleep(20 * SECOND);
        scene.standing->Break(ECONNRESET);
        scene.LoseIt();
        scene.sim.Sleep(SECOND);
        scene.model.LookUpBegins();
        scene.model.Failed(400ms);
        scene.sim.Sleep(400 * MILLISECOND);
        scene.model.LookUpBegins();
        scene.model.Closes();
        scene.sim.Sleep(60 * SECOND);
    });
}

TEST(AnInvariantOfTheCloudConnection, LetsNobodyConnectBehindClose) {
    const auto closed = [](Scene& scene) {
        scene.model.Opens(true);
        scene.model.Closes();
    };
    Fails([&](Scene& scene) { closed(scene), scene.model.LookUpBegins(); }, "looks for the cloud, and nobody wants");
    Fails([&](Scene& scene) { closed(scene), scene.model.Dials("198.51.100.1"); }, "no attempt is under way");
    Fails([&](Scene& scene) { closed(scene), scene.model.Connected(""); }, "is connected, and nobody wants that");
    Fails([&](Scene& scene) { closed(scene), scene.model.Failed(400ms); }, "an attempt fails, and there is none");
}

TEST(AnInvariantOfTheCloudConnection, LetsNoAttemptLastForLong) {
    Fails(
        [](Scene& scene) {
            scene.model.Opens(true);
            scene.sim.Sleep(5 * SECOND + SECOND / 10);
            scene.sim.Sleep(SECOND);
        },
        "an attempt does not end within 5 s");
}

TEST(AnInvariantOfTheCloudConnection, WantsTheNextAttemptInTime) {
    const auto failed = [](Scene& scene, Time wait) {
        scene.model.Opens(true);
        scene.model.LookUpBegins();
        scene.model.Failed(400ms);
        scene.sim.Sleep(wait);
    };
    Fails([&](Scene& scene) { failed(scene, SECOND / 10), scene.model.LookUpBegins(); }, "too soon");
    Fails([&](Scene& scene) { failed(scene, SECOND), scene.sim.Sleep(SECOND); }, "does not try again");
    Fails([](Scene& scene) { scene.model.Opens(true), scene.model.LookUpBegins(), scene.model.Failed(900ms); },
          "waits 900 ms before the next attempt");
    Fails([](Scene& scene) { scene.model.Opens(true), scene.model.Failed(400ms); },
          "the name servers have not been asked");
}

TEST(AnInvariantOfTheCloudConnection, WantsALossToBeNoticedAndNothingElse) {
    Fails([](Scene& scene) { scene.GetConnected(), scene.LoseIt(); }, "gives up a connection that is good");
    Fails(
        [](Scene& scene) {
            scene.GetConnected();
            scene.standing->FallSilent(NEVER);
            scene.sim.Sleep(4 * SECOND);
            scene.sim.Sleep(SECOND);
        },
        "does not notice that its path is silent");
    Fails(
        [](Scene& scene) {
            scene.GetConnected();
            scene.standing->Say(Said::END);
            scene.sim.Sleep(SECOND);
            scene.sim.Sleep(SECOND);
        },
        "does not notice that its connection has ended");
}

TEST(AnInvariantOfTheCloudConnection, WantsOneAddressAfterTheOther) {
    const auto asking = [](Scene& scene) { scene.model.Opens(true), scene.model.LookUpBegins(); };
    Fails([&](Scene& scene) { asking(scene), scene.Connect("198.51.100.1"), scene.model.Dials("198.51.100.2"); },
          "goes on to the next address before 250 ms");
    Fails(
        [&](Scene& scene) {
            asking(scene), scene.Connect("198.51.100.1");
            scene.sim.Sleep(SECOND);
            scene.sim.Sleep(SECOND);
        },
        "does not go on to the next address");
    Fails(
        [&](Scene& scene) {
            asking(scene);
            const auto first = scene.Connect("198.51.100.1");
            scene.sim.Sleep(SECOND / 5);
            const auto second = scene.Connect("198.51.100.2");
            first->greeted = second->greeted = true;
            scene.model.Greets(*first);
            scene.model.Greets(*second);
        },
        "drives too many handshakes at a time");
    Fails([](Scene& scene) { scene.GetConnected(), ++scene.world.clients, scene.model.CheckOpen(); },
          "keeps other connections");
    Fails([](Scene& scene) { scene.GetConnected(), scene.model.Introduces(*scene.standing); }, "sends CONNECT");
}

TEST(AnInvariantOfTheMailbox, WantsEveryTaskInItsOrderAndNoneToLieThere) {
    const auto with = [](const std::function<void(Tasks&, Mailbox&)>& body) {
        return [body](Scene& scene) {
            const auto box = std::make_shared<Mailbox>();
            Tasks tasks(scene.sim, box, scene.sim.Self().number);
            body(tasks, *box);
        };
    };
    RunAll(with([](Tasks& tasks, Mailbox& box) {
        tasks.Post("one", [] {});
        tasks.Post("two", [] {});
        box.DoAll();
        tasks.Jumps();
    }));
    Fails(with([](Tasks& tasks, Mailbox& /*box*/) { tasks.Post("one", [] {}), tasks.Jumps(); }), "lies in the mailbox");
    Fails(with([](Tasks& tasks, Mailbox& box) { tasks.Post("one", [] {}), tasks.LoopEnds(), box.DoAll(); }),
          "behind the end of the loop");
    Fails(with([](Tasks& tasks, Mailbox& box) {
              tasks.Post("one", [&] { tasks.Post("two", [] {}), box.DoAll(); }), box.DoAll();
          }),
          "a task is done inside another");
}

TEST(AnEventLoopOfTheLab, ForgetsADescriptorThatIsClosedThoughItsNumberComesAgain) {
    RunAll([](Scene& scene) {
        GatewayApp::EventLoop loop;
        auto first = std::make_unique<Mailbox>();
        const int number = first->ReadyDescriptor();
        loop.Watch(number, 1, [&](std::uint32_t) { scene.sim.Fail("tells of a descriptor that is closed"); });
        first.reset();
        Mailbox second;
        ASSERT_EQ(second.ReadyDescriptor(), number);
        second.Post([] {});
        GatewayApp::Timer end(loop, [&] { loop.Quit(); });
        end.Once(10ms);
        loop.Run();
    });
}

TEST(AScriptedKernel, TellsOfWhatItHadToDrop) {
    RunAll([](Scene& scene) {
        ScriptedKernel& kernel = scene.world.kernel;
        kernel.Heal();
        OrvNetlink::Socket listener(RTMGRP_LINK);
        OrvNetlink::Socket asking;
        const auto ignore = [](const nlmsghdr&) {};
        kernel.SetCarrier("lan0", false);
        EXPECT_TRUE(listener.ReadNotifications(ignore));
        for (int count = 0; count < 1001; ++count)
            kernel.Chatter();
        EXPECT_FALSE(listener.ReadNotifications(ignore));
        EXPECT_TRUE(listener.ReadNotifications(ignore));

        int told = 0;
        EXPECT_TRUE(asking.Dump(RTM_GETLINK, AF_UNSPEC, [&](const nlmsghdr&) { ++told; }));
        EXPECT_EQ(told, 2);
    });
}

TEST(AScriptedKernel, DropsTheRoutesOfALinkThatGoesDownWithoutAWord) {
    RunAll([](Scene& scene) {
        ScriptedKernel& kernel = scene.world.kernel;
        kernel.Heal();
        OrvNetlink::Socket routes(RTMGRP_IPV4_ROUTE);
        OrvNetlink::Socket links(RTMGRP_LINK);
        int toldRoutes = 0;
        int toldLinks = 0;
        kernel.SetUp("lan0", false);
        EXPECT_TRUE(routes.ReadNotifications([&](const nlmsghdr&) { ++toldRoutes; }));
        EXPECT_TRUE(links.ReadNotifications([&](const nlmsghdr&) { ++toldLinks; }));
        EXPECT_TRUE(kernel.Routes().empty());
        EXPECT_EQ(toldRoutes, 0);
        EXPECT_EQ(toldLinks, 1);
    });
}

} // namespace OrvLab
