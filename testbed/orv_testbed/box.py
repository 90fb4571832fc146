# SPDX-License-Identifier: Apache-2.0
"""The gateway box, as the scenarios see it."""
import datetime
import json
import os
import pathlib
import signal
import subprocess
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]

# Beside the fixed delays, what a busy machine may add.
SLACK = 15.0


def wait_until(condition, seconds, what):
    """Waits until `condition()` is true and returns what it returned; `what` may be a function, called on failure."""
    deadline = time.monotonic() + seconds
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() >= deadline:
            raise AssertionError(f"not within {seconds:.0f} s: {what() if callable(what) else what}")
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
        self.environment = dict(
            os.environ,
            ORV_BOX=name,
            ORV_BOX_DIR=str(self.folder),
            ORV_SOURCE_ROUTES=program("orv-source-routes"),
            PYTHONPATH=str(ROOT / "testbed"),
            PYTHONDONTWRITEBYTECODE="1",
        )
        self.processes = []

    def __enter__(self):
        self("down")
        try:
            self("up")
        except BaseException:
            self("down")
            raise
        return self

    def __exit__(self, *_):
        for process in self.processes:
            if process.poll() is None:
                process.send_signal(signal.SIGCONT)
                process.kill()
            process.wait()
        self("down")

    def __call__(self, *words, must_succeed=True):
        done = subprocess.run(
            self.command(*words),
            env=self.environment,
            text=True,
            timeout=90,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            check=False,
        )
        assert not must_succeed or done.returncode == 0, f"box {' '.join(words)}: {done.stderr}"
        return done.stdout

    @staticmethod
    def command(*words):
        return [str(ROOT / "testbed/box"), *words]

    def start(self, *command, stdout, stderr, **environment):
        process = subprocess.Popen(
            self.command("exec", *command),
            env={**self.environment, **environment},
            text=True,
            stdin=subprocess.DEVNULL,
            stdout=stdout,
            stderr=stderr,
        )
        self.processes.append(process)
        return process

    def services(self):
        """ConnMan's order: (interface, name servers) of the connected services; empty while it does not answer."""
        lines = [line.split() for line in self("services", must_succeed=False).splitlines()]
        return [(words[0], words[4]) for words in lines if words[1] in ("ready", "online")]

    def order(self):
        return [interface for interface, _ in self.services()]

    def default_interfaces(self):
        routes = subprocess.run(
            ["ip", "-n", self.environment["ORV_BOX"] + "-gw", "-json", "route", "show", "default"],
            text=True,
            capture_output=True,
            check=True,
        )
        return [route["dev"] for route in json.loads(routes.stdout)]

    def handshakes(self, side):
        """When the connections were taken over this side on which the cloud has completed a TLS handshake."""
        lines = (line.split() for line in self("log", "cloud-https").splitlines())
        return [words[0] for words in lines if words[1] == side and words[3] == "handshake"]

    def file(self, path):
        """The text of a file on the gateway; None when it is not there."""
        holder = (self.folder / "pid/gateway").read_text(encoding="ascii").split()[0]
        on_machine = pathlib.Path(f"/proc/{holder}/root", path.lstrip("/"))
        return on_machine.read_text(encoding="utf-8") if on_machine.exists() else None

    def status_file(self):
        lines = (self.file("/var/tmp/new_enterprise_statuses.csv") or "").split("\n")
        return dict(line.replace('"', "").split(",") for line in lines if line)

    def error_file(self):
        return self.file("/var/tmp/new_enterprise_errors.csv")


def at(time_text):
    """A time of a log as a number of seconds."""
    return datetime.datetime.fromisoformat(time_text.replace("Z", "+00:00")).timestamp()
