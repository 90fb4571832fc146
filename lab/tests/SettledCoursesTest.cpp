// SPDX-License-Identifier: Apache-2.0
// Each demand of a settled course of the connection manager, with somebody who breaks it while the course runs.
#include "ForkedCourse.h"
#include "connman/ConnmanProgram.h"
#include "sim/LabLog.h"
#include "sim/Simulation.h"

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace OrvLab {

/// What the tests see of a program.
struct SettledCourse {
    using Course = void (ConnmanProgram::*)();

    static constexpr Course CHANGES = &ConnmanProgram::CheckChanges;
    static constexpr Course KEPT = &ConnmanProgram::CheckKeptOrders;
    static constexpr Course NOTHING = &ConnmanProgram::CheckNothingToDo;
    static constexpr Course LATEST = &ConnmanProgram::CheckLatestOrders;
    static constexpr Course SILENCE = &ConnmanProgram::CheckSilence;
    static constexpr Course ABSENCE = &ConnmanProgram::CheckAbsence;
    static constexpr Course STRANGERS = &ConnmanProgram::CheckStrangers;
    static constexpr Course MANY = &ConnmanProgram::CheckManyServices;
    static constexpr Course REFUSAL = &ConnmanProgram::CheckRefusal;
    static constexpr Course SPARE = &ConnmanProgram::CheckSpareService;
    static constexpr Course IMMUTABLE = &ConnmanProgram::CheckImmutable;
    static constexpr Course LEFTOVERS = &ConnmanProgram::RunFromLeftovers; // a program by itself

    SettledCourse(Simulation& simulation, std::uint64_t seed) : program(simulation, seed), sim(simulation) {}

    /// @param meddle done at that time after the beginning of the course; null: nobody does anything
    void Run(Course course, Time at, const std::function<void(SettledCourse&)>& meddle) {
        if (course == LEFTOVERS)
            return RunBeside(course, at, meddle);
        program.Make(OrvPlatform::ConnmanRole::CONTROLLER);
        LabLog::longestStall = 0;
        sim.DisableStalls();
        program.bus.Heal();
        program.OrderTop("eth0");
        sim.Sleep(40 * SECOND);
        program.CheckLastOrders();
        sim.Sleep(11 * SECOND);
        program.ordersBefore = program.bus.Orders();
        second = program.Second();
        RunBeside(course, at, meddle);
        program.bus.Heal();
        program.End();
    }

    void RunBeside(Course course, Time at, const std::function<void(SettledCourse&)>& meddle) {
        Simulation::Thread& other = sim.Start("meddler", [&] {
            if (!meddle)
                return;
            sim.Sleep(at);
            meddle(*this);
        });
        (program.*course)();
        sim.Join(other);
    }

    SimulatedBus& Bus() { return program.bus; }
    void Order(const std::string& interfaceName) { program.OrderTop(interfaceName); }
    void OrderServers(const std::string& interfaceName, const char* server) {
        program.OrderServers(interfaceName, {server});
    }
    void Say(const char* record) { program.records.emplace_back(record); }
    void ForgetRecords() { program.records.clear(); }

    ConnmanProgram program;
    Simulation& sim;
    std::string second; // at the beginning not on top
};

namespace {

using Settled = SettledCourse;

void RunOne(std::uint64_t seed, Settled::Course course, Time at, const std::function<void(Settled&)>& meddle) {
    Simulation simulation(seed, false);
    Settled settled(simulation, seed);
    simulation.Run([&] { settled.Run(course, at, meddle); });
}

struct Broken {
    const char* name;
    Settled::Course course;
    Time at;
    void (*meddle)(Settled& course);
    const char* words;
};

std::ostream& operator<<(std::ostream& stream, const Broken& broken) {
    return stream << broken.words;
}

void Refuse(Settled& course) {
    course.Bus().SetManners(SimulatedBus::Manners::REFUSES_ORDERS);
}
void Obey(Settled& course) {
    course.Bus().SetManners(SimulatedBus::Manners::OBEYS);
}
void OrderForTheTop(Settled& course) {
    course.OrderServers(course.Bus().Top(), "203.0.113.60");
}
void OrderForBoth(Settled& course) {
    course.OrderServers("eth0", "203.0.113.61");
    course.OrderServers("wwan0", "203.0.113.62");
}
void OrderAgain(Settled& course) {
    course.Order(course.second);
}

const Broken ALL[] = {
    {"AnOrderAfterAChange", Settled::CHANGES, 50 * MILLISECOND, OrderForTheTop, "undoes what others do: 1 orders"},
    {"AnOldPicture", Settled::CHANGES, 50 * MILLISECOND, [](Settled& course) { course.Bus().Stop(); },
     ", it tells \"\""},
    {"AnAnswerThatIsNone", Settled::KEPT, 50 * MILLISECOND,
     [](Settled& course) {
         if (course.Bus().Of(course.second) == nullptr)
             course.Bus().Add({course.second, "ready", {}});
         else
             course.Bus().SetState(course.second, "ready");
     },
     "an order is said to be under way that cannot be carried out now"},
    {"AnOrderThatCannotBe", Settled::KEPT, 10 * SECOND, OrderForTheTop, "puts on top what is not connected: 1 orders"},
    {"NameServersThatCannotBe", Settled::KEPT, 30 * SECOND + 600 * MILLISECOND, OrderForTheTop,
     "name servers of a service that is not connected: "},
    {"AKeptOrderThatIsForgotten", Settled::KEPT, 31 * SECOND + 50 * MILLISECOND, Refuse,
     "an order that was kept does not come true"},
    {"AReplacedOrder", Settled::KEPT, 31 * SECOND + 600 * MILLISECOND, OrderAgain,
     "an order comes true that was replaced"},
    {"KeptNameServersThatAreForgotten", Settled::KEPT, 31 * SECOND + 600 * MILLISECOND, OrderForBoth,
     "name servers that were ordered before do not come true"},
    {"AQuestionForNothing", Settled::NOTHING, SECOND, OrderForTheTop,
     "asks the connection manager for what is so already"},
    {"AReplacedOrderAtAStart", Settled::LATEST, 200 * MILLISECOND,
     [](Settled& course) {
         for (int count = 0; count < 6; ++count) {
             OrderForBoth(course);
             course.sim.Sleep(50 * MILLISECOND);
             course.OrderServers("eth0", "203.0.113.63");
             course.OrderServers("wwan0", "203.0.113.64");
             course.sim.Sleep(50 * MILLISECOND);
         }
     },
     "gives an order that was replaced"},
    {"AnOrderThatIsForgottenAtAStart", Settled::LATEST, 50 * MILLISECOND, Refuse,
     "the latest order does not come true"},
    {"AnEarlyComplaint", Settled::SILENCE, SECOND, [](Settled& course) { course.Say("it has not answered for 1 s"); },
     "complains of a silence too early"},
    {"NoComplaint", Settled::SILENCE, SECOND, Obey, "does not complain of a silence in time"},
    {"AQuestionInASilence", Settled::SILENCE, 20 * SECOND, Obey, "asks again while an answer is awaited"},
    {"AnotherComplaint", Settled::SILENCE, 20 * SECOND,
     [](Settled& course) { course.Say("it has not answered for 20 s"); }, "complains again of the same silence"},
    {"NoWordOfTheEndOfASilence", Settled::SILENCE, 63 * SECOND + 600 * MILLISECOND,
     [](Settled& course) { course.ForgetRecords(); }, "does not say that the silence is over"},
    {"AnOrderThatIsForgottenInASilence", Settled::SILENCE, 63 * SECOND + 600 * MILLISECOND, OrderForBoth,
     "what was ordered in a silence does not come true"},
    {"ARefusalOfWhatCanBe", Settled::KEPT, 30 * SECOND + 50 * MILLISECOND,
     [](Settled& course) {
         if (course.Bus().Of(course.second) != nullptr)
             course.Bus().Remove(course.second);
     },
     "an order is refused that can be carried out"},
    {"APictureOfNobody", Settled::ABSENCE, 500 * MILLISECOND, [](Settled& course) { course.Bus().StartManager(); },
     " is said to be on top"},
    {"TooFewTries", Settled::ABSENCE, 100 * SECOND,
     [](Settled& course) {
         course.Bus().Start();
         course.Bus().StartManager();
     },
     "in ten minutes without a connection manager it looks for one "},
    {"AnotherWordOfAnAbsence", Settled::ABSENCE, 100 * SECOND,
     [](Settled& course) { course.Say("it is not on the message bus"); }, "an absence is told 2 times"},
    {"AnOrderThatIsForgottenInAnAbsence", Settled::ABSENCE, 600 * SECOND + 500 * MILLISECOND, Refuse,
     "what was ordered without a connection manager does not come true"},
    {"AnOrderOfStrangers", Settled::STRANGERS, 20 * MILLISECOND, OrderForTheTop,
     "an order follows from what strangers say"},
    {"AnotherWordOfStrangers", Settled::STRANGERS, 20 * MILLISECOND,
     [](Settled& course) { course.Say("a signal of somebody"); }, "tells more or less than once of strangers"},
    {"ManyQuestionsBecauseOfStrangers", Settled::STRANGERS, 5 * MILLISECOND,
     [](Settled& course) {
         for (int count = 0; count < 7; ++count) {
             course.Bus().SayNonsense(); // which leads to a question each time
             course.sim.Sleep(15 * MILLISECOND);
         }
     },
     "strangers have it ask "},
    {"AStrangersAnswer", Settled::STRANGERS, 50 * MILLISECOND, Refuse, "takes a stranger's answer for the true one"},
    {"AnOrderAmongManyServices", Settled::MANY, SECOND + 500 * MILLISECOND, OrderForTheTop,
     "the last of many services: "},
    {"AServiceThatIsNotRead", Settled::MANY, 500 * MILLISECOND, Refuse,
     "the last of many services is not where it should be"},
    {"AServiceThatIsNotReadLater", Settled::MANY, SECOND + 500 * MILLISECOND, Refuse,
     "an order does not come true when there are fewer services"},
    {"ARefusedOrderAtOnce", Settled::REFUSAL, 10 * SECOND, OrderAgain, "an order that is refused: 2 orders"},
    {"ARefusedOrderTwiceAfterAChange", Settled::REFUSAL, 32 * SECOND, OrderAgain,
     "a refused order, after a change: 2 orders"},
    {"ARefusedOrderTwiceWhenItIsGivenAgain", Settled::REFUSAL, 37 * SECOND, OrderAgain,
     "a refused order that is given again: 2 orders"},
    {"AnotherWordOfARefusal", Settled::REFUSAL, 10 * SECOND,
     [](Settled& course) { course.Say("cannot put it on top"); },
     "tells more or less than once that an order is refused"},
    {"ARefusedOrderThatIsForgotten", Settled::REFUSAL, 40 * SECOND + 500 * MILLISECOND,
     [](Settled& course) { course.Order(course.second == "eth0" ? "wwan0" : "eth0"); },
     "a refused order does not come true after a change"},
    {"ASpareServiceOnTop", Settled::SPARE, 50 * MILLISECOND, Refuse,
     "the connected service of an interface is not put on top"},
    {"NameServersOfASpareService", Settled::SPARE, 600 * MILLISECOND, OrderForBoth,
     "the name servers of the connected service are not set"},
    {"NameServersOfAProvisionedService", Settled::IMMUTABLE, 2 * SECOND, OrderForBoth,
     "name servers that cannot be set: 1 orders"},
    {"NameServersThatAreForgotten", Settled::IMMUTABLE, 3 * SECOND, Refuse,
     "name servers are not set when they can be"},
    {"AnOrderAtTheStart", Settled::LEFTOVERS, SECOND, OrderForBoth, "at the start: "},
    {"NameServersThatAreNotGivenBack", Settled::LEFTOVERS, 2 * SECOND,
     [](Settled& course) { course.Bus().TakeServersAway("eth0"); }, "are not as they should be at the start"},
};

class ASettledCourse : public testing::TestWithParam<Broken> {};

} // namespace

TEST_P(ASettledCourse, FindsWhatIsBroken) {
    const Broken& broken = GetParam();
    EXPECT_TRUE(OneOfManySays(broken.words,
                              [&](std::uint64_t seed) { RunOne(seed, broken.course, broken.at, broken.meddle); }));
}

INSTANTIATE_TEST_SUITE_P(Of, ASettledCourse, testing::ValuesIn(ALL),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(ASettledCourseOfTheConnectionManager, PassesWhenNobodyBreaksIt) {
    for (const Broken& broken : ALL)
        for (std::uint64_t seed = 0; seed < 3; ++seed)
            RunOne(seed, broken.course, 0, nullptr);
}

} // namespace OrvLab
