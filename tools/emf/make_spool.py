#!/usr/bin/env python3
"""Wraps EMF metafiles into a Windows EMF spool file, one page per metafile.

The layout follows Microsoft's published Enhanced Metafile Spool Format: a header record
(version 0x00010000, its size, the offsets of the document name and the output device name,
both NUL-terminated UTF-16LE), a devmode record (EMRI_DEVMODE) with a DEVMODEW that names the
paper, then for each page a page content record (EMRI_METAFILE_DATA) holding the whole EMF and a
page offset record (EMRI_METAFILE_EXT) that counts back to it, as the Windows spooler writes
them. Every record is padded to a multiple of 4 bytes.

usage: make_spool.py [--paper letter|a4] [--landscape] [--dpi N] [--doc NAME] OUT.spl IN.emf...
"""
import argparse
import struct
import sys

EMRI_METAFILE_DATA = 12
EMRI_METAFILE_EXT = 13
EMRI_DEVMODE = 3

PAPERS = {"letter": 1, "a4": 9, "legal": 5}


def pad4(b: bytes) -> bytes:
    return b + b"\0" * (-len(b) % 4)


def record(kind: int, data: bytes) -> bytes:
    return struct.pack("<II", kind, len(data)) + pad4(data)


def utf16z(s: str) -> bytes:
    return s.encode("utf-16-le") + b"\0\0"


def devmode(paper: int, landscape: bool, dpi: int) -> bytes:
    name = "Quarvel test printer".encode("utf-16-le").ljust(64, b"\0")
    DM_ORIENTATION, DM_PAPERSIZE, DM_PRINTQUALITY, DM_YRESOLUTION = 0x1, 0x2, 0x400, 0x2000
    fields = DM_ORIENTATION | DM_PAPERSIZE | (DM_PRINTQUALITY | DM_YRESOLUTION if dpi else 0)
    size = 220  # sizeof(DEVMODEW)
    body = struct.pack("<HHHHI", 0x0401, 0, size, 0, fields)
    # dmOrientation, dmPaperSize, dmPaperLength, dmPaperWidth, dmScale, dmCopies,
    # dmDefaultSource, dmPrintQuality, dmColor, dmDuplex, dmYResolution, dmTTOption, dmCollate
    body += struct.pack("<hhhhhhhhhhhhh", 2 if landscape else 1, paper, 0, 0, 100, 1, 0, dpi, 2, 1, dpi, 1, 0)
    body += "Letter".encode("utf-16-le").ljust(64, b"\0")  # dmFormName
    dm = name + body
    return dm.ljust(size, b"\0")


def main() -> int:
    ap = argparse.ArgumentParser()
    ap.add_argument("--paper", default="letter", choices=sorted(PAPERS))
    ap.add_argument("--landscape", action="store_true")
    ap.add_argument("--dpi", type=int, default=0)
    ap.add_argument("--doc", default="Quarvel EMF test")
    ap.add_argument("out")
    ap.add_argument("emf", nargs="+")
    a = ap.parse_args()

    doc = utf16z(a.doc)
    port = utf16z("FILE:")
    header_size = 16 + len(doc) + len(port)
    header = struct.pack("<IIII", 0x00010000, header_size, 16, 16 + len(doc)) + doc + port
    out = bytearray(pad4(header))
    out += record(EMRI_DEVMODE, devmode(PAPERS[a.paper], a.landscape, a.dpi))
    for path in a.emf:
        with open(path, "rb") as f:
            emf = f.read()
        if len(emf) < 44 or emf[40:44] != b" EMF":
            print(f"{path}: not an EMF file", file=sys.stderr)
            return 1
        start = len(out)
        out += record(EMRI_METAFILE_DATA, emf)
        ext_at = len(out)
        out += record(EMRI_METAFILE_EXT, struct.pack("<Q", ext_at - start))
    with open(a.out, "wb") as f:
        f.write(out)
    return 0


if __name__ == "__main__":
    sys.exit(main())
