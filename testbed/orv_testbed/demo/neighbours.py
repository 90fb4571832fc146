# SPDX-License-Identifier: Apache-2.0
"""The application's neighbours on the gateway: apps control, the panel, the modem and two other features."""
from __future__ import annotations

import threading

import paho.mqtt.client as mqtt

from orv_testbed.topics import (
    ALL,
    MODEM_CONNECTION,
    MODEM_IMEI,
    MODEM_SIM,
    PANEL_COMMAND,
    PANEL_CONNECTION,
    PANEL_GUID,
    PREPARE_FOR_SHUTDOWN,
    SHUTDOWN_READINESS,
    of_feature,
)

# (topic, payload, retained) for each message that is answered; the first such message only.
ANSWERS = {
    (of_feature("alarm", "init"), "ready"): [(of_feature("alarm", "init"), "reload", False)],
    (PANEL_COMMAND + "GetRCStatus", "status of all zones"): [
        (PANEL_GUID, "PANEL-0042", True),
        (PANEL_CONNECTION, "UP", True),
    ],
    (MODEM_CONNECTION, "up, LTE"): [
        (MODEM_IMEI, "350000000000006", True),
        (MODEM_SIM + "iccid", "8900000000000000009", True),
        (MODEM_SIM + "technology", "LTE", True),
        (MODEM_SIM + "provider", "Example Mobile", True),
        (MODEM_SIM + "strength", "-71 dBm", True),
    ],
    (PREPARE_FOR_SHUTDOWN, "preparing"): [
        (SHUTDOWN_READINESS + "heating", "ready", False),
        (SHUTDOWN_READINESS + "lighting", "busy", False),
    ],
}


class Neighbours:
    def __init__(self, port: int) -> None:
        self.open = dict(ANSWERS)
        self.client = mqtt.Client("demo-neighbours")
        self.client.on_connect = lambda client, *_: client.subscribe(ALL)
        self.client.on_message = self.answer
        listening = threading.Event()
        self.client.on_subscribe = lambda *_: listening.set()
        self.client.connect("127.0.0.1", port)
        self.client.loop_start()
        if not listening.wait(10):
            raise OSError("the broker has not taken the neighbours' subscription within 10 s")

    def answer(self, client: mqtt.Client, _userdata: object, message: mqtt.MQTTMessage) -> None:
        for topic, payload, retain in self.open.pop((message.topic, message.payload.decode()), []):
            client.publish(topic, payload, retain=retain)

    def publish(self, topic: str, payload: str) -> None:
        self.client.publish(topic, payload)

    def stop(self) -> None:
        self.client.disconnect()
        self.client.loop_stop()
