# SPDX-License-Identifier: Apache-2.0
"""The loopback demo: a private broker, a fake connection manager, a TLS endpoint and orv-shell on a scenario, and a check
of the recorded wire.

Run by script/demo as the first process of private mount, network and process namespaces where the machine permits them:
whatever it mounts, writes or starts is gone when it ends, however it ends. Elsewhere it mounts nothing: the status files are
written into the machine's own /var/tmp and removed in the end, and the moves of the route are left out, because without
private interfaces and a private list of authorities no poke can succeed.
"""

import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

from orv_testbed.connman.stand_in import ConnmanStandIn, StandInError
from orv_testbed.demo.endpoint import Endpoint, make_certificates
from orv_testbed.demo.expected_wire import STATUS_FILE, differences, kept, wire_differences
from orv_testbed.demo.neighbours import Neighbours, kept_by_broker
from orv_testbed.demo.transcript import Transcript
from orv_testbed.processes import end_all

HERE = os.path.dirname(os.path.abspath(__file__))

ANCHORS = "/etc/ssl/certs"
SCENARIO = os.path.join(HERE, "loopback.orv")
STATUSES = "/var/tmp/new_enterprise_statuses.csv"
ERRORS = "/var/tmp/new_enterprise_errors.csv"
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


class DemoError(Exception):
    pass


class Refused(Exception):
    """The machine does not let the demo run."""


def mount(*arguments):
    subprocess.run(["mount", *arguments], check=True)


def make_private_places(tree):
    """A /var/tmp of our own; a tree that lies below it stays reachable."""
    below = os.path.realpath(tree).startswith("/var/tmp/")
    tree_handle = os.open(tree, os.O_PATH) if below else -1
    mount("-t", "tmpfs", "-o", "mode=1777", "tmpfs", "/var/tmp")
    if below:
        os.makedirs(tree)
        subprocess.run(["mount", "--bind", f"/proc/self/fd/{tree_handle}", tree], check=True, pass_fds=[tree_handle])


def make_private_interfaces():
    """A loopback interface of our own, which stands for both interfaces: the poke is bound to it by either name."""
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    subprocess.run(["ip", "link", "property", "add", "dev", "lo", "altname", ETHERNET, "altname", CELLULAR], check=True)


def refuse_to_overwrite():
    for path in (STATUSES, ERRORS):
        if os.path.lexists(path):
            raise Refused(
                f"{path} exists, and this machine gives the demo no /var/tmp of its own: move the file away, or "
                "run the demo where it may make namespaces (as root; in a container started with --privileged)"
            )


def remove_status_files():
    for path in (STATUSES, ERRORS):
        if os.path.lexists(path):
            os.remove(path)


def trust_the_authority(folder):
    """As update-ca-certificates does: one more in the system's bundle and among the hashed certificates beside it."""
    anchors = os.path.join(folder, "anchors")
    shutil.copytree(ANCHORS, anchors, symlinks=True)
    authority = os.path.join(folder, "ca.crt")
    with open(os.path.join(anchors, "ca-certificates.crt"), "ab") as bundle, open(authority, "rb") as file:
        bundle.write(file.read())
    name = subprocess.run(
        ["openssl", "x509", "-noout", "-subject_hash", "-in", authority], check=True, capture_output=True, text=True
    ).stdout.strip()
    shutil.copy(authority, os.path.join(anchors, f"{name}.0"))
    mount("--bind", anchors, ANCHORS)


def wait_until(condition, seconds, what):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise DemoError(f"{what} within {seconds} s")
        time.sleep(0.02)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Demo:
    def __init__(self, shell, mosquitto, transcript, private):
        self.shell, self.mosquitto, self.transcript, self.private = shell, mosquitto, transcript, private
        self.folder = tempfile.mkdtemp(prefix="orv-demo-", dir="/var/tmp" if private else None)
        self.processes = []
        self.connman = None
        self.wire = []
        self.beacons = set()

    def start(self, command, **options):
        process = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *command], stdin=subprocess.DEVNULL, **options)
        self.processes.append(process)
        return process

    def stop(self):
        end_all(self.processes)
        if self.connman:
            self.connman.close()
        shutil.rmtree(self.folder, ignore_errors=True)
        if not self.private:
            remove_status_files()

    def file(self, name):
        return os.path.join(self.folder, name)

    def read(self, name):
        with open(self.file(name), encoding="utf-8") as file:
            return file.read()

    def start_broker(self):
        path = self.file("mosquitto.conf")
        for _ in range(5):  # another program may take the port between the choice and the start
            port = free_port()
            with open(path, "w", encoding="ascii") as file:
                file.write(f"listener {port} 127.0.0.1\nallow_anonymous true\nset_tcp_nodelay true\nuser root\n")
            with open(self.file("mosquitto.log"), "wb") as log:
                broker = self.start([self.mosquitto, "-c", path], stdout=log, stderr=log)
            # It says so when it listens; on the port somebody else could answer.
            wait_until(
                lambda: broker.poll() is not None or " running\n" in self.read("mosquitto.log"),
                5,
                "the broker did not start",
            )
            if broker.poll() is None:
                self.transcript.line("demo", f"private broker on 127.0.0.1:{port}")
                return port
        raise DemoError("the broker does not start:\n" + self.read("mosquitto.log"))

    def record(self, port):
        command = [
            "mosquitto_sub",
            "-h",
            "127.0.0.1",
            "-p",
            str(port),
            "-V",
            "mqttv5",
            "--retain-as-published",
            "-q",
            "1",
            "-t",
            "#",
            "-F",
            "%q %r %t %p",
        ]
        recorder = self.start(["stdbuf", "-oL", *command], stdout=subprocess.PIPE, text=True)

        def read():
            for line in recorder.stdout:
                qos, retain, rest = line.rstrip("\n").split(" ", 2)
                topic, _, payload = rest.partition(" ")
                if topic.startswith("demo/"):
                    self.beacons.add(topic)
                    continue
                self.wire.append(f"qos={qos} retained={retain} {rest}")
                self.transcript.message(retain == "1", topic, payload)

        threading.Thread(target=read, daemon=True).start()

    def await_beacon(self, neighbours, name):
        """Until the recorder has seen everything that was published before."""

        def seen():
            neighbours.publish(f"demo/{name}", "")
            return f"demo/{name}" in self.beacons

        wait_until(seen, 5, f"the recorder has not seen the mark '{name}'")

    def scenario(self):
        if self.private:
            return SCENARIO
        path = self.file("loopback.orv")
        with open(SCENARIO, encoding="utf-8") as whole, open(path, "w", encoding="utf-8") as part:
            part.write("\n\n".join(block for block in whole.read().split("\n\n") if "expect reconnect" not in block))
        return path

    def run_shell(self):
        shell = self.start(
            [self.shell, "--tick", "100ms", self.scenario()],
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            errors="replace",
            env={**os.environ, "ORV_GATEWAY_CONFIG": self.file("gateway.ini")},
        )

        def read_log():
            for line in shell.stderr:
                self.transcript.line("log", line.rstrip("\n"), "dim")

        reader = threading.Thread(target=read_log, daemon=True)
        reader.start()
        watchdog = threading.Timer(LIMIT, shell.terminate)
        watchdog.start()
        for line in shell.stdout:
            self.transcript.application(line.rstrip("\n"))
        status = shell.wait()
        watchdog.cancel()
        reader.join(2)
        return status

    def run(self):
        begin = int(time.time())
        make_certificates(self.folder)
        if self.private:
            trust_the_authority(self.folder)
        endpoint = Endpoint(self.folder, lambda text: self.transcript.line("cloud", text))
        port = self.start_broker()
        self.connman = ConnmanStandIn(self.file("bus"), f"{ETHERNET}:ready {CELLULAR}:ready")
        self.transcript.line("demo", f"fake connection manager on {self.connman.address}")
        self.record(port)
        neighbours = Neighbours(port)
        self.await_beacon(neighbours, "begin")
        with open(self.file("gateway.ini"), "w", encoding="ascii") as file:
            file.write(
                CONFIGURATION.format(
                    broker=port, endpoint=endpoint.port, bus=self.connman.address, ethernet=ETHERNET, cellular=CELLULAR
                )
            )
        status = self.run_shell()
        self.await_beacon(neighbours, "end")
        neighbours.stop()
        return (
            ([f"orv-shell ended with exit status {status}"] if status != 0 else [])
            + wire_differences(self.wire, moves=self.private)
            + differences("what the broker keeps", kept(moves=self.private), kept_by_broker(port))
            + differences(
                "who proved itself to the cloud", ["127.0.0.1"] * 2 if self.private else [], endpoint.handshakes
            )
            + self.check_files(begin)
        )

    def check_files(self, begin):
        contents = {}
        for path in (STATUSES, ERRORS):
            self.transcript.chapter(path)
            try:
                with open(path, encoding="utf-8") as file:
                    contents[path] = file.read()
            except OSError as error:
                return [f"{path}: {error.strerror}"]
            print(contents[path], flush=True)
        faults = differences(STATUSES, STATUS_FILE.split("\n"), contents[STATUSES].split("\n"))
        stamp, _, text = contents[ERRORS].partition(",")
        if not (stamp.isdigit() and begin <= int(stamp) <= time.time() and text == "Fatal Error Detected"):
            faults.append(f"{ERRORS} is not as it must be")
        return faults


def interrupted(*_):
    raise KeyboardInterrupt


def main(arguments):
    tree, shell, mosquitto, colour, places = arguments
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
        demo = Demo(shell, mosquitto, transcript, private)
        faults = demo.run()
    except KeyboardInterrupt:
        print("\ndemo: interrupted", file=sys.stderr)
        return 130
    except Refused as reason:
        print(f"demo: {reason}", file=sys.stderr)
        return 77
    except (DemoError, StandInError, OSError, subprocess.CalledProcessError) as error:
        print(f"demo: {error}", file=sys.stderr)
        return 1
    finally:
        if demo:
            demo.stop()
    if faults:
        transcript.chapter(transcript.paint("Not what must be there:", "red"))
        print("\n".join(faults))
        return 1
    transcript.chapter(
        transcript.paint(f"All {len(demo.wire)} messages on the wire are what must be there, in order.", "green")
    )
    if not private:
        print(
            "Left out, because this machine gives no private interfaces and list of authorities: the moves of the route."
        )
    return 0


sys.exit(main(sys.argv[1:]))
