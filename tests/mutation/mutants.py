"""Mutants of C++ sources, found from their text alone: a negated condition, a dropped or
swapped statement, a changed operator, constant or text. It relies on the tree's format (braces
around every body, spaces around binary operators) and leaves alone what no test can see: comments,
includes, declarations and memory orders."""

import dataclasses
import re


@dataclasses.dataclass(frozen=True)
class Mutant:
    file: str
    function: str  # "-" outside of functions
    kind: str
    start: int
    end: int
    replacement: str
    before: str  # the lines concerned, in one, before and after
    after: str

    def apply(self, text):
        return text[:self.start] + self.replacement + text[self.end:]

    def key(self):
        return (self.file, self.function, self.before, self.after)


OPERATORS = {
    "==": ["!="], "!=": ["=="], "<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="],
    ">=": [">", "<"], "&&": ["||"], "||": ["&&"], "+": ["-"], "-": ["+"], "*": ["/"], "/": ["*"],
    "%": ["*"], "+=": ["-="], "-=": ["+="], "|=": ["="], "|": ["&"], "&": ["|"], ">>": ["<<"],
}


def masked(text):
    """The text with comments, literals and preprocessor lines blanked, and where literals are. What
    stands after #else is for other systems than those that test."""
    literals = []
    pattern = re.compile(r"""//[^\n]*|/\*.*?\*/|^[ \t]*\#else\b.*?^[ \t]*\#endif|"""
                         r"""^[ \t]*\#(?:\\\n|[^\n])*|"(?:\\.|[^"\\])*"|"""
                         r"""'(?:\\.|[^'\\])'""", re.S | re.M)

    def blank(match):
        found = match.group()
        if found[0] in "\"'":
            literals.append((match.start(), match.end()))
            return found[0] + " " * (len(found) - 2) + found[0]
        return re.sub(r"[^\n]", " ", found)

    return pattern.sub(blank, text), literals


def without_comments(text):
    """What the compiler sees of it, but for line breaks."""
    found = re.sub(r"""(//[^\n]*|/\*.*?\*/)|("(?:\\.|[^"\\])*"|'(?:\\.|[^'\\])')""",
                   lambda match: match.group(2) or " ", text, flags=re.S)
    return " ".join(found.split())


@dataclasses.dataclass
class Level:
    kind: str  # file, class, function, block, paren, braces
    name: str = ""
    void: bool = False
    boolean: bool = False
    boundary: int = 0
    inside: bool = False  # of a statement: a lambda's body
    statements: list = dataclasses.field(default_factory=list)


class Source:
    """One file, split into statements and functions."""

    def __init__(self, file, text):
        self.file, self.text = file, text
        self.code, self.literals = masked(text)
        self.groups = []  # neighbouring statements: lists of (start, end, level)
        self.functions = []  # (start, end, name)
        self._walk()

    def _walk(self):
        levels = [Level("file")]
        starts = []
        for at, byte in enumerate(self.code):
            top = levels[-1]
            if byte in "([":
                levels.append(Level("paren", top.name))
            elif byte in ")]":
                levels.pop()
            elif byte == "{":
                levels.append(self._open(levels, at))
                starts.append(at)
            elif byte == "}":
                self._close(levels, starts.pop(), at)
            elif byte == ";":
                if top.kind in ("function", "block"):
                    start = at - len(self.code[top.boundary:at].lstrip())
                    top.statements.append((start, at + 1))
                top.boundary = at + 1
            elif byte == ":" and self.code[top.boundary:at].strip() in ("public", "private",
                                                                      "protected"):
                top.boundary = at + 1
        assert len(levels) == 1, self.file

    def _open(self, levels, at):
        top = levels[-1]
        head = self.code[top.boundary:at].strip()
        inside = any(level.kind == "function" for level in levels)
        if top.kind in ("file", "class") and not inside:
            if re.match(r"(inline )?namespace\b", head):
                return Level("file", top.name, boundary=at + 1)
            scope = re.match(r"(?:template <.*?>\s*)?(?:class|struct|union|enum)\b"
                             r"(?:[^(:;]*?(\w+(?:::\w+)?))?(?: final)?\s*(?::[^:].*)?$", head, re.S)
            if scope and "=" not in head:
                name = scope.group(1) or ""
                return Level("class", f"{top.name}{name}::", boundary=at + 1)
        opens_body = re.search(r"(\)|\]|\b(const|noexcept|override|else|do|try|mutable))$", head)
        if not opens_body:
            return Level("braces", top.name, boundary=at + 1)
        if inside or top.kind in ("paren", "block", "function"):
            kind, name = ("block" if inside else "function"), top.name
            outer = next((level for level in reversed(levels)
                          if level.kind in ("function", "block")), Level(""))
            is_lambda = top.kind == "paren" or re.search(r"\[[^]]*\]\s*(\([^)]*\))?$", head)
            return Level(kind, name, outer.void and not is_lambda,
                         outer.boolean and not is_lambda, at + 1, bool(is_lambda))
        call = re.search(r"((?:[\w~]+::)*(?:operator\s*\S+?|~?\w+))\s*\(", head)
        name = call.group(1) if call else "?"
        before = head[:call.start()] if call else ""
        return Level("function", top.name + re.sub(r"\s+", "", name),
                     bool(re.search(r"\bvoid\s*$", before)), bool(re.search(r"\bbool\s*$", before)),
                     at + 1)

    def _close(self, levels, start, at):
        closed = levels.pop()
        if closed.kind == "function":
            self.functions.append((start, at, closed.name))
        if closed.kind in ("function", "block") and closed.statements:
            self.groups.append(closed)
        if levels[-1].kind not in ("paren", "braces") and closed.kind != "braces" and \
                not closed.inside:
            levels[-1].boundary = at + 1
            if levels[-1].kind in ("function", "block"):
                levels[-1].statements.append(None)  # nothing is a neighbour across a block

    def function_at(self, at):
        inner = [f for f in self.functions if f[0] <= at <= f[1]]
        return max(inner)[2] if inner else "-"

    # --- the mutations ---

    def mutants(self):
        found = [*self._conditions(), *self._operators(), *self._constants(), *self._texts(),
                 *self._statements()]
        found.sort()
        unique, seen = [], {}
        for start, end, kind, replacement in dict.fromkeys(found):
            mutant = self._mutant(start, end, kind, replacement)
            number = seen[mutant.key()] = seen.get(mutant.key(), 0) + 1
            if number > 1:  # the same text again in the same function
                mutant = dataclasses.replace(mutant, before=f"{mutant.before} [{number}]")
            unique.append(mutant)
        return unique

    def _mutant(self, start, end, kind, replacement):
        first = self.text.rfind("\n", 0, start) + 1
        last = self.text.find("\n", end)
        last = len(self.text) if last < 0 else last
        shown = re.sub(r"\s//[^\n]*$", "", self.text[end:last])
        lead = self.text[first:start]

        def line(middle):
            return re.sub(r"\s+", " ", lead + re.sub(r"\s//[^\n]*", "", middle) + shown).strip()

        return Mutant(self.file, self.function_at(start), kind, start, end, replacement,
                      line(self.text[start:end]), line(replacement))

    def _matching(self, at):
        depth = 0
        for i in range(at, len(self.code)):
            depth += self.code[i] in "([{"
            depth -= self.code[i] in ")]}"
            if depth == 0:
                return i
        raise ValueError(self.file)

    def _split(self, start, end, separator):
        """Where `separator` stands between start and end, outside of brackets."""
        depth, found = 0, []
        for i in range(start, end):
            depth += self.code[i] in "([{"
            depth -= self.code[i] in ")]}"
            if depth == 0 and self.code[i] == separator:
                found.append(i)
        return found

    def _conditions(self):
        for match in re.finditer(r"\b(if|while|for)(?: constexpr)? \(", self.code):
            start = match.end()
            end = self._matching(start - 1)
            parts = self._split(start, end, ";")
            if match.group(1) == "for":
                if len(parts) != 2:
                    continue  # over a range
                start, end = parts[0] + 1, parts[1]
            elif parts:
                start = parts[-1] + 1
            condition = self.text[start:end].strip()
            start += len(self.text[start:end]) - len(self.text[start:end].lstrip())
            if condition == "true":
                continue
            declared = re.match(r"[\w:<>]+(?: const)?[ *&]+(\w+) = ", condition)
            if declared:  # if (T* x = f()): taken never, and always
                yield start, end, "condition", f"{condition}; !{declared.group(1)}"
            elif "&&" in condition or "||" in condition or not re.search(
                    r"^!|\s(==|!=|<=|>=|<|>)\s", condition):  # which have their own negation
                yield start, end, "condition", f"!({condition})"
        for match in re.finditer(r" \? ", self.code):
            arms = self._arms(match.end())
            if arms:
                colon, end = arms
                one = self.text[match.end():colon].strip()
                other = self.text[colon + 1:end].strip()
                yield match.end(), end, "condition", f"{other} : {one}"
        for match in re.finditer(r"(?<=[( ])!(?=[\w(*])", self.code):
            yield match.start(), match.end(), "condition", ""

    def _arms(self, start):
        depth, colon, nested = 0, None, 0
        for i in range(start, len(self.code)):
            byte = self.code[i]
            if byte in "([{":
                depth += 1
            elif byte in ")]}":
                depth -= 1
                if depth < 0:
                    return (colon, i) if colon else None
            elif depth == 0:
                if byte == "?":
                    nested += 1
                elif byte == ":" and self.code[i - 1:i + 2] == " : ":
                    if nested:
                        nested -= 1
                    else:
                        colon = colon or i
                elif byte in ";,":
                    return (colon, i) if colon else None
        return None

    def _operators(self):
        for match in re.finditer(r"(?<=[\w)\]'\"] )(==|!=|<=|>=|\+=|-=|\|=|&&|\|\||>>|[<>+*/%|&-])"
                                 r"(?=\s)", self.code):
            line = self.code[self.code.rfind("\n", 0, match.start()) + 1:match.start()]
            if re.match(r"\s*(template|using)\b", line):
                continue
            for other in OPERATORS[match.group()]:
                yield match.start(), match.end(), "operator", other
        for match in re.finditer(r"\+\+|--", self.code):
            yield (match.start(), match.end(), "operator",
                   "--" if match.group() == "++" else "++")
        for match in re.finditer(r"(?<=\W)~(?=\w+\b(?!\())", self.code):
            yield match.start(), match.end(), "operator", ""

    def _constants(self):
        for match in re.finditer(r"(?<![\w.])(0[xX][0-9a-fA-F]+|\d+)([uUlL]*)(?![\w.])", self.code):
            if re.search(r"(\)|const|noexcept) = $", self.code[:match.start()]):
                continue  # a pure virtual function
            number = int(match.group(1), 0)
            yield match.start(), match.end(), "constant", f"{number + 1}{match.group(2)}"
        for match in re.finditer(r"(?<![\w.])(\d+\.\d+|\d+e\d+)(?![\w.])", self.code):
            yield match.start(), match.end(), "constant", f"({match.group()} + 1)"
        for match in re.finditer(r"\b(true|false)\b", self.code):
            if not re.search(r"while \($", self.code[:match.start()]):
                yield (match.start(), match.end(), "constant",
                       "false" if match.group() == "true" else "true")
        for match in re.finditer(r"(?<![\w:])[A-Z][A-Z0-9]*(_[A-Z0-9]+)*\b(?!\()", self.code):
            if len(match.group()) > 2 and not match.group().endswith("_API"):
                yield match.start(), match.end(), "constant", "0"

    def _texts(self):
        for start, end in self.literals:
            if self.text[start] == '"':
                yield end - 1, end - 1, "text", "~"
            else:
                yield start, end, "text", "'~'"
        for match in re.finditer(r'^#define \w+ "([^"\n]*)(")', self.text, re.M):
            yield match.start(2), match.start(2), "text", "~"

    def _statements(self):
        for level in self.groups:
            for statement in filter(None, level.statements):
                yield from self._without(statement, level)
            for one, other in zip(level.statements, level.statements[1:]):
                if one and other:
                    yield from self._swapped(one, other)

    def _without(self, statement, level):
        start, end = statement
        text = self.code[start:end]
        returned = re.match(r"return\s+(.*);$", text, re.S)
        if returned:
            first = start + returned.start(1)
            value = self.text[first:end - 1]
            if level.void:
                yield start, end, "dropped", "return;"
                yield start, first, "dropped", ""
            elif level.boolean and value not in ("true", "false"):
                yield first, end - 1, "value", f"!({value})"
            elif not re.fullmatch(r"(-?\w+|\{.*\}|std::nullopt)", value):
                yield first, end - 1, "value", "{}"
            elif re.fullmatch(r"[a-z]\w*", value) and value not in ("true", "false", "nullptr"):
                yield first, end - 1, "value", "{}"
        elif not self._declares(text) and not re.match(r"(using|static_assert|typedef)\b", text):
            yield start, end, "dropped", ";"

    @staticmethod
    def _declares(text):
        """A declaration, unless it is one whose object does its work by living."""
        if re.match(r"(return|throw|delete|break|continue|goto)\b", text):
            return False
        if re.match(r"(const )?[\w:<>]+ \w+\([^;]*\);$", text) and not re.match(r"static", text):
            return False
        return bool(re.match(r"(\[\[\w+\]\] )?(static |constexpr |const )*[\w:<>, ]+[&*]* "
                             r"?[&*]*(\w+|\[[\w, ]+\])\s*(=[^=]|\{|;|\[)", text)) and \
            bool(re.match(r"(\[\[|static |constexpr |const |auto|[\w:<>, ]+[&*]* [&*]*\w)", text))

    def _swapped(self, left, right):
        first, second = self.code[left[0]:left[1]], self.code[right[0]:right[1]]
        leaves = r"(return|throw|break|continue|using|static_assert)\b"
        if re.match(leaves, first) or re.match(leaves, second):
            return
        declared = re.match(r"[^=(;{]*?(\w+)\s*(=[^=]|\{|;|\()", first)
        if self._declares(first) or re.match(r"(const )?[\w:<>]+ \w+\(", first):
            if declared and re.search(rf"\b{declared.group(1)}\b", second):
                return
        if self._declares(first) and self._declares(second):
            return
        plain = (r"[\w:<>, ]+[ *&]\w+(\{\w*\}|\[\w+\])?( = (-?\d\w*|true|false|nullptr|"
                 r"sizeof \w+))?;")
        if re.fullmatch(plain, first) or re.fullmatch(plain, second):
            return  # which does nothing that could be early or late
        simple = r"([\w.]+) = ([-\w:]+);"
        one, other = re.fullmatch(simple, first), re.fullmatch(simple, second)
        if one and other and one.group(1) != other.group(2) and one.group(2) != other.group(1):
            return
        between = self.text[left[1]:right[0]]
        yield (left[0], right[1], "swapped",
               self.text[right[0]:right[1]] + between + self.text[left[0]:left[1]])


def mutants(file, text):
    return Source(file, text).mutants()


if __name__ == "__main__":  # shows them
    import pathlib
    import sys
    for name in sys.argv[1:]:
        for each in mutants(name, pathlib.Path(name).read_text()):
            print(f"{each.file}: {each.function} [{each.kind}]\n"
                  f"  - {each.before}\n  + {each.after}")
