"""What needs no second process: the pieces of a message's path, an application's compile time, and
the kernel's limits."""

import contextlib
import json
import os
import resource
import socket
import subprocess

from figures import Series

INCLUDES = {
    "RapidJSON and <functional>": "#include <rapidjson/document.h>\n#include <functional>\n",
    "Api/Json/Server.h": "#include <Api/Json/Server.h>\n",
}


def pieces(bench, quick):
    """Nanoseconds by benchmark."""
    bench.progress.at("inside one process", 0)
    command = [bench.programs.path("inside"), "--benchmark_format=json",
               f"--benchmark_min_time={0.02 if quick else 0.1}",
               f"--benchmark_repetitions={3 if quick else 9}",
               "--benchmark_report_aggregates_only=true",
               "--benchmark_enable_random_interleaving=true"]
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True)
    found = json.loads(done.stdout)["benchmarks"]
    return {b["run_name"]: b["cpu_time"] for b in found if b.get("aggregate_name") == "median"}


def children_seconds():
    """Processor time of the processes that have been waited for."""
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def compile_time(bench, source, compiler, quick):
    """Processor seconds of the compiler for a program of one include."""
    seconds = {name: Series() for name in INCLUDES}
    rounds = 3 if quick else 11
    for i in range(rounds):
        bench.progress.at("compile time", i / rounds)
        for name, text in INCLUDES.items():
            path = f"{bench.programs.work.name}/include.cpp"
            with open(path, "w") as file:
                file.write(text + "int main() {}\n")
            before = children_seconds()
            subprocess.run([compiler, "-std=c++17", "-O2", f"-I{source}", "-c", path, "-o",
                            os.devnull], check=True)
            seconds[name].add(children_seconds() - before)
    return {name: series.summary() for name, series in seconds.items()}


def limits():
    """How many records a socket takes before its reader reads one, by size."""
    yield "record size, bytes | records queued before EAGAIN"
    for size in (20, 100, 200, 400, 1000, 2000, 4094):
        near, far = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        with near, far:
            near.setblocking(False)
            queued = 0
            with contextlib.suppress(BlockingIOError):
                while near.send(bytes(size)):
                    queued += 1
            yield f"{size:18} | {queued}"
