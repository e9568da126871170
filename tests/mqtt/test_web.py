"""The page of examples/web, in a headless Chromium."""

import json
import os
import shutil
import signal
import subprocess
import tempfile
import unittest

import broker
import support


class Browser:
    """A headless Chromium with one tab, spoken to over a pair of pipes."""

    def __init__(self, folder):
        to_browser, self.requests = os.pipe()
        self.answers, from_browser = os.pipe()

        def as_its_own():  # the browser expects them as descriptors 3 and 4
            spare = [os.dup(to_browser), os.dup(from_browser)]
            os.dup2(os.dup(spare[0]), 3)
            os.dup2(spare[1], 4)

        self.process = subprocess.Popen(
            ["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
             "--no-first-run", "--disable-background-networking", "--disable-component-update",
             "--disable-sync", "--remote-debugging-pipe", f"--user-data-dir={folder}"],
            preexec_fn=as_its_own, close_fds=False, stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(to_browser)
        os.close(from_browser)
        self.unread, self.count, self.tab = b"", 0, None
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.tab = self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]

    def call(self, method, **arguments):
        self.count += 1
        request = {"id": self.count, "method": method, "params": arguments}
        if self.tab:
            request["sessionId"] = self.tab
        os.write(self.requests, json.dumps(request).encode() + b"\0")
        while True:
            message = self.receive()
            if message.get("id") == self.count:
                return message["result"]

    def receive(self):
        while b"\0" not in self.unread:
            data = os.read(self.answers, 1 << 20)
            if not data:
                raise AssertionError("the browser has ended")
            self.unread += data
        message, _, self.unread = self.unread.partition(b"\0")
        return json.loads(message)

    def evaluates(self, expression):
        result = self.call("Runtime.evaluate", expression=expression, returnByValue=True)
        if "exceptionDetails" in result:
            raise AssertionError(f"{expression}: {result['exceptionDetails']}")
        return result["result"].get("value")

    def ends(self):
        self.call("Browser.close")
        self.process.wait(support.DEADLINE)
        os.close(self.requests)
        os.close(self.answers)


@unittest.skipUnless(shutil.which("chromium") and shutil.which("npm"), "it takes chromium and npm")
class Page(unittest.TestCase):
    def start(self):
        """A broker's port with two free ones behind it, as the script wants them."""
        self.script = support.Program(self, [support.SOURCE / "examples/web/run",
                                             str(broker.free_port())],
                                      env={**os.environ, "BUILD": os.environ["TOVIK_BUILD"]},
                                      start_new_session=True)
        self.addCleanup(self.script.kill, signal.SIGTERM)
        return self.script.prints(1)[0]

    def browser(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        browser = Browser(folder.name)
        self.addCleanup(browser.ends)
        return browser

    def text(self, name):
        return self.page.evaluates(f"document.getElementById('{name}').textContent")

    def test_shows_values_a_chart_and_a_status(self):
        address = self.start()
        self.page = self.browser()
        support.wait_until(self.opens(address), "the page")
        support.wait_until(lambda: self.text("online") == "there", "presence")
        support.wait_until(lambda: float(self.text("uptime").replace("–", "0")) > 0, "values")
        self.page.evaluates("document.querySelector('button').click()")
        support.wait_until(lambda: self.text("status") == "status 0", "the status")
        points = "document.querySelector('polyline').getAttribute('points').split(' ').length"
        support.wait_until(lambda: self.page.evaluates(points) > 10, "the chart")
        self.page.evaluates("document.getElementById('seconds').removeAttribute('min'),"
                            "document.getElementById('seconds').value = '-1',"
                            "document.querySelector('button').click()")
        support.wait_until(lambda: self.text("status") != "status 0", "the refusal")

    def opens(self, address):
        def opened():
            self.page.call("Page.navigate", url=address)
            return self.page.evaluates("typeof mqtt") == "object" and self.page.evaluates(
                "document.getElementById('status') !== null")
        return opened
