"""Plain-Python baseline of the git layer.

The same operations and rules as `vantrel_sorlith.utils.git_utils`, written the
way a Python developer would write them: `subprocess.run` for git, `re` and
`str` methods for parsing, frozen dataclasses for the records.  Nothing here is
tuned for speed.

It serves twice: as the "plain Python" contender in the benchmarks, and as the
oracle that the native parsers are checked against, so every rule below follows
the library's documented behaviour step by step, edge cases included.  The
records are field-for-field the same as the extension's, so
`dataclasses.astuple` of a record from either side compares equal.

Standard library only; importable from any Python >= 3.10.
"""

from __future__ import annotations

import logging
import re
import subprocess
from collections.abc import Sequence
from dataclasses import dataclass
from datetime import datetime, timedelta
from pathlib import Path
from typing import Any

logger = logging.getLogger(__name__)

DEFAULT_TIMEOUT = 30

# Result triples for failures of the run itself.  Both carry exit code 1.
_TIMED_OUT = ("", "Command timed out", 1)
_GIT_NOT_FOUND = ("", "git not found", 1)

# The white space removed at the ends of texts (never inside them).
_WHITESPACE = (
    "\t\n\x0b\x0c\r\x1c\x1d\x1e\x1f \x85\xa0\u1680"
    + "".join(chr(c) for c in range(0x2000, 0x200B))
    + "\u2028\u2029\u202f\u205f\u3000"
)


def _strip(text: str) -> str:
    return text.strip(_WHITESPACE)


def _git_date(moment: datetime) -> str:
    """A moment as git reads local time: YYYY-MM-DD HH:MM:SS, fraction dropped.

    Written by hand because strftime("%Y") does not zero-pad years below 1000
    on every platform.
    """
    return (f"{moment.year:04d}-{moment.month:02d}-{moment.day:02d} "
            f"{moment.hour:02d}:{moment.minute:02d}:{moment.second:02d}")


# ---------------------------------------------------------------------------
# Records
# ---------------------------------------------------------------------------

@dataclass(frozen=True)
class FileChange:
    """One file of a diff: its path on the newer side, what happened to it, its line counts."""

    path: str
    status: str
    additions: int
    deletions: int
    old_path: str | None = None


@dataclass(frozen=True)
class CommitChanges:
    """The files one commit changed, and when it was committed (seconds since the epoch)."""

    timestamp: int
    files: tuple[FileChange, ...]


@dataclass(frozen=True)
class LineSpan:
    """Lines start..end (1-based, inclusive) of a file's newer side that a diff touched.

    `added` is true when the span holds new lines only; a pure deletion is
    reported as a one-line span on the line above the removed lines (line 1
    at the top of the file) with `added` false.
    """

    start: int
    end: int
    added: bool


# ---------------------------------------------------------------------------
# Running git
# ---------------------------------------------------------------------------

class GitError(RuntimeError):
    """A git command failed; the message carries what git said."""


def get_subprocess_hidden_kwargs() -> dict[str, Any]:
    """Extra process-start options that hide a console window.

    The host supplies these on Windows; POSIX needs none.
    """
    return {}


def run_git_command(repo_root: Path, args: list[str],
                    timeout: int | float | None = DEFAULT_TIMEOUT) -> tuple[str, str, int]:
    """Run git in repo_root; return (stdout, stderr, returncode), never raising for git's failures."""
    try:
        # Text mode decodes with U+FFFD for bad bytes and turns CR LF and lone
        # CR into LF.  A host option that clashes with ours is a TypeError here.
        proc = subprocess.run(
            ["git", *args],
            cwd=str(repo_root),
            capture_output=True,
            encoding="utf-8",
            errors="replace",
            timeout=timeout,
            **get_subprocess_hidden_kwargs(),
        )
    except subprocess.TimeoutExpired:
        logger.warning("git command timed out after %ss: args=%s", timeout, args)
        return _TIMED_OUT
    except FileNotFoundError:
        logger.warning("git executable not found while running args=%s", args)
        return _GIT_NOT_FOUND
    if proc.returncode != 0:
        logger.debug("git command failed: args=%s rc=%s stderr=%s",
                     args, proc.returncode, _strip(proc.stderr))
    return proc.stdout, proc.stderr, proc.returncode


def _git_output(repo_root: Path, args: list[str]) -> str:
    """git's standard output, or GitError with git's message."""
    stdout, stderr, returncode = run_git_command(repo_root, args)
    if returncode != 0:
        raise GitError(_strip(stderr) or f"git exited with code {returncode}")
    return stdout


# ---------------------------------------------------------------------------
# --raw --numstat -z stream
# ---------------------------------------------------------------------------

_STATUS_BY_LETTER = {
    "A": "added",
    "C": "copied",
    "D": "deleted",
    "M": "modified",
    "R": "renamed",
    "T": "modified",
}
_TWO_PATH_LETTERS = frozenset({"C", "R"})


def parse_file_changes(output: str) -> list[FileChange]:
    """FileChange records from the output of `git diff --raw --numstat -z`."""
    return _file_changes(output.split("\0"))


def _file_changes(tokens: Sequence[str]) -> list[FileChange]:
    statuses: dict[str, tuple[str, str | None]] = {}
    counts: dict[str, tuple[int, int]] = {}
    stream = iter(tokens)  # one cursor: paths taken inside a record are not re-read
    for token in stream:
        token = token.lstrip("\n")
        if token.startswith(":"):
            # :old_mode new_mode old_id new_id STATUS, then one or two paths.
            letter = token.rpartition(" ")[2][:1]
            old_path = next(stream, "") if letter in _TWO_PATH_LETTERS else None
            path = next(stream, "")
            if path:
                statuses[path] = (_STATUS_BY_LETTER.get(letter, "modified"), old_path)
            continue
        fields = token.split("\t", 2)
        if len(fields) != 3:
            continue  # not a numstat record (the trailing empty token, for one)
        added, deleted, path = fields
        if not path:
            # Rename or copy: source and destination follow as tokens of their own.
            next(stream, None)
            path = next(stream, "")
        counts[path] = (_line_count(added), _line_count(deleted))
    return [
        FileChange(path, status, *counts.get(path, (0, 0)), old_path)
        for path, (status, old_path) in statuses.items()
    ]


def _line_count(field: str) -> int:
    """One numstat count; "-" (binary) and anything else that is not all decimal digits count 0."""
    return int(field) if field.isdecimal() else 0


# ---------------------------------------------------------------------------
# git log --format=%x1e%ct --raw --numstat -z
# ---------------------------------------------------------------------------

_COMMIT_START = "\x1e"


def parse_commit_changes(output: str) -> list[CommitChanges]:
    """One CommitChanges per commit of `git log --format=%x1e%ct --raw --numstat -z`."""
    commits: list[CommitChanges] = []
    stamp: str | None = None
    body: list[str] = []
    for token in output.split("\0"):
        head = token.lstrip("\n")
        if head.startswith(_COMMIT_START):
            if stamp is not None:
                commits.append(_close_commit(stamp, body))
            stamp = _strip(head[1:])
            body = []
        elif stamp is not None:
            body.append(token)
    if stamp is not None:
        commits.append(_close_commit(stamp, body))
    return commits


def _close_commit(stamp: str, body: list[str]) -> CommitChanges:
    return CommitChanges(int(stamp), tuple(_file_changes(body)))


# ---------------------------------------------------------------------------
# Zero-context patches
# ---------------------------------------------------------------------------

_HUNK_HEADER = re.compile(r"@@ -\d+(?:,(\d+))? \+(\d+)(?:,(\d+))? @@")


def parse_line_spans(patch: str) -> dict[str, list[LineSpan]]:
    """Newer-side line spans per path from a `git diff -U0 --no-prefix` patch."""
    spans: dict[str, list[LineSpan]] = {}
    path: str | None = None
    old_left = new_left = 0
    for line in patch.split("\n"):
        if old_left > 0 or new_left > 0:
            # Inside a hunk: count the line off, never read it as a header.
            if line.startswith("-"):
                old_left -= 1
            elif line.startswith("+"):
                new_left -= 1
            elif line.startswith(" "):
                old_left -= 1
                new_left -= 1
            continue
        if line.startswith("+++ "):
            path = _patch_path(line[4:])
            continue
        header = _HUNK_HEADER.match(line)
        if header is None:
            continue
        old_left = int(header.group(1) or 1)
        start = int(header.group(2))
        new_left = int(header.group(3) or 1)
        if path is not None:
            spans.setdefault(path, []).append(_span(start, new_left, old_left))
    return spans


def _patch_path(text: str) -> str | None:
    """The path of a "+++ " line (without its first four characters); None for /dev/null."""
    name = text[:-1] if text.endswith("\t") else text
    if name == "/dev/null":
        return None
    if len(name) >= 2 and name.startswith('"') and name.endswith('"'):
        return _unquote(name[1:-1])
    return name


def _span(start: int, new_count: int, old_count: int) -> LineSpan:
    if new_count == 0:
        # Lines removed after line `start` (0: from the top of the file).
        line = max(start, 1)
        return LineSpan(line, line, False)
    return LineSpan(start, start + new_count - 1, old_count == 0)


_C_ESCAPE = re.compile(r"\\([0-7]{3}|.)", re.DOTALL)
_C_ESCAPES = {
    "a": "\a",
    "b": "\b",
    "f": "\f",
    "n": "\n",
    "r": "\r",
    "t": "\t",
    "v": "\v",
}


def _unquote(text: str) -> str:
    """Undo git's C-style quoting of a path (the text between the double quotes).

    Octal escapes are raw bytes; the whole name is decoded as UTF-8 at the end,
    so a character may be spread over several escapes.
    """
    data = bytearray()
    position = 0
    for match in _C_ESCAPE.finditer(text):
        data += text[position:match.start()].encode("utf-8")
        code = match.group(1)
        if len(code) == 3:
            data.append(int(code, 8))  # ValueError for \400 .. \777
        else:
            data += _C_ESCAPES.get(code, code).encode("utf-8")
        position = match.end()
    data += text[position:].encode("utf-8")
    return data.decode("utf-8", errors="replace")


# ---------------------------------------------------------------------------
# File-change and changed-line queries
# ---------------------------------------------------------------------------

def diff_file_changes(repo_root: Path, base: str, head: str) -> list[FileChange]:
    """Files that head changed since it left base (base...head)."""
    args = ["diff", "--raw", "--numstat", "-M", "-z", "--no-textconv", f"{base}...{head}"]
    return parse_file_changes(_git_output(repo_root, args))


def log_commit_changes(repo_root: Path, *, since: datetime, ref: str | None,
                       max_commits: int) -> list[CommitChanges]:
    """Commits of ref (HEAD when None) made since the moment, newest first, with their files."""
    args = [
        "log",
        f"--since={_git_date(since)}",
        f"--max-count={max_commits}",
        "--no-show-signature",
        "--format=%x1e%ct",
        "--raw",
        "--numstat",
        "-M",
        "-z",
    ]
    if ref is not None:
        args.append(ref)
    return parse_commit_changes(_git_output(repo_root, args))


_PATCH_OPTIONS = ("--no-color", "--no-ext-diff", "--no-textconv", "--no-prefix", "-M", "-U0")
_MAX_PATHSPEC_CHARS = 16000


def diff_line_spans(repo_root: Path, base: str, head: str, *, merge_base: bool,
                    paths: Sequence[str] = (), diff_filter: str = "MR") -> dict[str, list[LineSpan]]:
    """Newer-side lines that the diff base..head (base...head with merge_base) touched, per path."""
    command = ["-c", "core.quotepath=off", "--literal-pathspecs", "diff", *_PATCH_OPTIONS,
               f"--diff-filter={diff_filter}"]
    if merge_base:
        command.append(f"{base}...{head}")
    else:
        command += [base, head]
    batches = _path_batches(paths) if paths else [[]]
    spans: dict[str, list[LineSpan]] = {}
    for batch in batches:
        args = [*command, "--", *batch] if batch else command
        # A path seen in an earlier batch gets the later list, in its old place.
        spans.update(parse_line_spans(_git_output(repo_root, args)))
    return spans


def _path_batches(paths: Sequence[str]) -> list[list[str]]:
    """Cut paths into runs of at most _MAX_PATHSPEC_CHARS (each path plus one separator)."""
    batches: list[list[str]] = [[]]
    length = 0
    for path in paths:
        if batches[-1] and length + len(path) + 1 > _MAX_PATHSPEC_CHARS:
            batches.append([])
            length = 0
        batches[-1].append(path)
        length += len(path) + 1
    return batches


# ---------------------------------------------------------------------------
# Commits
# ---------------------------------------------------------------------------

def get_head_commit(repo_root: Path, short: bool = True) -> str | None:
    """The commit id of HEAD (abbreviated unless short is false), or None."""
    args = ["rev-parse", "--short", "HEAD"] if short else ["rev-parse", "HEAD"]
    stdout, _stderr, returncode = run_git_command(repo_root, args)
    commit = _strip(stdout)
    return commit if returncode == 0 and commit else None


def resolve_commit(repo_root: Path, name: str) -> str | None:
    """The full id of the commit that name resolves to, or None."""
    if not name or name.startswith("-"):
        return None
    stdout, _stderr, returncode = run_git_command(
        repo_root, ["rev-parse", "--verify", "--quiet", f"{name}^{{commit}}"])
    commit = _strip(stdout)
    return commit if returncode == 0 and commit else None


def count_commits(repo_root: Path, base: str, head: str) -> int:
    """Number of commits reachable from head and not from base."""
    text = _strip(_git_output(repo_root, ["rev-list", "--count", f"{base}..{head}"]))
    return int(text) if text else 0


def commit_before(repo_root: Path, ref: str, moment: datetime) -> str | None:
    """The newest commit of ref's history made at or before the moment, or None."""
    commit = _strip(_git_output(repo_root, ["rev-list", "-1", f"--before={_git_date(moment)}", ref]))
    return commit or None


# ---------------------------------------------------------------------------
# Branches
# ---------------------------------------------------------------------------

def normalize_branch_name(name: str | None) -> str | None:
    """Short form of a branch name: main, origin/main and refs/heads/main all give main."""
    if not name:
        return None
    short = _strip(name)
    prefixes = ("refs/heads/", "refs/remotes/", "remotes/", "origin/")
    changed = True
    while changed:
        changed = False
        for prefix in prefixes:
            if short.startswith(prefix):
                short = short[len(prefix):]
                changed = True
    return short or None


def resolve_display_branch(repo_root: Path) -> str | None:
    """The checked-out branch, or None (detached HEAD, no repository, git failed)."""
    stdout, _stderr, returncode = run_git_command(repo_root, ["branch", "--show-current"])
    branch = _strip(stdout)
    return branch if returncode == 0 and branch else None


def get_default_branch(repo_root: Path) -> str:
    """origin's HEAD, else main, else master, else "main"."""
    stdout, _stderr, returncode = run_git_command(repo_root, ["symbolic-ref", "refs/remotes/origin/HEAD"])
    target = _strip(stdout)
    if returncode == 0 and target:
        return target.removeprefix("refs/remotes/origin/")
    for candidate in ("main", "master"):
        _stdout, _stderr, returncode = run_git_command(repo_root, ["rev-parse", "--verify", candidate])
        if returncode == 0:
            return candidate
    return "main"


def branch_exists(repo_root: Path, branch: str) -> bool:
    """Whether branch resolves here, or as origin/branch."""
    if run_git_command(repo_root, ["rev-parse", "--verify", branch])[2] == 0:
        return True
    if branch.startswith("origin/"):
        return False
    return run_git_command(repo_root, ["rev-parse", "--verify", f"origin/{branch}"])[2] == 0


# ---------------------------------------------------------------------------
# Period starts and authors
# ---------------------------------------------------------------------------

TIME_SPEC_FORMS = (
    "a positive whole number followed by m (minutes), h (hours), d (days) or w (weeks), "
    "such as 7d or 24h, or an ISO date such as 2026-09-01"
)
_RELATIVE_SPEC = re.compile(r"(\d+)([mhdw])")
_SPEC_UNITS = {"m": "minutes", "h": "hours", "d": "days", "w": "weeks"}


def parse_time_spec(since: str) -> datetime:
    """The local moment (no tzinfo) at which the period named by since starts."""
    text = _strip(since)
    relative = _RELATIVE_SPEC.fullmatch(text)
    if relative:
        amount = int(relative.group(1))
        if amount > 0:
            try:
                return datetime.now() - timedelta(**{_SPEC_UNITS[relative.group(2)]: amount})
            except OverflowError as exc:
                raise ValueError(f"since {since!r} reaches outside the calendar") from exc
    elif text and text.isascii():  # every accepted ISO form is ASCII, separator included
        try:
            moment = datetime.fromisoformat(text)
        except ValueError:
            pass
        else:
            if moment.tzinfo is None:
                return moment
            try:
                return moment.astimezone().replace(tzinfo=None)
            except (OverflowError, OSError) as exc:
                raise ValueError(f"since {since!r} reaches outside the calendar") from exc
    raise ValueError(f"since must be {TIME_SPEC_FORMS}; got {since!r}")


def get_authors_for_period(repo_root: Path, since: str = "30d") -> list[dict[str, Any]]:
    """Authors with their commit counts since `since` (7d, 2026-09-01, ...), most commits first."""
    since_iso = _git_date(parse_time_spec(since))
    stdout, stderr, returncode = run_git_command(repo_root, ["shortlog", f"--since={since_iso}", "-sne"])
    if returncode != 0:
        logger.debug("get_authors_for_period: git shortlog failed rc=%s stderr=%s",
                     returncode, _strip(stderr))
        return []
    authors: list[dict[str, Any]] = []
    for line in _strip(stdout).split("\n"):
        if not line:
            continue
        line = _strip(line)
        if "\t" not in line:
            continue
        count_str, rest = line.split("\t", 1)
        count = int(_strip(count_str))
        if "<" in rest and ">" in rest:
            name = _strip(rest.split("<")[0])
            email = rest.split("<")[1].split(">")[0]
        else:
            name = rest
            email = ""
        authors.append({"name": name, "email": email, "commits": count})
    return authors
