# SPDX-License-Identifier: Apache-2.0
"""Shows a gateway in a browser; run by script/panel.

panel [--port PORT]                   a box of its own, with gateway-app on it
panel [--port PORT] --box NAME        a box that is up already; its application's log, if it is named: --log FILE
panel [--port PORT] --on COMMAND...   any gateway that COMMAND orv-status reaches, such as: --on ssh root@gateway
"""
from __future__ import annotations

import argparse
import contextlib
import errno
import fcntl
import os
import signal
import sys
import tempfile
import time
from collections.abc import Iterator, Sequence
from typing import IO

from orv_testbed.box import Box, Failed
from orv_testbed.panel.arguments import PORT, options
from orv_testbed.panel.box_gateway import BoxGateway, attached
from orv_testbed.panel.follower import FOLLOW, Follower
from orv_testbed.panel.hub import Hub
from orv_testbed.panel.server import Server
from orv_testbed.programs import Missing

OWN_BOX = "panel"
# Seconds. A signal that another thread receives, or that comes just before a wait without end, ends no such wait.
LOOK = 0.5
ENDINGS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


def say(words: str) -> None:
    print(f"panel: {words}", flush=True)


def take_lock() -> IO[bytes]:
    """As long as it is held, the box is ours; without it, what is there of the box is left over from one that was killed."""
    path = os.path.join(tempfile.gettempdir(), f"orv-box-{OWN_BOX}.lock")
    lock = os.fdopen(os.open(path, os.O_RDWR | os.O_CREAT | os.O_NOFOLLOW, 0o600), "r+b")
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        lock.close()
        raise Failed(
            f"a panel with its box is up already: open that, end it by Ctrl-C, or use --box {OWN_BOX}"
        ) from None
    return lock


@contextlib.contextmanager
def gateway(chosen: argparse.Namespace, hub: Hub) -> Iterator[BoxGateway | None]:
    if chosen.on is not None:
        yield None
    elif chosen.box:
        yield BoxGateway(hub, attached(chosen.box), chosen.log)
    else:
        lock = take_lock()
        say("a gateway comes up: two providers, a cloud, ConnMan, a broker, gateway-app")
        with lock, Box(OWN_BOX) as box:
            made = BoxGateway(hub, box, box.folder / "gateway-app.log")
            made.start_application()
            yield made


def make_server(hub: Hub, port: int | None, made: BoxGateway | None) -> Server:
    press = made.desk.press if made else None
    try:
        return Server(hub, PORT if port is None else port, press)
    except OSError as error:
        if port is None:
            return Server(hub, 0, press)
        why = {errno.EADDRINUSE: "it is taken", errno.EACCES: "that needs root"}.get(error.errno or 0, error.strerror)
        raise Failed(f"cannot listen on port {port}: {why}; give another one, or none") from error


def interrupted(*_: object) -> None:
    """Whoever loses patience meanwhile is not to leave half a gateway behind."""
    for number in ENDINGS:
        signal.signal(number, signal.SIG_IGN)
    raise KeyboardInterrupt


def main(arguments: Sequence[str]) -> int:
    chosen = options(arguments)
    for number in ENDINGS:
        signal.signal(number, interrupted)
    hub = Hub()
    try:
        with gateway(chosen, hub) as made:
            command = made.follow_command() if made else [*chosen.on, *FOLLOW]
            hub.put("gateway", {"on": None if made else " ".join(chosen.on), "box": made.box.name if made else None})
            server = make_server(hub, chosen.port, made)
            follower = Follower(hub, command, made.box.environment if made else None, say=say)
            follower.start()
            server.start()
            try:
                say(server.url)
                if made:
                    say(f"faults from another terminal: ORV_BOX={made.box.name} testbed/box, such as loss eth 30")
                say("Ctrl-C ends it")
                while True:
                    time.sleep(LOOK)
            finally:
                follower.stop()
                server.stop()
                if made:
                    made.stop()
    except KeyboardInterrupt:
        return 0
    except (Failed, Missing, OSError) as error:
        print(f"panel: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
