#!/usr/bin/env python3
"""Prints the line coverage of a gcovr JSON summary as a table per top-level source folder."""
import collections
import json
import sys


def main(path):
    with open(path, encoding="utf-8") as f:
        summary = json.load(f)
    folders = collections.defaultdict(lambda: [0, 0])
    for entry in summary["files"]:
        folder = entry["filename"].split("/", 1)[0] if "/" in entry["filename"] else "."
        folders[folder][0] += entry["line_covered"]
        folders[folder][1] += entry["line_total"]
    rows = sorted(folders.items())
    rows.append(("total", [sum(c for c, _ in folders.values()), sum(t for _, t in folders.values())]))
    print(f"{'folder':<12} {'lines':>7} {'covered':>8} {'coverage':>9}")
    for folder, (covered, total) in rows:
        percent = 100.0 * covered / total if total else 100.0
        print(f"{folder:<12} {total:>7} {covered:>8} {percent:>8.1f}%")


if __name__ == "__main__":
    main(sys.argv[1])
