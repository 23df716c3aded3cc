# The runner's native start on Windows, against the fake git.exe of the core's
# Windows tests (tests/core/win32/fake_git.cpp) in the directory that
# GIT_UTILS_FAKE_GIT names; run under Wine by scripts/test-wheels.

import os
import subprocess
import time
from types import SimpleNamespace

import pytest

from vantrel_sorlith.utils import git_utils as g

pytestmark = pytest.mark.skipif("GIT_UTILS_FAKE_GIT" not in os.environ, reason="needs Windows and the fake git.exe")
ARGS = ["plain", "two words", "", 'say "hi"', "trailing\\", 'back\\\\"slash', "tab\there", "ünï €😀", "&|<>^%"]


def pattern(n):
    return "".join(chr(97 + i % 26) for i in range(n))


@pytest.fixture(autouse=True)
def fake_git_on_path(monkeypatch):
    monkeypatch.setenv("PATH", os.environ["GIT_UTILS_FAKE_GIT"])


@pytest.mark.parametrize("args, expected", [
    (["echo", *ARGS], ("\0".join(ARGS) + "\0", "", 0)),
    (["run", "o70000", "e5", "x3"], (pattern(70000), pattern(5), 3)),
    (["run", "e3", "x3221225477"], ("", "abc", 3221225477)),
    (["run", "o10", "s20000"], ("", "Command timed out", 1)),
])
def test_native_start_gives_what_git_wrote(tmp_path, args, expected):
    started = time.monotonic()
    assert g.run_git_command(tmp_path, args, timeout=2) == expected
    assert time.monotonic() - started < 6


@pytest.mark.parametrize("options, seen", [
    (None, "flags=257 show=0 console=1"),  # the host's: CREATE_NO_WINDOW gives a console without a window
    ({"startupinfo": SimpleNamespace(dwFlags=1, wShowWindow=7), "creationflags": 0x8},  # DETACHED_PROCESS
     "flags=257 show=7 console=0"),
])
def test_start_options_reach_git(module_state, tmp_path, options, seen):
    if options is not None:
        module_state.get_subprocess_hidden_kwargs = lambda: options
    out, err, code = g.run_git_command(tmp_path, ["show"])
    assert (out.split(" stdin=")[0], code) == (seen, 0)  # flags: STARTF_USESHOWWINDOW and STARTF_USESTDHANDLES


def test_missing_git_is_data(tmp_path, monkeypatch):
    monkeypatch.setenv("PATH", str(tmp_path))
    assert g.run_git_command(tmp_path, ["show"]) == ("", "git not found", 1)


@pytest.mark.parametrize("where", ["missing", "file"])
def test_bad_directory_fails_as_subprocess_does(tmp_path, where):
    root = tmp_path / where
    if where == "file":
        root.write_text("x")
    with pytest.raises(OSError) as expected:
        subprocess.run(["git", "show"], cwd=root)
    with pytest.raises(OSError) as got:
        g.run_git_command(root, ["show"])
    assert (type(got.value), got.value.errno, got.value.winerror, got.value.filename) == (
        type(expected.value), expected.value.errno, expected.value.winerror, str(root))
