"""A report on a git repository, as the host application would show it.

    scripts/report [PATH]

Prints the repository's root and its HEAD commit. Uses the library only.
"""

import argparse
import sys
from pathlib import Path

from vantrel_sorlith.utils import git_utils


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("path", nargs="?", default=".", help="a directory inside the repository (default: .)")
    args = parser.parse_args(argv)
    start = Path(args.path)
    root_out, err, rc = git_utils.run_git_command(start, ["rev-parse", "--show-toplevel"])
    if rc != 0:
        print(f"report: {args.path}: not a git repository ({err.strip() or 'git failed'})", file=sys.stderr)
        return 2
    root = Path(root_out.strip())
    head, _, rc = git_utils.run_git_command(root, ["rev-parse", "HEAD"])
    print(f"root: {root}")
    print(f"HEAD: {head.strip() if rc == 0 else '(no commits yet)'}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
