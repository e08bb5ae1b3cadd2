#!/usr/bin/env python3
"""Writes the source documents of the EMF test corpus into a folder: three LibreOffice Draw
pages (flat ODF) and one SVG drawing for Inkscape.

  emf_fonts.fodg    text in several fonts, sizes, weights, slants and colours, underlined text
  emf_table.fodg    a table, a colour image, an ellipse, a polygon, a dashed line, a curve
  emf_rotated.fodg  text turned by eight angles, a filled rectangle
  emf_inkscape.svg  shapes, strokes, text and turned text as Inkscape draws them

usage: documents.py OUTDIR
"""
import base64
import math
import os
import struct
import sys
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))


def png(w: int, h: int) -> bytes:
    raw = b"".join(b"\0" + b"".join(bytes([x * 255 // w, y * 255 // h, 255 - x * 255 // w]) for x in range(w))
                   for y in range(h))

    def chunk(t: bytes, d: bytes) -> bytes:
        return struct.pack(">I", len(d)) + t + d + struct.pack(">I", zlib.crc32(t + d) & 0xFFFFFFFF)

    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", w, h, 8, 2, 0, 0, 0)) +
            chunk(b"IDAT", zlib.compress(raw)) + chunk(b"IEND", b""))


def text_box(x, y, style, text, para="P1", width=17.5):
    return (f'<draw:frame draw:style-name="gr0" svg:x="{x}cm" svg:y="{y}cm" svg:width="{width}cm" svg:height="0.8cm">'
            f'<draw:text-box><text:p text:style-name="{para}"><text:span text:style-name="{style}">{text}</text:span>'
            f'</text:p></draw:text-box></draw:frame>\n')


def main() -> int:
    out = sys.argv[1]
    os.makedirs(out, exist_ok=True)
    head = open(os.path.join(HERE, "fodg_head.xml")).read()
    tail = "</draw:page></office:drawing></office:body></office:document>\n"

    b = text_box(2, 1.5, "Tbig", "Quarvel EMF fonts page")
    lines = [("Tsans", "Liberation Sans 14 pt: The quick brown fox jumps over the lazy dog."),
             ("Tarial", "Arial 12 pt: Pack my box with five dozen liquor jugs 0123456789."),
             ("Tserif", "Liberation Serif 12 pt: Sphinx of black quartz, judge my vow."),
             ("Ttimes", "Times New Roman 16 pt: How vexingly quick daft zebras jump!"),
             ("Tmono", "Liberation Mono 10 pt: for (int i = 0; i &lt; 10; ++i) sum += i;"),
             ("Tcourier", "Courier New 11 pt: The five boxing wizards jump quickly."),
             ("Tbold", "Bold red sans 18 pt"),
             ("Titalic", "Italic blue serif 14 pt, with accents: café, naïve, Zürich"),
             ("Tbi", "Bold italic green sans 12 pt"),
             ("Tunder", "Underlined sans text 12 pt")]
    for i, (style, text) in enumerate(lines):
        b += text_box(2, 3.5 + i * 1.1, style, text)
    for i in range(10):
        b += text_box(2, 15 + i * 0.9, "Tserif" if i % 2 else "Tarial",
                      f"Line {i + 1}: Lorem ipsum dolor sit amet, consectetur adipiscing elit, sed do eiusmod.")
    open(os.path.join(out, "emf_fonts.fodg"), "w").write(head + b + tail)

    b = text_box(2, 1.5, "Tbig", "Table, image and shapes")
    cols = [3, 4, 3.5]
    rows = ["Item|Quantity|Price", "Apples|12|3.40", "Pears|7|2.15", "Plums|30|5.00", "Total|49|10.55"]
    for r, row in enumerate(rows):
        x = 2
        for c, cell in enumerate(row.split("|")):
            style = "gr2" if r == 0 else "gr1"
            b += (f'<draw:rect draw:style-name="{style}" svg:x="{x}cm" svg:y="{4 + r}cm" svg:width="{cols[c]}cm" '
                  f'svg:height="1cm"><text:p text:style-name="P2"><text:span text:style-name="Tarial">{cell}</text:span>'
                  f'</text:p></draw:rect>\n')
            x += cols[c]
    data = base64.b64encode(png(24, 12)).decode()
    b += (f'<draw:frame draw:style-name="gr0" svg:x="2cm" svg:y="10.5cm" svg:width="6cm" svg:height="3cm"><draw:image>'
          f'<office:binary-data>{data}</office:binary-data></draw:image></draw:frame>\n')
    b += '<draw:ellipse draw:style-name="gr3" svg:x="12cm" svg:y="10.5cm" svg:width="6cm" svg:height="4cm"/>\n'
    b += ('<draw:polygon draw:style-name="gr5" svg:x="2cm" svg:y="16cm" svg:width="6cm" svg:height="5cm" '
          'svg:viewBox="0 0 6000 5000" draw:points="0,5000 3000,0 6000,5000 3000,3500"/>\n')
    b += '<draw:line draw:style-name="gr4" svg:x1="10cm" svg:y1="16cm" svg:x2="19cm" svg:y2="21cm"/>\n'
    b += ('<draw:path draw:style-name="gr3" svg:x="10cm" svg:y="22cm" svg:width="8cm" svg:height="4cm" '
          'svg:viewBox="0 0 8000 4000" svg:d="M0 4000 C 2000 0 6000 0 8000 4000 Z"/>\n')
    open(os.path.join(out, "emf_table.fodg"), "w").write(head + b + tail)

    b = text_box(2, 1.5, "Tbig", "Rotated text")
    styles = ["Tsans", "Tserif", "Tbold", "Titalic"]
    for i, angle in enumerate([0, 15, 30, 45, 90, 180, 270, 330]):
        rad = math.radians(angle)
        b += (f'<draw:frame draw:style-name="gr0" svg:width="7cm" svg:height="0.8cm" '
              f'draw:transform="rotate({rad:.6f}) translate({6 + (i % 2) * 8}cm {6 + (i // 2) * 5}cm)"><draw:text-box>'
              f'<text:p text:style-name="P1"><text:span text:style-name="{styles[i % 4]}">Rotated {angle} degrees</text:span>'
              f'</text:p></draw:text-box></draw:frame>\n')
    b += '<draw:rect draw:style-name="gr5" svg:x="3cm" svg:y="25cm" svg:width="15cm" svg:height="1.5cm"/>\n'
    open(os.path.join(out, "emf_rotated.fodg"), "w").write(head + b + tail)

    svg = """<?xml version="1.0" encoding="UTF-8"?>
<svg xmlns="http://www.w3.org/2000/svg" width="215.9mm" height="279.4mm" viewBox="0 0 2159 2794">
 <rect x="0" y="0" width="2159" height="2794" fill="none"/>
 <text x="200" y="250" font-family="Liberation Serif" font-size="90" font-weight="bold">Inkscape EMF export</text>
 <text x="200" y="400" font-family="Liberation Sans" font-size="50">Sans serif text drawn by Inkscape, 50 units.</text>
 <text x="200" y="500" font-family="Liberation Mono" font-size="45" fill="#a00000">Monospaced red text 0123456789</text>
 <rect x="200" y="650" width="700" height="400" fill="#ffd0a0" stroke="#000000" stroke-width="12"/>
 <circle cx="1400" cy="850" r="220" fill="#2060c0" stroke="#002000" stroke-width="20"/>
 <path d="M 200 1300 C 500 1100 800 1500 1100 1300 S 1700 1100 1900 1400" fill="none" stroke="#008000" stroke-width="25"/>
 <polyline points="200,1700 500,1550 800,1750 1100,1550 1400,1750" fill="none" stroke="#000000" stroke-width="8" stroke-dasharray="40,20"/>
 <text x="600" y="2300" font-family="Liberation Sans" font-size="70" transform="rotate(-30 600 2300)">Turned text, 30 degrees</text>
 <g transform="translate(1500 1900) scale(1.5)"><rect x="0" y="0" width="300" height="200" fill="#206020"/><text x="20" y="120" font-family="Liberation Serif" font-size="50" fill="#ffffff">Scaled</text></g>
</svg>
"""
    open(os.path.join(out, "emf_inkscape.svg"), "w").write(svg)
    return 0


if __name__ == "__main__":
    sys.exit(main())
