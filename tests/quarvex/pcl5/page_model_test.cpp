// The PCL 5 page and cursor model: logical page insets, repeated page setup, the floating
// cursor, print direction of rectangles and patterns, duplex registration, raster placement,
// and the built-in shading and cross-hatch patterns at every output resolution.
#include "pcl5_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

namespace {

// A small solid rectangle at the top left corner of the logical page (below the top margin).
const std::string kCornerMark = ESC + "*p0x0Y" + ESC + "*c3a3b0P";

std::string rasterRows(int rows, const std::string& row) {
    std::string out;
    for (int i = 0; i < rows; ++i)
        out += ESC + "*b" + std::to_string(row.size()) + "W" + row;
    return out;
}

// Share of black pixels in the device rectangle [x0, x1) x [y0, y1) of a page.
double inkShare(const RasterPage& p, int x0, int y0, int x1, int y1) {
    long ink = 0, all = 0;
    for (int y = y0; y < y1; ++y)
        for (int x = x0; x < x1; ++x, ++all)
            ink += inked(p, x, y) ? 1 : 0;
    return all ? double(ink) / double(all) : 0;
}

// The inked pixels of one column of a page: the first and last row and how many.
struct ColumnInk {
    int first = -1, last = -1, count = 0;
    bool unbroken() const { return count > 0 && last - first + 1 == count; }
};

ColumnInk columnInk(const RasterPage& p, int x) {
    ColumnInk c;
    for (int y = 0; y < p.height; ++y)
        if (inked(p, x, y)) {
            if (c.first < 0)
                c.first = y;
            c.last = y;
            ++c.count;
        }
    return c;
}

} // namespace

TEST(Pcl5PageModel, LogicalPageInsetsFollowHpsTables) {
    // Inch sizes: 75 dots (18 pt) in portrait, 60 (14.4 pt) in landscape; metric sizes 71 dots
    // (17.04 pt) and 59 (14.16 pt).
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"&l2a0O", "M18,36 "},    {"&l2a1O", "M14.4,36 "},  {"&l3a0O", "M18,36 "},
        {"&l26a0O", "M17.04,36 "}, {"&l26a1O", "M14.16,36 "}, {"&l27a0O", "M17.04,36 "},
        {"&l25a1O", "M14.16,36 "},
    };
    for (const auto& [setup, want] : cases) {
        Result r = runPcl(ESC + "E" + ESC + setup + kCornerMark);
        auto fills = r.starting("fill");
        ASSERT_EQ(fills.size(), 1u) << setup;
        EXPECT_NE(fills[0].find(want), std::string::npos) << setup << ": " << fills[0];
    }
    // The A4 logical page is centred on the sheet: a rule across it ends 71 dots (rounded to
    // whole dots) before the sheet's right edge, 2480 dots wide.
    auto pages = renderPcl(ESC + "&l26A" + ESC + "*p0x0Y" + ESC + "*c5000a3b0P", 300, 1);
    ASSERT_EQ(pages.size(), 1u);
    EXPECT_FALSE(inked(pages[0], 70, 151));
    EXPECT_TRUE(inked(pages[0], 71, 151));
    EXPECT_TRUE(inked(pages[0], 2408, 151));
    EXPECT_FALSE(inked(pages[0], 2410, 151));
}

TEST(Pcl5PageModel, RepeatedOrientationOrPageSizeIsIgnored) {
    // A marked page stays open through an orientation and a size that repeat the current ones.
    Result r = runPcl("x" + ESC + "&l0O" + ESC + "&l2A" + "y");
    EXPECT_EQ(r.pages, 1);
    r = runPcl(ESC + "&l26A" + ESC + "&l1O" + "x" + ESC + "&l1O" + ESC + "&l26A" + "y");
    EXPECT_EQ(r.pages, 1);
    // ... and nothing of the page setup is defaulted: a top margin of 10 lines stays.
    r = runPcl(ESC + "&l10E" + ESC + "&l0O" + ESC + "&l2A" + ESC + "&a0R" + ESC + "*c3a3b0P");
    auto fills = r.starting("fill");
    ASSERT_EQ(fills.size(), 1u);
    EXPECT_NE(fills[0].find(",129.12 "), std::string::npos) << fills[0]; // 10 3/4 lines, on a dot
    // A different orientation or size still ends the page.
    r = runPcl("x" + ESC + "&l1O" + "y" + ESC + "&l3A" + "z");
    EXPECT_EQ(r.pages, 3);
}

TEST(Pcl5PageModel, FloatingCursorFollowsANewTopMargin) {
    // netpbm's and ImageMagick's LaserJet jobs: reset, top margin 0, raster at the cursor. The
    // cursor had not moved, so it floats up to the first line under the new margin: 3/4 of a
    // 1/6 inch line below the top of the page (37.5 dots, put on dot 38).
    const std::string picture = ESC + "*t300R" + ESC + "*r1A" + rasterRows(2, "\xff") + ESC + "*rB";
    Result r = runPcl(ESC + "E" + ESC + "&l0E" + picture);
    auto masks = r.starting("mask");
    ASSERT_EQ(masks.size(), 1u);
    EXPECT_NE(masks[0].find("[0.24 0 0 0.24 18 9.12]"), std::string::npos) << masks[0];
    // A cursor the job has moved stays where it was put.
    r = runPcl(ESC + "E" + ESC + "*p0Y" + ESC + "&l0E" + picture);
    masks = r.starting("mask");
    ASSERT_EQ(masks.size(), 1u);
    EXPECT_NE(masks[0].find("[0.24 0 0 0.24 18 36]"), std::string::npos) << masks[0];
    // On a page already marked the cursor does not float either.
    r = runPcl(ESC + "E" + ESC + "*c3a3b0P" + ESC + "&l0E" + picture);
    masks = r.starting("mask");
    ASSERT_EQ(masks.size(), 1u);
    EXPECT_NE(masks[0].find(" 18 45.12]"), std::string::npos) << masks[0];
}

TEST(Pcl5PageModel, RasterAtAFractionalRowHasNoSeams) {
    // hp2xx starts its plot half way between two dots. 600 rows of a vertical bar must come out
    // as one unbroken bar of 600 rows, at 300 and at 600 dpi.
    const std::string job = ESC + "E" + ESC + "&l0E" + ESC + "*t300R" + ESC + "*p300x187.5Y" + ESC + "*r1A" +
                            rasterRows(600, "\x18") + ESC + "*rB";
    for (double dpi : {300.0, 600.0}) {
        auto pages = renderPcl(job, dpi);
        ASSERT_EQ(pages.size(), 1u);
        const int k = static_cast<int>(dpi / 300);
        const int column = (75 + 300 + 4) * k; // the bar's first column (bit 3 of the row)
        const ColumnInk c = columnInk(pages[0], column);
        EXPECT_EQ(c.count, 600 * k) << dpi;
        EXPECT_TRUE(c.unbroken()) << dpi;
        EXPECT_EQ(c.first, dpi == 300 ? 188 : 375) << dpi; // row 187.5 put on a dot
    }
    // Output coarser than the raster: a bar 16 dots wide is still one unbroken bar.
    const std::string wide = ESC + "E" + ESC + "&l0E" + ESC + "*t300R" + ESC + "*p300x187.5Y" + ESC + "*r1A" +
                             rasterRows(600, "\xff\xff") + ESC + "*rB";
    for (double dpi : {75.0, 100.0, 150.0, 200.0}) {
        auto pages = renderPcl(wide, dpi, 1);
        ASSERT_EQ(pages.size(), 1u);
        int best = 0;
        for (int x = 0; x < pages[0].width; ++x)
            if (const ColumnInk c = columnInk(pages[0], x); c.unbroken())
                best = std::max(best, c.count);
        EXPECT_NEAR(best, 600 * dpi / 300, 1) << dpi;
    }
}

TEST(Pcl5PageModel, RectanglesInEveryPrintDirection) {
    // A one-inch rectangle half an inch square, one inch along and one inch down the print
    // direction's frame. The text area turns with the direction (Letter portrait: logical page
    // 576 x 792 pt, 18 pt in from the sheet's edge; top margin 36 pt, text area to 756 pt).
    const std::string rect = ESC + "&a720v720H" + ESC + "*c360h360V" + ESC + "*c0P";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"0", "M90,108 L126,108 L126,144 L90,144 Z"},
        // 90: the old left margin (0) is the new top margin; the frame runs up from the bottom.
        {"90", "M90,684 L126,684 L126,720 L90,720 Z"},
        // 180: the top margin is the old bottom of the text area (36 pt above the bottom).
        {"180", "M486,648 L522,648 L522,684 L486,684 Z"},
        // 270: the top margin is the old right margin (the logical page's right edge).
        {"270", "M486,72 L522,72 L522,108 L486,108 Z"},
    };
    for (const auto& [direction, want] : cases) {
        Result r = runPcl(ESC + "&a" + direction + "P" + rect);
        auto fills = r.starting("fill");
        ASSERT_EQ(fills.size(), 1u) << direction;
        EXPECT_EQ(fills[0], "fill nz #000000 rop=252 srcT patT " + want) << direction;
    }
    // Turning back to 0 brings the margins back where they were.
    Result r = runPcl(ESC + "&a90P" + ESC + "&a0P" + rect);
    auto fills = r.starting("fill");
    ASSERT_EQ(fills.size(), 1u);
    EXPECT_EQ(fills[0], "fill nz #000000 rop=252 srcT patT M90,108 L126,108 L126,144 L90,144 Z");
}

TEST(Pcl5PageModel, CrossHatchTurnsWithThePrintDirection) {
    // Horizontal lines (pattern 1) drawn in direction 90 run up the page: every inked column is
    // inked from top to bottom of the rectangle. ESC*p1R keeps the pattern as the page has it.
    const auto lines = [](const std::string& before) {
        auto pages = renderPcl(ESC + "&a90P" + before + ESC + "&a720v720H" + ESC + "*c600h600V" + ESC + "*c1g3P");
        EXPECT_EQ(pages.size(), 1u);
        return pages.empty() ? RasterPage{} : pages[0];
    };
    const auto fullColumns = [](const RasterPage& p, int x0, int y0, int size) {
        int full = 0, partly = 0;
        for (int x = x0; x < x0 + size; ++x) {
            int n = 0;
            for (int y = y0; y < y0 + size; ++y)
                n += inked(p, x, y) ? 1 : 0;
            if (n == size)
                ++full;
            else if (n > 0)
                ++partly;
        }
        return std::pair{full, partly};
    };
    // Direction 90: frame (72, 72) pt is logical (72, 720); the rectangle covers logical x
    // 72..132 pt and y 660..720 pt: device (75 + 300, 2750) to (75 + 550, 3000) at 300 dpi.
    RasterPage turned = lines("");
    const auto turnedColumns = fullColumns(turned, 380, 2755, 240);
    EXPECT_GE(turnedColumns.first, 240 / 16 * 2 - 2);
    EXPECT_EQ(turnedColumns.second, 0);
    RasterPage fixed = lines(ESC + "*p1R");
    const auto fixedColumns = fullColumns(fixed, 380, 2755, 240);
    EXPECT_EQ(fixedColumns.first, 0);
    EXPECT_GT(fixedColumns.second, 200);
}

TEST(Pcl5PageModel, ShadingKeepsItsInkAtEveryResolution) {
    // A 50 % shade (the 36-55 % level) over a one-inch square, at every resolution the front end
    // offers, in black and white and in grey: the share of ink stays that level's.
    const std::string job = ESC + "*p300x300Y" + ESC + "*c300a300b50g2P";
    for (double dpi : {75.0, 100.0, 150.0, 200.0, 300.0, 600.0}) {
        for (int depth : {1, 8}) {
            auto pages = renderPcl(job, dpi, depth);
            ASSERT_EQ(pages.size(), 1u);
            const int x0 = static_cast<int>((1.0 + 0.25) * dpi), y0 = static_cast<int>((1.0 + 0.5) * dpi);
            const int n = static_cast<int>(dpi);
            const double share = inkShare(pages[0], x0 + 2, y0 + 2, x0 + n - 2, y0 + n - 2);
            EXPECT_GT(share, 0.36) << dpi << " dpi, " << depth << " bits";
            EXPECT_LT(share, 0.55) << dpi << " dpi, " << depth << " bits";
        }
    }
    // The eight levels grow darker in order at every resolution.
    for (double dpi : {75.0, 150.0, 300.0}) {
        double previous = -1;
        for (int level : {2, 10, 20, 35, 55, 80, 99, 100}) {
            auto pages = renderPcl(ESC + "*p300x300Y" + ESC + "*c300a300b" + std::to_string(level) + "g2P", dpi);
            ASSERT_EQ(pages.size(), 1u);
            const int x0 = static_cast<int>(1.25 * dpi), y0 = static_cast<int>(1.5 * dpi), n = static_cast<int>(dpi);
            const double share = inkShare(pages[0], x0 + 2, y0 + 2, x0 + n - 2, y0 + n - 2);
            EXPECT_GT(share, previous) << level << "% at " << dpi << " dpi";
            previous = share;
        }
    }
}

TEST(Pcl5PageModel, CrossHatchSurvivesLowResolutions) {
    const std::string job = ESC + "*p300x300Y" + ESC + "*c300a300b5g3P";
    for (double dpi : {75.0, 100.0, 150.0, 200.0, 300.0, 600.0}) {
        auto pages = renderPcl(job, dpi, 1);
        ASSERT_EQ(pages.size(), 1u);
        const int x0 = static_cast<int>(1.25 * dpi), y0 = static_cast<int>(1.5 * dpi), n = static_cast<int>(dpi);
        const double share = inkShare(pages[0], x0, y0, x0 + n, y0 + n);
        EXPECT_GT(share, 0.15) << dpi; // a square grid of lines: about a quarter of the area
        EXPECT_LT(share, 0.5) << dpi;
    }
}

TEST(Pcl5PageModel, DuplexBackSidesMirrorTheLeftRegistration) {
    // Ghostscript's ljet4d: duplex, -180 decipoints on the front side, +180 on the back, and 36
    // decipoints down on both (long-edge binding turns only the left offset round). Both sides
    // land in the same place: at the sheet's left edge, 3.6 points below the top margin.
    const std::string page = ESC + "*p0x0Y" + ESC + "*c3a3b0P" + "\f";
    Result r = runPcl(ESC + "E" + ESC + "&l1S" + ESC + "&l-180u36Z" + page + ESC + "&l180u36Z" + page + ESC +
                      "&l-180u36Z" + page);
    auto fills = r.starting("fill");
    ASSERT_EQ(fills.size(), 3u);
    for (const auto& f : fills)
        EXPECT_NE(f.find("M0,39.6 "), std::string::npos) << f;
    // Printed single-sided, the same registration moves the page.
    r = runPcl(ESC + "E" + ESC + "&l180u" + page);
    fills = r.starting("fill");
    ASSERT_EQ(fills.size(), 1u);
    EXPECT_NE(fills[0].find("M36,36 "), std::string::npos) << fills[0];
    // ESC&a2G puts the next page on a back side, ESC&a1G on a front side.
    r = runPcl(ESC + "E" + ESC + "&l1S" + ESC + "&l180u" + ESC + "&a2G" + page + ESC + "&a1G" + page);
    fills = r.starting("fill");
    ASSERT_EQ(fills.size(), 2u);
    EXPECT_NE(fills[0].find("M0,36 "), std::string::npos) << fills[0];
    EXPECT_NE(fills[1].find("M36,36 "), std::string::npos) << fills[1];
}

TEST(Pcl5PageModel, RectangleSizesRoundUpToWholeDots) {
    // One decipoint is 0.42 of a 300 dpi dot: the rule still prints one dot wide.
    Result r = runPcl(ESC + "*p300x300Y" + ESC + "*c1h300V" + ESC + "*c0P");
    auto fills = r.starting("fill");
    ASSERT_EQ(fills.size(), 1u);
    EXPECT_EQ(fills[0], "fill nz #000000 rop=252 srcT patT M90,108 L90.24,108 L90.24,138 L90,138 Z");
    auto pages = renderPcl(ESC + "*p300x300Y" + ESC + "*c1h300V" + ESC + "*c0P", 300, 1);
    ASSERT_EQ(pages.size(), 1u);
    EXPECT_TRUE(inked(pages[0], 375, 500));
    EXPECT_FALSE(inked(pages[0], 376, 500));
}

TEST(Pcl5PageModel, PushedCursorPopsToTheSamePlaceInAnotherDirection) {
    // Pushed at (1 inch, 2 inches) in direction 0, popped in direction 90: the same place on
    // the page, where a small rectangle now reaches up (the frame's x) from it.
    Result r = runPcl(ESC + "*p300x600Y" + ESC + "&f0S" + ESC + "&a90P" + ESC + "*p0x0Y" + ESC + "&f1S" + ESC +
                      "*c3a3b0P");
    auto fills = r.starting("fill");
    ASSERT_EQ(fills.size(), 1u);
    EXPECT_EQ(fills[0], "fill nz #000000 rop=252 srcT patT M90,179.28 L90.72,179.28 L90.72,180 L90,180 Z");
}

TEST(Pcl5PageModel, CursorMovesStopAtTheLogicalPageEdges) {
    // Above the top of the logical page and left of its left edge: the cursor stops at them.
    for (const std::string& move : {ESC + "*p-900Y" + ESC + "*p-50X", ESC + "&a-5000V" + ESC + "&a-100H",
                                     ESC + "&a-20R" + ESC + "&a-3C"}) {
        Result r = runPcl(move + ESC + "*c3a3b0P");
        auto fills = r.starting("fill");
        ASSERT_EQ(fills.size(), 1u) << move.substr(1);
        EXPECT_EQ(fills[0], "fill nz #000000 rop=252 srcT patT M18,0 L18.72,0 L18.72,0.72 L18,0.72 Z") << move.substr(1);
    }
    // Below the bottom: the cursor stops on the bottom edge, so a rectangle there prints nothing.
    Result r = runPcl(ESC + "*p5000Y" + ESC + "*c3a3b0P" + "x");
    EXPECT_TRUE(r.starting("fill").empty());
}

TEST(Pcl5PageModel, TopMarginIsIgnoredAtZeroLineSpacing) {
    Result r = runPcl(ESC + "&l0C" + ESC + "&l5E" + ESC + "&l6D" + ESC + "&a0R" + ESC + "*c3a3b0P");
    auto fills = r.starting("fill");
    ASSERT_EQ(fills.size(), 1u);
    EXPECT_NE(fills[0].find("M18,45.12 "), std::string::npos) << fills[0]; // still half an inch
}

TEST(Pcl5PageModel, PatternTransparencyOverInk) {
    // A black square, then a 50 % shade over it: transparent, the shade's white pixels leave the
    // black alone; opaque (ESC*v1O), they paint white.
    const std::string black = ESC + "*p300x300Y" + ESC + "*c300a300b0P";
    const std::string shade = ESC + "*p300x300Y" + ESC + "*c300a300b50g2P";
    for (const auto& [mode, low, high] : {std::tuple{std::string("0"), 0.99, 1.01}, std::tuple{std::string("1"), 0.36, 0.55}}) {
        auto pages = renderPcl(black + ESC + "*v" + mode + "O" + shade, 300, 1);
        ASSERT_EQ(pages.size(), 1u);
        const double share = inkShare(pages[0], 377, 452, 673, 748);
        EXPECT_GT(share, low) << "pattern transparency mode " << mode;
        EXPECT_LT(share, high) << "pattern transparency mode " << mode;
    }
}

TEST(Pcl5PageModel, TopOffsetRegistrationMovesThePageAlongTheSheetLength) {
    // ESC&l#Z in decipoints: positive down the physical sheet, negative up, as an absolute
    // position (a second command replaces the first); a reset puts it back to 0.
    const std::string mark = ESC + "*p0x0Y" + ESC + "*c3a3b0P";
    const auto firstFill = [](const std::string& job) {
        Result r = runPcl(job);
        auto fills = r.starting("fill");
        return fills.empty() ? std::string("none") : fills[0];
    };
    EXPECT_NE(firstFill(ESC + "&l360Z" + mark).find("M18,72 "), std::string::npos);
    EXPECT_NE(firstFill(ESC + "&l-180Z" + mark).find("M18,18 "), std::string::npos);
    EXPECT_NE(firstFill(ESC + "&l720Z" + ESC + "&l360Z" + mark).find("M18,72 "), std::string::npos);
    EXPECT_NE(firstFill(ESC + "&l360Z" + ESC + "E" + mark).find("M18,36 "), std::string::npos);
    // Together with the left offset, in decipoints with decimals (38.4 decipoints are 16 dots).
    EXPECT_NE(firstFill(ESC + "&l-180u38.4Z" + mark).find("M0,39.84 "), std::string::npos);
}

TEST(Pcl5PageModel, RegistrationFollowsThePhysicalSheetInEveryOrientation) {
    // Both offsets move the logical page on the physical sheet whatever the orientation. A
    // landscape page is the sheet read turned a quarter turn: the sheet's width runs down it
    // (left offset) and its length from right to left (top offset). A reverse portrait page
    // lies on the sheet as it comes out: left offset to the right, top offset down.
    const std::string mark = ESC + "*p0x0Y" + ESC + "*c300a300b0P";
    const std::vector<std::tuple<std::string, std::string>> cases = {
        {"0", "M18,36 "},   {"1", "M14.4,36 "},   {"2", "M522,684 "},   {"3", "M705.6,504 "},
    };
    for (const auto& [orientation, unmoved] : cases) {
        Result r = runPcl(ESC + "&l" + orientation + "O" + mark + ESC + "&l360U" + mark + ESC + "&l0u360Z" + mark);
        auto fills = r.starting("fill");
        ASSERT_EQ(fills.size(), 3u) << orientation;
        EXPECT_NE(fills[0].find(unmoved), std::string::npos) << orientation << ": " << fills[0];
        // The first corner of each fill, moved half an inch.
        const auto corner = [](const std::string& fill) {
            double x = 0, y = 0;
            std::sscanf(fill.c_str() + fill.find(" M") + 2, "%lf,%lf", &x, &y);
            return std::pair{x, y};
        };
        const auto [x0, y0] = corner(fills[0]);
        const auto [xu, yu] = corner(fills[1]);
        const auto [xz, yz] = corner(fills[2]);
        const bool landscape = orientation == "1" || orientation == "3";
        EXPECT_DOUBLE_EQ(xu - x0, landscape ? 0 : 36) << orientation;
        EXPECT_DOUBLE_EQ(yu - y0, landscape ? 36 : 0) << orientation;
        EXPECT_DOUBLE_EQ(xz - x0, landscape ? -36 : 0) << orientation;
        EXPECT_DOUBLE_EQ(yz - y0, landscape ? 0 : 36) << orientation;
    }
}

TEST(Pcl5PageModel, ShortEdgeBindingMirrorsTheTopOffsetOnBackSides) {
    // Short-edge binding (ESC&l2S) turns the top offset round on the back of the sheet and
    // leaves the left offset as it is; long-edge binding does the opposite.
    const std::string page = ESC + "*p0x0Y" + ESC + "*c3a3b0P" + "\f";
    Result r = runPcl(ESC + "E" + ESC + "&l2S" + ESC + "&l180u360Z" + page + page);
    auto fills = r.starting("fill");
    ASSERT_EQ(fills.size(), 2u);
    EXPECT_NE(fills[0].find("M36,72 "), std::string::npos) << fills[0];
    EXPECT_NE(fills[1].find("M36,0 "), std::string::npos) << fills[1];
    r = runPcl(ESC + "E" + ESC + "&l1S" + ESC + "&l180u360Z" + page + page);
    fills = r.starting("fill");
    ASSERT_EQ(fills.size(), 2u);
    EXPECT_NE(fills[0].find("M36,72 "), std::string::npos) << fills[0];
    EXPECT_NE(fills[1].find("M0,72 "), std::string::npos) << fills[1];
}

namespace {

// The one mask a job draws, as the recording device describes it ("" when it draws another
// number of masks).
std::string onlyMask(const std::string& job) {
    const auto masks = runPcl(job).starting("mask");
    return masks.size() == 1 ? masks[0] : std::string();
}

// A picture drawn in each print direction lands with the matrix given for that direction.
void expectInEveryDirection(const std::string& picture, const std::vector<std::pair<std::string, std::string>>& cases) {
    for (const auto& [direction, matrix] : cases) {
        const std::string mask = onlyMask(ESC + "&a" + direction + "P" + picture);
        EXPECT_NE(mask.find(matrix), std::string::npos) << direction << ": " << mask;
    }
}

} // namespace

TEST(Pcl5PageModel, RasterFollowsThePrintDirectionInPresentationMode0) {
    // Two rows of 300 dpi raster at the cursor, one inch along and one inch below the top margin
    // of the print direction's frame. In presentation mode 0 (the default) the rows run along
    // the print direction and follow one another down its frame: the picture turns with it.
    // Letter portrait: logical page 576 x 792 pt, 18 pt in; the margins turn with the frame.
    const std::string picture =
        ESC + "*p300x300Y" + ESC + "*t300R" + ESC + "*r1A" + rasterRows(2, "\xf0") + ESC + "*rB";
    expectInEveryDirection(picture, {
        {"0", "[0.24 0 0 0.24 90 108]"},
        {"90", "[0 -0.24 0.24 0 90 720]"},    // rows run up the page, the next one to the right
        {"180", "[-0.24 0 0 -0.24 522 684]"}, // upside down
        {"270", "[0 0.24 -0.24 0 522 72]"},   // rows run down the page, the next one to the left
    });
    // ESC*r0A starts the rows at the frame's left edge: in direction 90 the bottom of the page.
    const std::string mask = onlyMask(ESC + "&a90P" + ESC + "*p300x300Y" + ESC + "*t300R" + ESC + "*r0A" +
                                      rasterRows(1, "\xf0") + ESC + "*rB");
    EXPECT_NE(mask.find("[0 -0.24 0.24 0 90 792]"), std::string::npos) << mask;
    // Ending the picture puts the cursor on the row after it, in the print direction's frame:
    // two rows (0.48 pt) further along the page's x in direction 90.
    Result r = runPcl(ESC + "&a90P" + picture + ESC + "*c3a3b0P");
    auto fills = r.starting("fill");
    ASSERT_EQ(fills.size(), 1u);
    EXPECT_NE(fills[0].find("M90.48,719.28 "), std::string::npos) << fills[0];
}

TEST(Pcl5PageModel, RasterInPresentationMode3LiesAlongThePhysicalSheet) {
    // Mode 3: rows run along the width of the physical sheet whatever the print direction and
    // orientation; the picture still starts at the cursor.
    const std::string start = ESC + "*p300x300Y" + ESC + "*t300R" + ESC + "*r1A";
    const std::string picture = ESC + "*r3F" + start + rasterRows(2, "\xf0") + ESC + "*rB";
    expectInEveryDirection(picture, {
        {"0", "[0.24 0 0 0.24 90 108]"},
        {"90", "[0.24 0 0 0.24 90 720]"},
        {"180", "[0.24 0 0 0.24 522 684]"},
        {"270", "[0.24 0 0 0.24 522 72]"},
    });
    // Landscape Letter (logical page 763.2 x 612 pt, 14.4 pt in): mode 0 keeps the rows along
    // the logical page; mode 3 lays them down the page (the sheet's width), the next row to the
    // left, from the cursor at logical (72, 108) pt.
    const std::vector<std::pair<std::string, std::string>> cases = {
        {ESC + "&l1O" + start + rasterRows(2, "\xf0") + ESC + "*rB", "[0.24 0 0 0.24 86.4 108]"},
        {ESC + "&l1O" + picture, "[0 0.24 -0.24 0 86.4 108]"},
        // Reverse portrait: the physical sheet is the logical page turned half a turn.
        {ESC + "&l2O" + picture, "[0.24 0 0 0.24 522 684]"},
        // The mode goes back to 0 at a reset.
        {ESC + "*r3F" + ESC + "E" + ESC + "&l1O" + start + rasterRows(1, "\xf0") + ESC + "*rB",
         "[0.24 0 0 0.24 86.4 108]"},
    };
    for (const auto& [job, matrix] : cases) {
        const std::string mask = onlyMask(job);
        EXPECT_NE(mask.find(matrix), std::string::npos) << mask;
    }
}

TEST(Pcl5PageModel, TurnedRasterDrawsTheSamePixelsTurned) {
    // A 16 x 8 picture with its ink in the first 4 columns of the first row, drawn in direction
    // 90 at 300 dpi: on the device its ink is a column of 4 pixels going up from the cursor.
    std::string rows = ESC + "*b2W" + std::string("\xf0\x00", 2);
    for (int i = 1; i < 8; ++i)
        rows += ESC + "*b2W" + std::string("\x00\x00", 2);
    auto pages = renderPcl(ESC + "&a90P" + ESC + "*p300x300Y" + ESC + "*t300R" + ESC + "*r1A" + rows + ESC + "*rB",
                           300, 1);
    ASSERT_EQ(pages.size(), 1u);
    // Frame (1 in, 1 in) is logical (1 in, 10 in): device (375, 3000). The first row covers
    // device rows 2996..2999 of column 375.
    long ink = 0;
    for (int y = 2900; y < 3100; ++y)
        for (int x = 300; x < 450; ++x)
            ink += inked(pages[0], x, y) ? 1 : 0;
    EXPECT_EQ(ink, 4);
    for (int y = 2996; y < 3000; ++y)
        EXPECT_TRUE(inked(pages[0], 375, y)) << y;
}

namespace {

// Whether every pixel of the device square [x0, x0 + n) x [y0, y0 + n) is inked exactly where
// `ink(x, y)` says; the number of pixels that are not.
long mismatches(const RasterPage& p, int x0, int y0, int n, const std::function<bool(int, int)>& ink) {
    long bad = 0;
    for (int y = y0; y < y0 + n; ++y)
        for (int x = x0; x < x0 + n; ++x)
            bad += inked(p, x, y) != ink(x, y) ? 1 : 0;
    return bad;
}

int mod(int a, int n) { return ((a % n) + n) % n; }

} // namespace

TEST(Pcl5PageModel, PatternsStartAtTheirReferencePoint) {
    // ESC*p0R puts the pattern's origin at the cursor: horizontal cross-hatch lines (pattern 1)
    // are two 300 dpi dots wide every 16 dots, the first at the reference point's row. At 600 dpi
    // every pattern dot is 2 x 2 pixels; below 300 dpi the lines keep their spacing in inches on
    // the output's own pixels, one pixel wide.
    const std::string job = ESC + "*p300x300Y" + ESC + "*p0R" + ESC + "*p200x200Y" + ESC + "*c400a400b1g3P";
    struct Case {
        double dpi;
        int refRow, period, width;
    };
    for (const Case c : {Case{300, 450, 16, 2}, Case{600, 900, 32, 4}, Case{150, 225, 8, 1}}) {
        auto pages = renderPcl(job, c.dpi, 1);
        ASSERT_EQ(pages.size(), 1u);
        const int k = static_cast<int>(c.dpi / 150);
        // The rectangle covers device (275, 350) to (675, 750) at 300 dpi; look inside it.
        const int x0 = 280 * k / 2, y0 = 360 * k / 2, n = 380 * k / 2;
        EXPECT_EQ(mismatches(pages[0], x0, y0, n, [&](int, int y) { return mod(y - c.refRow, c.period) < c.width; }), 0)
            << c.dpi << " dpi";
    }
    // Another reference point moves the lines with it.
    auto pages = renderPcl(ESC + "*p300x305Y" + ESC + "*p0R" + ESC + "*p200x200Y" + ESC + "*c400a400b1g3P", 300, 1);
    ASSERT_EQ(pages.size(), 1u);
    EXPECT_EQ(mismatches(pages[0], 280, 360, 380, [](int, int y) { return mod(y - 455, 16) < 2; }), 0);
}

TEST(Pcl5PageModel, PatternsTurnAboutTheirReferencePointWithThePrintDirection) {
    // Direction 90: the reference point at frame (1 in, 1 in) is device (375, 3000) at 300 dpi.
    // With ESC*p0R the horizontal lines of pattern 1 run up the page, the first at column 375;
    // with ESC*p1R they stay as the logical page has them, the first at row 3000.
    const auto hatch = [](const std::string& rotate) {
        auto pages = renderPcl(ESC + "&a90P" + ESC + "*p300x300Y" + ESC + "*p" + rotate + "R" + ESC + "*p200x200Y" +
                                   ESC + "*c400a400b1g3P",
                               300, 1);
        EXPECT_EQ(pages.size(), 1u);
        return pages.empty() ? RasterPage{} : pages[0];
    };
    // The rectangle: frame (200, 200) to (600, 600) dots is device columns 275..675, rows
    // 2700..3100.
    RasterPage turned = hatch("0");
    EXPECT_EQ(mismatches(turned, 280, 2710, 380, [](int x, int) { return mod(x - 375, 16) < 2; }), 0);
    RasterPage fixed = hatch("1");
    EXPECT_EQ(mismatches(fixed, 280, 2710, 380, [](int, int y) { return mod(y - 3000, 16) < 2; }), 0);
}

TEST(Pcl5PageModel, UserPatternsKeepTheResolutionTheyWereDesignedAt) {
    // An 8 x 8 pattern inked on its first row only, from the reference point at device row 450
    // (300 dpi). Designed at 300 dpi (format 0) its rows are 300 dpi dots: at 600 dpi a line two
    // pixels thick every 16 pixels. With the resolution-specified header (format 20) saying
    // 600 dpi, one pixel every 8. Output coarser than the pattern draws it on its own pixels.
    std::string bits = std::string("\xff", 1) + std::string(7, '\0');
    const std::string plain = std::string("\x00\x00\x01\x00\x00\x08\x00\x08", 8) + bits;
    const std::string at600 = std::string("\x14\x00\x01\x00\x00\x08\x00\x08\x02\x58\x02\x58", 12) + bits;
    const auto job = [](const std::string& pattern) {
        return ESC + "*c7G" + ESC + "*c" + std::to_string(pattern.size()) + "W" + pattern + ESC + "*p300x300Y" +
               ESC + "*p0R" + ESC + "*p200x200Y" + ESC + "*c400a400b7g4P";
    };
    struct Case {
        std::string pattern;
        double dpi;
        int refRow, period, width;
    };
    for (const Case& c : {Case{plain, 600, 900, 16, 2}, Case{plain, 300, 450, 8, 1}, Case{at600, 600, 900, 8, 1},
                          Case{at600, 300, 450, 8, 1}}) {
        auto pages = renderPcl(job(c.pattern), c.dpi, 1);
        ASSERT_EQ(pages.size(), 1u);
        const int k = static_cast<int>(c.dpi / 150);
        EXPECT_EQ(mismatches(pages[0], 280 * k / 2, 360 * k / 2, 380 * k / 2,
                             [&](int, int y) { return mod(y - c.refRow, c.period) < c.width; }),
                  0)
            << c.pattern.size() << "-byte pattern at " << c.dpi << " dpi";
    }
}

TEST(Pcl5PageModel, CustomPaperSizeTakesItsWidthAndLength) {
    // MuPDF's LaserJet jobs on A4: the custom size with its width and length in decipoints.
    auto pages = renderPcl(ESC + "E" + ESC + "&f5952I" + ESC + "&f8424J" + ESC + "&l101A" + kCornerMark, 150, 1);
    ASSERT_EQ(pages.size(), 1u);
    EXPECT_EQ(pages[0].width, 1240);
    EXPECT_EQ(pages[0].height, 1755);
    // Without them the custom size is Letter.
    pages = renderPcl(ESC + "E" + ESC + "&l101A" + kCornerMark, 150, 1);
    ASSERT_EQ(pages.size(), 1u);
    EXPECT_EQ(pages[0].width, 1275);
    EXPECT_EQ(pages[0].height, 1650);
    // The same custom size again leaves the page open; another one ends it.
    Result r = runPcl(ESC + "&f7200I" + ESC + "&l101A" + "x" + ESC + "&f7200I" + ESC + "&l101A" + "y");
    EXPECT_EQ(r.pages, 1);
    r = runPcl(ESC + "&f7200I" + ESC + "&l101A" + "x" + ESC + "&f6000I" + ESC + "&l101A" + "y");
    EXPECT_EQ(r.pages, 2);
}
