# SPDX-License-Identifier: Apache-2.0
"""The application's neighbours on the gateway: apps control, the panel, the modem and two other features; and one who
comes later."""

import threading

import paho.mqtt.client as mqtt

FEATURES = "/orv/apps_control/features/"
FENCE = "demo/kept"

# (topic, payload, retained) for each message that is answered; the first such message only.
ANSWERS = {
    (FEATURES + "alarm/init", "ready"): [(FEATURES + "alarm/init", "reload", False)],
    ("/orv/panel/event/command/GetRCStatus", "status of all zones"): [
        ("/orv/panel/guid", "PANEL-0042", True),
        ("/orv/panel/connection_status", "UP", True),
    ],
    ("/orv/modem/sim/conn_status", "up, LTE"): [
        ("/orv/modem/imei", "350000000000006", True),
        ("/orv/modem/sim/iccid", "8900000000000000009", True),
        ("/orv/modem/sim/technology", "LTE", True),
        ("/orv/modem/sim/provider", "Example Mobile", True),
        ("/orv/modem/sim/strength", "-71 dBm", True),
    ],
    (FEATURES + "prepare_for_shutdown", "preparing"): [
        (FEATURES + "shutdown_readiness/heating", "ready", False),
        (FEATURES + "shutdown_readiness/lighting", "busy", False),
    ],
}


class Neighbours:
    def __init__(self, port):
        self.open = dict(ANSWERS)
        self.client = mqtt.Client("demo-neighbours")
        self.client.on_connect = lambda client, *_: client.subscribe("/orv/#")
        self.client.on_message = self.answer
        listening = threading.Event()
        self.client.on_subscribe = lambda *_: listening.set()
        self.client.connect("127.0.0.1", port)
        self.client.loop_start()
        if not listening.wait(10):
            raise OSError("the broker has not taken the neighbours' subscription within 10 s")

    def answer(self, client, _userdata, message):
        for topic, payload, retain in self.open.pop((message.topic, message.payload.decode()), []):
            client.publish(topic, payload, retain=retain)

    def publish(self, topic, payload):
        self.client.publish(topic, payload)

    def stop(self):
        self.client.disconnect()
        self.client.loop_stop()


def kept_by_broker(port):
    """What the broker keeps for one who comes later, as lines of topic and payload."""
    kept = []
    complete = threading.Event()
    client = mqtt.Client("demo-newcomer")

    def hear(_client, _userdata, message):
        if message.topic == FENCE:
            complete.set()
        elif message.retain:
            kept.append(f"{message.topic} {message.payload.decode()}")

    client.on_connect = lambda *_: client.subscribe("#")
    client.on_subscribe = lambda *_: client.publish(FENCE)  # comes back behind all that was kept
    client.on_message = hear
    client.connect("127.0.0.1", port)
    client.loop_start()
    try:
        if not complete.wait(10):
            raise OSError(f"the broker has not handed over what it keeps within 10 s, only {kept}")
    finally:
        client.disconnect()
        client.loop_stop()
    return sorted(kept)
