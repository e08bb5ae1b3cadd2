// The rasterising device's pictures and masks: one to one stamps, reductions (averaging and
// error diffusion) and the placing of a grid of pixels on the page.
#include "render/raster_device_impl.h"

namespace qx {

void RasterDevice::Impl::stampUnitMaskRgb(const Mask& mask, const IRect& box, int64_t ox,
        int64_t oy, int64_t cLo, int64_t cHi) {
    // widen3[b]: 24 bytes, 0xFF under each pixel whose bit is set in b.
    static const auto widen3 = [] {
        std::array<std::array<uint64_t, 3>, 256> t{};
        for (int b = 0; b < 256; ++b) {
            uint8_t bytes[24] = {};
            for (int i = 0; i < 8; ++i)
                if (b & (0x80 >> i))
                    std::memset(bytes + i * 3, 0xFF, 3);
            std::memcpy(t[b].data(), bytes, 24);
        }
        return t;
    }();
    uint8_t eight[24];
    for (int i = 0; i < 8; ++i)
        std::memcpy(eight + i * 3, constOut, 3);
    forUnitMaskRows(mask, box, ox, oy, cLo, cHi, [&](int y, const uint8_t* bits, int64_t lo,
            int64_t hi) {
        uint8_t* D = row(y) - ox * 3; // D + 3 * c is the pixel under mask column c
        int64_t c = lo;
        for (; c < hi && (c & 7); ++c)
            if (bits[c >> 3] & (0x80 >> (c & 7)))
                std::memcpy(D + c * 3, constOut, 3);
        for (; c + 8 <= hi; c += 8) {
            const uint8_t b = bits[c >> 3];
            if (b == 0)
                continue;
            if (b == 0xFF) {
                std::memcpy(D + c * 3, eight, 24);
                continue;
            }
            // Mixed ink: blend all 24 bytes through a byte mask, without branches.
            const uint64_t* m = widen3[b].data();
            uint64_t dv[3], cv[3];
            std::memcpy(dv, D + c * 3, 24);
            std::memcpy(cv, eight, 24);
            for (int k = 0; k < 3; ++k)
                dv[k] = (dv[k] & ~m[k]) | (cv[k] & m[k]);
            std::memcpy(D + c * 3, dv, 24);
        }
        for (; c < hi; ++c)
            if (bits[c >> 3] & (0x80 >> (c & 7)))
                std::memcpy(D + c * 3, constOut, 3);
    });
}

void RasterDevice::Impl::stampUnitMaskBits(const Mask& mask, const IRect& box, int64_t ox,
        int64_t oy, int64_t cLo, int64_t cHi) {
    forUnitMaskRows(mask, box, ox, oy, cLo, cHi, [&](int y, const uint8_t* bits, int64_t lo,
            int64_t hi) {
        const int xLo = int(lo - ox), xHi = int(hi - ox); // device columns
        const int64_t byteLo = lo >> 3, byteHi = (hi + 7) >> 3; // mask bytes that may be read
        auto rd = [&](int64_t b) -> unsigned { return b >= byteLo && b < byteHi ? bits[b] : 0u; };
        uint8_t* D = row(y);
        const uint8_t* cb = constBits[y & 15];
        auto put = [&](int k, uint8_t m) {
            if (m)
                D[k] = uint8_t((D[k] & ~m) | (cb[k & 1] & m));
        };
        const int kFirst = xLo >> 3, kLast = (xHi - 1) >> 3;
        // The bytes at either end, which the span may cover in part and whose mask bits may
        // lie outside the columns given.
        auto edgeByte = [&](int k) {
            const int64_t c = int64_t(k) * 8 + ox; // mask column under device pixel 8k
            const int64_t b = c >> 3;              // rounds down, negative c included
            const int sh = int(c - b * 8);
            const unsigned v = (((rd(b) << 8) | rd(b + 1)) >> (8 - sh)) & 0xFFu;
            put(k, uint8_t(v & byteSpanMask(k, xLo, xHi)));
        };
        edgeByte(kFirst);
        if (kLast > kFirst)
            edgeByte(kLast);
        // The bytes between cover whole mask bytes inside the columns given.
        if (kLast - kFirst < 2)
            return;
        int k = kFirst + 1;
        const int64_t c0 = int64_t(k) * 8 + ox;
        const int sh = int(c0 & 7);
        const uint8_t* src = bits + (c0 >> 3); // the mask byte under device byte k
        if (sh == 0) {
            // Whole bytes line up: eight page bytes at a time.
            uint8_t pat[16];
            for (int i = 0; i < 16; ++i)
                pat[i] = cb[(k + i) & 1];
            uint64_t fill;
            std::memcpy(&fill, pat, 8); // byte i is cb[(k + i) & 1]; k advances by 8
            for (; k + 8 <= kLast; k += 8, src += 8) {
                uint64_t m, dv;
                std::memcpy(&m, src, 8);
                if (!m)
                    continue;
                std::memcpy(&dv, D + k, 8);
                dv = (dv & ~m) | (fill & m);
                std::memcpy(D + k, &dv, 8);
            }
            for (; k < kLast; ++k, ++src)
                put(k, *src);
        } else {
            for (; k < kLast; ++k, ++src)
                put(k, uint8_t(((unsigned(src[0]) << 8 | src[1]) >> (8 - sh)) & 0xFFu));
        }
    });
}

void RasterDevice::Impl::stampUnitMask(const Mask& mask, const IRect& box, int64_t ox, int64_t oy,
        int64_t cLo, int64_t cHi) {
    static const auto widen = [] {
        std::array<uint64_t, 256> t{};
        for (int b = 0; b < 256; ++b)
            for (int i = 0; i < 8; ++i)
                if (b & (0x80 >> i))
                    t[b] |= uint64_t(0xFF) << (8 * i); // little-endian byte i = pixel i
        return t;
    }();
    const uint8_t v = constOut[0];
    const uint64_t fill = 0x0101010101010101ULL * v;
    forUnitMaskRows(mask, box, ox, oy, cLo, cHi, [&](int y, const uint8_t* bits, int64_t lo,
            int64_t hi) {
        uint8_t* D = row(y) - ox; // D[c] is the pixel under mask column c
        int64_t c = lo;
        for (; c < hi && (c & 7); ++c)
            if (bits[c >> 3] & (0x80 >> (c & 7)))
                D[c] = v;
        for (; c + 8 <= hi; c += 8) {
            const uint8_t b = bits[c >> 3];
            if (b == 0)
                continue;
            if (b == 0xFF) {
                std::memcpy(D + c, &fill, 8);
                continue;
            }
            const uint64_t m = widen[b];
            uint64_t dv;
            std::memcpy(&dv, D + c, 8);
            dv = (dv & ~m) | (fill & m);
            std::memcpy(D + c, &dv, 8);
        }
        for (; c < hi; ++c)
            if (bits[c >> 3] & (0x80 >> (c & 7)))
                D[c] = v;
    });
}

bool RasterDevice::Impl::rowSpan(const Matrix& inv, int y, int w, int h, int lo, int hi, int& xa,
        int& xb) {
    const double cy = y + 0.5;
    const double u0 = inv.c * cy + inv.e + kGridSnap, v0 = inv.d * cy + inv.f + kGridSnap;
    double tlo = lo + 0.5, thi = hi - 0.5; // centres considered
    auto limit = [&](double a, double base, double size) {
        // 0 <= base + a * t < size
        if (a == 0) {
            if (!(base >= 0 && base < size))
                thi = tlo - 1;
            return;
        }
        double t1 = (0 - base) / a, t2 = (size - base) / a;
        if (t1 > t2)
            std::swap(t1, t2);
        tlo = std::max(tlo, t1 - 1);
        thi = std::min(thi, t2 + 1);
    };
    limit(inv.a, u0, w);
    limit(inv.b, v0, h);
    if (!(thi >= tlo))
        return false;
    xa = std::max(lo, clampToInt(std::floor(tlo - 0.5)));
    xb = std::min(hi, clampToInt(std::ceil(thi - 0.5)) + 1);
    auto inside = [&](int x) {
        const double cx = x + 0.5;
        const double u = inv.a * cx + u0, v = inv.b * cx + v0;
        return u >= 0 && u < w && v >= 0 && v < h;
    };
    while (xa < xb && !inside(xa))
        ++xa;
    while (xb > xa && !inside(xb - 1))
        --xb;
    return xa < xb;
}

std::pair<int, int> RasterDevice::Impl::cellSpan(double a, double b, int size) {
    if (a > b)
        std::swap(a, b);
    const double mid = (a + b) / 2 + kGridSnap;
    if (!(mid >= 0 && mid < size))
        return {0, 0};
    int lo = clampToInt(std::ceil(a - 0.5 + kGridSnap)),
            hi = clampToInt(std::ceil(b - 0.5 + kGridSnap));
    lo = std::clamp(lo, 0, size);
    hi = std::clamp(hi, 0, size);
    if (lo >= hi) {
        lo = int(std::floor(mid));
        hi = lo + 1;
    }
    return {lo, hi};
}

void RasterDevice::Impl::fillReducedMask(const Mask& mask, const Matrix& inv, const IRect& box) {
    const int w = box.width();
    std::vector<std::pair<int, int>> cols(static_cast<size_t>(w));
    int cMin = mask.width, cMax = 0;
    for (int x = box.x0; x < box.x1; ++x) {
        auto c = cellSpan(inv.a * x + inv.e, inv.a * (x + 1) + inv.e, mask.width);
        cols[size_t(x - box.x0)] = c;
        if (c.first < c.second) {
            cMin = std::min(cMin, c.first);
            cMax = std::max(cMax, c.second);
        }
    }
    if (cMin >= cMax)
        return;
    std::vector<uint32_t> prefix(static_cast<size_t>(cMax - cMin) + 1), inked(static_cast<size_t>(w));
    ErrorDiffuser diffuser(w);
    cov.resize(size_t(w));
    for (int y = box.y0; y < box.y1; ++y) {
        const auto rows = cellSpan(inv.d * y + inv.f, inv.d * (y + 1) + inv.f, mask.height);
        if (rows.first >= rows.second)
            continue;
        std::fill(inked.begin(), inked.end(), 0u);
        for (int j = rows.first; j < rows.second; ++j) {
            const uint8_t* bits = mask.bits.data() + size_t(j) * mask.stride;
            for (int c = cMin; c < cMax; ++c)
                prefix[size_t(c - cMin) + 1] = prefix[size_t(c - cMin)] + ((bits[c >> 3] >> (7 - (c & 7))) & 1u);
            for (int k = 0; k < w; ++k) {
                const auto [lo, hi] = cols[size_t(k)];
                if (lo < hi)
                    inked[size_t(k)] += prefix[size_t(hi - cMin)] - prefix[size_t(lo - cMin)];
            }
        }
        const uint32_t nRows = uint32_t(rows.second - rows.first);
        for (int k = 0; k < w; ++k) {
            const auto [lo, hi] = cols[size_t(k)];
            const uint32_t cells = nRows * uint32_t(std::max(0, hi - lo));
            // Darkness: the share of the cells that are inked.
            cov[size_t(k)] = cells > 0 && diffuser.ink(k,
                    int((255 * inked[size_t(k)] + cells / 2) / cells)) ? 0xFF : 0;
        }
        diffuser.nextRow();
        compositeCoverage(y, box.x0, cov.data(), w);
    }
}

void RasterDevice::Impl::drawReducedImage(const Image& image, const Matrix& inv, const IRect& box) {
    const int w = box.width();
    const int bpp = image.format == Image::Format::Gray8 ? 1 : 3;
    bool diffuse = bilevel;
    for (int j = 0; diffuse && j < image.height; ++j) {
        const uint8_t* row = image.data.data() + size_t(j) * image.stride;
        diffuse = std::all_of(row, row + size_t(image.width) * bpp,
                [](uint8_t v) { return v == 0 || v == 255; });
    }
    std::vector<std::pair<int, int>> cols(static_cast<size_t>(w));
    for (int x = box.x0; x < box.x1; ++x)
        cols[size_t(x - box.x0)] = cellSpan(inv.a * x + inv.e, inv.a * (x + 1) + inv.e, image.width);
    std::vector<uint32_t> sum(static_cast<size_t>(w) * 3);
    ErrorDiffuser diffuser(w);
    ensureScratch(size_t(w) * C, size_t(w));
    for (int y = box.y0; y < box.y1; ++y) {
        const auto rows = cellSpan(inv.d * y + inv.f, inv.d * (y + 1) + inv.f, image.height);
        if (rows.first >= rows.second)
            continue;
        std::fill(sum.begin(), sum.end(), 0u);
        for (int j = rows.first; j < rows.second; ++j) {
            const uint8_t* src = image.data.data() + size_t(j) * image.stride;
            for (int k = 0; k < w; ++k) {
                const auto [lo, hi] = cols[size_t(k)];
                uint32_t* acc = &sum[size_t(k) * 3];
                for (int i = lo; i < hi; ++i)
                    for (int c = 0; c < bpp; ++c)
                        acc[c] += src[size_t(i) * bpp + c];
            }
        }
        const uint32_t nRows = uint32_t(rows.second - rows.first);
        uint8_t* s = sbuf.data();
        uint8_t* sw = swhite.data();
        for (int k = 0; k < w; ++k) {
            const auto [lo, hi] = cols[size_t(k)];
            const uint32_t cells = nRows * uint32_t(std::max(0, hi - lo));
            if (cells == 0)
                continue;
            uint8_t px[3];
            for (int c = 0; c < bpp; ++c)
                px[c] = uint8_t((sum[size_t(k) * 3 + c] + cells / 2) / cells);
            if (bpp == 1)
                px[1] = px[2] = px[0];
            sw[k] = px[0] == 255 && px[1] == 255 && px[2] == 255;
            if (C == 3) {
                std::memcpy(s + size_t(k) * 3, px, 3);
                continue;
            }
            uint8_t g = bpp == 1 ? px[0] : raster::luminance(px[0], px[1], px[2]);
            if (diffuse)
                g = diffuser.ink(k, 255 - g) ? 0 : 255;
            s[k] = g;
        }
        diffuser.nextRow();
        // Draw the stretches of the row that the image covers.
        for (int k = 0; k < w;) {
            while (k < w && cols[size_t(k)].first >= cols[size_t(k)].second)
                ++k;
            const int start = k;
            while (k < w && cols[size_t(k)].first < cols[size_t(k)].second)
                ++k;
            if (start < k)
                clippedRuns(y, box.x0 + start, box.x0 + k, [&](int a, int b) {
                    composite(y, a, b - a, s + size_t(a - box.x0) * C, sw + (a - box.x0));
                });
        }
    }
}

} // namespace qx
