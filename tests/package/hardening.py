"""The built files carry what distributions harden theirs with. Arguments: the build's
configuration, and the names of the programs that it made."""

import json
import re
import sys

from package import BUILD, CXX, LIB, PREFIX, check, run

IMPORTS = ["nm", "--dynamic", "--undefined-only"]
# What has to be there to be seen, in the linker's words; a check that sees nothing fails.
WANTED = {
    "relro": (["readelf", "--wide", "--segments"], r"GNU_RELRO"),
    "now": (["readelf", "--wide", "--dynamic"], r"\((FLAGS|FLAGS_1)\).*\b(BIND_NOW|NOW)\b"),
    "noexecstack": (["readelf", "--wide", "--segments"], r"GNU_STACK.* RW +0x\w+$"),
    "stack-protector": (IMPORTS, r"__stack_chk_fail"),
    # The dynamic loader binds everything at once.
    "defs": (["env", f"LD_LIBRARY_PATH={PREFIX / LIB}", "ldd", "-r"],
             r"\A(?!(.|\n)*undefined symbol)(.|\n)*libc\.so"),
}
CHECKED = re.compile(r"__(?!stack_chk_fail|strcpy_chk)\w+_chk\b")  # strcpy's is asked for by name
FORTIFIED = re.compile(r"-O[123s].* -D_FORTIFY_SOURCE=2(?! .*_FORTIFY_SOURCE)")


def check_commands():
    """Fortification leaves no sure trace in the files."""
    commands = BUILD / "compile_commands.json"
    if not commands.exists():  # the presets ask for it
        return
    built = [entry["command"] for entry in json.loads(commands.read_text())
             if re.search(r"\bCMakeFiles/(Tovik|TovikService|Kelvo|tovik_tool)\.dir/",
                           entry["command"])]
    check(len(built) > 10, f"the libraries have more sources than {built}")
    for command in built:
        check(FORTIFIED.search(command), f"not fortified: {command}")


configuration, *programs = filter(None, sys.argv[1:])
files = [*(PREFIX / LIB / f"lib{name}.so" for name in ("Kelvo", "Tovik", "TovikService")),
         *(PREFIX / "bin" / program for program in programs)]
for file in files:
    for what, (command, pattern) in WANTED.items():
        said = run([*command, file])
        check(re.search(pattern, said, re.M), f"{file} lacks {what}: {said}")
if configuration != "Debug":  # fortification needs optimisation
    check_commands()
    if "clang" not in CXX:  # which leaves variadic functions as they are
        check(CHECKED.search(run([*IMPORTS, files[0]])), f"{files[0]} calls no checked function")
