"""The list: which cases there are in a tree, in an order that depends on the tree alone."""

import dataclasses
import re
import subprocess
from collections.abc import Callable, Iterable, Iterator
from pathlib import Path

MINUTE = 60
HOUR = 60 * MINUTE

MODEL_SEEDS = 8
MODEL_EVENTS = 1_000_000
MODEL_PIECES = 16  # of every sequence of up to 6 events
FAILURE_PIECES = 10
FAILURE_PAIRS = 200_000  # of all pieces together
CRASH_PIECES = 60
SOAK_PIECES = 4
SOAK_CYCLES = 2500  # memory is judged by a line, for which one run has to be long
SOAK_SECONDS = 20 * MINUTE
FUZZ_PIECES = 4
FUZZ_SECONDS = 300
KIT_PIECES = ("A-Za-c", "d-k", "l-r", "s-z")  # of the corpus, by the first letter of a library

# What the build compiles none of: these are built by their tests, or are templates.
NOT_COMPILED = re.compile(r"^(sdk|platform/check)/corpus/|^sdk/template/|^tests/porting/")


@dataclasses.dataclass(frozen=True)
class Kind:
    """A sort of cases. What a case has said is searched for its figures, which are summed over the kind."""

    name: str
    summary: str
    make: Callable[[Path, int], Iterator["Draft"]]
    figures: dict[str, str] = dataclasses.field(default_factory=dict)


@dataclasses.dataclass(frozen=True)
class Draft:
    """A case without its number. `seconds` is what it took on a PC with two cores, for the time that is left."""

    name: str
    command: tuple[str, ...]
    seconds: int
    needs: tuple[str, ...] = ()  # what is built first: names of PREPARATIONS, or TARGET of the development build
    alone: str = ""  # cases of the same word do not run at once on one machine


@dataclasses.dataclass(frozen=True)
class Case:
    """One command, which passes when its exit status is 0, and counts as skipped when it is 77."""

    number: int
    kind: str
    draft: Draft

    @property
    def title(self) -> str:
        return f"{self.kind} {self.draft.name}"

    @property
    def limit(self) -> int:
        """Seconds after which it is ended, and has failed: machines are slower, and busy."""
        return max(20 * MINUTE, 10 * self.draft.seconds)


# ---- What is built first ----

# Of their own: build/asan and build/tsan may be anybody's, with another compiler.
SANITIZERS = {"asan": "build/campaign-asan", "tsan": "build/campaign-tsan"}


def preparations(needs: Iterable[str]) -> dict[str, list[tuple[str, ...]]]:
    """The commands that make these, by name: the targets of the development build together."""
    wanted = set(needs)
    commands: dict[str, list[tuple[str, ...]]] = {}
    targets = sorted(wanted - {"packages", *SANITIZERS})
    if targets:
        commands["dev"] = [
            ("cmake", "--preset", "dev"),
            ("cmake", "--build", "--preset", "dev", "--target", *targets),
        ]
    if "packages" in wanted:
        commands["packages"] = [("scripts/build-packages",)]
    for name, place in SANITIZERS.items():
        if name in wanted:
            commands[name] = [("cmake", "--preset", name, "-B", place), ("cmake", "--build", place)]
    return commands


def preparation_of(need: str) -> str:
    """Under which name preparations() has it."""
    return need if need in ("packages", *SANITIZERS) else "dev"


# ---- The kinds ----


def model(_tree: Path, seed: int) -> Iterator[Draft]:
    program, needs = "build/dev/tests/proof/model/model-proof", ("model-proof",)
    for each in range(seed, seed + MODEL_SEEDS):
        yield Draft(f"seed {each}", (program, "--events", str(MODEL_EVENTS), "--seed", str(each)), 150, needs)
    for piece in range(1, MODEL_PIECES + 1):
        shard = f"{piece}/{MODEL_PIECES}"
        yield Draft(f"every 6, {shard}", (program, "--every", "6", "--shard", shard), 60, needs)


def failure(_tree: Path, seed: int) -> Iterator[Draft]:
    program, needs = "build/dev/tests/proof/failures/failure-proof", ("failure-proof",)
    yield Draft("singles", (program, "--processes", "1"), 60, needs)
    for piece in range(1, FAILURE_PIECES + 1):
        shard = f"{piece}/{FAILURE_PIECES}"
        words = ("--pairs", str(FAILURE_PAIRS), "--seed", str(seed), "--shard", shard, "--processes", "1")
        yield Draft(f"pairs {shard}", (program, *words), 100, needs)


def crash(_tree: Path, _seed: int) -> Iterator[Draft]:
    program = "build/dev/tests/proof/crashes/crash-proof"
    for piece in range(1, CRASH_PIECES + 1):
        shard = f"{piece}/{CRASH_PIECES}"
        yield Draft(shard, (program, "--shard", shard), 90, ("crash-proof",))


def soak(tree: Path, seed: int) -> Iterator[Draft]:
    if (tree / "tests/proof/soak/CMakeLists.txt").exists():
        program = "build/dev/tests/proof/soak/soak-proof"
        for each in range(seed, seed + SOAK_PIECES):
            words = ("--cycles", str(SOAK_CYCLES), "--seed", str(each))
            yield Draft(f"seed {each}", (program, *words), SOAK_SECONDS, ("soak-proof",))


def fuzz(tree: Path, _seed: int) -> Iterator[Draft]:
    targets = sorted(file.stem for file in (tree / "tests/proof/fuzz/targets").glob("*.cpp"))
    for piece in range(1, FUZZ_PIECES + 1):
        for target in targets:
            words = ("scripts/fuzz", "run", target, "--seconds", str(FUZZ_SECONDS))
            yield Draft(f"{target} {piece}/{FUZZ_PIECES}", words, FUZZ_SECONDS, alone=f"fuzz-{target}")


def kit(_tree: Path, _seed: int) -> Iterator[Draft]:
    chosen = {f"corpus, {letters}": rf"^sdk\.corpus\.[{letters}]" for letters in KIT_PIECES}
    others = {"templates": r"^sdk\.template\.", "platforms": r"^platform\."}
    for name, tests in {**chosen, **others}.items():
        command = ("ctest", "--preset", "dev", "-C", "whole", "-R", tests, "-j6", "--output-on-failure")
        yield Draft(name, command, 3 * MINUTE, ("all", "corpus-whole"))


def sanitizers(_tree: Path, _seed: int) -> Iterator[Draft]:
    named = ("unit", "service", "vset", "console")
    chosen = {label: ("-L", f"^{label}$") for label in named}
    chosen["others"] = ("-LE", f"^({'|'.join(named)}|proof|bench|install)$")
    for sanitizer, labels in (("asan", chosen), ("tsan", ("unit", "service"))):
        for label in labels:
            command = ("ctest", "--test-dir", SANITIZERS[sanitizer], *chosen[label], "-j4", "--output-on-failure")
            yield Draft(f"{sanitizer} {label}", command, 5 * MINUTE, (sanitizer,), alone=sanitizer)


def rooms(tree: Path, *places: str) -> dict[str, list[str]]:
    """The directories, of one or two names, that have sources which the build compiles, and how to name each alone."""
    found = subprocess.run(
        ("git", "ls-files", "--", *places), cwd=tree, capture_output=True, text=True, check=True
    ).stdout.splitlines()
    sources: dict[str, list[str]] = {}
    for name in found:
        if name.endswith(".cpp") and not NOT_COMPILED.search(name):
            sources.setdefault("/".join(name.split("/")[:-1][:2]), []).append(name)
    has_rooms_below = {room.split("/")[0] for room in sources if "/" in room}
    return {room: names if room in has_rooms_below else [room] for room, names in sorted(sources.items())}


def lint(tree: Path, _seed: int) -> Iterator[Draft]:
    for room, names in rooms(tree).items():
        yield Draft(room, ("scripts/lint", *names), 2 * MINUTE, alone="lint")


def analyser(tree: Path, _seed: int) -> Iterator[Draft]:
    if (tree / "scripts/analyse").exists():
        for room, names in rooms(tree, "src", "vset").items():
            yield Draft(room, ("scripts/analyse", *names), 2 * MINUTE, alone="analyser")


def scripted(*rows: tuple[str, str, int, str]) -> Callable[[Path, int], Iterator[Draft]]:
    """Commands that take a while, where the tree has their scripts: name, command, seconds, what it needs."""

    def make(tree: Path, _seed: int) -> Iterator[Draft]:
        for name, command, seconds, needs in rows:
            words = tuple(command.split())
            if "/" not in words[0] or (tree / words[0]).exists():
                yield Draft(name, words, seconds, tuple(needs.split()), alone=words[0])

    return make


def measure(tree: Path, _seed: int) -> Iterator[Draft]:
    for what in ("coverage", "mutation"):
        if (tree / f"scripts/measure-{what}").exists():
            yield Draft(what, ("scripts/measure", what), HOUR, alone="measure")


on_a_set = scripted(
    ("optimised", "cmake --workflow --preset release", 30 * MINUTE, ""),
    ("unit, what bites", "scripts/test-unit --bites", 10 * MINUTE, "all"),
    *(
        (f"packages, {step}", f"scripts/test-packages --only {step}", 3 * MINUTE, "all packages")
        for step in ("lint", "contents", "hardening", "sbom", "update", "purge", "tests")
    ),
    ("fresh, packages", "scripts/try-fresh packages", 15 * MINUTE, ""),
    ("fresh, daemon", "scripts/try-fresh daemon", 5 * MINUTE, ""),
    ("packages, twice", "scripts/test-packages --twice", 15 * MINUTE, "packages"),
    ("armhf", "scripts/cross armhf --test --story", 20 * MINUTE, ""),
    ("arm64", "scripts/cross arm64 --test --story", 20 * MINUTE, ""),
    ("Debian 13", "scripts/try-debian13", 40 * MINUTE, ""),
)

TESTS = {"tests": r"tests passed, \d+ tests failed out of (\d+)"}
SOURCES = {"sources": r"(\d+) sources, nothing found"}

KINDS = (
    Kind(
        "model",
        "the daemon beside a model of it",
        model,
        {"events": r"(\d+) events in", "sequences": r" in (\d+) sequences"},
    ),
    Kind(
        "failure",
        "each call of the daemon failing, alone and in pairs",
        failure,
        {"runs": r"came to pass in (\d+) runs"},
    ),
    Kind("crash", "the daemon hit at each of its system calls", crash, {"points": r"of which (\d+) were tried"}),
    Kind("soak", "boot, standby, update, reboot, again and again", soak, {"cycles": r"(\d+) cycles \(seed"}),
    Kind("fuzz", "inputs that libFuzzer makes up", fuzz, {"inputs": r"(\d+) inputs tried"}),
    Kind("kit", "every library and platform of the corpora, every template", kit, TESTS),
    Kind("sanitizer", "the tests with sanitizers", sanitizers, TESTS),
    Kind("lint", "clang-tidy over every source", lint, SOURCES),
    Kind("analyser", "GCC's analyser over the daemon and the virtual set", analyser, SOURCES),
    Kind("measure", "coverage, and whether the tests notice a broken line", measure),
    Kind("set", "unit, packages, other machines and systems", on_a_set, TESTS),
)


def cases_of(tree: Path, seed: int) -> list[Case]:
    """All of them, numbered from 1."""
    drafts = [(kind.name, draft) for kind in KINDS for draft in kind.make(tree, seed)]
    return [Case(number, kind, draft) for number, (kind, draft) in enumerate(drafts, start=1)]
