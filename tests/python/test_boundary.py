"""Bad values at the boundary: every parameter of every public operation, given
a value of the wrong kind or of absurd size, gives the error a Python caller
expects or the documented answer, never a crash or a hang. Also the host's own
code running in the middle of a call, which must not free what is being read."""

import errno
import faulthandler
import inspect
import math
import types
import typing
from datetime import datetime

import pytest

from conftest import git
from vantrel_sorlith.utils import git_utils as g

HUGE = "m" * 10_000_000            # one 10 MB text
LONG_PATH = ("d" * 199 + "/") * 500  # a relative path of 100,000 characters

VALUES = {
    "None": None,
    "bytes": b"main",
    "int": 7,
    "nan": math.nan,
    "-inf": -math.inf,
    "inf": math.inf,
    "list": ["main"],
    "str": "main",
    "NUL": "ma\0in",
    "lone surrogate": "ma\ud800in",      # no encoding for the system
    "escaped byte": "ma\udcffin",        # the byte 0xff, as os.fsencode writes it
    "10 MB": HUGE,
    "100,000-char path": LONG_PATH,
}
TEXTS = ["str", "NUL", "lone surrogate", "escaped byte", "10 MB", "100,000-char path"]


class OSErrorWith:
    def __init__(self, number):
        self.errno = number

    def __repr__(self):
        return errno.errorcode[self.errno]


TOO_LONG, TOO_BIG = OSErrorWith(errno.ENAMETOOLONG), OSErrorWith(errno.E2BIG)
OK = "answers"          # returns a value of the declared return type
REFUSED = "git refused"  # git failed: the lenient answer, GitError, or a non-zero triple

# What each kind of parameter makes of each value; unlisted values give the role's default.
ROLES = {
    # str(repo_root) is git's working directory: a name that is no directory is
    # a missing git; one the system cannot take is the system's error.
    "directory": {"default": REFUSED, "NUL": ValueError, "lone surrogate": UnicodeEncodeError, "10 MB": TOO_LONG,
                  "100,000-char path": TOO_LONG},
    # Text that becomes one git argument.
    "revision": {"default": TypeError, "NUL": ValueError, "lone surrogate": UnicodeEncodeError,
                 "escaped byte": REFUSED, "10 MB": TOO_BIG, "100,000-char path": REFUSED},
    # Text the operation reads itself.
    "parsed": {"default": TypeError, **{t: OK for t in TEXTS}},
    "period": {"default": TypeError, **{t: ValueError for t in TEXTS}},
    "plain": {"default": TypeError, **{t: OK for t in TEXTS}},
    # A moment is a datetime.
    "moment": {"default": TypeError},
    # A directory to walk up from: a name the system cannot represent is
    # absent, a name too long for it is its error.
    "lookup": {"default": TypeError, "bytes": OK, **{t: OK for t in TEXTS}, "10 MB": TOO_LONG,
               "100,000-char path": TOO_LONG},
    # An int, written into --max-count= (git reads a negative one as no limit).
    "count": {"default": TypeError, "int": OK},
    "flag": {"default": OK},
    "seconds": {"default": TypeError, "None": OK, "int": OK, "inf": OK, "nan": ValueError,
                "-inf": ("", "Command timed out", 1)},
    # A list of git arguments (never a str), and what each element may be:
    # bytes are taken as subprocess takes them.
    "argv": {"default": TypeError, "list": REFUSED},
    "argv item": {"default": TypeError, "bytes": REFUSED, "str": REFUSED, "NUL": ValueError,
                  "lone surrogate": UnicodeEncodeError, "escaped byte": REFUSED, "10 MB": TOO_BIG,
                  "100,000-char path": REFUSED},
    # Paths to limit a diff to (a str is refused, not taken for a sequence of
    # one-character paths), and no paths (None) mean no limit.
    "paths": {"default": TypeError, "None": OK, "list": OK},
    "paths item": {"default": TypeError, "bytes": OK, "str": OK, "NUL": ValueError,
                   "lone surrogate": UnicodeEncodeError, "escaped byte": OK, "10 MB": TOO_BIG,
                   "100,000-char path": OK},
}

ROLE_OF = {"repo_root": "directory", "base": "revision", "head": "revision", "ref": "revision",
           "branch": "revision", "name": "revision", "diff_filter": "revision", "output": "parsed",
           "patch": "parsed", "start": "lookup", "max_commits": "count", "short": "flag", "merge_base": "flag",
           "timeout": "seconds", "args": "argv", "paths": "paths", "moment": "moment"}

VALID = {"base": "main~1", "head": "main", "ref": "main", "branch": "main", "name": "main", "diff_filter": "MR",
         "output": "", "patch": "", "max_commits": 5, "short": True, "merge_base": True, "timeout": 30,
         "args": ["rev-parse", "HEAD"], "paths": ("a.txt",), "moment": datetime(2030, 1, 1)}

LENIENT = {"resolve_display_branch": None, "checked_out_branch": None, "get_head_commit": None,
           "get_default_branch": "main", "branch_exists": False, "get_authors_for_period": [],
           "resolve_commit": None}
RUNS_GIT = {"run_git_command", *LENIENT, "count_commits", "commit_before", "diff_file_changes", "log_commit_changes",
            "diff_line_spans"}

OPERATIONS = {name: f for name, f in vars(g).items()
              if not name.startswith("_") and inspect.isroutine(f) and getattr(f, "__module__", "") == g.__name__}


def role(param):
    if param.name == "since":
        return "moment" if param.annotation is datetime else "period"
    if param.name == "name" and param.annotation == str | None:
        return "plain"  # normalize_branch_name runs no git
    return ROLE_OF[param.name]


def cases():
    for name, f in OPERATIONS.items():
        yield pytest.param(name, None, None, OK, id=f"{name}-valid")
        for p in inspect.signature(f).parameters.values():
            r = role(p)
            table = ROLES[r]
            optional = type(None) in typing.get_args(p.annotation)
            for kind, value in VALUES.items():
                if kind == "str" and p.annotation in (str, str | None):
                    continue  # the right type
                if r == "parsed" and kind in ("None", "bytes", "int"):
                    continue  # test_parsers covers these
                if r in ("argv", "paths") and kind == "10 MB":
                    continue  # ten million one-character items; see the items below
                expected = OK if kind == "None" and optional else table.get(kind, table["default"])
                yield pytest.param(name, p.name, value, expected, id=f"{name}-{p.name}-{kind}")
            if r in ("argv", "paths"):
                items = ROLES[r + " item"]
                for kind, value in VALUES.items():
                    yield pytest.param(name, p.name, [value], items.get(kind, items["default"]),
                                       id=f"{name}-{p.name}[]-{kind}")


def conforms(value, annotation):
    if isinstance(annotation, types.UnionType):
        return any(conforms(value, a) for a in typing.get_args(annotation))
    if annotation is None:
        return value is None
    return isinstance(value, typing.get_origin(annotation) or annotation)


@pytest.fixture(autouse=True)
def watchdog(monkeypatch, tmp_path):
    # A hang fails the run with every thread's stack rather than stalling it.
    faulthandler.dump_traceback_later(120, exit=True)
    monkeypatch.chdir(tmp_path)  # relative names resolve nowhere
    yield
    faulthandler.cancel_dump_traceback_later()


@pytest.mark.parametrize("name, param, value, expected", list(cases()))
def test_bad_value(repo, name, param, value, expected):
    f = OPERATIONS[name]
    sig = inspect.signature(f)
    kwargs = {}
    for p in sig.parameters.values():
        if p.name == "repo_root":
            kwargs[p.name] = repo
        elif p.name == "since":
            kwargs[p.name] = datetime(2000, 1, 1) if p.annotation is datetime else "3650d"
        elif p.name == "start":
            kwargs[p.name] = repo
        else:
            kwargs[p.name] = VALID[p.name]
    if param is not None:
        kwargs[param] = value
    call = lambda: f(**kwargs)
    if name == "checked_out_branch" and isinstance(expected, (type, OSErrorWith)):
        expected = None  # the host's best_effort turns every error into its fallback

    if isinstance(expected, type):
        with pytest.raises(expected):
            call()
    elif isinstance(expected, OSErrorWith):
        with pytest.raises(OSError) as info:
            call()
        assert info.value.errno == expected.errno
    elif expected == REFUSED:
        assert name in RUNS_GIT
        if name == "run_git_command":
            assert call()[2] != 0
        elif name in LENIENT:
            assert call() == LENIENT[name]
        else:
            with pytest.raises(g.GitError):
                call()
    elif expected == OK:
        result = call()
        assert conforms(result, sig.return_annotation)
        if param is None and name in LENIENT and name != "get_default_branch":
            assert result != LENIENT[name]  # the valid call answers for real
    else:
        assert call() == expected


# --- the host's code in the middle of a call -------------------------------------------------------

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
