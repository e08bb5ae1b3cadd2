// Whole-page fills and page reuse in the rasterising device: the work a fill costs is counted
// (coverage bands rendered, pixels blended one by one), and the quick ways must give the very
// pixels of the band-by-band way.

#include "common/page_collector.h"
#include "render/raster_device.h"
#include "render/raster_ops.h"

#include <cairo.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
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

// ---- coverage rows and one-colour fills on black-and-white pages ------------------------

constexpr double kDpi = 100;

const PageSpec kLetter{612, 792, 0, 0};

bool ink(const RasterPage& p, int x, int y) {
    const uint8_t* r = p.row(y);
    if (p.format == RasterPage::Format::Bilevel)
        return (r[x >> 3] >> (7 - (x & 7))) & 1;
    if (p.format == RasterPage::Format::Gray8)
        return r[x] == 0;
    return r[3 * x] == 0 && r[3 * x + 1] == 0 && r[3 * x + 2] == 0;
}

// Closed polygons whose sides are all horizontal or vertical (a staircase of six or more
// corners): the device leaves them to cairo, which fills them as boxes.
Path staircase(std::mt19937& rng) {
    std::uniform_real_distribution<double> pos(-40, 640), len(0.3, 120);
    const double x0 = pos(rng), y0 = pos(rng);
    double x = x0, y = y0;
    Path p;
    p.moveTo({x, y});
    const int steps = 2 + int(rng() % 4);
    for (int i = 0; i < steps; ++i) {
        x += len(rng);
        p.lineTo({x, y});
        y += len(rng);
        p.lineTo({x, y});
    }
    p.lineTo({x0, y});
    p.close();
    return p;
}

// A polygon of straight sides in any direction, maybe crossing itself.
Path polygon(std::mt19937& rng, double reach) {
    std::uniform_real_distribution<double> centre(-20, 620), off(-reach, reach);
    const double cx = centre(rng), cy = centre(rng) * 1.25;
    Path p;
    const int n = 3 + int(rng() % 10);
    for (int i = 0; i < n; ++i) {
        const Point q{cx + off(rng), cy + off(rng)};
        if (i == 0)
            p.moveTo(q);
        else
            p.lineTo(q);
    }
    p.close();
    return p;
}

// cairo's non-anti-aliased fill or stroke of paths on one surface the size of the page.
std::vector<uint8_t> cairoPage(const std::vector<Path>& paths, const StrokeStyle* stroke, int w, int h,
                               int& stride) {
    stride = cairo_format_stride_for_width(CAIRO_FORMAT_A8, w);
    std::vector<uint8_t> a8(size_t(stride) * h, 0);
    cairo_surface_t* s = cairo_image_surface_create_for_data(a8.data(), CAIRO_FORMAT_A8, w, h, stride);
    cairo_t* cr = cairo_create(s);
    cairo_set_antialias(cr, CAIRO_ANTIALIAS_NONE);
    cairo_scale(cr, kDpi / 72, kDpi / 72);
    for (const Path& path : paths) {
        size_t pi = 0;
        for (Path::Op op : path.ops()) {
            if (op == Path::Op::Move) {
                cairo_move_to(cr, path.points()[pi].x, path.points()[pi].y);
                ++pi;
            } else if (op == Path::Op::Line) {
                cairo_line_to(cr, path.points()[pi].x, path.points()[pi].y);
                ++pi;
            } else if (op == Path::Op::Close) {
                cairo_close_path(cr);
            }
        }
        if (stroke) {
            cairo_set_line_width(cr, stroke->width);
            cairo_set_line_join(cr, CAIRO_LINE_JOIN_MITER);
            cairo_set_line_cap(cr, CAIRO_LINE_CAP_BUTT);
            cairo_set_miter_limit(cr, stroke->miterLimit);
            cairo_stroke(cr);
        } else {
            cairo_fill(cr);
        }
    }
    cairo_destroy(cr);
    cairo_surface_destroy(s);
    return a8;
}

std::shared_ptr<const ClipRegion> passEverything() {
    // Not a rectangle, so the device keeps it as a mask of bits and cuts each stretch by it.
    Path p;
    p.moveTo({-10, -10});
    p.lineTo({1000, -10});
    p.lineTo({1000, 1000});
    p.lineTo({500, 1001});
    p.lineTo({-10, 1000});
    p.close();
    auto region = std::make_shared<ClipRegion>();
    region->entries.push_back({p, FillRule::NonZero});
    return region;
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

// The quick ways coverage reaches the page give the pixels of the general ways: cairo's coverage
// rows read a word of pixels at a time, and one-colour fills on black-and-white pages written
// straight onto the rows, against cairo's own fill of the whole page and against the same fills
// drawn through a clip that passes everything (which takes the general path).
TEST(CoveragePaths, CairoFillsAndStrokesLandOnTheirPixelsInEveryDepth) {
    std::mt19937 rng(12);
    for (int round = 0; round < 24; ++round) {
        const bool stroked = round % 2 == 1;
        std::vector<Path> paths;
        for (int i = 0; i < 12; ++i)
            paths.push_back(stroked ? polygon(rng, 10 + 40 * (i % 4)) : staircase(rng));
        StrokeStyle style;
        style.width = 0.8 + (round % 5);
        style.join = StrokeStyle::Join::Miter;
        style.cap = StrokeStyle::Cap::Butt;
        style.miterLimit = 4;
        // Every other pair of rounds through a rectangular clip on whole pixels, some 64 pixels
        // wide: the coverage rows then end where the clip does.
        const bool clipped = round % 4 >= 2;
        const int cx0 = int(rng() % 200), cy0 = int(rng() % 300);
        const int cx1 = cx0 + (round % 8 < 4 ? 64 * (4 + int(rng() % 6)) : 200 + int(rng() % 400));
        const int cy1 = cy0 + 500 + int(rng() % 300);
        RenderState rs;
        if (clipped) {
            Path box;
            const double u = 72 / kDpi;
            box.addRect(cx0 * u, cy0 * u, (cx1 - cx0) * u, (cy1 - cy0) * u);
            auto region = std::make_shared<ClipRegion>();
            region->entries.push_back({box, FillRule::NonZero});
            rs.clip = region;
        }
        for (int depth : {1, 8, 24}) {
            PageCollector sink;
            RasterDevice dev(opts(depth, kDpi), sink);
            dev.beginPage(kLetter);
            for (const Path& path : paths) {
                if (stroked)
                    dev.strokePath(path, style, Paint::solid(Rgb::black()), rs);
                else
                    dev.fillPath(path, FillRule::NonZero, Paint::solid(Rgb::black()), rs);
            }
            if (!clipped) {
                ASSERT_GT(dev.stats().bandPixels, 0u); // drawn by cairo, through coverage rows
            }
            dev.endPage();
            const RasterPage& p = sink.pages.at(0);
            int stride = 0;
            // The paths one at a time on the reference too: strokes of a polygon each.
            std::vector<uint8_t> want(size_t(cairo_format_stride_for_width(CAIRO_FORMAT_A8, p.width)) * p.height, 0);
            for (const Path& path : paths) {
                const auto one = cairoPage({path}, stroked ? &style : nullptr, p.width, p.height, stride);
                for (size_t k = 0; k < one.size(); ++k)
                    want[k] |= one[k];
            }
            long inked = 0;
            for (int y = 0; y < p.height; ++y)
                for (int x = 0; x < p.width; ++x) {
                    const bool inClip = !clipped || (x >= cx0 && x < cx1 && y >= cy0 && y < cy1);
                    // cairo cuts a stroke at the edges of the band it draws into, and the cut may
                    // ink the outermost pixels differently from a stroke drawn whole.
                    if (stroked && clipped && (x == cx0 || x == cx1 - 1 || y == cy0 || y == cy1 - 1))
                        continue;
                    const bool covered = inClip && want[size_t(y) * stride + x] != 0;
                    inked += covered;
                    ASSERT_EQ(ink(p, x, y), covered) << "round " << round << " depth " << depth << " at " << x << "," << y << " clip " << cx0 << "," << cy0 << "," << cx1 << "," << cy1;
                }
            EXPECT_GT(inked, 100);
        }
    }
}

TEST(CoveragePaths, OneColourFillsOnBlackAndWhitePagesMatchTheGeneralPath) {
    // Scan-converted polygons in greys and raster operations that ignore the page (drawn
    // straight onto the rows without a clip), and ones that use it, against the same fills
    // through a clip that passes everything.
    std::mt19937 rng(5);
    const uint8_t rops[] = {252, 240, 0, 255, 15, 51, 204, 238, 90, 136};
    for (int round = 0; round < 12; ++round) {
        std::vector<RasterPage> pages;
        const uint32_t seed = rng();
        RasterStats direct;
        for (bool clipped : {false, true}) {
            std::mt19937 draw(seed);
            PageCollector sink;
            RasterDevice dev(opts(1, kDpi), sink);
            dev.beginPage(kLetter);
            for (int i = 0; i < 60; ++i) {
                RenderState rs;
                rs.rop3 = rops[draw() % (sizeof rops)];
                if (clipped)
                    rs.clip = passEverything();
                const uint8_t grey = uint8_t(draw() % 256);
                const Path path = polygon(draw, i % 3 == 0 ? 300 : 40);
                dev.fillPath(path, i % 2 ? FillRule::EvenOdd : FillRule::NonZero, Paint::solid({grey, grey, grey}), rs);
            }
            if (!clipped)
                direct = dev.stats();
            dev.endPage();
            pages.push_back(sink.pages.at(0));
        }
        EXPECT_GT(direct.scanFills, 0u);
        const RasterPage& a = pages[0];
        const RasterPage& b = pages[1];
        ASSERT_EQ(a.width, b.width);
        ASSERT_EQ(a.height, b.height);
        long differ = 0, inked = 0;
        for (int y = 0; y < a.height; ++y)
            for (int x = 0; x < a.width; ++x) {
                differ += ink(a, x, y) != ink(b, x, y);
                inked += ink(a, x, y);
            }
        EXPECT_EQ(differ, 0) << "round " << round;
        EXPECT_GT(inked, 1000) << "round " << round;
    }
}
