#pragma once
// The rasterising device's insides, shared by the files that draw: the page buffer and the
// state of the call being drawn (this file), the clip (raster_clip.cpp), paints and compositing
// (raster_composite.cpp), one-pixel lines and dashes (raster_lines.cpp), pictures and masks
// (raster_images.cpp), and the device's calls themselves (raster_device.cpp).

#include "render/page_geometry.h"
#include "render/raster_device.h"
#include "render/raster_ops.h"
#include "render/scan_converter.h"

#include <cairo.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace qx {

namespace rasterdev {

struct IRect {
    int x0 = 0, y0 = 0, x1 = 0, y1 = 0;
    bool empty() const { return x1 <= x0 || y1 <= y0; }
    int width() const { return x1 - x0; }
    int height() const { return y1 - y0; }
};

inline IRect intersect(const IRect& a, const IRect& b) {
    return {std::max(a.x0, b.x0), std::max(a.y0, b.y0), std::min(a.x1, b.x1), std::min(a.y1, b.y1)};
}

inline int clampToInt(double v) {
    if (!(v > -1e9))
        return -1000000000;
    if (!(v < 1e9))
        return 1000000000;
    return static_cast<int>(v);
}

inline bool allFinite(const std::vector<Point>& pts) {
    for (const Point& p : pts)
        if (!std::isfinite(p.x) || !std::isfinite(p.y))
            return false;
    return true;
}

// Whole device pixels that points mapped by m may touch, widened by pad pixels.
template <class Points>
inline IRect deviceBounds(const Points& pts, const Matrix& m, double pad) {
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
// Paths of at least this many points are filled by the scan converter whatever their shape.
constexpr size_t kScanConvertFrom = 512;

// Coverage is rendered in slices at most this wide (cairo's image surfaces stop at 32767
// pixels a side); a multiple of 8, so that slices of a clip mask start on whole bytes.
constexpr int kMaxSliceWidth = 16384;

// A pixel centre within this much (in image or mask pixels) of a grid line counts as past it. An
// image sent in strips puts the same centre on the line through two abutting grids whose
// transforms round differently; nudged alike, it lands in exactly one strip.
constexpr double kGridSnap = 1e-6;

inline int64_t floorMod(int64_t a, int64_t m) {
    const int64_t r = a % m;
    return r < 0 ? r + m : r;
}

inline int64_t floorToInt64(double v) {
    if (!(v > -1e15))
        return -1000000000000000LL;
    if (!(v < 1e15))
        return 1000000000000000LL;
    return static_cast<int64_t>(std::floor(v));
}

inline bool nearly(double a, double b) { return std::fabs(a - b) < 1e-9; }

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
inline uint8_t byteSpanMask(int k, int x0, int x1) {
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

} // namespace rasterdev

using namespace rasterdev;

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
    bool bandClean = true; // every byte of band is zero
    std::vector<uint8_t> sbuf, swhite, tbuf, twhite, rbuf, cov;
    std::vector<uint8_t> kbuf;  // per channel byte: 0xFF where a white texture pixel keeps the page
    std::vector<uint8_t> zeros; // a source of black, never written but by resizing
    std::vector<uint8_t> probe; // one row or column of rectangle coverage
    RasterStats stats;
    std::vector<int64_t> colIdx;

    std::shared_ptr<const PatternTile> patKey;
    int patChannels = 0;
    bool patAnyWhite = false; // some pixel of the tile is white
    std::vector<uint8_t> patPix, patWhite, patKeep;

    // Rectangle fills not drawn yet. A fill whose every pixel gets a value that does not
    // depend on the page beneath (a solid colour, or a pattern without transparent white,
    // under a raster operation that ignores the page) hides whatever was drawn before inside
    // its rectangle: it is kept as the base, and a later such fill over the same pixels or
    // more simply takes its place. On top of it may lie one fill that keeps the page only
    // where its pattern is white and transparent: the same fill of the same rectangle again
    // changes nothing. They are drawn, base first, only when something else is drawn or the
    // page ends, so a run of fills of the whole page costs one fill of the page.
    struct RectFill {
        bool active = false;
        IRect area;
        Paint paint;
        uint8_t rop = 252;
        bool srcTransparent = true;
        bool patTransparent = true;
        bool same(const RectFill& o) const;
    };
    RectFill pendingBase, pendingTop;
    // Takes the fill of area (within the page, clip a rectangle around it) in the paint set up
    // for this call; false when it has to be drawn now.
    bool deferRectFill(const IRect& area, const Paint& paint);
    // Draws the fills put off; false when there were none.
    bool drawDeferredFills();
    void drawRectFill(const RectFill& f);

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

    void appendPath(cairo_t* cr, const Path& path) const;

    static bool wellFormed(const Path& path) {
        size_t need = 0;
        for (Path::Op op : path.ops())
            need += op == Path::Op::Curve ? 3 : (op == Path::Op::Close ? 0 : 1);
        return need == path.points().size() && allFinite(path.points());
    }

    void prepareClip(const std::shared_ptr<const ClipRegion>& region);

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

    bool preparePattern(const std::shared_ptr<const PatternTile>& tile);

    bool beginCall(const Paint& paint, const RenderState& rs);
    // The part of beginCall that sets up the paint and the raster operation, leaving the clip.
    bool setPaint(const Paint& paint, uint8_t rop3, bool sourceTransparent, bool patternTransparent);

    // The texture under n pixels of row y from x0 into tbuf, with its white flags into twhite,
    // or (withKeep) its white flags widened to every channel byte into kbuf instead.
    void fetchTexture(int y, int x0, int n, bool withKeep = false);

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

    bool fetchTextureRows(int y, int x0, int n, bool withKeep);

    void fetchTextureWalk(int y, int x0, int n);

    // ---- compositing ------------------------------------------------------------------------

    // Draws n pixels of row y from x0: S is s (n pixels, white flags sw), or black when s is
    // null; T is the call's texture; D is the page.
    void composite(int y, int x0, int n, const uint8_t* s, const uint8_t* sw);

    // composite() of n picture pixels s, in the page's channels, on a grey or colour page with a
    // solid texture: S comes straight from the picture's row and its whites from S itself, and
    // the raster operation and the source transparency work on whole words.
    void compositeRow(int y, int x0, int n, const uint8_t* s);

    // composite() on a bilevel page, a byte (eight pixels) at a time. S and T are dithered at
    // their device position, the raster operation works on the bits (1 = white, as on bytes),
    // and the transparency rules use the flags of the undithered pixels.
    void compositeBits(int y, int x0, int n, const uint8_t* s, const uint8_t* sw);

    // compositeBits() of pixels [x0, x1) of row y (x0 < x1) for a fill in one colour whose
    // result does not depend on the page: the dithered result, whatever lies beneath.
    void putConstBits(int y, int x0, int x1) {
        uint8_t* D = row(y);
        const uint8_t* cb = constBits[y & 15];
        const int k0 = x0 >> 3, k1 = (x1 - 1) >> 3;
        auto put = [&](int k, uint8_t em) { D[k] = uint8_t((D[k] & ~em) | (cb[k & 1] & em)); };
        const uint8_t m0 = uint8_t(0xFFu >> (x0 & 7));
        const uint8_t m1 = uint8_t(0xFFu << (7 - ((x1 - 1) & 7)));
        if (k1 == k0) {
            put(k0, uint8_t(m0 & m1));
            return;
        }
        put(k0, m0);
        put(k1, m1);
        // The whole bytes between: the two-byte pattern, eight bytes at a time, the last eight
        // ending on the last whole byte (they overlap bytes already holding the same pattern).
        int k = k0 + 1;
        if (k1 - k < 8) {
            for (; k < k1; ++k)
                D[k] = cb[k & 1];
            return;
        }
        auto word = [&](int at) {
            const uint8_t a = cb[at & 1], b = cb[(at + 1) & 1];
            const uint8_t eight[8] = {a, b, a, b, a, b, a, b};
            uint64_t w;
            std::memcpy(&w, eight, 8);
            return w;
        };
        const uint64_t w = word(k);
        for (; k + 8 <= k1; k += 8)
            std::memcpy(D + k, &w, 8);
        if (k < k1) {
            const uint64_t last = word(k1 - 8);
            std::memcpy(D + k1 - 8, &last, 8);
        }
    }

    // True when the call is a fill in one colour on a black-and-white page whose result does
    // not depend on the page, through a rectangular clip: its dithered bits go straight onto
    // the rows.
    bool directBits() const { return bilevel && tex.solid && !constUsesDest && clip.rect; }

    // Draws the pixels [a, b) of row y, with S black, through the clip; direct is directBits().
    void drawStretch(bool direct, int y, int a, int b) {
        if (direct) {
            a = std::max(a, clip.bound.x0);
            b = std::min(b, clip.bound.x1);
            if (a < b && y >= clip.bound.y0 && y < clip.bound.y1)
                putConstBits(y, a, b);
            return;
        }
        clippedRuns(y, a, b, [&](int u, int v) { composite(y, u, v - u, nullptr, nullptr); });
    }

    // Draws the covered pixels (cov[k] != 0 covers x0 + k) of row y, with S black.
    void compositeCoverage(int y, int x0, const uint8_t* cov, int n, uint8_t* clear = nullptr);

    // The bands coverage is rendered in over box: f(x0, y0, w, h, stride) for each, in slices no
    // wider than a cairo surface and no more rows than the band budget holds.
    template <class F>
    void forBands(const IRect& box, F&& f) const {
        const int sliceW = std::min(box.width(), kMaxSliceWidth);
        const int bstride = cairo_format_stride_for_width(CAIRO_FORMAT_A8, sliceW);
        const int rows = std::max(1, std::min(box.height(), int(kBandBytes / size_t(bstride))));
        for (int sx = box.x0; sx < box.x1; sx += kMaxSliceWidth) {
            const int w = std::min(kMaxSliceWidth, box.x1 - sx);
            for (int by = box.y0; by < box.y1; by += rows)
                f(sx, by, w, std::min(rows, box.y1 - by), bstride);
        }
    }

    // Renders coverage band by band over box (already within the page and the clip) with
    // fillBand(data, stride, x0, y0, w, h) and draws it.
    template <class FillBand>
    void rasterise(const IRect& box, FillBand&& fillBand) {
        const int sliceW = std::min(box.width(), kMaxSliceWidth);
        const int bstride = cairo_format_stride_for_width(CAIRO_FORMAT_A8, sliceW);
        const int rows = std::max(1, std::min(box.height(), int(kBandBytes / size_t(bstride))));
        // The band stays all zero between calls: each row's coverage is cleared as it is
        // drawn, so a band costs what it covers rather than its area.
        if (!bandClean)
            std::fill(band.begin(), band.end(), 0);
        band.resize(std::max(band.size(), size_t(bstride) * rows), 0);
        bandClean = true;
        forBands(box, [&](int sx, int by, int w, int bh, int) {
            stats.bandPixels += uint64_t(w) * uint64_t(bh);
            fillBand(band.data(), bstride, sx, by, w, bh);
            for (int r = 0; r < bh; ++r) {
                uint8_t* cov = band.data() + size_t(r) * bstride;
                compositeCoverage(by + r, sx, cov, w, cov);
            }
        });
    }

    // Draws the stretches the scan converter finds over box, band by band as cairo would have
    // been given them (the bands decide how cairo clips the polygon, so they decide pixels),
    // each stretch straight onto the page through the clip: no coverage band.
    void scanFill(raster::ScanConverter& scan, const IRect& box) {
        const bool direct = directBits();
        forBands(box, [&](int sx, int by, int w, int bh, int) {
            scan.spans(sx, by, w, bh, [&](const raster::ScanConverter::Span* run, size_t count) {
                for (size_t i = 0; i < count; ++i)
                    drawStretch(direct, run[i].y, run[i].a, run[i].b);
            });
        });
        ++stats.scanFills;
        stats.scanCrossings += scan.crossings();
    }

    // ---- rectangles -------------------------------------------------------------------------

    // The pixels a fill of path covers when path is a rectangle with sides along the device's
    // axes, of some size: cairo's coverage of it is every pixel of a column range on every row
    // of a row range. Both ranges are taken from cairo itself, by filling one row and one
    // column of the rectangle, so that the pixels are the ones a band by band fill gives.
    bool rectCover(const Path& path, const IRect& box, IRect& cover);
    // The last rectangle rectCover() looked at, in page space, and what it found.
    struct RectCoverMemo {
        bool valid = false;
        size_t n = 0;
        std::array<Point, 5> pts{};
        IRect box;
        double scaleX = 0, scaleY = 0;
        Matrix ptd;
        bool found = false;
        IRect cover;
    } rectMemo;

    // Fills of straight-edged paths go through the active-edge scan converter, which gives
    // the pixels cairo gives in time that grows with the edges and their rows, where cairo's
    // own fill of a self-intersecting path grows with the square of its edges and costs a
    // surface and a context per band. Paths it cannot match pixel for pixel stay with cairo:
    // curves (flattened differently), edges all horizontal or vertical (cairo fills them as
    // boxes), points beyond its fixed-point range. Paths of many points go through it whatever
    // they are, to bound the work.
    // A converter no longer in use, kept for its memory: hand one back with recycle().
    std::unique_ptr<raster::ScanConverter> spareScan;
    void recycle(std::unique_ptr<raster::ScanConverter> scan) { spareScan = std::move(scan); }
    std::unique_ptr<raster::ScanConverter> scanConverterFor(const Path& path, FillRule rule, int x0,
                                                            int x1) {
        const bool many = path.points().size() >= kScanConvertFrom;
        const bool curves =
            std::find(path.ops().begin(), path.ops().end(), Path::Op::Curve) != path.ops().end();
        if (curves && !many)
            return nullptr;
        auto lines = flatten(path);
        // Scaled as cairo scales them: page to device is a scale along each axis.
        for (auto& line : lines)
            for (Point& p : line)
                p = {p.x * geo.scaleX, p.y * geo.scaleY};
        std::unique_ptr<raster::ScanConverter> scan;
        if (spareScan) {
            scan = std::move(spareScan);
            scan->reset(lines, rule);
        } else {
            scan = std::make_unique<raster::ScanConverter>(lines, rule);
        }
        if (!many && (!scan->exact() || scan->rectilinear() || x1 - x0 > kMaxSliceWidth)) {
            recycle(std::move(scan));
            return nullptr;
        }
        return scan;
    }

    // ---- one-pixel lines --------------------------------------------------------------------

    // Page-space polylines of a path, curves flattened finely enough for the device.
    std::vector<std::vector<Point>> flatten(const Path& path) const;

    // The "on" pieces of a dash pattern along page-space polylines; the pattern starts afresh on
    // every subpath. Stretches outside `keep` (page space) only advance the pattern, by
    // arithmetic, so that a far-away stretch of path costs nothing however fine the dashes.
    struct Box {
        double x0, y0, x1, y1;
    };
    static std::vector<std::vector<Point>> dash(const std::vector<std::vector<Point>>& lines,
            const std::vector<double>& pattern, double offset, const Box& keep);

    // Marks the pixels of a one-pixel line from a to b (device space) inside the band. A flat
    // line takes one pixel in each column whose centre lies in [a.x, b.x), a steep one one pixel
    // in each row likewise, so a line L pixels long covers L pixels, dashes come out at their
    // length and the segments of a polyline meet without overlapping. A segment too short to
    // reach any centre still marks the pixel at its middle, so dots never vanish. Every pixel
    // is found from the line's equation alone, so neighbouring bands agree.
    static void plotSegment(uint8_t* data, int bstride, int bx0, int by0, int w, int h, Point a,
            Point b);

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
            int64_t cHi);

    // The same on a bilevel page: each mask row, shifted onto the page's bytes, selects where
    // the dithered result goes, eight pixels at a time.
    void stampUnitMaskBits(const Mask& mask, const IRect& box, int64_t ox, int64_t oy, int64_t cLo,
            int64_t cHi);

    // The common case of monochrome raster and glyph bitmaps on a grey page: mask pixels map
    // one to one onto device pixels (device x = column - ox, y = row - oy), the clip is a
    // rectangle and the result is one grey value. Eight pixels at a time, with a table that
    // widens each mask byte into a byte mask.
    void stampUnitMask(const Mask& mask, const IRect& box, int64_t ox, int64_t oy, int64_t cLo,
            int64_t cHi);

    // The stretch [xa, xb) of row y whose pixel centres fall inside a w x h grid mapped by inv
    // (device to grid), within [lo, hi).
    static bool rowSpan(const Matrix& inv, int y, int w, int h, int lo, int hi, int& xa, int& xb);

    // The grid cells whose centres lie in [a, b), the span of one device pixel in grid units
    // (either order). A device pixel whose own centre falls outside the grid takes none, so
    // that a picture covers the same device pixels whatever its scale; one too thin to hold a
    // cell centre takes the cell under its centre.
    static std::pair<int, int> cellSpan(double a, double b, int size);

    // A mask drawn smaller than its own pixels (raster sent at a finer resolution than the
    // page's): each device pixel takes the share of inked mask pixels under it, and the shares
    // are turned back into ink by error diffusion (Floyd-Steinberg, rows top to bottom), which
    // keeps the tone of a driver's halftone screen whatever its pattern. Sampling one mask pixel
    // instead keeps or drops whole screens; an ordered dither beats against periodic screens.
    void fillReducedMask(const Mask& mask, const Matrix& inv, const IRect& box);

    // An image drawn smaller than its own pixels: each device pixel takes the average of the
    // image pixels under it rather than one of them, which would keep or drop whole halftone
    // screens of a driver's one-bit picture and alias fine detail. A black-and-white picture
    // on a black-and-white page is turned back into black and white by error diffusion, as
    // masks are, so that its screens' tone survives; other pictures keep the averages, which
    // a black-and-white page halftones like any grey.
    void drawReducedImage(const Image& image, const Matrix& inv, const IRect& box);

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

} // namespace qx
