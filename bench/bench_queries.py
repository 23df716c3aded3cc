#!/usr/bin/env python3
"""Repository queries end to end: the library against the floor and the plain-Python version.

For each query the same git command line(s) run three ways, interleaved:
  - the library call (`git_utils.<query>`),
  - the floor binary running exactly the git command(s) the query runs
    (spawn, drain, wait; no decoding, no parsing; several commands summed),
  - `reference.<query>`, the plain-Python implementation (subprocess.run + re).
Before timing, the library's answer is compared with the plain-Python answer.

`get_authors_for_period` runs `git shortlog` without a revision; git then
summarises HEAD only when its standard input is a terminal (otherwise it reads
a log from standard input).  This script therefore gives itself a
pseudo-terminal as standard input while it measures that query, which every
contender's git inherits.
"""

from __future__ import annotations

import argparse
import dataclasses
import os
import sys
import time
from contextlib import contextmanager
from datetime import datetime

import common
import reference
from common import Floor, Report, fmt_ms, fmt_ratio, interleave, markdown_table, python_contender

LOG_SINCE = datetime(2000, 1, 1)
LOG_MAX = 10_000
SPAN_PATHS = 5_000
AUTHORS_SINCE = "2015-01-01"


@contextmanager
def terminal_stdin():
    """A pseudo-terminal on file descriptor 0 for the duration (inherited by children)."""
    master, slave = os.openpty()
    saved = os.dup(0)
    os.dup2(slave, 0)
    try:
        yield
    finally:
        os.dup2(saved, 0)
        for fd in (saved, slave, master):
            os.close(fd)


def normalise(result):
    """Answers of either implementation in plain values, for comparison."""
    if dataclasses.is_dataclass(result) and not isinstance(result, type):
        return dataclasses.astuple(result)
    if isinstance(result, dict):
        return [(k, normalise(v)) for k, v in result.items()]
    if isinstance(result, (list, tuple)):
        return [normalise(v) for v in result]
    return result


def describe(result) -> str:
    if isinstance(result, dict):
        if result and isinstance(next(iter(result.values())), list):
            return f"{len(result):,} paths, {sum(len(v) for v in result.values()):,} spans"
        return f"{len(result):,} entries"
    if isinstance(result, list):
        if result and hasattr(result[0], "files"):
            return f"{len(result):,} commits, {sum(len(c.files) for c in result):,} files"
        if result and hasattr(result[0], "status"):
            return f"{len(result):,} files"
        return f"{len(result):,} items"
    return repr(result)


@dataclasses.dataclass
class Query:
    name: str
    call: str                   # how the call reads in the table
    run: object                 # callable(module) -> answer
    git_args: list[list[str]]   # the git command line(s) the query runs
    calls: int
    per_turn: int
    tty: bool = False


def queries(repo, quick: bool) -> list[Query]:
    short_n, long_n = (10, 2) if quick else (100, 5)
    since_arg = f"--since={LOG_SINCE:%Y-%m-%d %H:%M:%S}"
    paths = reference.run_git_command(
        repo, ["-c", "core.quotepath=off", "ls-tree", "-r", "-z", "--name-only", "feature"])[0].split("\0")[:-1]
    paths = paths[:SPAN_PATHS]
    span_base = ["-c", "core.quotepath=off", "--literal-pathspecs", "diff", *reference._PATCH_OPTIONS,
                 "--diff-filter=MR", "main...feature"]
    span_cmds = [[*span_base, "--", *batch] for batch in reference._path_batches(paths)]
    authors_iso = reference._git_date(reference.parse_time_spec(AUTHORS_SINCE))
    return [
        Query("get_head_commit", "get_head_commit(repo)", lambda m: m.get_head_commit(repo),
              [["rev-parse", "--short", "HEAD"]], short_n, 5),
        Query("resolve_commit", "resolve_commit(repo, 'v0.5')", lambda m: m.resolve_commit(repo, "v0.5"),
              [["rev-parse", "--verify", "--quiet", "v0.5^{commit}"]], short_n, 5),
        Query("branch_exists", "branch_exists(repo, 'feature')", lambda m: m.branch_exists(repo, "feature"),
              [["rev-parse", "--verify", "feature"]], short_n, 5),
        Query("get_default_branch", "get_default_branch(repo) (2 git runs)", lambda m: m.get_default_branch(repo),
              [["symbolic-ref", "refs/remotes/origin/HEAD"], ["rev-parse", "--verify", "main"]], short_n, 5),
        Query("count_commits", "count_commits(repo, 'main', 'feature')",
              lambda m: m.count_commits(repo, "main", "feature"),
              [["rev-list", "--count", "main..feature"]], short_n, 5),
        Query("diff_file_changes", "diff_file_changes(repo, 'main', 'feature')",
              lambda m: m.diff_file_changes(repo, "main", "feature"),
              [["diff", "--raw", "--numstat", "-M", "-z", "--no-textconv", "main...feature"]], max(long_n, 20), 2),
        Query("log_commit_changes", f"log_commit_changes(repo, ref='main', max_commits={LOG_MAX})",
              lambda m: m.log_commit_changes(repo, since=LOG_SINCE, ref="main", max_commits=LOG_MAX),
              [["log", since_arg, f"--max-count={LOG_MAX}", "--no-show-signature", "--format=%x1e%ct",
                "--raw", "--numstat", "-M", "-z", "main"]], long_n, 1),
        Query("diff_line_spans", f"diff_line_spans(main...feature, {len(paths):,} paths, "
                                 f"{len(span_cmds)} batches)",
              lambda m: m.diff_line_spans(repo, "main", "feature", merge_base=True, paths=paths),
              span_cmds, long_n, 1),
        Query("get_authors_for_period", f"get_authors_for_period(repo, '{AUTHORS_SINCE}')",
              lambda m: m.get_authors_for_period(repo, AUTHORS_SINCE),
              [["shortlog", f"--since={authors_iso}", "-sne"]], max(long_n, 10), 1, tty=True),
    ]


def measure(report: Report, git_utils, repo, quick: bool) -> None:
    baseline = common.load_baseline()
    rows, notes = [], []
    report.data["queries"] = {}
    for q in queries(repo, quick):
        common.log(f"  {q.name}")
        with (terminal_stdin() if q.tty else _nothing()):
            expected = q.run(reference)
            floor = Floor(repo, *q.git_args, warm=q.per_turn > 1)
            contenders = [floor.contender("floor")]
            same = "-"
            if git_utils is not None:
                same = "yes" if normalise(q.run(git_utils)) == normalise(expected) else "NO"
                contenders.append(python_contender("library", lambda q=q: q.run(git_utils)))
                if baseline:
                    contenders.append(python_contender(baseline[0], lambda q=q, m=baseline[1]: q.run(m)))
            contenders.append(python_contender("plain Python", lambda q=q: q.run(reference)))
            stats = {s.name: s for s in interleave(contenders, q.calls, per_turn=q.per_turn, warmup=1)}
        report.data["queries"][q.name] = {name: s.as_json() for name, s in stats.items()}
        f, p = stats["floor"].median, stats["plain Python"].median
        lib = stats["library"].median if "library" in stats else None
        row = [
            q.call, q.calls, fmt_ms(f),
            fmt_ms(lib) if lib is not None else "n/a",
            fmt_ms(p),
            fmt_ratio(lib / f) if lib is not None else "n/a",
            fmt_ratio(p / lib) if lib is not None else "n/a",
            fmt_ratio(p / f),
            same,
        ]
        if baseline and lib is not None:
            before = stats[baseline[0]].median
            row[4:4] = [fmt_ms(before), fmt_ratio(lib / before)]
        rows.append(row)
        notes.append(f"- {q.name}: {describe(expected)}; git wrote {floor.stdout_bytes:,} bytes"
                     + (f" over {len(q.git_args)} commands" if len(q.git_args) > 1 else "")
                     + f"; exit codes {sorted(floor.exit_codes)}")
    graph = "has a commit-graph" if common.has_commit_graph(repo) else "has no commit-graph (as after a clone)"
    report.add("\n".join([
        f"Synthetic repository ({repo.name}, main {common.SYNTHETIC_MAIN}, feature {common.SYNTHETIC_FEATURE}); "
        f"it {graph}. Medians in ms; contenders interleaved.", "",
        markdown_table(["query", "calls", "floor", "library"]
                       + ([baseline[0], f"library / {baseline[0]}"] if baseline else [])
                       + ["plain Python", "library / floor", "plain / library", "plain / floor", "same answer"],
                       rows, "lrrrrrrrc" + ("rr" if baseline else "")),
        "", "Answers:", *notes]))


@contextmanager
def _nothing():
    yield


def main() -> int:
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--allow-missing", action="store_true",
                    help="measure floor and plain Python when the extension cannot be imported")
    ap.add_argument("--quick", action="store_true", help="small counts, for checking the script")
    opts = ap.parse_args()

    git_utils = common.load_extension(opts.allow_missing)
    repo = common.synthetic_repo()
    common.floor_binary()
    report = Report("Repository queries: library, floor and plain Python")
    t0 = time.perf_counter()
    measure(report, git_utils, repo, opts.quick)
    common.log(f"bench_queries: {time.perf_counter() - t0:.0f} s")
    report.write("bench_queries")
    return 0


if __name__ == "__main__":
    sys.exit(main())
