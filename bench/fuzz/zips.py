"""Zip archives taken apart into records, changed, and put together again with offsets and counts that fit."""
import struct
import zlib

import fields

LOCAL = struct.Struct("<4sHHHHHIIIHH")
CENTRAL = struct.Struct("<4sHHHHHHIIIHHHHHII")
END = struct.Struct("<4sHHHHIIH")
# (offset, width) of the numbers in each record.
LOCAL_NUMBERS = [(4, 2), (6, 2), (8, 2), (10, 2), (14, 4), (18, 4), (22, 4), (26, 2), (28, 2)]
CENTRAL_NUMBERS = [(4, 2), (6, 2), (8, 2), (10, 2), (12, 2), (16, 4), (20, 4), (24, 4), (28, 2), (30, 2), (32, 2), (34, 2),
                   (36, 2), (38, 4), (42, 4)]
END_NUMBERS = [(4, 2), (6, 2), (8, 2), (10, 2), (12, 4), (16, 4), (20, 2)]
EXTRA_IDS = [0x0001, 0x0007, 0x000A, 0x000D, 0x0017, 0x5455, 0x5855, 0x6375, 0x7075, 0x7855, 0x7875, 0x756E, 0x9901, 0xCAFE]


class Entry:
    def __init__(self, data, at):
        head = CENTRAL.unpack_from(data, at)
        name, extra, comment = head[10], head[11], head[12]
        body = at + CENTRAL.size
        self.central = bytearray(data[at:body])
        self.name = data[body:body + name]
        self.extra = data[body + name:body + name + extra]
        self.comment = data[body + name + extra:body + name + extra + comment]
        self.end = body + name + extra + comment
        offset = head[16]
        packed = head[8]
        if b"\1\0" in self.extra and offset == 0xFFFFFFFF or packed == 0xFFFFFFFF:
            field = zip64(self.extra)
            wide = [struct.unpack_from("<Q", field, i)[0] for i in range(0, len(field) - 7, 8)]
            if head[9] == 0xFFFFFFFF and wide:
                wide.pop(0)
            if packed == 0xFFFFFFFF and wide:
                packed = wide.pop(0)
            if offset == 0xFFFFFFFF and wide:
                offset = wide.pop(0)
        local = LOCAL.unpack_from(data, offset)
        body = offset + LOCAL.size
        self.local = bytearray(data[offset:body])
        self.local_name = data[body:body + local[9]]
        self.local_extra = data[body + local[9]:body + local[9] + local[10]]
        body += local[9] + local[10]
        self.data = data[body:body + packed]
        self.trailer = b""
        if head[3] & 8:
            rest = data[body + packed:body + packed + 24]
            self.trailer = rest[:16] if rest[:4] == b"PK\7\x08" else rest[:12]
        self.keep_offset = False
        self.keep_lengths = False

    def local_bytes(self):
        if not self.keep_lengths:
            struct.pack_into("<HH", self.local, 26, len(self.local_name) & 0xFFFF, len(self.local_extra) & 0xFFFF)
        return bytes(self.local) + self.local_name + self.local_extra + self.data + self.trailer

    def central_bytes(self, offset):
        if not self.keep_lengths:
            struct.pack_into("<HHH", self.central, 28, len(self.name) & 0xFFFF, len(self.extra) & 0xFFFF, len(self.comment) & 0xFFFF)
        if not self.keep_offset:
            struct.pack_into("<I", self.central, 42, offset)
        return bytes(self.central) + self.name + self.extra + self.comment


def zip64(extra):
    at = 0
    while at + 4 <= len(extra):
        kind, size = struct.unpack_from("<HH", extra, at)
        if kind == 1:
            return extra[at + 4:at + 4 + size]
        at += 4 + size
    return b""


def parse(data):
    end = data.rfind(b"PK\5\6")
    head = END.unpack_from(data, end)
    count, at = head[4], head[6]
    if at == 0xFFFFFFFF or count == 0xFFFF:
        wide = data.rfind(b"PK\6\6")
        count, _, at = struct.unpack_from("<QQQ", data, wide + 32)
    entries = []
    for _ in range(count):
        entries.append(Entry(data, at))
        at = entries[-1].end
    return entries, bytearray(data[end:end + END.size]), data[end + END.size:]


def extra_field(rng, name):
    kind = rng.choice(EXTRA_IDS)
    body = {
        0x0001: lambda: b"".join(struct.pack("<Q", fields.number(rng, 0, 64)) for _ in range(rng.randrange(5))),
        0x7075: lambda: b"\1" + struct.pack("<I", zlib.crc32(name)) + fields.name(rng),
        0x9901: lambda: struct.pack("<H2sBH", rng.choice([1, 2, 3]), b"AE", rng.choice([0, 1, 2, 3, 9]), rng.choice([0, 8, 99])),
        0x5455: lambda: bytes([rng.randrange(8)]) + struct.pack("<I", fields.number(rng, 0, 32)) * rng.randrange(4),
        0x756E: lambda: struct.pack("<IHIHH", 0, 0xA1FF, 4, 0, 0) + fields.name(rng),
    }.get(kind, lambda: bytes(rng.randrange(256) for _ in range(rng.randrange(40))))()[:60000]
    size = len(body) if rng.random() < 0.8 else fields.number(rng, len(body), 16)
    return struct.pack("<HH", kind, size) + body


def change(data, rng):
    entries, end, tail = parse(data)
    keep_end = False
    for _ in range(rng.choice([1, 1, 2, 3])):
        entry = rng.choice(entries) if entries else None
        how = rng.randrange(13)
        if entry is None or how == 0:
            offset, width = rng.choice(END_NUMBERS)
            fields.put_number(end, rng, offset, width)
            keep_end = True
        elif how == 1:
            offset, width = rng.choice(LOCAL_NUMBERS)
            fields.put_number(entry.local, rng, offset, width)
            entry.keep_lengths |= offset in (26, 28)
        elif how == 2:
            offset, width = rng.choice(CENTRAL_NUMBERS)
            fields.put_number(entry.central, rng, offset, width)
            entry.keep_lengths |= offset in (28, 30, 32)
            entry.keep_offset |= offset == 42
        elif how == 3:  # both records say the same wrong thing
            offset, width = rng.choice(LOCAL_NUMBERS[1:7])
            fields.put_number(entry.local, rng, offset, width)
            entry.central[offset + 2:offset + 2 + width] = entry.local[offset:offset + width]
        elif how == 4:
            entry.name = entry.local_name = fields.name(rng)
        elif how == 5:
            entry.name = fields.name(rng)
        elif how == 6:
            entry.local_name = fields.name(rng)
        elif how == 7:
            field = extra_field(rng, entry.name)
            where = rng.randrange(3)
            if where != 1:
                entry.extra = field + entry.extra if rng.random() < 0.5 else entry.extra + field
            if where != 0:
                entry.local_extra += field
        elif how == 8:
            entries.insert(rng.randrange(len(entries) + 1), entry)
        elif how == 9:
            entries.remove(entry)
        elif how == 10:
            rng.shuffle(entries)
        elif how == 11:  # a link, a folder, a device; what was data is the target
            mode = rng.choice([0o120777, 0o040755, 0o020666, 0o010644, 0o140755, 0o106777, 0o100000, 0o040000])
            entry.central[4:6] = struct.pack("<H", 0x0314)
            struct.pack_into("<I", entry.central, 38, mode << 16)
            if rng.random() < 0.7:
                entry.data = fields.name(rng)
                entry.trailer = b""
                sizes = struct.pack("<III", zlib.crc32(entry.data), len(entry.data), len(entry.data))
                entry.central[16:28] = entry.local[14:26] = sizes
                entry.central[10:12] = entry.local[8:10] = b"\0\0"
                entry.local[6] &= 0xF6
                entry.central[8] &= 0xF6
        else:
            body = bytearray(entry.data)
            if body:
                fields.scramble(body, rng)
            entry.data = bytes(body)
    out = bytearray()
    offsets = []
    written = {}
    for entry in entries:
        if id(entry) not in written or rng.random() < 0.5:
            written[id(entry)] = len(out)
            out += entry.local_bytes()
        offsets.append(written[id(entry)])
    start = len(out)
    for entry, offset in zip(entries, offsets):
        out += entry.central_bytes(offset)
    if not keep_end:
        size = len(out) - start
        end = END.pack(b"PK\5\6", 0, 0, len(entries) & 0xFFFF, len(entries) & 0xFFFF, size, start, len(tail))
    return bytes(out) + bytes(end) + tail
