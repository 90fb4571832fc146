#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""An application in Python: connects as "window", reports itself as ready, is reloaded on order, prints what it is told
and ends with SIGINT or SIGTERM."""

import ctypes
import queue
import signal
import sys
from ctypes import CFUNCTYPE, POINTER, c_char, c_char_p, c_int, c_size_t, c_void_p

OK, NO_BROKER = 0, -3
RELOAD = 2  # enum orv_app_action
BOOTING, READY = 2, 3  # enum orv_app_status
STRENGTH = 4  # enum orv_cellular_status


class Callbacks(ctypes.Structure):
    """struct orv_callbacks, member by member; texts come with their length."""

    _fields_ = [
        ("on_app_action", CFUNCTYPE(None, c_void_p, c_int)),
        ("on_device_probe", CFUNCTYPE(None, c_void_p, POINTER(c_char), c_size_t)),
        ("on_device_online_status", CFUNCTYPE(None, c_void_p, c_int)),
        ("on_device_cellular_status", CFUNCTYPE(None, c_void_p, c_int, POINTER(c_char), c_size_t)),
        ("on_feature_shutdown_readiness", CFUNCTYPE(None, c_void_p, POINTER(c_char), c_size_t, c_int)),
    ]


class StackError(Exception):
    """A function of the library has answered with an error."""


class Client:
    """The client, to be used in a with statement: it must end before the interpreter does."""

    def __init__(self, callbacks: Callbacks) -> None:
        self._library = ctypes.CDLL("libOrvStackSdkC.so.1")
        self._library.orv_client_create.argtypes = [POINTER(Callbacks), c_void_p, POINTER(c_void_p)]
        self._library.orv_client_destroy.argtypes = [c_void_p]
        self._library.orv_client_destroy.restype = None
        self._library.orv_client_init.argtypes = [c_void_p, c_char_p]
        self._library.orv_client_app_status.argtypes = [c_void_p, c_int]
        self._library.orv_client_tick.argtypes = [c_void_p, c_int]
        for name in ("start", "deinit", "cloud_reconnect_needed"):
            self._library["orv_client_" + name].argtypes = [c_void_p]
        self._callbacks = callbacks  # Python's functions live as long as it does
        self._client = c_void_p()
        self._check("create", self._library.orv_client_create(callbacks, None, self._client))

    def __enter__(self) -> "Client":
        return self

    def __exit__(self, *_: object) -> None:
        try:
            self.call("deinit")
        finally:
            self._library.orv_client_destroy(self._client)

    def call(self, name: str, *arguments: object) -> int:
        return self._check(name, self._library["orv_client_" + name](self._client, *arguments))

    @staticmethod
    def _check(name: str, result: int) -> int:
        if result < OK:
            raise StackError(f"{name}: {'no broker' if result == NO_BROKER else result}")
        return result


def main() -> None:
    # Callbacks run on a thread of the library's: they only hand over what is to be done, and the loop below does it.
    orders: "queue.SimpleQueue[str]" = queue.SimpleQueue()
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: orders.put("end"))

    types = dict(Callbacks._fields_)
    callbacks = Callbacks(
        on_app_action=types["on_app_action"](lambda _, action: orders.put("reload") if action == RELOAD else None),
        on_device_probe=types["on_device_probe"](
            lambda _, guid, length: print("panel", guid[:length].decode(errors="replace"), flush=True)
        ),
        on_device_cellular_status=types["on_device_cellular_status"](
            lambda _, item, value, length: print("signal", value[:length].decode(errors="replace"), flush=True)
            if item == STRENGTH
            else None
        ),
    )
    with Client(callbacks) as client:
        client.call("init", b"window")
        client.call("start")
        client.call("app_status", READY)
        while True:
            try:
                order = orders.get(timeout=0.2)
            except queue.Empty:
                order = ""
            if order == "end":
                break
            if order == "reload":
                client.call("app_status", BOOTING)
                print("reads its settings again", flush=True)
                client.call("app_status", READY)
            client.call("tick", 200)
            if client.call("cloud_reconnect_needed"):
                print("connects to the cloud again", flush=True)


try:
    main()
except (OSError, StackError) as error:
    sys.exit(f"first-steps.py: {error}")
