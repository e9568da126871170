"""The libraries export what their interfaces say, all of it versioned, and nothing else."""

import difflib
import re

from package import HERE, LIB, PREFIX, check, run


def exports(library, version, names):
    lines = run(["nm", "-D", "-C", "--defined-only", PREFIX / LIB / library]).splitlines()
    found = sorted({line.split(maxsplit=2)[2] for line in lines if line.split()[1] != "A"})

    untagged = [name for name in found if not name.endswith(f"@@{version}")]
    check(not untagged, f"without a version: {untagged}")
    found = [name.removesuffix(f"@@{version}") for name in found]

    allowed = re.compile(rf"((vtable|typeinfo|typeinfo name) for |non-virtual thunk to )?"
                         rf"Tovik::({names})")
    strangers = [name for name in found if not allowed.match(name)]
    check(not strangers, f"not of the interface: {strangers}")

    expected = (HERE / f"exports-{version.lower()[:-2].replace('_', '-')}.txt").read_text()
    check(found == expected.splitlines(),
          "\n".join(difflib.unified_diff(expected.splitlines(), found, "expected", "exported")))


exports("libTovik.so", "TOVIK_1",
        r"(Server|Connection|Client|AsyncSender|AsyncClient|SocketException)(::|$)"
        r"|Message::toStr\(")
exports("libTovikService.so", "TOVIK_SERVICE_1",
        r"(Service|Session|Request|Refusal|Proxy)(::\W?\w+[[(]|$)|call\(|collecting\(")
