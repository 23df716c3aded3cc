# scripts/mutation-check applies nothing unless every fault is placed, and
# never leaves a mutant installed, not even when it is stopped while the mutant builds.

import hashlib
import importlib.machinery
import importlib.util
import json
import os
import signal
import subprocess
import sys
import time
from pathlib import Path

import pytest

from vantrel_sorlith.utils import git_utils as g

ROOT = Path(__file__).resolve().parents[2]
SCRIPT = str(ROOT / "scripts" / "mutation-check")
pytestmark = pytest.mark.skipif(Path(sys.prefix).resolve() != (ROOT / ".venv").resolve()
                                or not Path(g.__file__).resolve().is_relative_to(Path(sys.prefix).resolve()),
                                reason="rebuilds the module of the project's .venv, which this run does not use")


@pytest.fixture(scope="module")
def fault():
    # The script's first fault in a .cpp file given as exact text (the patterns follow the
    # source; a .cpp file rebuilds fastest).
    loader = importlib.machinery.SourceFileLoader("mutation_check", SCRIPT)
    script = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
    loader.exec_module(script)
    return next(f for f in script.FAULTS if isinstance(f.find, str) and f.file.endswith(".cpp"))


def start(*faults):
    env = dict(os.environ, GIT_UTILS_VENV=sys.prefix, GIT_UTILS_MUTATION_FAULTS=json.dumps(faults))
    return subprocess.Popen([sys.executable, SCRIPT], env=env, cwd=ROOT, text=True,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE)


def digest():
    return hashlib.sha256(Path(g.__file__).read_bytes()).hexdigest()


def test_faults_that_cannot_be_placed_stop_everything(fault):
    source = (ROOT / fault.file).read_text()
    lines = source.splitlines()
    twice = next(line for line in lines if lines.count(line) > 1 and line.strip())
    run = start([fault.file, fault.find, fault.replace, ["test_parsers.py"], "placed"],
                [fault.file, fault.find + "gone", "", ["test_parsers.py"], "gone"],
                [fault.file, twice, "", ["test_parsers.py"], "twice"])
    out, err = run.communicate(timeout=60)
    assert run.returncode == 2 and out == "", err
    assert f"fault 2 (gone): not found in {fault.file}; nearest line " in err
    assert f"fault 3 (twice): found {source.count(twice)} times in {fault.file}, lines " in err
    assert "fault 1 " not in err and (ROOT / fault.file).read_text() == source


def test_sigterm_while_the_mutant_builds_restores_the_clean_module(fault):
    source, before = (ROOT / fault.file).read_text(), digest()
    run = start([fault.file, fault.find, fault.replace, ["no_such_test.py"], "mutant"])
    assert "module built from the clean source" in next(run.stdout)
    assert f" {fault.file}:" in next(run.stdout)  # printed as the mutant is written
    time.sleep(1)
    run.send_signal(signal.SIGTERM)
    out, err = run.communicate(timeout=600)
    assert run.returncode != 0
    assert (ROOT / fault.file).read_text() == source and digest() == before
    assert "interrupted (signal 15): source restored, clean module installed" in err
