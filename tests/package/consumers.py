"""Applications come by the library in every way that docs/packages.md shows, with the lines that
stand there. The argument says in which."""

import fnmatch
import os
import pathlib
import re
import shutil
import subprocess
import sys

from package import (BUILD, CXX, HERE, LIB, PREFIX, SOURCE, STATIC_PREFIX, WORK, check, compilers,
                     install_and_move, run, start)

SNIPPETS = dict(re.findall(r"<!-- snippet: ([\w-]+) -->\n```\w+\n(.*?)```",
                           (SOURCE / "docs" / "packages.md").read_text(), re.S))


def configuration(name, compiler, way, standards, *options):
    """The folder of a fresh project, and the command that configures it."""
    project = WORK / f"consumer-{name}"
    shutil.rmtree(project, ignore_errors=True)
    shutil.copytree(HERE / "consumers", project)
    (project / "snippet.cmake").write_text(SNIPPETS[way])
    (project / "third-party").mkdir()
    (project / "third-party" / "tovik").symlink_to(SOURCE)
    return project, ["cmake", "-S", project, "-B", project / "build",
                     f"-DCMAKE_CXX_COMPILER={compiler}", f"-DSTANDARDS={';'.join(standards)}",
                     f"-DTOVIK_SNIPPET={project / 'snippet.cmake'}", *options]


def consume(name, compiler, way, standards, *options):
    """Builds the application as each standard and runs it; what was said meanwhile."""
    project, command = configuration(name, compiler, way, standards, *options)
    build = project / "build"
    said = run(command) + run(["cmake", "--build", build, "--parallel", "2"])
    for standard in standards:
        for program in (f"application-{standard}", f"service-{standard}"):
            done = start(build / program, libraries=[])
            check(done.returncode == 0 and not done.stdout + done.stderr,
                  f"{name} {program}: {done}")
    return build, said


def consume_package(name, compiler, standards, prefix):
    folder = prefix if prefix == BUILD else prefix / LIB / "cmake" / "Tovik"
    _build, said = consume(name, compiler, "package", standards, f"-DCMAKE_PREFIX_PATH={prefix}")
    check(f"Tovik_DIR is {folder}\n" in said, said)


def installed():
    for compiler in compilers():
        consume_package(pathlib.Path(compiler).name, compiler,
                        ["17", "20" if "clang" in compiler else "23"], PREFIX)


def moved():
    consume_package("moved", CXX, ["17"], install_and_move("consumer"))


def build_tree():
    consume_package("build-tree", CXX, ["17"], BUILD)


def without_rapidjson():
    """What is missing is named, and what to do about it."""
    _project, command = configuration("without", CXX, "package", ["17"],
                                      f"-DCMAKE_PREFIX_PATH={PREFIX}",
                                      "-DCMAKE_DISABLE_FIND_PACKAGE_RapidJSON=ON")
    done = subprocess.run([str(word) for word in command], text=True, capture_output=True,
                          timeout=60)
    words = " ".join(done.stderr.split())
    check(done.returncode != 0 and "Tovik's headers include those of RapidJSON, which was not found"
          in words and "rapidjson-dev" in words, f"{done}")

    only = {"PATH": "/usr/bin:/bin", "PKG_CONFIG_LIBDIR": str(PREFIX / LIB / "pkgconfig")}
    done = subprocess.run(["pkg-config", "--cflags", "tovik"], text=True, capture_output=True,
                          timeout=60, env=only)
    check(done.returncode != 0 and "'RapidJSON', required by 'tovik'" in done.stderr, f"{done}")


def another_rapidjson():
    """RapidJSON_DIR decides, however that version's own file names the folder of its headers."""
    headers = WORK / "another"
    shutil.copytree("/usr/include/rapidjson", headers / "rapidjson", dirs_exist_ok=True)
    for line in (f"set(RAPIDJSON_INCLUDE_DIRS {headers})", f"set(RapidJSON_INCLUDE_DIRS {headers})",
                 "add_library(RapidJSON INTERFACE IMPORTED)\n"
                 f"target_include_directories(RapidJSON INTERFACE {headers})"):
        (headers / "RapidJSONConfig.cmake").write_text(line)
        options = [f"-DRapidJSON_DIR={headers}", "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON"]
        library = WORK / "library-with-another"
        run(["cmake", "-S", SOURCE, "-B", library, f"-DCMAKE_CXX_COMPILER={CXX}",
             "-DTOVIK_BUILD_TESTS=OFF", *options])
        project, command = configuration("another", CXX, "package", ["17"],
                                         f"-DCMAKE_PREFIX_PATH={PREFIX}", *options)
        run(command)
        for build in (library, project / "build"):
            commands = (build / "compile_commands.json").read_text()
            check(f"-isystem {headers}" in commands, f"{line}: {commands}")


def linked(build):
    """Of what kind the libraries are that the application was built with."""
    needed = run(["readelf", "-dW", build / "application-17"])
    return "libTovik.so.1" in needed and "libKelvo.so.1" in needed


def subdirectory():
    """As static libraries, which are then installed for others. They are built without
    optimisation: inlined functions could not be mistaken for the application's."""
    build, _said = consume("subdirectory", CXX, "subdirectory", ["17"],
                           "-DCMAKE_BUILD_TYPE=Debug")
    check(not linked(build), "a static library was asked for")
    shutil.rmtree(STATIC_PREFIX, ignore_errors=True)
    run(["cmake", "--install", build, "--prefix", STATIC_PREFIX])


def fetch():
    """As shared libraries, which they are unless asked for otherwise; for assertions.py with these
    taken out, in both ways there are."""
    build, _said = consume("fetch", CXX, "fetch", ["17"],
                           "-DCMAKE_CXX_FLAGS=-O0 -DNDEBUG '-DRAPIDJSON_ASSERT(x)='")
    check(linked(build), "a shared library was expected")


def strangers(name, script):
    """What the static library defines for others beyond what the shared one would export."""
    script = SOURCE / "cmake" / f"{script}.map"
    exported = re.findall(r"(_Z\S*);", script.read_text())
    symbols = run(["nm", "-gP", "--defined-only", STATIC_PREFIX / LIB / f"lib{name}.a"])
    defined = [line.split()[0] for line in symbols.splitlines() if not line.endswith(":")]
    check(len(defined) > 30, f"{name} defines {defined}")
    return [symbol for symbol in defined
            if not any(fnmatch.fnmatchcase(symbol, pattern) for pattern in exported)]


def static():
    libraries = sorted(path.name for path in (STATIC_PREFIX / LIB).glob("lib*"))
    check(libraries == ["libKelvo.a", "libTovik.a", "libTovikService.a"], f"{libraries}")
    for name, script in (("Kelvo", "kelvo"), ("Tovik", "tovik"), ("TovikService", "tovik-service")):
        check(not strangers(name, script), f"{name}: {strangers(name, script)}")
    consume_package("static", CXX, ["17"], STATIC_PREFIX)

    project, _command = configuration("pkg-config", CXX, "package", ["17"])
    where = {"PKG_CONFIG_PATH": str(STATIC_PREFIX / LIB / "pkgconfig")}
    run(["bash", "-c", SNIPPETS["pkg-config"]], cwd=project, env={**os.environ, **where})
    done = start(project / "application", libraries=[])
    check(done.returncode == 0 and not done.stdout + done.stderr, f"{done}")


{way.__name__: way for way in (installed, moved, build_tree, without_rapidjson,
                               another_rapidjson, subdirectory, fetch, static)}[sys.argv[1]]()
