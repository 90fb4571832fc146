// SPDX-License-Identifier: Apache-2.0
#include "OrvStackSdk/OrvEnums.h"

#include <gtest/gtest.h>
#include <sstream>
#include <stdexcept>
#include <type_traits>

using namespace OrvStackSdk;

namespace {

template <typename Enum>
struct Word {
    Enum value;
    const char* text;
};

constexpr Word<ServiceStatus> serviceStatuses[] = {
    {ServiceStatus::SERVICE_OK, "SERVICE_OK"},
    {ServiceStatus::SERVICE_ERROR, "SERVICE_ERROR"},
};

constexpr Word<Confirmation> confirmations[] = {
    {Confirmation::ACK, "ACK"},
    {Confirmation::NACK, "NACK"},
};

constexpr Word<AppAction> appActions[] = {
    {AppAction::ENABLED, "ENABLED"},
    {AppAction::DISABLED, "DISABLED"},
    {AppAction::RELOAD, "RELOAD"},
    {AppAction::UNSUPPORTED, "UNSUPPORTED"},
};

constexpr Word<AppStatus> appStatuses[] = {
    {AppStatus::SUPPORTED, "supported"},
    {AppStatus::AVAILABLE, "available"},
    {AppStatus::BOOTING, "booting"},
    {AppStatus::READY, "ready"},
    {AppStatus::ERROR, "error"},
    {AppStatus::NOERROR, "noerror"},
    {AppStatus::UNSUPPORTED, "UNSUPPORTED"},
};

constexpr Word<CellularStatus> cellularStatuses[] = {
    {CellularStatus::IMEI, "IMEI"},
    {CellularStatus::ICCID, "ICCID"},
    {CellularStatus::TECHNOLOGY, "TECHNOLOGY"},
    {CellularStatus::PROVIDER, "PROVIDER"},
    {CellularStatus::STRENGTH, "STRENGTH"},
};

constexpr Word<PanelCommandStatus> panelCommands[] = {
    {PanelCommandStatus::COMMANDNAME, "COMMANDNAME"},
    {PanelCommandStatus::DOALARMSILENCE, "DOALARMSILENCE"},
    {PanelCommandStatus::DORESET, "DORESET"},
    {PanelCommandStatus::DOACK, "DOACK"},
    {PanelCommandStatus::DOACKINDIVIDUAL, "DOACKINDIVIDUAL"},
    {PanelCommandStatus::DODATETIME, "DODATETIME"},
};

constexpr Word<OrvEvent> events[] = {
    {OrvEvent::CLOUD_CONNECTED, "CLOUD_CONNECTED"},
    {OrvEvent::CLOUD_DISCONNECTED, "CLOUD_DISCONNECTED"},
    {OrvEvent::PANEL_CLOUD_ENABLED, "PANEL_CLOUD_ENABLED"},
    {OrvEvent::PANEL_CLOUD_DISABLED, "PANEL_CLOUD_DISABLED"},
    {OrvEvent::ETHERNET_DISCONNECTED, "ETHERNET_DISCONNECTED"},
    {OrvEvent::ETHERNET_CONNECTED, "ETHERNET_CONNECTED"},
    {OrvEvent::ETHERNET_IP_GAINED, "ETHERNET_IP_GAINED"},
    {OrvEvent::ETHERNET_IP_LOST, "ETHERNET_IP_LOST"},
    {OrvEvent::CELLULAR_DISCONNECTED, "CELLULAR_DISCONNECTED"},
    {OrvEvent::CELLULAR_CONNECTED, "CELLULAR_CONNECTED"},
    {OrvEvent::CELLULAR_IP_GAINED, "CELLULAR_IP_GAINED"},
    {OrvEvent::CELLULAR_IP_LOST, "CELLULAR_IP_LOST"},
    {OrvEvent::FAILURE, "FAILURE"},
};

constexpr Word<ConnectedServicesLedType> ledTypes[] = {
    {ConnectedServicesLedType::GREEN, "GREEN"},
    {ConnectedServicesLedType::YELLOW, "YELLOW"},
};

constexpr Word<ConnectedServicesLedState> ledStates[] = {
    {ConnectedServicesLedState::ON, "ON"},
    {ConnectedServicesLedState::OFF, "OFF"},
    {ConnectedServicesLedState::BLINK, "BLINK"},
};

template <typename Enum, std::size_t Size>
constexpr bool CountsUpFromZero(const Word<Enum> (&words)[Size]) {
    for (std::size_t i = 0; i < Size; ++i)
        if (static_cast<std::size_t>(words[i].value) != i)
            return false;
    return std::is_same<std::underlying_type_t<Enum>, int>::value;
}

static_assert(CountsUpFromZero(serviceStatuses), "numbers never change");
static_assert(CountsUpFromZero(confirmations), "numbers never change");
static_assert(CountsUpFromZero(appActions), "numbers never change");
static_assert(CountsUpFromZero(appStatuses), "numbers never change");
static_assert(CountsUpFromZero(cellularStatuses), "numbers never change");
static_assert(CountsUpFromZero(panelCommands), "numbers never change");
static_assert(CountsUpFromZero(events), "numbers never change");
static_assert(CountsUpFromZero(ledTypes), "numbers never change");
static_assert(CountsUpFromZero(ledStates), "numbers never change");

template <typename Action>
void ExpectNotInTable(Action action) {
    try {
        action();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::out_of_range& error) {
        EXPECT_STREQ(error.what(), "_Map_base::at");
    }
}

template <typename Enum, std::size_t Size>
void ExpectTexts(const Word<Enum> (&words)[Size], const std::string& (*text)(Enum)) {
    for (const auto& word : words) {
        EXPECT_EQ(text(word.value), word.text);
        EXPECT_EQ(&text(word.value), &text(word.value)) << "two strings for " << word.text;
        std::ostringstream stream;
        EXPECT_EQ(&(stream << word.value), &stream);
        EXPECT_EQ(stream.str(), word.text);
    }
    for (const int number : {-1, static_cast<int>(Size), 1000}) {
        const auto stranger = static_cast<Enum>(number);
        ExpectNotInTable([&] { text(stranger); });
        std::ostringstream stream;
        ExpectNotInTable([&] { stream << stranger; });
        EXPECT_EQ(stream.str(), "");
    }
}

TEST(AnEnumerator, HasItsFixedText) {
    ExpectTexts(serviceStatuses, &ServiceStatusText);
    ExpectTexts(confirmations, &ConfirmationText);
    ExpectTexts(appActions, &AppActionText);
    ExpectTexts(appStatuses, &AppStatusText);
    ExpectTexts(cellularStatuses, &CellularStatusText);
    ExpectTexts(panelCommands, &PanelCommandStatusText);
    ExpectTexts(events, &OrvEventText);
    ExpectTexts(ledTypes, &ConnectedServicesLedTypeText);
    ExpectTexts(ledStates, &ConnectedServicesLedStateText);
}

TEST(AnEnumerator, IsStreamedBetweenOtherThings) {
    std::ostringstream stream;
    stream << "[" << ConnectedServicesLedState::BLINK << AppStatus::ERROR << "]";
    EXPECT_EQ(stream.str(), "[BLINKerror]");
}

TEST(AnActionsText, LeadsBackToTheAction) {
    for (const auto& word : appActions)
        EXPECT_EQ(AppActionTextToEnum(word.text), word.value);
    EXPECT_EQ(&AppActionTextToEnum("RELOAD"), &AppActionTextToEnum("RELOAD"));
}

TEST(AStatusesText, LeadsBackToTheStatus) {
    for (const auto& word : appStatuses)
        EXPECT_EQ(AppStatusTextToEnum(word.text), word.value);
    EXPECT_EQ(&AppStatusTextToEnum("ready"), &AppStatusTextToEnum("ready"));
}

TEST(AnUnknownText, IsAnUnsupportedAction) {
    using namespace std::string_literals;
    for (const auto& text : {"reload"s, " RELOAD"s, "RELOAD "s, ""s, "RELOA"s, "RELOADED"s, "RELOAD\0"s, "ready"s})
        EXPECT_EQ(AppActionTextToEnum(text), AppAction::UNSUPPORTED) << text;
    EXPECT_EQ(&AppActionTextToEnum("nonsense"), &AppActionTextToEnum("UNSUPPORTED"));
}

TEST(AnUnknownText, IsAnUnsupportedStatus) {
    using namespace std::string_literals;
    for (const auto& text : {"READY"s, "unsupported"s, " ready"s, "ready "s, ""s, "read"s, "ready\0"s, "RELOAD"s})
        EXPECT_EQ(AppStatusTextToEnum(text), AppStatus::UNSUPPORTED) << text;
    EXPECT_EQ(&AppStatusTextToEnum("nonsense"), &AppStatusTextToEnum("UNSUPPORTED"));
}

} // namespace
