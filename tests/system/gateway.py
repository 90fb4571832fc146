# SPDX-License-Identifier: Apache-2.0
"""The gateway box, the application on it, and an independent witness of the gateway's broker."""
import datetime
import json
import os
import pathlib
import signal
import subprocess
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
HERE = pathlib.Path(__file__).resolve().parent

# Beside the fixed delays, what a busy machine may add.
SLACK = 15.0


def wait_until(condition, seconds, what):
    """Waits until `condition()` is true and returns what it returned."""
    deadline = time.monotonic() + seconds
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() >= deadline:
            raise AssertionError(f"not within {seconds:.0f} s: {what}")
        time.sleep(0.05)


def program(name):
    """The newest build of one of our programs."""
    named = os.environ.get("ORV_BUILD")
    folders = [pathlib.Path(named)] if named else list((ROOT / "build").glob("*"))
    built = [folder / "bin" / name for folder in folders if (folder / "bin" / name).exists()]
    if not built:
        raise RuntimeError(f"{name} is not built: cmake --preset debug && cmake --build --preset debug")
    return str(max(built, key=lambda path: path.stat().st_mtime))


class Box:
    def __init__(self, name):
        self.folder = pathlib.Path(tempfile.gettempdir()) / f"orv-box-{name}"
        self.environment = dict(os.environ, ORV_BOX=name, ORV_BOX_DIR=str(self.folder),
                                ORV_SOURCE_ROUTES=program("orv-source-routes"))
        self.processes = []

    def __enter__(self):
        self("down")
        self("up")
        return self

    def __exit__(self, *_):
        for process in self.processes:
            if process.poll() is None:
                process.send_signal(signal.SIGCONT)
                process.kill()
            process.wait()
        self("down")

    def __call__(self, *words):
        done = subprocess.run([ROOT / "gateway-box/box", *words], env=self.environment, text=True, timeout=90,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False)
        assert done.returncode == 0, f"box {' '.join(words)}: {done.stderr}"
        return done.stdout

    def start(self, *command, stdout, stderr):
        process = subprocess.Popen([ROOT / "gateway-box/box", "exec", *command], env=self.environment, text=True,
                                   stdin=subprocess.DEVNULL, stdout=stdout, stderr=stderr)
        self.processes.append(process)
        return process

    def services(self):
        """ConnMan's order: (interface, name servers) of the connected services."""
        lines = [line.split() for line in self("services").splitlines()]
        return [(words[0], words[4]) for words in lines if words[1] in ("ready", "online")]

    def order(self):
        return [interface for interface, _ in self.services()]

    def default_interfaces(self):
        routes = subprocess.run(["ip", "-n", self.environment["ORV_BOX"] + "-gw", "-json", "route", "show", "default"],
                                text=True, capture_output=True, check=True)
        return [route["dev"] for route in json.loads(routes.stdout)]

    def handshakes(self, side):
        """When the cloud's endpoint has completed TLS handshakes that came over this side."""
        lines = (line.split() for line in self("log", "cloud-https").splitlines())
        return [words[0] for words in lines if words[1] == side and words[3] == "handshake"]

    def status_file(self):
        lines = (self.folder / "gateway/var/tmp/new_enterprise_statuses.csv").read_text().split("\n")
        return dict(line.replace('"', "").split(",") for line in lines)


class Application:
    """gateway-app on the box, with its log and its transcript."""

    def __init__(self, box, folder, *options):
        self.box = box
        self.log_file = folder / "app.log"
        self.transcript_file = folder / "transcript.jsonl"
        with open(self.log_file, "w", encoding="utf-8") as log:
            self.process = box.start("env", "RES_OPTIONS=timeout:1 attempts:2", program("gateway-app"),
                                     "--cloud-host", "cloud.box.test", "--transcript", str(self.transcript_file), *options,
                                     stdout=log, stderr=log)

    def log(self):
        return self.log_file.read_text(encoding="utf-8")

    def mark(self):
        """A place in the log: `said` looks behind it."""
        return len(self.log())

    def said(self, text, since=0):
        return text in self.log()[since:]

    def wait_for(self, text, seconds, since=0):
        """Waits for a log line that holds `text`; returns the place behind it."""
        wait_until(lambda: self.said(text, since), seconds + SLACK,
                   f'"{text}" in the log\n{self.interesting()}')
        return self.log().index(text, since) + len(text)

    def times_of(self, text, since=0):
        """The times of the log lines that hold `text`."""
        return [line.split(" ", 1)[0] for line in self.log()[since:].splitlines() if text in line]

    def interesting(self):
        return "\n".join(line for line in self.log().splitlines() if " trace " not in line)

    def transcript(self, what=None):
        if not self.transcript_file.exists():
            return []
        lines = self.transcript_file.read_text(encoding="utf-8").splitlines()
        entries = [json.loads(line) for line in lines if line.endswith("}")]
        return [entry for entry in entries if what in (None, entry["what"])]

    def cloud_interface(self):
        """Over which interface the cloud is connected; None while it is not."""
        entries = [entry for entry in self.transcript() if entry["what"] in ("cloud_connected", "cloud_lost")]
        return entries[-1].get("interface") if entries and entries[-1]["what"] == "cloud_connected" else None

    def wait_for_cloud(self, interface, seconds):
        wait_until(lambda: self.cloud_interface() == interface, seconds + SLACK,
                   f"cloud connected over {interface}\n{self.interesting()}")

    def stop(self):
        """Ends it in good order; returns the figures on its calls of the library."""
        self.process.terminate()
        assert self.process.wait(timeout=10) == 0
        return self.transcript("end")[-1]


class Witness:
    """What an independent client of the gateway's broker has seen."""

    def __init__(self, box, folder):
        self.file = folder / "witness.jsonl"
        with open(self.file, "w", encoding="utf-8") as output:
            self.process = box.start("/usr/bin/python3", "-u", str(HERE / "witness.py"), stdout=output, stderr=output)
        wait_until(lambda: "connected" in self.file.read_text(encoding="utf-8"), 10, "the witness's connection")

    def messages(self, topic=None):
        """(topic, payload, retained) in their order."""
        entries = [json.loads(line) for line in self.file.read_text(encoding="utf-8").splitlines() if line[0] == "{"]
        return [(entry["topic"], entry["payload"], entry["retained"]) for entry in entries
                if topic in (None, entry["topic"])]

    def payloads(self, topic):
        return [payload for _, payload, _ in self.messages(topic)]

    def last(self, topic):
        return (self.payloads(topic) or [None])[-1]

    def wait_for(self, topic, payload, seconds=0):
        wait_until(lambda: self.last(topic) == payload, seconds + SLACK, f"{payload} on {topic}, not {self.payloads(topic)}")

    def stop(self):
        self.process.kill()
        self.process.wait()


def at(time_text):
    """A time of a log as a number of seconds."""
    return datetime.datetime.fromisoformat(time_text.replace("Z", "+00:00")).timestamp()
