// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

/// Every topic of the library, and every payload word that is not the text of an enumerator. They are defined only
/// here.
namespace OrvStackSdk::Topics {

constexpr const char* FEATURES = "/orv/apps_control/features/";
constexpr const char* INIT = "/init";
constexpr const char* AVAILABLE = "/available";
constexpr const char* SUPPORTED = "/supported";

constexpr const char* PREPARE_FOR_SHUTDOWN = "/orv/apps_control/features/prepare_for_shutdown";
constexpr const char* SHUTDOWN_READINESS = "/orv/apps_control/features/shutdown_readiness/";
constexpr const char* ENTERPRISE_CONNECTED = "/orv/apps_control/features/Ent/status/EntCon";
constexpr const char* NO_EXTERNAL_NETWORK = "/orv/apps_control/features/Ent/status/NoExtNet";

constexpr const char* LED_GREEN = "/orv/led/connected_services_green";
constexpr const char* LED_YELLOW = "/orv/led/connected_services_yellow";

constexpr const char* PANEL_ALARM_ACK = "/orv/panel/event/command/DoAlarmAck";
constexpr const char* PANEL_RESET = "/orv/panel/event/command/DoReset";
constexpr const char* PANEL_ACK = "/orv/panel/event/command/DoAck";
constexpr const char* PANEL_ACK_INDIVIDUAL = "/orv/panel/event/command/DoAckIndividual";
constexpr const char* PANEL_DATE_TIME = "/orv/panel/event/command/DoDateTime";
constexpr const char* PANEL_GET_RC_STATUS = "/orv/panel/event/command/GetRCStatus";
constexpr const char* PANEL_GET_RS_STATUS = "/orv/panel/event/command/GetRSStatus";

constexpr const char* PANEL_GUID = "/orv/panel/guid";
constexpr const char* PANEL_CONNECTION_STATUS = "/orv/panel/connection_status";

constexpr const char* MODEM_IMEI = "/orv/modem/imei";
constexpr const char* SIM_ICCID = "/orv/modem/sim/iccid";
constexpr const char* SIM_TECHNOLOGY = "/orv/modem/sim/technology";
constexpr const char* SIM_PROVIDER = "/orv/modem/sim/provider";
constexpr const char* SIM_STRENGTH = "/orv/modem/sim/strength";
constexpr const char* SIM_CONNECTION_STATUS = "/orv/modem/sim/conn_status";

constexpr const char* INHIBIT_DNS = "/orv/network/wan/inhibit_dns";

constexpr const char* ALL_FEATURES_FILTER = "/orv/apps_control/features/#";
constexpr const char* SHUTDOWN_READINESS_FILTER = "/orv/apps_control/features/shutdown_readiness/+";

inline std::string OfFeature(const std::string& feature, const char* suffix) {
    return FEATURES + feature + suffix;
}

} // namespace OrvStackSdk::Topics

namespace OrvStackSdk::Words {

constexpr const char* PREPARING = "preparing";
constexpr const char* LED_ON = "On";
constexpr const char* LED_OFF = "Off";
constexpr const char* LED_BLINK = "Blink";
constexpr const char* PANEL_UP = "UP";
constexpr const char* SHUTDOWN_READY = "ready";
constexpr const char* DNS_INHIBIT = "inhibit";
constexpr const char* DNS_PERMIT = "permit";

/// "true" or "false", as the library writes every bool on the wire.
inline const char* OfBool(bool value) {
    return value ? "true" : "false";
}

} // namespace OrvStackSdk::Words
