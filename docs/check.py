"""Looks at every page of build/docs in a browser, at two widths, in light and in dark.

Nothing may be wider than the page, no picture missing or cut, no text of a picture outside it or
crossed by a line. Every file is there, text stands out from its ground, the console is silent."""

import functools
import http.server
import json
import pathlib
import re
import subprocess
import sys
import tempfile

OUT = pathlib.Path(__file__).parents[1] / "build/docs"
LIMIT = 240  # seconds; an idle machine takes 20
BROWSER = ["timeout", str(LIMIT), "chromium", "--headless", "--no-sandbox", "--disable-gpu",
           "--disable-quic", "--no-first-run", "--disable-background-networking",
           "--disable-component-update", "--disable-sync", "--enable-logging=stderr"]
LOOK = r"""<!DOCTYPE html>
<meta charset="utf-8">
<link rel="icon" href="data:,">
<iframe height="800"></iframe>
<div style="position: absolute"></div>
<script>
const problems = [];
const frame = document.querySelector("iframe"), easel = document.querySelector("div");
const drawn = () => new Promise((done) => requestAnimationFrame(() => setTimeout(done)));
const brightness = (colour) => Math.max(...colour.match(/\d+/g).slice(0, 3));
const right = (one) => Math.floor(one.getBoundingClientRect().right);

function look(at, width, scheme) {
  const page = frame.contentDocument, style = frame.contentWindow.getComputedStyle(page.body);
  const problem = (text) => problems.push(`${at}, ${width} px, ${scheme}: ${text}`);
  const wide = [...page.querySelectorAll("article *")].filter(
    (one) => right(one) > width && !one.closest("pre, .table-wrapper"));
  if (page.documentElement.scrollWidth > width || wide.length > 0) {
    problem("wider than the page: " + (wide[0]?.outerHTML ?? "").slice(0, 80));
  }
  for (const one of page.images) {
    if (one.naturalWidth === 0 || right(one) > right(one.parentElement) + 1) {
      problem("missing or cut: " + one.src);
    }
  }
  const ground = brightness(style.backgroundColor), text = brightness(style.color);
  if (scheme === "dark" ? ground > 60 || text < 180 : ground < 240 || text > 80) {
    problem(`${style.color} on ${style.backgroundColor}`);
  }
}

async function lookAt(page) {
  await new Promise((done) => { frame.onload = done; frame.src = page; });
  for (const width of [1280, 360]) for (const scheme of ["light", "dark"]) {
    frame.style.cssText = `border: 0; width: ${width}px`;
    frame.contentDocument.body.dataset.theme = scheme;
    await drawn();
    look(page, width, scheme);
  }
}

async function lookInto(picture) {
  easel.innerHTML = await (await fetch(picture)).text();
  const room = easel.firstElementChild.viewBox.baseVal;
  const lines = [...easel.querySelectorAll(".line")].flatMap((line) =>
    Array.from({length: line.getTotalLength()}, (_, at) => line.getPointAtLength(at)));
  for (const one of easel.querySelectorAll("text")) {
    const box = one.getBBox(), right = box.x + box.width, bottom = box.y + box.height;
    if (box.x < 0 || box.y < 0 || right > room.width || bottom > room.height) {
      problems.push(`${picture} cuts "${one.textContent}"`);
    }
    if (lines.some(({x, y}) => x > box.x && x < right && y > box.y && y < bottom)) {
      problems.push(`${picture} has a line across "${one.textContent}"`);
    }
  }
}

(async () => {
  for (const page of PAGES) await lookAt(page);
  for (const picture of PICTURES) await lookInto(picture);
})().catch((error) => problems.push(String(error))).then(
  () => fetch("/seen", {method: "POST", body: JSON.stringify(problems)}));
</script>
"""


class Site(http.server.SimpleHTTPRequestHandler):
    """Serves the site and the page that looks at it, which sends back what it has seen."""
    problems, seen = [], None

    def do_GET(self):
        if self.path != "/look":
            return super().do_GET()
        self.send_response(200)
        self.end_headers()
        names = {kind: [f"/{path.relative_to(OUT)}" for path in sorted(OUT.rglob(pattern))]
                 for kind, pattern in (("PAGES", "*.html"), ("PICTURES", "_images/*.svg"))}
        return self.wfile.write(re.sub("PAGES|PICTURES", lambda kind: json.dumps(names[kind[0]]),
                                       LOOK).encode())

    def do_POST(self):
        Site.seen = json.loads(self.rfile.read(int(self.headers["Content-Length"])))
        self.send_response(204)
        self.end_headers()

    def end_headers(self):
        self.send_header("Cache-Control", "max-age=3600")  # styles and scripts are sent once
        super().end_headers()

    def log_request(self, code="-", size="-"):
        pass

    def log_error(self, *_reason):
        Site.problems.append(f"{self.path} is missing")


def main():
    site = functools.partial(Site, directory=OUT)
    with tempfile.TemporaryDirectory() as home, tempfile.TemporaryFile("w+") as log, \
            http.server.HTTPServer(("127.0.0.1", 0), site) as server:
        server.timeout = 1
        browser = subprocess.Popen([*BROWSER, f"--user-data-dir={home}",
                                    f"http://127.0.0.1:{server.server_port}/look"], stderr=log)
        while Site.seen is None and browser.poll() is None:
            server.handle_request()
        browser.terminate()
        browser.wait()
        log.seek(0)
        console = [line for line in log if ":CONSOLE" in line]
    if Site.seen is None:
        sys.exit(f"docs/check.py: the browser has not come to the end in {LIMIT} s")
    problems = [*Site.problems, *Site.seen, *console]
    print(*problems, sep="\n")
    sys.exit(bool(problems))


if __name__ == "__main__":
    main()
