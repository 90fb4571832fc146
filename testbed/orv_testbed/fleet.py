# SPDX-License-Identifier: Apache-2.0
"""A broker, a fake connection manager, an observer that is none of ours, and any number of applications (orv-shell
processes) beside each other."""

import contextlib
import os
import re
import signal
import socket
import subprocess
import tempfile
import threading
import time
from pathlib import Path

import paho.mqtt.client as mqtt

from orv_testbed.connman.stand_in import ConnmanStandIn

TREE = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("ORV_BUILD", TREE / "build/release"))
TOOLS = Path(os.environ.get("ORV_TOOLS", TREE / "build/tools"))
FEATURES = "/orv/apps_control/features"
PATIENCE = 30.0


def until(condition, what, patience=PATIENCE):
    """Waits for the condition and returns what it gave; fails with `what` when it does not come true in time."""
    deadline = time.monotonic() + patience
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > deadline:
            raise AssertionError("waited in vain for " + (what() if callable(what) else what))
        time.sleep(0.02)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Broker:
    def __init__(self, folder):
        self.config = Path(folder) / "mosquitto.conf"
        self.log = Path(folder) / "mosquitto.log"
        self.process = None
        for _ in range(5):  # another program may take the port between the choice and the start
            self.port = free_port()
            self.config.write_text(f"listener {self.port} 127.0.0.1\nallow_anonymous true\nset_tcp_nodelay true\n")
            if self.try_to_start():
                return
        raise AssertionError(f"the broker does not start: {self.log.read_text()}")

    def try_to_start(self):
        """Whether it runs: it says so when it listens, where a connection could be to somebody else."""
        command = [str(TOOLS / "usr/sbin/mosquitto"), "-c", str(self.config)]
        with open(self.log, "wb") as log:
            self.process = subprocess.Popen(command, stdout=log, stderr=log)
        try:
            until(
                lambda: self.process.poll() is not None or " running\n" in self.log.read_text(), "the broker to listen"
            )
        except BaseException:
            self.stop()
            raise
        return self.process.poll() is None

    def start(self):
        assert self.try_to_start(), f"the broker does not start again: {self.log.read_text()}"

    def stop(self):
        if self.process:
            self.process.terminate()
            self.process.wait()
            self.process = None


class Observer:
    """Hears everything, and remembers it in order of arrival as (topic, payload, retained)."""

    def __init__(self, port):
        self.lock = threading.Lock()
        self.messages = []
        self.subscribed = threading.Event()
        self.lost = threading.Event()
        self.client = mqtt.Client(client_id="observer")
        self.client.on_connect = lambda client, *_: client.subscribe("/orv/#", 1)
        self.client.on_subscribe = lambda *_: self.subscribed.set()
        self.client.on_disconnect = lambda *_: self.lost.set()
        self.client.on_message = self.note
        self.client.reconnect_delay_set(1, 1)
        self.client.connect("127.0.0.1", port, keepalive=5)
        self.client.loop_start()
        if not self.subscribed.wait(PATIENCE):
            self.close()
            raise AssertionError("the broker has not taken the observer's subscription")

    def note(self, _client, _data, message):
        with self.lock:
            self.messages.append((message.topic, message.payload.decode(), bool(message.retain)))

    def heard(self, topic=None):
        with self.lock:
            return [message for message in self.messages if topic in (None, message[0])]

    def forget(self):
        with self.lock:
            self.messages.clear()

    def publish(self, topic, payload):
        self.client.publish(topic, payload, qos=1).wait_for_publish(PATIENCE)

    def close(self):
        self.client.disconnect()
        self.client.loop_stop()


class Application:
    """One process with one feature, driven line by line."""

    def __init__(self, folder, config, name):
        self.name = name
        self.log = open(Path(folder) / f"{name}.log", "ab")
        self.process = subprocess.Popen(
            [str(BUILD / "bin/orv-shell")],
            env={**os.environ, "ORV_GATEWAY_CONFIG": str(config)},
            text=True,
            bufsize=1,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=self.log,
        )
        self.lock = threading.Lock()
        self.callbacks = []
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()

    def read(self):
        for line in self.process.stdout:
            callback = re.match(r"\S+ < (.*)", line)
            if callback:
                with self.lock:
                    self.callbacks.append(callback.group(1))

    def told(self):
        with self.lock:
            return list(self.callbacks)

    def forget(self):
        with self.lock:
            self.callbacks.clear()

    def do(self, *lines):
        for line in lines:
            self.process.stdin.write(line + "\n")
        self.process.stdin.flush()

    def launch(self):
        self.do("init " + self.name, "start", "status READY")

    def memory(self):
        """Resident memory in KiB."""
        status = Path(f"/proc/{self.process.pid}/status").read_text()
        return int(re.search(r"VmRSS:\s+(\d+)", status).group(1))

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

    def kill(self):
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()

    def close(self):
        if self.process.poll() is None:
            try:
                self.do("quit")
                self.process.wait(10)
            except (BrokenPipeError, subprocess.TimeoutExpired):
                self.kill()
        self.process.stdin.close()
        self.reader.join(5)
        self.process.stdout.close()
        self.log.close()


class Fleet:
    """So many applications on one broker, each ready. All have the same file of settings, which says no more than where
    broker and connection manager are."""

    def __init__(self, count):
        with contextlib.ExitStack() as parts:
            folder = parts.enter_context(tempfile.TemporaryDirectory(prefix="orv-fleet-"))
            self.broker = Broker(folder)
            parts.callback(self.broker.stop)
            self.connman = ConnmanStandIn(Path(folder) / "bus", "eth0:ready wwan0:ready")
            parts.callback(self.connman.close)
            self.observer = Observer(self.broker.port)
            parts.callback(self.observer.close)
            self.rounds = 0
            self.applications = []
            config = Path(folder) / "gateway.ini"
            config.write_text(
                f"[broker]\nport = {self.broker.port}\n[connman]\nbus_address = {self.connman.address}\n[log]\nlevel = 3\n"
            )
            for number in range(count):
                self.applications.append(Application(folder, config, f"feature{number}"))
                parts.callback(self.applications[-1].close)
            for application in self.applications:
                application.launch()
            self.parts = parts.pop_all()

    def close(self):
        self.parts.close()

    def alive(self):
        return [application for application in self.applications if application.process.poll() is None]

    def topic(self, application, kind):
        return f"{FEATURES}/{application.name}/{kind}"

    def words(self, application, kind):
        return [payload for _, payload, _ in self.observer.heard(self.topic(application, kind))]

    def await_words(self, kind, *words):
        """Each application has said exactly these words, in this order, since the observer last forgot."""
        for application in self.alive():
            until(
                lambda: self.words(application, kind) == list(words),
                lambda: f"{application.name}/{kind} to say {words}; it said {self.words(application, kind)}",
            )

    def await_in_all(self, callback, receivers=None):
        for application in receivers or self.alive():
            until(
                lambda: callback in application.told(),
                lambda: f"{application.name} to be told {callback}; it was told {application.told()}",
            )

    def order_and_settle(self, application, action):
        """Orders one application to do something, then lets everybody hear a mark: what came before it has arrived."""
        for other in self.alive():
            other.forget()
        self.rounds += 1
        self.observer.publish(self.topic(application, "init"), action)
        self.observer.publish("/orv/panel/guid", f"mark-{self.rounds}")
        self.await_in_all(f"OnDeviceProbeIndication mark-{self.rounds}")

    def restart_broker(self):
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
