#!/usr/bin/env python3
"""Prints the line and branch coverage of a gcovr JSON summary as a table per top-level source folder."""
import collections
import json
import sys

KEYS = ("line_covered", "line_total", "branch_covered", "branch_total")


def percent(covered, total):
    return f"{100.0 * covered / total if total else 100.0:>8.1f}%"


def main(path):
    with open(path, encoding="utf-8") as f:
        summary = json.load(f)
    folders = collections.defaultdict(lambda: [0] * len(KEYS))
    for entry in summary["files"]:
        folder = entry["filename"].split("/", 1)[0] if "/" in entry["filename"] else "."
        for i, key in enumerate(KEYS):
            folders[folder][i] += entry.get(key, 0)
    rows = sorted(folders.items())
    rows.append(("total", [sum(counts[i] for counts in folders.values()) for i in range(len(KEYS))]))
    print(f"{'folder':<12} {'lines':>7} {'covered':>8} {'coverage':>9} {'branches':>9} {'covered':>8} {'coverage':>9}")
    for folder, (lines_hit, lines, branches_hit, branches) in rows:
        print(f"{folder:<12} {lines:>7} {lines_hit:>8} {percent(lines_hit, lines)} "
              f"{branches:>9} {branches_hit:>8} {percent(branches_hit, branches)}")


if __name__ == "__main__":
    main(sys.argv[1])
