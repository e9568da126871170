"""The version of CMakeLists.txt, which the command, the manual pages, the site and the files for
CMake and pkg-config take from there, is also the one that is written down elsewhere."""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
VERSION = r"(\d+\.\d+\.\d+)"
PLACES = {
    "CMakeLists.txt": rf"^project\(Tovik VERSION {VERSION} ",
    "CHANGELOG.md": rf"\A# Changes\n\n## {VERSION}, ",
    "debian/changelog": rf"\Atovik \({VERSION}-[^)]+\) ",
    "python/pyproject.toml": rf'^version = "{VERSION}"$',
    "tests/tool/usage.transcript": rf"^tovik {VERSION}$",
}

found = {place: sorted(set(re.findall(pattern, (ROOT / place).read_text(), re.M)))
         for place, pattern in PLACES.items()}
wanted = found["CMakeLists.txt"]
if len(wanted) != 1 or any(versions != wanted for versions in found.values()):
    sys.exit("\n".join(["the versions differ:", *(f"  {place}: {' '.join(versions) or 'none'}"
                                                  for place, versions in found.items())]))
print(*wanted)
