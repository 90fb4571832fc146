# SPDX-License-Identifier: Apache-2.0
"""One live screen of a box."""
from __future__ import annotations

import os
import pty
import signal
import subprocess

from orv_testbed.box import Box
from orv_testbed.fixtures import box  # noqa: F401
from orv_testbed.waiting import SLACK, wait_until


def test_the_screen_follows_what_happens_to_the_gateway(box: Box) -> None:  # noqa: F811
    ours, theirs = pty.openpty()
    watch = subprocess.Popen(
        box.command("watch"),
        env=box.environment,
        stdin=theirs,
        stdout=theirs,
        stderr=theirs,
        preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_IGN),  # as a shell's "&" does
    )
    os.close(theirs)
    os.set_blocking(ours, False)
    shown = ""

    def shows(words: str) -> bool:
        nonlocal shown
        try:
            shown += os.read(ours, 1 << 16).decode("utf-8", "replace")
        except BlockingIOError:
            pass
        return words in shown

    try:
        wait_until(lambda: shows("default route over eth0"), SLACK, lambda: f"the route on the screen: {shown}")
        assert "\x1b[H\x1b[2Jfaults       none\r\ncloud " in shown
        shown = ""
        box("cable", "out")
        wait_until(lambda: shows("default route over wwan0"), 10 + SLACK, lambda: f"the other route: {shown}")
        wait_until(lambda: shows("faults       cable out\r\n"), SLACK, lambda: f"the fault on the screen: {shown}")
        watch.send_signal(signal.SIGINT)
        assert watch.wait(SLACK) == 30  # orv-status cannot tell: there is no application
    finally:
        watch.kill()
        watch.wait()
        os.close(ours)
