"""Every public header compiles alone, as C++17, 20 and 23, without a warning, and may be included
twice, whatever headers an application has under the names of the others. Builds with g++ and with
clang++ each see to their own compiler."""

import concurrent.futures
import itertools
import subprocess

from package import CXX, PREFIX, PUBLIC_HEADERS, WORK, check, flags

STANDARDS = ["c++17", "c++20", "c++2b"]
OPTIONS = ["-fsyntax-only", "-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Wconversion", "-Werror",
           *flags(PREFIX, "--cflags"), "-xc++", "-"]


def strangers(header):
    """A folder in which all the other headers are an application's own."""
    folder = WORK / "strangers" / header.replace("/", "-")
    for other in set(PUBLIC_HEADERS) - {header}:
        (folder / other).parent.mkdir(parents=True, exist_ok=True)
        (folder / other).write_text(f'#error "{other} is the application\'s"\n')
    return folder


def complaint(standard, header):
    text = f"#include <{header}>\n#include <{header}>\n"
    if header == "Api/Service/Task.h" and standard == "c++17":
        return ""  # it says that it needs C++20
    done = subprocess.run([CXX, f"-std={standard}", f"-I{strangers(header)}", *OPTIONS], input=text,
                          text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=60)
    failed = done.returncode != 0 or done.stdout
    return f"{CXX} {standard}: {header}\n{done.stdout}" if failed else ""


with concurrent.futures.ThreadPoolExecutor(2) as pool:
    complaints = list(pool.map(lambda one: complaint(*one),
                               itertools.product(STANDARDS, PUBLIC_HEADERS)))
check(not any(complaints), "\n".join(filter(None, complaints)))
