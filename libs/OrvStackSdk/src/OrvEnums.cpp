// SPDX-License-Identifier: Apache-2.0
#include "OrvStackSdk/OrvEnums.h"

#include <iterator>
#include <ostream>
#include <stdexcept>

namespace OrvStackSdk {

namespace {

/// The texts of all enumerations, each in the order of its values. A single list, because nine would need the code that
/// makes strings of them nine times.
constexpr const char* WORDS[] = {
    // ServiceStatus
    "SERVICE_OK",
    "SERVICE_ERROR",
    // Confirmation
    "ACK",
    "NACK",
    // AppAction
    "ENABLED",
    "DISABLED",
    "RELOAD",
    "UNSUPPORTED",
    // AppStatus: the last one is upper case, unlike its neighbours
    "supported",
    "available",
    "booting",
    "ready",
    "error",
    "noerror",
    "UNSUPPORTED",
    // CellularStatus
    "IMEI",
    "ICCID",
    "TECHNOLOGY",
    "PROVIDER",
    "STRENGTH",
    // PanelCommandStatus
    "COMMANDNAME",
    "DOALARMSILENCE",
    "DORESET",
    "DOACK",
    "DOACKINDIVIDUAL",
    "DODATETIME",
    // OrvEvent
    "CLOUD_CONNECTED",
    "CLOUD_DISCONNECTED",
    "PANEL_CLOUD_ENABLED",
    "PANEL_CLOUD_DISABLED",
    "ETHERNET_DISCONNECTED",
    "ETHERNET_CONNECTED",
    "ETHERNET_IP_GAINED",
    "ETHERNET_IP_LOST",
    "CELLULAR_DISCONNECTED",
    "CELLULAR_CONNECTED",
    "CELLULAR_IP_GAINED",
    "CELLULAR_IP_LOST",
    "FAILURE",
    // ConnectedServicesLedType
    "GREEN",
    "YELLOW",
    // ConnectedServicesLedState
    "ON",
    "OFF",
    "BLINK",
};

/// Where the words of an enumeration stand, and how many they are.
struct Range {
    std::size_t first;
    std::size_t size;
};

constexpr Range After(Range previous, std::size_t size) {
    return {previous.first + previous.size, size};
}

constexpr Range SERVICE_STATUS{0, 2};
constexpr Range CONFIRMATION = After(SERVICE_STATUS, 2);
constexpr Range APP_ACTION = After(CONFIRMATION, 4);
constexpr Range APP_STATUS = After(APP_ACTION, 7);
constexpr Range CELLULAR_STATUS = After(APP_STATUS, 5);
constexpr Range PANEL_COMMAND_STATUS = After(CELLULAR_STATUS, 6);
constexpr Range ORV_EVENT = After(PANEL_COMMAND_STATUS, 13);
constexpr Range LED_TYPE = After(ORV_EVENT, 2);
constexpr Range LED_STATE = After(LED_TYPE, 3);
static_assert(LED_STATE.first + LED_STATE.size == std::size(WORDS), "a word too many or too few");

// What the conversions from text refer to, in the order of the values.
constexpr AppAction APP_ACTIONS[] = {AppAction::ENABLED, AppAction::DISABLED, AppAction::RELOAD,
                                     AppAction::UNSUPPORTED};
constexpr AppStatus APP_STATUSES[] = {AppStatus::SUPPORTED,  AppStatus::AVAILABLE, AppStatus::BOOTING,
                                      AppStatus::READY,      AppStatus::ERROR,     AppStatus::NOERROR,
                                      AppStatus::UNSUPPORTED};

/// The words as the strings that are handed out.
struct Texts {
    Texts() {
        for (std::size_t index = 0; index < std::size(WORDS); ++index)
            strings[index] = WORDS[index];
    }
    std::string strings[std::size(WORDS)];
};

const Texts TEXTS;

const std::string& TextOf(Range range, int value) {
    const auto index = static_cast<std::size_t>(value);
    if (index >= range.size)
        throw std::out_of_range("_Map_base::at");
    return TEXTS.strings[range.first + index];
}

template <typename Enum>
const std::string& TextOf(Range range, Enum value) {
    return TextOf(range, static_cast<int>(value));
}

/// The index of the text in its enumeration. An unknown text gives the last index, in both enumerations that are read.
std::size_t PlaceOf(Range range, const std::string& text) {
    std::size_t index = 0;
    while (index < range.size - 1 && text != WORDS[range.first + index])
        ++index;
    return index;
}

} // namespace

const std::string& ServiceStatusText(ServiceStatus value) {
    return TextOf(SERVICE_STATUS, value);
}

const std::string& ConfirmationText(Confirmation value) {
    return TextOf(CONFIRMATION, value);
}

const std::string& AppActionText(AppAction value) {
    return TextOf(APP_ACTION, value);
}

const std::string& AppStatusText(AppStatus value) {
    return TextOf(APP_STATUS, value);
}

const std::string& CellularStatusText(CellularStatus value) {
    return TextOf(CELLULAR_STATUS, value);
}

const std::string& PanelCommandStatusText(PanelCommandStatus value) {
    return TextOf(PANEL_COMMAND_STATUS, value);
}

const std::string& OrvEventText(OrvEvent value) {
    return TextOf(ORV_EVENT, value);
}

const std::string& ConnectedServicesLedTypeText(ConnectedServicesLedType value) {
    return TextOf(LED_TYPE, value);
}

const std::string& ConnectedServicesLedStateText(ConnectedServicesLedState value) {
    return TextOf(LED_STATE, value);
}

std::ostream& operator<<(std::ostream& stream, const ServiceStatus& value) {
    return stream << ServiceStatusText(value);
}

std::ostream& operator<<(std::ostream& stream, const Confirmation& value) {
    return stream << ConfirmationText(value);
}

std::ostream& operator<<(std::ostream& stream, const AppAction& value) {
    return stream << AppActionText(value);
}

std::ostream& operator<<(std::ostream& stream, const AppStatus& value) {
    return stream << AppStatusText(value);
}

std::ostream& operator<<(std::ostream& stream, const CellularStatus& value) {
    return stream << CellularStatusText(value);
}

std::ostream& operator<<(std::ostream& stream, const PanelCommandStatus& value) {
    return stream << PanelCommandStatusText(value);
}

std::ostream& operator<<(std::ostream& stream, const OrvEvent& value) {
    return stream << OrvEventText(value);
}

std::ostream& operator<<(std::ostream& stream, const ConnectedServicesLedType& value) {
    return stream << ConnectedServicesLedTypeText(value);
}

std::ostream& operator<<(std::ostream& stream, const ConnectedServicesLedState& value) {
    return stream << ConnectedServicesLedStateText(value);
}

const AppAction& AppActionTextToEnum(const std::string& text) {
    return APP_ACTIONS[PlaceOf(APP_ACTION, text)];
}

const AppStatus& AppStatusTextToEnum(const std::string& text) {
    return APP_STATUSES[PlaceOf(APP_STATUS, text)];
}

} // namespace OrvStackSdk
