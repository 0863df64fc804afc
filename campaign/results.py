"""What is kept of cases that have ended: a line of JSON each, from which JUnit's XML is made anew each time."""

import dataclasses
import fcntl
import json
import os
import stat
from collections.abc import Iterable, Iterator
from contextlib import contextmanager
from pathlib import Path

OUTCOMES = ("passed", "failed", "error", "skipped")  # error: what it needs could not be built
LAST_LINES = 60
MOST_BYTES = 256 << 20  # of a file with results: more than thousands of whole runs leave


@dataclasses.dataclass(frozen=True)
class Result:
    """How a case has ended. Times in seconds, `memory` is the largest process's, in MiB."""

    case: int
    of: int  # cases of the whole list
    kind: str
    name: str
    command: str
    outcome: str
    status: int | None  # none: it was ended, or never began
    seconds: float
    processor: float
    memory: float
    began: float  # since 1970 UTC
    output: str  # the end of it
    figures: dict[str, int]
    seed: int
    tree: str  # which state of it
    host: str
    shard: str  # of the run; empty: all

    @property
    def title(self) -> str:
        return f"{self.kind} {self.name}"

    @property
    def repeated_by(self) -> str:
        """The command that builds what the case needs, and runs it alone."""
        return f"scripts/campaign run --seed {self.seed} --case {self.case}"


class ResultFile:
    """DIR/NAME.jsonl with NAME.xml beside it. Several processes may add to it."""

    def __init__(self, directory: Path, name: str) -> None:
        self.path = directory / f"{name}.jsonl"
        self._junit = directory / f"{name}.xml"

    def read(self) -> list[Result]:
        return list(read_results(self.path)) if os.path.lexists(self.path) else []

    def add(self, result: Result) -> None:
        with self._locked():
            self._end_cut_line()
            line = json.dumps(dataclasses.asdict(result)) + "\n"
            with self.path.open("ab", buffering=0) as file:
                file.write(line.encode())
                os.fsync(file.fileno())
            write_junit(latest(self.read()), self._junit)

    def _end_cut_line(self) -> None:
        """A line that was cut when the power or the process went: it tells of no case."""
        whole = self.path.read_bytes() if self.path.exists() else b""
        if whole and not whole.endswith(b"\n"):
            os.truncate(self.path, whole.rfind(b"\n") + 1)

    @contextmanager
    def _locked(self) -> Iterator[None]:
        with self.path.with_suffix(".lock").open("w") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            yield


class BadResults(Exception):
    """A file that has no results, with a sentence for a person."""


class CannotWrite(Exception):
    """With a sentence that says what, and why."""


class Interrupted(Exception):
    """Somebody wants a run to end."""


def read_results(file: Path) -> Iterator[Result]:
    """In the order of their ends; without a last line that was cut."""
    try:
        text = whole_file(file).decode()
    except OSError as problem:
        raise BadResults(f"{str(file)!r} cannot be read: {problem.strerror}") from problem
    except UnicodeDecodeError as problem:
        raise BadResults(f"{str(file)!r} cannot be read: {problem}") from problem
    lines = text.split("\n")
    for number, line in enumerate(lines[:-1], start=1):
        try:
            yield Result(**json.loads(line))
        except (ValueError, TypeError) as problem:
            raise BadResults(f"{str(file)!r}, line {number}, is no result of a campaign: {problem}") from problem


def whole_file(file: Path) -> bytes:
    """Of a pipe or a device nothing: who waits for their end waits for ever."""
    with open(file, "rb", opener=lambda name, flags: os.open(name, flags | os.O_NONBLOCK)) as opened:
        told = os.fstat(opened.fileno())
        if not stat.S_ISREG(told.st_mode):
            raise BadResults(f"{str(file)!r} is not a file: name a .jsonl of a run, or a directory with such")
        if told.st_size > MOST_BYTES:
            raise BadResults(f"{str(file)!r} is no result of a campaign: it is longer than {MOST_BYTES >> 20} MiB")
        return opened.read(MOST_BYTES)


def latest(results: Iterable[Result]) -> list[Result]:
    """One for each case, the last one, in the order of the cases."""
    newest: dict[int, Result] = {}
    for result in sorted(results, key=lambda each: each.began):
        newest[result.case] = result
    return [newest[number] for number in sorted(newest)]


def write_junit(results: Iterable[Result], path: Path) -> None:
    """A suite for each kind."""
    import junitparser  # only where it is needed: the list is also read where it is not installed

    suites: dict[str, junitparser.TestSuite] = {}
    for result in results:
        case = junitparser.TestCase(f"{result.case} {result.name}", f"campaign.{result.kind}", result.seconds)
        verdict = {"failed": junitparser.Failure, "error": junitparser.Error, "skipped": junitparser.Skipped}
        if result.outcome in verdict:
            case.result = [verdict[result.outcome](f"again: {result.repeated_by}")]
        case.system_out = printable(f"{result.command}\n{result.output}")
        suites.setdefault(result.kind, junitparser.TestSuite(result.kind)).add_testcase(case)
    document = junitparser.JUnitXml("campaign")
    for suite in suites.values():
        document.add_testsuite(suite)
    document.update_statistics()
    unfinished = path.with_suffix(".xml.unfinished")
    document.write(str(unfinished))
    unfinished.replace(path)


def printable(text: str) -> str:
    """XML has no place for control characters."""
    return "".join(each if each in "\n\t" or each.isprintable() else "�" for each in text)


def end_of(log: Path) -> str:
    """Its last lines, without what a progress line has overwritten."""
    lines = log.read_text(encoding="utf-8", errors="replace").split("\n")
    return "\n".join(line.rstrip("\r").rpartition("\r")[2] for line in lines[-LAST_LINES:]).strip()
