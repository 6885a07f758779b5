"""What is wrong with how the program ended. Each complaint is a kind and a sentence."""
import json
import os

CRASH_WORDS = [b"terminate called", b"AddressSanitizer", b"runtime error:", b"ThreadSanitizer", b"ASSERT", b"Assertion", b"qFatal"]


def about_run(run, memory_mib):
    """What no input may cause, whatever it is."""
    if run.hung:
        yield "hang", f"no end within {run.seconds:.0f} s"
    elif run.status < 0 or run.status not in (0, 1, 3, 4) or any(word in run.err for word in CRASH_WORDS):
        yield "crash", f"ended with {run.status}: {tail(run.err)}"
    elif run.status != 0 and not run.err.strip():
        yield "mute", f"status {run.status} without a word"
    if b"gave up on this archive" in run.err:
        yield "reader-died", tail(run.err)
    if run.peak_kib > memory_mib * 1024:
        yield "memory", f"{run.peak_kib // 1024} MiB"
    for name in run.left_running:
        yield "process", f"still runs: {name}"


def tail(text):
    return text.strip().decode(errors="replace").replace("\n", " | ")[-200:]


def about_damage(original, touched, run, before, after):
    """A run on damaged data that says everything is well: is it?"""
    if run.status != 0 or run.err.strip() or original.promise == "none" or after == before:
        return
    if original.covered is not None and not any(start <= touched[0] and touched[1] <= end for start, end in original.covered):
        return
    if original.promise == "all":
        lost = [p for p in before if p not in after]
        new = [p for p in after if p not in before]
        other = [p for p in before if p in after and before[p] != after[p]]
        kind = "silent" if lost or new or any(before[p][0] != after[p][0] or before[p][3] != after[p][3] for p in other) else "silent-metadata"
        yield kind, f"status 0; lost {lost[:3]}, new {new[:3]}, other {other[:3]} {[(before[p], after[p]) for p in other[:1]]}"
        return
    known = {what for kind, _, _, what in before.values() if kind == "file"}
    for path, (kind, _, _, what) in after.items():
        if kind == "file" and what not in known:
            yield "silent", f"status 0; wrong contents of {path}"
            return
        if kind == "file" and path in before and before[path][0] == "file" and before[path][3] != what:
            yield "silent", f"status 0; the contents of another file in {path}"
            return
    lost = len(before) - len(after)
    if lost > 0 and not any(path not in before for path in after):
        yield "lost", f"status 0; {lost} entries are missing: {[p for p in before if p not in after][:3]}"


def about_delivery(run, out_tree):
    if run.status in (1, 3) and out_tree:
        yield "half", f"status {run.status}, yet delivered: {list(out_tree)[:3]}"
    for path, (kind, mode, _, what) in out_tree.items():
        if os.path.basename(path).startswith(b".corvane-"):
            yield "left-over", f"{path!r}"
            return
        if kind == "special":
            yield "special", f"{path!r}"
        if mode & 0o7000:
            yield "bits", f"{path!r} has mode {mode:o}"
        if kind == "link":
            where = os.path.normpath(os.path.join(b"/d", os.path.dirname(path), what))
            if what.startswith(b"/") or not where.startswith(b"/d/") and where != b"/d":
                yield "link", f"{path!r} -> {what!r}"


def about_listing(run, listed, out_tree):
    """Both say that all is well: do they mean the same?"""
    if run.status != 0 or run.err.strip():
        return
    if listed is None:
        yield "disagree", "extracted without a word, but cannot be listed"
        return
    names = {}
    for entry in listed["entries"]:
        if entry["type"] == "special":
            return
        path = "/".join(part for part in entry["path"].split("/") if part not in ("", "."))
        if "\ufffd" in path or ".." in path or "\\" in path:
            return
        if path:
            names[path] = entry
    if not names:
        return  # an empty folder is what nothing becomes
    tops = {path.split("/")[0] for path in names}
    prefix = b"" if len(tops) <= 1 else None
    if prefix is None:
        roots = {path.split(b"/")[0] for path in out_tree}
        if len(roots) != 1:
            yield "disagree", f"{len(tops)} items listed at the top, {len(roots)} delivered"
            return
        prefix = roots.pop() + b"/"
    found = {path[len(prefix):]: value for path, value in out_tree.items() if path != prefix[:-1]}
    for path, entry in names.items():
        got = found.get(os.fsencode(path))
        if got is None:
            yield "disagree", f"listed, not delivered: {path!r}"
            return
        kind = {"file": "file", "dir": "folder", "symlink": "link"}[entry["type"]]
        if got[0] != kind:
            yield "disagree", f"{path!r} listed as {kind}, delivered as {got[0]}"
            return
    for path in found:
        text = os.fsdecode(path)
        if text not in names and not any(name.startswith(text + "/") for name in names):
            yield "disagree", f"delivered, not listed: {text!r}"
            return


def parse_listing(run):
    """path → listing, of those that were listed whole."""
    listings = {}
    for line in run.out.splitlines():
        try:
            row = json.loads(line)
        except ValueError:
            continue
        listings[row["path"]] = row
    return listings
