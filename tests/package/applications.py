"""What pkg-config says is enough to build and run an application with each compiler, also after the
installed tree was moved."""

from package import HERE, LIB, WORK, check, compilers, flags, install_and_move, run, start

APPLICATIONS = {"tovik": "application.cpp", "tovik-service": "service.cpp"}

prefix = install_and_move("application")
for compiler in compilers():
    for module, source in APPLICATIONS.items():
        program = WORK / "conversation"
        run([compiler, "-std=c++17", "-Wall", "-Wextra", "-Werror", HERE / "consumers" / source,
             "-o", program, *flags(prefix, "--cflags", "--libs", module=module)])
        done = start(program, libraries=[prefix / LIB])
        check(done.returncode == 0 and not done.stdout + done.stderr,
              f"{compiler} {module}: {done}")
