"""Messages of the wrong shape and names that do not fit end the process, whatever the application,
or the library, was built with. The argument says whose build is the unfriendly one: "library" is
the one of the application that fetches it, "static" an application's with the library linked in."""

import signal
import sys

from package import CXX, HERE, LIB, PREFIX, STATIC_PREFIX, WORK, check, flags, run, start

WRONG = [
    ("client", '{"type":5,"status":0}', "Assertion `IsString()' failed"),
    ("client", "[1,2]", "Assertion `IsObject()' failed"),
    ("client", '"reply"', "Assertion `IsObject()' failed"),
    ("server", '{"command":7,"notification":true}', "Assertion `IsString()' failed"),
    ("server", "[1,2]", "Assertion `IsObject()' failed"),
    ("name", "client", "buffer overflow detected"),
    ("name", "server", "buffer overflow detected"),
    ("name", "async", "buffer overflow detected"),
]
RIGHT = [
    ("client", '{"type":"reply","status":3}', 3),
    ("server", '{"command":"get","notification":true}', 0),
]


def build_application():
    """Without assertions, and with its own functions of RapidJSON there for the library to find."""
    program = WORK / f"misuse-{sys.argv[1]}"
    prefix = STATIC_PREFIX if sys.argv[1] == "static" else PREFIX
    run([CXX, "-std=c++17", "-O0", "-DNDEBUG", "-rdynamic", HERE / "misuse.cpp", "-o", program,
         *flags(prefix, "--cflags", "--libs")])
    exported = run(["nm", "-D", "-C", "--defined-only", program])
    for function in ("::FindMember(", "::GetString()", "::GetUint()", "::GetBool()"):
        check("rapidjson::GenericValue" in exported and function in exported,
              f"the application does not export {function}")
    return program


fetched = WORK / "consumer-fetch" / "build" / "_deps" / "tovik-build"
libraries = [fetched / "Api", fetched / "Kelvo"] if sys.argv[1] == "library" else [PREFIX / LIB]
application = build_application()
for mode, argument, status in RIGHT:
    done = start(application, mode, argument, libraries=libraries)
    check(done.returncode == status, f"{mode} {argument}: {done}")
for mode, argument, words in WRONG:
    done = start(application, mode, argument, libraries=libraries)
    check(done.returncode == -signal.SIGABRT, f"{mode} {argument}: {done}")
    check(words in done.stderr, f"{mode} {argument}: {done.stderr}")
