"""Every installed header compiles alone without a warning, and may be included twice, whatever
headers an application has under the names of the others. The arguments are the hosts whose adapters
can be compiled here. Builds with g++ and with clang++ each see to their own compiler."""

import concurrent.futures
import subprocess
import sys

from package import CXX, PREFIX, PUBLIC_HEADERS, WORK, check, flags

ADAPTERS = {  # by host; what else its header takes, by pkg-config module
    "poll": ("Poll.h", []),
    "sd_event": ("SdEvent.h", ["libsystemd"]),
    "glib": ("GLib.h", ["glib-2.0"]),
    "uv": ("Uv.h", ["libuv"]),
    "asio": ("Asio.h", []),
    "boost_asio": ("BoostAsio.h", []),
    "qt": ("QtCore.h", ["Qt5Core"]),
}
ROOT = PREFIX / "include" / "tovik"
INSTALLED = sorted(str(path.relative_to(ROOT)) for path in ROOT.rglob("*.h"))
OPTIONS = ["-fPIC", "-fsyntax-only", "-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Wconversion",
           "-Werror", "-xc++", "-"]
NEEDS_CXX20 = "Api/Service/Task.h"


def alone(header, standard, *options):
    """With a folder in which all the other headers are an application's own."""
    folder = WORK / "strangers" / header.replace("/", "-")
    for other in set(INSTALLED) - {header}:
        (folder / other).parent.mkdir(parents=True, exist_ok=True)
        (folder / other).write_text(f'#error "{other} is the application\'s"\n')
    return header, f"-std={standard}", f"-I{folder}", *options


def complaint(header, *options):
    text = f"#include <{header}>\n" * 2
    done = subprocess.run([CXX, *options, *OPTIONS], input=text, text=True, timeout=60,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    failed = done.returncode != 0 or done.stdout
    return f"{CXX} {options} {header}\n{done.stdout}" if failed else ""


def jobs():
    tovik = flags(PREFIX, "--cflags")
    for header in PUBLIC_HEADERS:
        for standard in ("c++20" if header == NEEDS_CXX20 else "c++17", "c++2b"):
            yield alone(header, standard, *tovik)
    for host in set(sys.argv[1:]) & ADAPTERS.keys():  # the others have an example instead
        header, modules = ADAPTERS[host]
        options = [flag.replace("-I/usr/include", "-isystem/usr/include")
                   for flag in flags(PREFIX, "--cflags", *modules, module="kelvo")]
        yield alone(f"Kelvo/Adapters/{header}", "c++17", *options)
        if host == "qt":
            yield alone(f"Kelvo/Adapters/{header}", "c++17", "-DQT_NO_KEYWORDS", *options)


adapters = {f"Kelvo/Adapters/{header}" for header, _modules in ADAPTERS.values()}
shared = {"Kelvo/Adapters/BasicAsio.h", "Kelvo/Adapters/Guest.h"}
check({*INSTALLED} - {*PUBLIC_HEADERS} == adapters | shared, f"installed: {INSTALLED}")
with concurrent.futures.ThreadPoolExecutor(2) as pool:
    complaints = list(pool.map(lambda one: complaint(*one), jobs()))
check(not any(complaints), "\n".join(filter(None, complaints)))
