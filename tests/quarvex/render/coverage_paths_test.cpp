// The quick ways coverage reaches the page must give the pixels of the general ways: cairo's
// coverage rows read a word of pixels at a time, and one-colour fills on black-and-white pages
// written straight onto the rows, against cairo's own fill of the whole page and against the
// same fills drawn through a clip that passes everything (which takes the general path).

#include "render/raster_device.h"

#include <cairo.h>
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>
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

constexpr double kDpi = 100;

RasterOptions opts(int depth) {
    RasterOptions o;
    o.depth = depth;
    o.dpiX = o.dpiY = kDpi;
    return o;
}

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
            KeepSink sink;
            RasterDevice dev(opts(depth), sink);
            dev.beginPage(kLetter);
            for (const Path& path : paths) {
                if (stroked)
                    dev.strokePath(path, style, Paint::solid(Rgb::black()), rs);
                else
                    dev.fillPath(path, FillRule::NonZero, Paint::solid(Rgb::black()), rs);
            }
            if (!clipped)
                ASSERT_GT(dev.stats().bandPixels, 0u); // drawn by cairo, through coverage rows
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
            KeepSink sink;
            RasterDevice dev(opts(1), sink);
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
