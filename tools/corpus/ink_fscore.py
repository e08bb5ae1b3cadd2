#!/usr/bin/python3
"""Ink F-score of an engine TIFF against a reference rendering, page by page.

    ink_fscore.py ENGINE.tif REFERENCE-PAGE-1.pbm [REFERENCE-PAGE-2.pbm ...] [--png DIR]
    ink_fscore.py ENGINE.tif REFERENCE.tif [--png DIR]

A black pixel of either side counts as matched when the other side has ink within one pixel
(8-neighbourhood). Precision is the engine's matched share, recall the reference's; the F-score
is their harmonic mean. Prints one line per page; exit status 1 when a page is below 0.9 or the
page counts differ. With --png, writes ENGINE-vs-REFERENCE pictures (red: engine only,
blue: reference only, black: both) into DIR for looking at.
"""
import os
import sys

import numpy as np
from PIL import Image


def ink(img):
    a = np.asarray(img.convert("L"))
    return a < 128


def dilate(m):
    p = np.pad(m, 1)
    out = np.zeros_like(m)
    h, w = m.shape
    for dy in (0, 1, 2):
        for dx in (0, 1, 2):
            out |= p[dy:dy + h, dx:dx + w]
    return out


def fscore(a, b):
    h, w = max(a.shape[0], b.shape[0]), max(a.shape[1], b.shape[1])
    A = np.zeros((h, w), bool)
    B = np.zeros((h, w), bool)
    A[:a.shape[0], :a.shape[1]] = a
    B[:b.shape[0], :b.shape[1]] = b
    na, nb = A.sum(), B.sum()
    if na == 0 and nb == 0:
        return 1.0, 1.0, 1.0, A, B
    p = (A & dilate(B)).sum() / na if na else 0.0
    r = (B & dilate(A)).sum() / nb if nb else 0.0
    f = 2 * p * r / (p + r) if p + r else 0.0
    return f, p, r, A, B


def main(argv):
    png = None
    if "--png" in argv:
        i = argv.index("--png")
        png = argv[i + 1]
        del argv[i:i + 2]
    engine = argv[1]
    refs = []
    for path in argv[2:]:
        im = Image.open(path)
        for i in range(getattr(im, "n_frames", 1)):
            im.seek(i)
            refs.append(ink(im))
    tif = Image.open(engine)
    n = getattr(tif, "n_frames", 1)
    ok = n == len(refs)
    if not ok:
        print(f"pages: engine {n}, reference {len(refs)}")
    for i in range(min(n, len(refs))):
        tif.seek(i)
        f, p, r, A, B = fscore(ink(tif), refs[i])
        print(f"page {i + 1}: F {f:.4f} precision {p:.4f} recall {r:.4f}")
        ok = ok and f >= 0.9
        if png:
            os.makedirs(png, exist_ok=True)
            rgb = np.full(A.shape + (3,), 255, np.uint8)
            rgb[A & ~B] = (220, 0, 0)
            rgb[B & ~A] = (0, 0, 220)
            rgb[A & B] = (0, 0, 0)
            base = os.path.splitext(os.path.basename(engine))[0]
            Image.fromarray(rgb).save(os.path.join(png, f"{base}-p{i + 1}.png"))
    return 0 if ok else 1


sys.exit(main(sys.argv))
