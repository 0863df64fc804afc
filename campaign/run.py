"""Runs cases one beside the other, and ends all that they have started when it is ended itself."""

import asyncio
import contextlib
import fcntl
import os
import re
import shlex
import signal
import socket
import subprocess
import sys
import time
from collections.abc import AsyncIterator, Coroutine, Sequence
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Any

import psutil
import tqdm

from campaign.cases import KINDS, Case, preparation_of, preparations
from campaign.keeper import PR_SET_CHILD_SUBREAPER, prctl
from campaign.results import CannotWrite, Interrupted, Result, ResultFile, end_of

SKIPPED = 77
PATIENCE = 10  # seconds for what is asked to end, before it is killed


@contextlib.asynccontextmanager
async def locked(file: Path) -> AsyncIterator[None]:
    """Against other runs on this machine, without a halt for what this one does."""
    file.parent.mkdir(parents=True, exist_ok=True)
    with file.open("w") as lock:
        while True:
            try:
                fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
                break
            except BlockingIOError:
                await asyncio.sleep(0.5)
        yield


# ---- Programs, with all that they start ----


class Programs:
    """Those that run, as sessions of their own. What they leave behind becomes a child of this process, and is found."""

    def __init__(self, tree: Path, jobs: int) -> None:
        self._tree = tree
        self._running: set[int] = set()
        self._waits = ThreadPoolExecutor(jobs)
        prctl(PR_SET_CHILD_SUBREAPER, 1)

    async def run(self, command: Sequence[str], log: Path, limit: float) -> tuple[int, "os.struct_rusage"]:
        """Its exit status, negative after a signal. TimeoutError: it was ended after so many seconds."""
        with log.open("ab") as output:
            process = subprocess.Popen(
                command,
                cwd=self._tree,
                stdin=subprocess.DEVNULL,
                stdout=output,
                stderr=subprocess.STDOUT,
                start_new_session=True,
            )
        self._running.add(process.pid)
        end = asyncio.get_running_loop().run_in_executor(self._waits, os.wait4, process.pid, 0)
        try:
            _, status, usage = await asyncio.wait_for(asyncio.shield(end), limit)
        except (TimeoutError, asyncio.CancelledError):
            self._end(process.pid)
            await end
            raise
        finally:
            self._running.discard(process.pid)
            process.returncode = 0  # it has been waited for
            self._reap()
        return os.waitstatus_to_exitcode(status), usage

    def _end(self, leader: int) -> None:
        """A program, and what it has started."""
        with contextlib.suppress(psutil.NoSuchProcess):
            end_all([psutil.Process(leader), *psutil.Process(leader).children(recursive=True)])

    def _reap(self) -> None:
        """Ended processes whose parents have ended before them."""
        for child in psutil.Process().children():
            with contextlib.suppress(psutil.NoSuchProcess, ChildProcessError):
                if child.status() == psutil.STATUS_ZOMBIE and child.pid not in self._running:
                    os.waitpid(child.pid, os.WNOHANG)

    def end_rest(self) -> None:
        """What programs have left running."""
        end_children()


def end_children() -> None:
    end_all(psutil.Process().children(recursive=True))


def end_all(processes: list[psutil.Process]) -> None:
    for stop in (psutil.Process.terminate, psutil.Process.kill):
        for process in processes:
            with contextlib.suppress(psutil.NoSuchProcess):
                stop(process)
        deadline = time.monotonic() + PATIENCE
        while any(map(runs, processes)) and time.monotonic() < deadline:
            time.sleep(0.05)


def runs(process: psutil.Process) -> bool:
    with contextlib.suppress(psutil.NoSuchProcess):
        return process.is_running() and process.status() != psutil.STATUS_ZOMBIE
    return False


# ---- Progress ----


class Progress:
    """A line in place on a terminal, else a line for each case that has ended."""

    def __init__(self, cases: Sequence[Case]) -> None:
        self._all = len(cases)
        self._ended = self._failed = 0
        self._now: list[str] = []
        self._bar = tqdm.tqdm(
            total=sum(case.draft.seconds for case in cases),
            bar_format="{percentage:3.0f} %|{bar:16}| {desc}; {elapsed}, {remaining} left",
            smoothing=0,
            leave=False,
            disable=not sys.stderr.isatty(),
        )

    def say(self, text: str) -> None:
        self._now.append(text)
        self._show()

    def silence(self, text: str) -> None:
        self._now.remove(text)
        self._show()

    def take(self, result: Result, expected: int) -> None:
        self._ended += 1
        is_bad = result.outcome in ("failed", "error")
        self._failed += is_bad
        if is_bad or self._bar.disable:
            tqdm.tqdm.write(
                f"{self._ended} of {self._all}  {result.outcome:7} {result.case:4} {result.title}  {result.seconds:.0f} s"
                + (f"\n    again: {result.repeated_by}" if is_bad else ""),
                file=sys.stdout,
            )
            sys.stdout.flush()
        self._bar.update(expected)
        self._show()

    def _show(self) -> None:
        failed = f", {self._failed} failed" if self._failed else ""
        self._bar.set_description_str(
            f"{self._ended} of {self._all}{failed}: {', '.join(self._now)}"[:60], refresh=True
        )

    async def tick(self) -> None:
        while True:
            await asyncio.sleep(1)
            self._bar.refresh()

    def finish(self) -> None:
        self._bar.close()


# ---- A run ----


class Run:
    def __init__(
        self, tree: Path, directory: Path, file: ResultFile, seed: int, of: int, shard: str, state: str
    ) -> None:
        self._tree = tree
        self._directory = directory
        self._file = file
        self._same = {"seed": seed, "of": of, "shard": shard, "tree": state, "host": socket.gethostname()}

    def run(self, cases: Sequence[Case], jobs: int, is_prepared: bool) -> None:
        """Interrupted: all that was started has ended, and the results until then are kept."""
        self._do(self._run_all(cases, is_prepared), cases, jobs)

    def prepare(self, cases: Sequence[Case]) -> dict[str, str]:
        """Builds what they need. What could not be made, and what was said then."""
        return self._do(self._prepare(cases), [], 1)

    def _do(self, work: Coroutine, cases: Sequence[Case], jobs: int) -> Any:
        self._jobs = asyncio.Semaphore(jobs)
        self._alone: dict[str, asyncio.Lock] = {}
        self._programs = Programs(self._tree, jobs)
        self._progress = Progress(cases)
        try:
            return asyncio.run(self._interruptible(work))
        finally:
            self._progress.finish()
            self._programs.end_rest()

    async def _interruptible(self, work: Coroutine) -> Any:
        whole = asyncio.current_task()
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            asyncio.get_running_loop().add_signal_handler(number, whole.cancel)
        ticks = asyncio.create_task(self._progress.tick())
        try:
            return await work
        except asyncio.CancelledError:
            raise Interrupted from None
        finally:
            ticks.cancel()

    async def _run_all(self, cases: Sequence[Case], is_prepared: bool) -> None:
        missing = {} if is_prepared else await self._prepare(cases)
        try:
            async with asyncio.TaskGroup() as group:
                for case in cases:
                    group.create_task(self._run_case(case, missing))
        except ExceptionGroup as problems:
            first = problems.exceptions[0]
            if not isinstance(first, OSError):
                raise
            # Of a log, or of the results: what a program cannot do is its case's outcome.
            raise CannotWrite(f"nothing can be kept in {str(self._directory)!r}: {first}") from first

    async def _prepare(self, cases: Sequence[Case]) -> dict[str, str]:
        missing = {}
        needs = {need for case in cases for need in case.draft.needs}
        for name, commands in preparations(needs).items():
            log = self._log(f"prepare-{name}")
            text = f"building for {name}"
            self._progress.say(text)
            # Shards of one machine may have the same tree.
            async with locked(self._tree / "build/campaign-locks/prepare"):
                for command in commands:
                    status, _ = await self._programs.run(command, log, 4 * 3600)
                    if status != 0:
                        missing[name] = f"{shlex.join(command)}\n{end_of(log)}"
                        break
            self._progress.silence(text)
        return missing

    def _log(self, name: str) -> Path:
        log = self._directory / "logs" / f"{name}.log"
        log.parent.mkdir(parents=True, exist_ok=True)
        log.write_bytes(b"")
        return log

    async def _run_case(self, case: Case, missing: dict[str, str]) -> None:
        async with self._turn(case.draft.alone), self._jobs:
            self._progress.say(case.title)
            result = await self._outcome(case, missing)
            self._file.add(result)
            self._progress.silence(case.title)
            self._progress.take(result, case.draft.seconds)

    @contextlib.asynccontextmanager
    async def _turn(self, word: str) -> AsyncIterator[None]:
        """In the order of this run first, then among all runs of this machine."""
        if not word:
            yield
            return
        place = self._tree / "build/campaign-locks" / word.replace("/", "-")
        async with self._alone.setdefault(word, asyncio.Lock()), locked(place):
            yield

    async def _outcome(self, case: Case, missing: dict[str, str]) -> Result:
        log = self._log(f"{case.number:04}")
        began = time.time()
        status, usage, outcome = None, None, "error"
        unmade = [missing[name] for name in map(preparation_of, case.draft.needs) if name in missing]
        if unmade:
            log.write_text(f"What it needs could not be built: {unmade[0]}\n", encoding="utf-8")
        else:
            try:
                status, usage = await self._programs.run(case.draft.command, log, case.limit)
                outcome = {0: "passed", SKIPPED: "skipped"}.get(status, "failed")
            except TimeoutError:
                outcome = "failed"
                with log.open("a", encoding="utf-8") as text:
                    text.write(f"\nIt was ended after {case.limit} s\n")
            except OSError as problem:  # it could not be started
                log.write_text(f"{problem}\n", encoding="utf-8")
        return Result(
            case=case.number,
            kind=case.kind,
            name=case.draft.name,
            command=shlex.join(case.draft.command),
            outcome=outcome,
            status=status,
            seconds=round(time.time() - began, 2),
            processor=round(usage.ru_utime + usage.ru_stime, 2) if usage else 0,
            memory=round(usage.ru_maxrss / 1024, 1) if usage else 0,
            began=round(began, 3),
            output=end_of(log),
            figures=figures_in(case.kind, log) if outcome == "passed" else {},
            **self._same,
        )


def figures_in(kind: str, log: Path) -> dict[str, int]:
    text = log.read_text(encoding="utf-8", errors="replace")
    patterns = next((each.figures for each in KINDS if each.name == kind), {})
    found = {name: re.findall(pattern, text) for name, pattern in patterns.items()}
    return {name: int(numbers[-1]) for name, numbers in found.items() if numbers}
