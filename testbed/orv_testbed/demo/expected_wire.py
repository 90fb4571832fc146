# SPDX-License-Identifier: Apache-2.0
"""What must be on the wire in the loopback demo, and the comparison with what was."""

import difflib

FEATURES = "/orv/apps_control/features/"
ALARM = FEATURES + "alarm/"
ENT_CON = FEATURES + "Ent/status/EntCon"
NO_EXT_NET = FEATURES + "Ent/status/NoExtNet"
YELLOW = "/orv/led/connected_services_yellow"
GREEN = "/orv/led/connected_services_green"
INHIBIT_DNS = "/orv/network/wan/inhibit_dns"


def plain(topic, payload):
    return f"qos=0 retained=0 {topic} {payload}"


def retained(topic, payload):
    return f"qos=0 retained=1 {topic} {payload}"


# From the application's session and from its neighbours, whose order the scenario fixes by waiting.
BEFORE_THE_MOVES = [
    retained(ENT_CON, "false"),
    plain(ALARM + "available", "true"),
    plain(ALARM + "init", "booting"),
    plain(ALARM + "supported", "true"),
    plain(ALARM + "init", "ready"),
    plain(ALARM + "init", "reload"),
    plain(ALARM + "init", "booting"),
    plain(ALARM + "init", "ready"),
    plain("/orv/panel/event/command/GetRCStatus", "status of all zones"),
    retained("/orv/panel/guid", "PANEL-0042"),
    retained("/orv/panel/connection_status", "UP"),
    plain("/orv/panel/event/command/DoDateTime", "2026-11-21 07:20:00"),
    plain("/orv/modem/sim/conn_status", "up, LTE"),
    retained("/orv/modem/imei", "350000000000006"),
    retained("/orv/modem/sim/iccid", "8900000000000000009"),
    retained("/orv/modem/sim/technology", "LTE"),
    retained("/orv/modem/sim/provider", "Example Mobile"),
    retained("/orv/modem/sim/strength", "-71 dBm"),
    # PANEL_CLOUD_ENABLED: no path to the outside yet
    retained(YELLOW, "On"),
    retained(GREEN, "Off"),
    retained(NO_EXT_NET, "true"),
    # ETHERNET_CONNECTED, ETHERNET_IP_GAINED
    retained(NO_EXT_NET, "true"),
    retained(YELLOW, "Blink"),
    retained(NO_EXT_NET, "false"),
    # CELLULAR_CONNECTED, CELLULAR_IP_GAINED
    retained(NO_EXT_NET, "false"),
    retained(NO_EXT_NET, "false"),
    # CLOUD_CONNECTED
    retained(YELLOW, "Off"),
    retained(GREEN, "On"),
    retained(NO_EXT_NET, "false"),
    retained(ENT_CON, "true"),
]
MOVES = [
    # CLOUD_DISCONNECTED, ETHERNET_IP_LOST
    retained(YELLOW, "Blink"),
    retained(GREEN, "Off"),
    retained(NO_EXT_NET, "false"),
    retained(ENT_CON, "false"),
    retained(NO_EXT_NET, "false"),
    # CLOUD_CONNECTED over Cellular
    retained(YELLOW, "Off"),
    retained(GREEN, "On"),
    retained(NO_EXT_NET, "false"),
    retained(ENT_CON, "true"),
    # ETHERNET_IP_GAINED
    retained(NO_EXT_NET, "false"),
    # the reconnection over Ethernet
    retained(YELLOW, "Blink"),
    retained(GREEN, "Off"),
    retained(NO_EXT_NET, "false"),
    retained(ENT_CON, "false"),
    retained(YELLOW, "Off"),
    retained(GREEN, "On"),
    retained(NO_EXT_NET, "false"),
    retained(ENT_CON, "true"),
]
AFTER_THE_MOVES = [
    plain(FEATURES + "prepare_for_shutdown", "preparing"),
    plain(FEATURES + "shutdown_readiness/heating", "ready"),
    plain(FEATURES + "shutdown_readiness/lighting", "busy"),
    # FAILURE
    retained(YELLOW, "Blink"),
    retained(GREEN, "Blink"),
    retained(NO_EXT_NET, "false"),
]

# From the route supervision, on a connection of its own.
ROUTE = [
    f"qos=1 retained=1 {INHIBIT_DNS} inhibit",
    f"qos=1 retained=1 {INHIBIT_DNS} permit",
]

# What the broker keeps for those who come later.
KEPT = [
    f"{ENT_CON} true",
    f"{NO_EXT_NET} false",
    f"{YELLOW} Blink",
    f"{GREEN} Blink",
    "/orv/panel/guid PANEL-0042",
    "/orv/panel/connection_status UP",
    "/orv/modem/imei 350000000000006",
    "/orv/modem/sim/iccid 8900000000000000009",
    "/orv/modem/sim/technology LTE",
    "/orv/modem/sim/provider Example Mobile",
    "/orv/modem/sim/strength -71 dBm",
]

STATUS_FILE = '"Enterprise Feature","Enabled"\n"Cloud Connection","Up"\n"Ethernet","Up"\n"Cellular","Up"'


def differences(name, expected, seen):
    """Nothing when the two lists are equal, otherwise lines that show where they are not."""
    if expected == seen:
        return []
    return [f"{name} differs (- must be there, + was there):"] + [
        "  " + line for line in list(difflib.unified_diff(expected, seen, lineterm="", n=1))[2:]
    ]


def kept(moves):
    return sorted(KEPT + ([f"{INHIBIT_DNS} permit"] if moves else []))


def wire_differences(seen, moves):
    """`moves`: whether the route was moved away and back."""
    route = [line for line in seen if INHIBIT_DNS in line]
    session = [line for line in seen if INHIBIT_DNS not in line]
    expected = BEFORE_THE_MOVES + (MOVES if moves else []) + AFTER_THE_MOVES
    return differences("the session's wire", expected, session) + differences(
        "the route's wire", ROUTE if moves else [], route
    )
