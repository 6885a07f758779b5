"""LHA: headers of level 0 to 2, made here because no installed program writes them; sums put right."""
import struct

import fields

EXTENDED = [0x00, 0x01, 0x02, 0x3F, 0x40, 0x41, 0x46, 0x50, 0x51, 0x52, 0x53, 0x54, 0x7D, 0xFF]


def crc16(data):
    value = 0
    for byte in data:
        value ^= byte
        for _ in range(8):
            value = (value >> 1) ^ (0xA001 if value & 1 else 0)
    return value


def header(level, name, body, method=b"-lh0-", extended=(), packed=None, crc=None):
    packed = len(body) if packed is None else packed
    crc = crc16(body) if crc is None else crc
    if level < 2:
        common = method + struct.pack("<IIIBB", packed, len(body), 0x50210000, 0x20, level) + bytes([len(name)]) + name
        common += struct.pack("<H", crc)
        extra = b""
        if level == 1:
            extra = chain(extended)
            common = common[:5] + struct.pack("<I", packed + len(extra)) + common[9:]
            common += b"U" + struct.pack("<H", len(extended[0]) + 2 if extended else 0)
        return bytearray([len(common) & 0xFF, sum(common) & 0xFF]) + common + extra
    records = [b"\x00\0\0", b"\x01" + name.rpartition(b"/")[2]]
    if b"/" in name:
        records.append(b"\x02" + name.rpartition(b"/")[0].replace(b"/", b"\xff") + b"\xff")
    records += list(extended)
    made = method + struct.pack("<IIIBBHB", packed, len(body), 1_600_000_000, 0x20, 2, crc, 0x55)
    made += struct.pack("<H", len(records[0]) + 2) + chain(records)
    whole = bytearray(struct.pack("<H", len(made) + 2) + made)
    return put_sum(whole)


def chain(records):
    out = b""
    for i, record in enumerate(records):
        out += record + struct.pack("<H", len(records[i + 1]) + 2 if i + 1 < len(records) else 0)
    return out


def put_sum(head):
    if head[20] < 2:
        end = 2 + head[0]
        head[1] = sum(head[2:end]) & 0xFF
    elif len(head) > 29 and head[26] == 0:
        head[27:29] = b"\0\0"
        head[27:29] = struct.pack("<H", crc16(head))
    return head


def archive(files, level):
    out = b""
    for name, body in files.items():
        stored = name if level == 2 else name.replace("/", "\\")
        out += bytes(header(level, stored.encode(), body)) + body
    return out + b"\0"


def members(data):
    """Header and body of each."""
    found = []
    at = 0
    while at + 21 < len(data) and data[at]:
        level = data[at + 20]
        packed = struct.unpack_from("<I", data, at + 7)[0]
        size = data[at] + 2 if level < 2 else struct.unpack_from("<H", data, at)[0]
        end = at + size + packed
        found.append((bytearray(data[at:at + size]), data[at + size:end]))
        at = end
    return found


def change(data, rng):
    parts = members(data)
    for _ in range(rng.choice([1, 1, 2, 3])):
        index = rng.randrange(len(parts))
        head, body = parts[index]
        how = rng.randrange(7)
        if how == 0:
            fields.put_number(head, rng, rng.choice([7, 11, 15]), 4)
        elif how == 1:
            head[2:7] = rng.choice([b"-lh0-", b"-lh1-", b"-lh5-", b"-lh6-", b"-lh7-", b"-lhd-", b"-lzs-", b"-lz5-", b"-pm2-", b"-lhx-"])
        elif how == 2:
            fields.scramble(head, rng, 21)
        elif how == 3:
            fields.scramble(head, rng, 0)
        elif how == 4:
            record = bytes([rng.choice(EXTENDED)]) + fields.name(rng, 200)
            parts[index] = (header(2, fields.name(rng, 200), body, extended=[record]), body)
        elif how == 5:
            parts.insert(index, parts[rng.randrange(len(parts))])
        else:
            fields.put_name(head, rng, 22, min(12, max(0, len(head) - 24)))
    return b"".join(bytes(put_sum(bytearray(h)) if len(h) > 21 else h) + b for h, b in parts) + b"\0"
