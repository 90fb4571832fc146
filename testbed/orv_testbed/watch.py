# SPDX-License-Identifier: Apache-2.0
"""One live screen of a box: what orv-status shows, below the faults in force."""
from __future__ import annotations

import os
import signal
import subprocess
import sys
import time
from collections.abc import Callable, Sequence

from orv_testbed import broken_pipe
from orv_testbed.fault_record import FaultRecord
from orv_testbed.layout import BoxError

CLEAR = b"\x1b[H\x1b[2J"  # what orv-status begins each screen with
PACE = 1.0  # seconds between two looks at a machine


def colour() -> str:
    """For orv-status, which writes into a pipe."""
    return "always" if sys.stdout.isatty() and not os.environ.get("NO_COLOR") else "never"


def end_at_interrupt() -> None:
    """By an exception, also where a script has started us in the background, which ignores the signal."""
    signal.signal(signal.SIGINT, signal.default_int_handler)


class Screen:
    def __init__(self, record: FaultRecord) -> None:
        self._record = record
        self._rest = b""  # the beginning of a CLEAR, as far as it has come

    def _head(self) -> bytes:
        return CLEAR + f"faults       {', '.join(self._record.in_force()) or 'none'}\n".encode()

    def show(self, text: bytes) -> bool:
        """Writes what orv-status has written, with the faults on top of each screen; false when nobody reads any more."""
        text = (self._rest + text).replace(CLEAR, self._head())
        torn = next((size for size in range(len(CLEAR) - 1, 0, -1) if text.endswith(CLEAR[:size])), 0)
        self._rest = text[len(text) - torn :]
        try:
            sys.stdout.buffer.write(text[: len(text) - torn])
            sys.stdout.buffer.flush()
        except BrokenPipeError:
            broken_pipe.discard_output()
            return False
        return True


def follow(command: Sequence[str], record: FaultRecord) -> int:
    """Shows what this orv-status --watch draws until it or we are ended; returns its exit status."""
    end_at_interrupt()
    screen = Screen(record)
    with subprocess.Popen(command, stdout=subprocess.PIPE) as child:
        assert child.stdout
        try:
            while (text := os.read(child.stdout.fileno(), 1 << 16)) and screen.show(text):
                pass
        except KeyboardInterrupt:
            pass
        finally:
            child.send_signal(signal.SIGINT)  # a terminal has told it already
    return child.returncode


def repeat(look: Callable[[], str], record: FaultRecord) -> int:
    """Shows what `look` gives, again and again, until we are ended; a BoxError of it is shown, too."""
    end_at_interrupt()
    screen = Screen(record)
    try:
        while True:
            try:
                text = look()
            except BoxError as error:
                text = f"{error}\n"
            if not screen.show(CLEAR + text.encode()):
                return 0
            time.sleep(PACE)
    except KeyboardInterrupt:
        return 0
