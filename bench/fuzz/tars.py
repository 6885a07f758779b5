"""tar: headers of 512 bytes, their sums put right."""
import fields

NUMBERS = [(100, 8), (108, 8), (116, 8), (124, 12), (136, 12), (329, 8), (337, 8)]
TYPES = b"01234567LKxgSDVMNAX\0Z"
# Records that programs of their own ideas have put into extended headers.
EXTENDED = [b"path", b"linkpath", b"size", b"mtime", b"hdrcharset", b"GNU.sparse.major", b"GNU.sparse.minor", b"GNU.sparse.map",
            b"GNU.sparse.name", b"GNU.sparse.realsize", b"GNU.sparse.numblocks", b"SCHILY.xattr.user.x", b"SCHILY.realsize"]


def blocks(data):
    """The members: offsets of header and end."""
    found = []
    at = 0
    while at + 512 <= len(data) and data[at]:
        size = data[at + 124:at + 136]
        length = int(size.strip(b" \0") or b"0", 8) if size[0] < 0x80 else 0
        end = at + 512 + (length + 511) // 512 * 512
        found.append((at, end))
        at = end
    return found


def put_sum(member):
    member[148:156] = b" " * 8
    member[148:156] = b"%06o\0 " % sum(member[:512])


def header(name, size, kind):
    made = bytearray(512)
    made[:100] = name[:100].ljust(100, b"\0")
    made[100:108], made[108:116], made[116:124] = b"0000644\0", b"0000000\0", b"0000000\0"
    made[124:136] = b"%011o\0" % size
    made[136:148] = b"14000000000\0"
    made[156] = kind
    made[257:265] = b"ustar\x0000"
    return made


def extended(rng):
    lines = b""
    for _ in range(rng.randrange(1, 4)):
        key = rng.choice(EXTENDED)
        value = fields.name(rng) if key in (b"path", b"linkpath", b"GNU.sparse.name") else \
            rng.choice([b"%d" % fields.number(rng, 100, 64), b"1", b"0", b"-5", b"1.0", b"0,10,20,30", b"BINARY", b""])
        line = b" %s=%s\n" % (key, value)
        length = len(line) + len(b"%d" % len(line))
        length += len(b"%d" % length) - len(b"%d" % len(line))
        lines += b"%d" % (length if rng.random() < 0.85 else fields.number(rng, length, 20)) + line
    made = header(b"PaxHeaders/x", len(lines), rng.choice(b"xxxgLK"))
    return made + lines.ljust((len(lines) + 511) // 512 * 512, b"\0")


def change(data, rng):
    found = blocks(data)
    members = [bytearray(data[start:end]) for start, end in found] or [header(b"x", 0, 0x30)]
    tail = data[found[-1][1] if found else 0:]
    for _ in range(rng.choice([1, 1, 2, 3])):
        at = rng.randrange(len(members))
        member = members[at]
        how = rng.randrange(9)
        if how < 3:
            fields.put_text_number(member, rng, *rng.choice(NUMBERS), 8)
        elif how == 3:
            fields.put_name(member, rng, 0, 100)
        elif how == 4:
            member[156] = rng.choice(TYPES)
            if rng.random() < 0.7:
                fields.put_name(member, rng, 157, 100)
        elif how == 5:
            fields.scramble(member, rng, 0, 512)
        elif how == 6:
            members.insert(rng.randrange(len(members) + 1), bytearray(rng.choice(members)))
        elif how == 7 and len(members) > 1:
            members.pop(at)
        else:
            members.insert(at, extended(rng))
    for member in members:
        put_sum(member)
    return b"".join(bytes(m) for m in members) + tail
