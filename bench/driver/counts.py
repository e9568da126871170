"""What one request costs in system calls and heap allocations, counted apart from the timing, which
counting would disturb. Start-up is taken out: N requests are compared with 2 N."""

import os
import pathlib
import re

from programs import ASYNC, BASELINE, SERVICE, SUBJECT, Placement

# The last word is completed by the name of the report's file.
STRACE = ("strace", "-f", "-c", "-U", "calls,name", "--output=")
VALGRIND = ("valgrind", "--undef-value-errors=no", "--log-file=")


def _calls_in(report):
    found = re.findall(r"^ *(\d+) (\w+)$", report, re.M)
    return {name: int(count) for count, name in found if name != "total"}


def _allocations_in(report):
    count, = re.findall(r"total heap usage: ([\d,]+) allocs", report)
    return {"allocations": int(count.replace(",", ""))}


def _counted(bench, contestant, tool, count):
    """Both ends' reports of the tool, of a run with that number of requests."""
    placement = Placement("free", os.sched_getaffinity(0))
    reports = [pathlib.Path(bench.programs.work.name, end) for end in ("server", "client")]
    wrappers = [(*tool[:-1], f"{tool[-1]}{report}") for report in reports]
    server = bench.programs.server(contestant, placement, wrappers[0])
    client = bench.programs.client(contestant, server, placement, wrappers[1])
    client.do("call", count)
    client.end()
    server.end()
    return [report.read_text() for report in reports]


def _per_request(bench, title, contestants, tool, parse):
    result = {}
    count = bench.sizes.counted
    for i, contestant in enumerate(contestants):
        bench.progress.at(title, i / len(contestants))
        once, twice = ([parse(report) for report in _counted(bench, contestant, tool, number)]
                       for number in (count, 2 * count))
        result[contestant.name] = {
            end: {name: round((more[name] - less.get(name, 0)) / count, 2)
                  for name in sorted(more) if abs(more[name] - less.get(name, 0)) >= 0.02 * count}
            for end, less, more in zip(("server", "client"), once, twice)}
    return result


def system_calls(bench):
    return _per_request(bench, "system calls", bench.contestants, STRACE, _calls_in)


def allocations(bench):
    """Of the library's ends and the baseline's: valgrind takes its time."""
    return _per_request(bench, "allocations", bench.pick(BASELINE, SUBJECT, ASYNC, SERVICE),
                        VALGRIND, _allocations_in)
