"""Whether the tests notice a broken line of the daemon: `scripts/measure mutation` has the options.

The tree is copied, with a switch at each place of src/ (places.py), and built once. A first run of each test writes down which
places it comes to. Then each place is broken, one at a time, and the tests that come to it run, until one fails.
"""

import argparse
import concurrent.futures
import dataclasses
import hashlib
import json
import os
import random
import re
import resource
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

import places as finding

HEADER = """// Which place is broken, and, on request, which ones a process has come to.
#ifndef MUTANT_H
#define MUTANT_H
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace mutation
{

inline void noteReached(const char* path, int number)
{
    static std::atomic<bool> known[%d];
    if (known[number].exchange(true)) {
        return;
    }
    const int file = ::open(path, O_WRONLY | O_APPEND | O_CLOEXEC); // and closed: a test may count what is open
    static_cast<void>(!::write(file, &number, sizeof number));
    ::close(file);
}

inline int chosen()
{
    const char* const text = std::getenv("TARNWICK_MUTANT");
    return text != nullptr ? std::atoi(text) : 0;
}

} // namespace mutation

inline bool mutant(int number)
{
    static const int chosen = mutation::chosen();
    static const char* const reached = std::getenv("TARNWICK_REACHED");
    if (reached != nullptr) {
        const int before = errno;
        mutation::noteReached(reached, number);
        errno = before;
    }
    return number == chosen;
}

#endif
"""


class Failure(Exception):
    """Told to the user as it is."""


def write_if_new(path, text, encoding="latin-1"):
    content = text if isinstance(text, bytes) else text.encode(encoding)
    if os.path.exists(path):
        with open(path, "rb") as file:
            if file.read() == content:
                return
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as file:
        file.write(content)


def run_or_fail(command, what, log, **more):
    with open(log, "ab") as file:
        if subprocess.run(command, stdout=file, stderr=file, check=False, **more).returncode != 0:
            with open(log, "rb") as written:
                sys.stderr.buffer.write(b"\n".join(written.read().splitlines()[-30:]) + b"\n")
            raise Failure(f"{what} failed; its last lines are above, all of it is in {log}")


def in_parallel(jobs, calls):
    """Makes the calls, so many at a time; after one that fails, no more are begun."""
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        try:
            for done in [pool.submit(*call) for call in calls]:
                done.result()
        except BaseException:
            pool.shutdown(cancel_futures=True)
            raise


# ---- The copy of the tree ----

class Tree:
    """A copy of the tree with switches in src/, and its build."""

    def __init__(self, root, directory):
        self.root = root
        self.copy = os.path.join(directory, "tree")
        self.build = os.path.join(self.copy, "build", "dev")
        self.log = os.path.join(directory, "build.log")
        self.alone = []  # places that cannot have a switch
        self.left_out = []  # and those of headers among them, which everything is built from
        os.makedirs(directory, exist_ok=True)
        open(self.log, "wb").close()

    # The rest is built as it always is, so that a compiler's cache may have it already. The library is a shared one, so that a
    # place that is built by itself is linked once, not into each test.
    CHANGES = {
        "src/CMakeLists.txt": [(b"add_library(tarnwick-core STATIC)", b"add_library(tarnwick-core SHARED)"),
                               (b"-ffunction-sections", b"-w -g0 -ffunction-sections"),
                               (b"add_executable(tarnwick tarnwick.cpp)",
                                b"add_executable(tarnwick tarnwick.cpp)\ntarget_compile_options(tarnwick PRIVATE -w -g0)")],
        "tests/unit/CMakeLists.txt": [(b"SKIP_PRECOMPILE_HEADERS ON)", b"SKIP_PRECOMPILE_HEADERS ON COMPILE_OPTIONS -w)")],
    }

    def copy_others(self):
        listed = subprocess.run(["git", "-C", self.root, "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                                check=True, capture_output=True).stdout.decode().split("\0")
        for name in filter(None, listed):
            source, target = os.path.join(self.root, name), os.path.join(self.copy, name)
            if name.startswith("src/") and name.endswith((".cpp", ".h")) or not os.path.isfile(source):
                continue
            with open(source, "rb") as file:
                content = file.read()
            for before, after in self.CHANGES.get(name, ()):
                if before not in content:
                    raise Failure(f"{name} has no {before.decode()!r} any more")
                content = content.replace(before, after)
            write_if_new(target, content)
            shutil.copymode(source, target)

    def configure(self):
        run_or_fail(["cmake", "--preset", "dev"], "cmake", self.log, cwd=self.copy)

    def headers_of_others(self):
        """Headers of src/ that others than src/ are compiled with: a place in them would be broken here and whole there."""
        found = set()
        for directory, names, files in os.walk(self.copy):
            names[:] = [name for name in names if os.path.join(directory, name) not in (
                os.path.join(self.copy, "build"), os.path.join(self.copy, "src"))]
            for name in files:
                if name.endswith((".cpp", ".h")):
                    with open(os.path.join(directory, name), encoding="latin-1") as file:
                        found |= set(re.findall(r'^#include "(?:[^"]*/)?([^"/]+[.]h)"', file.read(), re.MULTILINE))
        return found

    def commands(self):
        """What compiles each source of src/, by its path from the root; of main, that of the daemon."""
        with open(os.path.join(self.build, "compile_commands.json"), encoding="utf-8") as file:
            entries = json.load(file)
        found = {}
        for entry in entries:
            path = os.path.relpath(entry["file"], self.copy)
            if path.startswith("src/") and "main=" not in entry["command"]:
                found[path] = shlex.split(entry["command"])
        return found

    def arguments(self, command):
        """The same without compiler, source and object, for the original tree."""
        kept = []
        for word, after in zip(command[1:], command[2:] + [""]):
            if word == "-isystem":
                kept += [word, after]
            elif word.startswith(("-I", "-D", "-std")):
                kept.append(word)
        return ["-xc++"] + [word.replace(self.copy, self.root) for word in kept]

    def write_sources(self, sources, places):
        write_if_new(os.path.join(self.copy, "src", "mutant.h"), HEADER % (len(places) + 1))
        for path, source in sources.items():
            here = [place for place in places if place.file == path and not place.alone]
            text = finding.with_switches(source, here)
            back = os.path.relpath(os.path.join(self.copy, "src", "mutant.h"), os.path.dirname(os.path.join(self.copy, path)))
            write_if_new(os.path.join(self.copy, path), f'#include "{back}"\n#line 1\n{text}')

    def put_switches(self, sources, places):
        """Where the compiler takes no switch, the place is one to be built alone."""
        commands = self.commands()
        pending = set(commands)
        while pending:
            self.write_sources(sources, places)
            wrong = set()
            for path in sorted(pending):
                done = subprocess.run([*commands[path], "-fsyntax-only"], cwd=self.build, capture_output=True, text=True,
                                      errors="replace", check=False)
                if done.returncode == 0:
                    continue
                wrong.add(path)
                if not self.take_back(done.stderr, places):
                    sys.stderr.write(done.stderr[:4000])
                    raise Failure(f"{path} with its switches does not compile, and no place of it is to blame")
            pending = set(commands) if any(path.endswith(".h") for path in self.taken_back) else wrong
            self.taken_back = set()
        self.alone = [place for place in places if place.alone and place.file.endswith(".cpp")]
        self.left_out = [place for place in places if place.alone and not place.file.endswith(".cpp")]

    taken_back = set()

    def take_back(self, errors, places):
        lines = set()
        for match in re.finditer(r"^(\S+?):(\d+):\d+: (?:error|note|fatal)", errors, re.MULTILINE):
            file = os.path.normpath(os.path.join(self.build, match.group(1)))
            lines.add((os.path.relpath(file, self.copy), int(match.group(2))))
        blamed = [place for place in places if not place.alone and any(
            place.file == file and place.line <= line <= place.line + place.original.count("\n") for file, line in lines)]
        for place in blamed:
            place.alone = True
            self.taken_back = self.taken_back | {place.file}
        return bool(blamed)

    def make(self, targets):
        for target in targets:
            print(f"Build {target}", file=sys.stderr)
            with open(self.log, "ab") as log:
                status = subprocess.run(["scripts/build-shown", self.build, target], cwd=self.copy, stdout=sys.stderr,
                                        stderr=log, check=False).returncode
            if status != 0:
                raise Failure(f"the copy of the tree could not be built; why is in {self.log}")

    def digest(self):
        """Of all that the tests and what they come to depend on."""
        total = hashlib.sha256()
        for room in ("src", "tests/unit", "tests/service", "tests/support", "platform", "vset", "common"):
            for directory, _, names in sorted(os.walk(os.path.join(self.copy, room))):
                for name in sorted(names):
                    with open(os.path.join(directory, name), "rb") as file:
                        total.update(name.encode() + file.read())
        return total.hexdigest()


# ---- Tests ----

@dataclasses.dataclass
class Test:
    name: str
    label: str
    command: list  # without the filter
    filter: str
    environment: dict
    limit: float
    duration: float = 1.0
    reached: frozenset = frozenset()

    @property
    def program(self):
        return tuple(self.command)


@dataclasses.dataclass
class Outcome:
    failed: bool
    hung: bool
    output: str
    seconds: float


class Tests:
    def __init__(self, tree, work, jobs):
        self.tree, self.work, self.jobs = tree, work, jobs
        self.all = []

    def find(self, labels):
        listed = subprocess.run(["ctest", "--show-only=json-v1"], cwd=self.tree.build, check=True, capture_output=True).stdout
        for test in json.loads(listed)["tests"]:
            properties = {entry["name"]: entry["value"] for entry in test.get("properties", [])}
            label = next((label for label in properties.get("LABELS", []) if label in labels), None)
            command = test.get("command", [])
            chosen = next((word for word in command if word.startswith("--gtest_filter=")), None)
            if label is None or chosen is None:
                continue
            environment = dict(entry.split("=", 1) for entry in properties.get("ENVIRONMENT", []))
            self.all.append(Test(test["name"], label, [word for word in command if not word.startswith("--gtest_")],
                                 chosen.split("=", 1)[1], environment, properties.get("TIMEOUT", 120)))
        if not self.all:
            raise Failure("the copy of the tree has no tests")

    def run(self, command, environment, limit):
        """The status of a program in a group of its own, which is ended as a whole when its time is over."""
        begin = time.monotonic()
        with tempfile.TemporaryFile(dir=self.work) as output:
            process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=output, start_new_session=True,
                                       env={**os.environ, "TMPDIR": self.work, **environment}, cwd=self.tree.build)
            hung = False
            try:
                process.wait(limit)
            except subprocess.TimeoutExpired:
                hung = True
                self.end(process)
            output.seek(0)
            text = output.read().decode(errors="replace")
        return Outcome(process.returncode != 0 or hung, hung, text, time.monotonic() - begin)

    @staticmethod
    def end(process):
        for sign, patience in ((signal.SIGTERM, 8), (signal.SIGKILL, 8)):
            try:
                os.killpg(process.pid, sign)
                process.wait(patience)
                return
            except subprocess.TimeoutExpired:
                continue
            except ProcessLookupError:
                process.wait()
                return

    def run_tests(self, tests, environment, limit):
        """Tests of one program, up to the first that fails."""
        chosen = ":".join(test.filter for test in tests)
        return self.run([*tests[0].command, f"--gtest_filter={chosen}", "--gtest_fail_fast", "--gtest_brief=0"],
                        {**tests[0].environment, **environment}, limit)

    def record(self, cache, tell):
        """Runs each test alone and whole, and keeps which places it comes to."""
        digest = self.tree.digest()
        known = {}
        if os.path.exists(cache):
            with open(cache, encoding="utf-8") as file:
                stored = json.load(file)
            if stored["digest"] == digest:
                known = stored["tests"]
        missing = [test for test in self.all if test.name not in known]
        reports = os.path.join(self.tree.build, "reached")
        shutil.rmtree(reports, ignore_errors=True)
        os.makedirs(reports)
        os.chmod(reports, 0o777)

        def one(index, test):
            report = os.path.join(reports, str(index))
            open(report, "wb").close()
            os.chmod(report, 0o666)
            outcome = self.run_tests([test], {"TARNWICK_REACHED": report}, test.limit)
            if outcome.failed:  # once more: the machine may have been busy
                outcome = self.run_tests([test], {"TARNWICK_REACHED": report}, test.limit)
            if outcome.failed:
                sys.stderr.write(outcome.output[-3000:])
                raise Failure(f"{test.name} fails with nothing broken")
            with open(report, "rb") as file:
                content = file.read()
            reached = sorted({int.from_bytes(content[at:at + 4], sys.byteorder) for at in range(0, len(content) - 3, 4)})
            known[test.name] = {"reached": reached, "seconds": outcome.seconds}
            tell(f"{len(known)} of {len(self.all)} tests have told what they come to")

        try:
            in_parallel(self.jobs, [(one, index, test) for index, test in enumerate(missing)])
        finally:
            shutil.rmtree(reports, ignore_errors=True)
            write_if_new(cache, json.dumps({"digest": digest, "tests": known}))
        for test in self.all:
            test.reached = frozenset(known[test.name]["reached"])
            test.duration = known[test.name]["seconds"]


# ---- Breaking ----

@dataclasses.dataclass
class Verdict:
    place: finding.Place
    how: str  # noticed, hung, unnoticed, does not compile
    by: str = ""  # the test


LIBRARY = "src/libtarnwick-core.so"
MAIN_TEST = "tests/unit/tarnwick-test"  # has the daemon's main in it
DAEMON = "src/tarnwick"


def width(test):
    """Of how much else it is about."""
    return len(test.reached) * (1 + test.duration)


def in_pieces(tests):
    """Most places are noticed by the first few: those by themselves, and ever more after them. In a piece they stand in
    the order in which their program runs them."""
    pieces, seconds, limit = [[]], 0, 1
    for at, test in sorted(enumerate(tests), key=lambda pair: width(pair[1])):
        if seconds >= limit:
            pieces.append([])
            seconds, limit = 0, 4 * limit
        pieces[-1].append((at, test))
        seconds += test.duration
    return [[test for _, test in sorted(piece, key=lambda pair: pair[0])] for piece in pieces]


class Breaker:
    def __init__(self, tree, sources, places, tests):
        self.tree, self.sources, self.tests = tree, sources, tests
        self.commands = tree.commands()
        self.by_function = {}
        for place in places:
            self.by_function.setdefault((place.file, place.function), set()).add(place.number)
        self.by_file = {}
        for place in places:
            self.by_file.setdefault(place.file, set()).add(place.number)
        self.lock = threading.Lock()

    def numbers_near(self, place):
        """Places that a test comes to that is about this one: itself, or those of the functions that it concerns."""
        if not place.alone:
            return {place.number}
        near = set(self.by_function.get((place.file, place.function), ()))
        for user in place.users:
            near |= self.by_function.get((place.file, user), set())
        return near

    def groups(self, place, label):
        """Tests that come to the place, of one program each, those first that are about little else."""
        near = self.numbers_near(place)
        chosen = [test for test in self.tests.all if test.label == label and not near.isdisjoint(test.reached)]
        if not chosen and place.alone:
            here = self.by_file[place.file]
            chosen = [test for test in self.tests.all if test.label == label and not here.isdisjoint(test.reached)]
        groups = {}
        for test in chosen:
            groups.setdefault(test.program, []).append(test)
        pieces = [piece for group in groups.values() for piece in in_pieces(group)]
        return sorted(pieces, key=lambda piece: min(map(width, piece)))

    def try_place(self, place, label):
        """Runs the tests of that label that come to the place, broken, until one fails."""
        if not place.alone:
            return self.try_groups(place, label, {"TARNWICK_MUTANT": str(place.number)}, {})
        with tempfile.TemporaryDirectory(dir=self.tree.build, prefix="alone-") as directory:
            os.chmod(directory, 0o755)
            objects = self.build_alone(place, directory)
            if objects is None:
                return Verdict(place, "does not compile")
            if label == "service":
                return self.try_with_daemon(place, directory, objects)
            linked = {target: self.link(target, objects, directory) for target in (LIBRARY, MAIN_TEST)}
            test = os.path.join(self.tree.build, MAIN_TEST)
            replaced = {test: linked[MAIN_TEST]} if linked[MAIN_TEST] else {}
            return self.try_groups(place, label, {"LD_LIBRARY_PATH": directory}, replaced)

    def try_with_daemon(self, place, directory, objects):
        """A set takes the daemon from the build, so the broken one lies there meanwhile: for one place at a time."""
        daemon = os.path.join(self.tree.build, DAEMON)
        whole = os.path.join(directory, "whole")
        broken = self.link(DAEMON, objects, directory)
        shutil.copy2(daemon, whole)
        try:
            os.replace(broken, daemon)
            return self.try_groups(place, "service", {}, {})
        finally:
            os.replace(whole, daemon)

    def try_groups(self, place, label, environment, replaced):
        for group in self.groups(place, label):
            verdict = self.try_group(place, group, environment, replaced)
            if verdict is not None:
                return verdict
        return Verdict(place, "unnoticed")

    def try_group(self, place, group, environment, replaced):
        group = [dataclasses.replace(test, command=[replaced.get(word, word) for word in test.command]) for test in group]
        while group:
            limit = 40 + 5 * sum(test.duration for test in group)
            outcome = self.tests.run_tests(group, environment, limit)
            if not outcome.failed:
                return None
            # The first that has failed, or that was running when the program ended; those behind a failure are begun and skipped.
            failed = re.findall(r"^\[  FAILED  \] (\S+?),? ", outcome.output, re.MULTILINE)
            suspects = failed[:1] or re.findall(r"^\[ RUN      \] (\S+)", outcome.output, re.MULTILINE)[-1:]
            at = next((index for index, test in enumerate(group) if test.filter in suspects), 0)
            suspect = group[at]
            # What counts is the test by itself, as it is always run; one that was in a bad company goes on.
            alone = self.tests.run_tests([suspect], environment, 40 + 5 * suspect.duration)
            if alone.failed:
                return Verdict(place, "hung" if alone.hung else "noticed", suspect.name)
            group = group[at + 1:]
        return None

    # ---- Places without a switch ----

    def build_alone(self, place, directory):
        """Compiles the one source, as often as the build does. The objects by those that they replace; none: it cannot be."""
        source = os.path.join(directory, os.path.basename(place.file))
        original = os.path.join(self.tree.copy, place.file)
        text = finding.broken_alone(self.sources[place.file], place)
        write_if_new(source, f'#include "{self.tree.copy}/src/mutant.h"\n#line 1\n{text}')
        objects = {}
        for entry, output in self.compilations(place.file):
            mine = os.path.join(directory, output.replace("/", "_"))
            command = [mine if word == output else source if word == original else word for word in entry]
            command += ["-I", os.path.dirname(original)]
            if subprocess.run(command, cwd=self.tree.build, capture_output=True, check=False).returncode != 0:
                return None
            objects[output] = mine
        return objects

    def compilations(self, path):
        with open(os.path.join(self.tree.build, "compile_commands.json"), encoding="utf-8") as file:
            for entry in json.load(file):
                if os.path.relpath(entry["file"], self.tree.copy) == path and "tests/proof" not in entry.get("output", ""):
                    words = shlex.split(entry["command"])
                    yield words, words[words.index("-o") + 1]

    def link(self, target, objects, directory):
        """Links a program or library of the build with these objects; none when it has none of them."""
        listed = subprocess.run(["ninja", "-t", "commands", target], cwd=self.tree.build, check=True, capture_output=True,
                                text=True).stdout.splitlines()
        words = shlex.split(listed[-1])
        if not any(word in objects for word in words):
            return None
        linked = os.path.join(directory, os.path.basename(target))
        words = [linked if word == target else objects.get(word, word) for word in words if word not in (":", "&&")]
        done = subprocess.run(words, cwd=self.tree.build, capture_output=True, text=True, check=False)
        if done.returncode != 0:
            raise Failure(f"{target} could not be linked: {done.stderr[-500:]}")
        return linked


# ---- What is known to be beyond notice ----

def read_list(path, places):
    """The places that nothing can notice, with the reason of each. Every one has to be a place still."""
    known = {place.key for place in places}
    reasons, key = {}, None
    with open(path, encoding="utf-8") as file:
        for number, line in enumerate(file, 1):
            text = line.rstrip()
            if not text or text.startswith("#"):
                continue
            if text.startswith(" "):
                if key is None:
                    raise Failure(f"{path}:{number}: a reason of nothing")
                reasons[key] += text.strip() + " "
                continue
            key = text
            if key in reasons:
                raise Failure(f"{path}:{number}: it is listed twice")
            if key not in known:
                raise Failure(f"{path}:{number}: there is no such place any more; scripts/measure mutation --list has all")
            reasons[key] = ""
    bare = [key for key, reason in reasons.items() if not reason]
    if bare:
        raise Failure(f"{path}: no reason is given for: {bare[0]}")
    return reasons


# ---- What is told ----

class Progress:
    """One line, in place on a terminal, and now and then elsewhere."""

    def __init__(self):
        self.last = 0.0
        self.lock = threading.Lock()

    def __call__(self, text):
        with self.lock:
            is_shown = sys.stderr.isatty()
            if time.monotonic() - self.last < (0.2 if is_shown else 20):
                return
            self.last = time.monotonic()
            print(f"\r\033[K  {text}" if is_shown else f"  {text}", end="" if is_shown else "\n", file=sys.stderr, flush=True)

    @staticmethod
    def end():
        if sys.stderr.isatty():
            print("\r\033[K", end="", file=sys.stderr)


def percent(part, whole):
    return f"{100 * part / whole:.1f} %" if whole else "-"


def table(verdicts, listed):
    print(f"{'kind':<12}{'tried':>8}{'noticed':>10}{'not noticed':>14}{'in the list':>14}{'does not compile':>19}")
    for kind in (*finding.KINDS, "all"):
        mine = [verdict for verdict in verdicts if kind in (verdict.place.kind, "all")]
        built = [verdict for verdict in mine if verdict.how != "does not compile"]
        missed = [verdict for verdict in built if verdict.how == "unnoticed"]
        known = sum(verdict.place.key in listed for verdict in missed)
        if mine:
            print(f"{kind:<12}{len(built):>8}{len(built) - len(missed):>10}{len(missed) - known:>14}{known:>14}"
                  f"{len(mine) - len(built):>19}")


def report(verdicts, listed, tree, seconds):
    """The table and what was not noticed. True: nearly all of it was."""
    built = [verdict for verdict in verdicts if verdict.how != "does not compile"]
    missed = [verdict for verdict in built if verdict.how == "unnoticed"]
    unknown = [verdict for verdict in missed if verdict.place.key not in listed]
    wrong = [verdict for verdict in built if verdict.how != "unnoticed" and verdict.place.key in listed]
    table(verdicts, listed)
    noticed = len(built) - len(missed)
    hung = sum(verdict.how == "hung" for verdict in built)
    print(f"\nnoticed: {noticed} of {len(built)}, {percent(noticed, len(built))} ({hung} of them by a test that hung); without those "
          f"in the list: {noticed} of {noticed + len(unknown)}, {percent(noticed, noticed + len(unknown))}")
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    print(f"{seconds / 60:.1f} minutes, {(usage.ru_utime + usage.ru_stime) / 60:.1f} of a core")
    if tree.left_out:
        print(f"not tried, as everything is built from them: {len(tree.left_out)} places of headers that can have no switch")
    if unknown:
        print("\nnot noticed:")
        for verdict in sorted(unknown, key=lambda verdict: verdict.place.number):
            print(f"  {verdict.place}\n      scripts/measure mutation --only {verdict.place.where}")
    for verdict in wrong:
        print(f"\nin the list, and noticed all the same by {verdict.by}: take it out\n  {verdict.place.key}")
    return not wrong and (not built or noticed >= 0.98 * (noticed + len(unknown)))


def choose(places, options):
    if options.only:
        chosen = [place for place in places if place.where == options.only or place.where.startswith(options.only + ":") or
                  place.where.startswith(f"{options.only}:") or str(place.number) == options.only]
        if not chosen:
            raise Failure(f"{options.only!r} is no place: scripts/measure mutation --list has all of them")
        return chosen
    if options.all or options.list or options.places >= len(places):
        return places
    return sorted(random.Random(options.seed).sample(places, options.places), key=lambda place: place.number)


def try_all(breaker, chosen, label, jobs, progress, verdicts):
    """Tries each place with the tests of one kind, those that have no verdict yet or none that holds."""
    def one(place):
        verdict = breaker.try_place(place, label)
        with breaker.lock:
            verdicts[place.number] = verdict
            done = [verdict for verdict in verdicts.values() if verdict.how != "does not compile"]
            missed = sum(verdict.how == "unnoticed" for verdict in done)
            progress(f"{label} tests: {len(verdicts)} of {len(chosen)} tried, {missed} not noticed")

    shared = [place for place in chosen if label == "unit" or not place.alone]
    in_parallel(jobs, [(one, place) for place in shared])
    for place in chosen:
        if place not in shared:
            one(place)


def prepare(options, root, progress):
    tree = Tree(root, options.directory)
    tree.copy_others()
    for directory, _, names in os.walk(os.path.join(root, "src")):  # CMake wants to see them
        for name in names:
            target = os.path.join(tree.copy, os.path.relpath(os.path.join(directory, name), root))
            if name.endswith((".cpp", ".h")) and not os.path.exists(target):
                os.makedirs(os.path.dirname(target), exist_ok=True)
                shutil.copyfile(os.path.join(directory, name), target)
    tree.configure()
    commands = {path: tree.arguments(command) for path, command in tree.commands().items()}
    sources, places = finding.find_places(root, commands, tree.headers_of_others())
    progress(f"{len(places)} places")
    return tree, sources, places


def main():
    options = parse()
    root = os.path.realpath(os.path.join(os.path.dirname(__file__), "..", "..", ".."))
    progress = Progress()
    tree, sources, places = prepare(options, root, progress)
    listed = read_list(os.path.join(root, "tests/proof/mutation/unnoticed.txt"), places)
    if options.list:
        for place in places:
            print(f"{place.where}  {place.kind:<10}  {place.key}")
        return 0
    tree.put_switches(sources, places)
    places = [place for place in places if place not in tree.left_out]
    chosen = choose(places, options)
    labels = {"unit": ["unit"], "service": ["service"]}.get(options.tests, ["unit", "service"])
    tree.make([target for label in labels for target in
               {"unit": ["tests/unit/all"], "service": ["tests/service/all", "tarnwick"]}[label]])
    work = tempfile.mkdtemp(prefix="mutation-")
    begin = time.monotonic()
    try:
        verdicts = {}
        for label in labels:
            tests = Tests(tree, work, options.jobs)
            tests.find([label])
            tests.record(os.path.join(options.directory, f"reached-{label}.json"), progress)
            breaker = Breaker(tree, sources, places, tests)
            left = [place for place in chosen if place.number not in verdicts or
                    verdicts[place.number].how == "unnoticed" and place.key not in listed]
            for place in left:
                verdicts.pop(place.number, None)
            try_all(breaker, left, label, options.jobs, progress, verdicts)
    finally:
        progress.end()
        shutil.rmtree(work, ignore_errors=True)
    return 0 if report([verdicts[number] for number in sorted(verdicts)], listed, tree, time.monotonic() - begin) else 1


def parse():
    parser = argparse.ArgumentParser(prog="measure-mutation")
    parser.add_argument("--places", type=int, default=300)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--all", action="store_true")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--only", default="")
    parser.add_argument("--tests", default="")
    parser.add_argument("--jobs", type=int, default=2 * len(os.sched_getaffinity(0)))
    parser.add_argument("--directory", required=True)
    return parser.parse_args()


if __name__ == "__main__":
    try:
        sys.exit(main())
    except Failure as failure:
        print(f"measure-mutation: {failure}", file=sys.stderr)
        sys.exit(1)
