"""Measures the library, its baselines and its peers. scripts/bench builds everything first."""

import argparse
import datetime
import json
import os
import pathlib
import platform
import resource
import signal
import sys

import bridge
import chart
import counts
import goals
import inside
import report
from programs import CONTESTANTS, Programs, placements
from progress import Progress
from scenarios import AT_HOME, Bench, Sizes

SCENARIOS = {**AT_HOME, "across bridges": bridge.bridge}

TIME_LIMIT = 20 * 60  # seconds; what has not come to an end by then hangs


def arguments():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True, help="the build folder")
    parser.add_argument("--source", required=True, help="the source folder")
    parser.add_argument("--compiler", default="g++")
    parser.add_argument("--quick", action="store_true", help="less of everything, for a check")
    parser.add_argument("--all", action="store_true", help="gRPC, too")
    parser.add_argument("--only", choices=[*SCENARIOS], help="one scenario, and its table")
    return parser.parse_args()


def heading(options):
    model = next((line.split(":")[1].strip() for line in open("/proc/cpuinfo")
                  if line.startswith("model name")), "processor")
    command = "scripts/bench" + "".join(f" --{flag}" for flag in ("quick", "all")
                                        if getattr(options, flag))
    return (f"{command}, {datetime.date.today()}, {model}, "
            f"{len(os.sched_getaffinity(0))} cores, Linux {platform.release()}, "
            f"load average {os.getloadavg()[0]:.1f}")


def raise_descriptor_limit(sizes):
    """Each process needs a descriptor for every idle client; says so if it cannot have them."""
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    left_out = [n for n in sizes.idle if n + 100 > hard]
    sizes.idle = [n for n in sizes.idle if n not in left_out]
    if left_out:
        print(f"bench: {left_out} idle clients are left out: a process may open {hard} descriptors",
              file=sys.stderr)


def measure(options, bench, results):
    """Everything, or one scenario at both placements."""
    names = [options.only] if options.only else [*SCENARIOS]
    for placement in placements():
        scenarios = results["placements"][placement.name] = {}
        for name in names:
            bench.progress.step(f"{name}, {placement.name}")
            scenarios[name] = SCENARIOS[name](bench, placement)
            bench.programs.end_all()
            bench.progress.finish_step()
    if options.only:
        return
    bench.progress.step("counts and pieces")
    results["system calls"] = counts.system_calls(bench)
    results["allocations"] = counts.allocations(bench)
    results["pieces"] = inside.pieces(bench, options.quick)
    results["compile time"] = inside.compile_time(bench, options.source, options.compiler,
                                                  options.quick)
    results["limits"] = "\n".join(inside.limits())
    results["goals"] = goals.table(results)


def main():
    options = arguments()
    for number in (signal.SIGALRM, signal.SIGTERM):
        signal.signal(number, lambda *_: sys.exit("bench: stopped"))  # ends what was started
    signal.alarm(TIME_LIMIT)
    sizes = Sizes(options.quick)
    raise_descriptor_limit(sizes)
    with Programs(options.build) as programs:
        wanted = [c for c in CONTESTANTS if c.name != "grpc" or options.all]
        results = {"heading": heading(options), "placements": {},
                   "missing": [c.label for c in wanted if not programs.installed(c)]}
        steps = 2 * (1 if options.only else len(SCENARIOS)) + (0 if options.only else 1)
        progress = Progress(steps)
        bench = Bench(programs, sizes, progress, [c for c in wanted if programs.installed(c)])
        measure(options, bench, results)
        progress.end()

    out = pathlib.Path(options.build) / "bench"
    text = report.render(results)
    print(text)
    if not options.only:
        (out / "results.json").write_text(json.dumps(results, indent=1) + "\n")
        (out / "report.md").write_text(text)
        (out / "round-trip.svg").write_text(chart.render(results))
        print(f"bench: {out}/results.json, report.md, round-trip.svg", file=sys.stderr)


if __name__ == "__main__":
    main()
