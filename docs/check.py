"""Looks at every page of build/docs in a browser, at two widths, in light and in dark.

Nothing may be wider than the page, no picture missing or cut, no text of a picture outside it or
crossed by a line. Every file is there, text stands out from its ground, the console is silent."""

import pathlib
import sys

from selenium import webdriver

OUT = pathlib.Path(__file__).parents[1] / "build/docs"
# Of a page, what is wrong with it; `arguments` are its width and the scheme.
LOOK_AT_PAGE = r"""
const [width, scheme] = arguments, problems = [];
const brightness = (colour) => Math.max(...colour.match(/\d+/g).slice(0, 3));
const right = (one) => Math.floor(one.getBoundingClientRect().right);
document.body.dataset.theme = scheme;
const wide = [...document.querySelectorAll("article *")].filter(
  (one) => right(one) > width && !one.closest("pre, .table-wrapper"));
if (document.documentElement.scrollWidth > width || wide.length > 0) {
  problems.push("wider than the page: " + (wide[0]?.outerHTML ?? "").slice(0, 80));
}
for (const one of document.images) {
  if (one.naturalWidth === 0 || right(one) > right(one.parentElement) + 1) {
    problems.push("missing or cut: " + one.src);
  }
}
const style = getComputedStyle(document.body);
const ground = brightness(style.backgroundColor), text = brightness(style.color);
if (scheme === "dark" ? ground > 60 || text < 180 : ground < 240 || text > 80) {
  problems.push(`${style.color} on ${style.backgroundColor}`);
}
return problems;
"""
LOOK_INTO_PICTURE = r"""
const problems = [], room = document.documentElement.viewBox.baseVal;
const lines = [...document.querySelectorAll(".line")].flatMap((line) =>
  Array.from({length: line.getTotalLength()}, (_, at) => line.getPointAtLength(at)));
for (const one of document.querySelectorAll("text")) {
  const box = one.getBBox(), right = box.x + box.width, bottom = box.y + box.height;
  if (box.x < 0 || box.y < 0 || right > room.width || bottom > room.height) {
    problems.push(`cuts "${one.textContent}"`);
  }
  if (lines.some(({x, y}) => x > box.x && x < right && y > box.y && y < bottom)) {
    problems.push(`has a line across "${one.textContent}"`);
  }
}
return problems;
"""


def problems(browser):
    for page in sorted(OUT.rglob("*.html")):
        browser.get(page.as_uri())
        for width in (1280, 360):
            browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
                "width": width, "height": 800, "deviceScaleFactor": 1, "mobile": False})
            for scheme in ("light", "dark"):
                for problem in browser.execute_script(LOOK_AT_PAGE, width, scheme):
                    yield f"{page.relative_to(OUT)}, {width} px, {scheme}: {problem}"
        yield from (entry["message"] for entry in browser.get_log("browser"))
    for picture in sorted(OUT.glob("_images/*.svg")):
        browser.get(picture.as_uri())
        for problem in browser.execute_script(LOOK_INTO_PICTURE):
            yield f"{picture.relative_to(OUT)}: {problem}"


options = webdriver.ChromeOptions()
for argument in ("headless", "no-sandbox", "disable-gpu"):
    options.add_argument(argument)
options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
with webdriver.Chrome(options=options) as chromium:
    found = list(problems(chromium))
print(*found, sep="\n")
sys.exit(bool(found))
