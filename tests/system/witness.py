#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Writes every message of the gateway's broker as a JSON line; connects again after a loss, for retained ones too."""
import json

import paho.mqtt.client as mqtt


def connected(client, *_):
    client.subscribe("/orv/#", qos=1)
    print("connected", flush=True)


def received(_client, _data, message):
    print(json.dumps({"topic": message.topic, "payload": message.payload.decode("utf-8", "replace"),
                      "retained": bool(message.retain)}), flush=True)


witness = mqtt.Client(client_id="witness")
witness.on_connect = connected
witness.on_message = received
witness.reconnect_delay_set(0.2, 1)
witness.connect_async("127.0.0.1", 1883, keepalive=5)
witness.loop_forever(retry_first_connection=True)
