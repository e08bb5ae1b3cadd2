// The rasterising device's paints and compositing: solid colours and pattern tiles, raster
// operations and transparency on grey, colour and black-and-white rows, coverage bands and
// rectangles.
#include "render/raster_device_impl.h"

#include <bit>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qx {

// ---- paint ------------------------------------------------------------------------------

bool RasterDevice::Impl::preparePattern(const std::shared_ptr<const PatternTile>& tile) {
    if (!tile || tile->width <= 0 || tile->height <= 0 ||
        tile->pixels.size() < size_t(tile->width) * size_t(tile->height))
        return false;
    if (patKey != tile || patChannels != C) {
        const size_t n = size_t(tile->width) * size_t(tile->height);
        patPix.resize(n * C);
        patWhite.resize(n);
        patKeep.resize(n * C);
        patAnyWhite = false;
        for (size_t i = 0; i < n; ++i) {
            const Rgb c = tile->pixels[i];
            uint8_t v[3];
            toDevice(c, v);
            std::memcpy(&patPix[i * C], v, C);
            patWhite[i] = c == Rgb::white();
            patAnyWhite = patAnyWhite || patWhite[i];
            std::memset(&patKeep[i * C], patWhite[i] ? 0xFF : 0, C);
        }
        patKey = tile;
        patChannels = C;
    }
    const auto inv = (ptd * tile->tileToPage).inverted();
    if (!inv)
        return false;
    const Matrix& m = *inv;
    if (!std::isfinite(m.a) || !std::isfinite(m.b) || !std::isfinite(m.c) ||
        !std::isfinite(m.d) || !std::isfinite(m.e) || !std::isfinite(m.f))
        return false;
    tex.solid = false;
    tex.w = tile->width;
    tex.h = tile->height;
    tex.pix = patPix.data();
    tex.white = patWhite.data();
    tex.keep = patKeep.data();
    tex.inv = m;
    tex.unit = nearly(m.a, 1) && nearly(m.d, 1) && std::fabs(m.b) < 1e-12 &&
               std::fabs(m.c) < 1e-12;
    if (tex.unit) {
        tex.ox = floorToInt64(0.5 + m.e);
        tex.oy = floorToInt64(0.5 + m.f);
    }
    return true;
}

bool RasterDevice::Impl::beginCall(const Paint& paint, const RenderState& rs) {
    if (!inPage || failed || paint.kind == Paint::Kind::None)
        return false;
    prepareClip(rs.clip);
    if (clip.empty)
        return false;
    return setPaint(paint, rs.rop3, rs.sourceTransparent, rs.patternTransparent);
}

bool RasterDevice::Impl::setPaint(const Paint& paint, uint8_t rop3, bool sourceTransparent,
                                  bool patternTransparent) {
    rop = rop3;
    srcTransparent = sourceTransparent;
    patTransparent = patternTransparent;
    if (paint.kind == Paint::Kind::Pattern)
        return preparePattern(paint.pattern);
    tex.solid = true;
    toDevice(paint.color, tex.color);
    constUsesDest = raster::ropUsesDest(rop);
    for (int c = 0; c < 3; ++c)
        constOut[c] = raster::rop3(rop, 0, 0, tex.color[c]);
    lutReady = false;
    if (bilevel) {
        const auto& thr = raster::ditherThresholds();
        for (int r = 0; r < 16; ++r) {
            for (int half = 0; half < 2; ++half) {
                uint8_t t = 0;
                for (int i = 0; i < 8; ++i)
                    if (tex.color[0] >= thr[r][half * 8 + i])
                        t |= uint8_t(0x80 >> i);
                solidBits[r][half] = t;
                // S is black (all zero) for fills and masks.
                constBits[r][half] = uint8_t(~raster::rop3Bits<uint8_t>(rop, 0, 0, t));
            }
        }
    }
    return true;
}

void RasterDevice::Impl::fetchTexture(int y, int x0, int n, bool withKeep) {
    const int w = tex.w, h = tex.h;
    uint8_t* t = tbuf.data();
    uint8_t* tw = twhite.data();
    if (tex.unit) {
        const int64_t j = floorMod(y + tex.oy, h);
        const uint8_t* prow = tex.pix + size_t(j) * w * C;
        const uint8_t* wrow = tex.white + size_t(j) * w;
        const uint8_t* krow = tex.keep + size_t(j) * w * C;
        int64_t i = floorMod(x0 + tex.ox, w);
        for (int k = 0; k < n;) {
            const int len = int(std::min<int64_t>(n - k, w - i));
            std::memcpy(t + size_t(k) * C, prow + size_t(i) * C, size_t(len) * C);
            if (withKeep)
                std::memcpy(kbuf.data() + size_t(k) * C, krow + size_t(i) * C, size_t(len) * C);
            else
                std::memcpy(tw + k, wrow + i, size_t(len));
            k += len;
            i = 0;
        }
        return;
    }
    if (fetchTextureRows(y, x0, n, withKeep))
        return;
    fetchTextureWalk(y, x0, n);
    if (withKeep)
        for (int k = 0; k < n; ++k)
            std::memset(kbuf.data() + size_t(k) * C, tw[k] ? 0xFF : 0, size_t(C));
}

bool RasterDevice::Impl::fetchTextureRows(int y, int x0, int n, bool withKeep) {
    const Matrix& m = tex.inv;
    if (m.b != 0 || m.c != 0 || size_t(n) * size_t(tex.h) * 3 > (size_t(4) << 20))
        return false;
    TextureRows& r = texRows;
    if (r.tile != patKey || r.x0 != x0 || r.n != n || r.channels != C || r.inv.a != m.a || r.inv.d != m.d ||
        r.inv.e != m.e || r.inv.f != m.f || r.inv.b != m.b || r.inv.c != m.c) {
        r.tile = patKey;
        r.inv = m;
        r.x0 = x0;
        r.n = n;
        r.channels = C;
        r.have.assign(size_t(tex.h), 0);
        r.pix.resize(size_t(n) * C * tex.h);
        r.white.resize(size_t(n) * tex.h);
        r.keep.resize(size_t(n) * C * tex.h);
    }
    // The tile row of this row, as the walk finds it.
    const double cy = y + 0.5;
    double v = std::fmod(m.b * (x0 + 0.5) + m.d * cy + m.f, double(tex.h));
    if (v < 0)
        v += tex.h;
    if (v >= tex.h)
        v = 0;
    const size_t j = size_t(std::min(int(v), tex.h - 1));
    uint8_t* pix = r.pix.data() + j * size_t(n) * C;
    uint8_t* white = r.white.data() + j * size_t(n);
    uint8_t* keep = r.keep.data() + j * size_t(n) * C;
    if (!r.have[j]) {
        fetchTextureWalk(y, x0, n);
        std::memcpy(pix, tbuf.data(), size_t(n) * C);
        std::memcpy(white, twhite.data(), size_t(n));
        for (int k = 0; k < n; ++k)
            std::memset(keep + size_t(k) * C, white[k] ? 0xFF : 0, size_t(C));
        r.have[j] = 1;
        if (withKeep)
            std::memcpy(kbuf.data(), keep, size_t(n) * C);
        return true;
    }
    std::memcpy(tbuf.data(), pix, size_t(n) * C);
    if (withKeep)
        std::memcpy(kbuf.data(), keep, size_t(n) * C);
    else
        std::memcpy(twhite.data(), white, size_t(n));
    return true;
}

void RasterDevice::Impl::fetchTextureWalk(int y, int x0, int n) {
    const int w = tex.w, h = tex.h;
    uint8_t* t = tbuf.data();
    uint8_t* tw = twhite.data();
    // Walk the tile along the row: tile coordinates kept within the tile, one step a pixel.
    const Matrix& m = tex.inv;
    auto wrap = [](double v, double size) {
        double r = std::fmod(v, size);
        if (r < 0)
            r += size;
        return r >= size ? 0.0 : r;
    };
    const double cx = x0 + 0.5, cy = y + 0.5;
    double u = wrap(m.a * cx + m.c * cy + m.e, w), v = wrap(m.b * cx + m.d * cy + m.f, h);
    const double du = wrap(m.a, w), dv = wrap(m.b, h);
    for (int k = 0; k < n; ++k) {
        const int i = std::min(int(u), w - 1), j = std::min(int(v), h - 1);
        u += du;
        if (u >= w)
            u -= w;
        v += dv;
        if (v >= h)
            v -= h;
        const size_t idx = size_t(j) * w + size_t(i);
        if (C == 1)
            t[k] = tex.pix[idx];
        else
            std::memcpy(t + size_t(k) * 3, tex.pix + idx * 3, 3);
        tw[k] = tex.white[idx];
    }
}

// ---- compositing ------------------------------------------------------------------------

void RasterDevice::Impl::composite(int y, int x0, int n, const uint8_t* s, const uint8_t* sw) {
    if (bilevel) {
        compositeBits(y, x0, n, s, sw);
        return;
    }
    uint8_t* D = row(y) + size_t(x0) * C;
    const size_t nb = size_t(n) * C;
    if (!s && tex.solid) {
        // Every operand but D is constant: a fill, or a table lookup on D.
        if (!constUsesDest) {
            if (C == 1 || (constOut[0] == constOut[1] && constOut[1] == constOut[2])) {
                std::memset(D, constOut[0], nb);
            } else {
                for (int i = 0; i < n; ++i, D += 3) {
                    D[0] = constOut[0];
                    D[1] = constOut[1];
                    D[2] = constOut[2];
                }
            }
            return;
        }
        if (!lutReady) {
            for (int c = 0; c < C; ++c)
                for (int v = 0; v < 256; ++v)
                    lut[c][v] = raster::rop3(rop, uint8_t(v), 0, tex.color[c]);
            lutReady = true;
        }
        if (C == 1) {
            for (int i = 0; i < n; ++i)
                D[i] = lut[0][D[i]];
        } else {
            for (int i = 0; i < n; ++i, D += 3) {
                D[0] = lut[0][D[0]];
                D[1] = lut[1][D[1]];
                D[2] = lut[2][D[2]];
            }
        }
        return;
    }

    ensureScratch(nb, size_t(n));
    if (!s) {
        // A fill with a pattern: S is black; T and its transparency come a row piece at a
        // time, and the raster operation and the transparency work on whole words.
        if (zeros.size() < nb)
            zeros.resize(nb, 0);
        const bool keepWhite = patTransparent;
        if (kbuf.size() < nb)
            kbuf.resize(nb);
        fetchTexture(y, x0, n, keepWhite);
        if (!keepWhite) {
            raster::rop3Run(rop, D, zeros.data(), tbuf.data(), D, nb);
            return;
        }
        raster::rop3Run(rop, D, zeros.data(), tbuf.data(), rbuf.data(), nb);
        raster::blendKeep(D, rbuf.data(), kbuf.data(), nb);
        return;
    }
    stats.pixelsBlended += uint64_t(n);
    const uint8_t* tw = nullptr;
    if (tex.solid) {
        if (C == 1 || (tex.color[0] == tex.color[1] && tex.color[1] == tex.color[2])) {
            std::memset(tbuf.data(), tex.color[0], nb);
        } else {
            for (int i = 0; i < n; ++i)
                std::memcpy(&tbuf[size_t(i) * 3], tex.color, 3);
        }
    } else {
        fetchTexture(y, x0, n);
        tw = twhite.data();
    }
    raster::rop3Run(rop, D, s, tbuf.data(), rbuf.data(), nb);

    // Transparency: a white source pixel leaves the page alone in source transparent
    // mode; where the source is not white, a white texture pixel leaves it alone in
    // pattern transparent mode.
    const bool useSrc = srcTransparent && sw;
    const bool usePat = patTransparent && tw;
    if (!useSrc && !usePat) {
        std::memcpy(D, rbuf.data(), nb);
        return;
    }
    // Chosen without branches: the flags follow the picture, not a predictable pattern.
    const uint8_t* r = rbuf.data();
    const unsigned srcOn = useSrc ? 1u : 0u, patOn = usePat ? 1u : 0u;
    for (int i = 0; i < n; ++i) {
        const unsigned white = sw ? sw[i] : 0u;
        const unsigned patWhite = tw ? tw[i] : 0u;
        const unsigned skip = (white & srcOn) | ((white ^ 1u) & patOn & patWhite);
        const uint8_t keep = uint8_t(0u - skip);
        if (C == 1) {
            D[i] = uint8_t((D[i] & keep) | (r[i] & ~keep));
        } else {
            uint8_t* p = D + size_t(i) * 3;
            const uint8_t* q = r + size_t(i) * 3;
            p[0] = uint8_t((p[0] & keep) | (q[0] & ~keep));
            p[1] = uint8_t((p[1] & keep) | (q[1] & ~keep));
            p[2] = uint8_t((p[2] & keep) | (q[2] & ~keep));
        }
    }
}

void RasterDevice::Impl::compositeRow(int y, int x0, int n, const uint8_t* s) {
    uint8_t* D = row(y) + size_t(x0) * C;
    const size_t nb = size_t(n) * C;
    ensureScratch(nb, size_t(n));
    if (C == 1 || (tex.color[0] == tex.color[1] && tex.color[1] == tex.color[2])) {
        std::memset(tbuf.data(), tex.color[0], nb);
    } else {
        for (int i = 0; i < n; ++i)
            std::memcpy(&tbuf[size_t(i) * 3], tex.color, 3);
    }
    if (!srcTransparent) {
        raster::rop3Run(rop, D, s, tbuf.data(), D, nb);
        return;
    }
    raster::rop3Run(rop, D, s, tbuf.data(), rbuf.data(), nb);
    const uint8_t* r = rbuf.data();
    size_t i = 0;
    if (C == 1) {
        // A white source byte (0xFF) keeps the page: found eight bytes at a time.
        constexpr uint64_t low7 = 0x7F7F7F7F7F7F7F7FULL;
        for (; i + 8 <= nb; i += 8) {
            uint64_t sv, dv, rv;
            std::memcpy(&sv, s + i, 8);
            const uint64_t x = ~sv; // zero bytes where the source is white
            const uint64_t hi = ~(((x & low7) + low7) | x | low7); // their top bits
            const uint64_t keep = (hi >> 7) * 0xFF;
            std::memcpy(&dv, D + i, 8);
            std::memcpy(&rv, r + i, 8);
            dv = (dv & keep) | (rv & ~keep);
            std::memcpy(D + i, &dv, 8);
        }
        for (; i < nb; ++i)
            if (s[i] != 255)
                D[i] = r[i];
        return;
    }
    if (kbuf.size() < nb)
        kbuf.resize(nb);
    uint8_t* k = kbuf.data();
    for (int p = 0; p < n; ++p) {
        const uint8_t* q = s + size_t(p) * 3;
        std::memset(k + size_t(p) * 3, (q[0] & q[1] & q[2]) == 255 ? 0xFF : 0, 3);
    }
    raster::blendKeep(D, r, k, nb);
}

void RasterDevice::Impl::compositeBits(int y, int x0, int n, const uint8_t* s, const uint8_t* sw) {
    uint8_t* D = row(y);
    const int r = y & 15;
    const int x1 = x0 + n;
    const int k0 = x0 >> 3, k1 = (x1 - 1) >> 3;
    auto edge = [&](int k) { return byteSpanMask(k, x0, x1); };
    if (!s && tex.solid && !constUsesDest) {
        putConstBits(y, x0, x1);
        return;
    }
    const uint8_t* thr = raster::ditherThresholds()[r];
    const uint8_t* tg = nullptr;
    const uint8_t* tw = nullptr;
    if (!tex.solid) {
        ensureScratch(size_t(n), size_t(n));
        fetchTexture(y, x0, n);
        tg = tbuf.data();
        tw = twhite.data();
    }
    const bool useSrc = srcTransparent && sw;
    const bool usePat = patTransparent && tw;
    // Bits of the pixels [lo, hi) of byte k: values at or above their threshold (white), or
    // flags that are set. Whole bytes go without branches.
    auto halftone = [&](const uint8_t* v, int bx, int lo, int hi) {
        unsigned b = 0;
        if (lo == bx && hi == bx + 8) {
            const uint8_t* p = v + (bx - x0);
            const uint8_t* t = thr + (bx & 15);
            for (int i = 0; i < 8; ++i)
                b = (b << 1) | unsigned(p[i] >= t[i]);
            return uint8_t(b);
        }
        for (int x = lo; x < hi; ++x)
            if (v[x - x0] >= thr[x & 15])
                b |= 0x80u >> (x - bx);
        return uint8_t(b);
    };
    auto flags = [&](const uint8_t* f, int bx, int lo, int hi) {
        unsigned b = 0;
        if (lo == bx && hi == bx + 8) {
            const uint8_t* p = f + (bx - x0);
            for (int i = 0; i < 8; ++i)
                b = (b << 1) | unsigned(p[i] != 0);
            return uint8_t(b);
        }
        for (int x = lo; x < hi; ++x)
            if (f[x - x0])
                b |= 0x80u >> (x - bx);
        return uint8_t(b);
    };
    for (int k = k0; k <= k1; ++k) {
        const int bx = k * 8;
        const int lo = std::max(bx, x0), hi = std::min(bx + 8, x1);
        const uint8_t sBits = s ? halftone(s, bx, lo, hi) : 0; // no source: black ink
        const uint8_t sWhite = useSrc || usePat ? (sw ? flags(sw, bx, lo, hi) : 0) : 0;
        const uint8_t tBits = tg ? halftone(tg, bx, lo, hi) : solidBits[r][k & 1];
        const uint8_t tWhite = usePat ? flags(tw, bx, lo, hi) : 0;
        const uint8_t dBits = uint8_t(~D[k]);
        const uint8_t res = raster::rop3Bits<uint8_t>(rop, dBits, sBits, tBits);
        uint8_t skip = 0;
        if (useSrc)
            skip |= sWhite;
        if (usePat)
            skip |= uint8_t(~sWhite & tWhite);
        const uint8_t outBits = uint8_t((dBits & skip) | (res & ~skip));
        const uint8_t em = (k == k0 || k == k1) ? edge(k) : 0xFF;
        D[k] = uint8_t((D[k] & ~em) | (~outBits & em));
    }
}

namespace {

// The covered pixels among [64 i, 64 i + 64) of a coverage row of n bytes: pixel 64 i + k is
// bit k.
inline uint64_t coverageWord(const uint8_t* cov, int i, int n) {
    const int base = i * 64;
    const uint8_t* p = cov + base;
    alignas(16) uint8_t tail[64];
    if (base + 64 > n) { // the last, partial word: its pixels, then none
        std::memset(tail, 0, sizeof tail);
        std::memcpy(tail, p, size_t(n - base));
        p = tail;
    }
#if defined(__SSE2__)
    const __m128i zero = _mm_setzero_si128();
    const __m128i v0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const __m128i v1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16));
    const __m128i v2 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 32));
    const __m128i v3 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 48));
    // Most of a band is empty: one test for the whole word.
    const __m128i any = _mm_or_si128(_mm_or_si128(v0, v1), _mm_or_si128(v2, v3));
    if (_mm_movemask_epi8(_mm_cmpeq_epi8(any, zero)) == 0xFFFF)
        return 0;
    auto empty = [&](__m128i v) { return uint64_t(uint32_t(_mm_movemask_epi8(_mm_cmpeq_epi8(v, zero)))); };
    return ~(empty(v0) | (empty(v1) << 16) | (empty(v2) << 32) | (empty(v3) << 48));
#else
    uint64_t m = 0;
    for (int k = 0; k < 64; ++k)
        m |= uint64_t(p[k] != 0) << k;
    return m;
#endif
}

} // namespace

void RasterDevice::Impl::compositeCoverage(int y, int x0, const uint8_t* cov, int n, uint8_t* clear) {
    // The row is read as words of 64 coverage flags: empty stretches are skipped and covered
    // ones measured a word at a time.
    const int words = (n + 63) >> 6;
    const bool direct = directBits();
    int first = n, last = 0; // the covered pixels lie within [first, last)
    int i = 0;
    uint64_t w = words > 0 ? coverageWord(cov, 0, n) : 0; // the flags of word i not used yet
    while (i < words) {
        if (w == 0) {
            if (++i < words)
                w = coverageWord(cov, i, n);
            continue;
        }
        const int a = i * 64 + std::countr_zero(w);
        // The stretch ends at the first uncovered pixel from a on.
        uint64_t gap = ~w & (~uint64_t(0) << (a & 63));
        while (gap == 0 && ++i < words) {
            w = coverageWord(cov, i, n);
            gap = ~w;
        }
        const int b = i < words ? i * 64 + std::countr_zero(gap) : n;
        drawStretch(direct, y, x0 + a, x0 + b);
        first = std::min(first, a);
        last = b;
        if (i < words)
            w &= ~uint64_t(0) << (b & 63);
    }
    // Cleared in one go: a row of an outline holds many short stretches.
    if (clear && first < last)
        std::memset(clear + first, 0, size_t(last - first));
}

// ---- rectangles -------------------------------------------------------------------------

bool RasterDevice::Impl::rectCover(const Path& path, const IRect& box, IRect& cover) {
    const auto& ops = path.ops();
    const auto& pts = path.points();
    if (ptd.b != 0 || ptd.c != 0 || box.width() < 16 || box.height() < 16 || box.width() > kMaxSliceWidth)
        return false;
    size_t n = ops.size();
    if (n > 0 && ops[n - 1] == Path::Op::Close)
        --n;
    if (n < 4 || n > 5 || ops[0] != Path::Op::Move)
        return false;
    for (size_t i = 1; i < n; ++i)
        if (ops[i] != Path::Op::Line)
            return false;
    if (n == 5 && (pts[4].x != pts[0].x || pts[4].y != pts[0].y))
        return false;
    const Point p0 = pts[0], p1 = pts[1], p2 = pts[2], p3 = pts[3];
    const bool across = p0.y == p1.y && p1.x == p2.x && p2.y == p3.y && p3.x == p0.x;
    const bool down = p0.x == p1.x && p1.y == p2.y && p2.x == p3.x && p3.y == p0.y;
    if (!across && !down)
        return false;
    // The same rectangle as the last one (a job that fills the same area again and again)
    // covers the same pixels.
    RectCoverMemo& memo = rectMemo;
    if (memo.valid && memo.n == n && std::equal(pts.begin(), pts.begin() + long(n), memo.pts.begin(),
                                                 [](const Point& u, const Point& v) { return u.x == v.x && u.y == v.y; }) &&
        memo.box.x0 == box.x0 && memo.box.y0 == box.y0 && memo.box.x1 == box.x1 && memo.box.y1 == box.y1 &&
        memo.scaleX == geo.scaleX && memo.scaleY == geo.scaleY && memo.ptd.a == ptd.a && memo.ptd.d == ptd.d &&
        memo.ptd.e == ptd.e && memo.ptd.f == ptd.f) {
        cover = memo.cover;
        return memo.found;
    }
    memo.valid = true;
    memo.n = n;
    std::copy(pts.begin(), pts.begin() + long(n), memo.pts.begin());
    memo.box = box;
    memo.scaleX = geo.scaleX;
    memo.scaleY = geo.scaleY;
    memo.ptd = ptd;
    memo.found = false;
    const Point a = ptd.apply(p0), c = ptd.apply(p2);
    const int xm = std::clamp(clampToInt(std::floor((a.x + c.x) / 2)), box.x0, box.x1 - 1);
    const int ym = std::clamp(clampToInt(std::floor((a.y + c.y) / 2)), box.y0, box.y1 - 1);
    auto fill = [&](int bstride, int x0, int y0, int w, int h) {
        probe.assign(size_t(bstride) * size_t(h), 0);
        withCairo(probe.data(), bstride, x0, y0, w, h, [&](cairo_t* cr) {
            appendPath(cr, path);
            cairo_fill(cr);
        });
    };
    // The covered stretch of `count` cells `step` bytes apart, which must be one stretch.
    auto stretch = [&](int count, size_t step, int& lo, int& hi) {
        lo = 0;
        while (lo < count && !probe[size_t(lo) * step])
            ++lo;
        hi = lo;
        while (hi < count && probe[size_t(hi) * step])
            ++hi;
        for (int i = hi; i < count; ++i)
            if (probe[size_t(i) * step])
                return false;
        return lo < hi;
    };
    int xa, xb, ya, yb;
    ++stats.rectProbes;
    fill(cairo_format_stride_for_width(CAIRO_FORMAT_A8, box.width()), box.x0, ym, box.width(), 1);
    if (!stretch(box.width(), 1, xa, xb))
        return false;
    const int colStride = cairo_format_stride_for_width(CAIRO_FORMAT_A8, 1);
    fill(colStride, xm, box.y0, 1, box.height());
    if (!stretch(box.height(), size_t(colStride), ya, yb))
        return false;
    cover = {box.x0 + xa, box.y0 + ya, box.x0 + xb, box.y0 + yb};
    memo.cover = cover;
    memo.found = true;
    return true;
}

} // namespace qx
