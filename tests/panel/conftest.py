# SPDX-License-Identifier: Apache-2.0
"""A box with gateway-app, the panel beside it, and its page in a browser; all of them for all tests."""
from __future__ import annotations

import contextlib
import json
import os
import pathlib
import subprocess
import sys
import urllib.request
from collections.abc import Iterator, Mapping

import pytest

from browser import Browser, Page
from orv_testbed.box import Box
from orv_testbed.panel.box_gateway import BoxGateway
from orv_testbed.panel.hub import Hub
from orv_testbed.ports import free_port
from orv_testbed.waiting import SLACK, wait_until


class Panel:
    """The panel as a process of its own, which can be ended and started again on the same port."""

    def __init__(self, folder: pathlib.Path, environment: Mapping[str, str], *arguments: str) -> None:
        self.said = folder / "panel.out"
        self.environment = environment
        self.arguments = arguments
        self.port = free_port()
        self.url = f"http://127.0.0.1:{self.port}/"
        self.process: subprocess.Popen[str] | None = None

    def start(self) -> None:
        with self.said.open("w", encoding="utf-8") as output:
            self.process = subprocess.Popen(
                [sys.executable, "-B", "-m", "orv_testbed.panel", "--port", str(self.port), *self.arguments],
                env=self.environment,
                stdin=subprocess.DEVNULL,
                stdout=output,
                stderr=output,
                text=True,
                start_new_session=True,
            )
        wait_until(lambda: "Ctrl-C ends it" in self.words(), SLACK, self.words)

    def words(self) -> str:
        """What it has said in the terminal."""
        return self.said.read_text(encoding="utf-8")

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
        assert self.process.wait(4 * SLACK) == 0, self.words()


@pytest.fixture(scope="session")
def box() -> Iterator[Box]:
    with Box(f"p{os.getpid() % 10**7}") as made:
        yield made


def start_application(box: Box, log: pathlib.Path) -> None:
    gateway = BoxGateway(Hub(), box, log)
    gateway.start_application()
    gateway.stop()


@pytest.fixture(scope="session")
def panel(box: Box, tmp_path_factory: pytest.TempPathFactory) -> Iterator[Panel]:
    folder = tmp_path_factory.mktemp("panel")
    log = folder / "gateway-app.log"
    start_application(box, log)
    made = Panel(folder, box.environment, "--box", box.name, "--log", str(log))
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


@contextlib.contextmanager
def opened(browser: Browser, panel: Panel) -> Iterator[Page]:
    """A panel's page in the usual window. Afterwards the browser must have nothing to complain of."""
    browser.size()
    browser.prefer()
    page = Page(browser, panel.url).open()
    browser.complaints()
    yield page
    assert browser.complaints() == []


@pytest.fixture
def page(panel: Panel, browser: Browser) -> Iterator[Page]:
    """The page, on a gateway that reaches the cloud over Ethernet; in the end each fault is taken back."""
    with opened(browser, panel) as made:
        made.wait_for_cloud("Ethernet")
        made.wait(lambda: made.led("green") == "on" and made.bars("green LED")[-1:] == ["On"], "the green LED")
        browser.complaints()
        yield made
        made.undo_all()
