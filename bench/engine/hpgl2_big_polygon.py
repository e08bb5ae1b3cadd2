#!/usr/bin/python3
"""Writes a PCL 5 job with one HP-GL/2 polygon of many random points over a Letter page,
filled (PM0; PD ...; PM2; FP): every side crosses a great many others, the worst case for a
fill whose work grows with the square of its sides. Deterministic: the same arguments give the
same bytes.

    hpgl2_big_polygon.py OUTPUT [POINTS]      (POINTS: 200000 unless given)
"""

import random
import sys


def main():
    out = sys.argv[1]
    count = int(sys.argv[2]) if len(sys.argv) > 2 else 200000
    rnd = random.Random(20261124)
    # Letter page in plotter units (40 a millimetre), landscape HP-GL/2 axes.
    pts = [(rnd.randrange(0, 10000), rnd.randrange(0, 7500)) for _ in range(count)]
    parts = ["\x1bE\x1b%0BIN;SP1;", "PU%d,%d;PM0;PD" % pts[0]]
    parts.append(",".join("%d,%d" % p for p in pts[1:]))
    parts.append(";PM2;FP;PU;\x1b%0A\x0c\x1bE")
    with open(out, "wb") as f:
        f.write("".join(parts).encode("ascii"))


if __name__ == "__main__":
    main()
