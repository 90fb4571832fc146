// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

/// The texts of the client library, written down a second time.
namespace OrvLab::Texts {

constexpr const char* EVENTS[] = {"CLOUD_CONNECTED",
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
                                  "FAILURE"};
constexpr const char* STATUSES[] = {"supported", "available", "booting", "ready", "error", "noerror", "UNSUPPORTED"};
constexpr const char* ACTIONS[] = {"ENABLED", "DISABLED", "RELOAD", "UNSUPPORTED"};
constexpr const char* ACTIONS_SENT[] = {"enabled", "disabled", "reload"};
constexpr const char* CONFIRMATIONS[] = {"ACK", "NACK"};
constexpr const char* LED_STATES[] = {"ON", "OFF", "BLINK"};
constexpr const char* LED_WORDS[] = {"On", "Off", "Blink"};
constexpr const char* CELLULAR[] = {"IMEI", "ICCID", "TECHNOLOGY", "PROVIDER", "STRENGTH"};
constexpr const char* CELLULAR_TOPICS[] = {"/orv/modem/imei", "/orv/modem/sim/iccid", "/orv/modem/sim/technology",
                                           "/orv/modem/sim/provider", "/orv/modem/sim/strength"};
constexpr const char* PANEL[] = {"",
                                 "/orv/panel/event/command/DoAlarmAck",
                                 "/orv/panel/event/command/DoReset",
                                 "/orv/panel/event/command/DoAck",
                                 "/orv/panel/event/command/DoAckIndividual",
                                 "/orv/panel/event/command/DoDateTime",
                                 "/orv/panel/event/command/GetRCStatus",
                                 "/orv/panel/event/command/GetRSStatus"};
constexpr const char* FEATURES = "/orv/apps_control/features/";
constexpr const char* READINESS = "/orv/apps_control/features/shutdown_readiness/";
constexpr const char* ENT_CON = "/orv/apps_control/features/Ent/status/EntCon";
constexpr const char* NO_EXT_NET = "/orv/apps_control/features/Ent/status/NoExtNet";
constexpr const char* YELLOW = "/orv/led/connected_services_yellow";
constexpr const char* GREEN = "/orv/led/connected_services_green";
constexpr const char* GUID = "/orv/panel/guid";
constexpr const char* PANEL_CONNECTION = "/orv/panel/connection_status";
constexpr const char* CONNECTION_STATUS = "/orv/modem/sim/conn_status";
// On which nobody but the gateway itself should speak.
constexpr const char* OF_THE_GATEWAY[] = {"/orv/led/connected_services_yellow",
                                          "/orv/led/connected_services_green",
                                          "/orv/apps_control/features/Ent/status/EntCon",
                                          "/orv/apps_control/features/Ent/status/NoExtNet",
                                          "/orv/network/wan/inhibit_dns",
                                          "/orv/apps_control/features/prepare_for_shutdown",
                                          "/orv/modem/sim/conn_status",
                                          "/orv/panel/event/command/DoReset",
                                          "/orv/apps_control/features/shutdown_readiness/app/init"};
constexpr const char* PREPARE = "/orv/apps_control/features/prepare_for_shutdown";
constexpr const char* NOT_PUBLISHED = "Failed to publish message to MQTT";

inline const char* Word(bool value) {
    return value ? "true" : "false";
}

} // namespace OrvLab::Texts
