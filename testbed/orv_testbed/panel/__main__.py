# SPDX-License-Identifier: Apache-2.0
"""Shows a gateway in a browser; run by script/panel.

panel [--port PORT]                   a box of its own, with gateway-app on it
panel [--port PORT] --box NAME        a box that is up already; its application's log, if it is named: --log FILE
panel [--port PORT] --on COMMAND...   any gateway that COMMAND orv-status reaches, such as: --on ssh root@gateway
"""
from __future__ import annotations

import argparse
import contextlib
import pathlib
import signal
import sys
import threading
from collections.abc import Iterator, Sequence

from orv_testbed.box import Box, Failed
from orv_testbed.panel.box_gateway import BoxGateway, attached
from orv_testbed.panel.follower import FOLLOW, Follower
from orv_testbed.panel.hub import Hub
from orv_testbed.panel.server import Server
from orv_testbed.programs import Missing

PORT = 8420  # the same each time, so that a page that is open finds the next panel


def options(arguments: Sequence[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="panel", description="shows a gateway in a browser")
    parser.add_argument("--port", type=int, help=f"on 127.0.0.1 (default: {PORT}, or another if that is taken)")
    parser.add_argument("--box", metavar="NAME", help="a box that is up already, instead of one of its own")
    parser.add_argument("--log", type=pathlib.Path, metavar="FILE", help="with --box: the log of the application on it")
    parser.add_argument("--on", nargs=argparse.REMAINDER, metavar="COMMAND", help="a gateway that this command reaches")
    chosen = parser.parse_args(arguments)
    if chosen.on is not None and (not chosen.on or chosen.box):
        parser.error("--on is followed by the command that reaches the gateway, such as: --on ssh root@gateway")
    return chosen


@contextlib.contextmanager
def gateway(chosen: argparse.Namespace, hub: Hub) -> Iterator[BoxGateway | None]:
    if chosen.on is not None:
        yield None
    elif chosen.box:
        yield BoxGateway(hub, attached(chosen.box), chosen.log)
    else:
        print("panel: a gateway comes up: two providers, a cloud, ConnMan, a broker, gateway-app", flush=True)
        with Box("panel") as box:
            made = BoxGateway(hub, box, box.folder / "gateway-app.log")
            made.start_application()
            yield made


def make_server(hub: Hub, port: int | None, made: BoxGateway | None) -> Server:
    press = made.desk.press if made else None
    try:
        return Server(hub, PORT if port is None else port, press)
    except OSError:
        if port is not None:
            raise
        return Server(hub, 0, press)


def interrupted(*_: object) -> None:
    raise KeyboardInterrupt


def main(arguments: Sequence[str]) -> int:
    chosen = options(arguments)
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, interrupted)
    hub = Hub()
    try:
        with gateway(chosen, hub) as made:
            command = made.follow_command() if made else [*chosen.on, *FOLLOW]
            hub.put("gateway", {"on": None if made else " ".join(chosen.on), "box": made.box.name if made else None})
            server = make_server(hub, chosen.port, made)
            follower = Follower(hub, command, made.box.environment if made else None)
            follower.start()
            server.start()
            try:
                print(f"panel: {server.url}\npanel: Ctrl-C ends it", flush=True)
                threading.Event().wait()
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
