// Whole-page fills and page reuse in the rasterising device: the work a fill costs is counted
// (coverage bands rendered, pixels blended one by one), and the quick ways must give the very
// pixels of the band-by-band way.

#include "render/raster_device.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

using namespace qx;

namespace {

struct KeepSink : PageSink {
    std::vector<RasterPage> pages;
    bool writePage(const RasterPage& page) override {
        pages.push_back(page);
        return true;
    }
};

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

} // namespace

TEST(PageFills, WholePageFillsInOneColourRenderNoCoverage) {
    for (int depth : {1, 8, 24}) {
        KeepSink sink;
        RasterDevice dev(opts(depth, 100), sink);
        dev.beginPage(PageSpec{612, 792, 0, 0});
        for (int i = 0; i < 500; ++i)
            dev.fillPath(rect(0, 0, 612, 792), FillRule::NonZero, Paint::solid({128, 128, 128}), state(true));
        dev.endPage();
        ASSERT_EQ(sink.pages.size(), 1u);
        EXPECT_EQ(dev.stats().rectangles, 500u) << depth;
        EXPECT_EQ(dev.stats().bandPixels, 0u) << depth;
        EXPECT_EQ(dev.stats().pixelsBlended, 0u) << depth;
        const RasterPage& p = sink.pages[0];
        if (depth == 8) {
            EXPECT_EQ(p.row(p.height / 2)[p.width / 2], 128);
        }
    }
}

TEST(PageFills, WholePageFillsWithAPatternBlendWholeWords) {
    for (int depth : {8, 24}) {
        for (bool transparent : {false, true}) {
            KeepSink sink;
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
            KeepSink quick, bands;
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
    KeepSink sink;
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
