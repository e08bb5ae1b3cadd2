#!/usr/bin/python3
"""Writes a PCL 5 job with one HP-GL/2 page of many grey-filled polygons, like a detailed
drawing: small and large closed outlines (some self-intersecting), each filled with a shade
(FT 10) and some outlined with the pen (EP). Deterministic: the same arguments give the same bytes.

    hpgl2_polygons.py OUTPUT [POLYGONS]      (POLYGONS: 3000 unless given)
"""

import math
import random
import sys


def main():
    out = sys.argv[1]
    count = int(sys.argv[2]) if len(sys.argv) > 2 else 3000
    rnd = random.Random(20261123)
    # Letter page in plotter units (40 a millimetre), inside a 1/4-inch margin.
    width, height = 8 * 1016, 10 * 1016
    parts = ["\x1bE\x1b&l2a0O\x1b%0BIN;SP1;PW0.2;"]
    for i in range(count):
        cx, cy = rnd.randrange(0, width), rnd.randrange(0, height)
        radius = rnd.choice((40, 80, 160, 320, 640, 1600)) * (0.5 + rnd.random())
        sides = rnd.randrange(3, 13)
        turn = 1 if rnd.random() < 0.85 else 2  # a few stars: self-intersecting outlines
        start = rnd.random() * 2 * math.pi
        points = []
        for k in range(sides):
            a = start + 2 * math.pi * k * turn / sides
            r = radius * (0.6 + 0.4 * rnd.random())
            points.append((int(cx + r * math.cos(a)), int(cy + r * math.sin(a))))
        shade = rnd.choice((5, 10, 20, 30, 45, 60, 75, 90))
        rest = ",".join(f"{x},{y}" for x, y in points[1:])
        parts.append(f"FT10,{shade};PU{points[0][0]},{points[0][1]};PM0;PD{rest};PM2;FP;")
        if i % 4 == 0:
            parts.append("EP;")
    parts.append("PU;\x1b%0A\x0c\x1bE")
    with open(out, "wb") as f:
        f.write("".join(parts).encode("ascii"))


if __name__ == "__main__":
    main()
