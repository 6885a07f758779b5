"""cpio: numbers in digits (odc, newc, crc) or in words (bin); the sum of the crc format is put right."""
import fields

LAYOUTS = {
    b"070707": (76, [(6, 6), (12, 6), (18, 6), (24, 6), (30, 6), (36, 6), (42, 6), (48, 11), (59, 6), (65, 11)], 8),
    b"070701": (110, [(at, 8) for at in range(6, 110, 8)], 16),
    b"070702": (110, [(at, 8) for at in range(6, 110, 8)], 16),
}


def change(data, rng):
    out = bytearray(data)
    magic = bytes(data[:6])
    if magic not in LAYOUTS:
        starts = [i for i in range(0, len(data) - 26, 2) if data[i:i + 2] == b"\xc7\x71"]
        at = rng.choice(starts)
        fields.put_number(out, rng, at + 2 * rng.randrange(1, 13), 2)
        return bytes(out)
    size, numbers, base = LAYOUTS[magic]
    starts = []
    at = data.find(magic)
    while at >= 0:
        starts.append(at)
        at = data.find(magic, at + 6)
    for _ in range(rng.choice([1, 1, 2, 3])):
        at = rng.choice(starts)
        how = rng.randrange(6)
        if how < 3:
            offset, width = rng.choice(numbers)
            fields.put_text_number(out, rng, at + offset, width, base)
        elif how == 3:
            fields.put_name(out, rng, at + size, min(rng.randrange(1, 24), len(out) - at - size))
        elif how == 4:
            fields.scramble(out, rng, at, at + size + 16)
        else:
            mode = rng.choice([0o120777, 0o040755, 0o020666, 0o010644, 0o104755])
            where, digits = (18, b"%06o" % mode) if base == 8 else (14, b"%08x" % mode)
            out[at + where:at + where + len(digits)] = digits
    return bytes(out)
