#!/usr/bin/env python3
"""The parsers of this build against other builds of the module, in one process.

The other builds are module files named by GIT_UTILS_BASELINE (several
separated by os.pathsep; labels from GIT_UTILS_BASELINE_LABEL, separated by
commas). Each round calls every build once on the same input, in an order
that rotates from round to round, so that load from other work falls on all
of them alike; the table gives each build's median and the median of its
per-round ratio to this build, and the same for the C floor of
bench_parsers.py (allocating the records from C, values made beforehand).

    GIT_UTILS_BASELINE=/tmp/old/git_utils.so python3.12 bench/bench_builds.py --rounds 60

`--save DIR` writes the three inputs there (for a profiler run of one
parser: `--parse KIND --input DIR` parses that input N times and exits).
"""

from __future__ import annotations

import argparse
import gc
import os
import statistics
import sys
import time
from pathlib import Path

import common
from bench_parsers import LOG_ARGS, PATCH_ARGS, RAW_ARGS, as_tuples, c_floor, capture

INPUTS = {"log": (LOG_ARGS, "parse_commit_changes"), "raw": (RAW_ARGS, "parse_file_changes"),
          "patch": (PATCH_ARGS, "parse_line_spans")}


def inputs(saved: str | None) -> dict[str, str]:
    if saved:
        return {k: (Path(saved) / f"{k}.txt").read_text(encoding="utf-8", errors="surrogatepass")
                for k in INPUTS}
    repo = common.synthetic_repo()
    return {k: capture(repo, args) for k, (args, _) in INPUTS.items()}


def main() -> int:
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--rounds", type=int, default=40)
    ap.add_argument("--only", nargs="*", choices=list(INPUTS), default=list(INPUTS))
    ap.add_argument("--input", help="read the inputs from this directory instead of git")
    ap.add_argument("--save", help="write the inputs to this directory and exit")
    ap.add_argument("--parse", choices=list(INPUTS), help="parse this input --rounds times with one build only")
    ap.add_argument("--build", type=int, default=0, help="with --parse: 0 for this build, 1 for the first other")
    opts = ap.parse_args()

    texts = inputs(opts.input)
    if opts.save:
        Path(opts.save).mkdir(parents=True, exist_ok=True)
        for k, t in texts.items():
            (Path(opts.save) / f"{k}.txt").write_text(t, encoding="utf-8", errors="surrogatepass")
        return 0
    builds = [("this build", common.load_extension())] + common.load_baselines()
    if opts.parse:
        fn = getattr(builds[opts.build][1], INPUTS[opts.parse][1])
        for _ in range(opts.rounds):
            fn(texts[opts.parse])
        return 0

    load = os.getloadavg()[0]
    print(f"| input | build | median ms | median ratio to this build |\n| :--- | :--- | ---: | ---: |")
    for kind in opts.only:
        text, func = texts[kind], INPUTS[kind][1]
        fns = [getattr(m, func) for _, m in builds]
        first = as_tuples(fns[0](text))
        for (label, _), fn in zip(builds[1:], fns[1:]):
            if as_tuples(fn(text)) != first:
                raise SystemExit(f"{kind}: {label} gives another result")
        # The C floor: allocating as many records, with their values made beforehand.
        labels = [label for label, _ in builds] + ["C floor (bench/alloc_floor.c)"]
        fns.append(c_floor(builds[0][1], kind, fns[0](text)))
        del first
        times = [[] for _ in labels]
        for r in range(opts.rounds):
            for k in range(len(labels)):
                i = (k + r) % len(labels)
                t0 = time.perf_counter()
                result = fns[i](text) if i < len(builds) else fns[i]()
                times[i].append(time.perf_counter() - t0)
                del result  # freed outside the timed call
                gc.collect()  # and no collection owed by one call falls into the next
        for i, label in enumerate(labels):
            ratio = statistics.median(t / t0 for t, t0 in zip(times[i], times[0]))
            print(f"| {kind} | {label} | {statistics.median(times[i]) * 1e3:.2f} | {ratio:.3f}x |")
    print(f"\n{opts.rounds} rounds; load average {load:.2f} at the start, {os.getloadavg()[0]:.2f} at the end")
    return 0


if __name__ == "__main__":
    sys.exit(main())
