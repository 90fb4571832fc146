# SPDX-License-Identifier: Apache-2.0
"""The panel's page in a browser, on a gateway box with gateway-app."""
from __future__ import annotations

import pathlib
import signal
import subprocess
import xml.etree.ElementTree as xml
from collections.abc import Iterator

import pytest
from selenium.webdriver.common.keys import Keys

from browser import PICTURES, Browser, Page
from conftest import Panel
from orv_testbed.box import Box
from orv_testbed.waiting import SLACK, wait_until

SVG = "{http://www.w3.org/2000/svg}"
LARGEST_README_PICTURE = 150_000  # bytes


def led(page: Page, name: str) -> str:
    return page.classes(f'[data-led="{name}"]').split()[-1]


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
    assert (led(page, "green"), led(page, "yellow")) == ("on", "off")

    page.press("provider eth dead")
    page.wait(lambda: page.text("state") == "No cloud", "the loss of the cloud")
    page.wait(lambda: (led(page, "green"), led(page, "yellow")) == ("off", "blink"), "the yellow LED blinking")
    face = page.style('[data-led="yellow"]', "fill")
    page.wait(lambda: page.style('[data-led="yellow"]', "fill") != face, "the other face of the LED")
    page.wait(lambda: page.style('[data-led="yellow"]', "fill") == face, "the first face of the LED again")
    page.keep_picture("cloud-lost")

    page.wait_for_cloud("Cellular")
    page.wait(lambda: led(page, "green") == "on" and led(page, "yellow") == "off", "the green LED")
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
    page.browser.run("document.getElementById('in').click()")
    page.wait(lambda: page.text("duration") == "for 4 s", "a few seconds on Cellular")
    page.browser.size(1280, 860)
    page.wait(lambda: page.bars("DNS topic") == ["inhibit"], "a timeline of the new width")
    make_readme_picture(page.keep_picture("fail-over"))
    page.browser.size()

    page.press("provider eth back")
    page.wait_for_cloud("Ethernet")
    page.wait(lambda: page.bars("cloud connection")[-1] == "Ethernet", "the return in the timeline")
    page.wait(lambda: page.bars("DNS topic")[-1] == "permit", "the DNS topic in the timeline")
    assert any(words.startswith("Route moved from Cellular to Ethernet") for words in page.all("#decisions span"))


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


def test_a_page_whose_server_says_nothing_more_does_not_pass_for_live(page: Page, panel: Panel) -> None:
    assert panel.process
    panel.process.send_signal(signal.SIGSTOP)
    try:
        page.wait(lambda: "away" in page.text("link"), "that the server is away")
    finally:
        panel.process.send_signal(signal.SIGCONT)
    page.wait(lambda: page.text("link") == "live", "the server")


def test_the_keyboard_alone_is_enough(page: Page) -> None:
    page.browser.run("document.activeElement.blur(); scrollTo(0, 0)")
    page.tab_to(".skip")
    page.type(Keys.ENTER)
    page.tab_to('button[data-fault="cable out"]')
    page.type(Keys.ENTER)
    page.wait(lambda: page.in_force() == ["box cable out"], "the fault in force")
    page.keep_picture("keyboard")
    page.tab_to('button[data-fault="cable in"]')
    page.type(Keys.SPACE)
    page.wait(lambda: page.in_force() == [], "no fault in force")
    page.tab_to("#pause", back=True)
    page.type(Keys.SPACE)
    assert page.text("pause") == "Paused"
    page.type(Keys.SPACE)
    assert page.text("pause") == "Pause"
    page.tab_to("#out")
    page.type(Keys.ENTER)
    assert page.text("span") == "2 min"
    page.tab_to("#in")
    page.type(Keys.ENTER)
    assert page.text("span") == "1 min"


# The contrast of each visible text with what is behind it, by the formula of the Web Content Accessibility Guidelines.
CONTRASTS = """
const parse = (colour) => (colour.match(/[\\d.]+/g) || []).map(Number);
const light = ([r, g, b]) => [r, g, b].map((c) => c / 255).map((c) => c <= 0.03928 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4)
  .reduce((sum, c, i) => sum + c * [0.2126, 0.7152, 0.0722][i], 0);
const behind = (element) => {
  for (; element; element = element.parentElement) {
    const colour = parse(getComputedStyle(element).backgroundColor);
    if (colour.length === 3 || colour[3] === 1) return colour;
  }
  return [255, 255, 255];
};
return [...document.querySelectorAll("body *")]
  .filter((one) => [...one.childNodes].some((node) => node.nodeType === 3 && node.data.trim()))
  .filter((one) => one.checkVisibility() && !one.closest("svg, .hidden, [aria-disabled=true], .fresh, .skip"))
  .map((one) => {
    const [a, b] = [light(parse(getComputedStyle(one).color)), light(behind(one))];
    return [(Math.max(a, b) + 0.05) / (Math.min(a, b) + 0.05), one.textContent.slice(0, 60)];
  });
"""


@pytest.mark.parametrize("width", [360, 768, 1440, 2200])
@pytest.mark.parametrize("scheme", ["light", "dark"])
def test_it_can_be_read_in_both_schemes_at_each_width(page: Page, browser: Browser, scheme: str, width: int) -> None:
    browser.prefer(scheme)
    browser.size(width, 900)
    page.wait(
        lambda: browser.run("return document.querySelector('#timeline svg')?.clientWidth <= innerWidth"), "a timeline"
    )
    assert browser.run("return document.documentElement.scrollWidth") <= width
    dark = sum(map(int, page.style("html", "background-color")[4:-1].split(", "))) < 3 * 128
    assert dark == (scheme == "dark")
    contrasts = browser.run(CONTRASTS)
    assert len(contrasts) > 50 and [found for found in contrasts if found[0] < 4.5] == []
    cut = "return [...document.querySelectorAll('button')].filter((one) => one.scrollWidth > one.clientWidth).length"
    assert browser.run(cut) == 0
    page.keep_picture(f"{scheme}-{width}", whole=True)


def test_nothing_moves_for_those_who_do_not_want_it_and_the_text_says_what_blinks(page: Page, browser: Browser) -> None:
    browser.prefer(motion="reduce")
    page.press("cloud down")
    page.wait(lambda: led(page, "yellow") == "blink", "the yellow LED blinking")
    assert page.style('[data-led="yellow"]', "animation-name") == "none"
    assert page.all('[data-led-text="yellow"]') == ["◐ blinks"]
    assert page.style(".lamp.blink + .half", "display") == "inline"
    page.keep_picture("reduced-motion")
    page.press("cloud up")
    page.wait_for_cloud("Ethernet")


HTML = "<img src=x onerror=\"document.title='broken in'\"><script>document.title='broken in'</script>"


def test_hostile_payloads_are_text_and_nothing_else(page: Page, box: Box, tmp_path: pathlib.Path) -> None:
    def publish(topic: str, payload: bytes) -> None:
        file = tmp_path / "payload"
        file.write_bytes(payload)
        with file.open("rb") as content:
            command = ("exec", "mosquitto_pub", "-h", "127.0.0.1", "-r", "-t", f"/orv/{topic}", "-s")
            assert box.try_to(*command, stdin=content).returncode == 0

    payloads = {"large": b"x" * 2**20, "control": bytes(range(1, 32)) + b"\x7f\x9b31m\xff", "html": HTML.encode()}
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
    wait_until(file.exists, SLACK, "the file")
    saved = xml.parse(file).getroot()
    texts = [text.text for text in saved.iter(f"{SVG}text")]
    assert saved.tag == f"{SVG}svg" and {"route state", "green LED", "cloud connection"} <= set(texts)
    assert "var(" not in file.read_text(encoding="utf-8")
    page.browser.run("document.getElementById('pause').click()")
    page.wait(lambda: "loss cell 10" in page.all("#timeline line > title"), "the mark, now that time goes on")


def test_a_screen_reader_is_told_what_is_drawn_and_what_changes(page: Page) -> None:
    assert page.text("route-words").startswith("The cloud's connection goes from the application over Ethernet eth0")
    assert page.all("main button", "ariaLabel").count("") == 0
    unnamed = (
        "return [...document.querySelectorAll('button')].filter((b) => !(b.ariaLabel || b.textContent).trim()).length"
    )
    assert page.browser.run(unnamed) == 0
    page.press("cloud down")
    page.wait(lambda: "Cloud lost on Ethernet" in page.text("spoken"), "the words for a screen reader")
    page.press("cloud up")
    page.wait_for_cloud("Ethernet")


def test_the_pictures_are_kept() -> None:
    assert (PICTURES / "fail-over.png").stat().st_size > 10_000
