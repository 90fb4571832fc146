# SPDX-License-Identifier: Apache-2.0
"""An independent client of the gateway's broker, run on the gateway.

witness            writes every message as a JSON line, retained as it was published, "connected" with each connection and
                   "listening" when the broker has taken the subscription; connects again after a loss
witness --publish  the same, and publishes what it reads, written alike
witness --kept     writes what the broker keeps, one JSON object, and ends

With --port PORT behind it for another port than 1883.
"""
from __future__ import annotations

import json
import sys
import threading

import paho.mqtt.client as mqtt
from paho.mqtt.subscribeoptions import SubscribeOptions

from orv_testbed.topics import ALL

PORT = 1883
AS_PUBLISHED = SubscribeOptions(qos=1, retainAsPublished=True)
FENCE = "witness/end"
PATIENCE = 10  # seconds


def text(message: mqtt.MQTTMessage) -> str:
    return message.payload.decode("utf-8", "replace")


def publish_what_is_read(client: mqtt.Client) -> None:
    for line in sys.stdin:
        message = json.loads(line)
        client.publish(message["topic"], message["payload"], qos=1, retain=message["retained"])


def watch(port: int, publishes: bool) -> None:
    def connected(client: mqtt.Client, *_: object) -> None:
        print("connected", flush=True)
        client.subscribe(ALL, options=AS_PUBLISHED)

    def subscribed(*_: object) -> None:
        print("listening", flush=True)

    def received(_client: mqtt.Client, _data: object, message: mqtt.MQTTMessage) -> None:
        heard = {"topic": message.topic, "payload": text(message), "retained": bool(message.retain)}
        print(json.dumps(heard), flush=True)

    witness = mqtt.Client(client_id="witness", protocol=mqtt.MQTTv5)
    witness.on_connect, witness.on_subscribe, witness.on_message = connected, subscribed, received
    witness.reconnect_delay_set(0.2, 1)  # type: ignore[arg-type]  # any number will do
    witness.connect_async("127.0.0.1", port, keepalive=5)
    if publishes:
        threading.Thread(target=publish_what_is_read, args=(witness,), daemon=True).start()
    witness.loop_forever(retry_first_connection=True)


def kept(port: int) -> dict[str, str]:
    """What a broker of this machine keeps, by topic.

    It hands out in order: what it keeps comes before a message that is published after the subscription.
    """
    found: dict[str, str] = {}
    complete = threading.Event()

    def subscribed(client: mqtt.Client, *_: object) -> None:
        client.publish(FENCE, qos=1)

    def received(_client: mqtt.Client, _data: object, message: mqtt.MQTTMessage) -> None:
        if message.topic == FENCE:
            complete.set()
        elif message.retain:
            found[message.topic] = text(message)

    witness = mqtt.Client(client_id="witness-of-what-is-kept")
    witness.on_subscribe, witness.on_message = subscribed, received
    witness.on_connect = lambda client, *_: client.subscribe([(ALL, 1), (FENCE, 1)])
    witness.connect("127.0.0.1", port)
    witness.loop_start()
    try:
        if not complete.wait(PATIENCE):
            raise OSError(f"the broker has not handed over what it keeps within {PATIENCE} s, only {found}")
    finally:
        witness.disconnect()
        witness.loop_stop()
    return found


def main(words: list[str]) -> None:
    port = int(words[words.index("--port") + 1]) if "--port" in words else PORT
    if "--kept" in words:
        print(json.dumps(kept(port)))
    else:
        watch(port, "--publish" in words)


if __name__ == "__main__":
    main(sys.argv[1:])
