"""The site of the pages, of the reference that Doxygen reads in the headers, and of the command's
help. scripts/docs puts the pages into build/docs-work and runs Sphinx with this configuration."""

import os
import pathlib
import re
import subprocess
import xml.etree.ElementTree as ElementTree

from sphinx.util import logging

ROOT = pathlib.Path(__file__).parents[1]
WORK = ROOT / "build/docs-work"
TOOL = os.environ["TOVIK_TOOL"]

project = "Tovik"
version = re.search(r"project\(Tovik VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text())[1]
extensions = ["myst_parser", "breathe"]
exclude_patterns = ["xml"]
myst_heading_anchors = 4
breathe_projects = {project: str(WORK / "xml")}
breathe_default_project = project
breathe_show_include = False
nitpick_ignore_regex = [("cpp:.*", pattern) for pattern in (
    r"(std|rapidjson|asio|boost)\b.*", r"pollfd|sd_event|uv_loop_t|IoContext|G[A-Z]\w+|Q[A-Z]\w+",
    r"(TokenBuckets::)?Clock::.*",
    r"Tovik(::Admission)?|Kelvo(::(Platform|Adapters))?")]  # others' names; namespaces: no page
suppress_warnings = ["misc.highlighting_failure"]  # a console's "> " lines
highlight_language = "none"
html_theme = "furo"
html_title = f"{project} {version}"
html_copy_source = False
html_static_path = ["site.css", "/usr/share/javascript/normalize.css/normalize.css"]
html_css_files = ["site.css"]
html_js_files = ["scripts/gumshoe-patched.js"]
html_use_index = False

# The menu. Pages that are in no group follow at the end of the first one.
MENU = {
    "Guides": ["index", "docs/why", "docs/tutorial", "docs/service", "docs/beyond", "docs/recipes",
               "docs/limits", "docs/packages", "python/README"],
    "In operation": ["command", "docs/wire", "docs/diagnostics", "docs/troubleshooting",
                     "docs/reliability", "docs/performance", "SECURITY"],
    "Inside": ["docs/internals", "CONTRIBUTING", "CHANGELOG"],
    "Reference": [],
}
FILES = {}  # Doxygen's names of the headers, and their pages
# The examples of the reference, which the tests run: a page and the mark of a snippet in it.
EXAMPLES = {
    "Tovik::Server": ("index.md", "file: adder.cpp"),
    "Tovik::Message": ("docs/recipes.md", "file: Values.h"),
    "Tovik::Connection": ("docs/recipes.md", "file: Values.h"),
    "Tovik::Client": ("index.md", "file: add.cpp"),
    "Tovik::AsyncClient": ("docs/tutorial.md", "file: follow.cpp"),
    "Tovik::Admission::Rule": ("docs/recipes.md", "file: Members.h"),
    "Tovik::Service": ("docs/service.md", "file: lamp.cpp"),
    "Tovik::Proxy": ("docs/service.md", "file: follow.cpp"),
    "Kelvo::Platform::EventLoop": ("docs/recipes.md", "file: InBackground.h"),
    "Kelvo::Platform::TimeoutHandler": ("docs/recipes.md", "file: RateLimit.h"),
    "Kelvo::Platform::FdEventHandler": ("docs/recipes.md", "file: UntilItEnds.h"),
    "Kelvo::Platform::DebugRecord": ("docs/diagnostics.md", "file: sink.cpp"),
}
KINDS = {"variable": "attrib", "typedef": "type", "enum": "type"}  # of members, for Doxygen
TREE = r"`((?:Api|Kelvo|bench|cmake|docs|examples|fuzz|python|scripts|tests|tool)/[\w./-]*)`"


def section(title, mark, *parts):
    return "\n".join([title, mark * len(title), "", *parts, ""])


def example(name):
    """The example of a class; an adapter has a whole program."""
    program = "examples/loops/" + name.rpartition("::")[2].replace("QtCore", "Qt") + ".cpp"
    if name in EXAMPLES:
        page, snippet = EXAMPLES[name]
        source = [f"/{page}", "   :lines: 2-", f"   :start-after: <!-- {snippet} -->",
                  "   :end-before: ```"]
    elif (ROOT / program).exists():
        source = [f"/../../{program}"]
    else:
        return ""
    return section("Example", "~", ".. literalinclude:: " + source[0], "   :language: cpp",
                   *source[1:])


def class_reference(kind, name):
    return section(name.rpartition("::")[2], "-", f".. doxygen{kind}:: {name}", "   :members:",
                   "   :protected-members:", "", example(name))


def without_groups(path):
    """Puts members that share a comment among the others, in the order of the header."""
    tree = ElementTree.parse(path)
    compound = tree.find("compounddef")
    for group in compound.findall("sectiondef[@kind='user-defined']"):
        for member in group.findall("memberdef"):
            kind = f"{member.get('prot')}-{KINDS.get(member.get('kind'), 'func')}"
            plain = compound.find(f"sectiondef[@kind='{kind}']")
            if plain is None:
                plain = ElementTree.SubElement(compound, "sectiondef", kind=kind)
            plain.append(member)
            plain[:] = sorted(plain, key=lambda one: int(one.find("location").get("line")))
        compound.remove(group)
    tree.write(path)


def functions_by_header():
    found = {}
    for path in sorted((WORK / "xml").glob("namespace*.xml")):
        compound = ElementTree.parse(path).find("compounddef")
        for member in compound.iter("memberdef"):
            name = f"{compound.findtext('compoundname')}::{member.findtext('name')}"
            found.setdefault(member.find("location").get("file"), []).append(
                f".. doxygen{member.get('kind')}:: {name}{member.findtext('argsstring') or ''}\n")
    return found


def write_reference():
    """A page for each header that declares something."""
    functions = functions_by_header()
    for path in sorted((WORK / "xml").glob("*_8h.xml")):
        compound = ElementTree.parse(path).find("compounddef")
        header = compound.find("location").get("file")
        classes = {one.text: re.match("class|struct", one.get("refid"))[0]
                   for one in compound.findall("innerclass") if one.get("prot") == "public"}
        parts = [class_reference(kind, name) for name, kind in classes.items()
                 if name.rpartition("::")[0] not in classes]  # which shows it
        if header in functions:
            parts.append(section("Functions", "-", *functions[header]))
        if parts:
            page = "reference/" + header.removesuffix(".h").replace("/", "-")
            (WORK / f"{page}.rst").write_text(section(
                header, "=", ".. code-block:: cpp", "", f"   #include <{header}>", "",
                f".. doxygenfile:: {header}",
                "   :sections: briefdescription detaileddescription", "", *parts))
            FILES[path.stem] = page


def write_command():
    """A page of what `tovik help` and `tovik help VERB` print."""
    def printed(*words):
        return subprocess.run([TOOL, "help", *words], check=True, capture_output=True,
                              text=True).stdout

    overview = printed()
    verbs = re.findall(r"^  (\w+)", re.search(r"Verbs:\n(.*?)\n\n", overview, re.S)[1], re.M)
    pages = [("The command", overview)]
    pages += [(f"tovik {verb}", printed(verb)) for verb in verbs]
    (WORK / "command.md").write_text("\n".join(
        f"{'##'[:1 + (number > 0)]} {title}\n\n```\n{text.rstrip()}\n```\n"
        for number, (title, text) in enumerate(pages)))


def know_files(_app, env):
    """A comment that mentions a header refers to its page, which Doxygen calls the source if the
    header has no comment of its own."""
    for name, page in FILES.items():
        for label in (name, name + "_source"):
            env.domaindata["std"]["anonlabels"][label] = (page, "")


def menu(pages):
    MENU["Reference"] = sorted(FILES.values())
    listed = {page for group in MENU.values() for page in group}
    MENU["Guides"] += sorted(page for page in pages if page not in listed)
    for caption, group in MENU.items():
        entries = [page if page != "index" else "Overview <self>" for page in group]
        yield "\n".join(["", "```{toctree}", ":hidden:", f":caption: {caption}", *entries, "```",
                         ""])


def prepare(app, name, source):
    """Completes a page that is about to be read, and looks for paths that are not in the tree."""
    if name == "index":
        source[0] += "".join(menu(app.env.found_docs))
    for path in re.findall(TREE, source[0]):
        if not any((ROOT / (path + end)).exists() for end in ("", ".h", ".cpp")):
            logging.getLogger(__name__).warning("%s is not in the tree", path, location=name)


def setup(app):
    (WORK / "reference").mkdir(exist_ok=True)
    for path in (WORK / "xml").glob("*.xml"):
        if path.name.startswith(("class", "struct")):
            without_groups(path)
    write_reference()
    write_command()
    app.connect("source-read", prepare)
    app.connect("env-updated", know_files)
