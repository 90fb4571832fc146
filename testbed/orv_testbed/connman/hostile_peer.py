#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""hostile_peer.py PID

Sends process PID what any local user can send it over the system bus that the environment names: messages straight to
its connections, past their match rules. Started by root it becomes the user nobody first. Says "ready", then takes
commands on standard input, one a line, and answers each with one line, "ok" or the name of an error:

  forge    one of every kind of forged message
  seize    pretends to have become the connection manager
  reign    tells, as that, of services with nonsense for paths
  flood    forged messages without end, until the next command
  stop     nothing any more
  reorder  orders the connection manager to put wwan0 before eth0
"""
from __future__ import annotations

import os
import sys
from typing import Any

import dbus
import dbus.lowlevel
import dbus.mainloop.glib
from gi.repository import GLib

BUS, MANAGER, SERVICE = "org.freedesktop.DBus", "net.connman.Manager", "net.connman.Service"
NOBODY = 65534
BATCH = 200
ETH, WWAN = "/net/connman/service/eth0", "/net/connman/service/wwan0"
SERVICES = "a(oa{sv})"


def become_nobody() -> None:
    if os.getuid() == 0:
        os.setgroups([])
        os.setgid(NOBODY)
        os.setuid(NOBODY)


class Peer:
    def __init__(self, victim: int) -> None:
        self.bus = dbus.SystemBus()
        self.me = self.bus.get_unique_name()
        driver = dbus.Interface(self.bus.get_object(BUS, "/org/freedesktop/DBus"), BUS)
        names = [name for name in driver.ListNames() if name.startswith(":") and name != self.me]
        self.victims = [name for name in names if driver.GetConnectionUnixProcessID(name) == victim]
        self.manager = driver.GetNameOwner("net.connman")
        self.driver, self.flooding = driver, None
        self.bus.add_message_filter(self.answer)

    def signal(self, path: str, interface: str, member: str, signature: str = "", *arguments: Any) -> None:
        for name in self.victims:
            message = dbus.lowlevel.SignalMessage(path, interface, member)
            message.set_destination(name)
            message.append(*arguments, signature=signature)
            self.bus.send_message(message)

    def call(self, interface: str, member: str) -> None:
        for name in self.victims:
            self.bus.send_message(dbus.lowlevel.MethodCallMessage(name, "/", interface, member))

    def owner_changed(self, *owners: str, path: str = "/org/freedesktop/DBus") -> None:
        self.signal(path, BUS, "NameOwnerChanged", "sss", "net.connman", *owners)

    def forge_owners(self) -> None:
        self.owner_changed(self.manager, "")
        self.owner_changed("", "no unique name")
        self.owner_changed("", "", path="/")
        self.signal("/org/freedesktop/DBus", BUS, "NameOwnerChanged")
        self.signal("/org/freedesktop/DBus", BUS, "NameOwnerChanged", "uas", 7, ["net.connman"])
        self.signal("/org/freedesktop/DBus", BUS, "NameLost", "s", "net.connman")

    def forge_services(self) -> None:
        nothing = dbus.Dictionary({}, signature="sv")
        self.signal("/", MANAGER, "ServicesChanged", SERVICES + "ao", [(WWAN, nothing), (ETH, nothing)], [])
        self.signal("/", MANAGER, "ServicesChanged", SERVICES + "ao", [], [ETH, WWAN])
        self.signal("/", MANAGER, "ServicesChanged", "a(sa{sv})as", [("no path", nothing)], ["no path"])
        self.signal("/", MANAGER, "ServicesChanged", "s", "no list")
        self.signal("/", MANAGER, "ServicesChanged")
        self.signal(
            "/",
            MANAGER,
            "ServicesChanged",
            SERVICES + "ao",
            [(f"{ETH}/{number}", nothing) for number in range(20000)],
            [],
        )

    def forge_properties(self) -> None:
        for path in (ETH, WWAN, "/"):
            self.signal(path, SERVICE, "PropertyChanged", "sv", "State", "failure")
            self.signal(path, SERVICE, "PropertyChanged", "sv", "State", dbus.UInt64(1))
            self.signal(path, SERVICE, "PropertyChanged", "sv", "Immutable", True)
            self.signal(path, SERVICE, "PropertyChanged", "sv", "Nameservers", dbus.Array([], signature="s"))
            self.signal(path, SERVICE, "PropertyChanged", "sv", "State", "x" * 1000000)
            self.signal(path, SERVICE, "PropertyChanged", "v", dbus.Array([[["deep"]]], signature="aas"))
            self.signal(path, SERVICE, "PropertyChanged")

    def forge(self) -> None:
        self.forge_owners()
        self.forge_services()
        self.forge_properties()
        self.call("org.freedesktop.DBus.Peer", "Ping")
        self.call("org.freedesktop.DBus.Introspectable", "Introspect")
        self.call(MANAGER, "GetServices")

    @staticmethod
    def nonsense() -> Any:
        return [
            (
                path,
                dbus.Dictionary(
                    {
                        "State": "ready",
                        "Nameservers": dbus.Array(["192.0.2.53"], signature="s"),
                        "Ethernet": dbus.Dictionary({"Interface": interface}, signature="sv"),
                    },
                    signature="sv",
                ),
            )
            for path, interface in (("no path at all", "eth0"), ("", "wwan0"))
        ]

    def answer(self, _: object, message: Any) -> Any:
        if message.get_type() != 1 or message.get_interface() not in (MANAGER, SERVICE):
            return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED
        reply = dbus.lowlevel.MethodReturnMessage(message)
        reply.append(self.nonsense(), signature="a(sa{sv})")
        self.bus.send_message(reply)
        return dbus.lowlevel.HANDLER_RESULT_HANDLED

    def flood(self) -> bool:
        for _ in range(BATCH):
            self.signal(WWAN, SERVICE, "PropertyChanged", "sv", "State", "failure")
            self.owner_changed(self.manager, "")
        self.bus.flush()
        return True

    def reorder(self) -> str:
        try:
            self.bus.call_blocking("net.connman", WWAN, SERVICE, "MoveBefore", "o", (dbus.ObjectPath(ETH),))
        except dbus.DBusException as error:
            return str(error.get_dbus_name())
        return "ok"

    def command(self, word: str) -> str:
        if self.flooding:
            GLib.source_remove(self.flooding)
            self.flooding = None
        if word == "forge":
            self.forge()
        elif word == "seize":
            self.owner_changed(self.manager, self.me)
        elif word == "reign":
            self.signal("/", MANAGER, "ServicesChanged", "a(sa{sv})as", self.nonsense(), [ETH, WWAN])
        elif word == "flood":
            self.flood()
            self.flooding = GLib.idle_add(self.flood)
        elif word == "reorder":
            return self.reorder()
        elif word != "stop":
            return "what?"
        self.bus.flush()
        self.driver.GetId()  # the bus has taken all that was sent before
        return "ok"


def main() -> None:
    become_nobody()
    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    peer = Peer(int(sys.argv[1]))
    loop = GLib.MainLoop()

    def read(*_: object) -> bool:
        line = sys.stdin.readline()
        if not line:
            loop.quit()
            return False
        print(peer.command(line.strip()), flush=True)
        return True

    GLib.io_add_watch(0, GLib.PRIORITY_DEFAULT, GLib.IO_IN | GLib.IO_HUP, read)
    print("ready", flush=True)
    loop.run()


main()
