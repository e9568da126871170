"""What the library is to reach, and what was measured. Ratios are of medians in one run."""

from figures import ratio
from programs import BASELINE, SERVICE, SUBJECT

ONE_CORE = "one core"


class Goal:
    def __init__(self, what, goal, measured, met):
        self.what = what
        self.goal = goal
        self.measured = measured
        self.met = met

    def row(self):
        return {"what": self.what, "goal": self.goal, "measured": self.measured, "met": self.met}


def _at_most(what, limit, value):
    return Goal(what, f"at most {limit:g}", f"{value:.2f}", value <= limit)


def _at_least(what, limit, value):
    return Goal(what, f"at least {limit:g}", f"{value:.2f}", value >= limit)


def _p50(entry):
    return entry["latency"]["p50"]["median"]


def _cpu(entry):
    return entry["server_cpu"]["median"]


def _calls(results, name, end):
    counted = results["system calls"]
    return counted[name][end] if isinstance(counted, dict) else {}


def _system_calls(results):
    for what, name, end in (("system calls a request, server", SUBJECT, "server"),
                            ("system calls a request, asynchronous client", "tovik-async",
                             "client")):
        calls = _calls(results, name, end)
        # The driver's own commands are a small fraction of a call each.
        met = round(sum(calls.values()), 1) == 3 and "epoll_ctl" not in calls
        yield Goal(what, "3, no epoll_ctl", ", ".join(f"{k} {v:g}" for k, v in calls.items()), met)


def _inside(results):
    made = results["allocations"]
    yield _at_most("allocations a request, server, above baseline (iii)", 2,
                   made[SUBJECT]["server"] - made[BASELINE]["server"])
    pieces = results["pieces"]
    yield _at_most("a disabled diagnostic, ns", 2, pieces["disabledLogStatement"])
    compiled = results["compile time"]
    yield _at_most("compile time, Server.h against RapidJSON and <functional>", 1.3,
                   compiled["Api/Json/Server.h"]["median"]
                   / compiled["RapidJSON and <functional>"]["median"])


PEERS = (("sd-bus", "sd-bus", 1.3), ("zeromq", "ZeroMQ", 3), ("nng", "nng", 5),
         ("capnp", "Cap'n Proto", 1))


def _peers(trips, ours, factors):
    for name, label, factor in factors:
        what = f"round trip of {label} against {ours}"
        if name in trips:
            yield _at_least(what, factor, _p50(trips[name]) / _p50(trips[ours]))
        else:
            yield Goal(what, f"at least {factor:g}", "not installed", None)


def _service(one):
    trips, told, idle = one["round trip"], one["broadcast"], one["idle"]
    most = max(told, key=int)
    yield _at_most("round trip of proxy and service, of the asynchronous client's", 1.15,
                   _p50(trips[SERVICE]) / _p50(trips["tovik-async"]))
    yield _at_most(f"event to {most}, CPU a follower, of notifyClients", 0.85,
                   _cpu(told[most][SERVICE]) / _cpu(told[most][SUBJECT]))
    yield _at_most("memory of an idle session, bytes", 2560,
                   idle[max(idle, key=int)][SERVICE]["bytes_per_connection"])
    yield from _peers(trips, SERVICE, (("sd-bus", "sd-bus", 1.3), ("capnp", "Cap'n Proto", 1.3),
                                       ("grpc", "gRPC", 1.3)))


def _many(results):
    one = results["placements"][ONE_CORE]
    most = max(one["broadcast"], key=int)
    told = one["broadcast"][most]
    yield _at_most(f"broadcast to {most}, CPU a subscriber, of baseline (iii)", 1.10,
                   _cpu(told[SUBJECT]) / _cpu(told[BASELINE]))
    most = max(one["idle"], key=int)
    among, alone = one["idle"][most][SUBJECT], one["idle"]["0"][SUBJECT]
    yield _at_most(f"1 active among {most} idle, of alone", 1.05, _p50(among) / _p50(alone))
    yield _at_most("memory of an idle connection, bytes", 2048, among["bytes_per_connection"])
    came = one["admission"]
    yield _at_least("admissions a second of server CPU, of a bare loop", 0.9,
                    _cpu(came["connect"][BASELINE]) / _cpu(came["connect"][SUBJECT]))
    yield _at_most("CPU of an admission among many, of the first ones", 1.1,
                   _cpu(came["connect among many"][SUBJECT]) / _cpu(came["connect"][SUBJECT]))


def _bridged(across):
    if across:
        yield _at_most("a program's call across both bridges, of mosquitto_rr", 1.5,
                       ratio(across["one call"]["bridged"]["elapsed"],
                             across["one call"]["mqtt"]["elapsed"]))
        yield _at_most("CPU of both bridges an event, of mosquitto_pub and mosquitto_sub", 1.3,
                       ratio(across["event"]["bridged"]["cpu"], across["event"]["mqtt"]["cpu"]))


def table(results):
    one = results["placements"][ONE_CORE]
    trips, streams = one["round trip"], one["one-way stream"]
    rows = [
        _at_most("round trip, one core, of baseline (iii)", 1.05,
                 _p50(trips[SUBJECT]) / _p50(trips[BASELINE])),
        _at_most("round trip, one core, of baseline (ii)", 1.15,
                 _p50(trips[SUBJECT]) / _p50(trips["baseline-json"])),
        _at_most("one-way, server CPU a message, of baseline (iii)", 1.08,
                 _cpu(streams[SUBJECT]) / _cpu(streams[BASELINE])),
        *_many(results), *_system_calls(results), *_inside(results), *_peers(trips, SUBJECT, PEERS),
        *_service(one), *_bridged(one["across bridges"])]
    return [row.row() for row in rows]
