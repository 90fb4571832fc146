#!/usr/bin/python3 -B
# SPDX-License-Identifier: Apache-2.0
"""adopt FILE COMMAND...: runs the command, and takes in what it leaves behind, so that the processor time of all that it
has started is known. Writes that to FILE, in seconds, and ends as the command did."""

from __future__ import annotations

import ctypes
import os
import pathlib
import resource
import signal
import subprocess
import sys

PR_SET_CHILD_SUBREAPER = 36


def main(file: str, command: list[str]) -> int:
    ctypes.CDLL(None, use_errno=True).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    child = subprocess.Popen(command)
    # Who ends the step sends that to all of its processes; this one has to see what it came to.
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    signal.signal(signal.SIGTERM, signal.SIG_IGN)
    ended = 0
    while ended != child.pid:
        ended, status = os.wait()
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    pathlib.Path(file).write_text(f"{used.ru_utime + used.ru_stime:.2f}\n", encoding="ascii")
    child.returncode = os.waitstatus_to_exitcode(status)
    return child.returncode if child.returncode >= 0 else 128 - child.returncode


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], sys.argv[2:]))
