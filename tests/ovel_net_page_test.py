# SPDX-License-Identifier: Apache-2.0
"""Opens a report of ovel-net in headless Chromium and uses its controls.

    ovel_net_page_test.py PROGRAM NET CHROMIUM

A script that is added to the page does that, and leaves what was wrong as the page's only text.
"""
import pathlib
import re
import subprocess
import sys
import tempfile

program, net, chromium = sys.argv[1:]

# Before the page's own scripts.
FIRST = '''
const wrong = [];
addEventListener("error", (event) => wrong.push(event.message));
function equal(found, expected) {
    if (JSON.stringify(found) !== JSON.stringify(expected))
        wrong.push(`${JSON.stringify(found)}, not ${JSON.stringify(expected)}: ${new Error().stack}`);
}
const element = (selector) => document.querySelector(selector);
const count = (selector) => document.querySelectorAll(selector).length;
// In the middle of the element, as the mouse does it.
function act(selector, Kind, type, how) {
    const box = element(selector).getBoundingClientRect();
    element(selector).dispatchEvent(new Kind(type, { bubbles: true, cancelable: true,
        clientX: box.x + box.width / 2, clientY: box.y + box.height / 2, ...how }));
}
const click = (selector) => act(selector, MouseEvent, "click");
function type(text) {
    element("#filter").value = text;
    element("#filter").dispatchEvent(new Event("input", { bubbles: true }));
}
// How many colours a canvas shows.
function coloursOf(canvas) {
    const pixels = canvas.getContext("2d").getImageData(0, 0, canvas.width, canvas.height).data;
    return new Set(new Uint32Array(pixels.buffer)).size;
}
'''

TEST = '''
const view = (chart) => ["from", "to"].map((end) => Number(element(chart).dataset[end]));
const curves = () => element("#curves").dataset.places.split(" ").filter((place) => place).length;

// It renders the whole net, and loads nothing from elsewhere.
equal(["#picture .node", "#transitions tr", "#places li"].map(count), [16, 5, 11]);
equal(element("#outcome").textContent, "at rest: dead");
equal(data.lanes.reduce((sum, lane) => sum + lane.spans.length / 3, 0), 79);
equal(data.places.map((_, place) => tokensAt(place, data.length)), data.places.map((place) => place.final));
equal(["#lanes", "#curves"].map((chart) => coloursOf(element(chart)) > 4), [true, true]);
equal(performance.getEntriesByType("resource").length, 0);

// The filter, in the lists and in the net.
type("bicycle");
equal(["#transitions tr", "#places li", "#picture .node.chosen"].map(count), [1, 1, 2]);
type("");
equal(count("#transitions tr"), 5);

// Places chosen in the list and in the net.
click("#none");
equal(curves(), 0);
click("#places li:first-child label");
click("#picture .node.marked text");
equal(curves(), 2);
click("#most");
equal(curves(), 5);

// Time is zoomed in about the mouse, in both charts, and out again.
act("#lanes", WheelEvent, "wheel", { deltaY: -400 });
const [begin, end] = view("#lanes");
equal([0 < begin, begin < end, end < data.length, end - begin < data.length / 2], [true, true, true, true]);
equal(view("#curves"), [begin, end]);
click("#whole");
equal(view("#lanes"), [0, data.length]);
act("#curves", MouseEvent, "mousemove");
equal(element("#tip").textContent.slice(0, 3), "at ");

// The picture, the table and the colours.
const shown = () => element("#picture svg").getAttribute("viewBox").split(" ").map(Number);
const whole = shown();
click("#larger");
equal(shown()[2] < whole[2], true);
click("#fit");
equal(shown(), whole);
click("th[data-sort=firings]");
equal(element("#transitions td + td").textContent, "30");
click("#transitions tr");
equal(count("#picture .node.chosen"), 1);
const colour = () => getComputedStyle(document.body).backgroundColor;
const before = colour();
click("#theme");
equal(colour() !== before, true);
'''

# A run of which not all was kept: the page ends where the first thread's records do.
TEST_LONG = '''
equal(data.recorded < data.firings, true);
equal(data.tokens.flatMap((points) => (points || []).filter((n, i) => i % 2 && n > 8)), []);
// Neighbouring times differ, however close they are.
setSpan(data.length / 2, data.length / 2 + 1000);
equal(moment(span[0]) !== moment(span[0] + 2), true);
'''


def check(test, net, *options):
    report = folder / "report.html"
    subprocess.run([program, net, "--threads", "2", "--report", report, *options],
                   check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    page = report.read_text().replace("<head>", f"<head><script>{FIRST}</script>", 1)
    report.write_text(page + f"""<script>addEventListener("load", () => {{ {test} }});
addEventListener("load", () => document.body.textContent = "Wrong: " + wrong.join("\\n"));</script>""")
    shown = subprocess.run([chromium, "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                            "--disable-background-networking", "--window-size=1400,1500",
                            f"--user-data-dir={folder}/profile", "--dump-dom", report.as_uri()],
                           check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True).stdout
    assert re.search("<body[^>]*>Wrong: </body>", shown), shown[-2000:]


with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as name:
    folder = pathlib.Path(name)
    check(TEST, net, "--work", "100")
    check(TEST_LONG, pathlib.Path(net).with_name("readers_writers.pnml"), "--firings", "2500000")
