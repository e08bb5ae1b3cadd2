// The rasterising device. How a page is drawn:
//  - the page buffer holds RGB (depth 24), 8-bit grey (depth 8) or one bit a pixel (depth 1),
//    white at the start; colours are turned into grey (BT.601 luma) as they arrive on a grey or
//    black-and-white page;
//  - paths are turned into coverage by cairo with antialiasing off, band by band into a small
//    A8 buffer over the call's bounding box (never a page-sized mask); one-pixel lines and
//    dashes are done here; images and masks are sampled nearest-neighbour at pixel centres;
//  - each covered stretch of a row, cut by the clip (a cached 1-bit mask, or a rectangle), is
//    composited with the raster operation over D, S and T and the transparency rules; on a
//    black-and-white page S and T are first halftoned with an ordered 16x16 matrix anchored at
//    the page's corner, and the operation works on the bits;
//  - at the end of the page the buffer is handed over as it is.
#include "render/raster_device_impl.h"

#include <new>

#if defined(__linux__)
#include <sys/mman.h>
#include <unistd.h>
#endif

namespace qx {

namespace raster {

const uint8_t (&ditherThresholds())[16][16] {
    struct Table {
        uint8_t v[16][16];
    };
    static const Table table = [] {
        Table t{};
        for (int y = 0; y < 16; ++y) {
            for (int x = 0; x < 16; ++x) {
                // Recursive Bayer order: the lowest coordinate bits weigh most, so that
                // neighbouring pixels get thresholds far apart (a dispersed dot).
                int v = 0;
                for (int bit = 0; bit < 4; ++bit) {
                    const int xb = (x >> bit) & 1, yb = (y >> bit) & 1;
                    v = v * 4 + 2 * (xb ^ yb) + yb;
                }
                // v runs over 0..255: a grey g prints black where g <= v, so that g = 128
                // prints exactly half of the cell; 255 never prints.
                t.v[y][x] = static_cast<uint8_t>(std::min(v + 1, 255));
            }
        }
        return t;
    }();
    return table.v;
}

} // namespace raster



namespace {
bool sameRect(const IRect& a, const IRect& b) {
    return a.x0 == b.x0 && a.y0 == b.y0 && a.x1 == b.x1 && a.y1 == b.y1;
}
bool contains(const IRect& outer, const IRect& inner) {
    return outer.x0 <= inner.x0 && outer.y0 <= inner.y0 && outer.x1 >= inner.x1 && outer.y1 >= inner.y1;
}
} // namespace

bool RasterDevice::Impl::RectFill::same(const RectFill& o) const {
    if (active != o.active || !sameRect(area, o.area) || rop != o.rop || srcTransparent != o.srcTransparent ||
        patTransparent != o.patTransparent || paint.kind != o.paint.kind)
        return false;
    if (paint.kind != Paint::Kind::Pattern)
        return paint.color == o.paint.color;
    const PatternTile* a = paint.pattern.get();
    const PatternTile* b = o.paint.pattern.get();
    if (a == b)
        return true;
    const Matrix &m = a->tileToPage, &n = b->tileToPage;
    return a->width == b->width && a->height == b->height && a->pixels == b->pixels && m.a == n.a &&
           m.b == n.b && m.c == n.c && m.d == n.d && m.e == n.e && m.f == n.f;
}

bool RasterDevice::Impl::deferRectFill(const IRect& area, const Paint& paint) {
    if (raster::ropUsesDest(rop))
        return false;
    RectFill f;
    f.active = true;
    f.area = area;
    f.paint = paint;
    f.rop = rop;
    f.srcTransparent = srcTransparent;
    f.patTransparent = patTransparent;
    if (tex.solid || !patTransparent || !patAnyWhite) {
        // Every pixel of area is set whatever lies beneath: fills put off inside it cannot
        // show; the others are drawn before it.
        if (pendingBase.active && contains(area, pendingBase.area))
            pendingBase = RectFill{};
        if (pendingTop.active && contains(area, pendingTop.area))
            pendingTop = RectFill{};
        drawDeferredFills();
        pendingBase = std::move(f);
        return true;
    }
    // The page shows through the pattern's white: the same fill again changes nothing.
    if (pendingTop.same(f))
        return true;
    if (pendingTop.active)
        drawDeferredFills();
    pendingTop = std::move(f);
    return true;
}

void RasterDevice::Impl::drawRectFill(const RectFill& f) {
    if (!f.active || !setPaint(f.paint, f.rop, f.srcTransparent, f.patTransparent))
        return;
    stats.rectPixels += uint64_t(f.area.width()) * uint64_t(f.area.height());
    for (int y = f.area.y0; y < f.area.y1; ++y)
        composite(y, f.area.x0, f.area.width(), nullptr, nullptr);
}

bool RasterDevice::Impl::drawDeferredFills() {
    if (!pendingBase.active && !pendingTop.active)
        return false;
    const RectFill base = std::move(pendingBase), top = std::move(pendingTop);
    pendingBase = RectFill{};
    pendingTop = RectFill{};
    drawRectFill(base);
    drawRectFill(top);
    return true;
}

namespace {

// Makes buf a page of `bytes` bytes, all `white`. A large page is mapped in huge pages where the
// system offers them, and its memory is taken in one call before it is filled: touching fresh
// memory one small page at a time costs a fault each, which on a virtual machine can cost more
// than drawing and compressing the page. The page's memory is all used either way.
void allocatePage(std::vector<uint8_t>& buf, size_t bytes, uint8_t white) {
    buf.clear();
    buf.shrink_to_fit();
    buf.reserve(bytes);
#if defined(__linux__)
    constexpr size_t kLargePage = size_t(8) << 20;
    if (bytes >= kLargePage) {
        const uintptr_t start = reinterpret_cast<uintptr_t>(buf.data());
        const uintptr_t end = start + bytes;
        constexpr uintptr_t huge = uintptr_t(2) << 20;
        const uintptr_t hugeStart = (start + huge - 1) & ~(huge - 1), hugeEnd = end & ~(huge - 1);
#ifdef MADV_HUGEPAGE
        if (hugeStart < hugeEnd)
            ::madvise(reinterpret_cast<void*>(hugeStart), hugeEnd - hugeStart, MADV_HUGEPAGE);
#endif
        const long sys = ::sysconf(_SC_PAGESIZE);
        const uintptr_t small = sys > 0 ? uintptr_t(sys) : 4096;
        const uintptr_t first = (start + small - 1) & ~(small - 1), last = end & ~(small - 1);
        // Linux 5.14 and later; elsewhere the fill below takes the memory as it goes.
        constexpr int kPopulateWrite = 23; // MADV_POPULATE_WRITE
        if (first < last)
            ::madvise(reinterpret_cast<void*>(first), last - first, kPopulateWrite);
    }
#endif
    buf.assign(bytes, white);
}

} // namespace

RasterDevice::RasterDevice(const RasterOptions& options, PageSink& sink)
    : d(std::make_unique<Impl>(options, sink)) {}

RasterDevice::~RasterDevice() = default;

void RasterDevice::beginPage(const PageSpec& page) {
    if (d->inPage)
        endPage();
    if (d->failed)
        return;
    d->geo = computePageGeometry(d->options, page);
    d->ptd = d->geo.pageToDevice();
    d->pageRect = {0, 0, d->geo.widthPx, d->geo.heightPx};
    d->C = d->geo.depth == 24 ? 3 : 1;
    d->bilevel = d->geo.depth == 1;
    d->stride = d->bilevel ? size_t(d->geo.widthPx + 7) / 8 : size_t(d->geo.widthPx) * d->C;
    const size_t bytes = d->stride * size_t(d->geo.heightPx);
    const uint8_t white = d->bilevel ? 0 : 255; // no bits set on a bilevel page, 255 elsewhere
    if (d->buf.size() == bytes && d->lastWidth == d->geo.widthPx && d->lastHeight == d->geo.heightPx &&
        d->lastDepth == d->geo.depth) {
        // The last page's buffer, white wherever it was not drawn on: clear what was.
        if (d->inkTop < d->inkBottom)
            std::memset(d->row(d->inkTop), white, d->stride * size_t(d->inkBottom - d->inkTop));
    } else {
        try {
            allocatePage(d->buf, bytes, white);
        } catch (const std::bad_alloc&) {
            // No page can be made at this size: stop, as if the output could not be written.
            d->buf.clear();
            d->buf.shrink_to_fit();
            d->failed = true;
            d->lastWidth = -1;
            return;
        }
        d->lastWidth = d->geo.widthPx;
        d->lastHeight = d->geo.heightPx;
        d->lastDepth = d->geo.depth;
    }
    d->inkTop = d->geo.heightPx;
    d->inkBottom = 0;
    d->clip = ClipState{};
    d->pendingBase = d->pendingTop = Impl::RectFill{};
    d->inPage = true;
}

void RasterDevice::endPage() {
    if (!d->inPage)
        return;
    d->drawDeferredFills();
    d->inPage = false;
    if (d->failed)
        return;
    // The page buffer already is the output: lend it to the sink and take it back.
    RasterPage& out = d->out;
    out.width = d->geo.widthPx;
    out.height = d->geo.heightPx;
    out.xdpi = d->geo.xdpi;
    out.ydpi = d->geo.ydpi;
    out.format = d->bilevel            ? RasterPage::Format::Bilevel
                 : d->geo.depth == 8 ? RasterPage::Format::Gray8
                                     : RasterPage::Format::Rgb24;
    out.stride = d->stride;
    out.inkTop = std::clamp(d->inkTop, 0, out.height);
    out.inkBottom = std::clamp(d->inkBottom, out.inkTop, out.height);
    out.data = std::move(d->buf);
    // The coverage bands are not needed while the page is written: give their memory back
    // for the writer's codecs (swapped with empty ones: assigning {} would keep their capacity).
    std::vector<uint8_t>().swap(d->band);
    std::vector<uint8_t>().swap(d->band2);
    d->bandClean = true;
    const bool ok = d->sink.writePage(out);
    d->buf = std::move(out.data);
    out.data = {};
    d->clip = ClipState{};
    if (ok)
        ++d->written;
    else
        d->failed = true;
}

void RasterDevice::discardPage() {
    // The rows it drew on stay marked, so the next page clears them.
    d->inPage = false;
    d->pendingBase = d->pendingTop = Impl::RectFill{};
    d->clip = ClipState{};
}

Matrix RasterDevice::pageToDevice() const { return d->ptd; }

void RasterDevice::fillPath(const Path& path, FillRule rule, const Paint& paint,
                            const RenderState& rs) {
    if (path.empty() || !Impl::wellFormed(path) || !d->beginCall(paint, rs))
        return;
    const IRect box = intersect(deviceBounds(path.points(), d->ptd, 1), d->clip.bound);
    if (box.empty())
        return;
    d->inked(box);
    IRect cover;
    const bool rect = d->rectCover(path, box, cover);
    if (rect && d->clip.rect && d->deferRectFill(cover, paint)) {
        ++d->stats.rectangles;
        return;
    }
    if (d->drawDeferredFills())
        d->setPaint(paint, rs.rop3, rs.sourceTransparent, rs.patternTransparent);
    if (rect) {
        // A rectangle: each row is one stretch, drawn straight away.
        ++d->stats.rectangles;
        d->stats.rectPixels += uint64_t(cover.width()) * uint64_t(cover.height());
        for (int y = cover.y0; y < cover.y1; ++y)
            d->clippedRuns(y, cover.x0, cover.x1,
                           [&](int a, int b) { d->composite(y, a, b - a, nullptr, nullptr); });
        return;
    }
    if (auto scan = d->scanConverterFor(path, rule, box.x0, box.x1)) {
        d->scanFill(*scan, box);
        d->recycle(std::move(scan));
        return;
    }
    d->rasterise(box, [&](uint8_t* data, int bstride, int x0, int y0, int w, int h) {
        d->withCairo(data, bstride, x0, y0, w, h, [&](cairo_t* cr) {
            d->appendPath(cr, path);
            cairo_set_fill_rule(cr, rule == FillRule::EvenOdd ? CAIRO_FILL_RULE_EVEN_ODD
                                                              : CAIRO_FILL_RULE_WINDING);
            cairo_fill(cr);
        });
    });
}

void RasterDevice::strokePath(const Path& path, const StrokeStyle& style, const Paint& paint,
                              const RenderState& rs) {
    if (d->inPage)
        d->drawDeferredFills(); // they lie beneath whatever comes now
    if (path.empty() || !Impl::wellFormed(path) || !d->beginCall(paint, rs))
        return;
    const double sx = d->geo.scaleX, sy = d->geo.scaleY;
    const double width = std::isfinite(style.width) ? std::fabs(style.width) : 0;
    // Lines thinner than a pixel are drawn one pixel wide, so that they never break up.
    const bool thin = width * sx < 1 && width * sy < 1;

    bool dashed = !style.dashes.empty();
    double dashTotal = 0;
    for (double v : style.dashes) {
        if (!std::isfinite(v) || v < 0)
            dashed = false;
        else
            dashTotal += v;
    }
    if (!(dashTotal > 0))
        dashed = false;

    double pad = 2;
    if (!thin) {
        double factor = 1;
        if (style.join == StrokeStyle::Join::Miter && std::isfinite(style.miterLimit))
            factor = std::max(factor, style.miterLimit);
        if (style.cap == StrokeStyle::Cap::Square)
            factor = std::max(factor, std::sqrt(2.0));
        pad = std::min(width / 2 * std::max(sx, sy) * factor + 2, 1e7);
    }
    const IRect box = intersect(deviceBounds(path.points(), d->ptd, pad), d->clip.bound);
    if (box.empty())
        return;
    d->inked(box);

    // Dashes finer than a pixel cannot be seen: such a line is drawn solid.
    if (dashed && dashTotal * std::min(sx, sy) < 1)
        dashed = false;
    std::vector<std::vector<Point>> lines;
    if (thin || dashed) {
        lines = d->flatten(path);
        if (dashed) {
            const Impl::Box keep{(box.x0 - pad) / sx, (box.y0 - pad) / sy, (box.x1 + pad) / sx,
                                 (box.y1 + pad) / sy};
            lines = Impl::dash(lines, style.dashes, style.dashOffset, keep);
        }
    }

    if (thin) {
        for (auto& line : lines)
            for (Point& p : line)
                p = d->ptd.apply(p);
        d->rasterise(box, [&](uint8_t* data, int bstride, int x0, int y0, int w, int h) {
            for (const auto& line : lines) {
                // A lone point (a bare move) draws nothing; a zero-length segment draws a dot.
                for (size_t i = 1; i < line.size(); ++i)
                    Impl::plotSegment(data, bstride, x0, y0, w, h, line[i - 1], line[i]);
            }
        });
        return;
    }

    d->rasterise(box, [&](uint8_t* data, int bstride, int x0, int y0, int w, int h) {
        d->withCairo(data, bstride, x0, y0, w, h, [&](cairo_t* cr) {
            if (dashed) {
                // The dashes as separate open pieces, each with its own caps.
                const double lx = kCairoLimitPx / sx, ly = kCairoLimitPx / sy;
                for (const auto& line : lines) {
                    if (line.size() < 2)
                        continue;
                    cairo_move_to(cr, std::clamp(line[0].x, -lx, lx), std::clamp(line[0].y, -ly, ly));
                    for (size_t i = 1; i < line.size(); ++i)
                        cairo_line_to(cr, std::clamp(line[i].x, -lx, lx),
                                      std::clamp(line[i].y, -ly, ly));
                }
            } else {
                d->appendPath(cr, path);
            }
            cairo_set_line_width(cr, width);
            switch (style.cap) {
            case StrokeStyle::Cap::Butt: cairo_set_line_cap(cr, CAIRO_LINE_CAP_BUTT); break;
            case StrokeStyle::Cap::Round: cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND); break;
            case StrokeStyle::Cap::Square: cairo_set_line_cap(cr, CAIRO_LINE_CAP_SQUARE); break;
            }
            switch (style.join) {
            case StrokeStyle::Join::Miter: cairo_set_line_join(cr, CAIRO_LINE_JOIN_MITER); break;
            case StrokeStyle::Join::Round: cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND); break;
            case StrokeStyle::Join::Bevel: cairo_set_line_join(cr, CAIRO_LINE_JOIN_BEVEL); break;
            }
            cairo_set_miter_limit(cr, std::isfinite(style.miterLimit)
                                          ? std::max(1.0, style.miterLimit) : 10.0);
            cairo_stroke(cr);
        });
    });
}

void RasterDevice::drawImage(const Image& image, const Matrix& imageToPage, const Paint& texture,
                             const RenderState& rs) {
    if (d->inPage)
        d->drawDeferredFills(); // they lie beneath whatever comes now
    const int iw = image.width, ih = image.height;
    const size_t bpp = image.format == Image::Format::Gray8 ? 1 : 3;
    if (iw <= 0 || ih <= 0 || image.stride < size_t(iw) * bpp ||
        image.data.size() < image.stride * size_t(ih - 1) + size_t(iw) * bpp)
        return;
    if (!d->beginCall(texture, rs))
        return;
    const auto place = d->placeGrid(imageToPage, iw, ih);
    if (!place)
        return;
    const Matrix inv = place->inv;
    const IRect box = place->box;
    d->inked(box);

    const int C = d->C;
    const bool axisAligned = inv.b == 0 && inv.c == 0;
    if (axisAligned && (std::fabs(inv.a) > 1 + 1e-9 || std::fabs(inv.d) > 1 + 1e-9)) {
        d->drawReducedImage(image, inv, box);
        return;
    }
    if (axisAligned) {
        d->colIdx.resize(size_t(box.width()));
        for (int x = box.x0; x < box.x1; ++x)
            d->colIdx[size_t(x - box.x0)] = Impl::gridIndex(inv.a * (x + 0.5) + inv.e, iw);
    }

    auto fetch = [&](const uint8_t* px, uint8_t* s, uint8_t* sw) {
        if (image.format == Image::Format::Gray8) {
            const uint8_t g = px[0];
            s[0] = g;
            if (C == 3)
                s[1] = s[2] = g;
            *sw = g == 255;
        } else {
            if (C == 1)
                s[0] = raster::luminance(px[0], px[1], px[2]);
            else
                std::memcpy(s, px, 3);
            *sw = px[0] == 255 && px[1] == 255 && px[2] == 255;
        }
    };

    for (int y = box.y0; y < box.y1; ++y) {
        int xa, xb;
        if (!Impl::rowSpan(inv, y, iw, ih, box.x0, box.x1, xa, xb))
            continue;
        const double cy = y + 0.5;
        d->clippedRuns(y, xa, xb, [&](int a, int b) {
            const int n = b - a;
            d->ensureScratch(size_t(n) * C, size_t(n));
            uint8_t* s = d->sbuf.data();
            uint8_t* sw = d->swhite.data();
            if (axisAligned) {
                const int j = Impl::gridIndex(inv.d * cy + inv.f, ih);
                const uint8_t* srow = image.data.data() + size_t(j) * image.stride;
                const int64_t* cols = d->colIdx.data() + (a - box.x0);
                const bool direct = (image.format == Image::Format::Gray8) == (C == 1);
                if (direct && !d->bilevel && d->tex.solid && cols[n - 1] - cols[0] == n - 1) {
                    // Picture pixels one to one onto the page, in the page's own channels.
                    d->compositeRow(y, a, n, srow + size_t(cols[0]) * bpp);
                    return;
                }
                if (image.format == Image::Format::Rgb24 && C == 3) {
                    for (int k = 0; k < n; ++k) {
                        const uint8_t* p = srow + size_t(cols[k]) * 3;
                        uint8_t* q = s + size_t(k) * 3;
                        q[0] = p[0];
                        q[1] = p[1];
                        q[2] = p[2];
                        sw[k] = (p[0] & p[1] & p[2]) == 255;
                    }
                } else if (image.format == Image::Format::Gray8 && C == 1) {
                    for (int k = 0; k < n; ++k) {
                        s[k] = srow[cols[k]];
                        sw[k] = s[k] == 255;
                    }
                } else {
                    for (int k = 0; k < n; ++k)
                        fetch(srow + size_t(cols[k]) * bpp, s + size_t(k) * C, sw + k);
                }
            } else {
                for (int k = 0; k < n; ++k) {
                    const double cx = a + k + 0.5;
                    const int i = Impl::gridIndex(inv.a * cx + inv.c * cy + inv.e, iw);
                    const int j = Impl::gridIndex(inv.b * cx + inv.d * cy + inv.f, ih);
                    fetch(image.data.data() + size_t(j) * image.stride + size_t(i) * bpp,
                          s + size_t(k) * C, sw + k);
                }
            }
            d->composite(y, a, n, s, sw);
        });
    }
}

void RasterDevice::fillMask(const Mask& mask, const Matrix& maskToPage, const Paint& paint,
                            const RenderState& rs) {
    if (d->inPage)
        d->drawDeferredFills(); // they lie beneath whatever comes now
    const int mw = mask.width, mh = mask.height;
    if (mw <= 0 || mh <= 0 || mask.stride < size_t(mw + 7) / 8 ||
        mask.bits.size() < mask.stride * size_t(mh - 1) + size_t(mw + 7) / 8)
        return;
    if (!d->beginCall(paint, rs))
        return;
    const auto place = d->placeGrid(maskToPage, mw, mh);
    if (!place)
        return;
    const Matrix inv = place->inv;
    const IRect box = place->box;
    d->inked(box);

    const bool axisAligned = inv.b == 0 && inv.c == 0;
    if (axisAligned && nearly(inv.a, 1) && nearly(inv.d, 1)) {
        // One mask pixel to one device pixel: find the runs of ink straight from the bits.
        const int64_t ox = floorToInt64(0.5 + inv.e), oy = floorToInt64(0.5 + inv.f);
        // Device x = mask column - ox.
        const int64_t cLo = std::max<int64_t>(0, box.x0 + ox);
        const int64_t cHi = std::min<int64_t>(mw, box.x1 + ox);
        if (d->clip.rect && d->tex.solid && !d->constUsesDest) {
            if (d->bilevel)
                d->stampUnitMaskBits(mask, box, ox, oy, cLo, cHi);
            else if (d->C == 1)
                d->stampUnitMask(mask, box, ox, oy, cLo, cHi);
            else
                d->stampUnitMaskRgb(mask, box, ox, oy, cLo, cHi);
            return;
        }
        for (int y = box.y0; y < box.y1; ++y) {
            const int64_t j = y + oy;
            if (j < 0 || j >= mh)
                continue;
            const uint8_t* bits = mask.bits.data() + size_t(j) * mask.stride;
            auto bit = [&](int64_t c) { return bits[c >> 3] & (0x80 >> (c & 7)); };
            int64_t c = cLo;
            while (c < cHi) {
                while (c < cHi && !bit(c)) {
                    if ((c & 7) == 0 && c + 8 <= cHi && bits[c >> 3] == 0)
                        c += 8;
                    else
                        ++c;
                }
                const int64_t start = c;
                while (c < cHi && bit(c)) {
                    if ((c & 7) == 0 && c + 8 <= cHi && bits[c >> 3] == 0xFF)
                        c += 8;
                    else
                        ++c;
                }
                if (start < c)
                    d->clippedRuns(y, int(start - ox), int(c - ox), [&](int a, int b) {
                        d->composite(y, a, b - a, nullptr, nullptr);
                    });
            }
        }
        return;
    }

    if (axisAligned && (std::fabs(inv.a) > 1 + 1e-9 || std::fabs(inv.d) > 1 + 1e-9)) {
        d->fillReducedMask(mask, inv, box);
        return;
    }
    if (axisAligned) {
        d->colIdx.resize(size_t(box.width()));
        for (int x = box.x0; x < box.x1; ++x)
            d->colIdx[size_t(x - box.x0)] = Impl::gridIndex(inv.a * (x + 0.5) + inv.e, mw);
        if (d->clip.rect && d->tex.solid && !d->constUsesDest) {
            // Scaled raster (say 300 dpi raster on a 600 dpi page) in one colour: set the
            // inked pixels straight from the bits, without looking for runs.
            const int C = d->C;
            const uint8_t* v = d->constOut;
            for (int y = box.y0; y < box.y1; ++y) {
                int xa, xb;
                if (!Impl::rowSpan(inv, y, mw, mh, box.x0, box.x1, xa, xb))
                    continue;
                const int j = Impl::gridIndex(inv.d * (y + 0.5) + inv.f, mh);
                const uint8_t* bits = mask.bits.data() + size_t(j) * mask.stride;
                const int64_t* cols = d->colIdx.data() - box.x0;
                uint8_t* D = d->row(y);
                if (d->bilevel) {
                    const uint8_t* cb = d->constBits[y & 15];
                    for (int x = xa; x < xb; ++x) {
                        const int64_t c = cols[x];
                        if (bits[c >> 3] & (0x80 >> (c & 7))) {
                            const uint8_t m = uint8_t(0x80 >> (x & 7));
                            D[x >> 3] = uint8_t((D[x >> 3] & ~m) | (cb[(x >> 3) & 1] & m));
                        }
                    }
                } else if (C == 1) {
                    for (int x = xa; x < xb; ++x) {
                        const int64_t c = cols[x];
                        const uint8_t keep = uint8_t(((bits[c >> 3] << (c & 7)) & 0x80) ? 0 : 0xFF);
                        D[x] = uint8_t((D[x] & keep) | (v[0] & ~keep));
                    }
                } else {
                    for (int x = xa; x < xb; ++x) {
                        const int64_t c = cols[x];
                        if (bits[c >> 3] & (0x80 >> (c & 7)))
                            std::memcpy(D + size_t(x) * 3, v, 3);
                    }
                }
            }
            return;
        }
    }
    d->cov.resize(size_t(box.width()));
    for (int y = box.y0; y < box.y1; ++y) {
        int xa, xb;
        if (!Impl::rowSpan(inv, y, mw, mh, box.x0, box.x1, xa, xb))
            continue;
        const double cy = y + 0.5;
        uint8_t* cov = d->cov.data();
        if (axisAligned) {
            const int j = Impl::gridIndex(inv.d * cy + inv.f, mh);
            const uint8_t* bits = mask.bits.data() + size_t(j) * mask.stride;
            for (int x = xa; x < xb; ++x) {
                const int64_t i = d->colIdx[size_t(x - box.x0)];
                cov[x - xa] = (bits[i >> 3] & (0x80 >> (i & 7))) ? 0xFF : 0;
            }
        } else {
            for (int x = xa; x < xb; ++x) {
                const double cx = x + 0.5;
                const int i = Impl::gridIndex(inv.a * cx + inv.c * cy + inv.e, mw);
                const int j = Impl::gridIndex(inv.b * cx + inv.d * cy + inv.f, mh);
                const uint8_t* bits = mask.bits.data() + size_t(j) * mask.stride;
                cov[x - xa] = (bits[i >> 3] & (0x80 >> (i & 7))) ? 0xFF : 0;
            }
        }
        d->compositeCoverage(y, xa, cov, xb - xa);
    }
}

int RasterDevice::pagesWritten() const { return d->written; }

const RasterStats& RasterDevice::stats() const { return d->stats; }

bool RasterDevice::sinkFailed() const { return d->failed; }

} // namespace qx
