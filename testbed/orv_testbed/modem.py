# SPDX-License-Identifier: Apache-2.0
"""modem INTERFACE ADDRESS NETMASK ROUTER NAME-SERVER [IPV6-PREFIX IPV6-NAME-SERVER]

As much of the modem manager's D-Bus interface (org.ofono) as ConnMan needs to see one attached modem whose data
connection runs over INTERFACE, so that ConnMan has a service of its genuine type "cellular". The bearer is switched with

  dbus-send --system --dest=org.ofono /modem box.Control.Bearer boolean:false

and another address is given to the next data connection with box.Control.Address string:ADDRESS. An ADDRESS of "-" means a
data connection with IPv6 alone.
"""
from __future__ import annotations

import sys
from typing import Any

import dbus
import dbus.lowlevel
import dbus.mainloop.glib
import dbus.service
from gi.repository import GLib

INTERFACE, ADDRESS, NETMASK, ROUTER, NAME_SERVER = sys.argv[1:6]
IPV6 = sys.argv[6:8]  # prefix and name server; the addresses come from the provider's router
OFONO = "org.ofono"
MODEM = OFONO + ".Modem"
SIM = OFONO + ".SimManager"
REGISTRATION = OFONO + ".NetworkRegistration"
CONNECTIONS = OFONO + ".ConnectionManager"
CONTEXT = OFONO + ".ConnectionContext"
MODEM_PATH, CONTEXT_PATH = "/modem", "/modem/context1"
MODEM_REACTION_MS, CONTEXT_REACTION_MS = 300, 20


def dictionary(content: Any) -> Any:
    return dbus.Dictionary(content, signature="sv")


def texts(*content: Any) -> Any:
    return dbus.Array(content, signature="s")


class Manager(dbus.service.Object):
    def __init__(self, bus: Any, modem: Modem) -> None:
        super().__init__(bus, "/")
        self.modem = modem

    @dbus.service.method(OFONO + ".Manager", out_signature="a(oa{sv})")
    def GetModems(self) -> Any:
        return [(dbus.ObjectPath(MODEM_PATH), self.modem.properties[MODEM])]


class Context(dbus.service.Object):
    """The data connection: active or not, and available as long as there is a bearer."""

    def __init__(self, bus: Any) -> None:
        super().__init__(bus, CONTEXT_PATH)
        self.active = False
        self.available = True
        self.address = ADDRESS

    def settings(self) -> Any:
        if not self.active or self.address == "-":
            return dictionary({})
        return dictionary(
            {
                "Interface": INTERFACE,
                "Method": "static",
                "Address": self.address,
                "Netmask": NETMASK,
                "Gateway": ROUTER,
                "DomainNameServers": texts(NAME_SERVER),
            }
        )

    @staticmethod
    def protocol() -> str:
        return ("ipv6" if ADDRESS == "-" else "dual") if IPV6 else "ip"

    def settings_6(self) -> Any:
        if not self.active or not IPV6:
            return dictionary({})
        prefix, name_server = IPV6
        return dictionary(
            {
                "Interface": INTERFACE,
                "Address": f"{prefix}::",
                "PrefixLength": dbus.Byte(64),
                "Gateway": "fe80::1",
                "DomainNameServers": texts(name_server),
            }
        )

    def set_active(self, active: bool) -> None:
        if active and not self.available:
            return
        if active != self.active:
            self.active = active
            self.PropertyChanged("Settings", self.settings())
            if IPV6:
                self.PropertyChanged("IPv6.Settings", self.settings_6())
            self.PropertyChanged("Active", dbus.Boolean(active))

    @dbus.service.method(CONTEXT, out_signature="a{sv}")
    def GetProperties(self) -> Any:
        return dictionary(
            {
                "Type": "internet",
                "Active": dbus.Boolean(self.active),
                "AccessPointName": "box",
                "Protocol": self.protocol(),
                "Settings": self.settings(),
                "IPv6.Settings": self.settings_6(),
            }
        )

    @dbus.service.method(CONTEXT, in_signature="sv")
    def SetProperty(self, name: str, value: Any) -> None:
        if name != "Active":
            return
        if value and not self.available:
            raise dbus.DBusException("there is no bearer", name=OFONO + ".Error.Failed")
        GLib.timeout_add(CONTEXT_REACTION_MS, self.set_active, bool(value))

    @dbus.service.signal(CONTEXT, signature="sv")
    def PropertyChanged(self, name: str, value: Any) -> None:
        pass


class Modem(dbus.service.Object):
    def __init__(self, bus: Any, context: Context) -> None:
        super().__init__(bus, MODEM_PATH)
        self.bus = bus
        self.context = context
        self.properties = {
            MODEM: dictionary(
                {
                    "Powered": True,
                    "Online": True,
                    "Type": "hardware",
                    "Serial": "350000000000001",
                    "Interfaces": texts(SIM, REGISTRATION, CONNECTIONS),
                }
            ),
            SIM: dictionary({"Present": True, "SubscriberIdentity": "001010000000001"}),
            REGISTRATION: dictionary({"Status": "registered", "Name": "Box Mobile", "Strength": dbus.Byte(60)}),
            CONNECTIONS: dictionary({"Attached": True, "Powered": True, "RoamingAllowed": False}),
        }
        # One class cannot have a GetProperties for each interface: those beside MODEM are answered here.
        bus.add_message_filter(self.answer)

    @dbus.service.method(MODEM, out_signature="a{sv}")
    def GetProperties(self) -> Any:
        return self.properties[MODEM]

    @dbus.service.method(MODEM, in_signature="sv")
    def SetProperty(self, name: str, value: Any) -> None:
        GLib.timeout_add(MODEM_REACTION_MS, self.switch, name, value)

    @dbus.service.method("box.Control", in_signature="b")
    def Bearer(self, there: bool) -> None:
        self.context.available = bool(there)
        if not there:
            self.context.set_active(False)
        self.emit_change(CONNECTIONS, "Attached", dbus.Boolean(there))

    @dbus.service.method("box.Control", in_signature="s")
    def Address(self, address: str) -> None:
        self.context.address = address

    def switch(self, name: str, value: Any) -> None:
        self.emit_change(MODEM, name, value)
        state = self.properties[MODEM]
        if not state["Powered"]:
            self.emit_change(MODEM, "Online", dbus.Boolean(False))
        if not state["Online"]:
            self.context.set_active(False)
        offered = (SIM, REGISTRATION, CONNECTIONS) if state["Online"] else (SIM,) if state["Powered"] else ()
        had_sim = SIM in state["Interfaces"]
        self.emit_change(MODEM, "Interfaces", texts(*offered))
        if SIM in offered and not had_sim:
            # The card is read after power-up, and ConnMan, which has switched the power on, waits to be told.
            for one, content in self.properties[SIM].items():
                self.emit(SIM, one, content)

    def emit_change(self, interface: str, name: str, value: Any) -> None:
        if self.properties[interface].get(name) != value:
            self.properties[interface][name] = value
            self.emit(interface, name, value)

    def emit(self, interface: str, name: str, value: Any) -> None:
        signal = dbus.lowlevel.SignalMessage(MODEM_PATH, interface, "PropertyChanged")
        signal.append(name, value, signature="sv")
        self.bus.send_message(signal)

    def answer(self, _: object, message: Any) -> int:
        handled, unhandled, method_call = 0, 1, 1
        interface = message.get_interface()
        if message.get_type() != method_call or message.get_path() != MODEM_PATH:
            return unhandled
        if interface not in (SIM, REGISTRATION, CONNECTIONS):
            return unhandled
        reply = dbus.lowlevel.MethodReturnMessage(message)
        if message.get_member() == "GetProperties":
            reply.append(self.properties[interface], signature="a{sv}")
        elif message.get_member() == "GetContexts":
            reply.append([(dbus.ObjectPath(CONTEXT_PATH), self.context.GetProperties())], signature="a(oa{sv})")
        elif message.get_member() == "SetProperty":
            GLib.idle_add(self.emit_change, interface, *message.get_args_list())
        else:
            return unhandled
        self.bus.send_message(reply)
        return handled


def main() -> None:
    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    bus = dbus.SystemBus()
    name = dbus.service.BusName(OFONO, bus)
    modem = Modem(bus, Context(bus))
    manager = Manager(bus, modem)
    GLib.MainLoop().run()
    del name, manager


main()
