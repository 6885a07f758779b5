"""Property lists of checksums that lie beside a set of parts."""
import re

import fields


def change(data, rng):
    text = data
    for _ in range(rng.choice([1, 1, 2, 3])):
        how = rng.randrange(7)
        if how == 0:
            found = list(re.finditer(rb">([^<>]+)<", text))
            at = rng.choice(found)
            made = rng.choice([fields.name(rng), b"", b"0" * 40, b"%d" % fields.number(rng, 1, 64), at[1].upper(), at[1][:-1]])
            text = text[:at.start(1)] + made.replace(b"<", b"&lt;") + text[at.end(1):]
        elif how == 1:
            found = list(re.finditer(rb"<(\w+)[^>/]*>.*?</\1>", text, re.S))
            at = rng.choice(found)
            text = text[:at.end()] + at[0] * rng.choice([1, 1, 50]) + text[at.end():]
        elif how == 2:
            found = list(re.finditer(rb"<[^>]*>", text))
            at = rng.choice(found)
            text = text[:at.start()] + text[at.end():]
        elif how == 3:
            entity = rng.choice([b"&lt;", b"&#0;", b"&#x110000;", b"&a;", b"&", b"<![CDATA[x]]>", b"<!--", b"<!ENTITY a 'b'>"])
            at = rng.randrange(len(text))
            text = text[:at] + entity + text[at:]
        elif how == 4:
            text = text.replace(b"<plist", b"<array>" * rng.choice([1, 10, 5000]) + b"<plist", 1)
        else:
            changed = bytearray(text)
            fields.scramble(changed, rng)
            text = bytes(changed)
    return text
