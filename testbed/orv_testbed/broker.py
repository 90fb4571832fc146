# SPDX-License-Identifier: Apache-2.0
"""broker FOLDER [SETTING...]

A private broker on a port of 127.0.0.1. As a program it prints the port and runs until it is ended; FOLDER is for its
configuration and its log (mosquitto.log), a SETTING is a line of the configuration.
"""
from __future__ import annotations

import pathlib
import subprocess
import sys

from orv_testbed.ports import free_port
from orv_testbed.processes import end_all, start_dependent
from orv_testbed.programs import daemon
from orv_testbed.waiting import SLACK, wait_until


class Broker:
    """Runs from its making to stop(), or until the process (the thread) that made it ends."""

    def __init__(self, folder: pathlib.Path, *settings: str) -> None:
        self.log = folder / "mosquitto.log"
        self.process: subprocess.Popen[bytes] | None = None
        self._configuration = folder / "mosquitto.conf"
        for _ in range(5):  # another program may take the port between the choice and the start
            self.port = free_port()
            lines = [f"listener {self.port} 127.0.0.1", "allow_anonymous true", "set_tcp_nodelay true", "user root"]
            self._configuration.write_text("\n".join([*lines, *settings]) + "\n", encoding="ascii")
            if self._runs():
                return
        raise RuntimeError(f"the broker does not start: {self._said()}")

    def _said(self) -> str:
        return self.log.read_text(encoding="utf-8", errors="replace")

    def _runs(self) -> bool:
        """Starts it. It says so when it listens, where a connection could be to somebody else."""
        command = [daemon("mosquitto", "test"), "-c", str(self._configuration)]
        with open(self.log, "wb") as log:
            process = start_dependent(command, stdout=log, stderr=log)
        self.process = process
        try:
            wait_until(lambda: process.poll() is not None or " running\n" in self._said(), SLACK, "the broker listens")
        except BaseException:
            self.stop()
            raise
        return process.poll() is None

    def start(self) -> None:
        """After stop() or kill(), on the same port and without a memory."""
        if not self._runs():
            raise RuntimeError(f"the broker does not start again: {self._said()}")

    def kill(self) -> None:
        """It ends without a word; in good order it would speak the last wills."""
        assert self.process
        self.process.kill()
        self.process.wait()
        self.process = None

    def stop(self) -> None:
        if self.process:
            end_all([self.process])
            self.process = None


def main() -> int:
    broker = Broker(pathlib.Path(sys.argv[1]), *sys.argv[2:])
    print(broker.port, flush=True)
    assert broker.process
    return broker.process.wait()


if __name__ == "__main__":
    sys.exit(main())
