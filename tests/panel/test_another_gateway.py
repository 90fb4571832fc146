# SPDX-License-Identifier: Apache-2.0
"""The panel on a gateway that a command reaches: it shows what comes, says what is wrong, and changes nothing."""
from __future__ import annotations

import os
import pathlib
import signal
from collections.abc import Iterator

import pytest

from browser import Browser, Page
from conftest import Panel, opened, start_application
from orv_testbed.box import Box
from orv_testbed.programs import TESTBED, program
from orv_testbed.waiting import SLACK, wait_until

# Reaches the other gateway, or does what a command that should reach one may do instead.
REACH = """#!/bin/sh
echo $$ >"{folder}/pid"
while [ "$(cat "{folder}/mode")" = late ]; do sleep 0.1; done
case $(cat "{folder}/mode") in
    well) exec "{box}" exec "$@" ;;
    unsure) "{box}" exec "$@" | sed --unbuffered 's/"retained":[a-z]*/"retained":null/g' ;;
    dead) echo 'ssh: connect to host gateway port 22: No route to host' >&2; exit 255 ;;
    binary) head -c 100000 /dev/urandom ;;
    html) echo '<img src=x onerror="document.title=1">' ;;
    large) head -c 1048576 /dev/zero | tr '\\0' x; echo ;;
    silent) ;;
esac
exec sleep 600
"""


class Reach:
    """The command."""

    def __init__(self, folder: pathlib.Path) -> None:
        self.folder = folder
        self.path = folder / "reach"
        self.path.write_text(REACH.format(folder=folder, box=TESTBED / "box"), encoding="utf-8")
        self.path.chmod(0o755)
        self.does("well")

    def does(self, mode: str) -> None:
        new = self.folder / "mode.new"
        new.write_text(mode, encoding="ascii")
        new.replace(self.folder / "mode")

    def pid(self) -> int:
        return int((self.folder / "pid").read_text(encoding="ascii"))

    def dies(self) -> None:
        os.kill(self.pid(), signal.SIGKILL)


@pytest.fixture(scope="module")
def other(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Box]:
    with Box(f"q{os.getpid() % 10**7}") as made:
        start_application(made, tmp_path_factory.mktemp("other") / "gateway-app.log")
        yield made


@pytest.fixture
def reach(tmp_path: pathlib.Path) -> Reach:
    return Reach(tmp_path)


@pytest.fixture
def looking(other: Box, reach: Reach, tmp_path: pathlib.Path) -> Iterator[Panel]:
    programs = str(pathlib.Path(program("orv-status")).parent)
    environment = {**other.environment, "PATH": f"{programs}:{os.environ['PATH']}"}
    made = Panel(tmp_path, environment, "--on", str(reach.path))
    made.start()
    yield made
    if made.process and made.process.poll() is None:
        made.stop()


@pytest.fixture
def page(looking: Panel, browser: Browser) -> Iterator[Page]:
    with opened(browser, looking) as made:
        yield made


def test_its_fail_over_is_seen_and_nothing_can_be_done_to_it(page: Page, other: Box, reach: Reach) -> None:
    page.wait_for_cloud("Ethernet")
    assert page.text("link") == f"live by {reach.path}"
    assert page.all("button[data-fault]:not(#undo-all)") == [] and page.style("#faults", "display") == "none"
    press = (
        "return fetch('faults', {method: 'POST', body: '{\"fault\": \"cable out\"}'}).then((answer) => answer.status)"
    )
    assert page.browser.run(press) == 404
    assert any("404" in words for words in page.browser.complaints())
    other("provider", "eth", "dead")
    page.wait_for_cloud("Cellular")
    page.wait(lambda: page.bars("cloud connection")[-3:] == ["Ethernet", "none", "Cellular"], "the timeline")
    assert page.bars("route state") == []
    assert page.text("heard").startswith("last change ")
    page.keep_picture("another-gateway")
    other("provider", "eth", "back")
    page.wait_for_cloud("Ethernet")


def test_a_command_that_dies_is_named_and_run_until_it_reaches_the_gateway_again(
    page: Page, looking: Panel, reach: Reach
) -> None:
    page.wait_for_cloud("Ethernet")
    reach.does("dead")
    reach.dies()
    page.wait(lambda: "exit status 255: ssh: connect to host gateway port 22: No route" in page.notice(), "the cause")
    assert f"Trying again: {reach.path} orv-status --follow --json" in page.notice()
    assert (page.text("state"), page.text("duration")) == ("Cloud unknown", "")
    assert page.all("[data-led-text]") == ["? unknown", "? unknown"]
    page.keep_picture("gateway-away")
    reach.does("well")
    page.wait_for_cloud("Ethernet")
    page.wait(lambda: page.notice() == "" and page.bars("green LED") == ["On", "On"], "what was before and what is")
    page.wait(lambda: "the gateway answers again" in looking.words(), "words in the terminal")
    assert looking.words().count("No route to host") == 1


def test_a_message_of_which_it_is_not_known_whether_it_is_retained_is_marked_so(page: Page, reach: Reach) -> None:
    kept = "#topics td:last-child"
    page.wait(lambda: page.all(kept)[:1] == ["retained"], "the topics")
    reach.does("unsure")
    reach.dies()
    page.wait(lambda: set(page.all(kept)) == {"unknown"}, "the mark")


@pytest.mark.parametrize("mode", ["binary", "html", "large"])
def test_what_is_no_status_does_no_harm(page: Page, reach: Reach, mode: str) -> None:
    page.wait_for_cloud("Ethernet")
    reach.does(mode)
    reach.dies()
    page.wait(lambda: "what the command printed is no status" in page.notice(), "the cause")
    assert len(page.notice()) < 1000 and page.all("#notice *") == []
    assert page.browser.run("return document.documentElement.scrollWidth <= innerWidth")
    assert page.browser.driver.title == "Cloud unknown – Gateway"
    reach.does("well")
    page.wait_for_cloud("Ethernet")


def test_while_nothing_has_been_told_the_page_says_what_it_waits_for(
    looking: Panel, reach: Reach, browser: Browser
) -> None:
    looking.stop()
    reach.does("late")
    looking.start()
    browser.driver.get(looking.url)
    page = Page(browser, looking.url)
    page.wait(lambda: f"Waiting for the first words of: {reach.path}" in page.notice(), "what is waited for")
    assert page.text("state") == "Cloud unknown" and page.text("link") == "waiting for the gateway"
    reach.does("well")
    page.wait_for_cloud("Ethernet")
    assert page.notice() == ""


@pytest.mark.parametrize("mode", ["well", "silent", "dead"])
def test_ctrl_c_ends_it_and_the_command(looking: Panel, reach: Reach, mode: str) -> None:
    looking.stop()
    reach.does(mode)
    looking.start()
    assert looking.process
    wait_until((reach.folder / "pid").exists, SLACK, "the command")
    for _ in range(2):  # whoever loses patience presses it again
        os.killpg(looking.process.pid, signal.SIGINT)
    assert looking.process.wait(4 * SLACK) == 0, looking.words()
    assert "Traceback" not in looking.words()
    wait_until(lambda: not pathlib.Path(f"/proc/{reach.pid()}").exists(), SLACK, "the end of the command")
