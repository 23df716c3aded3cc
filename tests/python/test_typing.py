# The type stubs match the built module: every name, signature and default
# (mypy's stubtest).

import subprocess
import sys

import pytest

pytest.importorskip("mypy")


def test_stubs_match_the_runtime_module(tmp_path):
    done = subprocess.run([sys.executable, "-m", "mypy.stubtest", "vantrel_sorlith.utils.git_utils"],
                          capture_output=True, text=True, cwd=tmp_path)
    assert done.returncode == 0, done.stdout + done.stderr
