#!/usr/bin/env python3
"""Lists what the tests never ran, each gap with its reason, and fails when there is one without.

usage: coverage_gaps.py REPORT REASONS
  REPORT   what gcovr --json wrote
  REASONS  a text file: lines "file: text of the line", then indented lines with the reason they share

A gap is a line with a branch that was never taken, or that never ran, and the lines behind it that
never ran either. A reason belongs to one gap: the one in that file whose first line contains the
text. Lines with the same text need the text as often as there are gaps. It fails as well when a
reason has no gap any more, and when a percentage is below its minimum. Branches that the compiler
made for exceptions are not counted: the library is built without them.
"""
import json
import os
import sys
import textwrap

LINES_MIN_PERCENT = 98.0
BRANCHES_MIN_PERCENT = 90.0


class Gap:
    def __init__(self, file, number, text):
        self.file = file
        self.number = number
        self.text = text
        self.lines_not_run = 0
        self.branches_not_taken = 0

    def what(self):
        lines = f"{self.lines_not_run} lines not run"
        branches = f"{self.branches_not_taken} branches not taken"
        parts = [lines] * (self.lines_not_run > 0) + [branches] * (self.branches_not_taken > 0)
        return ", ".join(parts)


class Reason:
    def __init__(self, file, fragment):
        self.file = file
        self.fragment = fragment
        self.text = ""
        self.is_used = False

    def explains(self, gap):
        return (
            not self.is_used
            and os.path.basename(gap.file) == self.file
            and self.fragment in gap.text
        )


class Count:
    def __init__(self):
        self.hit = 0
        self.all = 0

    def add(self, is_hit):
        self.hit += is_hit
        self.all += 1

    def percent(self):
        return 100.0 * self.hit / self.all if self.all else 0.0


def read_gaps(report, lines, branches):
    """The gaps of the report, in order; counts every line and branch on the way."""
    gaps = []
    for entry in report["files"]:
        with open(entry["file"], encoding="utf-8") as source:
            texts = source.read().splitlines()
        gap = None
        for line in entry["lines"]:
            if line["gcovr/noncode"] or line.get("gcovr/excluded"):
                continue
            taken = [branch["count"] > 0 for branch in line["branches"] if not branch["throw"]]
            lines.add(line["count"] > 0)
            for is_taken in taken:
                branches.add(is_taken)
            if line["count"] > 0 and all(taken):
                gap = None
                continue
            if line["count"] > 0 or gap is None:
                number = line["line_number"]
                gap = Gap(entry["file"], number, texts[number - 1].strip())
                gaps.append(gap)
            gap.lines_not_run += line["count"] == 0
            gap.branches_not_taken += taken.count(False)
    return gaps


def read_reasons(path):
    reasons = []
    group = []
    with open(path, encoding="utf-8") as source:
        for number, line in enumerate(source, 1):
            if not line.strip() or line.startswith("#"):
                continue
            if line[0].isspace():
                if not group:
                    sys.exit(f"{path}:{number}: a reason of nothing")
                for reason in group:
                    reason.text = f"{reason.text} {line.strip()}".strip()
                continue
            if not group or group[-1].text:
                group = []
            file, colon, fragment = line.strip().partition(": ")
            if not colon:
                sys.exit(f"{path}:{number}: neither 'file: text' nor a reason")
            group.append(Reason(file, fragment))
            reasons.append(group[-1])
    for reason in reasons:
        if not reason.text:
            sys.exit(f"{path}: no reason for {reason.file}: {reason.fragment}")
    return reasons


def explain(gaps, reasons):
    """Prints every gap with its reason; returns the number of gaps without one."""
    unexplained = 0
    for gap in gaps:
        reason = next((r for r in reasons if r.explains(gap)), None)
        print(f"{gap.file}:{gap.number}: {gap.what()}\n    {gap.text}")
        if reason is None:
            unexplained += 1
            print("    NO REASON IS GIVEN")
            continue
        reason.is_used = True
        print(textwrap.fill(reason.text, 100, initial_indent="    = ", subsequent_indent="      "))
    return unexplained


def main(report_path, reasons_path):
    lines = Count()
    branches = Count()
    with open(report_path, encoding="utf-8") as source:
        gaps = read_gaps(json.load(source), lines, branches)
    reasons = read_reasons(reasons_path)
    failures = explain(gaps, reasons)
    for reason in reasons:
        if not reason.is_used:
            failures += 1
            print(f"{reasons_path}: no gap any more: {reason.file}: {reason.fragment}")
    for name, count, minimum in (
        ("lines", lines, LINES_MIN_PERCENT),
        ("branches", branches, BRANCHES_MIN_PERCENT),
    ):
        is_enough = count.percent() >= minimum
        failures += not is_enough
        verdict = "" if is_enough else f", LESS THAN {minimum} %"
        print(f"{name}: {count.percent():.1f} % ({count.hit} of {count.all}){verdict}")
    print(f"gaps: {len(gaps)}, failures: {failures}")
    return 1 if failures else 0


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    sys.exit(main(sys.argv[1], sys.argv[2]))
