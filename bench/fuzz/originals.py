"""The whole archives that mutations start from: made by installed tools, and samples of a corpus."""
import bz2
import gzip
import hashlib
import io
import json
import lzma
import os
import random
import subprocess
import zipfile
from dataclasses import dataclass, field
from pathlib import Path

import arjs
import cabs
import cpios
import isos
import lhas
import lists
import rars
import sevenzips
import tars
import xars
import zips

PASSWORD = "open sesame 7"
DATE = 1_600_000_000


@dataclass
class Original:
    name: str
    format: str
    files: dict  # name → bytes; the first one is what the program is given
    change: object = None  # of the structure, with checksums put right
    # What the checksums of the format cover: "all", "contents" (of files) or "none".
    promise: str = "none"
    # Where "all" and "contents" hold, as ranges of offsets; None for everywhere.
    covered: object = None
    password: str = ""
    command: str = "extract"
    wanted: bytes = None  # for "combine": what the parts make together


def content():
    rng = random.Random(11)
    words = "archive folder entry checksum header block stream of the and with under".split()
    prose = "\n".join(" ".join(rng.choice(words) for _ in range(12)) for _ in range(60)).encode()
    return {
        "b.txt": prose,
        "folder/a.txt": b"hello\n",
        "folder/random.bin": rng.randbytes(1500),
        "folder/deeper/empty": b"",
        "folder/deeper/zeros": bytes(2000),
        "grüße.txt": b"with a name beyond ASCII\n",
        "run.sh": b"#!/bin/sh\necho " + prose[:300] + b"\n",
    }


def make_tree(root):
    for name, body in content().items():
        path = root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(body)
    (root / "run.sh").chmod(0o755)
    (root / "link").symlink_to("folder/a.txt")
    for path in sorted(root.rglob("*"), reverse=True):
        os.utime(path, (DATE, DATE), follow_symlinks=False)


def tool(words, folder, stdin=None):
    environment = {"PATH": os.environ["PATH"], "LC_ALL": "C.UTF-8", "TZ": "UTC", "HOME": str(folder.parent / "home")}
    subprocess.run(words, cwd=folder, input=stdin, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=environment)


def made_by_tools(work, program):
    """(name, format, words to run in the tree, promise, change, password); the archive is ../out."""
    tar = ["tar", "--sort=name", "--owner=0", "--group=0", "--numeric-owner"]
    names = sorted(content())
    seven = ["7z", "a", "-bd", "-y"]
    zip_ = lambda name, *more, password="": (name, "zip", ["zip", "-qrX", *more, "../out.zip", "."], "contents", zips.change, password)
    sevenz = lambda name, *more, password="": (name, "7z", [*seven, "-mhc=off", *more, "../out.7z", "."], "all", sevenzips.change, password)
    secret = "-p" + PASSWORD
    yield zip_("zip-stored", "-0")
    yield zip_("zip-deflate", "-9")
    yield zip_("zip-links", "-y")
    yield zip_("zip-crypto", "-P", PASSWORD, password=PASSWORD)
    for method in ("BZip2", "LZMA", "Deflate64", "PPMd"):
        yield f"zip-{method.lower()}", "zip", [*seven, "-tzip", "-mm=" + method, "../out.zip", "."], "contents", zips.change, ""
    yield "zip-aes", "zip", [*seven, "-tzip", "-mem=AES256", secret, "../out.zip", "."], "contents", zips.change, PASSWORD
    yield sevenz("7z-lzma2")
    yield sevenz("7z-copy", "-mx=0")
    yield sevenz("7z-lzma", "-m0=LZMA", "-ms=off")
    yield sevenz("7z-ppmd", "-m0=PPMd")
    yield sevenz("7z-bzip2", "-m0=BZip2", "-ms=off")
    yield sevenz("7z-deflate", "-m0=Deflate", "-ms=off")
    yield sevenz("7z-bcj2", "-mf=BCJ2")
    yield sevenz("7z-delta", "-mf=Delta:4")
    yield sevenz("7z-links", "-snl")
    yield sevenz("7z-aes", secret, password=PASSWORD)
    yield "7z-packed-header", "7z", [*seven, "../out.7z", "."], "all", None, ""
    yield "7z-aes-header", "7z", [*seven, secret, "-mhe=on", "../out.7z", "."], "all", None, PASSWORD
    for sums in ("sha1", "md5"):
        for packed in ("gzip", "bzip2", "none", "xz"):
            yield (f"xar-{sums}-{packed}", "xar", ["bsdtar", "-c", "--format", "xar", "--options",
                   f"xar:toc-checksum={sums},xar:checksum={sums},xar:compression={packed}", "-f", "../out.xar", "."], "all", xars.change, "")
    for name, kind in (("gnu", "gnu"), ("pax", "posix"), ("ustar", "ustar"), ("v7", "v7")):
        yield f"tar-{name}", "tar", [*tar, "--format=" + kind, "-cf", "../out.tar", "."], "headers", tars.change, ""
    yield "tar-sparse", "tar", [*tar, "-S", "--format=gnu", "-cf", "../out.tar", "."], "headers", tars.change, ""
    # Their streams carry a checksum over everything.
    for name, flag in (("gz", "-z"), ("bz2", "-j"), ("xz", "-J"), ("zst", "--zstd"), ("lz", "--lzip"), ("lzo", "--lzop"), ("lz4", "-Ilz4")):
        yield f"tar-{name}", f"tar.{name}", [*tar, flag, "-cf", f"../out.tar.{name}", "."], "all", None, ""
    yield "tar-compress", "tar.Z", [*tar, "-Z", "-cf", "../out.tar.Z", "."], "none", None, ""
    for name in ("odc", "newc", "crc", "bin"):
        # Two equal headers one after the other would say that a byte was lost; only crc has sums, and of contents.
        yield f"cpio-{name}", "cpio", ["sh", "-c", f"find . | LC_ALL=C sort | cpio -o -H {name} > ../out.cpio"], \
            "contents" if name == "crc" else "none", cpios.change, ""
    yield "iso-rock-ridge", "iso", ["genisoimage", "-quiet", "-R", "-o", "../out.iso", "."], "none", isos.change, ""
    yield "iso-joliet", "iso", ["genisoimage", "-quiet", "-J", "-l", "-o", "../out.iso", "."], "none", isos.change, ""
    yield "arj", "arj", ["arj", "a", "-r", "-y", "../out.arj", "b.txt", "folder", "run.sh"], "all", arjs.change, ""
    yield "arj-stored", "arj", ["arj", "a", "-r", "-y", "-m0", "../out.arj", "b.txt", "folder", "run.sh"], "all", arjs.change, ""
    yield "ar", "ar", ["ar", "rcD", "../out.ar", "b.txt", "run.sh"], "none", None, ""
    for name, words in (("gz", ["gzip", "-9"]), ("bz2", ["bzip2"]), ("xz", ["xz"]), ("zst", ["zstd", "-q"]), ("lz", ["lzip"]),
                        ("lzo", ["lzop"]), ("lz4", ["lz4", "-q"]), ("Z", ["compress"])):
        yield f"single-{name}", name, ["sh", "-c", " ".join([*words, "-c", "b.txt", f"> ../out.txt.{name}"])], \
            "none" if name == "Z" else "contents", None, ""
    yield "xar-own", "xar", [program, "create", "--format", "corvane", "--name", "out", "--to", "..", *names], "all", xars.change, ""


def written_here():
    files = content()
    for name, wide, stream in (("zip64", True, False), ("zip-descriptors", False, True)):
        buffer = io.BytesIO()

        class OneWay(io.RawIOBase):
            def writable(self):
                return True

            def write(self, data):
                return buffer.write(data)

        with zipfile.ZipFile(OneWay() if stream else buffer, "w", zipfile.ZIP_DEFLATED) as archive:
            for path, body in files.items():
                with archive.open(zipfile.ZipInfo(path, (2020, 9, 13, 12, 26, 40)), "w", force_zip64=wide) as entry:
                    entry.write(body)
        yield Original(name, "zip", {"out.zip": buffer.getvalue()}, zips.change, "contents")
    ascii_ = {name: body for name, body in files.items() if name.isascii()}
    for level in (0, 1, 2):
        yield Original(f"lha-{level}", "lha", {"out.lzh": lhas.archive(ascii_, level)}, lhas.change, "contents")
    yield Original("cab-stored", "cab", {"out.cab": cabs.archive(ascii_, False)}, cabs.change, "contents")
    yield Original("cab-mszip", "cab", {"out.cab": cabs.archive(ascii_, True)}, cabs.change, "contents")


def sets(work, program):
    """Sets of parts, and volumes of 7z."""
    tree = work / "tree"
    rng = random.Random(5)
    body = rng.randbytes(3000) + content()["b.txt"] * 2
    for name, more in (("split-plain", []), ("split-sums", ["--checksum"]), ("split-bzip2", ["--compress", "bzip2", "--checksum"])):
        folder = work / name
        folder.mkdir()
        (folder / "data.bin").write_bytes(body)
        tool([program, "split", "--size", "4", "--unit", "KB", *more, "--to", str(folder / "to"), "data.bin"], folder)
        parts = {p.name: p.read_bytes() for p in sorted((folder / "to").rglob("*")) if p.is_file()}
        lists_ = {n: b for n, b in parts.items() if b"<plist" in b}
        first = {n: b for n, b in parts.items() if n not in lists_}
        yield Original(name, "split", first | lists_, lists.change if lists_ else None, "none" if name == "split-plain" else "contents",
                       command="combine", wanted=body)
    for name, more, password in (("7z-volumes", [], ""), ("7z-volumes-aes", ["-p" + PASSWORD, "-mhe=on"], PASSWORD)):
        folder = work / name
        folder.mkdir()
        tool(["7z", "a", "-bd", "-v1k", *more, str(folder / "out.7z"), "."], tree)
        yield Original(name, "7z volumes", {p.name: p.read_bytes() for p in sorted(folder.iterdir())}, None, "all", password=password)


# What the samples of a corpus promise, by the format that its manifest names. The rest promises nothing.
CORPUS = {"zip": ("contents", zips.change), "zipx": ("contents", zips.change), "jar": ("contents", zips.change),
          "7z": ("all", sevenzips.change), "7z .001": ("all", None), "rar4": ("contents", rars.change), "rar5": ("all", rars.change),
          "lha/lzh": ("contents", None), "arj": ("contents", None), "cab": ("none", None), "xar": ("all", xars.change),
          "pkg (xar)": ("all", xars.change), "iso": ("none", isos.change), "tar": ("headers", tars.change), "cpio": ("none", None),
          "gz": ("contents", None), "bz2": ("contents", None), "xz": ("contents", None), "lz": ("contents", None),
          "tar.gz": ("all", None), "tar.bz2": ("all", None), "tar.xz": ("all", None), "zst": ("none", None), "lz4": ("none", None)}


def corpus(folder):
    for row in json.loads((folder / "manifest.json").read_text()):
        path = folder / row["file"]
        if row["expect"] not in ("ok", "wrong-password-possible") or row["archive_size"] > 60_000 or not path.is_file():
            continue
        promise, change = CORPUS.get(row["format"], ("none", None))
        parts = [path] + [path.parent / os.path.basename(v) for v in row.get("volumes") or []]
        files = {p.name: p.read_bytes() for p in parts if p.is_file()}
        name = "corpus-" + row["file"].replace("/", "-")
        yield Original(name, row["format"], files, change if len(files) == 1 else None, promise, password=row.get("password") or "")


def everything(work, program, corpus_folder):
    tree = work / "tree"
    tree.mkdir(parents=True)
    make_tree(tree)
    made = []
    for name, format_, words, promise, change, password in made_by_tools(work, program):
        for old in work.glob("out.*"):
            old.unlink()
        tool(words, tree)
        path = next(p for p in work.glob("out.*"))
        if format_ == "arj":
            path = next(work.glob("out.arj"))
        made.append(Original(name, format_, {path.name: path.read_bytes()}, change, promise, password=password))
    made += written_here()
    made += sets(work, program)
    if corpus_folder:
        made += corpus(corpus_folder)
    for original in made:
        if original.promise == "headers":  # of tar: sums of headers, none of contents
            data = next(iter(original.files.values()))
            original.promise = "all"
            original.covered = [(start, start + 512) for start, _ in tars.blocks(data)]
    return made
