#!/usr/bin/env python3
"""Parser throughput: the library's parsers against the plain-Python ones, on real git output.

Inputs are captured once from the synthetic repository through the plain
runner (so they are decoded and line-end normalised exactly as the library's
runner hands them to its parsers):

- log:   `git log --no-show-signature --format=%x1e%ct --raw --numstat -M -z main`
         (the whole history of main)  -> parse_commit_changes
- raw:   `git diff --raw --numstat -M -z --no-textconv v0.1 main`  -> parse_file_changes
- patch: `git -c core.quotepath=off diff --no-color --no-ext-diff --no-textconv
         --no-prefix -M -U0 v0.1 main`  -> parse_line_spans

Each parser pair runs interleaved; both results are compared field by field
(`dataclasses.astuple`) before any figure is reported.

The record allocation floor, measured in the same interleaved run: allocating
from C (bench/alloc_floor.c) as many record instances as each parser returns,
with their values made beforehand. A second table shows what the same records
cost when made from a Python loop.
"""

from __future__ import annotations

import argparse
import dataclasses
import sys
import time

import common
import reference
from common import Report, fmt_ms, interleave, markdown_table, python_contender

LOG_ARGS = ["log", "--no-show-signature", "--format=%x1e%ct", "--raw", "--numstat", "-M", "-z", "main"]
RAW_ARGS = ["diff", "--raw", "--numstat", "-M", "-z", "--no-textconv", "v0.1", "main"]
PATCH_ARGS = ["-c", "core.quotepath=off", "diff", "--no-color", "--no-ext-diff", "--no-textconv",
              "--no-prefix", "-M", "-U0", "v0.1", "main"]


def capture(repo, args) -> str:
    stdout, stderr, rc = reference.run_git_command(repo, args, timeout=600)
    if rc != 0:
        raise SystemExit(f"git {' '.join(args)} failed: {stderr.strip()}")
    return stdout


def as_tuples(result):
    """A parser result in plain tuples, so records of either implementation compare."""
    if isinstance(result, dict):
        return [(path, [dataclasses.astuple(s) for s in spans]) for path, spans in result.items()]
    return [dataclasses.astuple(r) for r in result]


def count_records(kind: str, result) -> tuple[int, str]:
    if kind == "log":
        return len(result) + sum(len(c.files) for c in result), "records (commits + files)"
    if kind == "patch":
        return sum(len(v) for v in result.values()), "spans"
    return len(result), "files"


FIELDS = {"FileChange": ("path", "status", "additions", "deletions", "old_path"),
          "CommitChanges": ("timestamp", "files"), "LineSpan": ("start", "end", "added")}


def c_floor(git_utils, kind: str, result):
    """A callable that allocates from C as many record instances as `result` holds, with its values.

    The values exist beforehand, so the call times only making and filling the
    instances (object.__new__ and the generic setattr per field), which any
    native parser returning these dataclasses pays at the least.
    """
    af = common.alloc_floor_module()

    def rows(records):
        return [tuple(getattr(r, f) for f in FIELDS[type(r).__name__]) for r in records]

    if kind == "log":
        files = rows([f for c in result for f in c.files])
        commits = rows(result)
        fc, cc = git_utils.FileChange, git_utils.CommitChanges
        return lambda: (af.new_and_fill(fc, files, FIELDS["FileChange"]),
                        af.new_and_fill(cc, commits, FIELDS["CommitChanges"]))
    if kind == "patch":
        spans = rows([s for v in result.values() for s in v])
        return lambda: af.new_and_fill(git_utils.LineSpan, spans, FIELDS["LineSpan"])
    changes = rows(result)
    return lambda: af.new_and_fill(git_utils.FileChange, changes, FIELDS["FileChange"])


BASELINE = None  # (label, module) of another build measured beside this one


def parsers(report: Report, git_utils, repo, calls: int) -> dict[str, int]:
    inputs = {
        "log": (capture(repo, LOG_ARGS), "parse_commit_changes"),
        "raw": (capture(repo, RAW_ARGS), "parse_file_changes"),
        "patch": (capture(repo, PATCH_ARGS), "parse_line_spans"),
    }
    rows, notes, record_counts = [], [], {}
    report.data["parsers"] = {}
    for kind, (text, func) in inputs.items():
        mb = len(text.encode("utf-8")) / 1e6
        ref_fn = getattr(reference, func)
        expected = ref_fn(text)
        n, unit = count_records(kind, expected)
        record_counts[kind] = n
        if kind == "log":
            record_counts["log_files"] = sum(len(c.files) for c in expected)
        contenders = []
        floor_name = "C floor: allocate the records"
        if git_utils is not None:
            lib_fn = getattr(git_utils, func)
            got = lib_fn(text)
            same = as_tuples(got) == as_tuples(expected)
            notes.append(f"- {kind}: library result equal to the plain-Python result: {'yes' if same else 'NO'}")
            contenders.append(python_contender(f"git_utils.{func}", lambda f=lib_fn, t=text: f(t)))
            contenders.append(python_contender(floor_name, c_floor(git_utils, kind, got)))
            del got
            if BASELINE:
                label, other = BASELINE
                other_fn = getattr(other, func)
                contenders.append(python_contender(f"{label}: git_utils.{func}", lambda f=other_fn, t=text: f(t)))
        contenders.append(python_contender(f"reference.{func}", lambda f=ref_fn, t=text: f(t)))
        sep = "\n" if kind == "patch" else "\0"
        contenders.append(python_contender(f"str.split({sep!r}) only", lambda t=text, s=sep: t.split(s)))
        del expected
        stats = interleave(contenders, calls, per_turn=1, warmup=1)
        report.data["parsers"][kind] = {"mb": mb, "records": n, "unit": unit,
                                        "stats": [s.as_json() for s in stats]}
        ref_median = next(s.median for s in stats if s.name.startswith("reference."))
        floor_median = next((s.median for s in stats if s.name == floor_name), None)
        for s in stats:
            splitting = s.name.startswith("str.split")
            floor = s.name == floor_name
            rows.append([kind, f"{mb:.1f}", s.name, fmt_ms(s.median),
                         "-" if floor else f"{mb / s.median:.0f}",
                         "-" if splitting else f"{n / s.median / 1e6:.2f}",
                         "-" if splitting or floor else f"{ref_median / s.median:.2f}x",
                         "-" if splitting or floor_median is None else f"{s.median / floor_median:.2f}x"])
        notes_unit = f"- {kind}: {n:,} {unit}; {len(text):,} characters"
        notes.append(notes_unit)
    report.add("\n".join([
        f"Captured once from the synthetic repository; {calls} calls per contender, interleaved. "
        "MB = UTF-8 bytes of the input. `C floor` allocates from C as many record instances as the "
        "parser returns, with the same values already made (object.__new__ plus the generic setattr "
        "per field, bench/alloc_floor.c); `time / C floor` is a contender's time over that floor's. "
        "`str.split only` is the cost of merely cutting the text into tokens or lines in Python, "
        "for scale.", "",
        markdown_table(["input", "MB", "parser", "median ms", "MB/s", "M records/s", "speed-up vs plain",
                        "time / C floor"], rows, "lrlrrrrr"),
        "", *notes]))
    return record_counts


def allocation_floor(report: Report, git_utils, n: int, repeat: int) -> None:
    """Creating n FileChange records from Python, three ways."""
    FileChange = git_utils.FileChange if git_utils is not None else reference.FileChange
    source = "extension's" if git_utils is not None else "plain-Python (same dataclass shape)"
    fields = [(f"src/pkg{i % 37:02d}/module_{i:05d}.py", "modified", i % 50, i % 7, None) for i in range(n)]
    new = FileChange.__new__
    setattr_ = object.__setattr__

    def via_init():
        return [FileChange(p, s, a, d, o) for p, s, a, d, o in fields]

    def via_setattr():
        out = []
        for p, s, a, d, o in fields:
            r = new(FileChange)
            setattr_(r, "path", p)
            setattr_(r, "status", s)
            setattr_(r, "additions", a)
            setattr_(r, "deletions", d)
            setattr_(r, "old_path", o)
            out.append(r)
        return out

    def via_dict():
        out = []
        for p, s, a, d, o in fields:
            r = new(FileChange)
            r.__dict__.update(path=p, status=s, additions=a, deletions=d, old_path=o)
            out.append(r)
        return out

    def bare_new():
        return [new(FileChange) for _ in fields]

    def tuples_only():
        return [(p, s, a, d, o) for p, s, a, d, o in fields]

    # The three ways must build equal records, or the comparison is void.
    assert via_init() == via_setattr() == via_dict()
    contenders = [python_contender("FileChange(...) (dataclass __init__)", via_init),
                  python_contender("__new__ + 5 x object.__setattr__", via_setattr),
                  python_contender("__new__ + __dict__.update", via_dict),
                  python_contender("__new__ only (lower bound)", bare_new),
                  python_contender("5-tuples only (loop overhead)", tuples_only)]
    stats = interleave(contenders, repeat, per_turn=1, warmup=1)
    report.data["allocation_floor"] = {"n": n, "stats": [s.as_json() for s in stats]}
    loop = stats[-1].median
    rows = [[s.name, fmt_ms(s.median), f"{s.median / n * 1e9:.0f}",
             f"{(s.median - loop) / n * 1e9:.0f}" if s is not stats[-1] else "-",
             f"{n / s.median / 1e6:.2f}"] for s in stats]
    report.add("\n".join([
        f"### Record allocation floor\n\n{n:,} FileChange records (the {source} class; as many as the log "
        f"input yields), built in a Python loop; {repeat} runs each, interleaved.", "",
        markdown_table(["way", "median ms", "ns / record", "ns / record beyond the loop", "M records/s"],
                       rows, "lrrrr"), "",
        "A parser written in C that returns these dataclass instances pays at least the "
        "`__new__ only` cost per record (net of the loop), plus filling the instance dict; the Python "
        "loop itself (last row: unpacking and building a 5-tuple) is not part of what C code pays."]))


def main() -> int:
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--allow-missing", action="store_true",
                    help="measure the plain-Python parsers when the extension cannot be imported")
    ap.add_argument("--calls", type=int, default=7, help="calls per parser and input")
    ap.add_argument("--quick", action="store_true", help="small counts, for checking the script")
    opts = ap.parse_args()
    if opts.quick:
        opts.calls = 2

    git_utils = common.load_extension(opts.allow_missing)
    global BASELINE
    BASELINE = common.load_baseline()
    repo = common.synthetic_repo()
    report = Report("Parsers: library against plain Python")
    t0 = time.perf_counter()
    counts = parsers(report, git_utils, repo, opts.calls)
    allocation_floor(report, git_utils, counts["log_files"], max(opts.calls, 5))
    common.log(f"bench_parsers: {time.perf_counter() - t0:.0f} s")
    report.write("bench_parsers")
    return 0


if __name__ == "__main__":
    sys.exit(main())
