# SPDX-License-Identifier: Apache-2.0
"""A headless Chromium, and the panel's page in it."""
from __future__ import annotations

import base64
import pathlib
from collections.abc import Callable
from typing import Any

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

from orv_testbed.programs import TREE
from orv_testbed.waiting import SLACK, wait_until

PICTURES = TREE / "build" / "panel-test"
OPTIONS = (
    *("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--hide-scrollbars"),
    *("--no-first-run", "--disable-background-networking", "--disable-component-update", "--disable-sync"),
    *("--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1", "--lang=en-US"),
)

LISTEN = """
window.spoken = [];
for (const one of document.querySelectorAll("[aria-live], [role=status], [role=alert]")) {
  new MutationObserver(() => window.spoken.push([one.id, one.textContent]))
    .observe(one, { childList: true, characterData: true, subtree: true });
}
"""


class Browser:
    def __init__(self, downloads: pathlib.Path) -> None:
        options = Options()
        for option in OPTIONS:
            options.add_argument(option)
        options.add_experimental_option("prefs", {"download.default_directory": str(downloads)})
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        options.binary_location = "/usr/bin/chromium"
        self.driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        self.driver.set_script_timeout(SLACK)
        self.size()

    def quit(self) -> None:
        self.driver.quit()

    def cdp_command(self, command: str, **parameters: Any) -> Any:
        """A command of the browser's own."""
        return self.driver.execute_cdp_cmd(command, parameters)

    def size(self, width: int = 1440, height: int = 1000) -> None:
        self.cdp_command(
            "Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=width < 500
        )

    def prefer(self, scheme: str = "light", motion: str = "no-preference") -> None:
        wishes = {"prefers-color-scheme": scheme, "prefers-reduced-motion": motion}
        self.cdp_command(
            "Emulation.setEmulatedMedia",
            features=[{"name": name, "value": value} for name, value in wishes.items()],
        )

    def run(self, script: str, *arguments: Any) -> Any:
        return self.driver.execute_script(script, *arguments)

    def complaints(self) -> list[str]:
        """What the console has said since the last look, other than that the server was away."""
        said = [entry["message"] for entry in self.driver.get_log("browser")]
        away = ("ERR_CONNECTION_REFUSED", "ERR_INCOMPLETE_CHUNKED", "ERR_INTERNET_DISCONNECTED")
        return [words for words in said if not any(reason in words for reason in away)]


class Page:
    """The page as it is shown in the browser's window."""

    def __init__(self, browser: Browser, url: str) -> None:
        self.browser = browser
        self.url = url

    def open(self) -> Page:
        self.browser.driver.get(self.url)
        self.wait(lambda: self.text("link").startswith("live"), "the page lives")
        return self

    def wait(self, condition: Callable[[], object], what: str, seconds: float = 10) -> None:
        wait_until(condition, seconds + SLACK, lambda: f"{what}; the page says: {self.words()}", pause=0.1)

    def words(self) -> str:
        return str(self.browser.run("return document.body.innerText"))[:3000]

    def text(self, name: str) -> str:
        return str(self.browser.run("return document.getElementById(arguments[0]).textContent", name))

    def all(self, selector: str, value: str = "textContent") -> list[str]:
        """A property of each element that fits, such as its text."""
        script = "return [...document.querySelectorAll(arguments[0])].map((one) => one[arguments[1]])"
        return list(self.browser.run(script, selector, value))

    def classes(self, selector: str) -> str:
        return str(self.browser.run("return document.querySelector(arguments[0]).getAttribute('class')", selector))

    def style(self, selector: str, name: str) -> str:
        script = "return getComputedStyle(document.querySelector(arguments[0])).getPropertyValue(arguments[1])"
        return str(self.browser.run(script, selector, name))

    def led(self, name: str) -> str:
        return self.classes(f'[data-led="{name}"]').split()[-1]

    def press(self, words: str) -> None:
        """Presses the button of a fault, as a mouse does."""
        button = self.browser.driver.find_element(By.CSS_SELECTOR, f'button[data-fault="{words}"]')
        self.browser.run("arguments[0].scrollIntoView({block: 'center'})", button)
        button.click()

    def in_force(self) -> list[str]:
        return self.all('.fault button[aria-pressed="true"]', "title")

    def undo_all(self) -> None:
        def nothing() -> bool:
            return self.all('[data-fault="undo all"]', "ariaDisabled") == ["true"]

        if not nothing():
            self.press("undo all")
            self.wait(nothing, "no fault in force", 30)

    def wait_for_cloud(self, over: str, seconds: float = 60) -> None:
        self.wait(lambda: self.text("state") == f"Cloud over {over}", f"the cloud over {over}", seconds)

    def notice(self) -> str:
        """What is said above everything, if anything is."""
        return "".join(self.all("#notice:not([hidden])"))

    def bars(self, lane: str) -> list[str]:
        return list(
            self.browser.run(
                "return [...document.querySelectorAll('#timeline [data-lane]')]"
                ".filter((one) => one.dataset.lane === arguments[0]).map((one) => one.dataset.value)",
                lane,
            )
        )

    def listen(self) -> None:
        """Notes from now on what a screen reader speaks by itself."""
        self.browser.run(LISTEN)

    def spoken(self) -> list[list[str]]:
        """Since then: where, and what."""
        return list(self.browser.run("return window.spoken"))

    def type(self, *keys: str) -> None:
        for key in keys:
            self.browser.driver.switch_to.active_element.send_keys(key)

    def tab_to(self, selector: str, back: bool = False) -> None:
        """Presses the tabulator until this element has the focus, and looks whether that is seen at each step."""
        reached = "return document.activeElement.matches(arguments[0])"
        steps = 0
        while not self.browser.run(reached, selector):
            self.type(Keys.SHIFT + Keys.TAB if back else Keys.TAB)
            outline = self.browser.run("return getComputedStyle(document.activeElement).outlineStyle")
            assert outline != "none", self.browser.run("return document.activeElement.outerHTML")
            steps += 1
            assert steps < 150, f"the keyboard does not reach {selector}"

    def keep_picture(self, name: str, whole: bool = False) -> pathlib.Path:
        PICTURES.mkdir(parents=True, exist_ok=True)
        path = PICTURES / f"{name}.png"
        self.browser.run("scrollTo(0, 0)")
        picture = self.browser.cdp_command("Page.captureScreenshot", captureBeyondViewport=whole)
        path.write_bytes(base64.b64decode(picture["data"]))
        return path
