"""ARJ: each header carries its length and a CRC-32, put right after a change."""
import struct
import zlib

import fields


def headers(data):
    """(start, end) of the basic headers, without mark, length and CRC."""
    found = []
    at = 0
    while data[at:at + 2] == b"\x60\xea":
        size = struct.unpack_from("<H", data, at + 2)[0]
        if size == 0:
            break
        start, end = at + 4, at + 4 + size
        found.append((start, end))
        packed = struct.unpack_from("<I", data, start + 12)[0] if len(found) > 1 else 0
        at = end + 4
        extended = struct.unpack_from("<H", data, at)[0]
        at += 2 + (extended + 4 if extended else 0) + packed
    return found


def change(data, rng):
    out = bytearray(data)
    for _ in range(rng.choice([1, 1, 2, 3])):
        start, end = rng.choice(headers(data))
        how = rng.randrange(4)
        if how == 0:
            fields.put_number(out, rng, start + rng.choice([8, 12, 16, 20, 24]), 4)
        elif how == 1:
            fields.put_number(out, rng, start + rng.choice([0, 1, 2, 3, 4, 5, 6, 7]), 1)
        elif how == 2:
            fields.put_name(out, rng, start + data[start], max(0, end - start - data[start] - 2))
        else:
            fields.scramble(out, rng, start, end)
        struct.pack_into("<I", out, end, zlib.crc32(out[start:end]))
    return bytes(out)
