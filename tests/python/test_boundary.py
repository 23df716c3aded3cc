# Bad values at the boundary: every parameter of every public operation, given
# a value of the wrong kind or of absurd size, gives the error a Python caller
# expects or the documented answer, never a crash or a hang. Also the host's own
# code running in the middle of a call, which must not free what is being read.

import gc
import inspect
import math
import re
import sys
import sysconfig
import types
import typing
from datetime import datetime

import pytest

try:
    import faulthandler
except ImportError:  # 3.12's isolated interpreters refuse it; test_interpreters.py bounds their time
    faulthandler = None

from conftest import git
from test_module import LOAD_ORDER
from vantrel_sorlith.utils import git_utils as g

HUGE = "m" * 10_000_000            # one 10 MB text
LONG_PATH = ("d" * 199 + "/") * 500  # a relative path of 100,000 characters

VALUES = {
    "None": None, "bytes": b"main", "int": 7, "nan": math.nan, "list": ["main"], "str": "main",
    "NUL": "ma\0in",
    "lone surrogate": "ma\ud800in",      # no encoding for the system
    "escaped byte": "ma\udcffin",        # the byte 0xff, as os.fsencode writes it
    "10 MB": HUGE, "100,000-char path": LONG_PATH,
}
VALID = {"repo_root": None, "base": "main~1", "head": "main", "ref": "main", "branch": "main", "name": "main",
         "diff_filter": "MR", "output": "", "patch": "", "max_commits": 5, "short": True, "merge_base": True,
         "timeout": 30, "args": ["rev-parse", "HEAD"], "paths": ("a.txt",), "moment": datetime(2030, 1, 1),
         "start": None}
# What a caller may meet for a bad value: the errors Python itself gives for
# such values, the system's own, or git's refusal; never a crash, a hang or a
# SystemError.
EXPECTED_ERRORS = (TypeError, ValueError, OSError, g.GitError)
OPERATIONS = {name: f for name, f in vars(g).items()
              if not name.startswith("_") and inspect.isroutine(f) and getattr(f, "__module__", "") == g.__name__}


def cases():
    for name, f in OPERATIONS.items():
        for p in inspect.signature(f).parameters.values():
            for in_list in (False, True) if p.name in ("args", "paths") else (False,):
                for kind, value in VALUES.items():
                    yield pytest.param(name, p.name, [value] if in_list else value,
                                       id=f"{name}-{p.name}{'[]' * in_list}-{kind}")


def conforms(value, annotation):
    if isinstance(annotation, types.UnionType):
        return any(conforms(value, a) for a in typing.get_args(annotation))
    if annotation is None:
        return value is None
    return isinstance(value, typing.get_origin(annotation) or annotation)


@pytest.fixture(autouse=True)
def watchdog(monkeypatch, tmp_path):
    # A hang fails the run with every thread's stack rather than stalling it.
    if faulthandler:
        faulthandler.dump_traceback_later(120, exit=True)
    monkeypatch.chdir(tmp_path)  # relative names resolve nowhere
    yield
    if faulthandler:
        faulthandler.cancel_dump_traceback_later()


def valid_arguments(f, repo):
    # Valid values for the required parameters of operation `f`.
    return {p.name: (datetime(2000, 1, 1) if p.annotation is datetime else "3650d") if p.name == "since"
            else VALID[p.name] if VALID.get(p.name) is not None else repo
            for p in inspect.signature(f).parameters.values() if p.default is inspect.Parameter.empty}


@pytest.mark.parametrize("name, param, value", list(cases()))
def test_bad_value(repo, name, param, value):
    f = OPERATIONS[name]
    kwargs = valid_arguments(f, repo)
    kwargs[param] = value
    try:
        result = f(**kwargs)
    except EXPECTED_ERRORS as e:
        # The wrong type is refused with the function and the parameter named, in Python's own
        # words where a builtin's refusal is the one a caller knows (os.fspath's, iteration's).
        if isinstance(e, TypeError) and not re.search(r"os\.PathLike object|object is not iterable", str(e)):
            assert f"{name}() argument '{param}'" in str(e), e
        # A NUL cannot reach git or the system: refused before anything runs
        # (a str where a list belongs is refused for its type first).
        text = value[0] if isinstance(value, list) and value else None if param in ("args", "paths") else value
        to_git = param in ("repo_root", "base", "head", "ref", "branch", "diff_filter", "args", "paths") or (
            param == "name" and name == "resolve_commit")
        if to_git and isinstance(text, str) and "\0" in text:
            assert isinstance(e, ValueError), e
        return
    assert conforms(result, inspect.signature(f).return_annotation), result


@pytest.mark.parametrize("timeout, expected", [
    (math.nan, "ValueError"), (-math.inf, ("", "Command timed out", 1)), (-1, ("", "Command timed out", 1)),
    (math.inf, ("true\n", "", 0)), (None, ("true\n", "", 0)), (10**30, ("true\n", "", 0))])
def test_time_limits_of_every_kind(repo, timeout, expected):
    got = _error(lambda: g.run_git_command(repo, ["rev-parse", "--is-inside-work-tree"], timeout))
    assert (got[0] if isinstance(expected, str) else got) == expected


# --- the host's code in the middle of a call -------------------------------------------------------

HEAD_RAW = ":100644 100644 1a2b3c4 5d6e7f8 "
RAW = "\0".join([HEAD_RAW + "M", "a" * 40, "2\t1\t" + "a" * 40, HEAD_RAW + "R90", "o" * 30, "n" * 30, "1\t0\t",
                  "o" * 30, "n" * 30, ""])
LOG = "\x1e1700000000\0\n" + RAW + "\x1e1700000001\0\n" + RAW
PATCH = '+++ "q\\tr \\303\\251"\t\n@@ -1,2 +3 @@\n-x\n-y\n+z\n+++ b\n@@ -0,0 +1,2 @@\n+1\n+2\n'


def churn():
    # Allocate blocks of the sizes just freed, so that a stale read sees other bytes.
    junk = [("Z" * 2000 + str(i))[:2000] for i in range(2000)]
    gc.collect()
    return junk


def fresh(text):
    return (text + "!")[:-1]  # a str object of its own, not a shared constant


class Rebinding:
    # Stands in for a module name: each use rebinds the name to a fresh
    # stand-in (and churns memory) before doing what the original does, so a
    # call that held the name borrowed reads freed memory.

    def __init__(self, name, original):
        self.name, self.original = name, original

    def _use(self):
        return rebind(self.name, self.original)

    def __call__(self, *args, **kwargs):
        return self._use()(*args, **kwargs)

    def __getattr__(self, attr):  # methods of patterns, the logger, subprocess, datetime; dict.get
        return getattr(self._use(), attr)

    __contains__ = lambda self, item: item in self._use()  # noqa: E731
    __getitem__ = lambda self, key: self._use()[key]  # noqa: E731
    __iter__ = lambda self: iter(self._use())  # noqa: E731
    __len__ = lambda self: len(self._use())  # noqa: E731
    __bool__ = lambda self: bool(self._use())  # noqa: E731


def _authors(repo):
    return g.get_authors_for_period(repo, "3650d")


def _since(value):
    # The start as an offset from now, to the second: the answer of two calls
    # read at two moments, which a minute's boundary may fall between.
    moment = g.parse_time_spec(value)
    return round((datetime.now() - moment).total_seconds())


def _error(call):
    try:
        return call()
    except Exception as e:  # noqa: BLE001 - the kind and message are the answer
        return type(e).__name__, str(e)


# Each name the host may replace, and a call that uses it.
USES = {
    "run_git_command": lambda repo: g.get_head_commit(repo),
    **dict.fromkeys(["_git_output", "parse_file_changes"], lambda repo: g.diff_file_changes(repo, "main~1", "main")),
    **dict.fromkeys(["get_subprocess_hidden_kwargs", "subprocess"], lambda repo: g.run_git_command(repo, ["rev-parse", "HEAD"])),
    "logger": lambda repo: g.run_git_command(repo, ["rev-parse", "--verify", "nowhere"]),
    "GitError": lambda repo: _error(lambda: g._git_output(repo, ["rev-parse", "--verify", "nowhere"])),
    "parse_commit_changes": lambda repo: g.log_commit_changes(repo, since=datetime(2000, 1, 1), ref=None, max_commits=5),
    **dict.fromkeys(["parse_line_spans", "_PATCH_OPTIONS"],
                    lambda repo: g.diff_line_spans(repo, "main~1", "main", merge_base=False, diff_filter="AM")),
    "_path_batches": lambda repo: g.diff_line_spans(repo, "main~1", "main", merge_base=False, paths=["a.txt", "b.txt"]),
    "_MAX_PATHSPEC_CHARS": lambda repo: g._path_batches(["a" * 10] * 5),
    "parse_time_spec": _authors,
    **dict.fromkeys(["_file_changes", "_line_count", "_TWO_PATH_LETTERS"], lambda repo: g.parse_file_changes(RAW)),
    "_STATUS_BY_LETTER": lambda repo: g._file_changes(RAW.split("\0")),
    **dict.fromkeys(["FileChange", "CommitChanges", "_COMMIT_START"], lambda repo: g.parse_commit_changes(LOG)),
    **dict.fromkeys(["LineSpan", "_span", "_patch_path", "_unquote", "_HUNK_HEADER"], lambda repo: g.parse_line_spans(PATCH)),
    **dict.fromkeys(["_C_ESCAPE", "_C_ESCAPES"], lambda repo: g._unquote("a\\tb\\303\\251")),
    **dict.fromkeys(["_RELATIVE_SPEC", "_SPEC_UNITS", "datetime", "timedelta"], lambda repo: _since("7d")),
    "TIME_SPEC_FORMS": lambda repo: _error(lambda: g.parse_time_spec("0d")),
    "find_git_root": lambda repo: g.find_repo_root(),
    "Path": lambda repo: g.find_git_root(repo),
}


def test_every_name_the_library_reads_is_in_the_table():
    # Read at load only, or never by the library itself: the imports it keeps
    # as attributes, the wrapper it binds, and the operations no other calls.
    unread = {"logging", "re", "Sequence", "dataclass", "Any", "best_effort", "checked_out_branch",
              "resolve_display_branch", "normalize_branch_name", "find_repo_root", "get_head_commit",
              "get_default_branch", "branch_exists", "get_authors_for_period", "resolve_commit", "count_commits",
              "commit_before", "diff_file_changes", "log_commit_changes", "diff_line_spans"}
    assert sorted(USES) == sorted(set(LOAD_ORDER) - unread)


def rebind(name, original):
    # Rebinds `name` to a fresh stand-in, churns memory, and gives the original.
    setattr(g, name, stand_in(name, original))
    churn()
    return original


def stand_in(name, original):
    # A stand-in for `name` of the original's own kind where the library
    # reads it as a value (a text, a number, the error class).
    if isinstance(original, (str, int)):
        class Value(type(original)):
            def __str__(self):
                rebind(name, original)
                return type(original).__str__(self)

            def __index__(self):
                rebind(name, original)
                return int(self)
        return Value(original)
    if isinstance(original, type) and issubclass(original, Exception):
        class GitError(original):
            def __init__(self, *args):
                rebind(name, original)
                super().__init__(*args)
        return GitError
    return Rebinding(name, original)


@pytest.mark.parametrize("name", USES)
def test_a_name_rebound_by_its_own_use(repo, module_state, monkeypatch, name):
    monkeypatch.chdir(repo)
    use = USES[name]
    expected = use(repo)
    setattr(g, name, stand_in(name, getattr(g, name)))
    assert use(repo) == expected
    assert use(repo) == expected  # and again with the stand-in it left behind


# What the host's own code can do wrong, and what the caller then sees.
class Raiser:
    # A subprocess without TimeoutExpired whose run raises.

    @staticmethod
    def run(*args, **kwargs):
        raise RuntimeError("host run failed")


def _gc_left_as_the_host_left_it(repo):
    g.FileChange = lambda *fields: gc.disable() or OWN_FILE_CHANGE(*fields)
    gc.enable()
    g.parse_file_changes(RAW)
    return gc.isenabled()


def _no_list_with_holes(repo):
    # Every list the collector tracks, read through: an empty slot would crash here.
    g.FileChange = lambda *fields: ([list(o) for o in gc.get_objects() if type(o) is list], OWN_FILE_CHANGE(*fields))[1]
    return len(g.parse_file_changes(RAW))


# (what the host binds, the call, what the caller meets: an answer, or the
# error's class name and message, or only its class name)
HOST_FAULTS = {
    "subprocess.run raises, no TimeoutExpired": (
        {"subprocess": Raiser}, lambda r: g.run_git_command(r, ["status"]), ("RuntimeError", "host run failed")),
    "exit code beyond 64 bits": (
        {"run_git_command": lambda r, a: ("", "", 2**70)}, lambda r: g._git_output(r, ["x"]),
        ("GitError", f"git exited with code {2**70}")),
    "count beyond 64 bits": (
        {"run_git_command": lambda r, a: ("9" * 30 + "\n", "", 0)}, lambda r: g.count_commits(r, "a", "b"), 10**30 - 1),
    "exit code not an int": ({"run_git_command": lambda r, a: ("", "", "0")}, lambda r: g.get_head_commit(r), "TypeError"),
    "triple of two": ({"run_git_command": lambda r, a: ("", "")}, lambda r: g.branch_exists(r, "x"), "TypeError"),
    "env items that are no pairs": (
        {"get_subprocess_hidden_kwargs": lambda: {"env": BadEnv()}}, lambda r: g.run_git_command(r, ["status"]), "TypeError"),
    "non-str option name": (
        {"get_subprocess_hidden_kwargs": lambda: {1: 2}}, lambda r: g.run_git_command(r, ["status"]), "TypeError"),
    "_git_output returns bytes": (
        {"_git_output": lambda r, a: b""}, lambda r: g.diff_file_changes(r, "a", "b"),
        ("TypeError", "_git_output must return str, not bytes")),
    "_MAX_PATHSPEC_CHARS a float": ({"_MAX_PATHSPEC_CHARS": 10.5}, lambda r: g._path_batches(["a"]), "TypeError"),
    "collector switched off by the host": ({}, _gc_left_as_the_host_left_it, False),
    "no list with empty slots": ({}, _no_list_with_holes, 2),
}
OWN_FILE_CHANGE = g.FileChange


class BadEnv(dict):
    def items(self):
        return [("PATH",), 3]


@pytest.mark.parametrize("fault", HOST_FAULTS)
def test_host_faults_reach_the_caller_as_errors_of_their_own(repo, module_state, fault):
    bound, call, expected = HOST_FAULTS[fault]
    for name, value in bound.items():
        setattr(g, name, value)
    try:
        got = _error(lambda: call(repo))
        assert (got[0] if isinstance(expected, str) else got) == expected
    finally:
        gc.enable()


# The host's helpers, given a text where a list belongs, name themselves and the parameter too.
@pytest.mark.parametrize("call, named", [(lambda r: g._git_output(r, b"status"), "_git_output() argument 'args'"),
                                         (lambda r: g._file_changes("a\0b"), "_file_changes() argument 'tokens'")])
def test_misuse_names_function_and_parameter(repo, call, named):
    with pytest.raises(TypeError, match=re.escape(named)):
        call(repo)


def test_function_attributes_stay_sound(monkeypatch):
    f = g.run_git_command
    assert _error(lambda: delattr(f, "__qualname__"))[0] == _error(lambda: setattr(f, "__name__", 5))[0] == "TypeError"
    monkeypatch.setattr(f, "__qualname__", "renamed")
    monkeypatch.delattr(f, "__doc__")
    assert f.__doc__ is None
    with pytest.raises(TypeError, match=r"^renamed\(\) missing 2 required positional arguments"):
        f()


# Free-threaded CPython 3.13.5 (and the 3.13 releases before it) releases a
# list whose item array it failed to allocate before setting its item
# pointer (PyList_New): the release frees whatever that pointer held, and a
# later, unrelated step of the suite crashes.
@pytest.mark.skipif(bool(sysconfig.get_config_var("Py_GIL_DISABLED")) and sys.version_info[:3] <= (3, 13, 5),
                    reason="free-threaded 3.13.5 corrupts its heap when PyList_New fails")
@pytest.mark.parametrize("call", [lambda: g.parse_line_spans(PATCH), lambda: g.parse_commit_changes(LOG),
                                  lambda: g._file_changes(RAW.split("\0")), lambda: g._unquote("a\\303\\251\\tb")])
def test_each_allocation_failing_in_turn_is_a_memory_error(call):
    # One allocation fails at a time, the first, the second, ...: every way
    # out of the call on a failed allocation is taken once.
    # (An interpreter of its own refuses _testcapi: ImportError, not ModuleNotFoundError.)
    _testcapi = pytest.importorskip("_testcapi", exc_type=ImportError)
    expected = call()
    for n in range(400):
        _testcapi.set_nomemory(n, n + 1)
        try:
            got = call()
        except MemoryError:
            continue
        finally:
            _testcapi.remove_mem_hooks()
        assert got == expected
        break
    else:
        pytest.fail("every run failed")


def test_memory_error_stops_the_reading_of_a_big_patch():
    # From 1 MiB on the patch is read on a thread of its own: a failed
    # allocation while the records are made stops it and waits for it.
    _testcapi = pytest.importorskip("_testcapi", exc_type=ImportError)
    patch = PATCH * (2**20 // len(PATCH) + 1)
    expected = g.parse_line_spans(patch)
    outcomes = []
    for n in (100, 1_000, 10_000):
        _testcapi.set_nomemory(n, n + 1)
        try:
            outcomes.append(g.parse_line_spans(patch) == expected)
        except MemoryError:
            outcomes.append(MemoryError)
        finally:
            _testcapi.remove_mem_hooks()
    assert outcomes == [MemoryError] * 3
    assert g.parse_line_spans(patch) == expected


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


def test_datetime_subclass_is_written_from_its_own_fields(repo):
    class Moment(datetime):
        year = property(lambda self: "not a number")

    head = git(repo, "rev-parse", "HEAD").strip()
    assert g.commit_before(repo, "main", Moment(2030, 1, 1)) == head
    assert [c.timestamp for c in g.log_commit_changes(repo, since=Moment(2000, 1, 1), ref=None, max_commits=1)] == [
        int(git(repo, "log", "-1", "--format=%ct"))]
