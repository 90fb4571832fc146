# SPDX-License-Identifier: Apache-2.0
"""What goes over the gateway's broker, seen by an independent client."""
import json
import subprocess

from orv_testbed.box import SLACK, wait_until

INHIBIT = "/orv/network/wan/inhibit_dns"
GREEN = "/orv/led/connected_services_green"
YELLOW = "/orv/led/connected_services_yellow"
CLOUD = "/orv/apps_control/features/Ent/status/EntCon"
NO_NETWORK = "/orv/apps_control/features/Ent/status/NoExtNet"
RETAINED = {INHIBIT, GREEN, YELLOW, CLOUD, NO_NETWORK}
AVAILABLE = "/orv/apps_control/features/gateway-app/available"
COMMAND = ("/usr/bin/python3", "-u", "-m", "orv_testbed.witness")


class Witness:
    """What an independent client of the gateway's broker has seen."""

    def __init__(self, box, folder):
        self.box = box
        self.file = folder / "witness.jsonl"
        with open(self.file, "w", encoding="utf-8") as output:
            self.process = box.start(*COMMAND, stdout=output, stderr=output)
        wait_until(
            lambda: "listening" in self.file.read_text(encoding="utf-8"), 10 + SLACK, "the witness's subscription"
        )

    def lines(self):
        return self.file.read_text(encoding="utf-8").splitlines()

    def connections(self):
        """How often it has connected to the broker."""
        return self.lines().count("connected")

    def messages(self, topic=None, latest_connection=False):
        """(topic, payload, retained) in their order."""
        lines = self.lines()
        if latest_connection:
            lines = lines[len(lines) - lines[::-1].index("connected") :]
        entries = [json.loads(line) for line in lines if line.startswith("{") and line.endswith("}")]
        return [
            (entry["topic"], entry["payload"], entry["retained"])
            for entry in entries
            if topic in (None, entry["topic"])
        ]

    def payloads(self, topic, latest_connection=False):
        return [payload for _, payload, _ in self.messages(topic, latest_connection)]

    def last(self, topic):
        return (self.payloads(topic) or [None])[-1]

    def wait_for(self, topic, payload, seconds=0):
        wait_until(
            lambda: self.last(topic) == payload, seconds + SLACK, f"{payload} on {topic}, not {self.payloads(topic)}"
        )

    def kept(self):
        """What the broker hands to someone who subscribes now."""
        done = subprocess.run(
            [*self.box.command("exec"), *COMMAND, "--kept"],
            env=self.box.environment,
            text=True,
            capture_output=True,
            timeout=30,
            check=False,
        )
        assert done.returncode == 0, done.stderr
        return json.loads(done.stdout)

    def wrongly_retained(self):
        """Messages that were published retained and must not be, or the other way round."""
        return [
            message
            for message in self.messages()
            if message[2] != (message[0] in RETAINED) and message != (AVAILABLE, "false", True)
        ]
