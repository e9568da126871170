"""The binary interface is the described one, and what breaks applications is noticed: a symbol that
is gone, a virtual function more, an object that has grown. Looks at the library that the check of
assertions has built with debugging information."""

import shutil

from abi import difference
from package import CXX, PREFIX, SOURCE, WORK, check, run

BUILD = WORK / "debug-library"
OBJECTS = BUILD / "Api" / "CMakeFiles" / "Tovik.dir" / "Json"
VERSIONS = SOURCE / "cmake" / "tovik.map"


def edited(path, old, new):
    text = path.read_text()
    check(text.count(old) == 1, f"{path}: {old}")
    path.write_text(text.replace(old, new))


def linked(folder, client, versions):
    """The library with that object in place of the client's, and that version script."""
    objects = [path for path in OBJECTS.glob("*.o") if path.name != "Client.cpp.o"]
    library = folder / "libTovik.so"
    run([CXX, "-shared", "-o", library, *objects, client, BUILD / "Kelvo" / "libKelvo.so",
         f"-Wl,-soname,libTovik.so.1,--version-script={versions}"])
    return library


def fresh(name):
    folder = WORK / name
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir()
    return folder


def without_a_symbol():
    folder = fresh("abi-symbol")
    versions = shutil.copy(VERSIONS, folder)
    edited(folder / VERSIONS.name, "local:", "local: _ZN5Tovik6Client11closeSocketEv;")
    return PREFIX / "include", linked(folder, OBJECTS / "Client.cpp.o", versions)


def with_another_client(name, old, new):
    """The client compiled with a header in which that is changed."""
    folder = fresh(name)
    headers = shutil.copytree(PREFIX / "include", folder / "include")
    edited(headers / "Api" / "Json" / "Client.h", old, new)
    client = folder / "Client.o"
    run([CXX, "-std=c++17", "-g", "-fPIC", "-fvisibility=hidden", f"-I{headers}", f"-I{SOURCE}",
         "-c", SOURCE / "Api" / "Json" / "Client.cpp", "-o", client])
    return headers, linked(folder, client, VERSIONS)


for library in (BUILD / "Kelvo" / "libKelvo.so", BUILD / "Api" / "libTovik.so"):
    found = difference(PREFIX / "include", library)
    check(not found, f"The binary interface has changed (see docs/packages.md).\n{found}")

found = difference(*without_a_symbol())
check("1 Removed" in found and "Client::closeSocket" in found, f"without a symbol: {found}")

DESTRUCTOR = "  virtual ~Client();\n"
found = difference(*with_another_client("abi-virtual", DESTRUCTOR,
                                        DESTRUCTOR + "  virtual void added() {}\n"))
check("Client::added" in found and "vtable" in found, f"with a virtual function: {found}")

found = difference(*with_another_client("abi-member", "  int fd_ = -1; ",
                                        "  long added_ = 0;\n  int fd_ = -1; "))
check("type size changed" in found, f"with a member: {found}")
