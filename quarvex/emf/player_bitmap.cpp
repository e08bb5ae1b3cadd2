// Bitmap records (bit-block transfers with their raster operations, DIB records, alpha and
// transparent blends), gradient fills and region records.

#include "emf/player_state.h"

#include "emf/dib.h"
#include "emf/records.h"

#include <algorithm>
#include <cmath>

namespace qx::emf {

namespace {

// Whether a ROP3 looks at the source operand.
bool usesSource(uint8_t rop3) { return ((rop3 >> 2) & 0x33) != (rop3 & 0x33); }

} // namespace

bool Player::Impl::playBitmapRecord(uint32_t type, Bytes rec) {
    // The fields every kind of transfer has, read into one shape.
    int32_t xDest = 0, yDest = 0, cxDest = 0, cyDest = 0, xSrc = 0, ySrc = 0, cxSrc = 0, cySrc = 0;
    uint32_t rop = 0x00CC0020, offBmi = 0, cbBmi = 0, offBits = 0, cbBits = 0, usage = 0;
    bool dibSourceRect = false; // source y counts from the bitmap's last stored row
    bool alpha = false, transparent = false;
    Rgb transparentColor;
    // The mask of EMR_MASKBLT and EMR_PLGBLT: where its bits are 1 the foreground ROP is used,
    // elsewhere the background ROP (the top byte of a ROP4).
    int32_t xMask = 0, yMask = 0;
    uint32_t offBmiMask = 0, cbBmiMask = 0, offBitsMask = 0, cbBitsMask = 0;
    bool parallelogram = false;
    Point corners[3]; // EMR_PLGBLT: where the source's upper-left, upper-right and lower-left go
    switch (type) {
    case EMR_BITBLT:
    case EMR_STRETCHBLT:
    case EMR_ALPHABLEND:
    case EMR_TRANSPARENTBLT:
    case EMR_MASKBLT:
        xDest = rec.i32(24), yDest = rec.i32(28), cxDest = rec.i32(32), cyDest = rec.i32(36);
        rop = rec.u32(40);
        xSrc = rec.i32(44), ySrc = rec.i32(48);
        usage = rec.u32(80), offBmi = rec.u32(84), cbBmi = rec.u32(88), offBits = rec.u32(92), cbBits = rec.u32(96);
        if (type == EMR_BITBLT || type == EMR_MASKBLT) {
            cxSrc = cxDest, cySrc = cyDest;
        } else {
            cxSrc = rec.i32(100), cySrc = rec.i32(104);
        }
        if (type == EMR_ALPHABLEND) {
            alpha = true;
            rop = 0x00CC0020;
        } else if (type == EMR_TRANSPARENTBLT) {
            transparent = true;
            transparentColor = colorRef(rop);
            rop = 0x00CC0020;
        } else if (type == EMR_MASKBLT) {
            xMask = rec.i32(100), yMask = rec.i32(104);
            offBmiMask = rec.u32(112), cbBmiMask = rec.u32(116), offBitsMask = rec.u32(120), cbBitsMask = rec.u32(124);
        }
        break;
    case EMR_STRETCHDIBITS:
        xDest = rec.i32(24), yDest = rec.i32(28), xSrc = rec.i32(32), ySrc = rec.i32(36);
        cxSrc = rec.i32(40), cySrc = rec.i32(44);
        offBmi = rec.u32(48), cbBmi = rec.u32(52), offBits = rec.u32(56), cbBits = rec.u32(60);
        usage = rec.u32(64), rop = rec.u32(68);
        cxDest = rec.i32(72), cyDest = rec.i32(76);
        dibSourceRect = true;
        break;
    case EMR_SETDIBITSTODEVICE:
        xDest = rec.i32(24), yDest = rec.i32(28), xSrc = rec.i32(32), ySrc = rec.i32(36);
        cxSrc = rec.i32(40), cySrc = rec.i32(44);
        offBmi = rec.u32(48), cbBmi = rec.u32(52), offBits = rec.u32(56), cbBits = rec.u32(60);
        usage = rec.u32(64);
        cxDest = cxSrc, cyDest = cySrc;
        dibSourceRect = true;
        break;
    case EMR_PLGBLT:
        for (int i = 0; i < 3; ++i)
            corners[i] = {double(rec.i32(24 + size_t(i) * 8)), double(rec.i32(28 + size_t(i) * 8))};
        xSrc = rec.i32(48), ySrc = rec.i32(52), cxSrc = rec.i32(56), cySrc = rec.i32(60);
        usage = rec.u32(92), offBmi = rec.u32(96), cbBmi = rec.u32(100), offBits = rec.u32(104), cbBits = rec.u32(108);
        xMask = rec.i32(112), yMask = rec.i32(116);
        offBmiMask = rec.u32(124), cbBmiMask = rec.u32(128), offBitsMask = rec.u32(132), cbBitsMask = rec.u32(136);
        rop = 0xAACC0020; // the source where the mask is set, the destination kept elsewhere
        parallelogram = true;
        break;
    case EMR_GRADIENTFILL: {
        // Rectangles are drawn in bands of interpolated colour; triangles in their mean colour.
        const uint32_t nVer = rec.u32(24), nTri = rec.u32(28), mode = rec.u32(32);
        if (nVer > rec.size / 16 || !rec.has(36, size_t(nVer) * 16))
            return true;
        const size_t at = 36 + size_t(nVer) * 16;
        const Matrix m = logicalToPage();
        auto vertex = [&](uint32_t i, Point& p, double c[3]) {
            const size_t o = 36 + size_t(i) * 16;
            p = {double(rec.i32(o)), double(rec.i32(o + 4))};
            for (int k = 0; k < 3; ++k)
                c[k] = rec.u16(o + 8 + size_t(k) * 2) / 256.0;
        };
        const RenderState rs = renderState();
        if (mode == 2) {
            for (uint32_t t = 0; t < nTri && rec.has(at + size_t(t) * 12, 12); ++t) {
                Path p;
                double mean[3] = {0, 0, 0};
                for (int k = 0; k < 3; ++k) {
                    const uint32_t vi = rec.u32(at + size_t(t) * 12 + size_t(k) * 4);
                    if (vi >= nVer)
                        return true;
                    Point pt;
                    double c[3];
                    vertex(vi, pt, c);
                    (k == 0 ? static_cast<void>(p.moveTo(m.apply(pt))) : p.lineTo(m.apply(pt)));
                    for (int j = 0; j < 3; ++j)
                        mean[j] += c[j] / 3;
                }
                p.close();
                device.fillPath(p, FillRule::NonZero, Paint::solid({uint8_t(mean[0]), uint8_t(mean[1]), uint8_t(mean[2])}), rs);
            }
            return true;
        }
        for (uint32_t r = 0; r < nTri && rec.has(at + size_t(r) * 8, 8); ++r) {
            const uint32_t a = rec.u32(at + size_t(r) * 8), b = rec.u32(at + size_t(r) * 8 + 4);
            if (a >= nVer || b >= nVer)
                return true;
            Point p0, p1;
            double c0[3], c1[3];
            vertex(a, p0, c0);
            vertex(b, p1, c1);
            constexpr int kBands = 64;
            for (int i = 0; i < kBands; ++i) {
                const double f0 = double(i) / kBands, f1 = double(i + 1) / kBands, fm = (i + 0.5) / kBands;
                Rgb c{uint8_t(std::lround(c0[0] + (c1[0] - c0[0]) * fm)), uint8_t(std::lround(c0[1] + (c1[1] - c0[1]) * fm)),
                      uint8_t(std::lround(c0[2] + (c1[2] - c0[2]) * fm))};
                Point q0 = p0, q1 = p1;
                if (mode == 0) {
                    q0.x = p0.x + (p1.x - p0.x) * f0;
                    q1.x = p0.x + (p1.x - p0.x) * f1;
                } else {
                    q0.y = p0.y + (p1.y - p0.y) * f0;
                    q1.y = p0.y + (p1.y - p0.y) * f1;
                }
                device.fillPath(rectPath(m, q0.x, q0.y, q1.x, q1.y), FillRule::NonZero, Paint::solid(c), rs);
            }
        }
        return true;
    }
    default:
        return false;
    }
    if (inPath)
        return true;

    const uint8_t rop3 = uint8_t(rop >> 16);
    const Matrix m = logicalToPage();
    RenderState rs = renderState();
    rs.rop3 = rop3;
    const Paint texture = brushPaint(dc.brush);
    if (!usesSource(rop3)) {
        // A pattern or destination operation over the destination rectangle.
        const Path p = rectPath(m, xDest, yDest, double(xDest) + cxDest, double(yDest) + cyDest);
        device.fillPath(p, FillRule::NonZero, texture.kind == Paint::Kind::None ? Paint::solid(Rgb::white()) : texture, rs);
        return true;
    }
    if (cbBmi == 0 || cbBits == 0) {
        warnOnce("a bit-block transfer from a source that is not in the metafile is left out");
        return true;
    }
    const Bytes info = rec.sub(offBmi, cbBmi);
    const Bytes bits = rec.sub(offBits, cbBits);
    if (!info.size || !bits.size) {
        warnOnce("a bitmap whose data runs past the end of its record is left out");
        damaged = true;
        return true;
    }
    DibResult decoded = decodeDib(info, bits, usage == 1);
    if (!decoded.image) {
        warnOnce(decoded.problem + " is left out");
        return true;
    }
    if (!decoded.problem.empty())
        warnOnce(decoded.problem);
    Image img = std::move(*decoded.image);
    if (alpha || (transparent && transparentColor == Rgb::white()))
        rs.sourceTransparent = true;
    else if (transparent)
        warnOnce("a transparent colour other than white is drawn opaque");
    if (alpha) {
        // Blend onto white paper by the bitmap's own alpha when it has one.
        const uint32_t blend = rec.u32(40);
        const bool perPixel = ((blend >> 24) & 0xff) == 1 && info.u16(14) == 32;
        const double constant = ((blend >> 16) & 0xff) / 255.0;
        const uint8_t* alphaSrc = bits.data;
        const size_t rowBytes = size_t(img.width) * 4;
        const bool topDown = info.i32(8) < 0;
        for (int y = 0; y < img.height; ++y) {
            uint8_t* p = img.data.data() + size_t(y) * img.stride;
            const size_t srcRow = topDown ? size_t(y) : size_t(img.height - 1 - y);
            for (int x = 0; x < img.width; ++x, p += 3) {
                const double a = constant * (perPixel ? alphaSrc[srcRow * rowBytes + size_t(x) * 4 + 3] / 255.0 : 1.0);
                for (int k = 0; k < 3; ++k) {
                    // Premultiplied source over white.
                    const double v = perPixel ? p[k] * constant + 255 * (1 - a) : p[k] * a + 255 * (1 - a);
                    p[k] = uint8_t(std::clamp(std::lround(v), 0L, 255L));
                }
            }
        }
    }
    if (cxSrc <= 0 || cySrc <= 0) {
        cxSrc = img.width;
        cySrc = img.height;
    }
    // Source rectangles of DIB records count y from the bottom of a bottom-up bitmap.
    int top = ySrc;
    if (dibSourceRect && info.i32(8) > 0)
        top = img.height - (ySrc + cySrc);
    if (xSrc != 0 || top != 0 || cxSrc != img.width || cySrc != img.height)
        img = cropImage(std::move(img), xSrc, top, cxSrc, cySrc);
    if (img.width == 0 || img.height == 0)
        return true;
    Matrix imageToPage;
    if (parallelogram) {
        const Point a = corners[0], b = corners[1], c = corners[2];
        imageToPage = m * Matrix{(b.x - a.x) / img.width,  (b.y - a.y) / img.width, (c.x - a.x) / img.height,
                                 (c.y - a.y) / img.height, a.x,                     a.y};
    } else {
        imageToPage = m * Matrix::translate(xDest, yDest) *
                      Matrix::scale(double(cxDest) / img.width, double(cyDest) / img.height);
    }
    const Paint paint = texture.kind == Paint::Kind::None ? Paint::solid(Rgb::black()) : texture;
    if (cbBmiMask == 0 || cbBitsMask == 0) {
        device.drawImage(img, imageToPage, paint, rs);
        return true;
    }
    Path inside;
    if (!maskPath(rec.sub(offBmiMask, cbBmiMask), rec.sub(offBitsMask, cbBitsMask), xMask, yMask, img.width,
                  img.height, imageToPage, inside)) {
        device.drawImage(img, imageToPage, paint, rs);
        return true;
    }
    // The foreground ROP inside the mask's set bits, the background ROP outside them.
    const uint8_t background = uint8_t(rop >> 24);
    RenderState fore = rs;
    auto clipped = [&](const Path& p, FillRule rule) {
        auto clip = std::make_shared<ClipRegion>();
        if (dc.clip)
            clip->entries = dc.clip->entries;
        clip->entries.push_back({p, rule});
        return clip;
    };
    if (!inside.empty()) {
        fore.clip = clipped(inside, FillRule::NonZero);
        device.drawImage(img, imageToPage, paint, fore);
    }
    if (background != 0xAA) { // 0xAA keeps the destination
        Path outside;
        outside.addRect(-1e5, -1e5, 2e5, 2e5);
        outside.append(inside);
        RenderState back = rs;
        back.rop3 = background;
        back.clip = clipped(outside, FillRule::EvenOdd);
        device.drawImage(img, imageToPage, paint, back);
    }
    return true;
}

bool Player::Impl::maskPath(Bytes info, Bytes bits, int32_t x0, int32_t y0, int width, int height,
                            const Matrix& imageToPage, Path& out) {
    if (!info.size || !bits.size) {
        warnOnce("a mask whose data runs past the end of its record is left out");
        return false;
    }
    DibResult mask = decodeDib(info, bits);
    if (!mask.image) {
        warnOnce(mask.problem + " as a mask is left out");
        return false;
    }
    // One rectangle for each run of set (light) mask pixels, at most this many.
    constexpr size_t kMaxRuns = size_t(1) << 16;
    size_t runs = 0;
    const Image& mi = *mask.image;
    auto set = [&](int x, int y) {
        const int mx = x + x0, my = y + y0;
        if (mx < 0 || my < 0 || mx >= mi.width || my >= mi.height)
            return false;
        const uint8_t* p = mi.data.data() + size_t(my) * mi.stride + size_t(mx) * 3;
        return p[0] + p[1] + p[2] > 382;
    };
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width;) {
            if (!set(x, y)) {
                ++x;
                continue;
            }
            const int start = x;
            while (x < width && set(x, y))
                ++x;
            if (++runs > kMaxRuns) {
                warnOnce("a mask too detailed to follow is left out");
                return false;
            }
            out.append(rectPath(imageToPage, start, y, x, y + 1));
        }
    }
    return true;
}

bool Player::Impl::regionPath(Bytes rgn, Path& out) const {
    const uint32_t headerSize = rgn.u32(0), count = rgn.u32(8);
    if (headerSize < 32 || count > rgn.size / 16 || !rgn.has(headerSize, size_t(count) * 16))
        return false;
    const Matrix deviceToPage{devPxToPtX, 0, 0, devPxToPtY, -placement.originXMm * 72 / 25.4,
                              -placement.originYMm * 72 / 25.4};
    for (uint32_t i = 0; i < count; ++i) {
        const size_t o = headerSize + size_t(i) * 16;
        const Point a = deviceToPage.apply({double(rgn.i32(o)), double(rgn.i32(o + 4))});
        const Point b = deviceToPage.apply({double(rgn.i32(o + 8)), double(rgn.i32(o + 12))});
        if (b.x > a.x && b.y > a.y)
            out.addRect(a.x, a.y, b.x - a.x, b.y - a.y);
    }
    return true;
}

bool Player::Impl::playRegionRecord(uint32_t type, Bytes rec) {
    switch (type) {
    case EMR_EXTSELECTCLIPRGN: {
        const uint32_t size = rec.u32(8), mode = rec.u32(12);
        if (mode == RGN_COPY && size == 0) {
            dc.clip.reset();
            return true;
        }
        Path p;
        if (!regionPath(rec.sub(16, size), p)) {
            warnOnce("a clipping region that runs past its record is ignored");
            return true;
        }
        combineClip(std::move(p), FillRule::NonZero, mode);
        return true;
    }
    case EMR_INTERSECTCLIPRECT:
    case EMR_EXCLUDECLIPRECT: {
        const Matrix m = logicalToPage();
        const Path p = rectPath(m, rec.i32(8), rec.i32(12), rec.i32(16), rec.i32(20));
        combineClip(p, FillRule::NonZero, type == EMR_EXCLUDECLIPRECT ? RGN_DIFF : RGN_AND);
        return true;
    }
    case EMR_OFFSETCLIPRGN:
        if (dc.clip) {
            const Matrix m = logicalToPage();
            const Point o = m.applyVector({double(rec.i32(8)), double(rec.i32(12))});
            std::vector<ClipRegion::Entry> entries = dc.clip->entries;
            for (auto& e : entries)
                e.path = e.path.transformed(Matrix::translate(o.x, o.y));
            setClipEntries(std::move(entries));
        }
        return true;
    case EMR_FILLRGN:
    case EMR_PAINTRGN:
    case EMR_INVERTRGN:
    case EMR_FRAMERGN: {
        const uint32_t size = rec.u32(24);
        const size_t at = type == EMR_FILLRGN ? 32 : type == EMR_FRAMERGN ? 40 : 28;
        Path p;
        if (!regionPath(rec.sub(at, size), p)) {
            warnOnce("a region that runs past its record is left out");
            return true;
        }
        if (inPath)
            return true;
        BrushObject brush = dc.brush;
        if (type == EMR_FILLRGN || type == EMR_FRAMERGN) {
            const uint32_t index = rec.u32(28);
            if (index & 0x80000000u)
                brush = BrushObject::solid((index & 0x7fffffffu) == 4 ? Rgb::black() : Rgb::white());
            else if (index < objects.size() && objects[index].kind == GdiObject::Kind::Brush)
                brush = objects[index].brush;
        }
        RenderState rs = renderState();
        if (type == EMR_INVERTRGN) {
            rs.rop3 = 0x55; // DSTINVERT
            device.fillPath(p, FillRule::NonZero, Paint::solid(Rgb::black()), rs);
        } else if (type == EMR_FRAMERGN) {
            StrokeStyle st;
            st.width = std::max(1, rec.i32(32)) * devPxToPtX;
            device.strokePath(p, st, brushPaint(brush), rs);
        } else {
            device.fillPath(p, FillRule::NonZero, brushPaint(brush), rs);
        }
        return true;
    }
    default:
        return false;
    }
}

} // namespace qx::emf
