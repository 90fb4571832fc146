# SPDX-License-Identifier: Apache-2.0
"""scenarios [--box NAME] SHELL FILE...

Runs scenario files of orv-shell in virtual time and on a real gateway, and compares what happened: what the application's
two connections published, the callbacks, what the route supervision said about its state, and, on a box, which interface the
connection manager has put on top. The gateway is a broker of this machine, or, with --box, a gateway box of that
name, which is made for each scenario and taken down.

The commands about the surroundings (broker, publish, ethernet, ...) are carried out here, the others by orv-shell. Each
waits until everything has come that came in virtual time; what differs, or comes besides, is seen in the end. Exit status:
0 the same, 1 something differs, 77 a scenario was left out, because this gateway cannot do what it asks for.
"""
from __future__ import annotations

import pathlib
import subprocess
import sys
from collections.abc import Sequence

from orv_testbed.box import Box
from orv_testbed.programs import Missing
from orv_testbed.scenarios.run import Cannot, Failed, on_box, on_loopback

SKIPPED = 77
# A box, a program or a wait that fails spoils its own scenario only.
FAULTS = (Failed, Missing, AssertionError, OSError, subprocess.SubprocessError)


def main(arguments: Sequence[str]) -> int:
    name = ""
    if list(arguments[:1]) == ["--box"]:
        name, arguments = "".join(arguments[1:2]), arguments[2:]
    if len(arguments) < 2:
        print(__doc__, file=sys.stderr)
        return 2
    shell, *files = arguments
    faults = skipped = 0
    for file in files:
        scenario = pathlib.Path(file)
        try:
            if name:
                with Box(name) as box:
                    journal, gateway = on_box(shell, scenario, box)
            else:
                journal, gateway = on_loopback(shell, scenario)
            print(f"{file}: the same {len(journal.lines())} happenings in virtual time and on {gateway}", flush=True)
        except Cannot as reason:
            print(f"{file}:{reason}", flush=True)
            skipped += 1
        except FAULTS as fault:
            print(f"{file}: {fault}", file=sys.stderr, flush=True)
            faults += 1
    return 1 if faults else SKIPPED if skipped else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
