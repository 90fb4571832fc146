// SPDX-License-Identifier: Apache-2.0
#include "broker/AnnouncedState.h"
#include "CountedNew.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

namespace OrvPlatform {

class AnAnnouncedState : public testing::Test {
protected:
    static constexpr std::size_t LIMIT = 1000;

    std::vector<std::string> Announcements() const {
        std::vector<std::string> lines;
        for (const auto& one : state.All())
            lines.push_back(one.topic + "=" + one.payload + (one.retained ? " retained" : "") +
                            (one.assured ? " assured" : "") + (one.pending ? " pending" : ""));
        return lines;
    }

    void Send(const std::string& topic, const std::string& payload, bool retained, bool assured) {
        if (state.Remember(topic, payload, retained, assured) == AnnouncedState::Outcome::REMEMBERED)
            state.MarkLatestSent();
    }

    void Refuse(const std::string& topic, const std::string& payload, bool retained, bool assured) {
        state.Remember(topic, payload, retained, assured);
    }

    AnnouncedState state{LIMIT};
};

using Lines = std::vector<std::string>;

TEST_F(AnAnnouncedState, KeepsTheLastPayloadOfEachRetainedTopicInOrderOfPublication) {
    Send("green", "On", true, false);
    Send("yellow", "Off", true, true);
    Send("green", "Blink", true, false);
    EXPECT_EQ(Announcements(), (Lines{"yellow=Off retained assured", "green=Blink retained"}));
}

TEST_F(AnAnnouncedState, KeepsWhatWasAskedLastWhetherItWasSentOrNot) {
    Send("green", "On", true, true);
    Refuse("green", "Off", true, false);
    Refuse("yellow", "On", true, false);
    EXPECT_EQ(Announcements(), (Lines{"green=Off retained pending", "yellow=On retained pending"}));
    Send("green", "Blink", true, false);
    EXPECT_EQ(Announcements(), (Lines{"yellow=On retained pending", "green=Blink retained"}));
}

TEST_F(AnAnnouncedState, ForgetsPlainMessages) {
    Send("command", "reset", false, true);
    Refuse("command", "reset", false, true);
    EXPECT_EQ(state.Remember("command", "reset", false, true), AnnouncedState::Outcome::NOT_STATE);
    EXPECT_EQ(Announcements(), Lines{});
}

TEST_F(AnAnnouncedState, DeletesARetainedTopicAgainThatWasDeleted) {
    Send("green", "On", true, false);
    Send("green", "", true, false);
    EXPECT_EQ(Announcements(), Lines{"green= retained"});
}

TEST_F(AnAnnouncedState, KeepsTheLastMessageOnTheWillsTopicWithItsKind) {
    state.BeginSession("available");
    Send("available", "true", false, false);
    Refuse("available", "maybe", false, true);
    EXPECT_EQ(Announcements(), Lines{"available=maybe assured pending"});
}

TEST_F(AnAnnouncedState, SaysTheWillsTopicOnceWhenItWasRetained) {
    state.BeginSession("available");
    Send("available", "soon", false, false);
    Send("available", "true", true, false);
    EXPECT_EQ(Announcements(), Lines{"available=true retained"});
}

TEST_F(AnAnnouncedState, EndsOnTheLastWordOnTheWillsTopic) {
    state.BeginSession("available");
    Send("available", "true", true, false);
    Send("available", "soon", false, false);
    EXPECT_EQ(Announcements(), (Lines{"available=true retained", "available=soon"}));
}

TEST_F(AnAnnouncedState, DeletesAgainWhatAWillMayHaveRetained) {
    state.BeginSession("available");
    Send("available", "", true, false);
    EXPECT_EQ(Announcements(), Lines{"available= retained"});
}

TEST_F(AnAnnouncedState, ForgetsTheWillsTopicWithTheWill) {
    state.BeginSession("available");
    Send("available", "true", false, false);
    Send("green", "On", true, false);
    state.BeginSession("");
    Send("available", "true", false, false);
    EXPECT_EQ(Announcements(), Lines{"green=On retained"});
}

TEST_F(AnAnnouncedState, OwesNothingToAConnectionThatTheApplicationMakes) {
    Refuse("green", "On", true, false);
    state.BeginSession("");
    EXPECT_EQ(Announcements(), Lines{"green=On retained"});
}

class AFullAnnouncedState : public AnAnnouncedState {
protected:
    // Topic, payload and 128 bytes of bookkeeping count.
    static constexpr std::size_t MOST = LIMIT / 2 - 128 - 1;

    AFullAnnouncedState() {
        Send("a", std::string(MOST, 'x'), true, false);
        Send("b", std::string(MOST, 'x'), true, false);
    }

    Lines Topics() const {
        Lines topics;
        for (const auto& one : state.All())
            topics.push_back(one.topic);
        return topics;
    }
};

TEST_F(AFullAnnouncedState, TakesNoFurtherTopicAndGoesOnWithThoseThatItHas) {
    EXPECT_EQ(state.Remember("c", "", true, false), AnnouncedState::Outcome::NO_ROOM);
    EXPECT_EQ(state.Remember("a", std::string(MOST, 'y'), true, false), AnnouncedState::Outcome::REMEMBERED);
    EXPECT_EQ(Topics(), (Lines{"b", "a"}));
}

TEST_F(AFullAnnouncedState, AnnouncesNothingRatherThanWhatIsSuperseded) {
    EXPECT_EQ(state.Remember("a", std::string(MOST + 1, 'y'), true, false), AnnouncedState::Outcome::NO_ROOM);
    EXPECT_EQ(Topics(), Lines{"b"});
    EXPECT_EQ(state.Remember("c", std::string(MOST, 'y'), true, false), AnnouncedState::Outcome::REMEMBERED);
    EXPECT_EQ(Topics(), (Lines{"b", "c"}));
}

TEST_F(AFullAnnouncedState, MakesRoomWithDeletionsThatWereHandedOver) {
    Send("a", "", true, false);
    Refuse("b", "", true, false);
    EXPECT_EQ(state.Remember("c", std::string(LIMIT - 2 * 128 - 2, 'x'), true, false),
              AnnouncedState::Outcome::REMEMBERED);
    EXPECT_EQ(Topics(), (Lines{"b", "c"}));
}

TEST_F(AFullAnnouncedState, StillTakesTheLastWordOnTheWillsTopic) {
    state.BeginSession("available");
    EXPECT_EQ(state.Remember("available", "true", false, false), AnnouncedState::Outcome::REMEMBERED);
    EXPECT_EQ(Topics(), (Lines{"a", "b", "available"}));
}

#ifndef ORV_ALLOCATIONS_NOT_COUNTED
TEST(AnAnnouncedStateWithoutMemory, AnnouncesNothingRatherThanWhatIsSuperseded) {
    const std::string topic(100, 'a');
    const std::string payload(100, 'x');
    for (const bool retained : {true, false}) {
        for (const bool known : {true, false}) {
            auto outcome = AnnouncedState::Outcome::OUT_OF_MEMORY;
            for (int allocation = 1; outcome == AnnouncedState::Outcome::OUT_OF_MEMORY; ++allocation) {
                AnnouncedState state(1000);
                state.BeginSession(topic);
                if (known)
                    state.Remember(topic, "superseded", retained, true);
                OrvTest::FailAllocation(allocation);
                outcome = state.Remember(topic, payload, retained, true);
                EXPECT_EQ(OrvTest::HasFailedAllocation(), outcome == AnnouncedState::Outcome::OUT_OF_MEMORY);
                OrvTest::FailAllocation(0);
                EXPECT_EQ(state.All().size(), outcome == AnnouncedState::Outcome::OUT_OF_MEMORY ? 0U : 1U);
                EXPECT_TRUE(state.All().empty() || state.All().front().payload == payload);
                EXPECT_TRUE(allocation > 1 || outcome == AnnouncedState::Outcome::OUT_OF_MEMORY);
            }
        }
    }
}
#endif

} // namespace OrvPlatform
