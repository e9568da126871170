"""Installation puts the libraries, the public headers and the pkg-config files in place."""

import filecmp
import os
import re

from package import LIB, PREFIX, PUBLIC_HEADERS, RUNPATH, SHARED, SOURCE, check, install, run


def headers():
    root = PREFIX / "include" / "tovik"
    installed = sorted(str(path.relative_to(root)) for path in root.rglob("*") if path.is_file())
    found = [path for path in installed if not path.startswith("Kelvo/Adapters/")]
    check(found == PUBLIC_HEADERS, f"installed headers: {found}")
    for header in found:
        check(filecmp.cmp(root / header, SOURCE / header, shallow=False), f"{header} differs")


def libraries():
    if not SHARED:
        found = sorted(path.name for path in (PREFIX / LIB).glob("lib*"))
        check(found == ["libKelvo.a", "libTovik.a", "libTovikService.a"],
              f"installed libraries: {found}")
        return
    for name in ("TovikService", "Tovik", "Kelvo"):
        link = PREFIX / LIB / f"lib{name}.so"
        check(link.is_symlink() and os.readlink(link) == f"lib{name}.so.1", f"{link}")
        dynamic = run(["readelf", "-dW", link])
        soname = re.findall(r"SONAME.*\[(.*)\]", dynamic)
        check(soname == [f"lib{name}.so.1"], f"lib{name}: SONAME {soname}")
        needed = re.findall(r"NEEDED.*\[(.*)\]", dynamic)
        check(("libKelvo.so.1" in needed) == (name != "Kelvo"), f"lib{name} needs {needed}")
        path = re.findall(r"(?:RUNPATH|RPATH).*\[(.*)\]", dynamic)
        check(path == RUNPATH, f"lib{name}: search path {path}")


def descriptions():
    for name in ("tovik-service", "tovik", "kelvo"):
        text = (PREFIX / LIB / "pkgconfig" / f"{name}.pc").read_text()
        check(str(PREFIX) not in text, f"{name}.pc is tied to its prefix")
        check(not re.search(rf"(^|[\s=:]|-[IL]){SOURCE}\b", text),
              f"{name}.pc mentions the sources")


install(PREFIX)
headers()
libraries()
descriptions()
