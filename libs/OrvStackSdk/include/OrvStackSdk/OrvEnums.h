// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "OrvStackSdk/Export.h"

#include <iosfwd>
#include <string>

// Some system headers (<resolv.h>, <arpa/ftp.h>, <linux/atmmpc.h>) and some firmware define these words as macros. They
// are hidden here and restored at the end of this header. Code that uses such an enumerator must undefine the macro,
// except for NOERROR.
#pragma push_macro("ACK")
#pragma push_macro("DISABLED")
#pragma push_macro("ENABLED")
#pragma push_macro("ERROR")
#pragma push_macro("NOERROR")
#pragma push_macro("OFF")
#pragma push_macro("ON")
#pragma push_macro("RELOAD")
#undef ACK
#undef DISABLED
#undef ENABLED
#undef ERROR
#undef NOERROR
#undef OFF
#undef ON
#undef RELOAD

/// The values of the connected-services stack. Each has one fixed text, which log lines and messages contain. Numbers
/// and texts never change.
namespace OrvStackSdk {

/// Whether a service works.
enum class ServiceStatus : int { SERVICE_OK = 0, SERVICE_ERROR = 1 };

/// The answer to IOrvStackClient::Init: ACK when the broker was reached.
enum class Confirmation : int { ACK = 0, NACK = 1 };

/// The actions that an application can be asked to do.
enum class AppAction : int { ENABLED = 0, DISABLED = 1, RELOAD = 2, UNSUPPORTED = 3 };

/// The states of an application. The texts are lower case, except for "UNSUPPORTED".
/// ns_r_noerror is another name for NOERROR: <resolv.h> defines NOERROR as a macro with that replacement, and
/// AppStatus::NOERROR compiles with that header, too.
enum class AppStatus : int {
    SUPPORTED = 0,
    AVAILABLE = 1,
    BOOTING = 2,
    READY = 3,
    ERROR = 4,
    NOERROR = 5,
    UNSUPPORTED = 6,
    ns_r_noerror = NOERROR
};

/// The kind of a modem or SIM item; the item's value travels beside it as text.
enum class CellularStatus : int { IMEI = 0, ICCID = 1, TECHNOLOGY = 2, PROVIDER = 3, STRENGTH = 4 };

/// Panel commands. The values 1 to 5 are numbers for IOrvStackClient::PanelCommandRequest; DOALARMSILENCE is its alarm
/// acknowledge. Its numbers 6 and 7 have no enumerator here. COMMANDNAME is not a command.
enum class PanelCommandStatus : int {
    COMMANDNAME = 0,
    DOALARMSILENCE = 1,
    DORESET = 2,
    DOACK = 3,
    DOACKINDIVIDUAL = 4,
    DODATETIME = 5
};

/// Connectivity events that an application reports. Note the order of the values: for the cloud "connected" comes
/// before "disconnected", for the interfaces "disconnected" comes first.
enum class OrvEvent : int {
    CLOUD_CONNECTED = 0,
    CLOUD_DISCONNECTED = 1,
    PANEL_CLOUD_ENABLED = 2,
    PANEL_CLOUD_DISABLED = 3,
    ETHERNET_DISCONNECTED = 4,
    ETHERNET_CONNECTED = 5,
    ETHERNET_IP_GAINED = 6,
    ETHERNET_IP_LOST = 7,
    CELLULAR_DISCONNECTED = 8,
    CELLULAR_CONNECTED = 9,
    CELLULAR_IP_GAINED = 10,
    CELLULAR_IP_LOST = 11,
    FAILURE = 12
};

/// The two connected-services LEDs.
enum class ConnectedServicesLedType : int { GREEN = 0, YELLOW = 1 };

/// What a LED shows.
enum class ConnectedServicesLedState : int { ON = 0, OFF = 1, BLINK = 2 };

/// @name Value to text
/// The reference stays valid as long as the library is loaded. Callable from any thread.
/// A value that is no enumerator throws std::out_of_range.
/// @{

/// The text of the value.
ORVSTACKSDK_EXPORT const std::string& ServiceStatusText(ServiceStatus value);
ORVSTACKSDK_EXPORT const std::string& ConfirmationText(Confirmation value);
ORVSTACKSDK_EXPORT const std::string& AppActionText(AppAction value);
ORVSTACKSDK_EXPORT const std::string& AppStatusText(AppStatus value);
ORVSTACKSDK_EXPORT const std::string& CellularStatusText(CellularStatus value);
ORVSTACKSDK_EXPORT const std::string& PanelCommandStatusText(PanelCommandStatus value);
ORVSTACKSDK_EXPORT const std::string& OrvEventText(OrvEvent value);
ORVSTACKSDK_EXPORT const std::string& ConnectedServicesLedTypeText(ConnectedServicesLedType value);
ORVSTACKSDK_EXPORT const std::string& ConnectedServicesLedStateText(ConnectedServicesLedState value);
/// @}

/// @name Streaming
/// Writes the value's text and nothing else. A value that is no enumerator throws std::out_of_range before anything is
/// written.
/// @{

/// Writes the text of the value.
ORVSTACKSDK_EXPORT std::ostream& operator<<(std::ostream& stream, const ServiceStatus& value);
ORVSTACKSDK_EXPORT std::ostream& operator<<(std::ostream& stream, const Confirmation& value);
ORVSTACKSDK_EXPORT std::ostream& operator<<(std::ostream& stream, const AppAction& value);
ORVSTACKSDK_EXPORT std::ostream& operator<<(std::ostream& stream, const AppStatus& value);
ORVSTACKSDK_EXPORT std::ostream& operator<<(std::ostream& stream, const CellularStatus& value);
ORVSTACKSDK_EXPORT std::ostream& operator<<(std::ostream& stream, const PanelCommandStatus& value);
ORVSTACKSDK_EXPORT std::ostream& operator<<(std::ostream& stream, const OrvEvent& value);
ORVSTACKSDK_EXPORT std::ostream& operator<<(std::ostream& stream, const ConnectedServicesLedType& value);
ORVSTACKSDK_EXPORT std::ostream& operator<<(std::ostream& stream, const ConnectedServicesLedState& value);
/// @}

/// @name Text to value
/// The whole text is compared byte for byte, case included. An unknown text is UNSUPPORTED; these never fail.
/// The reference stays valid as long as the library is loaded. Callable from any thread.
/// @{

/// The value of the text.
ORVSTACKSDK_EXPORT const AppAction& AppActionTextToEnum(const std::string& text);
ORVSTACKSDK_EXPORT const AppStatus& AppStatusTextToEnum(const std::string& text);
/// @}

} // namespace OrvStackSdk

#pragma pop_macro("ACK")
#pragma pop_macro("DISABLED")
#pragma pop_macro("ENABLED")
#pragma pop_macro("ERROR")
#pragma pop_macro("NOERROR")
#pragma pop_macro("OFF")
#pragma pop_macro("ON")
#pragma pop_macro("RELOAD")
