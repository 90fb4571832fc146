# SPDX-License-Identifier: Apache-2.0
"""A gateway with the application and a witness, and how to bring its route into each state."""
from __future__ import annotations

import pathlib
from collections.abc import Callable

from orv_testbed import audit
from orv_testbed.application import Application
from orv_testbed.box import Box
from orv_testbed.passages import Passage
from orv_testbed.topics import INHIBIT_DNS
from orv_testbed.waiting import SLACK, wait_until
from orv_testbed.wire import Witness

# Warnings that belong to every run: the echo of the own status, a connection to the cloud that comes and goes, a poke over
# a path that is dead.
EVERYDAY = (
    "Message is not handled",
    "the cloud connection has ended",
    "no connection to the cloud",
    "poke error 28",
    "does not prove the path to the cloud",
)


# What a captive portal makes of a poke, also of one that is under way when the portal is taken away.
PORTAL = ("poke error 60", "poke error 35", "poke error 7")

BY_INTERFACE = "by the interface"


class Scene:
    def __init__(self, box: Box, folder: pathlib.Path, *options: str, clock: bool = False) -> None:
        self.take(box, Witness(box, folder), Application(box, folder, *options, clock=clock))

    def take(self, box: Box, witness: Witness, application: Application) -> None:
        self.box = box
        self.witness = witness
        self.application = application
        self.connected = {"eth0", "wwan0"}  # what ConnMan must show as connected in the end
        self.expected_complaints: tuple[str, ...] = ()
        self.neighbours: tuple[str, ...] = ()  # other applications, by name: what they say of themselves is theirs
        self.addresses_lent = (
            False  # an interface loses its address while it is poked, and the application may not notice
        )
        self.wire_cut_at: int | None = None  # the place in the log from which on messages may be missing on the wire
        self.orders_may_be_late = False  # the connection manager may confirm what is no longer wanted
        self.clocks: list[tuple[int, float]] = []  # see audit.Clocks
        self.clock_grain = audit.CLOCK_GRAIN
        self.undo: list[tuple[str, ...]] = []
        self._passed_before = len(box.passages())

    def passages(self) -> list[Passage]:
        """The connections that the gateway has begun since then, as they came to the providers."""
        return self.box.passages()[self._passed_before :]

    def start(self) -> Scene:
        self.application.wait_for_cloud("eth0", 10)
        self.application.wait_for("Cloud connected with Ethernet interface", 5)
        return self

    def set_clock(self, offset: str) -> None:
        self.clocks.append((self.application.mark(), int(offset)))
        self.box("clock", offset)

    def cut_wire(self) -> None:
        """To be called before a fault that may keep messages from the gateway's broker."""
        self.wire_cut_at = self.application.mark()

    def reach(self, state: str) -> None:
        """Brings the route into a state and holds it there for as long as that is possible; see `release`."""
        getattr(self, "reach_" + state.lower())()

    def release(self) -> None:
        """Takes back what holds the route in its state. The provider that died to reach it stays dead."""
        for words in self.undo:
            self.box(*words)
        self.undo = []

    def reach_ethernet_active(self) -> None:
        pass

    def reach_ethernet_lost_delay(self) -> None:
        self.box("provider", "eth", "dead")
        self.application.wait_for("eth cloud lost, start delay to cell", 4)

    def reach_poking_cellular(self) -> None:
        """Every poke fails, for 20 s at most."""
        self.box("cloud-tls", "refused", "cell")
        self.undo = [("cloud-tls", "ok", "cell")]
        self.expected_complaints += ("poke error 7",)
        self.reach_ethernet_lost_delay()
        self.application.wait_for("poke error 7", 15)

    def reach_switching_to_cellular(self) -> None:
        """A frozen connection manager holds it there, for 3 s at most."""
        self.reach_ethernet_lost_delay()
        self.box("connman", "freeze")
        self.undo = [("connman", "thaw")]
        self.application.wait_for("poke success, route to Cell", 15)

    def reach_cellular_active(self) -> None:
        """Ethernet has an address but no provider, so it is poked all the time."""
        self.reach_ethernet_lost_delay()
        self.application.wait_for("Started Poke eth if eth0", 20)
        self.application.wait_for_cloud("wwan0", 5)

    def reach_switching_to_ethernet(self) -> None:
        """A frozen connection manager holds it there, for 3 s at most."""
        self.reach_cellular_active()
        self.box("connman", "freeze")
        self.undo = [("connman", "thaw")]
        self.box("provider", "eth", "back")
        self.application.wait_for("poke success, route to ETH", 20)

    def reach_ethernet_settle_delay(self) -> None:
        """Without a cloud connection to lose it lasts 5 s."""
        self.reach_cellular_active()
        self.box("cloud-mqtt", "refused")
        self.undo = [("cloud-mqtt", "ok")]
        wait_until(lambda: self.application.cloud_interface() is None, 5 + SLACK, "the loss of the cloud connection")
        self.box("provider", "eth", "back")
        self.application.wait_for("route is eth, reconnecting", 20)

    def settles(
        self,
        interface: str,
        seconds: float,
        state: str | Callable[[], str] | None = None,
        inhibit: str | None | Callable[[], str | None] = BY_INTERFACE,
    ) -> None:
        """Waits until nothing is under way and everything that can be seen of the gateway fits the interface.

        `inhibit` is the DNS topic's value, None for none. It and `state` may be functions, called each time.
        """
        wanted_state = state or ("ETHERNET_ACTIVE" if interface == "eth0" else "CELLULAR_ACTIVE")
        faults: list[str] = []

        def settled() -> bool:
            by_interface = (
                "inhibit" if interface == "wwan0" else "permit" if self.witness.payloads(INHIBIT_DNS) else None
            )
            wanted_inhibit = by_interface if inhibit is BY_INTERFACE else inhibit() if callable(inhibit) else inhibit
            state_now = wanted_state() if callable(wanted_state) else wanted_state
            faults[:] = audit.unsettled(self, interface, state_now, wanted_inhibit)
            return not faults

        wait_until(settled, seconds + SLACK, lambda: "; ".join(faults) + "\n" + self.application.interesting())

    def settles_on_the_only_interface(self, seconds: float, since: int, on_cellular: bool = False) -> None:
        """Ethernet was taken away at `since` in the log, and the connection manager had only one interface to choose.

        The route has followed it if a tick saw the cloud lost on Ethernet. If the application was connected again before
        that, nothing was lost for the route, and it stays where it is.
        """

        def follows() -> bool:
            return on_cellular or self.application.has_logged("eth cloud lost", since)

        before = "permit" if self.witness.payloads(INHIBIT_DNS) else None
        self.settles(
            "wwan0",
            seconds,
            state=lambda: "CELLULAR_ACTIVE" if follows() else "ETHERNET_ACTIVE",
            inhibit=lambda: "inhibit" if follows() else before,
        )

    def is_a_neighbours(self, topic: str) -> bool:
        return any(f"/features/{name}/" in topic for name in self.neighbours)

    def audit(self) -> None:
        """What must hold in every scenario, whatever happened in it."""
        faults = self.faults()
        assert not faults, "\n".join(faults) + "\n" + self.application.interesting()

    def faults(self) -> list[str]:
        """What `audit` finds wrong."""
        faults = audit.unproven_moves(self.application, self.box, self.passages(), self.clocks, self.clock_grain)
        faults += audit.moves_not_told_once(self.application)
        faults += audit.pokes_on_a_wrong_way(
            self.application, self.passages(), bool(self.neighbours), self.addresses_lent
        )
        faults += audit.proofs_on_a_wrong_way(self.application, self.passages(), self.clocks)
        if not self.orders_may_be_late:
            faults += audit.orders_without_a_decision(self.application)
        faults += [
            f"published wrongly: {message}"
            for message in self.witness.wrongly_retained()
            if not self.is_a_neighbours(message.topic)
        ]
        faults += audit.inhibits_not_told(self.application, self.witness, self.wire_cut_at)
        allowed = EVERYDAY + self.expected_complaints
        return faults + [
            f"an unexpected word in the log: {line}"
            for line in self.application.complaints()
            if not any(text in line for text in allowed)
        ]
