// SPDX-License-Identifier: Apache-2.0
// What any local user can send over the bus, and what a strange connection manager may answer.
#include "ConnmanFixture.h"
#include "ScriptedBus.h"

#include <malloc.h>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#include <sanitizer/allocator_interface.h>
#define ORV_ALLOCATED __sanitizer_get_current_allocated_bytes()
#endif
#endif
#ifndef ORV_ALLOCATED
#define ORV_ALLOCATED mallinfo2().uordblks
#endif

namespace OrvTest {
namespace {

using namespace std::chrono_literals;
using OrvPlatform::ConnmanClient;

/// Both services are ready, eth0 is on top; a stranger is on the bus, too.
class AScriptedGateway : public testing::Test, protected LogWatch {
protected:
    AScriptedGateway() {
        link.TopPriorityInterface();
        bus.SetUpWith({{"eth0", "ready"}, {"wwan0", "ready"}});
        EXPECT_TRUE(BecomesTop("eth0"));
    }

    bool BecomesTop(const std::string& interfaceName) {
        return WaitUntil([&] { return link.TopPriorityInterface() == interfaceName; });
    }

    /// Everything before it has been handled once this has.
    void SendFence() {
        bus.Send(bus.Reordered(bus.MANAGER, {{"wwan0", ""}, {"eth0", ""}}));
        ASSERT_TRUE(BecomesTop("wwan0"));
    }

    void AnswerOwnerQuery() {
        bus.Send(bus.Return(bus.Expect("GetNameOwner"), bus.DRIVER, bus.MANAGER));
        bus.Send(bus.Services(bus.Expect("GetServices"), {{"eth0", "ready"}, {"wwan0", "ready"}}));
    }

    ScriptedBus bus;
    ConnmanClient link{bus.Address(), {300ms, 300ms, 20ms, 200ms, 2000ms}};
};

TEST_F(AScriptedGateway, BelievesOnlyTheBusWhoTheConnectionManagerIs) {
    for (const std::string name : {"", ScriptedBus::STRANGER}) {
        bus.Send(bus.OwnerChanged(bus.STRANGER, bus.MANAGER, name), bus.OwnerChanged(bus.MANAGER, bus.MANAGER, name));
    }
    AnswerOwnerQuery();
    SendFence();
    EXPECT_EQ(Logged("net.connman is not on the message bus"), 0U);
    EXPECT_EQ(Logged("connection manager found"), 1U);
}

TEST_F(AScriptedGateway, BelievesOnlyTheConnectionManagerHowTheServicesAre) {
    bus.Send(bus.StateChanged(bus.STRANGER, {"eth0", "failure"}), bus.Reordered(bus.STRANGER, {{"wwan0", ""}}),
             bus.StateChanged(bus.DRIVER, {"eth0", "failure"}));
    bus.Send(bus.Return(bus.Expect("GetNameOwner"), bus.DRIVER, bus.MANAGER));
    const auto question = bus.Expect("GetServices");
    EXPECT_EQ(link.TopPriorityInterface(), "eth0");
    bus.Send(bus.Services(question, {{"eth0", "ready"}, {"wwan0", "ready"}}));
    SendFence();
}

TEST_F(AScriptedGateway, TakesTheEndOfTheBusForNoStrangersSignal) {
    bus.HangUp();
    EXPECT_TRUE(IsLogged("(connection lost)"));
    EXPECT_EQ(Logged("a signal"), 0U);
}

TEST_F(AScriptedGateway, SaysOnceThatAStrangerSendsSignals) {
    for (int i = 0; i < 100; ++i)
        bus.Send(bus.StateChanged(bus.STRANGER, {"eth0", "failure"}));
    AnswerOwnerQuery();
    SendFence();
    EXPECT_EQ(Logged("a signal net.connman.Service.PropertyChanged from :1.66, which is not the connection manager, is "
                     "ignored; so will be all others, without a word"),
              1U);
    EXPECT_EQ(Logged("which is not the connection manager"), 1U);
}

TEST_F(AScriptedGateway, HearsOfWhatTheBusHadNoRoomForAmongAStrangersSignals) {
    bus.Send(bus.StateChanged(bus.STRANGER, {"eth0", "failure"}));
    bus.Send(bus.Return(bus.Expect("GetNameOwner"), bus.DRIVER, ":1.8"));
    bus.Send(bus.Services(bus.Expect("GetServices"), {{"ppp0", "ready"}}));
}

TEST_F(AScriptedGateway, TakesAnAnswerOnlyFromWhomItAsked) {
    link.SetTopPriorityInterface("wwan0");
    const auto call = bus.Expect("MoveBefore");
    bus.Send(bus.Return(call, bus.STRANGER), bus.Error(call, bus.STRANGER, "net.connman.Error.Forged"),
             bus.Return(call, bus.DRIVER), bus.Error(call, bus.MANAGER, "net.connman.Error.Genuine"));
    EXPECT_TRUE(IsLogged("cannot put wwan0 on top now: net.connman.Error.Genuine"));
    EXPECT_EQ(Logged("Forged"), 0U);
    EXPECT_EQ(Logged("is put on top"), 0U);
}

TEST_F(AScriptedGateway, AnswersNoCalls) {
    bus.Send(bus.Call(bus.STRANGER, "org.freedesktop.DBus.Peer", "Ping"), bus.Call(bus.STRANGER, "any.thing", "Else"));
    SendFence();
    EXPECT_TRUE(bus.IsQuiet(0ms));
}

TEST_F(AScriptedGateway, IgnoresOwnersOfOtherNamesAndSignalsOfAnotherForm) {
    const auto shapeless = bus.Signal(bus.DRIVER, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "NameOwnerChanged");
    const auto elsewhere = bus.OwnerChanged(bus.DRIVER, bus.MANAGER, "");
    dbus_message_set_path(elsewhere.get(), "/");
    const auto other = bus.Signal(bus.DRIVER, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "NameOwnerChanged");
    const char* texts[] = {"org.example", bus.MANAGER, ""};
    dbus_message_append_args(other.get(), DBUS_TYPE_STRING, &texts[0], DBUS_TYPE_STRING, &texts[1], DBUS_TYPE_STRING,
                             &texts[2], DBUS_TYPE_INVALID);
    bus.Send(shapeless, elsewhere, other, bus.Signal(bus.MANAGER, "/", "net.connman.Service", "PropertyChanged"));
    SendFence();
    EXPECT_EQ(Logged("net.connman is not on the message bus"), 0U);
}

TEST_F(AScriptedGateway, AsksForTheListWhenItIsToldOfAnOrderInAnUnknownForm) {
    bus.Send(bus.Signal(bus.MANAGER, "/", "net.connman.Manager", "ServicesChanged"));
    bus.Send(bus.Services(bus.Expect("GetServices"), {{"wwan0", "ready"}}));
    EXPECT_TRUE(BecomesTop("wwan0"));
}

TEST_F(AScriptedGateway, OutlivesAListWithoutPaths) {
    bus.Send(bus.OwnerChanged(bus.DRIVER, bus.MANAGER, ":1.8"));
    for (int again = 0; again < 3; ++again) {
        const auto answer = ScriptedBus::Return(bus.Expect("GetServices"), ":1.8");
        link.SetTopPriorityInterface("wwan0"); // to be ordered of no list but a sound one
        DBusMessageIter arguments;
        DBusMessageIter array;
        DBusMessageIter structure;
        DBusMessageIter dictionary;
        const char* noPath = "no path";
        dbus_message_iter_init_append(answer.get(), &arguments);
        dbus_message_iter_open_container(&arguments, DBUS_TYPE_ARRAY, "(sa{sv})", &array);
        dbus_message_iter_open_container(&array, DBUS_TYPE_STRUCT, nullptr, &structure);
        dbus_message_iter_append_basic(&structure, DBUS_TYPE_STRING, &noPath);
        dbus_message_iter_open_container(&structure, DBUS_TYPE_ARRAY, "{sv}", &dictionary);
        ScriptedBus::AppendProperties(dictionary, {"wwan0", "ready"});
        dbus_message_iter_close_container(&structure, &dictionary);
        dbus_message_iter_close_container(&array, &structure);
        dbus_message_iter_close_container(&arguments, &array);
        bus.Send(answer);
    }
    bus.Expect("GetServices");
    EXPECT_EQ(Logged("does not list its services: its answer is of an unknown form"), 1U);
    EXPECT_EQ(link.TopPriorityInterface(), "eth0");
}

TEST_F(AScriptedGateway, TakesNoMoreServicesThanAGatewayHasUseFor) {
    std::vector<ScriptedService> many{{"wwan0", "ready"}};
    for (int i = 0; i < 20'000; ++i)
        many.push_back({"wlan" + std::to_string(i), "idle"});
    bus.Send(bus.Reordered(bus.MANAGER, many));
    bus.Send(bus.Services(bus.Expect("GetServices"), many));
    EXPECT_TRUE(BecomesTop("wwan0"));
    EXPECT_TRUE(link.SetTopPriorityInterface("wlan200") == false);
    EXPECT_TRUE(IsLogged("cannot put wlan200 on top now: its service is not connected"));
    link.SetTopPriorityInterface("wlan19999");
    EXPECT_TRUE(IsLogged("cannot put wlan19999 on top now: there is no service"));
}

TEST(AStrangeBus, ThatNamesNoUniqueNameIsNotBelieved) {
    LogWatch log;
    ScriptedBus bus;
    ConnmanClient link{bus.Address(), {300ms, 300ms, 20ms, 200ms, 2000ms}};
    link.TopPriorityInterface();
    for (const std::string name : {"", "net.connman", "no name at all"})
        bus.Send(bus.Return(bus.SetUpMatches(), bus.DRIVER, name));
    bus.SetUpMatches();
    EXPECT_EQ(log.Logged("is not reachable (it names no owner of net.connman)"), 1U);
}

class AGatewayWithAHostileUser : public AConnectedGateway {
protected:
    HostilePeer user{bus};
};

TEST_F(AGatewayWithAHostileUser, IsNotMovedByForgedMessages) {
    user.Do("forge");
    EXPECT_EQ(CallsUntilNow(), "");
    EXPECT_EQ(link.TopPriorityInterface(), "eth0");
    EXPECT_TRUE(link.SetTopPriorityInterface("wwan0"));
    EXPECT_TRUE(BecomesTop("wwan0"));
    EXPECT_EQ(CallsUntilNow(), "MoveBefore wwan0 eth0");
    EXPECT_EQ(Logged("net.connman is not on the message bus"), 0U);
    EXPECT_EQ(Logged("which is not the connection manager, is ignored"), 1U);
}

TEST_F(AGatewayWithAHostileUser, TakesNobodyElseForTheConnectionManager) {
    user.Do("seize");
    EXPECT_EQ(CallsUntilNow(), "");
    user.Do("reign");
    EXPECT_TRUE(link.SetTopPriorityInterface("wwan0"));
    EXPECT_TRUE(BecomesTop("wwan0"));
    EXPECT_EQ(CallsUntilNow(), "MoveBefore wwan0 eth0");
}

TEST_F(AGatewayWithAHostileUser, WorksOnInAFloodAndKeepsItsSize) {
    constexpr std::size_t ROOM = 8U << 20U;
    user.Do("flood");
    ASSERT_TRUE(IsLogged("a signal net.connman.Service.PropertyChanged from"));
    const std::size_t before = ORV_ALLOCATED;
    for (const std::string interfaceName : {"wwan0", "eth0", "wwan0", "eth0", "wwan0"}) {
        for (int calls = 0; calls < 1000; ++calls)
            link.SetTopPriorityInterface(interfaceName);
        ASSERT_TRUE(BecomesTop(interfaceName));
    }
    EXPECT_LT(ORV_ALLOCATED, before + ROOM);
    user.Do("stop");
    EXPECT_EQ(CallsUntilNow(), "MoveBefore wwan0 eth0;MoveBefore eth0 wwan0;MoveBefore wwan0 eth0;MoveBefore eth0 "
                               "wwan0;MoveBefore wwan0 eth0");
}

} // namespace
} // namespace OrvTest
