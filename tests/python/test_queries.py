# Repository queries, roots, branch names and period starts: exact git argument
# lists through a recording runner, and behaviour against real repositories.

import json
import logging
import os
import subprocess
import sys
import time
from datetime import datetime, timedelta
from pathlib import Path
from types import SimpleNamespace

import pytest

from conftest import commit, git
from vantrel_sorlith.utils import git_utils as g

LOGGER = "vantrel_sorlith.utils.git_utils"
NAMES = ["with space.txt", "tab\there.txt", 'quote"d.txt', "back\\slash.txt", "naïve é.txt"]
DATES = {"c1": "2024-01-01T12:00:00+00:00", "c2": "2024-01-15T12:00:00+00:00",
         "c3": "2024-02-01T12:00:00+00:00", "merge": "2024-03-01T12:00:00+00:00"}
STAMP = {k: int(datetime.fromisoformat(v).timestamp()) for k, v in DATES.items()}
THREE = "one\ntwo\nthree\n"


def commit_as(root, who, email, when):
    env = dict(os.environ, GIT_AUTHOR_NAME=who, GIT_AUTHOR_EMAIL=email, GIT_AUTHOR_DATE=when, GIT_COMMITTER_DATE=when)
    Path(root, "log.txt").open("a").write(f"{who} {when}\n")
    git(root, "add", "-A")
    subprocess.run(["git", "commit", "-q", "-m", who], cwd=root, env=env, check=True, capture_output=True)


def git_stderr(cwd, *args):
    return subprocess.run(["git", *args], cwd=cwd, capture_output=True, text=True).stderr.strip()


@pytest.fixture(scope="session")
def world(isolated_git, tmp_path_factory):
    base = tmp_path_factory.mktemp("world")

    def init(name, branch="main"):
        git(base, "init", "-q", "-b", branch, name)
        return base / name

    w = SimpleNamespace(outside=tmp_path_factory.mktemp("outside"), hist=init("hist"), wt=base / "wt", empty=init("empty"))
    guide, fifty = "".join(f"g{i}\n" for i in range(10)), "".join(f"{i}\n" for i in range(50))
    w.c1 = commit(w.hist, {"docs/guide.md": guide, "a.txt": THREE, "crlf.txt": b"a\r\nb\r\nc\r\n", "gone.txt": "bye\n",
                               "logo.bin": bytes(range(256)), "src.txt": fifty, **{n: THREE for n in NAMES}}, DATES["c1"])
    git(w.hist, "tag", "-a", "v1", "-m", "release", date=DATES["c1"])
    git(w.hist, "branch", "trunk")
    git(w.hist, "checkout", "-q", "-b", "feature")
    w.c3 = commit(w.hist, {"docs/guide.md": None, "guide/intro.md": guide, "crlf.txt": b"a\r\nB\r\nc\r\n",
                               "logo.bin": bytes(reversed(range(256))), "gone.txt": None, "copy.txt": fifty,
                               "new.txt": "n1\nn2\n", **{n: "one\nTWO\nthree\nfour\n" for n in NAMES}}, DATES["c3"])
    git(w.hist, "checkout", "-q", "main")
    w.c2 = commit(w.hist, {"a.txt": "one\n2\nthree\n"}, DATES["c2"])
    git(w.hist, "checkout", "-q", "-b", "integration")
    git(w.hist, "merge", "-q", "--no-ff", "-m", "merge", "feature", date=DATES["merge"])
    w.merge = git(w.hist, "rev-parse", "HEAD").strip()
    git(w.hist, "checkout", "-q", "main")
    git(w.hist, "worktree", "add", "-q", "--detach", str(w.wt), w.c1)  # detached HEAD, `.git` file

    for name in ["clone", "trunk_clone"]:
        git(base, "clone", "-q", str(w.hist), name)
    w.clone, w.trunk_clone = base / "clone", base / "trunk_clone"
    git(w.trunk_clone, "remote", "set-head", "origin", "trunk")
    git(w.trunk_clone, "branch", "master")
    w.master_only, w.both = init("master_only", "master"), init("both")
    for root in [w.master_only, w.both]:
        commit(root, {"f.txt": "x\n"}, DATES["c1"])
    git(w.both, "branch", "master")

    w.authors, now = init("authors"), int(time.time())
    for who, email, days in [("Old Timer", "old@example.com", 2000), ("Ada Tester", "ada@example.com", 5),
                             ("Bob Builder", "bob@example.com", 4), ("Ada Tester", "ada@example.com", 3),
                             ("Ada Tester", "ada@work.example", 2)]:
        commit_as(w.authors, who, email, f"@{now - days * 86400} +0000")
    return w


# --- Exact argument lists, through a recorder that replaces the runner ---

ROOT = Path("/some/repo")
OK, FAIL = ("", "", 0), ("", "fatal: nope\n", 128)
MOMENT = datetime(2026, 9, 1, 14, 5, 9, 750000)
PATCH = ["-c", "core.quotepath=off", "--literal-pathspecs", "diff", "--no-color", "--no-ext-diff", "--no-textconv",
         "--no-prefix", "-M", "-U0"]
LOG = ["log", "--since=2026-09-01 14:05:09", "--max-count=5", "--no-show-signature", "--format=%x1e%ct", "--raw",
       "--numstat", "-M", "-z"]
SYM, RPV = ["symbolic-ref", "refs/remotes/origin/HEAD"], ["rev-parse", "--verify"]


def install(module, answers, via="runner"):
    # Answers git runs from a list of triples (the last one repeats) and records them.
    rec = SimpleNamespace(calls=[], roots=[])

    def run(repo_root, args):
        rec.calls.append(list(args))
        rec.roots.append(repo_root)
        return answers[min(len(rec.calls), len(answers)) - 1]

    def output(repo_root, args):
        out, err, rc = run(repo_root, args)
        if rc != 0:
            raise g.GitError(err.strip())
        return out

    module.run_git_command = run
    if via == "checked":  # the strict queries then go straight to the replaced checked wrapper
        module._git_output = output
    return rec


# Only what real git cannot show: lenient readings of odd answers, the order of the
# fallbacks, dates before the year 1000, and which runner a strict query goes through.
@pytest.mark.parametrize("via", ["runner", "checked"])
@pytest.mark.parametrize("call, answers, calls, result", [
    (lambda: g.log_commit_changes(ROOT, since=MOMENT, ref="0123abc", max_commits=5), [OK], [LOG + ["0123abc"]], []),
    (lambda: g.diff_line_spans(ROOT, "main", "feature", merge_base=False, paths=["src/a.c", "b c"], diff_filter="MRA"),
     [OK], [PATCH + ["--diff-filter=MRA", "main", "feature", "--", "src/a.c", "b c"]], {}),
    (lambda: g.count_commits(ROOT, "main", "topic"), [("\n", "", 0)], [["rev-list", "--count", "main..topic"]], 0),
    (lambda: g.count_commits(ROOT, "x", "y"), [FAIL], [["rev-list", "--count", "x..y"]], g.GitError),
    (lambda: g.commit_before(ROOT, "-main", datetime(999, 1, 2, 3, 4, 5)), [("\n", "", 0)],
     [["rev-list", "-1", "--before=0999-01-02 03:04:05", "-main"]], None),
    (lambda: g.get_authors_for_period(ROOT, " 2026-09-01"), [("    12\tJane Roe <jane@x.org>\n", "", 0)],
     [["shortlog", "--since=2026-09-01 00:00:00", "-sne"]], [{"name": "Jane Roe", "email": "jane@x.org", "commits": 12}]),
    (lambda: g.get_authors_for_period(ROOT, "0d"), [OK], [], ValueError),
    (lambda: g.get_default_branch(ROOT), [("refs/heads/odd\n", "", 0)], [SYM], "refs/heads/odd"),
    (lambda: g.get_default_branch(ROOT), [(" \n", "", 0), FAIL, OK], [SYM, RPV + ["main"], RPV + ["master"]], "master"),
    (lambda: g.branch_exists(ROOT, "origin/x"), [FAIL], [RPV + ["origin/x"]], False),
])
def test_git_argument_lists(module_state, via, call, answers, calls, result):
    rec = install(module_state, answers, via)
    if result in (g.GitError, ValueError):
        with pytest.raises(result, match="^fatal: nope$" if result is g.GitError else "; got '0d'$"):
            call()
    else:
        assert call() == result
    assert rec.calls == calls and all(root is ROOT for root in rec.roots)


def test_paths_are_batched_by_characters_within_the_budget(module_state):
    module_state._MAX_PATHSPEC_CHARS = 10
    rec = install(module_state, [OK])
    paths = ("aaaa", "bbbb", "cc", "d" * 16, "e", "éééé", "f")
    expected = [["aaaa", "bbbb"], ["cc"], ["d" * 16], ["e", "éééé", "f"]]
    assert g._path_batches(paths) == expected
    assert g.diff_line_spans(ROOT, "a", "b", merge_base=True, paths=paths) == {}
    assert rec.calls == [PATCH + ["--diff-filter=MR", "a...b", "--", *batch] for batch in expected]
    module_state._path_batches = lambda paths: [["b"], ["a", "c"]]  # the host's own batches decide the commands
    g.diff_line_spans(ROOT, "a", "b", merge_base=True, paths=["a", "b", "c"])
    assert [args[args.index("--") + 1:] for args in rec.calls[len(expected):]] == [["b"], ["a", "c"]]


def test_later_batch_replaces_a_paths_spans_in_place_and_a_failing_one_stops_the_query(module_state):
    module_state._MAX_PATHSPEC_CHARS = 4
    rec = install(module_state, [("+++ x\n@@ -1 +1 @@\n-a\n+b\n+++ y\n@@ -0,0 +1 @@\n+n\n", "", 0),
                                 ("+++ x\n@@ -3 +5,2 @@\n-a\n+b\n+c\n", "", 0), OK, ("", "fatal: batch failed\n", 128), OK])
    spans = g.diff_line_spans(ROOT, "a", "b", merge_base=True, paths=["x", "y", "x"])
    assert list(spans.items()) == [("x", [g.LineSpan(5, 6, False)]), ("y", [g.LineSpan(1, 1, True)])]
    with pytest.raises(g.GitError, match="^fatal: batch failed$"):  # in the second of three batches
        g.diff_line_spans(ROOT, "main", "feature", merge_base=True, paths=["aaaa", "bbbb", "cccc"])
    assert len(rec.calls) == 4


# --- Queries against real git ---

def test_diff_file_changes_against_git(world):
    changes = g.diff_file_changes(world.hist, "main", "feature")
    expected = {g.FileChange("guide/intro.md", "renamed", 0, 0, "docs/guide.md"),
                g.FileChange("crlf.txt", "modified", 1, 1), g.FileChange("logo.bin", "modified", 0, 0),
                g.FileChange("gone.txt", "deleted", 0, 1), g.FileChange("copy.txt", "added", 50, 0),
                g.FileChange("new.txt", "added", 2, 0), *(g.FileChange(n, "modified", 2, 1) for n in NAMES)}
    assert set(changes) == expected and len(changes) == len(expected)
    order = git(world.hist, "diff", "--name-only", "-M", "-z", "main...feature").split("\0")[:-1]
    assert [c.path for c in changes] == order
    assert g.diff_file_changes(world.hist, "feature", world.c3) == []
    with pytest.raises(g.GitError) as info:
        g.diff_file_changes(world.hist, "main", "nope")
    assert str(info.value) == git_stderr(world.hist, "diff", "--raw", "main...nope") != ""


def test_log_commit_changes_against_git(world):
    early, late = datetime(2000, 1, 1), datetime(2030, 1, 1)
    head = g.log_commit_changes(world.hist, since=early, ref=None, max_commits=10)
    assert [c.timestamp for c in head] == [STAMP["c2"], STAMP["c1"]]
    assert head[0].files == (g.FileChange("a.txt", "modified", 1, 1),)
    merged = g.log_commit_changes(world.hist, since=early, ref=world.merge, max_commits=10)
    assert [c.timestamp for c in merged] == [STAMP["merge"], STAMP["c3"], STAMP["c2"], STAMP["c1"]]
    assert merged[0].files == ()
    since_c2 = datetime.fromtimestamp(STAMP["c2"])
    assert g.log_commit_changes(world.hist, since=since_c2, ref=world.merge, max_commits=10) == merged[:3]
    assert g.log_commit_changes(world.hist, since=early, ref="feature", max_commits=1) == [
        g.CommitChanges(STAMP["c3"], tuple(g.diff_file_changes(world.hist, "main", "feature")))]
    assert g.log_commit_changes(world.hist, since=late, ref=None, max_commits=10) == []
    with pytest.raises(g.GitError, match="nope"):
        g.log_commit_changes(world.hist, since=early, ref="nope", max_commits=1)


def test_diff_line_spans_against_git(world, module_state):
    changed = [g.LineSpan(2, 2, False), g.LineSpan(4, 4, True)]
    expected = {**{n: changed for n in NAMES}, "crlf.txt": [g.LineSpan(2, 2, False)]}
    assert g.diff_line_spans(world.hist, "main", "feature", merge_base=True) == expected
    two_dot = g.diff_line_spans(world.hist, "main", "feature", merge_base=False)
    assert two_dot == {**expected, "a.txt": [g.LineSpan(2, 2, False)]}
    assert g.diff_line_spans(world.hist, "main", "feature", merge_base=True, diff_filter="A") == {
        "copy.txt": [g.LineSpan(1, 50, True)], "new.txt": [g.LineSpan(1, 2, True)]}
    paths = [*reversed(NAMES), "logo.bin", "gone.txt", "guide/intro.md", "crlf.txt", "missing.txt", "*.txt"]
    real, runs = g.run_git_command, []
    module_state.run_git_command = lambda root, args: runs.append(args) or real(root, args)
    module_state._MAX_PATHSPEC_CHARS = 1
    spans = g.diff_line_spans(world.hist, "main", "feature", merge_base=True, paths=paths)
    assert len(runs) == len(paths) and spans == expected
    assert list(spans) == [*reversed(NAMES), "crlf.txt"]


def test_commit_resolution_against_git(world):
    full, short = git(world.hist, "rev-parse", "HEAD").strip(), g.get_head_commit(world.hist)
    assert (g.get_head_commit(world.hist, short=False), full.startswith(short), short != full) == (world.c2, True, True)
    assert (g.get_head_commit(world.empty), g.get_head_commit(world.empty, False)) == (None, None)
    tree = git(world.hist, "rev-parse", "main^{tree}").strip()
    names = ["v1", tree, "main^{tree}", "main:a.txt", "nope", "-h"]  # v1 an annotated tag: its commit, not itself
    assert [g.resolve_commit(world.hist, name) for name in names] == [world.c1] + [None] * 5
    pairs = [("main", "feature"), ("feature", world.merge), (world.merge, "main")]
    assert [g.count_commits(world.hist, base, head) for base, head in pairs] == [1, 2, 0]
    with pytest.raises(g.GitError):
        g.count_commits(world.hist, "nope", "main")
    # The fraction of a second is dropped, not rounded up to c2's second.
    at_c2 = datetime.fromtimestamp(STAMP["c2"])
    moments = [at_c2, at_c2 - timedelta(microseconds=1), datetime(2000, 1, 1)]
    assert [g.commit_before(world.hist, "main", moment) for moment in moments] == [world.c2, world.c1, None]
    with pytest.raises(g.GitError) as info:
        g.commit_before(world.hist, "nope", at_c2)
    assert str(info.value) == git_stderr(world.hist, "rev-list", "-1", "nope")


# The default branch, and the branch checked out (as the report shows it).
@pytest.mark.parametrize("where, default, checked_out", [
    ("clone", "main", "main"), ("trunk_clone", "trunk", "main"), ("master_only", "master", "master"),
    ("both", "main", "main"), ("hist", "main", "main"), ("wt", "main", None), ("empty", "main", "main"),
    ("outside", "main", None)])
def test_default_and_checked_out_branch(world, where, default, checked_out):
    root = getattr(world, where)
    got = (g.get_default_branch(root), g.resolve_display_branch(root), g.checked_out_branch(root))
    assert got == (default, checked_out, checked_out)


@pytest.mark.parametrize("where, name, expected", [
    ("hist", "feature", True), ("hist", "v1", True), ("hist", "{c1}", True), ("hist", "{c1}^{{tree}}", True),
    ("hist", "nope", False), ("hist", "origin/feature", False), ("clone", "feature", True),
    ("clone", "trunk", True), ("clone", "origin/feature", True), ("clone", "origin/nope", False),
    ("outside", "main", False)])
def test_branch_exists(world, where, name, expected):
    assert g.branch_exists(getattr(world, where), name.format(**vars(world))) is expected


AUTHORS = [{"name": "Ada Tester", "email": "ada@example.com", "commits": 2},
           {"name": "Ada Tester", "email": "ada@work.example", "commits": 1},
           {"name": "Bob Builder", "email": "bob@example.com", "commits": 1}]


def test_authors_of_a_period(world):
    assert {a["email"] for a in g.get_authors_for_period(world.authors, "2015-01-01")} == {
        "old@example.com", *(a["email"] for a in AUTHORS)}
    assert g.get_authors_for_period(world.authors, "1h") == []
    # git 2.39 reads an empty log from the (ending) standard input here and exits 0.
    assert g.get_authors_for_period(world.empty) == g.get_authors_for_period(world.outside) == []


@pytest.mark.parametrize("stdin", ["devnull", "closed", "silent pipe", "devnull, host start options"])
def test_authors_whatever_the_stdin(world, stdin):
    prog = ("import json, sys\nfrom vantrel_sorlith.utils import git_utils as g\n"
            + ("g.get_subprocess_hidden_kwargs = lambda: {'close_fds': True}\n" if "host" in stdin else "")
            + "print(json.dumps(g.get_authors_for_period(sys.argv[1])))")
    cmd = [sys.executable, "-c", prog, str(world.authors)]
    if stdin == "closed":
        cmd = ["bash", "-c", 'exec "$@" 0<&-', "bash", *cmd]
    proc = subprocess.Popen(cmd, stdin=subprocess.PIPE if stdin == "silent pipe" else subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        proc.wait(timeout=20)  # a hang guard, not a speed check; a silent pipe stays open meanwhile
    except subprocess.TimeoutExpired:
        proc.kill()
        pytest.fail(f"get_authors_for_period hung with stdin {stdin}")
    finally:
        proc.stdin and proc.stdin.close()
    out, err = proc.stdout.read(), proc.stderr.read()
    assert proc.returncode == 0, err
    authors = json.loads(out)
    assert sorted(authors, key=str) == sorted(AUTHORS, key=str) and authors[0] == AUTHORS[0]


@pytest.mark.parametrize("how", ["missing directory", "failing git"])
def test_authors_when_git_fails_log_one_debug_line(module_state, world, caplog, how):
    caplog.set_level(logging.DEBUG, logger=LOGGER)
    root = world.outside / "absent"
    if how == "failing git":
        install(module_state, [("", " fatal: bad object HEAD\n\n", 128)])
    assert g.get_authors_for_period(root) == []
    record = [r for r in caplog.records if r.name == LOGGER][-1]
    assert (record.levelno, record.msg) == (logging.DEBUG, "get_authors_for_period: git shortlog failed rc=%s stderr=%s")
    assert record.args == ((1, "git not found") if how == "missing directory" else (128, "fatal: bad object HEAD"))


# --- Roots and branch names ---

def test_find_git_root(world, tmp_path, monkeypatch):
    link = tmp_path / "link"
    link.symlink_to(world.hist)
    cases = [(world.hist / "docs", world.hist), (world.hist, world.hist), (world.wt / "docs", world.wt),
             (link / "docs", link), (Path(f"{world.hist}/docs/.."), Path(f"{world.hist}/docs/..")),
             (f"{world.hist}//docs/./", world.hist), (world.outside, None), ("a\0b", None), (Path("/x\0y"), None)]
    for start, expected in cases:
        found = g.find_git_root(start)
        assert found == expected and (found is None or type(found) is type(Path())), start
    assert str(g.find_git_root(Path(f"{world.hist}/docs/.."))).endswith("/docs/..")
    if not os.path.exists("/.git"):
        assert g.find_git_root(Path("/")) is None
    monkeypatch.chdir(world.hist)
    assert g.find_git_root(Path("docs")) == world.hist and g.find_git_root("docs").is_absolute()
    assert g.find_git_root() == g.find_repo_root() == world.hist
    monkeypatch.chdir(world.outside)
    assert g.find_git_root() is None and g.find_repo_root() == world.outside


def test_find_git_root_permission_denied_propagates(tmp_path):
    if os.geteuid() == 0:
        pytest.skip("root passes every permission check")
    locked = tmp_path / "locked"
    (locked / "sub").mkdir(parents=True)
    locked.chmod(0o000)
    with pytest.raises(PermissionError):
        g.find_git_root(locked / "sub")
    locked.chmod(0o755)


@pytest.mark.parametrize("name, expected", [
    (None, None), ("", None), ("   ", None), ("main", "main"), ("origin/main", "main"), ("refs/heads/main", "main"),
    ("refs/remotes/origin/main", "main"), ("remotes/origin/main", "main"), ("\t main \u3000", "main"),
    ("origin/origin/main", "main"), ("origin/refs/heads/x", "x"), ("refs/remotes/upstream/main", "upstream/main"),
    ("upstream/main", "upstream/main"), ("Origin/main", "Origin/main"), ("origin/", None), ("refs/heads/", None),
    ("origin/ main", " main"), ("feature/ä b", "feature/ä b")])
def test_normalize_branch_name(name, expected):
    assert g.normalize_branch_name(name) == expected


# --- Period starts (the core's own tables cover the forms, the calendar and the local clock) ---

# The messages quote what was passed as Python's repr() does.
@pytest.mark.parametrize("since, message", [
    *((v, "since must be {forms}; got {v!r}") for v in ["0d", " 0d ", "", "it's", "x\ty", "a'b\"c", "\u200b7d\xa0",
                                                      "back\\slash", "\udcff7d", "2026-02-30", "2026-09-01Z"]),
    *((v, "since {v!r} reaches outside the calendar") for v in ["800000w", "9" * 30 + "m", "0001-01-01T00:00:00+01:00"])])
def test_invalid_values(since, message):
    with pytest.raises(ValueError) as info:
        g.parse_time_spec(since)
    assert str(info.value) == message.format(forms=g.TIME_SPEC_FORMS, v=since)
    assert isinstance(info.value.__cause__, OverflowError) == ("calendar" in message)
