# SPDX-License-Identifier: Apache-2.0
"""What is wrong on the command line is said before anything is built or brought up."""
from __future__ import annotations

import ctypes
import os
import pathlib
import signal
import socket
import subprocess
import sys
import time

import pytest

from orv_testbed.panel.arguments import options
from orv_testbed.programs import TREE
from orv_testbed.waiting import SLACK, wait_until


def run(*command: str) -> subprocess.CompletedProcess[str]:
    environment = {**os.environ, "ORV_BUILD": "/nowhere"}  # whoever builds first fails there
    return subprocess.run(command, env=environment, capture_output=True, text=True, timeout=4 * SLACK, check=False)


@pytest.mark.parametrize(
    ("arguments", "words"),
    [
        (["--prot", "8420"], "--prot"),
        (["--p", "8420"], "--p"),
        (["now"], "now"),
        (["--port"], "--port: expected one argument"),
        (["--port", "x"], "'x' is no port: give a number below 65536"),
        (["--port", "65536"], "'65536' is no port"),
        (["--port", "-1"], "--port"),
        (["--log", "app.log"], "on the box that --box names"),
        (["--on"], "--on is followed by the command"),
        (["--box", "one", "--on", "ssh", "gateway"], "--on is followed by the command"),
        (["--on", "--port", "8420", "ssh"], "--on comes last"),
        (["--on", "no-such-program", "gateway"], "there is no program no-such-program: install it, or give its path"),
    ],
)
def test_what_is_wrong_is_named(arguments: list[str], words: str, capsys: pytest.CaptureFixture[str]) -> None:
    with pytest.raises(SystemExit) as ending:
        options(arguments)
    assert ending.value.code == 2
    said = capsys.readouterr().err
    assert words in said and said.startswith("usage: panel")


def test_what_follows_the_command_is_the_commands_own() -> None:
    chosen = options(["--port", "1", "--on", "env", "--port", "2"])
    assert (chosen.port, chosen.on) == (1, ["env", "--port", "2"])


@pytest.mark.parametrize("arguments", [["--prot"], ["--on"], ["--port", "x"], ["--on", "no-such-program"]])
def test_the_script_says_so_before_it_builds(arguments: list[str]) -> None:
    done = run(str(TREE / "script/panel"), *arguments)
    assert done.returncode == 2 and "panel: error: " in done.stderr and "/nowhere" not in done.stderr


def test_a_port_that_is_taken_is_named_with_the_remedy() -> None:
    with socket.create_server(("127.0.0.1", 0)) as other:
        port = str(other.getsockname()[1])
        done = run(sys.executable, "-B", "-m", "orv_testbed.panel", "--port", port, "--on", "true")
    assert done.returncode == 1
    assert done.stderr == f"panel: cannot listen on port {port}: it is taken; give another one, or none\n"


def is_asleep(pid: int) -> bool:
    time.sleep(0.01)
    return pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="ascii").rsplit(")", 1)[1].split()[0] == "S"


def test_a_signal_that_another_thread_receives_ends_it_too() -> None:
    # So does one that comes just before the main thread waits.
    command = [sys.executable, "-B", "-m", "orv_testbed.panel", "--port", "0", "--on", "sh", "-c", "sleep 600"]
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as panel:
        try:
            assert panel.stdout and any("Ctrl-C ends it" in line for line in panel.stdout)
            wait_until(lambda: all(is_asleep(panel.pid) for _ in range(20)), SLACK, "the main thread waits")
            others = [int(name) for name in os.listdir(f"/proc/{panel.pid}/task") if int(name) != panel.pid]
            assert ctypes.CDLL(None).tgkill(panel.pid, others[-1], signal.SIGTERM) == 0
            assert panel.wait(4 * SLACK) == 0
        finally:
            panel.kill()
