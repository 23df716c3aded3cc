#!/usr/bin/env python3
"""Run every benchmark and write bench/out/results.md.

    bench/run [--allow-missing] [--quick] [--only NAME ...]

Each benchmark runs in a fresh Python 3.12 interpreter (see common.which_python312)
and writes bench/out/<name>.md and <name>.json; this script stitches the
Markdown into bench/out/results.md under a header that names the machine,
git and Python.  The optional peers benchmark is skipped when its venv is
missing.
"""

from __future__ import annotations

import argparse
import os
import subprocess
import sys
import time

import common

BENCHMARKS = ["bench_runner", "bench_parsers", "bench_threads", "bench_queries", "bench_peers"]


def main() -> int:
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--allow-missing", action="store_true",
                    help="run without the extension (library columns left out)")
    ap.add_argument("--quick", action="store_true", help="small counts, for checking the scripts")
    ap.add_argument("--only", nargs="+", choices=BENCHMARKS, help="run only these")
    opts = ap.parse_args()

    python = common.which_python312()
    if python is None:
        raise SystemExit("no Python 3.12 found: set GIT_UTILS_PYTHON to its path")
    # Build shared inputs once, before any timing starts.
    repo = common.synthetic_repo()
    common.floor_binary()

    flags = [f for f, on in (("--allow-missing", opts.allow_missing), ("--quick", opts.quick)) if on]
    env = common.environment()
    env["python"] = subprocess.run([python, "-c", "import sys, platform; print(platform.python_version(), sys.executable)"],
                                   capture_output=True, text=True).stdout.strip()
    sections, failures = [], []
    for name in opts.only or BENCHMARKS:
        common.log(f"== {name}")
        t0 = time.perf_counter()
        proc = subprocess.run([python, str(common.BENCH / f"{name}.py"), *flags])
        took = time.perf_counter() - t0
        md = common.OUT / f"{name}.md"
        if proc.returncode == 0 and md.exists():
            sections.append(md.read_text(encoding="utf-8") + f"\n_{name}: {took:.0f} s_\n")
        elif proc.returncode == 3:  # the benchmark has nothing to measure here (optional peers)
            sections.append(f"## {name}\n\nSkipped: " + (md.read_text(encoding="utf-8").strip()
                                                         if md.exists() else "not available") + "\n")
        else:
            failures.append(name)
            sections.append(f"## {name}\n\nFAILED (exit code {proc.returncode}); see its output.\n")

    graph = "yes" if common.has_commit_graph(repo) else "no"
    header = [
        "# Benchmark results", "",
        "Written by `bench/run`; every figure in a table was measured in the same run, "
        "with the contenders of a table interleaved round-robin.", "",
        *(f"- {k}: {v}" for k, v in env.items()),
        f"- corpus: `make_synthetic_repo.py` defaults (main {common.SYNTHETIC_MAIN}, "
        f"feature {common.SYNTHETIC_FEATURE}); commit-graph: {graph}",
        f"- load average at end (1/5/15 min): {' / '.join(f'{x:.2f}' for x in os.getloadavg())} "
        f"(well above 0 means other work shared the CPUs; compare ratios, not absolute times)",
        f"- mode: {' '.join(flags) or 'full'}",
        "",
    ]
    out = common.OUT / "results.md"
    out.write_text("\n".join(header) + "\n" + "\n".join(sections), encoding="utf-8")
    common.log(f"wrote {out}")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
