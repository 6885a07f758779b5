"""RAR 4 and 5: headers one after the other, their CRCs put right. Nothing writes them here, so they are samples."""
import struct
import zlib

import fields

MARK4 = b"Rar!\x1a\x07\x00"
MARK5 = b"Rar!\x1a\x07\x01\x00"


def vint(data, at):
    value = shift = 0
    while at < len(data):
        byte = data[at]
        at += 1
        value |= (byte & 0x7F) << shift
        shift += 7
        if not byte & 0x80 or shift > 63:
            break
    return value, at


def vint_bytes(value):
    out = b""
    while value > 0x7F:
        out += bytes([value & 0x7F | 0x80])
        value >>= 7
    return out + bytes([value])


def blocks4(data):
    """(header, body) of each block."""
    at = len(MARK4)
    while at + 7 <= len(data):
        _, kind, flags, size = struct.unpack_from("<HBHH", data, at)
        if size < 7:
            break
        body = struct.unpack_from("<I", data, at + 7)[0] if flags & 0x8000 or kind in (0x74, 0x7A) else 0
        yield bytearray(data[at:at + size]), data[at + size:at + size + body]
        at += size + body


def change4(data, rng):
    parts = list(blocks4(data))
    for _ in range(rng.choice([1, 1, 2, 3])):
        index = rng.randrange(len(parts))
        head, body = parts[index]
        how = rng.randrange(6)
        if how == 0 and len(head) > 32:
            fields.put_number(head, rng, *rng.choice([(7, 4), (11, 4), (16, 4), (24, 1), (25, 1), (26, 2), (28, 4)]))
        elif how == 1 and len(head) > 32:
            fields.put_name(head, rng, 32, len(head) - 32, b"x")
        elif how == 2:
            fields.put_number(head, rng, *rng.choice([(2, 1), (3, 2)]))
        elif how == 3:
            parts.insert(rng.randrange(len(parts) + 1), parts[index])
        else:
            fields.scramble(head, rng, 2)
    out = MARK4
    for head, body in parts:
        if rng.random() < 0.95 and len(head) >= 7:
            struct.pack_into("<H", head, 5, len(head))
        out += struct.pack("<H", zlib.crc32(head[2:]) & 0xFFFF) + bytes(head[2:]) + body
    return out


def blocks5(data):
    at = len(MARK5)
    while at + 7 <= len(data):
        size, start = vint(data, at + 4)
        end = start + size
        kind, next_ = vint(data, start)
        flags, next_ = vint(data, next_)
        if flags & 1:
            _, next_ = vint(data, next_)
        body = vint(data, next_)[0] if flags & 2 else 0
        yield bytearray(data[start:end]), data[end:end + body]
        at = end + body
        if kind == 5 or size == 0:
            break


def change5(data, rng):
    parts = list(blocks5(data))
    for _ in range(rng.choice([1, 1, 2, 3])):
        index = rng.randrange(len(parts))
        head, body = parts[index]
        how = rng.randrange(6)
        if how < 2 and head:
            fields.scramble(head, rng, 0, rng.choice([4, 12, len(head)]))
        elif how == 2 and head:
            fields.splice(head, rng)
        elif how == 3 and head:
            at = rng.randrange(len(head))
            head[at:at + 1] = vint_bytes(fields.number(rng, head[at], 64))
        elif how == 4:
            name = fields.name(rng)
            if len(head) > len(name) > 0:
                at = rng.randrange(len(head) - len(name) + 1)
                head[at:at + len(name)] = name
        else:
            parts.insert(rng.randrange(len(parts) + 1), (bytearray(head), body))
    out = MARK5
    for head, body in parts:
        sized = vint_bytes(len(head)) + bytes(head)
        out += struct.pack("<I", zlib.crc32(sized)) + sized + body
    return out


def change(data, rng):
    if data.startswith(MARK5):
        return change5(data, rng)
    return change4(data, rng) if data.startswith(MARK4) else data
