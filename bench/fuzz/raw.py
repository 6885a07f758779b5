"""What a bad disk, a bad line or a broken copy does: bytes that flip, go, come, or are zeroes."""


def change(data, rng):
    """Returns the changed bytes and the offsets that were touched: (start, end) in the original."""
    out = bytearray(data)
    how = rng.random()
    if not out:
        return bytes(out), (0, 0)
    at = rng.randrange(len(out))
    if how < 0.62:
        out[at] ^= rng.choice([1 << rng.randrange(8), rng.randrange(1, 256)])
        return bytes(out), (at, at + 1)
    if how < 0.74:
        del out[at:]
        return bytes(out), (at, len(data))
    length = min(rng.choice([1, 2, 4, 16, 64, 512]), len(out) - at)
    if how < 0.82:
        out[at:at] = bytes(rng.randrange(256) for _ in range(length))
        return bytes(out), (at, len(data))
    if how < 0.90:
        del out[at:at + length]
        return bytes(out), (at, len(data))
    if how < 0.95:
        out[at:at + length] = bytes(length)
        return bytes(out), (at, at + length)
    for i in range(at, at + length):
        out[i] = rng.randrange(256)
    return bytes(out), (at, at + length)
