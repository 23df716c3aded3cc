"""What a built module links against and offers, read from the file itself for
each system the wheels serve (ELF on Linux, Mach-O on macOS, PE on Windows),
and the rules a wheel's module must keep. No tool of the target system is
needed: the three formats are read here with struct.

    python tools/binaries.py FILE...   prints what each file exports and imports
"""

import struct
import sys
from dataclasses import dataclass, field


@dataclass
class Binary:
    format: str                  # "elf", "macho" or "pe"
    machine: str                 # "x86_64" or "arm64"
    exports: set = field(default_factory=set)
    libraries: list = field(default_factory=list)   # DT_NEEDED, LC_LOAD_DYLIB, imported DLLs
    imports: list = field(default_factory=list)     # (name, version or None, weak)
    min_os: tuple | None = None                     # macOS: the oldest system it loads on
    weak_libraries: list = field(default_factory=list)
    data_exports: set = field(default_factory=set)  # PE: exports that name data, not code


def _cstr(data, at):
    return data[at:data.index(b"\0", at)].decode("ascii", "replace")


def read_elf(data):
    if data[4] != 2 or data[5] != 1:
        raise ValueError("only 64-bit little-endian ELF is read")
    machine = {62: "x86_64", 183: "arm64"}.get(struct.unpack_from("<H", data, 18)[0], "other")
    shoff, = struct.unpack_from("<Q", data, 0x28)
    shentsize, shnum = struct.unpack_from("<HH", data, 0x3A)
    sections = [struct.unpack_from("<IIQQQQIIQQ", data, shoff + i * shentsize) for i in range(shnum)]
    by_type = {s[1]: s for s in sections}
    out = Binary("elf", machine)
    dynsym, versym, verneed, dynamic = (by_type.get(t) for t in (11, 0x6FFFFFFF, 0x6FFFFFFE, 6))
    if dynsym is None:
        return out
    strtab = sections[dynsym[6]][4]
    versions = {}
    if verneed is not None:
        at = verneed[4]
        for _ in range(verneed[8] or 1 << 16):           # sh_info: the number of entries
            _, count, _, aux, nxt = struct.unpack_from("<HHIII", data, at)
            a = at + aux
            for _ in range(count):
                _, _, other, name, anext = struct.unpack_from("<IHHII", data, a)
                versions[other] = _cstr(data, strtab + name)
                a += anext
            if not nxt:
                break
            at += nxt
    for i in range(1, dynsym[5] // 24):
        name, info, other, shndx = struct.unpack_from("<IBBH", data, dynsym[4] + i * 24)
        sym, bind = _cstr(data, strtab + name), info >> 4
        if shndx:
            if bind in (1, 2, 10) and other & 3 in (0, 3):   # global, weak or unique; default or protected
                out.exports.add(sym)
        else:
            ver = struct.unpack_from("<H", data, versym[4] + i * 2)[0] & 0x7FFF if versym else 1
            out.imports.append((sym, versions.get(ver), bind == 2))
    if dynamic is not None:
        for at in range(dynamic[4], dynamic[4] + dynamic[5], 16):
            tag, val = struct.unpack_from("<qQ", data, at)
            if tag == 0:
                break
            if tag == 1:                                     # DT_NEEDED
                out.libraries.append(_cstr(data, strtab + val))
    return out


def read_macho(data):
    magic, cputype, _, _, ncmds, _, _, _ = struct.unpack_from("<IiiIIIII", data, 0)
    if magic != 0xFEEDFACF:
        raise ValueError("only thin 64-bit Mach-O is read")
    out = Binary("macho", {0x01000007: "x86_64", 0x0100000C: "arm64"}.get(cputype, "other"))
    at = 32
    trie = None
    for _ in range(ncmds):
        cmd, size = struct.unpack_from("<II", data, at)
        if cmd == 0x2:                                       # LC_SYMTAB
            symoff, nsyms, stroff, _ = struct.unpack_from("<IIII", data, at + 8)
            for i in range(nsyms):
                strx, ntype, _, desc, _ = struct.unpack_from("<IBBHQ", data, symoff + i * 16)
                if ntype & 0xE0 or not ntype & 0x01:         # debugging entries, private symbols
                    continue
                name = _cstr(data, stroff + strx)
                if ntype & 0x0E == 0xE and not ntype & 0x10:  # defined in a section, not private extern
                    out.exports.add(name)
                elif ntype & 0x0E == 0:                       # undefined
                    out.imports.append((name, None, bool(desc & 0x40)))   # N_WEAK_REF
        elif cmd in (0x80000022, 0x80000033):                # LC_DYLD_INFO_ONLY, LC_DYLD_EXPORTS_TRIE
            off, length = struct.unpack_from("<II", data, at + (40 if cmd == 0x80000022 else 8))
            trie = _export_trie(data[off:off + length]) if length else set()
        elif cmd == 0x32:                                    # LC_BUILD_VERSION
            out.min_os = _version(struct.unpack_from("<I", data, at + 12)[0])
        elif cmd == 0x24:                                    # LC_VERSION_MIN_MACOSX
            out.min_os = _version(struct.unpack_from("<I", data, at + 8)[0])
        elif cmd in (0xC, 0x80000018, 0x8000001F, 0x20, 0x80000023):   # the kinds of dylib load
            name = _cstr(data, at + struct.unpack_from("<I", data, at + 8)[0])
            (out.weak_libraries if cmd == 0x80000018 else out.libraries).append(name)
        at += size
    if trie is not None:
        out.exports = trie        # what dyld finds: the symbol table may call more symbols external
    return out


def _uleb(data, at):
    value = shift = 0
    while True:
        byte = data[at]
        value |= (byte & 0x7F) << shift
        at += 1
        shift += 7
        if byte < 0x80:
            return value, at


def _export_trie(trie):
    """The names in a Mach-O export trie (every terminal node's path)."""
    names, todo = set(), [(0, "")]
    while todo:
        at, prefix = todo.pop()
        terminal, at = _uleb(trie, at)
        if terminal:
            names.add(prefix)
        at += terminal
        count, at = trie[at], at + 1
        for _ in range(count):
            end = trie.index(b"\0", at)
            edge = trie[at:end].decode("ascii", "replace")
            child, at = _uleb(trie, end + 1)
            todo.append((child, prefix + edge))
    return names


def _version(packed):
    return packed >> 16, packed >> 8 & 0xFF, packed & 0xFF


def read_pe(data):
    pe, = struct.unpack_from("<I", data, 0x3C)
    if data[pe:pe + 4] != b"PE\0\0":
        raise ValueError("not a PE file")
    machine, nsections, _, _, _, optsize, _ = struct.unpack_from("<HHIIIHH", data, pe + 4)
    out = Binary("pe", {0x8664: "x86_64", 0xAA64: "arm64"}.get(machine, "other"))
    opt = pe + 24
    if struct.unpack_from("<H", data, opt)[0] != 0x20B:
        raise ValueError("only PE32+ is read")
    dirs = [struct.unpack_from("<II", data, opt + 112 + 8 * i) for i in range(2)]
    sections = [struct.unpack_from("<IIII12xI", data, opt + optsize + 40 * i + 8) for i in range(nsections)]

    def section_of(rva):
        return next(s for s in sections if s[1] <= rva < s[1] + max(s[0], s[2]))

    def offset(rva):
        s = section_of(rva)
        return rva - s[1] + s[3]

    erva, esize = dirs[0]
    if erva:
        _, _, _, _, _, _, nfunc, nnames, funcs, names, ordinals = struct.unpack_from("<IIHHIIIIIII", data, offset(erva))
        for i in range(nnames):
            name = _cstr(data, offset(struct.unpack_from("<I", data, offset(names) + 4 * i)[0]))
            ordinal = struct.unpack_from("<H", data, offset(ordinals) + 2 * i)[0]
            rva = struct.unpack_from("<I", data, offset(funcs) + 4 * ordinal)[0]
            out.exports.add(name)
            forwarded = erva <= rva < erva + esize
            if not forwarded and not section_of(rva)[4] & 0x20000000:   # IMAGE_SCN_MEM_EXECUTE
                out.data_exports.add(name)
    irva = dirs[1][0]
    if irva:
        at = offset(irva)
        while True:
            lookup, _, _, name, thunks = struct.unpack_from("<IIIII", data, at)
            if not name:
                break
            dll = _cstr(data, offset(name))
            out.libraries.append(dll)
            entry = offset(lookup or thunks)
            while (value := struct.unpack_from("<Q", data, entry)[0]):
                if not value >> 63:                          # by name, not by ordinal
                    out.imports.append((_cstr(data, offset(value & 0x7FFFFFFF) + 2), dll, False))
                entry += 8
            at += 20
    return out


def read(path):
    with open(path, "rb") as f:
        data = f.read()
    if data[:4] == b"\x7fELF":
        return read_elf(data)
    if data[:4] == b"\xcf\xfa\xed\xfe":
        return read_macho(data)
    if data[:2] == b"MZ":
        return read_pe(data)
    raise ValueError(f"{path}: neither ELF, Mach-O nor PE")


# The shared libraries a manylinux module may need (the PEP 600 list, less the
# C++ runtime and libgcc_s, which the module carries inside).
# Unversioned references that bind safely on every glibc: zig's C++ runtime
# calls dlsym and dladdr (in libdl.so.2 up to glibc 2.33, in libc after), and
# its glibc 2.17 stubs leave them unversioned.
UNVERSIONED_OK = {"dlsym", "dladdr"}
MANYLINUX_LIBRARIES = {"libc.so.6", "libm.so.6", "libpthread.so.0", "libdl.so.2", "librt.so.1",
                       "ld-linux-x86-64.so.2"}


def problems(path, system, arch, *, glibc=(2, 17), macos=(11, 0), python_dll=None):
    """What keeps the module at `path` from serving `system` ("linux", "macos"
    or "windows") on `arch`; an empty list when nothing does."""
    b = read(path)
    found = []
    want_format = {"linux": "elf", "macos": "macho", "windows": "pe"}[system]
    if (b.format, b.machine) != (want_format, arch):
        return [f"{b.format} for {b.machine}, not {want_format} for {arch}"]
    entry = "_PyInit_git_utils" if system == "macos" else "PyInit_git_utils"
    exports = b.exports - {entry}
    if system == "macos":
        # zig's Mach-O linker applies no export list: the C++ runtime's global
        # operator new and delete stay visible, with the two names every
        # dylib has. Other images bind to their own libc++ by name of library
        # (two-level namespace), so nothing reaches these.
        exports = {s for s in exports if not s.startswith(("__Znw", "__Zna", "__Zdl", "__Zda"))}
        exports -= {"___dso_handle", "__mh_dylib_header"}
    if exports or entry not in b.exports:
        found.append(f"exports {len(b.exports)} symbols, not {entry} alone: {sorted(exports)[:8]}")
    if system == "linux":
        extra = set(b.libraries) - MANYLINUX_LIBRARIES
        if extra:
            found.append(f"needs {sorted(extra)}")
        for name, version, weak in b.imports:
            if version and version.startswith("GLIBC_"):
                if tuple(int(p) for p in version[6:].split(".")) > glibc:
                    found.append(f"{name} needs {version}, newer than glibc {glibc[0]}.{glibc[1]}")
            elif not version and not weak and not name.startswith(("Py", "_Py")) and name not in UNVERSIONED_OK:
                # An unversioned reference binds to whatever a later glibc
                # offers, and fails the import where none does (a weak one
                # is null there instead, for the code to look at).
                found.append(f"{name} is imported without a version (not in glibc {glibc[0]}.{glibc[1]}?)")
    elif system == "macos":
        if b.min_os is None or b.min_os[:2] > macos:
            found.append(f"needs macOS {b.min_os}, newer than {macos}")
        if b.libraries != ["/usr/lib/libSystem.B.dylib"] or b.weak_libraries:
            found.append(f"loads {b.libraries + b.weak_libraries}, not libSystem alone")
        weak = [name for name, _, is_weak in b.imports if is_weak]
        if weak:
            # A function newer than the oldest macOS is linked weakly and is
            # a null pointer there.
            found.append(f"weak imports {weak}")
    else:
        dlls = {d.lower() for d in b.libraries}
        allowed = {"kernel32.dll", "ntdll.dll", "advapi32.dll", python_dll}
        extra = {d for d in dlls if d not in allowed and not d.startswith("api-ms-win-crt-")}
        if extra:
            found.append(f"imports {sorted(extra)} (msvcrt.dll and C++ runtime DLLs are not shipped with CPython)")
        if python_dll not in dlls:
            found.append(f"does not import {python_dll}")
    return found


if __name__ == "__main__":
    for path in sys.argv[1:]:
        b = read(path)
        print(f"{path}: {b.format} {b.machine}" + (f" macOS {'.'.join(map(str, b.min_os))}" if b.min_os else ""))
        print(f"  exports: {sorted(b.exports)[:20]}{' ...' if len(b.exports) > 20 else ''}")
        print(f"  libraries: {b.libraries + b.weak_libraries}")
        print(f"  imports: {len(b.imports)}, weak: {[n for n, _, w in b.imports if w]}")
