"""Joins results into one page: figures for each kind, the slowest, what has failed and how to repeat it, with pictures."""

from collections import Counter, defaultdict
from collections.abc import Iterable, Sequence
from pathlib import Path

import jinja2
import markupsafe
import pygal
from pygal.style import Style

from campaign.cases import KINDS
from campaign.results import OUTCOMES, BadResults, Result, latest

# Of a palette that people with any sight can tell apart.
COLOURS = {"passed": "#009e73", "failed": "#d55e00", "error": "#cc79a7", "skipped": "#999999", "not run": "#dddddd"}
TIME, PROCESSOR = "#56b4e9", "#0072b2"
SHADES = ("#0072b2", "#e69f00", "#009e73", "#cc79a7", "#56b4e9", "#d55e00", "#7a7a00", "#444444", "#a0522d", "#8060c0")
SLOWEST = 15
WIDTH, ROW = 1000, 26  # of a picture


def duration(seconds: float) -> str:
    if seconds < 100:
        return f"{seconds:.0f} s"
    hours, minutes = divmod(round(seconds / 60), 60)
    return f"{hours} h {minutes:02} min" if hours else f"{minutes} min"


def grouped(number: int) -> str:
    return f"{number:,}"


def ranges(numbers: Iterable[int]) -> str:
    """1-3, 7"""
    parts: list[list[int]] = []
    for number in sorted(numbers):
        if parts and parts[-1][1] == number - 1:
            parts[-1][1] = number
        else:
            parts.append([number, number])
    return ", ".join(str(first) if first == last else f"{first}-{last}" for first, last in parts)


class Report:
    """Of results that belong together: of one tree and one seed. A case that has run twice counts as it ended last."""

    def __init__(self, everything: Sequence[Result]) -> None:
        if not everything:
            raise BadResults("no case has ended yet")
        for what in ("tree", "seed", "of"):
            found = sorted({str(getattr(result, what)) for result in everything})
            if len(found) > 1:
                raise BadResults(
                    f"these results are of more than one {what}: {', '.join(found)}; join only what belongs together"
                )
        self.results = latest(everything)
        self.tree, self.seed, self.of = everything[0].tree, everything[0].seed, everything[0].of
        self.counts = Counter(result.outcome for result in self.results)
        self.failed = [result for result in self.results if result.outcome in ("failed", "error")]
        self.missing = sorted(set(range(1, self.of + 1)) - {result.case for result in self.results})
        self.slowest = sorted(self.results, key=lambda result: -result.seconds)[:SLOWEST]

    @property
    def is_good(self) -> bool:
        return not self.failed and not self.missing

    def kinds(self) -> list[dict]:
        """A row for each, in the order of the list."""
        summaries = {kind.name: kind.summary for kind in KINDS}
        by_kind: dict[str, list[Result]] = defaultdict(list)
        for result in self.results:
            by_kind[result.kind].append(result)
        rows = []
        for kind, results in by_kind.items():
            figures: Counter[str] = Counter()
            for result in results:
                figures.update(result.figures)
            rows.append(
                {
                    "kind": kind,
                    "summary": summaries.get(kind, ""),
                    "cases": len(results),
                    "outcomes": Counter(result.outcome for result in results),
                    "seconds": sum(result.seconds for result in results),
                    "processor": sum(result.processor for result in results),
                    "figures": ", ".join(f"{grouped(number)} {name}" for name, number in figures.items()),
                }
            )
        return rows

    def text(self) -> str:
        """The same in a few lines, for a terminal."""
        lines = [
            f"{row['kind']:10} {row['outcomes']['passed']:4} of {row['cases']:4} passed  {duration(row['seconds']):>12}  {row['figures']}".rstrip()
            for row in self.kinds()
        ]
        for result in self.failed:
            lines.append(
                f"{result.outcome}: {result.case} {result.title}\n    again: {result.repeated_by}\n    which is {result.command}"
            )
        if self.missing:
            lines.append(f"{len(self.missing)} of {self.of} cases have no result: {ranges(self.missing)}")
        return "\n".join(lines)

    def page(self) -> str:
        environment = jinja2.Environment(
            autoescape=True, trim_blocks=True, lstrip_blocks=True, undefined=jinja2.StrictUndefined
        )
        environment.filters.update(duration=duration, grouped=grouped)
        template = environment.from_string((Path(__file__).parent / "page.html").read_text(encoding="utf-8"))
        pictures = [
            ("How they have ended", self._picture_of_outcomes()),
            ("Time by kind", self._picture_of_time()),
            ("The slowest", self._picture_of_slowest()),
            ("Who ran what, and when", self._picture_of_runs()),
        ]
        return template.render(
            report=self,
            outcomes=OUTCOMES,
            pictures=pictures,
            missing=ranges(self.missing),
            places=len({(result.host, result.shard) for result in self.results}),
            hosts=len({result.host for result in self.results}),
            elapsed=max(result.began + result.seconds for result in self.results)
            - min(result.began for result in self.results),
        )

    # ---- Pictures ----

    def _picture_of_outcomes(self) -> str:
        rows = self.kinds()[::-1]
        chart = bars(len(rows), COLOURS.values(), pygal.HorizontalStackedBar, x_title="cases")
        chart.x_labels = [row["kind"] for row in rows]
        for outcome in OUTCOMES:
            chart.add(outcome, [row["outcomes"][outcome] or None for row in rows])
        return drawn(chart)

    def _picture_of_time(self) -> str:
        rows = self.kinds()[::-1]
        chart = bars(2 * len(rows), (TIME, PROCESSOR), pygal.HorizontalBar, x_title="minutes")
        chart.x_labels = [row["kind"] for row in rows]
        for name, what in (("passed by", "seconds"), ("of processors", "processor")):
            chart.add(name, [{"value": row[what] / 60, "label": duration(row[what])} for row in rows])
        return drawn(chart)

    def _picture_of_slowest(self) -> str:
        slowest = self.slowest[::-1]
        chart = bars(len(slowest), (TIME,), pygal.HorizontalBar, x_title="seconds", show_legend=False)
        chart.x_labels = [f"{result.case} {result.title}" for result in slowest]
        chart.add("", [{"value": result.seconds, "color": COLOURS[result.outcome]} for result in slowest])
        return drawn(chart)

    def _picture_of_runs(self) -> str:
        """Each place a row of its own, each case a stretch of it."""
        places = sorted({(result.host, result.shard) for result in self.results}, reverse=True)
        first = min(result.began for result in self.results)
        chart = bars(
            2 * len(places),
            SHADES,
            pygal.XY,
            x_title="minutes since the first case",
            show_dots=False,
            stroke_style={"width": 14, "linecap": "butt"},
            range=(0.5, len(places) + 0.5),
            show_y_guides=False,
        )
        chart.y_labels = [{"value": at, "label": " ".join(place).strip()} for at, place in enumerate(places, start=1)]
        for row in self.kinds():
            points: list[tuple[float, float] | None] = []
            for result in self.results:
                if result.kind == row["kind"]:
                    at = places.index((result.host, result.shard)) + 1
                    start = (result.began - first) / 60
                    points += [(start, at), (start + result.seconds / 60, at), None]
            chart.add(row["kind"], points, allow_interruptions=True)
        return drawn(chart)


def bars(rows: int, colours: Iterable[str], kind: type, **more) -> pygal.graph.graph.Graph:
    """A picture as high as so many rows. Bars are drawn from the bottom up."""
    style = Style(
        background="transparent",
        plot_background="transparent",
        colors=tuple(colours),
        opacity="1",
        transition="0s",
        font_family="sans-serif",
        label_font_size=13,
        major_label_font_size=13,
        legend_font_size=13,
        title_font_size=13,
        foreground="#222222",
        foreground_strong="#222222",
        foreground_subtle="#666666",
    )
    return kind(
        style=style,
        width=WIDTH,
        height=150 + ROW * rows,
        js=(),
        disable_xml_declaration=True,
        legend_at_bottom=True,
        legend_at_bottom_columns=6,
        legend_box_size=11,
        margin_bottom=40,
        truncate_label=-1,
        **more,
    )


def drawn(chart: pygal.graph.graph.Graph) -> markupsafe.Markup:
    """The picture as an element of a page."""
    return markupsafe.Markup(chart.render(is_unicode=True))
