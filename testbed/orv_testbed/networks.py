# SPDX-License-Identifier: Apache-2.0
"""The network namespaces of a box, the cables between them, and the two providers."""
from __future__ import annotations

import contextlib
import fcntl
import os
import pathlib
import subprocess
import sys
import threading
from collections.abc import Callable, Iterable, Iterator
from typing import Any, TypeVar

from orv_testbed.box_processes import BoxProcesses
from orv_testbed.commands import is_mount_point, run, succeeds
from orv_testbed.families import Families
from orv_testbed.ipv6 import NAMES_BEHIND_DNS64, Ipv6
from orv_testbed.layout import CLOUD_ADDRESS, CLOUD_ADDRESS_6, CLOUD_NAME, SIDES, BoxError, Layout, Side
from orv_testbed.namespaces import enter, listening_ports
from orv_testbed.programs import HERE, Program
from orv_testbed.waiting import comes_within

RUN = pathlib.Path("/run")
NETNS = RUN / "netns"
# The first namespace leaves /run/netns mounted on itself. A box that finds it otherwise notes so; the last one unmounts it.
NOTE = RUN / "orv-box-netns"
LOCK_PATIENCE = 30  # seconds
NETMASKS = {24: "255.255.255.0", 25: "255.255.255.128"}


Result = TypeVar("Result")


def batch(*options: str, lines: Iterable[str]) -> None:
    run("ip", *options, "-batch", "-", told="".join(f"{line}\n" for line in lines))


def cable(one: Namespace, interface: str, other: Namespace, far: str, mac: str | None = None) -> str:
    """The line that makes it."""
    address = f"address {mac} " if mac else ""
    return f"link add name {interface} netns {one.name} {address}type veth peer name {far} netns {other.name}"


class Namespace:
    def __init__(self, name: str) -> None:
        self.name = name

    def ip(self, line: str) -> str:
        return run("ip", "-n", self.name, *line.split())

    def ip_each(self, lines: Iterable[str]) -> None:
        """Many lines in one process."""
        batch("-n", self.name, lines=lines)

    def command(self, *words: str | pathlib.Path) -> list[str | pathlib.Path]:
        return ["ip", "netns", "exec", self.name, *words]

    def entry(self) -> dict[str, Any]:
        return {"network": str(NETNS / self.name)}

    def within(self, do: Callable[[], Result]) -> Result:
        """Does something in it, in a thread that enters it: the network is a thread's own affair."""
        done: list[Result] = []
        failed: list[BaseException] = []

        def enter_and_do() -> None:
            try:
                enter(NETNS / self.name)
                done.append(do())
            except BaseException as error:
                failed.append(error)

        thread = threading.Thread(target=enter_and_do)
        thread.start()
        thread.join()
        if failed:
            raise failed[0]
        return done[0]

    def listens(self, port: int) -> bool:
        return port in self.within(listening_ports)

    def set(self, **values: int) -> None:
        """Settings of the kernel's below net, "." in a name written "__"."""

        def write() -> None:
            for name, value in values.items():
                pathlib.Path("/proc/sys/net", *name.split("__")).write_text(f"{value}\n", encoding="ascii")

        self.within(write)

    def has(self, interface: str) -> bool:
        return succeeds("ip", "-n", self.name, "link", "show", "dev", interface)

    def flags(self, interface: str) -> list[str]:
        """Such as UP and LOWER_UP, which is the carrier."""
        line = self.ip(f"-o link show dev {interface}")
        return line[line.index("<") + 1 : line.index(">")].split(",")

    def filter(self, table: str, *chains: str) -> None:
        """Puts a table of packet filters in place, instead of one of that name."""
        lines = [f"table inet {table}", f"delete table inet {table}", f"table inet {table} {{", *chains, "}"]
        run(*self.command("nft", "-f", "-"), told="\n".join(lines) + "\n")

    def pids(self) -> list[str]:
        """Of everything that runs in it; none when it is not there."""
        done = subprocess.run(["ip", "netns", "pids", self.name], text=True, capture_output=True, check=False)
        return done.stdout.split()

    def unfilter(self, table: str) -> None:
        succeeds(*self.command("nft", "delete", "table", "inet", table))


@contextlib.contextmanager
def boxes_locked() -> Iterator[bool]:
    """Keeps other boxes from coming up and going down; gives whether that succeeded."""
    handle = os.open(RUN, os.O_RDONLY | os.O_DIRECTORY)

    def locked() -> bool:
        try:
            fcntl.flock(handle, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            return False
        return True

    try:
        yield comes_within(LOCK_PATIENCE, locked)
    finally:
        os.close(handle)


class Networks:
    def __init__(self, layout: Layout, processes: BoxProcesses) -> None:
        self._layout, self._processes = layout, processes
        self.gateway = Namespace(f"{layout.name}-gw")
        self.providers = {side.name: Namespace(f"{layout.name}-{side.name}") for side in SIDES.values()}
        self.cloud = Namespace(f"{layout.name}-cloud")
        self.all = [self.gateway, *self.providers.values(), self.cloud]
        self.families = Families.of(layout.state)

    def provider(self, side: Side) -> Namespace:
        return self.providers[side.name]

    def ipv6(self, side: Side) -> Ipv6:
        return Ipv6(self._layout, self._processes, side, self.provider(side), self.cloud)

    def check(self) -> None:
        for namespace in self.all:
            if (NETNS / namespace.name).exists():
                raise BoxError(
                    f"there is a namespace {namespace.name} already: choose another name in ORV_BOX, or end what it belongs "
                    f"to (a box of this name whose folder is not {self._layout.state}?): {self._layout.command} down"
                )

    def make(self, taps: bool) -> None:
        """`taps`: the gateway is a machine, whose network cards are plugged in at the providers."""
        self._add()
        if self.families.has_ipv6():
            for namespace in (*self.providers.values(), self.cloud):
                # Duplicate address detection keeps nobody waiting but the gateway.
                namespace.set(ipv6__conf__default__accept_dad=0)
        cables = []
        for side in SIDES.values():
            if taps:
                run(*self.provider(side).command("ip", "tuntap", "add", "dev", "lan", "mode", "tap"))
            else:
                cables.append(cable(self.gateway, side.interface, self.provider(side), "lan", side.gateways_mac))
            cables.append(cable(self.provider(side), "up", self.cloud, side.name))
        batch(lines=cables)
        if not taps:
            for side in SIDES.values():
                # Without this the kernel leaves UDP checksums to the "hardware", and ConnMan's DHCP client drops the answers.
                run(*self.provider(side).command("ethtool", "-K", "lan", "tx", "off"))
        self.gateway.ip("link set lo up")
        self._make_cloud()
        for side in SIDES.values():
            self._make_provider(side)
        watched = tuple(f"{side.name}={self.provider(side).name}" for side in SIDES.values())
        self._processes.start("passages", Program(HERE, "orv_testbed.passages", watched))

    def _add(self) -> None:
        with boxes_locked() as locked:
            if not locked:
                raise BoxError(f"another box is coming up or going down for {LOCK_PATIENCE} s")
            if not is_mount_point(NETNS):
                NOTE.write_text("found\n" if NETNS.is_dir() else "made\n", encoding="ascii")
            batch(lines=(f"netns add {namespace.name}" for namespace in self.all))

    def remove(self) -> None:
        with boxes_locked() as locked:
            if not locked:
                print(f"box: another box is coming up or going down for {LOCK_PATIENCE} s", file=sys.stderr)
            with contextlib.suppress(BoxError):
                there = [namespace.name for namespace in self.all if (NETNS / namespace.name).exists()]
                batch("-force", lines=(f"netns del {name}" for name in there))
            if not NOTE.exists() or (NETNS.is_dir() and any(NETNS.iterdir())):
                return
            while is_mount_point(NETNS):
                if not succeeds("umount", "-n", NETNS):
                    return
            if NOTE.read_text(encoding="ascii").strip() != "found":
                NETNS.rmdir()
            NOTE.unlink()

    def _make_cloud(self) -> None:
        lines = ["link set lo up", f"addr add {CLOUD_ADDRESS}/32 dev lo"]
        if self.families.has_ipv6():
            lines.append(f"addr add {CLOUD_ADDRESS_6}/128 dev lo")
        for side in SIDES.values():
            lines.append(f"addr add {side.uplink}.2/30 dev {side.name}")
            lines.append(f"link set dev {side.name} up")
            lines.append(f"route add {side.net}.0/24 via {side.uplink}.1")
        self.cloud.ip_each(lines)

    def _make_provider(self, side: Side) -> None:
        """A router with DHCP and a name server of its own, which only its own customers reach."""
        namespace = self.provider(side)
        families = self.families.at(side)
        lines = ["link set lo up", f"addr add {side.name_server}/32 dev lo"]
        if "4" in families:
            lines.append(f"addr add {side.net}.1/24 dev lan")
        lines.append(f"addr add {side.uplink}.1/30 dev up")
        lines += ["link set dev lan up", "link set dev up up", f"route add {CLOUD_ADDRESS}/32 via {side.uplink}.2"]
        namespace.ip_each(lines)
        # A provider forwards only its own customers' addresses.
        namespace.set(ipv4__ip_forward=1, ipv4__conf__lan__rp_filter=1)
        if "6" in families:
            self.ipv6(side).make()
        self.start_names(side)
        if families == "6":
            self.ipv6(side).start_translation()
            self.ipv6(side).start_dns64()

    def _numbers(self, side: Side) -> tuple[int, int, int, int]:
        """The first and the last host that may have a lease, the router, and how long the network's part is."""
        return (202, 250, 254, 25) if self._renumbered(side).exists() else (100, 200, 1, 24)

    def _renumbered(self, side: Side) -> pathlib.Path:
        return self._layout.state / f"renumbered-{side.name}"

    def renumber(self, side: Side) -> None:
        """The provider goes over to its other network, with another router, where no lease of this one is valid."""
        namespace, note = self.provider(side), self._renumbered(side)
        *_, router, length = self._numbers(side)
        namespace.ip(f"addr del {side.net}.{router}/{length} dev lan")
        if note.exists():
            note.unlink()
        else:
            note.touch()
        *_, router, length = self._numbers(side)
        namespace.ip(f"addr add {side.net}.{router}/{length} dev lan")

    def start_names(
        self, side: Side, lie: str | None = None, about: str | None = None, first: str | None = None
    ) -> None:
        """A provider's DHCP and name server. It lies about one name or all, or gives the cloud's name a `first` address."""
        answers = ["--local=/test/"]
        if lie and not about:
            answers = [f"--address=/#/{lie}"]
        elif about != CLOUD_NAME:  # its record would be told before the lie
            addresses = [first] if first else []
            addresses += [CLOUD_ADDRESS] if "4" in self.families.cloud else []
            addresses += [CLOUD_ADDRESS_6] if "6" in self.families.cloud else []
            answers += ["--no-round-robin", *(f"--host-record={CLOUD_NAME},{address}" for address in addresses)]
        if about:
            answers += [f"--address=/{about}/{lie}"]
        namespace = self.provider(side)
        options = ["--keep-in-foreground", "--conf-file=/dev/null", "--user=root", "--pid-file=", "--no-resolv"]
        options += ["--no-hosts", "--interface=lan", "--interface=lo", "--bind-interfaces", "--dhcp-authoritative"]
        port = 53
        if "4" in self.families.at(side):
            first_host, last_host, router, length = self._numbers(side)
            options += [
                "--no-ping",
                f"--dhcp-range={side.net}.{first_host},{side.net}.{last_host},{NETMASKS[length]},1h",
            ]
            options += [f"--dhcp-leasefile={self._layout.state}/leases-{namespace.name}"]
            options += [
                f"--dhcp-option=option:router,{side.net}.{router}",
                f"--dhcp-option=option:dns-server,{side.name_server}",
            ]
        else:
            port = NAMES_BEHIND_DNS64
            options += [f"--port={port}"]
        name = f"names-{side.name}"
        command = namespace.command("dnsmasq", *options, *answers, "--log-facility=-", "--log-queries")
        self._processes.start(name, command)
        if not comes_within(20, lambda: namespace.listens(port)):
            raise BoxError(f"the name server of {side.name} does not start, see {self._layout.log(name)}")
