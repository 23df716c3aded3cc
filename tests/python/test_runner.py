"""The git command runner and the checked wrapper, against real git."""

import logging
import os
import signal
import threading
import time
from pathlib import Path

import pytest

from vantrel_sorlith.utils import git_utils as g

LOGGER = "vantrel_sorlith.utils.git_utils"


def printf_alias(data: bytes):
    """git arguments that make git print `data` (octal escapes through printf)."""
    escaped = "".join(f"\\{b:03o}" for b in data)
    return ["-c", f"alias.emit=!printf '{escaped}'", "emit"]


def python_reading(data: bytes) -> str:
    text = data.decode("utf-8", "replace")
    return text.replace("\r\n", "\n").replace("\r", "\n")


@pytest.mark.parametrize(
    "data",
    [
        b"plain\n",
        b"a\r\nb\rc\r\r\n",
        b"\xff rest intact",
        b"\xe2\x82 truncated",
        b"\xe0\x80\x80 three",
        b"\xc3\xc2\xa9",
        b"\xed\xa0\x80 surrogate",
        b"\xf4\x90\x80\x80 above max",
        b"caf\xc3\xa9 \xf0\x9f\x98\x80\r",
        b"\r",
        b"x\r\n\r\n\xff\xfe\r\n\xc3",
        b"",
    ],
)
def test_output_is_decoded_as_python_would(repo, data):
    assert g.run_git_command(repo, printf_alias(data)) == (python_reading(data), "", 0)


def test_large_output_with_crlf_keeps_every_byte(repo, tmp_path):
    chunk = b"line \xc3\xa9\r\n" * 1000 + b"\xff\r"
    big = tmp_path / "big"
    big.write_bytes(chunk * 300)
    out, err, rc = g.run_git_command(repo, ["-c", f"alias.cat=!cat '{big}'", "cat"])
    assert (err, rc) == ("", 0)
    assert out == python_reading(chunk * 300)


def test_failed_run_is_data_and_logged(repo, caplog):
    caplog.set_level(logging.DEBUG, logger=LOGGER)
    out, err, rc = g.run_git_command(repo, ["rev-parse", "--verify", "no-such-ref"])
    assert (out, rc) == ("", 128)
    assert err.endswith("\n")
    [record] = [r for r in caplog.records if r.name == LOGGER]
    assert record.levelno == logging.DEBUG
    assert record.msg == "git command failed: args=%s rc=%s stderr=%s"
    assert record.getMessage() == f"git command failed: args=['rev-parse', '--verify', 'no-such-ref'] rc=128 stderr={err.strip()}"


def test_empty_args_runs_bare_git(repo):
    out, err, rc = g.run_git_command(repo, [])
    assert rc != 0 and "usage: git" in out + err


@pytest.mark.parametrize("where", ["missing-dir", "no-git-on-path"])
def test_missing_git_or_directory_gives_fixed_triple(repo, tmp_path, monkeypatch, caplog, where):
    caplog.set_level(logging.WARNING, logger=LOGGER)
    root = tmp_path / "absent" if where == "missing-dir" else repo
    if where == "no-git-on-path":
        monkeypatch.setenv("PATH", str(tmp_path))
    assert g.run_git_command(root, ["status"]) == ("", "git not found", 1)
    assert [r.getMessage() for r in caplog.records] == ["git executable not found while running args=['status']"]
    with pytest.raises(g.GitError, match="^git not found$"):
        g._git_output(root, ["status"])


def test_directory_that_is_a_file_raises_like_subprocess(tmp_path):
    f = tmp_path / "file"
    f.write_text("x")
    with pytest.raises(NotADirectoryError) as info:
        g.run_git_command(f, ["status"])
    assert info.value.filename == str(f)


def test_unreadable_directory_raises_permission_error(tmp_path):
    if os.geteuid() == 0:
        pytest.skip("root enters any directory")
    locked = tmp_path / "locked"
    locked.mkdir(mode=0o000)
    with pytest.raises(PermissionError):
        g.run_git_command(locked, ["status"])


def live_processes(marker):
    found = []
    for pid in os.listdir("/proc"):
        if pid.isdigit():
            try:
                if marker in Path(f"/proc/{pid}/cmdline").read_bytes():
                    found.append(pid)
            except OSError:
                pass
    return found


@pytest.mark.parametrize("grandchild", [False, True])
def test_timeout_returns_on_time_and_leaves_no_process(repo, caplog, grandchild):
    caplog.set_level(logging.WARNING, logger=LOGGER)
    marker = "7.31" if grandchild else "7.32"
    script = f"sleep {marker} & sleep {marker}" if grandchild else f"sleep {marker}"
    args = ["-c", f"alias.slow=!{script}", "slow"]
    start = time.monotonic()
    assert g.run_git_command(repo, args, timeout=0.5) == ("", "Command timed out", 1)
    assert time.monotonic() - start < 2
    deadline = time.monotonic() + 2
    while live_processes(marker.encode()) and time.monotonic() < deadline:
        time.sleep(0.05)
    assert live_processes(marker.encode()) == []
    assert caplog.records[-1].getMessage() == f"git command timed out after 0.5s: args={args!r}"


def test_threads_run_git_concurrently(repo):
    args = ["-c", "alias.nap=!sleep 0.5", "nap"]
    results = []
    threads = [threading.Thread(target=lambda: results.append(g.run_git_command(repo, args))) for _ in range(2)]
    start = time.monotonic()
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert results == [("", "", 0)] * 2
    assert time.monotonic() - start < 0.9


def test_signals_during_a_run_do_not_break_it(repo):
    ticks = []
    old = signal.signal(signal.SIGALRM, lambda *_: ticks.append(1))
    signal.setitimer(signal.ITIMER_REAL, 0.01, 0.01)
    try:
        out = g.run_git_command(repo, ["-c", "alias.nap=!sleep 0.3; echo done", "nap"])
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
        signal.signal(signal.SIGALRM, old)
    assert out == ("done\n", "", 0)
    assert len(ticks) > 5


def test_exception_from_signal_handler_stops_git(repo):
    def boom(*_):
        raise KeyboardInterrupt

    old = signal.signal(signal.SIGALRM, boom)
    signal.setitimer(signal.ITIMER_REAL, 0.2)
    start = time.monotonic()
    try:
        with pytest.raises(KeyboardInterrupt):
            g.run_git_command(repo, ["-c", "alias.nap=!sleep 7.33", "nap"])
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
        signal.signal(signal.SIGALRM, old)
    assert time.monotonic() - start < 2
    time.sleep(0.1)
    assert live_processes(b"7.33") == []


@pytest.mark.parametrize(
    "args, error",
    [
        (["rev-parse", 3], TypeError),
        (["rev-parse", None], TypeError),
        ("rev-parse HEAD", TypeError),
        (["rev-parse", "HE\0AD"], ValueError),
    ],
)
def test_bad_arguments_fail_before_git_runs(repo, args, error):
    with pytest.raises(error):
        g.run_git_command(repo, args)


def test_bytes_and_pathlike_arguments_are_accepted(repo):
    out, _, rc = g.run_git_command(repo, [b"rev-parse", Path("--show-toplevel")])
    assert (out.strip(), rc) == (str(repo), 0)
    # The directory is used in its text form, str(repo_root): bytes name no directory.
    assert g.run_git_command(str(repo).encode(), ["status"]) == ("", "git not found", 1)


def test_nul_in_directory_raises_value_error(repo):
    with pytest.raises(ValueError):
        g.run_git_command(str(repo) + "\0x", ["status"])


@pytest.mark.parametrize(
    "triple, expected",
    [
        (("out\n", "warning: x\n", 0), "out\n"),
        (("", "fatal: bad revision 'x'\n", 128), "fatal: bad revision 'x'"),
        (("", " \n\t", 1), "git exited with code 1"),
        (("", "", -9), "git exited with code -9"),
        (("", "line one\nline two\n", 2), "line one\nline two"),
    ],
)
def test_git_output_checks_the_triple(module_state, triple, expected):
    seen = []
    module_state.run_git_command = lambda root, args: seen.append((root, args)) or triple
    if triple[2] == 0:
        assert g._git_output("/r", ["x"]) == expected
    else:
        with pytest.raises(g.GitError) as info:
            g._git_output("/r", ["x"])
        assert str(info.value) == expected and type(info.value) is g.GitError
    assert seen == [("/r", ["x"])]


def test_git_killed_by_signal_gives_negative_code(repo):
    out, err, rc = g.run_git_command(repo, ["-c", "alias.die=!kill -9 $PPID", "die"])
    assert rc in (-9, 137)  # the shell alias may report the kill itself
    with pytest.raises(g.GitError, match=r"^git exited with code (-9|137)$"):
        g._git_output(repo, ["-c", "alias.die=!kill -9 $PPID", "die"])
