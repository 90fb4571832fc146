// SPDX-License-Identifier: Apache-2.0
// What the explorer of the gateway's programs demands of them, broken on purpose.
#include "EventLoop.h"
#include "gateway/ApplicationModel.h"
#include "gateway/CloudModel.h"
#include "gateway/FakeFiles.h"
#include "gateway/Tasks.h"
#include "gateway/World.h"

#include <OrvNetlink/Socket.h>
#include <linux/rtnetlink.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <csignal>
#include <functional>
#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace OrvLab {

namespace {

using GatewayApp::Mailbox;
using OrvStackSdk::OrvEvent;
using namespace std::chrono_literals;

/// Takes a cloud connection's place.
struct Scene {
    explicit Scene(Simulation& simulation) : sim(simulation), world(sim, 1), model(world) {
        model.lookUps = [] { return 0; };
        world.resolver.SetAddresses({"198.51.100.1", "198.51.100.2"});
        world.cloud.Heal();
        sim.DisableStalls();
        sim.SetJumpListener([this](Time) { model.TimeHasAdvanced(); });
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

/// Takes the whole application's place: eth0 is there, and the cloud is reached over it.
struct ApplicationScene {
    explicit ApplicationScene(Simulation& simulation)
        : sim(simulation), world(sim, 1), model(world, files, 1), since(sim.Now()) {
        sim.DisableStalls();
        model.OptionsAre({"cloud.example"});
        world.kernel.Heal();
        world.kernel.AddLink("eth0", false);
        world.kernel.PutAddress({world.kernel.Link("eth0")->index, "192.0.2.10", 24});
        RouteBecomes("eth0");
    }
    void Begin() {
        model.Notified("READY=1");
        model.Created(true), model.HandlerSet(), model.Inits("gateway-app"), model.Confirmed(true), model.Starts();
    }
    void TellAll() {
        for (const OrvEvent event :
             {OrvEvent::PANEL_CLOUD_ENABLED, OrvEvent::ETHERNET_CONNECTED, OrvEvent::ETHERNET_IP_GAINED,
              OrvEvent::CELLULAR_DISCONNECTED, OrvEvent::CELLULAR_IP_LOST, OrvEvent::CLOUD_DISCONNECTED})
            model.Reports(event);
    }
    void GetReady() {
        Begin();
        TellAll();
        model.Says(OrvStackSdk::AppStatus::READY);
        model.Notified("STATUS=no cloud connection");
    }
    void GetConnected() {
        socket = world.cloud.Connect("198.51.100.1");
        model.ConnackRead(*socket);
        since = sim.Now();
        Log("connected to the cloud, from " + socket->source);
        model.Reports(OrvEvent::CLOUD_CONNECTED);
        model.Notified("STATUS=cloud over eth0");
    }
    void Lose(const char* level) {
        model.Closed(*socket);
        since = sim.Now();
        model.Logged({"GatewayApp", level, "", "the cloud connection has ended: gone"});
        model.Reports(OrvEvent::CLOUD_DISCONNECTED);
        model.Notified("STATUS=no cloud connection");
    }
    void AddCellular() {
        world.kernel.AddLink("wwan0", false);
        world.kernel.PutAddress({world.kernel.Link("wwan0")->index, "203.0.113.10", 24});
    }
    void TellOfCellular() { model.Reports(OrvEvent::CELLULAR_CONNECTED), model.Reports(OrvEvent::CELLULAR_IP_GAINED); }
    void RouteBecomes(const std::string& interface) {
        const unsigned link = world.kernel.Link(interface)->index;
        const auto routes = world.kernel.Routes();
        for (const KernelRoute& old : routes)
            if (old.IsDefault())
                world.kernel.RemoveRoute(old);
        world.kernel.PutRoute({AF_INET, RT_TABLE_MAIN, 3, link, false, "", 0, "192.0.2.1"});
        model.NoteKernel();
    }
    void Tick(bool moved = false, bool toCellular = false) { model.Ticks(), model.AsksWhetherMoved(moved, toCellular); }
    void Log(const std::string& text) { model.Logged({"GatewayApp", "info", "", text}); }
    /// Until nothing is under way any more.
    void Settle() {
        sim.Sleep(6 * SECOND);
        Tick();
        model.TimeHasAdvanced(SECOND / 10);
    }
    /// With one thing wrong.
    void WriteStatus(const std::string& right = "", const std::string& wrong = "") {
        const bool open = model.IsConnected();
        std::string text = std::string(R"({"running":true,"session_ready":true,"cloud":{"state":")") +
                           (open ? "connected" : "disconnected") + R"(","path":")" + (open ? "ethernet" : "none") +
                           R"(","interface":")" + (open ? "eth0" : "") + R"(","family":")" + (open ? "IPv4" : "") +
                           R"(","source":")" + (open ? "192.0.2.10" : "") +
                           R"(","host":"cloud.example","since_monotonic":)" +
                           std::to_string(static_cast<double>(since) / SECOND) + R"(,"reason":")" +
                           (open ? "connected over eth0" : "gone") + R"(","last_failure":""},)" +
                           R"("route":{"path":"ethernet","interface":"eth0","expected":"",)" +
                           R"("ethernet_on_probation":false},"counters":{"fail_overs":0,"returns":0,"cloud_losses":0}})"
                           "\n";
        if (!right.empty())
            text.replace(text.find(right), right.size(), wrong);
        files.Put(FakeFiles::STATUS, text);
    }
    void End() {
        model.Terminated();
        model.Notified("STOPPING=1");
        if (model.IsConnected()) {
            model.SendsDisconnect();
            Lose("info");
        }
        model.Stops(), model.DeInits(), model.Released();
        model.Returns();
    }

    Simulation& sim;
    World world;
    FakeFiles files;
    ApplicationModel model;
    Time since;
    std::shared_ptr<CloudSocket> socket;
};

template <typename Scene>
void RunAll(const std::function<void(Scene&)>& program) {
    for (std::uint64_t seed = 0; seed < 5; ++seed) {
        Simulation simulation(seed, false);
        Scene scene(simulation);
        simulation.Run([&] { program(scene); });
        simulation.SetSurroundings(nullptr);
    }
}

void RunAll(const std::function<void(Scene&)>& program) {
    RunAll<Scene>(program);
}

void Fails(const std::function<void(Scene&)>& program, const char* text) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(RunAll<Scene>(program), testing::ExitedWithCode(Simulation::FAILED), text);
}

void ApplicationFails(const std::function<void(ApplicationScene&)>& program, const char* text) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(RunAll<ApplicationScene>(program), testing::ExitedWithCode(Simulation::FAILED), text);
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
        tasks.TimeHasAdvanced();
    }));
    Fails(with([](Tasks& tasks, Mailbox& /*box*/) { tasks.Post("one", [] {}), tasks.TimeHasAdvanced(); }),
          "lies in the mailbox");
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

TEST(AnInvariantOfTheApplication, LetsOneLiveThatIsInOrder) {
    RunAll<ApplicationScene>([](ApplicationScene& scene) {
        scene.GetReady();
        scene.WriteStatus();
        scene.model.TimeHasAdvanced(SECOND);
        scene.GetConnected();
        scene.WriteStatus();
        scene.model.TimeHasAdvanced(SECOND / 10);
        scene.socket->Break(ECONNRESET);
        scene.Lose("warning");
        scene.files.Put(FakeFiles::STATUS, "{}\n");
        scene.files.full = true;
        scene.model.TimeHasAdvanced(SECOND / 10);
        scene.GetConnected();
        scene.End();
    });
}

TEST(AnInvariantOfTheApplication, WantsTheLibrarysCallsInTheirOrderAndOnItsThread) {
    ApplicationFails([](ApplicationScene& scene) { scene.Begin(), scene.model.Ticks(); }, "Tick out of its order");
    ApplicationFails([](ApplicationScene& scene) { scene.GetReady(), scene.model.Ticks(), scene.model.Ticks(); },
                     "has not asked after a tick");
    ApplicationFails([](ApplicationScene& scene) { scene.GetReady(), scene.model.Inits("gateway-app"); },
                     "Init out of its order");
    ApplicationFails([](ApplicationScene& scene) { scene.GetReady(), scene.model.Stops(); }, "nobody has told it to");
    ApplicationFails(
        [](ApplicationScene& scene) {
            scene.GetReady();
            scene.sim.Join(scene.sim.Start("other", [&] { scene.model.Ticks(); }));
        },
        "on another thread");
}

TEST(AnInvariantOfTheApplication, WantsTheStateOfEverythingOnceAtTheStart) {
    using OrvStackSdk::AppStatus;
    ApplicationFails([](ApplicationScene& scene) { scene.Begin(), scene.model.Says(AppStatus::READY); },
                     "has not told the state of everything");
    ApplicationFails([](ApplicationScene& scene) { scene.Begin(), scene.TellAll(), scene.TellAll(); }, "twice");
    ApplicationFails(
        [](ApplicationScene& scene) {
            scene.model.TakesSignal(SIGUSR1);
            scene.GetReady();
        },
        "has not told of a failure");
}

TEST(AnInvariantOfTheApplication, WantsEachConnectionAndLossToldOnceAndInOrder) {
    ApplicationFails([](ApplicationScene& scene) { scene.GetReady(), scene.model.Reports(OrvEvent::CLOUD_CONNECTED); },
                     "and nothing has happened");
    ApplicationFails(
        [](ApplicationScene& scene) {
            scene.GetReady(), scene.GetConnected(), scene.model.Reports(OrvEvent::CLOUD_CONNECTED);
        },
        "and nothing has happened");
    ApplicationFails(
        [](ApplicationScene& scene) {
            scene.GetReady();
            scene.model.ConnackRead(*scene.world.cloud.Connect("198.51.100.1"));
            scene.model.TimeHasAdvanced(SECOND / 10);
        },
        "does not tell the client library what has become");
    ApplicationFails(
        [](ApplicationScene& scene) {
            scene.GetReady(), scene.GetConnected();
            scene.socket->Break(ECONNRESET);
            scene.model.Closed(*scene.socket);
            scene.model.ConnackRead(*scene.world.cloud.Connect("198.51.100.1"));
            scene.model.Reports(OrvEvent::CLOUD_CONNECTED);
        },
        "in another order than it happened");
}

TEST(AnInvariantOfTheApplication, WantsNoWordOfAConnectionThatEndedBeforeItWasOne) {
    RunAll<ApplicationScene>([](ApplicationScene& scene) {
        scene.GetReady();
        scene.WriteStatus();
        scene.sim.Sleep(SECOND);
        const auto socket = scene.world.cloud.Connect("198.51.100.1");
        scene.model.ConnackRead(*socket);
        socket->Break(ECONNRESET);
        scene.model.Closed(*socket);
        scene.Tick();
        scene.model.TimeHasAdvanced(SECOND / 10);
    });
}

TEST(AnInvariantOfTheApplication, TellsALossFromItsOwnClosing) {
    ApplicationFails(
        [](ApplicationScene& scene) {
            scene.GetReady(), scene.GetConnected(), scene.sim.Sleep(10 * SECOND), scene.Lose("warning");
        },
        "gives up a connection that is good");
    ApplicationFails(
        [](ApplicationScene& scene) {
            scene.GetReady(), scene.GetConnected(), scene.sim.Sleep(10 * SECOND);
            scene.socket->Break(ECONNRESET);
            scene.Lose("info");
        },
        "takes a loss for its own closing");
    ApplicationFails(
        [](ApplicationScene& scene) {
            scene.GetReady(), scene.GetConnected(), scene.model.Terminated(), scene.Lose("warning");
        },
        "takes its own closing for a loss");
}

TEST(AnInvariantOfTheApplication, WantsWhatTheKernelHasToBeTold) {
    ApplicationFails(
        [](ApplicationScene& scene) {
            scene.GetReady();
            scene.world.kernel.SetCarrier("eth0", false);
            scene.model.TimeHasAdvanced(SECOND / 10);
        },
        "does not know the link of eth0");
    ApplicationFails(
        [](ApplicationScene& scene) { scene.GetReady(), scene.model.Reports(OrvEvent::ETHERNET_CONNECTED); },
        "twice of Ethernet's link");
    ApplicationFails(
        [](ApplicationScene& scene) {
            scene.GetReady();
            scene.model.TakesSignal(SIGUSR1);
            scene.model.TimeHasAdvanced(SECOND / 10);
        },
        "does not tell of a failure");
}

TEST(AnInvariantOfTheApplication, WantsAStatusFileThatSaysWhatIs) {
    const auto with = [](const char* right, const char* wrong, const char* text) {
        ApplicationFails(
            [=](ApplicationScene& scene) {
                scene.GetReady();
                scene.GetConnected();
                scene.WriteStatus(right, wrong);
                scene.model.TimeHasAdvanced(SECOND / 10);
            },
            text);
    };
    with("\"connected\"", "\"disconnected\"", "cloud.state \"disconnected\", and it is \"connected\"");
    with("192.0.2.10", "192.0.2.11", "cloud.source");
    with("over eth0", "over another interface", "cloud.reason \"connected over another interface\"");
    with("since_monotonic\":1", "since_monotonic\":9", "since another time");
    with("\"cloud_losses\":0", "\"cloud_losses\":1", "counters.cloud_losses");
    with("\"cloud_losses\":0}}\n", "", "the status file holds a part of a state");
    with("\"expected\":\"\"", "\"expected\":\"Ethernet\"", "route.expected");
    with("probation\":false", "probation\":true", "ethernet_on_probation");
    with("\"running\":true", "\"running\":false", "running");
    ApplicationFails(
        [](ApplicationScene& scene) {
            scene.GetReady();
            scene.model.Notified("STATUS=cloud over wwan0");
            scene.model.TimeHasAdvanced(SECOND / 10);
        },
        "the service manager is shown");
}

TEST(AnInvariantOfTheApplication, WantsTicksAndSignsOfLifeInTime) {
    ApplicationFails(
        [](ApplicationScene& scene) {
            scene.GetReady(), scene.model.TimeHasAdvanced(SECOND), scene.model.TimeHasAdvanced(3 * SECOND);
        },
        "does not tick");
    ApplicationFails(
        [](ApplicationScene& scene) {
            scene.model.Notified("READY=1");
            scene.sim.Sleep(15 * SECOND);
            scene.files.full = true; // for its own file
            scene.model.TimeHasAdvanced(8 * SECOND);
        },
        "does not tell the service manager that it lives");
}

TEST(AnInvariantOfTheApplication, WantsTheTicksThatTheOptionsName) {
    const auto ticking = [](ApplicationScene& scene, Time pause) {
        scene.model.OptionsAre({"cloud.example", 1, 30, 500});
        scene.GetReady();
        scene.sim.Sleep(10 * SECOND);
        scene.model.Ticks();
        scene.model.AsksWhetherMoved(false, false);
        scene.sim.Sleep(pause);
        scene.model.Ticks();
    };
    RunAll<ApplicationScene>([&](ApplicationScene& scene) { ticking(scene, SECOND / 2); });
    ApplicationFails([&](ApplicationScene& scene) { ticking(scene, SECOND / 4); }, "sooner than it was told to");
    ApplicationFails(
        [&](ApplicationScene& scene) {
            ticking(scene, SECOND / 2), scene.files.full = true, scene.model.TimeHasAdvanced(SECOND);
        },
        "does not tick");
    // What a reload has changed counts from its end. One of a wrong file changes nothing.
    const auto reloading = [&](ApplicationScene& scene, bool readable) {
        using OrvStackSdk::AppStatus;
        ticking(scene, SECOND / 2);
        scene.model.AsksWhetherMoved(false, false);
        if (readable)
            scene.model.OptionsAre({"cloud.example", 1, 30, 500});
        scene.model.Reloaded();
        scene.model.Says(AppStatus::BOOTING);
        scene.sim.Sleep(3 * SECOND);
        scene.Tick();
        scene.model.Says(AppStatus::READY);
        scene.sim.Sleep(SECOND / 4);
        scene.Tick();
    };
    RunAll<ApplicationScene>([&](ApplicationScene& scene) { reloading(scene, true); });
    ApplicationFails([&](ApplicationScene& scene) { reloading(scene, false); }, "sooner than it was told to");
}

TEST(AnInvariantOfTheApplication, WantsAReloadSaidAndCarriedOut) {
    using OrvStackSdk::AppStatus;
    const auto reloading = [](ApplicationScene& scene) {
        scene.GetReady();
        scene.model.OptionsAre({});
        scene.model.Reloaded();
    };
    RunAll<ApplicationScene>([&](ApplicationScene& scene) {
        reloading(scene);
        scene.model.Says(AppStatus::BOOTING);
        scene.model.Reports(OrvEvent::PANEL_CLOUD_DISABLED);
        scene.model.Says(AppStatus::READY);
        scene.model.TimeHasAdvanced(SECOND / 10);
    });
    ApplicationFails(
        [&](ApplicationScene& scene) {
            reloading(scene), scene.model.Reports(OrvEvent::PANEL_CLOUD_DISABLED);
            scene.model.TimeHasAdvanced(SECOND / 10);
        },
        "does not say that it is booting");
    ApplicationFails(
        [&](ApplicationScene& scene) {
            reloading(scene);
            scene.model.Says(AppStatus::BOOTING), scene.model.Says(AppStatus::READY);
            scene.model.TimeHasAdvanced(SECOND / 10);
        },
        "does not tell the client library whether there is a cloud");
    ApplicationFails([](ApplicationScene& scene) { scene.GetReady(), scene.model.Says(AppStatus::READY); },
                     "and it has not changed");
}

TEST(AnInvariantOfTheApplication, WantsAStatusFileThatIsNeverOld) {
    ApplicationFails(
        [](ApplicationScene& scene) {
            scene.GetReady(), scene.WriteStatus();
            scene.model.Ticks(), scene.model.AsksWhetherMoved(false, false);
            scene.sim.Sleep(9 * SECOND);
            scene.model.Notified("WATCHDOG=1"), scene.model.Ticks();
            scene.model.TimeHasAdvanced(2 * SECOND);
        },
        "does not write its status file every ten seconds");
}

TEST(AnInvariantOfTheApplication, WantsEachMoveOfTheRouteSaidOnceAndTruly) {
    const std::string toCellular = "the WAN route has moved from Ethernet (eth0) to Cellular (wwan0): a poke succeeded";
    const std::string toEthernet = "the WAN route has moved from Cellular (wwan0) to Ethernet (eth0): a poke succeeded";
    RunAll<ApplicationScene>([&](ApplicationScene& scene) {
        scene.GetReady();
        scene.Log(toCellular), scene.Log(toEthernet);
        scene.Settle();
    });
    RunAll<ApplicationScene>([&](ApplicationScene& scene) {
        scene.GetReady();
        scene.Log(toCellular + "; the kernel's default route still leads elsewhere");
        scene.Settle();
    });
    const char* const none = "says a move of the route that there was none of";
    ApplicationFails([&](ApplicationScene& scene) { scene.GetReady(), scene.Log(toCellular), scene.Log(toCellular); },
                     none);
    ApplicationFails(
        [](ApplicationScene& scene) {
            scene.GetReady(), scene.Log("the WAN route has moved from Cellular (wwan0) to Cellular (wwan0): a poke");
        },
        none);
    ApplicationFails([&](ApplicationScene& scene) { scene.GetReady(), scene.Log(toCellular), scene.Settle(); },
                     "has not said that the route has moved to eth0");
    const auto stood = [](ApplicationScene& scene) {
        scene.AddCellular();
        scene.files.full = true; // so that no status is due
        scene.GetReady(), scene.TellOfCellular(), scene.Settle();
    };
    RunAll<ApplicationScene>([&](ApplicationScene& scene) {
        stood(scene), scene.RouteBecomes("wwan0"), scene.Log(toCellular), scene.Settle();
    });
    ApplicationFails([&](ApplicationScene& scene) { stood(scene), scene.RouteBecomes("wwan0"), scene.Settle(); },
                     "has not said that the route has moved to wwan0");
    ApplicationFails([&](ApplicationScene& scene) { stood(scene), scene.Log(toEthernet); }, none);
    ApplicationFails(
        [&](ApplicationScene& scene) {
            scene.AddCellular();
            scene.files.full = true;
            scene.model.Notified("READY=1"); // and the gateway's broker is not there
            for (const char* interface : {"eth0", "wwan0"}) {
                scene.RouteBecomes(interface);
                scene.sim.Sleep(6 * SECOND), scene.model.TimeHasAdvanced(SECOND / 10);
            }
        },
        "has not said that the route has moved to wwan0");
    ApplicationFails(
        [&](ApplicationScene& scene) {
            scene.GetReady(), scene.Log(toCellular), scene.Log(toEthernet), scene.WriteStatus();
            scene.model.TimeHasAdvanced(SECOND / 10);
        },
        "counters.fail_overs");
}

TEST(AnInvariantOfTheApplication, WantsTheConnectionToFollowTheRouteWithItsKeepAlive) {
    const auto connected = [](ApplicationScene& scene, int keepAlive) {
        scene.AddCellular();
        scene.GetReady(), scene.TellOfCellular(), scene.GetConnected();
        scene.model.fourOnly = true;
        scene.socket->SetOption(TCP_KEEPIDLE, keepAlive);
    };
    const auto moving = [](ApplicationScene& scene) {
        scene.RouteBecomes("wwan0");
        scene.Tick(true, true);
    };
    RunAll<ApplicationScene>([&](ApplicationScene& scene) {
        connected(scene, 1), moving(scene);
        scene.Lose("info");
        scene.world.cloud.sourceOf = [](bool) { return "203.0.113.10"; };
        scene.GetConnected();
        scene.model.Notified("STATUS=cloud over wwan0");
        scene.socket->SetOption(TCP_KEEPIDLE, 30);
        scene.Settle();
    });
    ApplicationFails([&](ApplicationScene& scene) { connected(scene, 30), scene.Settle(); },
                     "asks for a sign of life every 30 s and not every 1");
    ApplicationFails(
        [&](ApplicationScene& scene) {
            connected(scene, 1), moving(scene);
            scene.socket->SetOption(TCP_KEEPIDLE, 30);
            scene.Settle();
        },
        "stays connected over eth0 behind a move");
    ApplicationFails(
        [&](ApplicationScene& scene) {
            connected(scene, 1);
            scene.model.fourOnly = false; // the other family's route may lead elsewhere
            moving(scene), scene.Settle();
        },
        "asks for a sign of life every 1 s and not every 30");
}

TEST(AnInvariantOfTheApplication, WantsTheTicksOfTheSituation) {
    using State = StackLibrary::State;
    const auto on = [](State state, bool told) {
        return [=](ApplicationScene& scene) {
            scene.AddCellular();
            scene.GetReady(), scene.TellOfCellular();
            scene.model.where = [=] { return state; };
            scene.Tick(told, told), scene.sim.Sleep(7 * SECOND);
            scene.Tick(), scene.sim.Sleep(SECOND);
            scene.model.TimeHasAdvanced(SECOND);
        };
    };
    RunAll<ApplicationScene>(on(State::ETHERNET, false));
    RunAll<ApplicationScene>(on(State::CELLULAR, false)); // of which nobody has told it
    ApplicationFails(on(State::CELLULAR, true), "does not tick");
}

TEST(AnInvariantOfTheApplication, WantsTheLibrarysFilePutRight) {
    const auto foreign = [](ApplicationScene& scene) {
        scene.model.csv = [] { return "the library's"; };
        scene.GetReady();
        scene.files.Put(FakeFiles::CSV, "another program's");
        scene.model.CsvIsTouched();
        scene.model.TimeHasAdvanced(SECOND / 10);
    };
    const auto later = [](ApplicationScene& scene, Time time) {
        scene.sim.Sleep(time), scene.Tick(), scene.model.TimeHasAdvanced(SECOND / 10);
    };
    const char* const left = "leaves the client library's status file as another program has written it";
    RunAll<ApplicationScene>([&](ApplicationScene& scene) {
        foreign(scene), later(scene, SECOND / 2);
        scene.files.Put(FakeFiles::CSV, "the library's");
        later(scene, 2 * SECOND);
        // What finds no room is tried again as much later as there was none.
        scene.files.Put(FakeFiles::CSV, "another program's");
        scene.files.full = true;
        later(scene, SECOND), later(scene, 3 * SECOND);
        scene.files.full = false;
        later(scene, SECOND / 10), later(scene, 2 * SECOND);
    });
    const auto fullButForAMoment = [&](ApplicationScene& scene) {
        foreign(scene);
        for (const Time time : {3 * SECOND, SECOND}) {
            scene.files.full = true;
            later(scene, time);
            scene.files.full = false;
            scene.model.NoteRoom();
        }
    };
    RunAll<ApplicationScene>([&](ApplicationScene& scene) { fullButForAMoment(scene), later(scene, 5 * SECOND); });
    ApplicationFails(
        [&](ApplicationScene& scene) {
            fullButForAMoment(scene), later(scene, 5 * SECOND);
            scene.WriteStatus();
            later(scene, 2 * SECOND);
        },
        left);
    ApplicationFails([&](ApplicationScene& scene) { foreign(scene), later(scene, 2 * SECOND); }, left);
    ApplicationFails(
        [&](ApplicationScene& scene) {
            foreign(scene);
            scene.files.full = true;
            later(scene, SECOND);
            scene.files.full = false;
            later(scene, SECOND / 10), later(scene, 4 * SECOND);
        },
        left);
}

TEST(AnInvariantOfTheApplication, LetsNoProbationOutliveCellular) {
    const auto onProbation = [](ApplicationScene& scene) {
        scene.AddCellular();
        scene.GetReady(), scene.TellOfCellular();
        scene.Tick(true, true), scene.sim.Sleep(SECOND), scene.Tick(true, true);
        scene.model.Logged({"GatewayApp", "warning", "", "Ethernet is on probation: again"});
        scene.model.Reports(OrvEvent::ETHERNET_IP_LOST);
        scene.model.Notified("STATUS=no cloud connection, Ethernet on probation");
        scene.model.TimeHasAdvanced(SECOND / 10);
        scene.world.kernel.RemoveAddress({scene.world.kernel.Link("wwan0")->index, "203.0.113.10", 24});
        scene.model.Reports(OrvEvent::CELLULAR_IP_LOST);
    };
    RunAll<ApplicationScene>([&](ApplicationScene& scene) {
        onProbation(scene);
        scene.Log("Ethernet's probation is over: there is no Cellular");
        scene.model.Reports(OrvEvent::ETHERNET_IP_GAINED);
        scene.model.Notified("STATUS=no cloud connection");
        scene.model.TimeHasAdvanced(SECOND / 10);
    });
    ApplicationFails([&](ApplicationScene& scene) { onProbation(scene), scene.model.TimeHasAdvanced(SECOND / 10); },
                     "keeps an Ethernet on probation, and there is no Cellular");
}

TEST(AnInvariantOfTheApplication, PutsAnEthernetOnProbationThatFailsAgainAndNoOther) {
    const auto failing = [](ApplicationScene& scene, int times) {
        scene.AddCellular();
        scene.GetReady(), scene.TellOfCellular();
        for (int time = 0; time < times; ++time) {
            scene.model.Ticks(), scene.model.AsksWhetherMoved(true, true);
            scene.sim.Sleep(SECOND);
        }
    };
    ApplicationFails([&](ApplicationScene& scene) { failing(scene, 2), scene.model.TimeHasAdvanced(SECOND / 10); },
                     "does not put an Ethernet on probation");
    ApplicationFails(
        [&](ApplicationScene& scene) {
            failing(scene, 1);
            scene.model.Logged({"GatewayApp", "warning", "", "Ethernet is on probation: again"});
        },
        "that has not failed again");
    ApplicationFails(
        [&](ApplicationScene& scene) {
            failing(scene, 2);
            scene.model.Logged({"GatewayApp", "warning", "", "Ethernet is on probation: again"});
            scene.model.Logged({"GatewayApp", "info", "", "Ethernet's probation is over: it has proved itself"});
        },
        "for proved before its time");
}

TEST(AnInvariantOfTheApplication, WantsAnEndInTimeThatSaysSo) {
    ApplicationFails(
        [](ApplicationScene& scene) {
            scene.GetReady(), scene.model.Terminated();
            scene.sim.Sleep(9 * SECOND);
            scene.End();
        },
        "ms to end");
    ApplicationFails(
        [](ApplicationScene& scene) {
            scene.GetReady(), scene.GetConnected(), scene.model.Terminated(), scene.model.Stops();
        },
        "is still connected to the cloud");
    ApplicationFails(
        [](ApplicationScene& scene) {
            scene.GetReady(), scene.GetConnected(), scene.model.Terminated();
            scene.model.Notified("STOPPING=1");
            scene.Lose("info");
        },
        "does not say good-bye");
    ApplicationFails([](ApplicationScene& scene) { scene.GetReady(), scene.model.Terminated(), scene.model.Returns(); },
                     "has not ended the session");
    ApplicationFails([](ApplicationScene& scene) { scene.GetReady(), scene.WriteStatus(), scene.End(); }, "running");
}

} // namespace OrvLab
