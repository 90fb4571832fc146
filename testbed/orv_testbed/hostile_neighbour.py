# SPDX-License-Identifier: Apache-2.0
"""hostile_neighbour

A local user without rights on the gateway's message bus. Again and again it sends forged news of the connection manager to
everybody whom it finds there, some of it ill-formed, until it is ended. Says "at work" when the first round is done.
"""
from __future__ import annotations

import itertools
import os
import time
from collections.abc import Iterator
from typing import Any

import dbus
import dbus.lowlevel

os.setgid(65534)
os.setuid(65534)  # nobody
bus = dbus.SystemBus()
daemon = dbus.Interface(bus.get_object("org.freedesktop.DBus", "/org/freedesktop/DBus"), "org.freedesktop.DBus")
me = bus.get_unique_name()
BUS, MANAGER, SERVICE = "org.freedesktop.DBus", "net.connman.Manager", "net.connman.Service"
ETHERNET, CELLULAR = (
    "/net/connman/service/ethernet_020000000a01_cable",
    "/net/connman/service/cellular_001010000000001_context1",
)


def service(path: str, interface: str, state: str) -> Any:
    return dbus.Struct(
        (
            dbus.ObjectPath(path),
            dbus.Dictionary(
                {"State": state, "Ethernet": dbus.Dictionary({"Interface": interface}, signature="sv")}, signature="sv"
            ),
        ),
        signature="oa{sv}",
    )


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


for number in itertools.count():
    for receiver in daemon.ListNames():
        if receiver.startswith(":") and receiver != me:
            for path, interface, name, signature, arguments in forgeries():
                try:
                    signal = dbus.lowlevel.SignalMessage(path, interface, name)
                    signal.set_destination(receiver)
                    signal.append(*arguments, signature=signature)
                    bus.send_message(signal)
                except (TypeError, ValueError, dbus.DBusException):
                    pass  # what the library refuses to send
    bus.flush()
    if number == 0:
        print("at work", flush=True)
    time.sleep(0.05)
