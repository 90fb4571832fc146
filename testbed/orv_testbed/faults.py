# SPDX-License-Identifier: Apache-2.0
"""What can go wrong in a box, one method a command: `cloud_tls` is `box cloud-tls`."""
from __future__ import annotations

import pathlib
import re
import signal

from orv_testbed.box_processes import BoxProcesses
from orv_testbed.cloud import Cloud
from orv_testbed.commands import run, succeeds
from orv_testbed.gateway import Gateway
from orv_testbed.layout import CELLULAR, ETHERNET, PORTAL_NAME, SIDES, BoxError, Layout, misused, side_named
from orv_testbed.networks import Networks
from orv_testbed.programs import TESTBED, Program
from orv_testbed.waiting import comes_within

MUTE_NAMES = "chain input { type filter hook input priority 0; udp dport 53 drop; tcp dport 53 drop; }"
PORTAL_PORTS = "{ 80, 443, 8883 }"
SLOW_TABLE = "77"
SLOW_RULES = [("iif", device, "priority", "100", "lookup", SLOW_TABLE) for device in ("lan", "up")]


def is_address(word: str) -> bool:
    return re.fullmatch(r"([0-9]{1,3}\.){3}[0-9]{1,3}", word) is not None


class Faults:
    def __init__(
        self, layout: Layout, processes: BoxProcesses, networks: Networks, cloud: Cloud, gateway: Gateway
    ) -> None:
        self._layout, self._processes = layout, processes
        self._networks, self._cloud, self._gateway = networks, cloud, gateway

    # ---- on the way to the cloud

    def provider(self, side: str = "", state: str = "") -> None:
        """A dead provider: link and address stay, nothing is forwarded, its name server is mute."""
        namespace = self._networks.provider(side_named(side))
        if state == "dead":
            forward = "chain forward { type filter hook forward priority 0; policy drop; }"
            namespace.filter("dead", forward, MUTE_NAMES)
        elif state == "back":
            namespace.unfilter("dead")
        else:
            misused("provider", "provider eth|cell dead|back")

    def names(self, side: str = "", what: str = "", address: str | None = None, name: str | None = None) -> None:
        which = side_named(side)
        namespace = self._networks.provider(which)
        note = self._layout.state / f"lie-{side}"
        if what == "mute" and address is None:
            namespace.filter("mute", MUTE_NAMES)
        elif what == "lie" and address is not None:
            if not is_address(address):
                misused("names", "names eth|cell lie ADDRESS [NAME], with an IPv4 address")
            self._processes.end(f"names-{side}")
            self._networks.start_names(which, address, name)
            note.touch()
        elif what == "first" and address is not None and name is None:
            if not is_address(address):
                misused("names", "names eth|cell first ADDRESS, with an IPv4 address")
            hole = "chain {0} {{ type filter hook {0} priority -1; ip daddr {1} drop; }}"
            namespace.filter("hole", hole.format("forward", address), hole.format("input", address))
            namespace.ip(f"route replace {address}/32 dev up")
            self._processes.end(f"names-{side}")
            self._networks.start_names(which, first=address)
            note.touch()
        elif what == "back" and address is None:
            namespace.unfilter("mute")
            namespace.unfilter("hole")
            if note.exists():
                note.unlink()
                self._processes.end(f"names-{side}")
                self._networks.start_names(which)
        else:
            ways = "names eth|cell mute|back, names eth|cell lie ADDRESS [NAME], or names eth|cell first ADDRESS"
            misused("names", ways)

    def loss(self, side: str = "", percent: str = "") -> None:
        """Each packet on the link between gateway and provider, in either direction."""
        namespace = self._networks.provider(side_named(side))
        if percent == "off":
            namespace.unfilter("loss")
            return
        if not re.fullmatch(r"[1-9][0-9]?", percent):
            misused("loss", "loss eth|cell PERCENT|off, with 1 to 99 per cent")
        chain = "chain {} {{ type filter hook {} priority {}; {} lan numgen random mod 100 < {} counter drop; }}"
        namespace.filter(
            "loss",
            chain.format("in", "prerouting", "raw", "iifname", percent),
            chain.format("out", "postrouting", "300", "oifname", percent),
        )

    def bandwidth(self, side: str = "", kbit: str = "") -> None:
        namespace = self._networks.provider(side_named(side))
        if not re.fullmatch(r"[1-9][0-9]{0,6}|off", kbit):
            misused("bandwidth", "bandwidth eth|cell KBIT|off")
        for device in ("lan", "up"):
            discipline = ("tc", "-n", namespace.name, "qdisc")
            if kbit == "off":
                succeeds(*discipline, "del", "dev", device, "root")
            elif not succeeds(
                *(*discipline, "replace", "dev", device, "root", "tbf"),
                *("rate", f"{kbit}kbit", "burst", "4kb", "latency", "1s"),
            ):
                raise BoxError("this machine's kernel cannot limit a bandwidth (it lacks sch_tbf)")

    def mtu(self, side: str = "", octets: str = "") -> None:
        """A black hole: what is longer than that disappears on the way, and nobody is told."""
        namespace = self._networks.provider(side_named(side))
        if octets == "off":
            namespace.unfilter("mtu")
            return
        if not re.fullmatch(r"[1-9][0-9]{2,4}", octets):
            misused("mtu", "mtu eth|cell BYTES|off, with 100 bytes at least")
        rule = f"meta length > {octets} counter drop;"
        namespace.filter("mtu", f"chain forward {{ type filter hook forward priority -2; {rule} }}")

    def delay(self, side: str = "", milliseconds: str = "") -> None:
        """Not every kernel has netem: a program holds up what goes to the cloud and what comes from there."""
        which = side_named(side)
        namespace, process = self._networks.provider(which), f"delay-{side}"
        if not re.fullmatch(r"[1-9][0-9]{0,4}|off", milliseconds):
            misused("delay", "delay eth|cell MILLISECONDS|off")
        # Where it has IPv6 alone IPv4 is behind its translation, and delayed, too.
        families = {"4", *self._networks.families.at(which)}
        ways = [(f"-{family}", rule) for family in sorted(families) for rule in SLOW_RULES]
        for family, rule in ways:
            succeeds("ip", family, "-n", namespace.name, "rule", "del", *rule)
        self._processes.end(process)
        if milliseconds == "off":
            return
        log = self._layout.log(process)
        log.unlink(missing_ok=True)
        self._processes.start(process, Program(namespace, "orv_testbed.slow_line", ("slow", milliseconds)))
        if not comes_within(20, lambda: "at work" in log.read_text(encoding="utf-8")):
            raise BoxError(f"nothing delays packets (is there /dev/net/tun?), see {log}")
        for family in families:
            namespace.ip(f"-{family} route add default dev slow table {SLOW_TABLE}")
        for family, rule in ways:
            namespace.ip(f"{family} rule add {' '.join(rule)}")

    def portal(self, side: str = "", state: str = "") -> None:
        """A captive portal lets nothing through and answers every connection itself, also those that were there before."""
        namespace = self._networks.provider(side_named(side))
        process = f"portal-{side}"
        if state == "on":
            if not self._processes.alive(process):
                program = Program(namespace, "orv_testbed.portal", (self._layout.certificates, PORTAL_NAME))
                self._processes.start(process, program)
            if not comes_within(20, lambda: namespace.listens(8883)):
                raise BoxError(f"the portal does not start, see {self._layout.log(process)}")
            redirect = f"iifname lan tcp dport {PORTAL_PORTS} redirect;"
            namespace.filter(
                "portal",
                f"chain prerouting {{ type nat hook prerouting priority dstnat; {redirect} }}",
                "chain forward { type filter hook forward priority 0; policy drop; }",
            )
        elif state == "off":
            namespace.unfilter("portal")
            self._processes.end(process)
        else:
            misused("portal", "portal eth|cell on|off")

    def lease(self, side: str = "", what: str = "") -> None:
        """What the end of a lease leaves on the gateway: the link, ConnMan's service, and neither address nor default route."""
        provider, gateway = self._networks.provider(ETHERNET), self._networks.gateway
        if (side, what) == ("eth", "end"):
            provider.filter("no_lease", "chain input { type filter hook input priority 0; udp dport 67 drop; }")
            gateway.ip("-4 addr flush dev eth0")
        elif (side, what) == ("eth", "back"):
            provider.unfilter("no_lease")
            if self._has_carrier("eth0") and not gateway.ip("-4 -o addr show dev eth0 scope global"):
                self._pull_and_plug_the_cable()
        elif (side, what) == ("eth", "renumber"):
            provider.unfilter("no_lease")
            self._processes.end("names-eth")
            self._networks.renumber(ETHERNET)
            self._networks.start_names(ETHERNET)
            if self._has_carrier("eth0"):
                self._pull_and_plug_the_cable()
        else:
            misused("lease", "lease eth end|back|renumber")

    def _pull_and_plug_the_cable(self) -> None:
        """ConnMan asks for a lease when the link comes up. Of a carrier that is gone for a moment it hears nothing."""
        self.cable("out")
        if not comes_within(5, self._connman_has_no_ethernet):
            raise BoxError(f"ConnMan does not notice the cable, see {self._layout.log('connman')}")
        self.cable("in")

    def _connman_has_no_ethernet(self) -> bool:
        services = self._gateway.services()  # None while it is stopped or frozen
        return services is None or not any(line.startswith("eth0 ") for line in services.splitlines())

    # ---- the gateway's interfaces

    def cable(self, state: str = "") -> None:
        """The kernel may tell of a carrier a second later."""
        gateway, provider = self._networks.gateway, self._networks.provider(ETHERNET)
        see = f"see: {self._layout.command} exec ip link"
        if state == "out":
            provider.ip("link set dev lan down")
            if not comes_within(3, lambda: not self._has_carrier("eth0")):
                raise BoxError(f"eth0 still has a carrier, {see}")
        elif state == "in":
            if not gateway.has("eth0"):
                provider.ip(f"link set dev eth0 netns {gateway.name} up")
            provider.ip("link set dev lan up")
            if not comes_within(3, self._ethernet_is_settled):
                raise BoxError(f"eth0 has no carrier, {see}")
        elif state == "gone":
            if gateway.has("eth0"):
                gateway.ip(f"link set dev eth0 netns {provider.name}")
        else:
            misused("cable", "cable out|gone|in")

    def _has_carrier(self, interface: str) -> bool:
        return self._networks.gateway.has(interface) and "LOWER_UP" in self._networks.gateway.flags(interface)

    def _ethernet_is_settled(self) -> bool:
        """ConnMan switches an interface off when it ends."""
        gateway = self._networks.gateway
        return self._has_carrier("eth0") or not gateway.has("eth0") or "UP" not in gateway.flags("eth0")

    def cellular(self, state: str = "") -> None:
        if state in ("out", "in"):
            self._set_bearer(state == "in")
        elif state in ("gone", "reset"):
            self._take_modem_away()
            if state == "reset":
                self._bring_modem_back()
        else:
            misused("cellular", "cellular out|in|gone|reset")

    def _order_modem(self, method: str, *arguments: str) -> None:
        if not self._gateway.call("org.ofono", "/modem", method, *arguments):
            raise BoxError(
                f"the modem does not answer on the bus: thaw a frozen bus first ({self._layout.command} bus thaw), or see "
                f"{self._layout.log('modem')}"
            )

    def _set_bearer(self, there: bool) -> None:
        self._order_modem("box.Control.Bearer", f"boolean:{str(there).lower()}")

    def _take_modem_away(self) -> None:
        """The interface is gone before anybody is told, as when a modem's firmware crashes. Its other end keeps what it is
        set to."""
        self._order_modem("org.freedesktop.DBus.Peer.Ping")
        gateway = self._networks.gateway
        if gateway.has("wwan0"):
            gateway.ip(f"link set dev wwan0 netns {self._networks.provider(CELLULAR).name}")
        self._set_bearer(False)

    def _bring_modem_back(self) -> None:
        self._order_modem("box.Control.Address", f"string:{self._gateway.change_cellular_address()}")
        # ConnMan asks what an interface is as soon as it appears.
        paused = not self._is_stopped("connman") and self._processes.send("connman", signal.SIGSTOP)
        gateway = self._networks.gateway
        self._networks.provider(CELLULAR).ip(f"link set dev wwan0 netns {gateway.name}")
        self._gateway.name_modem()
        gateway.ip("link set dev wwan0 up")
        if paused:
            self._processes.send("connman", signal.SIGCONT)
        self._set_bearer(True)

    def _is_stopped(self, process: str) -> bool:
        pid = self._processes.pid_of(process)
        if pid is None:
            return False
        stat = pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="utf-8", errors="replace")
        return stat.rpartition(") ")[2].startswith("T")

    # ---- the cloud

    def cloud(self, state: str = "") -> None:
        if state == "down":
            self._cloud.close()
        elif state == "up":
            self._cloud.open()
        else:
            misused("cloud", "cloud down|up")

    def cloud_tls(self, how: str = "", side: str | None = None) -> None:
        here = self._networks.cloud
        for one in [side_named(side)] if side is not None else list(SIDES.values()):
            table = f"refuse_{one.name}"
            if how == "refused":
                rule = f"iifname {one.name} tcp dport 443 reject with tcp reset;"
                here.filter(table, f"chain input {{ type filter hook input priority 0; {rule} }}")
            elif how in ("ok", "silent", "wrong-certificate"):
                here.unfilter(table)
                self._cloud.answer(one, how)
            else:
                misused("cloud-tls", "cloud-tls ok|refused|silent|wrong-certificate [eth|cell]")

    def cloud_mqtt(self, how: str = "") -> None:
        here = self._networks.cloud
        if how == "ok":
            here.unfilter("refuse_mqtt")
        elif how == "refused":
            rule = "tcp dport 8883 reject with tcp reset;"
            here.filter("refuse_mqtt", f"chain input {{ type filter hook input priority 0; {rule} }}")
            # An idle connection would not meet the filter before it is asked for a sign of life.
            if self._processes.alive("cloud-mqtt"):
                self._processes.end("cloud-mqtt", signal.SIGKILL)
                self._cloud.open()
        else:
            misused("cloud-mqtt", "cloud-mqtt ok|refused")

    # ---- the gateway's own parts

    def broker(self, state: str = "") -> None:
        if state == "stop":
            self._processes.end("broker", signal.SIGKILL)
        elif state == "start":
            if not self._processes.alive("broker"):
                self._gateway.start_broker()
        else:
            self._freeze_or_thaw("broker", state, "broker stop|start|freeze|thaw")

    def connman(self, state: str = "") -> None:
        if state == "stop":
            self._processes.end("connman")
        elif state == "start":
            if not self._processes.alive("connman"):
                self._processes.end("modem")  # it comes back as after a boot, when ConnMan does
                self._gateway.start_modem()
                self._gateway.start_connman()
        elif state == "restart":
            self._processes.end("connman")
            self._gateway.let_modem_switch_off()
            self._gateway.start_connman()
        elif state == "crash":
            self._processes.end("connman", signal.SIGKILL)
            self._gateway.start_connman()
        else:
            self._freeze_or_thaw("connman", state, "connman stop|start|restart|crash|freeze|thaw")

    def bus(self, state: str = "") -> None:
        self._freeze_or_thaw("bus", state, "bus freeze|thaw")

    def _freeze_or_thaw(self, process: str, state: str, words: str) -> None:
        if not self._processes.alive(process):
            raise BoxError(f"{process} does not run")
        if state not in ("freeze", "thaw"):
            misused(process, words)
        self._processes.send(process, signal.SIGSTOP if state == "freeze" else signal.SIGCONT)

    def clock(self, offset: str = "") -> None:
        if not re.fullmatch(r"[+-]?[0-9]+", offset):
            misused("clock", "clock SECONDS, an offset such as +3600 or -86400")
        self._gateway.set_clock(offset if offset[0] in "+-" else f"+{offset}")

    def var_tmp(self, state: str = "") -> None:
        """Writes to the gateway's /var/tmp fail; what lies there can be read. An overlay keeps what a program does to the
        files meanwhile, such as emptying one, and `ok` carries it over."""
        if state not in ("full", "read-only", "ok"):
            misused("var-tmp", "var-tmp full|read-only|ok")
        spoil = TESTBED / "lib/spoil-var-tmp"
        run(*self._gateway.command(spoil, "ok"))
        if state != "ok" and not succeeds(*self._gateway.command(spoil, state)):
            raise BoxError("this machine's kernel lacks tmpfs or overlay")

    def authorities(self, which: str = "") -> None:
        if which not in ("one", "full", "bundle"):
            misused("authorities", "authorities one|full|bundle")
        self._gateway.write_authorities(which)
