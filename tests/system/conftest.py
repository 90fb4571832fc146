# SPDX-License-Identifier: Apache-2.0
import os
import pathlib
import shutil
import subprocess
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
from calls import Calls  # noqa: E402
from gateway import Box  # noqa: E402
from scene import Scene  # noqa: E402

# A call that waited for a broker, the bus or a name server would take 3 s at least.
WAITED = 2_500_000


def can_make_namespaces():
    return subprocess.run(["unshare", "--net", "--mount", "--uts", "true"], capture_output=True,
                          check=False).returncode == 0


@pytest.fixture
def box(tmp_path):
    """A gateway of its own for each test, all of its parts running; their logs are kept beside the application's."""
    if not can_make_namespaces():
        pytest.skip("this machine does not let us make namespaces: run as root, in a container with --privileged")
    with Box(f"t{os.getpid():x}") as made:
        yield made
        shutil.copytree(made.folder / "log", tmp_path / "box-log")


@pytest.fixture
def make_scene(box, tmp_path, request):
    """Starts the application; in the end it is stopped and the scene audited. `clock`: with a wall clock of its own."""
    made = []

    def make(*options, clock=False):
        made.append(Scene(box, tmp_path, *options, clock=clock))
        return made[-1]

    yield make
    for scene in made:
        ended = scene.application.process.poll()
        assert ended is None, f"the application has ended by itself, status {ended}\n{scene.application.interesting()}"
        figures = scene.application.stop()
        request.node.user_properties.append(("calls", {call: figures[call] for call in Calls.KINDS}))
        for call in Calls.KINDS:
            assert figures[call]["longest_us"] < WAITED
        scene.audit()


@pytest.fixture
def scene(make_scene):
    """The application, connected to the cloud over Ethernet; it reports nothing but changes."""
    return make_scene("--refresh-s", "0").start()


def pytest_terminal_summary(terminalreporter):
    calls = Calls()
    for reports in terminalreporter.stats.values():
        for report in reports:
            if getattr(report, "when", None) == "teardown":
                for name, figures in report.user_properties:
                    if name == "calls":
                        calls.add(report.nodeid.split("::")[-1], figures)
    for line in calls.lines():
        terminalreporter.write_line(line)
