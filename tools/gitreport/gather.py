"""What the report knows about a repository, as one JSON-ready document.

Every question the library answers goes through git_utils; the few it does not
(commit lines, merge base, working-tree state, where the repository is) go
through the library's own runner, in formats meant for machines (NUL
separators, porcelain v2) so that names with any byte survive.
"""

import os
from concurrent.futures import ThreadPoolExecutor
from datetime import datetime
from dataclasses import dataclass
from pathlib import Path

from vantrel_sorlith.utils import git_utils as g

from .display import quote

SCHEMA = 1

# One commit line: NUL after every field, so that no name or subject can
# shift the fields; git ends each record with a line feed after the last NUL.
_COMMIT_FIELDS = ("id", "short", "author", "email", "timestamp", "author_date", "parents", "subject")
_COMMIT_FORMAT = "--format=" + "%x00".join(("%H", "%h", "%an", "%ae", "%ct", "%aI", "%P", "%s")) + "%x00"


class ReportError(Exception):
    """A failure the user sees as one line on stderr, with the exit code to use."""

    def __init__(self, message, code=1):
        super().__init__(message)
        self.code = code


@dataclass(frozen=True)
class Repo:
    root: Path
    git_dir: str
    bare: bool
    shallow: bool


def _first_line(text):
    return text.strip().splitlines()[0] if text.strip() else ""


def _git(root, args):
    """git's standard output, through the library's runner; any failure is a ReportError."""
    out, err, code = g.run_git_command(root, args)
    if code != 0:
        raise ReportError(f"git {args[0]} failed: {_first_line(err) or f'exit code {code}'}")
    return out


def git_moment(moment):
    """A local moment the way git reads it (local time, no offset, whole seconds)."""
    m = moment
    return f"{m.year:04d}-{m.month:02d}-{m.day:02d} {m.hour:02d}:{m.minute:02d}:{m.second:02d}"


def iso_local(moment):
    """A local moment with its offset, for readers in other time zones."""
    try:
        return moment.astimezone().isoformat(timespec="seconds")
    except (OverflowError, OSError, ValueError):  # outside what the C library's time functions take
        return moment.isoformat(timespec="seconds")


def locate(path):
    """The repository that PATH is in, or a ReportError that says what PATH is."""
    start = Path(path)
    if not start.exists():
        raise ReportError(f"{quote(str(path))}: no such file or directory", 2)
    if not start.is_dir():
        start = start.parent
    root = g.find_git_root(start)
    probe = ["rev-parse", "--is-bare-repository", "--is-shallow-repository", "--absolute-git-dir"]
    out, err, code = g.run_git_command(root or start, probe)
    if code != 0:
        if err == "git not found":  # the directory exists, so it is git that is missing
            raise ReportError("git not found: install git or put it on PATH", 1)
        if root is None:
            raise ReportError(f"{quote(str(path))}: not inside a git repository", 2)
        raise ReportError(f"{quote(str(root))}: git cannot read this repository: {_first_line(err)}", 1)
    bare, shallow, git_dir = out.split("\n", 2)
    git_dir = git_dir[:-1] if git_dir.endswith("\n") else git_dir
    if root is None:
        if bare != "true":
            raise ReportError(f"{quote(str(path))}: not inside a git repository", 2)
        root = Path(git_dir)
    return Repo(root=root, git_dir=git_dir, bare=bare == "true", shallow=shallow == "true")


def commit_lines(root, rev, since=None, count=1):
    """Id, author, date, parents and subject of REV's newest COUNT commits (since a moment)."""
    args = ["log", "--no-show-signature", f"--max-count={count}", _COMMIT_FORMAT]
    if since is not None:
        args.insert(1, f"--since={git_moment(since)}")
    fields = _git(root, args + [rev]).split("\0")
    commits = []
    for i in range(0, len(fields) - len(_COMMIT_FIELDS) + 1, len(_COMMIT_FIELDS)):
        c = dict(zip(_COMMIT_FIELDS, fields[i : i + len(_COMMIT_FIELDS)]))
        c["id"] = c["id"].lstrip("\n")
        c["timestamp"] = int(c["timestamp"])
        c["parents"] = c["parents"].split()
        commits.append(c)
    return commits


def working_tree(root):
    """Staged, unstaged, untracked and conflicted counts, and the upstream's distance."""
    out = _git(root, ["status", "--porcelain=v2", "-z", "--branch", "--untracked-files=all"])
    state = dict(staged=0, unstaged=0, untracked=0, conflicted=0)
    upstream = None
    fields = out.split("\0")
    i = 0
    while i < len(fields):
        f = fields[i]
        i += 1
        if f.startswith("# branch.upstream "):
            upstream = {"name": f[len("# branch.upstream ") :], "ahead": None, "behind": None}
        elif f.startswith("# branch.ab ") and upstream is not None:
            ahead, behind = f[len("# branch.ab ") :].split()
            upstream.update(ahead=int(ahead), behind=-int(behind))
        elif f[:2] in ("1 ", "2 "):
            state["staged"] += f[2] != "."
            state["unstaged"] += f[3] != "."
            i += f[0] == "2"  # a rename's original path follows in a field of its own
        elif f.startswith("u "):
            state["conflicted"] += 1
        elif f.startswith("? "):
            state["untracked"] += 1
    return state, upstream


def resolve_base(root, default):
    """The default branch as compared with: the local branch, else origin's, else
    whatever git resolves the name to. (name, kind, commit id) or None."""
    for name, ref, kind in (
        (default, f"refs/heads/{default}", "local"),
        (f"origin/{default}", f"refs/remotes/origin/{default}", "remote"),
        (default, default, "other"),
    ):
        commit = g.resolve_commit(root, ref)
        if commit:
            return name, kind, commit
    return None


def merge_base(root, base, head):
    out, err, code = g.run_git_command(root, ["merge-base", base, head])
    if code == 1 and not err.strip():
        return None  # no common history
    if code != 0:
        raise ReportError(f"git merge-base failed: {_first_line(err) or f'exit code {code}'}")
    return out.strip()


def _rows(changes, spans):
    return [
        {
            "path": c.path,
            "old_path": c.old_path,
            "status": c.status,
            "additions": c.additions,
            "deletions": c.deletions,
            "spans": [{"start": s.start, "end": s.end, "added": s.added} for s in spans.get(c.path, [])],
        }
        for c in changes
    ]


def _base_section(pool, root, head, default, shallow, span_files, notes):
    """The default branch as compared with, and the files HEAD changed since it
    left it. Changed-line spans for the first SPAN_FILES files, or all when 0."""
    found = resolve_base(root, default)
    if found is None:
        return None, []
    name, kind, commit = found
    ahead = pool.submit(g.count_commits, root, commit, head)
    behind = pool.submit(g.count_commits, root, head, commit)
    base = {"name": name, "kind": kind, "id": commit, "common_history": True, "ahead": None, "behind": None}
    # Without a path list one diff of the whole range pairs renames and copies
    # exactly as the file list does, so it runs beside it. A shorter list
    # names both paths of a rename, so that git still sees the rename.
    all_spans = None if span_files else pool.submit(g.diff_line_spans, root, commit, head, merge_base=True, diff_filter="MRC")
    try:
        changes = g.diff_file_changes(root, commit, head)
        spans = all_spans.result() if all_spans else {}
    except g.GitError:
        if merge_base(root, commit, head) is not None:
            raise
        # Unrelated histories (or a shallow clone cut above the fork): the
        # three-dot diff has no fork point to start from.
        base["common_history"] = False
        notes.append(f"HEAD and {name} have no common history" + (" in this shallow clone" if shallow else ""))
        changes, spans = [], {}
    if span_files and changes:
        paths = [p for c in changes[:span_files] if c.status in ("modified", "renamed", "copied") for p in (c.old_path, c.path) if p]
        spans = g.diff_line_spans(root, commit, head, merge_base=True, paths=paths, diff_filter="MRC") if paths else {}
    base["ahead"], base["behind"] = ahead.result(), behind.result()
    return base, _rows(changes, spans)


def _commits(root, head, since, max_commits, boundaries):
    records = g.log_commit_changes(root, since=since, ref=head, max_commits=max_commits)
    lines = commit_lines(root, head, since, max_commits)
    if [r.timestamp for r in records] != [c["timestamp"] for c in lines]:
        raise ReportError("the history changed while it was read; run the report again")
    for line, record in zip(lines, records):
        line.update(
            merge=len(line["parents"]) > 1,
            files=len(record.files),
            additions=sum(f.additions for f in record.files),
            deletions=sum(f.deletions for f in record.files),
            shallow_boundary=line["id"] in boundaries,
        )
    return lines


def _shallow_boundaries(repo):
    try:
        return set(Path(repo.git_dir, "shallow").read_text().split())
    except OSError:
        return set()


def gather(repo, since_spec, since, max_commits, span_files=0, progress=lambda label: None):
    """The report as one document. Independent git questions run side by side:
    the library lets go of the interpreter while git runs."""
    root = repo.root
    notes = []
    progress("reading branches")
    branch = g.checked_out_branch(root)
    head = g.get_head_commit(root, short=False)
    if head is None and branch is None:
        raise ReportError(f"{quote(str(root))}: HEAD names neither a branch nor a commit")
    default = g.get_default_branch(root)
    doc = {
        "schema": SCHEMA,
        "root": str(root),
        "git_dir": repo.git_dir,
        "bare": repo.bare,
        "shallow": repo.shallow,
        "branch": branch,
        "detached": branch is None,
        "head": None,
        "upstream": None,
        "default_branch": default,
        "base": None,
        "changes": [],
        "totals": {"files": 0, "additions": 0, "deletions": 0},
        "working_tree": None,
        "since": iso_local(since),
        "since_spec": since_spec,
        "authors": [],
        "commits_in_period": 0,
        "commits": [],
        "latest_commit_date": None,
        "notes": notes,
    }
    boundaries = _shallow_boundaries(repo) if repo.shallow else set()
    if repo.shallow:
        notes.append(
            f"shallow clone: history ends at {len(boundaries)} boundary commit(s), so counts stop there"
            " and a boundary commit shows its whole tree as added"
        )
    with ThreadPoolExecutor(max_workers=4) as pool:
        tree = None if repo.bare else pool.submit(working_tree, root)
        if head is not None:
            authors = pool.submit(g.get_authors_for_period, root, since_spec)
            commits = pool.submit(_commits, root, head, since, max_commits, boundaries) if max_commits else None
            head_line = pool.submit(commit_lines, root, head)
            progress(f"comparing with {default}")
            doc["base"], doc["changes"] = _base_section(pool, root, head, default, repo.shallow, span_files, notes)
            progress("reading history")
            doc["head"] = head_line.result()[0]
            doc["latest_commit_date"] = iso_local(datetime.fromtimestamp(doc["head"]["timestamp"]))
            doc["authors"] = authors.result()
            doc["commits_in_period"] = sum(a["commits"] for a in doc["authors"])
            doc["commits"] = commits.result() if commits else []
        if tree is not None:
            doc["working_tree"], doc["upstream"] = tree.result()
    doc["totals"] = {
        "files": len(doc["changes"]),
        "additions": sum(c["additions"] for c in doc["changes"]),
        "deletions": sum(c["deletions"] for c in doc["changes"]),
    }
    return doc


def set_read_only_environment():
    """git may refresh the index during status; optional locks off keeps it from
    writing anything, so the report never changes the repository."""
    os.environ["GIT_OPTIONAL_LOCKS"] = "0"
