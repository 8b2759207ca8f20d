#!/usr/bin/env python3
"""Forms the one table of scripts/bench from the files in a folder of results."""

import json
import pathlib
import re
import sys

HEAD = ["work", "ours, µs", "growth", "peers, µs, ratio ours/peer", "instructions of ours", "growth",
        "allocations", "bytes asked for", "heap at most"]


def cell_of(row):
    work, who, size = row.split("|")
    return (work, int(size)), who


def read_times(folder):
    """The median of each cell, as {(work, size): {who: nanoseconds}}."""
    times = {}
    for run in json.loads((folder / "times.json").read_text())["benchmarks"]:
        if run.get("aggregate_name") == "median":
            row = run["run_name"].removesuffix("/real_time")
            key, who = cell_of(row)
            times.setdefault(key, {})[who] = run["cpu_time" if row == run["run_name"] else "real_time"]
    return times


def read_costs(folder):
    """What ours costs, as {(work, size): [instructions, allocations, bytes asked for, heap at most]}."""
    costs = {}
    for line in (folder / "costs.tsv").read_text().splitlines():
        row, *numbers = line.split("\t")
        costs[row] = [int(number) for number in numbers]
    for dump in folder.glob("callgrind.out.*"):
        text = dump.read_text()
        row = re.search(r"^desc: Trigger: Client Request: (.*)$", text, re.M)
        if row:
            costs[row[1]].insert(0, int(re.search(r"^totals: (\d+)$", text, re.M)[1]))
    return {cell_of(row)[0]: numbers for row, numbers in costs.items()}


def growth(numbers, key):
    """How many times as much it is as for a tenth of the work."""
    work, size = key
    smaller = numbers.get((work, size // 10)) if size else None
    return f"{numbers[key] / smaller:.1f}" if smaller else ""


def main():
    folder = pathlib.Path(sys.argv[1])
    times, costs = read_times(folder), read_costs(folder)
    mine = {key: cells.pop("ours") for key, cells in times.items()}
    instructions = {key: numbers[0] for key, numbers in costs.items()}
    print("| " + " | ".join(HEAD) + " |\n" + "|---" * len(HEAD) + "|")
    for key, peers in sorted(times.items()):
        work, size = key
        line = [f"{work}, {size}" if size else work, f"{mine[key] / 1000:,.2f}", growth(mine, key),
                ", ".join(f"{who} {time / 1000:,.2f} **{mine[key] / time:.2f}**"
                          for who, time in sorted(peers.items(), key=lambda peer: peer[1]))]
        if key in costs:
            line += [f"{number:,}" for number in costs[key]]
            line.insert(5, growth(instructions, key))
        print("| " + " | ".join(line + [""] * (len(HEAD) - len(line))) + " |")


main()
