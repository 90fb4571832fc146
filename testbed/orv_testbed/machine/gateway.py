# SPDX-License-Identifier: Apache-2.0
"""The MIPS32 machine as the scenarios see it: its box, its power, its services, its journal."""
from __future__ import annotations

import json
import subprocess
import time
from collections.abc import Callable

from orv_testbed.box import Box
from orv_testbed.box_processes import started_at
from orv_testbed.machine import agent
from orv_testbed.status_files import STATUSES
from orv_testbed.waiting import wait_until

# Each limit is for a machine that runs as fast as the host allows: an emulated one on a busy host may need many times as long.
PATIENCE = 8.0
SERVICES = ("mosquitto", "connman", "orv-source-routes", "gateway-app")


class Gateway(Box):
    """A box whose gateway is a machine."""

    longest_command = 300 * PATIENCE

    def __init__(self, name: str, families: str | None = None) -> None:
        super().__init__(name, families)
        self.kind = ("--machine", "mipsel", *self.kind)
        self.machine = self.folder / "machine"
        self._forgotten: dict[str, int] = {}

    @staticmethod
    def brings() -> dict[str, str]:
        return {}  # they are installed in it

    def take_back_faults(self) -> None:
        """Those that a scenario which has failed may leave behind: power, providers, links."""
        if self.is_off():
            self.boot()
        for words in ("provider eth back", "provider cell back", "ipv4 eth back", "cloud-mqtt ok", "cable in"):
            self(*words.split())

    # ---- commands and power

    def run(self, *command: str, seconds: float = 30, given: str = "") -> agent.Outcome:
        return agent.run(self.machine, *command, seconds=seconds * PATIENCE, given=given)

    def sh(self, script: str, seconds: float = 30) -> str:
        """The output of a shell script on the machine, which must succeed."""
        outcome = self.run("sh", "-ec", script, seconds=seconds)
        assert outcome.status == 0, f"{script}: status {outcome.status}\n{outcome.output}{outcome.errors}"
        return outcome.output.strip()

    def cut_power(self) -> None:
        self("power", "cut")

    def boot(self, clock: str | None = None) -> None:
        self("power", "on", *([clock] if clock else []))

    def is_off(self) -> bool:
        """Whether the machine has switched itself off, or its power was cut."""
        try:
            pid, at = (self.folder / "pid/gateway").read_text(encoding="ascii").split()
        except OSError:
            return True
        return started_at(int(pid)) != at

    def faults_of_the_disk(self) -> str:
        """What is wrong with the disk once its journal is replayed, as at the next boot; empty for nothing. For a machine
        without power."""
        copy = self.machine / "copy.img"

        def look(*how: str) -> tuple[int, str]:
            looked = subprocess.run(["e2fsck", *how, copy], capture_output=True, text=True, check=False)
            return looked.returncode, looked.stdout + looked.stderr

        try:
            subprocess.run(["cp", "--sparse=always", self.machine / "disk.img", copy], check=True)
            status, said = look("-p")  # replays, and looks no further
            if status in (0, 1):
                status, said = look("-f", "-n")
            return said if status else ""
        finally:
            copy.unlink(missing_ok=True)

    def clock_offset(self) -> tuple[float, float]:
        """By how many seconds the machine's clock is ahead of the host's, by the answer that came soonest, and how wrong that
        may be: the more, the busier the host is."""
        with agent.Channel(self.machine / "agent", 10 * PATIENCE) as channel:
            agent.synchronise(channel)
            answers = []
            for _ in range(20):
                before = time.time()
                theirs = int(channel.execute("guest-get-time")) / 1e9
                after = time.time()
                answers.append((after - before, theirs - (before + after) / 2))
            longest, offset = min(answers)
            return offset, longest / 2

    # ---- waiting

    def wait(self, condition: Callable[[], object], seconds: float, what: str) -> float:
        """Waits until the condition holds, also over moments in which the machine does not answer; returns for how long."""
        began = time.monotonic()
        last: list[object] = [None]

        def holds() -> object:
            try:
                last[0] = condition()
            except (agent.AgentError, AssertionError) as error:
                last[0] = error
                return False
            return last[0]

        wait_until(holds, seconds * PATIENCE, lambda: f"{what}; last: {last[0]}\n{self.story()}", pause=0.5)
        return time.monotonic() - began

    def wait_for_cloud(self, interface: str = "eth0", seconds: float = 60) -> float:
        return self.wait(lambda: self.is_connected(interface), seconds, f"the cloud over {interface}")

    def wait_for_restart(self, unit: str, before: str) -> None:
        """Until systemd has started a service again whose main process was `before`."""
        self.wait(
            lambda: self.property(unit, "ActiveState") == "active" and self.main_process(unit) not in (before, "0"),
            60,
            f"{unit} runs again",
        )

    def story(self) -> str:
        """For whoever has waited in vain."""
        try:
            return self.sh(
                "systemctl --failed --no-legend; ip -br address; ip route; "
                "journalctl -b -u gateway-app -u mosquitto --no-pager | tail -n 40"
            )
        except (agent.AgentError, AssertionError) as error:
            return f"{error}\n" + (self.machine / "console").read_text(errors="replace")[-3000:]

    # ---- what can be seen of it

    def property(self, unit: str, name: str) -> str:
        return self.sh(f"systemctl show --property={name} --value {unit}")

    def main_process(self, unit: str) -> str:
        return self.property(unit, "MainPID")

    def failed_units(self) -> str:
        return self.sh("systemctl --failed --no-legend --plain")

    def journal(self, unit: str) -> str:
        return self.sh(f"journalctl -b -u {unit} -o cat --no-pager")

    def is_connected(self, interface: str) -> bool:
        """By what the application tells systemd about itself."""
        told = self.property("gateway-app", "StatusText")
        return f"over {interface}" in told and self.default_interfaces() == [interface]

    def default_interfaces(self) -> list[str]:
        return [route["dev"] for route in json.loads(self.sh("ip -json route show default") or "[]")]

    def kept(self, topic: str) -> str:
        """What the machine's broker keeps on a topic, empty for nothing."""
        return self.run(
            *("mosquitto_sub", "-u", "orv-diagnostics", "-P", "for-diagnostics", "-t", topic, "-C", "1", "-W", "3")
        ).output.strip()

    def forget_handshakes(self) -> None:
        self._forgotten = {side: len(super(Gateway, self).handshakes(side)) for side in ("eth", "cell")}

    def handshakes(self, side: str) -> list[str]:
        return super().handshakes(side)[self._forgotten.get(side, 0) :]

    def file(self, path: str) -> str | None:
        outcome = self.run("cat", path)
        return outcome.output if outcome.status == 0 else None

    def says_up(self) -> bool:
        """Whether the status file says that the cloud is connected."""
        return '"Cloud Connection","Up"' in (self.file(STATUSES) or "")
