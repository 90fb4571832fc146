# SPDX-License-Identifier: Apache-2.0
"""The command testbed/box."""
from __future__ import annotations

import os
import signal
import sys
from collections.abc import Sequence
from typing import NoReturn, TextIO

from orv_testbed import broken_pipe
from orv_testbed.box_processes import BoxProcesses
from orv_testbed.gateway import Gateway
from orv_testbed.layout import BoxError, Layout, Usage
from orv_testbed.networks import Networks
from orv_testbed.programs import Missing


def interrupted(number: int, _: object) -> NoReturn:
    raise SystemExit(128 + number)


def do(layout: Layout, output: TextIO, complaints: TextIO, word: str, *words: str) -> None:
    if word == "exec" and words and not layout.has_machine():
        # Scenarios run many commands on the gateway: nothing that they do not need is loaded for them.
        layout.check_caller()
        processes = BoxProcesses(layout)
        Gateway(layout, processes, Networks(layout, processes).gateway).become(*words)
    else:
        from orv_testbed.gateway_box import GatewayBox

        GatewayBox(layout, output, complaints).do(word, *words)


def carry_out(layout: Layout, output: TextIO, complaints: TextIO, words: Sequence[str], usage: str = "") -> int:
    """Returns the exit status."""
    try:
        if not words:
            raise Usage
        do(layout, output, complaints, *words)
    except Usage:
        print(usage, end="", file=complaints)
        if words:
            print(f"\nbox: no such command: {' '.join(words)}", file=complaints)
        return 2
    except (BoxError, Missing) as error:
        print(f"box: {error}", file=complaints)
        return 1
    return 0


def main(usage: str, arguments: Sequence[str]) -> int:
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, interrupted)
    layout = Layout(arguments[0], os.environ)
    return broken_pipe.status_of(lambda: carry_out(layout, sys.stdout, sys.stderr, arguments[1:], usage))
