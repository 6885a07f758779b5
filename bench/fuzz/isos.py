"""ISO 9660: volume descriptors and directory records; the format has no checksums."""
import fields

SECTOR = 2048


def records(data):
    """Offsets of directory records: what looks like one, in the sectors behind the descriptors."""
    found = []
    for sector in range(18 * SECTOR, len(data), SECTOR):
        at = sector
        while at < min(sector + SECTOR, len(data)) and 33 < data[at] <= 254:
            length = data[at + 2:at + 6]
            if length != data[at + 6:at + 10][::-1]:
                break
            found.append(at)
            at += data[at]
    return found


def change(data, rng):
    out = bytearray(data)
    found = records(data)
    for _ in range(rng.choice([1, 1, 2, 4])):
        how = rng.randrange(8)
        if how == 0 or not found:
            descriptor = rng.choice([16, 17, 18]) * SECTOR
            fields.put_number(out, rng, descriptor + rng.choice([80, 120, 124, 128, 132, 140, 148, 158, 166]), 4)
            continue
        at = rng.choice(found)
        length = data[at]
        if how in (1, 2):
            offset = rng.choice([2, 10])
            fields.put_number(out, rng, at + offset, 4)
            out[at + offset + 4:at + offset + 8] = out[at + offset:at + offset + 4][::-1]
        elif how == 3:
            fields.put_number(out, rng, at + rng.choice([0, 1, 25, 26, 27, 32]), 1)
        elif how == 4:
            fields.put_name(out, rng, at + 33, data[at + 32])
        elif how == 5 and length > 40:  # the records of long names, modes and links that stand behind the name
            fields.scramble(out, rng, at + 33 + data[at + 32], at + length)
        elif how == 6:
            other = rng.choice(found)
            size = min(length, data[other])
            out[at + 1:at + size] = data[other + 1:other + size]
        else:
            starts = [i for i in (data.find(mark, at, at + 4 * SECTOR) for mark in (b"NM", b"SL", b"CE", b"PX", b"RR", b"TF")) if i >= 0]
            if starts:
                start = rng.choice(starts)
                if data[start:start + 2] == b"CE" and rng.random() < 0.7:
                    fields.put_number(out, rng, start + rng.choice([4, 12, 20]), 4)
                else:
                    fields.scramble(out, rng, start + 2, start + max(3, data[start + 2]))
    return bytes(out)
