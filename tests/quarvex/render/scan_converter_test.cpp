// The active-edge scan converter: the same pixels as cairo's own non-anti-aliased fill, band
// by band, and work in proportion to the edges and the rows they cross.

#include "render/scan_converter.h"

#include <cairo.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

using namespace qx;
using qx::raster::ScanConverter;

namespace {

constexpr int kW = 160, kH = 120;

std::vector<uint8_t> cairoFill(const std::vector<std::vector<Point>>& polys, FillRule rule) {
    const int stride = cairo_format_stride_for_width(CAIRO_FORMAT_A8, kW);
    std::vector<uint8_t> buf(size_t(stride) * kH, 0);
    cairo_surface_t* s = cairo_image_surface_create_for_data(buf.data(), CAIRO_FORMAT_A8, kW, kH, stride);
    cairo_t* cr = cairo_create(s);
    cairo_set_antialias(cr, CAIRO_ANTIALIAS_NONE);
    for (const auto& poly : polys) {
        cairo_move_to(cr, poly[0].x, poly[0].y);
        for (size_t i = 1; i < poly.size(); ++i)
            cairo_line_to(cr, poly[i].x, poly[i].y);
        cairo_close_path(cr);
    }
    cairo_set_fill_rule(cr, rule == FillRule::EvenOdd ? CAIRO_FILL_RULE_EVEN_ODD : CAIRO_FILL_RULE_WINDING);
    cairo_fill(cr);
    cairo_destroy(cr);
    cairo_surface_flush(s);
    cairo_surface_destroy(s);
    std::vector<uint8_t> out(size_t(kW) * kH);
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x)
            out[size_t(y) * kW + x] = buf[size_t(y) * stride + x] ? 1 : 0;
    return out;
}

// Filled in bands of `rows` rows and, when split, in two slices side by side.
std::vector<uint8_t> scanFill(const std::vector<std::vector<Point>>& polys, FillRule rule, int rows,
                              bool split) {
    ScanConverter scan(polys, rule);
    std::vector<uint8_t> out(size_t(kW) * kH, 0);
    const int sliceW = split ? kW / 2 : kW;
    for (int sx = 0; sx < kW; sx += sliceW)
        for (int y = 0; y < kH; y += rows) {
            const int h = std::min(rows, kH - y);
            std::vector<uint8_t> band(size_t(sliceW) * h, 0);
            scan.fill(band.data(), sliceW, sx, y, sliceW, h);
            for (int r = 0; r < h; ++r)
                for (int x = 0; x < sliceW; ++x)
                    out[size_t(y + r) * kW + sx + x] = band[size_t(r) * sliceW + x] ? 1 : 0;
        }
    return out;
}

size_t differences(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
    size_t n = 0;
    for (size_t i = 0; i < a.size(); ++i)
        n += a[i] != b[i];
    return n;
}

// Differences away from the boundaries (pixels whose neighbours agree with them in a and in b),
// and the number of boundary pixels.
size_t interiorDifferences(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b,
                           size_t* boundaryPixels = nullptr) {
    size_t n = 0, edge = 0;
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x) {
            const uint8_t v = a[size_t(y) * kW + x];
            bool boundary = false;
            for (int dy = -1; dy <= 1; ++dy)
                for (int dx = -1; dx <= 1; ++dx) {
                    const int nx = x + dx, ny = y + dy;
                    if (nx >= 0 && ny >= 0 && nx < kW && ny < kH &&
                        (a[size_t(ny) * kW + nx] != v || b[size_t(ny) * kW + nx] != b[size_t(y) * kW + x]))
                        boundary = true;
                }
            edge += boundary;
            n += !boundary && v != b[size_t(y) * kW + x];
        }
    if (boundaryPixels)
        *boundaryPixels = edge;
    return n;
}

size_t inked(const std::vector<uint8_t>& a) {
    size_t n = 0;
    for (uint8_t v : a)
        n += v;
    return n;
}

} // namespace

TEST(ScanConverter, RectangleCoversThePixelsWhoseCentresAreInside) {
    // From 10.2 to 20.6 across: centres 10.5 .. 20.5; from 5.5 to 8.5 down: centres 5.5 .. 7.5.
    const std::vector<std::vector<Point>> rect{{{10.2, 5.5}, {20.6, 5.5}, {20.6, 8.5}, {10.2, 8.5}}};
    const auto got = scanFill(rect, FillRule::NonZero, kH, false);
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x)
            EXPECT_EQ(got[size_t(y) * kW + x], (x >= 10 && x <= 20 && y >= 5 && y <= 7) ? 1 : 0)
                << x << "," << y;
}

TEST(ScanConverter, MatchesCairoOnRandomSelfIntersectingPolygons) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> ux(-10, kW + 10), uy(-10, kH + 10);
    for (int round = 0; round < 40; ++round) {
        std::vector<std::vector<Point>> polys(1 + round % 3);
        for (auto& poly : polys)
            for (int i = 0; i < 5 + round; ++i)
                poly.push_back({ux(rng), uy(rng)});
        for (FillRule rule : {FillRule::NonZero, FillRule::EvenOdd}) {
            const auto want = cairoFill(polys, rule);
            const auto got = scanFill(polys, rule, 7 + round % 5, round % 2 == 1);
            ASSERT_GT(inked(want), 0u);
            // cairo rounds coordinates to 1/256 pixel and steps its edges in fixed point: only
            // pixels on the boundary, where an edge passes next to the centre, may differ.
            size_t boundary = 0;
            EXPECT_EQ(interiorDifferences(want, got, &boundary), 0u) << "round " << round;
            EXPECT_LE(differences(want, got), boundary / 10 + 2) << "round " << round;
        }
    }
}

TEST(ScanConverter, FillRulesDifferInsideAStar) {
    // A five-pointed star drawn in one stroke: its centre is wound twice.
    std::vector<Point> star;
    for (int i = 0; i < 5; ++i) {
        const double a = -M_PI / 2 + i * 4 * M_PI / 5;
        star.push_back({80 + 50 * std::cos(a), 60 + 50 * std::sin(a)});
    }
    const auto nonzero = scanFill({star}, FillRule::NonZero, 16, false);
    const auto evenodd = scanFill({star}, FillRule::EvenOdd, 16, false);
    EXPECT_EQ(nonzero[size_t(60) * kW + 80], 1);
    EXPECT_EQ(evenodd[size_t(60) * kW + 80], 0);
}

TEST(ScanConverter, WorkIsTheCrossingsOfTheRowsNotTheSquareOfTheEdges) {
    // 200,000 points zig-zagging across a 3300-row page: every edge crosses a row at most, and
    // the closing edge crosses them all.
    std::vector<Point> zigzag;
    const int n = 200000;
    for (int i = 0; i < n; ++i)
        zigzag.push_back({(i % 2) ? 2400.0 : 50.0, 10 + 3280.0 * i / n});
    ScanConverter scan({zigzag}, FillRule::EvenOdd);
    EXPECT_LE(scan.edgeCount(), size_t(n)); // edges crossing no row centre are dropped at once
    const int w = 2550, rows = 400;
    std::vector<uint8_t> band(size_t(w) * rows);
    for (int y = 0; y < 3300; y += rows)
        scan.fill(band.data(), w, 0, y, w, std::min(rows, 3300 - y));
    // Each row holds about n / 3280 zig-zag edges and the closing edge; the rows of the page
    // together see each edge about once.
    EXPECT_LT(scan.crossings(), uint64_t(2 * n + 2 * 3300));
}
