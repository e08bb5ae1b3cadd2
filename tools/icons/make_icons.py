#!/usr/bin/python3
"""Draws the application's icons and background pictures.

Writes resources/MyIco/Image/*.ico (16, 24, 32, 48 and 64 pixel images, 32-bit with alpha;
the two Convert button icons lead with a 42 pixel image)
and resources/MyImage/Image/bg1.png (730x450) and bg2.png (372x299), and the application icon for
the desktop's icon theme as packaging/icons/quarvel-N.png (N = 16 to 256 pixels; the scalable
packaging/icons/quarvel.svg beside them is drawn by hand from the same design).

Every icon is described once in a 64x64 design grid and rendered separately for each size at
four times that size, then reduced with a box filter, which gives clean anti-aliased edges.

Usage: /usr/bin/python3 tools/icons/make_icons.py [repository root]
"""

import io
import math
import os
import struct
import sys

from PIL import Image, ImageChops, ImageDraw, ImageFilter

SIZES = (16, 24, 32, 48, 64)
# The sizes of the application icon in the hicolor icon theme.
THEME_SIZES = (16, 22, 24, 32, 48, 64, 128, 256)
# The Convert button loads its icon as a plain pixmap, which takes the first image of the file,
# and sizes the icon to it; those two icons therefore lead with a 42 pixel image that fits the
# 50 pixel high button.
LEAD_SIZE = {"media_playback_start": 42, "stop": 42}
OVERSAMPLE = 4
GRID = 64.0


def hex_rgb(text):
    text = text.lstrip("#")
    return tuple(int(text[i:i + 2], 16) for i in (0, 2, 4))


def mix(a, b, t):
    return tuple(int(round(a[i] + (b[i] - a[i]) * t)) for i in range(3))


class Painter:
    """Draws in design units (0..64) onto an RGBA canvas of `px` pixels."""

    def __init__(self, px, target):
        self.px = px
        self.target = target          # final icon size, for size-dependent tweaks
        self.k = px / GRID
        self.img = Image.new("RGBA", (px, px), (0, 0, 0, 0))

    # -- geometry helpers -------------------------------------------------------------------
    def s(self, v):
        return v * self.k

    def pts(self, points):
        return [(self.s(x), self.s(y)) for x, y in points]

    def box(self, b):
        return [self.s(b[0]), self.s(b[1]), self.s(b[2]), self.s(b[3])]

    def stroke(self, w, min_px=1.3):
        """A stroke width in design units, never thinner than min_px final pixels."""
        return max(self.s(w), min_px * OVERSAMPLE)

    # -- masks --------------------------------------------------------------------------------
    def new_mask(self):
        return Image.new("L", (self.px, self.px), 0)

    def poly(self, points, mask=None):
        m = mask or self.new_mask()
        ImageDraw.Draw(m).polygon(self.pts(points), fill=255)
        return m

    def ellipse(self, b, mask=None):
        m = mask or self.new_mask()
        ImageDraw.Draw(m).ellipse(self.box(b), fill=255)
        return m

    def rrect(self, b, r, mask=None):
        m = mask or self.new_mask()
        ImageDraw.Draw(m).rounded_rectangle(self.box(b), radius=self.s(r), fill=255)
        return m

    def line(self, points, w, mask=None, round_caps=True, min_px=1.3):
        m = mask or self.new_mask()
        d = ImageDraw.Draw(m)
        width = self.stroke(w, min_px)
        p = self.pts(points)
        d.line(p, fill=255, width=int(round(width)), joint="curve")
        if round_caps:
            r = width / 2
            for x, y in (p[0], p[-1]):
                d.ellipse([x - r, y - r, x + r, y + r], fill=255)
        return m

    @staticmethod
    def cut(mask, hole):
        return ImageChops.subtract(mask, hole)

    @staticmethod
    def union(*masks):
        out = masks[0]
        for m in masks[1:]:
            out = ImageChops.lighter(out, m)
        return out

    def grow(self, mask, units, min_px=1.0):
        """Dilates a mask by `units` design units (an outline around a shape)."""
        r = max(int(round(self.s(units))), int(round(min_px * OVERSAMPLE)))
        size = 2 * r + 1
        # MaxFilter is square; run it a few times with a small kernel for a rounder result.
        out = mask
        step = 3
        n = max(1, r // 1)
        for _ in range(n):
            out = out.filter(ImageFilter.MaxFilter(step))
        return out if size else mask

    # -- painting -----------------------------------------------------------------------------
    def fill(self, mask, top, bottom=None, y0=0.0, y1=GRID, alpha=1.0):
        """Paints a mask with a flat colour or a vertical gradient from y0 to y1 (design units)."""
        top = hex_rgb(top) if isinstance(top, str) else top
        bottom = top if bottom is None else (hex_rgb(bottom) if isinstance(bottom, str) else bottom)
        layer = Image.new("RGBA", (self.px, self.px))
        d = ImageDraw.Draw(layer)
        a0, a1 = self.s(y0), self.s(y1)
        for y in range(self.px):
            t = 0.0 if a1 <= a0 else min(1.0, max(0.0, (y - a0) / (a1 - a0)))
            d.line([(0, y), (self.px, y)], fill=mix(top, bottom, t) + (255,))
        m = mask if alpha >= 1.0 else mask.point(lambda v: int(v * alpha))
        layer.putalpha(m)
        self.img = Image.alpha_composite(self.img, layer)

    def shadow(self, mask, dy=1.5, blur=1.5, alpha=0.28):
        m = mask.filter(ImageFilter.GaussianBlur(self.s(blur)))
        m = ImageChops.offset(m, 0, int(round(self.s(dy))))
        self.fill(m, (0, 0, 0), alpha=alpha)

    def shape(self, mask, top, bottom, edge, edge_w=1.2, y0=0.0, y1=GRID, shadow=True):
        """A filled shape with a darker rim and a soft drop shadow."""
        rim = self.grow(mask, edge_w)
        if shadow:
            self.shadow(rim)
        self.fill(rim, edge)
        self.fill(mask, top, bottom, y0, y1)

    def result(self):
        # Reduce in premultiplied form so that transparent pixels do not bleed colour.
        small = self.img.convert("RGBa").resize((self.target, self.target), Image.BOX)
        return small.convert("RGBA")


# --------------------------------------------------------------------------------------------
# The icons. Each function draws on a Painter in the 64x64 design grid.

def gloss(p, mask, y_top, y_mid, strength=0.35):
    """A soft highlight over the upper part of a shape, fading out towards y_mid."""
    ramp = Image.new("L", (p.px, p.px), 0)
    d = ImageDraw.Draw(ramp)
    a0, a1 = p.s(y_top), p.s(y_mid)
    for y in range(p.px):
        t = min(1.0, max(0.0, (y - a0) / max(1.0, a1 - a0)))
        d.line([(0, y), (p.px, y)], fill=int(255 * strength * (1 - t) ** 1.5))
    p.fill(ImageChops.multiply(mask, ramp), (255, 255, 255))


def icon_main(p):
    # A printed page whose lower half turns into a picture, with an arrow showing the change.
    page = p.poly([(12, 4), (40, 4), (52, 16), (52, 60), (12, 60)])
    p.shape(page, "#ffffff", "#eef2f7", "#5b6b80", 1.3)
    ear = p.poly([(40, 4), (40, 16), (52, 16)])
    p.fill(ear, "#c9d3e0")
    p.fill(p.line([(40, 4), (40, 16), (52, 16)], 1.2, round_caps=False, min_px=0.8), "#5b6b80")
    # Text lines of the printout.
    for y, x1 in ((12, 34), (19, 44), (26, 40)):
        p.fill(p.line([(18, y), (x1, y)], 2.6, min_px=1.0), "#7d8a9c")
    # The picture: sky, sun and hills, inside the page's lower part.
    pic_box = (17, 32, 47, 55)
    pic = p.rrect(pic_box, 2)
    p.fill(pic, "#4aa3f0", "#bfe3ff", 32, 55)
    sun = p.ellipse((36, 35, 43, 42))
    p.fill(sun, "#ffd23f")
    hills = p.poly([(17, 55), (17, 47), (25, 40), (33, 48), (38, 44), (47, 51), (47, 55)])
    p.fill(ImageChops.multiply(hills, pic), "#3cb371", "#1e8a4c", 40, 55)
    p.fill(p.cut(p.grow(pic, 0.8, 0.6), pic), "#2f6db5")
    # Conversion arrow at the lower right, over the page's edge.
    circle = p.ellipse((40, 40, 62, 62))
    p.shape(circle, "#ff9d2e", "#e8650c", "#a8470a", 1.0, 40, 62)
    arrow = p.poly([(45, 49), (52, 49), (52, 44.5), (58.5, 51), (52, 57.5), (52, 53), (45, 53)])
    p.fill(arrow, "#ffffff")


def icon_plus_orange(p):
    bar = 10
    plus = p.union(p.rrect((32 - bar, 8, 32 + bar, 56), 4), p.rrect((8, 32 - bar, 56, 32 + bar), 4))
    p.shape(plus, "#ffb347", "#f07a10", "#b3540a", 1.4, 8, 56)
    gloss(p, plus, 8, 40, 0.45)


def icon_delete(p):
    x = p.union(p.line([(16, 16), (48, 48)], 12), p.line([(48, 16), (16, 48)], 12))
    p.shape(x, "#ff6b5e", "#d4231a", "#8f130d", 1.4, 10, 54)
    gloss(p, x, 10, 40, 0.40)


def icon_deleteall(p):
    # A waste bin: lid with handle, tapering body with ribs.
    body = p.poly([(15, 20), (49, 20), (45, 58), (19, 58)])
    body = p.union(body, p.rrect((17, 50, 47, 58), 4))
    p.shape(body, "#9fb1c6", "#5f7590", "#33465c", 1.3, 20, 58)
    for x0, x1 in ((25, 26), (32, 32), (39, 38)):
        p.fill(p.line([(x0, 26), (x1, 52)], 2.6, min_px=1.0), "#3e536b")
    lid = p.rrect((10, 12, 54, 19), 3)
    handle = p.cut(p.rrect((24, 5, 40, 15), 4), p.rrect((28, 9, 36, 15), 1))
    p.shape(p.union(lid, handle), "#b9c7d8", "#7b8fa8", "#33465c", 1.3, 5, 19)
    # A small red cross: everything goes.
    badge = p.ellipse((38, 36, 62, 60))
    p.shape(badge, "#ff6b5e", "#d4231a", "#8f130d", 1.0, 36, 60)
    cross = p.union(p.line([(45, 43), (55, 53)], 3.6), p.line([(55, 43), (45, 53)], 3.6))
    p.fill(cross, "#ffffff")


def icon_settings(p):
    cx = cy = 32.0
    teeth = 8
    outer, inner = 29.0, 22.0
    points = []
    for i in range(teeth * 4):
        a = 2 * math.pi * (i - 0.5) / (teeth * 4)
        r = outer if (i % 4) in (1, 2) else inner
        points.append((cx + r * math.cos(a), cy + r * math.sin(a)))
    gear = p.union(p.poly(points), p.ellipse((cx - 23, cy - 23, cx + 23, cy + 23)))
    gear = p.cut(gear, p.ellipse((cx - 9, cy - 9, cx + 9, cy + 9)))
    p.shape(gear, "#9aa9bb", "#55677d", "#2c3a4b", 1.3, 3, 61)
    ring = p.cut(p.ellipse((cx - 15, cy - 15, cx + 15, cy + 15)),
                 p.ellipse((cx - 12.5, cy - 12.5, cx + 12.5, cy + 12.5)))
    p.fill(ring, "#ffffff", alpha=0.35)


def icon_get_info(p):
    disc = p.ellipse((4, 4, 60, 60))
    p.shape(disc, "#5aa9f5", "#1f66c7", "#154a93", 1.2, 4, 60)
    gloss(p, disc, 4, 40, 0.45)
    dot = p.ellipse((27.5, 12, 36.5, 21))
    stem = p.union(p.rrect((27.5, 26, 36.5, 50), 2.5), p.rrect((23, 26, 36.5, 30.5), 2),
                   p.rrect((23, 46, 41, 51), 2))
    p.fill(p.union(dot, stem), "#ffffff")


def icon_folder_open(p):
    back = p.union(p.rrect((5, 10, 27, 20), 3), p.rrect((5, 15, 53, 54), 3))
    p.shape(back, "#e9a93a", "#c98212", "#8a5608", 1.2, 10, 54)
    paper = p.rrect((11, 19, 49, 44), 1.5)
    p.fill(paper, "#ffffff")
    p.fill(p.cut(p.grow(paper, 0.6, 0.5), paper), "#b0b8c4")
    front = p.poly([(13, 28), (61, 28), (53, 55), (5, 55)])
    p.shape(front, "#ffd46b", "#f2ad2b", "#9c6408", 1.2, 28, 55)
    gloss(p, front, 28, 48, 0.40)


def icon_play(p):
    tri = p.poly([(14, 6), (58, 32), (14, 58)])
    tri = tri.filter(ImageFilter.GaussianBlur(p.s(1.8))).point(lambda v: 255 if v > 150 else 0)
    p.shape(tri, "#5fdc6a", "#1e9a33", "#11631f", 1.4, 6, 58)
    gloss(p, tri, 6, 44, 0.45)


def icon_stop(p):
    sq = p.rrect((9, 9, 55, 55), 7)
    p.shape(sq, "#ff6b5e", "#cf2419", "#8f130d", 1.4, 9, 55)
    gloss(p, sq, 9, 44, 0.45)


ICONS = {
    "Main": icon_main,
    "plus_orange": icon_plus_orange,
    "delete": icon_delete,
    "deleteall": icon_deleteall,
    "settings": icon_settings,
    "get_info": icon_get_info,
    "folder_open": icon_folder_open,
    "media_playback_start": icon_play,
    "stop": icon_stop,
}


def render(draw, size):
    p = Painter(size * OVERSAMPLE, size)
    draw(p)
    return p.result()


# --------------------------------------------------------------------------------------------
# ICO writing: each entry a 32-bit BGRA bitmap (bottom-up) followed by its 1-bit AND mask.

def ico_entry(img):
    w, h = img.size
    px = img.load()
    rows = []
    for y in range(h - 1, -1, -1):
        row = bytearray()
        for x in range(w):
            r, g, b, a = px[x, y]
            row += bytes((b, g, r, a))
        rows.append(bytes(row))
    stride = ((w + 31) // 32) * 4
    mask_rows = []
    for y in range(h - 1, -1, -1):
        bits = bytearray(stride)
        for x in range(w):
            if px[x, y][3] == 0:
                bits[x // 8] |= 0x80 >> (x % 8)
        mask_rows.append(bytes(bits))
    pixels = b"".join(rows)
    mask = b"".join(mask_rows)
    header = struct.pack("<IiiHHIIiiII", 40, w, 2 * h, 1, 32, 0, len(pixels) + len(mask),
                         0, 0, 0, 0)
    return header + pixels + mask


def write_ico(path, images):
    entries = [ico_entry(img) for img in images]
    out = io.BytesIO()
    out.write(struct.pack("<HHH", 0, 1, len(images)))
    offset = 6 + 16 * len(images)
    for img, data in zip(images, entries):
        w, h = img.size
        out.write(struct.pack("<BBBBHHII", w % 256, h % 256, 0, 0, 1, 32, len(data), offset))
        offset += len(data)
    for data in entries:
        out.write(data)
    with open(path, "wb") as f:
        f.write(out.getvalue())


# --------------------------------------------------------------------------------------------
# Backgrounds: calm, light, every area pale enough for black text.

def vertical_gradient(w, h, stops):
    """stops: list of (position 0..1, '#rrggbb')."""
    img = Image.new("RGB", (w, h))
    d = ImageDraw.Draw(img)
    cols = [(pos, hex_rgb(c)) for pos, c in stops]
    for y in range(h):
        t = y / max(1, h - 1)
        for (p0, c0), (p1, c1) in zip(cols, cols[1:]):
            if p0 <= t <= p1:
                u = 0.0 if p1 == p0 else (t - p0) / (p1 - p0)
                u = u * u * (3 - 2 * u)
                d.line([(0, y), (w, y)], fill=mix(c0, c1, u))
                break
    return img


def dither(img, sigma=0.7):
    """Adds a trace of noise so that long, shallow gradients show no bands."""
    noise = Image.effect_noise(img.size, sigma).convert("RGB")
    return ImageChops.add(img, noise, 1.0, -128)


def make_bg1(path):
    w, h = 730, 450
    band = 64
    img = vertical_gradient(w, h, [(0.0, "#cfe1f5"), (band / h, "#e6eff9"), (0.30, "#f4f7fb"),
                                   (1.0, "#e8edf4")])
    # A faint wave pattern in the header band, fading out below it.
    overlay = Image.new("RGB", (w, h), hex_rgb("#ffffff"))
    waves = Image.new("L", (w, h), 0)
    d = ImageDraw.Draw(waves)
    for amp, period, phase, base, a in ((10, 520, 0.3, 40, 70), (14, 680, 2.1, 52, 55),
                                        (8, 400, 4.0, 30, 45)):
        pts = [(0, 0)]
        for x in range(0, w + 1, 2):
            pts.append((x, base + amp * math.sin(2 * math.pi * x / period + phase)))
        pts.append((w, 0))
        d.polygon(pts, fill=a)
    waves = waves.filter(ImageFilter.GaussianBlur(2))
    img = Image.composite(overlay, img, waves)
    # A thin accent line under the band.
    d = ImageDraw.Draw(img)
    for x in range(w):
        t = x / (w - 1)
        fade = math.sin(math.pi * t)
        d.point((x, band + 8), fill=mix(hex_rgb("#edf3fa"), hex_rgb("#9cc2e8"), 0.8 * fade))
        d.point((x, band + 9), fill=mix(hex_rgb("#edf3fa"), hex_rgb("#c8dcf0"), 0.6 * fade))
    dither(img).save(path, optimize=True)


def make_bg2(path):
    w, h = 372, 299
    img = vertical_gradient(w, h, [(0.0, "#e3edf8"), (0.18, "#f2f6fb"), (1.0, "#e8edf4")])
    # A pale rounded panel behind the form, with a soft shadow.
    panel_box = (16, 10, w - 17, h - 11)
    shadow = Image.new("L", (w, h), 0)
    ImageDraw.Draw(shadow).rounded_rectangle((panel_box[0], panel_box[1] + 2, panel_box[2],
                                              panel_box[3] + 2), 10, fill=40)
    shadow = shadow.filter(ImageFilter.GaussianBlur(4))
    img = Image.composite(Image.new("RGB", (w, h), hex_rgb("#8fa3bb")), img, shadow)
    k = 4
    panel = Image.new("L", (w * k, h * k), 0)
    ImageDraw.Draw(panel).rounded_rectangle([v * k for v in panel_box], 10 * k, fill=255)
    panel = panel.resize((w, h), Image.BOX)
    rim = Image.new("L", (w * k, h * k), 0)
    ImageDraw.Draw(rim).rounded_rectangle([v * k for v in panel_box], 10 * k, outline=255,
                                          width=k)
    rim = rim.resize((w, h), Image.BOX)
    face = vertical_gradient(w, h, [(0.0, "#ffffff"), (1.0, "#f6f9fc")])
    img = Image.composite(face, img, panel.point(lambda v: int(v * 0.85)))
    img = Image.composite(Image.new("RGB", (w, h), hex_rgb("#c3d3e6")), img, rim)
    dither(img).save(path, optimize=True)


def main():
    root = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "..", "..")
    ico_dir = os.path.join(root, "resources", "MyIco", "Image")
    img_dir = os.path.join(root, "resources", "MyImage", "Image")
    os.makedirs(ico_dir, exist_ok=True)
    os.makedirs(img_dir, exist_ok=True)
    for name, draw in ICONS.items():
        sizes = ((LEAD_SIZE[name],) if name in LEAD_SIZE else ()) + SIZES
        write_ico(os.path.join(ico_dir, name + ".ico"), [render(draw, s) for s in sizes])
    theme_dir = os.path.join(root, "packaging", "icons")
    os.makedirs(theme_dir, exist_ok=True)
    for size in THEME_SIZES:
        render(icon_main, size).save(os.path.join(theme_dir, "quarvel-%d.png" % size), optimize=True)
    make_bg1(os.path.join(img_dir, "bg1.png"))
    make_bg2(os.path.join(img_dir, "bg2.png"))


if __name__ == "__main__":
    main()
