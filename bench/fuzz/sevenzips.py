"""7z: the header is changed as bytes, then its place, length and checksum, and those of the start, are put right."""
import struct
import zlib

import fields


def change(data, rng):
    offset, size, _ = struct.unpack_from("<QQI", data, 12)
    packed = bytearray(data[32:32 + offset])
    header = bytearray(data[32 + offset:32 + offset + size])
    for _ in range(rng.choice([1, 1, 2, 4])):
        how = rng.random()
        if how < 0.55 and header:
            fields.scramble(header, rng)
        elif how < 0.75 and header:
            fields.splice(header, rng)
        elif how < 0.85 and header:  # a long number where a short one was
            at = rng.randrange(len(header))
            header[at:at + 1] = b"\xff" + struct.pack("<Q", fields.number(rng, header[at], 64))
        elif how < 0.93:
            wide = "".join(map(chr, fields.name(rng))).encode("utf-16-le")
            at = rng.randrange(len(header) + 1)
            header[at:at + len(wide)] = wide
        elif packed:
            fields.scramble(packed, rng)
    place, length = len(packed), len(header)
    if rng.random() < 0.1:
        place, length = fields.number(rng, place, 64, len(data)), fields.number(rng, length, 64, len(data))
    start = struct.pack("<QQI", place, length, zlib.crc32(header))
    return data[:8] + struct.pack("<I", zlib.crc32(start)) + start + bytes(packed) + bytes(header)
