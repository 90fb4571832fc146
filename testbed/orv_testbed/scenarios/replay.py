# SPDX-License-Identifier: Apache-2.0
"""Makes a scenario of orv-shell of what a run has left behind."""
from __future__ import annotations

import argparse
import pathlib
import re
import sys
import tempfile
from collections.abc import Sequence

from orv_testbed import broken_pipe, topics
from orv_testbed.programs import program
from orv_testbed.scenarios import recording
from orv_testbed.scenarios.journal import Failed, Journal, Published, difference, quoted, simulate
from orv_testbed.scenarios.recording import Happening, Unreadable

EVENTS = {
    f"{side}_{what}"
    for side in ("ETHERNET", "CELLULAR")
    for what in ("CONNECTED", "DISCONNECTED", "IP_GAINED", "IP_LOST")
} | {"CLOUD_CONNECTED", "CLOUD_DISCONNECTED", "PANEL_CLOUD_ENABLED", "PANEL_CLOUD_DISABLED", "FAILURE"}
ACTIONS = {"ENABLED", "DISABLED", "RELOAD", "UNSUPPORTED"}
OWN_STATUS = {"booting", "ready", "error", "noerror"}
PATHS = {"eth0": "ethernet", "wwan0": "cellular"}
PATIENCE = 60  # seconds of virtual time: more than any delay of the supervision, with an attempt that hangs
LATEST = 5  # seconds that a recorder on a busy gateway may be late
POKE_ERROR = re.compile(r"poke error (\d+)")
TO_CELLULAR, TO_ETHERNET = "poke success, route to Cell", "poke success, route to ETH"
POKES = {"Started Poke to cell if ": ("cellular", TO_CELLULAR), "Started Poke eth if ": ("ethernet", TO_ETHERNET)}
RAN_OUT_OF_TIME = "28"


def remark(text: str) -> str:
    """A line that is no command, whatever a recording has brought into the text."""
    return "# " + re.sub(r"[^ -~]", "?", text)


class Replay:
    """The lines of a scenario, in the order in which things happened.

    Time passes in it only where the library is waited for, and no longer than until it has done what it did in the run. So
    everything happens in the order of the run, however long it took there.
    """

    def __init__(self, name: str, run: list[Happening], log: list[Happening], wire: list[Happening]) -> None:
        self.name, self.run, self.log, self.wire = name, run, log, self._orders_before_actions(name, run, wire)
        self.lines: list[str] = []
        self.begun = False
        self.fates = {"ethernet": "back", "cellular": "back"}
        self.broker_lost = False
        self.states = [item for item in log if self._is_state(item)]
        self.knows_states = bool(self.states)

    @staticmethod
    def _orders_before_actions(name: str, run: list[Happening], wire: list[Happening]) -> list[Happening]:
        """The recorder may have got an order later than the application has followed it."""
        placed = list(wire)
        for action in (item for item in run if item.what == "action"):
            order = Published(topics.of_feature(name, "init"), action.fields["action"], False)
            for number, item in enumerate(placed):
                message = item.fields["message"]
                same = (message.topic, message.payload.upper()) == (order.topic, order.payload)
                if same and action.time <= item.time < action.time + LATEST:
                    placed[number] = item._replace(time=action.time - 0.001)
                    break
        return placed

    @staticmethod
    def _is_state(item: Happening) -> bool:
        level, text = item.fields["level"], str(item.fields["text"])
        says_so = {"debug": "Tick: ", "error": "Failed to set"}
        return item.fields["name"] == "OrvRoute" and level in says_so and text.startswith(says_so[level])

    def make(self) -> str:
        begin, end = self.run[0].time, self.run[-1].time
        # What the broker kept is heard when the recording begins, the rest while the run lasts.
        heard = [(item, self._log) for item in self.log] + [(item, self._message) for item in self.wire]
        rest = [pair for pair in heard if begin <= pair[0].time <= end or self._was_kept(pair[0], begin)]
        told = {
            "event": self._event,
            "ready": self._ready,
            "reload": self._reload,
            "action": self._action,
            "reconnect": self._reconnect,
            "path": self._path,
            "default_route": self._default_route,
        }
        # A record of the transcript is written after what it tells of has been done.
        run = [(item, told.get(item.what, self._remark)) for item in self.run]
        for item, repeat in sorted((*rest, *run), key=lambda pair: pair[0].time):
            repeat(item)
        return "\n".join([remark(f"{self.name} as it ran from {self.run[0].fields['time']} on"), *self.lines, ""])

    def _was_kept(self, item: Happening, begin: float) -> bool:
        return item.what == "message" and item.time < begin and item.fields["message"].retained

    def _say(self, line: str, item: Happening) -> None:
        source = {"log": "log", "message": "wire"}.get(item.what, "transcript")
        self.lines.append(f"{line:<60} # {source} {item.place.rpartition(':')[2]}")

    def _begin(self, item: Happening) -> None:
        if not self.begun:
            self.begun = True
            self._say(f"init {quoted(self.name)}", item)
            self._say("start", item)

    # ---- the transcript

    def _remark(self, item: Happening) -> None:
        reason = "".join(f": {value}" for key, value in item.fields.items() if key in ("reason", "number"))
        self.lines.append(remark(f"{item.fields.get('time', '')} {item.what}{reason}"))

    def _event(self, item: Happening) -> None:
        event = item.fields["event"]
        if event not in EVENTS:
            raise Unreadable(
                f"{item.place}: no event of the library: {event[:40]!r}; is the transcript of a newer version?"
            )
        if item.fields["reported"]:
            self._begin(item)
            self._say(f"event {event}", item)

    def _ready(self, item: Happening) -> None:
        self._begin(item)
        self._say("status ready", item)

    def _reload(self, item: Happening) -> None:
        if self.begun:
            self._say("status booting", item)
            self._say("status ready", item)

    def _action(self, item: Happening) -> None:
        action = item.fields["action"]
        if action not in ACTIONS:
            raise Unreadable(
                f"{item.place}: no action of the library: {action[:40]!r}; is the transcript of a newer version?"
            )
        if not self.wire:
            self._say(f"publish {quoted(topics.of_feature(self.name, 'init'))} {action.lower()}", item)
        self._say(f"expect OnAppActionIndication {action}", item)

    def _reconnect(self, item: Happening) -> None:
        if not self.knows_states:
            self._expect("reconnect", item)

    def _path(self, item: Happening) -> None:
        # A tick has seen the cloud connected; on Cellular it is the one that moves the route.
        if not self.knows_states and item.fields["path"] == "Ethernet":
            self._say("tick 3", item)

    def _default_route(self, item: Happening) -> None:
        """Of interest where the supervision has moved it: then it says so afterwards."""
        interface = item.fields["interface"]
        if self.knows_states or interface not in PATHS or not self._is_a_move(item):
            return
        if interface == "wwan0":
            self._path_becomes("ethernet", "dead", item)
        self._path_becomes(PATHS[interface], "back", item)
        self._expect(f"route {interface}", item)

    def _is_a_move(self, item: Happening) -> bool:
        for later in self.run[self.run.index(item) + 1 :]:
            if later.what == "reconnect":
                return True
            if later.what == "default_route" and later.fields["interface"]:
                return False
        return False

    def _expect(self, what: str, item: Happening) -> None:
        self._say(f"expect {what} within {PATIENCE}s", item)

    # ---- the log

    def _log(self, item: Happening) -> None:
        name, text = item.fields["name"], item.fields["text"]
        if self._is_state(item):
            self._state(item, text.removeprefix("Tick: ").strip())
        elif name == "QueueOwner" and text.startswith("ORV_Stack"):
            if ": lost the connection to" in text:
                self.broker_lost = True
                self._say("broker lost", item)
            elif ": connected again to" in text and self.broker_lost:
                self.broker_lost = False
                self._say("broker back", item)
                self._say("wait 300ms", item)

    def _state(self, item: Happening, text: str) -> None:
        place = self.states.index(item)
        following = [self._text(later) for later in self.states[place + 1 :]]
        if text in (TO_CELLULAR, TO_ETHERNET):
            self._path_becomes("cellular" if text == TO_CELLULAR else "ethernet", "back", item)
            if following and following[0].startswith("Failed to set"):
                self._say("connman frozen", item)
        for beginning, (path, success) in POKES.items():
            if text.startswith(beginning):
                self._path_becomes(path, self._fate(item, success), item)
        if text == "route is Cell, reconnecting":
            # The first attempt over Ethernet begins with the next tick.
            attempts = [later for later in self.states[place + 1 :] if "Started Poke eth" in self._text(later)]
            self._path_becomes("ethernet", self._fate(attempts[0], TO_ETHERNET) if attempts else "dead", item)
        self._expect(f"state {quoted(text)}", item)
        if text.startswith("Failed to set"):
            self._say("connman thawed", item)

    @staticmethod
    def _text(item: Happening) -> str:
        text: str = item.fields["text"]
        return text.removeprefix("Tick: ").strip()

    def _fate(self, attempt: Happening, success: str) -> str:
        """What an attempt met at first: what the log says of its failure, silence if it says nothing, or the cloud."""
        for later in self.log[self.log.index(attempt) + 1 :]:
            if later.fields["name"] != "OrvRoute":
                continue
            if code := POKE_ERROR.search(later.fields["text"]):
                return "dead" if code[1] == RAN_OUT_OF_TIME else "refused"
            if self._is_state(later):
                return "back" if self._text(later) == success else "dead"
        return "dead"

    def _path_becomes(self, path: str, fate: str, item: Happening) -> None:
        if self.fates[path] != fate:
            self.fates[path] = fate
            self._say(f"{path} {fate}", item)

    # ---- the wire

    def _message(self, item: Happening) -> None:
        message: Published = item.fields["message"]
        if not self._is_own(message):
            if self._is_for_the_application(message):
                flag = " retained" if message.retained else ""
                self._say(f"publish {quoted(message.topic)} {quoted(message.payload)}{flag}", item)
        elif message.topic == topics.INHIBIT_DNS and not self.knows_states and item.time >= self.run[0].time:
            moves_to = self._move_before_next_word(item)
            if message.payload == "permit":
                self._path_becomes("cellular", "back", item)
                if moves_to == "eth0":
                    self._path_becomes("ethernet", "back", item)
            elif moves_to is None and self.fates["ethernet"] == "back":
                self._path_becomes("cellular", "dead", item)
            self._expect(f"published {message.topic} {quoted(message.payload)}", item)

    def _move_before_next_word(self, item: Happening) -> str | None:
        """Where the supervision has moved the route before it spoke to the name servers' programs again."""
        words = [other.time for other in self.wire if other.fields["message"].topic == topics.INHIBIT_DNS]
        end = min((time for time in words if time > item.time), default=self.run[-1].time)
        moves = [move for move in self.run if move.what == "default_route" and item.time <= move.time <= end]
        return next((move.fields["interface"] for move in moves if self._is_a_move(move)), None)

    def _is_for_the_application(self, message: Published) -> bool:
        modem = {"iccid", "technology", "provider", "strength"}
        return (
            message.topic in {topics.PANEL_GUID, topics.PANEL_CONNECTION, topics.MODEM_IMEI}
            or message.topic in {topics.MODEM_SIM + item for item in modem}
            or message.topic in {topics.of_feature(self.name, kind) for kind in ("init", "available", "supported")}
            or topics.SHUTDOWN_READINESS in message.topic
        )

    def _is_own(self, message: Published) -> bool:
        """What the application itself has published, as far as it can be told."""
        if message.topic == topics.of_feature(self.name, "init"):
            return message.payload in OWN_STATUS
        return message.topic in {
            topics.CLOUD,
            topics.NO_NETWORK,
            topics.GREEN,
            topics.YELLOW,
            topics.INHIBIT_DNS,
        } or message.topic == topics.of_feature(self.name, "available")

    # ---- what the run did, to compare

    def expected(self) -> Journal:
        kinds = (["session", "route"] if self.wire else []) + (["states"] if self.knows_states else [])
        journal = Journal(kinds)
        begin, end = self.run[0].time, self.run[-1].time + 1
        for item in (*self.log, *self.wire):
            if not begin <= item.time <= end:
                continue
            if item.what == "message" and self._is_own(item.fields["message"]):
                journal.published(item.fields["message"])
            elif item.what == "log" and self._is_state(item):
                journal.state(item.fields["level"], self._text(item))
        return journal


def name_on(wire: list[Happening]) -> str | None:
    """The application that has announced itself last."""
    pattern = re.compile(re.escape(topics.FEATURES) + r"([^/]+)/available")
    names = [
        match[1]
        for item in wire
        if item.fields["message"].payload == "true" and (match := pattern.fullmatch(item.fields["message"].topic))
    ]
    return names[-1] if names else None


def check(replay: Replay, scenario: str) -> str:
    """@raise Failed: the simulation does something else; says what"""
    with tempfile.TemporaryDirectory(prefix="orv-replay-") as folder:
        file = pathlib.Path(folder, "replay.orv")
        file.write_text(scenario, encoding="utf-8")
        expected = replay.expected()
        seen, _ = simulate(program("orv-shell"), file, tuple(expected.sequences))
    if "states" in expected.sequences:  # failed attempts: as many as there was time for
        seen.sequences["states"] = [line for line in seen.sequences["states"] if "poke error" not in line]
    if not expected.sequences:
        return "every step came; without the log or the wire there is nothing more to compare"
    if expected.lines() != seen.lines():
        raise Failed(difference(expected, seen, "in the run", "in virtual time"))
    return f"the same {len(expected.lines())} happenings in the run and in virtual time"


def main(arguments: Sequence[str]) -> int:
    parser = argparse.ArgumentParser(
        prog="replay",
        description="Makes a scenario for orv-shell --simulate of the last run in gateway-app's transcript.",
        epilog=f"See docs/replay.md. The wire is recorded with: {recording.RECORD_THE_WIRE}",
    )
    parser.add_argument("transcript", type=pathlib.Path, help="what --transcript of gateway-app has written")
    parser.add_argument(
        "--log", type=pathlib.Path, help="the application's log; at debug it has every state of the route"
    )
    parser.add_argument("--wire", type=pathlib.Path, help="what went over the broker, recorded by mosquitto_sub")
    parser.add_argument("--name", help="the application's name; else the wire's, or gateway-app")
    parser.add_argument("--check", action="store_true", help="run the scenario too, and compare what happens")
    options = parser.parse_args(arguments)
    try:
        run = recording.transcript(options.transcript)
        log = recording.log(options.log) if options.log else []
        wire = recording.wire(options.wire) if options.wire else []
        replay = Replay(options.name or name_on(wire) or "gateway-app", run, log, wire)
        scenario = replay.make()
        print(scenario, end="")
        if options.check:
            print(f"replay: {check(replay, scenario)}", file=sys.stderr)
    except (Unreadable, Failed) as fault:
        print(f"replay: {fault}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(broken_pipe.status_of(lambda: main(sys.argv[1:])))
