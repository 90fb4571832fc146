# SPDX-License-Identifier: Apache-2.0
import os
import pathlib
import subprocess
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
from gateway import Application, Box, Witness  # noqa: E402


def can_make_namespaces():
    return subprocess.run(["unshare", "--net", "--mount", "--uts", "true"], capture_output=True,
                          check=False).returncode == 0


@pytest.fixture
def box():
    """A gateway of its own for each test, all of its parts running."""
    if not can_make_namespaces():
        pytest.skip("this machine does not let us make namespaces: run as root, in a container with --privileged")
    with Box(f"t{os.getpid():x}") as made:
        yield made


@pytest.fixture
def witness(box, tmp_path):
    return Witness(box, tmp_path)


@pytest.fixture
def application(box, witness, tmp_path):
    """The application, connected to the cloud over Ethernet."""
    del witness
    started = Application(box, tmp_path)
    started.wait_for_cloud("eth0", 10)
    started.wait_for("Cloud connected with Ethernet interface", 5)
    yield started
    if started.process.poll() is None:
        figures = started.stop()
        for call in ("tick", "event_update"):
            print(f"{call}: {figures[call]['count']} calls, the longest {figures[call]['longest_us']} us")
            # A call that waited for a broker, the bus or a name server would take 3 s at least.
            assert figures[call]["longest_us"] < 2_500_000


@pytest.fixture
def application_on_cellular(box, application):
    """The application after a fail-over: state CELLULAR_ACTIVE, Ethernet's provider dead."""
    box("provider", "eth", "dead")
    application.wait_for("route is Cell, reconnecting", 20)
    application.wait_for_cloud("wwan0", 10)
    return application
