"""What pkg-config says is enough to build and run an application, also after the installed tree was
moved."""

from package import (HERE, LIB, PREFIX, WORK, check, compilers, flags, install_and_move, run,
                     start)

APPLICATIONS = {"tovik": "application.cpp", "tovik-service": "service.cpp"}


def converse(compiler, standard, prefix):
    for module, source in APPLICATIONS.items():
        program = WORK / "conversation"
        run([compiler, f"-std={standard}", "-Wall", "-Wextra", "-Werror",
             HERE / "consumers" / source, "-o", program,
             *flags(prefix, "--cflags", "--libs", module=module)])
        done = start(program, libraries=[prefix / LIB])
        check(done.returncode == 0 and not done.stdout + done.stderr,
              f"{compiler} -std={standard} {module}: {done}")


for each in compilers():
    for version in ("c++17", "c++20"):
        converse(each, version, PREFIX)
converse(compilers()[0], "c++17", install_and_move("application"))
