# SPDX-License-Identifier: Apache-2.0
"""The topics on the gateway's broker.

They stand here a second time, not taken from the library's own OrvTopics.h, so that a topic that changes there is seen.
"""
from __future__ import annotations

ALL = "/orv/#"

FEATURES = "/orv/apps_control/features/"
CLOUD = FEATURES + "Ent/status/EntCon"
NO_NETWORK = FEATURES + "Ent/status/NoExtNet"
PREPARE_FOR_SHUTDOWN = FEATURES + "prepare_for_shutdown"
SHUTDOWN_READINESS = FEATURES + "shutdown_readiness/"

LEDS = "/orv/led/connected_services_"
GREEN = LEDS + "green"
YELLOW = LEDS + "yellow"

INHIBIT_DNS = "/orv/network/wan/inhibit_dns"

PANEL_COMMAND = "/orv/panel/event/command/"
PANEL_GUID = "/orv/panel/guid"
PANEL_CONNECTION = "/orv/panel/connection_status"

MODEM_CONNECTION = "/orv/modem/sim/conn_status"
MODEM_IMEI = "/orv/modem/imei"
MODEM_SIM = "/orv/modem/sim/"


def of_feature(name: str, kind: str) -> str:
    """A feature's own topic, such as its `init`, `available` or `supported`."""
    return f"{FEATURES}{name}/{kind}"
