"""Every public header compiles alone and without a warning, and may be included twice."""

import concurrent.futures
import itertools
import subprocess

from package import PREFIX, PUBLIC_HEADERS, check, compilers, flags


def complaint(compiler, header):
    text = f"#include <{header}>\n#include <{header}>\n"
    standard = "c++20" if header == "Api/Service/Task.h" else "c++17"
    command = [compiler, f"-std={standard}", "-fsyntax-only", "-Wall", "-Wextra", "-Wpedantic",
               "-Wshadow", "-Wconversion", "-Werror", *flags(PREFIX, "--cflags"), "-xc++", "-"]
    done = subprocess.run(command, input=text, text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, timeout=60)
    return f"{compiler}: {header}\n{done.stdout}" if done.returncode != 0 or done.stdout else ""


with concurrent.futures.ThreadPoolExecutor(2) as pool:
    complaints = list(pool.map(lambda pair: complaint(*pair),
                               itertools.product(compilers(), PUBLIC_HEADERS)))
check(not any(complaints), "\n".join(filter(None, complaints)))
