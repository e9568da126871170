"""The page of examples/web, in a headless Chromium."""

import os
import shutil
import signal
import sys
import tempfile
import unittest

import support

sys.path.insert(0, str(support.SOURCE / "docs/site"))


@unittest.skipUnless(shutil.which("chromium") and shutil.which("npm"), "it takes chromium and npm")
class Page(unittest.TestCase):
    def start(self):
        """A broker's port with two free ones behind it, as the script wants them."""
        self.script = support.Program(self, [support.SOURCE / "examples/web/run",
                                             support.free_port()],
                                      env={**os.environ, "BUILD": os.environ["TOVIK_BUILD"]},
                                      start_new_session=True)
        self.addCleanup(self.script.kill, signal.SIGTERM)
        return self.script.prints(1)[0]

    def browser(self):
        import check
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        browser = check.Browser(folder.name)
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
        support.wait_until(lambda: self.text("status") == "status 2", "the refusal")

    def opens(self, address):
        def opened():
            self.page.opens(address, 800)
            return self.page.evaluates("typeof mqtt") == "object"
        return opened


if __name__ == "__main__":
    unittest.main()
