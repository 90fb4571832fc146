# SPDX-License-Identifier: Apache-2.0
"""The loopback demo: a private broker, a fake connection manager, a TLS endpoint and orv-shell on a scenario, and a check
of the recorded wire.

Run by script/demo as the first process of private mount, network and process namespaces where the machine permits them:
whatever it mounts, writes or starts is gone when it ends, however it ends. Elsewhere it mounts nothing: the status files are
written into the machine's own /var/tmp and removed in the end, and the moves of the route are left out, because without
private interfaces and a private list of authorities no poke can succeed.
"""

from __future__ import annotations

import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
from collections.abc import Sequence
from typing import Any

from orv_testbed import witness
from orv_testbed.broker import Broker
from orv_testbed.certificates import Authority, hash_of
from orv_testbed.connman.fake_connman_process import FakeConnmanError, FakeConnmanProcess
from orv_testbed.demo.expected_wire import differences, kept, wire_differences
from orv_testbed.demo.neighbours import Neighbours
from orv_testbed.demo.transcript import Transcript
from orv_testbed.endpoint import Caller, Endpoint, context
from orv_testbed.processes import end_all, start_dependent
from orv_testbed.status_files import ALL_UP, ERRORS, FAILURE, STATUSES
from orv_testbed.waiting import NotInTime, wait_until

ANCHORS = pathlib.Path("/etc/ssl/certs")
SCENARIO = pathlib.Path(__file__).with_name("loopback.orv")
ETHERNET, CELLULAR = "eth-demo", "wwan-demo"
LIMIT = 50

CONFIGURATION = """[broker]
host = 127.0.0.1
port = {broker}
[interfaces]
ethernet = {ethernet}
cellular = {cellular}
[cloud]
endpoint = 127.0.0.1:{endpoint}
[connman]
bus_address = {bus}
[log]
level = info,OrvRoute=debug
"""


class Refused(Exception):
    """The machine does not let the demo run."""


def run(*command: str | pathlib.Path, **options: Any) -> None:
    subprocess.run(command, check=True, **options)


def make_private_places(tree: str) -> None:
    """A /var/tmp of our own; a tree that lies below it stays reachable."""
    below = os.path.realpath(tree).startswith("/var/tmp/")
    tree_handle = os.open(tree, os.O_PATH) if below else -1
    run("mount", "-t", "tmpfs", "-o", "mode=1777", "tmpfs", "/var/tmp")
    if below:
        os.makedirs(tree)
        run("mount", "--bind", f"/proc/self/fd/{tree_handle}", tree, pass_fds=[tree_handle])


def make_private_interfaces() -> None:
    """A loopback interface of our own, which stands for both interfaces: the poke is bound to it by either name."""
    run("ip", "link", "set", "lo", "up")
    run("ip", "link", "property", "add", "dev", "lo", "altname", ETHERNET, "altname", CELLULAR)


def refuse_to_overwrite() -> None:
    for path in (STATUSES, ERRORS):
        if os.path.lexists(path):
            raise Refused(
                f"{path} exists, and this machine gives the demo no /var/tmp of its own: move the file away, or "
                "run the demo where it may make namespaces (as root; in a container started with --privileged)"
            )


def remove_status_files() -> None:
    for path in (STATUSES, ERRORS):
        pathlib.Path(path).unlink(missing_ok=True)


def trust(authority: pathlib.Path, folder: pathlib.Path) -> None:
    """As update-ca-certificates does: one more in the system's bundle and among the hashed certificates beside it."""
    anchors = folder / "anchors"
    shutil.copytree(ANCHORS, anchors, symlinks=True)
    with open(anchors / "ca-certificates.crt", "ab") as bundle:
        bundle.write(authority.read_bytes())
    shutil.copy(authority, anchors / f"{hash_of(authority)}.0")
    run("mount", "--bind", anchors, ANCHORS)


class Demo:
    def __init__(self, shell: str, transcript: Transcript, private: bool) -> None:
        self.shell, self.transcript, self.private = shell, transcript, private
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="orv-demo-", dir="/var/tmp" if private else None))
        self.processes: list[subprocess.Popen[str]] = []
        self.broker: Broker | None = None
        self.connman: FakeConnmanProcess | None = None
        self.handshakes: list[str] = []
        self.wire: list[str] = []
        self.beacons: set[str] = set()

    def start(self, *command: str | pathlib.Path, **options: Any) -> subprocess.Popen[str]:
        process = start_dependent([str(word) for word in command], text=True, **options)
        self.processes.append(process)
        return process

    def stop(self) -> None:
        end_all(self.processes)
        if self.broker:
            self.broker.stop()
        if self.connman:
            self.connman.close()
        shutil.rmtree(self.folder, ignore_errors=True)
        if not self.private:
            remove_status_files()

    def note_handshake(self, caller: Caller, outcome: str) -> None:
        if outcome == "handshake":
            self.handshakes.append(caller.address)
        self.transcript.line("cloud", f"TLS with {caller.address}: {outcome}")

    def start_cloud(self) -> Endpoint:
        authority = Authority(self.folder, "ca", "Demo CA")
        certified = context(authority.certify("endpoint", "demo endpoint", "IP:127.0.0.1"))
        if self.private:
            trust(authority.certificate, self.folder)
        endpoint = Endpoint("127.0.0.1", 0, lambda _: certified, self.note_handshake, b"")
        endpoint.start()
        return endpoint

    def record(self, port: int) -> None:
        command = ["stdbuf", "-oL", "mosquitto_sub", "-h", "127.0.0.1", "-p", str(port), "-q", "1", "-t", "#"]
        command += ["-V", "mqttv5", "--retain-as-published", "-F", "%q %r %t %p"]
        recorder = self.start(*command, stdout=subprocess.PIPE)

        def read() -> None:
            for line in recorder.stdout or ():
                qos, retain, rest = line.rstrip("\n").split(" ", 2)
                topic, _, payload = rest.partition(" ")
                if topic.startswith(("demo/", "witness/")):
                    self.beacons.add(topic)
                    continue
                self.wire.append(f"qos={qos} retained={retain} {rest}")
                self.transcript.message(retain == "1", topic, payload)

        threading.Thread(target=read, daemon=True).start()

    def await_beacon(self, neighbours: Neighbours, name: str) -> None:
        """Until the recorder has seen everything that was published before."""

        def seen() -> bool:
            neighbours.publish(f"demo/{name}", "")
            return f"demo/{name}" in self.beacons

        wait_until(seen, 5, f"the recorder has seen the mark '{name}'")

    def scenario(self) -> pathlib.Path:
        if self.private:
            return SCENARIO
        path = self.folder / "loopback.orv"
        blocks = SCENARIO.read_text(encoding="utf-8").split("\n\n")
        path.write_text("\n\n".join(block for block in blocks if "expect reconnect" not in block), encoding="utf-8")
        return path

    def run_shell(self, settings: pathlib.Path) -> int:
        shell = self.start(
            self.shell,
            "--tick",
            "100ms",
            self.scenario(),
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            errors="replace",
            env={**os.environ, "ORV_GATEWAY_CONFIG": str(settings)},
        )

        def read_log() -> None:
            for line in shell.stderr or ():
                self.transcript.line("log", line.rstrip("\n"), "dim")

        reader = threading.Thread(target=read_log, daemon=True)
        reader.start()
        watchdog = threading.Timer(LIMIT, shell.terminate)
        watchdog.start()
        for line in shell.stdout or ():
            self.transcript.application(line.rstrip("\n"))
        status = shell.wait()
        watchdog.cancel()
        reader.join(2)
        return status

    def run(self) -> list[str]:
        begin = int(time.time())
        endpoint = self.start_cloud()
        self.broker = Broker(self.folder)
        self.transcript.line("demo", f"private broker on 127.0.0.1:{self.broker.port}")
        self.connman = FakeConnmanProcess(self.folder / "bus", f"{ETHERNET}:ready {CELLULAR}:ready")
        self.transcript.line("demo", f"fake connection manager on {self.connman.address}")
        self.record(self.broker.port)
        neighbours = Neighbours(self.broker.port)
        self.await_beacon(neighbours, "begin")
        settings = self.folder / "gateway.ini"
        parts = {"broker": self.broker.port, "endpoint": endpoint.port, "bus": self.connman.address}
        settings.write_text(CONFIGURATION.format(**parts, ethernet=ETHERNET, cellular=CELLULAR), encoding="ascii")
        status = self.run_shell(settings)
        self.await_beacon(neighbours, "end")
        neighbours.stop()
        moves = self.private
        proofs = ["127.0.0.1"] * 2 if moves else []
        return [
            *([f"orv-shell ended with exit status {status}"] if status != 0 else []),
            *wire_differences(self.wire, moves=moves),
            *differences("what the broker keeps", kept(moves=moves), self.kept_by_broker(self.broker.port)),
            *differences("who proved itself to the cloud", proofs, self.handshakes),
            *self.check_files(begin),
        ]

    @staticmethod
    def kept_by_broker(port: int) -> list[str]:
        return sorted(f"{topic} {payload}" for topic, payload in witness.kept(port).items())

    def check_files(self, begin: int) -> list[str]:
        contents = {}
        for path in (STATUSES, ERRORS):
            self.transcript.chapter(path)
            try:
                contents[path] = pathlib.Path(path).read_text(encoding="utf-8")
            except OSError as error:
                return [f"{path}: {error.strerror}"]
            print(contents[path], flush=True)
        faults = differences(STATUSES, ALL_UP.split("\n"), contents[STATUSES].split("\n"))
        stamp, _, text = contents[ERRORS].partition(",")
        if not (stamp.isdigit() and begin <= int(stamp) <= time.time() and text == FAILURE):
            faults.append(f"{ERRORS} is not as it must be")
        return faults


def interrupted(*_: object) -> None:
    raise KeyboardInterrupt


def main(arguments: Sequence[str]) -> int:
    tree, shell, colour, places = arguments
    private = places == "private"
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, interrupted)
    transcript = Transcript(colour == "colour")
    demo = None
    try:
        if private:
            make_private_places(tree)
            make_private_interfaces()
        else:
            refuse_to_overwrite()
        demo = Demo(shell, transcript, private)
        faults = demo.run()
    except KeyboardInterrupt:
        print("\ndemo: interrupted", file=sys.stderr)
        return 130
    except Refused as reason:
        print(f"demo: {reason}", file=sys.stderr)
        return 77
    except (NotInTime, FakeConnmanError, OSError, RuntimeError, subprocess.CalledProcessError) as error:
        print(f"demo: {error}", file=sys.stderr)
        return 1
    finally:
        if demo:
            demo.stop()
    good = f"All {len(demo.wire)} messages on the wire are what must be there, in order."
    status = transcript.verdict(faults, good)
    if status == 0 and not private:
        print(
            "Left out, because this machine gives no private interfaces and list of authorities: the moves of the route."
        )
    return status


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
