"""The type stubs: they match the built module (stubtest) and type-check a
consumer strictly, rejecting a misuse."""

import subprocess
import sys
from pathlib import Path

import pytest

pytest.importorskip("mypy")
CONSUMER = Path(__file__).resolve().parent.parent / "typing" / "consumer.py"


def mypy(*args, cwd):
    return subprocess.run([sys.executable, "-m", *args], capture_output=True, text=True, cwd=cwd)


def test_stubs_match_the_runtime_module(tmp_path):
    done = mypy("mypy.stubtest", "vantrel_sorlith.utils.git_utils", cwd=tmp_path)
    assert done.returncode == 0, done.stdout + done.stderr


def test_consumer_type_checks_strictly_and_misuse_is_caught(tmp_path):
    done = mypy("mypy", "--strict", "--no-incremental", "--cache-dir", str(tmp_path / "c"), str(CONSUMER), cwd=tmp_path)
    assert done.returncode == 0, done.stdout + done.stderr
    misuse = tmp_path / "misuse.py"
    misuse.write_text(
        "from datetime import datetime\nfrom pathlib import Path\n"
        "from vantrel_sorlith.utils import git_utils as g\n"
        "g.log_commit_changes(Path('.'), datetime.now(), None, 5)\n"
        "x: int = g.get_head_commit(Path('.'))\n"
    )
    done = mypy("mypy", "--strict", "--no-incremental", "--cache-dir", str(tmp_path / "c"), str(misuse), cwd=tmp_path)
    assert done.returncode == 1
    assert "Too many positional arguments" in done.stdout and "Incompatible types in assignment" in done.stdout
