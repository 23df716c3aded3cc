"""A host-style consumer of the library; checked with mypy --strict against the stubs."""

from datetime import datetime
from pathlib import Path

from vantrel_sorlith.utils import git_utils as g


def summary(root: Path) -> dict[str, object]:
    changes: list[g.FileChange] = g.diff_file_changes(root, "main", "HEAD")
    spans: dict[str, list[g.LineSpan]] = g.diff_line_spans(root, "main", "HEAD", merge_base=True)
    since: datetime = g.parse_time_spec("7d")
    history: list[g.CommitChanges] = g.log_commit_changes(root, since=since, ref=None, max_commits=5)
    out, err, code = g.run_git_command(root, ["status"])
    head: str | None = g.get_head_commit(root, short=False)
    branch: str | None = g.checked_out_branch(root)
    try:
        count = g.count_commits(root, "main", "HEAD")
    except g.GitError as error:
        count = len(str(error))
    return {
        "lines": sum(s.end - s.start + 1 for spans_of in spans.values() for s in spans_of),
        "files": [c.path for c in changes if c.old_path is None],
        "commits": [c.timestamp for c in history],
        "status": out.splitlines() + [err, str(code)],
        "head": head,
        "branch": branch,
        "count": count,
        "root": g.find_git_root() or g.find_repo_root(),
    }
