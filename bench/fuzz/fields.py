"""Values that break parsers, put into numbers and names of a header."""
import struct

HOSTILE_NAMES = [
    b"../escape", b"../../escape", b"a/../../escape", b"/dev/shm/corvane-fuzz-escape", b"..", b".", b"", b"/", b"./b.txt",
    b"b.txt", b"folder", b"folder/a.txt", b"folder/a.txt/deeper", b"C:\\escape", b"..\\escape", b"nul\0name", b"-rf",
    b"--to-command=touch escape", b".corvane-work", b"new\nline", b"\x1b[2J\x1b]0;x\x07", b"\xff\xfe.bin",
    b"\xe2\x80\xaetxt.exe", b"long" * 64, b"deep/" * 900 + b"x", b"a//b", b"trailing/", b"trailing ", b"~", b"$(touch escape)",
    b"*", b"b.tx?", b"link/x", b"link",
]


def name(rng, limit=None):
    chosen = rng.choice(HOSTILE_NAMES)
    return chosen if limit is None else chosen[:limit]


def number(rng, old, bits, size=0):
    """Another value for a number of so many bits; `size` is that of the archive."""
    top = (1 << bits) - 1
    choices = [0, 1, 2, 3, 4, 7, 8, 15, 16, 127, 128, 255, 256, 511, 512, 513, 4095, 4096, 65535, 65536, top, top - 1,
               top >> 1, (top >> 1) + 1, old + 1, old - 1, old * 2, old // 2, old + 2, old ^ (1 << rng.randrange(bits)),
               size, size - 1, size + 1, size // 2, (1 << 31) - 1, 1 << 31, (1 << 32) - 1, 1 << 32, 1 << 40, (1 << 63) - 1,
               -size & top, -old & top, rng.getrandbits(bits), rng.getrandbits(bits), rng.randrange(256)]
    return rng.choice(choices) & top


def put_number(data, rng, offset, width, order="little"):
    old = int.from_bytes(data[offset:offset + width], order)
    data[offset:offset + width] = number(rng, old, 8 * width, len(data)).to_bytes(width, order)


def put_text_number(data, rng, offset, width, base):
    """A number in digits, as in the headers of tar and cpio; sometimes no number at all."""
    if rng.random() < 0.15:
        text = rng.choice([b"-1", b" " * width, b"\xff" * width, b"\x80" + b"\xff" * (width - 1), b"zzz", b"0x10", b"9" * width])
    else:
        try:
            old = int(bytes(data[offset:offset + width]).strip(b" \0") or b"0", base)
        except ValueError:
            old = 0
        value = number(rng, old, 64 if rng.random() < 0.2 else 20, len(data))
        text = (b"%o" if base == 8 else b"%x") % value
        text = text.rjust(width - (1 if base == 8 else 0), b"0")
    text = text[:width].ljust(width, b"\0" if base == 8 else b"0")
    data[offset:offset + width] = text


def put_name(data, rng, offset, width, fill=b"\0"):
    data[offset:offset + width] = name(rng, width).ljust(width, fill)


def scramble(data, rng, start=0, end=None):
    """A few changes without a plan, the length stays."""
    end = len(data) if end is None else min(end, len(data))
    if end <= start:
        return
    for _ in range(rng.choice([1, 1, 2, 3, 8])):
        at = rng.randrange(start, end)
        how = rng.randrange(4)
        if how == 0:
            data[at] ^= 1 << rng.randrange(8)
        elif how == 1:
            data[at] = rng.choice([0, 1, 0x7F, 0x80, 0xFF, rng.randrange(256)])
        elif how == 2:
            width = min(rng.choice([2, 4, 8]), end - at)
            put_number(data, rng, at, width)
        else:
            length = min(rng.randrange(1, 16), end - at)
            source = rng.randrange(start, end)
            piece = data[source:min(source + length, end)]
            data[at:at + len(piece)] = piece[:end - at]


def splice(data, rng, start=0):
    """Bytes go, come or come again, so that everything behind them moves."""
    at = rng.randrange(start, len(data) + 1)
    length = rng.choice([1, 1, 2, 4, 8, rng.randrange(1, 64)])
    how = rng.randrange(3)
    if how == 0:
        del data[at:at + length]
    elif how == 1:
        data[at:at] = bytes(rng.randrange(256) for _ in range(length))
    else:
        data[at:at] = data[at:at + length]


def pack(layout, *values):
    return struct.pack("<" + layout, *values)
