"""Everything that proves, as one list of numbered cases, for one machine or many.

A case is one command of one to some minutes. The same tree has the same cases under the same numbers everywhere, and
a shard needs nothing from another one: it builds what its cases need. What has ended is written down at once, as a
line of JSON and as JUnit's XML; `report` joins the lines of any number of runs into one page. docs/campaign.md has how
it runs under ctest, GNU parallel and Slurm."""

import argparse
import dataclasses
import json
import os
import re
import subprocess
import sys
from collections.abc import Callable, Sequence
from pathlib import Path

from campaign import cases
from campaign.cases import Case
from campaign.results import BadResults, CannotWrite, Interrupted, ResultFile, latest, read_results

TREE = Path(__file__).resolve().parent.parent
SEEDS = 1_000_000
FAILED, WRONG_USE, INTERRUPTED = 1, 2, 130

Make = Callable[[Path, int], list[Case]]


class WrongUse(Exception):
    """With a sentence that says what to do."""


class Parser(argparse.ArgumentParser):
    def error(self, message: str) -> None:
        shown = "".join(each if each.isprintable() else repr(each)[1:-1] for each in message)
        print(f"campaign: {shown[:200]}; see scripts/{self.prog} --help", file=sys.stderr)
        sys.exit(WRONG_USE)


@dataclasses.dataclass(frozen=True)
class Shard:
    number: int = 1
    of: int = 1

    def __str__(self) -> str:
        return f"{self.number}/{self.of}" if self.of > 1 else ""

    def has(self, case: Case) -> bool:
        """One after the other, so that each shard gets its part of every kind."""
        return case.number % self.of == self.number % self.of


def shard_from(text: str) -> Shard:
    match = re.fullmatch(r"([1-9]\d{0,5})/([1-9]\d{0,5})", text)
    if not match or int(match[1]) > int(match[2]):
        raise argparse.ArgumentTypeError(f"{text!r} is written 2/8, the second of eight")
    return Shard(int(match[1]), int(match[2]))


def number_from(lowest: int, highest: int) -> Callable[[str], int]:
    def read(text: str) -> int:
        if not re.fullmatch(r"\d{1,9}", text) or not lowest <= int(text) <= highest:
            raise argparse.ArgumentTypeError(f"{text!r} is no number from {lowest} to {highest}")
        return int(text)

    return read


def path_from(text: str) -> Path:
    if not text:  # Path("") is the directory of whoever calls
        raise argparse.ArgumentTypeError("it is empty")
    return Path(text)


def choice_of_cases() -> argparse.ArgumentParser:
    chosen = argparse.ArgumentParser(add_help=False)
    chosen.add_argument(
        "--shard", metavar="K/N", type=shard_from, default=Shard(), help="the cases of one machine among several"
    )
    chosen.add_argument(
        "--kind",
        metavar="KIND",
        nargs="+",
        action="extend",
        choices=[kind.name for kind in cases.KINDS],
        help="cases of these kinds: " + ", ".join(kind.name for kind in cases.KINDS),
    )
    chosen.add_argument(
        "--case", metavar="N", nargs="+", action="extend", type=number_from(1, 999_999), help="these, by their numbers"
    )
    chosen.add_argument(
        "--seed", metavar="S", type=number_from(0, SEEDS), default=1, help="of all that is made up by chance (1)"
    )
    return chosen


def add_commands_of_cases(commands: argparse._SubParsersAction) -> None:
    chosen = choice_of_cases()
    listing = commands.add_parser("list", parents=[chosen], help="tell the cases", description="Tells the cases.")
    listing.add_argument(
        "--format",
        choices=("text", "json", "ctest"),
        default="text",
        help="ctest: a CTestTestfile.cmake whose tests are the cases",
    )

    commands.add_parser(
        "prepare", parents=[chosen], help="build what cases need", description="Builds what cases need, and runs none."
    )

    running = commands.add_parser(
        "run", parents=[chosen], help="run cases", description="Runs cases. Ctrl-C ends all that was started."
    )
    running.add_argument("--jobs", metavar="J", type=number_from(1, 256), default=1, help="so many cases at once (1)")
    running.add_argument("--resume", action="store_true", help="go on after the cases that have ended already")
    running.add_argument("--prepared", action="store_true", help="what they need is built")
    for each in (running, listing):
        each.add_argument(
            "--results",
            metavar="DIR",
            type=path_from,
            default=Path("build/campaign"),
            help="where results and logs go (build/campaign)",
        )


def add_report(commands: argparse._SubParsersAction) -> None:
    reporting = commands.add_parser(
        "report", help="join results into a page", description="Joins results into one page with pictures."
    )
    reporting.add_argument(
        "files", metavar="FILE", nargs="+", type=path_from, help="a .jsonl of a run, or a directory with such"
    )
    reporting.add_argument(
        "--output",
        metavar="FILE",
        type=path_from,
        default=Path("build/campaign/report.html"),
        help="(build/campaign/report.html)",
    )


def parser() -> Parser:
    summary, _, rest = __doc__.partition("\n\n")
    whole = Parser(
        prog="campaign", description=summary, epilog=rest + STATUSES, formatter_class=argparse.RawTextHelpFormatter
    )
    commands = whole.add_subparsers(dest="action", metavar="COMMAND")
    add_commands_of_cases(commands)
    add_report(commands)
    return whole


STATUSES = """

Exit status: 0 everything that was asked for has passed, 1 something has not (it is named), 2 wrong use, 130 interrupted."""


# ---- Which cases ----


def choose(everything: Sequence[Case], options: argparse.Namespace) -> list[Case]:
    absent = set(options.case or ()) - {case.number for case in everything}
    if absent:
        raise WrongUse(f"there is no case {min(absent)}: the list ends with {len(everything)}")
    chosen = [
        case
        for case in everything
        if options.shard.has(case)
        and (not options.kind or case.kind in options.kind)
        and (not options.case or case.number in options.case)
    ]
    if not chosen:
        raise WrongUse("no case is all of that")
    return chosen


def state_of(tree: Path) -> str:
    """Which commit it is, and whether it has been changed since."""
    words = ("git", "describe", "--always", "--dirty", "--abbrev=12", "--exclude=*")
    return subprocess.run(words, cwd=tree, capture_output=True, text=True, check=True).stdout.strip()


# ---- list ----


def duration(seconds: float) -> str:
    hours, minutes = divmod(round(seconds / 60), 60)
    return f"{hours} h {minutes:02} min" if hours else f"{minutes} min"


def as_text(chosen: Sequence[Case], _options: argparse.Namespace) -> str:
    lines = [f"{case.number:4}  {case.kind:10} {case.draft.name:34} {case.draft.seconds:5} s" for case in chosen]
    return "\n".join(
        [
            *lines,
            f"{len(chosen)} cases, some {duration(sum(case.draft.seconds for case in chosen))} one after the other",
        ]
    )


def as_json(chosen: Sequence[Case], _options: argparse.Namespace) -> str:
    return json.dumps(
        [{"number": case.number, "kind": case.kind, **dataclasses.asdict(case.draft)} for case in chosen], indent=1
    )


def as_ctest(chosen: Sequence[Case], options: argparse.Namespace) -> str:
    """ctest's own file: what it takes care of are the turns, the limits and the preparation; the cases run as ever."""
    program = TREE / "scripts/campaign"
    same = f"--seed {options.seed}"
    lines = []
    for kind in dict.fromkeys(case.kind for case in chosen if case.draft.needs):
        lines += [
            f'add_test("prepare.{kind}" "{program}" prepare --kind {kind} {same})',
            f'set_tests_properties("prepare.{kind}" PROPERTIES FIXTURES_SETUP {kind} RESOURCE_LOCK prepare TIMEOUT 14400)',
        ]
    for case in chosen:
        name = f"campaign.{case.number:04} {case.title}"
        needed = f" FIXTURES_REQUIRED {case.kind}" if case.draft.needs else ""
        turn = f" RESOURCE_LOCK {case.draft.alone}" if case.draft.alone else ""
        lines += [
            f'add_test("{name}" "{program}" run --case {case.number} {same} --prepared --results "{options.results.resolve()}")',
            f'set_tests_properties("{name}" PROPERTIES LABELS {case.kind} TIMEOUT {case.limit + 60} COST {case.draft.seconds}{needed}{turn})',
        ]
    return "\n".join(lines)


def tell_list(everything: list[Case], options: argparse.Namespace) -> int:
    print({"text": as_text, "json": as_json, "ctest": as_ctest}[options.format](choose(everything, options), options))
    return 0


# ---- prepare and run ----


def begin(everything: list[Case], options: argparse.Namespace, name: str):
    """The run, and where its results go."""
    from campaign.run import Run

    try:
        options.results.mkdir(parents=True, exist_ok=True)
    except OSError as problem:
        raise WrongUse(f"--results {str(options.results)!r}: {problem.strerror}") from problem
    file = ResultFile(options.results.resolve(), name)
    return file, Run(
        TREE, options.results.resolve(), file, options.seed, len(everything), str(options.shard), state_of(TREE)
    )


def prepare(everything: list[Case], options: argparse.Namespace) -> int:
    options.results = Path(TREE / "build/campaign")
    _, run = begin(everything, options, "results")
    missing = run.prepare(choose(everything, options))
    for name, why in missing.items():
        print(f"campaign: {name} could not be built: {why}", file=sys.stderr)
    return FAILED if missing else 0


def left_of(chosen: list[Case], file: ResultFile, options: argparse.Namespace) -> list[Case]:
    """The cases that are to be run; never results of two trees or two seeds in one file."""
    earlier = file.read()
    for result in earlier:
        if (result.tree, result.seed) != (state_of(TREE), options.seed):
            raise WrongUse(
                f"{str(file.path)!r} has results of {result.tree} with seed {result.seed}, this is {state_of(TREE)} with "
                f"seed {options.seed}: choose another place with --results, or remove it"
            )
    if options.case:  # somebody wants to see them again
        return chosen
    ended = {result.case for result in earlier} & {case.number for case in chosen}
    if ended and not options.resume:
        raise WrongUse(
            f"{len(ended)} of these have results in {str(file.path)!r} already: go on after them with --resume, "
            "choose another place with --results, or remove it"
        )
    return [case for case in chosen if case.number not in ended]


def run(everything: list[Case], options: argparse.Namespace) -> int:
    chosen = choose(everything, options)
    shard = options.shard
    file, whole = begin(everything, options, f"shard-{shard.number}-of-{shard.of}" if shard.of > 1 else "results")
    left = left_of(chosen, file, options)
    whole.run(left, options.jobs, options.prepared)
    numbers = {case.number for case in chosen}
    outcomes = [result.outcome for result in latest(file.read()) if result.case in numbers]
    told = [f"{outcomes.count(outcome)} {outcome}" for outcome in dict.fromkeys(outcomes)]
    print(f"{len(chosen)} cases: {', '.join(told)}; results in {file.path}")
    return 0 if set(outcomes) <= {"passed", "skipped"} else FAILED


# ---- report ----


def report(_everything: list[Case], options: argparse.Namespace) -> int:
    from campaign.report import Report

    files = []
    for place in options.files:
        files += sorted(place.rglob("*.jsonl")) if place.is_dir() else [place]
    if not files:
        raise WrongUse("there is no .jsonl in these directories")
    whole = Report([result for file in files for result in read_results(file)])
    try:
        options.output.parent.mkdir(parents=True, exist_ok=True)
        options.output.write_text(whole.page(), encoding="utf-8")
    except OSError as problem:
        raise CannotWrite(f"--output {str(options.output)!r}: {problem.strerror}") from problem
    print(whole.text())
    print(f"The page is {options.output}")
    return 0 if whole.is_good else FAILED


def kept(arguments: Sequence[str], make: Make = cases.cases_of) -> int:
    """The same with a keeper: of the two processes either one may be killed, and the other ends what was started."""
    if arguments[:1] not in (["run"], ["prepare"]):
        return main(arguments, make)
    from campaign.keeper import with_keeper

    return with_keeper(lambda: main(arguments, make))


def main(arguments: Sequence[str], make: Make = cases.cases_of) -> int:
    """What is done, and that all of it could be told."""
    try:
        if sys.stdout is None:  # closed by whoever called
            raise OSError
        try:
            status = act(arguments, make)
        except SystemExit as end:  # the parser's, after its help or its complaint
            status = end.code
        sys.stdout.flush()
        return status
    except OSError as problem:
        if sys.stdout is not None:  # nor shall the rest fail when Python ends
            os.dup2(os.open(os.devnull, os.O_WRONLY), 1)
        if not isinstance(problem, BrokenPipeError):  # who has closed the pipe knows
            print("campaign: cannot write to standard output", file=sys.stderr)
        return FAILED


def act(arguments: Sequence[str], make: Make) -> int:
    all_words = parser()
    options = all_words.parse_args(arguments)
    if options.action is None:  # not the parser's to require: it would hide a word that it does not know
        all_words.error("COMMAND is required: list, run, report or prepare")
    try:
        everything = make(TREE, getattr(options, "seed", 1))
        actions = {"list": tell_list, "prepare": prepare, "run": run, "report": report}
        return actions[options.action](everything, options)
    except (WrongUse, BadResults) as problem:
        print(f"campaign: {problem}", file=sys.stderr)
        return WRONG_USE
    except Interrupted:
        print("campaign: interrupted; what has ended is kept, and run --resume goes on", file=sys.stderr)
        return INTERRUPTED
    except ModuleNotFoundError as problem:
        print(f"campaign: {problem.name} is missing: scripts/install-packages installs it", file=sys.stderr)
        return FAILED
    except CannotWrite as problem:
        print(f"campaign: {problem}", file=sys.stderr)
        return FAILED
