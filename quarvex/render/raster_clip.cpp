// The rasterising device's clip: paths turned into a cached one-bit mask, or a rectangle.
#include "render/raster_device_impl.h"

namespace qx {

void RasterDevice::Impl::appendPath(cairo_t* cr, const Path& path) const {
    const double lx = kCairoLimitPx / geo.scaleX, ly = kCairoLimitPx / geo.scaleY;
    auto cl = [&](Point p) {
        return Point{std::clamp(p.x, -lx, lx), std::clamp(p.y, -ly, ly)};
    };
    const auto& pts = path.points();
    size_t pi = 0;
    for (Path::Op op : path.ops()) {
        switch (op) {
        case Path::Op::Move: {
            const Point p = cl(pts[pi++]);
            cairo_move_to(cr, p.x, p.y);
            break;
        }
        case Path::Op::Line: {
            const Point p = cl(pts[pi++]);
            cairo_line_to(cr, p.x, p.y);
            break;
        }
        case Path::Op::Curve: {
            const Point a = cl(pts[pi]), b = cl(pts[pi + 1]), c = cl(pts[pi + 2]);
            pi += 3;
            cairo_curve_to(cr, a.x, a.y, b.x, b.y, c.x, c.y);
            break;
        }
        case Path::Op::Close: cairo_close_path(cr); break;
        }
    }
}

void RasterDevice::Impl::prepareClip(const std::shared_ptr<const ClipRegion>& region) {
    if (!region || region->entries.empty()) {
        if (!clip.valid || clip.key || !clip.rect || clip.empty)
            setNoClip();
        return;
    }
    if (clip.valid && clip.key == region)
        return;
    clip = ClipState{};
    clip.valid = true;
    clip.key = region;

    IRect box = pageRect;
    for (const ClipRegion::Entry& e : region->entries) {
        if (!wellFormed(e.path) || e.path.empty()) {
            clip.empty = true;
            return;
        }
        box = intersect(box, deviceBounds(e.path.points(), ptd, 1));
    }
    if (box.empty()) {
        clip.empty = true;
        return;
    }
    // Rectangles along the axes (a picture frame, a window, a PCL clip): what passes is a column
    // range on a row range, found as for a rectangle fill, with no mask to render and scan.
    IRect passes = box;
    bool rectangles = true;
    for (const ClipRegion::Entry& e : region->entries) {
        IRect cover;
        if (!rectCover(e.path, box, cover)) {
            rectangles = false;
            break;
        }
        passes = intersect(passes, cover);
    }
    if (rectangles) {
        if (passes.empty()) {
            clip.empty = true;
            return;
        }
        clip.bound = clip.box = passes;
        clip.rect = true;
        return;
    }

    clip.box = box;
    clip.stride = size_t(box.width() + 7) / 8;
    clip.bits.assign(clip.stride * size_t(box.height()), 0);

    // Band by band, and in slices no wider than a cairo surface may be.
    const int sliceW = std::min(box.width(), kMaxSliceWidth);
    const int bstride = cairo_format_stride_for_width(CAIRO_FORMAT_A8, sliceW);
    const int rows = std::max(1, std::min(box.height(), int(kBandBytes / size_t(bstride))));
    band.resize(size_t(bstride) * rows);
    bandClean = false; // the clip's coverage is left in it
    if (region->entries.size() > 1)
        band2.resize(size_t(bstride) * rows);
    std::vector<std::unique_ptr<raster::ScanConverter>> scans;
    for (const ClipRegion::Entry& e : region->entries)
        scans.push_back(scanConverterFor(e.path, e.rule, box.x0, box.x1));
    for (int sx = box.x0; sx < box.x1; sx += kMaxSliceWidth) {
        const int w = std::min(kMaxSliceWidth, box.x1 - sx);
        const size_t byteOffset = size_t(sx - box.x0) / 8; // slices start on whole bytes
        for (int by = box.y0; by < box.y1; by += rows) {
            const int bh = std::min(rows, box.y1 - by);
            const size_t bytes = size_t(bstride) * bh;
            for (size_t i = 0; i < region->entries.size(); ++i) {
                const ClipRegion::Entry& e = region->entries[i];
                uint8_t* target = i == 0 ? band.data() : band2.data();
                std::memset(target, 0, bytes);
                if (scans[i]) {
                    scans[i]->fill(target, bstride, sx, by, w, bh);
                } else {
                    withCairo(target, bstride, sx, by, w, bh, [&](cairo_t* cr) {
                        appendPath(cr, e.path);
                        cairo_set_fill_rule(cr, e.rule == FillRule::EvenOdd
                                                    ? CAIRO_FILL_RULE_EVEN_ODD
                                                    : CAIRO_FILL_RULE_WINDING);
                        cairo_fill(cr);
                    });
                }
                if (i > 0)
                    for (size_t k = 0; k < bytes; ++k)
                        band[k] &= band2[k];
            }
            for (int r = 0; r < bh; ++r) {
                const uint8_t* src = band.data() + size_t(r) * bstride;
                uint8_t* dst =
                    clip.bits.data() + size_t(by - box.y0 + r) * clip.stride + byteOffset;
                int x = 0;
                for (; x + 8 <= w; x += 8) {
                    unsigned b = 0;
                    for (int i = 0; i < 8; ++i)
                        b = (b << 1) | unsigned(src[x + i] != 0);
                    dst[x >> 3] = uint8_t(b);
                }
                for (; x < w; ++x)
                    if (src[x])
                        dst[x >> 3] |= static_cast<uint8_t>(0x80 >> (x & 7));
            }
        }
    }

    // The tight extent of what passes; a clip that fills it is a plain rectangle.
    IRect tight{box.x1, box.y1, box.x0, box.y0};
    size_t count = 0;
    for (int y = box.y0; y < box.y1; ++y) {
        const uint8_t* bits = clip.bits.data() + size_t(y - box.y0) * clip.stride;
        size_t first = clip.stride, last = 0;
        for (size_t i = 0; i < clip.stride; ++i) {
            if (!bits[i])
                continue;
            count += size_t(__builtin_popcount(bits[i]));
            first = std::min(first, i);
            last = i;
        }
        if (first == clip.stride)
            continue;
        int lo = int(first) * 8, hi = int(last) * 8 + 8;
        while (!(bits[lo >> 3] & (0x80 >> (lo & 7))))
            ++lo;
        while (!(bits[(hi - 1) >> 3] & (0x80 >> ((hi - 1) & 7))))
            --hi;
        tight.x0 = std::min(tight.x0, box.x0 + lo);
        tight.x1 = std::max(tight.x1, box.x0 + hi);
        tight.y0 = std::min(tight.y0, y);
        tight.y1 = std::max(tight.y1, y + 1);
    }
    if (count == 0) {
        clip.empty = true;
        clip.bits.clear();
        return;
    }
    clip.bound = tight;
    if (count == size_t(tight.width()) * size_t(tight.height())) {
        clip.rect = true;
        clip.bits.clear();
        clip.bits.shrink_to_fit();
    } else {
        clip.rect = false;
    }
}

} // namespace qx
