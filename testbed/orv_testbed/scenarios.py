# SPDX-License-Identifier: Apache-2.0
"""scenarios SHELL FILE...

Runs scenario files of orv-shell in virtual time and on a real broker of this machine, and compares what happened: what
the application's two connections published, the callbacks, and what the route supervision said about its state.

The commands about the surroundings (broker, publish) are carried out here, the others by orv-shell. Each waits until
everything has come that came in virtual time; what differs, or comes besides, is seen in the end.
"""
from __future__ import annotations

import collections
import difflib
import os
import pathlib
import re
import shlex
import signal
import subprocess
import sys
import tempfile
import threading
from collections.abc import Callable, Sequence
from typing import NamedTuple

import paho.mqtt.client as mqtt
from paho.mqtt.subscribeoptions import SubscribeOptions

from orv_testbed.broker import Broker
from orv_testbed.processes import end_all, start_dependent
from orv_testbed.topics import ALL, INHIBIT_DNS
from orv_testbed.waiting import SLACK, NotInTime, comes_within, wait_until

SURROUNDINGS = {"broker", "cellular", "connman", "ethernet", "publish"}
AS_PUBLISHED = SubscribeOptions(qos=1, retainAsPublished=True)
CONFIGURATION = """[broker]
host = 127.0.0.1
port = {port}
[cloud]
endpoint = 127.0.0.1:1
[connman]
bus_address = unix:path={folder}/no-bus
[log]
level = info,OrvRoute=debug
"""
SIMULATED = re.compile(r"\S+ (.) (.*)")
SIMULATED_STATE = re.compile(r'log debug OrvRoute <Tick> "(.*)"')
LOGGED_STATE = re.compile(r"\S+ debug \[OrvRoute\] Tick: (.*)")
MARK = "done with line"


class Failed(Exception):
    """What happened is not what happened in virtual time; says what."""


class Published(NamedTuple):
    topic: str
    payload: str
    retained: bool


class Journal:
    """Four sequences. Between them there is no order that all gateways share: they come over several connections."""

    def __init__(self) -> None:
        self.sequences: dict[str, list[str]] = {"session": [], "route": [], "callbacks": [], "states": []}

    def published(self, message: Published) -> None:
        kind = "route" if message.topic == INHIBIT_DNS else "session"
        flag = "retained " if message.retained else ""
        self.sequences[kind].append(f"{flag}{message.topic} {message.payload!r}")

    def count(self) -> dict[str, int]:
        return {kind: len(lines) for kind, lines in self.sequences.items()}

    def lines(self) -> list[str]:
        return [f"{kind}: {line}" for kind, lines in self.sequences.items() for line in lines]


def words_of(text: str) -> list[str]:
    return shlex.split(text, comments=True)


def commands_of(scenario: pathlib.Path) -> list[str]:
    lines = scenario.read_text(encoding="utf-8").splitlines()
    return [line.strip() for line in lines if words_of(line)]


def simulate(shell: str, scenario: pathlib.Path, tick: str) -> tuple[Journal, list[dict[str, int]]]:
    """What happens in virtual time, and how much of it has after each command."""
    done = subprocess.run(
        [shell, "--simulate", "--tick", tick, scenario],
        capture_output=True,
        text=True,
        check=False,
        timeout=10 * SLACK,
    )
    if done.returncode != 0:
        raise Failed(f"{scenario.name} fails in virtual time: {done.stderr}")
    journal, counts = Journal(), []
    for line in done.stdout.splitlines():
        match = SIMULATED.match(line)
        if not match:
            continue
        mark, what = match.groups()
        if mark == ">":
            counts.append(journal.count())
        elif mark == "<":
            journal.sequences["callbacks"].append(what)
        elif state := SIMULATED_STATE.match(what):
            journal.sequences["states"].append(state[1].strip())
        elif what.startswith("publish "):
            words = words_of(what)[1:]
            retained = words[0] == "retained"
            journal.published(Published(words[retained], words[retained + 1], retained))
    return journal, [*counts[1:], journal.count()]


class Recorder:
    """Hears what goes over a broker, but for what the scenario itself has published."""

    def __init__(self, journal: Journal) -> None:
        self.journal = journal
        self.own: collections.Counter[Published] = collections.Counter()
        self.client: mqtt.Client | None = None
        self.heard: list[Published] = []

    def connect(self, port: int) -> None:
        listening = threading.Event()
        client = mqtt.Client(client_id="recorder", protocol=mqtt.MQTTv5)
        client.on_connect = lambda *_: client.subscribe(ALL, options=AS_PUBLISHED)
        client.on_subscribe = lambda *_: listening.set()
        client.on_message = self.received
        client.connect("127.0.0.1", port)
        client.loop_start()
        if not listening.wait(SLACK):
            raise NotInTime("the broker has not taken the recorder's subscription")
        self.client = client

    def disconnect(self) -> None:
        if self.client:
            self.client.disconnect()
            self.client.loop_stop()
            self.client = None

    def received(self, _client: mqtt.Client, _data: object, message: mqtt.MQTTMessage) -> None:
        published = Published(message.topic, message.payload.decode("utf-8", "replace"), bool(message.retain))
        if self.own[published] > 0:
            self.own[published] -= 1
            self.heard.append(published)
        else:
            self.journal.published(published)

    def publish(self, message: Published) -> None:
        """Returns when the broker has handed it out."""
        assert self.client, "the scenario publishes while there is no broker"
        before = len(self.heard)
        self.own[message] += 1
        self.client.publish(message.topic, message.payload, qos=1, retain=message.retained)
        wait_until(lambda: len(self.heard) > before, SLACK, f"{message} comes back")


class Loopback:
    """A broker of this machine, and orv-shell."""

    def __init__(self, shell: str, folder: pathlib.Path, tick: str) -> None:
        self.journal = Journal()
        self.broker = Broker(folder)
        self.recorder = Recorder(self.journal)
        self.recorder.connect(self.broker.port)
        settings = folder / "gateway.ini"
        settings.write_text(CONFIGURATION.format(port=self.broker.port, folder=folder), encoding="ascii")
        self.command = [shell, "--tick", tick]
        self.environment = {**os.environ, "ORV_GATEWAY_CONFIG": str(settings)}
        self.process: subprocess.Popen[str] | None = None
        self.said: list[str] = []
        self.log: list[str] = []
        self.readers: list[threading.Thread] = []

    def start(self) -> None:
        """The shell makes its client at once, as it does in virtual time, and then waits for commands."""
        pipe = subprocess.PIPE
        self.process = start_dependent(
            self.command, stdin=pipe, stdout=pipe, stderr=pipe, text=True, env=self.environment
        )
        for stream, take in ((self.process.stdout, self.take_line), (self.process.stderr, self.take_log)):
            reader = threading.Thread(target=lambda s=stream, t=take: [t(line.rstrip("\n")) for line in s], daemon=True)
            reader.start()
            self.readers.append(reader)

    def take_line(self, line: str) -> None:
        match = SIMULATED.match(line)
        if match and match[1] == "<":
            self.journal.sequences["callbacks"].append(match[2])
        self.said.append(line)

    def take_log(self, line: str) -> None:
        if state := LOGGED_STATE.match(line):
            self.journal.sequences["states"].append(state[1].strip())
        self.log.append(line)

    def run_command(self, command: str, number: int) -> None:
        assert self.process and self.process.stdin
        mark = f"{MARK} {number}"
        self.process.stdin.write(f"{command}\nnote {mark}\n")
        self.process.stdin.flush()
        wait_until(lambda: mark in self.said or not self.runs(), 10 * SLACK, lambda: f"{command} ends: {self.log}")
        if mark not in self.said:
            raise Failed(f"{command}: " + "\n".join(self.log))

    def runs(self) -> bool:
        return self.process is not None and self.process.poll() is None

    def change(self, words: list[str]) -> None:
        change: Callable[..., None] = getattr(self, f"change_{words[0]}", self.cannot)
        change(*words[1:])

    def cannot(self, *_: str) -> None:
        raise Failed("this gateway's interfaces are the machine's own: run the scenario on a gateway box")

    def change_publish(self, topic: str, payload: str, *retained: str) -> None:
        self.recorder.publish(Published(topic, payload, bool(retained)))

    def change_broker(self, fate: str) -> None:
        assert self.process
        if fate == "lost":
            self.recorder.disconnect()
            self.broker.stop()
            return
        # The recorder is to be there before the application, whose state is announced once.
        self.process.send_signal(signal.SIGSTOP)
        try:
            self.broker.start()
            self.recorder.connect(self.broker.port)
        finally:
            self.process.send_signal(signal.SIGCONT)

    def finish(self) -> None:
        """The end of its input ends the shell, which says good-bye: what it has published is with the broker then."""
        assert self.process and self.process.stdin
        self.process.stdin.close()
        status = self.process.wait(10 * SLACK)
        for reader in self.readers:
            reader.join(SLACK)
        self.recorder.publish(Published("/orv/end-of-the-scenario", "", False))
        if status != 0:
            raise Failed("orv-shell ends with " + "\n".join([str(status), *self.log]))

    def stop(self) -> None:
        self.recorder.disconnect()
        if self.process:
            end_all([self.process])
        self.broker.stop()


def await_counts(journal: Journal, wanted: dict[str, int], expected: Journal) -> None:
    def all_there() -> bool:
        present = journal.count()
        return all(present[kind] >= count for kind, count in wanted.items())

    if not comes_within(2 * SLACK, all_there):
        raise Failed(difference(expected, journal))


def follow(gateway: Loopback, scenario: pathlib.Path, expected: Journal, counts: list[dict[str, int]]) -> None:
    started = False
    for number, (command, wanted) in enumerate(zip(commands_of(scenario), counts)):
        words = words_of(command)
        if not started and words[0] not in SURROUNDINGS:
            gateway.start()
            started = True
        if words[0] in SURROUNDINGS:
            gateway.change(words)
        else:
            gateway.run_command(command, number)
        if started:
            await_counts(gateway.journal, wanted, expected)
    gateway.finish()
    if expected.lines() != gateway.journal.lines():
        raise Failed(difference(expected, gateway.journal))


def difference(expected: Journal, seen: Journal) -> str:
    lines = difflib.unified_diff(expected.lines(), seen.lines(), "in virtual time", "on this gateway", lineterm="", n=3)
    return "\n".join(lines)


def on_loopback(shell: str, scenario: pathlib.Path) -> Journal:
    """@return what happened, the same in both. No ticks but those of the scenario: no machine is too slow for it."""
    expected, counts = simulate(shell, scenario, "0")
    with tempfile.TemporaryDirectory(prefix="orv-scenario-") as folder:
        gateway = Loopback(shell, pathlib.Path(folder), "0")
        try:
            follow(gateway, scenario, expected, counts)
        finally:
            gateway.stop()
    return expected


def main(arguments: Sequence[str]) -> int:
    if len(arguments) < 2:
        print(__doc__, file=sys.stderr)
        return 2
    shell, *files = arguments
    status = 0
    for file in files:
        try:
            journal = on_loopback(shell, pathlib.Path(file))
            print(f"{file}: the same {len(journal.lines())} happenings in virtual time and on a real broker")
        except (Failed, NotInTime) as fault:
            print(f"{file}: {fault}", file=sys.stderr)
            status = 1
    return status


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
