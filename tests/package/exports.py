"""The libraries export what the packages' symbol files say, all versioned, and nothing else."""

import difflib
import re

from package import LIB, PREFIX, SOURCE, check, run

NAME = r"((vtable|typeinfo|typeinfo name) for |non-virtual thunk to )?"
# Each library's interface, the tag of its versions, and its package.
INTERFACES = {
    "Tovik": (NAME + r"Tovik::((Server|Connection|Client|AsyncSender|AsyncClient|SocketException)"
                     r"(::|$)|Message::toStr\(|LibraryBuiltWith<)", "TOVIK_1", "libtovik1"),
    "TovikService": (NAME + r"Tovik::((Service|Session|Request|Refusal|Proxy)(::\W?\w+[\[(]|$)"
                            r"|call\(|collecting\()", "TOVIK_SERVICE_1", "libtovikservice1"),
    "Kelvo": (NAME + r"Kelvo::", "KELVO_1", "libkelvo1"),
}

for library, (interface, tag, package) in INTERFACES.items():
    lines = run(["nm", "-D", "--defined-only", PREFIX / LIB / f"lib{library}.so"]).splitlines()
    mangled = [line.split()[2] for line in lines if line.split()[1] != "A"]
    untagged = [name for name in mangled if not name.endswith(f"@@{tag}")]
    check(not untagged, f"without a version: {untagged}")
    bare = [name.removesuffix(f"@@{tag}") for name in mangled]
    found = sorted(set(run(["c++filt", *bare]).splitlines()))  # which writes names as dpkg does

    strangers = [name for name in found if not re.match(interface, name)]
    check(not strangers, f"not of the interface: {strangers}")

    bits = re.search(r"ELF(32|64)", run(["readelf", "-h", PREFIX / LIB / f"lib{library}.so"]))[1]
    symbols = (SOURCE / "debian" / f"{package}.symbols").read_text()
    expected = sorted(set(re.findall(rf'^ \((?:arch-bits={bits}\|)?c\+\+\)"(.*)@{tag}"', symbols,
                                     re.M)))
    check(found == expected,
          "\n".join(difflib.unified_diff(expected, found, "expected", "exported")))
