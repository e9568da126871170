"""Compiles the README's example and runs it as a reader would: server, client, and a subscriber."""

import argparse
import os
import pathlib
import re
import socket
import subprocess
import sys
import tempfile
import time

DEADLINE = 20  # seconds for anything to happen


def snippets(document):
    """The fenced C++ blocks that a `<!-- snippet: name -->` line announces, by name."""
    pattern = r"<!-- snippet: (\w+) -->\n```cpp\n(.*?)```"
    return dict(re.findall(pattern, document.read_text(), re.S))


def compile_snippet(options, folder, name, text):
    source = folder / f"{name}.cpp"
    source.write_text(text)
    program = folder / name
    libraries = [options.tovik, options.kelvo]
    rpaths = [f"-Wl,-rpath,{os.path.dirname(library)}" for library in libraries]
    subprocess.run(
        [options.compiler, "-std=c++17", "-Wall", "-Wextra", "-Werror", *options.flags.split(),
         f"-I{options.source}", str(source), "-o", str(program), *libraries, *rpaths],
        check=True)
    return program


def parsed_options():
    parser = argparse.ArgumentParser()
    parser.add_argument("--source", required=True, type=pathlib.Path)
    for option in ("--compiler", "--tovik", "--kelvo"):
        parser.add_argument(option, required=True)
    parser.add_argument("--flags", default="")
    return parser.parse_args()


def wait_for_server(name):
    """Until the kernel lists a listening socket of that name."""
    deadline = time.monotonic() + DEADLINE
    while time.monotonic() < deadline:
        with open("/proc/net/unix", errors="replace") as table:
            if any("@" + name + "@" in line and " 00010000 " in line for line in table):
                return
        time.sleep(0.02)
    sys.exit(f"no server listens as {name}")


def subscribed_to(name):
    subscriber = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    subscriber.settimeout(DEADLINE)
    subscriber.connect(b"\0" + name.encode().ljust(107, b"\0"))
    subscriber.send(b'{"command":"set","notification":true}')
    assert subscriber.recv(4096) == b'{"type":"reply","status":0}'
    return subscriber


def main():
    options = parsed_options()
    found = snippets(options.source / "README.md")
    assert set(found) == {"server", "client"}, sorted(found)
    name = f"adder-{os.getpid()}"  # test runs may overlap
    with tempfile.TemporaryDirectory() as temporary:
        programs = {key: compile_snippet(options, pathlib.Path(temporary), key,
                                         text.replace('"adder"', f'"{name}"'))
                    for key, text in found.items()}
        server = subprocess.Popen([programs["server"]])
        try:
            wait_for_server(name)
            with subscribed_to(name) as subscriber:
                for total in (5, 10):
                    status = subprocess.run([programs["client"]], timeout=DEADLINE).returncode
                    assert status == 0, status
                    news = subscriber.recv(4096)
                    assert news == b'{"total":%d}' % total, news
        finally:
            server.terminate()
            server.wait()


if __name__ == "__main__":
    main()
