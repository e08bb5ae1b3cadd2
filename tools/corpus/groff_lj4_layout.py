#!/usr/bin/python3
"""PostScript that draws every glyph of a groff -Tlj4 document where groff placed it.

    groff -Tlj4 -Z ... | groff_lj4_layout.py > layout.ps

groff lays a LaserJet document out with HP's font metrics (the devlj4 font descriptions) and
sends the printer relative moves between words, trusting the printer to advance each glyph by
those metrics. Its PostScript output (-Tps) is laid out with Adobe's metrics instead, so word
positions differ by a pixel or two per word space. This script takes groff's intermediate
output for the LaserJet device and writes PostScript that puts each glyph at the position
groff computed, drawn with Ghostscript's standard fonts: a reference of where every glyph of the
LaserJet job belongs, to be rendered by Ghostscript.
"""
import glob
import os
import re
import sys

GROFF = "/usr/share/groff/current/font/devlj4"
GS_INIT = sorted(glob.glob("/usr/share/ghostscript/*/Resource/Init"))[-1]

# devlj4 font -> PostScript font standing in for it (the fonts the engine stages are the same URW
# families).
PS_FONT = {
    "TR": "Times-Roman", "TB": "Times-Bold", "TI": "Times-Italic", "TBI": "Times-BoldItalic",
    "CR": "Courier", "CB": "Courier-Bold", "CI": "Courier-Oblique", "CBI": "Courier-BoldOblique",
    "UR": "Helvetica", "UB": "Helvetica-Bold", "UI": "Helvetica-Oblique", "UBI": "Helvetica-BoldOblique",
    "AR": "Helvetica", "AB": "Helvetica-Bold", "AI": "Helvetica-Oblique", "ABI": "Helvetica-BoldOblique",
    "S": "Times-Roman", "SYMBOL": "Symbol",
}


def load_font(name):
    """groff name -> (width in font units, Unicode) for one devlj4 font."""
    glyphs = {}
    last = None
    on = False
    for line in open(os.path.join(GROFF, name), errors="replace"):
        line = line.rstrip("\n")
        if line.startswith("charset"):
            on = True
            continue
        if not on or not line or line.startswith("#"):
            continue
        f = line.split("\t")
        if len(f) >= 2 and f[1] == '"' and last:
            glyphs[f[0]] = glyphs[last]
            continue
        if len(f) < 4:
            continue
        width = int(f[1].split(",")[0])
        u = None
        m = re.search(r"U\+([0-9A-F]{4,5})", f[4] if len(f) > 4 else "")
        if m and not 0xE000 <= int(m.group(1), 16) <= 0xF8FF:
            u = int(m.group(1), 16)
        elif re.match(r"u[0-9A-F]{4,5}$", f[0]):
            u = int(f[0][1:], 16)
        elif len(f[0]) == 1:
            u = ord(f[0])
        glyphs[f[0]] = (width, u)
        last = f[0]
    return glyphs


def load_names():
    names = {}
    for mapname in ("text.map", "special.map", "symbol.map", "wingdings.map"):
        for line in open(os.path.join(GROFF, "generate", mapname)):
            f = line.split("#")[0].split()
            if len(f) >= 3 and f[0].lstrip("-").isdigit():
                u = int(f[1], 16)
                if not 0xE000 <= u <= 0xF8FF:
                    for n in f[2:]:
                        names.setdefault(n, u)
    return names


def load_agl():
    agl = {}
    for line in open(os.path.join(GS_INIT, "gs_agl.ps")):
        m = re.match(r"/(\S+) 16#([0-9A-F]{4})\s*$", line)
        if m:
            agl.setdefault(int(m.group(2), 16), m.group(1))
    return agl


def main():
    names = load_names()
    agl = load_agl()
    fonts = {}
    mounted = {}
    pages = []
    out = None
    font = None
    size = 40
    h = v = 0
    unitwidth = 6350
    res = 1200

    def glyph(name, unicode, advance=True):
        # Text ('t') advances by the glyphs' widths; a single glyph ('C', 'c') does not: groff
        # follows it with its own move.
        nonlocal h
        width, u = fonts[font].get(name, (0, None))
        if u is None:
            u = unicode if unicode is not None else names.get(name)
        if u is not None and u != 0x20:
            g = agl.get(u, f"uni{u:04X}")
            out.append(f"{h} {v} /{g} {size} /{PS_FONT.get(font, 'Times-Roman')} G")
        if advance:
            h += (width * size + unitwidth // 2) // unitwidth  # groff rounds each glyph's width

    for raw in sys.stdin:
        line = raw.rstrip("\n").lstrip("w")  # a word-space mark may lead the line's command
        if not line:
            continue
        c = line[0]
        arg = line[1:]
        if c == "x":
            f = arg.split()
            if f[0] == "font":
                mounted[f[1]] = f[2]
                if f[2] not in fonts:
                    fonts[f[2]] = load_font(f[2])
            elif f[0] == "res":
                res = int(f[1])
        elif c == "p":
            out = []
            pages.append(out)
        elif c == "f":
            font = mounted[arg.strip()]
        elif c == "s":
            size = int(arg)
        elif c == "H":
            h = int(arg)
        elif c == "V":
            v = int(arg)
        elif c == "h":
            h += int(arg)
        elif c == "v":
            v += int(arg)
        elif c == "t":
            for ch in arg:
                glyph(ch, ord(ch))
        elif c == "C":
            glyph(arg.strip(), None, False)
        elif c == "c":
            glyph(arg[0], ord(arg[0]), False)
        elif c == "N":
            pass
        elif c == "D":
            d = arg.split()
            if d and d[0] == "l":
                dx, dy = int(d[1]), int(d[2])
                out.append(f"{h} {v} {dx} {dy} L")
                h += dx
                v += dy
        # w, n, m and the rest draw nothing

    scale = 72.0 / res
    print("%!PS-Adobe-3.0")
    print(f"%%Pages: {len(pages)}")
    print("<< /PageSize [612 792] >> setpagedevice")
    # G: x y glyph size(in quarter points) font -> draw; L: x y dx dy -> a rule.
    print(f"/G {{ findfont exch 4 div scalefont setfont 3 1 roll {scale} mul 792 exch sub exch {scale} mul exch"
          " moveto glyphshow } bind def")
    print(f"/L {{ 4 2 roll {scale} mul 792 exch sub exch {scale} mul exch moveto {scale} mul neg exch {scale} mul exch"
          " rlineto 0.5 setlinewidth stroke } bind def")
    for i, page in enumerate(pages):
        print(f"%%Page: {i + 1} {i + 1}")
        print("\n".join(page))
        print("showpage")


main()
