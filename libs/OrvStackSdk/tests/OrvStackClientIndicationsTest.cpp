// SPDX-License-Identifier: Apache-2.0
#include "ClientScene.h"
#include "FakeLogger.h"

#include <stdexcept>

using namespace OrvStackSdk;
using namespace OrvStackSdk::Testing;

namespace {

class AnIndication : public ClientScene {
protected:
    /// `indication` is traced with `text` and becomes `callback`, in this order.
    template <typename Indication>
    void Expect(Indication indication, const std::string& tag, const std::string& text, const std::string& callback) {
        EXPECT_EQ(Written(indication), (Entries{ClientTrace(tag, text), "callback " + callback}));
    }

    template <typename Indication>
    void ExpectDropped(Indication indication) {
        EXPECT_EQ(Written(indication), Entries{});
    }

    /// Every indication that can reach the application, for an own or a foreign name as it must be.
    void RaiseAll() {
        client->OnInitConfirmation(Confirmation::ACK);
        client->OnFeatureAvailableIndication("other", true);
        client->OnFeatureSupportedIndication("other", true);
        client->OnFeatureInitIndication("other", AppStatus::READY);
        client->OnFeatureInitIndication("myapp", AppAction::RELOAD);
        client->OnDeviceProbeIndication("guid");
        client->OnDeviceConnectionStatusIndication(true);
        client->OnDeviceCellularStatusIndication(CellularStatus::IMEI, "1");
        client->OnAppsControlEventIndication("other", "event");
        client->OnFeaturePrepareForShutdownIndication("other", "event");
        client->OnFeatureShutdownReadinessIndication("other", true);
    }
};

TEST_F(AnIndication, ConfirmsTheInit) {
    for (const auto& [confirmation, word] :
         {std::pair{Confirmation::ACK, std::string("ACK")}, {Confirmation::NACK, std::string("NACK")}})
        Expect([&, c = confirmation] { client->OnInitConfirmation(c); }, "OnInitConfirmation",
               "(confirmation=" + word + "): Calling OnInitConfirmation(" + word + ")...",
               "OnInitConfirmation(" + word + ")");
}

TEST_F(AnIndication, TellsAnotherFeaturesAvailability) {
    Expect([&] { client->OnFeatureAvailableIndication("OtherApp", true); }, "OnFeatureAvailableIndication",
           "(App=OtherApp, available=True): Calling OnAppStatusIndication(available)...",
           "OnAppStatusIndication(OtherApp, available)");
}

TEST_F(AnIndication, TellsAnotherFeaturesSupport) {
    Expect([&] { client->OnFeatureSupportedIndication("OtherApp", true); }, "OnFeatureSupportedIndication",
           "(App=OtherApp, supported=True): Calling OnAppStatusIndication(supported)...",
           "OnAppStatusIndication(OtherApp, supported)");
}

TEST_F(AnIndication, TellsAnotherFeaturesState) {
    Expect([&] { client->OnFeatureInitIndication("OtherApp", AppStatus::READY); }, "OnFeatureInitIndication",
           "(App=OtherApp, initState=ready): Calling OnAppStatusIndication(ready)...",
           "OnAppStatusIndication(OtherApp, ready)");
}

TEST_F(AnIndication, OfTheOwnStatusIsDroppedInAnyCaseOfTheName) {
    for (const char* name : {"myapp", "MyApp", "MYAPP"}) {
        ExpectDropped([&] { client->OnFeatureAvailableIndication(name, true); });
        ExpectDropped([&] { client->OnFeatureSupportedIndication(name, true); });
        ExpectDropped([&] { client->OnFeatureInitIndication(name, AppStatus::READY); });
    }
}

TEST_F(AnIndication, ThatAnotherFeatureIsNotThereIsDropped) {
    ExpectDropped([&] { client->OnFeatureAvailableIndication("OtherApp", false); });
    ExpectDropped([&] { client->OnFeatureSupportedIndication("OtherApp", false); });
}

TEST_F(AnIndication, OrdersTheOwnApplicationInAnyCaseOfTheName) {
    for (const std::string name : {"myapp", "MyApp", "MYAPP"})
        for (const auto& [action, word] : {std::pair{AppAction::ENABLED, std::string("ENABLED")},
                                           {AppAction::DISABLED, std::string("DISABLED")},
                                           {AppAction::RELOAD, std::string("RELOAD")},
                                           {AppAction::UNSUPPORTED, std::string("UNSUPPORTED")}})
            Expect([&, a = action] { client->OnFeatureInitIndication(name, a); }, "OnFeatureInitIndication",
                   "(App=" + name + ", initState=" + word + "): Calling OnAppActionIndication(" + word + ")...",
                   "OnAppActionIndication(" + word + ")");
}

TEST_F(AnIndication, OfAnotherFeaturesActionIsDropped) {
    for (const char* name : {"OtherApp", "", "myap", "myapp2"})
        ExpectDropped([&] { client->OnFeatureInitIndication(name, AppAction::ENABLED); });
}

TEST_F(AnIndication, NamesThePanel) {
    Expect([&] { client->OnDeviceProbeIndication(" {4711} "); }, "OnDeviceProbeIndication",
           "(guid= {4711} ): Calling OnDeviceProbeIndication( {4711} )...", "OnDeviceProbeIndication( {4711} )");
}

TEST_F(AnIndication, TellsThePanelsConnectionUnderAnotherName) {
    Expect([&] { client->OnDeviceConnectionStatusIndication(true); }, "OnDeviceConnectionStatusIndication",
           "(online=1): Calling OnDeviceOnlineStatusIndication(1)...", "OnDeviceOnlineStatusIndication(true)");
    Expect([&] { client->OnDeviceConnectionStatusIndication(false); }, "OnDeviceConnectionStatusIndication",
           "(online=0): Calling OnDeviceOnlineStatusIndication(0)...", "OnDeviceOnlineStatusIndication(false)");
}

TEST_F(AnIndication, TellsAnItemOfTheModem) {
    Expect([&] { client->OnDeviceCellularStatusIndication(CellularStatus::STRENGTH, "-71 dBm"); },
           "OnDeviceCellularStatusIndication",
           "(status=STRENGTH, value=-71 dBm): Calling OnDeviceCellularStatusIndication(STRENGTH, -71 dBm)...",
           "OnDeviceCellularStatusIndication(STRENGTH, -71 dBm)");
}

TEST_F(AnIndication, TellsReadinessForShutdownOfAnyone) {
    Expect([&] { client->OnFeatureShutdownReadinessIndication("OtherApp", true); },
           "OnFeatureShutdownReadinessIndication",
           "(App=OtherApp, ready=1): Calling OnFeatureShutdownReadinessIndication()...",
           "OnFeatureShutdownReadinessIndication(OtherApp, true)");
    Expect([&] { client->OnFeatureShutdownReadinessIndication("myapp", false); },
           "OnFeatureShutdownReadinessIndication",
           "(App=myapp, ready=0): Calling OnFeatureShutdownReadinessIndication()...",
           "OnFeatureShutdownReadinessIndication(myapp, false)");
}

TEST_F(AnIndication, OfAppsControlOrPreparationForShutdownIsIgnored) {
    for (const char* name : {"myapp", "OtherApp", ""}) {
        ExpectDropped([&] { client->OnAppsControlEventIndication(name, "RELOAD"); });
        ExpectDropped([&] { client->OnFeaturePrepareForShutdownIndication(name, "preparing"); });
    }
}

TEST_F(AnIndication, IsDroppedSilentlyWhenTheApplicationIsGone) {
    handler.reset();
    ExpectDropped([&] { RaiseAll(); });
}

TEST_F(AnIndication, IsDroppedSilentlyWithoutAnApplication) {
    client->SetHandler({});
    ExpectDropped([&] { RaiseAll(); });
}

TEST_F(AnIndication, IsHandledInAnyStateOfTheClient) {
    const auto callbacks = [&] { return Only(Written([&] { RaiseAll(); }), {"callback"}).size(); };
    EXPECT_EQ(callbacks(), 9U);
    client->DeInit();
    EXPECT_EQ(callbacks(), 9U);
}

TEST_F(AnIndication, KeepsTheApplicationWhileItIsCalled) {
    bool aliveInside = false;
    handler->then = [&, weak = std::weak_ptr<RecordingHandler>(handler)](const std::string&) {
        handler.reset();
        aliveInside = !weak.expired();
    };
    client->OnDeviceProbeIndication("guid");
    EXPECT_TRUE(aliveInside);
    ExpectDropped([&] { client->OnDeviceProbeIndication("guid"); });
}

TEST_F(AnIndication, DoesNotKeepTheApplicationAlive) {
    EXPECT_EQ(handler.use_count(), 1);
}

/// An application that is still booting has nothing to reload.
TEST_F(AnIndication, EndsWithAValueWithoutATextWhateverIsLogged) {
    for (const int lowestLevel : {0, 2}) {
        OrvPlatformFake::FakeLogger::SetLowestLevel(lowestLevel);
        EXPECT_THROW(client->OnInitConfirmation(Confirmation{2}), std::out_of_range);
        EXPECT_THROW(client->OnFeatureInitIndication("other", AppStatus{7}), std::out_of_range);
        EXPECT_THROW(client->OnFeatureInitIndication("myapp", AppAction{4}), std::out_of_range);
        EXPECT_THROW(client->OnDeviceCellularStatusIndication(CellularStatus{5}, "1"), std::out_of_range);
    }
    // Neither a callback nor the beginning of a record.
    EXPECT_EQ(Journal::Take(), Entries{});
}

TEST_F(AnIndication, WithAValueWithoutATextIsDroppedLikeAnyOther) {
    ExpectDropped([&] { client->OnFeatureInitIndication("myapp", AppStatus{7}); });
    ExpectDropped([&] { client->OnFeatureInitIndication("other", AppAction{4}); });
    handler.reset();
    ExpectDropped([&] {
        client->OnInitConfirmation(Confirmation{2});
        client->OnDeviceCellularStatusIndication(CellularStatus{5}, "1");
    });
}

class AReloadOrder : public AnIndication {
protected:
    const Entries refusal{
        ClientTrace("OnFeatureInitIndication",
                    "(App=MyApp, initState=RELOAD): Rejecting RELOAD request. This application is already in state "
                    "BOOTING"),
        ClientTrace("AppStatusRequest", "(status=booting)"),
        "request FeatureInitRequest(myapp, status 2)",
    };

    Entries Ordered(AppAction action = AppAction::RELOAD) {
        return Written([&] { client->OnFeatureInitIndication("MyApp", action); });
    }
};

TEST_F(AReloadOrder, IsRefusedWhileBooting) {
    client->Start();
    EXPECT_EQ(Ordered(), refusal);
    EXPECT_EQ(Ordered(), refusal);
}

TEST_F(AReloadOrder, IsRefusedWithoutAnApplicationToo) {
    client->Start();
    handler.reset();
    EXPECT_EQ(Ordered(), refusal);
}

TEST_F(AReloadOrder, ForAnotherApplicationIsDroppedWhileBooting) {
    client->Start();
    ExpectDropped([&] { client->OnFeatureInitIndication("OtherApp", AppAction::RELOAD); });
}

TEST_F(AReloadOrder, ReachesTheApplicationInEveryOtherState) {
    EXPECT_EQ(Only(Ordered(), {"callback", "request"}), (Entries{"callback OnAppActionIndication(RELOAD)"}));
    for (const auto status : {AppStatus::SUPPORTED, AppStatus::AVAILABLE, AppStatus::READY, AppStatus::ERROR,
                              AppStatus::NOERROR, AppStatus::UNSUPPORTED}) {
        client->Start();
        client->AppStatusRequest(status);
        EXPECT_EQ(Only(Ordered(), {"callback", "request"}), (Entries{"callback OnAppActionIndication(RELOAD)"}));
    }
}

TEST_F(AReloadOrder, IsTheOnlyOneRefusedWhileBooting) {
    client->Start();
    for (const auto action : {AppAction::ENABLED, AppAction::DISABLED, AppAction::UNSUPPORTED})
        EXPECT_EQ(Only(Ordered(action), {"callback", "request"}),
                  (Entries{"callback OnAppActionIndication(" + AppActionText(action) + ")"}));
}

TEST_F(AReloadOrder, IsNotAffectedByActionsForOthers) {
    client->Start();
    client->AppActionRequest("OtherApp", AppAction::ENABLED);
    EXPECT_EQ(Ordered(), refusal);
}

} // namespace
