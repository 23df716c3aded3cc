"""Names made safe for a terminal, and measured in terminal columns.

A file name, an author or a subject may hold any character: an escape
sequence that recolours the terminal, a newline that splits a row, a tab or a
wide CJK character that breaks the columns, a right-to-left override that
reorders what follows. Paths are quoted the way git quotes them (C-style, in
double quotes, with octal escapes) whenever they hold such a character; other
texts get the same escapes without the quotes. Widths are counted in columns:
wide and fullwidth characters take 2, combining marks 0.
"""

import unicodedata

_C_ESCAPES = {"\a": "\\a", "\b": "\\b", "\t": "\\t", "\n": "\\n", "\v": "\\v", "\f": "\\f", "\r": "\\r"}
_QUOTED_TOO = {'"': '\\"', "\\": "\\\\"}
# Characters that show nothing, move the cursor or reorder the line: controls,
# format characters (bidirectional overrides, zero-width space), surrogates,
# private-use and unassigned code points, line and paragraph separators, and
# blanks other than the ASCII space.
_HIDDEN = frozenset(("Cc", "Cf", "Cs", "Co", "Cn", "Zl", "Zp", "Zs"))
# Zero-width joiners shape emoji and some scripts; they move nothing.
_JOINERS = frozenset("\u200c\u200d")
ELLIPSIS = "\u2026"


def char_width(ch):
    if ch in _JOINERS or unicodedata.combining(ch) or unicodedata.category(ch) in ("Mn", "Me"):
        return 0
    return 2 if unicodedata.east_asian_width(ch) in ("W", "F") else 1


def _escape(ch, quoted):
    """The escapes that show one character, or None when it stands as it is."""
    if " " <= ch <= "~":
        return [_QUOTED_TOO[ch]] if quoted and ch in _QUOTED_TOO else None
    if ch in _C_ESCAPES:
        return [_C_ESCAPES[ch]]
    if ch in _JOINERS or unicodedata.category(ch) not in _HIDDEN:
        return None
    # git's own form for bytes it will not print: the octal value of each UTF-8 byte.
    return [f"\\{b:03o}" for b in ch.encode("utf-8", "surrogatepass")]


def pieces(text, quoted=False):
    """TEXT as (shown text, columns) pieces; an escape is one piece, never cut.
    QUOTED: a path, in double quotes when anything in it had to be escaped."""
    out = []
    escaped = False
    for ch in text:
        esc = _escape(ch, quoted)
        if esc is None:
            out.append((ch, char_width(ch)))
        else:
            out.extend((e, len(e)) for e in esc)
            escaped = True
    if quoted and escaped:
        out = [('"', 1), *out, ('"', 1)]
    return out


def quote(text):
    """A path as git quotes it: unchanged when harmless, else C-style in double quotes."""
    return "".join(p for p, _ in pieces(text, quoted=True))


def visible(text):
    """Any other text with the same escapes, without quotes."""
    return "".join(p for p, _ in pieces(text))


def width(shown):
    """Columns that already-safe text takes on a terminal."""
    return sum(char_width(ch) for ch in shown)


def _take(seq, room):
    taken, used = [], 0
    for text, w in seq:
        if used + w > room:
            break
        taken.append(text)
        used += w
    return taken


def fit(text, columns, quoted=False, middle=True):
    """TEXT made safe and cut to at most COLUMNS columns: in the middle (paths,
    whose both ends matter) or at the end, with an ellipsis where it was cut."""
    ps = pieces(text, quoted)
    if sum(w for _, w in ps) <= columns:
        return "".join(p for p, _ in ps)
    if columns < 1:
        return ""
    room = columns - 1
    if not middle:
        return "".join(_take(ps, room)) + ELLIPSIS
    head = _take(ps, room - room // 2)
    tail_pieces = list(reversed(ps))
    tail = _take(tail_pieces, room // 2)
    # A combining mark must not open the tail: it would sit on the ellipsis.
    kept = len(tail)
    while kept and tail_pieces[kept - 1][1] == 0:
        kept -= 1
    return "".join(head) + ELLIPSIS + "".join(reversed(tail[:kept]))


def pad(shown, columns, right=False):
    """Already-safe text padded with blanks to COLUMNS columns."""
    fill = " " * max(0, columns - width(shown))
    return fill + shown if right else shown + fill
