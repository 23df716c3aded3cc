"""Many threads at once: same answers as one thread, and nothing left behind
(child processes, file descriptors)."""

import datetime
import os
import threading
from pathlib import Path

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
