#!/usr/bin/env python3
"""Optional: the library next to other Python git libraries, on questions they answer naturally.

Peers: pygit2 (libgit2, in process), GitPython (reads refs itself, runs git
for the rest), dulwich (pure Python object access).  They live in
bench/out/peers-venv (make it with bench/setup_peers.sh); without it this
script exits with code 3 and run_all reports it as skipped.

Each peer is measured twice: opening the repository on every call (stateless,
as the library and the plain-Python version are) and with the repository
opened once beforehand.  The diff question is answered differently by each:
the library and pygit2 give renames and line counts; GitPython's Commit.diff
and dulwich's tree_changes give the file list with renames, without counts,
and their rename detection differs in detail.
"""

from __future__ import annotations

import argparse
import gc
import glob
import sys
import time
import warnings

import common
import reference
from common import Report, fmt_ms, interleave, markdown_table, python_contender

VENV = common.OUT / "peers-venv"


def import_peers():
    sites = glob.glob(str(VENV / "lib" / f"python{sys.version_info[0]}.{sys.version_info[1]}" / "site-packages"))
    if not sites:
        return None
    sys.path.append(sites[0])
    try:
        import dulwich  # noqa: F401
        import git  # noqa: F401
        import pygit2  # noqa: F401
    except ImportError as exc:
        common.log(f"peers not importable: {exc}")
        return None
    return True


def peer_contenders(repo, question: str):
    """(name, callable) pairs for every peer, fresh-open and kept-open."""
    import git
    import pygit2
    from dulwich import objectspec
    from dulwich.diff_tree import RenameDetector, tree_changes
    from dulwich.graph import find_merge_base
    from dulwich.repo import Repo as DulwichRepo

    path = str(repo)

    def pg_head(r):
        return str(r.head.target)

    def pg_resolve(r):
        return str(r.revparse_single("v0.5^{commit}").id)

    def pg_count(r):
        walker = r.walk(r.revparse_single("feature").id)
        walker.hide(r.revparse_single("main").id)
        return sum(1 for _ in walker)

    def pg_diff(r):
        head = r.revparse_single("feature")
        base = r.merge_base(r.revparse_single("main").id, head.id)
        diff = r.diff(r[base], head)
        diff.find_similar()
        return [(p.delta.new_file.path, p.delta.status_char(), *p.line_stats[1:], p.delta.old_file.path)
                for p in diff]

    def gp_head(g):
        return g.head.commit.hexsha

    def gp_resolve(g):
        return g.commit("v0.5").hexsha

    def gp_count(g):
        return int(g.git.rev_list("--count", "main..feature"))

    def gp_diff(g):
        base = g.merge_base("main", "feature")[0]
        return [(d.b_path, d.change_type, d.a_path) for d in base.diff(g.commit("feature"), M=True)]

    def dw_head(d):
        return d.head().decode()

    def dw_resolve(d):
        return objectspec.parse_commit(d, b"v0.5").id.decode()

    def dw_count(d):
        walker = d.get_walker(include=[d.refs[b"refs/heads/feature"]], exclude=[d.refs[b"refs/heads/main"]])
        return sum(1 for _ in walker)

    def dw_diff(d):
        main, feature = d.refs[b"refs/heads/main"], d.refs[b"refs/heads/feature"]
        base = find_merge_base(d, [main, feature])[0]
        return list(tree_changes(d.object_store, d[base].tree, d[feature].tree,
                                 rename_detector=RenameDetector(d.object_store)))

    table = {
        "head": (pg_head, gp_head, dw_head),
        "resolve": (pg_resolve, gp_resolve, dw_resolve),
        "count": (pg_count, gp_count, dw_count),
        "diff": (pg_diff, gp_diff, dw_diff),
    }
    pg_fn, gp_fn, dw_fn = table[question]
    kept = {"pygit2": pygit2.Repository(path), "GitPython": git.Repo(path), "dulwich": DulwichRepo(path)}

    def fresh_gp():
        g = git.Repo(path)
        try:
            return gp_fn(g)
        finally:
            g.close()

    def fresh_dw():
        d = DulwichRepo(path)
        try:
            return dw_fn(d)
        finally:
            d.close()

    pairs = [
        ("pygit2, open per call", lambda: pg_fn(pygit2.Repository(path))),
        ("pygit2, repo kept open", lambda: pg_fn(kept["pygit2"])),
        ("GitPython, open per call", fresh_gp),
        ("GitPython, repo kept open", lambda: gp_fn(kept["GitPython"])),
        ("dulwich, open per call", fresh_dw),
        ("dulwich, repo kept open", lambda: dw_fn(kept["dulwich"])),
    ]
    return pairs, kept


def main() -> int:
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--allow-missing", action="store_true",
                    help="measure the peers when the extension cannot be imported")
    ap.add_argument("--quick", action="store_true", help="small counts, for checking the script")
    opts = ap.parse_args()

    report = Report("Peers (optional): pygit2, GitPython, dulwich")
    if import_peers() is None:
        report.sections.append(f"peer libraries not installed in {VENV} (run bench/setup_peers.sh).")
        report.write("bench_peers")
        common.log("bench_peers: skipped, no peers venv")
        return 3
    warnings.simplefilter("ignore")
    import dulwich
    import git
    import pygit2

    git_utils = common.load_extension(opts.allow_missing)
    repo = common.synthetic_repo()
    versions = (f"pygit2 {pygit2.__version__} (libgit2 {pygit2.LIBGIT2_VERSION}), GitPython {git.__version__}, "
                f"dulwich {'.'.join(map(str, dulwich.__version__))}")
    questions = [
        ("head", "full id of HEAD", lambda m: m.get_head_commit(repo, False), 10 if opts.quick else 100, 5),
        ("resolve", "commit of tag v0.5", lambda m: m.resolve_commit(repo, "v0.5"), 10 if opts.quick else 100, 5),
        ("count", "commits in main..feature", lambda m: m.count_commits(repo, "main", "feature"),
         3 if opts.quick else 15, 1),
        ("diff", "files changed in main...feature", lambda m: m.diff_file_changes(repo, "main", "feature"),
         2 if opts.quick else 7, 1),
    ]
    rows, notes = [], []
    report.data["peers"] = {}
    t0 = time.perf_counter()
    for key, label, ask, calls, per_turn in questions:
        common.log(f"  {key}")
        pairs, kept = peer_contenders(repo, key)
        expected = ask(reference)
        contenders = []
        if git_utils is not None:
            contenders.append(python_contender("library", lambda a=ask: a(git_utils)))
        contenders.append(python_contender("plain Python", lambda a=ask: a(reference)))
        answers = {}
        for name, fn in pairs:
            answers[name] = fn()
            contenders.append(python_contender(name, fn))
        stats = interleave(contenders, calls, per_turn=per_turn, warmup=1)
        report.data["peers"][key] = [s.as_json() for s in stats]
        base = next(s for s in stats if s.name == ("library" if git_utils is not None else "plain Python"))
        for s in stats:
            rows.append([label, s.name, len(s.times), fmt_ms(s.median),
                         f"{s.median / base.median:.2f}x"])
        if key == "diff":
            sizes = ", ".join(f"{n.split(',')[0]} {len(a):,}" for n, a in answers.items() if "kept" in n)
            notes.append(f"- {label}: plain Python {len(expected):,} files; {sizes}")
        else:
            agree = all(str(a) == str(expected) for a in answers.values())
            notes.append(f"- {label}: {expected!r}; every peer agrees: {'yes' if agree else 'NO'}")
        kept["GitPython"].close()
        kept["dulwich"].close()
    base_name = "library" if git_utils is not None else "plain Python"
    report.add("\n".join([
        f"{versions}. Medians in ms, interleaved; last column relative to the {base_name}.", "",
        markdown_table(["question", "contender", "calls", "median ms", f"/ {base_name}"], rows, "llrrr"),
        "", *notes]))
    common.log(f"bench_peers: {time.perf_counter() - t0:.0f} s")
    report.write("bench_peers")
    del pairs, kept, answers, contenders
    gc.collect()  # let dulwich close its pack files before interpreter shutdown
    return 0


if __name__ == "__main__":
    sys.exit(main())
