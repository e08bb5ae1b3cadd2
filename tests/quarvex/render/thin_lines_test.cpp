// The raster device's one-pixel lines, drawn many at a time from random endpoints in every
// direction: against the rule restated here (one pixel in each column a flat line's length
// covers, one in each row a steep line's, a dot for a line too short to cover any), and, with
// dashes, clips, resolutions and depths that the restatement does not model, against the
// checksums of the pages as the device has drawn them until now.

#include "common/page_collector.h"
#include "render/raster_device.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

using namespace qx;
using qxtest::PageCollector;

namespace {

// The page: 200 x 150 points.
constexpr double kPageW = 200, kPageH = 150;

// Random polylines over and a little beyond the page: ends anywhere, on the half-pixel grid
// (the ties of the rule), repeated (zero length), a little apart (dots), far away (lines that
// cross the page from far off), and exactly flat, steep or diagonal.
std::vector<Path> randomLines(uint32_t seed, int count) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> ux(-20, kPageW + 20), uy(-20, kPageH + 20), unit(0, 1),
        small(-1.5, 1.5);
    std::uniform_int_distribution<int> kind(0, 9), corners(2, 5);
    std::vector<Path> lines;
    for (int i = 0; i < count; ++i) {
        Path p;
        Point cur{ux(rng), uy(rng)};
        p.moveTo(cur);
        const int n = corners(rng);
        for (int k = 1; k < n; ++k) {
            Point next;
            switch (kind(rng)) {
            case 0: next = {std::round(ux(rng) * 2) / 2, std::round(uy(rng) * 2) / 2}; break;
            case 1: next = cur; break;
            case 2: next = {cur.x + small(rng) / 3, cur.y + small(rng) / 3}; break;
            case 3: next = {cur.x + small(rng), cur.y + small(rng)}; break;
            case 4: next = {unit(rng) < 0.5 ? -1e7 : 1e7, uy(rng) * (unit(rng) < 0.5 ? 1 : 1e5)}; break;
            case 5: next = {cur.x + (ux(rng) - kPageW / 2), cur.y}; break;
            case 6: next = {cur.x, cur.y + (uy(rng) - kPageH / 2)}; break;
            case 7: {
                const double d = ux(rng) - kPageW / 2;
                next = {cur.x + d, cur.y + (unit(rng) < 0.5 ? d : -d)};
                break;
            }
            default: next = {ux(rng), uy(rng)}; break;
            }
            p.lineTo(next);
            cur = next;
        }
        lines.push_back(std::move(p));
    }
    return lines;
}

// The rule restated, one segment in device space, every pixel on an unbounded grid (the
// caller keeps those on the page).
template <class Mark>
void ruleSegment(Point a, Point b, Mark mark) {
    const bool flat = std::fabs(b.x - a.x) >= std::fabs(b.y - a.y);
    // Along the major axis u, across it v.
    double au = flat ? a.x : a.y, av = flat ? a.y : a.x, bu = flat ? b.x : b.y, bv = flat ? b.y : b.x;
    if (au > bu) {
        std::swap(au, bu);
        std::swap(av, bv);
    }
    // Every pixel centre c + 0.5 with au <= c + 0.5 < bu.
    const double first = std::ceil(au - 0.5), last = std::ceil(bu - 0.5) - 1;
    if (first > last) {
        mark(std::floor((a.x + b.x) / 2), std::floor((a.y + b.y) / 2));
        return;
    }
    const double slope = (bv - av) / (bu - au);
    for (double c = std::max(first, -10.0); c <= std::min(last, 10000.0); ++c) {
        const double v = std::floor(av + (c + 0.5 - au) * slope);
        if (flat)
            mark(c, v);
        else
            mark(v, c);
    }
}

uint64_t fnv1a(const std::vector<uint8_t>& data) {
    uint64_t h = 1469598103934665603ull;
    for (uint8_t v : data) {
        h ^= v;
        h *= 1099511628211ull;
    }
    return h;
}

} // namespace

TEST(ThinLines, EveryDirectionFollowsTheRule) {
    // At 72 dpi a point is a pixel; grey pages, so a pixel is black or white.
    for (uint32_t seed = 1; seed <= 6; ++seed) {
        const std::vector<Path> lines = randomLines(seed, 150);
        PageCollector sink;
        RasterOptions o;
        o.depth = 8;
        o.dpiX = o.dpiY = 72;
        RasterDevice dev(o, sink);
        dev.beginPage(PageSpec{kPageW, kPageH, 0, 0});
        const Matrix toDevice = dev.pageToDevice();
        StrokeStyle thin;
        thin.width = 0;
        for (const Path& p : lines)
            dev.strokePath(p, thin, Paint::solid(Rgb::black()), RenderState{});
        dev.endPage();
        ASSERT_EQ(sink.pages.size(), 1u);
        const RasterPage& page = sink.pages[0];

        std::vector<uint8_t> want(size_t(page.width) * size_t(page.height), 255);
        auto mark = [&](double x, double y) {
            if (x >= 0 && y >= 0 && x < page.width && y < page.height)
                want[size_t(y) * size_t(page.width) + size_t(x)] = 0;
        };
        for (const Path& p : lines) {
            const std::vector<Point>& pts = p.points();
            for (size_t i = 1; i < pts.size(); ++i)
                ruleSegment(toDevice.apply(pts[i - 1]), toDevice.apply(pts[i]), mark);
        }
        long differing = 0, inked = 0;
        for (int y = 0; y < page.height; ++y)
            for (int x = 0; x < page.width; ++x) {
                const uint8_t w = want[size_t(y) * size_t(page.width) + size_t(x)];
                inked += w == 0;
                if (page.row(y)[x] != w && differing++ < 5)
                    ADD_FAILURE() << "seed " << seed << " pixel " << x << "," << y << ": device "
                                  << int(page.row(y)[x]) << ", rule " << int(w);
            }
        EXPECT_EQ(differing, 0) << "seed " << seed;
        EXPECT_GT(inked, 3000) << "seed " << seed; // the lines did reach the page
    }
}

TEST(ThinLines, DashedClippedAtEveryDepthAndResolutionKeepTheirPixels) {
    // Each case: random polylines, perhaps dashed and clipped to a rectangle and a polygon, at
    // three resolutions (one of them unequal across and down) and the three depths. The
    // checksums are of the pages the device drew when this test was written; a change that
    // moves any pixel of a one-pixel line shows here.
    struct Case {
        double dpiX, dpiY;
        int depth;
        bool dashed, clipped;
        uint64_t hash;
    };
    static const Case cases[] = {
#include "thin_lines_hashes.inc"
    };
    int index = 0, failed = 0;
    for (const Case& c : cases) {
        const std::vector<Path> lines = randomLines(uint32_t(100 + index), 120);
        PageCollector sink;
        RasterOptions o;
        o.depth = c.depth;
        o.dpiX = c.dpiX;
        o.dpiY = c.dpiY;
        RasterDevice dev(o, sink);
        dev.beginPage(PageSpec{kPageW, kPageH, 0, 0});
        RenderState rs;
        if (c.clipped) {
            auto clip = std::make_shared<ClipRegion>();
            Path box;
            box.addRect(15, 10, 150, 120);
            Path ring; // a polygon of 24 corners on a circle of radius 70 about the middle
            for (int i = 0; i < 24; ++i) {
                const double t = i * M_PI / 12;
                const Point p{100 + 70 * std::cos(t), 75 + 70 * std::sin(t)};
                if (i == 0)
                    ring.moveTo(p);
                else
                    ring.lineTo(p);
            }
            ring.close();
            clip->entries.push_back({box, FillRule::NonZero});
            clip->entries.push_back({ring, FillRule::NonZero});
            rs.clip = clip;
        }
        StrokeStyle thin;
        thin.width = 0;
        if (c.dashed) {
            thin.dashes = {3, 1.5, 0.5, 2};
            thin.dashOffset = 1.25;
        }
        for (const Path& p : lines)
            dev.strokePath(p, thin, Paint::solid(Rgb::black()), rs);
        dev.endPage();
        ASSERT_EQ(sink.pages.size(), 1u);
        const uint64_t got = fnv1a(sink.pages[0].data);
        if (std::getenv("QX_KEEP_PICTURES") && c.depth == 8)
            qxtest::writePgm(sink.pages[0], std::string(std::getenv("QX_KEEP_PICTURES")) + "/thin_lines_" +
                                                std::to_string(index) + ".pgm");
        if (got != c.hash) {
            // The line of the table this case has now, to copy if the change is meant.
            std::printf("    {%g, %g, %d, %s, %s, 0x%016llxull},\n", c.dpiX, c.dpiY, c.depth,
                        c.dashed ? "true" : "false", c.clipped ? "true" : "false", (unsigned long long)got);
            ++failed;
        }
        EXPECT_EQ(got, c.hash) << "case " << index;
        ++index;
    }
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(index, 36);
}
