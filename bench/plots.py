#!/usr/bin/python3
# SPDX-License-Identifier: GPL-2.0
"""Draws what benchmarks measured, as SVG.

    plots.py ENGINE LADDER DIRECTORY

ENGINE is what kelm_bench_engine printed, LADDER what ladder.py --json wrote.
"""

import json
import pathlib
import re
import sys

import matplotlib

matplotlib.use("svg")
import matplotlib.pyplot as plt  # noqa: E402

# The same file for the same numbers: no date, no random names.
matplotlib.rcParams["svg.hashsalt"] = "kelm"
METADATA = {"Date": None}
SIZE = 8, 4.5  # inches


def save(figure, path):
    figure.tight_layout()
    figure.savefig(path, metadata=METADATA)
    declaration, rest = path.read_text().split("\n", 1)
    path.write_text(f"{declaration}\n<!-- SPDX-License-Identifier: GPL-2.0 -->\n{rest}")
    plt.close(figure)
    print(path)


def cost_table(text):
    """The numbers of sessions, and {row: nanoseconds for each of them}. Indented rows are parts."""
    lines = [line.rstrip() for line in text.splitlines()]
    head = next(n for n, line in enumerate(lines) if re.fullmatch(r"\s+\d+(\s+\d+)+", line))
    counts = [int(word) for word in lines[head].split()]
    rows = {}
    for line in lines[head + 1:]:
        words = line.split()
        if not line.startswith(" ") and len(words) > len(counts) and all(word.isdigit() for word in words[-len(counts):]):
            rows[" ".join(words[:-len(counts)])] = [int(word) for word in words[-len(counts):]]
    return counts, rows


def draw_cost(text, path):
    counts, rows = cost_table(text)
    figure, axes = plt.subplots(figsize=SIZE)
    for name, nanoseconds in rows.items():
        axes.plot(counts, nanoseconds, marker="o", label=name)
    axes.set(xscale="log", xlabel="sessions", ylabel="ns per packet", ylim=(0, None),
             title="The engine's cost per packet, on the simulation")
    axes.set_xticks(counts, [f"{count:,}" for count in counts])
    axes.legend(fontsize="small")
    save(figure, path)


def draw_ladder(run, rows, path):
    """The longest gap on each rung, a group of bars for each."""
    sessions, interval = map(int, run.split("@"))
    rungs = list(dict.fromkeys(row["rung"] for row in rows))
    speakers = list(dict.fromkeys(row["speaker"] for row in rows))
    width = 0.8 / len(speakers)
    figure, axes = plt.subplots(figsize=SIZE)
    for n, speaker in enumerate(speakers):
        own = {row["rung"]: row for row in rows if row["speaker"] == speaker}
        bars = axes.bar([at + n * width for at in range(len(rungs))],
                        [own[rung]["longest_ms"] for rung in rungs], width, label=speaker)
        axes.bar_label(bars, [f"{own[rung]['down']} down" if own[rung]["down"] else ""
                              for rung in rungs], fontsize=6, rotation=90, padding=2)
    axes.axhline(3 * interval, color="black", linestyle="--", linewidth=1, label="detection time")
    axes.set(yscale="log", ylim=(interval / 2, 5000), ylabel="longest gap on the wire, ms",
             title=f"{sessions} session{'s' * (sessions > 1)}, 3 x {interval} ms")
    axes.set_xticks([at + 0.4 - width / 2 for at in range(len(rungs))], rungs)
    axes.legend(fontsize="small", loc="upper left")
    save(figure, path)


def main():
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    engine, ladder, directory = map(pathlib.Path, sys.argv[1:])
    directory.mkdir(parents=True, exist_ok=True)
    draw_cost(engine.read_text(), directory / "cost.svg")
    for run, rows in json.loads(ladder.read_text()).items():
        draw_ladder(run, rows, directory / f"ladder-{run.replace('@', 'x')}ms.svg")


if __name__ == "__main__":
    main()
