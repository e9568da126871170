"""Breaks the libraries in small ways, one at a time, in a copy of the tree, and counts the
mutants that the tests kill. See scripts/mutate."""

import argparse
import collections
import concurrent.futures
import ctypes
import hashlib
import json
import os
import pathlib
import queue
import random
import re
import resource
import shlex
import shutil
import signal
import subprocess
import sys
import threading
import time

import mutants

ROOT = pathlib.Path(__file__).resolve().parents[2]
WORK = ROOT / "build/mutate"
TREE, BUILD = WORK / "base/tree", WORK / "base/build"
RESULTS = WORK / "results.jsonl"
EXPLAINED = ROOT / "tests/mutation/explained"

# The programs that look at each library, and those that are compiled again for a header's sake.
KELVO = ["kelvo_callback_test", "kelvo_event_loop_test", "kelvo_loop_test", "kelvo_debug_test",
         "kelvo_timer_test", "kelvo_fork_test", "kelvo_string_test",
         "kelvo_ptr_test", "kelvo_refused_page_test", "kelvo_post_test",
         "kelvo_channel_memory_test", "thread_key_test", "log_date_test", "registration_test"]
TOVIK = ["order_test", "connection_test", "server_test", "async_sender_test", "diagnostics_test",
         "message_test", "admission_test", "conversation_test", "client_test", "threads_test",
         "descriptor_zero_test", "registration_test", "stack_test"]
SLOW = ["async_client_test", "kelvo_deferred_event_test"]
PROGRAMS = KELVO + TOVIK + SLOW
HEADER_TESTS = {
    "Api/Admission.h": ["admission_test"],
    "Api/Json/Async.h": ["async_sender_test"],
    "Kelvo/Exception.h": ["kelvo_string_test"],
    "Kelvo/Platform/Debug.h": ["kelvo_debug_test"],
    "Kelvo/Ptr.h": ["kelvo_ptr_test"],
    "Kelvo/String.h": ["kelvo_string_test"],
}
COMPILED_FOR_SPEED = ["-O0", "-g0", "-w"]
MORE_THAT_SHOWS = ["-D_GLIBCXX_ASSERTIONS"]  # of what would only corrupt memory


def sources():
    """The core and the base library; the service layer has no list of excuses yet, and adapters
    take their hosts."""
    paths = [path for folder in ("Api", "Kelvo") for path in (ROOT / folder).rglob("*")
             if path.suffix in (".h", ".cpp") and not {"Service", "Adapters"} & set(path.parts)]
    return sorted(str(path.relative_to(ROOT)) for path in paths)


def digest(content):
    return hashlib.sha256(content).hexdigest()[:16]


def version(text):
    """Of a source: the same as long as only its comments change."""
    return digest(mutants.without_comments(text).encode())


# --- the copy of the tree ---

def copy_tree():
    """Copies what has changed, so that an unchanged file keeps its time and is not built again."""
    names = subprocess.run(["git", "ls-files", "-co", "--exclude-standard"], cwd=ROOT, check=True,
                           capture_output=True, text=True).stdout.splitlines()
    for name in filter(lambda name: (ROOT / name).is_file(), names):
        target = TREE / name
        if not target.exists() or target.read_bytes() != (ROOT / name).read_bytes():
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(ROOT / name, target)
    for path in [*TREE.glob("tests/*/*"), *TREE.glob("Api/**/*"), *TREE.glob("Kelvo/**/*")]:
        if path.is_file() and not (ROOT / path.relative_to(TREE)).exists():
            path.unlink()


def build_tree():
    copy_tree()
    log = WORK / "build.log"
    with open(log, "w") as out:
        for command in (["cmake", "-S", TREE, "-B", BUILD, "-DCMAKE_BUILD_TYPE=Debug",
                         "-DCMAKE_CXX_FLAGS_DEBUG=" + " ".join(COMPILED_FOR_SPEED),
                         "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON", "-DTOVIK_BUILD_TOOL=OFF",
                         "-DTOVIK_BUILD_EXAMPLES=OFF"],
                        ["cmake", "--build", BUILD, "--parallel", "2", "--target", *PROGRAMS]):
            if subprocess.run(command, stdout=out, stderr=subprocess.STDOUT).returncode != 0:
                sys.exit(f"{log.read_text()[-3000:]}\nscripts/mutate: the unbroken tree does not "
                         "build")


def compile_commands():
    """The words that make each object, by (target, source)."""
    found = {}
    for entry in json.loads((BUILD / "compile_commands.json").read_text()):
        words = shlex.split(entry["command"])
        target = re.search(r"CMakeFiles/([^/]+)\.dir/", entry["command"]).group(1)
        source = str(pathlib.Path(entry["file"]).relative_to(TREE))
        found[target, source] = (pathlib.Path(entry["directory"]), words)
    return found


class Worker:
    """A copy of the sources in which one file at a time is broken, and what it builds."""

    def __init__(self, number, commands, limits):
        self.commands, self.limits = commands, limits
        self.home = WORK / f"worker-{number}"
        shutil.rmtree(self.home, ignore_errors=True)
        for folder in ("Api", "Kelvo", "tests"):
            shutil.copytree(TREE / folder, self.home / "tree" / folder)
        self.output = self.home / "output"
        self.lately = collections.defaultdict(list)  # the programs that killed, by file

    def judge(self, mutant, passed):
        """(outcome, by what): killed, survived or invalid. `passed` are the programs known not to
        notice this one."""
        file = self.home / "tree" / mutant.file
        whole = file.read_text()
        file.write_text(mutant.apply(whole))
        for folder in ("made", "objects"):
            shutil.rmtree(self.home / folder, ignore_errors=True)
            (self.home / folder).mkdir()
        try:
            programs = self._build(mutant.file)
            if programs is None:
                return "invalid", ""
            return self._test(mutant.file, [each for each in programs if each not in passed])
        finally:
            file.write_text(whole)

    def _build(self, file):
        """The programs to run, or nothing if it does not compile."""
        objects = {}  # as the links name them, to those made here
        remade = HEADER_TESTS.get(file, [])
        for target in ("Kelvo", "Tovik", *remade):
            for (its, source), (directory, words) in self.commands.items():
                if its == target and self._includes(target, source, file):
                    made = self.home / "objects" / f"{len(objects)}.o"
                    if not self._compile(words, directory, made):
                        return None
                    objects[target, source] = made
        broken = {target for target, _ in objects}
        programs = list(remade)
        for target in remade:
            if not self._link(target, objects, self.home / "made" / target):
                return None
        for library in ("Kelvo", "Tovik"):
            if library in broken and not self._link(
                    library, objects, self.home / "made" / f"lib{library}.so.1"):
                return None
        if "Kelvo" in broken:
            programs += KELVO + TOVIK + SLOW
        elif "Tovik" in broken:
            programs += TOVIK + SLOW[:1]
        return list(dict.fromkeys(programs))

    def _includes(self, target, source, file):
        if source == file:
            return True
        return file.endswith(".h") and file in dependencies(target, source, self.commands)

    def _words(self, words):
        return [word.replace(str(TREE), str(self.home / "tree")) for word in words]

    def _compile(self, words, directory, made):
        words = self._words(words)
        words[words.index("-o") + 1] = str(made)
        return subprocess.run(words + MORE_THAT_SHOWS, cwd=directory,
                              capture_output=True).returncode == 0

    def _link(self, target, objects, made):
        folder = {"Kelvo": "Kelvo", "Tovik": "Api"}.get(target, "tests")
        script = BUILD / folder / f"CMakeFiles/{target}.dir/link.txt"
        words = shlex.split(script.read_text())
        for (its, source), path in objects.items():
            for at, word in enumerate(words):
                name = source.removeprefix(f"{folder}/")
                if its == target and word.endswith(f"{target}.dir/{name}.o"):
                    words[at] = str(path)
        words[words.index("-o") + 1] = str(made)
        return subprocess.run(words, cwd=BUILD / folder, capture_output=True).returncode == 0

    # --- running the tests ---

    def _test(self, file, programs):
        for program in sorted(programs, key=lambda each: self._rank(file, each, programs)):
            code, last = self._run(program)
            if code == 0:
                continue
            if last:  # again, alone: a kill must not be a test's bad luck, nor that hide the rest
                again, _ = self._run(program, f"--gtest_filter={last}")
                if again == 0:
                    code, last = self._run(program, f"--gtest_filter=-{last}")
                    if code == 0:
                        continue
            self.lately[file] = [program, *(x for x in self.lately[file] if x != program)][:5]
            return "killed", f"{program} {last or ''}" + (" (time)" if code is None else "")
        return "survived", ""

    def _rank(self, file, program, programs):
        lately = self.lately[file]
        return lately.index(program) if program in lately else 100 + programs.index(program)

    def _run(self, program, *options):
        """The exit code, nothing if it took too long; and the test that failed."""
        made = self.home / "made" / program
        path = made if made.exists() else BUILD / "tests" / program
        environment = dict(os.environ, LD_LIBRARY_PATH=str(self.home / "made"),
                           MALLOC_PERTURB_="165")  # so that use after free shows
        with open(self.output, "w") as out:
            process = subprocess.Popen([path, "--gtest_fail_fast", *options], stdout=out,
                                       stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                       env=environment, start_new_session=True, preexec_fn=bound)
            try:
                others = max(1.0, os.getloadavg()[0] / os.cpu_count())
                code = process.wait(self.limits.get(program, 60) * others)
            except subprocess.TimeoutExpired:
                code = None
            try:
                os.killpg(process.pid, signal.SIGKILL)  # what it left running, too
            except ProcessLookupError:
                pass
            process.wait()
        text = self.output.read_text(errors="replace")
        failed = re.findall(r"^\[  FAILED  \] ([^\s,]+)", text, re.M)[:1]
        started = re.findall(r"^\[ RUN      \] (\S+)", text, re.M)[-1:]
        return code, (failed or started or [""])[0]


C_LIBRARY = ctypes.CDLL(None)
DIE_WITH_PARENT = 1  # PR_SET_PDEATHSIG


def bound():
    """In a program of tests, before it starts: it ends with this one, and by itself."""
    C_LIBRARY.prctl(DIE_WITH_PARENT, signal.SIGKILL)
    resource.setrlimit(resource.RLIMIT_CPU, (120, 120))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_AS, (4 << 30, 4 << 30))
    resource.setrlimit(resource.RLIMIT_FSIZE, (20 << 20, 20 << 20))


DEPENDENCIES, DEPENDENCIES_LOCK = {}, threading.Lock()


def dependencies(target, source, commands):
    with DEPENDENCIES_LOCK:
        if (target, source) not in DEPENDENCIES:
            directory, words = commands[target, source]
            out = words.index("-o")
            words = words[:out] + words[out + 2:] + ["-MM"]
            text = subprocess.run(words, cwd=directory, capture_output=True, text=True,
                                  check=True).stdout
            DEPENDENCIES[target, source] = {
                str(pathlib.Path(word).relative_to(TREE)) for word in text.split()
                if word.startswith(str(TREE))}
        return DEPENDENCIES[target, source]


# --- results ---

def load_results():
    results = {}
    if RESULTS.exists():
        for line in RESULTS.read_text().splitlines():
            result = json.loads(line)
            results[tuple(result["mutant"])] = result
    return results


def still_true(result, source, tests, cases):
    """A kill holds until its source changes or the test that killed goes; a survival, until a
    program of tests changes."""
    if result["outcome"] == "survived":
        holds = passed(result, tests) == set(tests)
    else:
        holds = result["outcome"] == "invalid" or result["by"].removesuffix(" (time)") in cases
    return holds and result["source"] == source


def cases_of(program):
    """Its tests, and the program itself, which stands for a kill before the first of them."""
    text = subprocess.run([BUILD / "tests" / program, "--gtest_list_tests"], check=True,
                          capture_output=True, text=True).stdout
    found, suite = {program}, ""
    for line in text.splitlines():
        name = line.split("#")[0].strip()
        if line.startswith(" "):
            found.add(f"{program} {suite}{name}")
        else:
            suite = name
    return found


def passed(result, tests):
    """The programs that are as they were when they did not notice it."""
    return {program for program, its in tests.items() if result["tests"].get(program) == its}


def load_explained():
    """How many there are of each (file, function, kind) that no test can notice."""
    explained, file = {}, ""
    for line in EXPLAINED.read_text().splitlines():
        if line.startswith("  "):
            found = re.match(r"  (\S+): (\d+) (\w+): \S", line)
            if not found:
                sys.exit(f"{EXPLAINED}: not \"function: number kind: reason\": {line}")
            explained[file, found[1], found[3]] = int(found[2])
        elif line and not line.startswith("#"):
            file = line
    return explained


def place(mutant):
    return mutant.file, mutant.function, mutant.kind


def limits(worker):
    """How long each program may take, from how long it takes on the unbroken libraries."""
    found = {}
    (worker.home / "made").mkdir(exist_ok=True)
    for program in PROGRAMS:
        begin = time.monotonic()
        code, last = worker._run(program)
        if code != 0:
            sys.exit(f"{worker.output.read_text()[-3000:]}\nscripts/mutate: {program} fails on the "
                     f"unbroken tree, in {last}")
        found[program] = 5 + 5 * (time.monotonic() - begin)
    return found


def show(mutant):
    return (f"{mutant.file}: {mutant.function}\n  - {mutant.before}\n  + {mutant.after}")


def main():
    parser = argparse.ArgumentParser(prog="scripts/mutate", description=__doc__)
    parser.add_argument("--sample", type=int, metavar="N", help="only N, chosen by the seed")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--file", action="append", default=[], help="only those of this file")
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--again", action="store_true", help="forget the results so far")
    parser.add_argument("--list", action="store_true", help="print the mutants and do nothing")
    options = parser.parse_args()

    texts = {file: (ROOT / file).read_text() for file in sources()}
    possible = [mutant for file, text in texts.items()
                for mutant in mutants.mutants(file, text)]
    explained = load_explained()
    stale = set(explained) - {place(mutant) for mutant in possible}
    for entry in sorted(stale):
        print(f"Explained, and no mutant of the sources as they are: {entry}")
    chosen = [mutant for mutant in possible if not options.file or mutant.file in options.file]
    random.Random(options.seed).shuffle(chosen)
    chosen = chosen[:options.sample]
    if options.list:
        print("\n".join(map(show, chosen)))
        return 0

    build_tree()
    tests = {program: digest((BUILD / "tests" / program).read_bytes()) for program in PROGRAMS}
    cases = set().union(*map(cases_of, PROGRAMS))
    versions = {file: version(text) for file, text in texts.items()}
    if options.again:
        RESULTS.unlink(missing_ok=True)
    results = load_results()
    wanted = [mutant for mutant in chosen if mutant.key() not in results or
              not still_true(results[mutant.key()], versions[mutant.file], tests, cases)]
    wanted.sort(key=lambda mutant: mutant.key() not in results)  # first what survived: soon done
    run_all(wanted, results, versions, tests, options.jobs)
    return report(chosen, possible, results, explained) or (1 if stale else 0)


def run_all(wanted, results, versions, tests, jobs):
    commands = compile_commands()
    workers = queue.Queue()
    first = Worker(0, commands, {})
    first.limits = limits(first)
    for worker in [first, *(Worker(n, commands, first.limits) for n in range(1, jobs))]:
        workers.put(worker)
    lock = threading.Lock()

    def judge(mutant):
        worker = workers.get()
        try:
            before = results.get(mutant.key(), {"source": ""})
            known = passed(before, tests) if before["source"] == versions[mutant.file] else set()
            outcome, by = worker.judge(mutant, known)
        finally:
            workers.put(worker)
        result = {"mutant": mutant.key(), "kind": mutant.kind, "outcome": outcome, "by": by.strip(),
                  "source": versions[mutant.file], "tests": tests if outcome == "survived" else {}}
        with lock, open(RESULTS, "a") as out:
            results[mutant.key()] = result
            out.write(json.dumps(result) + "\n")

    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        for done in pool.map(judge, wanted):
            assert done is None


def report(chosen, possible, results, explained):
    outcomes = collections.Counter()
    by_kind = collections.defaultdict(collections.Counter)
    survivors = collections.defaultdict(list)
    for mutant in chosen:
        outcome = results[mutant.key()]["outcome"]
        if outcome == "survived":
            survivors[place(mutant)].append(mutant)
            outcome = "explained" if place(mutant) in explained else "survived"
        outcomes[outcome] += 1
        by_kind[mutant.kind][outcome] += 1
    tried = collections.Counter(map(place, chosen))
    there = collections.Counter(map(place, possible))
    wrong = 0
    for entry in sorted(set(survivors) | set(explained)):
        found, excused = len(survivors[entry]), explained.get(entry, 0)
        if found > excused or (found < excused and tried[entry] == there[entry]):
            wrong += 1
            print(f"{found} survived, {excused} explained: {entry}",
                  *map(show, survivors[entry]), sep="\n")
    columns = ["killed", "explained", "survived", "invalid"]
    print(f"{'':12}{''.join(f'{name:>11}' for name in columns)}")
    for kind, counts in [*sorted(by_kind.items()), ("all", outcomes)]:
        print(f"{kind:12}{''.join(f'{counts[name]:11}' for name in columns)}")
    print(f"{len(chosen)} of {len(possible)} mutants tried; invalid ones do not compile")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
