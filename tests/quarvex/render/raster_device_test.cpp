#include "common/page_collector.h"
#include "render/raster_device.h"
#include "render/raster_ops.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <memory>
#include <vector>

using namespace qx;
using qxtest::PageCollector;

namespace {

// A 72 x 72 point page at 72 dpi: one point is one pixel, which keeps expectations readable.
PageSpec square(double side = 72) { return PageSpec{side, side, 0, 0}; }

RasterOptions opts(int depth, double dpi = 72) {
    RasterOptions o;
    o.depth = depth;
    o.dpiX = o.dpiY = dpi;
    return o;
}

Rgb px(const RasterPage& p, int x, int y) {
    const uint8_t* r = p.row(y) + size_t(x) * 3;
    return {r[0], r[1], r[2]};
}

int grey(const RasterPage& p, int x, int y) { return p.row(y)[x]; }

bool black(const RasterPage& p, int x, int y) { return p.row(y)[x >> 3] & (0x80 >> (x & 7)); }

bool isBlack(Rgb c) { return c == Rgb::black(); }

Path rect(double x, double y, double w, double h) {
    Path p;
    p.addRect(x, y, w, h);
    return p;
}

RenderState opaque(uint8_t rop = 252) {
    RenderState rs;
    rs.rop3 = rop;
    rs.sourceTransparent = false;
    rs.patternTransparent = false;
    return rs;
}

std::shared_ptr<const ClipRegion> clipOf(std::vector<Path> paths, FillRule rule = FillRule::NonZero) {
    auto c = std::make_shared<ClipRegion>();
    for (Path& p : paths)
        c->entries.push_back({std::move(p), rule});
    return c;
}

std::shared_ptr<const PatternTile> tile(int w, int h, std::vector<Rgb> pixels, Matrix m = {}) {
    auto t = std::make_shared<PatternTile>();
    t->width = w;
    t->height = h;
    t->pixels = std::move(pixels);
    t->tileToPage = m;
    return t;
}

Image grayImage(int w, int h, auto&& value) {
    Image im;
    im.width = w;
    im.height = h;
    im.format = Image::Format::Gray8;
    im.stride = size_t(w) + 3; // padded rows
    im.data.assign(im.stride * h, 0);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            im.data[size_t(y) * im.stride + x] = uint8_t(value(x, y));
    return im;
}

Image rgbImage(int w, int h, auto&& value) {
    Image im;
    im.width = w;
    im.height = h;
    im.format = Image::Format::Rgb24;
    im.stride = size_t(w) * 3;
    im.data.assign(im.stride * h, 0);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const Rgb c = value(x, y);
            uint8_t* p = &im.data[size_t(y) * im.stride + size_t(x) * 3];
            p[0] = c.r;
            p[1] = c.g;
            p[2] = c.b;
        }
    return im;
}

Mask makeMask(int w, int h, auto&& ink) {
    Mask m;
    m.width = w;
    m.height = h;
    m.stride = size_t(w + 7) / 8;
    m.bits.assign(m.stride * h, 0);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            if (ink(x, y))
                m.bits[size_t(y) * m.stride + size_t(x >> 3)] |= uint8_t(0x80 >> (x & 7));
    return m;
}

// Page-space placement of a grid at `dpi` pixels per inch with its top-left at (x, y) points.
Matrix placed(double x, double y, double dpi) {
    return Matrix::translate(x, y) * Matrix::scale(72.0 / dpi, 72.0 / dpi);
}

int countBlackRgb(const RasterPage& p) {
    int n = 0;
    for (int y = 0; y < p.height; ++y)
        for (int x = 0; x < p.width; ++x)
            n += isBlack(px(p, x, y));
    return n;
}

} // namespace

// ---- pages ----------------------------------------------------------------------------------

TEST(RasterDevice, EmptyPageIsWhiteInEveryDepth) {
    for (int depth : {1, 8, 24}) {
        PageCollector sink;
        RasterDevice dev(opts(depth, 300), sink);
        dev.beginPage(PageSpec{});
        dev.endPage();
        ASSERT_EQ(sink.pages.size(), 1u);
        const RasterPage& p = sink.pages[0];
        EXPECT_EQ(p.width, 2550);
        EXPECT_EQ(p.height, 3300);
        EXPECT_DOUBLE_EQ(p.xdpi, 300);
        const size_t rowBytes = depth == 1 ? 319 : depth == 8 ? 2550 : 7650;
        EXPECT_EQ(p.stride, rowBytes);
        ASSERT_EQ(p.data.size(), rowBytes * 3300);
        const uint8_t white = depth == 1 ? 0 : 255;
        size_t wrong = 0;
        for (uint8_t b : p.data)
            wrong += depth == 1 ? (b != white && b != 0) : b != white;
        EXPECT_EQ(wrong, 0u);
        EXPECT_EQ(p.format, depth == 1 ? RasterPage::Format::Bilevel
                            : depth == 8 ? RasterPage::Format::Gray8
                                         : RasterPage::Format::Rgb24);
        EXPECT_EQ(dev.pagesWritten(), 1);
    }
}

TEST(RasterDevice, PageToDeviceFollowsOptions) {
    PageCollector sink;
    RasterOptions o;
    o.pageWidthPx = 306;
    o.pageHeightPx = 200;
    RasterDevice dev(o, sink);
    dev.beginPage(PageSpec{612, 792, 600, 600});
    const Matrix m = dev.pageToDevice();
    EXPECT_DOUBLE_EQ(m.a, 0.5);
    EXPECT_DOUBLE_EQ(m.d, 200.0 / 792);
    // A rectangle covering the whole sheet fills the whole image.
    dev.fillPath(rect(0, 0, 612, 792), FillRule::NonZero, Paint::solid(Rgb::black()), RenderState{});
    dev.endPage();
    ASSERT_EQ(sink.pages.size(), 1u);
    const RasterPage& p = sink.pages[0];
    EXPECT_EQ(p.width, 306);
    EXPECT_EQ(p.height, 200);
    EXPECT_EQ(countBlackRgb(p), 306 * 200);
}

TEST(RasterDevice, FaxPageIsBilevelAt204Dpi) {
    PageCollector sink;
    RasterOptions o;
    o.fax = 1;
    RasterDevice dev(o, sink);
    dev.beginPage(PageSpec{612, 792, 0, 0});
    // The right half of the sheet in black: exactly half of the 1728 pixels.
    dev.fillPath(rect(306, 0, 306, 792), FillRule::NonZero, Paint::solid(Rgb::black()), RenderState{});
    dev.endPage();
    ASSERT_EQ(sink.pages.size(), 1u);
    const RasterPage& p = sink.pages[0];
    EXPECT_EQ(p.format, RasterPage::Format::Bilevel);
    EXPECT_EQ(p.width, 1728);
    EXPECT_EQ(p.height, 2156);
    EXPECT_DOUBLE_EQ(p.xdpi, 204);
    EXPECT_DOUBLE_EQ(p.ydpi, 196);
    EXPECT_FALSE(black(p, 863, 1000));
    EXPECT_TRUE(black(p, 864, 1000));
    EXPECT_TRUE(black(p, 1727, 2155));
    EXPECT_FALSE(black(p, 0, 0));
}

TEST(RasterDevice, SinkFailureStopsFurtherPages) {
    PageCollector sink;
    sink.refuseFrom = 1;
    RasterDevice dev(opts(8), sink);
    for (int i = 0; i < 3; ++i) {
        dev.beginPage(square());
        dev.fillPath(rect(0, 0, 10, 10), FillRule::NonZero, Paint::solid(Rgb::black()), RenderState{});
        dev.endPage();
    }
    EXPECT_EQ(sink.offered, 2);
    EXPECT_EQ(sink.pages.size(), 1u);
    EXPECT_EQ(dev.pagesWritten(), 1);
    EXPECT_TRUE(dev.sinkFailed());
}

TEST(RasterDevice, PagesAreIndependent) {
    PageCollector sink;
    RasterDevice dev(opts(8), sink);
    dev.beginPage(square());
    dev.fillPath(rect(0, 0, 72, 72), FillRule::NonZero, Paint::solid(Rgb::black()), RenderState{});
    dev.endPage();
    dev.beginPage(square(36));
    dev.endPage();
    ASSERT_EQ(sink.pages.size(), 2u);
    EXPECT_EQ(grey(sink.pages[0], 5, 5), 0);
    EXPECT_EQ(sink.pages[1].width, 36);
    EXPECT_EQ(grey(sink.pages[1], 5, 5), 255);
    EXPECT_EQ(dev.pagesWritten(), 2);
    EXPECT_FALSE(dev.sinkFailed());
}

TEST(RasterDevice, BlackAndWhitePagesStartWhiteAgainAtTheSameSize) {
    // Black-and-white pages reuse one page store: a page after a black one is white wherever
    // nothing was drawn, rows drawn on and rows left alone alike.
    PageCollector sink;
    RasterDevice dev(opts(1), sink);
    dev.beginPage(square());
    dev.fillPath(rect(0, 0, 72, 72), FillRule::NonZero, Paint::solid(Rgb::black()), RenderState{});
    dev.endPage();
    dev.beginPage(square());
    dev.fillPath(rect(10, 20, 5, 1), FillRule::NonZero, Paint::solid(Rgb::black()), RenderState{});
    dev.endPage();
    ASSERT_EQ(sink.pages.size(), 2u);
    int inkFirst = 0, inkSecond = 0;
    for (int y = 0; y < 72; ++y)
        for (int x = 0; x < 72; ++x) {
            inkFirst += black(sink.pages[0], x, y);
            inkSecond += black(sink.pages[1], x, y);
        }
    EXPECT_EQ(inkFirst, 72 * 72);
    EXPECT_EQ(inkSecond, 5);
    EXPECT_TRUE(black(sink.pages[1], 10, 20));
    EXPECT_FALSE(black(sink.pages[1], 9, 20));
    EXPECT_FALSE(black(sink.pages[1], 10, 21));
}

TEST(RasterDevice, DrawingOutsideAPageIsIgnored) {
    PageCollector sink;
    RasterDevice dev(opts(24), sink);
    dev.fillPath(rect(0, 0, 10, 10), FillRule::NonZero, Paint::solid(Rgb::black()), RenderState{});
    dev.endPage();
    EXPECT_EQ(sink.offered, 0);
}

// ---- fills ----------------------------------------------------------------------------------

TEST(RasterDevice, FillCoversPixelCentresExactly) {
    PageCollector sink;
    RasterDevice dev(opts(24), sink);
    dev.beginPage(square());
    dev.fillPath(rect(10, 20, 15, 5), FillRule::NonZero, Paint::solid({200, 10, 30}), RenderState{});
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    for (int y = 0; y < 72; ++y)
        for (int x = 0; x < 72; ++x) {
            const bool in = x >= 10 && x < 25 && y >= 20 && y < 25;
            ASSERT_EQ(px(p, x, y), (in ? Rgb{200, 10, 30} : Rgb::white())) << x << "," << y;
        }
}

TEST(RasterDevice, EvenOddLeavesTheHoleNonZeroFillsIt) {
    Path nested = rect(10, 10, 40, 40);
    nested.append(rect(20, 20, 20, 20)); // same winding direction
    for (FillRule rule : {FillRule::NonZero, FillRule::EvenOdd}) {
        PageCollector sink;
        RasterDevice dev(opts(8), sink);
        dev.beginPage(square());
        dev.fillPath(nested, rule, Paint::solid(Rgb::black()), RenderState{});
        dev.endPage();
        const RasterPage& p = sink.pages.at(0);
        EXPECT_EQ(grey(p, 15, 15), 0);
        EXPECT_EQ(grey(p, 30, 30), rule == FillRule::NonZero ? 0 : 255);
        EXPECT_EQ(grey(p, 5, 5), 255);
    }
}

TEST(RasterDevice, CurvesAreFilledWithoutAntialiasing) {
    PageCollector sink;
    RasterDevice dev(opts(8), sink);
    dev.beginPage(square());
    // A circle of radius 30 around (36, 36) from four Béziers.
    const double k = 0.5523 * 30, c = 36, r = 30;
    Path circle;
    circle.moveTo({c + r, c});
    circle.curveTo({c + r, c + k}, {c + k, c + r}, {c, c + r});
    circle.curveTo({c - k, c + r}, {c - r, c + k}, {c - r, c});
    circle.curveTo({c - r, c - k}, {c - k, c - r}, {c, c - r});
    circle.curveTo({c + k, c - r}, {c + r, c - k}, {c + r, c});
    circle.close();
    dev.fillPath(circle, FillRule::NonZero, Paint::solid({128, 128, 128}), RenderState{});
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    int inked = 0;
    for (int y = 0; y < 72; ++y)
        for (int x = 0; x < 72; ++x) {
            const int v = grey(p, x, y);
            ASSERT_TRUE(v == 128 || v == 255) << "no in-between values: " << v;
            inked += v == 128;
        }
    EXPECT_NEAR(inked, M_PI * r * r, 40);
    EXPECT_EQ(grey(p, 36, 36), 128);
    EXPECT_EQ(grey(p, 8, 8), 255);
}

TEST(RasterDevice, NonePaintDrawsNothing) {
    PageCollector sink;
    RasterDevice dev(opts(24), sink);
    dev.beginPage(square());
    dev.fillPath(rect(0, 0, 72, 72), FillRule::NonZero, Paint::none(), RenderState{});
    dev.fillMask(makeMask(8, 8, [](int, int) { return true; }), {}, Paint::none(), RenderState{});
    dev.endPage();
    EXPECT_EQ(countBlackRgb(sink.pages.at(0)), 0);
    for (uint8_t b : sink.pages.at(0).data)
        ASSERT_EQ(b, 255);
}

TEST(RasterDevice, HostileCoordinatesDoNotCrash) {
    PageCollector sink;
    RasterDevice dev(opts(8), sink);
    dev.beginPage(square());
    Path huge;
    huge.moveTo({-1e12, -1e12});
    huge.lineTo({1e12, -1e12});
    huge.lineTo({1e12, 1e12});
    huge.lineTo({-1e12, 1e12});
    huge.close();
    dev.fillPath(huge, FillRule::NonZero, Paint::solid(Rgb::black()), RenderState{});
    Path bad;
    bad.moveTo({NAN, 0});
    bad.lineTo({10, 10});
    dev.fillPath(bad, FillRule::NonZero, Paint::solid({9, 9, 9}), RenderState{});
    StrokeStyle s;
    s.width = 0;
    Path far;
    far.moveTo({-1e15, 3});
    far.lineTo({1e15, 3});
    dev.strokePath(far, s, Paint::solid({100, 100, 100}), RenderState{});
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    EXPECT_EQ(grey(p, 0, 0), 0);
    EXPECT_EQ(grey(p, 71, 71), 0);
    EXPECT_EQ(grey(p, 30, 3), 100);
}

// ---- strokes --------------------------------------------------------------------------------

TEST(RasterDevice, StrokeWidthAndCaps) {
    struct Case {
        StrokeStyle::Cap cap;
        int x0, x1;
    } cases[] = {{StrokeStyle::Cap::Butt, 10, 50},
                 {StrokeStyle::Cap::Square, 8, 52},
                 {StrokeStyle::Cap::Round, 8, 52}};
    for (const Case& c : cases) {
        PageCollector sink;
        RasterDevice dev(opts(8), sink);
        dev.beginPage(square());
        Path line;
        line.moveTo({10, 30});
        line.lineTo({50, 30});
        StrokeStyle s;
        s.width = 4;
        s.cap = c.cap;
        dev.strokePath(line, s, Paint::solid(Rgb::black()), RenderState{});
        dev.endPage();
        const RasterPage& p = sink.pages.at(0);
        // Rows 28..31 across the middle of the line.
        for (int y = 26; y < 34; ++y)
            EXPECT_EQ(grey(p, 30, y), (y >= 28 && y < 32) ? 0 : 255) << y;
        EXPECT_EQ(grey(p, c.x0, 30), 0) << int(c.cap);
        EXPECT_EQ(grey(p, c.x0 - 1, 30), 255) << int(c.cap);
        EXPECT_EQ(grey(p, c.x1 - 1, 30), 0) << int(c.cap);
        EXPECT_EQ(grey(p, c.x1, 30), 255) << int(c.cap);
        if (c.cap == StrokeStyle::Cap::Round) { // the corners of the square cap are not inked
            EXPECT_EQ(grey(p, 8, 28), 255);
        }
        if (c.cap == StrokeStyle::Cap::Square) {
            EXPECT_EQ(grey(p, 8, 28), 0);
        }
    }
}

TEST(RasterDevice, ZeroWidthIsOnePixelLine) {
    PageCollector sink;
    RasterDevice dev(opts(8), sink);
    dev.beginPage(square());
    StrokeStyle s;
    s.width = 0;
    Path h;
    h.moveTo({5, 10});
    h.lineTo({60, 10});
    dev.strokePath(h, s, Paint::solid(Rgb::black()), RenderState{});
    Path diag;
    diag.moveTo({5, 20});
    diag.lineTo({45, 60}); // 45 degrees
    diag.lineTo({65, 30});
    dev.strokePath(diag, s, Paint::solid(Rgb::black()), RenderState{});
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    // The horizontal line: exactly one row thick along its length, 55 pixels long.
    EXPECT_EQ(grey(p, 4, 10), 255);
    EXPECT_EQ(grey(p, 60, 10), 255);
    for (int x = 5; x < 60; ++x) {
        int n = 0;
        for (int y = 0; y < 16; ++y)
            n += grey(p, x, y) == 0;
        EXPECT_EQ(n, 1) << x;
    }
    // The 45-degree part: one pixel a column, each row touching the previous one.
    int prevY = -1;
    for (int x = 6; x < 44; ++x) {
        int n = 0, at = -1;
        for (int y = 16; y < 64; ++y)
            if (grey(p, x, y) == 0 && y <= 60 - (45 - x) + 2) {
                ++n;
                at = y;
            }
        EXPECT_EQ(n, 1) << x;
        if (prevY >= 0) {
            EXPECT_LE(std::abs(at - prevY), 1);
        }
        prevY = at;
    }
}

TEST(RasterDevice, ThinLinesNeverDisappear) {
    // Much thinner than a pixel, on a low resolution page: still one pixel wide.
    PageCollector sink;
    RasterDevice dev(opts(8, 36), sink);
    dev.beginPage(square());
    StrokeStyle s;
    s.width = 0.3;
    Path l;
    l.moveTo({3.3, 20.2});
    l.lineTo({70, 20.2});
    dev.strokePath(l, s, Paint::solid(Rgb::black()), RenderState{});
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    for (int x = 2; x < 35; ++x)
        EXPECT_EQ(grey(p, x, 10), 0) << x;
}

TEST(RasterDevice, DashedStrokes) {
    for (double width : {0.0, 2.0}) {
        PageCollector sink;
        RasterDevice dev(opts(8), sink);
        dev.beginPage(square());
        StrokeStyle s;
        s.width = width;
        s.dashes = {4, 4};
        Path l;
        l.moveTo({0, 30});
        l.lineTo({64, 30});
        dev.strokePath(l, s, Paint::solid(Rgb::black()), RenderState{});
        dev.endPage();
        const RasterPage& p = sink.pages.at(0);
        const int y = width == 0 ? 30 : 29;
        for (int x : {1, 2, 9, 10, 17, 18})
            EXPECT_EQ(grey(p, x, y), 0) << width << " " << x;
        for (int x : {5, 6, 13, 14, 21, 22})
            EXPECT_EQ(grey(p, x, y), 255) << width << " " << x;
    }
}

TEST(RasterDevice, MiterAndBevelJoins) {
    for (StrokeStyle::Join join : {StrokeStyle::Join::Miter, StrokeStyle::Join::Bevel}) {
        PageCollector sink;
        RasterDevice dev(opts(8), sink);
        dev.beginPage(square());
        Path corner;
        corner.moveTo({10, 50});
        corner.lineTo({50, 50});
        corner.lineTo({50, 10});
        StrokeStyle s;
        s.width = 8;
        s.join = join;
        dev.strokePath(corner, s, Paint::solid(Rgb::black()), RenderState{});
        dev.endPage();
        // The outer corner pixel (53, 53) is inked only by the miter.
        EXPECT_EQ(grey(sink.pages.at(0), 53, 53), join == StrokeStyle::Join::Miter ? 0 : 255);
        EXPECT_EQ(grey(sink.pages.at(0), 50, 50), 0);
    }
}

// ---- clipping -------------------------------------------------------------------------------

TEST(RasterDevice, RectangleClip) {
    PageCollector sink;
    RasterDevice dev(opts(8), sink);
    dev.beginPage(square());
    RenderState rs;
    rs.clip = clipOf({rect(10, 10, 20, 20)});
    dev.fillPath(rect(0, 0, 72, 72), FillRule::NonZero, Paint::solid(Rgb::black()), rs);
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    for (int y = 0; y < 72; ++y)
        for (int x = 0; x < 72; ++x)
            ASSERT_EQ(grey(p, x, y), (x >= 10 && x < 30 && y >= 10 && y < 30) ? 0 : 255);
}

TEST(RasterDevice, ClipIsTheIntersectionOfItsPaths) {
    PageCollector sink;
    RasterDevice dev(opts(8), sink);
    dev.beginPage(square());
    Path tri;
    tri.moveTo({0, 0});
    tri.lineTo({72, 0});
    tri.lineTo({0, 72});
    tri.close();
    RenderState rs;
    rs.clip = clipOf({rect(10, 10, 40, 40), tri});
    dev.fillPath(rect(0, 0, 72, 72), FillRule::NonZero, Paint::solid(Rgb::black()), rs);
    // The same clip object again, for a mask and an image: drawn through the cached clip.
    dev.fillMask(makeMask(72, 72, [](int, int) { return true; }), {}, Paint::solid({50, 50, 50}), rs);
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    EXPECT_EQ(grey(p, 12, 12), 50);
    EXPECT_EQ(grey(p, 40, 20), 50);  // inside both
    EXPECT_EQ(grey(p, 40, 40), 255); // in the square, past the diagonal
    EXPECT_EQ(grey(p, 5, 5), 255);   // in the triangle, outside the square
    for (int y = 0; y < 72; ++y)
        for (int x = 0; x < 72; ++x) {
            const bool inside = x >= 10 && x < 50 && y >= 10 && y < 50 && x + y < 71;
            const bool outside = !(x >= 10 && x < 50 && y >= 10 && y < 50) || x + y > 72;
            if (inside) {
                ASSERT_EQ(grey(p, x, y), 50) << x << "," << y;
            }
            if (outside) {
                ASSERT_EQ(grey(p, x, y), 255) << x << "," << y;
            }
        }
}

TEST(RasterDevice, EvenOddClipAndClipChanges) {
    PageCollector sink;
    RasterDevice dev(opts(8), sink);
    dev.beginPage(square());
    Path ring = rect(10, 10, 50, 50);
    ring.append(rect(20, 20, 30, 30));
    RenderState rs;
    rs.clip = clipOf({ring}, FillRule::EvenOdd);
    dev.fillPath(rect(0, 0, 72, 72), FillRule::NonZero, Paint::solid(Rgb::black()), rs);
    // A new clip replaces the old one; no clip lets everything through.
    RenderState other;
    other.clip = clipOf({rect(30, 30, 5, 5)});
    dev.fillPath(rect(0, 0, 72, 72), FillRule::NonZero, Paint::solid({90, 90, 90}), other);
    dev.fillPath(rect(66, 66, 6, 6), FillRule::NonZero, Paint::solid({60, 60, 60}), RenderState{});
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    EXPECT_EQ(grey(p, 12, 12), 0);
    EXPECT_EQ(grey(p, 25, 25), 255);
    EXPECT_EQ(grey(p, 32, 32), 90);
    EXPECT_EQ(grey(p, 5, 5), 255);
    EXPECT_EQ(grey(p, 70, 70), 60);
    EXPECT_EQ(grey(p, 58, 58), 0);
}

TEST(RasterDevice, ClipOutsideThePageDrawsNothing) {
    PageCollector sink;
    RasterDevice dev(opts(8), sink);
    dev.beginPage(square());
    RenderState rs;
    rs.clip = clipOf({rect(100, 100, 10, 10)});
    dev.fillPath(rect(0, 0, 200, 200), FillRule::NonZero, Paint::solid(Rgb::black()), rs);
    dev.endPage();
    for (uint8_t b : sink.pages.at(0).data)
        ASSERT_EQ(b, 255);
}

// ---- raster operations ----------------------------------------------------------------------

namespace {

// D = dst, then one drawImage of a single-colour image S with solid texture T and the rop,
// both transparencies opaque; returns the resulting pixel.
Rgb ropResult(uint8_t rop, Rgb dst, Rgb src, Rgb tex) {
    PageCollector sink;
    RasterDevice dev(opts(24), sink);
    dev.beginPage(square(8));
    dev.fillPath(rect(0, 0, 8, 8), FillRule::NonZero, Paint::solid(dst), RenderState{});
    const Image im = rgbImage(8, 8, [&](int, int) { return src; });
    dev.drawImage(im, {}, Paint::solid(tex), opaque(rop));
    dev.endPage();
    return px(sink.pages.at(0), 4, 4);
}

// The same for a fill, where S is black.
Rgb fillRopResult(uint8_t rop, Rgb dst, Rgb tex) {
    PageCollector sink;
    RasterDevice dev(opts(24), sink);
    dev.beginPage(square(8));
    dev.fillPath(rect(0, 0, 8, 8), FillRule::NonZero, Paint::solid(dst), RenderState{});
    dev.fillPath(rect(0, 0, 8, 8), FillRule::NonZero, Paint::solid(tex), opaque(rop));
    dev.endPage();
    return px(sink.pages.at(0), 4, 4);
}

Rgb apply(Rgb a, Rgb b, Rgb c, auto&& f) {
    return {uint8_t(f(a.r, b.r, c.r)), uint8_t(f(a.g, b.g, c.g)), uint8_t(f(a.b, b.b, c.b))};
}

} // namespace

TEST(RasterDevice, RopFamiliesOnImages) {
    const Rgb D{0xF0, 0x3C, 0x99}, S{0xCC, 0x0F, 0x5A}, T{0xAA, 0x71, 0x0E};
    using F = int (*)(int, int, int);
    struct Case {
        uint8_t rop;
        F f;
    } cases[] = {
        {0, [](int, int, int) { return 0; }},
        {255, [](int, int, int) { return 255; }},
        {204, [](int, int s, int) { return s; }},
        {240, [](int, int, int t) { return t; }},
        {252, [](int, int s, int t) { return t | s; }},
        {136, [](int d, int s, int) { return d & s; }},
        {238, [](int d, int s, int) { return d | s; }},
        {102, [](int d, int s, int) { return d ^ s; }},
        {90, [](int d, int, int t) { return d ^ t; }},
    };
    for (const Case& c : cases)
        EXPECT_EQ(ropResult(c.rop, D, S, T), apply(D, S, T, c.f)) << int(c.rop);
}

TEST(RasterDevice, RopFamiliesOnFills) {
    const Rgb D{0xF0, 0x3C, 0x99}, T{0xAA, 0x71, 0x0E};
    EXPECT_EQ(fillRopResult(0, D, T), Rgb::black());
    EXPECT_EQ(fillRopResult(255, D, T), Rgb::white());
    EXPECT_EQ(fillRopResult(204, D, T), Rgb::black()); // S is black ink
    EXPECT_EQ(fillRopResult(240, D, T), T);
    EXPECT_EQ(fillRopResult(252, D, T), T);
    EXPECT_EQ(fillRopResult(136, D, T), Rgb::black());
    EXPECT_EQ(fillRopResult(238, D, T), D);
    EXPECT_EQ(fillRopResult(102, D, T), D);
    EXPECT_EQ(fillRopResult(90, D, T), (Rgb{0xF0 ^ 0xAA, 0x3C ^ 0x71, 0x99 ^ 0x0E}));
    EXPECT_EQ(fillRopResult(160, D, T), (Rgb{0xF0 & 0xAA, 0x3C & 0x71, 0x99 & 0x0E})); // DTa
}

TEST(RasterDevice, RopOnGreyPagesUsesLuminance) {
    PageCollector sink;
    RasterDevice dev(opts(8), sink);
    dev.beginPage(square(8));
    dev.fillPath(rect(0, 0, 8, 8), FillRule::NonZero, Paint::solid({0xF0, 0xF0, 0xF0}), RenderState{});
    dev.fillPath(rect(0, 0, 8, 8), FillRule::NonZero, Paint::solid({255, 0, 0}), opaque(90));
    dev.endPage();
    EXPECT_EQ(grey(sink.pages.at(0), 3, 3), 0xF0 ^ 76);
}

// ---- transparency ---------------------------------------------------------------------------

TEST(RasterDevice, SourceTransparency) {
    // An image with a white left half and a black right half over a grey page.
    const Image im = grayImage(8, 8, [](int x, int) { return x < 4 ? 255 : 0; });
    for (bool transparent : {true, false}) {
        PageCollector sink;
        RasterDevice dev(opts(8), sink);
        dev.beginPage(square(8));
        dev.fillPath(rect(0, 0, 8, 8), FillRule::NonZero, Paint::solid({100, 100, 100}), RenderState{});
        RenderState rs = opaque(204);
        rs.sourceTransparent = transparent;
        dev.drawImage(im, {}, Paint::solid(Rgb::black()), rs);
        dev.endPage();
        const RasterPage& p = sink.pages.at(0);
        EXPECT_EQ(grey(p, 1, 1), transparent ? 100 : 255);
        EXPECT_EQ(grey(p, 6, 1), 0);
    }
}

TEST(RasterDevice, PatternTransparencyOnFills) {
    // Columns alternate black and white in the tile.
    auto stripes = tile(2, 1, {Rgb::black(), Rgb::white()});
    for (bool transparent : {true, false}) {
        PageCollector sink;
        RasterDevice dev(opts(8), sink);
        dev.beginPage(square(8));
        dev.fillPath(rect(0, 0, 8, 8), FillRule::NonZero, Paint::solid({100, 100, 100}), RenderState{});
        RenderState rs = opaque();
        rs.patternTransparent = transparent;
        dev.fillPath(rect(0, 0, 8, 8), FillRule::NonZero, Paint::tiled(stripes), rs);
        dev.endPage();
        const RasterPage& p = sink.pages.at(0);
        EXPECT_EQ(grey(p, 0, 3), 0);
        EXPECT_EQ(grey(p, 1, 3), transparent ? 100 : 255);
        EXPECT_EQ(grey(p, 2, 3), 0);
    }
}

TEST(RasterDevice, TransparencyInteractionOnImages) {
    // S: white on the left half, black on the right; T: white on even rows, black on odd rows.
    const Image im = grayImage(8, 8, [](int x, int) { return x < 4 ? 255 : 0; });
    auto rows = tile(1, 2, {Rgb::white(), Rgb::black()});
    const int D = 100;
    auto run = [&](bool srcT, bool patT, uint8_t rop) {
        PageCollector sink;
        RasterDevice dev(opts(8), sink);
        dev.beginPage(square(8));
        dev.fillPath(rect(0, 0, 8, 8), FillRule::NonZero, Paint::solid({D, D, D}), RenderState{});
        RenderState rs = opaque(rop);
        rs.sourceTransparent = srcT;
        rs.patternTransparent = patT;
        dev.drawImage(im, {}, Paint::tiled(rows), rs);
        dev.endPage();
        const RasterPage p = sink.pages.at(0);
        // {S white & T white, S white & T black, S black & T white, S black & T black}
        return std::vector<int>{grey(p, 1, 0), grey(p, 1, 1), grey(p, 6, 0), grey(p, 6, 1)};
    };
    // rop 252 = T or S.
    EXPECT_EQ(run(false, false, 252), (std::vector<int>{255, 255, 255, 0}));
    // Source opaque, pattern transparent: where S is white the rop applies whatever T is.
    EXPECT_EQ(run(false, true, 252), (std::vector<int>{255, 255, D, 0}));
    // Source transparent, pattern opaque: white S leaves D.
    EXPECT_EQ(run(true, false, 252), (std::vector<int>{D, D, 255, 0}));
    // Both transparent: only black S under black T is drawn.
    EXPECT_EQ(run(true, true, 252), (std::vector<int>{D, D, D, 0}));
    // The same rules hold under another rop (DSx: D xor S).
    EXPECT_EQ(run(false, true, 102), (std::vector<int>{D ^ 255, D ^ 255, D, D}));
}

TEST(RasterDevice, SolidWhitePaintIsNeverPatternTransparent) {
    PageCollector sink;
    RasterDevice dev(opts(8), sink);
    dev.beginPage(square(8));
    dev.fillPath(rect(0, 0, 8, 8), FillRule::NonZero, Paint::solid(Rgb::black()), RenderState{});
    dev.fillPath(rect(0, 0, 4, 8), FillRule::NonZero, Paint::solid(Rgb::white()), RenderState{});
    dev.endPage();
    EXPECT_EQ(grey(sink.pages.at(0), 1, 1), 255);
    EXPECT_EQ(grey(sink.pages.at(0), 6, 1), 0);
}

// ---- patterns -------------------------------------------------------------------------------

TEST(RasterDevice, PatternTilesAnchoredAtThePageOrigin) {
    PageCollector sink;
    RasterDevice dev(opts(24), sink);
    dev.beginPage(square(16));
    const Rgb R{255, 0, 0}, G{0, 255, 0}, B{0, 0, 255}, K = Rgb::black();
    auto t = tile(2, 2, {R, G, B, K});
    // Two separate fills continue the same tiling.
    dev.fillPath(rect(3, 3, 5, 10), FillRule::NonZero, Paint::tiled(t), opaque());
    dev.fillPath(rect(8, 3, 5, 10), FillRule::NonZero, Paint::tiled(t), opaque());
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    for (int y = 3; y < 13; ++y)
        for (int x = 3; x < 13; ++x) {
            const Rgb want = (y % 2 == 0) ? (x % 2 == 0 ? R : G) : (x % 2 == 0 ? B : K);
            ASSERT_EQ(px(p, x, y), want) << x << "," << y;
        }
    EXPECT_EQ(px(p, 2, 3), Rgb::white());
}

TEST(RasterDevice, PatternTileScaledAndShifted) {
    PageCollector sink;
    RasterDevice dev(opts(8, 144), sink); // 2 pixels a point
    dev.beginPage(square(16));
    // A 2x1 tile whose pixels are 1 point wide, shifted by one point: 2 device pixels each.
    auto t = tile(2, 1, {Rgb::black(), {128, 128, 128}}, Matrix::translate(1, 0));
    dev.fillPath(rect(0, 0, 16, 16), FillRule::NonZero, Paint::tiled(t), opaque());
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    const int want[] = {128, 128, 0, 0, 128, 128, 0, 0, 128, 128};
    for (int x = 0; x < 10; ++x)
        EXPECT_EQ(grey(p, x, 5), want[x]) << x;
}

TEST(RasterDevice, RotatedPattern) {
    PageCollector sink;
    RasterDevice dev(opts(8), sink);
    dev.beginPage(square(8));
    // Rows of the tile become columns after a quarter turn.
    auto t = tile(1, 2, {Rgb::black(), {128, 128, 128}}, Matrix::rotate(M_PI / 2));
    dev.fillPath(rect(0, 0, 8, 8), FillRule::NonZero, Paint::tiled(t), opaque());
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    for (int y = 0; y < 8; ++y)
        for (int x = 1; x < 8; ++x)
            ASSERT_NE(grey(p, x, y), grey(p, x - 1, y));
    for (int y = 1; y < 8; ++y)
        ASSERT_EQ(grey(p, 3, y), grey(p, 3, 0));
}

// ---- images ---------------------------------------------------------------------------------

TEST(RasterDevice, ImageOneToOneIsExact) {
    PageCollector sink;
    RasterDevice dev(opts(24, 300), sink);
    dev.beginPage(square(72));
    const Image im = rgbImage(37, 23, [](int x, int y) {
        return Rgb{uint8_t(x * 7), uint8_t(y * 11), uint8_t((x ^ y) * 3)};
    });
    dev.drawImage(im, placed(12, 6, 300), Paint::solid(Rgb::black()), opaque(204));
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    const int ox = 50, oy = 25; // 12 pt and 6 pt at 300 dpi
    for (int y = -1; y <= 23; ++y)
        for (int x = -1; x <= 37; ++x) {
            const bool in = x >= 0 && x < 37 && y >= 0 && y < 23;
            const Rgb want = in ? Rgb{uint8_t(x * 7), uint8_t(y * 11), uint8_t((x ^ y) * 3)}
                                : Rgb::white();
            ASSERT_EQ(px(p, ox + x, oy + y), want) << x << "," << y;
        }
}

TEST(RasterDevice, ImageScaledByWholeFactors) {
    PageCollector sink;
    RasterDevice dev(opts(8, 300), sink);
    dev.beginPage(square(72));
    const Image im = grayImage(10, 10, [](int x, int y) { return (x + y) % 2 ? 0 : 200; });
    dev.drawImage(im, placed(0, 0, 100), Paint::solid(Rgb::black()), opaque(204)); // 3x3 blocks
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    for (int y = 0; y < 30; ++y)
        for (int x = 0; x < 30; ++x)
            ASSERT_EQ(grey(p, x, y), ((x / 3 + y / 3) % 2) ? 0 : 200) << x << "," << y;
    EXPECT_EQ(grey(p, 30, 5), 255);
    EXPECT_EQ(grey(p, 5, 30), 255);
}

TEST(RasterDevice, ImageStripsHaveNoSeams) {
    // The same image drawn whole and as strips of a few rows, at several scales, must match:
    // a device pixel centre on the line between two strips belongs to exactly one of them.
    const Image whole = grayImage(40, 30, [](int x, int y) { return (x * 13 + y * 7) % 250; });
    for (int stripRows : {1, 3, 5})
    for (double imageDpi : {300.0, 150.0, 200.0, 75.0, 450.0, 97.0, 600.0, 1200.0}) {
        std::vector<RasterPage> results;
        for (bool strips : {false, true}) {
            PageCollector sink;
            RasterDevice dev(opts(8, 300), sink);
            dev.beginPage(square(72));
            if (!strips) {
                dev.drawImage(whole, placed(3.3, 2.1, imageDpi), Paint::solid(Rgb::black()), opaque(204));
            } else {
                for (int y0 = 0; y0 < 30; y0 += stripRows) {
                    const Image part = grayImage(40, stripRows, [&](int x, int y) {
                        return whole.data[size_t(y0 + y) * whole.stride + x];
                    });
                    const Matrix m = Matrix::translate(3.3, 2.1 + y0 * 72.0 / imageDpi) *
                                     Matrix::scale(72.0 / imageDpi, 72.0 / imageDpi);
                    dev.drawImage(part, m, Paint::solid(Rgb::black()), opaque(204));
                }
            }
            dev.endPage();
            results.push_back(sink.pages.at(0));
        }
        if (imageDpi <= 300) {
            EXPECT_EQ(results[0].data, results[1].data) << imageDpi << " dpi, strips of " << stripRows;
        } else {
            // Drawn smaller than its pixels, a device row on the line between two strips
            // averages only one strip's share: the strips keep the picture's mean.
            auto mean = [](const RasterPage& p) {
                double sum = 0;
                int n = 0;
                for (int y = 0; y < p.height; ++y)
                    for (int x = 0; x < p.width; ++x)
                        if (p.row(y)[x] != 255) {
                            sum += p.row(y)[x];
                            ++n;
                        }
                return n ? sum / n : 0.0;
            };
            EXPECT_NEAR(mean(results[0]), mean(results[1]), 6) << imageDpi << " dpi, strips of " << stripRows;
        }
        // The image covers the expected number of device rows: no gap, no overlap.
        int rowsTouched = 0;
        for (int y = 0; y < 300; ++y) {
            bool any = false;
            for (int x = 0; x < 300 && !any; ++x)
                any = results[1].row(y)[x] != 255;
            rowsTouched += any;
        }
        EXPECT_NEAR(rowsTouched, 30 * 300 / imageDpi, 1.01) << imageDpi << " dpi, strips of " << stripRows;
    }
}

TEST(RasterDevice, RotatedAndFlippedImages) {
    const Image im = grayImage(4, 2, [](int x, int y) { return y * 4 + x; });
    PageCollector sink;
    RasterDevice dev(opts(8), sink);
    dev.beginPage(square(16));
    // A quarter turn clockwise about the origin, then moved right: image x runs down the page.
    dev.drawImage(im, Matrix::translate(10, 1) * Matrix::rotate(M_PI / 2), Paint::solid(Rgb::black()),
                  opaque(204));
    // Flipped left to right.
    dev.drawImage(im, Matrix::translate(4, 10) * Matrix::scale(-1, 1), Paint::solid(Rgb::black()),
                  opaque(204));
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    for (int x = 0; x < 4; ++x)
        for (int y = 0; y < 2; ++y) {
            EXPECT_EQ(grey(p, 9 - y, 1 + x), y * 4 + x) << x << "," << y;
            EXPECT_EQ(grey(p, 3 - x, 10 + y), y * 4 + x) << x << "," << y;
        }
}

TEST(RasterDevice, GreyImageOnRgbAndRgbImageOnGrey) {
    {
        PageCollector sink;
        RasterDevice dev(opts(24), sink);
        dev.beginPage(square(4));
        dev.drawImage(grayImage(4, 4, [](int, int) { return 77; }), {}, Paint::solid(Rgb::black()), opaque(204));
        dev.endPage();
        EXPECT_EQ(px(sink.pages.at(0), 2, 2), (Rgb{77, 77, 77}));
    }
    {
        PageCollector sink;
        RasterDevice dev(opts(8), sink);
        dev.beginPage(square(4));
        dev.drawImage(rgbImage(4, 4, [](int, int) { return Rgb{0, 255, 0}; }), {}, Paint::solid(Rgb::black()),
                      opaque(204));
        dev.endPage();
        EXPECT_EQ(grey(sink.pages.at(0), 2, 2), 150);
    }
}

TEST(RasterDevice, ImageThroughClip) {
    PageCollector sink;
    RasterDevice dev(opts(8), sink);
    dev.beginPage(square(16));
    Path tri;
    tri.moveTo({0, 0});
    tri.lineTo({16, 0});
    tri.lineTo({0, 16});
    tri.close();
    RenderState rs = opaque(204);
    rs.clip = clipOf({tri});
    dev.drawImage(grayImage(16, 16, [](int, int) { return 0; }), {}, Paint::solid(Rgb::black()), rs);
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    EXPECT_EQ(grey(p, 2, 2), 0);
    EXPECT_EQ(grey(p, 14, 14), 255);
}

// ---- masks ----------------------------------------------------------------------------------

TEST(RasterDevice, MaskOneToOne) {
    auto ink = [](int x, int y) { return ((x * 3 + y * 5) % 7) < 3 || x == 0; };
    const Mask m = makeMask(45, 19, ink);
    for (int depth : {1, 8}) {
        PageCollector sink;
        RasterDevice dev(opts(depth, 300), sink);
        dev.beginPage(square(72));
        dev.fillMask(m, placed(2.4, 4.8, 300), Paint::solid(Rgb::black()), RenderState{});
        dev.endPage();
        const RasterPage& p = sink.pages.at(0);
        const int ox = 10, oy = 20;
        for (int y = -2; y < 21; ++y)
            for (int x = -2; x < 47; ++x) {
                const bool want = x >= 0 && x < 45 && y >= 0 && y < 19 && ink(x, y);
                const bool got = depth == 1 ? black(p, ox + x, oy + y) : grey(p, ox + x, oy + y) == 0;
                ASSERT_EQ(got, want) << depth << ":" << x << "," << y;
                if (depth == 8) {
                    ASSERT_EQ(grey(p, ox + x, oy + y), want ? 0 : 255);
                }
            }
    }
}

TEST(RasterDevice, MaskPartlyOffThePage) {
    const Mask m = makeMask(20, 20, [](int, int) { return true; });
    PageCollector sink;
    RasterDevice dev(opts(8), sink);
    dev.beginPage(square(10));
    dev.fillMask(m, Matrix::translate(-5, -7), Paint::solid(Rgb::black()), RenderState{});
    dev.fillMask(m, Matrix::translate(8, 9), Paint::solid({70, 70, 70}), RenderState{});
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    for (int y = 0; y < 10; ++y)
        for (int x = 0; x < 10; ++x) {
            int want = 255;
            if (x < 15 && y < 13)
                want = 0;
            if (x >= 8 && y >= 9)
                want = 70;
            ASSERT_EQ(grey(p, x, y), want) << x << "," << y;
        }
}

TEST(RasterDevice, MaskScaledWithPaintAndRop) {
    const Mask m = makeMask(4, 4, [](int x, int y) { return x == y; });
    PageCollector sink;
    RasterDevice dev(opts(24), sink);
    dev.beginPage(square(16));
    dev.fillPath(rect(0, 0, 16, 16), FillRule::NonZero, Paint::solid({0xF0, 0xF0, 0xF0}), RenderState{});
    // Each mask pixel becomes 2x2, painted with D xor T.
    dev.fillMask(m, Matrix::scale(2, 2), Paint::solid({0x0F, 0xF0, 0}), opaque(90));
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 8; ++x) {
            const bool in = x / 2 == y / 2;
            ASSERT_EQ(px(p, x, y), (in ? Rgb{0xFF, 0, 0xF0} : Rgb{0xF0, 0xF0, 0xF0})) << x << "," << y;
        }
}

TEST(RasterDevice, MaskWithPatternAndClip) {
    const Mask m = makeMask(8, 8, [](int, int) { return true; });
    auto checker = tile(2, 2, {Rgb::black(), Rgb::white(), Rgb::white(), Rgb::black()});
    PageCollector sink;
    RasterDevice dev(opts(8), sink);
    dev.beginPage(square(8));
    dev.fillPath(rect(0, 0, 8, 8), FillRule::NonZero, Paint::solid({100, 100, 100}), RenderState{});
    RenderState rs; // pattern transparent by default
    Path tri;
    tri.moveTo({0, 0});
    tri.lineTo({8, 0});
    tri.lineTo({0, 8});
    tri.close();
    rs.clip = clipOf({tri});
    dev.fillMask(m, {}, Paint::tiled(checker), rs);
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    EXPECT_EQ(grey(p, 0, 0), 0);
    EXPECT_EQ(grey(p, 1, 0), 100); // white pattern pixel: transparent
    EXPECT_EQ(grey(p, 1, 1), 0);
    EXPECT_EQ(grey(p, 6, 6), 100); // outside the clip
}

TEST(RasterDevice, RotatedMask) {
    const Mask m = makeMask(3, 1, [](int, int) { return true; });
    PageCollector sink;
    RasterDevice dev(opts(8), sink);
    dev.beginPage(square(8));
    dev.fillMask(m, Matrix::translate(5, 2) * Matrix::rotate(M_PI / 2), Paint::solid(Rgb::black()),
                 RenderState{});
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    int n = 0;
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 8; ++x)
            n += grey(p, x, y) == 0;
    EXPECT_EQ(n, 3);
    EXPECT_EQ(grey(p, 4, 2), 0);
    EXPECT_EQ(grey(p, 4, 3), 0);
    EXPECT_EQ(grey(p, 4, 4), 0);
}

// ---- output depths --------------------------------------------------------------------------

TEST(RasterDevice, BilevelKeepsBlackAndWhiteAndDithersGrey) {
    PageCollector sink;
    RasterDevice dev(opts(1), sink);
    dev.beginPage(square(64));
    dev.fillPath(rect(0, 0, 32, 32), FillRule::NonZero, Paint::solid(Rgb::black()), RenderState{});
    dev.fillPath(rect(32, 0, 32, 32), FillRule::NonZero, Paint::solid({128, 128, 128}), RenderState{});
    dev.fillPath(rect(0, 32, 32, 32), FillRule::NonZero, Paint::solid({255, 0, 0}), RenderState{});
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    int blackCount = 0, greyCount = 0, redCount = 0, whiteCount = 0;
    for (int y = 0; y < 64; ++y)
        for (int x = 0; x < 64; ++x) {
            const bool b = black(p, x, y);
            if (x < 32 && y < 32)
                blackCount += b;
            else if (y < 32)
                greyCount += b;
            else if (x < 32)
                redCount += b;
            else
                whiteCount += b;
        }
    EXPECT_EQ(blackCount, 1024);
    EXPECT_EQ(whiteCount, 0);
    EXPECT_EQ(greyCount, 512); // 50% grey: half of the pixels, exactly over whole 16x16 cells
    EXPECT_NEAR(redCount, 1024 * (255 - 76) / 255.0, 8);
    // Deterministic: the same page again gives the same bits.
    PageCollector again;
    RasterDevice dev2(opts(1), again);
    dev2.beginPage(square(64));
    dev2.fillPath(rect(32, 0, 32, 32), FillRule::NonZero, Paint::solid({128, 128, 128}), RenderState{});
    dev2.endPage();
    for (int y = 0; y < 32; ++y)
        for (int x = 32; x < 64; ++x)
            ASSERT_EQ(black(again.pages.at(0), x, y), black(p, x, y));
}

TEST(RasterDevice, BilevelPageHasMinIsWhiteBitsAndPaddedRows) {
    PageCollector sink;
    RasterDevice dev(opts(1), sink);
    dev.beginPage(square(13));
    dev.fillPath(rect(12, 0, 1, 13), FillRule::NonZero, Paint::solid(Rgb::black()), RenderState{});
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    EXPECT_EQ(p.stride, 2u);
    EXPECT_EQ(p.row(5)[0], 0x00);
    EXPECT_EQ(p.row(5)[1], 0x08); // pixel 12 is bit 3 of the second byte
}

// Draws the same calls on a grey page and a black-and-white one. Where no raster operation reads
// the page, every black-and-white pixel must be the grey pixel halftoned at its position.
void expectBilevelIsDitheredGrey(const std::function<void(Device&)>& draw, int side) {
    PageCollector greySink, bitSink;
    RasterDevice greyDev(opts(8), greySink), bitDev(opts(1), bitSink);
    for (Device* d : {static_cast<Device*>(&greyDev), static_cast<Device*>(&bitDev)}) {
        d->beginPage(square(side));
        draw(*d);
        d->endPage();
    }
    const RasterPage& g = greySink.pages.at(0);
    const RasterPage& b = bitSink.pages.at(0);
    ASSERT_EQ(b.stride, size_t(side + 7) / 8);
    const auto& thr = raster::ditherThresholds();
    int mismatches = 0, inked = 0;
    for (int y = 0; y < side; ++y)
        for (int x = 0; x < side; ++x) {
            const bool want = grey(g, x, y) < thr[y & 15][x & 15];
            inked += want;
            if (black(b, x, y) != want && ++mismatches <= 5)
                ADD_FAILURE() << "pixel " << x << "," << y << " grey " << grey(g, x, y);
        }
    EXPECT_EQ(mismatches, 0);
    EXPECT_GT(inked, 0);
}

TEST(RasterDevice, BilevelMasksAtEveryBitOffsetMatchTheGreyPage) {
    // Glyph-like masks one to one with the device, at every offset within a byte, in black and
    // in grey, inside a rectangular clip that cuts them at odd columns.
    const Mask m = makeMask(29, 11, [](int x, int y) { return (x * 7 + y * 3) % 5 < 2 || x == 28; });
    expectBilevelIsDitheredGrey(
        [&](Device& d) {
            RenderState rs;
            rs.clip = clipOf({rect(5, 3, 141, 150)});
            for (int i = 0; i < 16; ++i) {
                const Rgb ink = i % 3 == 0 ? Rgb::black() : Rgb{uint8_t(40 * (i % 5)), 90, 200};
                d.fillMask(m, Matrix::translate(i * 9 - 3, i * 10 - 2), Paint::solid(ink), rs);
            }
            // Scaled up three times: the path that does not map mask pixels one to one.
            d.fillMask(m, Matrix::translate(60, 20) * Matrix::scale(3, 3), Paint::solid({100, 100, 100}), rs);
        },
        160);
}

TEST(RasterDevice, BilevelImagesPatternsAndTransparencyMatchTheGreyPage) {
    const Image ramp = grayImage(37, 23, [](int x, int y) { return x * 7 + y * 3 > 250 ? 255 : x * 7 + y * 3; });
    const auto checker = tile(6, 6, [] {
        std::vector<Rgb> px(36, Rgb::white());
        for (int i = 0; i < 36; ++i)
            if ((i / 6 + i % 6) % 3 == 0)
                px[size_t(i)] = Rgb{70, 70, 70};
        return px;
    }());
    expectBilevelIsDitheredGrey(
        [&](Device& d) {
            d.fillPath(rect(0, 0, 120, 120), FillRule::NonZero, Paint::solid({200, 200, 200}), opaque());
            // Opaque and source-transparent images, one to one and scaled, at odd offsets.
            d.drawImage(ramp, Matrix::translate(3, 5), Paint::solid(Rgb::black()), opaque());
            d.drawImage(ramp, Matrix::translate(41, 7) * Matrix::scale(2, 1.5), Paint::solid(Rgb::black()),
                        RenderState{});
            // A rotated image goes through the general sampling path.
            d.drawImage(ramp, Matrix::translate(60, 70) * Matrix::rotate(0.4), Paint::solid(Rgb::black()),
                        RenderState{});
            // Pattern fills, transparent and opaque, through a clip that is not a rectangle.
            Path disc;
            disc.moveTo({100, 60});
            disc.curveTo({100, 90}, {50, 110}, {30, 90});
            disc.lineTo({80, 20});
            disc.close();
            RenderState clipped;
            clipped.clip = clipOf({disc});
            d.fillPath(rect(10, 10, 130, 130), FillRule::NonZero, Paint::tiled(checker), clipped);
            d.fillPath(rect(0, 100, 57, 41), FillRule::NonZero, Paint::tiled(checker), opaque());
            // A one-pixel dashed line.
            StrokeStyle thin;
            thin.width = 0;
            thin.dashes = {5, 3};
            Path line;
            line.moveTo({2, 150});
            line.lineTo({150, 121});
            d.strokePath(line, thin, Paint::solid({30, 30, 30}), RenderState{});
        },
        152);
}

TEST(RasterDevice, BilevelRasterOperationsWorkOnTheHalftonedBits) {
    // The exclusive-or masking trick drivers use (S xor D, then S xor D again) gives the page
    // back exactly, greys included, because the source is halftoned the same way both times.
    const Image ramp = grayImage(40, 40, [](int x, int y) { return (x * 13 + y * 5) % 256; });
    PageCollector sink;
    RasterDevice dev(opts(1), sink);
    dev.beginPage(square(48));
    dev.fillPath(rect(8, 8, 20, 30), FillRule::NonZero, Paint::solid({90, 90, 90}), RenderState{});
    dev.endPage();
    dev.beginPage(square(48));
    dev.fillPath(rect(8, 8, 20, 30), FillRule::NonZero, Paint::solid({90, 90, 90}), RenderState{});
    const uint8_t dsx = 0x66; // D xor S
    dev.drawImage(ramp, Matrix::translate(3, 2), Paint::solid(Rgb::black()), opaque(dsx));
    dev.endPage();
    dev.beginPage(square(48));
    dev.fillPath(rect(8, 8, 20, 30), FillRule::NonZero, Paint::solid({90, 90, 90}), RenderState{});
    dev.drawImage(ramp, Matrix::translate(3, 2), Paint::solid(Rgb::black()), opaque(dsx));
    dev.drawImage(ramp, Matrix::translate(3, 2), Paint::solid(Rgb::black()), opaque(dsx));
    dev.endPage();
    ASSERT_EQ(sink.pages.size(), 3u);
    EXPECT_NE(sink.pages[1].data, sink.pages[0].data);
    EXPECT_EQ(sink.pages[2].data, sink.pages[0].data);
    // Inverting the destination (Dn) flips every bit under the fill and nothing else.
    PageCollector inv;
    RasterDevice dev2(opts(1), inv);
    dev2.beginPage(square(48));
    dev2.fillPath(rect(8, 8, 20, 30), FillRule::NonZero, Paint::solid({90, 90, 90}), RenderState{});
    dev2.fillPath(rect(0, 0, 48, 24), FillRule::NonZero, Paint::solid(Rgb::black()), opaque(0x55));
    dev2.endPage();
    for (int y = 0; y < 48; ++y)
        for (int x = 0; x < 48; ++x)
            ASSERT_EQ(black(inv.pages.at(0), x, y), y < 24 ? !black(sink.pages[0], x, y) : black(sink.pages[0], x, y))
                << x << "," << y;
}

TEST(RasterDevice, MasksDrawnSmallerKeepTheirTone) {
    // A driver's halftone at 600 dpi on a 300 dpi page: every device pixel covers 2 x 2 mask
    // pixels. Sampling one of them would keep or drop whole screens (a diagonal line screen
    // turns solid or vanishes); the share of ink under each device pixel, halftoned, keeps
    // the tone of every screen within a few per cent.
    const std::vector<std::function<bool(int, int)>> screens{
        [](int x, int y) { return ((x + y) & 1) == 0; },           // 50 % checkerboard
        [](int x, int y) { return ((x + y) % 8) < 4; },            // 50 % diagonal lines
        [](int x, int y) { return (x % 4) == 0 || (y % 4) == 0; }, // 44 % grid
        [](int x, int y) { return ((x * 7 + y * 13) % 10) < 2; },  // 20 % scatter
        [](int x, int y) { return ((x ^ y) & 3) != 0; },           // 75 %
    };
    for (size_t i = 0; i < screens.size(); ++i) {
        const Mask m = makeMask(256, 256, screens[i]);
        int inked = 0;
        for (int y = 0; y < 256; ++y)
            for (int x = 0; x < 256; ++x)
                inked += screens[i](x, y);
        for (int depth : {1, 8}) {
            PageCollector sink;
            RasterDevice dev(opts(depth, 300), sink);
            dev.beginPage(square(72));
            dev.fillMask(m, placed(12, 12, 600), Paint::solid(Rgb::black()), RenderState{});
            dev.endPage();
            const RasterPage& p = sink.pages.at(0);
            int dark = 0;
            for (int y = 0; y < p.height; ++y)
                for (int x = 0; x < p.width; ++x)
                    dark += depth == 1 ? black(p, x, y) : grey(p, x, y) == 0;
            EXPECT_NEAR(double(dark) / (128 * 128), double(inked) / (256 * 256), 0.03)
                << "screen " << i << " at depth " << depth;
            if (depth == 8) {
                for (int y = 0; y < p.height; ++y)
                    for (int x = 0; x < p.width; ++x)
                        ASSERT_TRUE(grey(p, x, y) == 0 || grey(p, x, y) == 255) << "no grey edges";
            }
        }
    }
    // Solid ink stays solid and its edges stay where the mask's are.
    const Mask solid = makeMask(64, 64, [](int, int) { return true; });
    PageCollector sink;
    RasterDevice dev(opts(8, 300), sink);
    dev.beginPage(square(72));
    dev.fillMask(solid, placed(12, 12, 600), Paint::solid(Rgb::black()), RenderState{});
    dev.endPage();
    int dark = 0;
    for (int y = 0; y < 300; ++y)
        for (int x = 0; x < 300; ++x)
            dark += grey(sink.pages.at(0), x, y) == 0;
    EXPECT_EQ(dark, 32 * 32);
    EXPECT_EQ(grey(sink.pages.at(0), 50, 50), 0);
    EXPECT_EQ(grey(sink.pages.at(0), 81, 81), 0);
    EXPECT_EQ(grey(sink.pages.at(0), 82, 82), 255);
}

TEST(RasterDevice, ImagesDrawnSmallerAverageTheirPixels) {
    // A one-bit picture (a driver's 50 % checkerboard screen at 600 dpi) on a 300 dpi
    // black-and-white page keeps its tone; sampling every other pixel would print it solid or
    // leave it out.
    const Image screen = grayImage(128, 128, [](int x, int y) { return ((x + y) & 1) ? 255 : 0; });
    PageCollector sink;
    RasterDevice dev(opts(1, 300), sink);
    dev.beginPage(square(72));
    dev.drawImage(screen, placed(12, 12, 600), Paint::solid(Rgb::black()), opaque(204));
    dev.endPage();
    int dark = 0;
    for (int y = 50; y < 114; ++y)
        for (int x = 50; x < 114; ++x)
            dark += black(sink.pages.at(0), x, y);
    EXPECT_NEAR(dark, 64 * 64 / 2, 64 * 64 / 50);

    // A grey picture is averaged and then halftoned like any grey: exactly the ordered dither
    // of a fill in the same grey.
    const Image flat = grayImage(128, 128, [](int, int) { return 100; });
    PageCollector a, b;
    RasterDevice da(opts(1, 300), a), db(opts(1, 300), b);
    da.beginPage(square(72));
    da.drawImage(flat, placed(12, 12, 600), Paint::solid(Rgb::black()), opaque(204));
    da.endPage();
    db.beginPage(square(72));
    db.fillPath(rect(12, 12, 128 * 72.0 / 600, 128 * 72.0 / 600), FillRule::NonZero, Paint::solid({100, 100, 100}),
                opaque());
    db.endPage();
    EXPECT_EQ(a.pages.at(0).data, b.pages.at(0).data);

    // On a grey page the averages stay grey.
    PageCollector g;
    RasterDevice dg(opts(8, 300), g);
    dg.beginPage(square(72));
    dg.drawImage(screen, placed(12, 12, 600), Paint::solid(Rgb::black()), opaque(204));
    dg.endPage();
    EXPECT_EQ(grey(g.pages.at(0), 60, 60), 128);
}

TEST(RasterDevice, GreyOutputIsLuminance) {
    PageCollector sink;
    RasterDevice dev(opts(8), sink);
    dev.beginPage(square(4));
    dev.fillPath(rect(0, 0, 1, 4), FillRule::NonZero, Paint::solid({255, 0, 0}), RenderState{});
    dev.fillPath(rect(1, 0, 1, 4), FillRule::NonZero, Paint::solid({0, 255, 0}), RenderState{});
    dev.fillPath(rect(2, 0, 1, 4), FillRule::NonZero, Paint::solid({0, 0, 255}), RenderState{});
    dev.fillPath(rect(3, 0, 1, 4), FillRule::NonZero, Paint::solid({10, 20, 30}), RenderState{});
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    EXPECT_EQ(p.format, RasterPage::Format::Gray8);
    EXPECT_EQ(grey(p, 0, 0), 76);
    EXPECT_EQ(grey(p, 1, 0), 150);
    EXPECT_EQ(grey(p, 2, 0), 29);
    EXPECT_EQ(grey(p, 3, 0), 18); // (2990 + 11740 + 3420 + 500) / 1000
}

TEST(RasterDevice, RgbOutputKeepsColours) {
    PageCollector sink;
    RasterDevice dev(opts(24), sink);
    dev.beginPage(square(4));
    dev.fillPath(rect(0, 0, 2, 4), FillRule::NonZero, Paint::solid({12, 34, 56}), RenderState{});
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    EXPECT_EQ(p.format, RasterPage::Format::Rgb24);
    EXPECT_EQ(p.stride, 12u);
    EXPECT_EQ(px(p, 1, 3), (Rgb{12, 34, 56}));
    EXPECT_EQ(px(p, 2, 3), Rgb::white());
}

TEST(RasterDevice, FullPageOneBitRasterAt600Dpi) {
    // A Letter page of 1-bit raster strips, one mask pixel to one device pixel, as monochrome
    // raster graphics produce; the delivered bits must equal the mask bits.
    PageCollector sink;
    RasterDevice dev(opts(1, 600), sink);
    dev.beginPage(PageSpec{});
    const int w = 5100, stripRows = 64;
    auto ink = [](int x, int y) { return ((x / 3) ^ (y / 5)) & 1; };
    for (int y0 = 0; y0 < 6600; y0 += stripRows) {
        const int h = std::min(stripRows, 6600 - y0);
        const Mask m = makeMask(w, h, [&](int x, int y) { return ink(x, y0 + y); });
        dev.fillMask(m, placed(0, y0 * 72.0 / 600, 600), Paint::solid(Rgb::black()), RenderState{});
    }
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    ASSERT_EQ(p.width, 5100);
    ASSERT_EQ(p.height, 6600);
    for (int y = 0; y < 6600; y += 7)
        for (int x = 0; x < 5100; ++x)
            ASSERT_EQ(black(p, x, y), bool(ink(x, y))) << x << "," << y;
}

TEST(RasterDevice, PagesWiderThanOneCairoSurface) {
    PageCollector sink;
    RasterOptions o;
    o.depth = 8;
    o.pageWidthPx = 40000;
    o.pageHeightPx = 20;
    RasterDevice dev(o, sink);
    dev.beginPage(PageSpec{4000, 2, 0, 0}); // 10 pixels a point across, 10 down
    RenderState rs;
    Path tri; // a clip across the whole width that is not a rectangle
    tri.moveTo({0, 0});
    tri.lineTo({4000, 0});
    tri.lineTo({4000, 2});
    tri.close();
    rs.clip = clipOf({tri});
    dev.fillPath(rect(0, 0, 4000, 1), FillRule::NonZero, Paint::solid(Rgb::black()), rs);
    StrokeStyle s;
    s.width = 0;
    Path line;
    line.moveTo({0, 1.55});
    line.lineTo({4000, 1.55});
    dev.strokePath(line, s, Paint::solid({80, 80, 80}), RenderState{});
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    ASSERT_EQ(p.width, 40000);
    // Row 2 (centre 2.5): inside the clip right of x = 2.5 * 40000 / 20 = 5000.
    for (int x : {5010, 16383, 16384, 20000, 32767, 32768, 39999})
        EXPECT_EQ(grey(p, x, 2), 0) << x;
    EXPECT_EQ(grey(p, 4990, 2), 255);
    for (int x : {0, 16383, 16384, 32768, 39999})
        EXPECT_EQ(grey(p, x, 15), 80) << x;
}

TEST(RasterDevice, ZeroLengthThinSegmentIsADotBareMoveIsNothing) {
    PageCollector sink;
    RasterDevice dev(opts(8), sink);
    dev.beginPage(square(8));
    StrokeStyle s;
    s.width = 0;
    Path dot;
    dot.moveTo({2.5, 3.5});
    dot.lineTo({2.5, 3.5});
    dot.moveTo({6.5, 6.5}); // a move with nothing after it
    dev.strokePath(dot, s, Paint::solid(Rgb::black()), RenderState{});
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    int n = 0;
    for (uint8_t v : p.data)
        n += v == 0;
    EXPECT_EQ(n, 1);
    EXPECT_EQ(grey(p, 2, 3), 0);
}

TEST(RasterDevice, DashPhaseCarriesAcrossPathOffThePage) {
    // A line that starts far left of the page is dashed as if the page continued: the same as
    // the visible part alone with the missing length as the dash offset.
    for (double width : {0.0, 3.0}) {
        for (std::vector<double> pattern : {std::vector<double>{3, 5}, std::vector<double>{2, 3, 4}}) {
            std::vector<RasterPage> pages;
            for (int variant = 0; variant < 2; ++variant) {
                PageCollector sink;
                RasterDevice dev(opts(8), sink);
                dev.beginPage(square());
                StrokeStyle s;
                s.width = width;
                s.dashes = pattern;
                Path l;
                if (variant == 0) {
                    l.moveTo({-100003, 30});
                    s.dashOffset = 1;
                } else {
                    l.moveTo({0, 30});
                    s.dashOffset = 100003 + 1;
                }
                l.lineTo({70, 30});
                dev.strokePath(l, s, Paint::solid(Rgb::black()), RenderState{});
                dev.endPage();
                pages.push_back(sink.pages.at(0));
            }
            EXPECT_EQ(pages[0].data, pages[1].data) << width << " " << pattern.size();
            int inked = 0;
            for (int x = 0; x < 72; ++x)
                inked += grey(pages[0], x, 30) == 0;
            EXPECT_GT(inked, 15);
            EXPECT_LT(inked, 50);
        }
    }
}

TEST(RasterDevice, OddDashPatternsAlternate) {
    // {2, 3, 4}: on 2, off 3, on 4, then off 2, on 3, off 4, and so on.
    PageCollector sink;
    RasterDevice dev(opts(8), sink);
    dev.beginPage(square());
    StrokeStyle s;
    s.width = 0;
    s.dashes = {2, 3, 4};
    Path l;
    l.moveTo({0, 10.5});
    l.lineTo({36, 10.5});
    dev.strokePath(l, s, Paint::solid(Rgb::black()), RenderState{});
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    const std::string want = "11000111100111000011000111100111";
    std::string got;
    for (int x = 0; x < 32; ++x)
        got += grey(p, x, 10) == 0 ? '1' : '0';
    EXPECT_EQ(got, want);
}

TEST(RasterDevice, DashesFinerThanAPixelDrawSolid) {
    PageCollector sink;
    RasterDevice dev(opts(8), sink);
    dev.beginPage(square());
    StrokeStyle s;
    s.width = 2;
    s.dashes = {0.01, 0.02};
    Path l;
    l.moveTo({-1e9, 20});
    l.lineTo({1e9, 20});
    dev.strokePath(l, s, Paint::solid(Rgb::black()), RenderState{});
    dev.endPage();
    for (int x = 0; x < 72; ++x)
        EXPECT_EQ(grey(sink.pages.at(0), x, 19), 0) << x;
}

TEST(RasterDevice, SwitchingPatternsAndClipsBetweenCalls) {
    auto dark = tile(1, 1, {{10, 10, 10}});
    auto light = tile(1, 1, {{200, 200, 200}});
    auto left = clipOf({rect(0, 0, 4, 8)});
    auto right = clipOf({rect(4, 0, 4, 8)});
    PageCollector sink;
    RasterDevice dev(opts(8), sink);
    dev.beginPage(square(8));
    for (int i = 0; i < 3; ++i) {
        RenderState a;
        a.clip = left;
        RenderState b;
        b.clip = right;
        dev.fillPath(rect(0, 0, 8, 4), FillRule::NonZero, Paint::tiled(i % 2 ? light : dark), a);
        dev.fillPath(rect(0, 0, 8, 4), FillRule::NonZero, Paint::tiled(i % 2 ? dark : light), b);
    }
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    EXPECT_EQ(grey(p, 1, 1), 10);
    EXPECT_EQ(grey(p, 6, 1), 200);
    EXPECT_EQ(grey(p, 1, 6), 255);
}

TEST(RasterDevice, OnlyPureWhiteSourceIsTransparent) {
    const Image im = rgbImage(2, 1, [](int x, int) { return x == 0 ? Rgb::white() : Rgb{255, 255, 254}; });
    PageCollector sink;
    RasterDevice dev(opts(24), sink);
    dev.beginPage(square(2));
    dev.fillPath(rect(0, 0, 2, 1), FillRule::NonZero, Paint::solid({0, 0, 0}), RenderState{});
    dev.drawImage(im, {}, Paint::solid(Rgb::black()), RenderState{}); // source transparent
    dev.endPage();
    EXPECT_EQ(px(sink.pages.at(0), 0, 0), Rgb::black());
    EXPECT_EQ(px(sink.pages.at(0), 1, 0), (Rgb{255, 255, 254}));
}

TEST(RasterDevice, DeclaredResolutionDrivesTheDevice) {
    PageCollector sink;
    RasterDevice dev(RasterOptions{}, sink);
    dev.beginPage(PageSpec{612, 792, 150, 150});
    EXPECT_DOUBLE_EQ(dev.pageToDevice().a, 150.0 / 72);
    dev.fillPath(rect(0, 0, 72, 72), FillRule::NonZero, Paint::solid(Rgb::black()), RenderState{});
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    EXPECT_EQ(p.width, 1275);
    EXPECT_EQ(p.height, 1650);
    EXPECT_DOUBLE_EQ(p.xdpi, 150);
    EXPECT_EQ(px(p, 149, 149), Rgb::black());
    EXPECT_EQ(px(p, 150, 149), Rgb::white());
}

TEST(RasterDevice, MaskOneToOneOnRgbPages) {
    auto ink = [](int x, int y) { return ((x * 5 + y * 3) % 11) < 4 || (x >= 16 && x < 32); };
    const Mask m = makeMask(53, 9, ink);
    PageCollector sink;
    RasterDevice dev(opts(24), sink);
    dev.beginPage(square(72));
    dev.fillPath(rect(0, 0, 72, 72), FillRule::NonZero, Paint::solid({1, 2, 3}), RenderState{});
    RenderState rs;
    rs.clip = clipOf({rect(0, 0, 50, 72)}); // a rectangle: the right of the mask is cut off
    dev.fillMask(m, Matrix::translate(-3, 7), Paint::solid({200, 100, 50}), rs);
    dev.endPage();
    const RasterPage& p = sink.pages.at(0);
    for (int y = 0; y < 20; ++y)
        for (int x = 0; x < 72; ++x) {
            const int mx = x + 3, my = y - 7;
            const bool in = mx < 53 && my >= 0 && my < 9 && x < 50 && ink(mx, my);
            ASSERT_EQ(px(p, x, y), (in ? Rgb{200, 100, 50} : Rgb{1, 2, 3})) << x << "," << y;
        }
}
