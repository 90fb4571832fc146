# SPDX-License-Identifier: Apache-2.0
"""The command testbed/box."""
from __future__ import annotations

import os
import signal
import sys
from collections.abc import Sequence
from typing import NoReturn

from orv_testbed.box_processes import BoxProcesses
from orv_testbed.gateway import Gateway
from orv_testbed.layout import BoxError, Layout, Usage
from orv_testbed.networks import Networks
from orv_testbed.programs import Missing


def interrupted(number: int, _: object) -> NoReturn:
    raise SystemExit(128 + number)


def do(layout: Layout, word: str, *words: str) -> None:
    if word == "exec" and words and not layout.has_machine():
        # Scenarios run many commands on the gateway: nothing that they do not need is loaded for them.
        layout.check_caller()
        processes = BoxProcesses(layout)
        Gateway(layout, processes, Networks(layout, processes).gateway).become(*words)
    else:
        from orv_testbed.gateway_box import GatewayBox

        GatewayBox(layout).do(word, *words)


def main(usage: str, arguments: Sequence[str]) -> int:
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, interrupted)
    try:
        if len(arguments) < 2:
            raise Usage
        do(Layout(arguments[0], os.environ), *arguments[1:])
    except Usage:
        print(usage, end="", file=sys.stderr)
        if len(arguments) > 1:
            print(f"\nbox: no such command: {' '.join(arguments[1:])}", file=sys.stderr)
        return 2
    except (BoxError, Missing) as error:
        print(f"box: {error}", file=sys.stderr)
        return 1
    return 0
