# SPDX-License-Identifier: Apache-2.0
"""hostile_neighbour forges|floods|litters

A local user without rights on the gateway, until it is ended. Says "at work" when the first round is done.
  forges   sends forged news of the connection manager to everybody on the message bus, some of it ill-formed
  floods   talks nonsense to the broker, opens connections and leaves them, and publishes what nobody expects
  litters  makes files, folders and links in /var/tmp, under the names of the status files too
"""
from __future__ import annotations

import itertools
import os
import pathlib
import socket
import sys
import time
from collections.abc import Callable, Iterator
from typing import Any

from orv_testbed.status_files import ERRORS, STATUSES
from orv_testbed.topics import FEATURES

NOBODY = 65534
PAUSE = 0.05  # seconds
BUS, MANAGER, SERVICE = "org.freedesktop.DBus", "net.connman.Manager", "net.connman.Service"
ETHERNET, CELLULAR = (
    "/net/connman/service/ethernet_020000000a01_cable",
    "/net/connman/service/cellular_001010000000001_context1",
)
BROKER = ("127.0.0.1", 1883)
CONNECT = bytes.fromhex("101400044d5154540402000a00086e6f626f64797323")  # of a client "nobodys#", 10 s
ODD_TOPICS = (FEATURES + "gateway-app", FEATURES + "gateway-app/no such thing", FEATURES, "/orv", "/orv/panel/event")


def forge() -> Callable[[], None]:
    import dbus
    import dbus.lowlevel

    bus = dbus.SystemBus()
    daemon = dbus.Interface(bus.get_object(BUS, "/org/freedesktop/DBus"), BUS)
    me = bus.get_unique_name()

    def service(path: str, interface: str, state: str) -> Any:
        ethernet = dbus.Dictionary({"Interface": interface}, signature="sv")
        properties = dbus.Dictionary({"State": state, "Ethernet": ethernet}, signature="sv")
        return dbus.Struct((dbus.ObjectPath(path), properties), signature="oa{sv}")

    def forgeries() -> Iterator[tuple[str, str, str, str, Any]]:
        """(path, interface, signal, signature, arguments)"""
        yield "/org/freedesktop/DBus", BUS, "NameOwnerChanged", "sss", ("net.connman", ":1.1", "")
        yield "/org/freedesktop/DBus", BUS, "NameOwnerChanged", "sss", ("net.connman", "", me)
        yield "/org/freedesktop/DBus", BUS, "NameOwnerChanged", "s", ("net.connman",)
        yield "/", MANAGER, "ServicesChanged", "a(oa{sv})ao", (
            [service(CELLULAR, "wwan0", "online"), service(ETHERNET, "eth0", "idle")],
            [dbus.ObjectPath(ETHERNET)],
        )
        yield "/", MANAGER, "ServicesChanged", "a(sa{sv})as", ([("no path", {"State": "online"})], ["no path", ""])
        yield "/", MANAGER, "ServicesChanged", "s", ("nothing",)
        yield ETHERNET, SERVICE, "PropertyChanged", "sv", ("State", "idle")
        yield ETHERNET, SERVICE, "PropertyChanged", "sv", ("State", 7)
        yield CELLULAR, SERVICE, "PropertyChanged", "ss", ("State", "failure")

    def strike() -> None:
        for receiver in daemon.ListNames():
            if not receiver.startswith(":") or receiver == me:
                continue
            for path, interface, name, signature, arguments in forgeries():
                try:
                    signal = dbus.lowlevel.SignalMessage(path, interface, name)
                    signal.set_destination(receiver)
                    signal.append(*arguments, signature=signature)
                    bus.send_message(signal)
                except (TypeError, ValueError, dbus.DBusException):
                    pass  # what the library refuses to send
        bus.flush()

    return strike


def publish(topic: str, payload: bytes) -> bytes:
    """A packet of MQTT for a broker, at most once and not to be kept."""
    body = len(topic.encode()).to_bytes(2, "big") + topic.encode() + payload
    length, remaining = b"", len(body)
    while True:
        remaining, digit = divmod(remaining, 128)
        length += bytes([digit | (128 if remaining else 0)])
        if not remaining:
            return b"\x30" + length + body


def flood() -> Callable[[], None]:
    left: list[socket.socket] = []

    def strike() -> None:
        for packets in (
            b"GET / HTTP/1.1\r\n\r\n",
            b"\x10\xff\xff\xff\xff",
            CONNECT + b"".join(publish(topic, os.urandom(5000)) for topic in ODD_TOPICS),
            CONNECT + b"\x82\xff",
        ):
            try:
                left.append(socket.create_connection(BROKER, timeout=1))
                left[-1].send(packets)
            except OSError:
                pass  # the broker is away, or has had enough
        while len(left) > 20:
            left.pop(0).close()

    return strike


def litter() -> Callable[[], None]:
    folder = pathlib.Path(STATUSES).parent
    numbers = itertools.count()

    def strike() -> None:
        number = next(numbers) % 50
        for path in (STATUSES, ERRORS, f"{STATUSES}.{number}", f"{folder}/litter-{number}"):
            try:
                os.symlink("/etc/passwd", path)
            except OSError:
                pass  # it is there already
        for path in (f"{folder}/folder-{number}", f"{STATUSES}.new", f"{ERRORS}.new"):
            try:
                os.mkdir(path)
            except OSError:
                pass

    return strike


KINDS = {"forges": forge, "floods": flood, "litters": litter}


def main(kind: str) -> None:
    os.setgroups([])
    os.setgid(NOBODY)
    os.setuid(NOBODY)
    strike = KINDS[kind]()
    strike()
    print("at work", flush=True)
    while True:
        time.sleep(PAUSE)
        strike()


if __name__ == "__main__":
    main(sys.argv[1])
