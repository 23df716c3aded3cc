#!/usr/bin/env python3
"""Parsers on two threads at once: throughput of two threads each parsing
large outputs of the synthetic repository, against one thread alone.

With the GIL the scan runs without the lock but the records are built under
it, so two threads gain little; on a free-threaded build (3.13t, run with
PYTHON_GIL=0) both build their records at once. The inputs are those of
bench_parsers.py (the whole log of main, the raw diff and the patch of
v0.1..main). Rounds alternate one thread and two threads; each figure is the
median over rounds of parses per second, and the speed-up is the two-thread
figure over the one-thread figure. A loop of plain Python, measured the same
way first, shows what the cores allow at the time (other work on a shared
machine lowers it).

    .venv-ft/bin/python bench/bench_threads.py          # PYTHON_GIL=0 is set by the script
    .venv/bin/python bench/bench_threads.py             # the GIL build, for comparison
"""

from __future__ import annotations

import argparse
import os
import statistics
import sys
import threading
import time

if "PYTHON_GIL" not in os.environ and hasattr(sys, "_is_gil_enabled"):
    os.environ["PYTHON_GIL"] = "0"  # the module keeps it off; other imports must not turn it on
    os.execv(sys.executable, [sys.executable, *sys.argv])

import common
from bench_parsers import LOG_ARGS, PATCH_ARGS, RAW_ARGS, capture
from common import Report, markdown_table


def parses_per_second(parse, text, threads: int, per_thread: int) -> float:
    start = threading.Barrier(threads + 1)

    def work():
        start.wait()
        for _ in range(per_thread):
            parse(text)

    workers = [threading.Thread(target=work) for _ in range(threads)]
    for w in workers:
        w.start()
    start.wait()
    began = time.perf_counter()
    for w in workers:
        w.join()
    return threads * per_thread / (time.perf_counter() - began)


def main() -> int:
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--rounds", type=int, default=7)
    ap.add_argument("--per-thread", type=int, default=4, help="parses per thread and round")
    ap.add_argument("--quick", action="store_true")
    opts = ap.parse_args()
    if opts.quick:
        opts.rounds, opts.per_thread = 2, 1
    g = common.load_extension()
    repo = common.synthetic_repo()
    inputs = [("6.5 MB log of main", "parse_commit_changes", capture(repo, LOG_ARGS)),
              ("0.5 MB raw+numstat diff", "parse_file_changes", capture(repo, RAW_ARGS)),
              ("18 MB -U0 patch", "parse_line_spans", capture(repo, PATCH_ARGS))]
    gil = getattr(sys, "_is_gil_enabled", lambda: True)()
    report = Report(f"Parsers on two threads ({'GIL' if gil else 'no GIL'}, {sys.version.split()[0]})")
    # The ceiling the machine allows at the time: a loop of plain Python on two
    # threads against one (other work on the cores lowers it; so does a GIL).
    def spin(_):
        total = 0
        for i in range(2_000_000):
            total += i

    contenders = [("control: a Python loop", "", spin, None)]
    contenders += [(label, name, getattr(g, name), text) for label, name, text in inputs]
    one = {label: [] for label, *_ in contenders}
    two = {label: [] for label, *_ in contenders}
    for _, _, parse, text in contenders:
        parse(text)  # warm-up
    # Each round times every contender, one thread then two, so that the
    # control and the parsers meet the same conditions.
    for _ in range(opts.rounds):
        for label, _, parse, text in contenders:
            per_thread = opts.per_thread * (8 if "raw" in label else 1)  # the small input: more calls a round
            one[label].append(parses_per_second(parse, text, 1, per_thread))
            two[label].append(parses_per_second(parse, text, 2, per_thread))
    rows = [[label, f"`{name}`" if name else "", f"{statistics.median(one[label]):.1f}",
             f"{statistics.median(two[label]):.1f}", f"{statistics.median(two[label]) / statistics.median(one[label]):.2f}x"]
            for label, name, _, _ in contenders]
    report.data["rows"] = rows
    report.add(markdown_table(["input", "parser", "1 thread, parses/s", "2 threads, parses/s", "speed-up"], rows))
    report.write("bench_threads")
    return 0


if __name__ == "__main__":
    sys.exit(main())
