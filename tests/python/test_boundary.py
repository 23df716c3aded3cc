"""The host's own code running in the middle of a call (__fspath__, __len__, a
replaced table or runner) must not be able to free what the call still reads."""

from datetime import datetime

import pytest

from conftest import git
from vantrel_sorlith.utils import git_utils as g

HEAD_RAW = ":100644 100644 1a2b3c4 5d6e7f8 "


def churn():
    """Allocate blocks of the sizes just freed, so that a stale read sees other bytes."""
    return [("Z" * 2000 + str(i))[:2000] for i in range(2000)]


def fresh(text):
    return (text + "!")[:-1]  # a str object of its own, not a shared constant


def test_fspath_that_empties_the_argument_list(repo):
    class Arg:
        def __init__(self, text):
            self.text = text

        def __fspath__(self):
            args.clear()
            churn()
            return self.text

    args = [Arg("rev-parse"), *(fresh("--verify") for _ in range(200)), fresh("HEAD")]
    head = git(repo, "rev-parse", "HEAD")
    assert g.run_git_command(repo, args) == (head, "", 0)


def test_len_that_empties_the_paths():
    class Path_(str):
        def __len__(self):
            paths.clear()
            churn()
            return str.__len__(self)

    items = [Path_("a" * 1000)] + [fresh("b" * 1000) for _ in range(5)]
    paths = list(items)
    assert g._path_batches(paths) == [items]


def test_status_table_that_empties_the_tokens(module_state):
    class Table(dict):
        def get(self, key, default=None):
            tokens.clear()
            junk.append(churn())
            return dict.get(self, key, default)

    junk = []
    originals = [HEAD_RAW + "M", "pa" * 1000, HEAD_RAW + "R100", "old" * 700, "new" * 700, HEAD_RAW + "D", "q" * 3000]
    expected = g._file_changes(originals)
    tokens = [fresh(t) for t in originals]
    module_state._STATUS_BY_LETTER = Table(g._STATUS_BY_LETTER)
    assert g._file_changes(tokens) == expected


def test_replaced_runner_whose_exit_code_empties_its_triple(module_state):
    class Code(int):
        def __ne__(self, other):
            triple.clear()
            churn()
            return int(self) != other

    triple = [fresh(""), fresh("fatal: " + "x" * 3000 + "\n"), Code(128)]
    module_state.run_git_command = lambda root, args: triple
    with pytest.raises(g.GitError) as info:
        g._git_output("/r", ["x"])
    assert str(info.value) == "fatal: " + "x" * 3000


def test_datetime_subclass_is_written_from_its_own_fields(repo):
    class Moment(datetime):
        year = property(lambda self: "not a number")

    head = git(repo, "rev-parse", "HEAD").strip()
    assert g.commit_before(repo, "main", Moment(2030, 1, 1)) == head
    assert [c.timestamp for c in g.log_commit_changes(repo, since=Moment(2000, 1, 1), ref=None, max_commits=1)] == [
        int(git(repo, "log", "-1", "--format=%ct"))]
