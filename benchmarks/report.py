#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Makes a table and a plot of a group's raw samples.

    report.py FOLDER COMMAND

FOLDER holds a JSON file of Google Benchmark for each time the group's program ran.
The table is printed, and written to FOLDER/table.md with what it was measured on;
the plot goes to FOLDER/plot.svg. COMMAND is what was typed to measure.
"""

import json
import pathlib
import re
import statistics
import sys

import matplotlib

matplotlib.use("svg")
matplotlib.rcParams["svg.hashsalt"] = "ovel"
import matplotlib.pyplot as plt

# What the library adds to a benchmark's name.
SUFFIX = re.compile(r"(/(real_time|manual_time|process_time|(iterations|min_time|repeats|threads):[^/]*))+$")

# The figure of a row, by the first of these that a sample has: its unit, and whether
# more is better.
FIGURES = (
    ("share", "", True),
    ("bytes", "B", False),
    ("bytes_per_second", "B/s", True),
    ("items_per_second", "/s", True),
    ("seconds", "s", False),
)
NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


class Contestant:
    """One line of the table: the samples of a contestant in a row."""

    def __init__(self, name, unit, more_is_better):
        self.name = name
        self.unit = unit
        self.more_is_better = more_is_better
        self.samples = []

    @property
    def median(self):
        return statistics.median(self.samples)

    def times_as_good_as(self, other):
        ratio = self.median / other.median if other.median else float("nan")
        return ratio if self.more_is_better else 1 / ratio if ratio else float("nan")

    @property
    def ours(self):
        return re.match(r"ovel\b", self.name) is not None

    @property
    def floor(self):
        return self.name == "floor"


def figure(sample):
    for key, unit, more_is_better in FIGURES:
        if key in sample:
            return sample[key], unit, more_is_better
    return sample["real_time"] * NANOSECONDS[sample["time_unit"]] / 1e9, "s", False


def read(folder):
    """The rows in the order of the program, and what it was run on."""
    rows = {}
    context = {}
    files = sorted(folder.glob("*.json"), key=lambda file: (int(re.match(r"\d+", file.stem)[0]), file.stat().st_mtime_ns))
    for file in files:
        text = file.read_text()
        if not text.strip():
            continue  # nothing of this contestant's was asked for
        data = json.loads(text)
        context = context or data["context"]
        for sample in data["benchmarks"]:
            row, _, name = SUFFIX.sub("", sample["name"]).rpartition("/")
            if sample.get("error_occurred"):
                sys.exit(f"{row}/{name}: {sample['error_message']}")
            value, unit, more_is_better = figure(sample)
            contestants = rows.setdefault(row, {})
            contestants.setdefault(name, Contestant(name, unit, more_is_better)).samples.append(value)
    return {row: list(contestants.values()) for row, contestants in rows.items()}, context


def scale(contestants):
    """A unit in which all figures of a row read well, and how many of it make one."""
    unit = contestants[0].unit
    least = min(abs(each.median) for each in contestants)
    if unit == "":
        return "%", 100
    if unit == "s":
        prefixes = (("s", 1), ("ms", 1e3), ("us", 1e6), ("ns", 1e9))
        return next((each for each in prefixes if least * each[1] >= 1), prefixes[-1])
    prefixes = ((f"G{unit}", 1e-9), (f"M{unit}", 1e-6), (f"k{unit}", 1e-3), (unit, 1))
    return next((each for each in prefixes if least * each[1] >= 1), prefixes[-1])


def digits(value):
    """Three digits of it, and all that stand before the point."""
    return f"{value:.{max(0, 2 - len(str(int(abs(value)))) + 1)}f}"


HEAD = ("row", "contestant", "median", "range", "unit", "to the best peer", "to the floor")


def table(rows):
    lines = []
    for row, contestants in rows.items():
        peers = [each for each in contestants if not each.ours and not each.floor]
        best = max(peers, key=lambda each: each.times_as_good_as(peers[0]), default=None)
        floor = next((each for each in contestants if each.floor), None)
        unit, factor = scale(contestants)
        for each in contestants:
            low, high = min(each.samples) * factor, max(each.samples) * factor
            lines.append((
                row.replace("_", " ") if each is contestants[0] else "",
                each.name,
                digits(each.median * factor),
                f"{digits(low)} to {digits(high)}",
                unit,
                f"{each.times_as_good_as(best):.2f}" if best and not each.floor else "",
                f"{1 / each.times_as_good_as(floor):.2f}" if floor and not each.floor else "",
            ))
    return lines


def machine():
    model = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    return model[1] if model else "unknown"


def markdown(group, lines, context, command, rounds):
    widths = [max(len(line[column]) for line in [HEAD, *lines]) for column in range(len(HEAD))]
    numeric = {2, 3, 5, 6}

    def write(line):
        cells = (text.rjust(width) if column in numeric else text.ljust(width)
                 for column, (text, width) in enumerate(zip(line, widths)))
        return f"| {' | '.join(cells)} |"

    rule = "|".join(("-" * (width + 1) + ":") if column in numeric else "-" * (width + 2)
                    for column, width in enumerate(widths))
    return "\n".join([
        f"## {group}",
        "",
        *map(write, [HEAD]), f"|{rule}|", *map(write, lines),
        "",
        "The best peer's figure is 1 in \"to the best peer\", and above 1 is better than it;",
        "\"to the floor\" is how many times what the machine itself needs. Medians of"
        f" {rounds} rounds.",
        "",
        f"{context['num_cpus']} processors ({machine()}), {context.get('compiler', '')},"
        f" {context['date'][:10]}, `{command.strip()}`",
    ])


def plot(group, rows, file):
    columns = 2 if len(rows) > 1 else 1
    height = -(-len(rows) // columns)
    longest = max(len(contestants) for contestants in rows.values())
    figure_, axes = plt.subplots(height, columns, squeeze=False, layout="constrained",
                                 figsize=(5.5 * columns, height * (0.9 + 0.27 * longest)))
    for axis in axes.flat[len(rows):]:
        axis.remove()
    for axis, (row, contestants) in zip(axes.flat, rows.items()):
        unit, factor = scale(contestants)
        medians = [each.median * factor for each in contestants]
        spread = [[median - min(each.samples) * factor for each, median in zip(contestants, medians)],
                  [max(each.samples) * factor - median for each, median in zip(contestants, medians)]]
        colours = ["#b9b9b9" if each.floor or "bound" in each.name else "#1b6ca8" if each.ours else "#d9a45b"
                   for each in contestants]
        bars = axis.barh([each.name for each in contestants], medians, color=colours,
                         xerr=spread, error_kw={"linewidth": 0.8, "capsize": 2})
        axis.bar_label(bars, [digits(median) for median in medians], padding=4, fontsize=7)
        # If the smallest bar would be invisible next to the largest.
        logarithmic = min(medians) > 0 and max(medians) > 30 * min(medians)
        if logarithmic:
            axis.set_xscale("log")
        for each, median in zip(contestants, medians):
            if each.floor:
                axis.axvline(median, color="#808080", linewidth=0.8, linestyle="--")
        axis.margins(x=0.16)
        axis.invert_yaxis()
        better = "more" if contestants[0].more_is_better else "less"
        axis.set_title(row.replace("_", " "), fontsize=9)
        axis.set_xlabel(f"{unit}, {better} is better{', logarithmic' if logarithmic else ''}", fontsize=8)
        axis.tick_params(labelsize=8)
    figure_.suptitle(group, fontsize=11)
    figure_.savefig(file, metadata={"Date": None})


def main():
    folder = pathlib.Path(sys.argv[1])
    rows, context = read(folder)
    if not rows:
        sys.exit(f"No row of {folder.name} matches")
    rounds = max(len(each.samples) for contestants in rows.values() for each in contestants)
    text = markdown(folder.name, table(rows), context, sys.argv[2], rounds)
    print(f"\n{text}\n")
    (folder / "table.md").write_text(text + "\n")
    plot(folder.name, rows, folder / "plot.svg")
    print(f"== Beside the raw samples: {folder}/table.md, {folder}/plot.svg")


main()
