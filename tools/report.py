"""A report on a git repository, as a developer reads it every day.

    scripts/report [PATH] [--since WHEN] [--commits N] [--files N] [--json]

Where HEAD is and how far it is from the default branch and its upstream, the
state of the working tree, the files the branch changed since it left the
default branch (kinds, line counts, changed lines), and the authors and
commits of the period.
"""

import argparse
import json
import os
import shutil
import sys
import threading
import time

from vantrel_sorlith.utils import git_utils as g

from gitreport.gather import ReportError, gather, locate, set_read_only_environment
from gitreport.text import render


class Progress:
    """Shows on stderr what is running when a step takes longer than a second."""

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


def count(text):
    """A whole number of 0 or more, for --commits and --files."""
    try:
        value = int(text)
    except ValueError:
        value = -1
    if value < 0:
        raise argparse.ArgumentTypeError(f"expected a whole number of 0 or more, got {text!r}")
    return value


def parse_args(argv):
    parser = argparse.ArgumentParser(
        prog="report",
        description="A report on the git repository that PATH is in: branch, base, working tree, "
        "files changed since leaving the default branch, authors and commits of the period.",
    )
    parser.add_argument("path", nargs="?", default=".", help="a directory or file inside the repository (default: .)")
    parser.add_argument(
        "--since", default="30d", metavar="WHEN", help="start of the period: 30m, 24h, 7d, 2w or an ISO date (default: 30d)"
    )
    parser.add_argument("--commits", type=count, default=10, metavar="N", help="commits of the period to list (default: 10; 0: none)")
    parser.add_argument("--files", type=count, default=50, metavar="N", help="changed files to list in the text (default: 50; 0: all)")
    parser.add_argument("--json", action="store_true", help="print every field as JSON (all files, full commit ids)")
    return parser.parse_args(argv)


def main(argv=None):
    args = parse_args(argv)
    # A terminal whose encoding cannot show a name gets escapes, not a traceback.
    sys.stdout.reconfigure(errors="backslashreplace")
    set_read_only_environment()
    progress = Progress(enabled=not args.json)
    try:
        since = g.parse_time_spec(args.since)
        span_files = 0 if args.json else args.files  # the text shows spans only for the files it lists
        doc = gather(locate(args.path), args.since, since, args.commits, span_files, progress.step)
    except ValueError as e:
        print(f"report: {e}", file=sys.stderr)
        return 2
    except ReportError as e:
        print(f"report: {e}", file=sys.stderr)
        return e.code
    except g.GitError as e:
        print(f"report: git failed: {str(e).splitlines()[0] if str(e) else 'no message'}", file=sys.stderr)
        return 1
    finally:
        progress.done()
    try:
        if args.json:
            # ASCII only: no control or bidirectional character reaches a terminal raw.
            json.dump(doc, sys.stdout, indent=2, ensure_ascii=True)
            print()
        else:
            columns = max(60, shutil.get_terminal_size((100, 24)).columns)
            sys.stdout.write(render(doc, columns, args.files))
        sys.stdout.flush()
    except BrokenPipeError:  # the reader (head, less) stopped early: not an error of the report
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
    return 0


if __name__ == "__main__":
    sys.exit(main())
