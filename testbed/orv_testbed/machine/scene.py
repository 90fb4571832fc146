# SPDX-License-Identifier: Apache-2.0
"""The scene of the scenarios on a MIPS32 machine: gateway-app is the installed service, its neighbours are Debian's."""
from __future__ import annotations

import json
import pathlib
from collections.abc import Iterable
from typing import Any

from orv_testbed.application import Application
from orv_testbed.calls import Figures
from orv_testbed.machine.gateway import Gateway
from orv_testbed.scene import Scene
from orv_testbed.topics import ALL
from orv_testbed.waiting import SLACK, wait_until
from orv_testbed.wire import Message, Witness

TRANSCRIPT = "/run/gateway-app/transcript.jsonl"
CURSOR = "/run/observer.cursor"  # the observer tells what the journal has after it
DROP_IN = "/run/systemd/system/gateway-app.service.d/scene.conf"
LOG_LEVEL = "info,OrvRoute=debug"
FRESH = f"""
systemctl stop observer gateway-app mosquitto
journalctl --sync
rm -f {CURSOR}
journalctl --quiet --lines=1 --cursor-file={CURSOR} >/dev/null
rm -f /var/lib/mosquitto/mosquitto.db /var/tmp/new_enterprise_*.csv {TRANSCRIPT}
mkdir -p {pathlib.PurePosixPath(DROP_IN).parent}
printf '[Service]\\nEnvironment=ORV_LOG_LEVEL=%s\\n' '{{level}}' >{DROP_IN}
sed -i '/^transcript=\\|^cloud-keepalive/d' /etc/orv/gateway-app.ini
# A machine that is held up for a second by what else its host has to do has not lost the cloud.
printf 'transcript=%s\\ncloud-keepalive-ethernet-s=3\\n' {TRANSCRIPT} >>/etc/orv/gateway-app.ini
systemctl daemon-reload
systemctl start observer mosquitto
"""
ORDINARY = f"""
systemctl stop observer
rm -f {DROP_IN}
sed -i '/^transcript=\\|^cloud-keepalive/d' /etc/orv/gateway-app.ini
systemctl daemon-reload
systemctl restart gateway-app
"""


def prepare(gateway: Gateway, level: str) -> None:
    """Broker and status files as on a new gateway, the observer telling, and gateway-app stopped."""
    seen = Seen(gateway)
    gateway.sh(FRESH.format(level=level))
    wait_until(lambda: seen.lines("Subscribed"), SLACK, "the observer's subscription")
    gateway.forget_handshakes()


class Seen:
    """What the machine's observer has told since this object was made."""

    def __init__(self, gateway: Gateway) -> None:
        self.file = gateway.machine / "seen"
        self.begin = self.file.stat().st_size

    def lines(self, kind: str) -> list[str]:
        """Whole lines only; without the word in front."""
        with self.file.open("rb") as file:
            file.seek(self.begin)
            text = file.read().decode("utf-8", "replace")
        whole: Iterable[str] = text.split("\n")[:-1]
        return [line[len(kind) + 1 :] for line in whole if line.startswith(kind + " ")]


class ServiceWitness(Witness):
    """An independent client of the machine's broker."""

    def __init__(self, gateway: Gateway, seen: Seen) -> None:
        self.gateway, self.seen = gateway, seen

    def lines(self) -> list[str]:
        return self.seen.lines("wire")

    def messages(self, topic: str | None = None, latest_connection: bool = False) -> list[Message]:
        parted = (line.split(" ", 2) for line in self.lines())
        messages = [Message(name, payload, retained == "1") for retained, name, payload in parted]
        return [message for message in messages if topic in (None, message.topic)]

    def kept(self) -> dict[str, str]:
        told = self.gateway.run(
            *("mosquitto_sub", "-u", "orv-diagnostics", "-P", "for-diagnostics", "-t", ALL),
            *("--retained-only", "-W", "2", "-F", "%t %p"),
        )
        return dict(line.split(" ", 1) for line in told.output.splitlines())


class ServiceApplication(Application):
    """gateway-app as systemd runs it."""

    def __init__(self, gateway: Gateway, seen: Seen) -> None:
        self.gateway, self.box, self.seen = gateway, gateway, seen

    def log(self) -> str:
        return "".join(line + "\n" for line in self.seen.lines("log"))

    def transcript(self, what: str | None = None) -> list[dict[str, Any]]:
        entries = [json.loads(line) for line in self.seen.lines("happening")]
        return [entry for entry in entries if what in (None, entry["what"])]

    def signal(self, name: str) -> None:
        self.gateway.sh(f"systemctl kill --signal={name} gateway-app")

    def stop(self) -> Figures:
        self.gateway.sh("systemctl stop gateway-app")
        result = self.gateway.property("gateway-app", "Result")
        assert result == "success", f"the application has ended with {result}"
        wait_until(lambda: self.transcript("end"), SLACK, "the application's figures")
        return self.transcript("end")[-1]


class MachineScene(Scene):
    """As on a box; to be closed, which makes an ordinary gateway of the machine again."""

    # pylint: disable=super-init-not-called
    def __init__(self, gateway: Gateway, level: str = LOG_LEVEL) -> None:
        prepare(gateway, level)
        seen = Seen(gateway)
        self.take(gateway, ServiceWitness(gateway, seen), ServiceApplication(gateway, seen))
        self.gateway = gateway
        offset, error = gateway.clock_offset()
        self.clocks = [(0, offset)]
        self.clock_grain += error
        gateway.sh("systemctl start gateway-app")

    def audit(self) -> None:
        # The machine's kernel has found out how fast its clock runs while the host was busy: it may drift.
        offset, error = self.gateway.clock_offset()
        self.clock_grain += error + abs(offset - self.clocks[0][1])
        super().audit()

    def close(self) -> None:
        self.gateway.sh(ORDINARY)
