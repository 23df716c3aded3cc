# The git command runner and the checked wrapper, against real git.

import contextlib
import hashlib
import inspect
import json
import logging
import os
import pty
import random
import signal
import subprocess
import sys
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

from test_boundary import _error
from vantrel_sorlith.utils import git_utils as g

LOGGER = "vantrel_sorlith.utils.git_utils"


@pytest.mark.parametrize(
    "data",
    [b"", b"a\r\nb\rc\r\r\n", b"\xe2\x82 truncated", b"\xe0\x80\x80 three", b"\xc3\xc2\xa9",
     b"\xed\xa0\x80 surrogate", b"\xf4\x90\x80\x80 above max", b"caf\xc3\xa9 \xf0\x9f\x98\x80\r",
     # Replacements that fit in the room CR LF pairs leave, and one that does not.
     b"x\r\n\r\n\xff\xfe\r\n\xc3"],
)
def test_output_is_decoded_as_python_would(repo, data):
    escaped = "".join(f"\\{b:03o}" for b in data)  # git prints `data` through printf's octal escapes
    text = data.decode("utf-8", "replace").replace("\r\n", "\n").replace("\r", "\n")
    assert g.run_git_command(repo, ["-c", f"alias.emit=!printf '{escaped}'", "emit"]) == (text, "", 0)


def test_failed_run_is_data_and_logged(repo, caplog):
    caplog.set_level(logging.DEBUG, logger=LOGGER)
    out, err, rc = g.run_git_command(repo, ["rev-parse", "--verify", "no-such-ref"])
    assert (out, rc, err[-1:]) == ("", 128, "\n")
    [record] = [r for r in caplog.records if r.name == LOGGER]
    assert (record.levelno, record.msg) == (logging.DEBUG, "git command failed: args=%s rc=%s stderr=%s")
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


@pytest.mark.parametrize("kind, error", [("file", NotADirectoryError), ("locked", PermissionError)])
def test_directory_git_cannot_enter_raises_like_subprocess(tmp_path, kind, error):
    if kind == "locked" and os.geteuid() == 0:
        pytest.skip("root enters any directory")
    where = tmp_path / kind
    where.write_text("x") if kind == "file" else where.mkdir(mode=0o000)
    with pytest.raises(error) as info:
        g.run_git_command(where, ["status"])
    assert info.value.filename == str(where)


def live_processes(marker):
    found = []
    for cmdline in Path("/proc").glob("[0-9]*/cmdline"):
        with contextlib.suppress(OSError):
            found += [cmdline.parent.name] if marker in cmdline.read_bytes() else []
    return found


def children():
    found = []
    for task in Path("/proc/self/task").iterdir():
        with contextlib.suppress(FileNotFoundError):  # a thread that just ended may be listed, then gone
            found += (task / "children").read_text().split()
    return found


def processes_left(marker):
    # Processes with the marker in their command line, once those killed have had 2 s to go.
    deadline = time.monotonic() + 2
    while (found := live_processes(marker.encode())) and time.monotonic() < deadline:
        time.sleep(0.02)
    return found


def assert_nothing_left(marker):
    # A child the kernel reaps itself (SIGCHLD ignored) may still be listed
    # for a moment after waitpid has said it is gone; a zombie stays listed.
    deadline = time.monotonic() + 2
    while children() and time.monotonic() < deadline:
        time.sleep(0.01)
    assert (children(), processes_left(marker)) == ([], [])


# A stand-in for git that follows its arguments, for the branch points of the
# runner: out=N and err=N write the next N bytes of that stream's numbered
# lines, zeros=N writes N zero bytes to stdout, sleep=S pauses, exit=C exits
# with C, child=S leaves `sleep S` holding both pipes, orphan=S the same in a
# session of its own, whose parent (this script) then exits; tag=X does
# nothing (it marks the process).
FAKE_GIT = """#!{python} -S
import os, subprocess, sys, time
{pattern}
streams = {{"out": [1, 0], "err": [2, 0]}}
code = 0
for step in sys.argv[1:]:
    key, _, value = step.partition("=")
    if key in streams:
        fd, pos = streams[key]
        data = pattern(key, pos + int(value))[pos:]
        while data:
            data = data[os.write(fd, data):]
        streams[key][1] += int(value)
    elif key == "sleep":
        time.sleep(float(value))
    elif key == "exit":
        code = int(value)
    elif key == "zeros":
        block, left = bytes(1 << 20), int(value)
        while left > 0:
            left -= os.write(1, block[:left])
    elif key in ("child", "orphan"):
        subprocess.Popen(["sleep", value], start_new_session=key == "orphan")
sys.exit(code)
"""


def pattern(key, n):
    # The first n bytes a stream of the fake writes: numbered lines, so a byte lost, doubled or moved shows.
    tag = key[0].upper().encode()
    return b"".join(tag + b"%07d\n" % i for i in range(n // 9 + 1))[:n]


def put_fake_git(tmp_path, monkeypatch, script):
    # `script` as the git that PATH finds first.
    (tmp_path / "bin").mkdir()
    (tmp_path / "bin" / "git").write_text(script)
    (tmp_path / "bin" / "git").chmod(0o755)
    monkeypatch.setenv("PATH", f"{tmp_path / 'bin'}:{os.environ['PATH']}")


@pytest.fixture()
def fake_git(tmp_path, monkeypatch):
    put_fake_git(tmp_path, monkeypatch, FAKE_GIT.format(python=sys.executable, pattern=inspect.getsource(pattern)))


TIMED_OUT = ("", "Command timed out", 1)
# Steps of the fake, and whether the run ends at the 0.5 s time limit. 64 KiB
# is the first chunk of the collector and the size of a stderr pipe; stdout's
# pipe is 1 MiB.
BEHAVIOURS = {
    "stdout chunk exactly full, then a pause past the limit": ("out=65536 sleep=5", True),
    "stderr chunk exactly full, then a pause past the limit": ("err=65536 sleep=5", True),
    "stdout chunk exactly full, then stderr beyond its pipe": ("out=65536 err=200000", False),
    "stdout pipe exactly full, then stderr beyond its pipe": ("out=1048576 err=200000 exit=2", False),
    "chunk multiples on both streams with pauses": (
        "out=65536 sleep=0.05 out=131072 err=65536 sleep=0.05 out=262144 err=131072 exit=3", False),
    "alternating streams, single bytes at the edges": (
        "out=1 err=1 out=65535 err=65535 out=1 err=1 sleep=0.02 out=65536 err=65536", False),
    "no output at all": ("exit=0", False),
    "grandchild holds the pipes after git exits": ("out=100 child={marker}", True),
    "orphan in a session of its own holds the pipes": ("err=10 orphan={marker}", True),
    "git and its grandchild both outlive the limit": ("child={marker} sleep={marker}", True),
}


@contextlib.contextmanager
def host_condition(kind):
    # The host as the run meets it: plain, ignoring SIGCHLD (the kernel then
    # reaps git itself), or taking a signal every millisecond.
    ticks = []
    number, handler = {"plain": (signal.SIGCHLD, signal.SIG_DFL), "SIGCHLD ignored": (signal.SIGCHLD, signal.SIG_IGN),
                       "signal every ms": (signal.SIGALRM, lambda *_: ticks.append(1))}[kind]
    old = signal.signal(number, handler)
    signal.setitimer(signal.ITIMER_REAL, 0.001 if number == signal.SIGALRM else 0, 0.001)
    try:
        yield ticks
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
        signal.signal(number, old)


@pytest.mark.parametrize("host", ["plain", "SIGCHLD ignored", "signal every ms"])
@pytest.mark.parametrize("behaviour", BEHAVIOURS)
def test_fake_git_table(fake_git, caplog, behaviour, host):
    caplog.set_level(logging.WARNING, logger=LOGGER)
    steps, times_out = BEHAVIOURS[behaviour]
    marker = f"31.{random.randrange(10**6):06d}"
    args = steps.format(marker=marker).split()
    start = time.monotonic()
    with host_condition(host) as ticks:
        got = g.run_git_command(".", args, timeout=0.5 if times_out else 10)
    took = time.monotonic() - start
    if times_out:
        assert got == TIMED_OUT
        assert 0.5 <= took < 2
        assert caplog.records[-1].getMessage() == f"git command timed out after 0.5s: args={args!r}"
    else:
        steps = [step.partition("=")[::2] for step in args]
        out, err = (sum(int(n) for key, n in steps if key == stream) for stream in ("out", "err"))
        # Where SIGCHLD is ignored the kernel reaps git and no code is left: 0, as subprocess gives.
        code = 0 if host == "SIGCHLD ignored" else int(dict(steps).get("exit", 0))
        assert got == (pattern("out", out).decode(), pattern("err", err).decode(), code)
        assert took < 5
    if host == "signal every ms":
        assert ticks
    assert_nothing_left(marker)


def child_script(body):
    # `body` as a script for a fresh interpreter, after the imports the scripts of these tests share.
    return ("import contextlib, json, logging, os, resource, subprocess, sys, threading, time, types\n"
            "from pathlib import Path\nfrom vantrel_sorlith.utils import git_utils as g\n" + body)


def run_child_interpreter(code, *args, terminal_input=None, timeout=120, wrapper=(), skips=None):
    # Runs `code` in a fresh interpreter (in a pseudo-terminal of its own,
    # as the foreground job, when `terminal_input` is given; else under
    # `wrapper`, a command that runs its arguments last) and returns the JSON
    # it prints on its last line. An exit code in `skips` skips the test.
    if terminal_input is None:
        done = subprocess.run([*wrapper, sys.executable, "-c", code, *args], capture_output=True, text=True,
                              timeout=timeout)
        if done.returncode in (skips or {}):
            pytest.skip(skips[done.returncode])
        assert done.returncode == 0, done.stderr
        return json.loads(done.stdout.splitlines()[-1])
    pid, master = pty.fork()
    if pid == 0:
        os.execv(sys.executable, [sys.executable, "-c", code, *args])
    os.write(master, terminal_input)
    output = b""
    with contextlib.suppress(OSError):  # EIO: the terminal's last user has gone
        while chunk := os.read(master, 65536):
            output += chunk
    os.close(master)
    assert os.waitpid(pid, 0)[1] == 0, output
    return json.loads(output.decode().splitlines()[-1])


IN_A_TERMINAL = child_script("""
marker, answers = sys.argv[1], {}
for name, args, timeout in [
        ("reads the terminal", ["hash-object", "--stdin"], 20),
        ("grandchildren, one away from the pipes",
         ["-c", f"alias.x=!sleep {marker} </dev/null >/dev/null 2>&1 & sleep {marker}", "x"], 0.5),
        ("orphan holds the pipes", ["-c", f"alias.x=!(sleep {marker} &); echo started", "x"], 0.5)]:
    start = time.monotonic()
    answers[name] = [g.run_git_command(".", args, timeout=timeout), time.monotonic() - start]
answers["foreground"] = os.tcgetpgrp(0) == os.getpgrp()
# Looked for here: when this interpreter exits, the terminal hangs up on its
# process group, which would end a leftover in it anyway.
{left}
answers["left"] = [pid for pid in left(marker) if int(pid) != os.getpid()]
print(json.dumps(answers))
""")


def test_git_reads_the_hosts_terminal_and_a_timeout_still_kills_everything():
    # The host is the foreground job of a terminal: git reads it as under
    # subprocess.run (no stop by SIGTTIN), and the time limit still holds.
    marker = f"32.{random.randrange(10**6):06d}"
    code = IN_A_TERMINAL.replace("{left}", inspect.getsource(live_processes)
                                 + inspect.getsource(processes_left).replace("processes_left", "left"))
    got = run_child_interpreter(code, marker, terminal_input=b"hello\n\x04")
    blob = hashlib.sha1(b"blob 6\0hello\n").hexdigest()
    assert got["foreground"] is True
    assert got["reads the terminal"][0] == [blob + "\n", "", 0]
    for name in ("grandchildren, one away from the pipes", "orphan holds the pipes"):
        assert got[name][0] == list(TIMED_OUT) and 0.5 <= got[name][1] < 2, name
    assert got["left"] == []


OUT_OF_MEMORY = child_script("""
size = int(Path("/proc/self/statm").read_text().split()[0]) * resource.getpagesize()
resource.setrlimit(resource.RLIMIT_AS, (size + (512 << 20), resource.RLIM_INFINITY))
start = time.monotonic()
try:
    g.run_git_command(".", ["tag=" + sys.argv[1], "zeros=4000000000"])
    error = None
except MemoryError as e:
    error = type(e).__name__
children = [p for t in Path("/proc/self/task").iterdir() for p in (t / "children").read_text().split()]
print(json.dumps({"error": error, "seconds": time.monotonic() - start, "children": children}))
""")


@pytest.mark.skipif("libasan" in os.environ.get("LD_PRELOAD", ""),
                    reason="AddressSanitizer reserves more address space than the limit leaves")
def test_allocation_failure_mid_read_kills_and_reaps_git(fake_git):
    # Memory runs out while 4 GB arrive: MemoryError, git killed and reaped.
    marker = f"33.{random.randrange(10**6):06d}"
    got = run_child_interpreter(OUT_OF_MEMORY, marker)
    assert got["error"] == "MemoryError" and got["children"] == [] and got["seconds"] < 30
    assert_nothing_left(marker)


def test_environment_edited_by_other_threads(repo):
    # Threads run git while the main thread edits os.environ: every run sees
    # the environment whole (git reads its identity from it), none faults.
    stop, answers, failures = threading.Event(), [], []

    def worker():
        while not stop.is_set():
            try:
                out, err, rc = g.run_git_command(repo, ["var", "GIT_AUTHOR_IDENT"])
                (answers if out.startswith("Ada Tester <ada@example.com> ") and rc == 0 else failures).append(err)
            except Exception as e:
                failures.append(e)

    with ThreadPoolExecutor(3) as pool:
        for _ in range(3):
            pool.submit(worker)
        try:
            end, i = time.monotonic() + 2, 0
            while time.monotonic() < end:
                os.environ[f"GIT_UTILS_EDIT_{i % 500}"] = "x" * (i % 300)
                if i % 500 == 499:
                    for k in range(500):
                        del os.environ[f"GIT_UTILS_EDIT_{k}"]
                i += 1
        finally:
            stop.set()
            start = time.monotonic()
    for k in [k for k in os.environ if k.startswith("GIT_UTILS_EDIT_")]:
        del os.environ[k]
    assert failures == []
    assert len(answers) > 30 and time.monotonic() - start < 2
    assert children() == []


def test_threads_run_git_concurrently(repo):
    start = time.monotonic()
    with ThreadPoolExecutor(2) as pool:
        results = list(pool.map(lambda _: g.run_git_command(repo, ["-c", "alias.nap=!sleep 0.5", "nap"]), range(2)))
    assert results == [("", "", 0)] * 2 and time.monotonic() - start < 0.9


def test_exception_from_signal_handler_stops_git(repo):
    old = signal.signal(signal.SIGALRM, signal.default_int_handler)  # raises KeyboardInterrupt
    signal.setitimer(signal.ITIMER_REAL, 0.2)
    start = time.monotonic()
    try:
        with pytest.raises(KeyboardInterrupt):
            g.run_git_command(repo, ["-c", "alias.nap=!sleep 7.33", "nap"])
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
        signal.signal(signal.SIGALRM, old)
    assert time.monotonic() - start < 2 and processes_left("7.33") == []


def test_bytes_and_pathlike_arguments_are_accepted(repo):
    out, _, rc = g.run_git_command(repo, [b"rev-parse", Path("--show-toplevel")])
    assert (out.strip(), rc) == (str(repo), 0)
    # The directory is used in its text form, str(repo_root): bytes name no directory.
    assert g.run_git_command(str(repo).encode(), ["status"]) == ("", "git not found", 1)


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
    answer = expected if triple[2] == 0 else ("GitError", expected)
    assert (_error(lambda: g._git_output("/r", ["x"])), seen) == (answer, [("/r", ["x"])])


def test_git_killed_by_signal_gives_negative_code(repo):
    # The alias's shell kills git itself: -9, not the shell's 128 + 9 (the message: the triple table above).
    assert g.run_git_command(repo, ["-c", "alias.die=!kill -9 $PPID", "die"])[2] == -9
