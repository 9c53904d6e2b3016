"""A headless Chromium with a page of script/trace in it."""

from __future__ import annotations

import tempfile
import unittest
from collections.abc import Callable
from pathlib import Path
from typing import Any

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.wait import WebDriverWait
from vexa_trace.html import write_page
from vexa_trace.recording import Recording

DEADLINE = 60  # seconds; generous, for machines that do much else
OPTIONS = (
    "--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync",
    "--host-resolver-rules=MAP * ~NOTFOUND",
)


def start_browser(profile: str) -> webdriver.Chrome:
    """A browser that can reach nothing but files."""
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for option in (*OPTIONS, f"--user-data-dir={profile}"):
        options.add_argument(option)  # type: ignore[no-untyped-call]
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    screen = {"width": 1280, "height": 800, "deviceScaleFactor": 1, "mobile": False}
    driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", screen)
    return driver


class PageTest(unittest.TestCase):
    """One browser for the tests of a class."""

    driver: webdriver.Chrome
    folder: tempfile.TemporaryDirectory[str]

    @classmethod
    def setUpClass(cls) -> None:
        cls.folder = tempfile.TemporaryDirectory(ignore_cleanup_errors=True)
        cls.addClassCleanup(cls.folder.cleanup)
        cls.driver = start_browser(f"{cls.folder.name}/profile")
        cls.addClassCleanup(cls.driver.quit)

    def tearDown(self) -> None:
        self.assertEqual([], self.console(), "the console stays empty")

    def open(self, recording: Recording) -> None:
        """Shows the page of this recording and waits until it is drawn."""
        path = Path(self.folder.name) / "page.html"
        write_page(recording, str(path))
        self.driver.get(path.as_uri())
        self.wait(lambda: self.state()["frames"] > 0)

    def js(self, script: str, *arguments: Any) -> Any:
        """What a script in the page returns."""
        return self.driver.execute_script(  # type: ignore[no-untyped-call]
            script, *arguments)

    def console(self) -> list[dict[str, Any]]:
        """What the browser's console was told since this was last asked."""
        told: list[dict[str, Any]] = self.driver.get_log("browser")  # type: ignore[no-untyped-call]
        return told

    def state(self) -> dict[str, Any]:
        """What the page says of itself."""
        found: dict[str, Any] = self.js("return window.trace?.state() ?? {frames: 0}")
        return found

    def text(self, name: str) -> str:
        """The text of an element, by its id."""
        return str(self.js("return document.getElementById(arguments[0]).textContent", name))

    def wait(self, condition: Callable[[], Any]) -> None:
        """Until the condition holds."""
        WebDriverWait(self.driver, DEADLINE, 0.05).until(lambda _: condition())

    def wait_state(self, name: str, value: Any) -> None:
        """Until the page says this of itself."""
        try:
            self.wait(lambda: self.state()[name] == value)
        except Exception as error:
            raise AssertionError(f"{name}: {self.state()[name]!r}, not {value!r}") from error

    def wait_text(self, name: str, part: str) -> None:
        """Until an element holds this text."""
        try:
            self.wait(lambda: part in self.text(name))
        except Exception as error:
            raise AssertionError(f"{name}: {part!r} not in {self.text(name)!r}") from error

    def click(self, name: str) -> None:
        """A click on an element."""
        self.driver.find_element(By.ID, name).click()

    def keys(self, *keys: str) -> None:
        """Keys for whatever has the focus."""
        self.driver.switch_to.active_element.send_keys(*keys)

    def point_at(self, index: int, press: bool = False) -> None:
        """Moves the pointer to the middle of an event's arrow, and clicks it."""
        x, y = self.js(
            "const box = document.getElementById('chart').getBoundingClientRect();"
            "const [a, b] = trace.endsOf(arguments[0]);"
            "return [box.left + (a + b) / 2, box.top + trace.yOf(arguments[0])]", index)
        self.mouse("mouseMoved", x, y)
        if press:
            self.mouse("mousePressed", x, y, button="left", clickCount=1)
            self.mouse("mouseReleased", x, y, button="left", clickCount=1)

    def mouse(self, kind: str, x: float, y: float, **more: Any) -> None:
        """A movement or press, as from a mouse."""
        self.driver.execute_cdp_cmd(
            "Input.dispatchMouseEvent", {"type": kind, "x": x, "y": y, **more})

    def pixel(self, x: float, y: float) -> list[int]:
        """A pixel of the chart."""
        found: list[int] = self.js(
            "const [x, y] = arguments, aside = document.createElement('canvas');"
            "const pen = aside.getContext('2d', { willReadFrequently: true });"
            "pen.drawImage(document.getElementById('chart'), x, y, 1, 1, 0, 0, 1, 1);"
            "return [...pen.getImageData(0, 0, 1, 1).data]", x, y)
        return found
