"""The campaign with cases of the test's own, and the real list as far as it can be told without running it."""

import contextlib
import io
import json
import os
import signal
import subprocess
import sys
import tempfile
import time
import unittest
import unittest.mock
import xml.etree.ElementTree as xml
from pathlib import Path

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

from campaign.cases import Case, Draft  # noqa: E402
from campaign.main import TREE, kept, main  # noqa: E402


def shell(kind: str, name: str, text: str, **more) -> tuple[str, Draft]:
    return kind, Draft(name, ("sh", "-c", text), 1, **more)


# The second one waits for a sign the first time it runs; what it starts shares neither its session nor its group.
WAITS = 'cd "$PLACE"; [ -e go ] || { setsid sleep 60 & echo $! >child; touch waits; wait; }'

ROWS = (
    shell("model", "first", "echo 20 events in 4 sequences"),
    shell("model", "second", WAITS),
    shell("crash", "third", "echo '5 points, of which 5 were tried'; printf 'half\\rwhole\\n'"),
    shell("lint", "broken", "echo 'what <is> wrong'; exit 3"),
    shell("set", "not here", "exit 77"),
)
MODEL, BROKEN, SKIPPED = (1, 2, 3), 4, 5


def own_cases(_tree: Path, _seed: int) -> list[Case]:
    return [Case(number, *row) for number, row in enumerate(ROWS, start=1)]


def campaign(*words: str | Path, make=own_cases) -> tuple[int, str, str]:
    """Exit status, and what was said."""
    out, errors = io.StringIO(), io.StringIO()
    with contextlib.redirect_stdout(out), contextlib.redirect_stderr(errors):
        try:
            status = main([str(word) for word in words], make)
        except SystemExit as end:
            status = end.code
    return status, out.getvalue(), errors.getvalue()


def real(*words: str) -> tuple[int, str, str]:
    from campaign.cases import cases_of

    return campaign(*words, make=cases_of)


def eventually(is_so, limit: float = 90) -> bool:
    end = time.monotonic() + limit
    while not is_so() and time.monotonic() < end:
        time.sleep(0.01)
    return is_so()


def lives(process: int) -> bool:
    with contextlib.suppress(FileNotFoundError):
        return Path(f"/proc/{process}/stat").read_text().rpartition(")")[2].split()[0] != "Z"
    return False


class Listing(unittest.TestCase):
    def numbers(self, *words: str) -> list[int]:
        return [case["number"] for case in json.loads(real("list", "--format", "json", *words)[1])]

    def test_the_same_tree_has_the_same_numbers(self):
        first = real("list")[1]
        self.assertEqual(first, real("list")[1])
        numbers = self.numbers()
        self.assertEqual(numbers, list(range(1, len(numbers) + 1)))

    def test_a_seed_changes_what_cases_do_and_not_which_there_are(self):
        one, other = (json.loads(real("list", "--format", "json", "--seed", seed)[1]) for seed in ("1", "100"))
        self.assertEqual([case["kind"] for case in one], [case["kind"] for case in other])
        self.assertEqual(
            {case["kind"] for case, changed in zip(one, other) if case["command"] != changed["command"]},
            {"model", "failure", "soak"} & {case["kind"] for case in one},
        )

    def test_every_case_is_in_one_shard(self):
        shards = [self.numbers("--shard", f"{number}/7") for number in range(1, 8)]
        self.assertEqual(sorted(sum(shards, [])), self.numbers())
        self.assertLessEqual(max(map(len, shards)) - min(map(len, shards)), 1)

    def test_each_shard_has_a_part_of_each_large_kind(self):
        for number in range(1, 5):
            self.assertGreater(len(self.numbers("--shard", f"{number}/4", "--kind", "crash")), 10)

    def test_a_case_takes_some_minutes_or_is_a_whole_script(self):
        for case in json.loads(real("list", "--format", "json")[1]):
            if case["kind"] not in ("set", "measure"):
                self.assertLessEqual(case["seconds"], 1200 if case["kind"] == "soak" else 300, case)

    def test_ctest_reads_the_cases_as_tests(self):
        with tempfile.TemporaryDirectory() as place:
            Path(place, "CTestTestfile.cmake").write_text(real("list", "--format", "ctest", "--kind", "crash")[1])
            told = subprocess.run(
                ("ctest", "-N", "--test-dir", place), capture_output=True, text=True, check=True
            ).stdout
        cases = self.numbers("--kind", "crash")
        self.assertIn(f"Total Tests: {len(cases) + 1}", told)
        self.assertIn(f"campaign.{cases[0]:04} crash 1/", told)
        self.assertIn("prepare.crash", told)

    def test_wrong_use_is_told(self):
        for words, told in (
            (("list", "--shard", "3/2"), "the second of eight"),
            (("list", "--kind", "luck"), "luck"),
            (("list", "--case", "999999"), "there is no case 999999"),
            (("run", "--seed", "-1"), "--seed"),
            (("report", "/nowhere.jsonl"), "/nowhere.jsonl"),
            (("report", __file__), "line 1"),
            (("report", ""), "empty"),
            (("run", "--results", ""), "--results: it is empty"),
            (("report", "/dev/zero"), "'/dev/zero' is not a file"),
            ((), "COMMAND"),
            (("--nosuch",), "--nosuch"),
        ):
            status, _, errors = real(*words)
            self.assertEqual((status, told in errors), (2, True), (words, errors))


class Places(unittest.TestCase):
    """What is no file with results, and where nothing can be written."""

    def setUp(self):
        place = tempfile.TemporaryDirectory()
        self.addCleanup(place.cleanup)
        self.place = Path(place.name)
        self.results = self.place / "results.jsonl"

    def refused(self, *words: str | Path) -> str:
        status, _, errors = campaign(*words)
        self.assertEqual(status, 2, errors)
        return errors

    def test_nobody_waits_for_the_end_of_a_pipe(self):
        os.mkfifo(self.results)
        self.assertIn("is not a file", self.refused("report", self.results))
        self.assertIn("is not a file", self.refused("report", self.place))
        self.assertIn("is not a file", self.refused("run", "--results", self.place, "--resume"))

    def test_a_file_without_end_is_not_read(self):
        self.results.touch()
        os.truncate(self.results, 1 << 40)
        self.assertIn("longer than", self.refused("report", self.place))

    def test_a_link_that_leads_nowhere_is_told_before_anything_runs(self):
        self.results.symlink_to(self.results)
        self.assertIn("symbolic links", self.refused("run", "--results", self.place, "--case", "1"))
        self.assertFalse((self.place / "logs").exists())

    def test_a_page_that_cannot_be_written_is_told(self):
        self.assertEqual(campaign("run", "--results", self.place, "--case", "1")[0], 0)
        status, _, errors = campaign("report", self.place, "--output", self.place)
        self.assertEqual((status, "--output" in errors), (1, True), errors)

    def test_results_that_cannot_be_kept_end_the_run(self):
        (self.place / "logs").touch()
        status, _, errors = campaign("run", "--results", self.place, "--case", "1")
        self.assertEqual((status, "nothing can be kept" in errors), (1, True), errors)

    def test_what_cannot_be_told_is_a_failure(self):
        for words in ("list >/dev/full", "--help >&-"):
            text = f'"$1" "$2" --as-campaign {words}'
            ended = subprocess.run(
                ("sh", "-c", text, "sh", sys.executable, __file__), stderr=subprocess.PIPE, text=True, check=False
            )
            self.assertEqual((ended.returncode, ended.stderr), (1, "campaign: cannot write to standard output\n"), text)


class Running(unittest.TestCase):
    def setUp(self):
        place = tempfile.TemporaryDirectory()
        self.addCleanup(place.cleanup)
        self.place = Path(place.name)
        self.go = self.place / "go"
        os.environ["PLACE"] = place.name

    def campaign(self, *words: str) -> tuple[int, str, str]:
        return campaign("run", "--results", self.place, *words)

    def begin(self, *words: str) -> subprocess.Popen:
        """In a process of its own, until the second case waits."""
        program = (sys.executable, __file__, "--as-campaign", "run", "--results", self.place, *words)
        process = subprocess.Popen(program, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        self.addCleanup(process.stderr.close)
        self.assertTrue(eventually(lambda: (self.place / "waits").exists()))
        return process

    def results(self, name: str = "results") -> list[dict]:
        return [json.loads(line) for line in (self.place / f"{name}.jsonl").read_text().splitlines()]

    def child(self) -> int:
        return int((self.place / "child").read_text())

    def test_each_case_leaves_a_line_and_is_in_the_xml(self):
        self.go.touch()
        status, told, _ = self.campaign()
        self.assertEqual(status, 1)
        self.assertIn("again: scripts/campaign run --seed 1 --case 4", told)
        self.assertIn("5 cases: 3 passed, 1 failed, 1 skipped", told)
        self.assertEqual([result["outcome"] for result in self.results()], ["passed"] * 3 + ["failed", "skipped"])
        self.assertEqual(
            [result["figures"] for result in self.results()][:3], [{"events": 20, "sequences": 4}, {}, {"points": 5}]
        )
        self.assertTrue(self.results()[2]["output"].endswith("\nwhole"))
        self.assertEqual(self.results()[3]["status"], 3)
        suites = xml.parse(self.place / "results.xml").getroot()
        self.assertEqual((suites.get("tests"), suites.get("failures"), suites.get("skipped")), ("5", "1", "1"))
        self.assertIn("what <is> wrong", suites.find(".//testsuite[@name='lint']/testcase/system-out").text)

    def test_a_killed_run_loses_the_case_that_ran(self):
        process = self.begin()
        process.kill()
        process.wait()
        self.assertTrue(eventually(lambda: not lives(self.child())), "nothing of it runs on")
        self.assertEqual([result["case"] for result in self.results()], [1])
        with (self.place / "results.jsonl").open("a") as file:
            file.write('{"case": 2, "ki')  # as a loss of power leaves it
        self.go.touch()
        self.assertEqual(self.campaign()[0], 2, "nobody wants results of two runs in one file by accident")
        self.assertEqual(self.campaign("--resume")[0], 1)
        self.assertEqual([result["case"] for result in self.results()], [1, 2, 3, 4, 5])

    def test_of_a_killed_worker_nothing_is_left(self):
        process = self.begin()
        (worker,) = Path(f"/proc/{process.pid}/task/{process.pid}/children").read_text().split()
        os.kill(int(worker), signal.SIGKILL)
        self.assertEqual(process.wait(90), 128 + signal.SIGKILL)
        self.assertFalse(lives(self.child()))

    def test_an_interrupted_run_ends_all_that_it_has_started(self):
        process = self.begin("--jobs", "2")
        self.assertTrue(lives(self.child()))
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(90), 130)
        self.assertIn("--resume", process.stderr.read())
        self.assertFalse(lives(self.child()))
        self.assertNotIn(2, [result["case"] for result in self.results()])

    def test_a_case_alone_is_run_again_and_counts_as_it_ended_last(self):
        self.go.touch()
        self.campaign()
        self.assertEqual(self.campaign("--case", "1", "3")[0], 0)
        self.assertEqual(len(self.results()), 7)
        self.assertEqual(xml.parse(self.place / "results.xml").getroot().get("tests"), "5")

    def test_results_of_another_seed_stay_apart(self):
        self.campaign("--case", "1")
        status, _, errors = self.campaign("--case", "3", "--seed", "9")
        self.assertEqual((status, "with seed 1" in errors), (2, True), errors)

    def test_shards_are_joined_into_one_page(self):
        self.go.touch()
        self.assertEqual(self.campaign("--shard", "1/2")[0], 0)
        page = self.place / "page.html"
        status, told, _ = campaign("report", self.place, "--output", page)
        self.assertEqual(status, 1)
        self.assertIn("2 of 5 cases have no result: 2, 4", told)
        self.assertEqual(self.campaign("--shard", "2/2")[0], 1)
        status, told, _ = campaign(
            "report", self.place / "shard-1-of-2.jsonl", self.place / "shard-2-of-2.jsonl", "--output", page
        )
        self.assertEqual(status, 1)
        self.assertIn("20 events, 4 sequences", told)
        text = page.read_text()
        for expected in (
            "1 of 5 cases have failed",
            "scripts/campaign run --seed 1 --case 4",
            "what &lt;is&gt; wrong",
            "<svg",
        ):
            self.assertIn(expected, text)
        self.assertNotIn("have no result", text)

    def test_what_cannot_be_built_is_an_error_of_the_case(self):
        def make(_tree, _seed):
            return [Case(1, *shell("model", "unmade", "true", needs=("a-target",)))]

        commands = {"dev": [("sh", "-c", "echo no such target; exit 1"), ("touch", str(self.go))]}
        with unittest.mock.patch("campaign.run.preparations", return_value=commands):
            status, told, _ = campaign("run", "--results", self.place, make=make)
        self.assertFalse(self.go.exists())
        self.assertEqual(status, 1)
        self.assertIn("error", told)
        self.assertIn("no such target", self.results()[0]["output"])


if __name__ == "__main__":
    if sys.argv[1:2] == ["--as-campaign"]:
        sys.exit(kept(sys.argv[2:], own_cases))
    os.chdir(TREE)
    unittest.main()
