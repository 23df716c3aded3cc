# The report command on every checkout shape, checked against git's own answers,
# and its text output for escaping and column widths.

import json
import os
import re
import subprocess
import sys
import unicodedata
from pathlib import Path

import pytest

from conftest import commit, git

REPORT = Path(__file__).resolve().parents[2] / "tools" / "report.py"
SINCE = "2023-01-01"
D1, D2, D3 = "2024-01-01T12:00:00+00:00", "2024-01-02T12:00:00+00:00", "2024-01-03T12:00:00+00:00"
LONG = "deep/" + "d" * 90 + "/end.txt"
ODD = ["esc\x1b[31mred.txt", "new\nline.txt", "tab\tcol.txt", "rtl\u202eevil.txt", "漢字ファイル名.txt", "e\u0301accent.txt", "with space.txt", LONG]
CLEAN = {"staged": 0, "unstaged": 0, "untracked": 0, "conflicted": 0}


def columns(text):
    # Terminal columns of a line: East Asian wide characters take 2, combining marks 0.
    return sum(0 if unicodedata.combining(c) else 2 if unicodedata.east_asian_width(c) in "WF" else 1 for c in text)


def report(path, *args, env=None):
    return subprocess.run([sys.executable, str(REPORT), *args, str(path)], capture_output=True, text=True, env=env,
                          timeout=120)


def numbered(n, changed=()):
    return "".join(f"{'changed' if i in changed else 'line'} {i}\n" for i in range(1, n + 1))


def main_repo(tmp):
    git(tmp, "init", "-q", "-b", "main", "origin")
    commit(tmp / "origin", {"a.txt": numbered(20)}, D1, "first")
    commit(tmp / "origin", {"b.txt": numbered(5)}, D2, "second")
    return tmp / "origin"


# Each shape builds a repository in a temporary directory and returns the path to
# report on and the facts that the shape fixes; the rest is compared with git.
def odd_names(tmp):
    root = main_repo(tmp)
    commit(root, dict.fromkeys(ODD, numbered(3)), D2, "odd names")
    commit(root, {name.replace("with", "moved"): numbered(3, changed={2}) for name in ODD}, D3,
           "edit line 2 of each, move one", [("checkout", "-q", "-b", "odd"), ("mv", "with space.txt", "moved space.txt")])
    return root, {"ahead": 1, "files": len(ODD), "spans": [{"start": 2, "end": 2, "added": False}],
                  "renamed": [("with space.txt", "moved space.txt")]}


def shallow(tmp):
    commit(main_repo(tmp), {"c.txt": "c\n"}, D3, "third")
    git(tmp, "clone", "-q", "--depth", "2", f"file://{tmp / 'origin'}", "shallow")
    return tmp / "shallow", {"shallow": True, "boundary": 1, "note": "shallow clone"}


def bare(tmp):
    git(tmp, "clone", "-q", "--bare", str(main_repo(tmp)), "bare.git")
    return tmp / "bare.git", {"bare": True, "tree": None}


def detached(tmp):
    root = main_repo(tmp)
    commit(root, {"c.txt": "c\n"}, D3, "third")
    git(root, "checkout", "-q", "--detach", "HEAD~1")
    for name, text in {"b.txt": "staged\n", "a.txt": "unstaged\n", "new1.txt": "1\n", "sub/new2.txt": "2\n"}.items():
        Path(root, name).parent.mkdir(exist_ok=True)
        Path(root, name).write_text(text)
    git(root, "add", "b.txt")
    return root, {"branch": None, "behind": 1, "tree": dict(CLEAN, staged=1, unstaged=1, untracked=2)}


def unrelated_history(tmp):
    root = main_repo(tmp)
    commit(root, {}, D3, "a history of its own", [("checkout", "-q", "--orphan", "other")])
    return root, {"ahead": 1, "behind": 2, "files": 0, "note": "no common history"}


def git_or_none(root, *args):
    done = subprocess.run(["git", *args], cwd=root, capture_output=True)
    return done.stdout.decode().strip() if done.returncode == 0 else None


@pytest.mark.parametrize("shape", [odd_names, shallow, bare, detached, unrelated_history])
def test_json_matches_git(tmp_path, shape):
    path, want = shape(tmp_path)
    index = Path(path, ".git", "index")
    if Path(path, "a.txt").exists():
        os.utime(path / "a.txt", (1, 1))  # stat-dirty: a plain git status would rewrite the index
    before = index.read_bytes() if index.exists() else None
    done = report(path, "--json", "--since", SINCE)
    assert done.returncode == 0, done.stderr
    r = json.loads(done.stdout)
    assert (index.read_bytes() if index.exists() else None) == before

    assert r["schema"] == 1 and re.search(r"[+-]\d\d:\d\d$|Z$", r["since"])
    assert (r["bare"], r["shallow"]) == (want.get("bare", False), want.get("shallow", False))
    assert r["branch"] == want.get("branch", git_or_none(path, "branch", "--show-current"))
    assert r["working_tree"] == want.get("tree", CLEAN)
    notes = " ".join(r["notes"])
    assert want["note"] in notes if "note" in want else notes == ""
    assert r["head"]["id"] == git_or_none(path, "rev-parse", "--verify", "-q", "HEAD")
    log = git(path, "log", f"--since={SINCE}", "-n", "10", "--format=%H").split()
    assert [c["id"] for c in r["commits"]] == log
    assert r["commits_in_period"] == int(git(path, "rev-list", "--count", f"--since={SINCE}", "HEAD"))
    shallow_ids = set(Path(r["git_dir"], "shallow").read_text().split()) if r["shallow"] else set()
    assert {c["id"] for c in r["commits"] if c["shallow_boundary"]} == shallow_ids
    assert len(shallow_ids) == want.get("boundary", 0)

    base = r["base"]
    assert (base["name"], base["kind"]) == ("main", "local")
    assert base["id"] == git_or_none(path, "rev-parse", base["name"])
    counts = [int(git(path, "rev-list", "--count", revs)) for revs in (f"{base['name']}..HEAD", f"HEAD..{base['name']}")]
    assert [base["ahead"], base["behind"]] == counts == [want.get("ahead", counts[0]), want.get("behind", counts[1])]
    three_dots = subprocess.run(["git", "diff", "--name-only", "-z", "-M", f"{base['name']}...HEAD"], cwd=path, capture_output=True)
    assert base["common_history"] == (three_dots.returncode == 0)
    names = three_dots.stdout.decode().split("\0")[:-1]
    assert [c["path"] for c in r["changes"]] == names and len(names) == want.get("files", len(names))
    assert r["totals"]["additions"] == sum(c["additions"] for c in r["changes"])
    assert [(c["old_path"], c["path"]) for c in r["changes"] if c["old_path"]] == want.get("renamed", [])
    if "spans" in want:
        assert all(c["spans"] == want["spans"] for c in r["changes"])


def test_text_escapes_names_and_keeps_columns(tmp_path):
    root, _ = odd_names(tmp_path)
    done = report(root, "--since", SINCE, env=dict(os.environ, COLUMNS="100"))
    assert done.returncode == 0, done.stderr
    out = done.stdout
    assert not [ch for ch in out if ch != "\n" and unicodedata.category(ch) in ("Cc", "Cf")]
    # names git quotes (control characters) are printed exactly as git quotes them
    quoted = git(root, "-c", "core.quotepath=off", "diff", "--name-only", "main...HEAD").splitlines()
    assert [name for name in quoted if name.startswith('"') and name not in out] == []
    assert '"rtl\\342\\200\\256evil.txt"' in out
    rows = [line for line in out.splitlines() if line.startswith(("  modified", "  renamed"))]
    assert len(rows) == len(ODD) and "with space.txt -> moved space.txt" in out
    # every row ends with its one span "2"; equal display widths mean aligned columns
    assert {columns(row) for row in rows} == {columns(rows[0])} and all(row.endswith("  2") for row in rows)
    cut = [row for row in rows if "\u2026" in row]
    assert len(cut) == 1 and "deep/ddd" in cut[0] and "ddd/end.txt" in cut[0]
    assert columns(rows[0]) <= 100


def test_quiet_period_says_so_and_names_the_latest_date(tmp_path):
    root = main_repo(tmp_path)
    out = report(root).stdout  # default period: the last 30 days, long after 2024
    assert "Commits since" in out and ": none. The latest commit is from 2024-01-0" in out
    assert re.search(r"--since \d+d", out)


@pytest.mark.parametrize("args, env, code, message", [
    (["/nonexistent/dir"], None, 2, "no such file or directory"),
    (["/"], None, 2, "not inside a git repository"),
    (["--commits", "-3", "."], None, 2, "expected a whole number of 0 or more"),
    (["--since", "0d", "."], None, 2, "since must be"),
    (["."], {"PATH": "/nonexistent"}, 1, "git not found"),
])
def test_failures_are_messages_with_nonzero_exit(args, env, code, message):
    done = subprocess.run([sys.executable, str(REPORT), *args], capture_output=True, text=True,
                          env=dict(os.environ, **env) if env else None, cwd=REPORT.parent)
    assert done.returncode == code and message in done.stderr and done.stdout == ""
