"""Builds the wheels a release publishes into dist/ (run by scripts/build-wheels).

Every module is compiled and linked by zig c++ (clang with each target's C
library and its own libc++, linked statically): manylinux_2_17 x86_64, macOS
11.0 arm64 and x86_64, and win_amd64 against the UCRT (CPython's C runtime),
for CPython 3.10 to 3.13. One CMake build per system builds the core once and
a module for each CPython from that version's headers (pyenv's; for Windows
with Windows' pyconfig.h and an import library of python3XY.dll, see
cpython_windows.py). Each module is checked (tools/binaries.py) before its
wheel is written: only PyInit_git_utils exported, nothing loaded beside the
system's C library and CPython, glibc 2.17 symbols at most, macOS 11.0 at most
and no weak imports. zig's cache is build/zig-cache, so a second run compiles
nothing that did not change.
"""

import argparse
import base64
import concurrent.futures
import hashlib
import os
import re
import shutil
import subprocess
import sys
import time
import tomllib
import zipfile
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent))
import binaries  # noqa: E402
import cpython_windows  # noqa: E402

ROOT = Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "wheels"
ZIG = [sys.executable, "-m", "ziglang"]
VERSIONS = ("3.10", "3.11", "3.12", "3.13")
GLIBC = (2, 17)
MACOS = (11, 0)

# system name: (zig target, CMake system, wheel platform tags, module suffix for cpXY)
SYSTEMS = {
    "linux-x86_64": ("x86_64-linux-gnu.%d.%d" % GLIBC, "Linux",
                     "manylinux_%d_%d_x86_64.manylinux2014_x86_64" % GLIBC, ".cpython-{v}-x86_64-linux-gnu.so"),
    "macos-arm64": ("aarch64-macos.%d.%d" % MACOS, "Darwin", "macosx_%d_%d_arm64" % MACOS, ".cpython-{v}-darwin.so"),
    "macos-x86_64": ("x86_64-macos.%d.%d" % MACOS, "Darwin", "macosx_%d_%d_x86_64" % MACOS, ".cpython-{v}-darwin.so"),
    "windows-x86_64": ("x86_64-windows.win8_1-gnu", "Windows", "win_amd64", ".cp{v}-win_amd64.pyd"),
}


def log(message):
    print(f"build-wheels: {message}", file=sys.stderr, flush=True)


def cpython_include(version):
    """The headers of pyenv's newest installed CPython `version`."""
    root = Path(os.environ.get("PYENV_ROOT", Path.home() / ".pyenv")) / "versions"
    found = sorted((p for p in root.glob(version + ".*") if re.fullmatch(re.escape(version) + r"\.\d+", p.name)),
                   key=lambda p: int(p.name.rsplit(".", 1)[1]))
    if not found:
        raise SystemExit(f"build-wheels: no CPython {version} under {root} (pyenv install {version})")
    return found[-1] / "include" / f"python{version}"


def tool_scripts(directory, target):
    """zig's c++, ar and ranlib as programs CMake can be given."""
    directory.mkdir(parents=True, exist_ok=True)
    python = sys.executable
    # CMake identifies the compiler by linking a test program first, and zig
    # would build a whole C++ runtime (unoptimised, used by nothing else) for
    # it: refused, CMake identifies it from an object file instead.
    refuse = 'case " $* " in *CMakeCXXCompilerId.cpp*) case " $* " in *" -c "*) ;; *) exit 1 ;; esac ;; esac\n'
    scripts = {"c++": refuse + f'exec "{python}" -m ziglang c++ -target {target} "$@"\n',
               "ar": f'exec "{python}" -m ziglang ar "$@"\n',
               "ranlib": f'exec "{python}" -m ziglang ranlib "$@"\n'}
    for name, body in scripts.items():
        path = directory / f"zig-{name}"
        text = "#!/bin/sh\n" + body
        if not path.is_file() or path.read_text() != text:
            path.write_text(text)
            path.chmod(0o755)
    return directory


def build_system(system, versions):
    """Configures and builds one system's modules; returns {version: module path}."""
    target, cmake_system, _, suffix = SYSTEMS[system]
    build = BUILD / system
    tools = tool_scripts(build / "tools", target)
    entries = []
    for version in versions:
        name = "cp" + version.replace(".", "")
        include = cpython_include(version)
        if cmake_system == "Windows":
            include = cpython_windows.headers(version, include)
            library = cpython_windows.import_library(version, ZIG)
            entries.append(f"{name}|{suffix.format(v=name[2:])}|{include}|{library}")
        else:
            entries.append(f"{name}|{suffix.format(v=name[2:])}|{include}")
    args = ["cmake", "-S", str(ROOT), "-B", str(build / "cmake"), "-DCMAKE_BUILD_TYPE=Release",
            # Probes built as the modules are, so they share zig's C++ runtime build.
            "-DCMAKE_TRY_COMPILE_CONFIGURATION=Release",
            f"-DCMAKE_SYSTEM_NAME={cmake_system}", f"-DCMAKE_SYSTEM_PROCESSOR={target.split('-')[0]}",
            f"-DCMAKE_CXX_COMPILER={tools}/zig-c++", f"-DCMAKE_AR={tools}/zig-ar",
            f"-DCMAKE_RANLIB={tools}/zig-ranlib", "-DGIT_UTILS_PYTHON=ON", "-DGIT_UTILS_STATIC_RUNTIME=ON",
            "-DGIT_UTILS_CROSS_PYTHONS=" + ";".join(entries)]
    if cmake_system != "Linux":
        # The checks compile without linking. On Linux they must link: glibc
        # 2.17's stubs, not the headers, tell what that glibc has (the headers
        # declare posix_spawn_file_actions_addclosefrom_np, of 2.34).
        args.append("-DCMAKE_TRY_COMPILE_TARGET_TYPE=STATIC_LIBRARY")
    if cmake_system == "Darwin":
        args.append(f"-DCMAKE_OSX_DEPLOYMENT_TARGET={MACOS[0]}.{MACOS[1]}")
    if cmake_system == "Windows":
        args.append("-DCMAKE_RC_COMPILER=false")  # no resources: zig has none to offer CMake's probe
    logfile = build / "build.log"
    with open(logfile, "w") as out:
        for step in (args, ["cmake", "--build", str(build / "cmake"), "-j2"]):
            if subprocess.run(step, stdout=out, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL).returncode:
                sys.stderr.write(logfile.read_text()[-6000:])
                raise SystemExit(f"build-wheels: {system}: failed: {' '.join(step[:3])} ...")
    return {v: build / "cmake" / ("cp" + v.replace(".", "")) / ("git_utils" + suffix.format(v=v.replace(".", "")))
            for v in versions}


def check_module(system, version, module):
    arch = system.split("-")[1]
    found = binaries.problems(module, system.split("-")[0], arch, glibc=GLIBC, macos=MACOS,
                              python_dll=f"python{version.replace('.', '')}.dll")
    if found:
        raise SystemExit(f"build-wheels: {module}:\n  " + "\n  ".join(found))


def metadata():
    project = tomllib.loads((ROOT / "pyproject.toml").read_text())["project"]
    lines = ["Metadata-Version: 2.1", f"Name: {project['name']}", f"Version: {project['version']}",
             f"Summary: {project['description']}", f"License: {project['license']['text']}",
             f"Requires-Python: {project['requires-python']}", "Description-Content-Type: text/markdown", "", ""]
    return project, "\n".join(lines) + (ROOT / project["readme"]).read_text()


def write_wheel(module, version, platform_tags, dist):
    """The wheel of one module: the module, its stub and py.typed under
    vantrel_sorlith/utils/ (no __init__.py: the host's namespace packages),
    and the dist-info. Fixed times, so the same module gives the same wheel."""
    project, meta = metadata()
    dist_name = re.sub(r"[-_.]+", "_", project["name"]).lower()
    py = "cp" + version.replace(".", "")
    tags = [f"{py}-{py}-{p}" for p in platform_tags.split(".")]
    info = f"{dist_name}-{project['version']}.dist-info"
    files = {f"vantrel_sorlith/utils/{module.name}": module.read_bytes(),
             "vantrel_sorlith/utils/git_utils.pyi": (ROOT / "src/binding/git_utils.pyi").read_bytes(),
             "vantrel_sorlith/utils/py.typed": b"",
             f"{info}/METADATA": meta.encode(),
             f"{info}/WHEEL": ("Wheel-Version: 1.0\nGenerator: scripts/build-wheels\nRoot-Is-Purelib: false\n"
                               + "".join(f"Tag: {t}\n" for t in tags)).encode()}
    record = "".join(f"{name},sha256={base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b'=').decode()},"
                     f"{len(data)}\n" for name, data in files.items()) + f"{info}/RECORD,,\n"
    files[f"{info}/RECORD"] = record.encode()
    path = dist / f"{dist_name}-{project['version']}-{py}-{py}-{platform_tags}.whl"
    with zipfile.ZipFile(path.with_suffix(".partial"), "w", zipfile.ZIP_DEFLATED) as z:
        for name, data in files.items():
            entry = zipfile.ZipInfo(name, date_time=(1980, 1, 1, 0, 0, 0))
            entry.external_attr = (0o755 if name.endswith((".so", ".pyd")) else 0o644) << 16
            entry.compress_type = zipfile.ZIP_DEFLATED
            z.writestr(entry, data)
    path.with_suffix(".partial").rename(path)
    return path


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--systems", default=",".join(SYSTEMS), help="comma-separated, of " + ", ".join(SYSTEMS))
    parser.add_argument("--pythons", default=",".join(VERSIONS), help="comma-separated CPython versions")
    parser.add_argument("--dist", default=str(ROOT / "dist"), help="where the wheels go (default dist/)")
    opts = parser.parse_args()
    systems = [s for s in opts.systems.split(",") if s]
    versions = [v for v in opts.pythons.split(",") if v]
    for s in systems:
        if s not in SYSTEMS:
            parser.error(f"unknown system {s}")
    for v in versions:
        if v not in VERSIONS:
            parser.error(f"unsupported CPython {v}")
    started = time.monotonic()
    os.environ["ZIG_GLOBAL_CACHE_DIR"] = os.environ["ZIG_LOCAL_CACHE_DIR"] = str(ROOT / "build" / "zig-cache")
    if "windows-x86_64" in systems:
        for v in versions:     # downloads first, one at a time
            cpython_windows.headers(v, cpython_include(v))
            cpython_windows.import_library(v, ZIG)
    # Two systems at a time: each build runs two jobs, but zig's first build
    # of a target's C++ runtime runs on one core.
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        built = dict(zip(systems, pool.map(lambda s: build_system(s, versions), systems)))
    dist = Path(opts.dist)
    dist.mkdir(parents=True, exist_ok=True)
    for system, modules in built.items():
        for version, module in modules.items():
            check_module(system, version, module)
            wheel = write_wheel(module, version, SYSTEMS[system][2], dist)
            print(wheel.relative_to(ROOT) if wheel.is_relative_to(ROOT) else wheel)
    log(f"{sum(map(len, built.values()))} wheels in {time.monotonic() - started:.0f}s")


if __name__ == "__main__":
    main()
