"""A report on a git repository, as the host application shows it.

    scripts/report [PATH] [--since WHEN] [--commits N] [--json]

Root, current and default branch, HEAD, commits ahead of the default branch,
files changed since leaving it (kinds, line counts, changed-line spans),
authors of the period and the latest commits with their file counts.
"""

import argparse
import dataclasses
import json
import sys
import threading
import time
from pathlib import Path

from vantrel_sorlith.utils import git_utils as g


class Progress:
    """Shows what is running on stderr when a step takes longer than a second."""

    def __init__(self, enabled):
        self.enabled = enabled and sys.stderr.isatty()
        self.label = None
        self.started = 0.0
        self.stop = threading.Event()
        if self.enabled:
            threading.Thread(target=self._spin, daemon=True).start()

    def step(self, label):
        self.label, self.started = label, time.monotonic()

    def _spin(self):
        frames = "|/-\\"
        i = 0
        while not self.stop.wait(0.2):
            if self.label and time.monotonic() - self.started > 1.0:
                sys.stderr.write(f"\r{frames[i % 4]} {self.label}...   ")
                sys.stderr.flush()
                i += 1

    def done(self):
        self.stop.set()
        if self.enabled:
            sys.stderr.write("\r" + " " * 60 + "\r")


def gather(root, since_spec, max_commits, progress):
    since = g.parse_time_spec(since_spec)
    progress.step("reading branches")
    default = g.get_default_branch(root)
    current = g.checked_out_branch(root)
    head = g.get_head_commit(root)
    report = {
        "root": str(root),
        "branch": current,
        "default_branch": default,
        "head": head,
        "since": since.isoformat(sep=" ", timespec="seconds"),
    }
    has_base = head is not None and g.resolve_commit(root, default) is not None
    report["ahead"] = g.count_commits(root, default, "HEAD") if has_base else None
    changes, spans = [], {}
    if has_base:
        progress.step(f"diffing against {default}")
        changes = g.diff_file_changes(root, default, "HEAD")
        paths = [c.path for c in changes if c.status in ("modified", "renamed")]
        if paths:
            progress.step("reading changed lines")
            spans = g.diff_line_spans(root, default, "HEAD", merge_base=True, paths=paths)
    report["changes"] = [
        dict(dataclasses.asdict(c), spans=[[s.start, s.end, s.added] for s in spans.get(c.path, [])])
        for c in changes
    ]
    progress.step("counting authors")
    report["authors"] = g.get_authors_for_period(root, since_spec)
    commits = []
    if head is not None:
        progress.step("reading history")
        commits = g.log_commit_changes(root, since=since, ref=None, max_commits=max_commits)
    report["commits"] = [{"timestamp": c.timestamp, "files": len(c.files)} for c in commits]
    return report


def spans_text(spans, limit=4):
    parts = [f"{a}" if a == b else f"{a}-{b}" for a, b, _ in spans[:limit]]
    return ", ".join(parts) + (f" (+{len(spans) - limit})" if len(spans) > limit else "")


def print_text(r):
    print(f"Repository  {r['root']}")
    print(f"Branch      {r['branch'] or '(detached HEAD)'}   default: {r['default_branch']}")
    print(f"HEAD        {r['head'] or '(no commits yet)'}")
    if r["ahead"] is not None:
        print(f"Ahead       {r['ahead']} commit(s) of {r['default_branch']}")
    print(f"\nFiles changed since leaving {r['default_branch']}: {len(r['changes'])}")
    if r["changes"]:
        width = min(60, max(len(c["path"]) for c in r["changes"]))
        print(f"  {'status':9} {'+':>6} {'-':>6}  {'path':{width}}  lines")
        for c in r["changes"]:
            path = c["path"] if c["old_path"] is None else f"{c['old_path']} -> {c['path']}"
            print(f"  {c['status']:9} {c['additions']:>6} {c['deletions']:>6}  {path:{width}}  {spans_text(c['spans'])}")
    print(f"\nAuthors since {r['since']}: {len(r['authors'])}")
    for a in r["authors"]:
        print(f"  {a['commits']:>6}  {a['name']} <{a['email']}>")
    print(f"\nLatest commits since {r['since']}: {len(r['commits'])}")
    for c in r["commits"]:
        when = time.strftime("%Y-%m-%d %H:%M", time.localtime(c["timestamp"]))
        print(f"  {when}  {c['files']:>4} file(s)")


def main(argv=None):
    parser = argparse.ArgumentParser(description="A report on a git repository.")
    parser.add_argument("path", nargs="?", default=".", help="a directory inside the repository (default: .)")
    parser.add_argument("--since", default="30d", help="start of the period: 30m, 24h, 7d, 2w or an ISO date (default: 30d)")
    parser.add_argument("--commits", type=int, default=10, help="how many recent commits to list (default: 10)")
    parser.add_argument("--json", action="store_true", help="print JSON instead of tables")
    args = parser.parse_args(argv)

    root = g.find_git_root(Path(args.path))
    if root is None:
        print(f"report: {args.path}: not inside a git repository", file=sys.stderr)
        return 2
    progress = Progress(enabled=not args.json)
    try:
        report = gather(root, args.since, args.commits, progress)
    except ValueError as e:
        print(f"report: {e}", file=sys.stderr)
        return 2
    except g.GitError as e:
        print(f"report: git failed: {str(e).splitlines()[0]}", file=sys.stderr)
        return 1
    finally:
        progress.done()
    if args.json:
        json.dump(report, sys.stdout, indent=2, ensure_ascii=False)
        print()
    else:
        print_text(report)
    return 0


if __name__ == "__main__":
    sys.exit(main())
