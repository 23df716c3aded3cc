"""The report as text: a header of facts, then the files the branch changed,
the authors and the commits of the period, in columns that stay aligned
whatever the names hold."""

import textwrap
import time

from .display import fit, pad, quote, visible, width

LABEL = 14  # columns of the header's labels
STATUS, COUNT = 9, 7


def when(timestamp):
    return time.strftime("%Y-%m-%d %H:%M", time.localtime(timestamp))


def since_text(doc):
    # "2024-01-01T12:00:00+01:00" shown as "2024-01-01 12:00 +01:00"
    iso = doc["since"]
    return f"{iso[:10]} {iso[11:16]}" + (f" {iso[19:]}" if len(iso) > 19 else "")


def spans_text(spans, limit=4):
    parts = [f"{s['start']}" if s["start"] == s["end"] else f"{s['start']}-{s['end']}" for s in spans[:limit]]
    return ", ".join(parts) + (f" (+{len(spans) - limit} more)" if len(spans) > limit else "")


def plural(n, word):
    return f"{n:,} {word}" + ("" if n == 1 else "s")


def _header(doc, columns):
    def line(label, value):
        return f"{label:<{LABEL}}{value}"

    out = [line("Repository", quote(doc["root"]) + ("  (bare: no working tree)" if doc["bare"] else ""))]
    branch = visible(doc["branch"]) if doc["branch"] else "detached HEAD"
    up = doc["upstream"]
    if up and up["ahead"] == up["behind"] == 0:
        branch += f", tracking {visible(up['name'])} (up to date)"
    elif up and up["ahead"] is not None:
        branch += f", tracking {visible(up['name'])}: {up['ahead']:,} ahead, {up['behind']:,} behind"
    elif up:
        branch += f", tracking {visible(up['name'])} (gone)"
    out.append(line("Branch", branch))
    head = doc["head"]
    if head is None:
        out.append(line("HEAD", "no commits yet"))
    else:
        text = f"{head['short']}  {when(head['timestamp'])}  {fit(head['author'], 30, middle=False)}  "
        out.append(line("HEAD", text + fit(head["subject"], max(10, columns - LABEL - width(text)), middle=False)))
    base = doc["base"]
    default = visible(doc["default_branch"])
    if head is not None and base is None:
        out.append(line("Base", f"none: the default branch {default} exists neither here nor as origin/{default}"))
    elif base is not None and base["kind"] == "local" and base["name"] == doc["branch"]:
        out.append(line("Base", f"{default}: this branch is the default branch"))
    elif base is not None:
        name = visible(base["name"])
        what = {"local": "the default branch", "remote": f"the default branch ({default} is not a local branch)"}
        out.append(line("Base", f"{name}, " + what.get(base["kind"], f"what git resolves {default} to")))
        counts = f"{base['ahead']:,} ahead, {base['behind']:,} behind"
        if not base["common_history"]:
            counts += "; no common history"
        out.append(line("", counts))
    tree = doc["working_tree"]
    if tree is not None:
        parts = [f"{tree[k]:,} {k}" for k in ("staged", "unstaged", "untracked", "conflicted") if tree[k]]
        out.append(line("Working tree", ", ".join(parts) or "clean"))
    for note in doc["notes"]:
        wrapped = textwrap.wrap(visible(note), max(20, columns - LABEL))
        out.extend(line("Note" if i == 0 else "", text) for i, text in enumerate(wrapped))
    return out


def _changes(doc, columns, max_files):
    base, changes, totals = doc["base"], doc["changes"], doc["totals"]
    out = [
        f"Files changed since leaving {visible(base['name'])}: {totals['files']:,}"
        f"  (+{totals['additions']:,} -{totals['deletions']:,})"
    ]
    if not changes:
        return out
    shown = changes[:max_files] if max_files else changes
    fixed = 2 + STATUS + 2 * COUNT + 2
    room = max(20, min(72, columns - fixed - 20))
    paths = []
    for c in shown:
        if c["old_path"] is None:
            paths.append(fit(c["path"], room, quoted=True))
        else:  # the old name gets at most half the room, so both ends of both names stay visible
            old = fit(c["old_path"], (room - 4) // 2, quoted=True)
            paths.append(f"{old} -> {fit(c['path'], room - 4 - width(old), quoted=True)}")
    pw = max(width(p) for p in paths)
    out.append(f"  {'status':<{STATUS}}{'+':>{COUNT}}{'-':>{COUNT}}  {pad('path', pw)}  lines (newer side)")
    for c, p in zip(shown, paths):
        out.append(
            f"  {c['status']:<{STATUS}}{c['additions']:>{COUNT},}{c['deletions']:>{COUNT},}  {pad(p, pw)}  {spans_text(c['spans'])}".rstrip()
        )
    if len(shown) < len(changes):
        out.append(f"  ... and {len(changes) - len(shown):,} more (--files 0 lists all)")
    return out


def _authors(doc, columns):
    out = [f"Authors since {since_text(doc)}: {len(doc['authors']):,}"]
    for a in doc["authors"]:
        who = f"{a['name']} <{a['email']}>" if a["email"] else a["name"]
        out.append(f"  {a['commits']:>6,}  {fit(who, columns - 10, middle=False)}")
    return out


def _commits(doc, columns):
    total = max(doc["commits_in_period"], len(doc["commits"]))
    if doc["head"] is None:
        return [f"Commits since {since_text(doc)}: none (no commits yet)"]
    if total == 0:
        latest = doc["head"]["timestamp"]
        days = int((time.time() - latest) // 86400)
        return [
            f"Commits since {since_text(doc)}: none. The latest commit is from {when(latest)}"
            f" ({plural(days, 'day')} ago); widen the period, for example --since {days + 1}d"
        ]
    shown = len(doc["commits"])
    out = [f"Commits since {since_text(doc)}: {total:,}" + (f", the latest {shown}" if 0 < shown < total else "")]
    if not doc["commits"]:
        return out
    aw = min(18, max(width(fit(c["author"], 18, middle=False)) for c in doc["commits"]))
    # A shallow clone's boundary commit has no parent here: git shows its whole
    # tree as added, so its counts say nothing about the commit itself.
    stats = ["" if c["shallow_boundary"] else f"+{c['additions']:,} -{c['deletions']:,}" for c in doc["commits"]]
    files = [
        "boundary" if c["shallow_boundary"] else "merge" if c["merge"] else plural(c["files"], "file")
        for c in doc["commits"]
    ]
    sw, fw = max(map(len, stats)), max(map(len, files))
    for c, stat, nfiles in zip(doc["commits"], stats, files):
        lead = f"  {c['short']}  {when(c['timestamp'])}  {pad(fit(c['author'], aw, middle=False), aw)}  {stat:>{sw}}  {nfiles:>{fw}}  "
        out.append(lead + fit(c["subject"], max(10, columns - width(lead)), middle=False))
    return out


def render(doc, columns=100, max_files=50):
    sections = [_header(doc, columns)]
    if doc["base"] is not None and doc["base"]["common_history"] and doc["base"]["ahead"]:
        sections.append(_changes(doc, columns, max_files))
    if doc["head"] is not None:
        sections.append(_authors(doc, columns))
    sections.append(_commits(doc, columns))
    return "\n\n".join("\n".join(s) for s in sections) + "\n"
