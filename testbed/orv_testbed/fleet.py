# SPDX-License-Identifier: Apache-2.0
"""A broker, a fake connection manager, an observer that is none of ours, and any number of applications (orv-shell
processes) beside each other."""
from __future__ import annotations

import contextlib
import os
import re
import signal
import subprocess
import tempfile
import threading
from collections.abc import Sequence
from pathlib import Path

import paho.mqtt.client as mqtt

from orv_testbed.broker import Broker
from orv_testbed.connman.fake_connman_process import FakeConnmanProcess
from orv_testbed.programs import program
from orv_testbed.topics import ALL, PANEL_GUID, of_feature
from orv_testbed.waiting import wait_until
from orv_testbed.wire import Message

PATIENCE = 30.0


class Observer:
    """Hears everything, and remembers it in order of arrival as (topic, payload, retained)."""

    def __init__(self, port: int) -> None:
        self.lock = threading.Lock()
        self.received: list[Message] = []
        self.subscribed = threading.Event()
        self.lost = threading.Event()
        self.client = mqtt.Client(client_id="observer")
        self.client.on_connect = lambda client, *_: client.subscribe(ALL, 1)
        self.client.on_subscribe = lambda *_: self.subscribed.set()
        self.client.on_disconnect = lambda *_: self.lost.set()
        self.client.on_message = self.note
        self.client.reconnect_delay_set(1, 1)
        self.client.connect("127.0.0.1", port, keepalive=5)
        self.client.loop_start()
        if not self.subscribed.wait(PATIENCE):
            self.close()
            raise AssertionError("the broker has not taken the observer's subscription")

    def note(self, _client: mqtt.Client, _data: object, message: mqtt.MQTTMessage) -> None:
        with self.lock:
            self.received.append(Message(message.topic, message.payload.decode(), bool(message.retain)))

    def messages(self, topic: str | None = None) -> list[Message]:
        with self.lock:
            return [message for message in self.received if topic in (None, message.topic)]

    def forget(self) -> None:
        with self.lock:
            self.received.clear()

    def publish(self, topic: str, payload: str) -> None:
        self.client.publish(topic, payload, qos=1).wait_for_publish(PATIENCE)

    def close(self) -> None:
        self.client.disconnect()
        self.client.loop_stop()


class Application:
    """One process with one feature, driven line by line."""

    def __init__(self, folder: Path, config: Path, name: str) -> None:
        self.name = name
        self.log = open(folder / f"{name}.log", "ab")
        self.process = subprocess.Popen(
            [program("orv-shell")],
            env={**os.environ, "ORV_GATEWAY_CONFIG": str(config)},
            text=True,
            bufsize=1,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=self.log,
        )
        assert self.process.stdin and self.process.stdout
        self.input, self.output = self.process.stdin, self.process.stdout
        self.lock = threading.Lock()
        self.received: list[str] = []
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()

    def read(self) -> None:
        for line in self.output:
            callback = re.match(r"\S+ < (.*)", line)
            if callback:
                with self.lock:
                    self.received.append(callback.group(1))

    def callbacks(self) -> list[str]:
        with self.lock:
            return list(self.received)

    def forget(self) -> None:
        with self.lock:
            self.received.clear()

    def do(self, *lines: str) -> None:
        for line in lines:
            self.input.write(line + "\n")
        self.input.flush()

    def launch(self) -> None:
        self.do("init " + self.name, "start", "status READY")

    def memory(self) -> int:
        """Resident memory in KiB."""
        status = Path(f"/proc/{self.process.pid}/status").read_text(encoding="ascii")
        return next(int(line.split()[1]) for line in status.splitlines() if line.startswith("VmRSS:"))

    def descriptors(self) -> int:
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

    def kill(self) -> None:
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()

    def close(self) -> None:
        if self.process.poll() is None:
            try:
                self.do("quit")
                self.process.wait(10)
            except (BrokenPipeError, subprocess.TimeoutExpired):
                self.kill()
        self.input.close()
        self.reader.join(5)
        self.output.close()
        self.log.close()


class Fleet:
    """So many applications on one broker, each ready. All have the same file of settings, which says no more than where
    broker and connection manager are."""

    def __init__(self, count: int) -> None:
        with contextlib.ExitStack() as parts:
            folder = Path(parts.enter_context(tempfile.TemporaryDirectory(prefix="orv-fleet-")))
            self.broker = Broker(folder)
            parts.callback(self.broker.stop)
            self.connman = FakeConnmanProcess(folder / "bus", "eth0:ready wwan0:ready")
            parts.callback(self.connman.close)
            self.observer = Observer(self.broker.port)
            parts.callback(self.observer.close)
            self.rounds = 0
            self.applications: list[Application] = []
            config = folder / "gateway.ini"
            config.write_text(
                f"[broker]\nport = {self.broker.port}\n[connman]\nbus_address = {self.connman.address}\n[log]\nlevel = 3\n"
            )
            for number in range(count):
                self.applications.append(Application(folder, config, f"feature{number}"))
                parts.callback(self.applications[-1].close)
            for application in self.applications:
                application.launch()
            self.parts = parts.pop_all()

    def close(self) -> None:
        self.parts.close()

    def alive(self) -> list[Application]:
        return [application for application in self.applications if application.process.poll() is None]

    def topic(self, application: Application, kind: str) -> str:
        return of_feature(application.name, kind)

    def words(self, application: Application, kind: str) -> list[str]:
        return [message.payload for message in self.observer.messages(self.topic(application, kind))]

    def await_words(self, kind: str, *words: str) -> None:
        """Each application has said exactly these words, in this order, since the observer last forgot."""

        def described(application: Application) -> str:
            return f"{application.name}/{kind} to say {words}; it said {self.words(application, kind)}"

        for one in self.alive():
            wait_until(lambda: self.words(one, kind) == list(words), PATIENCE, lambda: described(one))

    def await_in_all(self, callback: str, receivers: Sequence[Application] | None = None) -> None:
        def missing_callback(application: Application) -> str:
            return f"{application.name} to be told {callback}; it was told {application.callbacks()}"

        for one in receivers or self.alive():
            wait_until(lambda: callback in one.callbacks(), PATIENCE, lambda: missing_callback(one))

    def order_and_settle(self, application: Application, action: str) -> None:
        """Orders one application to do something, then lets everybody hear a mark: what came before it has arrived."""
        for other in self.alive():
            other.forget()
        self.rounds += 1
        self.observer.publish(self.topic(application, "init"), action)
        self.observer.publish(PANEL_GUID, f"mark-{self.rounds}")
        self.await_in_all(f"OnDeviceProbeIndication mark-{self.rounds}")

    def restart_broker(self) -> None:
        """The broker is gone and comes back without a memory.

        The applications are halted until the observer listens again: their availability is not retained, so that it
        would be lost on an observer who is slower than they are.
        """
        self.observer.subscribed.clear()
        self.observer.lost.clear()
        self.broker.stop()
        # A broker that ends in good order still publishes the wills: they must not be taken for news.
        assert self.observer.lost.wait(PATIENCE)
        for application in self.alive():
            application.process.send_signal(signal.SIGSTOP)
        self.observer.forget()
        self.broker.start()
        assert self.observer.subscribed.wait(PATIENCE)
        for application in self.alive():
            application.process.send_signal(signal.SIGCONT)
