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
#include "render/raster_device.h"

#include "render/page_geometry.h"
#include "render/raster_ops.h"

#include <cairo.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <new>

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

struct IRect {
    int x0 = 0, y0 = 0, x1 = 0, y1 = 0;
    bool empty() const { return x1 <= x0 || y1 <= y0; }
    int width() const { return x1 - x0; }
    int height() const { return y1 - y0; }
};

IRect intersect(const IRect& a, const IRect& b) {
    return {std::max(a.x0, b.x0), std::max(a.y0, b.y0), std::min(a.x1, b.x1), std::min(a.y1, b.y1)};
}

int clampToInt(double v) {
    if (!(v > -1e9))
        return -1000000000;
    if (!(v < 1e9))
        return 1000000000;
    return static_cast<int>(v);
}

bool allFinite(const std::vector<Point>& pts) {
    for (const Point& p : pts)
        if (!std::isfinite(p.x) || !std::isfinite(p.y))
            return false;
    return true;
}

// Whole device pixels that points mapped by m may touch, widened by pad pixels.
template <class Points>
IRect deviceBounds(const Points& pts, const Matrix& m, double pad) {
    if (pts.empty())
        return {};
    double minX = INFINITY, minY = INFINITY, maxX = -INFINITY, maxY = -INFINITY;
    for (const Point& p : pts) {
        const Point q = m.apply(p);
        if (!std::isfinite(q.x) || !std::isfinite(q.y))
            return {};
        minX = std::min(minX, q.x);
        maxX = std::max(maxX, q.x);
        minY = std::min(minY, q.y);
        maxY = std::max(maxY, q.y);
    }
    return {clampToInt(std::floor(minX - pad)), clampToInt(std::floor(minY - pad)),
            clampToInt(std::ceil(maxX + pad) + 1), clampToInt(std::ceil(maxY + pad) + 1)};
}

// Cairo keeps coordinates in 24.8 fixed point; points beyond this many device pixels are pulled
// in so that a stray huge coordinate cannot wrap around.
constexpr double kCairoLimitPx = 4.0e6;

// The budget of one coverage band.
constexpr size_t kBandBytes = size_t(1) << 20;

// Coverage is rendered in slices at most this wide (cairo's image surfaces stop at 32767
// pixels a side); a multiple of 8, so that slices of a clip mask start on whole bytes.
constexpr int kMaxSliceWidth = 16384;

// A pixel centre within this much (in image or mask pixels) of a grid line counts as past it. An
// image sent in strips puts the same centre on the line through two abutting grids whose
// transforms round differently; nudged alike, it lands in exactly one strip.
constexpr double kGridSnap = 1e-6;

int64_t floorMod(int64_t a, int64_t m) {
    const int64_t r = a % m;
    return r < 0 ? r + m : r;
}

int64_t floorToInt64(double v) {
    if (!(v > -1e15))
        return -1000000000000000LL;
    if (!(v < 1e15))
        return 1000000000000000LL;
    return static_cast<int64_t>(std::floor(v));
}

bool nearly(double a, double b) { return std::fabs(a - b) < 1e-9; }

struct ClipState {
    bool valid = false;
    std::shared_ptr<const ClipRegion> key; // held so that the address cannot be reused
    bool empty = false;
    IRect bound;      // no pixel outside passes
    bool rect = true; // every pixel inside bound passes
    IRect box;        // extent of bits
    size_t stride = 0;
    std::vector<uint8_t> bits; // one bit a pixel over box, most significant bit first

    bool test(int x, int y) const {
        const int ix = x - box.x0;
        return bits[size_t(y - box.y0) * stride + size_t(ix >> 3)] & (0x80 >> (ix & 7));
    }
};

// The bits of one-bit row byte k (most significant first) that lie in pixels [x0, x1).
uint8_t byteSpanMask(int k, int x0, int x1) {
    const int lo = std::max(k * 8, x0) - k * 8, hi = std::min(k * 8 + 8, x1) - k * 8;
    return uint8_t((0xFFu >> lo) & (0xFFu << (8 - hi)));
}

// Floyd-Steinberg error diffusion over rows taken top to bottom: turns darkness (0 white ..
// 255 black) into ink or none, carrying each pixel's error to its unvisited neighbours.
class ErrorDiffuser {
public:
    explicit ErrorDiffuser(int width) : m_here(size_t(width) + 2), m_next(size_t(width) + 2) {}
    bool ink(int k, int dark) {
        dark += m_here[size_t(k) + 1] / 16;
        const bool on = dark >= 128;
        const int e = dark - (on ? 255 : 0);
        m_here[size_t(k) + 2] += 7 * e;
        m_next[size_t(k)] += 3 * e;
        m_next[size_t(k) + 1] += 5 * e;
        m_next[size_t(k) + 2] += e;
        return on;
    }
    void nextRow() {
        std::swap(m_here, m_next);
        std::fill(m_next.begin(), m_next.end(), 0);
    }

private:
    std::vector<int> m_here, m_next; // errors (times 16) for this row and the next, a spare cell each end
};

struct Texture {
    bool solid = true;
    uint8_t color[3] = {0, 0, 0};
    int w = 0, h = 0;
    const uint8_t* pix = nullptr;   // w * h * channels, device channels
    const uint8_t* white = nullptr; // w * h flags: the tile pixel is white
    const uint8_t* keep = nullptr;  // w * h * channels: 0xFF where the tile pixel is white
    Matrix inv;                     // device to tile pixels
    bool unit = false;              // inv is a whole-pixel translation
    int64_t ox = 0, oy = 0;
};

} // namespace

struct RasterDevice::Impl {
    Impl(const RasterOptions& o, PageSink& s) : options(o), sink(s) {}

    RasterOptions options;
    PageSink& sink;
    bool inPage = false;
    bool failed = false;
    int written = 0;

    PageGeometry geo;
    Matrix ptd;
    IRect pageRect;
    int C = 3; // channels of colour values while drawing: 1 grey, 3 RGB
    // Black-and-white pages are kept at one bit a pixel (1 = black, as they are written) and
    // halftoned as they are drawn, the way a printer's raster is: sources, patterns and
    // colours are dithered at their device position and raster operations work on the bits.
    bool bilevel = false;
    std::vector<uint8_t> buf; // the page: grey, RGB or bits
    size_t stride = 0;
    // Rows [inkTop, inkBottom) are the only ones drawing may have changed since the page was
    // white: the next page clears only those, and the TIFF writer knows the others are white.
    int inkTop = 0, inkBottom = 0;
    int lastWidth = -1, lastHeight = -1, lastDepth = -1; // the buffer's shape

    void inked(const IRect& box) {
        inkTop = std::min(inkTop, box.y0);
        inkBottom = std::max(inkBottom, box.y1);
    }
    RasterPage out;

    ClipState clip;
    std::vector<uint8_t> band, band2;
    std::vector<uint8_t> sbuf, swhite, tbuf, twhite, rbuf, cov;
    std::vector<uint8_t> kbuf;  // per channel byte: 0xFF where a white texture pixel keeps the page
    std::vector<uint8_t> zeros; // a source of black, never written but by resizing
    std::vector<uint8_t> probe; // one row or column of rectangle coverage
    RasterStats stats;
    std::vector<int64_t> colIdx;

    std::shared_ptr<const PatternTile> patKey;
    int patChannels = 0;
    std::vector<uint8_t> patPix, patWhite, patKeep;

    // The call being drawn.
    Texture tex;
    uint8_t rop = 252;
    bool srcTransparent = true;
    bool patTransparent = true;
    bool constUsesDest = false;
    uint8_t constOut[3] = {0, 0, 0};
    bool lutReady = false;
    uint8_t lut[3][256];
    // On a bilevel page with a solid colour: the colour dithered (1 = white, as the raster
    // operations see it) and, where the result does not depend on the page, the result
    // (1 = black, as it is stored); two bytes cover the 16-pixel width of the matrix.
    uint8_t solidBits[16][2] = {};
    uint8_t constBits[16][2] = {};

    uint8_t* row(int y) { return buf.data() + size_t(y) * stride; }

    void toDevice(Rgb c, uint8_t* out3) const {
        if (C == 1) {
            out3[0] = out3[1] = out3[2] = raster::luminance(c.r, c.g, c.b);
        } else {
            out3[0] = c.r;
            out3[1] = c.g;
            out3[2] = c.b;
        }
    }

    void ensureScratch(size_t bytes, size_t pixels) {
        if (sbuf.size() < bytes) {
            sbuf.resize(bytes);
            tbuf.resize(bytes);
            rbuf.resize(bytes);
        }
        if (swhite.size() < pixels) {
            swhite.resize(pixels);
            twhite.resize(pixels);
        }
    }

    // ---- clip -------------------------------------------------------------------------------

    void setNoClip() {
        clip = ClipState{};
        clip.valid = true;
        clip.bound = clip.box = pageRect;
        clip.rect = true;
    }

    template <class Draw>
    void withCairo(uint8_t* data, int bandStride, int x0, int y0, int w, int h, Draw&& draw) {
        cairo_surface_t* s =
            cairo_image_surface_create_for_data(data, CAIRO_FORMAT_A8, w, h, bandStride);
        cairo_t* cr = cairo_create(s);
        cairo_set_antialias(cr, CAIRO_ANTIALIAS_NONE);
        cairo_translate(cr, -x0, -y0);
        cairo_scale(cr, geo.scaleX, geo.scaleY);
        draw(cr);
        cairo_destroy(cr);
        cairo_surface_flush(s);
        cairo_surface_destroy(s);
    }

    void appendPath(cairo_t* cr, const Path& path) const {
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

    static bool wellFormed(const Path& path) {
        size_t need = 0;
        for (Path::Op op : path.ops())
            need += op == Path::Op::Curve ? 3 : (op == Path::Op::Close ? 0 : 1);
        return need == path.points().size() && allFinite(path.points());
    }

    void prepareClip(const std::shared_ptr<const ClipRegion>& region) {
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
        clip.box = box;
        clip.stride = size_t(box.width() + 7) / 8;
        clip.bits.assign(clip.stride * size_t(box.height()), 0);

        // Band by band, and in slices no wider than a cairo surface may be.
        const int sliceW = std::min(box.width(), kMaxSliceWidth);
        const int bstride = cairo_format_stride_for_width(CAIRO_FORMAT_A8, sliceW);
        const int rows = std::max(1, std::min(box.height(), int(kBandBytes / size_t(bstride))));
        band.resize(size_t(bstride) * rows);
        if (region->entries.size() > 1)
            band2.resize(size_t(bstride) * rows);
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
                    withCairo(target, bstride, sx, by, w, bh, [&](cairo_t* cr) {
                        appendPath(cr, e.path);
                        cairo_set_fill_rule(cr, e.rule == FillRule::EvenOdd
                                                    ? CAIRO_FILL_RULE_EVEN_ODD
                                                    : CAIRO_FILL_RULE_WINDING);
                        cairo_fill(cr);
                    });
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

    // Calls f(a, b) for every stretch [a, b) of row y inside [x0, x1) that the clip lets through.
    template <class F>
    void clippedRuns(int y, int x0, int x1, F&& f) {
        if (y < clip.bound.y0 || y >= clip.bound.y1)
            return;
        x0 = std::max(x0, clip.bound.x0);
        x1 = std::min(x1, clip.bound.x1);
        if (x0 >= x1)
            return;
        if (clip.rect) {
            f(x0, x1);
            return;
        }
        const uint8_t* bits = clip.bits.data() + size_t(y - clip.box.y0) * clip.stride;
        const int base = clip.box.x0;
        auto bit = [&](int x) { return bits[(x - base) >> 3] & (0x80 >> ((x - base) & 7)); };
        int x = x0;
        while (x < x1) {
            while (x < x1 && !bit(x)) {
                if (((x - base) & 7) == 0 && x + 8 <= x1 && bits[(x - base) >> 3] == 0)
                    x += 8;
                else
                    ++x;
            }
            const int start = x;
            while (x < x1 && bit(x)) {
                if (((x - base) & 7) == 0 && x + 8 <= x1 && bits[(x - base) >> 3] == 0xFF)
                    x += 8;
                else
                    ++x;
            }
            if (start < x)
                f(start, x);
        }
    }

    // ---- paint ------------------------------------------------------------------------------

    bool preparePattern(const std::shared_ptr<const PatternTile>& tile) {
        if (!tile || tile->width <= 0 || tile->height <= 0 ||
            tile->pixels.size() < size_t(tile->width) * size_t(tile->height))
            return false;
        if (patKey != tile || patChannels != C) {
            const size_t n = size_t(tile->width) * size_t(tile->height);
            patPix.resize(n * C);
            patWhite.resize(n);
            patKeep.resize(n * C);
            for (size_t i = 0; i < n; ++i) {
                const Rgb c = tile->pixels[i];
                uint8_t v[3];
                toDevice(c, v);
                std::memcpy(&patPix[i * C], v, C);
                patWhite[i] = c == Rgb::white();
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

    bool beginCall(const Paint& paint, const RenderState& rs) {
        if (!inPage || failed || paint.kind == Paint::Kind::None)
            return false;
        prepareClip(rs.clip);
        if (clip.empty)
            return false;
        rop = rs.rop3;
        srcTransparent = rs.sourceTransparent;
        patTransparent = rs.patternTransparent;
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

    // The texture under n pixels of row y from x0 into tbuf, with its white flags into twhite,
    // or (withKeep) its white flags widened to every channel byte into kbuf instead.
    void fetchTexture(int y, int x0, int n, bool withKeep = false) {
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

    // A tile scaled but not turned: along a row the walk below meets the same tile columns
    // whatever the row, and rows of the same tile row get the same pixels. Each tile row the
    // walk meets from x0 for n pixels is made once (by the walk itself) and copied after that.
    struct TextureRows {
        std::shared_ptr<const PatternTile> tile;
        Matrix inv;
        int x0 = 0, n = 0, channels = 0;
        std::vector<uint8_t> have; // per tile row: made
        std::vector<uint8_t> pix, white, keep;
    } texRows;

    bool fetchTextureRows(int y, int x0, int n, bool withKeep) {
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

    void fetchTextureWalk(int y, int x0, int n) {
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

    // Draws n pixels of row y from x0: S is s (n pixels, white flags sw), or black when s is
    // null; T is the call's texture; D is the page.
    void composite(int y, int x0, int n, const uint8_t* s, const uint8_t* sw) {
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
            const uint8_t* r = rbuf.data();
            const uint8_t* k = kbuf.data();
            size_t i = 0;
            for (; i + 8 <= nb; i += 8) {
                uint64_t dv, rv, kv;
                std::memcpy(&dv, D + i, 8);
                std::memcpy(&rv, r + i, 8);
                std::memcpy(&kv, k + i, 8);
                dv = (dv & kv) | (rv & ~kv);
                std::memcpy(D + i, &dv, 8);
            }
            for (; i < nb; ++i)
                D[i] = uint8_t((D[i] & k[i]) | (r[i] & ~k[i]));
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

    // composite() of n picture pixels s, in the page's channels, on a grey or colour page with a
    // solid texture: S comes straight from the picture's row and its whites from S itself, and
    // the raster operation and the source transparency work on whole words.
    void compositeRow(int y, int x0, int n, const uint8_t* s) {
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
        for (; i + 8 <= nb; i += 8) {
            uint64_t dv, rv, kv;
            std::memcpy(&dv, D + i, 8);
            std::memcpy(&rv, r + i, 8);
            std::memcpy(&kv, k + i, 8);
            dv = (dv & kv) | (rv & ~kv);
            std::memcpy(D + i, &dv, 8);
        }
        for (; i < nb; ++i)
            D[i] = uint8_t((D[i] & k[i]) | (r[i] & ~k[i]));
    }

    // composite() on a bilevel page, a byte (eight pixels) at a time. S and T are dithered at
    // their device position, the raster operation works on the bits (1 = white, as on bytes),
    // and the transparency rules use the flags of the undithered pixels.
    void compositeBits(int y, int x0, int n, const uint8_t* s, const uint8_t* sw) {
        uint8_t* D = row(y);
        const int r = y & 15;
        const int x1 = x0 + n;
        const int k0 = x0 >> 3, k1 = (x1 - 1) >> 3;
        auto edge = [&](int k) { return byteSpanMask(k, x0, x1); };
        if (!s && tex.solid && !constUsesDest) {
            // A fill in one colour: the dithered result, whatever lies beneath.
            const uint8_t* cb = constBits[r];
            for (int k = k0; k <= k1; ++k) {
                const uint8_t em = (k == k0 || k == k1) ? edge(k) : 0xFF;
                D[k] = uint8_t((D[k] & ~em) | (cb[k & 1] & em));
            }
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

    // Draws the covered pixels (cov[k] != 0 covers x0 + k) of row y, with S black.
    void compositeCoverage(int y, int x0, const uint8_t* cov, int n) {
        int k = 0;
        while (k < n) {
            while (k + 8 <= n) {
                uint64_t v;
                std::memcpy(&v, cov + k, 8);
                if (v)
                    break;
                k += 8;
            }
            while (k < n && !cov[k])
                ++k;
            if (k >= n)
                break;
            int e = k;
            while (e + 8 <= n) { // coverage is all or nothing: whole words of ink at once
                uint64_t v;
                std::memcpy(&v, cov + e, 8);
                if (v != ~uint64_t(0))
                    break;
                e += 8;
            }
            while (e < n && cov[e])
                ++e;
            clippedRuns(y, x0 + k, x0 + e,
                        [&](int a, int b) { composite(y, a, b - a, nullptr, nullptr); });
            k = e;
        }
    }

    // Renders coverage band by band over box (already within the page and the clip) with
    // fillBand(data, stride, x0, y0, w, h) and draws it.
    template <class FillBand>
    void rasterise(const IRect& box, FillBand&& fillBand) {
        const int sliceW = std::min(box.width(), kMaxSliceWidth);
        const int bstride = cairo_format_stride_for_width(CAIRO_FORMAT_A8, sliceW);
        const int rows = std::max(1, std::min(box.height(), int(kBandBytes / size_t(bstride))));
        band.resize(size_t(bstride) * rows);
        for (int sx = box.x0; sx < box.x1; sx += kMaxSliceWidth) {
            const int w = std::min(kMaxSliceWidth, box.x1 - sx);
            for (int by = box.y0; by < box.y1; by += rows) {
                const int bh = std::min(rows, box.y1 - by);
                std::memset(band.data(), 0, size_t(bstride) * bh);
                stats.bandPixels += uint64_t(w) * uint64_t(bh);
                fillBand(band.data(), bstride, sx, by, w, bh);
                for (int r = 0; r < bh; ++r)
                    compositeCoverage(by + r, sx, band.data() + size_t(r) * bstride, w);
            }
        }
    }

    // ---- rectangles -------------------------------------------------------------------------

    // The pixels a fill of path covers when path is a rectangle with sides along the device's
    // axes, of some size: cairo's coverage of it is every pixel of a column range on every row
    // of a row range. Both ranges are taken from cairo itself, by filling one row and one
    // column of the rectangle, so that the pixels are the ones a band by band fill gives.
    bool rectCover(const Path& path, const IRect& box, IRect& cover) {
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
        fill(cairo_format_stride_for_width(CAIRO_FORMAT_A8, box.width()), box.x0, ym, box.width(), 1);
        if (!stretch(box.width(), 1, xa, xb))
            return false;
        const int colStride = cairo_format_stride_for_width(CAIRO_FORMAT_A8, 1);
        fill(colStride, xm, box.y0, 1, box.height());
        if (!stretch(box.height(), size_t(colStride), ya, yb))
            return false;
        cover = {box.x0 + xa, box.y0 + ya, box.x0 + xb, box.y0 + yb};
        return true;
    }

    // ---- one-pixel lines --------------------------------------------------------------------

    // Page-space polylines of a path, curves flattened finely enough for the device.
    std::vector<std::vector<Point>> flatten(const Path& path) const {
        std::vector<std::vector<Point>> lines;
        const auto& pts = path.points();
        size_t pi = 0;
        Point start{}, cur{};
        bool have = false;
        auto ensure = [&] {
            if (!have) {
                lines.push_back({cur});
                have = true;
            }
        };
        for (Path::Op op : path.ops()) {
            switch (op) {
            case Path::Op::Move:
                cur = start = pts[pi++];
                lines.push_back({cur});
                have = true;
                break;
            case Path::Op::Line:
                ensure();
                cur = pts[pi++];
                lines.back().push_back(cur);
                break;
            case Path::Op::Curve: {
                ensure();
                const Point p0 = cur, p1 = pts[pi], p2 = pts[pi + 1], p3 = pts[pi + 2];
                pi += 3;
                auto dlen = [&](Point a, Point b) {
                    return std::hypot((b.x - a.x) * geo.scaleX, (b.y - a.y) * geo.scaleY);
                };
                const double len = dlen(p0, p1) + dlen(p1, p2) + dlen(p2, p3);
                const int steps = std::clamp(int(std::ceil(std::sqrt(len) * 2)), 1, 1024);
                for (int i = 1; i <= steps; ++i) {
                    const double t = double(i) / steps, u = 1 - t;
                    const double b0 = u * u * u, b1 = 3 * u * u * t, b2 = 3 * u * t * t,
                                 b3 = t * t * t;
                    lines.back().push_back({b0 * p0.x + b1 * p1.x + b2 * p2.x + b3 * p3.x,
                                            b0 * p0.y + b1 * p1.y + b2 * p2.y + b3 * p3.y});
                }
                cur = p3;
                break;
            }
            case Path::Op::Close:
                if (have) {
                    lines.back().push_back(start);
                    cur = start;
                    have = false;
                }
                break;
            }
        }
        return lines;
    }

    // The "on" pieces of a dash pattern along page-space polylines; the pattern starts afresh on
    // every subpath. Stretches outside `keep` (page space) only advance the pattern, by
    // arithmetic, so that a far-away stretch of path costs nothing however fine the dashes.
    struct Box {
        double x0, y0, x1, y1;
    };
    static std::vector<std::vector<Point>> dash(const std::vector<std::vector<Point>>& lines,
                                                const std::vector<double>& pattern, double offset,
                                                const Box& keep) {
        std::vector<std::vector<Point>> out;
        const size_t n = pattern.size();
        double total = 0;
        for (double v : pattern)
            total += v;
        // After this much path the pattern is back where it was, on and off included.
        const double period = n % 2 ? 2 * total : total;
        if (!std::isfinite(offset))
            offset = 0;

        size_t idx = 0;
        double left = 0;
        bool on = true, open = false;
        auto next = [&] {
            idx = (idx + 1) % n;
            left = pattern[idx];
            on = !on;
            open = false;
        };
        auto advance = [&](double len) {
            open = false;
            if (len < left) {
                left -= len;
                return;
            }
            len -= left;
            next();
            len = std::fmod(len, period);
            while (len >= left && len > 0) {
                len -= left;
                next();
            }
            left -= len;
        };
        auto walk = [&](Point a, Point b) {
            if (on && !open) {
                out.push_back({a});
                open = true;
            }
            double seg = std::hypot(b.x - a.x, b.y - a.y);
            while (seg > left) {
                const double t = left / seg;
                const Point m{a.x + (b.x - a.x) * t, a.y + (b.y - a.y) * t};
                if (on)
                    out.back().push_back(m);
                seg -= left;
                a = m;
                next();
                if (on) {
                    out.push_back({m});
                    open = true;
                }
            }
            left -= seg;
            if (on)
                out.back().push_back(b);
        };

        for (const auto& line : lines) {
            idx = 0;
            left = pattern[0];
            on = true;
            double off = std::fmod(offset, period);
            if (off < 0)
                off += period;
            advance(off);
            for (size_t i = 1; i < line.size(); ++i) {
                const Point a = line[i - 1], b = line[i];
                const double len = std::hypot(b.x - a.x, b.y - a.y);
                // The part of a..b inside keep, as parameters t0..t1.
                double t0 = 0, t1 = 1;
                auto clipAxis = [&](double p, double d, double lo, double hi) {
                    if (d == 0) {
                        if (p < lo || p > hi)
                            t1 = -1;
                        return;
                    }
                    double ta = (lo - p) / d, tb = (hi - p) / d;
                    if (ta > tb)
                        std::swap(ta, tb);
                    t0 = std::max(t0, ta);
                    t1 = std::min(t1, tb);
                };
                clipAxis(a.x, b.x - a.x, keep.x0, keep.x1);
                clipAxis(a.y, b.y - a.y, keep.y0, keep.y1);
                if (!(t1 > t0)) {
                    advance(len);
                    continue;
                }
                const Point pa{a.x + (b.x - a.x) * t0, a.y + (b.y - a.y) * t0};
                const Point pb{a.x + (b.x - a.x) * t1, a.y + (b.y - a.y) * t1};
                if (t0 > 0)
                    advance(len * t0);
                walk(pa, pb);
                if (t1 < 1)
                    advance(len * (1 - t1));
            }
        }
        return out;
    }

    // Marks the pixels of a one-pixel line from a to b (device space) inside the band. A flat
    // line takes one pixel in each column whose centre lies in [a.x, b.x), a steep one one pixel
    // in each row likewise, so a line L pixels long covers L pixels, dashes come out at their
    // length and the segments of a polyline meet without overlapping. A segment too short to
    // reach any centre still marks the pixel at its middle, so dots never vanish. Every pixel
    // is found from the line's equation alone, so neighbouring bands agree.
    static void plotSegment(uint8_t* data, int bstride, int bx0, int by0, int w, int h, Point a,
                            Point b) {
        auto set = [&](int64_t px, int64_t py) {
            if (px >= bx0 && px < bx0 + w && py >= by0 && py < by0 + h)
                data[size_t(py - by0) * bstride + size_t(px - bx0)] = 0xFF;
        };
        if (std::min(a.y, b.y) >= by0 + h + 1 || std::max(a.y, b.y) < by0 - 1 ||
            std::min(a.x, b.x) >= bx0 + w + 1 || std::max(a.x, b.x) < bx0 - 1)
            return;
        const double dx = b.x - a.x, dy = b.y - a.y;
        const bool flat = std::fabs(dx) >= std::fabs(dy);
        // The centres along the major axis that the segment reaches.
        const double lo = flat ? std::min(a.x, b.x) : std::min(a.y, b.y);
        const double hi = flat ? std::max(a.x, b.x) : std::max(a.y, b.y);
        const int64_t first = int64_t(std::ceil(std::clamp(lo - 0.5, -1e15, 1e15)));
        const int64_t last = int64_t(std::ceil(std::clamp(hi - 0.5, -1e15, 1e15))) - 1;
        if (first > last) {
            set(floorToInt64((a.x + b.x) / 2), floorToInt64((a.y + b.y) / 2));
            return;
        }
        if (flat) {
            if (a.x > b.x)
                std::swap(a, b);
            int64_t c0 = std::max<int64_t>(first, bx0);
            int64_t c1 = std::min<int64_t>(last, bx0 + w - 1);
            const double slope = (b.y - a.y) / (b.x - a.x);
            if (slope != 0) { // only the columns whose pixel can fall into the band
                double xa = a.x + (by0 - 1 - a.y) / slope, xb = a.x + (by0 + h + 1 - a.y) / slope;
                if (xa > xb)
                    std::swap(xa, xb);
                c0 = std::max(c0, floorToInt64(xa) - 1);
                c1 = std::min(c1, floorToInt64(xb) + 1);
            }
            for (int64_t c = c0; c <= c1; ++c)
                set(c, floorToInt64(a.y + (double(c) + 0.5 - a.x) * slope));
        } else {
            if (a.y > b.y)
                std::swap(a, b);
            int64_t r0 = std::max<int64_t>(first, by0);
            int64_t r1 = std::min<int64_t>(last, by0 + h - 1);
            const double slope = (b.x - a.x) / (b.y - a.y);
            if (slope != 0) {
                double ya = a.y + (bx0 - 1 - a.x) / slope, yb = a.y + (bx0 + w + 1 - a.x) / slope;
                if (ya > yb)
                    std::swap(ya, yb);
                r0 = std::max(r0, floorToInt64(ya) - 1);
                r1 = std::min(r1, floorToInt64(yb) + 1);
            }
            for (int64_t r = r0; r <= r1; ++r)
                set(floorToInt64(a.x + (double(r) + 0.5 - a.y) * slope), r);
        }
    }

    // ---- images and masks -------------------------------------------------------------------

    // Walks a mask laid one to one on the device (device x = mask column - ox, y = row - oy)
    // within box and the rectangular clip: f(y, bits, cLo, cHi) gets the mask row under device
    // row y and the mask columns [cLo, cHi) to draw.
    template <class F>
    void forUnitMaskRows(const Mask& mask, const IRect& box, int64_t ox, int64_t oy, int64_t cLo, int64_t cHi,
                         F&& f) {
        cLo = std::max<int64_t>(cLo, clip.bound.x0 + ox);
        cHi = std::min<int64_t>(cHi, clip.bound.x1 + ox);
        if (cLo >= cHi)
            return;
        const int y0 = std::max(box.y0, clip.bound.y0), y1 = std::min(box.y1, clip.bound.y1);
        for (int y = y0; y < y1; ++y) {
            const int64_t j = y + oy;
            if (j >= 0 && j < mask.height)
                f(y, mask.bits.data() + size_t(j) * mask.stride, cLo, cHi);
        }
    }

    // The same on an RGB page: whole bytes of ink write eight pixels at once.
    void stampUnitMaskRgb(const Mask& mask, const IRect& box, int64_t ox, int64_t oy, int64_t cLo,
                          int64_t cHi) {
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
        forUnitMaskRows(mask, box, ox, oy, cLo, cHi, [&](int y, const uint8_t* bits, int64_t lo, int64_t hi) {
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

    // The same on a bilevel page: each mask row, shifted onto the page's bytes, selects where
    // the dithered result goes, eight pixels at a time.
    void stampUnitMaskBits(const Mask& mask, const IRect& box, int64_t ox, int64_t oy,
                           int64_t cLo, int64_t cHi) {
        forUnitMaskRows(mask, box, ox, oy, cLo, cHi, [&](int y, const uint8_t* bits, int64_t lo, int64_t hi) {
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

    // The common case of monochrome raster and glyph bitmaps on a grey page: mask pixels map
    // one to one onto device pixels (device x = column - ox, y = row - oy), the clip is a
    // rectangle and the result is one grey value. Eight pixels at a time, with a table that
    // widens each mask byte into a byte mask.
    void stampUnitMask(const Mask& mask, const IRect& box, int64_t ox, int64_t oy, int64_t cLo,
                       int64_t cHi) {
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
        forUnitMaskRows(mask, box, ox, oy, cLo, cHi, [&](int y, const uint8_t* bits, int64_t lo, int64_t hi) {
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

    // The stretch [xa, xb) of row y whose pixel centres fall inside a w x h grid mapped by inv
    // (device to grid), within [lo, hi).
    static bool rowSpan(const Matrix& inv, int y, int w, int h, int lo, int hi, int& xa, int& xb) {
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

    // The grid cells whose centres lie in [a, b), the span of one device pixel in grid units
    // (either order). A device pixel whose own centre falls outside the grid takes none, so
    // that a picture covers the same device pixels whatever its scale; one too thin to hold a
    // cell centre takes the cell under its centre.
    static std::pair<int, int> cellSpan(double a, double b, int size) {
        if (a > b)
            std::swap(a, b);
        const double mid = (a + b) / 2 + kGridSnap;
        if (!(mid >= 0 && mid < size))
            return {0, 0};
        int lo = clampToInt(std::ceil(a - 0.5 + kGridSnap)), hi = clampToInt(std::ceil(b - 0.5 + kGridSnap));
        lo = std::clamp(lo, 0, size);
        hi = std::clamp(hi, 0, size);
        if (lo >= hi) {
            lo = int(std::floor(mid));
            hi = lo + 1;
        }
        return {lo, hi};
    }

    // A mask drawn smaller than its own pixels (raster sent at a finer resolution than the
    // page's): each device pixel takes the share of inked mask pixels under it, and the shares
    // are turned back into ink by error diffusion (Floyd-Steinberg, rows top to bottom), which
    // keeps the tone of a driver's halftone screen whatever its pattern. Sampling one mask pixel
    // instead keeps or drops whole screens; an ordered dither beats against periodic screens.
    void fillReducedMask(const Mask& mask, const Matrix& inv, const IRect& box) {
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
                cov[size_t(k)] = cells > 0 && diffuser.ink(k, int((255 * inked[size_t(k)] + cells / 2) / cells)) ? 0xFF : 0;
            }
            diffuser.nextRow();
            compositeCoverage(y, box.x0, cov.data(), w);
        }
    }

    // An image drawn smaller than its own pixels: each device pixel takes the average of the
    // image pixels under it rather than one of them, which would keep or drop whole halftone
    // screens of a driver's one-bit picture and alias fine detail. A black-and-white picture
    // on a black-and-white page is turned back into black and white by error diffusion, as
    // masks are, so that its screens' tone survives; other pictures keep the averages, which
    // a black-and-white page halftones like any grey.
    void drawReducedImage(const Image& image, const Matrix& inv, const IRect& box) {
        const int w = box.width();
        const int bpp = image.format == Image::Format::Gray8 ? 1 : 3;
        bool diffuse = bilevel;
        for (int j = 0; diffuse && j < image.height; ++j) {
            const uint8_t* row = image.data.data() + size_t(j) * image.stride;
            diffuse = std::all_of(row, row + size_t(image.width) * bpp, [](uint8_t v) { return v == 0 || v == 255; });
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

    static int gridIndex(double v, int size) {
        const int64_t i = floorToInt64(v + kGridSnap);
        return int(std::clamp<int64_t>(i, 0, size - 1));
    }

    // Page-space corners of a w x h grid mapped by m, clipped to the page and the clip.
    IRect gridBox(const Matrix& m, int w, int h) const {
        const std::array<Point, 4> corners{
            {{0, 0}, {double(w), 0}, {0, double(h)}, {double(w), double(h)}}};
        return intersect(deviceBounds(corners, m, 1), clip.bound);
    }

    // Where a w x h grid of image or mask pixels, mapped to the page by toPage, lands: device
    // pixel to grid transform and the device pixels it may touch; none when nothing can show.
    struct GridPlacement {
        Matrix inv;
        IRect box;
    };
    std::optional<GridPlacement> placeGrid(const Matrix& toPage, int w, int h) const {
        const Matrix m = ptd * toPage;
        const auto inv = m.inverted();
        if (!inv)
            return std::nullopt;
        const IRect box = gridBox(m, w, h);
        if (box.empty())
            return std::nullopt;
        return GridPlacement{*inv, box};
    }
};

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
            d->buf.clear();
            d->buf.shrink_to_fit();
            d->buf.assign(bytes, white);
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
    d->inPage = true;
}

void RasterDevice::endPage() {
    if (!d->inPage)
        return;
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
    const bool ok = d->sink.writePage(out);
    d->buf = std::move(out.data);
    out.data = {};
    d->clip = ClipState{};
    if (ok)
        ++d->written;
    else
        d->failed = true;
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
    if (d->rectCover(path, box, cover)) {
        // A rectangle: each row is one stretch, drawn straight away.
        ++d->stats.rectangles;
        for (int y = cover.y0; y < cover.y1; ++y)
            d->clippedRuns(y, cover.x0, cover.x1, [&](int a, int b) { d->composite(y, a, b - a, nullptr, nullptr); });
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
