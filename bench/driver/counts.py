"""What one request costs in system calls, heap allocations and instructions, counted apart from the
timing, which counting would disturb. Start-up is taken out: N requests are compared with 2 N."""

import pathlib
import re

from programs import ASYNC, BASELINE, SERVICE, SUBJECT, placements

# The last word is completed by the name of the report's file.
STRACE = ("strace", "-f", "-c", "-U", "calls,name", "--output=")
MEMCHECK = ("valgrind", "--undef-value-errors=no", "--log-file=")
CALLGRIND = ("valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", "--log-file=")


def _calls_in(report):
    found = re.findall(r"^ *(\d+) (\w+)$", report, re.M)
    return {name: int(count) for count, name in found if name != "total"}


def _allocations_in(report):
    count, = re.findall(r"total heap usage: ([\d,]+) allocs", report)
    return {"allocations": int(count.replace(",", ""))}


def _instructions_in(report):
    count, = re.findall(r"Collected : (\d+)", report)
    return {"instructions": int(count)}


def _once(bench, contestant, tool, work):
    """Both ends' reports of the tool: of the server and of the client that does the work."""
    free = placements()[-1]
    reports = [pathlib.Path(bench.programs.work.name, end) for end in ("server", "client")]
    wrappers = [(*tool[:-1], f"{tool[-1]}{report}") for report in reports]
    server = bench.programs.server(contestant, free, wrappers[0])
    client = bench.programs.client(contestant, server, free, wrappers[1])
    work(server, client)
    client.end()
    server.end()
    return [report.read_text() for report in reports]


def _difference(bench, contestant, tool, parse, work):
    """By end, what each counts more for one more of `work`, which takes their number last."""
    count = bench.sizes.counted
    once, twice = ([parse(report) for report in _once(
        bench, contestant, tool, lambda *ends, number=number: work(*ends, number))]
        for number in (count, 2 * count))
    return {end: {name: round((more[name] - less.get(name, 0)) / count, 2)
                  for name in sorted(more) if abs(more[name] - less.get(name, 0)) >= 0.02 * count}
            for end, less, more in zip(("server", "client"), once, twice)}


def _per_request(bench, title, contestants, tool, parse):
    result = {}
    for i, contestant in enumerate(contestants):
        bench.progress.at(title, i / len(contestants))
        result[contestant.name] = _difference(
            bench, contestant, tool, parse, lambda _server, client, count: client.do("call", count))
    return result


def system_calls(bench):
    return _per_request(bench, "system calls", bench.contestants, STRACE, _calls_in)


def allocations(bench):
    """Of the library's ends and the baseline's: valgrind takes its time."""
    return _per_request(bench, "allocations", bench.pick(BASELINE, SUBJECT, ASYNC, SERVICE),
                        MEMCHECK, _allocations_in)


def instructions(bench, contestants):
    counted = _per_request(bench, "instructions", contestants, CALLGRIND, _instructions_in)
    return {name: {end: found["instructions"] for end, found in ends.items()}
            for name, ends in counted.items()}


def broadcast_instructions(bench, contestant, subscribers):
    """The server's for one broadcast."""
    def broadcast(server, _client, count):
        crowd = bench.programs.crowd(server, placements()[-1])
        crowd.do("subscribe", subscribers)
        crowd.do("broadcast", count)
        crowd.end()
    return _difference(bench, contestant, CALLGRIND, _instructions_in,
                       broadcast)["server"]["instructions"]
