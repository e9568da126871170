"""Services on other machines: through both bridges and a broker, beside what MQTT takes by hand
with the same broker."""

import contextlib
import json
import os
import pathlib
import resource
import shutil
import socket
import subprocess
import time

from figures import Latencies, Series
from programs import SERVICE, Process
from scenarios import WARM_UP

BROKER = shutil.which("mosquitto") or "/usr/sbin/mosquitto"
MQTT, BRIDGED = "mqtt", "bridged"
PATIENCE = 10  # seconds
NEWS = '{"news":"moved","axis":2,"position":1250,"speed":300,"remark":"as agreed in the morning"}'
CALL = {"command": "move", "wanted": "status", "status": 0}


def wait_until(condition, what):
    end = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > end:
            raise RuntimeError(f"{what} did not happen")
        time.sleep(0.01)


class Running(Process):
    """A program that goes on until it is ended."""

    def __init__(self, command, placement):
        super().__init__(command, placement, stderr=subprocess.DEVNULL)

    def end(self):
        self.popen.terminate()
        self.popen.wait()


class Machines:
    """A broker, an echo over it, and a service with its bridges."""

    def __init__(self, bench, placement):
        programs = bench.programs
        self.programs, self.placement = programs, placement
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            self.port = str(probe.getsockname()[1])
        config = pathlib.Path(programs.work.name) / "broker.conf"
        config.write_text(f"listener {self.port} 127.0.0.1\nallow_anonymous true\n"
                          "set_tcp_nodelay true\nmax_inflight_messages 0\n"
                          "max_queued_messages 0\n")
        self.broker = self.run(BROKER, "-c", config)
        wait_until(self.reaches_broker, "the broker's start")
        service, = bench.pick(SERVICE)
        self.service = programs.server(service, placement)
        self.here = programs.address(False)
        self.bridges = [self.bridge("--prefix", "bench", self.service.address),
                        self.bridge("--import", f"{self.here}=bench/{self.service.address}")]
        wait_until(lambda: self.here in pathlib.Path("/proc/net/unix").read_text(),
                   "the import's opening")
        self.echo = programs.serve("mqtt", "serve", self.port, placement)
        self.clients = {MQTT: programs.drive("mqtt", "drive", self.port, placement),
                        BRIDGED: programs.drive("service", "drive", self.here, placement)}
        self.source = programs.drive("service", "drive", self.service.address, placement)

    def run(self, *command):
        return self.programs.started(Running(command, self.placement))

    def bridge(self, *arguments):
        return self.run(self.programs.build / "mqtt/tovik-mqtt", "--name",
                        self.programs.address(False), "--broker", f"127.0.0.1:{self.port}",
                        *arguments)

    def reaches_broker(self):
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", int(self.port))) == 0

    def mosquitto(self, program, *arguments):
        return [program, "-h", "127.0.0.1", "-p", self.port, "-V", "5", "-q", "1", *arguments]

    def one_shots(self):
        return {MQTT: self.mosquitto("mosquitto_rr", "-t", "bench/requests", "-e", "bench/single",
                                     "-m", json.dumps(CALL)),
                BRIDGED: [self.programs.build / "tool/tovik", "call", self.here, json.dumps(CALL)]}


def installed(bench):
    return all([bench.programs.path("mqtt").exists(), os.path.exists(BROKER),
                *map(shutil.which, ("mosquitto_rr", "mosquitto_pub", "mosquitto_sub"))])


def bridge(bench, placement):
    if not installed(bench):
        return {}
    machines = Machines(bench, placement)
    return {"round trip": round_trips(bench, machines), "one call": one_shots(bench, machines),
            "event": events(bench, machines)}


def round_trips(bench, machines):
    """Of clients that stay connected."""
    seen = {name: Latencies() for name in machines.clients}
    for client in machines.clients.values():
        client.do("call", WARM_UP)
    for name in bench.rounds("round trip across bridges", list(seen)):
        seen[name].add(machines.clients[name].do("call", bench.sizes.calls // 5))
    return {name: {"latency": latencies.summary()} for name, latencies in seen.items()}


def one_shots(bench, machines):
    """A program that connects, calls and ends."""
    commands = machines.one_shots()
    elapsed = {name: Series() for name in commands}
    for name in bench.rounds("one call across bridges", list(commands)):
        start = time.monotonic_ns()
        subprocess.run(commands[name], check=True, stdout=subprocess.DEVNULL, timeout=PATIENCE,
                       preexec_fn=machines.placement.apply)
        elapsed[name].add(time.monotonic_ns() - start)
    return {name: {"elapsed": series.summary()} for name, series in elapsed.items()}


def events(bench, machines):
    """The processor time of both bridges, and that of mosquitto_pub and mosquitto_sub together."""
    count = bench.sizes.events
    machines.clients[BRIDGED].do("follow")
    ways = {MQTT: lambda: piped(machines, count), BRIDGED: lambda: bridged(machines, count)}
    cpu = {name: Series() for name in ways}
    for name in bench.rounds("events across bridges", list(ways), bench.sizes.rounds // 3):
        cpu[name].add(ways[name]() / count)
    return {name: {"cpu": series.summary()} for name, series in cpu.items()}


def bridged(machines, count):
    before = sum(one.cpu() for one in machines.bridges)
    for start in range(0, count, 500):  # which no queue on the way is too small for
        machines.source.do("publish", min(500, count - start))
        machines.clients[BRIDGED].do("hear", min(500, count - start))
    return sum(one.cpu() for one in machines.bridges) - before


def piped(machines, count):
    def clients_cpu():
        usage = resource.getrusage(resource.RUSAGE_CHILDREN)
        return (usage.ru_utime + usage.ru_stime) * 1e9

    subscribe = machines.mosquitto("mosquitto_sub", "-t", "bench/news", "-C", str(count + 1))
    publish = machines.mosquitto("mosquitto_pub", "-t", "bench/news", "-l")
    first = machines.mosquitto("mosquitto_pub", "-t", "bench/news", "-r", "-m", "first")
    options = {"preexec_fn": machines.placement.apply}
    subprocess.run(first, check=True, timeout=PATIENCE)
    before = clients_cpu()
    with contextlib.ExitStack() as stack:
        follower = stack.enter_context(subprocess.Popen(subscribe, stdout=subprocess.PIPE,
                                                        **options))
        follower.stdout.readline()  # the retained one: from now on all of them come
        subprocess.run(publish, input=(NEWS + "\n").encode() * count, check=True, timeout=60,
                       **options)
        heard = follower.stdout.read().count(b"\n")
    if heard != count:
        raise RuntimeError(f"{heard} of {count} events came")
    return clients_cpu() - before
