"""Repositories with damaged objects and references: each query answers as on
the sound repository, or fails the documented way (the lenient answer, or
GitError carrying git's own message), and none waits for its time limit."""

import os
import shutil
from datetime import datetime

import pytest

from conftest import commit_file, git
from vantrel_sorlith.utils import git_utils as g


def object_file(root, rev):
    sha = git(root, "rev-parse", rev).strip()
    path = root / ".git" / "objects" / sha[:2] / sha[2:]
    os.chmod(path, 0o644)
    return path


def truncate_blob(root):
    path = object_file(root, "HEAD:a.txt")
    path.write_bytes(path.read_bytes()[: path.stat().st_size // 2])


def break_packed_ref(root):
    git(root, "pack-refs", "--all")
    (root / ".git" / "packed-refs").write_text("# pack-refs with: peeled fully-peeled sorted \nnot a ref line\n")


QUERIES = {
    "get_head_commit": g.get_head_commit,
    "resolve_commit": lambda r: g.resolve_commit(r, "main"),
    "resolve_display_branch": g.resolve_display_branch,
    "get_default_branch": g.get_default_branch,
    "branch_exists": lambda r: g.branch_exists(r, "main"),
    "get_authors_for_period": lambda r: g.get_authors_for_period(r, "3650d"),
    "count_commits": lambda r: g.count_commits(r, "main~2", "main"),
    "commit_before": lambda r: g.commit_before(r, "main", datetime(2030, 1, 1)),
    "diff_file_changes": lambda r: g.diff_file_changes(r, "main~2", "main"),
    "log_commit_changes": lambda r: g.log_commit_changes(r, since=datetime(2000, 1, 1), ref=None, max_commits=10),
    "diff_line_spans": lambda r: g.diff_line_spans(r, "main~2", "main", merge_base=True),
}
LENIENT = {"get_head_commit": None, "resolve_commit": None, "resolve_display_branch": None,
           "get_default_branch": "main", "branch_exists": False, "get_authors_for_period": []}
READ_FILES = {"diff_file_changes", "log_commit_changes", "diff_line_spans"}
READ_HISTORY = READ_FILES | {"resolve_commit", "count_commits", "commit_before", "get_authors_for_period"}
ALL_BUT_DEFAULT = set(QUERIES) - {"get_default_branch"}  # its last fallback is "main" anyway

# damage -> the queries that cannot answer as on the sound repository
DAMAGE = {
    "loose blob truncated": (truncate_blob, READ_FILES),
    "HEAD's commit missing": (lambda root: object_file(root, "HEAD").unlink(), READ_HISTORY),
    "packed-refs line broken": (break_packed_ref, ALL_BUT_DEFAULT),
    "HEAD file garbled": (lambda root: (root / ".git" / "HEAD").write_text("garbage\n"), ALL_BUT_DEFAULT),
}


@pytest.fixture(scope="module")
def repos(isolated_git, tmp_path_factory):
    base = tmp_path_factory.mktemp("damaged")
    sound = base / "sound"
    git(base, "init", "-q", "-b", "main", "sound")
    commit_file(sound, "a.txt", "one\ntwo\nthree\n", "first")
    commit_file(sound, "a.txt", "one\n2\nthree\nfour\n", "second", date="2024-01-02T12:00:00+00:00")
    commit_file(sound, "b.txt", "b\n", "third", date="2024-01-03T12:00:00+00:00")
    made = {"sound": sound}
    for name, (damage, _) in DAMAGE.items():
        root = base / name.replace(" ", "_").replace("'", "")
        shutil.copytree(sound, root)
        damage(root)
        made[name] = root
    return made


@pytest.mark.parametrize("query", QUERIES)
@pytest.mark.parametrize("damage", DAMAGE)
def test_damaged_repository(repos, damage, query):
    ask = QUERIES[query]
    if query not in DAMAGE[damage][1]:
        assert ask(repos[damage]) == ask(repos["sound"])
    elif query in LENIENT:
        assert ask(repos[damage]) == LENIENT[query]
    else:
        with pytest.raises(g.GitError) as info:
            ask(repos[damage])
        message = str(info.value)
        assert message == message.strip() and message != "Command timed out"
        assert message.split(":")[0] in ("error", "fatal", "warning"), message  # git's own words
