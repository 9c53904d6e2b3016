"""What a browser makes of the page."""

from __future__ import annotations

import os
import subprocess
import unittest

from browser import PageTest
from recordings import HOSTILE, Lines, long, usual
from selenium.webdriver.common.keys import Keys
from vexa_trace.picture import make_picture
from vexa_trace.recording import Recording, read_file, read_lines

READS_CFUN = 9  # index of the daemon's read of AT+CFUN? in the usual session
TYPED_CFUN = 8
ANSWERS_CFUN = 12


class Shown(PageTest):
    """What stands there before anything was touched."""

    def test_lanes_are_those_that_occur_in_their_order(self) -> None:
        self.open(usual().recording())
        wanted = ["udp", "modem", "at", "uart", "daemon", "cp-modem", "cp-at", "cp-uart",
                  "platform", "bench"]
        self.assertEqual(wanted, self.state()["lanes"])

    def test_events_are_counted_and_the_wall_clock_is_told(self) -> None:
        recording = usual().recording()
        self.open(recording)
        self.assertEqual(len(recording.events), self.js("return trace.count"))
        self.assertIn(f"{len(recording.events)} events", self.text("summary"))
        self.assertIn("2026-11-21 15:40:00 UTC", self.text("summary"))

    def test_arrows_are_drawn_where_the_page_says(self) -> None:
        self.open(usual().recording())
        x, y = self.js("const [a, b] = trace.endsOf(arguments[0]);"
                       "return [(a + b) / 2, trace.yOf(arguments[0])]", READS_CFUN)
        self.assertNotEqual(self.pixel(x, y), self.pixel(x, y + 4))
        self.assertNotEqual(self.pixel(x, y), self.pixel(x, y + 8))

    def test_qmi_reaches_the_udp_lane_and_not_the_daemon(self) -> None:
        lines = usual()
        lines.add(10, "qmi", dir="in", kind="request", n=3, data="ATI")
        recording = lines.recording()
        self.open(recording)
        index = len(recording.events) - 2
        (_, qmi_to), (udp, _) = self.js(
            "return [trace.endsOf(arguments[0]), trace.endsOf(arguments[0] - 1)]", index)
        self.assertEqual(udp, qmi_to)
        self.js("trace.show(arguments[0])", index)
        self.wait_text("panel-title", "QMI client → service")

    def test_bands_are_drawn(self) -> None:
        self.open(usual().recording())
        self.assertEqual(3, self.state()["bandsInAll"])  # SMS mode, failing writes, unplugged
        self.click("zoom-fit")
        self.wait_state("bands", 3)

    def test_nothing_is_fetched(self) -> None:
        self.open(usual().recording())
        self.assertEqual(0, self.js("return performance.getEntriesByType('resource').length"))

    def test_an_empty_recording_says_so(self) -> None:
        self.open(read_lines(Lines().lines))
        self.wait_text("range", "nothing in view")

    def test_another_size_shows_no_empty_frame(self) -> None:
        self.open(usual().recording())
        # The page's own observer was there first, so this one looks behind it in the same frame.
        self.js("const chart = document.getElementById('chart'); window.isDrawn = [];"
                "new ResizeObserver(() => {"
                "  const aside = document.createElement('canvas');"
                "  [aside.width, aside.height] = [chart.width, chart.height];"
                "  const pen = aside.getContext('2d', { willReadFrequently: true });"
                "  pen.drawImage(chart, 0, 0);"
                "  const pixels = pen.getImageData(0, 0, aside.width, aside.height).data;"
                "  window.isDrawn.push(pixels.some((value) => value > 0));"
                "}).observe(document.getElementById('main'));")
        self.wait(lambda: self.js("return window.isDrawn.length") == 1)
        self.js("document.getElementById('main').style.maxHeight = '300px'")
        self.wait(lambda: self.js("return window.isDrawn.length") == 2)
        self.assertEqual([True, True], self.js("return window.isDrawn"))

    def test_light_and_dark(self) -> None:
        self.open(usual().recording())
        before = self.pixel(3, 300)
        self.keys("d")
        self.wait(lambda: self.pixel(3, 300) != before)


class Walked(PageTest):
    """Pointing, pinning, keys."""

    def test_pointing_shows_text_and_hex(self) -> None:
        self.open(usual().recording())
        self.point_at(READS_CFUN)
        self.wait_text("panel-text", "AT+CFUN?\\r")
        self.assertIn("41 54 2b 43 46 55 4e 3f", self.text("panel-hex"))
        self.assertIn("0d", self.text("panel-hex"))
        self.assertEqual("at → daemon", self.text("panel-title"))
        self.assertIn("0.001160 s", self.text("panel-facts"))
        self.assertIn("Bytes9", self.text("panel-facts"))

    def test_a_click_pins_and_escape_lets_go(self) -> None:
        self.open(usual().recording())
        self.point_at(READS_CFUN, press=True)
        self.wait_state("chosen", READS_CFUN)
        self.point_at(ANSWERS_CFUN)
        self.wait_text("panel-facts", "Since pinned5.13 ms")
        self.keys(Keys.ESCAPE)
        self.wait_state("chosen", -1)

    def test_arrow_keys_walk_and_stay_on_a_lane(self) -> None:
        self.open(usual().recording())
        self.point_at(TYPED_CFUN, press=True)
        self.keys(Keys.ARROW_DOWN)
        self.wait_state("chosen", READS_CFUN)
        self.keys(Keys.ARROW_RIGHT)
        self.wait_state("chosen", ANSWERS_CFUN)
        self.keys(Keys.ARROW_UP, Keys.ARROW_LEFT)
        self.wait_state("chosen", ANSWERS_CFUN - 2)

    def test_faults_are_visited_in_turn(self) -> None:
        recording = usual().recording()
        refused = next(i for i, e in enumerate(recording.events) if e.fields.get("err"))
        unplugged = next(i for i, e in enumerate(recording.events) if e.what == "unplug")
        self.open(recording)
        for wanted in (refused, unplugged, refused):
            self.keys("f")
            self.wait_state("chosen", wanted)

    def test_an_address_with_a_line_pins_it(self) -> None:
        recording = long(200).recording()
        self.open(recording)
        self.js("location.hash = '#line=' + arguments[0]", recording.events[700].line)
        self.wait_state("chosen", 700)
        first, last = self.state()["inView"]
        self.assertTrue(first <= 700 < last)

    def test_the_keys_are_told(self) -> None:
        self.open(usual().recording())
        self.keys("?")
        self.wait(lambda: self.js("return document.getElementById('dialog').open"))
        self.assertIn("a row for each event", self.text("dialog-body"))


class Searched(PageTest):
    """Search."""

    def look_for(self, words: str) -> None:
        self.keys(Keys.ESCAPE, "/")
        self.wait(lambda: self.js("return document.activeElement.id") == "search")
        self.keys(words)

    def test_hits_are_counted_and_visited(self) -> None:
        self.open(usual().recording())
        self.look_for("+cfun?")
        self.wait_text("hits", "3 hits")
        self.keys(Keys.ENTER)
        self.wait_text("hits", "1/3")
        self.assertEqual(TYPED_CFUN, self.state()["chosen"])
        self.keys(Keys.ENTER)
        self.wait_state("chosen", READS_CFUN)
        self.keys(Keys.SHIFT, Keys.ENTER)
        self.wait_state("chosen", TYPED_CFUN)

    def test_bytes_packs_and_fields_are_found(self) -> None:
        rows = {
            "4f 4b": 3,  # OK: CP's answer, to the host, and in a pack
            "\\x1a": 1,  # as it is shown
            "at · AT+CGMR": 1,  # a decoded pack
            "eagain": 1,
            "127.0.0.1:40000": 1,
            "no such text": 0,
        }
        self.open(usual().recording())
        for words, count in rows.items():
            with self.subTest(words):
                self.look_for(words)
                self.wait_text("hits", "none" if count == 0 else "hit")
                self.wait_state("hits", count)

    def test_escape_clears_it(self) -> None:
        self.open(usual().recording())
        self.look_for("ok")
        self.wait(lambda: self.state()["hits"] > 0)
        self.keys(Keys.ESCAPE)
        self.wait_state("hits", 0)


class Zoomed(PageTest):
    """The stretch in view."""

    def in_view(self) -> int:
        first, last = self.state()["inView"]
        return int(last - first)

    def test_zoom_changes_what_is_in_view(self) -> None:
        self.open(long(200).recording())
        before, range_before = self.in_view(), self.text("range")
        self.keys("-")
        self.wait(lambda: self.in_view() > before)
        self.wait(lambda: self.text("range") != range_before)
        self.keys("0")
        self.wait(lambda: self.in_view() == 1001)
        self.keys("1")
        self.wait(lambda: self.in_view() == before)
        self.keys("+")
        self.wait(lambda: self.in_view() < before)

    def test_the_wheel_moves_and_zooms(self) -> None:
        self.open(long(200).recording())
        self.mouse("mouseWheel", 500, 400, deltaX=0, deltaY=2600)
        self.wait(lambda: self.state()["inView"][0] > 50)
        before = self.in_view()
        self.mouse("mouseWheel", 500, 400, deltaX=0, deltaY=300, modifiers=2)
        self.wait(lambda: self.in_view() > before)

    def test_the_overview_leads_anywhere(self) -> None:
        self.open(long(200).recording())
        x, y, height = self.js("const strip = document.getElementById('overview');"
                               "const box = strip.getBoundingClientRect();"
                               "return [box.left + 20, box.top, box.height]")
        self.mouse("mousePressed", x, y + height - 2, button="left", buttons=1, clickCount=1)
        self.mouse("mouseReleased", x, y + height - 2, button="left", clickCount=1)
        self.wait(lambda: self.state()["inView"][1] == 1001)

    def test_time_to_scale_keeps_distances(self) -> None:
        self.open(long(200).recording())
        self.keys("t")
        self.wait(lambda: "scale" in self.text("scale"))
        times = [1000, 1080, 1140, 6140, 6210]  # µs of the first command's lines
        y = self.js("return [0, 1, 2, 3, 4].map((i) => trace.yOf(i))")
        for i in range(1, 4):
            share = (y[i] - y[0]) / (y[4] - y[0])
            self.assertAlmostEqual((times[i] - times[0]) / (times[4] - times[0]), share, places=6)


class Filtered(PageTest):
    """Lanes and kinds switched off and on."""

    def chip(self, name: str) -> None:
        self.js("document.querySelector(`#lanes label[data-name=\"${arguments[0]}\"]`).click()",
                name)

    def test_a_lane_off_takes_its_events_away(self) -> None:
        recording = usual().recording()
        self.open(recording)
        count = sum(event.at == "cp-at" for event in recording.events)
        self.assertEqual(3, count)
        self.chip("cp-at")
        self.wait_state("shown", len(recording.events) - count)
        self.assertNotIn("cp-at", self.state()["lanes"])
        self.chip("cp-at")
        self.wait_state("shown", len(recording.events))

    def test_the_log_is_off_until_it_is_wanted(self) -> None:
        lines = usual()
        lines.octets(10, "log", "out", b"main(35): main enter.\r\n")
        recording = lines.recording()
        self.open(recording)
        self.assertEqual(len(recording.events) - 1, self.state()["shown"])
        self.chip("log")
        self.wait_state("shown", len(recording.events))

    def test_intents_are_off_until_they_are_wanted(self) -> None:
        lines = usual()
        lines.add(10, "cp-at", what="intent", size=16384)
        lines.add(10, "cp-at", what="intent", size=16384, err="EINVAL")
        recording = lines.recording()
        self.open(recording)
        self.wait_state("shown", len(recording.events) - 1)
        self.chip("intents")
        self.wait_state("shown", len(recording.events))

    def test_without_the_daemons_lane_it_still_draws(self) -> None:
        self.open(usual().recording())
        for name in ("udp", "modem", "at", "uart", "cp-modem", "cp-at", "cp-uart", "platform"):
            self.chip("UDP" if name == "udp" else name)
        self.chip("typed")
        self.chip("modes and lines")
        self.wait_state("shown", 0)
        self.wait_text("range", "nothing in view")


class Told(PageTest):
    """What a recording lacks."""

    def test_a_whole_one_has_no_warning(self) -> None:
        self.open(usual().recording())
        self.assertTrue(self.js("return document.getElementById('warning').hidden"))

    def test_cut_off_and_broken_lines(self) -> None:
        lines = usual().lines
        lines[5] = '{"t":1,<img src=x onerror="window.broken=1">\n'
        lines.append('{"t":812')
        self.open(read_lines(lines))
        self.assertEqual("cut off, 2 broken lines", self.text("warning"))
        self.click("warning")
        self.wait_text("dialog-body", "line 6:")
        self.assertIn("(cut off)", self.text("dialog-body"))
        self.assertIsNone(self.js("return window.broken ?? null"))

    def test_a_log_is_told_to_be_one(self) -> None:
        recording = usual().recording()
        recording.start["source"] = "log"
        recording.is_whole = False
        self.open(recording)
        self.assertIn("from the log, to the second", self.text("summary"))
        self.assertTrue(self.js("return document.getElementById('warning').hidden"))


class Recorded(PageTest):
    """A session of the daemon itself."""

    def record(self) -> Recording:
        path = f"{self.folder.name}/session.jsonl"
        lines = 'AT+CFUN?\nAT+CGMR\nAT+CMGS="+15550100"\nHello\n/unplug modem\n'
        subprocess.run([os.environ["VEXA_BENCH"], "--time-out", "60", "--record", path],
                       input=lines.encode(), capture_output=True, check=True, timeout=120)
        return read_file(path)

    def test_it_is_drawn(self) -> None:
        recording = self.record()
        self.open(recording)
        wanted = {"modem", "at", "uart", "daemon", "cp-modem", "cp-at", "cp-uart", "platform"}
        self.assertLessEqual(wanted, set(self.state()["lanes"]))
        self.assertTrue(self.js("return document.getElementById('warning').hidden"))
        pack = next(i for i, e in enumerate(recording.events)
                    if e.at == "platform" and e.dir == "out" and b"AT+CGMR" in e.data)
        self.js("trace.show(arguments[0])", pack)
        self.wait_text("panel-facts", "Meansat · AT+CGMR\\r")
        found = {(band.lane, band.name) for band in make_picture(recording).bands}
        self.assertLessEqual({("at", "sms"), ("modem", "unplugged")}, found)


class Hostile(PageTest):
    """Bytes and fields that would like to be a page."""

    def hostile_lines(self) -> Lines:
        lines = usual()
        for data in HOSTILE:
            lines.octets(10, "at", "in", data)
            text = data.decode("latin-1")
            lines.add(10, "modem", what=text, mode=text, peer=text, **{text: text})
            lines.add(10, "at", dir="out", n=0, asked=1, data=text, err=text)
        lines.add(10, "</title><b>", what="\u2028\ud800", __proto__="x", n=float("nan"))
        lines.add(10, "modem", what="mode", mode="__proto__")
        return lines

    def test_they_stay_data(self) -> None:
        recording = self.hostile_lines().recording()
        self.open(recording)
        self.click("zoom-fit")
        for index, event in enumerate(recording.events):
            self.js("trace.show(arguments[0])", index)
            if event.data in HOSTILE and event.dir == "in":
                self.wait_text("panel-text", "".join(self.escaped(byte) for byte in event.data))
        self.assertIsNone(self.js("return window.broken ?? null"))
        self.assertEqual(0, self.js("return document.querySelectorAll('img, b').length"))
        self.assertEqual(2, self.js("return document.scripts.length"))

    @staticmethod
    def escaped(byte: int) -> str:
        if byte == 0x5C:
            return "\\\\"
        return chr(byte) if 0x20 <= byte < 0x7F else f"\\x{byte:02X}"

    def test_foreign_scripts_are_not_carried_out(self) -> None:
        self.open(usual().recording())
        self.js("const own = document.createElement('script'); own.textContent = 'window.broken=1';"
                "document.body.append(own)")
        self.assertIsNone(self.js("return window.broken ?? null"))
        told = self.console()  # and with it takes what tearDown looks at
        self.assertIn("Content Security Policy", told[0]["message"])


class Large(PageTest):
    """A hundred thousand events."""

    def test_they_load_and_the_slice_in_view_is_drawn(self) -> None:
        recording = long(20_000).recording()
        self.assertEqual(100_001, len(recording.events))
        self.open(recording)
        self.assertIn("100,001 events", self.text("summary"))
        state = self.state()
        self.assertLess(state["arrows"], 60, "only what is in view is drawn")
        self.assertEqual(state["inView"][1] - state["inView"][0], state["arrows"])
        self.keys(Keys.END)
        self.wait(lambda: self.state()["inView"][1] == 100_001)
        self.click("zoom-fit")
        self.wait(lambda: self.state()["isDensity"] and self.state()["inView"] == [0, 100_001])
        self.find_a_mark()

    def find_a_mark(self) -> None:
        self.keys("/")
        self.keys("+mark=19000\\r", Keys.ENTER)
        self.wait_state("chosen", 95_000)
        self.wait_text("hits", "1/3")
        self.click("zoom-rows")
        self.wait(lambda: not self.state()["isDensity"])
        self.assertIn("AT+MARK=19000", self.text("panel-text"))


if __name__ == "__main__":
    unittest.main()
