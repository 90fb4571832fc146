# SPDX-License-Identifier: Apache-2.0
"""An independent client of the gateway's broker that hears everything, and publishes what the scenario says."""
from __future__ import annotations

import collections
import json
import subprocess
import threading
from collections.abc import Callable

from orv_testbed.scenarios.journal import Journal, Published
from orv_testbed.waiting import SLACK, wait_until

PROGRAM = ("/usr/bin/python3", "-u", "-m", "orv_testbed.witness", "--publish")


class Recorder:
    """`orv_testbed.witness`, wherever `start` starts it. What the scenario itself has published is not noted."""

    def __init__(self, journal: Journal, start: Callable[..., subprocess.Popen[str]], port: int) -> None:
        self.journal = journal
        self.own: collections.Counter[Published] = collections.Counter()
        self.heard: list[Published] = []
        self.subscriptions = 0
        pipe = subprocess.PIPE
        self.process = start(*PROGRAM, "--port", str(port), stdin=pipe, stdout=pipe, stderr=None)
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self) -> None:
        assert self.process.stdout
        for line in self.process.stdout:
            if line == "listening\n":
                self.subscriptions += 1
            elif line.startswith("{"):
                self._received(Published(**json.loads(line)))

    def _received(self, published: Published) -> None:
        if self.own[published] > 0:
            self.own[published] -= 1
            self.heard.append(published)
        else:
            self.journal.published(published)

    def await_subscription(self, number: int) -> None:
        """It subscribes anew by itself when the broker is there again."""
        wait_until(lambda: self.subscriptions >= number, 2 * SLACK, "the broker has taken the recorder's subscription")

    def publish(self, message: Published) -> None:
        """Returns when the broker has handed it out."""
        assert self.process.stdin
        before = len(self.heard)
        self.own[message] += 1
        self.process.stdin.write(json.dumps(message._asdict()) + "\n")
        self.process.stdin.flush()
        wait_until(lambda: len(self.heard) > before, SLACK, f"{message} comes back")

    def stop(self) -> None:
        self.process.kill()
        self.process.wait()
        self.reader.join(SLACK)
        for stream in (self.process.stdin, self.process.stdout):
            assert stream
            stream.close()
