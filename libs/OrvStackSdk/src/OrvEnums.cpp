// SPDX-License-Identifier: Apache-2.0
#include "OrvStackSdk/OrvEnums.h"

#include <algorithm>
#include <memory>
#include <ostream>
#include <stdexcept>

namespace OrvStackSdk {

namespace {

template <typename Enum>
struct Row {
    Enum value;
    const char* word;
};

/// The words of one enumeration as the strings that are handed out. Rows of strings would take a long piece of code to
/// fill, which runs once.
class Texts {
public:
    template <typename Enum, std::size_t Size>
    explicit Texts(const Row<Enum> (&rows)[Size]) : texts(new std::string[Size]) {
        for (std::size_t index = 0; index < Size; ++index)
            texts[index] = rows[index].word;
    }
    const std::string& operator[](std::size_t index) const { return texts[index]; }

private:
    const std::unique_ptr<std::string[]> texts;
};

constexpr Row<ServiceStatus> serviceStatusRows[] = {
    {ServiceStatus::SERVICE_OK, "SERVICE_OK"},
    {ServiceStatus::SERVICE_ERROR, "SERVICE_ERROR"},
};
const Texts serviceStatusTexts(serviceStatusRows);

constexpr Row<Confirmation> confirmationRows[] = {
    {Confirmation::ACK, "ACK"},
    {Confirmation::NACK, "NACK"},
};
const Texts confirmationTexts(confirmationRows);

constexpr Row<AppAction> appActionRows[] = {
    {AppAction::ENABLED, "ENABLED"},
    {AppAction::DISABLED, "DISABLED"},
    {AppAction::RELOAD, "RELOAD"},
    {AppAction::UNSUPPORTED, "UNSUPPORTED"},
};
const Texts appActionTexts(appActionRows);

constexpr Row<AppStatus> appStatusRows[] = {
    {AppStatus::SUPPORTED, "supported"},
    {AppStatus::AVAILABLE, "available"},
    {AppStatus::BOOTING, "booting"},
    {AppStatus::READY, "ready"},
    {AppStatus::ERROR, "error"},
    {AppStatus::NOERROR, "noerror"},
    // Upper case, unlike its neighbours: the fallback for unknown texts looks up exactly this word.
    {AppStatus::UNSUPPORTED, "UNSUPPORTED"},
};
const Texts appStatusTexts(appStatusRows);

constexpr Row<CellularStatus> cellularStatusRows[] = {
    {CellularStatus::IMEI, "IMEI"},
    {CellularStatus::ICCID, "ICCID"},
    {CellularStatus::TECHNOLOGY, "TECHNOLOGY"},
    {CellularStatus::PROVIDER, "PROVIDER"},
    {CellularStatus::STRENGTH, "STRENGTH"},
};
const Texts cellularStatusTexts(cellularStatusRows);

constexpr Row<PanelCommandStatus> panelCommandStatusRows[] = {
    {PanelCommandStatus::COMMANDNAME, "COMMANDNAME"},
    {PanelCommandStatus::DOALARMSILENCE, "DOALARMSILENCE"},
    {PanelCommandStatus::DORESET, "DORESET"},
    {PanelCommandStatus::DOACK, "DOACK"},
    {PanelCommandStatus::DOACKINDIVIDUAL, "DOACKINDIVIDUAL"},
    {PanelCommandStatus::DODATETIME, "DODATETIME"},
};
const Texts panelCommandStatusTexts(panelCommandStatusRows);

constexpr Row<OrvEvent> orvEventRows[] = {
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
const Texts orvEventTexts(orvEventRows);

constexpr Row<ConnectedServicesLedType> ledTypeRows[] = {
    {ConnectedServicesLedType::GREEN, "GREEN"},
    {ConnectedServicesLedType::YELLOW, "YELLOW"},
};
const Texts ledTypeTexts(ledTypeRows);

constexpr Row<ConnectedServicesLedState> ledStateRows[] = {
    {ConnectedServicesLedState::ON, "ON"},
    {ConnectedServicesLedState::OFF, "OFF"},
    {ConnectedServicesLedState::BLINK, "BLINK"},
};
const Texts ledStateTexts(ledStateRows);

[[noreturn]] void ThrowNotInTable() {
    throw std::out_of_range("_Map_base::at");
}

template <typename Enum, std::size_t Size>
const std::string& TextOf(const Row<Enum> (&rows)[Size], const Texts& texts, Enum value) {
    const auto* row =
        std::find_if(rows, rows + Size, [value](const auto& candidate) { return candidate.value == value; });
    if (row == rows + Size)
        ThrowNotInTable();
    return texts[static_cast<std::size_t>(row - rows)];
}

template <typename Enum, std::size_t Size>
const Enum& ValueOf(const Row<Enum> (&rows)[Size], const std::string& text) {
    const Row<Enum>& unsupported = rows[Size - 1]; // the last word of both enumerations that are read
    const auto* row =
        std::find_if(rows, rows + Size, [&text](const auto& candidate) { return text == candidate.word; });
    return row != rows + Size ? row->value : unsupported.value;
}

} // namespace

const std::string& ServiceStatusText(ServiceStatus value) {
    return TextOf(serviceStatusRows, serviceStatusTexts, value);
}

const std::string& ConfirmationText(Confirmation value) {
    return TextOf(confirmationRows, confirmationTexts, value);
}

const std::string& AppActionText(AppAction value) {
    return TextOf(appActionRows, appActionTexts, value);
}

const std::string& AppStatusText(AppStatus value) {
    return TextOf(appStatusRows, appStatusTexts, value);
}

const std::string& CellularStatusText(CellularStatus value) {
    return TextOf(cellularStatusRows, cellularStatusTexts, value);
}

const std::string& PanelCommandStatusText(PanelCommandStatus value) {
    return TextOf(panelCommandStatusRows, panelCommandStatusTexts, value);
}

const std::string& OrvEventText(OrvEvent value) {
    return TextOf(orvEventRows, orvEventTexts, value);
}

const std::string& ConnectedServicesLedTypeText(ConnectedServicesLedType value) {
    return TextOf(ledTypeRows, ledTypeTexts, value);
}

const std::string& ConnectedServicesLedStateText(ConnectedServicesLedState value) {
    return TextOf(ledStateRows, ledStateTexts, value);
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
    return ValueOf(appActionRows, text);
}

const AppStatus& AppStatusTextToEnum(const std::string& text) {
    return ValueOf(appStatusRows, text);
}

} // namespace OrvStackSdk
