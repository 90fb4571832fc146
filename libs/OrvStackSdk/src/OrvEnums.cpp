// SPDX-License-Identifier: Apache-2.0
#include "OrvStackSdk/OrvEnums.h"

#include <algorithm>
#include <ostream>
#include <stdexcept>

namespace OrvStackSdk {

namespace {

template <typename Enum>
struct Row {
    Enum value;
    std::string text;
};

const Row<ServiceStatus> serviceStatusTable[] = {
    {ServiceStatus::SERVICE_OK, "SERVICE_OK"},
    {ServiceStatus::SERVICE_ERROR, "SERVICE_ERROR"},
};

const Row<Confirmation> confirmationTable[] = {
    {Confirmation::ACK, "ACK"},
    {Confirmation::NACK, "NACK"},
};

const Row<AppAction> appActionTable[] = {
    {AppAction::ENABLED, "ENABLED"},
    {AppAction::DISABLED, "DISABLED"},
    {AppAction::RELOAD, "RELOAD"},
    {AppAction::UNSUPPORTED, "UNSUPPORTED"},
};

const Row<AppStatus> appStatusTable[] = {
    {AppStatus::SUPPORTED, "supported"},
    {AppStatus::AVAILABLE, "available"},
    {AppStatus::BOOTING, "booting"},
    {AppStatus::READY, "ready"},
    {AppStatus::ERROR, "error"},
    {AppStatus::NOERROR, "noerror"},
    // Upper case, unlike its neighbours: the fallback for unknown texts looks up exactly this word.
    {AppStatus::UNSUPPORTED, "UNSUPPORTED"},
};

const Row<CellularStatus> cellularStatusTable[] = {
    {CellularStatus::IMEI, "IMEI"},
    {CellularStatus::ICCID, "ICCID"},
    {CellularStatus::TECHNOLOGY, "TECHNOLOGY"},
    {CellularStatus::PROVIDER, "PROVIDER"},
    {CellularStatus::STRENGTH, "STRENGTH"},
};

const Row<PanelCommandStatus> panelCommandStatusTable[] = {
    {PanelCommandStatus::COMMANDNAME, "COMMANDNAME"},
    {PanelCommandStatus::DOALARMSILENCE, "DOALARMSILENCE"},
    {PanelCommandStatus::DORESET, "DORESET"},
    {PanelCommandStatus::DOACK, "DOACK"},
    {PanelCommandStatus::DOACKINDIVIDUAL, "DOACKINDIVIDUAL"},
    {PanelCommandStatus::DODATETIME, "DODATETIME"},
};

const Row<OrvEvent> orvEventTable[] = {
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

const Row<ConnectedServicesLedType> ledTypeTable[] = {
    {ConnectedServicesLedType::GREEN, "GREEN"},
    {ConnectedServicesLedType::YELLOW, "YELLOW"},
};

const Row<ConnectedServicesLedState> ledStateTable[] = {
    {ConnectedServicesLedState::ON, "ON"},
    {ConnectedServicesLedState::OFF, "OFF"},
    {ConnectedServicesLedState::BLINK, "BLINK"},
};

[[noreturn]] void ThrowNotInTable() {
    throw std::out_of_range("_Map_base::at");
}

template <typename Enum, std::size_t Size>
const std::string& TextOf(const Row<Enum> (&table)[Size], Enum value) {
    const auto* row =
        std::find_if(table, table + Size, [value](const auto& candidate) { return candidate.value == value; });
    if (row == table + Size)
        ThrowNotInTable();
    return row->text;
}

template <typename Enum, std::size_t Size>
const Enum& ValueOf(const Row<Enum> (&table)[Size], const std::string& text) {
    const auto* row =
        std::find_if(table, table + Size, [&text](const auto& candidate) { return candidate.text == text; });
    return row != table + Size ? row->value : ValueOf(table, "UNSUPPORTED");
}

} // namespace

const std::string& ServiceStatusText(ServiceStatus value) {
    return TextOf(serviceStatusTable, value);
}

const std::string& ConfirmationText(Confirmation value) {
    return TextOf(confirmationTable, value);
}

const std::string& AppActionText(AppAction value) {
    return TextOf(appActionTable, value);
}

const std::string& AppStatusText(AppStatus value) {
    return TextOf(appStatusTable, value);
}

const std::string& CellularStatusText(CellularStatus value) {
    return TextOf(cellularStatusTable, value);
}

const std::string& PanelCommandStatusText(PanelCommandStatus value) {
    return TextOf(panelCommandStatusTable, value);
}

const std::string& OrvEventText(OrvEvent value) {
    return TextOf(orvEventTable, value);
}

const std::string& ConnectedServicesLedTypeText(ConnectedServicesLedType value) {
    return TextOf(ledTypeTable, value);
}

const std::string& ConnectedServicesLedStateText(ConnectedServicesLedState value) {
    return TextOf(ledStateTable, value);
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
    return ValueOf(appActionTable, text);
}

const AppStatus& AppStatusTextToEnum(const std::string& text) {
    return ValueOf(appStatusTable, text);
}

} // namespace OrvStackSdk
