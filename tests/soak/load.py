"""Many at once: a crowd of subscribers, a burst of connects, a reader that has stopped, a flood."""

import collections
import signal
import statistics
import time

from children import Watch

# Two windows fit the sockets as a rule; every eighth is more than a socket takes.
SMALL, LARGE = 100, 400


class Broadcaster:
    """Broadcasts to receivers, one window ahead of the slowest. A server may be faster than its
    subscribers, and its queues have no bound."""

    def __init__(self, run, server, receivers):
        self.run, self.server, self.receivers = run, server, receivers
        self.sent = self.windows = 0

    def lag(self):
        """Lets the queues grow as long as `until` ever can, for memory to have been as large."""
        for receiver in self.receivers:
            receiver.send_signal(signal.SIGSTOP)
        self.server.tell("broadcast", SMALL + LARGE)
        self.server.figures()
        for receiver in self.receivers:
            receiver.send_signal(signal.SIGCONT)
        self.sent += SMALL + LARGE
        self._await_all(self.sent)

    def until(self, total):
        """Until that many have been sent in all and received."""
        while self.sent < total:
            self.windows += 1
            before = self.sent
            count = min(SMALL if self.windows % 8 else LARGE, total - self.sent)
            self.server.tell("broadcast", count)
            self.sent += count
            self._await_all(before)
            self.run.progress(before, self.run.form.broadcasts)
        self._await_all(self.sent)

    def _await_all(self, sequence):
        for receiver in self.receivers:
            receiver.tell("seen", sequence, 1 if sequence else 0)
        for receiver in self.receivers:
            receiver.answer()


def crowd(run, rows):
    form, name = run.form, run.fresh_name()
    server = run.server(name)
    receivers = [run.clients(who, name, form.subscribers // 2)
                 for who in ("one half", "other half")]
    for receiver in receivers:
        receiver.ask("ready")
    broadcaster = Broadcaster(run, server, receivers)
    broadcaster.lag()
    broadcaster.until(form.broadcasts // 10)
    watch = Watch(server, *receivers)
    start, before = time.monotonic(), broadcaster.sent
    broadcaster.until(form.broadcasts)
    seconds = time.monotonic() - start
    each = [receiver.figures() for receiver in receivers]
    figures = collections.Counter(each[0]) + collections.Counter(each[1])
    rows.in_full_form(f"broadcasts to {form.subscribers} subscribers",
                      server.figures()["sequence"], form.broadcasts, type(form)().broadcasts)
    rows.exactly("notifications received", figures["received"], form.broadcasts * form.subscribers)
    rows.delivery(figures)
    rows.note("notifications a second", (form.broadcasts - before) * form.subscribers / seconds)
    rows.note("p99 of the delivery", max(one["noticesP99"] for one in each) / 1e6, "ms",
              "100 or 400 broadcasts at a stroke")
    watch.report(rows, form.quiet_seconds)


def burst(run, rows):
    """Every other time the server sleeps meanwhile, and wakes up to a full backlog."""
    form, name = run.form, run.fresh_name()
    server, clients = run.server(name), run.start("blocking", "clients", name=name)
    clients.ask("burst", form.burst_clients)
    watch, descriptors = Watch(server), clients.descriptors()
    figures, longest = collections.Counter(), 0
    for i in range(form.bursts):
        run.progress(i, form.bursts)
        if i % 2 == 1:
            server.send_signal(signal.SIGSTOP)
        clients.tell("burst", form.burst_clients)
        if i % 2 == 1:
            time.sleep(0.1)
            server.send_signal(signal.SIGCONT)
        its = clients.answer()
        longest = max(longest, its.pop("longest"))
        figures.update(its)
    expected = form.burst_clients * form.bursts
    rows.exactly(f"clients answered, {form.burst_clients} at once", figures["answered"], expected,
                 "backlog of 5; every other time the server is stopped for 100 ms")
    rows.exactly("wrong answers and failures", figures["wrong"] + figures["failed"], 0)
    rows.exactly("admissions", server.figures()["admitted"], expected + form.burst_clients,
                 "the warm-up included")
    rows.note("longest from connect to answer", longest / 1e6, "ms")
    rows.exactly("descriptors of the clients", clients.descriptors(), descriptors)
    watch.report(rows, form.quiet_seconds)


class StoppedReader:
    """Healthy readers in the company of one that has stopped, and without it, in turn."""

    HEALTHY = 99
    MICROSECONDS = 2000  # between broadcasts

    def __init__(self, run):
        self.run, self.name = run, run.fresh_name()
        self.server = run.server(self.name, padding=1000)
        self.healthy = run.clients("healthy readers", self.name, self.HEALTHY)
        self.healthy.ask("ready")
        self.sent = self.missed = 0

    def stopped(self):
        reader = self.run.clients("stopped reader", self.name, 1)
        reader.ask("ready")
        reader.send_signal(signal.SIGSTOP)
        return reader

    def pace(self, count, microseconds):
        self.server.ask("pace", count, microseconds)
        self.sent += count
        self.healthy.ask("seen", self.sent, 1)

    def resume(self, reader):
        """Lets it catch up: it gets all that has waited for it."""
        reader.send_signal(signal.SIGCONT)
        reader.ask("seen", self.sent, 1)
        figures = reader.figures()
        self.missed += figures["lost"] + figures["doubled"]
        reader.kill()

    def p99(self, with_stopped):
        """In microseconds."""
        reader = self.stopped() if with_stopped else None
        self.healthy.tell("forget")
        self.pace(self.run.form.paced_broadcasts, self.MICROSECONDS)
        figures = self.healthy.figures()
        if reader:
            self.resume(reader)
        return figures["noticesP99"] / 1e3

    def weigh(self):
        """What a notification costs beyond its text that waits for the stopped reader, once its
        socket is full, and that text's size."""
        reader = self.stopped()
        self.pace(200, 500)
        before = self.server.figures()
        self.pace(300, 500)
        after = self.server.figures()
        self.resume(reader)
        return (after["heap"] - before["heap"]) / 300 - after["textSize"], after["textSize"]


def with_quartiles(values):
    """The median, and what to say about the rest."""
    first, median, third = (statistics.quantiles(values, n=4, method="inclusive")
                            if len(values) > 1 else 3 * values)
    return median, f"quartiles {first:,.2f} to {third:,.2f}"


def stopped_reader(run, rows):
    form, readers = run.form, StoppedReader(run)
    for warm_up in (False, True):
        readers.p99(warm_up)
    readers.weigh()
    watch = Watch(readers.server, readers.healthy)
    times = {False: [], True: []}
    for i in range(form.pairs):
        run.progress(i, form.pairs)
        for with_stopped in (i % 2 == 1, i % 2 == 0):
            times[with_stopped].append(readers.p99(with_stopped))
    overhead, text_size = readers.weigh()
    for with_stopped, what in ((False, "p99 of 99 readers alone"),
                               (True, "p99 beside a stopped one")):
        median, note = with_quartiles(times[with_stopped])
        rows.note(what, median, "us", note)
    ratio, note = with_quartiles([beside / alone for alone, beside in zip(*times.values())])
    rows.at_most(f"ratio, median of {form.pairs} pairs", ratio, "", form.stopped_reader_ratio, note)
    rows.at_most("memory of a waiting notification beyond its text", overhead, "bytes", 80,
                 f"text of {text_size} bytes")
    rows.exactly("what stopped readers missed after all", readers.missed, 0)
    rows.delivery(readers.healthy.figures())
    watch.report(rows, form.quiet_seconds)


def flood(run, rows):
    """Callers that call without a pause, alone and beside the flood, in turn."""
    name, rounds = run.fresh_name(), 8
    server, flooder = run.server(name), run.start("blocking", "flooder", name=name)
    callers = run.clients("callers", name, 0, 20)
    callers.ask("ready")

    def calls(flooded, seconds):
        callers.tell("forget")
        before = callers.figures()["calls"]
        callers.tell("call-on")
        if flooded:
            flooder.ask("flood", int(1000 * seconds))
        else:
            time.sleep(seconds)
        callers.ask("call-ends")
        figures = callers.figures()
        return figures["calls"] - before, figures["answersP99"] / 1e3

    calls(True, run.form.flood_seconds / 5)
    watch, before = Watch(server, callers), server.figures()["notes"]
    alone, beside = [], []
    for i in range(rounds):
        run.progress(i, rounds)
        for flooded, series in ((False, alone), (True, beside)):
            series.append(calls(flooded, run.form.flood_seconds / rounds / 2))
    (calls_alone, p99_alone), (calls_beside, p99_beside) = zip(*alone), zip(*beside)
    rows.note("messages of the flooding client", server.figures()["notes"] - before, "",
              "taken by the server, beside 20 callers")
    median = statistics.median(p99_alone)
    rows.note("p99 of callers alone", median, "us", f"median of {rounds} rounds")
    # One message of each connection a turn: the flood is one more caller.
    rows.at_most("p99 of callers beside the flood", statistics.median(p99_beside), "us",
                 max(3 * median, 20000), f"worst round {max(p99_beside):,.0f} us")
    # Three busy processes share the processors then instead of two.
    rows.at_least("calls answered beside the flood, of those alone",
                  sum(calls_beside) / sum(calls_alone), 0.1)
    rows.exactly("wrong replies", callers.figures()["wrong"], 0)
    watch.report(rows, run.form.quiet_seconds)
