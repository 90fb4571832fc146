// SPDX-License-Identifier: Apache-2.0
// The client alone, between a recording session and a recording application: the test kit has whole clients only.
#include "ClientScene.h"
#include "FakeLogger.h"

#include <chrono>
#include <stdexcept>

using namespace OrvStackSdk;
using namespace OrvStackSdk::Testing;
using namespace std::chrono_literals;

namespace {

class AClient : public ClientScene {
protected:
    /// `request` is traced with `text` and becomes `forwarded`, in this order.
    template <typename Request>
    void Expect(Request request, const std::string& tag, const std::string& text, const std::string& forwarded) {
        EXPECT_EQ(Written(request), (Entries{ClientTrace(tag, text), "request " + forwarded}));
    }
};

TEST_F(AClient, TakesTheApplicationsNameAndInitialisesTheSession) {
    Expect([&] { client->Init("alarm"); }, "Init", "(appName=alarm)", "InitRequest(alarm)");
    Expect([&] { client->AppStatusRequest(AppStatus::READY); }, "AppStatusRequest", "(status=ready)",
           "FeatureInitRequest(alarm, status 3)");
}

TEST_F(AClient, KnowsItsNameBeforeTheSessionIsInitialised) {
    session->then = [&](const std::string& line) {
        if (line == "request InitRequest(alarm)")
            client->AppStatusRequest(AppStatus::READY);
    };
    client->Init("alarm");
    EXPECT_EQ(Only(Journal::Take(), {"request"}),
              (Entries{"request InitRequest(alarm)", "request FeatureInitRequest(alarm, status 3)"}));
}

TEST_F(AClient, StopsAndLeavesTheBroker) {
    EXPECT_EQ(Written([&] { client->DeInit(); }),
              (Entries{ClientTrace("DeInit"), ClientTrace("Stop"), "request DeInitRequest()"}));
}

TEST_F(AClient, StopsOnceMoreWhenItWasStopped) {
    client->Stop();
    EXPECT_EQ(Written([&] { client->DeInit(); }),
              (Entries{ClientTrace("DeInit"), ClientTrace("Stop"), "request DeInitRequest()"}));
}

TEST_F(AClient, AnnouncesItselfInTwoSteps) {
    EXPECT_EQ(
        Written([&] { client->Start(); }),
        (Entries{ClientTrace("Start"), ClientTrace("AppStatusRequest", "(status=available)"),
                 "request FeatureAvailableRequest(myapp, true)", ClientTrace("AppStatusRequest", "(status=booting)"),
                 "request FeatureInitRequest(myapp, status 2)"}));
}

TEST_F(AClient, OnlyNotesAStop) {
    EXPECT_EQ(Written([&] { client->Stop(); }), (Entries{ClientTrace("Stop")}));
}

TEST_F(AClient, TracesANewHandler) {
    EXPECT_EQ(Written([&] { client->SetHandler({}); }), (Entries{ClientTrace("SetHandler")}));
}

TEST_F(AClient, CallsTheHandlerThatWasSetLast) {
    const auto second = std::make_shared<RecordingHandler>();
    int calls = 0;
    second->then = [&](const std::string&) { ++calls; };
    client->SetHandler(second);
    client->OnDeviceProbeIndication("guid");
    EXPECT_EQ(calls, 1);
}

TEST_F(AClient, SendsEachStatusWhereItBelongs) {
    for (const auto& [status, word, forwarded] :
         {std::tuple{AppStatus::SUPPORTED, "supported", "FeatureSupportedRequest(myapp, true)"},
          {AppStatus::AVAILABLE, "available", "FeatureAvailableRequest(myapp, true)"},
          {AppStatus::BOOTING, "booting", "FeatureInitRequest(myapp, status 2)"},
          {AppStatus::READY, "ready", "FeatureInitRequest(myapp, status 3)"},
          {AppStatus::ERROR, "error", "FeatureInitRequest(myapp, status 4)"},
          {AppStatus::NOERROR, "noerror", "FeatureInitRequest(myapp, status 5)"},
          {AppStatus::UNSUPPORTED, "UNSUPPORTED", "FeatureInitRequest(myapp, status 6)"}})
        Expect([&, s = status] { client->AppStatusRequest(s); }, "AppStatusRequest",
               std::string("(status=") + word + ")", forwarded);
}

TEST_F(AClient, StoresAStatusBeforeItSendsIt) {
    session->then = [&](const std::string& line) {
        if (line == "request FeatureInitRequest(myapp, status 3)")
            client->OnFeatureInitIndication("myapp", AppAction::RELOAD);
    };
    client->Start();
    Journal::Clear();
    client->AppStatusRequest(AppStatus::READY);
    EXPECT_EQ(Only(Journal::Take(), {"callback"}), (Entries{"callback OnAppActionIndication(RELOAD)"}));
}

TEST_F(AClient, OrdersAnyApplication) {
    Expect([&] { client->AppActionRequest("other", AppAction::RELOAD); }, "AppActionRequest",
           "(App=other, AppAction=RELOAD)", "FeatureInitRequest(other, action 2)");
    Expect([&] { client->AppActionRequest("", AppAction::UNSUPPORTED); }, "AppActionRequest",
           "(App=, AppAction=UNSUPPORTED)", "FeatureInitRequest(, action 3)");
}

TEST_F(AClient, TellsTheCloudConnectionAfterTheStatusHandlerHasSeenTheEvent) {
    EXPECT_EQ(
        Only(Written([&] { client->EventUpdateRequest(OrvEvent::CLOUD_CONNECTED); }),
             {"log trace", "request", "connman"}),
        (Entries{ClientTrace("EventUpdateRequest", "(event=CLOUD_CONNECTED)"), "request LedUpdateRequest(YELLOW, OFF)",
                 "request LedUpdateRequest(GREEN, ON)", "request StatusExtNetRequest(true)", Entry::TopPriority("eth0"),
                 "request StatusEntConRequest(true)"}));
    EXPECT_EQ(Only(Written([&] { client->EventUpdateRequest(OrvEvent::CLOUD_DISCONNECTED); }),
                   {"log trace", "request", "connman"}),
              (Entries{ClientTrace("EventUpdateRequest", "(event=CLOUD_DISCONNECTED)"),
                       "request LedUpdateRequest(YELLOW, ON)", "request LedUpdateRequest(GREEN, OFF)",
                       "request StatusExtNetRequest(false)", Entry::TopPriority("eth0"),
                       "request StatusEntConRequest(false)"}));
}

TEST_F(AClient, GivesEveryOtherEventToTheStatusHandlerOnly) {
    for (int number = 2; number <= 12; ++number) {
        const OrvEvent event{number};
        const auto written = Written([&] { client->EventUpdateRequest(event); });
        EXPECT_EQ(written.front(), ClientTrace("EventUpdateRequest", "(event=" + OrvEventText(event) + ")"));
        EXPECT_EQ(Only(written, {"request StatusEntCon"}), Entries{});
        EXPECT_EQ(Only(written, {"request StatusExtNet"}).size(), 1U) << "the status handler has not seen it";
    }
}

TEST_F(AClient, ForwardsTheRestWithoutATrace) {
    EXPECT_EQ(Written([&] {
                  client->RequestShutdown();
                  client->PanelCommandRequest(" text ", 7);
                  client->PanelCommandRequest("", -1);
                  client->SendConnectionStatus(" up ");
              }),
              (Entries{"request FeaturePrepareForShutdownRequest()", "request PanelCommandRequest( text , 7)",
                       "request PanelCommandRequest(, -1)", "request SendConnectionStatus( up )"}));
}

TEST_F(AClient, ForwardsRequestsAfterItsEndToo) {
    client->DeInit();
    EXPECT_EQ(Only(Written([&] { client->Start(); }), {"request"}),
              (Entries{"request FeatureAvailableRequest(myapp, true)", "request FeatureInitRequest(myapp, status 2)"}));
}

TEST_F(AClient, LetsNoValueWithoutATextThroughWhateverIsLogged) {
    for (const int lowestLevel : {0, 2, 5}) {
        OrvPlatformFake::FakeLogger::SetLowestLevel(lowestLevel);
        EXPECT_THROW(client->AppStatusRequest(AppStatus{7}), std::out_of_range);
        EXPECT_THROW(client->AppActionRequest("other", AppAction{4}), std::out_of_range);
        EXPECT_THROW(client->EventUpdateRequest(OrvEvent{13}), std::out_of_range);
    }
    // Neither a request nor the beginning of a record.
    EXPECT_EQ(Journal::Take(), Entries{});
}

TEST_F(AClient, KeepsItsStatusWhenTheNewOneHasNoText) {
    client->Start();
    EXPECT_THROW(client->AppStatusRequest(AppStatus{7}), std::out_of_range);
    Journal::Clear();
    client->OnFeatureInitIndication("myapp", AppAction::RELOAD);
    EXPECT_EQ(Only(Journal::Take(), {"callback", "request"}), (Entries{"request FeatureInitRequest(myapp, status 2)"}));
}

TEST_F(AClient, DrivesTheRouteOneStepATick) {
    client->EventUpdateRequest(OrvEvent::CLOUD_CONNECTED);
    client->Tick(100ms);
    client->EventUpdateRequest(OrvEvent::CLOUD_DISCONNECTED);
    for (const auto elapsed :
         {std::chrono::milliseconds(0), std::chrono::milliseconds(-5), std::chrono::milliseconds(24h)}) {
        client->EventUpdateRequest(OrvEvent::CLOUD_DISCONNECTED);
        EXPECT_EQ(Written([&] { client->Tick(elapsed); }),
                  (Entries{Entry::Debug("OrvRoute", "Tick", "eth cloud lost, start delay to cell")}));
        client->EventUpdateRequest(OrvEvent::CLOUD_CONNECTED);
        // A second step in the same tick would log again.
        EXPECT_EQ(Written([&] { client->Tick(elapsed); }),
                  (Entries{Entry::Debug("OrvRoute", "Tick", "eth cloud reconnected by itself")}));
    }
}

TEST_F(AClient, NeedsNoReconnectWhileTheRouteStays) {
    EXPECT_EQ(Written([&] { EXPECT_FALSE(client->CloudReconnectNeeded()); }), Entries{});
}

TEST_F(AClient, TracesItsEndAndAsksTheSessionForNothing) {
    client->Start();
    EXPECT_EQ(
        Written([&] { client.reset(); }),
        (Entries{ClientTrace("~OrvStackClient"), Entry::StopDelivery("OrvRoute"), Entry::Disconnect("OrvRoute")}));
    EXPECT_EQ(session.use_count(), 1);
}

/// A product that wraps the client sees the calls that the client makes to itself.
class ADerivedClient : public ClientScene {
protected:
    class Derived : public OrvStackClient {
    public:
        using OrvStackClient::OrvStackClient;
        void Stop() override { Journal::Add("derived Stop"); }
        void AppStatusRequest(const AppStatus& status) override {
            Journal::Add("derived AppStatusRequest " + AppStatusText(status));
            if (forward)
                OrvStackClient::AppStatusRequest(status);
        }
        bool forward = false;
    };

    std::shared_ptr<Derived> derived = std::make_shared<Derived>(session);
};

TEST_F(ADerivedClient, IsAskedToStop) {
    EXPECT_EQ(Written([&] { derived->DeInit(); }),
              (Entries{ClientTrace("DeInit"), "derived Stop", "request DeInitRequest()"}));
}

TEST_F(ADerivedClient, IsAskedToAnnounceItself) {
    EXPECT_EQ(Written([&] { derived->Start(); }), (Entries{ClientTrace("Start"), "derived AppStatusRequest available",
                                                           "derived AppStatusRequest booting"}));
}

TEST_F(ADerivedClient, IsAskedToAnnounceBootingAgainWhenItRefusesAReload) {
    derived->forward = true;
    derived->Start();
    EXPECT_EQ(Only(Written([&] { derived->OnFeatureInitIndication("", AppAction::RELOAD); }), {"derived", "request"}),
              (Entries{"derived AppStatusRequest booting", "request FeatureInitRequest(, status 2)"}));
}

class ANewClient : public ::testing::Test {
protected:
    ANewClient() { OrvPlatformFake::FakeGateway::Reset(); }
    std::shared_ptr<RecordingSession> session = std::make_shared<RecordingSession>();
};

TEST_F(ANewClient, SupervisesTheRouteButAsksTheSessionForNothing) {
    const OrvStackClient client(session);
    EXPECT_EQ(Journal::Take(),
              (Entries{Entry::TopPriority("eth0"), Entry::Connect("OrvRoute"), ClientTrace("OrvStackClient")}));
}

TEST_F(ANewClient, SharesTheSessionWithItsStatusHandler) {
    const OrvStackClient client(session);
    EXPECT_EQ(session.use_count(), 3);
}

TEST_F(ANewClient, CannotBeMadeWithoutABroker) {
    FakeBroker::Get().SetReachable(false);
    EXPECT_THROW(OrvStackClient{session}, std::runtime_error);
    EXPECT_EQ(session.use_count(), 1);
}

TEST_F(ANewClient, ForwardsRequestsBeforeInitWithAnEmptyName) {
    OrvStackClient client(session);
    client.Start();
    client.AppStatusRequest(AppStatus::SUPPORTED);
    EXPECT_EQ(Only(Journal::Take(), {"request"}),
              (Entries{"request FeatureAvailableRequest(, true)", "request FeatureInitRequest(, status 2)",
                       "request FeatureSupportedRequest(, true)"}));
}

TEST_F(ANewClient, DoesNotCountAsBooting) {
    OrvStackClient client(session);
    const auto handler = std::make_shared<RecordingHandler>();
    client.SetHandler(handler);
    client.OnFeatureInitIndication("", AppAction::RELOAD);
    EXPECT_EQ(Only(Journal::Take(), {"callback", "request"}), (Entries{"callback OnAppActionIndication(RELOAD)"}));
}

} // namespace
