#include "render/page_geometry.h"

#include <gtest/gtest.h>

using namespace qx;

namespace {

PageSpec letter() { return PageSpec{612, 792, 0, 0}; }
PageSpec a4() { return PageSpec{595.276, 841.89, 0, 0}; }

} // namespace

TEST(PageGeometry, DefaultsTo300Dpi) {
    const PageGeometry g = computePageGeometry(RasterOptions{}, letter());
    EXPECT_EQ(g.widthPx, 2550);
    EXPECT_EQ(g.heightPx, 3300);
    EXPECT_DOUBLE_EQ(g.scaleX, 300.0 / 72);
    EXPECT_DOUBLE_EQ(g.scaleY, 300.0 / 72);
    EXPECT_DOUBLE_EQ(g.xdpi, 300);
    EXPECT_DOUBLE_EQ(g.ydpi, 300);
    EXPECT_EQ(g.depth, 24);
}

TEST(PageGeometry, DeclaredResolutionWhenCommandLineSaysNothing) {
    PageSpec p = letter();
    p.declaredDpiX = 600;
    p.declaredDpiY = 600;
    const PageGeometry g = computePageGeometry(RasterOptions{}, p);
    EXPECT_EQ(g.widthPx, 5100);
    EXPECT_EQ(g.heightPx, 6600);
    EXPECT_DOUBLE_EQ(g.xdpi, 600);
}

TEST(PageGeometry, CommandLineResolutionWins) {
    PageSpec p = letter();
    p.declaredDpiX = 600;
    p.declaredDpiY = 600;
    RasterOptions o;
    o.dpiX = 200;
    o.dpiY = 100;
    o.depth = 8;
    const PageGeometry g = computePageGeometry(o, p);
    EXPECT_EQ(g.widthPx, 1700);
    EXPECT_EQ(g.heightPx, 1100);
    EXPECT_DOUBLE_EQ(g.scaleX, 200.0 / 72);
    EXPECT_DOUBLE_EQ(g.scaleY, 100.0 / 72);
    EXPECT_DOUBLE_EQ(g.xdpi, 200);
    EXPECT_DOUBLE_EQ(g.ydpi, 100);
    EXPECT_EQ(g.depth, 8);
}

TEST(PageGeometry, A4RoundsToWholePixels) {
    const PageGeometry g = computePageGeometry(RasterOptions{}, a4());
    EXPECT_EQ(g.widthPx, 2480);
    EXPECT_EQ(g.heightPx, 3508);
}

TEST(PageGeometry, WidthOnlyKeepsAspect) {
    RasterOptions o;
    o.pageWidthPx = 1000;
    const PageGeometry g = computePageGeometry(o, letter());
    EXPECT_EQ(g.widthPx, 1000);
    EXPECT_EQ(g.heightPx, 1294); // 1000 * 11 / 8.5 = 1294.1
    EXPECT_DOUBLE_EQ(g.scaleX, 1000.0 / 612);
    EXPECT_DOUBLE_EQ(g.scaleY, 1294.0 / 792);
    EXPECT_NEAR(g.xdpi, 1000 / 8.5, 1e-9);
    EXPECT_NEAR(g.ydpi, 1294 / 11.0, 1e-9);
}

TEST(PageGeometry, HeightOnlyKeepsAspect) {
    RasterOptions o;
    o.pageHeightPx = 1100;
    const PageGeometry g = computePageGeometry(o, letter());
    EXPECT_EQ(g.heightPx, 1100);
    EXPECT_EQ(g.widthPx, 850);
    EXPECT_NEAR(g.xdpi, 100, 1e-9);
    EXPECT_NEAR(g.ydpi, 100, 1e-9);
}

TEST(PageGeometry, BothSidesStretchEachAxis) {
    RasterOptions o;
    o.pageWidthPx = 800;
    o.pageHeightPx = 800;
    const PageGeometry g = computePageGeometry(o, letter());
    EXPECT_EQ(g.widthPx, 800);
    EXPECT_EQ(g.heightPx, 800);
    EXPECT_DOUBLE_EQ(g.scaleX, 800.0 / 612);
    EXPECT_DOUBLE_EQ(g.scaleY, 800.0 / 792);
    EXPECT_NEAR(g.xdpi, 800 / 8.5, 1e-9);
    EXPECT_NEAR(g.ydpi, 800 / 11.0, 1e-9);
}

TEST(PageGeometry, PixelSizeWithResolutionWritesTheResolution) {
    RasterOptions o;
    o.pageWidthPx = 800;
    o.dpiX = 150;
    o.dpiY = 150;
    PageSpec p = letter();
    p.declaredDpiX = p.declaredDpiY = 600; // ignored when a pixel size is given
    const PageGeometry g = computePageGeometry(o, p);
    EXPECT_EQ(g.widthPx, 800);
    EXPECT_DOUBLE_EQ(g.xdpi, 150);
    EXPECT_DOUBLE_EQ(g.ydpi, 150);
    EXPECT_DOUBLE_EQ(g.scaleX, 800.0 / 612);
}

TEST(PageGeometry, FaxStandardOnLetter) {
    RasterOptions o;
    o.fax = 0;
    o.depth = 24;
    o.dpiX = o.dpiY = 600;
    o.pageWidthPx = 99;
    const PageGeometry g = computePageGeometry(o, letter());
    EXPECT_EQ(g.widthPx, 1728);
    EXPECT_EQ(g.heightPx, 1078); // 11 in * 98
    EXPECT_DOUBLE_EQ(g.scaleX, 1728.0 / 612);
    EXPECT_DOUBLE_EQ(g.scaleY, 98.0 / 72);
    EXPECT_DOUBLE_EQ(g.xdpi, 204);
    EXPECT_DOUBLE_EQ(g.ydpi, 98);
    EXPECT_EQ(g.depth, 1);
}

TEST(PageGeometry, FaxFineOnA4) {
    RasterOptions o;
    o.fax = 1;
    const PageGeometry g = computePageGeometry(o, a4());
    EXPECT_EQ(g.widthPx, 1728);
    EXPECT_EQ(g.heightPx, 2292); // 11.69 in * 196 = 2291.8
    EXPECT_DOUBLE_EQ(g.xdpi, 204);
    EXPECT_DOUBLE_EQ(g.ydpi, 196);
    EXPECT_EQ(g.depth, 1);
    EXPECT_NEAR(g.scaleX * 595.276, 1728, 1e-9);
}

TEST(PageGeometry, UnusableSheetIsLetterAndSidesAreBounded) {
    const PageGeometry g = computePageGeometry(RasterOptions{}, PageSpec{0, -5, 0, 0});
    EXPECT_EQ(g.widthPx, 2550);
    EXPECT_EQ(g.heightPx, 3300);

    RasterOptions o;
    o.dpiX = o.dpiY = 2400;
    const PageGeometry big = computePageGeometry(o, PageSpec{612 * 100, 1, 0, 0});
    EXPECT_EQ(big.widthPx, kMaxPageSidePx);
    EXPECT_EQ(big.heightPx, 33);

    const PageGeometry tiny = computePageGeometry(RasterOptions{}, PageSpec{0.01, 0.01, 0, 0});
    EXPECT_EQ(tiny.widthPx, 1);
    EXPECT_EQ(tiny.heightPx, 1);
}
