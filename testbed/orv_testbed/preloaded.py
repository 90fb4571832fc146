# SPDX-License-Identifier: Apache-2.0
"""Starts the package's own programs as forks of a process that has loaded what they need.

A scenario starts six of them, and to load is most of what each costs. A fork has the session, the namespaces, the environment
and the standard files that the program would have.
"""
from __future__ import annotations

import contextlib
import importlib
import json
import os
import runpy
import signal
import socket
import subprocess
import sys
import traceback
from collections.abc import Mapping, Sequence
from typing import Any, NoReturn

from orv_testbed.namespaces import enter_all
from orv_testbed.programs import PYTHON, Program, python_environment

LOADED = (
    *("datetime", "ipaddress", "select", "ssl", "struct", "threading"),
    *("dbus.lowlevel", "dbus.mainloop.glib", "dbus.service", "gi.repository.GLib"),
    *("paho.mqtt.client", "paho.mqtt.subscribeoptions"),
    *("orv_testbed.endpoint", "orv_testbed.layout", "orv_testbed.timestamps", "orv_testbed.topics"),
)
LONGEST_REQUEST = 1 << 17  # bytes
FILES = 3


class Preloaded:
    """The process. It ends with the one that has made it; its forks do not."""

    def __init__(self) -> None:
        self._socket, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        with theirs:
            self._process = subprocess.Popen(
                [*PYTHON, "orv_testbed.preloaded"],
                env=python_environment(),
                stdin=theirs.fileno(),
                start_new_session=True,
            )

    def start(self, program: Program, files: Sequence[int], environment: Mapping[str, str], new_session: bool) -> int:
        """Returns its pid. `files`: standard input, output and error."""
        request = {
            "module": program.module,
            "arguments": list(map(str, program.arguments)),
            "entry": program.place.entry(),
            "environment": dict(environment),
            "new_session": new_session,
        }
        socket.send_fds(self._socket, [json.dumps(request).encode()], files)
        answer = self._socket.recv(LONGEST_REQUEST)
        if not answer:
            raise RuntimeError("the process that starts programs has ended")
        return int(answer)


def become(request: dict[str, Any], files: Sequence[int]) -> NoReturn:
    status = 1
    try:
        for number, handle in enumerate(files):
            os.dup2(handle, number)
            os.close(handle)
        entry = request["entry"]
        enter_all(entry)
        os.environ.clear()
        os.environ.update(request["environment"], **entry.get("environment", {}))
        sys.argv = [request["module"], *request["arguments"]]
        runpy.run_module(request["module"], run_name="__main__", alter_sys=True)
        status = 0
    except SystemExit as end:
        status = end.code if isinstance(end.code, int) else 1 if end.code else 0
    except BaseException:
        traceback.print_exc()
    with contextlib.suppress(OSError, ValueError):  # closed, or nobody reads any more
        sys.stdout.flush()
    os._exit(status)


def main() -> None:
    for module in LOADED:
        importlib.import_module(module)
    control = socket.socket(fileno=os.dup(0))
    signal.signal(signal.SIGCHLD, signal.SIG_IGN)  # nobody waits for them
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    while True:
        request, files, *_ = socket.recv_fds(control, LONGEST_REQUEST, FILES)
        if not request:
            return
        pid = os.fork()
        if pid == 0:
            wanted = json.loads(request)
            if wanted["new_session"]:
                os.setsid()
            control.send(str(os.getpid()).encode())
            control.close()
            signal.signal(signal.SIGCHLD, signal.SIG_DFL)
            signal.signal(signal.SIGINT, signal.default_int_handler)
            become(wanted, files)
        for handle in files:
            os.close(handle)


if __name__ == "__main__":
    main()
