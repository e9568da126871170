"""Two network namespaces are two machines here: each has its own names. The service is in one, its
callers in the other, the broker in a third. They are removed at the end, whatever happens."""

import collections
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import unittest

import broker
import support

FAULTS = int(os.environ.get("TOVIK_MQTT_FAULTS", "12"))
SEED = int(os.environ.get("TOVIK_MQTT_SEED", str(random.randrange(10**6))))
TOTAL = re.compile(r"ended (\d+) (\d+)")


def ip(*arguments, check=True):
    return subprocess.run(["ip", *arguments], check=check, capture_output=True, text=True,
                          timeout=support.DEADLINE)


def namespaces_work():
    if os.geteuid() != 0 or shutil.which("ip") is None:
        return False
    name = support.unique_name("probe")
    made = ip("netns", "add", name, check=False).returncode == 0
    ip("netns", "del", name, check=False)
    return made


@unittest.skipUnless(namespaces_work(), "network namespaces take root and the kernel's leave")
class MachinesCase(broker.Case):
    """The machines "service" and "callers", each joined to that of the broker."""

    def setUp(self):
        self.machines, self.running, self.callers = {}, {}, []
        for number, kind in enumerate(("broker", "service", "callers")):
            self.machines[kind] = support.unique_name(kind)
            ip("netns", "add", self.machines[kind])
            self.addCleanup(ip, "netns", "del", self.machines[kind], check=False)
            self.within(kind, "link", "set", "lo", "up")
            if kind != "broker":
                self.join(kind, number)
        super().setUp()

    def within(self, kind, *arguments):
        ip("-n", self.machines[kind], *arguments)

    def join(self, kind, number):
        """One cable from the broker's machine to each of the others."""
        here, there = f"tvk{os.getpid() % 100000}b{number}", f"tvk{os.getpid() % 100000}m{number}"
        ip("link", "add", here, "netns", self.machines["broker"], "type", "veth", "peer", "name",
           there, "netns", self.machines[kind])
        self.within("broker", "address", "add", f"10.77.{number}.1/24", "dev", here)
        self.within(kind, "address", "add", f"10.77.{number}.2/24", "dev", there)
        self.within("broker", "link", "set", here, "up")
        self.within(kind, "link", "set", there, "up")

    def device(self, kind):
        return f"tvk{os.getpid() % 100000}m{list(self.machines).index(kind)}"

    def on(self, kind, *arguments):
        return support.Program(self, ["ip", "netns", "exec", self.machines[kind], *arguments])

    def ask(self, kind, *arguments):
        return subprocess.run(["ip", "netns", "exec", self.machines[kind],
                               os.environ["TOVIK_TOOL"], *arguments], capture_output=True,
                              text=True, timeout=3 * support.DEADLINE)

    def start_broker(self, options=None):
        self.port = 1883
        (self.folder / "broker.conf").write_text(
            "listener 1883 0.0.0.0\nallow_anonymous true\nuser root\n")
        self.start("broker")

    def start(self, part):
        """Starts a part of the way, in the same manner again and again."""
        tests, bridge = support.SOURCE / "tests/mqtt", os.environ["TOVIK_MQTT"]
        machine, *command = {
            "broker": ("broker", broker.BROKER, "-c", self.folder / "broker.conf"),
            "service": ("service", sys.executable, tests / "lamp.py", "lamp",
                        self.folder / "carried"),
            "export": ("service", bridge, "--broker", "10.77.1.1", "--prefix", "site",
                       "--keepalive", "5", "lamp"),
            "import": ("callers", bridge, "--broker", "10.77.2.1", "--import", "lamp=site/lamp",
                       "--keepalive", "5", "--timeout", "3"),
            "caller": ("callers", sys.executable, tests / "caller.py", "lamp",
                       str(len(self.callers) * 10**6))}[part]
        self.running[part] = self.on(machine, *command)
        if part == "caller":
            self.callers.append(self.running[part])

    def start_all(self):
        for part in ("service", "export", "import"):
            self.start(part)
        self.running["import"].says(": open, for")


class Machines(MachinesCase):
    def test_have_the_same_service(self):
        self.start_all()
        for kind in ("service", "callers"):
            added = self.ask(kind, "call", "lamp", '{"command":"add","a":1,"b":2}')
            self.assertEqual((added.returncode, added.stdout.strip()), (0, "3"), added)
        watcher = self.on("callers", os.environ["TOVIK_TOOL"], "monitor", "lamp", "--topic",
                          "state", "--json=short")
        self.assertEqual(self.ask("service", "call", "lamp", '{"command":"switch","on":true}')
                         .returncode, 0)
        self.assertIn('"on":true', watcher.prints(1)[0])

    def test_are_told_when_the_cable_is_cut(self):
        self.start_all()
        self.within("service", "link", "set", self.device("service"), "down")
        self.running["import"].says("closed: the remote server is away")
        self.within("service", "link", "set", self.device("service"), "up")
        self.running["import"].says(": open, for", times=2)
        added = self.ask("callers", "call", "lamp", '{"command":"add","a":1,"b":2}')
        self.assertEqual(added.stdout.strip(), "3", added)


class Faults(MachinesCase):
    def kill(self, part):
        self.running[part].kill()
        self.start(part)

    def cut(self, part):
        self.within(part, "link", "set", self.device(part), "down")
        before = self.ended()
        try:
            support.wait_until(lambda: self.ended() > before + 4, limit=0.5)
        except AssertionError:
            pass  # as expected: nothing passes
        self.within(part, "link", "set", self.device(part), "up")

    def ended(self):
        return sum(len(TOTAL.findall(caller.text())) for caller in self.callers)

    def succeeded(self):
        return sum(status == "0" for caller in self.callers
                   for _, status in TOTAL.findall(caller.text()))

    def lose_packets(self):
        for kind in ("service", "callers"):
            done = subprocess.run(["tc", "-n", self.machines[kind], "qdisc", "add", "dev",
                                   self.device(kind), "root", "netem", "loss", "20%"],
                                  capture_output=True, text=True)
            if done.returncode != 0:
                self.skipTest("this kernel has no netem: " + done.stderr.strip())

    def test_end_each_call_once_and_carry_none_out_twice(self):
        print(f"seed {SEED}", file=sys.stderr)
        dice = random.Random(SEED)
        self.start_all()
        self.start("caller")
        for number in range(FAULTS):
            before = self.succeeded()
            fault = dice.choice(("broker", "service", "export", "import", "caller", "cut service",
                                 "cut callers"))
            if fault.startswith("cut "):
                self.cut(fault.removeprefix("cut "))
            else:
                self.kill(fault)
            try:
                support.wait_until(lambda: self.succeeded() > before, limit=90)
            except AssertionError:
                logs = [f"{part}: {program.process.poll()}\n{program.log()}"
                        for part, program in self.running.items()]
                self.fail("\n".join([f"no call after {fault}, fault {number} of seed {SEED}",
                                     *logs, *self.callers[-1].lines()[-10:]]))
        self.running["caller"].kill(signal.SIGTERM)
        self.check_calls()
        self.check_state()

    def check_calls(self):
        carried = collections.Counter((self.folder / "carried").read_text().split())
        self.assertEqual([value for value, times in carried.items() if times > 1], [])
        for caller in self.callers:
            output = caller.text()
            made = re.findall(r"made (\d+)", output)
            ended = [value for value, _ in TOTAL.findall(output)]
            self.assertEqual(len(ended), len(set(ended)))
            if caller is self.callers[-1]:
                self.assertEqual(sorted(made), sorted(ended))
            for value, status in TOTAL.findall(output):
                if status == "0":
                    self.assertEqual(carried[value], 1)
        print(f"{sum(carried.values())} calls carried out, {self.ended()} ended, "
              f"{self.succeeded()} well", file=sys.stderr)

    def check_state(self):
        def switched(on):  # a loss may be noticed late, and close the name once more
            return self.ask("callers", "call", "lamp", '{"command":"switch","on":%s}' % on)

        for on in ("true", "false"):
            support.wait_until(lambda on=on: switched(on).returncode == 0, limit=60)
        watcher = self.on("callers", os.environ["TOVIK_TOOL"], "monitor", "lamp", "--topic",
                          "state", "--json=short")
        self.assertIn('"on":false', watcher.prints(1)[0])
        for part in ("export", "import"):
            with open(f"/proc/{self.running[part].process.pid}/status") as status:
                resident = int(re.search(r"VmRSS:\s+(\d+) kB", status.read()).group(1))
            if not os.environ.get("TOVIK_SANITIZE"):  # sanitizers take their own
                self.assertLess(resident, 32768)

    def test_of_the_network_repeat_no_call(self):
        self.start_all()
        self.start("caller")
        self.lose_packets()
        support.wait_until(lambda: self.succeeded() > 50, limit=90)
        self.running["caller"].kill(signal.SIGTERM)
        self.check_calls()
