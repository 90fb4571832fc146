# SPDX-License-Identifier: Apache-2.0
"""A message bus of one's own with a fake connection manager on it."""

import os
import subprocess
import threading

PATIENCE = 10  # seconds for each of the two to start
HERE = os.path.dirname(os.path.abspath(__file__))


class StandInError(Exception):
    pass


class ConnmanStandIn:
    """Runs until close(), or until the process (the thread) that made it ends.

    `socket` is the path of the bus, in a folder of the caller's; `services` are the words behind fake_connman.py's command.
    """

    def __init__(self, socket, services):
        self.address = "unix:path=" + os.fspath(socket)
        self.processes = []
        try:
            bus = self.start(
                [
                    "dbus-daemon",
                    "--config-file=" + os.path.join(HERE, "bus.conf"),
                    "--nofork",
                    "--nopidfile",
                    "--syslog-only",
                    "--address=" + self.address,
                    "--print-address=1",
                ]
            )
            self.hear(bus, self.address, f"a message bus at {socket} (package dbus-daemon)")
            # python3-dbus is there for the system's Python only.
            self.connman = self.start(
                ["/usr/bin/python3", "-B", os.path.join(HERE, "fake_connman.py")],
                env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": self.address},
            )
            self.connman.stdin.write(f"services {services}\n")
            self.connman.stdin.flush()
            self.hear(self.connman, "ok", "the fake connection manager (packages python3-dbus, python3-gi)")
        except BaseException:
            self.close()
            raise

    def start(self, command, **options):
        # A session of their own: an interrupt at the keyboard is for the others, who end these.
        process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", *command],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
            start_new_session=True,
            **options,
        )
        self.processes.append(process)
        return process

    @staticmethod
    def hear(process, expected, what):
        watchdog = threading.Timer(PATIENCE, process.kill)
        watchdog.start()
        said = process.stdout.readline()
        watchdog.cancel()
        if not said.startswith(expected):
            raise StandInError(f"cannot start {what} within {PATIENCE} s; script/bootstrap installs what is missing")

    def close(self):
        for process in reversed(self.processes):
            process.kill()
            process.wait()
            process.stdin.close()
            process.stdout.close()
        self.processes.clear()
