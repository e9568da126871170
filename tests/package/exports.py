"""The library exports what its interface says, all of it versioned, and nothing else."""

import difflib
import re

from package import HERE, LIB, PREFIX, check, run

CLASSES = "Server|Connection|Client|AsyncSender|AsyncClient|SocketException"

lines = run(["nm", "-D", "-C", "--defined-only", PREFIX / LIB / "libTovik.so"]).splitlines()
found = sorted({line.split(maxsplit=2)[2] for line in lines if line.split()[1] != "A"})

untagged = [name for name in found if not name.endswith("@@TOVIK_1")]
check(not untagged, f"without a version: {untagged}")
found = [name.removesuffix("@@TOVIK_1") for name in found]

allowed = re.compile(rf"((vtable|typeinfo|typeinfo name) for |non-virtual thunk to )?"
                     rf"Tovik::({CLASSES})(::|$)|Tovik::Message::toStr\(")
strangers = [name for name in found if not allowed.match(name)]
check(not strangers, f"not of the interface: {strangers}")

expected = (HERE / "exports-tovik.txt").read_text().splitlines()
check(found == expected, "\n".join(difflib.unified_diff(expected, found, "expected", "exported")))
