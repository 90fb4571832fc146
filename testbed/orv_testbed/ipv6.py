# SPDX-License-Identifier: Apache-2.0
"""A provider's IPv6: its router, and for those who have IPv6 alone the way to IPv4."""
from __future__ import annotations

import pathlib
from typing import TYPE_CHECKING

from orv_testbed.box_processes import BoxProcesses
from orv_testbed.commands import run
from orv_testbed.layout import CLOUD_ADDRESS_6, BoxError, Layout, Side
from orv_testbed.programs import daemon
from orv_testbed.waiting import comes_within

if TYPE_CHECKING:
    from orv_testbed.networks import Namespace

# Tayga translates no address for documentation behind the well-known prefix.
TRANSLATED = "2001:db8:64::/96"
LIFETIME = 1800  # seconds, of a router and of a prefix
BETWEEN = 4  # seconds between two advertisements that nobody has asked for
LAST = 6  # seconds, the router's lifetime in the last advertisement of one that falls silent
NAMES_BEHIND_DNS64 = 5300  # the port of the name server that DNS64 asks

TAYGA = """tun-device nat64
ipv4-addr {pool}.1
ipv6-addr {net}:64::1
prefix {translated}
dynamic-pool {pool}.0/24
data-dir {folder}
"""
UNBOUND = """server:
  interface: {address}
  access-control: ::/0 allow
  do-daemonize: no
  do-not-query-localhost: no
  use-syslog: no
  username: ""
  chroot: ""
  directory: "{folder}"
  pidfile: ""
  module-config: "dns64 iterator"
  dns64-prefix: {translated}
  cache-max-ttl: 0
  cache-max-negative-ttl: 0
  local-zone: "test." nodefault
forward-zone:
  name: "."
  forward-addr: 127.0.0.1@{port}
"""


class Ipv6:
    def __init__(self, layout: Layout, processes: BoxProcesses, side: Side, here: Namespace, cloud: Namespace) -> None:
        self._layout, self._processes = layout, processes
        self._side, self._here, self._cloud = side, here, cloud
        self._folder = layout.state / f"ipv6-{side.name}"

    def _known(self, what: str, otherwise: int) -> int:
        note = self._folder / what
        return int(note.read_text(encoding="ascii")) if note.exists() else otherwise

    def _note(self, what: str, number: int) -> None:
        (self._folder / what).write_text(f"{number}\n", encoding="ascii")

    def prefix(self, number: int | None = None) -> str:
        """The first 64 bits of its customers' addresses, which it may change."""
        return f"{self._side.net_6}:{number or self._known('prefix', 1):x}"

    def lifetime(self) -> int:
        """For how many seconds it says that it is a router; 0: it says that it is none."""
        return self._known("lifetime", LIFETIME)

    def is_a_router(self) -> bool:
        """Whether it says that it is one, again and again."""
        return self.lifetime() == LIFETIME

    def is_taken(self) -> bool:
        """Whether somebody else has the gateway's address."""
        return bool(self._known("taken", 0))

    # ---- coming up

    def make(self) -> None:
        side, here = self._side, self._here
        self._folder.mkdir()
        here.set(ipv6__conf__all__forwarding=1)
        here.ip(f"addr add {side.name_server_6}/128 dev lo")
        here.ip(f"addr add {side.uplink_6}::1/64 dev up nodad")
        self._cloud.ip(f"addr add {side.uplink_6}::2/64 dev {side.name} nodad")
        self._cloud.ip(f"route add {side.net_6}::/48 via {side.uplink_6}::1")
        here.ip(f"route add {CLOUD_ADDRESS_6}/128 via {side.uplink_6}::2")
        here.ip(f"addr add {self.prefix()}::1/64 dev lan nodad")
        self._forward_own()
        self._start_router()

    def _forward_own(self) -> None:
        """It forwards only its own customers' addresses, of its prefix as it is now."""
        own = f"iifname lan ip6 saddr != {self.prefix()}::/64 drop;"
        self._here.filter("own_ipv6", f"chain forward {{ type filter hook forward priority 0; {own} }}")

    def _start_router(self) -> None:
        """It advertises itself and its prefix at once, and the one before as not to be used any more."""
        name = f"router-{self._side.name}"
        self._processes.end(name)
        options = ["--keep-in-foreground", "--conf-file=/dev/null", "--user=root", "--pid-file=", "--port=0"]
        options += ["--interface=lan", "--bind-interfaces", "--log-facility=-", "--log-dhcp", "--leasefile-ro"]
        options += ["--enable-ra", f"--ra-param=lan,{BETWEEN},{self.lifetime()}"]
        options += [f"--dhcp-range={self.prefix()}::,ra-stateless,64,{LIFETIME}"]
        if number := self._known("prefix", 1) - 1:
            options += [f"--dhcp-range={self.prefix(number)}::,ra-stateless,64,deprecated"]
        options += [f"--dhcp-option=option6:dns-server,[{self._side.name_server_6}]"]
        spoken = self._advertisements(name)
        self._processes.start(name, self._here.command("dnsmasq", *options))
        if self.lifetime() == LAST:
            if not comes_within(5, lambda: self._advertisements(name) > spoken):
                raise BoxError(f"the router of {self._side.name} does not advertise, see {self._layout.log(name)}")
            # Not killed: it tells its log first and sends then. Ended, it sends what it has begun, and nothing more.
            self._processes.end(name)

    def _advertisements(self, name: str) -> int:
        log = self._layout.log(name)
        return log.read_text(encoding="utf-8", errors="replace").count("RTR-ADVERT(lan)") if log.exists() else 0

    # ---- what becomes of it

    def advertise(self, lifetime: int = LIFETIME) -> None:
        self._note("lifetime", lifetime)
        self._start_router()

    def renumber(self, taken: bool = False) -> None:
        """Another prefix, without a word before: what comes from the old one is dropped from now on. `taken`: somebody
        has the gateway's address of the new one already."""
        number = self._known("prefix", 1) + 1
        self._note("prefix", number)
        self._note("taken", int(taken))
        self._here.ip(f"addr add {self.prefix()}::1/64 dev lan nodad")
        if taken:
            self._here.ip(f"addr add {self.prefix()}:{self._gateways_identifier()}/64 dev lan nodad")
        self._forward_own()
        self._start_router()

    def _gateways_identifier(self) -> str:
        """The last 64 bits of the gateway's address, which it makes of its hardware's (RFC 4291, appendix A)."""
        mac = bytes(int(part, 16) for part in self._side.gateways_mac.split(":"))
        bits = bytes([mac[0] ^ 2]) + mac[1:3] + b"\xff\xfe" + mac[3:]
        return bits.hex(":", 2)

    # ---- the way to IPv4

    def start_translation(self) -> None:
        """NAT64, for a provider with IPv6 alone: its customers come to an IPv4 cloud from a pool of addresses."""
        if not pathlib.Path("/dev/net/tun").is_char_device():
            raise BoxError("this machine has no /dev/net/tun: it cannot translate from IPv6 to IPv4")
        side, here = self._side, self._here
        configuration = self._folder / "tayga.conf"
        words = {"pool": side.pool, "net": side.net_6, "translated": TRANSLATED, "folder": self._folder}
        configuration.write_text(TAYGA.format(**words), encoding="ascii")
        tayga = here.command(daemon("tayga"), "--config", configuration)
        run(*tayga, "--mktun")
        here.ip("link set dev nat64 up")
        here.ip(f"route add {side.pool}.0/24 dev nat64")
        here.ip(f"route add {TRANSLATED} dev nat64")
        self._cloud.ip(f"route add {side.pool}.0/24 via {side.uplink}.1")
        self._processes.start(f"nat64-{side.name}", [*tayga, "--nodetach"])

    def start_dns64(self) -> None:
        """In front of the provider's name server: an IPv6 address for each name that has none."""
        name = f"dns64-{self._side.name}"
        words = {"address": self._side.name_server_6, "folder": self._folder, "port": NAMES_BEHIND_DNS64}
        configuration = self._folder / "unbound.conf"
        configuration.write_text(UNBOUND.format(**words, translated=TRANSLATED), encoding="ascii")
        self._processes.start(name, self._here.command(daemon("unbound"), "-d", "-c", configuration))
        if not comes_within(5, lambda: self._here.listens(53)):
            raise BoxError(f"DNS64 of {self._side.name} does not start, see {self._layout.log(name)}")
