"""Each installed adapter compiles alone, for those hosts that are here."""

import argparse
import os
import subprocess
import sys

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
installed = set(os.listdir(f"{options.prefix}/include/Kelvo/Adapters"))
if installed != {header for header, _modules in HOSTS.values()} | {"BasicAsio.h", "Guest.h"}:
    sys.exit(f"installed: {sorted(installed)}")

for host in set(options.hosts.split(",")) & HOSTS.keys():  # others have an example
    header, modules = HOSTS[host]
    flags = subprocess.run(["pkg-config", "--cflags", "kelvo", *modules], check=True,
                           stdout=subprocess.PIPE, text=True, env=environment).stdout.split()
    flags = [flag.replace("-I/usr/include", "-isystem/usr/include") for flag in flags]
    for macros in ([], ["-DQT_NO_KEYWORDS"]):
        subprocess.run([options.compiler, "-std=c++17", "-fPIC", "-fsyntax-only", "-Wall",
                        "-Wextra", "-Wpedantic", "-Wshadow", "-Wconversion", "-Werror", *macros,
                        *flags, "-xc++", "-"], text=True, check=True,
                       input=f"#include <Kelvo/Adapters/{header}>\n" * 2)
