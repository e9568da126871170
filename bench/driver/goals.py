"""What the library is to reach, and what was measured. Ratios are of medians in one run."""

from programs import ASYNC, BASELINE, SERVICE, SUBJECT

# What, the most that it may be, and how it follows from what was measured: in all, on one core.
AT_MOST = (
    ("round trip, one core, of baseline (iii)", 1.05,
     lambda run, one: p50(one, SUBJECT) / p50(one, BASELINE)),
    ("round trip, one core, of baseline (ii)", 1.15,
     lambda run, one: p50(one, SUBJECT) / p50(one, "baseline-json")),
    ("one-way, server CPU a message, of baseline (iii)", 1.08,
     lambda run, one: cpu(one["one-way stream"], SUBJECT, BASELINE)),
    ("broadcast to most, CPU a subscriber, of baseline (iii)", 1.10,
     lambda run, one: cpu(most(one["broadcast"]), SUBJECT, BASELINE)),
    ("1 active among most idle, of alone", 1.05,
     lambda run, one: ratio(most(one["idle"])[SUBJECT]["latency"]["p50"],
                            one["idle"]["0"][SUBJECT]["latency"]["p50"])),
    ("memory of an idle connection, bytes", 2048,
     lambda run, one: most(one["idle"])[SUBJECT]["bytes_per_connection"]),
    ("server CPU of an admission, of a bare loop", 1 / 0.9,
     lambda run, one: cpu(one["admission"]["connect"], SUBJECT, BASELINE)),
    ("CPU of an admission among many, of the first ones", 1.1,
     lambda run, one: ratio(one["admission"]["connect among many"][SUBJECT]["server_cpu"],
                            one["admission"]["connect"][SUBJECT]["server_cpu"])),
    ("system calls a request, server", 3, lambda run, one: calls(run, SUBJECT, "server")),
    ("system calls a request, asynchronous client", 3,
     lambda run, one: calls(run, ASYNC, "client")),
    ("allocations a request, server, above baseline (iii)", 2,
     lambda run, one: run["allocations"][SUBJECT]["server"]["allocations"]
     - run["allocations"][BASELINE]["server"]["allocations"]),
    ("a disabled diagnostic, ns", 2, lambda run, one: run["pieces"]["disabledLogStatement"]),
    ("compile time, Server.h against RapidJSON and <functional>", 1.3,
     lambda run, one: ratio(run["compile time"]["Api/Json/Server.h"],
                            run["compile time"]["RapidJSON and <functional>"])),
    ("round trip of proxy and service, of the asynchronous client's", 1.15,
     lambda run, one: p50(one, SERVICE) / p50(one, ASYNC)),
    ("event to most, CPU a follower, of notifyClients", 0.85,
     lambda run, one: cpu(most(one["broadcast"]), SERVICE, SUBJECT)),
    ("memory of an idle session, bytes", 2560,
     lambda run, one: most(one["idle"])[SERVICE]["bytes_per_connection"]),
    *((f"round trip against that of {peer}", 1 / factor,
       lambda run, one, peer=peer: p50(one, SUBJECT) / p50(one, peer))
      for peer, factor in (("sd-bus", 1.3), ("zeromq", 3), ("nng", 5), ("capnp", 1))),
    *((f"round trip of proxy and service against that of {peer}", 1 / 1.3,
       lambda run, one, peer=peer: p50(one, SERVICE) / p50(one, peer))
      for peer in ("sd-bus", "capnp", "grpc")),
    ("a program's call across both bridges, of mosquitto_rr", 1.5,
     lambda run, one: bridged(one, "one call", "elapsed")),
    ("CPU of both bridges an event, of mosquitto_pub and mosquitto_sub", 1.3,
     lambda run, one: bridged(one, "event", "cpu")),
)


def ratio(summary, reference):
    return summary["median"] / reference["median"]


def p50(one, name):
    return one["round trip"][name]["latency"]["p50"]["median"]


def cpu(entries, name, reference):
    return ratio(entries[name]["server_cpu"], entries[reference]["server_cpu"])


def most(by_number):
    return by_number[max(by_number, key=int)]


def calls(results, name, end):
    """The driver's own commands are a small fraction of a call each."""
    return round(sum(results["system calls"][name][end].values()), 1)


def bridged(one, kind, key):
    across = one["across bridges"][kind]
    return ratio(across["bridged"][key], across["mqtt"][key])


def table(results):
    rows = []
    for what, limit, measure in AT_MOST:
        try:
            value = measure(results, results["placements"]["one core"])
            rows.append((what, f"{limit:.2f}", f"{value:.2f}", "yes" if value <= limit else "no"))
        except KeyError:  # of a peer that is not installed
            rows.append((what, f"{limit:.2f}", "-", "-"))
    return rows
