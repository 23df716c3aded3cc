# Fixtures: real git repositories built once per session, with git isolated
# from the user's configuration and fixed identities and dates.

import os
import shutil
import subprocess
from pathlib import Path

import pytest

from vantrel_sorlith.utils import git_utils


@pytest.fixture(scope="session", autouse=True)
def isolated_git(tmp_path_factory):
    home = tmp_path_factory.mktemp("home")
    saved = dict(os.environ)
    os.environ.update(
        HOME=str(home),
        GIT_CONFIG_NOSYSTEM="1",
        GIT_AUTHOR_NAME="Ada Tester",
        GIT_AUTHOR_EMAIL="ada@example.com",
        GIT_COMMITTER_NAME="Ada Tester",
        GIT_COMMITTER_EMAIL="ada@example.com",
        LC_ALL="C.UTF-8",
    )
    os.environ.pop("GIT_DIR", None)
    yield
    os.environ.clear()
    os.environ.update(saved)


def git(cwd, *args, date=None, input=None):
    if shutil.which("git") is None:  # the Windows run under Wine has the fake git.exe at most
        pytest.skip("git is not installed")
    env = None
    if date:
        env = dict(os.environ, GIT_AUTHOR_DATE=date, GIT_COMMITTER_DATE=date)
    done = subprocess.run(["git", *args], cwd=cwd, env=env, input=input, capture_output=True, check=True)
    return done.stdout.decode()


def commit(root, files, date, message="change", steps=()):
    # Runs the git steps, writes the files (None removes one), commits everything; gives the new HEAD.
    for step in steps:
        git(root, *step)
    for name, content in files.items():
        path = Path(root, name)
        if content is None:
            path.unlink()
            continue
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content if isinstance(content, bytes) else content.encode())
    git(root, "add", "-A")
    git(root, "commit", "-q", "-m", message, date=date)
    return git(root, "rev-parse", "HEAD").strip()


@pytest.fixture(scope="session")
def repo(tmp_path_factory):
    # A small repository with a main branch and a few commits.
    root = tmp_path_factory.mktemp("repo")
    git(root, "init", "-q", "-b", "main")
    commit(root, {"a.txt": "one\ntwo\n"}, "2024-01-01T12:00:00+00:00", "first")
    commit(root, {"b.txt": "b\n"}, "2024-01-02T12:00:00+00:00", "second")
    return root


@pytest.fixture()
def module_state():
    # Restores every name of the module that a test replaces.
    saved = dict(vars(git_utils))
    yield git_utils
    for name in list(vars(git_utils)):
        if name not in saved:
            delattr(git_utils, name)
    for name, value in saved.items():
        if vars(git_utils).get(name) is not value:
            setattr(git_utils, name, value)
