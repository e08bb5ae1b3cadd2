#!/usr/bin/env python3
"""Writes an EMF spool file of text given as glyph numbers in an embedded TrueType font: one
engine font record with the font file, then PAGES Letter pages of 70 lines of 90 glyphs each
(Liberation Sans Narrow's letters, 4 mm em, with their advances), the way Windows programs print.

    bench/emf/glyph_text.py FONT.ttf OUT.spl [PAGES]

It measures the cost of drawing embedded-font glyphs, e.g. with callgrind:

    valgrind --tool=callgrind build/stage/bin/quarvex -r 300x300 -b 1 -i OUT.spl -o out.tif
"""
import struct
import sys


def spool_record(kind, body):
    body += b"\0" * (-len(body) % 4)
    return struct.pack("<II", kind, len(body)) + body


def emf_record(kind, body):
    body += b"\0" * (-len(body) % 4)
    return struct.pack("<II", kind, len(body) + 8) + body


def page():
    width, height = 216 * 4, 279 * 4  # reference pixels, four a millimetre
    header = bytearray(108)
    struct.pack_into("<II", header, 0, 1, 108)
    struct.pack_into("<iiii", header, 8, 0, 0, width - 1, height - 1)
    struct.pack_into("<iiii", header, 24, 0, 0, 21599, 27899)
    struct.pack_into("<III", header, 40, 0x464D4520, 0x10000, 0)
    struct.pack_into("<ii", header, 72, width, height)
    struct.pack_into("<ii", header, 80, 216, 279)
    face = "Liberation Sans Narrow".encode("utf-16-le")
    logfont = struct.pack("<iiiiii", -16, 0, 0, 0, 400, 0) + bytes(4) + (face + bytes(64))[:64]
    body = emf_record(82, struct.pack("<I", 1) + logfont)  # EXTCREATEFONTINDIRECTW
    body += emf_record(37, struct.pack("<I", 1))  # SELECTOBJECT
    body += emf_record(22, struct.pack("<I", 24))  # SETTEXTALIGN: baseline
    for line in range(70):
        count = 90
        glyphs = b"".join(struct.pack("<H", 36 + (line * 7 + i * 5) % 52) for i in range(count))
        advances = struct.pack("<i", 8) * count
        text_at = 8 + 16 + 12 + 24  # head, bounds, mode and scales, EmrText without a rectangle
        emr_text = struct.pack("<iiIIIi", 40, 40 + line * 15, count, text_at, 0x110, text_at + len(glyphs))
        body += emf_record(84, bytes(16) + struct.pack("<Iff", 1, 0, 0) + emr_text + glyphs + advances)
    emf = bytearray(bytes(header) + body + emf_record(14, struct.pack("<III", 0, 16, 20)))
    struct.pack_into("<I", emf, 48, len(emf))
    return bytes(emf)


def main():
    font = open(sys.argv[1], "rb").read()
    pages = int(sys.argv[3]) if len(sys.argv) > 3 else 3
    out = struct.pack("<IIII", 0x10000, 20, 16, 0) + "D\0".encode("utf-16-le")
    out += spool_record(2, struct.pack("<III", 0, 1, len(font)) + bytes(4) + font)  # EMRI_ENGINE_FONT
    emf = page()
    for _ in range(pages):
        out += spool_record(12, emf)  # EMRI_METAFILE_DATA
        out += spool_record(13, struct.pack("<Q", len(emf) + 8))  # EMRI_METAFILE_EXT
    open(sys.argv[2], "wb").write(out)


if __name__ == "__main__":
    main()
