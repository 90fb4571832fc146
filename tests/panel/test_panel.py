# SPDX-License-Identifier: Apache-2.0
"""The panel's page in a browser, on a gateway box with gateway-app."""
from __future__ import annotations

import pathlib
import signal
import subprocess
import xml.etree.ElementTree as xml
from collections.abc import Iterator

import pytest

from browser import PICTURES, Browser, Page
from conftest import Panel
from orv_testbed.box import Box
from orv_testbed.waiting import SLACK, wait_until

SVG = "{http://www.w3.org/2000/svg}"
LARGEST_README_PICTURE = 150_000  # bytes


def way(page: Page) -> dict[str, str]:
    """How each wire of the drawing is dressed."""
    return {
        name: page.classes(f'[data-wire="{name}"]').removeprefix("wire").strip()
        for name in ("eth-app", "eth-link", "eth-cloud", "cell-app", "cell-link", "cell-cloud")
    }


def test_a_fail_over_and_the_return_are_driven_and_seen_in_the_page(page: Page) -> None:
    assert way(page) == {
        **dict.fromkeys(way(page), ""),
        **dict.fromkeys(("eth-app", "eth-link", "eth-cloud"), "ethernet"),
    }
    assert (page.led("green"), page.led("yellow")) == ("on", "off")

    page.listen()
    page.press("provider eth dead")
    page.wait(lambda: page.text("state") == "No cloud", "the loss of the cloud")
    page.wait(lambda: (page.led("green"), page.led("yellow")) == ("off", "blink"), "the yellow LED blinking")
    face = page.style('[data-led="yellow"]', "fill")
    page.wait(lambda: page.style('[data-led="yellow"]', "fill") != face, "the other face of the LED")
    page.wait(lambda: page.style('[data-led="yellow"]', "fill") == face, "the first face of the LED again")
    page.keep_picture("cloud-lost")

    page.wait_for_cloud("Cellular")
    page.wait(lambda: page.led("green") == "on" and page.led("yellow") == "off", "the green LED")
    on_cellular = dict.fromkeys(("cell-app", "cell-link", "cell-cloud"), "cellular")
    page.wait(
        lambda: way(page) == {"eth-app": "", "eth-link": "", "eth-cloud": "cut", **on_cellular}, "the way over Cellular"
    )
    brief = ("POKING_CELLULAR", "SWITCHING_TO_CELLULAR")  # they may be too short to be drawn
    states = ["ETHERNET_ACTIVE", "ETHERNET_LOST_DELAY", "CELLULAR_ACTIVE"]
    seen = lambda: [state for state in page.bars("route state") if state not in brief]  # noqa: E731
    page.wait(lambda: seen()[-3:] == states, "the states of the route")
    page.wait(
        lambda: page.bars("cloud connection")[-3:] == ["Ethernet", "none", "Cellular"], "the cloud in the timeline"
    )
    page.wait(lambda: page.bars("yellow LED")[-3:] == ["Off", "Blink", "Off"], "the yellow LED in the timeline")
    page.wait(lambda: page.bars("DNS topic")[-1:] == ["inhibit"], "the DNS topic in the timeline")
    # There may be no route for a moment between the two.
    page.wait(
        lambda: [way for way in page.bars("default route") if way != "none"][-2:] == ["eth0", "wwan0"], "the routes"
    )
    assert "provider eth dead" in page.all("#timeline line > title")
    moves = [
        words for words in page.all("#decisions span") if words.startswith("Route moved from Ethernet to Cellular")
    ]
    assert "a poke over Cellular succeeded" in moves[0] and "since the loss" in moves[0]
    assert page.text("mark") == "C"
    each_event_was_spoken_once(page.spoken())
    page.browser.run("document.getElementById('in').click()")
    first = {f"for {seconds} s" for seconds in range(4)}
    page.wait(lambda: page.text("duration") not in first, "a few seconds on Cellular")
    page.browser.size(1280, 860)
    page.wait(lambda: page.browser.run("return document.querySelector('#timeline svg').clientWidth < 850"), "its width")
    make_readme_picture(page.keep_picture("fail-over"))
    page.browser.size()

    page.press("provider eth back")
    page.wait_for_cloud("Ethernet")
    page.wait(lambda: page.bars("cloud connection")[-1] == "Ethernet", "the return in the timeline")
    page.wait(lambda: page.bars("DNS topic")[-1] == "permit", "the DNS topic in the timeline")
    assert any(words.startswith("Route moved from Cellular to Ethernet") for words in page.all("#decisions span"))


def each_event_was_spoken_once(spoken: list[list[str]]) -> None:
    """And nothing else, in ten seconds of blinking, and however often the timeline was drawn."""
    said = ". ".join(words for place, words in spoken if place == "spoken")
    for event in ("Cloud lost on Ethernet", "Route moved from Ethernet", "Cloud connected over Cellular"):
        assert said.count(event) == 1, said
    assert [words for place, words in spoken if place != "spoken"] == [
        "box provider eth dead …",
        "In force: provider eth dead",
    ]
    assert len(spoken) <= 6


def make_readme_picture(picture: pathlib.Path) -> None:
    """README's is such a one, docs/images/panel.png."""
    small = picture.with_name("fail-over-small.png")
    subprocess.run(["pngquant", "--force", "--strip", "--output", small, "64", picture], check=True)
    assert small.stat().st_size < LARGEST_README_PICTURE


def test_a_page_finds_the_server_that_has_been_started_again(page: Page, panel: Panel) -> None:
    panel.stop()
    page.wait(lambda: "away" in page.text("link"), "that the server is away")
    assert page.notice().startswith("The panel's server is away. What is shown was so at ")
    assert page.text("duration") == "" and page.style(".flow", "animation-name") == "none"
    page.keep_picture("server-away")
    panel.start()
    page.wait(lambda: page.text("link") == "live" and page.notice() == "", "the server")
    page.wait_for_cloud("Ethernet")
    page.press("cable out")  # the new server has a new token
    page.wait(lambda: page.in_force() == ["box cable out"], "the fault in force")
    page.press("cable in")
    page.wait(lambda: page.in_force() == [], "no fault in force")


@pytest.fixture
def second(page: Page, panel: Panel, browser: Browser) -> Iterator[Page]:
    """Another page in another tab, in which the browser is while the test runs."""
    first = browser.driver.current_window_handle
    browser.driver.switch_to.new_window("tab")
    made = browser.driver.current_window_handle
    yield Page(browser, panel.url).open()
    browser.driver.switch_to.window(made)
    browser.driver.close()
    browser.driver.switch_to.window(first)


def test_a_fault_that_is_made_in_a_terminal_is_in_force_in_the_page(page: Page, box: Box) -> None:
    box("cable", "out")
    page.wait(lambda: page.in_force() == ["box cable out"], "the button of the fault pressed")
    page.wait(lambda: "cable out" in page.all("#timeline line > title"), "the mark")
    box("loss", "cell", "33")
    page.wait(lambda: page.all(".by-hand:not(:empty)") == ["loss cell 33"], "a fault that has no button")
    assert page.text("fault-words") == "In force: cable out, loss cell 33"
    page.keep_picture("by-hand")
    page.press("loss cell off")
    page.wait(lambda: page.all(".by-hand:not(:empty)") == [], "that fault undone")
    assert "loss cell 33" not in box("status")
    box("cable", "in")
    page.wait(lambda: page.in_force() == [], "the button of the fault released")
    page.wait_for_cloud("Ethernet")


def test_two_pages_show_the_same(page: Page, second: Page, browser: Browser) -> None:
    tabs = browser.driver.window_handles
    second.press("loss eth 10")
    second.wait(lambda: second.in_force() == ["box loss eth 10"], "the fault in force")
    second.keep_picture("second-page")
    browser.driver.switch_to.window(tabs[0])
    page.wait(lambda: page.in_force() == ["box loss eth 10"], "the fault in force in the other page")
    page.press("loss eth off")
    page.wait(lambda: page.in_force() == [], "no fault in force")
    browser.driver.switch_to.window(tabs[-1])
    second.wait(lambda: second.in_force() == [], "no fault in force in the other page")


def test_a_page_that_has_slept_catches_up(second: Page, panel: Panel, browser: Browser) -> None:
    browser.cdp_command("Page.setWebLifecycleState", state="frozen")
    panel.press("loss eth 10")
    browser.cdp_command("Page.setWebLifecycleState", state="active")
    second.wait(lambda: second.in_force() == ["box loss eth 10"], "what has happened meanwhile")


def test_a_page_that_was_without_a_network_catches_up(second: Page, panel: Panel, browser: Browser) -> None:
    network = {"latency": 0, "downloadThroughput": -1, "uploadThroughput": -1}
    browser.cdp_command("Network.enable")
    browser.cdp_command("Network.emulateNetworkConditions", offline=True, **network)
    panel.stop()  # what stands already outlives being offline
    panel.start()
    second.wait(lambda: "away" in second.text("link"), "that the server is away")
    panel.press("loss eth 10")
    browser.cdp_command("Network.emulateNetworkConditions", offline=False, **network)
    second.wait(lambda: second.in_force() == ["box loss eth 10"], "what has happened meanwhile")
    assert second.text("link") == "live" and second.notice() == ""


def test_a_page_whose_server_says_nothing_more_does_not_pass_for_live(page: Page, panel: Panel) -> None:
    assert panel.process
    panel.process.send_signal(signal.SIGSTOP)
    try:
        page.wait(lambda: "away" in page.text("link"), "that the server is away")
    finally:
        panel.process.send_signal(signal.SIGCONT)
    page.wait(lambda: page.text("link") == "live", "the server")


HTML = "<img src=x onerror=\"document.title='broken in'\"><script>document.title='broken in'</script>"


def test_hostile_payloads_are_text_and_nothing_else(page: Page, box: Box, tmp_path: pathlib.Path) -> None:
    def publish(topic: str, payload: bytes) -> None:
        file = tmp_path / "payload"
        file.write_bytes(payload)
        with file.open("rb") as content:
            command = ("exec", "mosquitto_pub", "-h", "127.0.0.1", "-r", "-t", f"/orv/{topic}", "-s")
            assert box.try_to(*command, stdin=content).returncode == 0

    payloads = {
        "large": b"x" * 2**20,
        "control": bytes(range(1, 32)) + b"\x7f\x9b31m\xff",
        "html": HTML.encode(),
        "backwards": "evil\u202egnp.exe \u2066x\u200f".encode(),
        "torn": b"\xc3\x28 \xe2\x82 \xf0\x28\x8c\xbc \xed\xa0\x80 \xc0\xaf end",
    }
    for topic, payload in payloads.items():
        publish(topic, payload)
    publish("<b>topic", b"&lt;")
    try:
        rows = "#topics tr"
        page.wait(lambda: len([row for row in page.all(rows) if "/orv/large" in row]) == 1, "the topics")
        page.wait(lambda: any("/orv/<b>topic" in row for row in page.all(rows)), "the last topic")
        shown = page.all(rows)
        assert any(row.startswith("/orv/large" + "x" * 200 + "the first 200 of 1,048,576 bytes") for row in shown)
        assert any(row.startswith("/orv/html" + HTML) for row in shown)
        assert any(row.startswith("/orv/control\\x01\\x02") for row in shown)
        assert any(row.startswith("/orv/torn\\xc3(") and "end" in row for row in shown)
        assert all(words.isprintable() for row in shown for words in row.splitlines())
        assert page.all("#topics img") == page.all("#topics script") == page.all("#topics b") == []
        assert "broken in" not in page.browser.driver.title
        assert page.browser.run("return document.documentElement.scrollWidth <= innerWidth")
        page.browser.run("document.getElementById('topics').scrollIntoView()")
        page.keep_picture("hostile-payloads", whole=True)
    finally:
        for topic in (*payloads, "<b>topic"):
            box("exec", "mosquitto_pub", "-h", "127.0.0.1", "-r", "-t", f"/orv/{topic}", "-n")


def test_a_timeline_that_is_paused_stands_still_and_is_saved_as_it_is(page: Page, downloads: pathlib.Path) -> None:
    picture = "return document.querySelector('#timeline svg').outerHTML"
    page.browser.run("document.getElementById('pause').click()")
    still = page.browser.run(picture)
    page.press("loss cell 10")
    page.wait(lambda: page.in_force() == ["box loss cell 10"], "the fault in force")
    assert page.browser.run(picture) == still
    page.browser.run("document.getElementById('earlier').click()")
    assert page.browser.run(picture) != still
    page.browser.run("document.getElementById('save').click()")
    file = downloads / "timeline.svg"
    # The browser makes an empty file of this name first.
    wait_until(lambda: file.exists() and file.stat().st_size, SLACK, "the file")
    saved = xml.parse(file).getroot()
    texts = [text.text for text in saved.iter(f"{SVG}text")]
    assert saved.tag == f"{SVG}svg" and {"route state", "green LED", "cloud connection"} <= set(texts)
    assert "var(" not in file.read_text(encoding="utf-8")
    page.browser.run("document.getElementById('pause').click()")
    page.wait(lambda: "loss cell 10" in page.all("#timeline line > title"), "the mark, now that time goes on")


def test_the_pictures_are_kept() -> None:
    assert (PICTURES / "fail-over.png").stat().st_size > 10_000
