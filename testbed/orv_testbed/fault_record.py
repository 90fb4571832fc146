# SPDX-License-Identifier: Apache-2.0
"""Which of a box's faults are in force, whoever has made them: the command testbed/box notes each in the box's folder."""
from __future__ import annotations

import fcntl
import os
import pathlib
import re
from typing import TYPE_CHECKING

if TYPE_CHECKING:  # the command notes a fault without it
    from orv_testbed.box import Box

NO_FAULT = {"back", "off", "up", "ok", "one", "gone", "renumber"}  # as a command's last word


def faults_in_force(box: Box) -> list[str]:
    """As the words that set each, such as "provider eth dead", the oldest first. None of a box that is not up."""
    return FaultRecord(box.folder).in_force()


def after(faults: list[str], word: str, *words: str) -> list[str]:
    """The faults that are in force once a command of the box has succeeded."""
    ends, sets = change(word, *words)
    if (word, *words) == ("connman", "start") and "connman stop" in faults:
        ends += "|cellular out"  # the modem comes back as after a boot
    return [fault for fault in faults if not re.fullmatch(ends, fault)] + sets


def change(word: str, *words: str) -> tuple[str, list[str]]:
    """What a command changes: a pattern of the faults that it ends, and those that it sets."""
    said = " ".join((word, *words))
    match (word, *words):
        case ("names", side, "back"):
            return f"names {side} .*", []
        case ("names", side, "lie" | "first", *_):
            return f"names {side} (lie|first) .*", [said]
        case ("cable", "in") | ("cellular", "reset"):
            return f"{word} .*", []
        case ("ipv6", side, "renumber"):
            return "", []  # nothing that lasts
        case ("cellular", "in"):
            return "cellular out", []
        case (("broker" | "connman"), "stop"):
            return f"{word} .*", [said]  # one that is frozen ends, too
        case ("connman", "restart" | "crash"):
            return "connman .*", []  # it is started again at once
        case (("broker" | "connman"), "start"):
            return f"{word} stop", []
        case (("broker" | "connman" | "bus"), "thaw"):
            return f"{word} freeze", []
        case ("program", name, "thaw"):
            return f"program {name} freeze", []
        case ("lease", _, "renumber"):
            return "lease .*", []  # it gives leases
        case ("names", _, "mute") | (("cable" | "cellular" | "broker" | "connman" | "bus"), _):
            return re.escape(said), [said]
        case ("cloud-tls", how, *side):
            ends = f"cloud-tls [^ ]+ {side[0] if side else '(eth|cell)'}"
            return ends, [] if how == "ok" else [f"cloud-tls {how} {one}" for one in side or ("eth", "cell")]
        case ("clock", offset):
            return "clock .*", [f"clock {int(offset):+d}"] if int(offset) else []
        case ("power", *_):
            # The machine comes back with its cables plugged in, and a modem that has a bearer.
            return "(power|cable|cellular) .*", [] if words == ("on",) else [said]
    kind = " ".join((word, *words[:-1]))
    return f"{re.escape(kind)} [^ ]+", [] if words[-1] in NO_FAULT else [said]


class FaultRecord:
    """A line for each fault, in a file of the box's folder."""

    def __init__(self, folder: pathlib.Path) -> None:
        self._folder = folder
        self._file = folder / "faults"

    def in_force(self) -> list[str]:
        try:
            return self._file.read_text(encoding="utf-8").splitlines()
        except FileNotFoundError:
            return []

    def note(self, word: str, *words: str) -> None:
        """After a command has succeeded. Commands may run side by side."""
        handle = os.open(self._folder, os.O_RDONLY | os.O_DIRECTORY)
        try:
            fcntl.flock(handle, fcntl.LOCK_EX)
            faults = after(self.in_force(), word, *words)
            new = self._file.with_suffix(".new")
            new.write_text("".join(f"{fault}\n" for fault in faults), encoding="utf-8")
            new.replace(self._file)
        finally:
            os.close(handle)
