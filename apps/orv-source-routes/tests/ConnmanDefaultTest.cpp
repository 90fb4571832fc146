// SPDX-License-Identifier: Apache-2.0
#include "ConnmanDefault.h"

#include "ScriptedBus.h"

#include <dbus/dbus.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <vector>

namespace OrvSourceRoutes {
namespace {

using namespace std::chrono_literals;
using OrvTest::ScriptedBus;

// A question comes within the bus's 20 s of patience, or the test fails: well before the look of each minute.
class ConnmansDefault : public testing::Test {
protected:
    using Servers = std::map<std::string, std::vector<std::string>>;

    /// True once the interface is the one; false when it is not in good time.
    bool Becomes(const std::string& interface) {
        return Eventually([&] { return connman.View().defaultInterface == interface; });
    }
    bool Eventually(const std::function<bool()>& isSo) {
        while (!isSo()) {
            pollfd news{connman.Descriptor(), POLLIN, 0};
            if (poll(&news, 1, 20'000) != 1)
                return false;
            connman.TakeChanged();
        }
        return true;
    }
    ScriptedBus::Message NameServersChanged(const std::string& interface, const char* server) {
        ScriptedBus::Message message =
            bus.Signal(bus.MANAGER, bus.PathOf(interface), "net.connman.Service", "PropertyChanged");
        DBusMessageIter arguments;
        DBusMessageIter variant;
        DBusMessageIter list;
        const char* name = "Nameservers";
        dbus_message_iter_init_append(message.get(), &arguments);
        dbus_message_iter_append_basic(&arguments, DBUS_TYPE_STRING, &name);
        dbus_message_iter_open_container(&arguments, DBUS_TYPE_VARIANT, "as", &variant);
        dbus_message_iter_open_container(&variant, DBUS_TYPE_ARRAY, "s", &list);
        dbus_message_iter_append_basic(&list, DBUS_TYPE_STRING, &server);
        dbus_message_iter_close_container(&variant, &list);
        dbus_message_iter_close_container(&arguments, &variant);
        return message;
    }
    ScriptedBus::Message KnowsWhoConnmanIs() {
        bus.Send(bus.Return(bus.Expect("GetNameOwner"), bus.DRIVER, bus.MANAGER));
        return bus.Expect("GetServices");
    }
    std::string NextRule() {
        const ScriptedBus::Message call = bus.Expect("AddMatch");
        const char* rule = "";
        dbus_message_get_args(call.get(), nullptr, DBUS_TYPE_STRING, &rule, DBUS_TYPE_INVALID);
        std::string text = rule;
        bus.Send(bus.Return(call, bus.DRIVER));
        return text;
    }

    ScriptedBus bus{4};
    ConnmanDefault connman{bus.Address(), 20s}; // however slow this machine is
};

TEST_F(ConnmansDefault, IsTheFirstServicesInterface) {
    bus.SetUpWith({{"eth0", "ready"}, {"wwan0", "ready"}});
    EXPECT_TRUE(Becomes("eth0"));
    bus.Send(bus.Reordered(bus.MANAGER, {{"wwan0", ""}, {"eth0", ""}}));
    bus.Send(bus.Services(KnowsWhoConnmanIs(), {{"wwan0", "ready"}, {"eth0", "ready"}}));
    EXPECT_TRUE(Becomes("wwan0"));
}

TEST_F(ConnmansDefault, ComesWithTheNameServersOfTheConnectedServices) {
    bus.SetUpWith({{"eth0", "ready", "2001:db8:21::53"}, {"wwan0", "idle"}});
    ASSERT_TRUE(Becomes("eth0"));
    EXPECT_EQ(connman.View().nameServers, (Servers{{"eth0", {"2001:db8:21::53"}}}));
    bus.Send(bus.Reordered(bus.MANAGER, {{"wwan0", ""}, {"eth0", ""}}));
    bus.Send(
        bus.Services(KnowsWhoConnmanIs(), {{"wwan0", "online", "2001:db8:22::53"}, {"eth0", "ready", "10.21.0.53"}}));
    ASSERT_TRUE(Becomes("wwan0"));
    EXPECT_EQ(connman.View().nameServers, (Servers{{"eth0", {"10.21.0.53"}}, {"wwan0", {"2001:db8:22::53"}}}));
}

TEST_F(ConnmansDefault, ComesWithTheNameServersThatAServiceHasGotSince) {
    bus.SetUpWith({{"eth0", "ready", "2001:db8:21::53"}});
    ASSERT_TRUE(Becomes("eth0"));
    bus.Send(NameServersChanged("eth0", "2001:db8:22::53"));
    bus.Send(bus.Services(KnowsWhoConnmanIs(), {{"eth0", "ready", "2001:db8:22::53"}}));
    EXPECT_TRUE(Eventually([&] { return connman.View().nameServers == Servers{{"eth0", {"2001:db8:22::53"}}}; }));
}

TEST_F(ConnmansDefault, IsAskedForAgainSoonAfterAnError) {
    bus.SetUpWith({{"eth0", "ready"}});
    ASSERT_TRUE(Becomes("eth0"));
    bus.Send(bus.Reordered(bus.MANAGER, {{"wwan0", ""}, {"eth0", ""}}));
    bus.Send(bus.Error(KnowsWhoConnmanIs(), bus.MANAGER, "net.connman.Error.Failed"));
    bus.Send(bus.Services(KnowsWhoConnmanIs(), {{"wwan0", "ready"}}));
    EXPECT_TRUE(Becomes("wwan0"));
}

TEST_F(ConnmansDefault, IsAskedForAgainSoonAfterAnAnswerThatCannotBeRead) {
    bus.SetUpWith({{"eth0", "ready"}});
    ASSERT_TRUE(Becomes("eth0"));
    bus.Send(bus.Reordered(bus.MANAGER, {{"wwan0", ""}, {"eth0", ""}}));
    bus.Send(bus.Return(KnowsWhoConnmanIs(), bus.MANAGER, "no list"));
    bus.Send(bus.Services(KnowsWhoConnmanIs(), {{"wwan0", "ready"}}));
    EXPECT_TRUE(Becomes("wwan0"));
}

TEST_F(ConnmansDefault, IsAskedForAgainSoonWhenTheBusDoesNotTellWhoConnmanIs) {
    bus.SetUpWith({{"eth0", "ready"}});
    ASSERT_TRUE(Becomes("eth0"));
    bus.Send(bus.Reordered(bus.MANAGER, {{"wwan0", ""}, {"eth0", ""}}));
    bus.Send(bus.Error(bus.Expect("GetNameOwner"), bus.DRIVER, DBUS_ERROR_LIMITS_EXCEEDED));
    bus.Send(bus.Services(KnowsWhoConnmanIs(), {{"wwan0", "ready"}}));
    EXPECT_TRUE(Becomes("wwan0"));
}

TEST_F(ConnmansDefault, IsNotFollowedOnABusThatDoesNotPassItsSignalsOn) {
    bus.Accept();
    bus.Send(bus.Return(bus.Expect("Hello"), bus.DRIVER, ":1.1"));
    bus.Send(bus.Error(bus.Expect("AddMatch"), bus.DRIVER, DBUS_ERROR_LIMITS_EXCEEDED));
    EXPECT_THROW(bus.Expect("GetNameOwner"), std::runtime_error) << "it has hung up";
    bus.SetUpWith({{"eth0", "ready"}});
    EXPECT_TRUE(Becomes("eth0"));
}

TEST_F(ConnmansDefault, IsNotAskedForWhenSomethingElseOfAServiceChanges) {
    bus.Accept();
    bus.Send(bus.Return(bus.Expect("Hello"), bus.DRIVER, ":1.1"));
    EXPECT_EQ(NextRule(), "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='net.connman'");
    EXPECT_EQ(NextRule(),
              "type='signal',sender='net.connman',interface='net.connman.Manager',member='ServicesChanged'");
    const std::string ofService = "type='signal',sender='net.connman',interface='net.connman.Service',";
    EXPECT_EQ(NextRule(), ofService + "member='PropertyChanged',arg0='State'");
    EXPECT_EQ(NextRule(), ofService + "member='PropertyChanged',arg0='Nameservers'");
    bus.Send(bus.Error(bus.Expect("GetNameOwner"), bus.DRIVER, DBUS_ERROR_NAME_HAS_NO_OWNER));
}

} // namespace
} // namespace OrvSourceRoutes
