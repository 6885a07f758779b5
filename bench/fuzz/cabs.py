"""Cabinets, stored or MSZIP, made here because no installed program writes them; sums of blocks put right."""
import struct
import zlib

import fields

BLOCK = 32768


def block_sum(data, seed=0):
    value = seed
    for at in range(0, len(data) - 3, 4):
        value ^= struct.unpack_from("<I", data, at)[0]
    rest = data[len(data) // 4 * 4:]
    if rest:
        value ^= int.from_bytes(rest, "big")
    return value


def data_block(packed, plain):
    sizes = struct.pack("<HH", len(packed), plain)
    return struct.pack("<I", block_sum(sizes, block_sum(packed))) + sizes + packed


def archive(files, compressed):
    whole = b"".join(files.values())
    blocks = b""
    count = 0
    for at in range(0, len(whole), BLOCK):
        piece = whole[at:at + BLOCK]
        packed = piece
        if compressed:
            packer = zlib.compressobj(9, zlib.DEFLATED, -15)
            packed = b"CK" + packer.compress(piece) + packer.flush()
        blocks += data_block(packed, len(piece))
        count += 1
    names = b""
    offset = 0
    for name, body in files.items():
        stored = name.replace("/", "\\").encode()
        names += struct.pack("<IIHHHH", len(body), offset, 0, 0x5021, 0, 0xA0) + stored + b"\0"
        offset += len(body)
    first = 36 + 8 + len(names)
    head = struct.pack("<4sIIIIIBBHHHHH", b"MSCF", 0, first + len(blocks), 0, 44, 0, 3, 1, 1, len(files), 0, 1, 0)
    return head + struct.pack("<IHH", first, count, 1 if compressed else 0) + names + blocks


def change(data, rng):
    out = bytearray(data)
    first, count, _ = struct.unpack_from("<IHH", data, 36)
    names = []
    at = 44
    for _ in range(struct.unpack_from("<H", data, 28)[0]):
        end = data.index(b"\0", at + 16)
        names.append((at, end))
        at = end + 1
    for _ in range(rng.choice([1, 1, 2, 3])):
        how = rng.randrange(6)
        if how == 0:
            fields.put_number(out, rng, *rng.choice([(8, 4), (16, 4), (26, 2), (28, 2), (30, 2), (32, 2), (34, 2)]))
        elif how == 1:
            fields.put_number(out, rng, *rng.choice([(36, 4), (40, 2), (42, 2)]))
        elif how == 2:
            start, _ = rng.choice(names)
            fields.put_number(out, rng, *rng.choice([(start, 4), (start + 4, 4), (start + 8, 2), (start + 14, 2)]))
        elif how == 3:
            start, end = rng.choice(names)
            fields.put_name(out, rng, start + 16, end - start - 16, b"x")
        elif how == 4:
            fields.put_number(out, rng, *rng.choice([(first + 4, 2), (first + 6, 2)]))
        else:
            fields.scramble(out, rng, first + 8)
    size = struct.unpack_from("<H", out, first + 4)[0]
    packed = bytes(out[first + 8:first + 8 + size])
    struct.pack_into("<I", out, first, block_sum(bytes(out[first + 4:first + 8]), block_sum(packed)))
    return bytes(out)
