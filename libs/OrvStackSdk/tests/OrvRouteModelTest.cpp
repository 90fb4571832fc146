// SPDX-License-Identifier: Apache-2.0
// The route supervisor against its table of transitions: every reachable state, every step out of it.
#include "ConnInterfaceString.h"
#include "RouteFixture.h"
#include "RouteModel.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <map>
#include <random>

namespace OrvStackSdk {
namespace {

using namespace std::chrono_literals;
using namespace Testing;
using OrvPlatformFake::Entries;
using OrvPlatformFake::FakeConnman;
using OrvPlatformFake::FakeGateway;
using OrvPlatformFake::Journal;
using std::chrono::nanoseconds;

constexpr nanoseconds START = 1h;
constexpr std::array<nanoseconds, 5> DELAYS{2s, 3s, 5s, 10s, 20s};
const std::array<std::string, 4> TOPS{"eth0", "wwan0", "usb0", ""};
constexpr std::array<PokeOutcome, 8> OUTCOMES{PokeOutcome::RUNNING,          PokeOutcome::SUCCEEDED,
                                              PokeOutcome::FAILED,           PokeOutcome::ENDED_SILENTLY,
                                              PokeOutcome::CANNOT_BE_DRIVEN, PokeOutcome::NO_MULTI_HANDLE,
                                              PokeOutcome::NO_EASY_HANDLE,   PokeOutcome::NOT_ADDED};

// So that the exploration cannot come to an end early without being noticed.
constexpr std::size_t MINIMUM_STATES = 1200;
constexpr std::size_t MINIMUM_STEPS = 100'000;

struct Action {
    enum Kind { UPDATE, TICK, ASK, OTHER_ROUTE } kind = TICK;
    bool cloud = false; // as the update gives it, or as another route of the process sees it
    bool ethernet = false;
    bool cellular = false;
    RouteModel::Surroundings around{};
};

std::ostream& operator<<(std::ostream& stream, const Action& action) {
    if (action.kind == Action::ASK)
        return stream << "ask";
    if (action.kind == Action::OTHER_ROUTE)
        return stream << "another route sees the cloud " << action.cloud;
    if (action.kind == Action::UPDATE)
        return stream << "update " << action.cloud << action.ethernet << action.cellular;
    return stream << "tick at " << (action.around.now - START).count() << " ns, top \"" << action.around.top
                  << "\", poke " << static_cast<int>(action.around.poke);
}

void ScriptPoke(PokeOutcome outcome) {
    FakeCurl::SetMultiInitFails(outcome == PokeOutcome::NO_MULTI_HANDLE);
    FakeCurl::SetEasyInitFails(outcome == PokeOutcome::NO_EASY_HANDLE);
    FakeCurl::SetAddHandleResult(outcome == PokeOutcome::NOT_ADDED ? CURLM_OUT_OF_MEMORY : CURLM_OK);
    FakeCurl::SetPerformResult(outcome == PokeOutcome::CANNOT_BE_DRIVEN ? CURLM_INTERNAL_ERROR : CURLM_OK);
    if (outcome == PokeOutcome::SUCCEEDED)
        FakeCurl::Succeed();
    else if (outcome == PokeOutcome::FAILED)
        FakeCurl::FailWith(CURLE_COULDNT_CONNECT);
    else if (outcome == PokeOutcome::ENDED_SILENTLY)
        FakeCurl::EndWithoutMessage();
    else
        FakeCurl::KeepRunning();
}

/// Any route that sees the cloud lost clears the process's memory of the reported cloud, one that then sees it
/// connected sets it.
void NotifyAnotherRoute(bool cloud) {
    OrvRoute other([] { return OrvRoute::Clock::time_point(START); });
    other.UpdateRoute(cloud, true, true);
    other.Tick();
}

/// A route and its model side by side.
class Pair {
public:
    explicit Pair(RouteModel::Process& theProcess) : process(theProcess) {
        time.Set(OrvRoute::Clock::time_point(START));
        route = std::make_unique<OrvRoute>(time.Now());
    }

    /// The same step on both; true when they agree.
    bool Apply(const Action& action) {
        Entries expected;
        bool expectedAnswer = false;
        if (action.kind == Action::UPDATE)
            expected = model.Update(action.cloud, action.ethernet, action.cellular);
        else if (action.kind == Action::ASK)
            expectedAnswer = model.TakeReconnect();
        else if (action.kind == Action::TICK)
            expected = model.Tick(process, action.around);
        else
            process.SeeFromAnotherRoute(action.cloud);

        const bool answer = Drive(action);
        const auto seen = Journal::Take();
        if (answer == expectedAnswer && seen == expected && ConnInterfaceString == process.path)
            return true;
        ADD_FAILURE() << "after \"" << action << "\":\n  expected " << ::testing::PrintToString(expected)
                      << "\n  seen     " << ::testing::PrintToString(seen) << "\n  path " << process.path << ", seen "
                      << ConnInterfaceString << (answer == expectedAnswer ? "" : "\n  the answers differ");
        return false;
    }

    /// The step on the route alone; what it writes stands in the journal afterwards.
    bool Drive(const Action& action) {
        if (action.kind == Action::OTHER_ROUTE)
            NotifyAnotherRoute(action.cloud);
        Journal::Clear();
        if (action.kind == Action::ASK)
            return route->CloudReconnectNeeded();
        if (action.kind == Action::UPDATE)
            route->UpdateRoute(action.cloud, action.ethernet, action.cellular);
        if (action.kind != Action::TICK)
            return false;
        ScriptPoke(action.around.poke);
        FakeConnman::Get().SetOrder({action.around.top});
        time.Set(OrvRoute::Clock::time_point(action.around.now));
        route->Tick();
        return false;
    }

    std::uint32_t Key() const { return model.Key(process); }

    RouteModel::Process& process;
    RouteModel model;
    OrvPlatformFake::VirtualClock<OrvRoute::Clock> time;
    std::unique_ptr<OrvRoute> route;
};

nanoseconds OwnDelay(int state) {
    constexpr std::array<nanoseconds, 7> OWN{0s, 10s, 20s, 3s, 2s, 3s, 5s};
    return OWN.at(static_cast<std::size_t>(state));
}

/// Every step that makes sense in the model's state from `now` on, in the order of time.
std::vector<Action> StepsFrom(const RouteModel& model, nanoseconds now) {
    std::vector<nanoseconds> times{now};
    if (model.state != 0)
        for (const auto delay : DELAYS)
            for (const auto shift : {-1ns, 0ns, 1ns})
                if (shift == 0ns || delay == OwnDelay(model.state))
                    times.push_back(model.stateSince + delay + shift);
    times.erase(std::remove_if(times.begin(), times.end(), [now](auto time) { return time < now; }), times.end());
    std::sort(times.begin(), times.end());
    times.erase(std::unique(times.begin(), times.end()), times.end());

    std::vector<Action> steps{{Action::ASK, false, false, false, {now, "", PokeOutcome::RUNNING}}};
    for (const bool cloud : {false, true})
        steps.push_back({Action::OTHER_ROUTE, cloud, false, false, {now, "", PokeOutcome::RUNNING}});
    for (const bool cloud : {false, true})
        for (const bool ethernet : {false, true})
            for (const bool cellular : {false, true})
                steps.push_back({Action::UPDATE, cloud, ethernet, cellular, {now, "", PokeOutcome::RUNNING}});
    for (const auto time : times)
        for (const auto& top : TOPS)
            for (const auto outcome : OUTCOMES)
                if (model.pokeRunning || outcome == PokeOutcome::RUNNING)
                    steps.push_back({Action::TICK, false, false, false, {time, top, outcome}});
    return steps;
}

class TheRouteAndItsModel : public ::testing::Test {
protected:
    TheRouteAndItsModel() {
        FakeGateway::Reset();
        FakeConnman::Get().SetObedient(false);
    }

    /// A route before its first step, in a process whose memory of the reported cloud is known.
    std::unique_ptr<Pair> Fresh() {
        FakeCurl::Reset();
        NotifyAnotherRoute(false);
        ConnInterfaceString.clear();
        process = {};
        return std::make_unique<Pair>(process);
    }

    RouteModel::Process process;
};

/// A state that was reached, as the last step of the shortest way to it.
struct Found {
    const Found* before; // null at the start
    Action last;
    nanoseconds now;
    RouteModel model;
    RouteModel::Process process;
};

class Exploration : public TheRouteAndItsModel {
protected:
    void Explore() {
        Note(*Fresh(), nullptr, {}, START);
        while (!waiting.empty() && !HasFailure()) {
            const Found* found = waiting.front();
            waiting.pop_front();
            TryAllStepsFrom(*found);
        }
    }

    void TryAllStepsFrom(const Found& found) {
        auto pair = WalkTo(found);
        const auto key = pair->Key();
        const auto since = pair->model.stateSince;
        for (const auto& step : StepsFrom(pair->model, found.now)) {
            if (!pair)
                pair = WalkTo(found);
            if (!pair->Apply(step))
                return;
            ++steps;
            Note(*pair, &found, step, step.around.now);
            // A step that leads nowhere leaves the route where the next step wants it.
            if (pair->Key() != key || pair->model.stateSince != since)
                pair.reset();
        }
    }

    /// The way was compared step by step when it was found; here only the route walks it.
    std::unique_ptr<Pair> WalkTo(const Found& found) {
        std::vector<const Action*> way;
        for (const auto* at = &found; at->before; at = at->before)
            way.push_back(&at->last);
        longestWay = std::max(longestWay, way.size());
        auto pair = Fresh();
        for (auto step = way.rbegin(); step != way.rend(); ++step)
            pair->Drive(**step);
        pair->model = found.model;
        process = found.process;
        return pair;
    }

    /// Keeps a state that is new, or was only reached later in its phase so far: earlier steps lead out of it now.
    void Note(const Pair& pair, const Found* before, const Action& last, nanoseconds now) {
        const bool timeCounts = pair.model.state != 0 && (pair.model.state != 4 || pair.model.pokeRunning);
        const auto elapsed = timeCounts ? now - pair.model.stateSince : 0ns;
        const auto known = elapsedAt.find(pair.Key());
        if (known != elapsedAt.end() && known->second <= elapsed)
            return;
        elapsedAt[pair.Key()] = elapsed;
        arena.push_back({before, last, now, pair.model, process});
        waiting.push_back(&arena.back());
    }

    std::map<std::uint32_t, nanoseconds> elapsedAt;
    std::deque<Found> arena;
    std::deque<const Found*> waiting;
    std::size_t steps = 0;
    std::size_t longestWay = 0;
};

TEST_F(Exploration, FindsThemAgreedInEveryStateOnEveryStep) {
    Explore();
    std::cout << elapsedAt.size() << " states, " << steps << " steps, longest way " << longestWay << '\n';
    EXPECT_GE(elapsedAt.size(), MINIMUM_STATES);
    EXPECT_GE(steps, MINIMUM_STEPS);
    EXPECT_EQ(RouteModel::UsedRows(), RouteModel::AllRows());
}

class ALongRandomRun : public TheRouteAndItsModel {
protected:
    static std::uint32_t NumberFrom(const char* variable, std::uint32_t otherwise) {
        const char* text = std::getenv(variable); // NOLINT(concurrency-mt-unsafe): nobody changes the environment
        return text ? static_cast<std::uint32_t>(std::stoul(text)) : otherwise;
    }

    std::uint32_t Below(std::uint32_t limit) { return static_cast<std::uint32_t>(random() % limit); }

    /// Time mostly creeps, sometimes jumps to the end of a delay, one nanosecond early or late.
    void LetTimePass(const RouteModel& model) {
        const auto end = model.stateSince + DELAYS[Below(DELAYS.size())] + nanoseconds(Below(3)) - 1ns;
        now = Below(3) == 0 ? std::max(now, end) : now + nanoseconds(Below(500'000'000));
    }

    Action NextStep(const RouteModel& model) {
        const auto choice = Below(10);
        if (choice == 0)
            return {Action::ASK, false, false, false, {}};
        if (choice == 1 && Below(5) == 0)
            return {Action::OTHER_ROUTE, Below(2) == 0, false, false, {}};
        if (choice < 4)
            return {Action::UPDATE, Below(2) == 0, Below(2) == 0, Below(2) == 0, {}};
        LetTimePass(model);
        return {Action::TICK, false, false, false, {now, TOPS[Below(TOPS.size())], OUTCOMES[Below(OUTCOMES.size())]}};
    }

    std::mt19937 random;
    nanoseconds now = START;
};

TEST_F(ALongRandomRun, FindsTwoRoutesOfAProcessAgreedWithTheirModels) {
    const auto seed = NumberFrom("ORV_MODEL_SEED", std::random_device{}());
    const auto steps = NumberFrom("ORV_MODEL_STEPS", 200'000);
    std::cout << "ORV_MODEL_SEED=" << seed << " ORV_MODEL_STEPS=" << steps << '\n';
    random.seed(seed);
    auto first = Fresh();
    auto second = std::make_unique<Pair>(process);
    std::set<int> statesSeen;
    for (std::uint32_t i = 0; i < steps; ++i) {
        auto& pair = Below(2) == 0 ? *first : *second;
        ASSERT_TRUE(pair.Apply(NextStep(pair.model))) << "step " << i;
        statesSeen.insert(pair.model.state);
    }
    EXPECT_EQ(statesSeen, (std::set<int>{0, 1, 2, 3, 4, 5, 6}));
}

} // namespace
} // namespace OrvStackSdk
