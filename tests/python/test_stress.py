"""Many threads at once: same answers as one thread, and nothing left behind
(child processes, file descriptors, memory)."""

import datetime
import gc
import logging
import os
import sys
import threading
from pathlib import Path

import pytest

from vantrel_sorlith.utils import git_utils as g


def children():
    found = []
    for task in Path("/proc/self/task").iterdir():
        found += (task / "children").read_text().split()
    return found


def test_sixteen_threads_mixing_operations(repo, tmp_path):
    patch = "+++ a\n@@ -1,2 +1,3 @@\n-x\n-y\n+p\n+q\n+r\n" * 200
    log = "\x1e1700000000\0\n:100644 100644 a b M\0x.c\0" + "1\t2\tx.c\0"
    calls = [
        lambda: g.get_head_commit(repo),
        lambda: g.resolve_commit(repo, "main"),
        lambda: g.branch_exists(repo, "main"),
        lambda: g.get_default_branch(repo),
        lambda: g.diff_file_changes(repo, "main~1", "main"),
        lambda: g.log_commit_changes(repo, since=datetime.datetime(2000, 1, 1), ref=None, max_commits=5),
        lambda: g.diff_line_spans(repo, "main~1", "main", merge_base=False, diff_filter="AM"),
        lambda: g.get_authors_for_period(repo, "2000-01-01"),
        lambda: g.run_git_command(repo, ["-c", "alias.nap=!sleep 0.05; echo ok", "nap"]),
        lambda: g.run_git_command(tmp_path / "absent", ["status"]),
        lambda: g.parse_line_spans(patch),
        lambda: g.parse_commit_changes(log * 50),
        lambda: g.find_git_root(repo / "sub" / ".."),
    ]
    expected = [call() for call in calls]
    fds_before, children_before = sorted(os.listdir("/proc/self/fd")), children()
    failures = []

    def worker(seed):
        for i in range(40):
            k = (seed * 7 + i) % len(calls)
            got = calls[k]()
            if got != expected[k]:
                failures.append((k, got))

    threads = [threading.Thread(target=worker, args=(n,)) for n in range(16)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert failures == []
    assert children() == children_before == []
    assert sorted(os.listdir("/proc/self/fd")) == fds_before


# Calls that end in an exception as well as answers: a reference dropped on an
# error path is the usual leak.
FAILING_CALLS = {
    "missing-ref": lambda repo: g.resolve_commit(repo, "no-such-ref"),
    "git-fails": lambda repo: g._git_output(repo, ["rev-parse", "--verify", "no-such-ref"]),
    "bad-time": lambda repo: g.parse_time_spec("soon"),
    "bad-argument": lambda repo: g.run_git_command(repo, ["status", 1]),
    "surrogates": lambda repo: g._file_changes(["a\udcff", ":1 2 a b M", "p\udcff"]),
    "no-git-dir": lambda repo: g.run_git_command(repo / "absent", ["status"]),
}
ANSWERING_CALLS = {
    "log": lambda repo: g.log_commit_changes(repo, since=datetime.datetime(2000, 1, 1), ref=None, max_commits=5),
    "spans": lambda repo: g.diff_line_spans(repo, "main~1", "main", merge_base=False, diff_filter="AM"),
    "changes": lambda repo: g.diff_file_changes(repo, "main~1", "main"),
    "authors": lambda repo: g.get_authors_for_period(repo, "2000-01-01"),
    "parse-log": lambda repo: g.parse_commit_changes("\x1e1700000000\0\n:100644 100644 a b M\0x.c\0" + "1\t2\tx.c\0"),
    "unquote": lambda repo: g._unquote('"caf\\303\\251\\n"'),
}


@pytest.mark.skipif(sys.getallocatedblocks() == 0, reason="objects are not counted (PYTHONMALLOC=malloc)")
@pytest.mark.parametrize("call", [*FAILING_CALLS.values(), *ANSWERING_CALLS.values()],
                         ids=[*FAILING_CALLS, *ANSWERING_CALLS])
def test_repeated_calls_leave_no_objects_behind(repo, call, monkeypatch):
    # Counts the interpreter's live blocks over two runs of 100 calls after a
    # warm-up: a leak of one object a call grows both by at least 100, while
    # caches and free lists fill once. This sees leaked lists, tuples and
    # records, which stay linked in the cyclic GC's lists and so look reachable
    # to LeakSanitizer in the sanitized run.
    monkeypatch.setattr(g.logger, "propagate", False)  # pytest keeps every record
    monkeypatch.setattr(g.logger, "handlers", [logging.NullHandler()])

    def grown(n):
        gc.collect()
        before = sys.getallocatedblocks()
        for _ in range(n):
            try:
                call(repo)
            except (ValueError, TypeError, g.GitError):
                pass
        gc.collect()
        return sys.getallocatedblocks() - before

    grown(20)
    assert min(grown(100), grown(100)) < 50
