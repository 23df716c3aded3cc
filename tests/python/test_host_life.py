# The host's life around the calls: exiting with calls in flight, a
# supervisor stopping the host's process group, no terminal device, a sandbox
# that refuses clone3. Each case runs in a child interpreter (or child process)
# of its own. (Files named git on PATH that cannot run: the core's StartMethods
# table, for both ways of starting git.)

import os
import random
import shutil
import signal
import subprocess
import sys
import time

import pytest

from test_runner import child_script, fake_git, live_processes, processes_left, run_child_interpreter  # noqa: F401

EXIT_WHILE_BUSY = child_script("""
work, root = sys.argv[1], sys.argv[2]
log = "".join(f"\\x1e{1700000000 + i}\\0\\n:100644 100644 aaaaaaa bbbbbbb M\\0p{i}\\0" f"1\\t2\\tp{i}\\0" for i in range(4000))
def slow_options():
    time.sleep(0.05)
    return {}
def host_runner(root, args):
    done = subprocess.run(["git", *args], cwd=root, capture_output=True, text=True)
    return done.stdout, done.stderr, done.returncode
class SlowHandler(logging.Handler):
    def emit(self, record):
        time.sleep(0.05)
if work == "host options sleep":
    g.get_subprocess_hidden_kwargs = slow_options
elif work == "host runner":
    g.run_git_command = host_runner
elif work == "log handler sleeps":
    g.logger.setLevel(logging.DEBUG)
    g.logger.addHandler(SlowHandler())
def busy():
    while True:
        if work == "large parse":
            g.parse_commit_changes(log)
        elif work == "log handler sleeps":
            g.run_git_command(root, ["no-such-command"])  # fails: the runner logs at debug
        else:
            g.get_head_commit(root)
class Late:
    def __del__(self):  # runs while the interpreter finalises, on its own thread
        if g.get_head_commit(root) is None or len(g.parse_commit_changes(log)) != 4000:
            sys.stderr.write("no answer at exit")
if work == "finaliser":
    keep = Late()
else:
    for _ in range(2):
        threading.Thread(target=busy, daemon=True).start()
    time.sleep(0.1)
""")


@pytest.mark.parametrize("work", ["git run", "large parse", "finaliser", "host options sleep", "host runner",
                                  "log handler sleeps"])
def test_exit_with_calls_in_flight(repo, work):
    # Daemon threads are inside a git run (or a 240 KB parse, lock released)
    # when the interpreter exits, or a finaliser calls the library while it
    # exits, or the threads are in host code the library called, which gives
    # the lock up (a sleeping get_subprocess_hidden_kwargs, a run_git_command
    # that calls subprocess.run, a log handler that sleeps): every one of 20
    # children exits with 0, in time. (Before: SIGSEGV in 20 of 20 for the
    # daemon threads in the library's code; in 50, 60 and 59 of 60 for the
    # three shapes of host code.)
    children = [subprocess.Popen([sys.executable, "-c", EXIT_WHILE_BUSY, work, str(repo)], stderr=subprocess.PIPE)
                for _ in range(20)]
    results = [(child.wait(timeout=60), child.stderr.read().decode()[-300:]) for child in children]
    for child in children:
        child.stderr.close()
    assert results == [(0, "")] * 20


HOST = child_script("""g.run_git_command(".", ["tag=" + sys.argv[1], "sleep=30"])\n""")


def test_supervisor_stopping_the_hosts_group_stops_git(fake_git):  # noqa: F811
    # A host started in a session of its own, stopped by `kill -- -PGID`
    # while git runs: git goes with it, as under subprocess.run.
    marker = f"41.{random.randrange(10**6):06d}"
    host = subprocess.Popen([sys.executable, "-c", HOST, marker], start_new_session=True)
    deadline = time.monotonic() + 20
    while not (git := [p for p in live_processes(marker.encode()) if int(p) != host.pid]) and time.monotonic() < deadline:
        time.sleep(0.02)
    os.killpg(host.pid, signal.SIGTERM)
    assert git and host.wait(timeout=10) == -signal.SIGTERM
    assert processes_left(marker) == []


AUTHORS_FROM_STDIN = child_script("""
try:
    os.close(os.open("/dev/ptmx", os.O_RDWR))
    sys.exit(78)
except OSError:
    pass
def stdin_holding_a_log():
    r, w = os.pipe()
    os.write(w, b"commit 1111111111111111111111111111111111111111\\nAuthor: Eve <eve@example.com>\\n\\n    x\\n")
    os.close(w)
    os.dup2(r, 0)
    os.close(r)
answers = {}
stdin_holding_a_log()
answers["native"] = g.get_authors_for_period(sys.argv[1], "3650d")
g.subprocess = types.SimpleNamespace(run=subprocess.run, DEVNULL=subprocess.DEVNULL, TimeoutExpired=subprocess.TimeoutExpired)
stdin_holding_a_log()
answers["host subprocess"] = g.get_authors_for_period(sys.argv[1], "3650d")
print(json.dumps(answers))
""")


def test_authors_without_a_terminal_device_read_the_hosts_stdin(repo):
    # A mount namespace whose /dev/pts is an empty tmpfs: no pseudo-terminal
    # can be made. git then reads the host's standard input as the plain
    # runner gives it (here a log naming Eve), natively and through the
    # host's subprocess; nothing is raised. (Before: OSError ENODEV.)
    if not shutil.which("unshare") or subprocess.run(["unshare", "-m", "true"], capture_output=True).returncode:
        pytest.skip("no mount namespace can be made here")
    script = 'mount --make-rprivate / && mount -t tmpfs none /dev/pts || exit 77; exec "$0" "$@"'
    got = run_child_interpreter(AUTHORS_FROM_STDIN, str(repo), wrapper=["unshare", "-m", "sh", "-c", script],
                                skips={77: "no empty /dev/pts could be mounted", 78: "/dev/ptmx still works"})
    eve = [{"name": "Eve", "email": "eve@example.com", "commits": 1}]
    assert got == {"native": eve, "host subprocess": eve}


CLONE3_REFUSED = """
import ctypes, errno, json, platform, struct, subprocess, sys
audit_arch = {"x86_64": 0xC000003E, "aarch64": 0xC00000B7}.get(platform.machine())
if audit_arch is None:
    sys.exit(77)
def op(code, k, jt=0, jf=0):
    return struct.pack("HBBI", code, jt, jf, k)
# Another architecture's calls pass; clone3 (435) gets EPERM, as 2021's container profiles gave it.
program = b"".join([op(0x20, 4), op(0x15, audit_arch, 1, 0), op(0x06, 0x7FFF0000),
                    op(0x20, 0), op(0x15, 435, 0, 1), op(0x06, 0x00050000 | errno.EPERM), op(0x06, 0x7FFF0000)])
class SockFprog(ctypes.Structure):
    _fields_ = [("len", ctypes.c_ushort), ("filter", ctypes.c_char_p)]
libc = ctypes.CDLL(None, use_errno=True)
if libc.prctl(38, 1, 0, 0, 0) or libc.prctl(22, 2, ctypes.byref(SockFprog(len(program) // 8, program)), 0, 0):
    sys.exit(77)  # PR_SET_NO_NEW_PRIVS, PR_SET_SECCOMP with SECCOMP_MODE_FILTER
refused = libc.syscall(435, None, 0) == -1 and ctypes.get_errno() == errno.EPERM
from vantrel_sorlith.utils import git_utils as g
done = subprocess.run(["git", "rev-parse", "HEAD"], cwd=sys.argv[1], capture_output=True, text=True)
answers = [g.run_git_command(sys.argv[1], ["rev-parse", "HEAD"]) for _ in range(2)]
print(json.dumps({"refused": refused, "subprocess": [done.stdout, done.stderr, done.returncode], "runs": answers}))
"""


def test_sandbox_refusing_clone3_starts_git_as_subprocess_does(repo):
    # A seccomp filter that refuses clone3 with EPERM (posix_spawn's clone on
    # glibc 2.34 and later): git starts by vfork and exec, and answers as
    # under subprocess.run, each time. (Before: PermissionError.)
    got = run_child_interpreter(CLONE3_REFUSED, str(repo), skips={77: "no seccomp filter can be installed here"})
    assert got["refused"] and got["subprocess"][2] == 0
    assert got["runs"] == [got["subprocess"]] * 2
