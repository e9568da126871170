"""Long runs: a server and a service that are killed again and again, a server that has nothing to
do, and one that meets all of it in a random order."""

import collections
import pathlib
import signal
import statistics
import time

from children import Watch

INTERVAL = 1  # second between a client's attempts to connect


def outwait_timers():
    """Past the expiry that each attempt leaves behind; it leads to nothing but wakes the loop."""
    time.sleep(INTERVAL + 0.2)


class Restarts:
    def __init__(self, run):
        self.run, self.name, self.number = run, run.fresh_name(), 1
        self.count = run.form.restart_clients
        self.server = run.server(self.name)
        self.descriptors_alone = self.server.descriptors()
        self.clients = run.clients("clients", self.name, self.count, interval=INTERVAL)
        self.clients.ask("ready")

    def restart(self):
        """Kills the server in the middle of a broadcast, and starts it again at once or, one time
        in four, after some attempts to reach it may have failed. How long until all are back."""
        random = self.run.random
        delay = random.uniform(0, 0.003)
        down = random.uniform(0, 1.5) if random.randrange(4) == 0 else 0
        self.server.tell("broadcast", 200)
        time.sleep(delay)
        self.server.kill()
        self.clients.ask("lost")
        time.sleep(down)
        self.number += 1
        self.server = self.run.server(self.name, self.number)
        start = time.monotonic()
        self.clients.ask("ready")
        return time.monotonic() - start

    def connections(self):
        """How often one broadcast is received, and over how many connections."""
        before = self.clients.figures()["received"]
        self.server.tell("broadcast", 1)
        self.clients.ask("seen", 1, self.number)
        return (self.clients.figures()["received"] - before,
                self.server.descriptors() - self.descriptors_alone)


def restarts(run, rows):
    form, it = run.form, Restarts(run)
    if form.restarts > 1:
        it.restart()  # to warm up
    watch = Watch(it.clients)
    back, connections = [], []
    for i in range(form.restarts):
        run.progress(i, form.restarts)
        back.append(it.restart())
        connections.append(it.connections())
    rows.in_full_form(f"kill -9 and restart, {it.count} clients", len(back), form.restarts,
                      type(form)().restarts)
    rows.note("until all are back, median", statistics.median(back), "s")
    rows.at_most("until all are back, longest", max(back), "s", 2 * INTERVAL,
                 "subscriptions confirmed; two intervals")
    for position, what, note in (
            (0, "each subscription held", "one broadcast, received once by each"),
            (1, "each had one connection", "descriptors of the server")):
        rows.exactly(f"restarts after which not {what}",
                     sum(each[position] != it.count for each in connections), 0, note)
    rows.delivery(it.clients.figures())
    outwait_timers()
    watch.report(rows, form.quiet_seconds)


class Killing:
    """A service with many sessions, killed while calls are in flight, events are published and some
    clients do not read. Each call ends once and is carried out once at most; each topic is followed
    again, its last event first."""

    def __init__(self, run):
        self.run, self.name, self.number = run, run.fresh_name(), 0
        self.stalling = run.form.sessions // 10
        self.reading = run.form.sessions - self.stalling
        self.carried_out = pathlib.Path(run.work.name, self.name)
        with self.carried_out.open("wb") as file:
            file.truncate(1 << 24)  # calls
        self.callers = self.proxies("callers", self.reading, stall=False)
        self.stalled = self.proxies("stalled", self.stalling, stall=True)
        self.service, self.began, self.back = None, 0, 0

    def proxies(self, who, count, stall):
        return self.run.start("proxies", who, name=self.name, proxies=count, stall=stall,
                              limit=self.run.form.patience / 4, carriedOut=str(self.carried_out))

    def begin(self):
        self.number += 1
        self.service = self.run.start("service", name=self.name, run=self.number,
                                      sabotage=self.run.sabotage, carriedOut=str(self.carried_out))
        self.began = time.monotonic()
        for clients in (self.callers, self.stalled):
            clients.ask("ready", self.number)
        self.back = max(self.back, time.monotonic() - self.began)
        self.stalled.send_signal(signal.SIGSTOP)

    def kill(self):
        time.sleep(max(0, self.began + self.run.form.service_seconds - time.monotonic()))
        self.service.kill()
        self.stalled.send_signal(signal.SIGCONT)

    def stall(self, rows):
        """Long enough for what waits without a bound of its own to reach the session's."""
        start = now = self.service.figures()
        self.service.tell("burst", 3000)
        half, deadline = self.stalling // 2, time.monotonic() + 60
        left = self.run.form.sessions - half
        while now["sessions"] > left and time.monotonic() < deadline:
            time.sleep(0.1)
            now = self.service.figures()
        rows.exactly("sessions left of those that do not read, and of the others", now["sessions"],
                     left, "those with topics whose events all wait are ended")
        rows.at_most("heap that those left take",
                     (now["heap"] - start["heap"]) / 1024 / max(1, half), "kB", 8,
                     "each; only the latest event of ten topics waits")
        self.stalled.send_signal(signal.SIGCONT)

    def carried_out_twice(self, calls):
        return sum(times > 1 for times in self.carried_out.read_bytes()[:calls + 1])


def services(run, rows):
    form, it = run.form, Killing(run)
    it.begin()
    it.kill()  # to warm up
    it.begin()
    before = it.callers.resources()
    for i in range(form.service_kills):
        run.progress(i, form.service_kills)
        it.kill()
        it.begin()
    it.stall(rows)
    it.callers.ask("call-ends")
    figures, after = it.callers.figures(), it.callers.resources()
    rows.in_full_form(f"kill -9 of a service with {form.sessions} sessions", it.number - 2,
                      form.service_kills, type(form)().service_kills)
    rows.note("until all follow again, longest", it.back, "s")
    rows.note("calls", figures["calls"], "", f"{figures['lost']:,} lost with their service")
    rows.exactly("calls without an end", figures["calls"] - sum(
        figures[end] for end in ("replies", "lost", "otherEnds")), 0)
    rows.exactly("calls that have ended twice", figures["again"], 0)
    rows.exactly("calls timed out or refused", figures["otherEnds"], 0)
    rows.exactly("wrong replies", figures["wrong"], 0)
    rows.exactly("calls carried out twice", it.carried_out_twice(figures["calls"]), 0)
    rows.note("events", figures["events"])
    rows.exactly("events that are not the last one first, once a connection",
                 figures["unordered"], 0)
    rows.exactly("events left out", figures["gaps"], 0)
    rows.exactly("events doubled", figures["doubled"], 0)
    rows.heap("callers", before, after)
    rows.at_most("memory gained by the callers", after["kilobytes"] - before["kilobytes"], "kB",
                 512, "holes that queues of varied length have left")
    rows.descriptors("callers", before, after)


def idle(run, rows):
    if not run.form.idle_seconds:
        return
    name = run.fresh_name()
    server = run.server(name)
    clients = run.clients("clients", name, run.form.idle_connections, interval=INTERVAL)
    clients.ask("ready")
    run.progress(0, run.form.idle_seconds)
    outwait_timers()
    Watch(server, clients).report(rows, run.form.idle_seconds)


class Mixed:
    """Everything in a random order. The steps follow from the seed alone, so that a run can be had
    again."""

    MANY = {"steady": (30, 10), "mortal": (20, 5)}  # subscribers and callers

    def __init__(self, run):
        self.run, self.random, self.name = run, run.random, run.fresh_name()
        self.number = 0  # of the server's run
        self.checkpoints, self.compared = 0, []
        self.bad = collections.Counter()
        self.figures = collections.Counter()  # of clients that were about to be killed, too
        self.calls = collections.Counter()  # of the blocking ones
        self.counts = collections.Counter()
        self.start_server()
        self.descriptors_alone = self.server.descriptors()
        self.members = {}
        for who in self.MANY:
            self.start_clients(who)
        self.blocking = run.start("blocking", "blocking clients", name=self.name)

    def start_clients(self, who):
        self.members[who] = self.run.clients(f"{who} clients", self.name, *self.MANY[who],
                                             interval=INTERVAL)

    def start_server(self):
        self.number += 1
        self.server = self.run.server(self.name, self.number)
        self.sequence, self.before, self.looks = 0, None, 0

    # What each step does, and how often it comes in a thousand.
    def step(self):
        below = self.random.randrange
        what, many, moment = below(1000), 1 + below(50), below(5000) * 1e-6
        someone = self.members[self.random.choice(("steady", "mortal"))]
        if what < 400:
            self.broadcast(many)
        elif what < 700:
            someone.tell("call", many)
        elif what < 800:
            self.burst(1 + many // 2)
        elif what < 860:
            self.random.choice((self.server, self.members["steady"])).tell("levels", below(16))
        elif what < 900:
            self.stop_and_continue(self.random.choice((self.server, someone)), 10 * moment)
        elif what < 915:
            self.server.tell("admit", int(below(3) > 0))
        elif what < 990:
            time.sleep(moment)
        elif what < 994:
            self.reopen()
        elif what < 998:
            self.kill_clients(moment)
        else:
            self.kill_server(moment, many)

    def broadcast(self, many):
        self.server.tell("broadcast", many)
        self.sequence += many

    def burst(self, clients):
        self.calls.update(self.blocking.ask("burst", clients))

    def stop_and_continue(self, process, seconds):
        process.send_signal(signal.SIGSTOP)
        time.sleep(seconds)
        process.send_signal(signal.SIGCONT)
        self.counts["stops"] += 1

    def await_lost(self):
        """Or a client that has yet to notice would be taken for one that is back."""
        for clients in self.members.values():
            clients.ask("lost")

    def reopen(self):
        self.server.ask("close")
        self.await_lost()
        self.server.ask("open")
        self.number += 1
        self.sequence = 0
        self.counts["clean restarts"] += 1

    def kill_clients(self, moment):
        clients = self.members["mortal"]
        self.figures.update(clients.figures())
        self.broadcast(100)
        time.sleep(moment)
        clients.kill()
        self.start_clients("mortal")
        self.counts["kills of clients"] += 1

    def kill_server(self, moment, clients):
        """In the middle of a broadcast, and of a burst of clients that connect."""
        self.broadcast(100)
        self.blocking.tell("burst", clients)
        time.sleep(moment)
        self.server.kill()
        self.await_lost()
        self.start_server()
        self.calls.update(self.blocking.answer())
        self.counts["kills of the server"] += 1

    def checkpoint(self):
        """Everybody comes back; calls end; one broadcast reaches each subscriber once."""
        self.server.tell("admit", 1)
        for clients in self.members.values():
            clients.ask("ready")
            clients.ask("call-ends")
        self.broadcast(1)
        for clients in self.members.values():
            clients.ask("seen", self.sequence, self.number)
        self.burst(1)  # so that the server frees the dead before it is looked at
        self.bad["sequence"] += self.server.figures()["sequence"] != self.sequence
        self.checkpoints += 1
        self.compare_server(self.server.resources())

    def compare_server(self, now):
        """With what it was at its own second checkpoint."""
        self.bad["connections"] += (now["descriptors"] - self.descriptors_alone
                                    != sum(map(sum, self.MANY.values())))
        self.looks += 1
        if self.looks == 2:
            self.before = now
        elif self.before:
            self.compared.append({key: now[key] - self.before[key] for key in now})

    def gained(self, what):
        return max((each[what] for each in self.compared), default=0)


def mixed(run, rows):
    it = Mixed(run)
    it.checkpoint()
    steady = it.members["steady"]
    before = steady.resources()
    start = time.monotonic()
    seconds = max(run.form.mixed_seconds, run.end - start)
    steps = 0
    while steps < run.steps if run.steps else time.monotonic() < start + seconds:
        it.step()
        steps += 1
        if steps % 100 == 0:
            run.progress(time.monotonic() - start, seconds)
            it.checkpoint()
    it.checkpoint()

    for clients in it.members.values():
        it.figures.update(clients.figures())
    rows.note("steps", steps, "", f"scripts/soak 0 --only mixed --seed {run.seed} --steps {steps}")
    for count in ("kills of the server", "clean restarts", "kills of clients", "stops"):
        rows.note(count, it.counts[count])
    rows.note("calls answered", it.figures["calls"] + it.calls["answered"], "",
              f"blocking ones that found no server: {it.calls['failed']:,}")
    rows.delivery(it.figures)
    rows.exactly("wrong answers to blocking clients", it.calls["wrong"], 0)
    rows.exactly("checkpoints where not each had one connection", it.bad["connections"], 0,
                 f"of {it.checkpoints:,}")
    rows.exactly("checkpoints with another sequence", it.bad["sequence"], 0)
    rows.at_most("heap in use gained by a server", it.gained("heap") / 1024, "kB", 64,
                 f"worst of {len(it.compared):,} checkpoints, against its second")
    rows.at_most("memory gained by a server", it.gained("kilobytes"), "kB", 512,
                 "likewise; holes that queues of varied length have left")
    after = steady.resources()
    rows.memory(steady.who, before, after)
    rows.descriptors(steady.who, before, after)
    outwait_timers()
    Watch(it.server, *it.members.values()).report_wake_ups(rows, run.form.quiet_seconds)
