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

size_t inked(const std::vector<uint8_t>& a) {
    size_t n = 0;
    for (uint8_t v : a)
        n += v;
    return n;
}

// cairo's fill of the same polygons band by band, as the rasterising device does it: an A8
// surface per band, translated to the band's corner, then scaled to device pixels.
std::vector<uint8_t> cairoBands(const std::vector<std::vector<Point>>& polys, FillRule rule, int rows,
                                bool split, double scale = 1) {
    std::vector<uint8_t> out(size_t(kW) * kH, 0);
    const int sliceW = split ? kW / 2 : kW;
    const int stride = cairo_format_stride_for_width(CAIRO_FORMAT_A8, sliceW);
    for (int sx = 0; sx < kW; sx += sliceW)
        for (int y = 0; y < kH; y += rows) {
            const int h = std::min(rows, kH - y);
            std::vector<uint8_t> band(size_t(stride) * h, 0);
            cairo_surface_t* s = cairo_image_surface_create_for_data(band.data(), CAIRO_FORMAT_A8, sliceW, h, stride);
            cairo_t* cr = cairo_create(s);
            cairo_set_antialias(cr, CAIRO_ANTIALIAS_NONE);
            cairo_translate(cr, -sx, -y);
            cairo_scale(cr, scale, scale);
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
            for (int r = 0; r < h; ++r)
                for (int x = 0; x < sliceW; ++x)
                    out[size_t(y + r) * kW + sx + x] = band[size_t(r) * stride + x] ? 1 : 0;
        }
    return out;
}

std::vector<std::vector<Point>> scaled(std::vector<std::vector<Point>> polys, double scale) {
    for (auto& poly : polys)
        for (Point& p : poly)
            p = {p.x * scale, p.y * scale};
    return polys;
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

TEST(ScanConverter, SamePixelsAsCairoOnRandomSelfIntersectingPolygons) {
    std::mt19937 rng(7);
    // Across, the points stay within the surface, as the device's bands always hold the whole
    // width of a polygon; down, the bands cut it.
    std::uniform_real_distribution<double> ux(0, kW), uy(-10, kH + 10);
    for (int round = 0; round < 60; ++round) {
        std::vector<std::vector<Point>> polys(1 + round % 3);
        for (auto& poly : polys)
            for (int i = 0; i < 3 + round; ++i)
                poly.push_back({ux(rng), uy(rng)});
        for (FillRule rule : {FillRule::NonZero, FillRule::EvenOdd}) {
            const int rows = round % 4 == 0 ? kH : 7 + round % 5;
            const auto want = cairoBands(polys, rule, rows, false);
            const auto got = scanFill(polys, rule, rows, false);
            ASSERT_GT(inked(want), 0u);
            EXPECT_EQ(differences(want, got), 0u) << "round " << round;
        }
    }
}

TEST(ScanConverter, SamePixelsAsCairoWhereBandsCutThePolygonAtTheirSides) {
    // Polygons reaching beyond the surface on every side, filled in two slices side by side:
    // cairo cuts each edge that leaves a slice at its side.
    std::mt19937 rng(13);
    std::uniform_real_distribution<double> ux(-60, kW + 60), uy(-20, kH + 20);
    std::uniform_int_distribution<int> grid(-40 * 512, (kW + 40) * 512);
    size_t cut = 0;
    for (int round = 0; round < 120; ++round) {
        std::vector<std::vector<Point>> polys(1 + round % 3);
        for (auto& poly : polys) {
            const int n = 3 + round % 17;
            for (int i = 0; i < n; ++i) {
                if (round % 4 == 3) { // on the 1/512 grid: ties, and points on a slice's side
                    int gx = grid(rng);
                    if (i % 3 == 0)
                        gx = (i % 2 ? kW / 2 : 0) * 512 + (gx % 5);
                    poly.push_back({gx / 512.0, uy(rng)});
                } else if (round % 4 == 2 && i > 0) { // nearly flat edges across a side
                    poly.push_back({ux(rng), poly.back().y + (uy(rng) - kH / 2) / 200});
                } else {
                    poly.push_back({ux(rng), uy(rng)});
                }
            }
        }
        ScanConverter probe(polys, FillRule::NonZero);
        if (probe.rectilinear())
            continue;
        cut += !probe.fitsAcross(0, kW / 2) || !probe.fitsAcross(kW / 2, kW);
        for (FillRule rule : {FillRule::NonZero, FillRule::EvenOdd}) {
            const int rows = round % 3 == 0 ? kH : 6 + round % 9;
            const auto want = cairoBands(polys, rule, rows, true);
            const auto got = scanFill(polys, rule, rows, true);
            EXPECT_EQ(differences(want, got), 0u) << "round " << round;
        }
    }
    EXPECT_GT(cut, 100u);
}

TEST(ScanConverter, SamePixelsAsCairoOnTiesAndThinSlivers) {
    // Points on pixel centres, on half and 1/512 steps (ties when rounded to 1/256), edges
    // almost flat and slivers thinner than a pixel: where cairo's rounding decides.
    std::mt19937 rng(11);
    std::uniform_int_distribution<int> grid(0, kW * 512 - 1);
    std::uniform_int_distribution<int> gridY(-8 * 512, (kH + 8) * 512);
    std::uniform_int_distribution<int> small(-3, 3);
    for (int round = 0; round < 80; ++round) {
        std::vector<std::vector<Point>> polys(1 + round % 2);
        for (auto& poly : polys) {
            const int n = 3 + round % 9;
            for (int i = 0; i < n; ++i) {
                int gx = grid(rng), gy = gridY(rng);
                if (i > 0 && round % 3 == 0) // nearly flat: a step of a few 1/512 down
                    gy = int(poly.back().y * 512) + small(rng);
                if (round % 5 == 1) { // whole and half pixels only
                    gx &= ~255;
                    gy &= ~255;
                }
                poly.push_back({gx / 512.0, gy / 512.0});
            }
        }
        if (ScanConverter(polys, FillRule::NonZero).rectilinear())
            continue; // cairo fills those as boxes; the device leaves them to it
        for (FillRule rule : {FillRule::NonZero, FillRule::EvenOdd}) {
            const int rows = round % 3 == 0 ? kH : 5 + round % 7;
            const auto want = cairoBands(polys, rule, rows, false);
            const auto got = scanFill(polys, rule, rows, false);
            EXPECT_EQ(differences(want, got), 0u) << "round " << round;
        }
    }
}

TEST(ScanConverter, SamePixelsAsCairoWhenCairoScalesThePoints) {
    // The device hands cairo page points and a scale; the converter gets the scaled points.
    std::mt19937 rng(5);
    const double scale = 300.0 / 72;
    std::uniform_real_distribution<double> ux(0, (kW - 1) / scale), uy(-2, kH / scale + 2);
    for (int round = 0; round < 30; ++round) {
        std::vector<std::vector<Point>> polys(1);
        for (int i = 0; i < 4 + round; ++i)
            polys[0].push_back({std::round(ux(rng) * 100) / 100, std::round(uy(rng) * 100) / 100});
        const auto want = cairoBands(polys, FillRule::EvenOdd, 9 + round % 13, false, scale);
        const auto got = scanFill(scaled(polys, scale), FillRule::EvenOdd, 9 + round % 13, false);
        EXPECT_EQ(differences(want, got), 0u) << "round " << round;
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
