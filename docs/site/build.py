"""Makes the static site in build/docs of the Markdown pages and what Doxygen reads in the headers.

Doxygen parses both and complains about what is undocumented or leads nowhere; its XML is then
written as pages with one navigation and one search index.
"""

import html
import json
import pathlib
import re
import shutil
import subprocess
import sys
import xml.etree.ElementTree as ElementTree

ROOT = pathlib.Path(__file__).resolve().parents[2]
SITE = ROOT / "docs/site"
WORK = ROOT / "build/docs-work"
OUT = ROOT / "build/docs"

# The order of the navigation. Other pages of docs/ follow at the end of the first group.
GROUPS = {
    "Guides": ["README.md", "docs/why.md", "docs/tutorial.md", "docs/service.md",
               "docs/beyond.md", "docs/recipes.md", "docs/packages.md", "python/README.md"],
    "In operation": ["docs/wire.md", "docs/diagnostics.md", "docs/troubleshooting.md",
                     "docs/reliability.md", "docs/performance.md", "SECURITY.md"],
    "Inside": ["docs/internals.md", "CONTRIBUTING.md", "CHANGELOG.md"],
}
TITLES = {"README.md": "Overview", "python/README.md": "Python"}
CODE = r"((?<!`)(`+)(?!`).+?(?<!`)\2(?!`))"
# A path of the tree, when it stands as code.
TREE = re.compile(r"(Api|Kelvo|adapters|bench|cmake|docs|examples|fuzz|python|scripts|tests|tool)"
                  r"/[\w./-]*")
LIBRARIES = {"Api": "Library", "Kelvo": "Base library", "adapters": "Adapters"}


class Page:
    def __init__(self, url, title, short=None):
        self.url, self.title, self.short = url, title, short or title
        self.body = ""
        self.sections = []  # (level, anchor, title)
        self.anchors = set()

    def anchor(self, title):
        """The anchor of a heading: words joined by hyphens, as code hosts make them."""
        slug = re.sub(r"[^\w\- ]", "", title.lower()).strip().replace(" ", "-") or "operator"
        unique, count = slug, 0
        while unique in self.anchors:
            count += 1
            unique = f"{slug}-{count}"
        self.anchors.add(unique)
        return unique


def fail(reason):
    sys.exit(f"docs/site/build.py: {reason}")


def text_of(element):
    pieces = [element.text or ""]
    for child in element:
        pieces += [" " if child.tag == "sp" else text_of(child), child.tail or ""]
    return "".join(pieces)


def words(element):
    return " ".join(text_of(element).split())


# --- the Markdown pages ---


def documents():
    """The Markdown files by navigation group."""
    groups = {name: [file for file in files if (ROOT / file).exists()]
              for name, files in GROUPS.items()}
    known = {file for files in groups.values() for file in files}
    for path in sorted(ROOT.glob("docs/*.md")):
        if (file := str(path.relative_to(ROOT))) not in known:
            groups["Guides"].append(file)
    return groups


def url_of(file):
    if file == "README.md":
        return "index.html"
    path = pathlib.PurePath(file)
    stem = path.stem if path.stem != "README" else path.parent.name
    return stem.lower() + ".html"


def staged_name(file):
    return file.replace("/", "-").lower()


def staged(text, own):
    """The page as Doxygen shall see it. Commands are text. Links are left alone, to be followed
    here. Bold is bold beside a parenthesis, too, and a quote does not end a piece of code."""
    lines, fence = [], None
    for line in text.split("\n"):
        mark = re.match(r"\s*(```+|~~~+)", line)
        if mark and fence is None:
            fence = mark.group(1)
        elif mark and line.strip() == fence:
            fence = None
        elif fence is None and not line.startswith("    "):
            parts = re.split(CODE, line)  # prose, code, its marks, prose ...
            parts[::3] = [re.sub(r"\*\*(.+?)\*\*", r"<b>\1</b>",
                                 re.sub(r"([@\\])", r"\\\1", part)) for part in parts[::3]]
            parts[1::3] = [staged_code(code) for code in parts[1::3]]
            del parts[2::3]
            line = re.sub(r"\]\(#", f"]({own}#", "".join(parts))
            line = re.sub(r"(\]\([\w/.-]+\.md)\)", r"\1#)", line)
        lines.append(line)
    return "\n".join(lines)


def staged_code(code):
    """Doxygen takes a leading :: for a link, even in code."""
    code = re.sub(r"^`([^`].*)`$", r"``\1``", code)
    if not re.search(r"(?<![\w>])::", code):
        return code
    return "<code>" + html.escape(code.strip("`"), quote=False).replace("::", r"\::") + "</code>"


def stage(files):
    folder = WORK / "pages"
    folder.mkdir(parents=True)
    for file in files:
        text = (ROOT / file).read_text()
        (folder / staged_name(file)).write_text(staged(text, pathlib.PurePath(file).name))
    return folder


def run_doxygen(pages):
    version = re.search(r"project\(Tovik VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text())
    settings = (ROOT / "docs/Doxyfile").read_text() + f"""
PROJECT_NUMBER = {version.group(1)}
INPUT += {pages}
FILE_PATTERNS += *.md
IMAGE_PATH = docs
"""
    done = subprocess.run(["doxygen", "-"], input=settings, text=True, cwd=ROOT, check=False)
    if done.returncode != 0:
        fail("Doxygen warns, see above")
    return version.group(1)


def check_nothing_is_lost(file, element):
    """What Doxygen's Markdown does not understand it passes over in silence."""
    text = (ROOT / file).read_text()
    fenced = re.findall(r"^```.*?\n(.*?)^```", text, re.M | re.S)
    prose = re.sub(r"^ *```.*?^ *```", "", text, flags=re.M | re.S)
    expected = (len(re.findall(r"^##+ ", prose, re.M)),
                len(re.findall(r"^\|(?![ :|-]+$)", prose, re.M)))
    found = (sum(1 for item in element.iter() if re.match(r"sect\d", item.tag)),
             sum(1 for item in element.iter("row")))
    if expected != found:
        fail(f"{file}: {found} headings and rows of tables are left of {expected}")
    codes = {"\n".join(text_of(line) for line in code.iter("codeline")).strip()
             for code in element.iter("programlisting")}
    for code in fenced:
        if code.strip() not in codes:
            fail(f"{file}: this piece of code has not come through:\n{code}")


# --- from Doxygen's XML to HTML ---


class Writer:
    """Writes one page's elements. `targets` are the addresses of Doxygen's ids, `files` those of
    the tree's files that have a page or a place on one, `titles` the names of Markdown pages."""

    PLAIN = {"bold": "strong", "emphasis": "em", "computeroutput": "code", "orderedlist": "ol",
             "itemizedlist": "ul", "listitem": "li", "blockquote": "blockquote", "strike": "s",
             "superscript": "sup", "subscript": "sub", "variablelist": "dl"}
    SIGNS = {"ndash": "–", "mdash": "—", "lsquo": "‘", "rsquo": "’",
             "nonbreakablespace": "&#160;", "linebreak": "<br>", "hruler": "<hr>", "sp": " "}

    def __init__(self, page, targets, files, titles, folder="docs"):
        self.page, self.targets, self.files = page, targets, files
        self.titles, self.folder = titles, folder

    def all(self, element):
        pieces = [html.escape(element.text or "", quote=False)]
        for child in element:
            pieces += [self.one(child), html.escape(child.tail or "", quote=False)]
        return "".join(pieces)

    def one(self, element):
        tag = element.tag
        if tag in self.SIGNS:
            return self.SIGNS[tag]
        if tag == "computeroutput":
            return self.code(element)
        if tag in self.PLAIN:
            return f"<{self.PLAIN[tag]}>{self.all(element)}</{self.PLAIN[tag]}>"
        if re.fullmatch(r"sect\d", tag):
            return self.section(element, int(tag[-1]) + 1)
        write = getattr(self, "write_" + tag, None)
        if write is None:
            fail(f"{self.page.url}: no idea how to write <{tag}>: {words(element)[:80]}")
        return write(element)

    def section(self, element, level):
        title = element.find("title")
        anchor = self.page.anchor(words(title))
        self.page.sections.append((level, anchor, words(title)))
        heading = (f'<h{level} id="{anchor}"><a class="anchor" href="#{anchor}">'
                   f"{self.all(title)}</a></h{level}>")
        element.remove(title)
        return heading + self.all(element)

    def code(self, element):
        text = text_of(element)
        inner = self.all(element).replace(r"\|", "|")  # as a bar in a table is written
        if TREE.fullmatch(text) and not any((ROOT / (text + end)).exists() for end in ("", ".cpp")):
            fail(f"{self.page.url}: {text} is not in the tree")
        if "<a " not in inner and text in self.files:
            inner = f'<a href="{self.files[text]}">{inner}</a>'
        short = ' class="short"' if len(text) <= 24 and " " not in text else ""
        return f"<code{short}>{inner}</code>"

    def link(self, url, inner):
        return f'<a href="{html.escape(url)}">{inner}</a>'

    def write_ref(self, element):
        url = self.targets.get(element.get("refid"))
        return self.link(url, self.all(element)) if url else self.all(element)

    def write_ulink(self, element):
        url = element.get("url")
        if re.match(r"[a-z]+:", url):
            return self.link(url, self.all(element))
        path, _, anchor = url.partition("#")
        file = str(pathlib.PurePath(self.folder, path))
        file = re.sub(r"[^/]+/\.\./", "", file)
        if file in self.files:
            named = html.escape(self.titles.get(file, file))  # rather than by a path
            return self.link(self.files[file] + ("#" + anchor if anchor else ""),
                             named if words(element) in (path, file) else self.all(element))
        if not (ROOT / file).exists():
            fail(f"{self.page.url}: a link to {url}, which does not exist")
        return f"<code>{file}</code>"  # a source, which the site does not hold

    BLOCKS = {"programlisting", "verbatim", "preformatted", "itemizedlist", "orderedlist", "table",
              "variablelist", "blockquote", "image", "simplesect", "parameterlist"}

    def write_para(self, element):
        """Blocks inside a paragraph stand beside it in HTML."""
        pieces, run = [], html.escape(element.text or "", quote=False)
        for child in [*element, None]:
            if child is None or child.tag in self.BLOCKS:
                pieces.append(f"<p>{run.strip()}</p>\n" if run.strip() else "")
                run = ""
            if child is not None and child.tag in self.BLOCKS:
                pieces.append(self.one(child))
            elif child is not None:
                run += self.one(child)
            run += html.escape(child.tail or "", quote=False) if child is not None else ""
        return "".join(pieces)

    def write_programlisting(self, element):
        lines = []
        for line in element.iter("codeline"):
            pieces = [f'<span class="{part.get("class")}">{self.all(part)}</span>'
                      if part.get("class") != "normal" else self.all(part) for part in line]
            lines.append("".join(pieces))
        return '<pre tabindex="0"><code>' + "\n".join(lines) + "</code></pre>\n"

    def write_verbatim(self, element):
        return f'<pre tabindex="0"><code>{self.all(element)}</code></pre>\n'

    write_preformatted = write_verbatim

    def write_table(self, element):
        """A narrow screen shows each row as a list of cells with their headings, except where
        figures stand in columns."""
        headings, rows, right = [], [], 0
        for row in element.iter("row"):
            cells = []
            for at, entry in enumerate(row.iter("entry")):
                align = entry.get("align")
                attributes = f' class="{align}"' if align else ""
                inner = re.sub(r"^<p>(.*?)</p>\s*$", r"\1", self.all(entry).strip(), flags=re.S)
                if entry.get("thead") == "yes":
                    headings.append(words(entry))
                    right += align == "right"
                    cells.append(f"<th{attributes}>{inner}</th>")
                else:
                    label = html.escape(headings[at])
                    cells.append(f'<td{attributes} data-label="{label}">{inner}</td>')
            rows.append("<tr>" + "".join(cells) + "</tr>")
        kind = "figures" if 2 * right > len(headings) else "rows"
        return (f'<div class="table {kind}" tabindex="0"><table>' + "\n".join(rows)
                + "</table></div>\n")

    def write_image(self, element):
        if element.get("type") != "html":
            return ""  # the same once more, for other formats
        name = pathlib.PurePath(element.get("name")).name
        for folder in (ROOT / self.folder, ROOT / "docs"):
            if (folder / name).exists():
                shutil.copy(folder / name, OUT / name)
                size = re.search(r'viewBox="0 0 ([\d.]+) ([\d.]+)"', (folder / name).read_text())
                wide = " wide" if float(size.group(1)) > 600 else ""
                return (f'<figure class="picture{wide}" tabindex="0"><img src="{name}" '
                        f'width="{size.group(1)}" height="{size.group(2)}" '
                        f'alt="{html.escape(words(element))}"></figure>\n')
        return fail(f"{self.page.url}: no picture {name}")

    def write_anchor(self, _element):
        return ""

    def write_simplesect(self, element):
        title = {"return": "Returns"}.get(element.get("kind"), element.get("kind").capitalize())
        return f"<dl><dt>{title}</dt><dd>{self.all(element)}</dd></dl>\n"

    def write_parameterlist(self, element):
        title = {"exception": "Throws", "param": "Parameters"}[element.get("kind")]
        items = []
        for item in element.iter("parameteritem"):
            name = self.all(item.find("parameternamelist/parametername"))
            description = self.all(item.find("parameterdescription")).strip()
            items.append(f"<dd><code>{name}</code> "
                         + re.sub(r"^<p>(.*)</p>$", r"\1", description, flags=re.S) + "</dd>")
        return f"<dl><dt>{title}</dt>{''.join(items)}</dl>\n"


# --- the reference ---


def documentation(element):
    return [element.find(tag) for tag in ("briefdescription", "detaileddescription")]


def is_documented(element):
    return any(words(part) for part in documentation(element)) or (
        element.find("reimplements") is not None)


def summary(element):
    text = " ".join(filter(None, (words(part) for part in documentation(element))))
    return re.split(r"(?<=\.)\s", text, maxsplit=1)[0]


class Reference:
    """Doxygen's compounds: what has a page, and the address of every id."""

    def __init__(self):
        self.compounds = {}
        for entry in ElementTree.parse(WORK / "xml/index.xml").getroot():
            if entry.get("kind") in ("class", "struct", "namespace", "file", "page"):
                tree = ElementTree.parse(WORK / "xml" / (entry.get("refid") + ".xml"))
                self.compounds[entry.get("refid")] = tree.find("compounddef")
        self.pages, self.targets = {}, {}
        self.by_header = {}  # the documented things of each header: (title, url, summary)
        for refid, compound in self.compounds.items():
            if self.has_page(compound):
                self.add_page(refid, compound)

    @staticmethod
    def name(compound):
        if compound.get("kind") == "file":
            return compound.find("location").get("file")
        return compound.findtext("compoundname")

    def has_page(self, compound):
        kind, name = compound.get("kind"), self.name(compound)
        if kind == "page" or not any(words(part) for part in documentation(compound)):
            return False
        if kind == "namespace":
            return any(is_documented(member) for member in compound.iter("memberdef"))
        return kind == "file" or name.count("::") <= 2

    @staticmethod
    def members(compound):
        """The documented members, in the order of the header, by kind."""
        groups = {"Types": [], "Functions": [], "Data": [], "Protected": [], "Macros": []}
        for member in compound.findall("sectiondef/memberdef"):
            if not is_documented(member) or member.get("prot") == "private":
                continue
            group = {"typedef": "Types", "enum": "Types", "variable": "Data",
                     "define": "Macros"}.get(member.get("kind"), "Functions")
            groups["Protected" if member.get("prot") == "protected" else group].append(member)
        for group in groups.values():
            group.sort(key=lambda member: (member.find("location").get("file"),
                                           int(member.find("location").get("line"))))
        return {title: group for title, group in groups.items() if group}

    def add_page(self, refid, compound):
        name = self.name(compound)
        short = re.split("::|/", name)[-1]
        title = name
        page = Page(re.sub(r"::|/", ".", name) + ".html", title, short)
        self.pages[refid] = page
        self.targets[refid] = page.url
        self.note(compound, short, page.url)
        for group in self.members(compound).values():
            for member in group:
                member_name = member.findtext("name")
                url = f"{page.url}#{page.anchor(member_name)}"
                self.targets[member.get("id")] = url
                if compound.get("kind") == "namespace":
                    call = "()" if member.get("kind") in ("function", "friend") else ""
                    self.note(member, member_name + call, url)
        page.anchors.clear()

    def in_folder(self, refid, folder):
        """Whether it belongs to the library in that folder."""
        compound = self.compounds[refid]
        if compound.get("kind") == "namespace":
            compound = compound.find(".//memberdef")
        return compound.find("location").get("file").split("/")[0] == folder

    def note(self, element, title, url):
        if element.get("kind") != "namespace":
            header = element.find("location").get("file")
            self.by_header.setdefault(header, []).append((title, url, summary(element)))


def prototype(member, writer):
    """A member as its header declares it, without bodies."""
    def piece(element):
        """A type as the headers write it: no blanks inside brackets, & and * at the type."""
        text = writer.all(element).strip() if element is not None else ""
        return re.sub(r" ((&amp;|\*)+)", r"\1", re.sub(r"&lt; | (?=&gt;)",
                      lambda match: match.group(0).strip(), text))

    kind, name = member.get("kind"), html.escape(member.findtext("name"))
    name = f"<b>{name}</b>"
    kept = piece(member.find("type"))
    if kind == "define":
        return f"#define {name}"
    if kind == "typedef":
        return f"using {name} = {kept};"
    if kind == "enum":
        values = ", ".join(value.findtext("name") for value in member.iter("enumvalue"))
        return f"enum {name} {{ {values} }};"
    template = ""
    if (parameters := member.find("templateparamlist")) is not None:
        named = [" ".join(filter(None, (piece(one.find("type")), piece(one.find("declname")))))
                 for one in parameters if one.find("defval") is None]  # others are conditions
        template = f"template &lt;{', '.join(named)}&gt;\n"
    if kind == "variable":
        return f"{kept} {name};"
    flags = [word for word, on in (("friend", kind == "friend"),
                                   ("explicit", member.get("explicit") == "yes"),
                                   ("static", member.get("static") == "yes"),
                                   ("virtual", "virtual" in member.findtext("definition"))) if on]
    kept = re.sub(r"^(?:virtual|friend) ", "", kept)
    parameters = []
    for one in member.findall("param"):
        default = one.find("defval")
        parameters.append(f'{piece(one.find("type"))} {piece(one.find("declname"))}'.strip()
                          + (f" = {piece(default)}" if default is not None else ""))
    tail = html.escape(member.findtext("argsstring").rpartition(")")[2].replace("=0", " = 0"))
    front = " ".join(filter(None, (*flags, kept, name)))
    plain = re.sub(r"<[^>]*>", "", f"{front}({', '.join(parameters)}){tail}")
    separator = ",\n    " if len(html.unescape(plain)) > 76 and len(parameters) > 1 else ", "
    start = "\n    " if separator != ", " else ""
    return f"{template}{front}({start}{separator.join(parameters)}){tail};"


def write_description(element, writer):
    return "".join(writer.all(part) for part in documentation(element) if part is not None)


def write_member(member, page, reference, writer):
    name = member.findtext("name")
    anchor = page.anchor(name)
    page.sections.append((3, anchor, name))
    text = write_description(member, writer)
    values = [f"<li><code>{value.findtext('name')}</code> {write_description(value, writer)}</li>"
              for value in member.iter("enumvalue") if documentation(value)]
    text += f"<ul>{''.join(values)}</ul>" if values else ""
    base = member.find("reimplements")
    if base is not None and (url := reference.targets.get(base.get("refid"))):
        of = url.split("#")[0].removesuffix(".html").split(".")[-1]
        text += f'<p class="aside">Overrides <a href="{url}"><code>{of}::{name}</code></a>.</p>'
    return (f'<section class="member" id="{anchor}"><h3><a class="anchor" href="#{anchor}">'
            f"{html.escape(name)}</a></h3>"
            f'<pre class="prototype" tabindex="0"><code>{prototype(member, writer)}</code></pre>\n'
            f"{text}</section>\n")


def relatives(compound, reference, writer):
    lines = []
    for tag, word in (("basecompoundref", "Derives from"), ("derivedcompoundref", "Derived are")):
        names = [f"<code>{writer.write_ref(one)}</code>" for one in compound.findall(tag)]
        if names:
            lines.append(f"{word} {', '.join(names)}.")
    return f'<p class="aside">{" ".join(lines)}</p>\n' if lines else ""


def declared(compound, reference):
    rows = []
    for inner in compound.findall("innerclass"):
        if page := reference.pages.get(inner.get("refid")):
            rows.append(f'<li><a href="{page.url}"><code>{page.short}</code></a>: '
                        f"{html.escape(summary(reference.compounds[inner.get('refid')]))}</li>")
    return rows


def write_compound(refid, reference, files, titles):
    compound, page = reference.compounds[refid], reference.pages[refid]
    writer = Writer(page, reference.targets, files, titles)
    kind = compound.get("kind")
    word = {"file": "Header", "namespace": "Namespace"}.get(kind, "Class")
    header = compound.find("location").get("file")
    page.body = f'<p class="kind">{word}</p><h1>{html.escape(page.title)}</h1>\n'
    if kind in ("class", "struct"):
        page.body += f'<pre tabindex="0"><code>#include &lt;{header}&gt;</code></pre>\n'
    page.body += write_description(compound, writer) + relatives(compound, reference, writer)
    if rows := declared(compound, reference):
        anchor = page.anchor("Classes")
        page.sections.append((2, anchor, "Classes"))
        page.body += f'<h2 id="{anchor}">Classes</h2><ul>{"".join(rows)}</ul>\n'
    for title, members in reference.members(compound).items():
        page.body += f'<h2 class="members">{title}</h2>\n'
        page.body += "".join(write_member(member, page, reference, writer) for member in members)


def write_overview(reference):
    page = Page("reference.html", "Reference")
    page.body = ("<h1>Reference</h1>\n<p>Everything that the installed headers declare, header by "
                 "header. Names may be searched for, too.</p>\n")
    for header, things in sorted(reference.by_header.items(), key=lambda item: (
            list(LIBRARIES).index(item[0].split("/")[0]), item[0])):
        anchor = re.sub(r"[/.]", "-", header)
        page.sections.append((2, anchor, header))
        page.body += f'<h2 id="{anchor}"><code>{header}</code></h2>\n<dl class="things">'
        for title, url, text in things:
            page.body += (f'<dt><a href="{url}"><code>{html.escape(title)}</code></a></dt>'
                          f"<dd>{html.escape(text)}</dd>")
        page.body += "</dl>\n"
    return page


# --- the site ---


def navigation(groups, pages, reference):
    pieces = []
    for title, files in groups.items():
        links = "".join(f'<li><a href="{pages[file].url}">{html.escape(pages[file].short)}</a></li>'
                        for file in files)
        pieces.append(f"<h2>{title}</h2><ul>{links}</ul>")
    pieces.append('<h2>Reference</h2><ul><li><a href="reference.html">All of it</a></li></ul>')
    for folder, title in LIBRARIES.items():
        links = sorted((page.short, page.url) for refid, page in reference.pages.items()
                       if reference.in_folder(refid, folder))
        items = "".join(f'<li><a href="{url}">{html.escape(short)}</a></li>'
                        for short, url in links)
        pieces.append(f"<h3>{title}</h3><ul>{items}</ul>")
    return "\n".join(pieces)


def contents(page):
    shown, seen = [], set()
    for level, anchor, title in page.sections:
        if level <= 3 and (level == 2 or title not in seen):  # overloads once
            shown.append((level, anchor, title))
            seen.add(title)
    if len(shown) < 3:
        return ""
    items = "".join(f'<li class="level{level}"><a href="#{anchor}">{html.escape(title)}</a></li>'
                    for level, anchor, title in shown)
    return ('<nav class="contents" aria-label="On this page">'
            f"<h2>On this page</h2><ul>{items}</ul></nav>")


def write_page(page, frame, menu, version):
    menu = menu.replace(f'href="{page.url}"', f'href="{page.url}" aria-current="page"')
    title = page.title if page.title == "Tovik" else f"{page.title} · Tovik"
    filled = {"title": html.escape(title), "navigation": menu, "body": page.body,
              "contents": contents(page), "version": version}
    text = re.sub(r"\{\{(\w+)\}\}", lambda match: filled[match.group(1)], frame)
    (OUT / page.url).write_text(text)


def index_entries(page):
    """What the search looks through: each page's start, and each of its sections."""
    parts = re.split(r'(?:<h[2-6]|<section class="member") id="([^"]+)"', page.body)
    titles = {anchor: title for _, anchor, title in page.sections}
    for anchor, body in zip(["", *parts[1::2]], parts[::2]):
        body = re.sub(r"^.*?</h\d>", "", body, count=1, flags=re.S)  # the title stands apart
        text = html.unescape(re.sub(r"<[^>]*>", " ", body))
        yield [page.url + ("#" + anchor if anchor else ""), page.title,
               titles.get(anchor, ""), " ".join(text.split())]


def title_of(file):
    match = re.search(r"^# (.*)$", (ROOT / file).read_text(), re.M)
    return match.group(1).replace("`", "") if match else fail(f"{file} has no title")


def write_documents(files, pages, reference, places):
    """The Markdown pages' bodies, from what Doxygen has made of them."""
    titles = {file: page.title for file, page in pages.items()}
    elements = {}
    for refid, compound in reference.compounds.items():
        if compound.get("kind") == "page" and compound.find("location") is not None:
            elements[pathlib.PurePath(compound.find("location").get("file")).name] = (
                refid, compound.find("detaileddescription"))
    for file in files:
        refid, element = elements[staged_name(file)]
        reference.targets[refid] = pages[file].url
        check_nothing_is_lost(file, element)
        writer = Writer(pages[file], reference.targets, places, titles,
                        str(pathlib.PurePath(file).parent))
        pages[file].body = f"<h1>{html.escape(pages[file].title)}</h1>\n" + writer.all(element)
    return titles


def main():
    for folder in (WORK, OUT):
        shutil.rmtree(folder, ignore_errors=True)
    OUT.mkdir(parents=True)
    groups = documents()
    files = [file for group in groups.values() for file in group]
    pages = {file: Page(url_of(file), title_of(file), TITLES.get(file)) for file in files}
    version = run_doxygen(stage(files))
    reference = Reference()
    places = {file: page.url for file, page in pages.items()}
    for header in reference.by_header:
        places[header] = "reference.html#" + re.sub(r"[/.]", "-", header)
    titles = write_documents(files, pages, reference, places)
    for refid in reference.pages:
        write_compound(refid, reference, places, titles)

    everything = [*pages.values(), write_overview(reference), *reference.pages.values()]
    frame = (SITE / "frame.html").read_text()
    menu = navigation(groups, pages, reference)
    for page in everything:
        write_page(page, frame, menu, version)
    entries = [entry for page in everything for entry in index_entries(page)]
    (OUT / "search-index.js").write_text(
        "const searchIndex = " + json.dumps(entries, ensure_ascii=False, indent=0) + ";\n")
    for name in ("style.css", "site.js"):
        shutil.copy(SITE / name, OUT / name)
    print(f"build/docs/index.html: {len(everything)} pages, {len(entries)} entries to search")


if __name__ == "__main__":
    main()
