# SPDX-License-Identifier: Apache-2.0
"""A message bus of one's own with a fake connection manager on it."""
from __future__ import annotations

import os
import pathlib
import subprocess
import threading
from typing import IO, Any

from orv_testbed.processes import start_dependent

PATIENCE = 10  # seconds for each of the two to start
HERE = pathlib.Path(__file__).resolve().parent


class FakeConnmanError(Exception):
    pass


class FakeConnmanProcess:
    """Runs until close(), or until the process (the thread) that made it ends.

    `socket` is the path of the bus, in a folder of the caller's; `services` are the words behind fake_connman.py's command.
    """

    def __init__(self, socket: str | os.PathLike[str], services: str) -> None:
        self.address = "unix:path=" + os.fspath(socket)
        self.processes: list[subprocess.Popen[str]] = []
        try:
            daemon = ("dbus-daemon", "--nofork", "--nopidfile", "--syslog-only", f"--config-file={HERE / 'bus.conf'}")
            bus = self.start(*daemon, f"--address={self.address}", "--print-address=1")
            self.await_line(bus, self.address, f"a message bus at {socket} (package dbus-daemon)")
            # python3-dbus is there for the system's Python only.
            environment = {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": self.address}
            connman = self.start("/usr/bin/python3", "-B", str(HERE / "fake_connman.py"), env=environment)
            assert connman.stdin
            self.orders: IO[str] = connman.stdin  # it ends at their end
            self.orders.write(f"services {services}\n")
            self.orders.flush()
            self.await_line(connman, "ok", "the fake connection manager (packages python3-dbus, python3-gi)")
        except BaseException:
            self.close()
            raise

    def start(self, *command: str, **options: Any) -> subprocess.Popen[str]:
        # A session of their own: an interrupt at the keyboard is for the others, who end these.
        pipes = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "text": True, "start_new_session": True}
        process: subprocess.Popen[str] = start_dependent(command, **pipes, **options)
        self.processes.append(process)
        return process

    @staticmethod
    def await_line(process: subprocess.Popen[str], expected: str, what: str) -> None:
        assert process.stdout
        watchdog = threading.Timer(PATIENCE, process.kill)
        watchdog.start()
        line = process.stdout.readline()
        watchdog.cancel()
        if not line.startswith(expected):
            raise FakeConnmanError(
                f"cannot start {what} within {PATIENCE} s; script/bootstrap installs what is missing"
            )

    def close(self) -> None:
        for process in reversed(self.processes):
            process.kill()
            process.wait()
            for pipe in (process.stdin, process.stdout):
                if pipe:
                    pipe.close()
        self.processes.clear()
