#!/usr/bin/env python3
"""Line and branch coverage per folder, from gcovr's JSON summary (argument 1)."""
import collections
import json
import os
import sys


def percent(covered, total):
    return f"{100.0 * covered / total:5.1f} %" if total else "    - "


def main():
    with open(sys.argv[1], encoding="utf-8") as summary:
        files = json.load(summary)["files"]
    folders = collections.defaultdict(lambda: [0, 0, 0, 0])
    for entry in files:
        # Headers reached through the build tree's include links count where they live.
        path = os.path.relpath(os.path.realpath(entry["filename"]))
        counts = (entry["line_covered"], entry["line_total"], entry["branch_covered"], entry["branch_total"])
        # Each folder, and the top folders (src/, tools/) as totals.
        for folder in {path.rsplit("/", 1)[0], path.split("/", 1)[0] + " (all)"}:
            folders[folder] = [a + b for a, b in zip(folders[folder], counts)]
    print(f"{'folder':<32} {'lines':>16} {'':>7}  {'branches':>14} {'':>7}")
    for folder in sorted(folders):
        lines_hit, lines, branches_hit, branches = folders[folder]
        print(f"{folder:<32} {lines_hit:>7} / {lines:<6} {percent(lines_hit, lines)}  "
              f"{branches_hit:>6} / {branches:<6} {percent(branches_hit, branches)}")


if __name__ == "__main__":
    main()
