#!/usr/bin/python3
"""Writes the benchmark's jobs of cheap-looking pages into OUTDIR:
  empty_pages_pclxl.pxl  100 PCL XL pages with nothing on them;
  pattern_fills_pclxl.pxl  one PCL XL page filled 200 times by a page-sized rectangle painted
                           with an 8 x 8 grey raster pattern brush;
  rect_fills_pcl5.pcl    one PCL 5 page with 2000 rectangles of 32767 x 32767 dots, solid fill.

    blank_jobs.py OUTDIR
"""

import os
import struct
import sys


class Xl:
    """A little-endian PCL XL stream."""

    def __init__(self):
        self.b = bytearray(b") HP-PCL XL;2;0;Benchmark\n")

    def ub(self, v):
        self.b += bytes((0xC0, v))
        return self

    def u16(self, v):
        self.b += b"\xc1" + struct.pack("<H", v)
        return self

    def s16(self, v):
        self.b += b"\xc3" + struct.pack("<h", v)
        return self

    def u16xy(self, x, y):
        self.b += b"\xd1" + struct.pack("<HH", x, y)
        return self

    def u16box(self, a, b, c, d):
        self.b += b"\xe1" + struct.pack("<HHHH", a, b, c, d)
        return self

    def a(self, attr):
        self.b += bytes((0xF8, attr))
        return self

    def op(self, tag):
        self.b += bytes((tag,))
        return self

    def data(self, d):
        self.b += b"\xfa" + struct.pack("<I", len(d)) + d
        return self

    def begin(self):
        # 300 units an inch; an 8-bit grey colour space.
        self.u16xy(300, 300).a(137).ub(0).a(134).op(0x41)  # BeginSession
        self.ub(0).a(136).ub(1).a(130).op(0x48)  # OpenDataSource
        return self

    def page(self):
        return self.ub(0).a(40).ub(0).a(37).op(0x43)  # Orientation, MediaSize Letter; BeginPage

    def end(self):
        return self.op(0x49).op(0x42)  # CloseDataSource, EndSession


def main():
    out = sys.argv[1]
    xl = Xl().begin()
    for _ in range(100):
        xl.page().op(0x44)
    with open(os.path.join(out, "empty_pages_pclxl.pxl"), "wb") as f:
        f.write(xl.end().b)

    xl = Xl().begin().page()
    xl.ub(1).a(3).op(0x6A)  # SetColorSpace gray
    # An 8 x 8 pattern of four greys, drawn 32 x 32 units.
    xl.ub(0).a(100).ub(2).a(98).u16(8).a(108).u16(8).a(107).u16xy(32, 32).a(103)
    xl.s16(1).a(105).ub(0).a(104).op(0xB3)  # BeginRastPattern
    rows = bytes((0, 64, 128, 192, 255, 192, 128, 64) * 8)
    xl.u16(0).a(109).u16(8).a(99).ub(0).a(101).op(0xB4).data(rows)  # ReadRastPattern
    xl.op(0xB5)  # EndRastPattern
    xl.s16(1).a(8).op(0x63)  # SetBrushSource: the pattern
    xl.ub(1).a(5).op(0x79)  # SetPenSource: NullPen
    for _ in range(200):
        xl.u16box(0, 0, 2550, 3300).a(66).op(0xA0)  # Rectangle over the whole page
    xl.op(0x44)
    with open(os.path.join(out, "pattern_fills_pclxl.pxl"), "wb") as f:
        f.write(xl.end().b)

    with open(os.path.join(out, "rect_fills_pcl5.pcl"), "wb") as f:
        f.write(b"\x1bE" + b"\x1b*c32767a32767b0P" * 2000 + b"\x0c\x1bE")


if __name__ == "__main__":
    main()
