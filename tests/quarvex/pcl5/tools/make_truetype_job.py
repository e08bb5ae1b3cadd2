#!/usr/bin/python3
"""Writes a PCL 5 job that downloads a TrueType font (format 15 header, class 15 characters)
made from a few glyphs of Liberation Sans, selects it by ID and prints "HELLO" at 24 point.

    /usr/bin/python3 make_truetype_job.py > ../data/truetype-softfont.pcl
"""
import struct
import sys

SOURCE = "/usr/share/fonts/truetype/liberation/LiberationSans-Regular.ttf"
TEXT = "HELO"


def tables(font):
    count = struct.unpack(">H", font[4:6])[0]
    out = {}
    for i in range(count):
        tag, _, off, length = struct.unpack(">4sIII", font[12 + 16 * i:28 + 16 * i])
        out[tag.decode("latin-1")] = font[off:off + length]
    return out


def glyph_index(cmap, ch):
    # Format 4 subtable of the Windows Unicode map.
    n = struct.unpack(">H", cmap[2:4])[0]
    for i in range(n):
        pid, eid, off = struct.unpack(">HHI", cmap[4 + 8 * i:12 + 8 * i])
        if pid == 3 and eid == 1:
            sub = cmap[off:]
            segx2 = struct.unpack(">H", sub[6:8])[0]
            ends = struct.unpack(">%dH" % (segx2 // 2), sub[14:14 + segx2])
            starts = struct.unpack(">%dH" % (segx2 // 2), sub[16 + segx2:16 + 2 * segx2])
            deltas = struct.unpack(">%dh" % (segx2 // 2), sub[16 + 2 * segx2:16 + 3 * segx2])
            ro_at = 16 + 3 * segx2
            ros = struct.unpack(">%dH" % (segx2 // 2), sub[ro_at:ro_at + segx2])
            c = ord(ch)
            for k, end in enumerate(ends):
                if c <= end and c >= starts[k]:
                    if ros[k] == 0:
                        return (c + deltas[k]) & 0xFFFF
                    at = ro_at + 2 * k + ros[k] + 2 * (c - starts[k])
                    g = struct.unpack(">H", sub[at:at + 2])[0]
                    return (g + deltas[k]) & 0xFFFF if g else 0
    raise SystemExit("no glyph for " + ch)


def main():
    font = open(SOURCE, "rb").read()
    t = tables(font)
    long_loca = struct.unpack(">h", t["head"][50:52])[0] == 1
    loca = t["loca"]
    n_hmetrics = struct.unpack(">H", t["hhea"][34:36])[0]

    def outline(g):
        if long_loca:
            a, b = struct.unpack(">II", loca[4 * g:4 * g + 8])
        else:
            a, b = [2 * x for x in struct.unpack(">HH", loca[2 * g:2 * g + 4])]
        return t["glyf"][a:b]

    def hmetric(g):
        k = min(g, n_hmetrics - 1)
        adv = struct.unpack(">H", t["hmtx"][4 * k:4 * k + 2])[0]
        lsb = struct.unpack(">h", t["hmtx"][4 * k + 2:4 * k + 4])[0] if g < n_hmetrics else 0
        return adv, lsb

    # New glyph indices: 0 is .notdef, then the characters of TEXT and the space.
    chars = list(TEXT) + [" "]
    old = [0] + [glyph_index(t["cmap"], c) for c in chars]
    hmtx = b"".join(struct.pack(">Hh", *hmetric(g)) for g in old)
    hhea = bytearray(t["hhea"])
    hhea[34:36] = struct.pack(">H", len(old))
    maxp = bytearray(t["maxp"])
    maxp[4:6] = struct.pack(">H", len(old))
    gt_tables = {"head": t["head"], "hhea": bytes(hhea), "hmtx": hmtx, "maxp": bytes(maxp), "gdir": b""}
    tags = sorted(gt_tables)
    gt = bytearray(struct.pack(">IHHHH", 0x00010000, len(tags), 64, 2, len(tags) * 16 - 64))
    offset = 12 + 16 * len(tags)
    body = bytearray()
    for tag in tags:
        data = gt_tables[tag]
        gt += struct.pack(">4sIII", tag.encode(), 0, offset + len(body), len(data))
        body += data + b"\0" * (-len(data) % 4)
    gt += body

    header = bytearray(72)
    header[0:2] = struct.pack(">H", 72)
    header[2] = 15  # TrueType
    header[3] = 1   # 8-bit codes
    header[13] = 1  # proportional
    header[14:16] = struct.pack(">H", 8 * 32 + ord("U") - 64)
    header[64:66] = struct.pack(">H", struct.unpack(">H", t["head"][18:20])[0])
    header[70] = 1
    segments = struct.pack(">HH", ord("G") << 8 | ord("T"), len(gt)) + gt + struct.pack(">HH", 0xFFFF, 0)
    header += segments

    out = bytearray(b"\x1bE\x1b*c9D")
    out += b"\x1b)s%dW" % len(header) + header
    for new, (ch, g) in enumerate(zip(chars, old[1:]), start=1):
        data = outline(g)
        body = struct.pack(">BBBBHH", 15, 0, 2, 15, len(data) + 4, new) + data
        out += b"\x1b*c%dE" % ord(ch) + b"\x1b(s%dW" % len(body) + body
    out += b"\x1b(9X\x1b(s24V" + b"HELLO" + b"\x1bE"
    sys.stdout.buffer.write(bytes(out))


main()
