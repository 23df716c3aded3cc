# Interpreters with a GIL of their own (3.12+): the module loads in each with
# state of its own, its tests pass inside one, and four threads, each running an
# interpreter of its own, call every operation at once.

import json
import os
import subprocess
import sys
from datetime import datetime
from pathlib import Path

import pytest

from test_boundary import OPERATIONS, USES, _error, valid_arguments

pytestmark = pytest.mark.skipif(sys.version_info < (3, 12), reason="interpreters with a GIL of their own came in 3.12")

HERE = Path(__file__).resolve().parent

# In a child process (a fault there cannot take the suite with it), argv[1]
# threads each make an isolated interpreter (a GIL of its own, modules without
# multi-phase support refused), run the code of argv[2] in it one thread at a
# time, then the code of argv[3] all at once. The child leaves through
# os._exit: CPython 3.12.1 frees an invalid pointer at exit once an
# interpreter has imported pytest (`import pytest` alone does it).
DRIVER = """
import os, sys, threading
try:
    import _interpreters as xi                # 3.13 and later
    def run(iid, code):
        failure = xi.run_string(iid, code)
        return failure and failure.errdisplay
    create = lambda: xi.create("isolated")
except ImportError:
    import _xxsubinterpreters as xi           # 3.12: isolated unless asked otherwise
    def run(iid, code):
        try:
            xi.run_string(iid, code)
        except xi.RunFailedError as e:
            return str(e)
    create = xi.create
count, setup, code = int(sys.argv[1]), sys.argv[2], sys.argv[3]
turns, together, failures = threading.Lock(), threading.Barrier(count), []
def thread():
    iid = create()
    with turns:
        failures.append(run(iid, setup))
    together.wait()
    failures.append(run(iid, code))
    xi.destroy(iid)
threads = [threading.Thread(target=thread) for _ in range(count)]
for t in threads:
    t.start()
for t in threads:
    t.join()
print("\\n".join(f for f in failures if f), flush=True)
os._exit(any(failures))
"""


# CPython 3.12.1 and 3.13.0 corrupt their memory once a second isolated
# interpreter has imported datetime, and 3.12.1 when it has imported decimal
# (`import datetime` alone does it; 3.13.5 does not): there each interpreter
# takes the pure-Python versions of both.
PURE_PYTHON = "import sys\nsys.modules.update(_datetime=None, _decimal=None)\n" if sys.version_info < (3, 13, 5) else ""


def in_interpreters(count, setup, code, timeout):
    done = subprocess.run([sys.executable, "-c", DRIVER, str(count), PURE_PYTHON + setup, code], cwd=HERE.parent.parent,
                          capture_output=True, text=True, timeout=timeout)
    assert done.returncode == 0, done.stdout + done.stderr
    return done


def every_operation(repo):
    # Each public operation's answer on `repo` (the clock's reading as its
    # type), and each use of a name the host may replace, as JSON text.
    calls = {name: lambda f=f: f(**valid_arguments(f, repo)) for name, f in OPERATIONS.items()}
    calls.update({"use of " + name: lambda use=use: use(repo) for name, use in USES.items()})
    answers = {name: _error(call) for name, call in calls.items()}
    return json.dumps({name: "datetime" if isinstance(a, datetime) else repr(a) for name, a in answers.items()})


# Every file whose tests neither install signal handlers nor fork (which only
# the main interpreter may), nor start mypy; their slow tests stay outside.
FILES = ["test_parsers.py", "test_module.py", "test_queries.py", "test_report.py", "test_boundary.py"]


@pytest.mark.slow
def test_the_tests_pass_inside_an_isolated_interpreter():
    code = (f"code = pytest.main({[str(HERE / f) for f in FILES]!r} + "
            "['-q', '-m', 'not slow', '-p', 'no:cacheprovider', '-p', 'no:faulthandler'])\n"
            "assert code == 0, code\n")
    assert " passed" in in_interpreters(1, "import pytest", code, timeout=600).stdout


def test_four_threads_each_with_an_interpreter_of_their_own_call_every_operation(repo, tmp_path):
    setup = f"import sys, threading\nsys.path.insert(0, {str(HERE)!r})\nimport test_interpreters as t\n"
    code = f"open({str(tmp_path)!r} + f'/{{threading.get_ident()}}.json', 'w').write(t.every_operation({str(repo)!r}))\n"
    in_interpreters(4, setup, code, timeout=300)
    answers = [json.loads(p.read_text()) for p in tmp_path.glob("*.json")]
    assert len(answers) == 4 and all(a == json.loads(every_operation(str(repo))) for a in answers)
