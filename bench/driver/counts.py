"""What one request costs in system calls and heap allocations, counted apart from the timing, which
counting would disturb. Start-up is taken out: N requests are compared with 2 N."""

import mmap
import os
import pathlib
import shutil

from programs import Placement


def anywhere():
    return Placement("free", os.sched_getaffinity(0))


def _calls_in(report):
    calls = {}
    for line in pathlib.Path(report).read_text().splitlines():
        words = line.split()
        if len(words) == 2 and words[0].isdigit() and words[1] != "total":
            calls[words[1]] = int(words[0])
    return calls


def _traced(bench, contestant, count):
    """Both ends' system calls in a run with that number of requests."""
    reports = [f"{bench.programs.work.name}/{end}.strace" for end in ("server", "client")]
    wrappers = [["strace", "-f", "-c", "-U", "calls,name", "-o", report] for report in reports]
    server = bench.programs.server(contestant, anywhere(), wrappers[0])
    client = bench.programs.client(contestant, server, anywhere(), wrappers[1])
    client.do("call", count)
    client.end()
    server.end()
    return [_calls_in(report) for report in reports]


def _per_request(once, twice, count):
    difference = {name: (twice[name] - once.get(name, 0)) / count for name in twice}
    return {name: round(n, 2) for name, n in sorted(difference.items()) if abs(n) >= 0.02}


def system_calls(bench):
    if shutil.which("strace") is None:
        return "strace is not installed"
    result = {}
    count = bench.sizes.counted
    for i, contestant in enumerate(bench.contestants):
        bench.progress.at("system calls", i / len(bench.contestants))
        once = _traced(bench, contestant, count)
        twice = _traced(bench, contestant, 2 * count)
        result[contestant.name] = {"server": _per_request(once[0], twice[0], count),
                                   "client": _per_request(once[1], twice[1], count)}
    return result


class Counter:
    """The number that the preloaded counter keeps."""

    def __init__(self, bench, name):
        self.path = pathlib.Path(bench.programs.work.name) / (name + ".count")
        self.path.write_bytes(bytes(8))
        self._file = self.path.open("r+b")
        self._map = mmap.mmap(self._file.fileno(), 8)
        self.environment = {"LD_PRELOAD": str(bench.programs.file("libbench_allocations.so")),
                            "BENCH_ALLOCATIONS": str(self.path)}

    def read(self):
        return int.from_bytes(self._map[:8], "little")

    def close(self):
        self._map.close()
        self._file.close()


def allocations(bench):
    """Heap allocations per request, server and client."""
    result = {}
    count = bench.sizes.counted
    for i, contestant in enumerate(bench.contestants):
        bench.progress.at("allocations", i / len(bench.contestants))
        counters = [Counter(bench, end) for end in ("server", "client")]
        server = bench.programs.server(contestant, anywhere(), (), counters[0].environment)
        client = bench.programs.client(contestant, server, anywhere(), (),
                                       counters[1].environment)
        client.do("call", count)
        marks = []
        for number in (0, count, 2 * count):
            if number:
                client.do("call", number)
            marks.append([counter.read() for counter in counters])
        result[contestant.name] = {
            end: round((marks[2][i] - 2 * marks[1][i] + marks[0][i]) / count, 2)
            for i, end in enumerate(("server", "client"))}
        client.end()
        server.end()
        for counter in counters:
            counter.close()
    return result
