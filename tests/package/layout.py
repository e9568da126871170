"""An application that was compiled with another layout of RapidJSON's or the standard library's
types than the library is told so by the linker, and one with another namespace by the compiler."""

import subprocess

from package import CXX, PREFIX, WORK, check, flags

source = WORK / "layout.cpp"
source.write_text("#include <Api/Json/Server.h>\nint main() {}\n")


def build(*options):
    """What the compiler and the linker say, if they refuse; else nothing."""
    done = subprocess.run([CXX, "-std=c++17", *options, source, "-o", WORK / "layout",
                           "-Wl,--gc-sections", *flags(PREFIX, "--cflags", "--libs")],
                          capture_output=True, text=True, timeout=100)
    return done.stderr if done.returncode else ""


check(build() == "", build())
for option in ("-DRAPIDJSON_48BITPOINTER_OPTIMIZATION=0", "-D_GLIBCXX_DEBUG",
               "-D_GLIBCXX_USE_CXX11_ABI=0"):
    check("LibraryBuiltWith<(Tovik::RapidJsonValue)" in build(option), f"{option} is let through")
check("leave RAPIDJSON_NAMESPACE alone" in build("-DRAPIDJSON_NAMESPACE=mine"), "a namespace")
