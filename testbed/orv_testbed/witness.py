#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""An independent client of the gateway's broker, run on the gateway.

witness.py         writes every message as a JSON line, retained as it was published, "connected" with each connection and
                   "listening" when the broker has taken the subscription; connects again after a loss
witness.py --kept  writes what the broker keeps, one JSON object, and ends
"""
import json
import sys
import threading

import paho.mqtt.client as mqtt
from paho.mqtt.subscribeoptions import SubscribeOptions

AS_PUBLISHED = SubscribeOptions(qos=1, retainAsPublished=True)


def text(message):
    return message.payload.decode("utf-8", "replace")


def watch():
    def connected(client, *_):
        print("connected", flush=True)
        client.subscribe("/orv/#", options=AS_PUBLISHED)

    def subscribed(*_):
        print("listening", flush=True)

    def received(_client, _data, message):
        print(
            json.dumps({"topic": message.topic, "payload": text(message), "retained": bool(message.retain)}), flush=True
        )

    witness = mqtt.Client(client_id="witness", protocol=mqtt.MQTTv5)
    witness.on_connect, witness.on_subscribe, witness.on_message = connected, subscribed, received
    witness.reconnect_delay_set(0.2, 1)
    witness.connect_async("127.0.0.1", 1883, keepalive=5)
    witness.loop_forever(retry_first_connection=True)


def print_kept():
    """The broker hands out in order: what it keeps comes before a message that is published after the subscription."""
    kept, complete = {}, threading.Event()

    def subscribed(client, *_):
        client.publish("witness/end", qos=1)

    def received(_client, _data, message):
        if message.topic == "witness/end":
            complete.set()
        elif message.retain:
            kept[message.topic] = text(message)

    witness = mqtt.Client(client_id="witness-of-what-is-kept")
    witness.on_subscribe, witness.on_message = subscribed, received
    witness.on_connect = lambda client, *_: client.subscribe([("/orv/#", 1), ("witness/end", 1)])
    witness.connect("127.0.0.1", 1883)
    witness.loop_start()
    if not complete.wait(10):
        sys.exit("witness: no answer from the broker within 10 s")
    print(json.dumps(kept))


if sys.argv[1:] == ["--kept"]:
    print_kept()
else:
    watch()
