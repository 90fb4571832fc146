// SPDX-License-Identifier: Apache-2.0
// What the explorer of the connection manager demands of those who use the bus, broken on purpose.
#include "connman/FakeDbus.h"
#include "connman/MessageBus.h"
#include "sim/Simulation.h"

#include <functional>
#include <mutex>
#include <vector>

#include <gtest/gtest.h>

namespace OrvLab {

namespace {

class Nobody final : public BusListener {
    void Moved(const std::string&) override {}
    void Configured(const std::string&, const std::vector<std::string>&) override {}
};

void RunAll(const std::function<void(Simulation&)>& program) {
    for (std::uint64_t seed = 0; seed < 30; ++seed) {
        Simulation simulation(seed, false);
        Nobody nobody;
        SimulatedBus bus(simulation, seed, nobody);
        FakeDbus::bus = &bus;
        simulation.SetSurroundings(&bus);
        simulation.Run([&] {
            bus.Heal();
            program(simulation);
        });
        FakeDbus::bus = nullptr;
    }
}

void Fails(const std::function<void(Simulation&)>& program, const char* text) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(RunAll(program), testing::ExitedWithCode(Simulation::FAILED), text);
}

template <typename Function>
auto Locked(Function function) {
    const std::lock_guard<std::mutex> lock(OrvPlatform::LibdbusMutex());
    return function();
}

/// A connection on which an answer has been read.
class Reader {
public:
    explicit Reader(Simulation& simulation) {
        Locked([&] {
            connection = dbus_connection_open_private("the bus of the lab", nullptr);
            dbus_connection_set_watch_functions(connection, Add, Remove, nullptr, &watches, nullptr);
        });
        Send(DBUS_SERVICE_DBUS, "GetNameOwner");
        simulation.Sleep(SECOND);
        Locked([&] { dbus_watch_handle(watches.front(), DBUS_WATCH_READABLE); });
    }
    ~Reader() {
        Locked([&] {
            dbus_connection_close(connection);
            dbus_connection_unref(connection);
        });
    }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    void Hear() {
        const Message answer(Locked([&] { return dbus_connection_pop_message(connection); }));
        ASSERT_TRUE(answer);
    }
    void Ask(const char* member) { Send(FakeDbus::bus->Owner().c_str(), member); }
    void Send(const char* destination, const char* member) {
        const Message call(dbus_message_new_method_call(destination, "/", "net.connman.Service", member));
        dbus_uint32_t serial = 0;
        Locked([&] { dbus_connection_send(connection, call.get(), &serial); });
    }
    void Wait() { dbus_watch_get_enabled(watches.front()); }

private:
    static dbus_bool_t Add(DBusWatch* watch, void* list) {
        static_cast<std::vector<DBusWatch*>*>(list)->push_back(watch);
        return TRUE;
    }
    static void Remove(DBusWatch*, void*) {}

    DBusConnection* connection = nullptr;
    std::vector<DBusWatch*> watches;
};

} // namespace

TEST(AnInvariantOfTheBus, LetsNoOrderGoBeforeAllIsHeard) {
    Fails([](Simulation& simulation) { Reader(simulation).Ask("MoveBefore"); },
          "gives an order before it has heard what it has read");
    RunAll([](Simulation& simulation) {
        Reader reader(simulation);
        reader.Ask("GetServices"); // a question may go
        reader.Hear();
        simulation.Sleep(SECOND);
        reader.Ask("MoveBefore");
    });
}

TEST(AnInvariantOfTheBus, LetsNobodyAskBeforeTheAnswer) {
    Fails(
        [](Simulation& simulation) {
            Reader reader(simulation);
            reader.Ask("GetServices");
            reader.Ask("GetServices");
            simulation.Sleep(SECOND);
        },
        "does not wait for the answer to the call before");
}

TEST(AnInvariantOfTheBus, LetsNobodySpeakToAStranger) {
    Fails(
        [](Simulation& simulation) {
            Reader reader(simulation);
            reader.Send(":1.66", "GetServices");
            simulation.Sleep(SECOND);
        },
        "speaks to a stranger");
}

TEST(AnInvariantOfTheBus, LetsNobodyWaitBeforeAllIsHeard) {
    Fails([](Simulation& simulation) { Reader(simulation).Wait(); },
          "waits for the bus before it has heard what it has read");
    RunAll([](Simulation& simulation) {
        Reader reader(simulation);
        reader.Hear();
        reader.Wait();
    });
}

} // namespace OrvLab
