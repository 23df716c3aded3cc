# The module boundary: load, the names it holds, records, function objects, the
# host's start options, and the call-time lookup of the since-value names.

import dataclasses
import functools
import inspect
import os
import pickle
import re
import subprocess
import sys
from datetime import datetime, timedelta
from pathlib import Path
from types import SimpleNamespace

import pytest

from vantrel_sorlith.utils import git_utils as g


@pytest.mark.skipif("GIT_UTILS_EXPECT_MODULE" not in os.environ, reason="no particular build asked for")
def test_the_build_asked_for_is_the_one_loaded():
    # The sanitized run names its build: the import must not fall through to
    # the installed module, and no second copy may be mapped.
    expected = Path(os.environ["GIT_UTILS_EXPECT_MODULE"]).resolve()
    assert Path(g.__file__).resolve() == expected
    mapped = {Path(line.split(maxsplit=5)[5]).resolve() for line in Path("/proc/self/maps").read_text().splitlines()
              if line.count(" ") >= 5 and "/git_utils." in line}
    assert mapped == {expected}


@pytest.mark.parametrize("name, expected", [
    ("TIME_SPEC_FORMS", "a positive whole number followed by m (minutes), h (hours), d (days) or w (weeks), "
                        "such as 7d or 24h, or an ISO date such as 2026-09-01"),
    ("_SPEC_UNITS", {"m": "minutes", "h": "hours", "d": "days", "w": "weeks"}),
    ("_STATUS_BY_LETTER", {"A": "added", "C": "copied", "D": "deleted", "M": "modified", "R": "renamed", "T": "modified"}),
    ("_TWO_PATH_LETTERS", frozenset({"C", "R"})),
    ("_COMMIT_START", "\x1e"),
    ("_PATCH_OPTIONS", ("--no-color", "--no-ext-diff", "--no-textconv", "--no-prefix", "-M", "-U0")),
    ("_C_ESCAPES", {"a": "\a", "b": "\b", "f": "\f", "n": "\n", "r": "\r", "t": "\t", "v": "\v"}),
    ("_MAX_PATHSPEC_CHARS", 16000),
    ("_RELATIVE_SPEC", (r"(\d+)([mhdw])", 0)),
    ("_HUNK_HEADER", (r"@@ -\d+(?:,(\d+))? \+(\d+)(?:,(\d+))? @@", 0)),
    ("_C_ESCAPE", (r"\\([0-7]{3}|.)", re.DOTALL)),
])
def test_constants_and_compiled_patterns(name, expected):
    value = getattr(g, name)
    if isinstance(value, re.Pattern):
        value = (value.pattern, value.flags & ~re.UNICODE)
    assert value == expected and type(value) is type(expected)


def test_logger_and_error_class():
    # (The names the module imports, each from its module: the stub, below.)
    import logging

    assert g.logger is logging.getLogger("vantrel_sorlith.utils.git_utils")
    assert (g.GitError.__bases__, g.GitError.__module__, str(g.GitError("msg"))) == ((RuntimeError,), g.__name__, "msg")


ROOT = Path(__file__).resolve().parents[2]
# The names in load order, as the one table of names and operations declares them.
LOAD_ORDER = re.findall(r"^(?:NAME|IMPORT|OPERATION)\((\w+)", (ROOT / "src/binding/operations.inc").read_text(), re.M)


def test_checked_in_stub_is_the_one_the_module_gives():
    # The namespace holds every name, in load order.
    assert [n for n in vars(g) if not n.startswith("__")] == LOAD_ORDER
    assert not hasattr(g, "__all__")
    # The stub is written from the module itself (tools/gen_stub.py); a stale
    # one fails here. stubtest then checks it against the runtime.
    sys.path.insert(0, str(ROOT / "tools"))
    try:
        import gen_stub
    finally:
        sys.path.remove(str(ROOT / "tools"))
    assert gen_stub.render(g) == (ROOT / "src/binding/git_utils.pyi").read_text()
    assert g.checked_out_branch.__wrapped__ is g.resolve_display_branch


@pytest.mark.parametrize("cls, values", [
    (g.FileChange, ("a.c", "added", 3, 0)), (g.CommitChanges, (17, ())), (g.LineSpan, (1, 2, True))])
def test_records_are_the_hosts_frozen_dataclasses(cls, values):
    # Made by dataclass(frozen=True) itself: its equality, hashing and
    # immutability are the host's own.
    assert dataclasses.is_dataclass(cls) and cls.__dataclass_params__.frozen and not cls.__dataclass_params__.order
    assert hash(cls(*values)) == hash(cls(*values))
    assert [f.type for f in dataclasses.fields(cls)] == list(cls.__annotations__.values())


def test_function_objects_look_like_python_functions():
    f = g.run_git_command
    assert (f.__name__, f.__qualname__, f.__defaults__, f.__kwdefaults__) == ("run_git_command", "run_git_command", (30,), None)
    wrapper = functools.wraps(f)(lambda *args, **kwargs: f(*args, **kwargs))
    assert wrapper.__wrapped__ is f and inspect.signature(wrapper) == inspect.signature(f)
    assert pickle.loads(pickle.dumps(f)) is f


@pytest.mark.parametrize("call, message", [
    (lambda f: f(), "missing 2 required positional arguments: 'repo_root' and 'args'"),
    (lambda f: f("/r"), "missing 1 required positional argument: 'args'"),
    (lambda f: f("/r", [], 1, 2), "takes from 2 to 3 positional arguments but 4 were given"),
    (lambda f: f("/r", [], tmeout=1), "got an unexpected keyword argument 'tmeout'"),
    (lambda f: f("/r", [], repo_root="/r"), "got multiple values for argument 'repo_root'"),
])
def test_argument_errors_come_before_git(module_state, call, message):
    calls = []
    module_state.get_subprocess_hidden_kwargs = lambda: calls.append(1) or {}
    with pytest.raises(TypeError, match=re.escape(message)):
        call(g.run_git_command)
    assert calls == []


@pytest.mark.parametrize("option", ["cwd", "capture_output", "encoding", "errors", "timeout"])
def test_host_option_clash_fails_before_git_starts(module_state, repo, option):
    module_state.get_subprocess_hidden_kwargs = lambda: {option: None}
    module_state.subprocess = None  # would fail loudly if anything tried to start git
    with pytest.raises(TypeError, match=f"'{option}'"):
        g.run_git_command(repo, ["status"])


def test_env_and_other_options_reach_git(module_state, repo):
    module_state.get_subprocess_hidden_kwargs = lambda: {"env": {"PATH": os.environ["PATH"], "GREETING": "hi there"}}
    assert g.run_git_command(repo, ["-c", 'alias.say=!printf %s "$GREETING"', "say"]) == ("hi there", "", 0)
    # An option the native start does not know goes through the host's subprocess.run.
    seen, real_run = {}, subprocess.run
    module_state.subprocess = SimpleNamespace(TimeoutExpired=subprocess.TimeoutExpired,
                                              run=lambda cmd, **kw: seen.update(kw, cmd=cmd) or real_run(cmd, **kw))
    module_state.get_subprocess_hidden_kwargs = lambda: {"start_new_session": True}
    assert g.run_git_command(repo, ["-c", "alias.crlf=!printf 'a\\r\\nb'", "crlf"]) == ("a\nb", "", 0)
    assert seen["cmd"][0] == "git" and seen["start_new_session"] is True
    assert {k: seen[k] for k in ("cwd", "capture_output", "encoding", "errors", "timeout")} == {
        "cwd": str(repo), "capture_output": True, "encoding": "utf-8", "errors": "replace", "timeout": 30}


Info = SimpleNamespace  # the fields of subprocess.STARTUPINFO that a host may set


@pytest.mark.parametrize("options, outcome", [
    # What a Windows host gives: STARTF_USESHOWWINDOW, SW_HIDE, CREATE_NO_WINDOW.
    ({"startupinfo": Info(dwFlags=1, wShowWindow=0), "creationflags": 0x08000000}, "native"),
    ({"startupinfo": None, "creationflags": True}, "native"),
    ({"startupinfo": Info(dwFlags=2**32 - 1, wShowWindow=2**16 - 1, lpAttributeList={"handle_list": []})}, "native"),
    ({"creationflags": -1}, "native"),  # cut to 32 bits, as CreateProcess reads it
    ({"startupinfo": Info(dwFlags="1")}, TypeError),
    ({"startupinfo": Info(wShowWindow=2**16)}, OverflowError),
    ({"startupinfo": Info(dwFlags=-1)}, OverflowError),
    ({"creationflags": 1.0}, TypeError),
    # Handles to inherit: only the host's subprocess.run passes them on (and on POSIX refuses a startupinfo).
    ({"startupinfo": Info(lpAttributeList={"handle_list": [3]})}, ValueError),
])
def test_windows_start_options_keep_the_native_start(module_state, repo, options, outcome):
    module_state.get_subprocess_hidden_kwargs = lambda: options
    if outcome == "native":  # the host's subprocess.run would refuse a startupinfo here
        assert g.run_git_command(repo, ["rev-parse", "--is-inside-work-tree"]) == ("true\n", "", 0)
    else:
        with pytest.raises(outcome, match="startupinfo|creationflags"):
            g.run_git_command(repo, ["status"])


@pytest.mark.parametrize("setup", ["sys.modules['vantrel_sorlith.utils.process'] = None",
                                   "sys.modules['vantrel_sorlith.utils.best_effort'] = type(sys)('x')"])
def test_missing_host_service_fails_the_import(setup):
    code = f"import sys\n{setup}\ntry:\n    import vantrel_sorlith.utils.git_utils\nexcept ImportError as e:\n    print('ImportError', e)"
    done = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True)
    assert done.stdout.startswith("ImportError"), done.stderr


def test_time_spec_constants_are_read_at_each_call(module_state):
    def ago(since, **span):
        return abs(g.parse_time_spec(since) - (datetime.now() - timedelta(**span))).total_seconds() < 5

    module_state._SPEC_UNITS["d"] = "weeks"
    assert ago("1d", weeks=1)
    module_state._SPEC_UNITS["d"] = "days"
    module_state._RELATIVE_SPEC = re.compile(r"(\d+)(x)")
    module_state._SPEC_UNITS["x"] = "hours"
    assert ago("2x", hours=2)
    module_state.TIME_SPEC_FORMS = "one of the usual forms"
    with pytest.raises(ValueError, match=r"^since must be one of the usual forms; got '1d'$"):
        g.parse_time_spec("1d")
    del module_state._SPEC_UNITS["x"]
