#!/usr/bin/python3
"""Turns the results of one benchmark run into performance.md and performance.svg, and prints the page.

The first line names Debian's own Python: Debian's matplotlib is installed for that interpreter alone.
"""

from __future__ import annotations

import argparse
import dataclasses
import datetime
import json
import math
import os
import re
import statistics
import sys
from pathlib import Path
from typing import Any, Iterable, NamedTuple, NoReturn

import matplotlib
from matplotlib.axes import Axes
from matplotlib.figure import Figure
from matplotlib.text import Annotation

USAGE_ERROR = 64
SECONDS_PER_UNIT = {"s": 1.0, "ms": 1e-3}


@dataclasses.dataclass
class Measurement:
    """One benchmark at one size: the shortest times of all repetitions, in seconds, and the last one's counters.

    Wall-clock and processor time are taken from the repetitions separately: disturbances only ever add time.
    """

    size: int
    wall: float
    cpu: float
    counters: dict[str, Any]

    def counter(self, name: str) -> float:
        if name not in self.counters:
            raise ValueError(f"{self.counters['name']}: no {name!r}")
        return self.counters[name]

    @property
    def per_second(self) -> float:
        return self.size / self.wall


class Results:
    """The measurements of a run, by benchmark and size. Looking up what was not measured gives None."""

    def __init__(self) -> None:
        self.context: dict[str, str] = {}
        self._benchmarks: dict[str, dict[int, Measurement]] = {}

    def read(self, path: Path) -> None:
        """Adds the results of one file in the JSON format of Google Benchmark."""
        try:
            content = json.loads(path.read_text(encoding="utf-8"))
            self.context |= content.get("context", {})
            for entry in content["benchmarks"]:
                if entry.get("run_type", "iteration") == "iteration":
                    self._add(entry)
        except KeyError as error:
            raise ValueError(f"{path}: no {error}") from error
        except ValueError as error:
            raise ValueError(f"{path}: {error}") from error

    def sizes(self, name: str) -> list[Measurement]:
        """All sizes of one benchmark, the smallest first."""
        return [measurement for _, measurement in sorted(self._benchmarks.get(name, {}).items())]

    def largest(self, name: str) -> Measurement | None:
        return next(reversed(self.sizes(name)), None)

    def at(self, name: str, size: int) -> Measurement | None:
        return self._benchmarks.get(name, {}).get(size)

    def _add(self, entry: dict[str, Any]) -> None:
        # Google Benchmark reports times for a failed measurement too.
        if entry.get("error_occurred"):
            raise ValueError(f"{entry['name']}: {entry.get('error_message', 'failed')}")
        # "name/size", to which Google Benchmark appends its own settings.
        name, size, *_ = (*entry["name"].split("/"), 0)
        unit = SECONDS_PER_UNIT[entry.get("time_unit", "s")]
        wall = entry.get("real_time", 0.0) * unit
        cpu = entry.get("cpu_time", 0.0) * unit
        sizes = self._benchmarks.setdefault(name, {})
        if earlier := sizes.get(int(size)):
            wall, cpu = min(wall, earlier.wall), min(cpu, earlier.cpu)
        sizes[int(size)] = Measurement(int(size), wall, cpu, entry)


class Fit(NamedTuple):
    """Cost grows as size ** exponent between two sizes."""

    exponent: float
    least: int
    most: int


def fit(sizes: list[Measurement]) -> Fit | None:
    """Fits the exponent by least squares over the logarithms; None with fewer than two sizes to fit.

    Sizes that cost less than four times the smallest size are left out: fixed costs dominate them.
    """
    fitted = [each for each in sizes if each.wall >= 4 * sizes[0].wall]
    if len(fitted) < 2:
        return None
    line = statistics.linear_regression([math.log(each.size) for each in fitted],
                                        [math.log(each.wall) for each in fitted])
    return Fit(line.slope, fitted[0].size, fitted[-1].size)


def count(number: int) -> str:
    """A size as text: powers of ten from 1000 on as 10^n."""
    exponent = len(str(number)) - 1
    return f"10^{exponent}" if number >= 1000 and number == 10**exponent else str(number)


def rate(per_second: float) -> str:
    return f"{per_second / 1e6:.1f} million" if per_second >= 1e6 else f"{per_second / 1e3:.0f} thousand"


def seconds(time: float) -> str:
    return f"{time * 1e3:.1f} ms" if time < 1 else f"{time:.2f} s"


def times(measurement: Measurement) -> str:
    return f"{seconds(measurement.wall)} (cpu {seconds(measurement.cpu)})"


def verdict(met: bool | None) -> str:
    if met is None:
        return "not checked"
    return "met" if met else "**not met**"


class Row(NamedTuple):
    """One line of the table of targets. Whether the target is met is None when this machine cannot check it."""

    what: str
    baseline: str
    target: str
    measured: str
    met: bool | None


def decode_row(results: Results) -> Row | None:
    plain = results.largest("read and sum")
    ours = results.largest("decode and filter")
    if not plain or not ours:
        return None
    ratio = ours.wall / plain.wall
    return Row(f"decode and filter {count(ours.size)} records that are not configured, "
               f"{plain.counter('bytes per record'):.0f} bytes each",
               f"`read` and sum: {times(plain)}",
               "at most 2x, or 10 million records per second",
               f"{times(ours)}: {ratio:.2f}x; {rate(ours.per_second)} records per second",
               ratio <= 2 or ours.per_second >= 1e7)


def spool_row(results: Results) -> Row | None:
    plain = results.largest("selected, without names and JSON")
    ours = results.largest("selected to spool")
    if not plain or not ours:
        return None
    return Row("selected record to JSON in a spool file",
               f"the same without names and JSON: {rate(plain.per_second)} events per second",
               "at least 300,000 events per second",
               f"{rate(ours.per_second)} events per second (cpu {ours.cpu / ours.size * 1e6:.2f} us per event)",
               ours.per_second >= 300_000)


def delivery_row(results: Results) -> Row | None:
    plain = results.largest("bare client")
    ours = results.largest("spool to delivery")
    if not plain or not ours:
        return None
    ratio = ours.wall / plain.wall
    events_per_second = ours.per_second * 1000
    return Row(f"spool file to confirmed delivery, loopback, {count(ours.size)} batches of 1,000 events",
               f"bare HTTP client, same bytes, 6 connections: {times(plain)}",
               "at most 1.25x; at least 100,000 events per second",
               f"{times(ours)}: {ratio:.2f}x; {rate(events_per_second)} events per second",
               ratio <= 1.25 and events_per_second >= 100_000)


def whole_agent_row(results: Results) -> Row | None:
    one = results.at("records", 10**6)
    ten = results.at("records", 10**7)
    words = results.at("word count", 10**6)
    if not one or not words:
        return None
    measured = times(one)
    met = one.wall <= 2
    if ten:
        measured += f"; ten times the trail {times(ten)}: {ten.wall / one.wall:.1f}x"
        met = met and ten.wall <= 10 * one.wall
    return Row("whole agent, 10^6 records, 5 in 100 selected, 500 events per batch",
               f"`wc -c`, reading the trail through `cat`: {seconds(words.wall)}",
               "2 s; ten times the trail, at most ten times the time", measured, met)


def unknown_ids_row(results: Results) -> Row | None:
    unknown = results.largest("unknown ids")
    known = results.at("records", unknown.size) if unknown else None
    if not unknown or not known:
        return None
    ratio = unknown.wall / known.wall
    return Row(f"the same with {count(unknown.size)} records, half of the selected ones with unknown ids",
               f"with known ids: {times(known)}", "at most 1.1x", f"{times(unknown)}: {ratio:.2f}x", ratio <= 1.1)


def memory_row(results: Results) -> Row | None:
    one = results.at("records", 10**6)
    ten = results.at("records", 10**7)
    if not one or not ten:
        return None
    small, large = (each.counter("peak_kib") / 1024 for each in (one, ten))
    return Row("peak memory (VmHWM) in that run", f"10^6 records: {small:.1f} MiB",
               "equal within 10 %, at most 32 MiB", f"10^7 records: {large:.1f} MiB",
               large <= 32 and abs(large - small) <= 0.1 * small)


def durable_row(results: Results) -> Row | None:
    plain = results.largest("not durable")
    ours = results.largest("durable")
    if not plain or not ours:
        return None
    ratio = ours.wall / plain.wall
    return Row(f"durable mode: whole agent, {count(ours.size)} records, 5 in 100 selected, 500 events per batch",
               f"without the mode, runs alternate: {times(plain)}", "at most 1.5x",
               f"{times(ours)}: {ratio:.2f}x; the last batch leaves the disk {seconds(ours.counter('empty_after'))} "
               "after its arrival", ratio <= 1.5)


def durable_memory_row(results: Results) -> Row | None:
    plain = results.largest("not durable")
    ours = results.largest("durable")
    if not plain or not ours:
        return None
    without, peak = (each.counter("peak_kib") / 1024 for each in (plain, ours))
    return Row("durable mode: peak memory (VmHWM) in that run", f"without the mode: {without:.1f} MiB",
               "at most 32 MiB", f"{peak:.1f} MiB", peak <= 32)


def some_events_row(results: Results) -> Row | None:
    return events_row_of(results, "events, 5 in 100 selected", "5 in 100 selected, one core", 3e6, "records")


def all_events_row(results: Results) -> Row | None:
    return events_row_of(results, "events, everything selected, one core", "everything selected, one core", 3e5,
                         "events")


def all_events_on_two_cores_row(results: Results) -> Row | None:
    return events_row_of(results, "events, everything selected, two cores", "everything selected, two cores", 5e5,
                         "events")


def events_row_of(results: Results, name: str, what: str, target: float, unit: str) -> Row | None:
    ours = results.largest(name)
    if not ours:
        return None
    return Row(f"`sentrovactl events`, {count(ours.size)} records to JSON lines, {what}", "none",
               f"at least {rate(target)} {unit} per second",
               f"{times(ours)}: {rate(ours.per_second)} {unit} per second", ours.per_second >= target)


def flush_row(results: Results) -> Row | None:
    stream = results.largest("flushes")
    if not stream:
        return None
    flushes, of_journal, time = (stream.counter(name) for name in ("flushes", "of journal", "seconds"))
    return Row(f"durable mode: {stream.counter('events per second')} events per second over {time:.0f} s, "
               "realtime collection on", "none", "at most 1 flush to the disk per second",
               f"{flushes} flushes under strace, {of_journal} of them of the journal: {flushes / time:.2f} per second",
               0 < flushes <= time)


def outage_row(results: Results) -> Row | None:
    none = results.at("outage", 0)
    many = results.largest("outage")
    if not none or not many or many.size == 0:
        return None
    small, large = (each.counter("peak_kib") / 1024 for each in (none, many))
    return Row(f"{count(many.size)} files waiting while the server is away, over {many.wall:.0f} s",
               f"no file: peak memory {small:.1f} MiB, cpu {seconds(none.cpu)}",
               "at most 32 MiB more; no processor time beyond noise",
               f"{large:.1f} MiB: {large - small:.1f} MiB more; cpu {seconds(many.cpu)}",
               large - small <= 32 and many.cpu - none.cpu <= 0.05)


def idle_row(results: Results) -> Row | None:
    return idle_row_of(results, "idle", "")


def durable_idle_row(results: Results) -> Row | None:
    return idle_row_of(results, "idle, durable", "durable mode: ")


def idle_row_of(results: Results, name: str, mode: str) -> Row | None:
    idle = results.largest(name)
    if not idle:
        return None
    resident = idle.counter("rss_kib") / 1024
    share = idle.counter("pss_kib") / 1024
    wakeups = idle.counter("wakeups")
    measured = [f"{resident:.1f} MiB resident, {share:.1f} MiB with shared pages divided among their users",
                f"{wakeups:.0f} wake-ups of {idle.counter('threads'):.0f} threads",
                *idle.counters.get("threads woken", [])]
    return Row(f"{mode}idle over {idle.counter('seconds'):.0f} s, realtime collection on", "none",
               "at most 16 MiB; no wake-ups except for scheduled tasks", "; ".join(measured),
               resident <= 16 and wakeups <= 4)


def log_row(results: Results) -> Row | None:
    quiet = results.at("log level", 0)
    debug = results.at("log level", 2)
    if not quiet or not debug:
        return None
    lines = debug.counter("lines")
    measured = f"{times(debug)} for {lines:.0f} lines: {(debug.cpu - quiet.cpu) / lines * 1e6:.1f} us of cpu per line; "
    met = None
    if calls := results.largest("log calls"):
        traced, opens, writes, closes = (calls.counters.get(name, 0) for name in ("lines", "opens", "writes", "closes"))
        measured += f"{traced:.0f} lines under strace: {opens:.0f} opens, {writes:.0f} writes, {closes:.0f} closes"
        met = 0 < traced == opens == writes == closes
    else:
        measured += "calls not counted, no strace"
    return Row('"LogLevel" 2, the same trail', f"level 0: {times(quiet)}",
               "cost stated; one open, one write, one close per line", measured, met)


ROWS = (decode_row, spool_row, delivery_row, whole_agent_row, unknown_ids_row, memory_row, durable_row,
        durable_memory_row, some_events_row, all_events_row,
        all_events_on_two_cores_row, flush_row, outage_row, idle_row, durable_idle_row, log_row)


def target_table(results: Results) -> str:
    """The rows whose benchmarks were part of this run."""
    text = "| what | baseline | target | measured | |\n|---|---|---|---|---|\n"
    for row in filter(None, (make(results) for make in ROWS)):
        text += f"| {row.what} | {row.baseline} | {row.target} | {row.measured} | {verdict(row.met)} |\n"
    return text


@dataclasses.dataclass
class Curve:
    """How the cost of one benchmark grows, and how the plot shows it.

    The colours are from the Okabe-Ito palette, which the colour-blind can tell apart. Markers differ for print without
    colour.
    """

    benchmark: str
    meaning: str
    label: str
    colour: str
    marker: str
    sizes: list[Measurement] = dataclasses.field(default_factory=list)
    fit: Fit | None = None


def curves_of(results: Results) -> list[Curve]:
    """The curves that were measured in this run."""
    curves = [Curve("records", "records in a trail, whole agent", "records in a trail", "#0072B2", "o"),
              Curve("spool", "files waiting in the spool, whole agent", "files in the spool", "#D55E00", "s"),
              Curve("users", "users in the volume, names and details", "users", "#009E73", "^"),
              Curve("login history", "additions to the login history", "login history", "#000000", "D")]
    for curve in curves:
        curve.sizes = results.sizes(curve.benchmark)
        curve.fit = fit(curve.sizes)
    return [curve for curve in curves if curve.sizes]


def growth_table(curves: Iterable[Curve]) -> str:
    text = "| cost as work grows | sizes | fitted over | exponent | linear |\n|---|---|---|---|---|\n"
    for curve in curves:
        fitted = "too few sizes | - | -"
        if curve.fit:
            fitted = (f"{count(curve.fit.least)} to {count(curve.fit.most)} | {curve.fit.exponent:.2f} | "
                      f"{verdict(curve.fit.exponent <= 1.1)}")
        text += f"| {curve.meaning} | {count(curve.sizes[0].size)} to {count(curve.sizes[-1].size)} | {fitted} |\n"
    return text


def label_curve(axes: Axes, curve: Curve) -> Annotation:
    """Writes name, exponent and fitted range to the right of the curve's last point."""
    fitted = "too few sizes to fit"
    if curve.fit:
        fitted = f"n^{curve.fit.exponent:.2f} over {count(curve.fit.least)} to {count(curve.fit.most)}"
    superscripts = re.sub(r"\^(-?[\d.]+)", r"$^{\1}$", fitted)
    last = curve.sizes[-1]
    return axes.annotate(f"{curve.label}\n{superscripts}", (last.size, last.wall), (9, 0), textcoords="offset points",
                         verticalalignment="center", color=curve.colour, zorder=1,
                         bbox={"facecolor": "white", "edgecolor": "none", "pad": 1})


def separate(labels: Iterable[Annotation]) -> None:
    """Moves labels up until none covers another."""
    placed: list[Any] = []
    for label in sorted(labels, key=lambda each: each.get_window_extent().y0):
        for lower in placed:
            box = label.get_window_extent()
            if box.overlaps(lower):
                x, y = label.get_position()
                label.set_position((x, y + lower.y1 - box.y0 + 1))
        placed.append(label.get_window_extent())


def draw_slope_one(axes: Axes, curves: list[Curve]) -> None:
    """Draws linear growth for comparison, far enough below the curves to leave room for their labels."""
    cost_of_one = min(each.wall / each.size for curve in curves for each in curve.sizes) / 30
    (left, right), (bottom, top) = axes.get_xlim(), axes.get_ylim()
    axes.plot([left, right], [left * cost_of_one, right * cost_of_one], color="#777777", linestyle="--", linewidth=1)
    axes.set_xlim(left, right)
    axes.set_ylim(bottom, top)
    box = axes.get_window_extent()
    angle = math.degrees(math.atan2(box.height / math.log10(top / bottom), box.width / math.log10(right / left)))
    axes.annotate("slope 1: linear growth", (right, right * cost_of_one), (0, -8), textcoords="offset points",
                  rotation=angle, rotation_mode="anchor", horizontalalignment="right", verticalalignment="top",
                  color="#777777")


def plot(curves: list[Curve], path: Path) -> None:
    """Writes the curves as SVG. The same results give the same file."""
    matplotlib.rcdefaults()  # whatever the user has configured
    matplotlib.rcParams.update({"svg.hashsalt": "performance", "font.size": 9})
    # At 72 dots per inch a dot is a point, so that boxes and offsets of labels have one unit.
    figure = Figure(figsize=(9.5, 5.5), dpi=72)
    axes = figure.add_subplot(xscale="log", yscale="log", xlabel="how many (n)", ylabel="seconds",
                              title="Cost as work grows")
    axes.grid(color="#dddddd")
    axes.set_axisbelow(True)
    axes.minorticks_off()
    axes.spines[["top", "right"]].set_visible(False)
    for curve in curves:
        axes.plot([each.size for each in curve.sizes], [each.wall for each in curve.sizes], color=curve.colour,
                  marker=curve.marker)
    if curves:
        draw_slope_one(axes, curves)
    separate([label_curve(axes, curve) for curve in curves])
    figure.savefig(path, bbox_inches="tight", metadata={"Date": None})


def first_value(path: Path, name: str) -> str:
    """The value of the first line "name: value" in a file of /proc."""
    for line in path.read_text(encoding="utf-8").splitlines():
        key, _, value = line.partition(":")
        if key.strip() == name:
            return value.strip()
    return "unknown"


def machine(compiler: str) -> str:
    host = os.uname()
    kib = int(first_value(Path("/proc/meminfo"), "MemTotal").split()[0])
    return (f"{first_value(Path('/proc/cpuinfo'), 'model name')}, {os.cpu_count()} cores, "
            f"{kib / 1024 / 1024:.0f} GiB of memory; {host.sysname} {host.release}; compiler {compiler}")


def page(results: Results, curves: list[Curve], command: str) -> str:
    today = datetime.datetime.now(datetime.timezone.utc).date()
    compiler = results.context.get("compiler", "unknown")
    spool_folder = results.context.get("spool", "unknown")
    return f"""# Performance

Written by `{command}` on {today}, on a machine with {machine(compiler)}.

Each figure is the best of several repetitions, and each baseline was measured in the same run. Times are wall-clock, with the
processor time of all threads in brackets. The comments in `bench/parts.cpp` and `bench/agent.cpp` say what each row measures.
All files are on disk, except those of the row "selected record to JSON in a spool file", which are in `{spool_folder}`.

{target_table(results)}
{growth_table(curves)}
![Cost as work grows](performance.svg)
"""


class Parser(argparse.ArgumentParser):
    """Reports wrong arguments with the exit status of the other programs."""

    def error(self, message: str) -> NoReturn:
        self.print_usage(sys.stderr)
        self.exit(USAGE_ERROR, f"{self.prog}: {message}\n")


def main() -> int:
    parser = Parser(description="Writes performance.md and performance.svg from the results of one benchmark run.")
    parser.add_argument("folder", type=Path, help="existing folder for the two files")
    parser.add_argument("command", help="the command of the run, for the page")
    parser.add_argument("results", type=Path, nargs="+", help="result file in the JSON format of Google Benchmark")
    arguments = parser.parse_args()
    try:
        results = Results()
        for path in arguments.results:
            results.read(path)
        curves = curves_of(results)
        text = page(results, curves, arguments.command)
        (arguments.folder / "performance.md").write_text(text, encoding="utf-8")
        plot(curves, arguments.folder / "performance.svg")
    except (OSError, ValueError) as error:
        print(f"{parser.prog}: {error}", file=sys.stderr)
        return 1
    print(text, end="")
    return 0


if __name__ == "__main__":
    sys.exit(main())
