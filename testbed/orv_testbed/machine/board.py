# SPDX-License-Identifier: Apache-2.0
"""The machine in the gateway's place: its disk, its power, and what a box's words do to it."""
from __future__ import annotations

import pathlib
import shutil
import signal
import subprocess
import time

from orv_testbed import watch
from orv_testbed.box_processes import BoxProcesses
from orv_testbed.certificates import hash_of
from orv_testbed.commands import Word, run
from orv_testbed.families import Families
from orv_testbed.layout import CELLULAR, ETHERNET, SIDES, BoxError, Layout, Side, misused
from orv_testbed.machine import agent
from orv_testbed.networks import Networks
from orv_testbed.programs import TREE, Program
from orv_testbed.waiting import comes_by, comes_within

CERTIFICATES = "/etc/ssl/certs"
BUNDLE = "ca-certificates.crt"
MODEM_SETTINGS = "/etc/default/modem"
SERVICES = ("/usr/bin/python3", "/opt/testbed/services.py")
CONNECT_CELLULAR = ("sh", "/opt/testbed/connect-cellular")
# As the user that may read the LEDs; see machine/set-up.
STATUS = ("orv-status", "--user", "orv-diagnostics", "--password-file", "/dev/stdin")
# PCI cards hold a line of the interrupt controller until they are served, and several share one. The board's firmware, which is
# not here, says so to the controller; without that it looks for edges, and now and then misses the last one for ever.
LEVEL_TRIGGERED = "o /b 0x4d1 0x0c"  # interrupts 10 and 11, to which the kernel leads all cards
BOOT = 1800  # seconds that it may take on a busy host until both services are there; less than a box's word may take
IPV6 = 60  # seconds after which ConnMan is taken to have missed an IPv6 address
DIAGNOSTICS_PASSWORD = "for-diagnostics"
SET_BEARER = ("dbus-send", "--system", "--print-reply=literal", "--dest=org.ofono", "/modem", "box.Control.Bearer")
# Those that a machine carries out in its own way; what it cannot, it says.
WORDS = frozenset(
    "services exec cable cellular broker connman bus var-tmp authorities clock lease program neighbour status "
    "wait-route".split()
)


class Board:
    """A MIPS32 board in qemu."""

    def __init__(self, layout: Layout, processes: BoxProcesses, networks: Networks) -> None:
        self._layout, self._processes, self._networks = layout, processes, networks
        self.folder = layout.machine

    # ---- coming up

    @staticmethod
    def find_image() -> pathlib.Path:
        """The folder with kernel, initrd.gz and disk.img, which is made when it is not there."""
        if not shutil.which("qemu-system-mipsel"):
            raise BoxError(f"qemu-system-mipsel is missing: run {TREE}/script/bootstrap machine")
        if not pathlib.Path("/dev/net/tun").is_char_device():
            raise BoxError("this machine has no /dev/net/tun")
        made = subprocess.run([TREE / "script/lib/mipsel-gateway"], stdout=subprocess.PIPE, text=True, check=False)
        if made.returncode != 0:
            raise SystemExit(made.returncode)  # it has said why
        return pathlib.Path(made.stdout.strip())

    def make(self, image: pathlib.Path) -> None:
        self.folder.mkdir()
        for file in ("kernel", "initrd.gz", "disk.img"):
            run("cp", "--sparse=always", image / file, self.folder)
        self._layout.log("console").symlink_to("../machine/console")
        (self.folder / "console").touch()
        (self.folder / "seen").touch()

    def prepare_disk(self, families: Families) -> None:
        """The machine trusts Debian's authorities, and the cloud's: in the bundle and under its hash. And its modem is told
        what the provider offers."""
        disk, bundle = self.folder / "disk.img", self.folder / BUNDLE
        authority = self._layout.certificates / "ca.pem"
        self._debugfs(disk, "-R", f"cat {CERTIFICATES}/{BUNDLE}", into=bundle)
        with bundle.open("a", encoding="utf-8") as everyone:
            everyone.write(authority.read_text(encoding="ascii"))
        changes = (
            f"rm {CERTIFICATES}/{BUNDLE}",
            f"write {bundle} {CERTIFICATES}/{BUNDLE}",
            f"write {authority} {CERTIFICATES}/gateway-box-ca.pem",
            f"symlink {CERTIFICATES}/{hash_of(authority)}.0 gateway-box-ca.pem",
            f"write {self._note_network(families)} {MODEM_SETTINGS}",
        )
        self._debugfs(disk, "-w", "-f", "/dev/stdin", told="\n".join(changes) + "\n")

    def _note_network(self, families: Families) -> pathlib.Path:
        settings = self.folder / "modem"
        network = " ".join(families.of_modem(f"{CELLULAR.net}.50"))
        settings.write_text(f"NETWORK={network}\n", encoding="ascii")
        return settings

    def _debugfs(self, disk: Word, *words: str, into: pathlib.Path | None = None, told: str = "") -> None:
        log = self._layout.log("debugfs")
        with log.open("ab") as said, (into or log).open("ab") as output:
            command = ["debugfs", *words, disk]
            done = subprocess.run(command, input=told.encode(), stdout=output, stderr=said, check=False)
        if done.returncode != 0:
            raise BoxError(f"the machine's disk cannot be changed, see {log}")

    def start(self, *clock: str) -> None:
        sides = (self._networks.provider(side).name for side in (ETHERNET, CELLULAR))
        power = Program(self._networks.gateway, "orv_testbed.machine.power", (self.folder, *sides, *clock))
        self._processes.start("gateway", power)
        if not comes_within(60, self._is_released):
            raise BoxError(f"qemu does not start, see {self._layout.log('gateway')}")

    def _is_released(self) -> bool:
        """Does what the firmware would, and starts the processor, once qemu is there."""
        try:
            agent.monitor(self.folder, "human-monitor-command", **{"command-line": LEVEL_TRIGGERED})
            agent.monitor(self.folder, "cont")
        except agent.AgentError:
            return False
        return True

    def wait(self) -> None:
        """The guest agent comes up with the system; the services may still be starting."""
        deadline = time.monotonic() + BOOT
        if not comes_by(deadline, lambda: not self._is_on() or self._does("true")) or not self._is_on():
            console = (self.folder / "console").read_text(encoding="utf-8", errors="replace").splitlines()
            raise BoxError("the machine does not come up; its console: " + "\n".join(console[-20:]))
        # As on the box, the cellular service is connected once; from then on ConnMan does it by itself.
        if not comes_by(deadline, lambda: self._does(*CONNECT_CELLULAR)):
            raise BoxError("the machine's ConnMan does not connect its cellular service")
        while not comes_within(IPV6, self._has_all_ipv6, pause=1):
            if time.monotonic() >= deadline:
                raise BoxError(f"the machine gets no IPv6, see {self._layout.command} services")
            # ConnMan takes no notice of an address that came too soon; the next one it sees.
            self._does("ip", "-6", "addr", "flush", "dev", CELLULAR.interface, "scope", "global")

    def _has_all_ipv6(self) -> bool:
        with_ipv6 = (side for side in SIDES.values() if "6" in self._networks.families.at(side))
        return all(map(self._has_ipv6, with_ipv6))

    def _has_ipv6(self, side: Side) -> bool:
        """An address that may be used, and a name server that ConnMan has heard of."""
        addresses = ("ip", "-6", "-o", "addr", "show", "dev", side.interface, "scope", "global", "-tentative")
        services = [line.split() for line in self._said(*SERVICES).splitlines()]
        named = any(words[0] == side.interface and side.name_server_6 in words[4].split(",") for words in services)
        return named and bool(self._said(*addresses))

    def _is_on(self) -> bool:
        return self._processes.alive("gateway")

    def _does(self, *command: str) -> bool:
        outcome = self._outcome(*command)
        return outcome is not None and outcome.status == 0

    def _said(self, *command: str) -> str:
        outcome = self._outcome(*command)
        return outcome.output if outcome else ""

    def _outcome(self, *command: str) -> agent.Outcome | None:
        """None when the machine does not answer."""
        try:
            return agent.run(self.folder, *command, seconds=300) if self._is_on() else None
        except agent.AgentError:
            return None

    # ---- the box's words

    def do(self, word: str, *words: str) -> None:
        match (word, *words):
            case ("exec", _, *_):
                self.become(*words)
            case ("services",):
                self.become(*SERVICES)
            case ("cable", "out" | "in"):
                agent.monitor(self.folder, "set_link", name="card-eth", up=words[0] == "in")
            case ("cellular", "out" | "in"):
                if not self._does(*SET_BEARER, f"boolean:{str(words[0] == 'in').lower()}"):
                    raise BoxError("the modem does not answer")
            case _:
                can = 'not on a machine; see what "box exec systemctl" can do there'
                raise BoxError(f"{' '.join((word, *words))}: {can}")

    def look(self) -> str:
        """What orv-status shows on the machine."""
        if not self._is_on():
            raise BoxError(f"the machine is off: {self._layout.command} power on")
        words = (*STATUS, "--color", watch.colour())
        try:
            outcome = agent.run(self.folder, *words, seconds=30, given=DIAGNOSTICS_PASSWORD + "\n")
        except agent.AgentError as error:
            raise BoxError(f"the machine does not answer: {error}") from error
        return outcome.output or outcome.errors

    def become(self, *command: str) -> None:
        """Ends this process with what a command on the machine comes to."""
        raise SystemExit(agent.print_outcome(self.folder, *command))

    def power(self, state: str = "", *clock: str) -> None:
        if not self._layout.has_machine():
            raise BoxError("power: only a machine has that")
        if state == "cut":
            self._processes.end("gateway", signal.SIGKILL)
        elif state == "on" and len(clock) <= 1:
            if self._is_on():
                raise BoxError("the power is on")
            self.start(*clock)
        else:
            misused("power", "power cut|on [TIME of the clock]")
