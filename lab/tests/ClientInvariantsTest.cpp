// SPDX-License-Identifier: Apache-2.0
// What the explorer of the client library demands, broken on purpose.
#include "ForkedCourse.h"
#include "broker/Wire.h"
#include "client/ClientProgram.h"
#include "client/Edge.h"
#include "client/HandleProgram.h"
#include "client/Story.h"
#include "client/Witness.h"
#include "sim/Simulation.h"

#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace OrvLab {

namespace {

/// A client whose library is played by the test.
struct Play {
    explicit Play(Simulation& simulation) : witness(simulation), story(witness, 1) {
        RouteReference::reported = false;
        RouteReference::path.clear();
        RouteReference::ethernetName = "eth0";
        RouteReference::cellularName = "wwan0";
        witness.onEffect = [this](Call& call, const Effect& effect) { story.Seen(call, effect); };
        witness.onEnd = [this](const std::shared_ptr<Call>& call) { story.Returned(call); };
        witness.onDelivery = [this](const Effect& effect) { story.Delivered(effect); };
        story.feature = "app";
        story.HandlerIs(true);
    }

    std::shared_ptr<Call> Do(Call::Kind kind, const std::string& name, int value,
                             const std::vector<std::string>& effects) {
        auto call = witness.Begin(kind, name, 0);
        call->value = value;
        for (const std::string& effect : effects)
            witness.Note(effect);
        witness.End(call);
        return call;
    }

    Witness witness;
    Story story;
};

void RunPlay(const std::function<void(Play&)>& play) {
    Simulation simulation(1, false);
    simulation.Run([&] {
        Play one(simulation);
        play(one);
    });
}

void Fails(const std::function<void(Play&)>& play, const char* text) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(RunPlay(play), testing::ExitedWithCode(Simulation::FAILED), text);
}

constexpr int ETHERNET_CONNECTED = 5;

std::vector<std::string> AnEvent() {
    const auto led = [](const char* text) { return Edge::Record("trace", "OrvSessionMqtt", "LedUpdateRequest", text); };
    const std::string yellow = "/orv/led/connected_services_yellow";
    const std::string green = "/orv/led/connected_services_green";
    const std::string absent = "/orv/apps_control/features/Ent/status/NoExtNet";
    return {Edge::Record("trace", "OrvStackClient", "EventUpdateRequest", "(event=ETHERNET_CONNECTED)"),
            led("(Led=YELLOW, State=ON)"),
            led(("(Led=" + yellow + ", State=On)").c_str()),
            Edge::Publication("ORV_Stack", true, false, yellow, "On"),
            led("(Led=GREEN, State=OFF)"),
            led(("(Led=" + green + ", State=Off)").c_str()),
            Edge::Publication("ORV_Stack", true, false, green, "Off"),
            Edge::Record("trace", "OrvSessionMqtt", "StatusExtNetRequest", "(NoExtNet=1)"),
            Edge::Publication("ORV_Stack", true, false, absent, "true"),
            "put on top eth0",
            "wrote /var/tmp/new_enterprise_statuses.csv=\"Enterprise Feature\",\"Disabled\"\n\"Cloud "
            "Connection\",\"Down\"\n\"Ethernet\",\"Up\"\n\"Cellular\",\"Down\""};
}

std::vector<std::string> Without(std::vector<std::string> effects, std::size_t which) {
    effects.erase(effects.begin() + static_cast<std::ptrdiff_t>(which));
    return effects;
}

} // namespace

TEST(AnInvariantOfTheClient, IsMetByAnEvent) {
    RunPlay([](Play& play) {
        play.Do(Call::Kind::EVENT, "EventUpdateRequest", ETHERNET_CONNECTED, AnEvent());
        EXPECT_TRUE(play.story.IsQuiet());
    });
}

TEST(AnInvariantOfTheClient, DemandsEachPartOfAnEvent) {
    for (std::size_t part = 0; part < AnEvent().size(); ++part)
        Fails(
            [part](Play& play) {
                play.Do(Call::Kind::EVENT, "EventUpdateRequest", ETHERNET_CONNECTED, Without(AnEvent(), part));
            },
            "should: ");
}

TEST(AnInvariantOfTheClient, DemandsThatEventsAreOnePieceEach) {
    Fails(
        [](Play& play) {
            auto first = play.witness.Begin(Call::Kind::EVENT, "EventUpdateRequest", 0);
            first->value = ETHERNET_CONNECTED;
            const std::vector<std::string> effects = AnEvent();
            play.witness.Note(effects[0]);
            play.witness.Note(effects[1]);
            auto& other = play.witness.sim.Start("another", [&] {
                play.Do(Call::Kind::EVENT, "EventUpdateRequest", ETHERNET_CONNECTED,
                        {effects[0], effects[7], effects[8], effects[9], effects[10]});
            });
            play.witness.sim.Join(other);
            for (std::size_t index = 2; index < effects.size(); ++index)
                play.witness.Note(effects[index]);
            play.witness.End(first);
        },
        "two events are worked on at the same time");
}

TEST(AnInvariantOfTheClient, DemandsThatATickDoesWhatIsDue) {
    Fails([](Play& play) { play.Do(Call::Kind::TICK, "Tick", 0, {}); }, "a tick does nothing in state 0");
    RunPlay([](Play& play) {
        play.Do(Call::Kind::TICK, "Tick", 0,
                {"clock", Edge::Record("debug", "OrvRoute", "Tick", "eth cloud lost, start delay to cell")});
    });
}

TEST(AnInvariantOfTheClient, LetsNobodyReconnectForNothing) {
    Fails(
        [](Play& play) {
            auto call = play.witness.Begin(Call::Kind::RECONNECT, "CloudReconnectNeeded", 0);
            call->answer = true;
            play.witness.End(call);
        },
        "told to reconnect for nothing");
}

TEST(AnInvariantOfTheClient, LetsNoMessageBeSkipped) {
    const auto seen = [](Play& play, const std::string& payload) {
        play.witness.Note(Edge::Record("trace", "OrvSessionMqtt", "OnPublish",
                                       "(topic=/orv/panel/other, message=" + payload + "): Message not handled"));
    };
    RunPlay([&](Play& play) {
        for (const char* payload : {"1", "2"})
            play.story.Handed("/orv/panel/other", payload);
        seen(play, "1");
        seen(play, "2");
        EXPECT_TRUE(play.story.HasSeenAll());
    });
    Fails(
        [&](Play& play) {
            for (const char* payload : {"1", "2"})
                play.story.Handed("/orv/panel/other", payload);
            seen(play, "2");
        },
        "message=1");
}

/// The application has said that it is booting, and that call has not returned yet.
TEST(AnInvariantOfTheClient, LetsTheNewestStatusDecideAboutAReload) {
    const auto announce = [](Play& play, bool isToldAnyway) {
        const std::string context = "(topic=/orv/apps_control/features/app/init, message=reload)";
        auto call = play.witness.Begin(Call::Kind::OTHER, "AppStatusRequest", 0);
        play.witness.Note(Edge::Record("trace", "OrvStackClient", "AppStatusRequest", "(status=booting)"));
        play.witness.Note(
            Edge::Record("trace", "OrvSessionMqtt", "FeatureInitRequest", "(App=app, initState=booting)"));
        auto& delivery = play.witness.sim.Start("delivery", [&] {
            play.story.Handed("/orv/apps_control/features/app/init", "reload");
            play.witness.Note(Edge::Record("trace", "OrvSessionMqtt", "OnPublish",
                                           context + ": Calling OnFeatureInitIndication(RELOAD)..."));
            play.witness.Note(Edge::Record(
                "trace", "OrvStackClient", "OnFeatureInitIndication",
                isToldAnyway ? "(App=app, initState=RELOAD): Calling OnAppActionIndication(RELOAD)..."
                             : "(App=app, initState=RELOAD): Rejecting RELOAD request. This application is already in "
                               "state BOOTING"));
        });
        play.witness.sim.Join(delivery);
    };
    RunPlay([&](Play& one) { announce(one, false); });
    Fails([&](Play& one) { announce(one, true); }, "a RELOAD reaches an application that is booting");
}

struct Answers {
    Simulation* simulation = nullptr;
    Time heldUntil = 0;
    int count = 0;
    void (*then)(const std::string& client, const Packet& message) = nullptr;
};
Answers answers;

TEST(ACourseOfTheClient, HasAnswersThatArriveBeforeTheCallHasReturned) {
    answers = {};
    for (std::uint64_t seed = 0; seed < 40; ++seed) {
        Simulation simulation(seed, false);
        answers.simulation = &simulation;
        answers.heldUntil = 0;
        ClientProgram program(simulation, seed);
        answers.then = Wire::onMessage;
        Wire::onMessage = [](const std::string& client, const Packet& message) {
            answers.count += answers.simulation->Now() < answers.heldUntil && message.payload == "reload" ? 1 : 0;
            answers.then(client, message);
        };
        Edge::onPublished = [published = Edge::onPublished, &simulation] {
            const Time duration = published();
            answers.heldUntil = simulation.Now() + duration;
            return duration;
        };
        simulation.Run([&] { program.Run(); });
    }
    EXPECT_GT(answers.count, 10);
}

TEST(AnInvariantOfTheClient, WatchesTheOrderOfItsEnd) {
    Fails(
        [](Play& play) {
            play.witness.Note(Edge::Record("trace", "OrvStackClient", "~OrvStackClient", ""));
            play.witness.Note("disconnect OrvRoute");
        },
        "its end should: stop the delivery of OrvRoute");
}

TEST(AnInvariantOfTheClient, LimitsHowLongACallWaits) {
    Fails(
        [](Play& play) {
            play.witness.sim.SetJumpListener([&](Time by) { play.witness.Jumped(by); });
            auto call = play.witness.Begin(Call::Kind::OTHER, "Stop", 0);
            play.witness.sim.DisableStalls();
            play.witness.sim.Sleep(10 * SECOND);
            play.witness.Note(Edge::Record("trace", "OrvStackClient", "Stop", ""));
            play.witness.End(call);
        },
        "Stop has waited for ");
}

TEST(AnInvariantOfTheClient, LetsNoLockBeHeldInACallback) {
    Fails(
        [](Play& play) {
            std::recursive_mutex mutex;
            const std::lock_guard<std::recursive_mutex> lock(mutex);
            play.witness.BeginCallback("OnDeviceProbeIndication 1");
        },
        "a lock is held in a callback: OnDeviceProbeIndication 1");
}

/// A callback of a handle in the state that the test gives it.
void CallBack(const std::function<void(HandleProgram& program, HandleProgram::User& user)>& call) {
    Simulation simulation(1, false);
    HandleProgram program(simulation, 3);
    simulation.Run([&] {
        HandleProgram::User user;
        user.program = &program;
        call(program, user);
    });
}

void CallBackFails(const std::function<void(HandleProgram& program, HandleProgram::User& user)>& call,
                   const char* text) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(CallBack(call), testing::ExitedWithCode(Simulation::FAILED), text);
}

TEST(AnInvariantOfAHandle, IsMetByACallback) {
    CallBack([](HandleProgram& program, HandleProgram::User& user) {
        try {
            program.Called(user, "probe 1");
        } catch (const std::runtime_error&) { // as some callbacks do
        }
        EXPECT_EQ(user.told, std::vector<std::string>{"probe 1"});
        EXPECT_EQ(user.callbacks, 0);
    });
}

TEST(AnInvariantOfAHandle, LetsNoCallbackBeginBehindTheEnd) {
    CallBackFails(
        [](HandleProgram& program, HandleProgram::User& user) {
            user.isOver = true;
            program.Called(user, "probe 1");
        },
        "a callback begins though orv_client_destroy has returned: probe 1");
}

TEST(AnInvariantOfAHandle, LetsCallbacksBeginOneAtATime) {
    CallBackFails(
        [](HandleProgram& program, HandleProgram::User& user) {
            user.callbacks = 1;
            program.Called(user, "probe 1");
        },
        "a callback begins while another one runs: probe 1");
}

TEST(AnInvariantOfAHandle, LetsNoLockBeHeldInACallbackButTheOneThatMayBe) {
    CallBackFails(
        [](HandleProgram& program, HandleProgram::User& user) {
            std::mutex mutex;
            const std::lock_guard<std::mutex> lock(mutex);
            program.Called(user, "probe 1");
        },
        "a lock is held in a callback: probe 1");
    CallBackFails(
        [](HandleProgram& program, HandleProgram::User& user) {
            std::recursive_mutex own;
            std::recursive_mutex another;
            const std::lock_guard<std::recursive_mutex> lock(own);
            const std::lock_guard<std::recursive_mutex> second(another);
            program.Called(user, "probe 1");
        },
        "a lock is held in a callback: probe 1");
    CallBack([](HandleProgram& program, HandleProgram::User& user) {
        std::recursive_mutex own;
        const std::lock_guard<std::recursive_mutex> lock(own);
        try {
            program.Called(user, "probe 1");
        } catch (const std::runtime_error&) {
        }
        EXPECT_EQ(program.sim.Self().locks, 1);
    });
}

TEST(AnInvariantOfAHandle, LetsNoCallbackRunOnBehindTheEnd) {
    CallBackFails(
        [](HandleProgram& program, HandleProgram::User& user) {
            user.callbacks = 1;
            program.Destroy(user, false);
        },
        "a callback runs on though orv_client_destroy has returned");
}

namespace {

using Functions = HandleProgram::Functions;

/// A whole course, in which one of the functions in C does what it should not.
struct BrokenFunction {
    const char* name;
    void (*breakOne)(Functions& functions);
    const char* words;
};

std::ostream& operator<<(std::ostream& stream, const BrokenFunction& broken) {
    return stream << broken.words;
}

void RunHandles(std::uint64_t seed, void (*breakOne)(Functions& functions)) {
    Simulation simulation(seed, false);
    HandleProgram program(simulation, seed);
    if (breakOne != nullptr)
        breakOne(program.functions);
    simulation.Run([&] { program.Run(); });
}

/// A function that takes a NULL for a handle.
template <auto>
struct Lenient;
template <typename... Arguments, int (*FUNCTION)(orv_client*, Arguments...)>
struct Lenient<FUNCTION> {
    static int Call(orv_client* client, Arguments... arguments) {
        return client != nullptr ? FUNCTION(client, arguments...) : int{ORV_OK};
    }
};

/// One that publishes what it is to refuse.
template <auto>
struct Hasty;
template <typename... Arguments, int (*FUNCTION)(orv_client*, Arguments...)>
struct Hasty<FUNCTION> {
    static int Call(orv_client* client, Arguments... arguments) {
        const int result = FUNCTION(client, arguments...);
        if (client != nullptr && result == ORV_INVALID_ARGUMENT)
            orv_client_request_shutdown(client);
        return result;
    }
};

/// One that answers this in the place of success.
template <auto, int ANSWER>
struct Answering;
template <typename... Arguments, int (*FUNCTION)(orv_client*, Arguments...), int ANSWER>
struct Answering<FUNCTION, ANSWER> {
    static int Call(orv_client* client, Arguments... arguments) {
        const int result = FUNCTION(client, arguments...);
        return result == ORV_OK ? ANSWER : result;
    }
};

/// Makes no handle, and answers this.
template <int ANSWER>
int CreateNothing(const orv_callbacks* callbacks, void* user, orv_client** client) {
    const int result = orv_client_create(callbacks, user, client);
    if (result != ORV_OK)
        return result;
    orv_client_destroy(*client);
    *client = nullptr;
    return ANSWER;
}

orv_callbacks given; // by the program

using Probe = decltype(orv_callbacks::on_device_probe);

/// Has the panel's identifier told by another function, which calls the program's.
template <Probe TELL>
int CreateTelling(const orv_callbacks* callbacks, void* user, orv_client** client) {
    if (callbacks == nullptr)
        return orv_client_create(callbacks, user, client);
    given = *callbacks;
    orv_callbacks others = given;
    others.on_device_probe = TELL;
    return orv_client_create(&others, user, client);
}

void TellWithoutAnEnd(void* user, const char* guid, std::size_t length) {
    given.on_device_probe(user, guid, length != 0 ? length - 1 : 0);
}
void TellSomethingElse(void* user, const char* guid, std::size_t length) {
    const std::string text = "x" + std::string(guid, length);
    given.on_device_probe(user, text.c_str(), text.size());
}
void TellTwice(void* user, const char* guid, std::size_t length) {
    given.on_device_probe(user, guid, length);
    if (guid == std::string("4711")) // when all is well
        given.on_device_probe(user, guid, length);
}
void TellNobody(void* /*user*/, const char* /*guid*/, std::size_t /*length*/) {}

const BrokenFunction BROKEN[] = {
    {"ANullForCreate",
     [](Functions& functions) {
         functions.create = [](const orv_callbacks* callbacks, void* user, orv_client** client) {
             return client != nullptr ? orv_client_create(callbacks, user, client) : int{ORV_OK};
         };
     },
     "orv_client_create answers 0 to a NULL"},
    {"ANullForDestroy",
     [](Functions& functions) {
         functions.destroy = [](orv_client* client) {
             if (client == nullptr)
                 Witness::Current()->Note("disconnect OrvSession");
             orv_client_destroy(client);
         };
     },
     "orv_client_destroy is given what is not allowed and does: disconnect OrvSession"},
    {"ANullForInit", [](Functions& functions) { functions.init = Lenient<orv_client_init>::Call; },
     "orv_client_init answers 0 to a NULL"},
    {"ANullForDeinit", [](Functions& functions) { functions.deinit = Lenient<orv_client_deinit>::Call; },
     "orv_client_deinit answers 0 to a NULL"},
    {"ANullForStart", [](Functions& functions) { functions.start = Lenient<orv_client_start>::Call; },
     "orv_client_start answers 0 to a NULL"},
    {"ANullForStop", [](Functions& functions) { functions.stop = Lenient<orv_client_stop>::Call; },
     "orv_client_stop answers 0 to a NULL"},
    {"ANullForTick", [](Functions& functions) { functions.tick = Lenient<orv_client_tick>::Call; },
     "orv_client_tick answers 0 to a NULL"},
    {"ANullForAppStatus", [](Functions& functions) { functions.appStatus = Lenient<orv_client_app_status>::Call; },
     "orv_client_app_status answers 0 to a NULL"},
    {"ANullForAppAction", [](Functions& functions) { functions.appAction = Lenient<orv_client_app_action>::Call; },
     "orv_client_app_action answers 0 to a NULL"},
    {"ANullForEvent", [](Functions& functions) { functions.event = Lenient<orv_client_event>::Call; },
     "orv_client_event answers 0 to a NULL"},
    {"ANullForCloudReconnectNeeded",
     [](Functions& functions) { functions.cloudReconnectNeeded = Lenient<orv_client_cloud_reconnect_needed>::Call; },
     "orv_client_cloud_reconnect_needed answers 0 to a NULL"},
    {"ANullForRequestShutdown",
     [](Functions& functions) { functions.requestShutdown = Lenient<orv_client_request_shutdown>::Call; },
     "orv_client_request_shutdown answers 0 to a NULL"},
    {"ANullForPanelCommand",
     [](Functions& functions) { functions.panelCommand = Lenient<orv_client_panel_command>::Call; },
     "orv_client_panel_command answers 0 to a NULL"},
    {"ANullForConnectionStatus",
     [](Functions& functions) { functions.connectionStatus = Lenient<orv_client_connection_status>::Call; },
     "orv_client_connection_status answers 0 to a NULL"},
    {"APublicationWithoutAName", [](Functions& functions) { functions.init = Hasty<orv_client_init>::Call; },
     "orv_client_init is given what is not allowed and does: "},
    {"APublicationOfNoStatus", [](Functions& functions) { functions.appStatus = Hasty<orv_client_app_status>::Call; },
     "orv_client_app_status is given what is not allowed and does: "},
    {"APublicationOfNoAction", [](Functions& functions) { functions.appAction = Hasty<orv_client_app_action>::Call; },
     "orv_client_app_action is given what is not allowed and does: "},
    {"APublicationOfNoCommand",
     [](Functions& functions) { functions.panelCommand = Hasty<orv_client_panel_command>::Call; },
     "orv_client_panel_command is given what is not allowed and does: "},
    {"APublicationOfNoConnectionStatus",
     [](Functions& functions) { functions.connectionStatus = Hasty<orv_client_connection_status>::Call; },
     "orv_client_connection_status is given what is not allowed and does: "},
    {"APublicationOfNoEvent", [](Functions& functions) { functions.event = Hasty<orv_client_event>::Call; },
     "orv_client_event is given what is not allowed and does: "},
    {"AnOrderWithoutAHandle",
     [](Functions& functions) {
         functions.tick = [](orv_client* client, int milliseconds) {
             if (client == nullptr)
                 Witness::Current()->Note("put on top eth0");
             return orv_client_tick(client, milliseconds);
         };
     },
     "orv_client_tick is given what is not allowed and does: put on top eth0"},
    {"AHandleThatIsNone", [](Functions& functions) { functions.create = CreateNothing<ORV_OK>; },
     "orv_client_create answers 0 and makes nothing"},
    {"AHandleThoughThereIsNoBroker",
     [](Functions& functions) {
         functions.create = [](const orv_callbacks* callbacks, void* user, orv_client** client) {
             const int result = orv_client_create(callbacks, user, client);
             return result == ORV_OK ? int{ORV_NO_BROKER} : result;
         };
     },
     "orv_client_create answers -3 and makes a handle"},
    {"AFailureOfCreate", [](Functions& functions) { functions.create = CreateNothing<ORV_FAILED>; },
     "orv_client_create answers -4\n"},
    {"NoHandleAtAll", [](Functions& functions) { functions.create = CreateNothing<ORV_NO_BROKER>; },
     "no handle though all is well"},
    {"AFailureOfInit", [](Functions& functions) { functions.init = Answering<orv_client_init, ORV_FAILED>::Call; },
     "orv_client_init answers -4\n"},
    {"ANameThatCannotBePartOfATopic",
     [](Functions& functions) {
         functions.init = [](orv_client* client, const char* name) {
             const int result = orv_client_init(client, name);
             return name != nullptr && name == std::string("a+b") ? int{ORV_OK} : result;
         };
     },
     "orv_client_init answers 0\n"},
    {"NoBrokerForInit", [](Functions& functions) { functions.init = Answering<orv_client_init, ORV_NO_BROKER>::Call; },
     "no handle though all is well"},
    {"ANullThatIsAName",
     [](Functions& functions) {
         functions.init = [](orv_client* client, const char* name) {
             return client == nullptr || name != nullptr ? orv_client_init(client, name) : int{ORV_OK};
         };
     },
     "orv_client_init answers 0 to a value that is none"},
    {"AFailureOfDeinit",
     [](Functions& functions) { functions.deinit = Answering<orv_client_deinit, ORV_FAILED>::Call; },
     "orv_client_deinit answers -4"},
    {"AFailureOfStart",
     [](Functions& functions) { functions.start = Answering<orv_client_start, ORV_NO_BROKER>::Call; },
     "orv_client_start answers -3"},
    {"ARefusedCommand",
     [](Functions& functions) {
         functions.panelCommand = Answering<orv_client_panel_command, ORV_INVALID_ARGUMENT>::Call;
     },
     "orv_client_panel_command answers -1 to a value that is valid"},
    {"AStatusThatIsNone",
     [](Functions& functions) {
         functions.appStatus = [](orv_client* client, int status) {
             const int result = orv_client_app_status(client, status);
             return client != nullptr && result == ORV_INVALID_ARGUMENT ? int{ORV_OK} : result;
         };
     },
     "orv_client_app_status answers 0 to a value that is none"},
    {"AnAnswerThatIsNeitherYesNorNo",
     [](Functions& functions) {
         functions.cloudReconnectNeeded = Answering<orv_client_cloud_reconnect_needed, 2>::Call;
     },
     "orv_client_cloud_reconnect_needed answers 2"},
    {"ATickThatWaits",
     [](Functions& functions) {
         functions.tick = [](orv_client* client, int milliseconds) {
             if (client != nullptr)
                 Simulation::Current()->Sleep(SECOND);
             return orv_client_tick(client, milliseconds);
         };
     },
     "orv_client_tick has waited for "},
    {"ATextWithoutAnEnd", [](Functions& functions) { functions.create = CreateTelling<TellWithoutAnEnd>; },
     "a text that a callback is given does not end"},
    {"AWrongText", [](Functions& functions) { functions.create = CreateTelling<TellSomethingElse>; },
     "a message on /orv/panel/guid leads to 1 callbacks, one of them probe x4711, not to probe 4711"},
    {"ATextThatIsToldTwice", [](Functions& functions) { functions.create = CreateTelling<TellTwice>; },
     "a message on /orv/panel/guid leads to 2 callbacks, one of them probe 4711, not to probe 4711"},
    {"ATextThatIsNotTold", [](Functions& functions) { functions.create = CreateTelling<TellNobody>; },
     "a message on /orv/panel/guid leads to 0 callbacks, not to probe 4711"},
};

class AHandle : public testing::TestWithParam<BrokenFunction> {};

} // namespace

TEST_P(AHandle, FindsWhatIsBroken) {
    const BrokenFunction& broken = GetParam();
    EXPECT_TRUE(OneOfManySays(broken.words, [&](std::uint64_t seed) { RunHandles(seed, broken.breakOne); }));
}

INSTANTIATE_TEST_SUITE_P(Of, AHandle, testing::ValuesIn(BROKEN),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(AnInvariantOfAHandle, IsMetByACourse) {
    for (std::uint64_t seed = 0; seed < 12; ++seed)
        RunHandles(seed, nullptr);
}

} // namespace OrvLab
