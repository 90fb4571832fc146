// SPDX-License-Identifier: Apache-2.0
// The small parts of the broker connection, without a broker.
#include "CountedNew.h"
#include "TestClient.h"
#include "broker/AnnouncedState.h"
#include "broker/ClientIdSuffix.h"
#include "broker/EventQueue.h"
#include "broker/EvictionWatch.h"
#include "broker/MosquittoClient.h"
#include "broker/MqttText.h"
#include "broker/OutstandingPublications.h"
#include "broker/SilenceWatch.h"
#include "broker/TopicFilter.h"

#include <gtest/gtest.h>
#include <mosquitto.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace OrvPlatform {

using namespace std::chrono_literals;

class AnEvictionWatch : public testing::Test {
protected:
    void BeEvicted(std::chrono::steady_clock::duration life, int attempt = 1, bool silently = true) {
        now += 250ms;
        watch.Accepted(now, attempt);
        now += life;
        watch.Lost(now, silently);
    }

    EvictionWatch watch;
    EvictionWatch::Time now{};
};

TEST_F(AnEvictionWatch, SuspectsAnotherClientAfterThreeYoungDeathsInARow) {
    BeEvicted(2s);
    BeEvicted(2s);
    EXPECT_FALSE(watch.Suspects());
    BeEvicted(9999ms);
    EXPECT_TRUE(watch.Suspects());
}

TEST_F(AnEvictionWatch, TakesAConnectionOfTenSecondsForASoundOne) {
    BeEvicted(2s);
    BeEvicted(2s);
    BeEvicted(10s);
    BeEvicted(2s);
    EXPECT_FALSE(watch.Suspects());
}

TEST_F(AnEvictionWatch, KnowsThatABrokerThatWasAwayThrowsNobodyOff) {
    for (int restart = 0; restart < 10; ++restart)
        BeEvicted(100ms, 2);
    EXPECT_FALSE(watch.Suspects());
}

TEST_F(AnEvictionWatch, GivesUpItsSuspicionOnceTheBrokerIsSeenToBeAway) {
    for (int eviction = 0; eviction < 3; ++eviction)
        BeEvicted(1s);
    watch.Accepted(now, 2);
    EXPECT_FALSE(watch.Suspects());
}

TEST_F(AnEvictionWatch, KnowsThatABrokenLinkIsNoEviction) {
    for (int fault = 0; fault < 10; ++fault)
        BeEvicted(100ms, 1, false);
    EXPECT_FALSE(watch.Suspects());
}

TEST_F(AnEvictionWatch, GivesUpItsSuspicionOnceAConnectionLasts) {
    for (int eviction = 0; eviction < 5; ++eviction)
        BeEvicted(1s);
    BeEvicted(60s);
    EXPECT_FALSE(watch.Suspects());
}

TEST(OutstandingPublicationsOfAKilobyte, AdmitUpToTheLimitAndNoFurther) {
    OutstandingPublications outstanding(1000);
    EXPECT_TRUE(outstanding.HasRoomFor(1000));
    EXPECT_FALSE(outstanding.HasRoomFor(1001));
    outstanding.Add(1, OutstandingPublications::Prepare({"a", 600, true}));
    EXPECT_TRUE(outstanding.HasRoomFor(400));
    EXPECT_FALSE(outstanding.HasRoomFor(401));
}

TEST(OutstandingPublicationsOfAKilobyte, MakeRoomAsTheBrokerTakesThem) {
    OutstandingPublications outstanding(1000);
    outstanding.Add(1, OutstandingPublications::Prepare({"a", 600, true}));
    outstanding.Add(2, OutstandingPublications::Prepare({"", 400, false}));
    EXPECT_EQ(outstanding.Take(1)->topic, "a");
    EXPECT_FALSE(outstanding.Take(1));
    EXPECT_EQ(outstanding.Bytes(), 400U);
}

TEST(OutstandingPublicationsOfAKilobyte, CountNothingForEverWhenAnIdIsUsedAgainBeforeItIsTaken) {
    OutstandingPublications outstanding(1000);
    outstanding.Add(1, OutstandingPublications::Prepare({"a", 600, true}));
    outstanding.Add(1, OutstandingPublications::Prepare({"", 300, false}));
    outstanding.Take(1);
    outstanding.Take(1);
    EXPECT_EQ(outstanding.Bytes(), 0U);
}

TEST(OutstandingPublicationsOfAKilobyte, LoseWithTheConnectionWhatIsNotAssured) {
    OutstandingPublications outstanding(1000);
    outstanding.Add(1, OutstandingPublications::Prepare({"a", 600, true}));
    outstanding.Add(2, OutstandingPublications::Prepare({"", 400, false}));
    outstanding.DropUnassured();
    EXPECT_EQ(outstanding.Bytes(), 600U);
    EXPECT_TRUE(outstanding.Take(1));
}

TEST(OutstandingPublicationsOfAKilobyte, CountTextAndBookkeeping) {
    const std::size_t empty = OutstandingPublications::Cost("", "");
    EXPECT_GT(empty, 0U);
    EXPECT_EQ(OutstandingPublications::Cost("topic", "payload"), empty + 12);
}

TEST(OutstandingPublicationsOfAKilobyte, AreNoneOnceTheyAreCleared) {
    OutstandingPublications outstanding(1000);
    outstanding.Add(1, OutstandingPublications::Prepare({"a", 600, true}));
    outstanding.Clear();
    EXPECT_EQ(outstanding.Bytes(), 0U);
    EXPECT_FALSE(outstanding.Take(1));
}

TEST(OutstandingPublicationsOfAKilobyte, AdmitNothingBeyondALimitThatAnnouncementsHavePassed) {
    OutstandingPublications outstanding(1000);
    outstanding.Add(1, OutstandingPublications::Prepare({"a", 1001, true}));
    EXPECT_FALSE(outstanding.HasRoomFor(1));
}

TEST(OutstandingPublicationsWithoutAByteLimit, NeverRunOutOfMessageIds) {
    OutstandingPublications outstanding(std::size_t{1} << 30U);
    for (int id = 1; id <= 60000; ++id)
        outstanding.Add(id, OutstandingPublications::Prepare({"", 1, false}));
    EXPECT_FALSE(outstanding.HasRoomFor(1));
}

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

class ASilenceWatch : public testing::Test {
protected:
    ASilenceWatch() { watch.Begin(now); }

    void ServeAfter(std::chrono::milliseconds pause) {
        now += pause;
        watch.Served(now);
    }

    std::chrono::steady_clock::duration LossAfter(std::chrono::milliseconds pause) {
        now += pause;
        return watch.BeforeLoss(now);
    }

    SilenceWatch watch{4s};
    SilenceWatch::Time now{1000s};
};

TEST_F(ASilenceWatch, CountsFromOneAndAHalfTimesTheKeepAliveOn) {
    ServeAfter(1s);
    EXPECT_EQ(LossAfter(5999ms), 0ms);
    EXPECT_EQ(LossAfter(1ms), 6s);
}

TEST_F(ASilenceWatch, RemembersForAMomentASilenceThatEndedTooLate) {
    ServeAfter(7s);
    ServeAfter(10ms);
    EXPECT_EQ(LossAfter(1989ms), 7s);
    EXPECT_EQ(LossAfter(1ms), 0s) << "the broker has forgiven it";
}

TEST_F(ASilenceWatch, BeginsAnewWithEachConnection) {
    ServeAfter(7s);
    now += 3600s;
    watch.Begin(now);
    EXPECT_EQ(LossAfter(1s), 0s);
}

void Push(EventQueue& queue, const std::string& payload) {
    queue.Next().payload = payload;
    queue.Push();
}

TEST(AnEventQueue, KeepsOrderOverReuse) {
    EventQueue queue;
    for (const char* text : {"first", "second"})
        Push(queue, text);
    queue.Clear();
    EXPECT_TRUE(queue.Empty());
    Push(queue, "third");
    ASSERT_EQ(queue.Size(), 1U);
    EXPECT_EQ(queue[0].payload, "third");
}

TEST(AnEventQueue, LetsGoOfLargeTexts) {
    EventQueue queue;
    Event& large = queue.Next();
    large.payload.assign(1 << 20U, 'x');
    large.topic.assign(1 << 15U, 'x');
    queue.Push();
    queue.Clear();
    const Event& next = queue.Next();
    EXPECT_LE(next.payload.capacity(), 1024U);
    EXPECT_LE(next.topic.capacity(), 1024U);
}

TEST(AnEventQueue, ChangesPlacesWithAnother) {
    EventQueue queue;
    EventQueue other;
    Push(queue, "first");
    queue.Swap(other);
    EXPECT_TRUE(queue.Empty());
    ASSERT_EQ(other.Size(), 1U);
    EXPECT_EQ(other[0].payload, "first");
}

TEST(AnEventQueue, LetsGoOfTheSlotsThatABurstNeeded) {
    EventQueue queue;
    for (int number = 0; number < 1000; ++number)
        Push(queue, "leftover");
    queue.Clear();
    std::size_t used = 0;
    for (int number = 0; number < 1000; ++number) {
        used += queue.Next().payload == "leftover" ? 1 : 0;
        queue.Push();
    }
    EXPECT_EQ(used, EventQueue::MOST_KEPT);
}

TEST(AnEventQueue, DoesNotCountAnEventThatWasNotPushed) {
    EventQueue queue;
    queue.Next().payload = "half";
    EXPECT_TRUE(queue.Empty());
    Push(queue, "whole");
    ASSERT_EQ(queue.Size(), 1U);
    EXPECT_EQ(queue[0].payload, "whole");
}

TEST(ATextForTheBroker, IsNamedWithItsFault) {
    for (const auto& [text, fault] :
         std::vector<std::pair<std::string, std::string>>{{"", "is empty"},
                                                          {std::string(65536, 'x'), "is longer than 65535 bytes"},
                                                          {std::string("a\0b", 3), "holds a control character"},
                                                          {"a\nb", "holds a control character"},
                                                          {"a\x7f", "holds a control character"},
                                                          {"a\xff", "is not UTF-8 text"},
                                                          {"a\xc2\x85", "is not UTF-8 text"},
                                                          {"a/+", "holds a wildcard (+ or #)"},
                                                          {"#", "holds a wildcard (+ or #)"}}) {
        const char* found = FaultOfTopic(text);
        EXPECT_STREQ(found, fault.c_str()) << text.substr(0, 20);
    }
    for (const char* topic : {"a", "/", "//", "a//b", "\xc3\xa4"})
        EXPECT_EQ(FaultOfTopic(topic), nullptr) << topic;
    EXPECT_EQ(FaultOfText("a/+/#"), nullptr);
}

TEST(AClientIdSuffix, HasEachPlaceholderReplacedWhereverItStands) {
    const std::string process = std::to_string(getpid());
    EXPECT_EQ(ClientIdSuffix("", "plain", "meter"), "");
    EXPECT_EQ(ClientIdSuffix("-%-100%x", "plain", "meter"), "-%-100%x");
    EXPECT_EQ(ClientIdSuffix("%p-%p", "plain", "meter"), process + "-" + process);
    EXPECT_EQ(ClientIdSuffix("%a-%a", "plain", "meter"), "meter-meter");
    EXPECT_EQ(ClientIdSuffix("%n%n.%p", OrvTest::FreshId("twice"), "meter"), "11." + process);
}

TEST(AClientIdSuffix, NamesTheProgramInCharactersThatEveryBrokerTakes) {
    EXPECT_EQ(ClientIdSuffix("%a", "plain", "a b/c#%p\xc3\xa4.-_9"), "a_b_c__p__.-_9");
    EXPECT_EQ(ClientIdSuffix("%a", "plain", std::string(33, 'x')), std::string(32, 'x'));
}

TEST(AClientIdSuffix, NumbersTheClientsOfEachIdThatAskForIt) {
    const std::string one = OrvTest::FreshId("one");
    EXPECT_EQ(ClientIdSuffix("-shell", one, "meter"), "-shell");
    EXPECT_EQ(ClientIdSuffix("-%n", one, "meter"), "-1");
    EXPECT_EQ(ClientIdSuffix("-%n", OrvTest::FreshId("another"), "meter"), "-1");
    EXPECT_EQ(ClientIdSuffix("-%n", one, "meter"), "-2");
}

TEST(ATopicFilter, MatchesAsASubscriptionWould) {
    const std::vector<std::string> filters{"/orv/led/+", "/orv/network/#", "/exact"};
    for (const char* topic : {"/orv/led/green", "/orv/network", "/orv/network/wan/inhibit_dns", "/exact"})
        EXPECT_TRUE(MatchesAny(filters, topic)) << topic;
    for (const char* topic : {"", "/orv/led", "/orv/led/a/b", "/orv/networks", "/exact/", "exact", "/orv/led/+"})
        EXPECT_FALSE(MatchesAny(filters, topic)) << topic;
    EXPECT_FALSE(MatchesAny({}, "/exact"));
}

TEST(AnErrorText, NamesTheCauseAndWhereItCanTheRemedy) {
    EXPECT_EQ(MosquittoErrorText(MOSQ_ERR_ERRNO, ECONNREFUSED), "Connection refused; is the broker running?");
    EXPECT_EQ(MosquittoErrorText(MOSQ_ERR_ERRNO, ENOENT),
              "No such file or directory; is the broker running, and does it listen there?");
    EXPECT_EQ(MosquittoErrorText(MOSQ_ERR_ERRNO, EACCES),
              "Permission denied; let this program's user or group into the socket's folder and at the socket");
    EXPECT_EQ(MosquittoErrorText(MOSQ_ERR_ERRNO, EAGAIN),
              "Resource temporarily unavailable; the broker takes no connections, does it hang?");
    EXPECT_EQ(MosquittoErrorText(MOSQ_ERR_ERRNO, ENETUNREACH), "Network is unreachable");
    EXPECT_EQ(MosquittoErrorText(MOSQ_ERR_CONN_LOST, 0), "the broker closed the connection");
    EXPECT_EQ(MosquittoErrorText(MOSQ_ERR_KEEPALIVE, 0), "the broker does not answer any more");
    EXPECT_EQ(MosquittoErrorText(MOSQ_ERR_PROTOCOL, 0), "the peer does not speak MQTT, is it a broker?");
    EXPECT_EQ(MosquittoErrorText(MOSQ_ERR_NOMEM, 0), "Out of memory.");
}

TEST(ARefusalText, NamesTheCauseAndTheRemedyOfEachCode) {
    EXPECT_EQ(RefusalText(1), "it does not speak MQTT 3.1.1; use a broker that does");
    EXPECT_EQ(RefusalText(2),
              "it does not accept the client id; shorten client_id_suffix or keep to letters and digits");
    EXPECT_EQ(RefusalText(3), "it is not available; look into its own log");
    EXPECT_EQ(RefusalText(4), "wrong user name or password; compare [broker] username and password with the broker's "
                              "password file");
    EXPECT_EQ(RefusalText(5),
              "not authorised; set [broker] username and password, and look into the broker's access list");
    EXPECT_EQ(RefusalText(9), "refusal code 9");
}

} // namespace OrvPlatform
