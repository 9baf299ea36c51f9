#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
# Line and branch coverage per unit from a coverage build's counts (gcovr), with the library's total last.
"""Coverage report.

  scripts/coverage-report.py BUILD_DIR [--min-lines PERCENT]

Runs gcovr over the counts the suite left in BUILD_DIR and prints, per unit
(a source file with its header: classes/shmstring.cpp and .h are
classes/shmstring), the lines and branches run, then the totals of the
library (classes/ and platform/) and of the tool (tools/), ending with the
library's line

  lines: 94.1 %  branches: 81.2 %

Branches are those gcov sees in the project's own code, without the ones
only an exception thrown by the compiler's own code could take and the ones
the compiler proved unreachable. With --min-lines, the exit status is 1 when
the library's line coverage is below PERCENT. The full per-line report is
left in BUILD_DIR/coverage/index.html.
"""

import argparse
import json
import os
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
LIBRARY = ("classes/", "platform/")
TOOL = ("tools/",)


def gcovr(build_dir, out_dir):
    summary = os.path.join(out_dir, "summary.json")
    command = [
        "gcovr", "--root", ROOT, "--object-directory", build_dir,
        "--filter", os.path.join(ROOT, "classes") + "/", "--filter", os.path.join(ROOT, "platform") + "/",
        "--filter", os.path.join(ROOT, "tools") + "/",
        "--exclude-unreachable-branches", "--exclude-throw-branches",
        "-j", str(os.cpu_count() or 1),
        "--json-summary", summary,
        "--html-details", os.path.join(out_dir, "index.html"),
    ]
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if result.returncode != 0:
        sys.stderr.write(result.stdout)
        sys.exit("coverage: gcovr failed")
    with open(summary, encoding="utf-8") as f:
        return json.load(f)


def percent(covered, total):
    return "%5.1f %%" % (100.0 * covered / total) if total else "    - "


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build_dir")
    parser.add_argument("--min-lines", type=float)
    args = parser.parse_args()

    build_dir = os.path.abspath(args.build_dir)
    out_dir = os.path.join(build_dir, "coverage")
    os.makedirs(out_dir, exist_ok=True)
    data = gcovr(build_dir, out_dir)

    units = {}
    for entry in data["files"]:
        name = entry["filename"]
        if os.path.isabs(name):
            name = os.path.relpath(name, ROOT)
        if not name.startswith(LIBRARY + TOOL):
            continue
        unit = os.path.splitext(name)[0]
        counts = units.setdefault(unit, [0, 0, 0, 0])
        counts[0] += entry["line_covered"]
        counts[1] += entry["line_total"]
        counts[2] += entry["branch_covered"]
        counts[3] += entry["branch_total"]

    width = max([len(u) for u in units] + [30])
    print("%-*s  %-20s  %s" % (width, "UNIT", "LINES", "BRANCHES"))
    totals = {}
    for unit in sorted(units):
        c = units[unit]
        print("%-*s  %s %-11s  %s %s" % (width, unit, percent(c[0], c[1]), "(%d/%d)" % (c[0], c[1]),
                                         percent(c[2], c[3]), "(%d/%d)" % (c[2], c[3])))
        group = "library" if unit.startswith(LIBRARY) else "tool"
        t = totals.setdefault(group, [0, 0, 0, 0])
        for i in range(4):
            t[i] += c[i]
    print()
    labels = {"library": "library (classes/, platform/)", "tool": "tool (tools/)"}
    for group in ("tool", "library"):
        if group in totals:
            t = totals[group]
            print("%-*s  %s %-11s  %s %s" % (width, labels[group], percent(t[0], t[1]), "(%d/%d)" % (t[0], t[1]),
                                             percent(t[2], t[3]), "(%d/%d)" % (t[2], t[3])))
    lib = totals.get("library", [0, 0, 0, 0])
    line_rate = 100.0 * lib[0] / lib[1] if lib[1] else 0.0
    branch_rate = 100.0 * lib[2] / lib[3] if lib[3] else 0.0
    print("per-line report: %s" % os.path.relpath(os.path.join(out_dir, "index.html"), ROOT))
    print("lines: %.1f %%  branches: %.1f %%" % (line_rate, branch_rate))
    if args.min_lines is not None and round(line_rate, 1) < args.min_lines:
        print("coverage: the library's line coverage %.1f %% is below the %.1f %% the project has reached"
              % (line_rate, args.min_lines), file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
