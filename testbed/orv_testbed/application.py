# SPDX-License-Identifier: Apache-2.0
"""gateway-app on the box."""
import json
import re

from orv_testbed import route_states
from orv_testbed.box import SLACK, program, wait_until


class Application:
    """gateway-app on the box, with its log and its transcript."""

    def __init__(self, box, folder, *options, clock=False, output=None):
        self.box = box
        self.log_file = folder / "app.log"
        self.transcript_file = folder / "transcript.jsonl"
        environment = {"ORV_BOX_CLOCK": "1"} if clock else {}  # its own wall clock, see `box clock`
        with open(self.log_file, "w", encoding="utf-8") as log:
            output = log if output is None else output
            # Several gateways share this machine; how long a call lasts is to tell of the call, not of the other gateways.
            self.process = box.start(
                "nice",
                "-n",
                "-15",
                "env",
                "RES_OPTIONS=timeout:1 attempts:2",
                program("gateway-app"),
                "--cloud-host",
                "cloud.box.test",
                "--transcript",
                str(self.transcript_file),
                *options,
                stdout=output,
                stderr=output,
                **environment,
            )

    def log(self):
        return self.log_file.read_text(encoding="utf-8")

    def mark(self):
        """A place in the log: `said` looks behind it."""
        return len(self.log())

    def said(self, text, since=0):
        return text in self.log()[since:]

    def wait_for(self, text, seconds, since=0):
        """Waits for a log line that holds `text`; returns the place behind it."""
        wait_until(
            lambda: self.said(text, since), seconds + SLACK, lambda: f'"{text}" in the log\n{self.interesting()}'
        )
        return self.log().index(text, since) + len(text)

    def wait_for_session(self, seconds):
        """Waits until the session with the broker has been made again."""
        wait_until(
            lambda: re.search(r"ORV_Stack\S*: connected again", self.log()),
            seconds + SLACK,
            lambda: f"the session in the log\n{self.interesting()}",
        )

    def times_of(self, text, since=0):
        """The times of the log lines that hold `text`."""
        return [line.split(" ", 1)[0] for line in self.log()[since:].splitlines() if text in line]

    def lines_of(self, text):
        return [line for line in self.log().splitlines() if text in line]

    def status(self):
        """What it tells about itself."""
        return json.loads(self.box.file("/run/gateway-app/status.json"))

    def route_state(self, since=0):
        """The state that the route supervision has entered last."""
        states = [route_states.entered(line) for line in self.log()[since:].splitlines()]
        return ([state for state in states if state] or ["ETHERNET_ACTIVE"])[-1]

    def complaints(self):
        """The log's warnings and errors, without their times."""
        lines = [line.split(" ", 2) for line in self.log().splitlines()]
        return [words[2] for words in lines if len(words) == 3 and words[1] in ("warning", "error", "critical")]

    def reported(self, *events):
        """Which of these events was reported last; None when none was."""
        names = [entry["event"] for entry in self.transcript("event") if entry["reported"] and entry["event"] in events]
        return names[-1] if names else None

    def interesting(self):
        return "\n".join(line for line in self.log().splitlines() if " trace " not in line)

    def transcript(self, what=None):
        if not self.transcript_file.exists():
            return []
        lines = self.transcript_file.read_text(encoding="utf-8").splitlines()
        entries = [json.loads(line) for line in lines if line.endswith("}")]
        return [entry for entry in entries if what in (None, entry["what"])]

    def monotonic(self, what):
        """When something happened, in seconds of a clock that does not jump."""
        return [entry["monotonic"] for entry in self.transcript(what)]

    def cloud_interface(self):
        """Over which interface the cloud is connected; None while it is not."""
        entries = [entry for entry in self.transcript() if entry["what"] in ("cloud_connected", "cloud_lost")]
        return entries[-1].get("interface") if entries and entries[-1]["what"] == "cloud_connected" else None

    def connected_for(self, begin, end):
        """For how many seconds between the two, by a clock that does not jump, the cloud was connected."""
        total, since = 0.0, None
        for entry in self.transcript():
            if entry["what"] == "cloud_connected":
                since = max(begin, entry["monotonic"])
            elif entry["what"] == "cloud_lost" and since is not None:
                total += max(0.0, min(end, entry["monotonic"]) - since)
                since = None
        return total + (max(0.0, end - since) if since is not None else 0.0)

    def wait_for_cloud(self, interface, seconds):
        wait_until(
            lambda: self.cloud_interface() == interface,
            seconds + SLACK,
            lambda: f"cloud connected over {interface}\n{self.interesting()}",
        )

    def stop(self):
        """Ends it in good order; returns the figures on its calls of the library."""
        self.process.terminate()
        assert self.process.wait(timeout=10) == 0
        return self.transcript("end")[-1]
