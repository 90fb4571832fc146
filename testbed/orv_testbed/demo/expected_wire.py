# SPDX-License-Identifier: Apache-2.0
"""What must be on the wire in the loopback demo, and the comparison with what was."""
from __future__ import annotations

import difflib

from orv_testbed.topics import (
    CLOUD,
    GREEN,
    INHIBIT_DNS,
    MODEM_CONNECTION,
    MODEM_IMEI,
    MODEM_SIM,
    NO_NETWORK,
    PANEL_COMMAND,
    PANEL_CONNECTION,
    PANEL_GUID,
    PREPARE_FOR_SHUTDOWN,
    SHUTDOWN_READINESS,
    YELLOW,
    of_feature,
)

ALARM = of_feature("alarm", "")


def plain(topic: str, payload: str) -> str:
    return f"qos=0 retained=0 {topic} {payload}"


def retained(topic: str, payload: str) -> str:
    return f"qos=0 retained=1 {topic} {payload}"


# From the application's session and from its neighbours, whose order the scenario fixes by waiting.
BEFORE_THE_MOVES = [
    retained(CLOUD, "false"),
    plain(ALARM + "available", "true"),
    plain(ALARM + "init", "booting"),
    plain(ALARM + "supported", "true"),
    plain(ALARM + "init", "ready"),
    plain(ALARM + "init", "reload"),
    plain(ALARM + "init", "booting"),
    plain(ALARM + "init", "ready"),
    plain(PANEL_COMMAND + "GetRCStatus", "status of all zones"),
    retained(PANEL_GUID, "PANEL-0042"),
    retained(PANEL_CONNECTION, "UP"),
    plain(PANEL_COMMAND + "DoDateTime", "2026-11-21 07:20:00"),
    plain(MODEM_CONNECTION, "up, LTE"),
    retained(MODEM_IMEI, "350000000000006"),
    retained(MODEM_SIM + "iccid", "8900000000000000009"),
    retained(MODEM_SIM + "technology", "LTE"),
    retained(MODEM_SIM + "provider", "Example Mobile"),
    retained(MODEM_SIM + "strength", "-71 dBm"),
    # PANEL_CLOUD_ENABLED: no path to the outside yet
    retained(YELLOW, "On"),
    retained(GREEN, "Off"),
    retained(NO_NETWORK, "true"),
    # ETHERNET_CONNECTED, ETHERNET_IP_GAINED
    retained(NO_NETWORK, "true"),
    retained(YELLOW, "Blink"),
    retained(NO_NETWORK, "false"),
    # CELLULAR_CONNECTED, CELLULAR_IP_GAINED
    retained(NO_NETWORK, "false"),
    retained(NO_NETWORK, "false"),
    # CLOUD_CONNECTED
    retained(YELLOW, "Off"),
    retained(GREEN, "On"),
    retained(NO_NETWORK, "false"),
    retained(CLOUD, "true"),
]
MOVES = [
    # CLOUD_DISCONNECTED, ETHERNET_IP_LOST
    retained(YELLOW, "Blink"),
    retained(GREEN, "Off"),
    retained(NO_NETWORK, "false"),
    retained(CLOUD, "false"),
    retained(NO_NETWORK, "false"),
    # CLOUD_CONNECTED over Cellular
    retained(YELLOW, "Off"),
    retained(GREEN, "On"),
    retained(NO_NETWORK, "false"),
    retained(CLOUD, "true"),
    # ETHERNET_IP_GAINED
    retained(NO_NETWORK, "false"),
    # the reconnection over Ethernet
    retained(YELLOW, "Blink"),
    retained(GREEN, "Off"),
    retained(NO_NETWORK, "false"),
    retained(CLOUD, "false"),
    retained(YELLOW, "Off"),
    retained(GREEN, "On"),
    retained(NO_NETWORK, "false"),
    retained(CLOUD, "true"),
]
AFTER_THE_MOVES = [
    plain(PREPARE_FOR_SHUTDOWN, "preparing"),
    plain(SHUTDOWN_READINESS + "heating", "ready"),
    plain(SHUTDOWN_READINESS + "lighting", "busy"),
    # FAILURE
    retained(YELLOW, "Blink"),
    retained(GREEN, "Blink"),
    retained(NO_NETWORK, "false"),
]

# From the route supervision, on a connection of its own.
ROUTE = [
    f"qos=1 retained=1 {INHIBIT_DNS} inhibit",
    f"qos=1 retained=1 {INHIBIT_DNS} permit",
]

# What the broker keeps for those who come later.
KEPT = [
    f"{CLOUD} true",
    f"{NO_NETWORK} false",
    f"{YELLOW} Blink",
    f"{GREEN} Blink",
    f"{PANEL_GUID} PANEL-0042",
    f"{PANEL_CONNECTION} UP",
    f"{MODEM_IMEI} 350000000000006",
    f"{MODEM_SIM}iccid 8900000000000000009",
    f"{MODEM_SIM}technology LTE",
    f"{MODEM_SIM}provider Example Mobile",
    f"{MODEM_SIM}strength -71 dBm",
]


def differences(name: str, expected: list[str], seen: list[str]) -> list[str]:
    """Nothing when the two lists are equal, otherwise lines that show where they are not."""
    if expected == seen:
        return []
    return [f"{name} differs (- must be there, + was there):"] + [
        "  " + line for line in list(difflib.unified_diff(expected, seen, lineterm="", n=1))[2:]
    ]


def kept(moves: bool) -> list[str]:
    return sorted(KEPT + ([f"{INHIBIT_DNS} permit"] if moves else []))


def wire_differences(seen: list[str], moves: bool) -> list[str]:
    """`moves`: whether the route was moved away and back."""
    route = [line for line in seen if INHIBIT_DNS in line]
    session = [line for line in seen if INHIBIT_DNS not in line]
    expected = BEFORE_THE_MOVES + (MOVES if moves else []) + AFTER_THE_MOVES
    return differences("the session's wire", expected, session) + differences(
        "the route's wire", ROUTE if moves else [], route
    )
