#!/usr/bin/env python3
"""RAW lines in; one RESULT line (median, min, max over the runs) per figure out, then a table of the main ones.

usage: summarize.py RAW-FILE
"""
import statistics
import sys

# metric, what it depends on (0: nothing), heading, decimals
MAIN = [
    ("seq_p50", 0, "publish p50 us", 1),
    ("seq_p99", 0, "publish p99 us", 1),
    ("pipe_ops", 0, "pipelined /s", 0),
    ("pipe_srv_cpu", 0, "srv cpu us", 2),
    ("fan_p50", 1, "told 1 us", 1),
    ("fan_p50", 100, "told 100 us", 0),
    ("fan_p50", 1000, "told 1000 us", 0),
    ("fan_rate", 100, "notif/s x100", 0),
    ("fan_rate", 1000, "notif/s x1000", 0),
    ("fan_srv_cpu", 100, "srv cpu us x100", 2),
    ("get_p50", 100000, "look-up us", 1),
    ("bytes_per_record", 100000, "bytes/record", 0),
    ("death", None, "death ms", 1),
]
# plain sockets: what the machine charges for the same message
FLOOR = {"seq_p50": "unix_rtt_p50", "seq_p99": "unix_rtt_p99"}


def read(path):
    rows = {}
    with open(path, encoding="utf-8") as raw:
        for line in raw:
            field = line.strip().split("|")
            if field[0] == "RAW" and len(field) == 6:
                key = (field[1], field[2], int(field[3]), field[5])
                rows.setdefault(key, []).append(float(field[4]))
    return rows


def print_results(rows):
    for (peer, metric, w, unit), values in rows.items():
        print(f"RESULT|{peer}|{metric}|{w}|{statistics.median(values):.6g}|{min(values):.6g}"
              f"|{max(values):.6g}|{unit}|n={len(values)}")


def cell(medians, peer, metric, w, decimals):
    names = [metric] + ([FLOOR[metric]] if peer == "floor" and metric in FLOOR else [])
    for (p, m, size), value in medians.items():
        if p == peer and m in names and (w is None or size == w):
            return f"{value:.{decimals}f}"
    return "-"


def print_table(rows):
    medians = {(p, m, w): statistics.median(v) for (p, m, w, _), v in rows.items()}
    peers = list(dict.fromkeys(key[0] for key in medians))
    lines = [["median of runs"] + peers]
    for metric, w, heading, decimals in MAIN:
        cells = [cell(medians, peer, metric, w, decimals) for peer in peers]
        if any(c != "-" for c in cells):
            lines.append([heading] + cells)
    widths = [max(len(line[i]) for line in lines) for i in range(len(peers) + 1)]
    print()
    for line in lines:
        print(line[0].ljust(widths[0]) + "".join("  " + c.rjust(w) for c, w in zip(line[1:], widths[1:])))


def main():
    rows = read(sys.argv[1])
    print_results(rows)
    print_table(rows)


main()
