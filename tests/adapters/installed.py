"""Each installed adapter compiles alone, for those hosts that are here, whatever headers an
application has under the names of the others."""

import argparse
import os
import pathlib
import subprocess
import sys
import tempfile

# The header of each host, and its pkg-config module.
HOSTS = {
    "poll": ("Poll.h", []),
    "sd_event": ("SdEvent.h", ["libsystemd"]),
    "glib": ("GLib.h", ["glib-2.0"]),
    "uv": ("Uv.h", ["libuv"]),
    "asio": ("Asio.h", []),
    "boost_asio": ("BoostAsio.h", []),
    "qt": ("QtCore.h", ["Qt5Core"]),
}

parser = argparse.ArgumentParser()
for option in ("--prefix", "--libdir", "--compiler", "--hosts"):
    parser.add_argument(option, required=True)
options = parser.parse_args()

environment = dict(os.environ)
environment["PKG_CONFIG_PATH"] = f"{options.prefix}/{options.libdir}/pkgconfig"
root = pathlib.Path(options.prefix, "include/tovik")
installed = {path.name for path in (root / "Kelvo/Adapters").iterdir()}
if installed != {header for header, _modules in HOSTS.values()} | {"BasicAsio.h", "Guest.h"}:
    sys.exit(f"installed: {sorted(installed)}")


def compile_alone(header, *more):
    """With an application's own headers before the library's, under the names of all the others."""
    with tempfile.TemporaryDirectory() as folder:
        own = pathlib.Path(folder)
        others = {str(path.relative_to(root)) for path in root.rglob("*.h")} - {header}
        for other in others:
            (own / other).parent.mkdir(parents=True, exist_ok=True)
            (own / other).write_text(f'#error "{other} is the application\'s"\n')
        subprocess.run([options.compiler, "-std=c++17", "-fPIC", "-fsyntax-only", "-Wall",
                        "-Wextra", "-Wpedantic", "-Wshadow", "-Wconversion", "-Werror", f"-I{own}",
                        *more, "-xc++", "-"], text=True, check=True,
                       input=f"#include <{header}>\n" * 2)


for host in set(options.hosts.split(",")) & HOSTS.keys():  # others have an example
    header, modules = HOSTS[host]
    flags = subprocess.run(["pkg-config", "--cflags", "kelvo", *modules], check=True,
                           stdout=subprocess.PIPE, text=True, env=environment).stdout.split()
    flags = [flag.replace("-I/usr/include", "-isystem/usr/include") for flag in flags]
    for macros in ([], ["-DQT_NO_KEYWORDS"]):
        compile_alone(f"Kelvo/Adapters/{header}", *macros, *flags)
