# SPDX-License-Identifier: Apache-2.0
"""Opens a report of ovel-net in headless Chromium and uses its controls.

    ovel_net_page_test.py PROGRAM NET CHROMEDRIVER CHROMIUM

The browser is driven by the W3C WebDriver protocol over the loopback address.
"""
import json
import pathlib
import re
import subprocess
import sys
import tempfile
import urllib.request

program, net, chromedriver, chromium = sys.argv[1:]
ELEMENT = "element-6066-11e4-a52e-4f735466cecf"


class Browser:
    def __init__(self, folder):
        self._driver = subprocess.Popen([chromedriver, "--port=0"], stdout=subprocess.PIPE, text=True)
        for line in self._driver.stdout:
            if found := re.search(r"started successfully on port (\d+)", line):
                break
        self._base = f"http://127.0.0.1:{found[1]}/session"
        arguments = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                     "--disable-background-networking", "--disable-component-update", "--disable-sync",
                     "--disable-dev-shm-usage", "--window-size=1400,1500", f"--user-data-dir={folder}"]
        try:
            created = self._ask("POST", "", {"capabilities": {"alwaysMatch": {
                "goog:chromeOptions": {"binary": chromium, "args": arguments},
                "goog:loggingPrefs": {"browser": "ALL"}}}})
        except Exception:
            self._driver.terminate()  # it would keep the test's output open
            raise
        self._base += "/" + created["sessionId"]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        try:
            self._ask("DELETE", "")
        finally:
            self._driver.terminate()
            self._driver.wait()

    def _ask(self, method, path, body=None):
        request = urllib.request.Request(
            self._base + path, method=method, headers={"Content-Type": "application/json"},
            data=json.dumps(body or {}).encode() if method == "POST" else None)
        with urllib.request.build_opener(urllib.request.ProxyHandler({})).open(request) as answer:
            return json.load(answer)["value"]

    def open(self, file):
        self._ask("POST", "/url", {"url": file.as_uri()})

    def value(self, script):
        return self._ask("POST", "/execute/sync", {"script": "return " + script, "args": []})

    def _element(self, selector):
        return self._ask("POST", "/element", {"using": "css selector", "value": selector})

    def click(self, selector):
        self._ask("POST", f"/element/{self._element(selector)[ELEMENT]}/click")

    def type(self, selector, text):
        self._ask("POST", f"/element/{self._element(selector)[ELEMENT]}/value", {"text": text})

    def act(self, device, action, selector, **how):
        """In the middle of the element."""
        action = {"type": action, "x": 0, "y": 0, "duration": 0, "origin": self._element(selector), **how}
        self._ask("POST", "/actions", {"actions": [{"type": device, "id": device, "actions": [action]}]})

    def complaints(self):
        return [entry["message"] for entry in self._ask("POST", "/se/log", {"type": "browser"})]


def equal(found, expected):
    assert found == expected, f"{found!r}, not {expected!r}"


def inked(canvas):
    """How many colours a canvas shows."""
    return f"""(() => {{
        const canvas = document.getElementById("{canvas}");
        const pixels = canvas.getContext("2d").getImageData(0, 0, canvas.width, canvas.height).data;
        return new Set(new Uint32Array(pixels.buffer)).size;
    }})()"""


def test(browser):
    count = "document.querySelectorAll('{}').length".format
    view = "['from', 'to'].map((end) => Number(document.getElementById('lanes').dataset[end]))"
    curves = "document.getElementById('curves').dataset.places"

    # It renders the whole net, and loads nothing from elsewhere.
    equal(browser.value(count("#picture .node")), 16)
    equal(browser.value(count("#transitions tr")), 5)
    equal(browser.value(count("#places li")), 11)
    equal(browser.value("document.getElementById('outcome').textContent"), "at rest: dead")
    equal(browser.value("data.lanes.reduce((sum, lane) => sum + lane.spans.length / 3, 0)"), 79)
    for place in range(11):
        equal(browser.value(f"tokensAt({place}, data.length)"), browser.value(f"data.places[{place}].final"))
    assert browser.value(inked("lanes")) > 4 and browser.value(inked("curves")) > 4
    equal(browser.value("performance.getEntriesByType('resource').length"), 0)

    # The filter, in the lists and in the net.
    browser.type("#filter", "bicycle")
    equal(browser.value(count("#transitions tr")), 1)
    equal(browser.value(count("#places li")), 1)
    equal(browser.value(count("#picture .node.chosen")), 2)
    browser.type("#filter", "\ue003" * 7)
    equal(browser.value(count("#transitions tr")), 5)

    # Places chosen in the list and in the net.
    browser.click("#none")
    equal(browser.value(curves), "")
    browser.click("#places li:first-child label")
    browser.click("#picture .node.marked text")
    equal(len(browser.value(curves).split()), 2)
    browser.click("#most")
    equal(len(browser.value(curves).split()), 5)

    # Time is zoomed in about the mouse, in both charts, and out again.
    browser.act("wheel", "scroll", "#lanes", deltaX=0, deltaY=-400)
    length = browser.value("data.length")
    begin, end = browser.value(view)
    assert 0 < begin < end < length and end - begin < length / 2, (begin, end, length)
    equal(browser.value(view.replace("lanes", "curves")), [begin, end])
    browser.click("#whole")
    equal(browser.value(view), [0, length])
    browser.act("pointer", "pointerMove", "#curves")
    assert browser.value("document.getElementById('tip').textContent").startswith("at ")

    # The picture, the table and the colours.
    shown = "document.querySelector('#picture svg').getAttribute('viewBox')"
    whole = browser.value(shown)
    browser.click("#larger")
    assert browser.value(shown) != whole
    browser.click("#fit")
    equal([float(n) for n in browser.value(shown).split()], [float(n) for n in whole.split()])
    browser.click("th[data-sort=firings]")
    equal(browser.value("document.querySelector('#transitions td + td').textContent"), "30")
    browser.click("#transitions tr")
    equal(browser.value(count("#picture .node.chosen")), 1)
    before = browser.value("getComputedStyle(document.body).backgroundColor")
    browser.click("#theme")
    assert browser.value("getComputedStyle(document.body).backgroundColor") != before
    equal(browser.complaints(), [])


def test_long(browser):
    """A run of which not all was kept: the page ends where the first thread's records do."""
    assert browser.value("data.recorded < data.firings")
    equal(browser.value("data.tokens.flatMap((points) => (points || []).filter((n, i) => i % 2 && n > 8))"), [])
    # Neighbouring times differ, however close they are.
    browser.value("setSpan(data.length / 2, data.length / 2 + 1000)")
    assert browser.value("moment(span[0]) !== moment(span[0] + 2)")


def show(browser, net, *options):
    report = folder / "report.html"
    subprocess.run([program, net, "--threads", "2", "--report", report, *options],
                   check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    browser.open(report)


with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as name:
    folder = pathlib.Path(name)
    with Browser(folder / "profile") as browser:
        show(browser, net, "--work", "100")
        test(browser)
        show(browser, pathlib.Path(net).with_name("readers_writers.pnml"), "--firings", "2500000")
        test_long(browser)
