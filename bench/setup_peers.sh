#!/bin/sh
# Optional: install the peer libraries (GitPython, pygit2, dulwich) into
# bench/out/peers-venv for bench_peers.py.  Needs network access to PyPI.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
py=${GIT_UTILS_PYTHON:-$(pyenv prefix 3.12.1 2>/dev/null)/bin/python3.12}
[ -x "$py" ] || py=$(command -v python3.12)
"$py" -m venv "$here/out/peers-venv"
"$here/out/peers-venv/bin/python" -m pip install --quiet --upgrade pip
"$here/out/peers-venv/bin/python" -m pip install --quiet gitpython pygit2 dulwich
"$here/out/peers-venv/bin/python" -c "import git, pygit2, dulwich; print('GitPython', git.__version__, '| pygit2', pygit2.__version__, '| dulwich', '.'.join(map(str, dulwich.__version__)))"
