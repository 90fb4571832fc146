# SPDX-License-Identifier: Apache-2.0
"""A command whose reader has gone away, such as head, ends without a word, as other commands do."""
from __future__ import annotations

import os
import signal
import sys
from collections.abc import Callable

STATUS = 128 + signal.SIGPIPE


def discard_output() -> None:
    """What is still in the buffer is written at the end of the program, and must not fail there."""
    os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())


def status_of(command: Callable[[], int]) -> int:
    try:
        status = command()
        sys.stdout.flush()
    except BrokenPipeError:
        discard_output()
        return STATUS
    return status
