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

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "quarvex", "fonts", "tools"))
import groff_lj4  # noqa: E402

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


def load_font(name, maps):
    """groff glyph name -> (width in font units, Unicode or None) for one devlj4 font."""
    glyphs = {}
    for gname, width, u, _, _ in groff_lj4.read_font(os.path.join(groff_lj4.GROFF, name), maps)[1]:
        glyphs.setdefault(gname, (width, u))
    return glyphs


def load_agl():
    agl = {}
    for line in open(os.path.join(GS_INIT, "gs_agl.ps")):
        m = re.match(r"/(\S+) 16#([0-9A-F]{4})\s*$", line)
        if m:
            agl.setdefault(int(m.group(2), 16), m.group(1))
    return agl


def main():
    maps = groff_lj4.load_maps()
    names = maps[1]
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
                    fonts[f[2]] = load_font(f[2], maps)
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
            if d and d[0] in ("l", "R"):
                # A line, or a rule (a filled box from here to the corner): both end at the corner.
                dx, dy = int(d[1]), int(d[2])
                out.append(f"{h} {v} {dx} {dy} {'L' if d[0] == 'l' else 'R'}")
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
    print(f"/R {{ 4 2 roll {scale} mul 792 exch sub exch {scale} mul exch moveto {scale} mul neg exch {scale} mul exch"
          " exch dup 0 rlineto exch dup 0 exch rlineto pop neg 0 rlineto closepath fill } bind def")
    for i, page in enumerate(pages):
        print(f"%%Page: {i + 1} {i + 1}")
        print("\n".join(page))
        print("showpage")


main()
