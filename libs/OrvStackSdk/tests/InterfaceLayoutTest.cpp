// SPDX-License-Identifier: Apache-2.0
// What binaries built against older headers rely on: the order of the virtual functions and of the base classes.
#include "IOrvSession.h"
#include "IOrvSessionHandler.h"
#include "OrvSessionMqtt.h"
#include "OrvStackClient.h"

#include <cstring>
#include <gtest/gtest.h>
#include <type_traits>

using namespace OrvStackSdk;

namespace {

/// The place of a virtual function in its class's table, up to a constant: pointers to member functions hold the offset
/// in their first word, with or without a marking bit.
template <typename Member>
std::ptrdiff_t Offset(Member member) {
    std::ptrdiff_t word = 0;
    std::memcpy(&word, &member, sizeof word);
    return word & ~std::ptrdiff_t{1};
}

/// A destructor takes the first two places.
template <typename... Member>
void ExpectSlots(Member... members) {
    std::ptrdiff_t expected = 2 * static_cast<std::ptrdiff_t>(sizeof(void*));
    int number = 2;
    for (const std::ptrdiff_t offset : {Offset(members)...}) {
        EXPECT_EQ(offset, expected) << "slot " << number;
        expected += static_cast<std::ptrdiff_t>(sizeof(void*));
        ++number;
    }
}

TEST(TheClientInterface, KeepsItsSlots) {
    using I = IOrvStackClient;
    ExpectSlots(&I::SetHandler, &I::Init, &I::DeInit, &I::Start, &I::Stop, &I::Tick, &I::AppStatusRequest,
                &I::AppActionRequest, &I::EventUpdateRequest, &I::CloudReconnectNeeded, &I::RequestShutdown,
                &I::PanelCommandRequest, &I::SendConnectionStatus);
}

TEST(TheApplicationsInterface, KeepsItsSlots) {
    using I = IOrvStackClientHandler;
    ExpectSlots(&I::OnInitConfirmation, &I::OnAppActionIndication, &I::OnAppStatusIndication,
                &I::OnDeviceProbeIndication, &I::OnDeviceOnlineStatusIndication, &I::OnDeviceCellularStatusIndication,
                &I::OnFeatureShutdownReadinessIndication);
}

TEST(TheSessionInterface, KeepsItsSlots) {
    using I = IOrvSession;
    using Text = const std::string&;
    ExpectSlots(&I::InitRequest, &I::DeInitRequest, &I::SetHandler, &I::FeatureAvailableRequest,
                &I::FeatureSupportedRequest, static_cast<void (I::*)(Text, const AppStatus&)>(&I::FeatureInitRequest),
                static_cast<void (I::*)(Text, const AppAction&)>(&I::FeatureInitRequest), &I::AppsControlEventRequest,
                &I::FeaturePrepareForShutdownRequest, &I::FeatureShutdownReadinessRequest, &I::LedUpdateRequest,
                &I::StatusEntConRequest, &I::StatusExtNetRequest, &I::PanelCommandRequest, &I::SendConnectionStatus);
}

TEST(TheSessionsHandlerInterface, KeepsItsSlots) {
    using I = IOrvSessionHandler;
    using Text = const std::string&;
    ExpectSlots(&I::OnInitConfirmation, &I::OnFeatureAvailableIndication, &I::OnFeatureSupportedIndication,
                static_cast<void (I::*)(Text, const AppStatus&)>(&I::OnFeatureInitIndication),
                static_cast<void (I::*)(Text, const AppAction&)>(&I::OnFeatureInitIndication),
                &I::OnDeviceProbeIndication, &I::OnDeviceConnectionStatusIndication,
                &I::OnDeviceCellularStatusIndication, &I::OnAppsControlEventIndication,
                &I::OnFeaturePrepareForShutdownIndication, &I::OnFeatureShutdownReadinessIndication);
}

template <typename Class, typename Base>
std::ptrdiff_t PlaceOfBase(Class& object) {
    return reinterpret_cast<const char*>(static_cast<Base*>(&object)) - reinterpret_cast<const char*>(&object);
}

TEST(TheSession, HasItsInterfaceAsFirstBase) {
    OrvSessionMqtt session;
    EXPECT_EQ((PlaceOfBase<OrvSessionMqtt, IOrvSession>(session)), 0);
    EXPECT_GT((PlaceOfBase<OrvSessionMqtt, QUILMQTT::QueueOwner>(session)), 0);
}

TEST(TheClient, HasThePublicInterfaceAsFirstBase) {
    OrvStackClient client(nullptr);
    EXPECT_EQ((PlaceOfBase<OrvStackClient, IOrvStackClient>(client)), 0);
    EXPECT_GT((PlaceOfBase<OrvStackClient, IOrvSessionHandler>(client)), 0);
}

} // namespace
