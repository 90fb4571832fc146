# SPDX-License-Identifier: Apache-2.0
"""The MIPS32 machine as the scenarios see it: its box, its power, its services, its journal."""
from __future__ import annotations

import os
import pathlib
import subprocess
import tempfile
import time
from collections.abc import Callable

from orv_testbed.machine import agent

ROOT = pathlib.Path(__file__).resolve().parents[3]
# Each limit is for a machine that runs as fast as the host allows: an emulated one on a busy host may need many times as long.
PATIENCE = 4.0
STATUS_FILE = "/var/tmp/new_enterprise_statuses.csv"
GREEN = "/orv/led/connected_services_green"
INHIBIT = "/orv/network/wan/inhibit_dns"


class Gateway:
    """A box whose gateway is a machine."""

    def __init__(self, name: str) -> None:
        self.folder = pathlib.Path(tempfile.gettempdir()) / f"orv-box-{name}"
        self.machine = self.folder / "machine"
        self.environment = {**os.environ, "ORV_BOX": name, "ORV_BOX_DIR": str(self.folder)}

    def box(self, *words: str, seconds: float = 120) -> str:
        command = [str(ROOT / "testbed/box"), *words]
        done = subprocess.run(
            command, env=self.environment, capture_output=True, text=True, timeout=seconds * PATIENCE, check=False
        )
        assert done.returncode == 0, f"box {' '.join(words)}: {done.stdout}{done.stderr}"
        return done.stdout

    def run(self, *command: str, seconds: float = 30) -> agent.Outcome:
        return agent.run(self.machine, *command, seconds=seconds * PATIENCE)

    def sh(self, script: str, seconds: float = 30) -> str:
        """The output of a shell script on the machine, which must succeed."""
        outcome = self.run("sh", "-ec", script, seconds=seconds)
        assert outcome.status == 0, f"{script}: status {outcome.status}\n{outcome.output}{outcome.errors}"
        return outcome.output.strip()

    def cut_power(self) -> None:
        self.box("power", "cut")

    def boot(self, clock: str | None = None) -> None:
        self.box("power", "on", *([clock] if clock else []))

    def wait(self, condition: Callable[[], object], seconds: float, what: str) -> float:
        """Waits until the condition holds, also over moments in which the machine does not answer; returns for how long."""
        began = time.monotonic()
        last: object = None
        while time.monotonic() < began + seconds * PATIENCE:
            try:
                last = condition()
                if last:
                    return time.monotonic() - began
            except (agent.AgentError, AssertionError) as error:
                last = error
            time.sleep(0.5)
        raise AssertionError(f"not within {seconds * PATIENCE:.0f} s: {what}; last: {last}\n{self.report()}")

    def report(self) -> str:
        try:
            return self.sh(
                "systemctl --failed --no-legend; journalctl -b -u gateway-app -u mosquitto --no-pager | tail -n 40"
            )
        except (agent.AgentError, AssertionError) as error:
            return f"{error}\n" + (self.machine / "console").read_text(errors="replace")[-3000:]

    def property(self, unit: str, name: str) -> str:
        return self.sh(f"systemctl show --property={name} --value {unit}")

    def cloud(self) -> str:
        """What the application tells systemd about itself."""
        return self.property("gateway-app", "StatusText")

    def is_connected(self, interface: str) -> bool:
        return f"over {interface}" in self.cloud() and self.default_interface() == interface

    def wait_for_cloud(self, interface: str = "eth0", seconds: float = 60) -> float:
        return self.wait(lambda: self.is_connected(interface), seconds, f"the cloud over {interface}")

    def default_interface(self) -> str:
        return self.sh("ip route show default | sed -n 's/.* dev \\([^ ]*\\).*/\\1/p' | head -n 1")

    def kept(self, topic: str) -> str:
        """What the machine's broker keeps on a topic, empty for nothing."""
        return self.run(
            *("mosquitto_sub", "-u", "orv-diagnostics", "-P", "for-diagnostics", "-t", topic, "-C", "1", "-W", "3")
        ).output.strip()

    def journal(self, unit: str) -> str:
        return self.sh(f"journalctl -b -u {unit} -o cat --no-pager")

    def handshakes(self, side: str) -> int:
        """How many TLS handshakes the cloud's endpoint has completed over this side."""
        lines = [line.split() for line in self.box("log", "cloud-https").splitlines()]
        return sum(1 for words in lines if words[1] == side and words[3] == "handshake")

    def failed_units(self) -> str:
        return self.sh("systemctl --failed --no-legend --plain")
