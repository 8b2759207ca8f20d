"""mutants [--only REGEX] [--likely] [--jobs N] [--list]: puts the small faults of tests/mutants/table.txt
into the sources, one at a time, and reports those that no test notices.

Each fault is built and tested in a copy of the tracked files below build/mutants, of which there are N (as
many as processors) at once; these stay there, so that the next run builds little. The exit status is 1 when
a fault survives without an explanation, when one is noticed although the table explains why it is not, and
when the table does not fit the sources.

--only takes the faults whose "FILE: TEXT => TEXT" the expression is found in, --list just shows them. With
--likely a fault is tried on the tests that are likely to notice it and on no others.
"""
import argparse
import dataclasses
import fcntl
import json
import os
import pathlib
import queue
import re
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
TABLE = ROOT / "tests/mutants/table.txt"
# Tests that take long: they are run where a row asks for them.
SLOW = {"faults", "kills", "package", "everyday_code"}
LEAST_PATIENCE = 30  # seconds before a test counts as hanging
SURVIVES, BROKEN = "survives", "does not compile"
MEMORY = 8 << 30  # what a test gone wild may take


class TableError(Exception):
    """The table does not fit itself or the sources."""


@dataclasses.dataclass
class Mutant:
    """One row of the table."""
    line: int
    file: str
    likely: list  # the tests to run first
    old: str = ""
    new: str = ""
    after: str = ""
    requested: list = dataclasses.field(default_factory=list)
    survives: str = ""

    def __str__(self):
        shown = " => ".join(" ".join(text.split()) for text in (self.old, self.new or "(nothing)"))
        return f"{self.file}: {shown}"

    def error(self, reason):
        return TableError(f"{TABLE.relative_to(ROOT)}:{self.line}: {reason}")

    def apply(self, text):
        """The text with the fault in it."""
        begin = 0
        if self.after:
            begin = self.only(self.after, text, 0).end()
            found = pattern(self.old).search(text, begin)
            if not found:
                raise self.error(f"{self.file} has no '{self.old}' after '{self.after}'")
        else:
            found = self.only(self.old, text, begin)
        return text[:found.start()] + self.new + text[found.end():]

    def only(self, wanted, text, begin):
        found = list(pattern(wanted).finditer(text, begin))
        if len(found) != 1:
            raise self.error(f"{self.file} has '{wanted}' {len(found)} times")
        return found[0]


def pattern(text):
    """Finds a text however it is broken into lines."""
    return re.compile(r"\s+".join(re.escape(word) for word in text.split()))


def read_table():
    mutants, file, likely, current = [], None, [], None
    for number, line in enumerate(TABLE.read_text().split("\n"), 1):
        word, _, rest = line.partition(" ")
        if not line:
            current = None
            continue
        if word == "#":
            continue
        if word == "==":
            file, _, names = rest.partition(":")
            likely, current = names.split(), None
            continue
        if current is None:
            current = Mutant(number, file, likely)
            mutants.append(current)
        if word == "-":
            current.old += "\n" * bool(current.old) + rest
        elif word == "+":
            current.new += "\n" * bool(current.new) + rest
        elif word == "after":
            current.after = rest
        elif word == "with":
            current.requested = rest.split()
        elif word == "survives:":
            current.survives = rest
        else:
            raise current.error(f"not understood: {line}")
    faults = []
    for mutant in mutants:
        try:
            if not mutant.file or not mutant.old or mutant.old.split() == mutant.new.split():
                raise mutant.error("no file, nothing to replace, or nothing changed")
            mutant.apply((ROOT / mutant.file).read_text())
        except TableError as fault:
            faults.append(str(fault))
    if faults:
        raise TableError("\n".join(["the table does not fit the sources:", *faults]))
    return mutants


@dataclasses.dataclass
class Test:
    """A test program with all its cases, or one CTest test that is a script."""
    name: str
    command: list
    targets: list  # what it needs built
    sources: set  # what is compiled for that
    on_request: bool  # whether it is run only where a row names it
    environment: dict
    seconds: float = 0.0


class Workshop:
    """A copy of the sources with its build."""

    def __init__(self, number, processors, only_likely):
        self.folder = ROOT / "build/mutants" / str(number)
        self.source, self.build_folder = self.folder / "source", self.folder / "build"
        self.processors, self.only_likely = processors, only_likely
        self.known = {}  # its tests by name

    def prepare(self):
        self.copy_sources()
        self.call(["cmake", "-S", str(self.source), "-B", str(self.build_folder), "-G", "Ninja",
                   "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O0",  # what builds fastest
                   "-DKORVO_BUILD_TESTS=ON",
                   # A fault in a library needs that library built anew and nothing else.
                   "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON",
                   "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST"])
        self.call(["cmake", "--build", str(self.build_folder), "-j", str(self.processors)])

    def copy_sources(self):
        """Writes only what differs, so that only that is built."""
        listed = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, stdout=subprocess.PIPE, check=True)
        names = {name for name in listed.stdout.decode().split("\0") if name and (ROOT / name).is_file()}
        for name in names:
            source, copy = ROOT / name, self.source / name
            if not copy.is_file() or copy.read_bytes() != source.read_bytes():
                copy.parent.mkdir(parents=True, exist_ok=True)
                shutil.copyfile(source, copy)
            shutil.copymode(source, copy)
        for copy in self.source.rglob("*"):
            if copy.is_file() and str(copy.relative_to(self.source)) not in names:
                copy.unlink()

    def run(self, command):
        """Whether a command succeeds; what it prints goes to the log."""
        with open(self.folder / "log", "w", encoding="utf-8") as log:
            return subprocess.run(command, stdout=log, stderr=log, check=False).returncode == 0

    def call(self, command):
        if not self.run(command):
            raise TableError(f"{' '.join(command)} failed: see {self.folder / 'log'}")

    def tests(self):
        """All tests by name, as CTest knows them."""
        listed = subprocess.run(["ctest", "--test-dir", str(self.build_folder), "--show-only=json-v1"],
                                stdout=subprocess.PIPE, check=True).stdout
        tests = {}
        for each in json.loads(listed)["tests"]:
            command = each["command"]
            properties = {one["name"]: one["value"] for one in each.get("properties", [])}
            program = any(word.startswith("--gtest_filter=") for word in command)
            name = os.path.basename(command[0]) if program else each["name"]
            if program:
                command = [command[0], "--gtest_fail_fast", "--gtest_brief=1"]
            paths = [word.split("=")[-1] for word in command]
            targets = [os.path.relpath(path, self.build_folder) for path in paths
                       if path.startswith(f"{self.build_folder}/") and os.path.isfile(path)]
            on_request = self.only_likely or bool(SLOW & set(properties.get("LABELS", [])))
            environment = dict(pair.split("=", 1) for pair in properties.get("ENVIRONMENT", []))
            if name not in tests:
                targets = targets or ["all"]
                tests[name] = Test(name, command, targets, self.inputs(targets), on_request,
                                   environment)
        return tests

    def inputs(self, targets):
        """The sources that targets are made from, without the headers."""
        listed = subprocess.run(["ninja", "-C", str(self.build_folder), "-t", "inputs", *targets],
                                stdout=subprocess.PIPE, check=True).stdout.decode()
        return {os.path.relpath(path, self.source) for path in listed.split() if path.endswith(".cpp")}

    def build(self, targets):
        """Whether it compiles."""
        command = ["cmake", "--build", str(self.build_folder), "-j", str(self.processors), "--target"]
        return self.run(command + targets)

    def passes(self, test, patience):
        """Whether a test passes in time."""
        with tempfile.TemporaryDirectory() as temporary, open(self.folder / "log", "wb") as log:
            os.chmod(temporary, 0o755)  # some tests become another user
            running = subprocess.Popen(
                test.command, stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True,
                cwd=self.build_folder / "tests", env={**os.environ, **test.environment, "TMPDIR": temporary},
                preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_AS, (MEMORY, MEMORY)))
            end = time.monotonic() + patience
            # Without taking its end yet, so that its number stays its own.
            while not os.waitid(os.P_PID, running.pid, os.WEXITED | os.WNOHANG | os.WNOWAIT):
                if time.monotonic() > end:
                    break
                time.sleep(0.01)
            os.killpg(running.pid, signal.SIGKILL)  # also what it has left running
            return running.wait() in (0, 77)  # 77: it cannot be run here


def for_each(workshops, items, work):
    """Does work(workshop, item) for all items, in all workshops at once."""
    waiting, faults = queue.SimpleQueue(), []
    for item in items:
        waiting.put(item)

    def run(workshop):
        try:
            while not faults:
                work(workshop, waiting.get_nowait())
        except queue.Empty:
            pass
        except Exception as fault:  # pylint: disable=broad-except  (the main thread raises it)
            faults.append(fault)

    threads = [threading.Thread(target=run, args=[workshop]) for workshop in workshops]
    for thread in threads:
        thread.start()
    for thread in threads:
        try:
            thread.join()
        except KeyboardInterrupt as stop:  # the faults at work are taken out first
            faults.append(stop)
            thread.join()
    if faults:
        raise faults[0]


def order(mutant, tests):
    """The tests that may notice a fault: the likely ones, what its row asks for, then all quick ones."""
    rest = (name for name, test in tests.items() if not test.on_request)
    names = [*mutant.likely, *mutant.requested, *rest]
    return [tests[name] for name in dict.fromkeys(names)
            if mutant.file.endswith(".h") or mutant.file in tests[name].sources]


def judge(workshop, mutant, tests):
    """What comes of a fault."""
    copy = workshop.source / mutant.file
    sound = copy.read_text()
    copy.write_text(mutant.apply(sound))
    try:
        for name in (test.name for test in order(mutant, tests)):
            test = workshop.known[name]
            if not workshop.build(test.targets):
                return BROKEN
            if not workshop.passes(test, max(LEAST_PATIENCE, 10 * tests[name].seconds)):
                return f"noticed by {name}"
        return SURVIVES
    finally:
        copy.write_text(sound)


def measure(workshops, mutants):
    """The tests with the time that each takes without a fault. All that are needed must pass."""
    for workshop in workshops:
        workshop.known = workshop.tests()
    tests = workshops[0].known
    for mutant in mutants:
        missing = [name for name in mutant.likely + mutant.requested if name not in tests]
        if missing:
            raise mutant.error(f"there is no test {missing[0]}")
    needed = {name: None for mutant in mutants for name in (test.name for test in order(mutant, tests))}

    def run(workshop, name):
        begin = time.monotonic()
        if not workshop.passes(workshop.known[name], 1200):
            raise TableError(f"{name} fails without a fault: see {workshop.folder / 'log'}")
        tests[name].seconds = time.monotonic() - begin

    for_each(workshops, needed, run)
    return dict(sorted(tests.items(), key=lambda each: each[1].seconds))


def main():
    parser = argparse.ArgumentParser(prog="mutants", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--only", metavar="REGEX", default="")
    parser.add_argument("--likely", action="store_true")
    parser.add_argument("--jobs", metavar="N", type=int, default=os.cpu_count())
    parser.add_argument("--list", action="store_true")
    options = parser.parse_args()
    mutants = [mutant for mutant in read_table() if re.search(options.only, str(mutant))]
    if options.list or not mutants:
        print("".join(f"{mutant}\n" for mutant in mutants), f"{len(mutants)} faults", sep="")
        return 0
    jobs = max(1, min(options.jobs, len(mutants)))
    workshops = [Workshop(number, max(1, os.cpu_count() // jobs), options.likely) for number in range(jobs)]
    for workshop in workshops:
        workshop.folder.mkdir(parents=True, exist_ok=True)
    with open(ROOT / "build/mutants/lock", "w", encoding="utf-8") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)  # the folders are of one run at a time
        return try_out(mutants, workshops)


def try_out(mutants, workshops):
    """Tries all of the faults; the exit status."""
    jobs = len(workshops)
    print(f"Building the sources as they are, in {jobs} folders below build/mutants", flush=True)
    for_each(workshops, workshops, lambda _, workshop: workshop.prepare())
    print("Running the tests without a fault", flush=True)
    tests = measure(workshops, mutants)

    outcomes = {}

    def run(workshop, mutant):
        begin = time.monotonic()
        outcomes[mutant.line] = outcome = judge(workshop, mutant, tests)
        seconds = time.monotonic() - begin
        print(f"{len(outcomes)}/{len(mutants)} {outcome}, {seconds:.0f} s: {mutant}", flush=True)

    for_each(workshops, mutants, run)
    return report(mutants, outcomes)


def report(mutants, outcomes):
    """Prints what has come out; the exit status."""
    survivors = [mutant for mutant in mutants if outcomes[mutant.line] == SURVIVES]
    broken = [mutant for mutant in mutants if outcomes[mutant.line] == BROKEN]
    explained = [mutant for mutant in mutants if mutant.survives]
    unexplained = [mutant for mutant in survivors if not mutant.survives]
    print(f"\n{len(mutants)} faults: {len(mutants) - len(survivors) - len(broken)} noticed, "
          f"{len(survivors) - len(unexplained)} survive as explained, {len(unexplained)} unexplained")
    wrong = {"noticed by no test": unexplained,
             "noticed, though it says why not": [mutant for mutant in explained if mutant not in survivors],
             BROKEN: broken}
    for what, rows in wrong.items():
        for mutant in rows:
            print(f"{TABLE.relative_to(ROOT)}:{mutant.line}: {what}: {mutant}")
    return 1 if any(wrong.values()) else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except TableError as fault:
        sys.exit(f"mutants: {fault}")
