"""What the checks of the installed package share. Where things are comes in the environment."""

import os
import pathlib
import resource
import shlex
import shutil
import subprocess
import sys

SOURCE = pathlib.Path(os.environ["TOVIK_SOURCE_DIR"])
BUILD = pathlib.Path(os.environ["TOVIK_BUILD_DIR"])
WORK = pathlib.Path(os.environ["TOVIK_WORK_DIR"])
CXX = os.environ["TOVIK_CXX"]
LIB = os.environ["TOVIK_LIBDIR"]
RUNPATH = os.environ["TOVIK_RUNPATH"].split()
SHARED = os.environ["TOVIK_SHARED"] == "1"  # the libraries of this build
PREFIX = WORK / "prefix"
STATIC_PREFIX = WORK / "static-prefix"
HERE = pathlib.Path(__file__).resolve().parent

PUBLIC_HEADERS = [
    "Api/Admission.h",
    "Api/Json/Async.h",
    "Api/Json/Client.h",
    "Api/Json/Connection.h",
    "Api/Json/Export.h",
    "Api/Json/Layout.h",
    "Api/Json/Server.h",
    "Api/Json/Types.h",
    "Api/Service/Object.h",
    "Api/Service/Proxy.h",
    "Api/Service/Service.h",
    "Api/Service/Task.h",
    "Kelvo/Exception.h",
    "Kelvo/Export.h",
    "Kelvo/Platform/Debug.h",
    "Kelvo/Platform/EventLoop.h",
    "Kelvo/Platform/FdEventHandler.h",
    "Kelvo/Platform/TimeoutHandler.h",
    "Kelvo/Ptr.h",
    "Kelvo/String.h",
    "Kelvo/ThreadControl.h",
]


def check(condition, complaint):
    if not condition:
        sys.exit(f"FAILED: {complaint}")


def run(command, **options):
    """The finished process; ends the check if it failed."""
    command = [str(word) for word in command]
    done = subprocess.run(command, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          timeout=100, **options)
    check(done.returncode == 0, f"{shlex.join(command)}\n{done.stdout}")
    return done.stdout


def start(program, *arguments, libraries):
    """Runs a program of the checks on those libraries; what came of it, outputs apart."""
    environment = dict(os.environ)
    environment["LD_LIBRARY_PATH"] = os.pathsep.join(str(path) for path in libraries)
    return subprocess.run([str(program), *arguments], text=True, capture_output=True, timeout=60,
                          env=environment, preexec_fn=leave_no_core_file)


def leave_no_core_file():
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def compilers():
    """The compiler of this build, and g++ and clang++ where they are."""
    found = {shutil.which(name) for name in ("g++", "clang++")} - {None}
    return sorted(found) or [CXX]


def flags(prefix, *what, module="tovik"):
    """What pkg-config says about a library below that prefix."""
    environment = dict(os.environ)
    environment["PKG_CONFIG_PATH"] = str(prefix / LIB / "pkgconfig")
    return shlex.split(run(["pkg-config", *what, module], env=environment))


def install(prefix):
    shutil.rmtree(prefix, ignore_errors=True)
    run(["cmake", "--install", BUILD, "--prefix", prefix])


def install_and_move(name):
    """A prefix whose tree was installed below another one."""
    first, second = WORK / f"{name}-first-place", WORK / f"{name}-second-place"
    install(first)
    shutil.rmtree(second, ignore_errors=True)
    return first.rename(second)
