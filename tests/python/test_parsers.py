# The parsers of change lists, commit logs and zero-context patches: agreement with the plain-Python baseline
# on random inputs, call-time lookup, lone surrogates, and exact answers where the baseline's inputs do not reach.
# Real git output reaches them, with exact records, through the queries (test_queries.py).

import collections
import dataclasses
import importlib.util
import random
import re
import sys
import types
from pathlib import Path

import pytest

from vantrel_sorlith.utils import git_utils as g

HEAD = ":100644 100644 1a2b3c4 5d6e7f8 "
RS = "\x1e"
BIG = 2**64


# --- numbers where int() and the parsers differ ---------------------------------------------------

# A count or a commit time is read as int() reads it (the baseline's generators vary signs, white space, digits
# and bad stamps), but of any length and as an optional sign and digits only: int() refuses 5000 digits and
# takes "1_0".
def test_numbers_of_any_length_but_digits_only():
    assert g._line_count("9" * 5000) == 10**5000 - 1  # a numstat count
    log = "\0".join([RS + "1", "\n" + HEAD + "A", "a", RS + "{}", RS + "2", ""])
    assert [c.timestamp for c in g.parse_commit_changes(log.format("9" * 5000))] == [1, 10**5000 - 1, 2]
    with pytest.raises(ValueError, match=re.escape("invalid literal for int() with base 10: '1_0'")):
        g.parse_commit_changes(log.format("1_0"))


# --- zero-context patches ------------------------------------------------------------------------

@pytest.mark.parametrize("args, expected", [
    ((3, 1, 1), (3, 3, False)), ((11, 2, 0), (11, 12, True)), ((4, 0, 2), (4, 4, False)), ((0, 0, 2), (1, 1, False)),
    ((-5, 0, 0), (1, 1, False)), ((5, 1, 0), (5, 5, True)), ((BIG, 2, 0), (BIG, BIG + 1, True)),
    ((2**63 - 1, 2, 1), (2**63 - 1, 2**63, False)), ((2, 2**63, 0), (2, 2**63 + 1, True)),
    ((2.5, 0, 1), (2.5, 2.5, False)),
])
def test_span(args, expected):
    span = g._span(*args)
    assert type(span) is g.LineSpan and dataclasses.astuple(span) == expected
    assert [type(v) for v in dataclasses.astuple(span)] == [type(v) for v in expected]


# --- agreement with the plain-Python baseline ----------------------------------------------------

@pytest.fixture(scope="module")
def ref():
    path = Path(__file__).resolve().parents[2] / "bench" / "reference.py"
    found = importlib.util.spec_from_file_location("git_utils_baseline", path)
    module = importlib.util.module_from_spec(found)
    sys.modules[found.name] = module  # dataclasses looks the module up while making the records
    found.loader.exec_module(module)
    return module


PATHS = ["a", "b c", "t\tab", "n\nl", "é/ü", "", "\nlead", "x\\y", 'q"', "a\tb"]
COUNTS = ["0", "3", "-", "12", "", "x", "007", "+1", "1 ", "1.0", "\u00b2", "\u0663\u0660", str(BIG)]
LETTERS = ["A", "C", "D", "M", "R", "T", "U", "X", "", "R086", "C075", "é"]
STAMPS = ["1700000000", " 17 ", "-5", "+0", "\u0661\u0662", "\u3000 12\x85", "99999999999999999999999", "-9223372036854775809"]
BAD_STAMPS = ["", "abc", "1 2", "0x10", "--5", "5_", "1__0", "+", "1.0"]  # int()'s message for each
NAMES = ["a", "b c\t", "/dev/null", "/dev/null\t", '"a\\tb"', '"\\303\\251\\n"', '"', '""', "", "t\t\t", "cr\r"]
BODY = ["+x", "-y", " z", "\\ No newline at end of file", "", "+++ b", "--- a", "+@@ -1 +1 @@", "@@ -1 +1 @@",
        "diff --git a b", "-", "+", "x\r", "@@@ -1 +1 @@@", "@@ -1 +1@@", "@@ -a +1 @@", "@@ -1, +1 @@",
        "@@ -1 +1,2,3 @@", "@@ -1 + 1 @@", " @@ -1 +1 @@"]
NUMBERS = ["0", "1", "2", "3", "10", "007", "\u0663", str(2**63 - 1), str(BIG - 1), "99999999999999999999999"]
# Octal escapes: UTF-8 sequences, whole, overlong and cut short, and two beyond a byte (a ValueError).
OCTAL = ["\\303\\251", "\\342\\202\\254", "\\360\\237\\230\\200", "\\340\\200\\200", "\\303\\302\\251", "\\400", "\\777"]
ESCAPES = ["\\", "\\", "\\", "0", "1", "3", "4", "7", "8", "a", "b", "f", "n", "r", "t", "v", "q", "N", '"', "é", "€", "\n", "x"]


def gen_tokens(rng, clean=False):
    tokens = []
    for _ in range(rng.randint(0, 8)):
        roll, path = rng.random(), rng.choice(PATHS)
        if roll < 0.4:
            tokens += ["\n" * rng.randint(0, 2) + rng.choice([HEAD, ":", ": "]) + rng.choice(LETTERS)]
            tokens += rng.choices(PATHS, k=rng.choice([0, 1, 1, 2]))
        elif roll < 0.8:
            tokens += ["\n" * rng.randint(0, 1) + f"{rng.choice(COUNTS)}\t{rng.choice(COUNTS)}\t{path}"]
            tokens += [] if path else rng.choices(PATHS, k=rng.choice([0, 1, 2, 2]))
        else:
            tokens += [rng.choice(["junk", "", "\n", "1\t2", "\t"])]
    return tokens


def gen_log(rng, clean=False):
    parts = []
    for _ in range(rng.randint(0, 4)):
        parts += [rng.choice(["junk", "\n"])] if rng.random() < 0.2 else []
        stamp = rng.choice(BAD_STAMPS) if not clean and rng.random() < 0.05 else rng.choice(STAMPS)
        parts += ["\n" * rng.randint(0, 2) + RS + stamp, *gen_tokens(rng)]
    return "\0".join(parts) + rng.choice(["", "\0"])


def gen_patch(rng, clean=False):
    lines = []
    for _ in range(rng.randint(0, 12)):
        roll, n = rng.random(), rng.choices(NUMBERS, k=4)
        if roll < 0.2:
            lines.append("+++ " + ('"x\\400"' if not clean and rng.random() < 0.03 else rng.choice(NAMES)))
        elif roll < 0.45:
            old, new = (rng.choice(["", "," + c]) for c in n[2:])
            lines.append(f"@@ -{n[0]}{old} +{n[1]}{new} @@" + rng.choice(["", " f()", "@", " "]))
        else:
            lines.append(rng.choice(BODY))
    return "\n".join(lines) + rng.choice(["", "\n"])


def gen_escapes(rng, clean=False):
    pieces = rng.choices(ESCAPES, k=rng.randint(0, 12)) + [f"\\{rng.randrange(256):03o}" for _ in range(rng.randint(0, 3))]
    pieces += rng.choices(OCTAL, k=rng.randint(0, 2))
    return "".join(rng.sample(pieces, len(pieces)))


def shape(value):
    # A comparable form of a parser result: record class names, field values and their types.
    if dataclasses.is_dataclass(value):
        return type(value).__name__, tuple(shape(getattr(value, f.name)) for f in dataclasses.fields(value))
    if isinstance(value, dict):
        return "dict", tuple((k, shape(v)) for k, v in value.items())
    if isinstance(value, (list, tuple)):
        return type(value).__name__, tuple(shape(v) for v in value)
    return type(value).__name__, value


def outcome(func, arg):
    try:
        return shape(func(arg))
    except Exception as exc:  # a commit time fails as int() does; the wording of a bad escape's error is free
        return "raises", type(exc), str(exc) if func.__name__ == "parse_commit_changes" else None


KINDS = {
    "parse_file_changes": lambda rng, clean=False: "\0".join(gen_tokens(rng)) + rng.choice(["", "\0"]),
    "_file_changes": lambda rng, clean=False: rng.choice([list, tuple])(gen_tokens(rng)),
    "parse_commit_changes": gen_log,
    "parse_line_spans": gen_patch,
    "_unquote": gen_escapes,
    "_patch_path": lambda rng, clean=False: rng.choice(['"{}"', '"{}"\t', "{}"]).format(gen_escapes(rng)),
}
BIG_INPUT = {"parse_file_changes": "\0".join, "_file_changes": lambda parts: [t for p in parts for t in p],
             "parse_commit_changes": "\0".join, "parse_line_spans": "\n".join}
VARIANTS = {  # the same edits (name, key, value) or replacements (name, None, value) on both modules
    "as loaded": [],
    "status table edited": [("_STATUS_BY_LETTER", "M", "changed"), ("_STATUS_BY_LETTER", "", "none"),
                            ("_STATUS_BY_LETTER", "é", "acute")],
    "status table replaced": [("_STATUS_BY_LETTER", None, types.MappingProxyType({"M": "changed", "X": "ex"}))],
    "two-path letters replaced": [("_TWO_PATH_LETTERS", None, frozenset({"R"}))],
    "escape table edited": [("_C_ESCAPES", "n", "N"), ("_C_ESCAPES", "q", "\\"), ("_C_ESCAPES", "é", "E")],
    "escape pattern replaced": [("_C_ESCAPE", None, re.compile(r"\\([0-3][0-7]{2}|.)", re.DOTALL))],
    # The helpers, record classes and markers are looked up at each call, the host's own as much as the module's.
    "helpers replaced": [("_line_count", None, len), ("_span", None, lambda *args: args),
                         ("_patch_path", None, lambda text: None if text == "a" else text.upper()),
                         ("_unquote", None, lambda text: f"U[{text}]")],
    "token reader replaced": [("_file_changes", None, lambda tokens: [type(tokens).__name__, *tokens])],
    "record classes replaced": [("LineSpan", None, collections.namedtuple("LS", "start end added")),
                                ("FileChange", None, collections.namedtuple("FC", "path status additions deletions old_path")),
                                ("CommitChanges", None, collections.namedtuple("CC", "timestamp files"))],
    "markers replaced": [("_HUNK_HEADER", None, re.compile(r"@@ -(\d+) \+(\d+),(\d+) @@")), ("_COMMIT_START", None, "1")],
}


@pytest.mark.parametrize("variant", VARIANTS)
@pytest.mark.parametrize("kind", KINDS)
def test_agrees_with_baseline(kind, variant, ref, module_state, monkeypatch):
    for name, key, value in VARIANTS[variant]:
        for module in (module_state, ref):
            if key is None:
                monkeypatch.setattr(module, name, value)
            else:
                monkeypatch.setitem(getattr(module, name), key, value)
    rng = random.Random(f"{kind}/{variant}")
    cases = [KINDS[kind](rng) for _ in range(300)]
    if kind in BIG_INPUT:  # beyond 64 KiB, where the scan runs without the interpreter lock
        cases += [BIG_INPUT[kind]([KINDS[kind](rng, clean=True) for _ in range(4000)]) for _ in range(2)]
    for case in cases:
        assert outcome(getattr(g, kind), case) == outcome(getattr(ref, kind), case), case


# From 1 MiB on, the patch is read on a thread of its own while the records
# are made: what stops the reading mid-way (a bad escape, a number beyond 64
# bits) is met after the records of the first MiB exist.
@pytest.mark.parametrize("variant, tail", [("as loaded", ""), ("as loaded", '\n+++ "x\\400"'),
                                           ("as loaded", "\n+++ t\n@@ -1 +99999999999999999999999 @@"),
                                           ("record classes replaced", "")])
def test_patch_beyond_a_mebibyte_agrees_with_baseline(variant, tail, ref, module_state, monkeypatch):
    for name, _, value in VARIANTS[variant]:
        for module in (module_state, ref):
            monkeypatch.setattr(module, name, value)
    pieces = [lambda i: f"+++ f{i % 5000}\n@@ -{i},2 +{i},{i % 3} @@\n-a\n-b" + "\n+c" * (i % 3),
              lambda i: f'+++ "q\\t{i % 700}"\n@@ -{i} +{i} @@\n-x\n+y',
              lambda i: "+++ /dev/null\n@@ -1,3 +0,0 @@\n-z\n-z\n-z"]
    patch = "\n".join(pieces[i % 3](i) for i in range(32_000))
    assert len(patch) > 2**20
    assert outcome(g.parse_line_spans, patch + tail) == outcome(ref.parse_line_spans, patch + tail)


# --- lone surrogates, which no encoding takes -------------------------------------------------

PARSERS = [g.parse_file_changes, g.parse_commit_changes, g.parse_line_spans, g._unquote, g._patch_path, g._line_count]


@pytest.mark.parametrize("func", PARSERS, ids=lambda f: f.__name__)
@pytest.mark.parametrize("value", ["a\udcff", HEAD + "M\0a\udcff\0", RS + "1\0\n" + HEAD + "M\0\ud800\0",
                                   '+++ "\udcff\\303"\n@@ -1 +1 @@', "\udcff\\\udcff"], ids=repr)
def test_lone_surrogates_do_not_crash(func, value):
    try:
        func(value)
    except (ValueError, TypeError):  # UnicodeError included
        pass
    g._file_changes(value.split("\0"))
