"""What pkg-config says is enough to build and run an application, also after the installed tree was
moved."""

import shutil

from package import HERE, LIB, PREFIX, WORK, check, compilers, flags, install, run, start

APPLICATIONS = {"tovik": HERE / "conversation.cpp",
                "tovik-service": HERE / "consumers" / "service.cpp"}


def converse(compiler, standard, prefix):
    for module, source in APPLICATIONS.items():
        program = WORK / "conversation"
        run([compiler, f"-std={standard}", "-Wall", "-Wextra", "-Werror", source, "-o", program,
             *flags(prefix, "--cflags", "--libs", module=module)])
        done = start(program, libraries=[prefix / LIB])
        check(done.returncode == 0 and not done.stdout + done.stderr,
              f"{compiler} -std={standard} {module}: {done}")


for each in compilers():
    for version in ("c++17", "c++20"):
        converse(each, version, PREFIX)

first, second = WORK / "first-place", WORK / "second-place"
install(first)
shutil.rmtree(second, ignore_errors=True)
first.rename(second)
converse(compilers()[0], "c++17", second)
