#!/usr/bin/python3
"""Writes symbol_set_tables.inc: code -> Unicode tables for the PCL symbol sets the engine knows.

Run from this folder:  /usr/bin/python3 gen_symbol_sets.py > ../symbol_set_tables.inc
(needs Debian's groff-base/groff and ghostscript for their data files; the output is committed).

Where each table comes from:
- Sets that are the same as a published code page take Unicode's mapping of that code page
  (Python's codecs carry those tables): Roman-8, PC-8, PC-850, PC-852, PC-Turkish, PC-775, the
  ISO 8859 and Windows sets, ASCII, PC-8 D/N (from the Nordic PC code page, see below), MC Text
  (Macintosh).
- PS Text and PS Math are Adobe's StandardEncoding and Symbol encoding; the encodings and the
  Adobe Glyph List are read from Ghostscript's resource files.
- HP's own code assignments as its LaserJet font metrics record them: groff's LaserJet 4 font
  descriptions (devlj4) name, for every glyph, the symbol set and code it prints through, and
  its MSL or Unicode number. Those pairs fill the sets that have no public code page (Desktop,
  Math-8, Wingdings, MS Publishing, Pi Font, Ventura International) and check every other table:
  a disagreement stops the script.
- Wingdings codes that HP's metrics leave empty take the character Unicode 7.0 gave the font's
  symbol (wingdings_unicode.txt beside this script).
Codes the sources leave undefined map to 0: the printer prints nothing for them.
"""

import glob
import os
import re
import sys

import groff_lj4

GS_INIT = sorted(glob.glob("/usr/share/ghostscript/*/Resource/Init"))[-1]

PC_GRAPHICS_LOW = "\u0000\u263A\u263B\u2665\u2666\u2663\u2660\u2022\u25D8\u25CB\u25D9\u2642\u2640\u266A\u266B\u263C" \
                  "\u25BA\u25C4\u2195\u203C\u00B6\u00A7\u25AC\u21A8\u2191\u2193\u2192\u2190\u221F\u2194\u25B2\u25BC"


def set_id(num, letter):
    return num * 32 + ord(letter) - 64


def codec_table(codec, low=None, del_char=None, keep_c1=False):
    out = [0] * 256
    for code in range(256):
        if code < 32:
            out[code] = ord(low[code]) if low else 0
            continue
        if code == 0x7F:
            out[code] = ord(del_char) if del_char else 0
            continue
        try:
            s = bytes([code]).decode(codec)
        except UnicodeDecodeError:
            continue
        ch = ord(s) if len(s) == 1 else 0
        if 0xE000 <= ch <= 0xF8FF:
            ch = 0  # a vendor's private character (the Macintosh's Apple logo): none here
        if 0x80 <= code < 0xA0 and ch < 0xA0 and not keep_c1:
            ch = 0  # C1 controls print nothing
        out[code] = ch
    return out


def ascii_low():
    return [c if 0x20 <= c < 0x7F else 0 for c in range(128)] + [0] * 128


def read_agl():
    agl = {}
    with open(os.path.join(GS_INIT, "gs_agl.ps")) as f:
        for line in f:
            m = re.match(r"/(\S+) 16#([0-9A-F]{4})\s*$", line)
            if m:
                agl[m.group(1)] = int(m.group(2), 16)
    return agl


# The Symbol font's glyphs that the Adobe Glyph List gives private-use numbers, with the Unicode
# characters made for them: the serif and sans serif registered, copyright and trademark signs,
# the arrow extenders, and the pieces of tall parentheses, brackets, braces and integrals.
SYMBOL_PIECES = {
    "registerserif": 0x00AE, "copyrightserif": 0x00A9, "trademarkserif": 0x2122,
    "registersans": 0x00AE, "copyrightsans": 0x00A9, "trademarksans": 0x2122,
    "arrowvertex": 0x23D0, "arrowhorizex": 0x23AF,
    "parenlefttp": 0x239B, "parenleftex": 0x239C, "parenleftbt": 0x239D,
    "bracketlefttp": 0x23A1, "bracketleftex": 0x23A2, "bracketleftbt": 0x23A3,
    "bracelefttp": 0x23A7, "braceleftmid": 0x23A8, "braceleftbt": 0x23A9, "braceex": 0x23AA,
    "integralex": 0x23AE,
    "parenrighttp": 0x239E, "parenrightex": 0x239F, "parenrightbt": 0x23A0,
    "bracketrighttp": 0x23A4, "bracketrightex": 0x23A5, "bracketrightbt": 0x23A6,
    "bracerighttp": 0x23AB, "bracerightmid": 0x23AC, "bracerightbt": 0x23AD,
}


def read_ps_encoding(name, agl):
    """The 256 glyph names of a Ghostscript encoding file, as Unicode (PUA and .notdef -> 0)."""
    text = open(os.path.join(GS_INIT, name)).read()
    text = "\n".join(line.split("%")[0] for line in text.splitlines())
    start = text.index("/StandardEncoding" if "std" in name else "/SymbolEncoding")
    body = text[start + 1:]
    body = body[body.index("Encoding") + len("Encoding"):]
    names = []
    for tok in re.findall(r"StandardEncoding 0 32 getinterval|/[^\s/\[\]{}()]+|\bdef\b", body):
        if tok == "def":
            break
        if tok.startswith("StandardEncoding"):
            names += [".notdef"] * 32
        else:
            names.append(tok[1:])
        if len(names) >= 256:
            break
    assert len(names) == 256, (name, len(names))
    out = []
    for n in names:
        u = agl.get(n, 0)
        if 0xE000 <= u <= 0xF8FF:
            # The Symbol font's pieces that the glyph list leaves in the private use area: the
            # characters Unicode has for them, or none (the radical extender, the Apple logo).
            u = SYMBOL_PIECES.get(n, 0)
        out.append(u)
    return out


def read_groff_pairs():
    """(symbol set id, code) -> Unicode, from the devlj4 font descriptions."""
    maps = groff_lj4.load_maps()
    pairs = {}
    for path in groff_lj4.font_files():
        for _, _, u, sid, code in groff_lj4.read_font(path, maps)[1]:
            if u is None:
                continue
            old = pairs.get((sid, code))
            if old is not None and old != u:
                sys.exit(f"devlj4 disagrees with itself at {sid}:{code}: {old:04X} {u:04X}")
            pairs[(sid, code)] = u
    return pairs


def read_wingdings():
    """The Wingdings font's code -> Unicode pairs of wingdings_unicode.txt."""
    out = [0] * 256
    with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), "wingdings_unicode.txt")) as f:
        for line in f:
            fields = line.split("#")[0].split()
            if len(fields) == 2:
                out[int(fields[0], 16)] = int(fields[1], 16)
    return out


def build_sets():
    """[(C++ name, (number, letter), 256 Unicode values)] for every set, checked against HP's
    metrics; stops the script on a disagreement."""
    agl = read_agl()
    standard = read_ps_encoding("gs_std_e.ps", agl)
    symbol = read_ps_encoding("gs_sym_e.ps", agl)
    groff = read_groff_pairs()

    # HP's own Roman-8 mapping table (PCL 5 Technical Reference, table 9-1) gives code 39 the
    # right single quotation mark (MSL 8, U+2019), as LaserJet fonts draw it, where the code page
    # has the straight apostrophe.
    roman8 = codec_table("hp_roman8")
    roman8[0x27] = 0x2019
    # Code 246 is the dash that LaserJet fonts set as wide as their minus sign, and producers
    # (plotutils' PCL driver among them) print every minus sign through it: it is drawn with the
    # minus sign, as the same plot's PostScript shows it, not with the em dash the code page
    # names, whose ink runs the whole advance and reads as a long dash.
    roman8[0xF6] = 0x2212

    win30 = codec_table("cp1252")
    for c in range(0x80, 0xA0):
        if c not in (0x91, 0x92):  # Windows 3.0's set had only the two single quotes there
            win30[c] = 0

    # PC-8 D/N: the Nordic PC code page; HP's metrics add Ŀ ŀ ŉ where it has ₧ ƒ ¼ (checked below).
    pc8dn = codec_table("cp865", PC_GRAPHICS_LOW, "\u2302")
    pc8dn[0x9E], pc8dn[0x9F], pc8dn[0xAC] = 0x013F, 0x0140, 0x0149

    # (C++ name, (number, letter), table, filled from HP's metrics where the table has no code)
    sets = [
        ("Roman8", (8, "U"), roman8, False),
        ("PC8", (10, "U"), codec_table("cp437", PC_GRAPHICS_LOW, "\u2302"), False),
        ("PC8DN", (11, "U"), pc8dn, False),
        ("PC850", (12, "U"), codec_table("cp850", PC_GRAPHICS_LOW, "\u2302"), False),
        ("PC852", (17, "U"), codec_table("cp852", PC_GRAPHICS_LOW, "\u2302"), False),
        ("Latin1", (0, "N"), codec_table("latin_1"), False),
        ("Latin2", (2, "N"), codec_table("iso8859_2"), False),
        ("Latin5", (5, "N"), codec_table("iso8859_9"), False),
        ("Win31Latin1", (19, "U"), codec_table("cp1252"), False),
        ("Win30Latin1", (9, "U"), win30, False),
        ("WinLatin2", (9, "E"), codec_table("cp1250"), False),
        ("WinLatin5", (5, "T"), codec_table("cp1254"), False),
        ("Ascii", (0, "U"), codec_table("ascii"), False),
        # The other Latin sets of the Line Printer font, each the code page HP names it after.
        ("Latin9", (9, "N"), codec_table("iso8859_15"), False),
        ("Latin4", (4, "N"), codec_table("iso8859_4"), False),
        ("Latin6", (6, "N"), codec_table("iso8859_10"), False),
        ("PC8Turkish", (9, "T"), codec_table("cp857", PC_GRAPHICS_LOW, "\u2302"), False),
        ("PC775", (26, "U"), codec_table("cp775", PC_GRAPHICS_LOW, "\u2302"), False),
        ("WinBaltic", (19, "L"), codec_table("cp1257"), False),
        ("McText", (12, "J"), codec_table("mac_roman", keep_c1=True), False),
        ("PsText", (10, "J"), standard, False),
        ("PsMath", (5, "M"), symbol, False),
        ("Desktop", (7, "J"), ascii_low(), True),
        ("Math8", (8, "M"), [0] * 256, True),
        ("MsPublishing", (6, "J"), [0] * 256, True),
        ("PiFont", (15, "U"), [0] * 256, True),
        ("VenturaIntl", (13, "J"), [0] * 256, True),
        ("Wingdings", (579, "L"), [0] * 256, True),
    ]
    # Mac Roman's 0x7F and control range are not characters.
    for name, nl, t, _ in sets:
        if name == "McText":
            for c in list(range(32)) + [0x7F]:
                t[c] = 0

    # Where HP's metrics name a glyph by its nearest text character and Adobe by the mathematical
    # one, the table keeps Adobe's: PS Math's tilde operator and lozenge.
    same_glyph = {(set_id(5, "M"), 126): (0x223C, 0x007E), (set_id(5, "M"), 224): (0x25CA, 0x25C7)}
    # Code 32 is the space in every set.
    for _, _, t, _ in sets:
        t[0x20] = 0x20
    problems = 0
    for name, (num, letter), t, fill in sets:
        sid = set_id(num, letter)
        for (s, code), u in sorted(groff.items()):
            if s != sid:
                continue
            if t[code] == 0 and fill:
                t[code] = u
            elif t[code] != u and same_glyph.get((sid, code)) != (t[code], u):
                print(f"{num}{letter} code {code}: table U+{t[code]:04X}, HP metrics U+{u:04X}", file=sys.stderr)
                problems += 1
    if problems:
        sys.exit(f"{problems} disagreements")

    # HP's metrics name about half of Wingdings; the rest take the characters Unicode gave them.
    # The Om (0x5C) is named by the Devanagari letter in HP's metrics: it takes the Om symbol
    # Unicode encoded for Wingdings, which the symbol faces draw.
    wingdings = next(t for name, _, t, _ in sets if name == "Wingdings")
    assert wingdings[0x5C] == 0x0950
    wingdings[0x5C] = 0
    for code, u in enumerate(read_wingdings()):
        if wingdings[code] == 0:
            wingdings[code] = u

    return [(name, nl, t) for name, nl, t, _ in sets]


def main():
    sets = build_sets()
    print("// Generated by tools/gen_symbol_sets.py: code -> Unicode, 0 = no character.")
    print("// clang-format off")
    for name, _, t in sets:
        print(f"static constexpr char32_t k{name}[256] = {{")
        for i in range(0, 256, 8):
            print("    " + ", ".join(f"0x{c:05X}" for c in t[i:i + 8]) + ",")
        print("};")
    print("static constexpr SymbolSetTable kTables[] = {")
    for name, (num, letter), _ in sets:
        print(f"    {{symbolSetId({num}, '{letter}'), k{name}}},")
    print("};")
    print("// clang-format on")
    for name, (num, letter), t in sets:
        print(f"{num}{letter:<2} {name:<14} {sum(1 for c in t if c)} codes", file=sys.stderr)


if __name__ == "__main__":
    main()
