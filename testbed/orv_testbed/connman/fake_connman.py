#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""A fake connection manager on the system bus that the environment names.

Takes commands on standard input, one a line, and answers each with one line:

  services INTERFACE:STATE[:immutable|:unbound|:ipv4-off|:ipv6-off] ...
                                             the services, in their order; the first such line brings it onto the
                                             bus; an unbound one tells no interface
  state INTERFACE STATE                      a service's state changes
  mute-servers INTERFACE                     the network offers no name servers
  quiet                                      no more notices of a new order after a move
  refuse METHOD ERROR                        METHOD (MoveBefore, SetProperty, GetServices) fails; "-" ends it
  calls                                      what has been asked for since the last time, ";" in between
"""
from __future__ import annotations

import re
import sys
from collections.abc import Sequence
from typing import Any

import dbus
import dbus.lowlevel
import dbus.mainloop.glib
import dbus.service
from gi.repository import GLib

MANAGER, SERVICE = "net.connman.Manager", "net.connman.Service"
NOTICE_DELAY_MS = 100  # as ConnMan's
OFFERED = "192.0.2.53"


def path_of(interface: str) -> Any:
    return dbus.ObjectPath("/net/connman/service/" + re.sub("[^A-Za-z0-9]", "_", interface))


class Service(dbus.service.Object):
    def __init__(self, manager: Any, interface: str, state: str, flags: Sequence[str]) -> None:
        super().__init__(manager.bus, path_of(interface))
        self.manager, self.interface = manager, interface
        self.state, self.immutable, self.bound = state, "immutable" in flags, "unbound" not in flags
        self.off = [flag for flag in flags if flag.endswith("-off")]
        self.offered = [OFFERED]
        self.configured: list[str] | None = None

    def properties(self) -> Any:
        configured = [server for server in self.configured or [] if server != "none"]
        servers = self.offered if self.configured is None else configured
        ethernet = {"MTU": dbus.UInt16(1500)}
        if self.bound:  # one that has never been connected, such as a modem's, may name no interface
            ethernet["Interface"] = self.interface
        methods = {}
        for family, on in (("4", "dhcp"), ("6", "auto")):
            method = "off" if f"ipv{family}-off" in self.off else on
            methods[f"IPv{family}.Configuration"] = dbus.Dictionary({"Method": method}, signature="sv")
        return dbus.Dictionary(
            {
                **methods,
                "Type": "ethernet",
                "State": self.state,
                "Immutable": dbus.Boolean(self.immutable),
                "Ethernet": dbus.Dictionary(ethernet, signature="sv"),
                "Nameservers": dbus.Array(servers, signature="s"),
                "Nameservers.Configuration": dbus.Array(configured, signature="s"),
            },
            signature="sv",
        )

    def take(self, state: str, flags: Sequence[str]) -> None:
        """What it becomes; of the flags only the families that are off."""
        off = [flag for flag in flags if flag.endswith("-off")]
        if off != self.off:
            self.off = off
            self.emit_change("IPv4.Configuration")
            self.emit_change("IPv6.Configuration")
        if state != self.state:
            self.state = state
            self.emit_change("State")

    def emit_change(self, name: str) -> None:
        self.PropertyChanged(name, self.properties()[name])

    @dbus.service.signal(SERVICE, signature="sv")
    def PropertyChanged(self, name: str, value: Any) -> None:
        pass

    @dbus.service.method(SERVICE, in_signature="o")
    def MoveBefore(self, target: str) -> None:
        order = self.manager.services
        other = next(service for service in order if path_of(service.interface) == target)
        self.manager.note("MoveBefore", self.interface, other.interface)
        order.remove(self)
        order.insert(order.index(other), self)
        if not self.manager.quiet:
            GLib.timeout_add(NOTICE_DELAY_MS, self.manager.emit_services_changed, [])

    @dbus.service.method(SERVICE, in_signature="sv")
    def SetProperty(self, name: str, value: Any) -> None:
        self.manager.note("SetProperty", self.interface, name + "=" + ",".join(value))
        self.configured = [str(server) for server in value] or None
        self.emit_change("Nameservers.Configuration")
        self.emit_change("Nameservers")


class Manager(dbus.service.Object):
    def __init__(self, bus: Any) -> None:
        super().__init__(bus, "/")
        self.bus = bus
        self.services: list[Service] = []
        self.calls: list[str] = []
        self.refused: dict[str, str] = {}
        self.name: Any = None
        self.quiet = False

    def note(self, method: str, *arguments: Any) -> None:
        self.calls.append(" ".join((method,) + arguments))
        if method in self.refused:
            raise dbus.DBusException("refused by the test", name=self.refused[method])

    def emit_services_changed(self, added: Sequence[Service], removed: Sequence[str] = ()) -> None:
        changed = [
            (
                path_of(service.interface),
                service.properties() if service in added else dbus.Dictionary({}, signature="sv"),
            )
            for service in self.services
        ]
        self.ServicesChanged(dbus.Array(changed, signature="(oa{sv})"), dbus.Array(removed, signature="o"))

    @dbus.service.signal(MANAGER, signature="a(oa{sv})ao")
    def ServicesChanged(self, changed: Any, removed: Sequence[str]) -> None:
        pass

    @dbus.service.method(MANAGER, out_signature="a(oa{sv})")
    def GetServices(self) -> Any:
        if "GetServices" in self.refused:
            raise dbus.DBusException("refused by the test", name=self.refused["GetServices"])
        return [(path_of(service.interface), service.properties()) for service in self.services]

    def set_services(self, *wanted: str) -> None:
        known = {service.interface: service for service in self.services}
        self.services, added = [], []
        for text in wanted:
            interface, state, *flags = text.split(":")
            service = known.pop(interface, None)
            if service is None:
                service = Service(self, interface, state, flags)
                added.append(service)
            else:
                service.take(state, flags)
            self.services.append(service)
        for service in known.values():
            service.remove_from_connection()
        self.emit_services_changed(added, [path_of(interface) for interface in known])

    def command(self, word: str, *arguments: Any) -> str:
        if word == "services":
            self.set_services(*arguments)
            self.name = self.name or dbus.service.BusName("net.connman", self.bus)
        elif word == "state":
            service = self.find(arguments[0])
            service.state = arguments[1]
            service.emit_change("State")
        elif word == "mute-servers":
            self.find(arguments[0]).offered = []
            self.find(arguments[0]).emit_change("Nameservers")
        elif word == "quiet":
            self.quiet = True
        elif word == "refuse":
            self.refused = {} if arguments[0] == "-" else {arguments[0]: arguments[1]}
        elif word == "calls":
            calls, self.calls = self.calls, []
            return ";".join(calls)
        return "ok"

    def find(self, interface: str) -> Service:
        return next(service for service in self.services if service.interface == interface)


def main() -> None:
    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    bus = dbus.SystemBus()
    manager = Manager(bus)
    loop = GLib.MainLoop()

    def read(*_: object) -> bool:
        line = sys.stdin.readline()
        try:
            answer = manager.command(*line.split()) if line else None
        except Exception as error:  # the loop would carry on, and whoever gave the command wait
            sys.exit(f"fake_connman: {line.strip()}: {error!r}")
        if answer is None:
            loop.quit()
            return False
        print(answer, flush=True)
        return True

    GLib.io_add_watch(0, GLib.PRIORITY_DEFAULT, GLib.IO_IN | GLib.IO_HUP, read)
    loop.run()


main()
