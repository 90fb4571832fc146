# SPDX-License-Identifier: Apache-2.0
"""A box with gateway-app, the panel beside it, and its page in a browser; all of them for all tests."""
from __future__ import annotations

import json
import os
import pathlib
import subprocess
import sys
import urllib.request
from collections.abc import Iterator

import pytest

from browser import Browser, Page
from orv_testbed.box import Box
from orv_testbed.panel.box_gateway import BoxGateway
from orv_testbed.panel.hub import Hub
from orv_testbed.ports import free_port
from orv_testbed.waiting import SLACK, wait_until


class Panel:
    """The panel as a process of its own, which can be ended and started again on the same port."""

    def __init__(self, box: Box, log: pathlib.Path, folder: pathlib.Path) -> None:
        self.box, self.log, self.folder = box, log, folder
        self.port = free_port()
        self.url = f"http://127.0.0.1:{self.port}/"
        self.process: subprocess.Popen[str] | None = None

    def start(self) -> None:
        said = self.folder / "panel.out"
        with said.open("w", encoding="utf-8") as output:
            self.process = subprocess.Popen(
                [sys.executable, "-B", "-m", "orv_testbed.panel"]
                + ["--port", str(self.port), "--box", self.box.name, "--log", str(self.log)],
                env=self.box.environment,
                stdin=subprocess.DEVNULL,
                stdout=output,
                stderr=output,
                text=True,
            )
        wait_until(
            lambda: self.url in said.read_text(encoding="utf-8"), SLACK, lambda: said.read_text(encoding="utf-8")
        )

    def press(self, words: str) -> None:
        """Presses a fault's button as another page does."""
        headers = {"Origin": self.url[:-1]}
        with urllib.request.urlopen(
            urllib.request.Request(self.url + "events", headers=headers), timeout=SLACK
        ) as stream:
            line = next(line for line in stream if line.startswith(b"data: "))
        headers["X-Panel-Token"] = json.loads(line[6:])["server"]["token"]
        body = json.dumps({"fault": words}).encode()
        with urllib.request.urlopen(
            urllib.request.Request(self.url + "faults", body, headers), timeout=SLACK
        ) as answer:
            assert answer.status == 200

    def stop(self) -> None:
        assert self.process
        self.process.terminate()
        assert self.process.wait(SLACK) == 0


@pytest.fixture(scope="session")
def box() -> Iterator[Box]:
    with Box(f"p{os.getpid() % 10**7}") as made:
        yield made


@pytest.fixture(scope="session")
def panel(box: Box, tmp_path_factory: pytest.TempPathFactory) -> Iterator[Panel]:
    folder = tmp_path_factory.mktemp("panel")
    log = folder / "gateway-app.log"
    BoxGateway(Hub(), box, log).start_application()
    made = Panel(box, log, folder)
    made.start()
    yield made
    made.stop()


@pytest.fixture(scope="session")
def downloads(tmp_path_factory: pytest.TempPathFactory) -> pathlib.Path:
    return tmp_path_factory.mktemp("downloads")


@pytest.fixture(scope="session")
def browser(downloads: pathlib.Path) -> Iterator[Browser]:
    made = Browser(downloads)
    yield made
    made.quit()


@pytest.fixture
def page(panel: Panel, browser: Browser) -> Iterator[Page]:
    """The page, on a gateway that reaches the cloud over Ethernet; in the end each fault is taken back."""
    browser.size()
    browser.prefer()
    made = Page(browser, panel.url).open()
    made.wait_for_cloud("Ethernet")
    browser.complaints()
    yield made
    made.undo_all()
    assert browser.complaints() == []
