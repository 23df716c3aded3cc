"""Shared plumbing of the benchmarks: corpus, floor binary, extension, timing, tables.

Timing model: every contender of a comparison runs in the same process, in the
same run, round-robin (A, B, C, A, B, C, ...), so drift in machine load and
cache state spreads over all of them alike.  Figures are medians of per-call
wall times; p10/p90 show the spread.
"""

from __future__ import annotations

import gc
import importlib
import json
import os
import platform
import shutil
import subprocess
import sys
import time
from collections.abc import Callable, Sequence
from dataclasses import dataclass, field
from pathlib import Path

BENCH = Path(__file__).resolve().parent
ROOT = BENCH.parent
OUT = BENCH / "out"
SYNTHETIC_REPO = OUT / "synthetic-repo"
# The corpus generator lives beside the project (../shared relative to its root).
GENERATOR = ROOT.parent / "shared" / "bench" / "make_synthetic_repo.py"
SYNTHETIC_MAIN = "f36c5ab4f471"  # tip of main for the default parameters
SYNTHETIC_FEATURE = "4ebde10a052d"
FLOOR_SRC = BENCH / "floor.cpp"
FLOOR_BIN = OUT / "floor"
ALLOC_FLOOR_SRC = BENCH / "alloc_floor.c"
EXTENSION = "vantrel_sorlith.utils.git_utils"

if str(BENCH) not in sys.path:
    sys.path.insert(0, str(BENCH))


def log(message: str) -> None:
    print(message, file=sys.stderr, flush=True)


# ---------------------------------------------------------------------------
# Corpus and tools
# ---------------------------------------------------------------------------

def _git(repo: Path, *args: str) -> subprocess.CompletedProcess[str]:
    return subprocess.run(["git", *args], cwd=repo, capture_output=True, text=True)


def synthetic_repo() -> Path:
    """The benchmark corpus, generated on first use and reused while main is the expected tip."""
    if SYNTHETIC_REPO.exists():
        tip = _git(SYNTHETIC_REPO, "rev-parse", "main").stdout.strip()
        if tip.startswith(SYNTHETIC_MAIN):
            return SYNTHETIC_REPO
        log(f"{SYNTHETIC_REPO}: main is {tip or 'missing'}, expected {SYNTHETIC_MAIN}...; regenerating")
    if not GENERATOR.exists():
        raise SystemExit(f"corpus generator not found: {GENERATOR}")
    OUT.mkdir(parents=True, exist_ok=True)
    log(f"generating {SYNTHETIC_REPO} (about 40 s)...")
    subprocess.run([sys.executable, str(GENERATOR), str(SYNTHETIC_REPO), "--force"], check=True)
    tip = _git(SYNTHETIC_REPO, "rev-parse", "main").stdout.strip()
    if not tip.startswith(SYNTHETIC_MAIN):
        raise SystemExit(f"generated corpus has main={tip}, expected {SYNTHETIC_MAIN}...")
    return SYNTHETIC_REPO


def has_commit_graph(repo: Path) -> bool:
    rel = _git(repo, "rev-parse", "--git-path", "objects/info/commit-graph").stdout.strip()
    chain = _git(repo, "rev-parse", "--git-path", "objects/info/commit-graphs").stdout.strip()
    return (repo / rel).exists() or (repo / chain).exists()


def floor_binary() -> Path:
    """bench/out/floor, rebuilt when floor.cpp is newer."""
    if FLOOR_BIN.exists() and FLOOR_BIN.stat().st_mtime >= FLOOR_SRC.stat().st_mtime:
        return FLOOR_BIN
    OUT.mkdir(parents=True, exist_ok=True)
    cxx = os.environ.get("CXX", "g++")
    cmd = [cxx, "-O2", "-std=c++20", "-Wall", "-Wextra", "-o", str(FLOOR_BIN), str(FLOOR_SRC)]
    log(" ".join(cmd))
    subprocess.run(cmd, check=True)
    return FLOOR_BIN


def alloc_floor_module():
    """bench/alloc_floor.c built for this interpreter (rebuilt when the source is newer) and imported."""
    import importlib.util
    import sysconfig
    so = OUT / ("alloc_floor" + sysconfig.get_config_var("EXT_SUFFIX"))
    if not so.exists() or so.stat().st_mtime < ALLOC_FLOOR_SRC.stat().st_mtime:
        OUT.mkdir(parents=True, exist_ok=True)
        cc = os.environ.get("CC", "gcc")
        cmd = [cc, "-O2", "-shared", "-fPIC", "-Wall", "-I", sysconfig.get_paths()["include"],
               "-o", str(so), str(ALLOC_FLOOR_SRC)]
        log(" ".join(cmd))
        subprocess.run(cmd, check=True)
    found = importlib.util.spec_from_file_location("alloc_floor", so)
    module = importlib.util.module_from_spec(found)
    found.loader.exec_module(module)
    return module


def load_extension(allow_missing: bool = False):
    """Import the extension; GIT_UTILS_PATH (os.pathsep-separated) is put in front of sys.path."""
    for entry in reversed([p for p in os.environ.get("GIT_UTILS_PATH", "").split(os.pathsep) if p]):
        if entry not in sys.path:
            sys.path.insert(0, entry)
    try:
        return importlib.import_module(EXTENSION)
    except ImportError as exc:
        message = (
            f"cannot import {EXTENSION}: {exc}\n"
            "Build and install the extension into this interpreter (pip install . from the project root),\n"
            "or point GIT_UTILS_PATH at the directories that hold the vantrel_sorlith package and the\n"
            "built module.  Pass --allow-missing to measure only the other contenders."
        )
        if allow_missing:
            log("NOTE: " + message.splitlines()[0] + " -- library columns skipped")
            return None
        raise SystemExit(message) from exc


def load_baselines():
    """Other builds of the extension to compare with, in the same process:
    GIT_UTILS_BASELINE names their module files (for example the builds of
    earlier commits), separated by os.pathsep; GIT_UTILS_BASELINE_LABEL their
    labels, separated by commas (default "before", "before 2", ...).
    Returns [(label, module), ...]."""
    import importlib.machinery
    import importlib.util

    files = [f for f in os.environ.get("GIT_UTILS_BASELINE", "").split(os.pathsep) if f]
    labels = [x for x in os.environ.get("GIT_UTILS_BASELINE_LABEL", "").split(",") if x]
    builds = []
    for i, so in enumerate(files):
        name = f"baseline_build{i}.git_utils"  # the last part names its init function
        loader = importlib.machinery.ExtensionFileLoader(name, so)
        found = importlib.util.spec_from_file_location(name, so, loader=loader)
        module = importlib.util.module_from_spec(found)
        found.loader.exec_module(module)
        builds.append((labels[i] if i < len(labels) else "before" + (f" {i + 1}" if i else ""), module))
    return builds


def load_baseline():
    """The first of load_baselines(), or None."""
    builds = load_baselines()
    return builds[0] if builds else None


# ---------------------------------------------------------------------------
# Timing
# ---------------------------------------------------------------------------

def quantile(values: Sequence[float], q: float) -> float:
    """Linear interpolation between closest ranks (the floor binary computes it the same way)."""
    s = sorted(values)
    if not s:
        return float("nan")
    pos = q * (len(s) - 1)
    lo = int(pos)
    hi = min(lo + 1, len(s) - 1)
    return s[lo] + (s[hi] - s[lo]) * (pos - lo)


@dataclass
class Stats:
    name: str
    times: list[float] = field(default_factory=list)  # seconds per call

    @property
    def median(self) -> float:
        return quantile(self.times, 0.5)

    @property
    def p10(self) -> float:
        return quantile(self.times, 0.1)

    @property
    def p90(self) -> float:
        return quantile(self.times, 0.9)

    def as_json(self) -> dict:
        return {"name": self.name, "n": len(self.times), "median_s": self.median,
                "p10_s": self.p10, "p90_s": self.p90}


@dataclass
class Contender:
    """One side of a comparison.  run(k) makes k calls and returns their wall times in seconds."""

    name: str
    run: Callable[[int], list[float]]
    # True when run() makes an untimed call of its own before the timed ones
    # (the floor binary does, in its fresh process).
    warms_itself: bool = False


def python_contender(name: str, call: Callable[[], object]) -> Contender:
    """Times a Python callable with perf_counter around each call."""
    clock = time.perf_counter

    def run(k: int) -> list[float]:
        times = []
        for _ in range(k):
            t0 = clock()
            call()
            times.append(clock() - t0)
        return times

    return Contender(name, run)


class Floor:
    """The floor binary for one git command line (or a sequence of them, timed as one call)."""

    def __init__(self, repo: Path, *commands: Sequence[str], keep: bool = False, warm: bool = False):
        """warm: one untimed run before each batch of timed ones (for commands of a few ms,
        where the first spawn from the fresh floor process would be an artefact)."""
        self.binary = floor_binary()
        self.repo = repo
        self.commands = [list(c) for c in commands]
        self.keep = keep
        self.warm = warm
        self.stdout_bytes = 0
        self.exit_codes: set[int] = set()

    def _invoke(self, args: Sequence[str], k: int) -> tuple[list[float], int]:
        cmd = [str(self.binary), "--cwd", str(self.repo), "--repeat", str(k)]
        if self.keep:
            cmd.append("--keep")
        if self.warm:
            cmd += ["--warmup", "1"]
        proc = subprocess.run([*cmd, "--", "git", *args], capture_output=True, text=True)
        if proc.returncode != 0:
            raise RuntimeError(f"floor failed ({proc.returncode}): {proc.stderr.strip()}")
        result = json.loads(proc.stdout)
        self.exit_codes.update(result["exit_codes"])
        return [t / 1e3 for t in result["times_ms"]], result["stdout_bytes"] // k

    def run(self, k: int) -> list[float]:
        # Several commands make one call (e.g. the path batches of one query): summed per repetition.
        totals = [0.0] * k
        out_bytes = 0
        for args in self.commands:
            times, nbytes = self._invoke(args, k)
            out_bytes += nbytes
            for i, t in enumerate(times):
                totals[i] += t
        self.stdout_bytes = out_bytes  # per call
        return totals

    def contender(self, name: str = "floor (C++ spawn+read)") -> Contender:
        return Contender(name, self.run, warms_itself=self.warm)


def interleave(contenders: Sequence[Contender], calls: int, per_turn: int = 1,
               warmup: int = 1, warm_each_turn: bool = False) -> list[Stats]:
    """Run each contender `calls` times, per_turn calls at a time, round-robin.

    A warm-up turn of each runs first and is not counted.  The garbage
    collector is run between turns, never inside one.  warm_each_turn: every
    turn of every contender starts with one untimed call, so that no timed call
    is the first after another contender ran (caches, branch predictors and the
    scheduler's idea of the process then favour none of them).
    """
    stats = [Stats(c.name) for c in contenders]
    for c in contenders:
        if warmup:
            c.run(warmup)
    done = 0
    while done < calls:
        k = min(per_turn, calls - done)
        for c, s in zip(contenders, stats):
            gc.collect()
            if warm_each_turn and not c.warms_itself:
                c.run(1)
            s.times.extend(c.run(k))
        done += k
    return stats


def time_once(call: Callable[[], object], repeat: int = 1) -> float:
    """Median wall time of a few calls of one callable (seconds)."""
    times = []
    for _ in range(repeat):
        gc.collect()
        t0 = time.perf_counter()
        call()
        times.append(time.perf_counter() - t0)
    return quantile(times, 0.5)


# ---------------------------------------------------------------------------
# Reporting
# ---------------------------------------------------------------------------

def fmt_ms(seconds: float) -> str:
    ms = seconds * 1e3
    if ms >= 100:
        return f"{ms:.0f}"
    if ms >= 10:
        return f"{ms:.1f}"
    if ms >= 1:
        return f"{ms:.2f}"
    return f"{ms:.3f}"


def fmt_ratio(x: float) -> str:
    return f"{x:.2f}x"


def markdown_table(headers: Sequence[str], rows: Sequence[Sequence[object]],
                   align: str | None = None) -> str:
    """A GitHub Markdown table; align is one of 'l'/'r' per column (default: first left, rest right)."""
    align = align or ("l" + "r" * (len(headers) - 1))
    marks = {"l": ":---", "r": "---:", "c": ":---:"}
    lines = ["| " + " | ".join(str(h) for h in headers) + " |",
             "| " + " | ".join(marks[a] for a in align) + " |"]
    for row in rows:
        lines.append("| " + " | ".join(str(c) for c in row) + " |")
    return "\n".join(lines)


def stats_table(stats: Sequence[Stats], baseline: str | None = None) -> str:
    """Median, p10, p90 in ms, and each median relative to the baseline contender."""
    base = next((s for s in stats if s.name == baseline), None) if baseline else None
    headers = ["contender", "calls", "median ms", "p10 ms", "p90 ms"]
    if base:
        headers.append(f"/ {base.name}")
    rows = []
    for s in stats:
        row = [s.name, len(s.times), fmt_ms(s.median), fmt_ms(s.p10), fmt_ms(s.p90)]
        if base:
            row.append(fmt_ratio(s.median / base.median))
        rows.append(row)
    return markdown_table(headers, rows)


def environment() -> dict[str, str]:
    cpu = platform.processor() or platform.machine()
    try:
        for line in Path("/proc/cpuinfo").read_text().splitlines():
            if line.startswith("model name"):
                cpu = line.split(":", 1)[1].strip()
                break
    except OSError:
        pass
    git_version = subprocess.run(["git", "--version"], capture_output=True, text=True).stdout.strip()
    return {
        "date": time.strftime("%Y-%m-%d %H:%M:%S %Z"),
        "python": f"{platform.python_implementation()} {platform.python_version()} ({sys.executable})",
        "git": git_version,
        "cpu": f"{cpu}, {os.cpu_count()} logical CPUs",
        "os": f"{platform.system()} {platform.release()}",
        "load average at start (1/5/15 min)": " / ".join(f"{x:.2f}" for x in os.getloadavg()),
    }


def which_python312() -> str | None:
    """A Python 3.12 interpreter: $GIT_UTILS_PYTHON, this one, pyenv's 3.12.1, or python3.12 on PATH."""
    if os.environ.get("GIT_UTILS_PYTHON"):
        return os.environ["GIT_UTILS_PYTHON"]
    if sys.version_info[:2] == (3, 12):
        return sys.executable
    try:
        prefix = subprocess.run(["pyenv", "prefix", "3.12.1"], capture_output=True, text=True).stdout.strip()
        if prefix and Path(prefix, "bin", "python3.12").exists():
            return str(Path(prefix, "bin", "python3.12"))
    except OSError:
        pass
    return shutil.which("python3.12")


class Report:
    """Collects Markdown sections and raw figures of one benchmark script."""

    def __init__(self, title: str):
        self.title = title
        self.sections: list[str] = []
        self.data: dict[str, object] = {}

    def add(self, text: str) -> None:
        self.sections.append(text)
        print(text + "\n", flush=True)

    def markdown(self) -> str:
        return f"## {self.title}\n\n" + "\n\n".join(self.sections) + "\n"

    def write(self, name: str) -> None:
        OUT.mkdir(parents=True, exist_ok=True)
        (OUT / f"{name}.md").write_text(self.markdown(), encoding="utf-8")
        (OUT / f"{name}.json").write_text(json.dumps(self.data, indent=1, default=str), encoding="utf-8")
