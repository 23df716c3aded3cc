#!/usr/bin/env python3
"""Cost of the git runner: per call, and per byte of output.

1. Per call: `git_utils.run_git_command(root, ["rev-parse", "HEAD"])` against
   the floor (the same git command spawned and drained from C++, nothing
   decoded) and against the plain `subprocess.run(..., capture_output=True,
   encoding="utf-8", errors="replace", timeout=30)` a Python developer would
   write.  Targets: the library within 10% of the floor, and at least 1.4x
   faster than subprocess.run.

2. Per byte: a git alias that writes ~100 MB (`cat` of a prepared file) read
   through the library and through the floor (discarding, and keeping the
   output in memory).  The library's decode + line-end normalisation rate is
   the bytes over (library time - floor time).  Two inputs: ASCII with LF
   line ends (the common case), and CRLF text with non-ASCII characters,
   lone CRs and invalid UTF-8.
"""

from __future__ import annotations

import argparse
import os
import random
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

import common
from common import Floor, Report, fmt_ms, fmt_ratio, interleave, markdown_table, python_contender


def subprocess_run(root: Path, args: list[str]):
    return subprocess.run(["git", *args], cwd=str(root), capture_output=True,
                          encoding="utf-8", errors="replace", timeout=30)


def subprocess_run_bytes(root: Path, args: list[str]):
    return subprocess.run(["git", *args], cwd=str(root), capture_output=True, timeout=30)


def verdict(ok: bool) -> str:
    return "met" if ok else "NOT met"


# ---------------------------------------------------------------------------
# Per-call cost
# ---------------------------------------------------------------------------

PER_TURN = 10


def per_call_stats(git_utils, repo: Path, calls: int):
    args = ["rev-parse", "HEAD"]
    contenders = [Floor(repo, args, warm=True).contender("floor (C++ spawn+read)")]
    if git_utils is not None:
        contenders.append(python_contender("git_utils.run_git_command",
                                           lambda: git_utils.run_git_command(repo, args)))
        baseline = common.load_baseline()
        if baseline:
            contenders.append(python_contender(f"{baseline[0]}: git_utils.run_git_command",
                                               lambda m=baseline[1]: m.run_git_command(repo, args)))
    contenders.append(python_contender("subprocess.run (text)", lambda: subprocess_run(repo, args)))
    # Turns of 10, each opened by an untimed call: no timed call is the first
    # after another contender ran. Turns of 1 or 5 without that call moved the
    # ratios by up to 15% between runs, in either direction.
    return interleave(contenders, calls, per_turn=PER_TURN, warmup=5, warm_each_turn=True)


def spawn_only_stats(git_utils, repo: Path, calls: int):
    """The same contenders with `git` on PATH pointing at /bin/true: the cost of starting a process
    and collecting its (empty) output, without git's own start-up."""
    true = shutil.which("true")
    if true is None:
        return None
    shim = Path(tempfile.mkdtemp(prefix="git_utils_bench_"))
    (shim / "git").symlink_to(true)
    saved = os.environ["PATH"]
    os.environ["PATH"] = f"{shim}{os.pathsep}{saved}"
    try:
        return per_call_stats(git_utils, repo, calls)
    finally:
        os.environ["PATH"] = saved
        shutil.rmtree(shim)


def per_call(report: Report, git_utils, repo: Path, calls: int) -> None:
    stats = per_call_stats(git_utils, repo, calls)
    by_name = {s.name: s for s in stats}
    floor, sub = by_name["floor (C++ spawn+read)"], by_name["subprocess.run (text)"]

    lines = [f"`git rev-parse HEAD` in the synthetic repository, {calls} calls per contender, "
             f"interleaved in turns of {PER_TURN}, each turn opened by an untimed call.", "",
             common.stats_table(stats, baseline=floor.name)]
    report.data["per_call"] = [s.as_json() for s in stats]
    if git_utils is not None:
        lib = by_name["git_utils.run_git_command"]
        lib_floor = lib.median / floor.median
        sub_lib = sub.median / lib.median
        lines += ["",
                  f"- library / floor = {fmt_ratio(lib_floor)} (target <= 1.10x: {verdict(lib_floor <= 1.10)}); "
                  f"library overhead over the floor {fmt_ms(lib.median - floor.median)} ms per call",
                  f"- subprocess.run / library = {fmt_ratio(sub_lib)} "
                  f"(target >= 1.40x: {verdict(sub_lib >= 1.40)})"]
        report.data["per_call_ratios"] = {"lib_over_floor": lib_floor, "subprocess_over_lib": sub_lib}
    else:
        lines += ["", f"- subprocess.run / floor = {fmt_ratio(sub.median / floor.median)} "
                      "(library not measured: extension not importable)"]
    spawn = spawn_only_stats(git_utils, repo, calls)
    if spawn is not None:
        report.data["spawn_only"] = [s.as_json() for s in spawn]
        lines += ["", "The same, with `git` on PATH pointing at `/bin/true`: what starting a process and "
                      "collecting its (empty) output costs each contender, without git's own start-up or "
                      "output; what a contender adds above this table's figure comes from waiting for and "
                      "reading git's output while git runs.", "",
                  common.stats_table(spawn, baseline=spawn[0].name)]
    report.add("\n".join(lines))


# ---------------------------------------------------------------------------
# Throughput
# ---------------------------------------------------------------------------

def _make_ascii(rng: random.Random, size: int) -> bytes:
    words = ("alpha beta gamma delta value index count buffer cache parse token render "
             "commit branch merge tree blob path diff patch hunk line span").split()
    out = bytearray()
    while len(out) < size:
        line = " ".join(rng.choice(words) for _ in range(rng.randint(2, 14)))
        out += (rng.choice("+- ") + line + "\n").encode()
    return bytes(out[:size])


def _make_mixed(rng: random.Random, size: int) -> bytes:
    """CRLF text; ~5% of lines non-ASCII, ~1% with invalid UTF-8, ~0.5% with a lone CR."""
    words = ("alpha beta gamma delta value index count buffer cache parse token render "
             "commit branch merge tree blob path diff patch hunk line span").split()
    exotic = ["café", "naïve", "résumé été", "中文文件", "Ελληνικά", "emoji 😀", "Zoë O'Brien"]
    bad = [b"\xff", b"\xc3", b"\xe2\x82", b"\xed\xa0\x80", b"\xf0\x9f\x98", b"\x80\x80"]
    out = bytearray()
    while len(out) < size:
        line = " ".join(rng.choice(words) for _ in range(rng.randint(2, 14))).encode()
        x = rng.random()
        if x < 0.05:
            line += b" " + rng.choice(exotic).encode()
        elif x < 0.06:
            line += b" " + rng.choice(bad) + b" tail"
        elif x < 0.065:
            line += b"\rafter a lone CR"
        out += line + b"\r\n"
    return bytes(out[:size])


def corpus_file(kind: str, size: int) -> Path:
    path = common.OUT / "throughput" / f"{kind}-{size}.txt"
    if path.exists() and path.stat().st_size == size:
        return path
    path.parent.mkdir(parents=True, exist_ok=True)
    common.log(f"writing {path}")
    make = _make_ascii if kind == "ascii-lf" else _make_mixed
    path.write_bytes(make(random.Random(7), size))
    return path


def throughput(report: Report, git_utils, repo: Path, size: int, calls: int) -> None:
    rows = []
    notes = []
    report.data["throughput"] = {}
    for kind in ("ascii-lf", "mixed-crlf"):
        data_file = corpus_file(kind, size)
        args = ["-c", f"alias.bigout=!cat '{data_file}'", "bigout"]
        floor = Floor(repo, args)
        floor_keep = Floor(repo, args, keep=True)
        contenders = [floor.contender("floor"), floor_keep.contender("floor --keep")]
        if git_utils is not None:
            contenders.append(python_contender("library", lambda: git_utils.run_git_command(repo, args)))
        contenders.append(python_contender("subprocess.run (text)", lambda: subprocess_run(repo, args)))
        contenders.append(python_contender("subprocess.run (bytes)", lambda: subprocess_run_bytes(repo, args)))
        stats = {s.name: s for s in interleave(contenders, calls, per_turn=1, warmup=1)}
        report.data["throughput"][kind] = {name: s.as_json() for name, s in stats.items()}
        nbytes = floor.stdout_bytes
        gb = nbytes / 1e9

        def rate_over(s, base: str) -> str:
            extra = s.median - stats[base].median
            if s.name.startswith("floor") or extra <= 0:
                return "-"
            return f"{gb / extra:.2f}"

        def row(name: str) -> list[str]:
            s = stats[name]
            return [kind, name, fmt_ms(s.median), fmt_ms(s.p10), fmt_ms(s.p90),
                    f"{gb / s.median:.2f}", rate_over(s, "floor"), rate_over(s, "floor --keep")]

        for name in stats:
            rows.append(row(name))
        if git_utils is not None:
            lib_out = git_utils.run_git_command(repo, args)
            ref_out = subprocess_run(repo, args)
            same = (lib_out[0] == ref_out.stdout and lib_out[2] == ref_out.returncode)
            notes.append(f"- {kind}: library stdout identical to subprocess.run's text: {'yes' if same else 'NO'}; "
                         f"{len(ref_out.stdout):,} characters after decoding")
            del lib_out, ref_out

    lines = [f"A git alias that cats a {size / 1e6:.0f} MB file; {calls} calls per contender, interleaved. "
             "`floor` reads and discards, `floor --keep` keeps the output in memory (1 MiB blocks). "
             "GB/s total = bytes / median. GB/s over floor = bytes / (median - `floor` median): "
             "the rate of everything the caller does beyond spawning git and draining the pipes. "
             "GB/s over keep = bytes / (median - `floor --keep` median): the same beyond also holding "
             "the bytes in memory, i.e. decoding, CR handling and building the str.", "",
             markdown_table(["input", "contender", "median ms", "p10 ms", "p90 ms", "GB/s total",
                             "GB/s over floor", "GB/s over keep"], rows, "llrrrrrr")]
    if notes:
        lines += [""] + notes
    report.add("\n".join(lines))


def main() -> int:
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--allow-missing", action="store_true",
                    help="measure the other contenders when the extension cannot be imported")
    ap.add_argument("--calls", type=int, default=300, help="per-call benchmark: calls per contender")
    ap.add_argument("--mb", type=int, default=100, help="throughput input size in MB")
    ap.add_argument("--big-calls", type=int, default=9, help="throughput: calls per contender")
    ap.add_argument("--quick", action="store_true", help="small counts, for checking the script")
    opts = ap.parse_args()
    if opts.quick:
        opts.calls, opts.mb, opts.big_calls = 30, 10, 3

    git_utils = common.load_extension(opts.allow_missing)
    repo = common.synthetic_repo()
    common.floor_binary()
    report = Report("Git runner: per-call cost and output throughput")
    per_call(report, git_utils, repo, opts.calls)
    throughput(report, git_utils, repo, opts.mb * 1_000_000, opts.big_calls)
    report.write("bench_runner")
    return 0


if __name__ == "__main__":
    sys.exit(main())
