"""What crosses processes. Each scenario starts everybody, then lets them take turns, so that a
disturbance of the machine meets all alike."""

import time

from figures import Latencies, Series
from programs import CONTESTANTS, BASELINE, SERVICE, SUBJECT

WARM_UP = 200


class Sizes:
    """How much of everything."""

    def __init__(self, quick):
        self.rounds = 5 if quick else 31
        self.calls = 200 if quick else 1000
        self.stream = 1000 if quick else 5000
        self.starts = 3 if quick else 15
        self.broadcasts = {1: 100, 100: 10} if quick else {1: 500, 100: 50, 1000: 10}
        self.idle = [0, 10, 1000] if quick else [0, 10, 1000, 10000]
        self.live = 500 if quick else 2000
        self.admissions = 50 if quick else 100
        self.in_flight = 1000 if quick else 10000
        self.events = 1000 if quick else 5000
        self.counted = 100 if quick else 500


class Bench:
    """What every scenario needs."""

    def __init__(self, programs, sizes, progress, contestants):
        self.programs = programs
        self.sizes = sizes
        self.progress = progress
        self.contestants = contestants

    def rounds(self, title, contestants, rounds=None):
        """Every contestant in every round, each round beginning with another one."""
        rounds = rounds or self.sizes.rounds
        for number in range(rounds):
            self.progress.at(title, number / rounds)
            for i in range(len(contestants)):
                yield contestants[(i + number) % len(contestants)]

    def pick(self, *names):
        return [c for c in CONTESTANTS if c.name in names]


def started(bench, contestants, placement):
    """A server and a warm client each."""
    pairs = {}
    for contestant in contestants:
        server = bench.programs.server(contestant, placement)
        client = bench.programs.client(contestant, server, placement)
        client.do("call", WARM_UP)
        pairs[contestant.name] = server, client
    return pairs


def round_trip(bench, placement):
    """A request and its reply: latency, processor time at both ends, threads, memory."""
    pairs = started(bench, bench.contestants, placement)
    seen = {name: (Latencies(), Series(), Series()) for name in pairs}
    count = bench.sizes.calls
    for contestant in bench.rounds("round trip", bench.contestants):
        server, client = pairs[contestant.name]
        latencies, server_cpu, client_cpu = seen[contestant.name]
        before = server.cpu(), client.cpu()
        latencies.add(client.do("call", count))
        server_cpu.add((server.cpu() - before[0]) / count)
        client_cpu.add((client.cpu() - before[1]) / count)
    result = {}
    for name, (latencies, server_cpu, client_cpu) in seen.items():
        server, client = pairs[name]
        result[name] = {"latency": latencies.summary(), "server_cpu": server_cpu.summary(),
                        "client_cpu": client_cpu.summary(),
                        "threads": [server.threads(), client.threads()],
                        "resident_kib": [server.resident_kib(), client.resident_kib()]}
    return result


def stream(bench, placement):
    """One-way messages into the server: processor time and elapsed time a message."""
    contestants = [c for c in bench.contestants if c.streams]
    pairs = started(bench, contestants, placement)
    seen = {name: (Series(), Series()) for name in pairs}
    count = bench.sizes.stream
    for _, client in pairs.values():
        client.do("stream", WARM_UP)
    for contestant in bench.rounds("one-way stream", contestants):
        server, client = pairs[contestant.name]
        elapsed, server_cpu = seen[contestant.name]
        before = server.cpu()
        elapsed.add(client.do("stream", count)[0] / count)
        server_cpu.add((server.cpu() - before) / count)
    return {name: {"server_cpu": server_cpu.summary(), "elapsed": elapsed.summary()}
            for name, (elapsed, server_cpu) in seen.items()}


def broadcast(bench, placement):
    """One message to all subscribers: the server's processor time for each of them."""
    contestants = [c for c in bench.contestants if c.crowd]
    result = {}
    for subscribers, count in bench.sizes.broadcasts.items():
        pairs = {}
        for contestant in contestants:
            server = bench.programs.server(contestant, placement)
            crowd = bench.programs.crowd(server, placement, contestant.crowd)
            crowd.do("subscribe", subscribers)
            crowd.do("broadcast", 5)
            pairs[contestant.name] = server, crowd
        cpu = {name: Series() for name in pairs}
        for contestant in bench.rounds(f"broadcast to {subscribers}", contestants):
            server, crowd = pairs[contestant.name]
            before = server.cpu()
            crowd.do("broadcast", count)
            cpu[contestant.name].add((server.cpu() - before) / count / subscribers)
        bench.programs.end_all()
        result[str(subscribers)] = {name: {"server_cpu": c.summary()} for name, c in cpu.items()}
    return result


def idle(bench, placement):
    """One active client among many idle ones, and the memory that an idle one costs."""
    contestants = bench.pick(BASELINE, SUBJECT, SERVICE)
    pairs = {}
    memory = {}
    for contestant in contestants:
        for others in bench.sizes.idle:
            server = bench.programs.server(contestant, placement)
            client = bench.programs.client(contestant, server, placement)
            client.do("call", WARM_UP)
            before = server.resident_kib()
            if others:
                bench.progress.at(f"connecting {others} idle clients", 0)
                bench.programs.crowd(server, placement).do("connect", others)
                memory[contestant.name, others] = (server.resident_kib() - before) * 1024 / others
            pairs[contestant.name, others] = server, client
    seen = {key: (Latencies(), Series()) for key in pairs}
    count = bench.sizes.calls
    for key in bench.rounds("one among idle ones", list(pairs)):
        server, client = pairs[key]
        before = server.cpu()
        seen[key][0].add(client.do("call", count))
        seen[key][1].add((server.cpu() - before) / count)
    result = {}
    for (name, others), (latencies, cpu) in seen.items():
        result.setdefault(str(others), {})[name] = {
            "latency": latencies.summary(), "server_cpu": cpu.summary(),
            "bytes_per_connection": memory.get((name, others))}
    return result


def admission(bench, placement):
    """Clients that come: alone, with a first request, and when many are there already."""
    contestants = bench.pick(BASELINE, SUBJECT)
    pairs = {}
    for contestant in contestants:
        server = bench.programs.server(contestant, placement)
        pairs[contestant.name] = server, bench.programs.crowd(server, placement)
    kinds = ("connect", "first reply", "connect among many")
    seen = {name: {kind: (Series(), Series()) for kind in kinds} for name in pairs}
    count = bench.sizes.admissions

    def measure(name, kind, verb):
        server, crowd = pairs[name]
        before = server.cpu()
        samples = crowd.do(verb, count)
        seen[name][kind][0].add(sum(samples) / count)
        seen[name][kind][1].add((server.cpu() - before) / count)

    for contestant in bench.rounds("admission", contestants):
        crowd = pairs[contestant.name][1]
        measure(contestant.name, "connect", "connect")
        measure(contestant.name, "first reply", "admit")
        crowd.do("connect", bench.sizes.live - 3 * count)
        measure(contestant.name, "connect among many", "connect")
        crowd.do("drop")
    return {kind: {name: {"elapsed": seen[name][kind][0].summary(),
                          "server_cpu": seen[name][kind][1].summary()} for name in seen}
            for kind in kinds}


def overlap(bench, placement):
    """Many calls of one client in flight at once, answered in a random order: time for each."""
    pairs = started(bench, bench.pick(SERVICE), placement)
    count = bench.sizes.in_flight
    elapsed = {name: Series() for name in pairs}
    for contestant in bench.rounds("calls in flight", bench.pick(SERVICE), bench.sizes.starts):
        client = pairs[contestant.name][1]
        elapsed[contestant.name].add(client.do("overlap", count)[0] / count)
    return {str(count): {name: {"elapsed": series.summary()} for name, series in elapsed.items()}}


def start_up(bench, placement):
    """A client's program, from its start to its first reply."""
    servers = {c.name: bench.programs.server(c, placement) for c in bench.contestants}
    elapsed = {name: Series() for name in servers}
    for contestant in bench.rounds("start-up of a client", bench.contestants, bench.sizes.starts):
        start = time.monotonic_ns()
        client = bench.programs.client(contestant, servers[contestant.name], placement)
        client.do("call", 1)
        elapsed[contestant.name].add(time.monotonic_ns() - start)
        client.end()
    return {name: {"elapsed": series.summary()} for name, series in elapsed.items()}


AT_HOME = {"round trip": round_trip, "one-way stream": stream, "broadcast": broadcast,
           "idle": idle, "admission": admission, "calls in flight": overlap,
           "start-up": start_up}
