#!/usr/bin/env python3
"""Forms the one table of scripts/bench from the files in a folder of results."""

import json
import pathlib
import re
import sys

OURS = "ours"


def duration(nanoseconds):
    for unit, factor in (("ms", 1e6), ("µs", 1e3)):
        if nanoseconds >= factor:
            return f"{nanoseconds / factor:.3g} {unit}"
    return f"{nanoseconds:.3g} ns"


def times(results):
    """The median of each cell, as {(work, size): {who: nanoseconds}}."""
    rows = {}
    for run in results["benchmarks"]:
        if run.get("aggregate_name") != "median":
            continue
        assert run["time_unit"] == "ns"
        work, who, size = run["run_name"].removesuffix("/real_time").split("|")
        by_clock = run["run_name"].endswith("/real_time")
        rows.setdefault((work, int(size)), {})[who] = run["real_time" if by_clock else "cpu_time"]
    return rows


def growth(value, smaller):
    return f"{value / smaller:.1f}" if smaller else ""


def time_lines(rows):
    for (work, size), cells in sorted(rows.items()):
        mine = cells[OURS]
        smaller = rows.get((work, size // 10), {}).get(OURS) if size else None
        peers = sorted((time, who) for who, time in cells.items() if who != OURS)
        yield [f"{work}, {size}" if size else work, duration(mine), growth(mine, smaller),
               ", ".join(f"{who} {duration(time)} **{mine / time:.2f}**" for time, who in peers)]


def instructions(folder):
    """What callgrind counted, as {operation: instructions}."""
    counts = {}
    for dump in folder.glob("callgrind.*"):
        text = dump.read_text()
        name = re.search(r"^desc: Trigger: Client Request: (.*)$", text, re.M)
        total = re.search(r"^totals: (\d+)$", text, re.M)
        if name and total:
            counts[name[1]] = int(total[1])
    return counts


def operation_lines(folder):
    counts = instructions(folder)
    for line in (folder / "operations.tsv").read_text().splitlines():
        name, allocations, size = line.split("\t")
        count = counts[name]
        tenth = re.sub(r"0( \w+)$", r"\1", name)
        smaller = counts.get(tenth) if tenth != name else None
        yield [name, f"{count:,} instructions, {int(allocations):,} allocations of {int(size):,} bytes",
               growth(count, smaller), ""]


def memory_lines(folder):
    for line in (folder / "memory.tsv").read_text().splitlines():
        keys, text, before, after, live, peak = (int(field) for field in line.split("\t"))
        yield [f"memory of a host that loads {keys} keys ({text:,} bytes of text)",
               f"{after} KiB at most, {before} KiB before; "
               f"heap {live // 1024} KiB, {peak // 1024} KiB at most", "", ""]


def main():
    folder = pathlib.Path(sys.argv[1])
    results = json.loads((folder / "times.json").read_text())
    lines = [["work", OURS, "growth for tenfold work", "peers, ratio ours/peer"], ["---"] * 4]
    lines += time_lines(times(results))
    lines += operation_lines(folder)
    lines += memory_lines(folder)
    print("\n".join("| " + " | ".join(line) + " |" for line in lines))
    print()
    print(results["context"]["notes"], end="")


main()
