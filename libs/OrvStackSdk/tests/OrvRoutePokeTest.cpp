// SPDX-License-Identifier: Apache-2.0
#include "RouteFixture.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace OrvStackSdk {
namespace {

using namespace Testing;
using OrvPlatformFake::Entries;
using OrvPlatformFake::FakeGateway;
using OrvPlatformFake::Only;

const Entries PERFORM{"curl perform"};
const Entries READ{"curl info_read"};

Entries SettingUp(const std::string& interfaceName = "wwan0") {
    return FakeCurl::SetUpLines("https://cloud.example", interfaceName);
}

/// A poke without a route.
class APoke : public testing::Test {
protected:
    APoke() {
        FakeGateway::Reset();
        FakeCurl::Reset();
        poke.SetUrl("https://cloud.example");
        poke.Start("wwan0");
        OrvPlatformFake::Journal::Clear();
    }

    Entries AfterStep() {
        OrvPlatformFake::Journal::Clear();
        succeeded = poke.Step();
        return OrvPlatformFake::Journal::Take();
    }
    Entries AfterStop() {
        OrvPlatformFake::Journal::Clear();
        poke.Stop();
        return OrvPlatformFake::Journal::Take();
    }

    CommonUtils::Logger logger{"OrvRoute", 0};
    OrvRoutePoke poke{logger};
    bool succeeded = false;
};

TEST_F(APoke, DoesNothingBeforeItsFirstStep) {
    poke.Start("eth0");
    EXPECT_EQ(OrvPlatformFake::Journal::Take(), Entries{});
    EXPECT_EQ(poke.Interface(), "eth0");
    EXPECT_EQ(AfterStep(), SettingUp("eth0") + PERFORM);
}

TEST_F(APoke, SaysOnceThatItHasSucceeded) {
    EXPECT_EQ(AfterStep(), SettingUp() + PERFORM);
    EXPECT_FALSE(succeeded);
    FakeCurl::Succeed();
    EXPECT_EQ(AfterStep(), PERFORM + READ + FakeCurl::CleanLines());
    EXPECT_TRUE(succeeded);
    FakeCurl::KeepRunning();
    EXPECT_EQ(AfterStep(), SettingUp() + PERFORM);
    EXPECT_FALSE(succeeded);
}

TEST_F(APoke, GoesOnWithItsAttemptWhenItIsStartedOnceMore) {
    poke.Step();
    poke.Start("wwan0");
    EXPECT_EQ(AfterStep(), PERFORM);
}

TEST_F(APoke, ReleasesItsAttemptWhenItIsStopped) {
    poke.Step();
    EXPECT_EQ(AfterStop(), FakeCurl::CleanLines());
    EXPECT_EQ(FakeCurl::LiveHandles(), 0);
    EXPECT_EQ(AfterStep(), SettingUp() + PERFORM);
}

TEST_F(APoke, IsStoppedHarmlesslyWithoutAnAttempt) {
    EXPECT_EQ(AfterStop(), FakeCurl::IdleCleanLines());
    EXPECT_EQ(AfterStop(), FakeCurl::IdleCleanLines());
    EXPECT_EQ(AfterStep(), SettingUp() + PERFORM);
}

/// A route that has just decided to poke over Cellular.
class ThePoke : public RouteFixture {
protected:
    ThePoke() { StartCellularPoke(); }

    Entries CurlCalls() { return Only(AfterTick(), {"curl"}); }

    /// The next tick ends the attempt with these completion messages; what it does up to a clean-up.
    Entries AfterMessages(std::vector<FakeCurl::Answer> answers) {
        FakeCurl::End(std::move(answers));
        return AfterTick();
    }

    static FakeCurl::Answer Done(CURLcode result, int left = 0) { return {false, CURLMSG_DONE, result, left}; }
    static FakeCurl::Answer OfOtherKind(CURLcode result, int left = 0) { return {false, CURLMSG_NONE, result, left}; }
    static FakeCurl::Answer None(int left) { return {true, CURLMSG_DONE, CURLE_OK, left}; }

    const Entries routeToCell{"connman top wwan0", RouteDebug("poke success, route to Cell")};
};

TEST_F(ThePoke, IsNotTouchedBeforeTheTickAfterItsStart) {
    EXPECT_EQ(FakeCurl::LiveHandles(), 0);
}

TEST_F(ThePoke, IsSetUpWithItsOptionsInOrderAndDrivenOneStep) {
    EXPECT_EQ(
        AfterTick(),
        (Entries{"curl multi_init", "curl easy_init", "curl setopt URL https://cloud.example",
                 "curl setopt CONNECT_ONLY 1", "curl setopt NOBODY 1", "curl setopt INTERFACE if!wwan0",
                 "curl setopt NOSIGNAL 1", "curl setopt FAILONERROR 1", "curl setopt TIMEOUT 15",
                 "curl setopt FORBID_REUSE 1", "curl setopt FRESH_CONNECT 1", "curl setopt QUICK_EXIT 1",
                 "curl setopt SOCKOPTFUNCTION set", "curl setopt SOCKOPTDATA set", "curl add_handle", "curl perform"}));
    EXPECT_EQ(FakeCurl::LiveHandles(), 2);
}

TEST_F(ThePoke, GoesOnAStepATickWhileItRuns) {
    route->Tick();
    EXPECT_EQ(AfterTick(), PERFORM);
    EXPECT_EQ(AfterTick(), PERFORM);
}

TEST_F(ThePoke, SucceedsAndReleasesItsHandles) {
    route->Tick();
    FakeCurl::Succeed();
    EXPECT_EQ(AfterTick(), PERFORM + READ + FakeCurl::CleanLines() + routeToCell);
    EXPECT_EQ(FakeCurl::LiveHandles(), 0);
}

TEST_F(ThePoke, LogsAFailureAndStartsAnewOnTheNextTick) {
    FakeCurl::FailWith(CURLE_COULDNT_CONNECT);
    EXPECT_EQ(AfterTick(), SettingUp() + PERFORM + READ + Entries{RouteError("poke error 7")} + FakeCurl::CleanLines());
    EXPECT_EQ(FakeCurl::LiveHandles(), 0);
    EXPECT_EQ(CurlCalls(), SettingUp() + PERFORM + READ + FakeCurl::CleanLines());
}

TEST_F(ThePoke, NamesATimeOutByItsNumber) {
    FakeCurl::FailWith(CURLE_OPERATION_TIMEDOUT);
    EXPECT_EQ(EffectsOfTick(), Entries{RouteError("poke error 28")});
}

TEST_F(ThePoke, StaysAsItIsWhenItEndsWithoutAMessage) {
    route->Tick();
    EXPECT_EQ(AfterMessages({}), PERFORM + READ);
    EXPECT_EQ(AfterTick(), PERFORM + READ);
    EXPECT_EQ(FakeCurl::LiveHandles(), 2);
    FakeCurl::Succeed();
    EXPECT_EQ(AfterTick(), PERFORM + READ + FakeCurl::CleanLines() + routeToCell);
}

TEST_F(ThePoke, TakesAMessageOfAnotherKindForNone) {
    route->Tick();
    EXPECT_EQ(AfterMessages({OfOtherKind(CURLE_OK)}), PERFORM + READ);
    EXPECT_EQ(AfterMessages({OfOtherKind(CURLE_COULDNT_CONNECT)}), PERFORM + READ);
}

TEST_F(ThePoke, ReadsOnWhileMessagesAreLeft) {
    route->Tick();
    EXPECT_EQ(AfterMessages({OfOtherKind(CURLE_OK, 2), None(1), Done(CURLE_OK)}),
              PERFORM + READ + READ + READ + FakeCurl::CleanLines() + routeToCell);
}

TEST_F(ThePoke, RemembersASuccessOverLaterMessages) {
    route->Tick();
    EXPECT_EQ(AfterMessages({Done(CURLE_OK, 1), OfOtherKind(CURLE_OK)}),
              PERFORM + READ + READ + FakeCurl::CleanLines() + routeToCell);
}

TEST_F(ThePoke, CountsASuccessThatAFailureFollows) {
    route->Tick();
    EXPECT_EQ(AfterMessages({Done(CURLE_OK, 1), Done(CURLE_RECV_ERROR)}),
              PERFORM + READ + READ + Entries{RouteError("poke error 56")} + FakeCurl::CleanLines() + routeToCell);
}

TEST_F(ThePoke, StopsReadingAtAFailure) {
    route->Tick();
    EXPECT_EQ(AfterMessages({Done(CURLE_RECV_ERROR, 1), Done(CURLE_OK)}),
              PERFORM + READ + Entries{RouteError("poke error 56")} + FakeCurl::CleanLines());
}

TEST_F(ThePoke, ReadsNoMessageWhileItRuns) {
    FakeCurl::Succeed();
    FakeCurl::KeepRunning();
    EXPECT_EQ(AfterTick(), SettingUp() + PERFORM);
}

TEST_F(ThePoke, IsReleasedWhenItCannotBeDriven) {
    for (const auto result : {CURLM_INTERNAL_ERROR, CURLM_CALL_MULTI_PERFORM}) {
        FakeCurl::SetPerformResult(result);
        EXPECT_EQ(AfterTick(),
                  SettingUp() + PERFORM + Entries{RouteError("curl multi perform error")} + FakeCurl::CleanLines());
        EXPECT_EQ(FakeCurl::LiveHandles(), 0);
    }
}

TEST_F(ThePoke, ReportsAMultiHandleThatCannotBeMade) {
    FakeCurl::SetMultiInitFails(true);
    EXPECT_EQ(AfterTick(), (Entries{"curl multi_init", RouteError("ERROR Setup Poke")}));
}

TEST_F(ThePoke, ReportsAnEasyHandleThatCannotBeMade) {
    FakeCurl::SetEasyInitFails(true);
    const Entries attempt{"curl multi_init", "curl easy_init", "curl multi_cleanup", RouteError("ERROR Setup Poke")};
    EXPECT_EQ(AfterTick(), attempt);
    EXPECT_EQ(AfterTick(), attempt);
    EXPECT_EQ(FakeCurl::LiveHandles(), 0);
}

TEST_F(ThePoke, ReportsATransferThatCannotBeAdded) {
    FakeCurl::SetAddHandleResult(CURLM_OUT_OF_MEMORY);
    const Entries attempt =
        SettingUp() + Entries{"curl easy_cleanup", "curl multi_cleanup", RouteError("ERROR Setup Poke")};
    EXPECT_EQ(AfterTick(), attempt);
    EXPECT_EQ(AfterTick(), attempt);
    EXPECT_EQ(FakeCurl::LiveHandles(), 0);
}

TEST_F(ThePoke, TriesAgainAfterAFailedSetUp) {
    FakeCurl::SetAddHandleResult(CURLM_OUT_OF_MEMORY);
    route->Tick();
    FakeCurl::SetAddHandleResult(CURLM_OK);
    FakeCurl::Succeed();
    EXPECT_EQ(AfterTick(), SettingUp() + PERFORM + READ + FakeCurl::CleanLines() + routeToCell);
}

TEST_F(ThePoke, IsAbortedHarmlesslyAfterAFailedSetUp) {
    FakeCurl::SetEasyInitFails(true);
    route->Tick();
    Update(true, false, true);
    const Entries failedSetUp{"curl multi_init", "curl easy_init", "curl multi_cleanup",
                              RouteError("ERROR Setup Poke")};
    const Entries aborted{DnsTopic("permit"), RouteDebug("poke cell aborted")};
    EXPECT_EQ(AfterTick(), failedSetUp + FakeCurl::IdleCleanLines() + aborted);
}

TEST_F(ThePoke, IsReleasedOnceWhenItFailsOnTheTickThatAbortsIt) {
    route->Tick();
    Update(true, false, true);
    FakeCurl::FailWith(CURLE_COULDNT_CONNECT);
    const Entries aborted{DnsTopic("permit"), RouteDebug("poke cell aborted")};
    EXPECT_EQ(AfterTick(), PERFORM + READ + Entries{RouteError("poke error 7")} + FakeCurl::CleanLines() +
                               FakeCurl::IdleCleanLines() + aborted);
}

TEST_F(ThePoke, IsNotReleasedByTheEndOfTheRoute) {
    route->Tick();
    OrvPlatformFake::Journal::Clear();
    route.reset();
    EXPECT_EQ(OrvPlatformFake::Journal::Take(), (Entries{"stop-delivery OrvRoute", "disconnect OrvRoute"}));
    EXPECT_EQ(FakeCurl::LiveHandles(), 2);
}

/// A poke over Cellular where libcurl runs on OpenSSL, with a folder of trust anchors.
class ThePokeOnOpenSsl : public RouteFixture {
protected:
    ThePokeOnOpenSsl() {
        Add("ca-certificates.crt");
        FakeCurl::SetTrust("OpenSSL/3.0.9", folder);
        StartCellularPoke();
    }
    ~ThePokeOnOpenSsl() override { std::filesystem::remove_all(folder); }

    void Add(const std::string& name) { std::ofstream(folder + "/" + name).put('\n'); }

    /// The set-up of the next attempt, which fails with `result`.
    Entries SetUpThatEndsWith(CURLcode result) {
        FakeCurl::FailWith(result);
        return Only(AfterTick(), {"curl setopt", "curl MISUSE"});
    }

    static Entries Options(FakeCurl::Anchors anchors) {
        return Only(FakeCurl::SetUpLines("https://cloud.example", "wwan0", anchors), {"curl setopt"});
    }

    const Entries fromFolder = Options(FakeCurl::Anchors::FOLDER);
    const Entries fromBundle = Options(FakeCurl::Anchors::BUNDLE);
    std::string folder = MakeFolder();

private:
    static std::string MakeFolder() {
        std::string name = testing::TempDir() + "/anchors-XXXXXX";
        return mkdtemp(name.data());
    }
};

TEST_F(ThePokeOnOpenSsl, TakesItsTrustAnchorsFromAFolderOfHashedCertificatesAlone) {
    Add("0a1b2c3d.0");
    EXPECT_EQ(fromFolder.back(), "curl setopt CAINFO null");
    EXPECT_EQ(SetUpThatEndsWith(CURLE_COULDNT_CONNECT), fromFolder);
    EXPECT_EQ(SetUpThatEndsWith(CURLE_COULDNT_CONNECT), fromFolder);
}

TEST_F(ThePokeOnOpenSsl, TakesTheBundleWhereNothingIsHashed) {
    Add("Some_Authority.pem");
    Add("0a1b2c3d.r0");
    EXPECT_EQ(SetUpThatEndsWith(CURLE_COULDNT_CONNECT), fromBundle);
    FakeCurl::SetTrust("OpenSSL/3.0.9", folder + "/missing");
    EXPECT_EQ(SetUpThatEndsWith(CURLE_COULDNT_CONNECT), fromBundle);
    FakeCurl::SetTrust("OpenSSL/3.0.9", "");
    EXPECT_EQ(SetUpThatEndsWith(CURLE_COULDNT_CONNECT), fromBundle);
}

TEST_F(ThePokeOnOpenSsl, TakesTheBundleWithAnyOtherTlsLibrary) {
    Add("0a1b2c3d.0");
    for (const auto* library : {"", "GnuTLS/3.7.9", "mbedTLS/2.28.3", "(OpenSSL/3.0.9) GnuTLS/3.7.9"}) {
        FakeCurl::SetTrust(library, folder);
        EXPECT_EQ(SetUpThatEndsWith(CURLE_COULDNT_CONNECT), fromBundle) << library;
    }
}

TEST_F(ThePokeOnOpenSsl, TakesTheBundleWithALibcurlThatDoesNotTellItsFolderYet) {
    Add("0a1b2c3d.0");
    FakeCurl::SetVersionInfoAge(CURLVERSION_SIXTH);
    EXPECT_EQ(SetUpThatEndsWith(CURLE_COULDNT_CONNECT), fromBundle);
}

TEST_F(ThePokeOnOpenSsl, TriesTheBundleOnceTheFolderHasNotSufficed) {
    Add("0a1b2c3d.0");
    EXPECT_EQ(SetUpThatEndsWith(CURLE_PEER_FAILED_VERIFICATION), fromFolder);
    EXPECT_EQ(SetUpThatEndsWith(CURLE_COULDNT_CONNECT), fromBundle);
    EXPECT_EQ(SetUpThatEndsWith(CURLE_OPERATION_TIMEDOUT), fromBundle);
}

TEST_F(ThePokeOnOpenSsl, GoesBackToTheFolderWhenTheBundleDoesNotSufficeEither) {
    Add("0a1b2c3d.0");
    for (const auto ofTheBundle : {CURLE_PEER_FAILED_VERIFICATION, CURLE_SSL_CACERT_BADFILE}) {
        EXPECT_EQ(SetUpThatEndsWith(CURLE_PEER_FAILED_VERIFICATION), fromFolder);
        EXPECT_EQ(SetUpThatEndsWith(ofTheBundle), fromBundle);
        for (int attempt = 0; attempt < 30; ++attempt)
            EXPECT_EQ(SetUpThatEndsWith(CURLE_PEER_FAILED_VERIFICATION), fromFolder) << attempt;
    }
}

TEST_F(ThePokeOnOpenSsl, BeginsWithTheFolderAnew) {
    Add("0a1b2c3d.0");
    EXPECT_EQ(SetUpThatEndsWith(CURLE_PEER_FAILED_VERIFICATION), fromFolder);
    Update(true, false, true);
    EXPECT_EQ(SetUpThatEndsWith(CURLE_COULDNT_CONNECT), fromBundle);
    StartCellularPoke();
    EXPECT_EQ(SetUpThatEndsWith(CURLE_COULDNT_CONNECT), fromFolder);
}

class ThePokeOverEthernet : public RouteFixture {
protected:
    ThePokeOverEthernet() {
        FakeGateway::SetInterfaceName("Ethernet", "lan1");
        FakeGateway::SetInterfaceName("Cellular", "ppp7");
        FakeGateway::SetCloudEndpoint("other.example:8443/path");
        OrvPlatformFake::FakeConnman::Get().SetOrder({"lan1", "ppp7"});
        route = std::make_unique<OrvRoute>(time.Now());
    }
};

TEST_F(ThePokeOverEthernet, IsBoundToTheInterfaceThatThePlatformNames) {
    StartCellularPoke();
    EXPECT_EQ(AfterTick(), FakeCurl::SetUpLines("https://other.example:8443/path", "ppp7") + PERFORM);
    FakeCurl::Succeed();
    route->Tick();
    FakeCurl::KeepRunning();
    Update(true, true, true);
    route->Tick();
    EXPECT_EQ(EffectsOfTick(), Entries{RouteDebug("Started Poke eth if lan1")});
    EXPECT_EQ(AfterTick(), FakeCurl::SetUpLines("https://other.example:8443/path", "lan1") + PERFORM);
}

} // namespace
} // namespace OrvStackSdk
