#!/usr/bin/env python3
"""Forms the table of scripts/bench from Google Benchmark's report."""
import json
import sys

rows = {}
for run in sorted(json.load(open(sys.argv[1]))["benchmarks"], key=lambda run: run["family_index"]):
    if run.get("aggregate_name") == "median":
        work, who = run["run_name"].split("|")
        rows.setdefault(work, {})[who] = run["cpu_time"]

print("| work | ours, µs | ours / theirs |\n|---|---|---|")
for work, times in rows.items():
    ours = times.pop("ours")
    ratios = sorted((ours / time, who) for who, time in times.items())
    print(f"| {work} | {ours / 1000:,.1f} | {', '.join(f'{who} {ratio:.2f}' for ratio, who in reversed(ratios))} |")
