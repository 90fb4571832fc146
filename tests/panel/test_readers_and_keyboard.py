# SPDX-License-Identifier: Apache-2.0
"""The page for those who use a keyboard, a screen reader, other colours, or who want nothing to move."""
from __future__ import annotations

import collections
import itertools
from typing import Any

import pytest
from selenium.webdriver.common.keys import Keys

from browser import Browser, Page
from colours import EYES, colour, contrast, distance
from orv_testbed import timeline

LEAST_TEXT_CONTRAST, LEAST_GRAPHICS_CONTRAST = 4.5, 3.0
LEAST_DISTANCE = 18.0


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


# Each visible text with its colour and what is behind it. In drawings that is the text's own halo, or the part it stands in.
TEXTS = """
const solid = (colour) => colour && colour !== "none" && !colour.startsWith("rgba");
const behind = (element) => {
  for (; element; element = element.parentElement) {
    const colour = getComputedStyle(element).backgroundColor;
    if (solid(colour)) return colour;
  }
  return "rgb(255, 255, 255)";
};
const ground = (text) => {
  const part = text.closest("[data-part]")?.querySelector(".part");
  const halo = getComputedStyle(text).stroke;
  return part ? getComputedStyle(part).fill : solid(halo) ? halo : behind(text);
};
return [...document.querySelectorAll("body *")]
  .filter((one) => [...one.childNodes].some((node) => node.nodeType === 3 && node.data.trim()))
  .filter((one) => one.checkVisibility() && !one.closest("title, .hidden, [aria-disabled=true], .fresh, .skip"))
  .map((one) => one.closest("svg") ? [getComputedStyle(one).fill, ground(one), one.textContent]
    : [getComputedStyle(one).color, behind(one), one.textContent.slice(0, 60)]);
"""

DRAWN_TO_ITS_WIDTH = """
const width = (name) => document.querySelector(`${name} svg`).viewBox.baseVal.width;
return innerWidth === arguments[0] && width("#timeline") === document.getElementById("timeline").clientWidth
  && (width("#drawing") < 500) === (innerWidth <= 760);
"""


@pytest.mark.parametrize("width", [360, 768, 1440, 2200])
@pytest.mark.parametrize("scheme", ["light", "dark"])
def test_it_can_be_read_in_both_schemes_at_each_width(page: Page, browser: Browser, scheme: str, width: int) -> None:
    browser.prefer(scheme)
    browser.size(width, 900)
    page.wait(lambda: browser.run(DRAWN_TO_ITS_WIDTH, width), "the timeline and the drawing for this width")
    assert browser.run("return document.documentElement.scrollWidth") <= width
    dark = sum(map(int, page.style("html", "background-color")[4:-1].split(", "))) < 3 * 128
    assert dark == (scheme == "dark")
    texts = browser.run(TEXTS)
    assert len(texts) > 70
    assert [one for one in texts if contrast(colour(one[0]), colour(one[1])) < LEAST_TEXT_CONTRAST] == []
    cut = "return [...document.querySelectorAll('button')].filter((one) => one.scrollWidth > one.clientWidth).length"
    assert browser.run(cut) == 0
    page.keep_picture(f"{scheme}-{width}", whole=True)


def test_a_timeline_that_stands_still_takes_on_the_colours_of_the_other_scheme(page: Page, browser: Browser) -> None:
    page.browser.run("document.getElementById('pause').click()")
    colours = """
        window.times ??= [...document.querySelectorAll("#timeline svg > text")];
        return window.times.map((one) => getComputedStyle(one).fill);
    """
    light = set(browser.run(colours))
    browser.prefer("dark")
    dark = set(browser.run(colours))
    assert len(light) == len(dark) == 1 and light != dark
    assert dark == {page.style(".note", "color")}


def test_nothing_moves_for_those_who_do_not_want_it_and_the_text_says_what_blinks(page: Page, browser: Browser) -> None:
    browser.prefer(motion="reduce")
    page.press("cloud down")
    page.wait(lambda: page.led("yellow") == "blink", "the yellow LED blinking")
    assert page.style('[data-led="yellow"]', "animation-name") == "none"
    assert page.all('[data-led-text="yellow"]') == ["◐ blinks"]
    assert page.style(".lamp.blink + .half", "display") == "inline"
    page.keep_picture("reduced-motion")
    page.press("cloud up")
    page.wait_for_cloud("Ethernet")


class Read:
    """What a screen reader gets of the page: the roles, names and properties of the browser's accessibility tree."""

    def __init__(self, browser: Browser) -> None:
        browser.cdp_command("Accessibility.enable")
        nodes = browser.cdp_command("Accessibility.getFullAXTree")["nodes"]
        browser.cdp_command("Accessibility.disable")
        self.nodes = [node for node in nodes if not node.get("ignored")]

    def named(self, *roles: str) -> list[tuple[str, str]]:
        found = ((node["role"]["value"], node.get("name", {}).get("value", "")) for node in self.nodes)
        return [(role, name) for role, name in found if role in roles]

    def properties(self, role: str) -> dict[str, dict[str, Any]]:
        return {
            node["name"]["value"]: {one["name"]: one["value"].get("value") for one in node.get("properties", [])}
            for node in self.nodes
            if node["role"]["value"] == role
        }


def test_landmarks_and_headings_lead_through_the_page(page: Page, browser: Browser) -> None:
    read = Read(browser)
    landmarks = read.named("banner", "main", "region", "contentinfo", "navigation")
    sections = ["Gateway", "Timeline", "Decisions", "Topics", "Faults"]
    assert [role for role, _ in landmarks[:2]] == ["banner", "main"]
    assert len({name for _, name in landmarks}) == len(landmarks) - 1  # only banner and main need no name
    headings = [(name.split()[0], properties["level"]) for name, properties in read.properties("heading").items()]
    assert headings == [("Gateway", 1), *((name, 2) for name in sections[1:])]
    assert {name.split()[0] for role, name in landmarks if role == "region"} >= set(sections)
    images = [name for _, name in read.named("image")]
    assert len(images) == 2 and "over Ethernet eth0" in images[0] and "green LED On" in images[1]


def test_each_button_has_a_name_of_its_own_and_says_whether_it_is_pressed(page: Page, browser: Browser) -> None:
    page.press("cable out")
    page.wait(lambda: page.in_force() == ["box cable out"], "the fault in force")
    names = [name for _, name in Read(browser).named("button")]
    assert [name for name, count in collections.Counter(names).items() if count > 1 or not name] == []
    buttons = Read(browser).properties("button")
    faults = {name: one for name, one in buttons.items() if ": " in name and not name.startswith("Undo ")}
    assert len(faults) > 40
    assert {name for name, one in faults.items() if one["pressed"] == "true"} == {"Ethernet, cable: out"}
    undoing = {name: one for name, one in buttons.items() if name.startswith("Undo ")}
    assert [name for name, one in undoing.items() if "pressed" in one] == []
    able = {name for name, one in undoing.items() if not one.get("disabled")}
    assert able == {"Undo all", "Undo Ethernet, cable: in"}


COLOURS_OF_THE_PAGE = """
const [names, done] = [arguments[0], arguments[1]];
const style = getComputedStyle(document.documentElement);
import("./timeline.js").then(({ COLOURS }) => done([
  Object.fromEntries(names.map((name) => [name, style.getPropertyValue(`--${name}`).trim()])), COLOURS]));
"""
# Those that follow each other, or between which much depends.
STATES = """ETHERNET_ACTIVE ETHERNET_LOST_DELAY POKING_CELLULAR SWITCHING_TO_CELLULAR CELLULAR_ACTIVE SWITCHING_TO_ETHERNET
ETHERNET_SETTLE_DELAY ETHERNET_ACTIVE CELLULAR_ACTIVE ETHERNET_SETTLE_DELAY""".split()
NEIGHBOURS = [*itertools.pairwise(STATES), ("inhibit", "permit"), ("Ethernet", "Cellular"), ("eth0", "wwan0")]


@pytest.mark.parametrize("eye", EYES)
@pytest.mark.parametrize("scheme", ["light", "dark"])
def test_colours_are_told_apart_by_every_eye(page: Page, browser: Browser, scheme: str, eye: str) -> None:
    browser.prefer(scheme)
    meanings = ("ethernet", "cellular", "bad", "warn", "line")
    lamps = ("green-lamp", "yellow-lamp", "card")
    names = [*meanings, *lamps, *(f"{name}-soft" for name in meanings[:4])]
    page_colours, bars = browser.driver.execute_async_script(COLOURS_OF_THE_PAGE, names)
    assert {name: timeline.COLOURS[name] for name in bars} == bars, "the demo's picture has the same"
    of = {name: colour(words) for name, words in page_colours.items()}
    pairs = [*itertools.combinations(meanings, 2), *itertools.combinations(lamps, 2)]
    apart = {pair: distance(of[pair[0]], of[pair[1]], eye) for pair in pairs}
    apart |= {pair: distance(colour(bars[pair[0]]), colour(bars[pair[1]]), eye) for pair in NEIGHBOURS}
    assert {pair: round(found) for pair, found in apart.items() if found < LEAST_DISTANCE} == {}
    for name in meanings[:4]:
        assert contrast(of[name], of["card"]) > LEAST_GRAPHICS_CONTRAST
        assert contrast(of[name], of[f"{name}-soft"]) > LEAST_TEXT_CONTRAST


# How something of these classes is drawn, colour aside.
SHAPES = """
return arguments[1].map((classes) => {
  const one = document.createElementNS("http://www.w3.org/2000/svg", "path");
  one.setAttribute("class", `${arguments[0]} ${classes}`);
  document.querySelector("#drawing svg").append(one);
  const { strokeWidth, strokeDasharray } = getComputedStyle(one);
  one.remove();
  return `${strokeWidth} ${strokeDasharray}`;
});
"""


def test_nothing_is_told_by_colour_alone(page: Page, browser: Browser) -> None:
    for kind, states in (("wire", ["", "cut", "ethernet"]), ("part", ["", "away", "unknown", "ethernet"])):
        shapes = browser.run(SHAPES, kind, states)
        assert len(set(shapes)) == len(shapes), shapes
    assert page.text("mark") == "E"
    page.press("cloud down")
    page.wait(lambda: page.in_force() == ["box cloud down"], "the fault in force")
    page.wait(lambda: page.text("mark") == "✕", "the mark of a lost cloud")
    page.wait(lambda: page.all("[data-led-text]") == ["○ off", "◐ blinks"], "the LEDs in words")
    before = "return getComputedStyle(document.querySelector('.fault.in-force > span'), '::before').content"
    assert "▲" in browser.run(before)
    page.press("cloud up")
    page.wait_for_cloud("Ethernet")
