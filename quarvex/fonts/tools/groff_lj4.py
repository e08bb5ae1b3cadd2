"""Reads groff's LaserJet 4 font descriptions (devlj4), which record HP's own metrics.

groff generated them from HP's font metric files: for every glyph of a resident LaserJet font
they give its advance width, the symbol set and code the printer prints it through, and its
HP MSL or Unicode number. The map files beside them pair MSL numbers and groff glyph names with
Unicode.
"""
import os
import re

GROFF = "/usr/share/groff/current/font/devlj4"
# A devlj4 width is in 1/1200 inch for a font of 6350 scaled points (sizescale 4): 1587.5 points.
UNITS_PER_EM = 1587.5 / 72 * 1200


def _private(u):
    return 0xE000 <= u <= 0xF8FF


def groff_char_names():
    """groff glyph name -> Unicode as groff_char(7) lists them (the bracket and brace pieces
    among them, which the map files leave in the private use area)."""
    import glob
    import gzip
    names = {}
    for path in glob.glob("/usr/share/man/man7/groff_char.7*"):
        text = gzip.open(path, "rt", errors="replace").read() if path.endswith(".gz") else open(path).read()
        for m in re.finditer(r"^\\\[([^\]]+)\]\t\\e\[[^\]]+\]\t\S+\tu([0-9A-F]{4,5})\b", text, re.M):
            names.setdefault(m.group(1), int(m.group(2), 16))
    return names


def load_maps():
    """(MSL number -> Unicode, groff glyph name -> Unicode) from the map files and groff_char(7)."""
    msl, names = {}, {}
    for mapname in ("text.map", "special.map", "symbol.map", "wingdings.map"):
        for line in open(os.path.join(GROFF, "generate", mapname)):
            f = line.split("#")[0].split()
            if len(f) >= 2 and f[0].lstrip("-").isdigit():
                u = int(f[1], 16)
                if int(f[0]) >= 0:
                    msl.setdefault(int(f[0]), u)
                if not _private(u):
                    for n in f[2:]:
                        names.setdefault(n, u)
    for n, u in groff_char_names().items():
        names.setdefault(n, u)
    return msl, names


def font_files():
    return sorted(p for p in (os.path.join(GROFF, n) for n in os.listdir(GROFF)) if os.path.isfile(p)
                  and os.path.basename(p) != "DESC")


def read_font(path, maps):
    """The font's header fields and its glyphs as (name, width, unicode or None, set id, code)."""
    msl, names = maps
    header, glyphs = {}, []
    on = False
    last = None
    for line in open(path, errors="replace"):
        line = line.rstrip("\n")
        if line.startswith("charset"):
            on = True
            continue
        if not on:
            f = line.split()
            if len(f) >= 2:
                header[f[0]] = f[1]
            continue
        f = line.split("\t")
        if len(f) >= 2 and f[1] == '"' and last:
            glyphs.append((f[0],) + last[1:])  # another name for the glyph above
            continue
        if len(f) < 4 or not f[3].isdigit():
            continue
        comment = f[4] if len(f) > 4 else ""
        u = None
        m = re.search(r"U\+([0-9A-F]{4,5})", comment)
        if m and not _private(int(m.group(1), 16)):
            u = int(m.group(1), 16)
        elif re.match(r"u[0-9A-F]{4,5}$", f[0]):
            u = int(f[0][1:], 16)
        elif f[0] in names:
            u = names[f[0]]
        else:
            m = re.search(r"MSL\s+(\d+)", comment)
            if m and m.group(1).isdigit():
                u = msl.get(int(m.group(1)))
            if u is None and len(f[0]) == 1:
                u = ord(f[0])
        if u is not None and _private(u):
            u = None
        last = (f[0], int(f[1].split(",")[0]), u, int(f[3]) // 256, int(f[3]) % 256)
        glyphs.append(last)
    return header, glyphs
