"""The built files carry what distributions harden theirs with. Says so of itself first: a small
library that lacks one thing has to draw one complaint, about that. Arguments: the build's
configuration, and the names of the programs that it made."""

import json
import os
import re
import subprocess
import sys

from package import BUILD, CXX, LIB, PREFIX, WORK, check, run

CHECKED = re.compile(r"__(?!stack_chk_fail|strcpy_chk)\w+_chk\b")  # strcpy's is asked for by name
FORTIFIED = re.compile(r"-O[123s].* -D_FORTIFY_SOURCE=2(?! .*_FORTIFY_SOURCE)")


def complaints(file):
    """What the file lacks, in the linker's words; but fortification, which leaves no sure trace."""
    headers = run(["readelf", "--wide", "--segments", file])
    dynamic = run(["readelf", "--wide", "--dynamic", file])
    stack = re.search(r"GNU_STACK.* (\S+) +0x\w+$", headers, re.M)
    missing = set()
    if "GNU_RELRO" not in headers:
        missing.add("relro")
    if not re.search(r"\((FLAGS|FLAGS_1)\).*\b(BIND_NOW|NOW)\b", dynamic):
        missing.add("now")
    if stack is None or "E" in stack.group(1):
        missing.add("noexecstack")
    if "__stack_chk_fail" not in imports(file):
        missing.add("stack-protector")
    if "undefined symbol" in loaded(file):
        missing.add("defs")
    return missing


def imports(file):
    return run(["nm", "--dynamic", "--undefined-only", file])


def loaded(file):
    """What the dynamic loader says when it binds everything at once."""
    return subprocess.run(["ldd", "-r", str(file)], text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, timeout=60, check=False,
                          env={**os.environ, "LD_LIBRARY_PATH": str(PREFIX / LIB)}).stdout


def fortified(command):
    return FORTIFIED.search(command) is not None


# --- the checks themselves ---

GOOD = {"relro": "-Wl,-z,relro", "now": "-Wl,-z,now", "noexecstack": "-Wl,-z,noexecstack",
        "stack-protector": "-fstack-protector-strong", "defs": "-Wl,-z,defs",
        "fortify": "-O2 -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2"}
BAD = {"relro": "-Wl,-z,norelro", "now": "-Wl,-z,lazy", "noexecstack": "-Wl,-z,execstack",
       "stack-protector": "-fno-stack-protector", "defs": "-DNEEDS_A_STRANGER",
       "fortify": "-O2 -U_FORTIFY_SOURCE"}
SAMPLE = """#include <cstring>
#ifdef NEEDS_A_STRANGER
int stranger();
#else
static int stranger() { return 1; }
#endif
int sample(const char* from, unsigned size) {
  char text[16];
  std::memcpy(text, from, size);
  return text[size - 1] + stranger();
}
"""


def sample(bad):
    """A small library that lacks just that, and the command that makes it."""
    source, library = WORK / "sample.cpp", WORK / f"libsample-{bad}.so"
    source.write_text(SAMPLE)
    words = " ".join(BAD[name] if name == bad else flag for name, flag in GOOD.items())
    command = f"{CXX} -shared -fPIC {words} {source} -o {library}"
    run(command.split())
    return library, command


def check_the_checks():
    for bad in ("nothing", *GOOD):
        library, command = sample(bad)
        missing = complaints(library) | (set() if fortified(command) else {"fortify"})
        check(missing == {bad} - {"nothing"}, f"without {bad}, it is said to lack {missing}")
        if bad in ("nothing", "fortify"):
            traced = CHECKED.search(imports(library)) is not None
            check(traced == (bad == "nothing"), f"{bad}: {imports(library)}")


# --- the built files ---

def check_commands():
    commands = BUILD / "compile_commands.json"
    if not commands.exists():  # the presets ask for it
        return
    built = [entry["command"] for entry in json.loads(commands.read_text())
             if re.search(r"\bCMakeFiles/(Tovik|TovikService|Kelvo|tovik_tool)\.dir/",
                           entry["command"])]
    check(len(built) > 10, f"the libraries have more sources than {built}")
    for command in built:
        check(fortified(command), f"not fortified: {command}")


check_the_checks()
configuration, *programs = filter(None, sys.argv[1:])
files = [PREFIX / LIB / "libKelvo.so", PREFIX / LIB / "libTovik.so",
         PREFIX / LIB / "libTovikService.so",
         *(PREFIX / "bin" / program for program in programs)]
for file in files:
    check(not complaints(file), f"{file} lacks {complaints(file)}")
if configuration != "Debug":  # fortification needs optimisation
    check_commands()
    if "clang" not in CXX:  # which leaves variadic functions as they are
        check(CHECKED.search(imports(files[0])), f"{files[0]} calls no checked function")
