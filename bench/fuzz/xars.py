"""XAR: the table of contents is changed as text, then packed again with its checksums put right."""
import base64
import hashlib
import re
import struct
import zlib

import fields

TYPES = [b"file", b"directory", b"symlink", b"hardlink", b"fifo", b"character special", b"whiteout", b"", b"File"]
STYLES = [b"application/octet-stream", b"application/x-gzip", b"application/x-bzip2", b"application/x-lzma",
          b"application/x-xz", b"none", b""]
SUMS = [b"sha1", b"md5", b"none", b"sha256", b"SHA1", b"sha512"]
TAG = re.compile(rb"<[^>]*>")


def change(data, rng):
    magic, size, version, packed, _, algorithm = struct.unpack_from(">4sHHQQI", data)
    table = zlib.decompress(data[size:size + packed])
    heap = bytearray(data[size + packed:])
    for _ in range(rng.choice([1, 1, 2, 3, 5])):
        how = rng.randrange(12)
        if how < 3:
            table = number(table, rng)
        elif how == 3:
            table = text(table, rng, rb"<name[^>]*>([^<]*)</name>", lambda: escaped(fields.name(rng), rng))
        elif how == 4:
            table = text(table, rng, rb"<type[^>]*>([^<]*)</type>", lambda: rng.choice(TYPES))
        elif how == 5:
            table = text(table, rng, rb'style="([^"]*)"', lambda: rng.choice(STYLES + SUMS))
        elif how == 6:
            table = repeated(table, rng)
        elif how == 7:
            found = list(TAG.finditer(table))
            at = rng.choice(found)
            table = table[:at.start()] + table[at.end():]
        elif how == 8:
            table = text(table, rng, rb"<link[^>]*>([^<]*)</link>", lambda: escaped(fields.name(rng), rng))
        elif how == 9:
            at = rng.randrange(len(table))
            link = rng.choice([b'<type link="original">hardlink</type>', b'<type link="%d">hardlink</type>' % rng.randrange(9),
                               b'<type>symlink</type><link type="file">%s</link>' % escaped(fields.name(rng), rng)])
            table = table[:at] + link + table[at:] if rng.random() < 0.3 else table.replace(b"<type>file</type>", link, 1)
        elif how == 10:
            changed = bytearray(table)
            fields.scramble(changed, rng)
            table = bytes(changed)
        elif heap:
            fields.scramble(heap, rng, 20)
    again = zlib.compress(table)
    length, whole = len(again), len(table)
    if rng.random() < 0.05:
        whole = fields.number(rng, whole, 64, len(data))
    if rng.random() < 0.05:
        length = fields.number(rng, length, 64, len(data))
    if rng.random() < 0.05:
        algorithm = rng.choice([0, 1, 2, 3, 4, 0xFFFFFFFF])
    if algorithm in (1, 2):
        digest = (hashlib.sha1 if algorithm == 1 else hashlib.md5)(again).digest()
        heap[:len(digest)] = digest
    return struct.pack(">4sHHQQI", magic, size, version, length, whole, algorithm) + data[28:size] + again + bytes(heap)


def escaped(name, rng):
    if rng.random() < 0.2:
        return base64.b64encode(name)
    return name.replace(b"&", b"&amp;").replace(b"<", b"&lt;")


def text(table, rng, pattern, made):
    found = list(re.finditer(pattern, table))
    if not found:
        return table
    at = rng.choice(found)
    return table[:at.start(1)] + made() + table[at.end(1):]


def number(table, rng):
    found = list(re.finditer(rb">(\d+)<", table))
    if not found:
        return table
    at = rng.choice(found)
    old = int(at[1])
    new = b"%d" % fields.number(rng, old & (2**64 - 1), 64) if rng.random() < 0.8 else rng.choice([b"-1", b"", b"1e9", b"9" * 40, b" 1"])
    return table[:at.start(1)] + new + table[at.end(1):]


def repeated(table, rng):
    """An element once more, beside itself or somewhere else."""
    found = list(re.finditer(rb"<(\w+)[^>/]*>.*?</\1>", table, re.S))
    piece = rng.choice(found)
    at = piece.end() if rng.random() < 0.6 else rng.choice(found).start()
    times = 1 if rng.random() < 0.9 else 200
    return table[:at] + piece[0] * times + table[at:]
