# SPDX-License-Identifier: Apache-2.0
"""The gateway of a box: its own network, /etc, /var, /run and host name; message bus, connection manager, modem, broker.

Nothing on it may set the machine's clock.
"""
from __future__ import annotations

import os
import pathlib
import shutil
import subprocess
import sys
from typing import Any

from orv_testbed import services
from orv_testbed.box_processes import BoxProcesses
from orv_testbed.certificates import hash_of
from orv_testbed.commands import Word, run, succeeds
from orv_testbed.families import Families
from orv_testbed.layout import CELLULAR, CLOUD_NAME, SIDES, BoxError, Layout, Side
from orv_testbed.networks import Namespace
from orv_testbed.programs import PYTHON, TESTBED, TOOLS, TREE, Missing, Program, daemon, program, python_environment
from orv_testbed.waiting import comes_within

BUS_ADDRESS = "unix:path=/run/dbus/system_bus_socket"
ENVIRONMENT = {"DBUS_SYSTEM_BUS_ADDRESS": BUS_ADDRESS, "ORV_GATEWAY_CONFIG": "/etc/orv/gateway.ini"}
FORBIDDEN = {"sys_time": 25, "sys_module": 16, "sys_boot": 22}  # with the kernel's numbers
FOLDERS = ("etc/orv", "run/dbus", "run/connman", "var/cache", "var/lib/connman", "var/log", "var/spool", "var/tmp")
SETTINGS = f"[cloud]\nendpoint = {CLOUD_NAME}\n[log]\nlevel = trace\n"
SYSTEMS_AUTHORITIES = pathlib.Path("/etc/ssl/certs")
BUNDLE = "ca-certificates.crt"
SOON = 0.1  # seconds between two looks at what takes ConnMan about a second


class Gateway:
    def __init__(self, layout: Layout, processes: BoxProcesses, namespace: Namespace) -> None:
        self._layout, self._processes, self.namespace = layout, processes, namespace
        self._root = layout.gateway_root
        self._address = layout.state / "cellular-address"
        self._faketime_notes = layout.state / "faketime-pids"

    # ---- running something on it

    def command(self, *words: Word, clock: bool = False) -> list[str]:
        """What runs `words` on the gateway. `clock`: with a wall clock of its own, see `box clock`."""
        entry = self.entry()
        enter = ["nsenter", "--target", str(entry["holder"]), "--root", "--net", "--mount", "--uts"]
        enter += [f"--wdns={entry['directory']}", "--"]
        environment = [f"{name}={value}" for name, value in ENVIRONMENT.items()]
        if clock:
            environment += [f"LD_PRELOAD={self._faketime_library()}", "FAKETIME_TIMESTAMP_FILE=/run/clock-offset"]
            environment += ["FAKETIME_NO_CACHE=1", "FAKETIME_DONT_FAKE_MONOTONIC=1"]
        forbidden = ",".join(f"-{name}" for name in FORBIDDEN)
        return [*enter, "setpriv", f"--bounding-set={forbidden}", "--", "env", *environment, *map(str, words)]

    def entry(self) -> dict[str, Any]:
        """What `command` does, for a process that goes there by itself."""
        holder = self._processes.pid_of("gateway")
        if holder is None:
            raise self._layout.not_up()
        here = os.getcwd()
        place = here if os.path.isdir(f"/proc/{holder}/root{here}") else "/"
        without = list(FORBIDDEN.values())
        return {"holder": holder, "directory": place, "without": without, "environment": ENVIRONMENT}

    def become(self, *words: str) -> None:
        """Replaces this process by a command on the gateway."""
        clock = os.environ.get("ORV_BOX_CLOCK") == "1"
        command = self.command(*words, clock=clock)
        if clock:
            self.note_faketime(os.getpid())
        os.execvp(command[0], command)

    def note_faketime(self, pid: int) -> None:
        """Of a program with a wall clock of its own: see `remove_faketime_traces`."""
        with open(self._faketime_notes, "a", encoding="ascii") as notes:
            notes.write(f"{pid}\n")

    def _faketime_library(self) -> pathlib.Path:
        for root in (TOOLS, pathlib.Path("/")):
            for library in root.glob("usr/lib/*/faketime/libfaketime.so.1"):
                return library
        raise BoxError(f"ORV_BOX_CLOCK=1 needs libfaketime: run {TREE}/script/bootstrap box")

    def remove_faketime_traces(self) -> None:
        """libfaketime leaves its shared memory behind, under the pid of the program that made it."""
        if self._faketime_notes.exists():
            for pid in self._faketime_notes.read_text(encoding="ascii").split():
                for trace in (f"faketime_shm_{pid}", f"sem.faketime_sem_{pid}"):
                    pathlib.Path("/dev/shm", trace).unlink(missing_ok=True)

    # ---- coming up

    def start(self) -> None:
        self._make_files()
        hold = (TESTBED / "lib/hold-gateway", self._root)
        unshare = ("unshare", "--mount", "--uts", "--propagation", "private", "--")
        self._processes.start("gateway", self.namespace.command(*unshare, *hold))
        self._await((self._root / "ready").exists, 20, "the gateway's namespaces do not come up", "gateway")
        self._start_bus()
        self._start_resolver()
        self.start_broker()
        self.start_modem()
        self._start_routes()
        self.start_connman()
        self._await(self._connect_cellular, 20, "ConnMan shows no cellular service", "connman", "modem", pause=SOON)
        # With IPv6 there are detection of duplicates, advertisements and DHCPv6 to wait for, too.
        patience = 45 if Families.of(self._layout.state).has_ipv6() else 20
        if not comes_within(patience, self._both_connected, SOON):
            raise BoxError(
                f"ConnMan does not connect both interfaces, see {self._layout.log('connman')}; its services:\n{self.services()}"
            )
        self._let_services_be_moved()

    def _await(self, condition: object, seconds: float, fault: str, *logs: str, pause: float = 0.02) -> None:
        assert callable(condition)
        if not comes_within(seconds, condition, pause):
            raise BoxError(f"{fault}, see {' and '.join(str(self._layout.log(log)) for log in logs)}")

    def _make_files(self) -> None:
        for folder in FOLDERS:
            (self._root / folder).mkdir(parents=True)
        (self._root / "var/tmp").chmod(0o1777)
        (self._root / "var/run").symlink_to("/run")
        run("cp", "-a", "/etc/.", self._root / "etc")
        resolver = self._root / "etc/resolv.conf"
        resolver.unlink(missing_ok=True)
        resolver.write_text("nameserver 127.0.0.1\n", encoding="ascii")
        (self._root / "run/connman/resolv.conf").touch()
        self.set_clock("+0")
        self.write_authorities("one")
        (self._root / "etc/orv/gateway.ini").write_text(SETTINGS, encoding="ascii")
        for file in (TESTBED / "etc").iterdir():
            shutil.copy(file, self._root / "etc/orv")

    def set_clock(self, offset: str) -> None:
        (self._root / "run/clock-offset").write_text(offset + "\n", encoding="ascii")

    def write_authorities(self, which: str) -> None:
        """What connects over TLS trusts the system's authorities, a folder of files named by hash and all of them in one file.

        Few are enough for a gateway, and quicker to read: `one` is the cloud's, `full` and `bundle` add the machine's.
        """
        certificates, new = self._root / "etc/ssl/certs", self._root / "etc/ssl/certs.new"
        cloud = self._layout.certificates / "ca.pem"
        shutil.rmtree(new, ignore_errors=True)
        new.mkdir(parents=True)
        if which != "one":
            bundle = SYSTEMS_AUTHORITIES / BUNDLE
            if not bundle.exists() or not bundle.stat().st_size:
                raise BoxError("this machine has no list of authorities: apt-get install ca-certificates")
            if which == "full":
                run("cp", "-a", f"{SYSTEMS_AUTHORITIES}/.", new)
            run("cp", "--remove-destination", bundle, new)
        with open(new / BUNDLE, "a", encoding="ascii") as all_in_one:
            all_in_one.write(cloud.read_text(encoding="ascii"))
        if which != "bundle":
            shutil.copy(cloud, new / "gateway-box-ca.pem")
            (new / f"{hash_of(cloud)}.0").symlink_to("gateway-box-ca.pem")
        shutil.rmtree(certificates, ignore_errors=True)
        new.rename(certificates)

    def _start_bus(self) -> None:
        options = ("--config-file=/etc/orv/bus.conf", "--nofork", "--nopidfile")
        self._processes.start("bus", self.command("dbus-daemon", *options))
        self._await(self._layout.bus_socket.is_socket, 5, "the message bus does not start", "bus")

    def _start_resolver(self) -> None:
        """ConnMan lists the name servers of both providers, a dead one first if need be, and the C library asks one after the
        other, each for a second at least. The forwarder asks all at once and passes on the first answer."""
        options = ["--keep-in-foreground", "--conf-file=/dev/null", "--user=root", "--pid-file=", "--no-hosts"]
        options += ["--listen-address=127.0.0.1", "--bind-interfaces", "--resolv-file=/run/connman/resolv.conf"]
        options += ["--all-servers", "--cache-size=0", "--log-facility=-"]
        self._processes.start("resolver", self.command("dnsmasq", *options))
        self._await(lambda: self.namespace.listens(53), 5, "the gateway's name server does not start", "resolver")

    def start_broker(self) -> None:
        self._processes.start("broker", self.command(daemon("mosquitto"), "-c", "/etc/orv/mosquitto.conf"))
        self._await(lambda: self.namespace.listens(1883), 5, "the gateway's broker does not start", "broker")

    def _start_routes(self) -> None:
        try:
            routes = os.environ.get("ORV_SOURCE_ROUTES") or program("orv-source-routes")
        except Missing as error:
            unbound = "connections bound to the interface without the default route will fail"
            print(f"box: {error}; {unbound}", file=sys.stderr)
            return
        self._processes.start("routes", self.command(routes))

    # ---- modem and connection manager

    def name_modem(self) -> None:
        """ConnMan takes an interface for a cellular one by the DEVTYPE in its uevent, and has its address from the modem
        manager."""
        index = self.namespace.ip("-o link show wwan0").split(":")[0]
        uevent = self._root / "run/wwan0.uevent"
        uevent.write_text(f"DEVTYPE=wwan\nINTERFACE=wwan0\nIFINDEX={index}\n", encoding="ascii")
        place = "/sys/class/net/wwan0/uevent"
        if not succeeds(*self.command("mountpoint", "-q", place)):
            run(*self.command("mount", "-n", "--bind", "/run/wwan0.uevent", place))

    def cellular_address(self) -> str:
        return self._address.read_text(encoding="ascii").strip()

    def change_cellular_address(self) -> str:
        last = int(self.cellular_address().rpartition(".")[2])
        address = f"{CELLULAR.net}.{50 + (last - 49) % 50}"
        self._address.write_text(address + "\n", encoding="ascii")
        return address

    def start_modem(self) -> None:
        if self.namespace.has("wwan0"):
            self.name_modem()
            self.namespace.ip("link set dev wwan0 up")
        if not self._address.exists():
            self._address.write_text(f"{CELLULAR.net}.50\n", encoding="ascii")
        network = Families.of(self._layout.state).of_modem(self.cellular_address())
        self._processes.start("modem", Program(self, "orv_testbed.modem", ("wwan0", *network)))
        if not comes_within(10, lambda: self._on_bus_or_ended("modem", "org.ofono")) or not self._processes.alive(
            "modem"
        ):
            raise BoxError(
                f"the modem manager does not come onto the bus: thaw a frozen bus first ({self._layout.command} bus thaw), "
                f"or see {self._layout.log('modem')}"
            )

    def start_connman(self) -> None:
        # One that was killed while Ethernet had no link has left Cellular's default route, beside which the next one cannot set
        # Ethernet's. Only ConnMan makes an IPv4 default route here, so one that is there is its. IPv6's stay: the
        # kernel makes them.
        succeeds(*self.namespace.command(*"ip -4 route del default dev wwan0".split()))
        # ConnMan waits for the news of an IPv6 address, and there is none of one that was there before the connection. It
        # switches IPv6 on again when it connects.
        if "6" in Families.of(self._layout.state).cell and self.namespace.has("wwan0"):
            self.namespace.set(ipv6__conf__wwan0__disable_ipv6=1)
        options = ("--nodaemon", "--config=/etc/orv/connman.conf", "--nodnsproxy")
        self._processes.start("connman", self.command(daemon("connmand"), *options))
        come = "ConnMan does not come onto the bus"
        self._await(lambda: self._on_bus_or_ended("connman", "net.connman"), 10, come, "connman")
        if not self._processes.alive("connman"):
            raise BoxError(f"ConnMan has ended at once, see {self._layout.log('connman')}")

    def let_modem_switch_off(self) -> None:
        """Waits until it is off, as ConnMan has ordered at its end. A ConnMan that starts before that leaves Cellular off."""
        ask = (
            "dbus-send",
            "--system",
            "--print-reply=literal",
            "--dest=org.ofono",
            "/modem",
            "org.ofono.Modem.GetProperties",
        )
        comes_within(5, lambda: "Powered variant boolean false" in " ".join((self._ask_bus(*ask) or "").split()))

    def _ask_bus(self, *command: Word) -> str | None:
        """What a program says that is given the gateway's bus; None when it fails or takes too long."""
        environment = {**python_environment(), "DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={self._layout.bus_socket}"}
        try:
            done = subprocess.run(command, env=environment, text=True, capture_output=True, timeout=5, check=False)
        except subprocess.TimeoutExpired:
            return None
        return done.stdout if done.returncode == 0 else None

    def call(self, name: str, path: str, method: str, *arguments: str) -> bool:
        """Calls a method on the gateway's bus."""
        send = ("dbus-send", "--system", "--print-reply=literal", f"--dest={name}", path, method, *arguments)
        return self._ask_bus(*send) is not None

    def _on_bus_or_ended(self, process: str, name: str) -> bool:
        asked = self.call("org.freedesktop.DBus", "/", "org.freedesktop.DBus.GetNameOwner", f"string:{name}")
        return asked or not self._processes.alive(process)

    def configure(self, interface: str, family: str, method: str) -> None:
        """How ConnMan configures the interface's service in that family, as `connmanctl config` sets it."""
        if self._ask_bus(*PYTHON, "orv_testbed.services", interface, family, method) is None:
            raise BoxError(f"ConnMan does not take {family} {method} for {interface}")

    def _let_services_be_moved(self) -> None:
        """What a site must set whose two networks have no family in common: see docs/connman.md."""
        families = Families.of(self._layout.state)
        if (families.eth, families.cell) == ("4", "6"):
            self.configure("eth0", "IPv6", "off")
        elif (families.eth, families.cell) == ("6", "4"):
            self.configure("wwan0", "IPv6", "auto")

    def services(self) -> str | None:
        """One line a service; see services.py. None when ConnMan does not answer."""
        printed = self._ask_bus(*services.ASK)
        return None if printed is None else services.lines(printed)

    def _connect_cellular(self) -> bool:
        """A cellular service connects by itself only after a first connection, and while its technology is enabled."""
        paths = [line.split()[-1] for line in (self.services() or "").splitlines() if line.split()[2] == "cellular"]
        # A modem that was online before ConnMan has enabled the technology, but ConnMan stores only what it is told. The
        # services are looked at first: when there is one, there is a technology that can be told.
        technology, powered = "/net/connman/technology/cellular", ("string:Powered", "variant:boolean:true")
        self.call("net.connman", technology, "net.connman.Technology.SetProperty", *powered)
        return bool(paths) and self.call("net.connman", paths[0], "net.connman.Service.Connect")

    def _both_connected(self) -> bool:
        services = {words[0]: words for words in map(str.split, (self.services() or "").splitlines())}
        connected = [name for name, words in services.items() if words[1] in ("ready", "online")]
        families = Families.of(self._layout.state)
        with_ipv4 = [side for side in SIDES.values() if "4" in families.at(side)]
        with_ipv6 = [side for side in SIDES.values() if "6" in families.at(side)]
        return (
            len(connected) >= 2  # with one family each, whichever came first
            and all(map(self._has_ipv4, with_ipv4))
            and all(self._has_ipv6(side, services[side.interface]) for side in with_ipv6)
        )

    def _has_ipv4(self, side: Side) -> bool:
        return bool(self.namespace.ip(f"-4 -o addr show dev {side.interface} scope global"))

    def _has_ipv6(self, side: Side, service: list[str]) -> bool:
        """An address that may be used, and a name server that ConnMan has heard of and has not lost again."""
        addresses = self.namespace.ip(f"-6 -o addr show dev {side.interface} scope global -tentative")
        told = side.name_server_6 in service[4].split(",")
        # Of both families on both sides the list of three name servers leaves one out.
        listed = (self._root / "run/connman/resolv.conf").read_text(encoding="ascii")
        return bool(addresses) and told and (side.name_server_6 in listed or listed.count("nameserver") > 2)
