// Whole-page fills and page reuse in the rasterising device: the work a fill costs is counted
// (coverage bands rendered, pixels blended one by one), and the quick ways must give the very
// pixels of the band-by-band way.

#include "common/page_collector.h"
#include "render/raster_device.h"
#include "render/raster_ops.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

using namespace qx;
using qxtest::PageCollector;

namespace {

RasterOptions opts(int depth, double dpi) {
    RasterOptions o;
    o.depth = depth;
    o.dpiX = o.dpiY = dpi;
    return o;
}

// A rectangle as four corners, which the device may fill straight away.
Path rect(double x, double y, double w, double h) {
    Path p;
    p.addRect(x, y, w, h);
    return p;
}

// The same rectangle with an extra corner in the middle of its top side: not four corners, so
// the device renders its coverage band by band.
Path rectAsPolygon(double x, double y, double w, double h) {
    Path p;
    p.moveTo({x, y});
    p.lineTo({x + w / 2, y});
    p.lineTo({x + w, y});
    p.lineTo({x + w, y + h});
    p.lineTo({x, y + h});
    p.close();
    return p;
}

std::shared_ptr<const PatternTile> checkerTile(double scale) {
    auto t = std::make_shared<PatternTile>();
    t->width = t->height = 8;
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 8; ++x)
            t->pixels.push_back((x + y) % 3 == 0 ? Rgb::white() : Rgb{uint8_t(30 * x), uint8_t(20 * y), 90});
    t->tileToPage = Matrix::scale(scale, scale);
    return t;
}

RenderState state(bool patternTransparent, uint8_t rop = 252) {
    RenderState rs;
    rs.rop3 = rop;
    rs.patternTransparent = patternTransparent;
    return rs;
}

// One Letter page at 100 dpi on which the same fill is made n times; the device's counts into
// stats.
RasterPage pageOfFills(int depth, int n, const Path& path, const Paint& paint, const RenderState& rs,
                       RasterStats& stats) {
    PageCollector sink;
    RasterDevice dev(opts(depth, 100), sink);
    dev.beginPage(PageSpec{612, 792, 0, 0});
    for (int i = 0; i < n; ++i)
        dev.fillPath(path, FillRule::NonZero, paint, rs);
    dev.endPage();
    stats = dev.stats();
    EXPECT_EQ(sink.pages.size(), 1u);
    return sink.pages.empty() ? RasterPage{} : sink.pages[0];
}

} // namespace

TEST(PageFills, WholePageFillsInOneColourRenderNoCoverage) {
    for (int depth : {1, 8, 24}) {
        RasterStats stats;
        const RasterPage p = pageOfFills(depth, 500, rect(0, 0, 612, 792), Paint::solid({128, 128, 128}), state(true), stats);
        EXPECT_EQ(stats.rectangles, 500u) << depth;
        EXPECT_EQ(stats.bandPixels, 0u) << depth;
        EXPECT_EQ(stats.pixelsBlended, 0u) << depth;
        if (depth == 8) {
            EXPECT_EQ(p.row(p.height / 2)[p.width / 2], 128);
        }
    }
}

TEST(PageFills, WholePageFillsWithAPatternBlendWholeWords) {
    for (int depth : {8, 24}) {
        for (bool transparent : {false, true}) {
            PageCollector sink;
            RasterDevice dev(opts(depth, 100), sink);
            dev.beginPage(PageSpec{612, 792, 0, 0});
            dev.fillPath(rect(0, 0, 612, 396), FillRule::NonZero, Paint::solid({0, 0, 200}), state(true));
            for (int i = 0; i < 100; ++i)
                dev.fillPath(rect(0, 0, 612, 792), FillRule::NonZero, Paint::tiled(checkerTile(2.4)),
                             state(transparent));
            dev.endPage();
            EXPECT_EQ(dev.stats().bandPixels, 0u);
            EXPECT_EQ(dev.stats().pixelsBlended, 0u);
            EXPECT_EQ(dev.stats().rectangles, 101u);
        }
    }
}

// The quick fill of a rectangle and the band-by-band fill of the same area agree pixel for pixel,
// wherever the edges fall, in every depth, with patterns, raster operations and clips.
TEST(PageFills, RectanglesCoverThePixelsOfBandByBandFills) {
    const double dpi = 130; // 130/72 device pixels a point: edges fall anywhere
    auto clip = std::make_shared<ClipRegion>();
    Path c;
    c.addRect(20.25, 30.5, 300.1, 250.7);
    clip->entries.push_back({c, FillRule::NonZero});
    const double spots[][4] = {{10.1, 12.37, 200.33, 100.5}, {0.5, 0.5, 611.0, 791.0}, {33.333, 47.0101, 0.9, 300},
                               {-40, -40, 700, 900},        {100.0833, 200.1666, 50.0417, 25.0833}};
    for (int depth : {1, 8, 24}) {
        for (int variant = 0; variant < 4; ++variant) {
            PageCollector quick, bands;
            RasterDevice a(opts(depth, dpi), quick), b(opts(depth, dpi), bands);
            for (RasterDevice* dev : {&a, &b}) {
                dev->beginPage(PageSpec{612, 792, 0, 0});
                for (const auto& r : spots) {
                    RenderState rs = state(variant % 2 == 0, variant == 3 ? 0x66 : 252);
                    if (variant == 2)
                        rs.clip = clip;
                    const Paint paint = variant >= 1 ? Paint::tiled(checkerTile(1.7)) : Paint::solid({90, 160, 40});
                    const Path path = dev == &a ? rect(r[0], r[1], r[2], r[3]) : rectAsPolygon(r[0], r[1], r[2], r[3]);
                    dev->fillPath(path, FillRule::EvenOdd, paint, rs);
                }
                dev->endPage();
            }
            ASSERT_EQ(quick.pages.size(), 1u);
            ASSERT_EQ(bands.pages.size(), 1u);
            EXPECT_GT(a.stats().rectangles, 0u);
            EXPECT_EQ(b.stats().rectangles, 0u);
            EXPECT_TRUE(quick.pages[0].data == bands.pages[0].data) << "depth " << depth << " variant " << variant;
        }
    }
}

// A page clears only the rows the one before drew on, and says which rows may hold ink.
TEST(PageFills, PagesReportAndClearTheRowsDrawnOn) {
    PageCollector sink;
    RasterDevice dev(opts(24, 72), sink);
    dev.beginPage(PageSpec{612, 792, 0, 0});
    dev.fillPath(rect(100, 200, 50, 20), FillRule::NonZero, Paint::solid(Rgb::black()), state(true));
    dev.endPage();
    dev.beginPage(PageSpec{612, 792, 0, 0});
    dev.endPage();
    ASSERT_EQ(sink.pages.size(), 2u);
    const RasterPage& first = sink.pages[0];
    EXPECT_LE(first.inkTop, 200);
    EXPECT_GE(first.inkBottom, 220);
    EXPECT_LT(first.inkBottom - first.inkTop, 40);
    EXPECT_EQ(first.row(210)[120 * 3], 0);
    const RasterPage& second = sink.pages[1];
    EXPECT_EQ(second.inkTop, second.inkBottom);
    for (uint8_t v : second.data)
        ASSERT_EQ(v, 255);
}

namespace {

std::shared_ptr<const PatternTile> opaqueTile() {
    auto t = std::make_shared<PatternTile>();
    t->width = t->height = 4;
    for (int i = 0; i < 16; ++i)
        t->pixels.push_back(Rgb{uint8_t(40 * (i % 4)), uint8_t(15 * i), 200});
    t->tileToPage = Matrix::scale(1.3, 1.3);
    return t;
}

Mask smallMask() {
    Mask m;
    m.width = m.height = 24;
    m.stride = 3;
    for (int y = 0; y < 24; ++y)
        for (int k = 0; k < 3; ++k)
            m.bits.push_back(uint8_t(((y * 7 + k * 3) % 5) ? 0xA5 : 0x3C));
    return m;
}

} // namespace

// A job that clears its logical page thousands of times: the rectangle is looked at once and
// its pixels are drawn once, whatever the number of fills.
TEST(PageFills, RepeatedFillsOfOneRectangleDrawItOnce) {
    for (int depth : {1, 8, 24}) {
        RasterStats stats;
        const RasterPage p = pageOfFills(depth, 10000, rect(18, 12, 576, 768), Paint::solid(Rgb::black()), state(true), stats);
        const uint64_t pagePixels = uint64_t(p.width) * uint64_t(p.height);
        EXPECT_EQ(stats.rectangles, 10000u) << depth;
        EXPECT_EQ(stats.rectProbes, 1u) << depth;
        EXPECT_GT(stats.rectPixels, pagePixels * 8 / 10) << depth;
        EXPECT_LT(stats.rectPixels, pagePixels) << depth;
        EXPECT_EQ(stats.bandPixels, 0u) << depth;
        // Inked in the middle, white at the corner.
        const int mx = p.width / 2, my = p.height / 2;
        if (depth == 1) {
            EXPECT_TRUE(p.row(my)[mx / 8] & (0x80 >> (mx % 8)));
            EXPECT_EQ(p.row(0)[0] & 0x80, 0);
        } else {
            EXPECT_EQ(p.row(my)[mx * (depth / 8)], 0);
            EXPECT_EQ(p.row(0)[0], 255);
        }
    }
}

// Page-sized fills with a pattern brush: opaque ones hide each other, transparent ones over the
// same area change nothing the second time. Either way the page is drawn about once.
TEST(PageFills, RepeatedPatternFillsOfThePageDrawItOnce) {
    for (int depth : {1, 8, 24}) {
        for (bool withWhite : {false, true}) {
            RasterStats stats;
            const Paint brush = Paint::tiled(withWhite ? checkerTile(2.4) : opaqueTile());
            const RasterPage p = pageOfFills(depth, 2000, rect(0, 0, 612, 792), brush, state(true), stats);
            EXPECT_EQ(stats.rectangles, 2000u);
            EXPECT_EQ(stats.rectPixels, uint64_t(p.width) * uint64_t(p.height))
                << "depth " << depth << " white " << withWhite;
            EXPECT_EQ(stats.pixelsBlended, 0u);
        }
    }
}

// Fills put off and dropped give the very pixels of fills drawn as they come: the same calls,
// with every rectangle given as a polygon (which is drawn at once, band by band), in every
// depth, with raster operations that read the page, transparent and opaque patterns, clips,
// lines and masks between them, over two pages.
TEST(PageFills, PutOffFillsGiveThePixelsOfFillsDrawnAtOnce) {
    const double rects[][4] = {{0, 0, 612, 792},      {18, 12, 576, 768},   {100.3, 200.7, 300.2, 100.1},
                               {-20, -20, 800, 900},  {50, 60, 70, 80},     {18, 12, 576, 768}};
    const uint8_t rops[] = {252, 240, 0x66, 0x5A, 0, 255, 0xCC};
    auto clip = std::make_shared<ClipRegion>();
    Path c;
    c.addRect(40.5, 70.25, 400, 500);
    clip->entries.push_back({c, FillRule::NonZero});
    const Paint paints[] = {Paint::solid({90, 160, 40}), Paint::solid(Rgb::black()), Paint::solid(Rgb::white()),
                            Paint::tiled(checkerTile(2.4)), Paint::tiled(opaqueTile())};
    for (int depth : {1, 8, 24}) {
        for (uint32_t seed : {1u, 7u, 42u, 1234u}) {
            PageCollector quick, bands;
            RasterDevice a(opts(depth, 90), quick), b(opts(depth, 90), bands);
            for (RasterDevice* dev : {&a, &b}) {
                uint32_t r = seed;
                auto next = [&](uint32_t n) {
                    r = r * 1103515245u + 12345u;
                    return (r >> 16) % n;
                };
                for (int page = 0; page < 2; ++page) {
                    dev->beginPage(PageSpec{612, 792, 0, 0});
                    int lastRect = 0, lastPaint = 0;
                    RenderState last = state(true);
                    for (int i = 0; i < 40; ++i) {
                        const uint32_t what = next(10);
                        if (what < 4) {
                            lastRect = int(next(6));
                            lastPaint = int(next(5));
                            last = state(next(2) == 0, rops[next(7)]);
                            last.clip = next(5) == 0 ? clip : nullptr;
                        }
                        if (what < 7) { // a fill, or the last fill again
                            const auto& q = rects[lastRect];
                            const Path path = dev == &a ? rect(q[0], q[1], q[2], q[3]) : rectAsPolygon(q[0], q[1], q[2], q[3]);
                            dev->fillPath(path, FillRule::NonZero, paints[lastPaint], last);
                        } else if (what == 7) {
                            Path line;
                            line.moveTo({10.0 + next(500), 10.0 + next(700)});
                            line.lineTo({10.0 + next(500), 10.0 + next(700)});
                            StrokeStyle s;
                            s.width = 3;
                            dev->strokePath(line, s, Paint::solid({200, 30, 30}), state(true));
                        } else if (what == 8) {
                            dev->fillMask(smallMask(), Matrix::translate(double(next(500)), double(next(700))),
                                          Paint::solid({10, 10, 120}), state(true, 0x66));
                        } else {
                            dev->fillMask(smallMask(), Matrix::translate(double(next(500)), double(next(700))),
                                          paints[3], state(false));
                        }
                    }
                    dev->endPage();
                }
            }
            ASSERT_EQ(quick.pages.size(), 2u);
            ASSERT_EQ(bands.pages.size(), 2u);
            for (int page = 0; page < 2; ++page)
                EXPECT_TRUE(quick.pages[page].data == bands.pages[page].data)
                    << "depth " << depth << " seed " << seed << " page " << page;
        }
    }
}

// Pages large enough to be taken in huge pages start white, keep what is drawn on them, and the
// next page of the same size starts white again.
TEST(PageFills, LargePagesStartWhiteAndComeBackWhite) {
    for (int depth : {8, 24}) {
        PageCollector sink;
        RasterDevice dev(opts(depth, 300), sink);
        for (int page = 0; page < 2; ++page) {
            dev.beginPage(PageSpec{612, 792, 0, 0});
            if (page == 0)
                dev.fillPath(rect(72, 72, 144, 72), FillRule::NonZero, Paint::solid({10, 20, 30}), state(true));
            dev.endPage();
        }
        ASSERT_EQ(sink.pages.size(), 2u);
        const RasterPage& first = sink.pages[0];
        ASSERT_GE(first.data.size(), size_t(8) << 20);
        // Rows above and below the rectangle are white; rows across it carry it at x 300..900.
        const int C = depth / 8;
        const std::vector<uint8_t> white(first.stride, 255);
        std::vector<uint8_t> across = white;
        for (int x = 300; x < 900; ++x)
            for (int c = 0; c < C; ++c)
                across[size_t(x) * C + c] = C == 1 ? raster::luminance(10, 20, 30) : uint8_t(10 * (c + 1));
        for (int y = 0; y < first.height; ++y) {
            const std::vector<uint8_t>& want = y >= 300 && y < 600 ? across : white;
            ASSERT_TRUE(std::equal(want.begin(), want.end(), first.row(y))) << "depth " << depth << " row " << y;
        }
        for (uint8_t v : sink.pages[1].data)
            ASSERT_EQ(v, 255);
    }
}
