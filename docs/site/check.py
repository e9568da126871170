"""Checks the site in build/docs: every link and anchor leads somewhere, and in a real browser every
page fits a narrow screen, nothing complains on the console, and the menu and the search work.
Screenshots of every page are left in build/docs-pictures."""

import base64
import html.parser
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import urllib.parse

ROOT = pathlib.Path(__file__).resolve().parents[2]
OUT = ROOT / "build/docs"
PICTURES = ROOT / "build/docs-pictures"
WIDTHS = (360, 1280)
LIMIT = 300  # seconds for a browser that takes some twenty
VOID = {"br", "hr", "img", "input", "link", "meta"}


class Links(html.parser.HTMLParser):
    """What a page offers as anchors, and what it points to; and whether its elements are closed."""

    def __init__(self, path):
        super().__init__()
        self.anchors, self.targets, self.problems, self.open = [], [], [], []
        self.feed(path.read_text())
        self.problems += [f"<{tag}> is not closed" for tag in self.open]

    def handle_starttag(self, tag, attrs):
        if tag not in VOID:
            self.open.append(tag)
        for name, value in attrs:
            if name == "id":
                self.anchors.append(value)
            elif name in ("href", "src"):
                self.targets.append(value)

    def handle_data(self, data):
        if not {"pre", "code", "script"} & set(self.open) and re.search(r"\*\*|\]\(|`", data):
            self.problems.append(f"this is still Markdown: {data.strip()[:60]}")

    def handle_endtag(self, tag):
        if not self.open or self.open.pop() != tag:
            self.problems.append(f"</{tag}> at line {self.getpos()[0]} closes nothing")


def check_links():
    pages = {path.name: Links(path) for path in sorted(OUT.glob("*.html"))}
    problems = [f"{name}: {problem}" for name, page in pages.items() for problem in page.problems]
    for name, page in pages.items():
        twice = {anchor for anchor in page.anchors if page.anchors.count(anchor) > 1}
        problems += [f"{name}: the anchor {anchor} is there twice" for anchor in sorted(twice)]
        for target in sorted(set(page.targets)):
            url = urllib.parse.urlsplit(target)
            if url.scheme:
                continue  # outside, and not for a test to call on
            other = url.path or name
            if not (OUT / other).exists():
                problems.append(f"{name}: {target} does not exist")
            elif url.fragment and urllib.parse.unquote(url.fragment) not in pages[other].anchors:
                problems.append(f"{name}: {target} has no such anchor")
    return list(pages), sum(len(page.targets) for page in pages.values()), problems


class Browser:
    """A headless Chromium, spoken to over a pair of pipes."""

    def __init__(self, folder):
        to_browser, self.requests = os.pipe()
        self.answers, from_browser = os.pipe()

        def as_its_own():  # the browser expects them as descriptors 3 and 4
            spare = [os.dup(to_browser), os.dup(from_browser)]
            os.dup2(os.dup(spare[0]), 3)
            os.dup2(spare[1], 4)

        self.process = subprocess.Popen(
            ["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
             "--disable-dev-shm-usage", "--no-first-run", "--disable-background-networking",
             "--disable-component-update", "--disable-sync", "--remote-debugging-pipe",
             f"--user-data-dir={folder}"],
            preexec_fn=as_its_own, close_fds=False,
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(to_browser)
        os.close(from_browser)
        self.unread, self.count, self.events, self.tab = b"", 0, [], None
        target = self.calls("Target.createTarget", url="about:blank")["targetId"]
        self.tab = self.calls("Target.attachToTarget", targetId=target,
                                  flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Log"):
            self.calls(domain + ".enable")

    def receives(self):
        while b"\0" not in self.unread:
            data = os.read(self.answers, 1 << 20)
            if not data:
                sys.exit("docs/site/check.py: the browser has ended")
            self.unread += data
        message, _, self.unread = self.unread.partition(b"\0")
        return json.loads(message)

    def calls(self, method, **arguments):
        self.count += 1
        request = {"id": self.count, "method": method, "params": arguments}
        if self.tab:
            request["sessionId"] = self.tab
        os.write(self.requests, json.dumps(request).encode() + b"\0")
        while True:
            message = self.receives()
            if message.get("id") == self.count:
                if "error" in message:
                    sys.exit(f"docs/site/check.py: {method}: {message['error']}")
                return message["result"]
            self.events.append(message)

    def waits_for(self, method):
        while not any(event.get("method") == method for event in self.events):
            self.events.append(self.receives())

    def opens(self, url, width):
        self.calls("Emulation.setDeviceMetricsOverride", width=width, height=800,
                   deviceScaleFactor=1, mobile=width < 600)
        self.events.clear()
        self.calls("Page.navigate", url=url)
        self.waits_for("Page.loadEventFired")

    def evaluates(self, expression):
        result = self.calls("Runtime.evaluate", expression=expression, awaitPromise=True,
                            returnByValue=True)
        if "exceptionDetails" in result:
            sys.exit(f"docs/site/check.py: {expression}: {result['exceptionDetails']}")
        return result["result"].get("value")

    def complaints(self):
        """What has come to the console since the page was opened."""
        found = []
        for event in self.events:
            params = event.get("params", {})
            if event.get("method") == "Runtime.exceptionThrown":
                found.append(params["exceptionDetails"]["text"])
            elif event.get("method") == "Runtime.consoleAPICalled":
                found.append(str(params["args"]))
            elif event.get("method") == "Log.entryAdded":
                found.append(params["entry"]["text"])
        return found

    def pictures(self, path, whole=True):
        picture = self.calls("Page.captureScreenshot", captureBeyondViewport=whole)
        path.write_bytes(base64.b64decode(picture["data"]))

    def ends(self):
        self.calls("Browser.close")
        self.process.wait(20)


OVERFLOW = """
Array.from(document.querySelectorAll("body *"))
  .filter((element) => element.getBoundingClientRect().right > %d &&
                       !element.closest("pre, .table, .picture, .skip"))
  .map((element) => element.tagName + " " + element.className + " " +
                    element.textContent.slice(0, 40)).slice(0, 3)
"""

SEARCH = """
(async () => {
  const field = document.getElementById("search");
  field.value = "%s";
  await showResults();
  return [...document.querySelectorAll("#results a")].map((link) => link.getAttribute("href"));
})()
"""

# What is searched for, and what has to be among the first three results.
SEARCHES = {"freeDeadConnections": "Tovik.Server.html#freedeadconnections",
            "EventLoop": "Kelvo.Platform.EventLoop.html",
            "connection refused": "troubleshooting.html",
            "wirdgefunden": None}


def check_in_browser(pages):
    problems = []
    signal.alarm(LIMIT)
    shutil.rmtree(PICTURES, ignore_errors=True)
    PICTURES.mkdir(parents=True)
    with tempfile.TemporaryDirectory() as folder:
        browser = Browser(folder)
        for width in WIDTHS:
            for name in pages:
                browser.opens((OUT / name).as_uri(), width)
                at = f"{name} at {width} px"
                shown = browser.evaluates("document.documentElement.scrollWidth")
                if shown > width:
                    what = browser.evaluates(OVERFLOW % width)
                    problems.append(f"{at} is {shown} px wide: {what}")
                broken = browser.evaluates(
                    "[...document.images].filter((one) => one.naturalWidth === 0).length")
                problems += [f"{at}: {broken} pictures are missing"] if broken else []
                problems += [f"{at}: {text}" for text in browser.complaints()]
                browser.pictures(PICTURES / f"{name.removesuffix('.html')}-{width}.png")
        problems += check_use(browser)
        browser.ends()
    return problems


def check_use(browser):
    problems = []
    browser.opens((OUT / "index.html").as_uri(), 360)
    for wanted, expected in SEARCHES.items():
        found = browser.evaluates(SEARCH % wanted)[:3]
        if not any(url.startswith(expected) for url in found) if expected else found:
            problems.append(f"searching for {wanted} finds {found}")
    browser.evaluates(SEARCH % "reconnect")
    browser.pictures(PICTURES / "search-360.png", whole=False)
    browser.evaluates('document.getElementById("results").hidden = true; menuButton.click()')
    if not browser.evaluates("document.getElementById('menu').getBoundingClientRect().height > 0"):
        problems.append("the menu does not open")
    browser.pictures(PICTURES / "menu-360.png", whole=False)
    browser.calls("Emulation.setEmulatedMedia",
                  features=[{"name": "prefers-color-scheme", "value": "dark"}])
    for name in ("index", "internals", "Tovik.Server"):
        browser.opens((OUT / f"{name}.html").as_uri(), 1280)
        ground = browser.evaluates("getComputedStyle(document.body).backgroundColor")
        if ground != "rgb(20, 24, 29)":
            problems.append(f"{name}.html is not dark in the dark")
        browser.pictures(PICTURES / f"{name}-dark.png", whole=False)
    return problems + browser.complaints()


def main():
    pages, links, problems = check_links()
    problems += check_in_browser(pages)
    for problem in problems:
        print(problem, file=sys.stderr)
    if problems:
        sys.exit(f"docs/site/check.py: {len(problems)} problems")
    print(f"{len(pages)} pages and {links} links; each page at {WIDTHS[0]} and {WIDTHS[1]} px: "
          "nothing broken. Screenshots: build/docs-pictures")


if __name__ == "__main__":
    main()
