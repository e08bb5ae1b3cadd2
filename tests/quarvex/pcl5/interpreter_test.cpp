#include "pcl5_test_support.h"

#include "render/raster_device.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <tuple>
#include <vector>

TEST(Pcl5Pages, EmptyJobPrintsNothing) {
    Result r = runPcl(ESC + "E" + ESC + "&l0O\r\n\f" + ESC + "E");
    EXPECT_EQ(r.pages, 0);
    EXPECT_FALSE(r.warnings);
}

TEST(Pcl5Pages, DefaultLetterAndSizesByCode) {
    Result r = runPcl(ESC + "E" + "x" + ESC + "E");
    ASSERT_EQ(r.pages, 1);
    EXPECT_EQ(r.calls.front(), "beginPage 612x792");

    r = runPcl(ESC + "&l26A" + "x\f" + ESC + "&l3Ax\f" + ESC + "&l1Ax\f" + ESC + "&l6Ax\f" + ESC +
               "&l27Ax\f" + ESC + "&l25Ax\f" + ESC + "&l81Ax\f" + ESC + "&l90Ax");
    auto pages = r.starting("beginPage");
    std::vector<std::string> want = {"beginPage 595.28x841.89", "beginPage 612x1008", "beginPage 522x756",
                                     "beginPage 792x1224",      "beginPage 841.89x1190.55", "beginPage 419.53x595.28",
                                     "beginPage 297x684",       "beginPage 311.81x623.62"};
    EXPECT_EQ(pages, want);
}

TEST(Pcl5Pages, OrientationTurnsTheSheet) {
    Result r = runPcl(ESC + "&l1O" + "x" + ESC + "E" + ESC + "&l26a3O" + "x");
    auto pages = r.starting("beginPage");
    ASSERT_EQ(pages.size(), 2u);
    EXPECT_EQ(pages[0], "beginPage 792x612");
    EXPECT_EQ(pages[1], "beginPage 841.89x595.28");
}

TEST(Pcl5Pages, PjlPaperAndOrientationAreTheDefaults) {
    PjlDefaults pjl;
    pjl.paper = "A4";
    pjl.orientation = "LANDSCAPE";
    Result r = runPcl(ESC + "Ex", pjl);
    ASSERT_EQ(r.pages, 1);
    EXPECT_EQ(r.calls.front(), "beginPage 841.89x595.28");
}

TEST(Pcl5Pages, FormFeedEjectsOnlyStartedPages) {
    Result r = runPcl("a\f\f\fb\f");
    EXPECT_EQ(r.pages, 2);
    // Paper source and ESC&l0H eject the started page; an untouched one stays unprinted.
    r = runPcl("a" + ESC + "&l0H" + ESC + "&l0H" + "b" + ESC + "&l1H" + "c");
    EXPECT_EQ(r.pages, 3);
    // A page size change ejects the started page.
    r = runPcl("a" + ESC + "&l26A" + "b");
    EXPECT_EQ(r.pages, 2);
    // Text that runs past the text area goes on to the next sheet (perforation skip).
    std::string lines;
    for (int i = 0; i < 70; ++i)
        lines += "x\r\n";
    r = runPcl(lines);
    EXPECT_EQ(r.pages, 2);
    // Without perforation skip the text runs down the sheet and off it.
    r = runPcl(ESC + "&l0L" + lines);
    EXPECT_EQ(r.pages, 1);
}

TEST(Pcl5Rectangles, SolidFillAtTheCursorInPclUnits) {
    // 300 units a inch by default: a 1 x 0.5 inch rule one inch right and two inches down.
    Result r = runPcl(ESC + "*p300x600Y" + ESC + "*c300a150b0P");
    auto fills = r.starting("fill");
    ASSERT_EQ(fills.size(), 1u);
    // x: logical page offset 18 pt + 72; y: top margin 36 pt + 144.
    EXPECT_EQ(fills[0], "fill nz #000000 rop=252 srcT patT M90,180 L162,180 L162,216 L90,216 Z");
}

TEST(Pcl5Rectangles, UnitsOfMeasureAndDecipoints) {
    Result r = runPcl(ESC + "&u600D" + ESC + "*p600x0Y" + ESC + "*c720h360V" + ESC + "*c0P");
    auto fills = r.starting("fill");
    ASSERT_EQ(fills.size(), 1u);
    EXPECT_EQ(fills[0], "fill nz #000000 rop=252 srcT patT M90,36 L162,36 L162,72 L90,72 Z");
}

TEST(Pcl5Rectangles, LowResolutionUnitsOfMeasure) {
    // A 75-dpi driver works in its own units: 75 units right and 150 down are 1 and 2 inches.
    Result r = runPcl(ESC + "&u75D" + ESC + "*p75x150Y" + ESC + "*c75a30b0P");
    auto fills = r.starting("fill");
    ASSERT_EQ(fills.size(), 1u);
    EXPECT_EQ(fills[0], "fill nz #000000 rop=252 srcT patT M90,180 L162,180 L162,208.8 L90,208.8 Z");
    EXPECT_EQ(r.calls.front(), "beginPage 612x792 dpi=75x75");
    // Nonsense counts leave the units as they were.
    r = runPcl(ESC + "&u0D" + ESC + "&u9000D" + ESC + "*p300x600Y" + ESC + "*c300a150b0P");
    fills = r.starting("fill");
    ASSERT_EQ(fills.size(), 1u);
    EXPECT_EQ(fills[0], "fill nz #000000 rop=252 srcT patT M90,180 L162,180 L162,216 L90,216 Z");
}

TEST(Pcl5Rectangles, EraseShadeAndHatch) {
    Result r = runPcl(ESC + "*c100a100b1P" + ESC + "*c25g2P" + ESC + "*c3g3P" + ESC + "*c100g2P");
    auto fills = r.starting("fill");
    ASSERT_EQ(fills.size(), 4u);
    EXPECT_NE(fills[0].find("#ffffff rop=252 srcO patO"), std::string::npos) << fills[0];
    EXPECT_NE(fills[1].find("pattern(8x8)"), std::string::npos) << fills[1];
    EXPECT_NE(fills[2].find("pattern(16x16)"), std::string::npos) << fills[2];
    EXPECT_NE(fills[3].find("#000000"), std::string::npos) << fills[3];
}

TEST(Pcl5Rectangles, RopAndTransparencyAreHandedOn) {
    Result r = runPcl(ESC + "*l90O" + ESC + "*v1n1O" + ESC + "*c10a10b0P");
    auto fills = r.starting("fill");
    ASSERT_EQ(fills.size(), 1u);
    EXPECT_NE(fills[0].find("rop=90 srcO patO"), std::string::npos) << fills[0];
}

TEST(Pcl5Cursor, RowsColumnsAndPushPop) {
    // Column 10 at 10 pitch is one inch; row 2 at 6 lines an inch is the third line.
    Result r = runPcl(ESC + "&a10c2R" + ESC + "&f0S" + ESC + "*p+30X" + ESC + "*c3a3b0P" + ESC + "&f1S" + ESC +
                      "*c3a3b0P");
    auto fills = r.starting("fill");
    ASSERT_EQ(fills.size(), 2u);
    // y = top margin 36 pt + 3/4 of 12 pt + 2 lines of 12 pt = 69 pt, dot 287.5, which the
    // rectangle starts on the dot below: 288 (69.12 pt).
    EXPECT_EQ(fills[0], "fill nz #000000 rop=252 srcT patT M97.2,69.12 L97.92,69.12 L97.92,69.84 L97.2,69.84 Z");
    EXPECT_EQ(fills[1], "fill nz #000000 rop=252 srcT patT M90,69.12 L90.72,69.12 L90.72,69.84 L90,69.84 Z");
}

TEST(Pcl5Cursor, LineSpacingMarginsAndHalfLineFeed) {
    // 8 lines an inch, top margin 2 lines; the first baseline is 3/4 of a line below the margin.
    Result r = runPcl(ESC + "&l8d2E" + ESC + "&a0R" + ESC + "*c3a3b0P" + ESC + "=" + ESC + "*c3a3b0P" + ESC + "&l12C\n" + ESC +
                      "*c3a3b0P");
    auto fills = r.starting("fill");
    ASSERT_EQ(fills.size(), 3u);
    // (24.75, 29.25 and 47.25 pt, each put on the nearest 300 dpi dot.)
    EXPECT_NE(fills[0].find("M18,24.72 "), std::string::npos) << fills[0];
    EXPECT_NE(fills[1].find("M18,29.28 "), std::string::npos) << fills[1];
    EXPECT_NE(fills[2].find("M18,47.28 "), std::string::npos) << fills[2]; // VMI 12/48 inch = 18 pt
}

TEST(Pcl5Text, DefaultFontPlacesCourierOnTheFirstBaseline) {
    Result r = runPcl("H");
    auto masks = r.starting("mask");
    ASSERT_EQ(masks.size(), 1u);
    // The mask is in device pixels at 300 dpi: scale 0.24 pt a pixel. The pen sits at
    // (18, 45) pt = (75, 187.5) px, so the glyph's left edge lies a few pixels right of 18 pt
    // and its top well above the baseline.
    double a, b, c, d, e, f;
    int w, h, ink;
    ASSERT_EQ(std::sscanf(masks[0].c_str(), "mask %dx%d ink=%d [%lf %lf %lf %lf %lf %lf]", &w, &h, &ink, &a, &b, &c,
                          &d, &e, &f),
              9)
        << masks[0];
    EXPECT_NEAR(a, 0.24, 0.001);
    EXPECT_NEAR(d, 0.24, 0.001);
    EXPECT_GT(e, 18.0);
    EXPECT_LT(e, 21.0);
    EXPECT_LT(f, 45.0 - 5);
    EXPECT_NEAR(f + h * 0.24, 45.0, 1.0); // the H stands on the baseline
    EXPECT_GT(ink, 50);
}

TEST(Pcl5Text, FixedPitchAdvancesByHmi) {
    Result r = runPcl("HH" + ESC + "&k6H" + "HH" + ESC + "(s12H" + "HH");
    auto masks = r.starting("mask");
    ASSERT_EQ(masks.size(), 6u);
    auto x = [&](int i) {
        double a, b, c, d, e, f;
        int w, h, ink;
        std::sscanf(masks[static_cast<size_t>(i)].c_str(), "mask %dx%d ink=%d [%lf %lf %lf %lf %lf %lf]", &w, &h,
                    &ink, &a, &b, &c, &d, &e, &f);
        return e;
    };
    EXPECT_NEAR(x(1) - x(0), 7.2, 0.25);  // 10 pitch
    EXPECT_NEAR(x(3) - x(2), 3.6, 0.25);  // HMI 6/120 inch
    EXPECT_NEAR(x(5) - x(4), 6.0, 0.25);  // 12 pitch
}

TEST(Pcl5Text, ProportionalFontSelection) {
    // Arial bold 24 point: a W is wider than an i, and both are bigger than Courier's 12 point.
    Result r = runPcl(ESC + "(19U" + ESC + "(s1p24v0s3b16602T" + "Wi");
    auto masks = r.starting("mask");
    ASSERT_EQ(masks.size(), 2u);
    int w0, h0, w1, h1, ink;
    std::sscanf(masks[0].c_str(), "mask %dx%d ink=%d", &w0, &h0, &ink);
    std::sscanf(masks[1].c_str(), "mask %dx%d ink=%d", &w1, &h1, &ink);
    EXPECT_GT(w0, 2 * w1);
    EXPECT_GT(h0, 60); // a 24 point capital is about 72 pixels at 300 dpi
}

TEST(Pcl5Text, SymbolSetChoosesTheCharacter) {
    // 0xC5 is e-acute in Roman-8 and a box-drawing cross in PC-8: different glyphs.
    Result roman = runPcl("\xc5");
    Result pc8 = runPcl(ESC + "(10U\xc5");
    auto a = roman.starting("mask"), b = pc8.starting("mask");
    ASSERT_EQ(a.size(), 1u);
    ASSERT_EQ(b.size(), 1u);
    EXPECT_NE(a[0], b[0]);
}

TEST(Pcl5Text, CarriageReturnLineFeedAndTabs) {
    Result r = runPcl("A\r\nB\tC" + ESC + "&k2G" + "\nD");
    auto masks = r.starting("mask");
    ASSERT_EQ(masks.size(), 4u);
    auto pos = [&](int i) {
        double a, b, c, d, e, f;
        int w, h, ink;
        std::sscanf(masks[static_cast<size_t>(i)].c_str(), "mask %dx%d ink=%d [%lf %lf %lf %lf %lf %lf]", &w, &h,
                    &ink, &a, &b, &c, &d, &e, &f);
        return std::pair<double, double>(e, f + h * 0.24);
    };
    EXPECT_NEAR(pos(1).first, pos(0).first, 0.5);        // back at the left margin
    EXPECT_NEAR(pos(1).second - pos(0).second, 12, 0.5); // one line down
    EXPECT_NEAR(pos(2).first - pos(1).first, 57.6, 0.5); // tab to column 8
    EXPECT_NEAR(pos(3).first, pos(0).first, 0.5);        // LF = CR + LF
}

TEST(Pcl5Text, UnderlineDrawsARule) {
    Result r = runPcl(ESC + "&dD" + "ABC" + ESC + "&d@");
    auto fills = r.starting("fill");
    ASSERT_EQ(fills.size(), 1u);
    // Three characters of 7.2 pt from the pen at 18 pt.
    EXPECT_NE(fills[0].find("M18,46.2 L39.6,46.2"), std::string::npos) << fills[0];
}

TEST(Pcl5Text, WithoutFontsTextIsSkippedWithAWarning) {
    Result r = runPcl("Hello", {}, false);
    EXPECT_TRUE(r.warnings);
    EXPECT_TRUE(r.starting("mask").empty());
}

TEST(Pcl5Text, WithoutFontFilesTextIsSkippedWithAWarning) {
    FontLibrary empty({"/nonexistent/folder"}, false);
    RecordingDevice dev;
    Diagnostics diag("test", false);
    JobContext ctx{dev, diag, &empty, {}};
    const std::string job = "Hello\f";
    pcl5::run(reinterpret_cast<const uint8_t*>(job.data()), job.size(), ctx);
    EXPECT_TRUE(diag.hasWarnings());
    EXPECT_EQ(dev.pageCount(), 1); // printing was started on the sheet
}

TEST(Pcl5Text, PjlFontDefaults) {
    PjlDefaults pjl;
    pjl.pitch = 20;
    Result r = runPcl("HH", pjl);
    auto masks = r.starting("mask");
    ASSERT_EQ(masks.size(), 2u);
    double e0, e1, a, b, c, d, f;
    int w, h, ink;
    std::sscanf(masks[0].c_str(), "mask %dx%d ink=%d [%lf %lf %lf %lf %lf %lf]", &w, &h, &ink, &a, &b, &c, &d, &e0, &f);
    std::sscanf(masks[1].c_str(), "mask %dx%d ink=%d [%lf %lf %lf %lf %lf %lf]", &w, &h, &ink, &a, &b, &c, &d, &e1, &f);
    EXPECT_NEAR(e1 - e0, 3.6, 0.25);
}

TEST(Pcl5Raster, UnencodedRowsLandOneToOneAt300Dpi) {
    // Two rows of 16 pixels at the cursor (1 inch, 1 inch).
    Result r = runPcl(ESC + "*t300R" + ESC + "*p300x300Y" + ESC + "*r16s1A" + ESC + "*b2W" + std::string("\xff\x00", 2) + ESC +
                      "*b2W" + std::string("\x00\xff", 2) + ESC + "*rB");
    auto masks = r.starting("mask");
    ASSERT_EQ(masks.size(), 1u);
    EXPECT_EQ(masks[0], "mask 16x2 ink=16 [0.24 0 0 0.24 90 108] #000000 rop=252 srcT patT");
}

TEST(Pcl5Raster, RelativeMoveInsideRasterCountsFromTheRowsSent) {
    // Two rows at (1 inch, 1 inch), a relative move of 10 dots down, one more row: the move
    // starts below the rows already printed, so the third row lands 12 dots under the first.
    Result r = runPcl(ESC + "*t300R" + ESC + "*p300x300Y" + ESC + "*r16s1A" + ESC + "*b2W" +
                      std::string("\xff\xff", 2) + ESC + "*b2W" + std::string("\xff\xff", 2) + ESC +
                      "*p+10Y" + ESC + "*b2W" + std::string("\xff\xff", 2) + ESC + "*rB");
    auto masks = r.starting("mask");
    ASSERT_EQ(masks.size(), 2u);
    EXPECT_EQ(masks[0], "mask 16x2 ink=32 [0.24 0 0 0.24 90 108] #000000 rop=252 srcT patT");
    EXPECT_EQ(masks[1], "mask 16x1 ink=16 [0.24 0 0 0.24 90 110.88] #000000 rop=252 srcT patT");
}

TEST(Pcl5Raster, DefaultResolutionIs75DpiAndLeftMarginModeZero) {
    Result r = runPcl(ESC + "*p300x300Y" + ESC + "*r8s0A" + ESC + "*b1W\xf0" + ESC + "*rB");
    auto masks = r.starting("mask");
    ASSERT_EQ(masks.size(), 1u);
    EXPECT_EQ(masks[0], "mask 8x1 ink=4 [0.96 0 0 0.96 18 108] #000000 rop=252 srcT patT");
}

TEST(Pcl5Raster, CompressionMethodsAndYOffset) {
    // Row 1 by run length, row 2 by TIFF, then a y offset of 3 rows, row 6 by delta row against a
    // zeroed seed.
    const std::string job = ESC + "*t300R" + ESC + "*r16s1A" + ESC + "*b1m2W" + std::string("\x01\xaa", 2) + ESC +
                            "*b2m3W" + std::string("\xfe\x0f\x80", 3) + ESC + "*b3Y" + ESC + "*b3m2W" +
                            std::string("\x01\x3c", 2) + ESC + "*rC";
    Result r = runPcl(job);
    auto masks = r.starting("mask");
    ASSERT_EQ(masks.size(), 2u);
    // 45 pt is the first baseline: the raster starts there.
    EXPECT_EQ(masks[0], "mask 16x2 ink=16 [0.24 0 0 0.24 18 45.12] #000000 rop=252 srcT patT");
    EXPECT_EQ(masks[1], "mask 16x1 ink=4 [0.24 0 0 0.24 18 46.32] #000000 rop=252 srcT patT");
}

TEST(Pcl5Raster, WidthIsCappedToThePage) {
    Result r = runPcl(ESC + "*t300R" + ESC + "*r60000s1A" + ESC + "*b0m4W\xff\xff\xff\xff" + ESC + "*rB");
    auto masks = r.starting("mask");
    ASSERT_EQ(masks.size(), 1u);
    int w, h;
    std::sscanf(masks[0].c_str(), "mask %dx%d", &w, &h);
    EXPECT_EQ(w, 2400); // the logical page of Letter at 300 dpi
}

TEST(Pcl5Raster, SimpleColourRgbPlanesGoToAnImage) {
    // Three planes of 8 pixels: red in the first four pixels, blue in the last four.
    Result r = runPcl(ESC + "*r3U" + ESC + "*t300R" + ESC + "*r8s1A" + ESC + "*b1V\xf0" + ESC + "*b1V" +
                      std::string("\x00", 1) + ESC + "*b1W\x0f" + ESC + "*rB");
    auto images = r.starting("image");
    ASSERT_EQ(images.size(), 1u);
    EXPECT_EQ(images[0], "image 8x1 rgb [0.24 0 0 0.24 18 45.12] #000000 rop=252 srcT patT");
}

TEST(Pcl5Raster, OpaqueSourcePaintsWhitePixelsToo) {
    Result r = runPcl(ESC + "*v1N" + ESC + "*t300R" + ESC + "*r8s1A" + ESC + "*b1W\xf0" + ESC + "*rB");
    auto masks = r.starting("mask");
    ASSERT_EQ(masks.size(), 2u);
    EXPECT_NE(masks[0].find("ink=4 [0.24 0 0 0.24 18 45.12] #ffffff"), std::string::npos) << masks[0];
    EXPECT_NE(masks[1].find("ink=4 [0.24 0 0 0.24 18 45.12] #000000"), std::string::npos) << masks[1];
}

TEST(Pcl5Robustness, UniversalExitLanguageEndsTheJob) {
    const std::string job = "x" + ESC + "%-12345X@PJL EOJ\r\n";
    Result r = runPcl(job);
    EXPECT_EQ(r.used, 1u);
    EXPECT_EQ(r.pages, 1);
}

// HP-GL/2 itself is tested with its own module; these tests check what PCL gives it: the picture
// frame, the pen and cursor hand-over, and the ways back out.

TEST(Pcl5Hpgl, LinesInPlotterUnitsFromTheDefaultFrameCorner) {
    // The default picture frame: the logical page's width, 10 inches high from the top margin;
    // plotter units are 1/1016 inch from its lower left corner, y up.
    Result r = runPcl(ESC + "%0BIN;SP1;PU0,0;PD1016,0,1016,1016;PU;" + ESC + "%0A" + "x");
    EXPECT_FALSE(r.warnings);
    auto strokes = r.starting("stroke");
    ASSERT_EQ(strokes.size(), 1u);
    // Lower left of the frame: x 18 pt, y 36 + 720 pt; a 0.35 mm pen, 4 dots at 300 dpi.
    EXPECT_EQ(strokes[0], "stroke w=0.96 #000000 rop=252 srcT patT clip=1 M18,756 L90,756 L90,684");
    EXPECT_EQ(r.starting("mask").size(), 1u); // PCL text after the return
}

TEST(Pcl5Hpgl, PictureFrameSizeAndAnchor) {
    // A frame of 720 x 360 pt anchored at the cursor (1 inch, 1 inch below the top margin).
    Result r = runPcl(ESC + "*p300x300Y" + ESC + "*c0T" + ESC + "*c7200x3600Y" + ESC + "%0BIN;PD1016,0;" + ESC + "%0A");
    auto strokes = r.starting("stroke");
    ASSERT_EQ(strokes.size(), 1u);
    EXPECT_NE(strokes[0].find("M90,468 L162,468"), std::string::npos) << strokes[0];
}

TEST(Pcl5Hpgl, PenAndCursorChangeHands) {
    // ESC%1B puts the pen at the PCL cursor; ESC%1A brings the cursor to the pen.
    // (IN would send the pen back to the frame corner, so the plot starts without it.)
    Result r = runPcl(ESC + "*p300x300Y" + ESC + "%1BPD;PR1016,0;" + ESC + "%1A" + ESC + "*c3a3b0P");
    auto strokes = r.starting("stroke");
    auto fills = r.starting("fill");
    ASSERT_EQ(strokes.size(), 1u);
    ASSERT_EQ(fills.size(), 1u);
    EXPECT_NE(strokes[0].find("M90,108 L162,108"), std::string::npos) << strokes[0];
    EXPECT_NE(fills[0].find("M162,108 "), std::string::npos) << fills[0];
}

TEST(Pcl5Hpgl, LabelsAreDrawnInAResidentFont) {
    Result r = runPcl(ESC + "%0BIN;PA1016,1016;LBHI\x03" + ESC + "%0A");
    EXPECT_FALSE(r.warnings);
    auto masks = r.starting("mask");
    ASSERT_EQ(masks.size(), 2u);
    double a, b, c, d, e0, f0;
    int w0, h0, ink;
    std::sscanf(masks[0].c_str(), "mask %dx%d ink=%d [%lf %lf %lf %lf %lf %lf]", &w0, &h0, &ink, &a, &b, &c, &d, &e0, &f0);
    // The label starts at the pen (90 pt, 684 pt on the page), standing on it.
    EXPECT_NEAR(e0, 90, 3);
    EXPECT_NEAR(f0 + h0 * 0.24, 684, 1.5);
}

TEST(Pcl5Hpgl, ResetLeavesHpglAndTheExitSequenceEndsTheJob) {
    Result r = runPcl(ESC + "%0BIN;PD;" + ESC + "E" + "y");
    EXPECT_EQ(r.starting("mask").size(), 1u);
    // Other escape sequences inside HP-GL/2 are passed over.
    r = runPcl(ESC + "%0BIN;PD100,0;" + ESC + "*c100a100b0P" + "PD200,0;" + ESC + "%0A");
    EXPECT_TRUE(r.starting("fill").empty());
    EXPECT_EQ(r.starting("stroke").size(), 1u);
    // The end of the job inside HP-GL/2 stops in front of the exit sequence.
    const std::string job = ESC + "%0BIN;PD100,100;" + ESC + "%-12345X";
    r = runPcl(job);
    EXPECT_EQ(r.used, job.size() - 9);
    EXPECT_EQ(r.starting("stroke").size(), 1u);
}

TEST(Pcl5Robustness, TruncatedRasterIsWarnedAndKept) {
    Result r = runPcl(ESC + "*t300R" + ESC + "*r8s1A" + ESC + "*b1W\xff" + ESC + "*b100W\xff");
    EXPECT_TRUE(r.warnings);
    EXPECT_EQ(r.pages, 1);
    EXPECT_EQ(r.starting("mask").size(), 1u);
}

TEST(Pcl5Robustness, AbsurdValuesDoNotHang) {
    std::string job = ESC + "*p99999999x99999999Y" + ESC + "*c99999999a99999999b0P" + ESC + "*b1m" +
                      "\x04\xff\xff" + ESC + "*b99999Y" + ESC + "&l-5A" + ESC + "&f0S" + ESC + "&f0S";
    for (int i = 0; i < 100; ++i)
        job += ESC + "&f0S";
    job += ESC + "(s-1h0V" + "abc\b\b\b\b" + ESC + "&l0D\n\n" + ESC + "*b5m20W" + std::string(20, '\x05');
    Result r = runPcl(job);
    EXPECT_LE(r.pages, 2);
}

namespace {

std::string u16(int v) { return std::string{static_cast<char>((v >> 8) & 0xFF), static_cast<char>(v & 0xFF)}; }

// A bitmap font header: 64 bytes, fixed or proportional, 300 dpi.
std::string fontHeader(bool proportional, int pitchQuarterDots) {
    std::string h(64, '\0');
    h.replace(0, 2, u16(64));
    h[2] = 0; // bitmap
    h[3] = 1; // 8 bit
    h.replace(6, 2, u16(20)); // baseline
    h.replace(8, 2, u16(16)); // cell width
    h.replace(10, 2, u16(24)); // cell height
    h[13] = proportional ? 1 : 0;
    h.replace(14, 2, u16(277)); // 8U
    h.replace(16, 2, u16(pitchQuarterDots));
    h.replace(18, 2, u16(48)); // 12 dots high
    return h;
}

// A character: left offset 1, top offset 8 (above the baseline), width 8, height 8, advance
// deltaX quarter dots, then the rows.
std::string character(int cls, int deltaX, const std::string& rows) {
    std::string c;
    c += '\x04';
    c += '\x00';
    c += '\x0e';
    c += static_cast<char>(cls);
    c += '\x00';
    c += '\x00';
    c += u16(1) + u16(8) + u16(8) + u16(8) + u16(deltaX);
    return c + rows;
}

} // namespace

TEST(Pcl5SoftFonts, BitmapFontDownloadedAndSelectedById) {
    const std::string box = std::string("\xff\x81\x81\x81\x81\x81\x81\xff", 8);
    // Class 2: one row of 8 black, then the middle row repeated 5 times (white 0, black 1,
    // white 6, black 1), then 8 black.
    const std::string packed = std::string("\x00\x00\x08", 3) + std::string("\x05\x00\x01\x06\x01", 5) +
                               std::string("\x00\x00\x08", 3);
    const std::string job = ESC + "*c5D" + ESC + ")s64W" + fontHeader(false, 40) + ESC + "*c65E" + ESC + "(s" +
                            std::to_string(16 + box.size()) + "W" + character(1, 40, box) + ESC + "*c66E" + ESC +
                            "(s" + std::to_string(16 + packed.size()) + "W" + character(2, 40, packed) + ESC +
                            "(5X" + "AB";
    Result r = runPcl(job);
    EXPECT_FALSE(r.warnings) << (r.messages.empty() ? "" : r.messages[0]);
    auto masks = r.starting("mask");
    ASSERT_EQ(masks.size(), 2u);
    // The pen is at (18, 45) pt = (75, 187.5) dots: the box's top-left lies 1 dot right and 8 up.
    EXPECT_EQ(masks[0], "mask 8x8 ink=28 [0.24 0 0 0.24 18.24 43.2] #000000 rop=252 srcT patT");
    // Fixed pitch of 10 dots (40 quarter dots): the next character starts 2.4 pt further on.
    EXPECT_EQ(masks[1], "mask 8x8 ink=28 [0.24 0 0 0.24 20.64 43.2] #000000 rop=252 srcT patT");
}

TEST(Pcl5SoftFonts, ResidentFontsComeBackOnAttributeSelection) {
    const std::string box(8, '\xff');
    const std::string job = ESC + "*c7D" + ESC + ")s64W" + fontHeader(true, 40) + ESC + "*c65E" + ESC + "(s" +
                            std::to_string(16 + box.size()) + "W" + character(1, 48, box) + ESC + "(7X" + "A" +
                            ESC + "(s0p10H" + "A";
    Result r = runPcl(job);
    auto masks = r.starting("mask");
    ASSERT_EQ(masks.size(), 2u);
    EXPECT_EQ(masks[0].rfind("mask 8x8 ink=64", 0), 0u) << masks[0];
    EXPECT_NE(masks[1].rfind("mask 8x8 ink=64", 0), 0u) << masks[1]; // Courier's A
}

TEST(Pcl5SoftFonts, DownloadedFontsAnswerSelectionByAttributes) {
    // The header says: fixed, 8U, 10 dots pitch (30 characters an inch at 300 dpi), typeface 0,
    // upright, medium. Asking for exactly that by attributes finds the downloaded font.
    const std::string box(8, '\xff');
    const std::string job = ESC + "*c3D" + ESC + ")s64W" + fontHeader(false, 40) + ESC + "*c65E" + ESC + "(s" +
                            std::to_string(16 + box.size()) + "W" + character(1, 40, box) + ESC + "(8U" + ESC +
                            "(s0p30h0s0b0T" + "A" + ESC + "(s10H" + "A";
    Result r = runPcl(job);
    auto masks = r.starting("mask");
    ASSERT_EQ(masks.size(), 2u);
    EXPECT_EQ(masks[0].rfind("mask 8x8 ink=64", 0), 0u) << masks[0];
    EXPECT_NE(masks[1].rfind("mask 8x8 ink=64", 0), 0u) << masks[1]; // 10 pitch: a resident font
}

TEST(Pcl5SoftFonts, DamagedDownloadsAreWarnedAndSkipped) {
    Result r = runPcl(ESC + "*c1D" + ESC + ")s10W0123456789" + ESC + "(1X" + "A" + ESC + "(s3W\x04\x00\x0e");
    EXPECT_TRUE(r.warnings);
    EXPECT_EQ(r.starting("mask").size(), 1u); // the resident font prints the A
    // A character claiming a huge bitmap is refused, not allocated.
    std::string hdr = fontHeader(false, 40);
    std::string big;
    big += '\x04';
    big += '\x00';
    big += '\x0e';
    big += '\x01';
    big += std::string(2, '\0');
    big += u16(0) + u16(0) + u16(65535) + u16(65535) + u16(40);
    r = runPcl(ESC + "*c1D" + ESC + ")s64W" + hdr + ESC + "*c65E" + ESC + "(s16W" + big + ESC + "(1XA");
    EXPECT_TRUE(r.warnings);
}

TEST(Pcl5Colour, DirectByPixelRasterGoesToAnRgbImage) {
    const std::string cid = std::string("\x00\x03\x08\x08\x08\x08", 6);
    const std::string row = std::string("\xff\x00\x00\x00\x00\xff", 6); // red, blue
    Result r = runPcl(ESC + "*v6W" + cid + ESC + "*t300R" + ESC + "*r2s1A" + ESC + "*b6W" + row + ESC + "*rB");
    auto images = r.starting("image");
    ASSERT_EQ(images.size(), 1u);
    EXPECT_EQ(images[0], "image 2x1 rgb [0.24 0 0 0.24 18 45.12] #000000 rop=252 srcT patT");
}

TEST(Pcl5Colour, PaletteAndForegroundColourText) {
    // Indexed by pixel, 2 bits: entry 2 set to pure green, then chosen as the foreground for a
    // rectangle.
    const std::string cid = std::string("\x00\x01\x02\x08\x08\x08", 6);
    Result r = runPcl(ESC + "*v6W" + cid + ESC + "*v0a255b0c2I" + ESC + "*v2S" + ESC + "*c10a10b0P");
    auto fills = r.starting("fill");
    ASSERT_EQ(fills.size(), 1u);
    EXPECT_NE(fills[0].find("#00ff00"), std::string::npos) << fills[0];
}

TEST(Pcl5Colour, MonochromeDefaultsAfterReset) {
    const std::string cid = std::string("\x00\x01\x02\x08\x08\x08", 6);
    Result r = runPcl(ESC + "*v6W" + cid + ESC + "*v0a255b0c1I" + ESC + "*v1S" + ESC + "E" + ESC + "*c10a10b0P");
    auto fills = r.starting("fill");
    ASSERT_EQ(fills.size(), 1u);
    EXPECT_NE(fills[0].find("#000000"), std::string::npos) << fills[0];
}

TEST(Pcl5Pages, LandscapeLogicalPageAndRegistration) {
    // Landscape Letter: the logical page starts 60 dots (14.4 pt) from the long sheet's left
    // edge. A left registration of 180 decipoints moves it a quarter inch across the width of
    // the physical sheet whatever the orientation: down the landscape page.
    Result r = runPcl(ESC + "&l1O" + ESC + "*p0x0Y" + ESC + "*c3a3b0P" + ESC + "&l180U" + ESC + "*c3a3b0P");
    auto fills = r.starting("fill");
    ASSERT_EQ(fills.size(), 2u);
    EXPECT_NE(fills[0].find("M14.4,36 "), std::string::npos) << fills[0];
    EXPECT_NE(fills[1].find("M14.4,54 "), std::string::npos) << fills[1];
}

TEST(Pcl5Pages, ReversePortraitTurnsTheLogicalPageHalfARound) {
    Result r = runPcl(ESC + "&l2O" + ESC + "*p0x0Y" + ESC + "*c300a300b0P");
    auto fills = r.starting("fill");
    ASSERT_EQ(fills.size(), 1u);
    // From the top left of the logical page, which now lies at the sheet's bottom right.
    EXPECT_EQ(fills[0], "fill nz #000000 rop=252 srcT patT M522,684 L594,684 L594,756 L522,756 Z");
}

TEST(Pcl5Raster, ScaledRasterFillsTheDestination) {
    // 8 x 2 source pixels scaled to one inch by a quarter inch (720 x 180 decipoints).
    Result r = runPcl(ESC + "*r8s2T" + ESC + "*t720h180V" + ESC + "*r3A" + ESC + "*b1W\xff" + ESC + "*b1W\x81" +
                      ESC + "*rB");
    auto masks = r.starting("mask");
    ASSERT_EQ(masks.size(), 1u);
    EXPECT_EQ(masks[0], "mask 8x2 ink=10 [9 0 0 9 18 45.12] #000000 rop=252 srcT patT");
}

TEST(Pcl5Text, PrintDirectionTurnsTextAndRectangles) {
    // After ESC&a90P the text runs up the page: the pen's frame x is the distance up from the
    // logical page's bottom. A rectangle at frame (0, 0) of 1 x 0.5 inch lies along the left
    // edge, bottom up.
    Result r = runPcl(ESC + "&a90P" + ESC + "*p0x0Y" + ESC + "*c300a150b0P" + "H");
    auto fills = r.starting("fill");
    ASSERT_EQ(fills.size(), 1u);
    // The margins turn with the direction: the top margin is now the old left margin (0), so
    // frame (0, 0) is logical (0, 792); the rectangle reaches 72 pt up and 36 pt right.
    EXPECT_EQ(fills[0], "fill nz #000000 rop=252 srcT patT M18,720 L54,720 L54,792 L18,792 Z");
    auto masks = r.starting("mask");
    ASSERT_EQ(masks.size(), 1u);
    int w, h;
    std::sscanf(masks[0].c_str(), "mask %dx%d", &w, &h);
    EXPECT_GT(w, h); // an H on its side is wider than high
}

TEST(Pcl5Text, SymbolSetSelectsTheSymbolFace) {
    // 'a' in the symbol set 19M is a Greek alpha from the symbol face, not Courier's a.
    Result sym = runPcl(ESC + "(19M" + ESC + "(s1p12v0s0b16686T" + "a");
    Result courier = runPcl("a");
    auto a = sym.starting("mask"), b = courier.starting("mask");
    ASSERT_EQ(a.size(), 1u);
    ASSERT_EQ(b.size(), 1u);
    EXPECT_NE(a[0].substr(0, a[0].find(" [")), b[0].substr(0, b[0].find(" [")));
}

TEST(Pcl5Pages, DeclaredResolutionFromUnitsAndRaster) {
    Result r = runPcl(ESC + "&u600D" + "x");
    EXPECT_EQ(r.calls.front(), "beginPage 612x792 dpi=600x600");
    r = runPcl(ESC + "&u7200D" + "x");
    EXPECT_EQ(r.calls.front(), "beginPage 612x792");
    r = runPcl(ESC + "*t600R" + ESC + "*r1A" + ESC + "*b1W\xff" + ESC + "*rB");
    EXPECT_EQ(r.calls.front(), "beginPage 612x792 dpi=600x600");
    PjlDefaults pjl;
    pjl.resolution = 1200;
    r = runPcl("x", pjl);
    EXPECT_EQ(r.calls.front(), "beginPage 612x792 dpi=1200x1200");
}

// ---- macros -----------------------------------------------------------------------------------

namespace {

// A 1 x 0.5 inch rule at (x, y) in PCL units, as a macro body or on its own.
std::string rule(int x, int y) {
    return ESC + "*p" + std::to_string(x) + "x" + std::to_string(y) + "Y" + ESC + "*c300a150b0P";
}

std::string defineMacro(int id, const std::string& body) {
    return ESC + "&f" + std::to_string(id) + "y0X" + body + ESC + "&f1X";
}

} // namespace

TEST(Pcl5Macros, DefinitionStoresAndExecutionRuns) {
    Result stored = runPcl(defineMacro(7, rule(0, 0)));
    EXPECT_TRUE(stored.starting("fill").empty()) << "a definition draws nothing";
    EXPECT_EQ(stored.pages, 0);

    Result twice = runPcl(defineMacro(7, rule(0, 0)) + ESC + "&f7y2X" + ESC + "&f3X");
    auto fills = twice.starting("fill");
    ASSERT_EQ(fills.size(), 2u);
    EXPECT_EQ(fills[0], fills[1]);
    EXPECT_EQ(twice.pages, 1);
    EXPECT_FALSE(twice.warnings);
}

TEST(Pcl5Macros, ExecuteKeepsChangesAndCallPutsThemBack) {
    // The macro moves the cursor and changes the raster operation.
    const std::string body = ESC + "*p600x600Y" + ESC + "*l102O";
    const std::string after = ESC + "*c300a150b0P"; // a rule at the cursor
    Result executed = runPcl(defineMacro(1, body) + ESC + "&f1y2X" + after);
    Result called = runPcl(defineMacro(1, body) + ESC + "&f1y3X" + after);
    Result plain = runPcl(after);
    auto e = executed.starting("fill"), c = called.starting("fill"), p = plain.starting("fill");
    ASSERT_EQ(e.size(), 1u);
    ASSERT_EQ(c.size(), 1u);
    ASSERT_EQ(p.size(), 1u);
    EXPECT_EQ(e[0], "fill nz #000000 rop=102 srcT patT M162,180 L234,180 L234,216 L162,216 Z");
    EXPECT_EQ(c[0], p[0]) << "a called macro leaves the environment as it found it";
}

TEST(Pcl5Macros, OverlayDrawsOnEveryPageFromTheDefaultEnvironment) {
    // The overlay draws a rule at (0, 0); the pages change the cursor and the pattern first,
    // which the overlay must not see, and must find again after it.
    const std::string job = defineMacro(3, rule(0, 0)) + ESC + "&f3y4X" + ESC + "*l102O" + ESC + "*p900x900Y" +
                            "A\f" + "B" + ESC + "*c300a150b0P" + "\f" + ESC + "&f5X" + "C\f";
    Result r = runPcl(job);
    EXPECT_EQ(r.pages, 3);
    auto fills = r.starting("fill");
    const std::string overlay = "fill nz #000000 rop=252 srcT patT M18,36 L90,36 L90,72 L18,72 Z";
    ASSERT_EQ(fills.size(), 3u); // the overlay on pages 1 and 2, the grey rule on page 2
    EXPECT_EQ(fills[0], overlay);
    EXPECT_NE(fills[1].find("rop=102"), std::string::npos) << fills[1];
    EXPECT_EQ(fills[2], overlay);
    // The overlay ran at the end of each page, after the page's own drawing.
    std::vector<std::string> order;
    for (const auto& c : r.calls)
        if (c.rfind("fill", 0) == 0 || c.rfind("endPage", 0) == 0 || c.rfind("mask", 0) == 0)
            order.push_back(c.substr(0, c.find(' ')));
    const std::vector<std::string> want{"mask", "fill", "endPage", "mask", "fill", "fill", "endPage", "mask", "endPage"};
    EXPECT_EQ(order, want);
}

TEST(Pcl5Macros, DeletionAndReset) {
    const std::string two = defineMacro(1, rule(0, 0)) + defineMacro(2, rule(300, 0));
    // Delete one ID: running it does nothing, the other still runs.
    Result r = runPcl(two + ESC + "&f1y8X" + ESC + "&f1y2X" + ESC + "&f2y2X");
    EXPECT_EQ(r.starting("fill").size(), 1u);
    // A reset deletes temporary macros and keeps permanent ones.
    r = runPcl(two + ESC + "&f2y10X" + ESC + "E" + ESC + "&f1y2X" + ESC + "&f2y2X");
    auto fills = r.starting("fill");
    ASSERT_EQ(fills.size(), 1u);
    EXPECT_NE(fills[0].find("M90,36"), std::string::npos) << fills[0];
    // Delete all.
    r = runPcl(two + ESC + "&f2y10X" + ESC + "&f6X" + ESC + "&f1y2X" + ESC + "&f2y2X");
    EXPECT_TRUE(r.starting("fill").empty());
}

TEST(Pcl5Macros, DataInsideADefinitionIsNotTakenForCommands) {
    // Raster data whose bytes spell the end of a definition belongs to the raster command.
    const std::string fake = ESC + "&f1X";
    const std::string body = ESC + "*r1A" + ESC + "*b" + std::to_string(fake.size()) + "W" + fake + ESC + "*rB";
    Result r = runPcl(defineMacro(4, body) + ESC + "&f4y2X");
    EXPECT_EQ(r.starting("mask").size(), 1u);
    EXPECT_TRUE(r.starting("fill").empty());
}

TEST(Pcl5Macros, HostileMacrosEnd) {
    // A macro that calls itself runs two deep and stops, with a warning.
    Result self = runPcl(defineMacro(9, rule(0, 0) + ESC + "&f9y3X") + ESC + "&f9y3X");
    EXPECT_EQ(self.starting("fill").size(), 2u);
    EXPECT_TRUE(self.warnings);
    // A definition without an end is dropped.
    Result open = runPcl(ESC + "&f5y0X" + rule(0, 0));
    EXPECT_TRUE(open.starting("fill").empty());
    EXPECT_TRUE(open.warnings);
    // Macros that run each other over and over stop at the work budget: 40 runs of a macro
    // that runs a 4000-byte macro 2000 times would be 320 MB of commands.
    std::string inner;
    for (int i = 0; i < 2000; ++i)
        inner += ESC + "&f2y2X";
    std::string runs;
    for (int i = 0; i < 40; ++i)
        runs += ESC + "&f1y2X";
    Result fan = runPcl(defineMacro(2, ESC + "*p0x0Y" + std::string(4000, ' ')) + defineMacro(1, inner) + runs);
    EXPECT_TRUE(fan.warnings);
}

// ---- colour user patterns ------------------------------------------------------------------

namespace {

// Renders a job to 24-bit pages at 300 dpi and counts the pixels of each colour on page 1.
std::map<std::tuple<int, int, int>, int> colourCounts(const std::string& job) {
    qxtest::PageCollector sink;
    RasterOptions opt;
    opt.depth = 24;
    opt.dpiX = opt.dpiY = 300;
    RasterDevice dev(opt, sink);
    Diagnostics diag("test", false);
    JobContext ctx{dev, diag, &fonts(), {}};
    pcl5::run(reinterpret_cast<const uint8_t*>(job.data()), job.size(), ctx);
    std::map<std::tuple<int, int, int>, int> counts;
    if (sink.pages.empty())
        return counts;
    const RasterPage& p = sink.pages[0];
    for (int y = 0; y < p.height; ++y)
        for (int x = 0; x < p.width; ++x) {
            const uint8_t* px = p.row(y) + size_t(x) * 3;
            ++counts[{px[0], px[1], px[2]}];
        }
    return counts;
}

std::string patternHeader(int format, int bits, int height, int width) {
    return std::string{char(format), 0, char(bits), 0, char(height >> 8), char(height & 255), char(width >> 8),
                       char(width & 255)};
}

} // namespace

TEST(Pcl5Patterns, ColourUserPatternsIndexTheCurrentPalette) {
    // The simple RGB palette: 1 red, 2 green, 4 blue, 7 white. A 2 x 2 tile of red, green / blue,
    // white at 8 bits a pixel fills a 100 x 100 dot rectangle: a quarter of it each, the white
    // quarter left alone (pattern transparency).
    const std::string tile8 = patternHeader(1, 8, 2, 2) + std::string{1, 2, 4, 7};
    const std::string job8 = ESC + "*r3U" + ESC + "*c5G" + ESC + "*c" + std::to_string(tile8.size()) + "W" + tile8 +
                             ESC + "*p300x300Y" + ESC + "*c100a100b4P";
    auto c = colourCounts(job8);
    EXPECT_EQ((c[{255, 0, 0}]), 2500);
    EXPECT_EQ((c[{0, 255, 0}]), 2500);
    EXPECT_EQ((c[{0, 0, 255}]), 2500);
    EXPECT_EQ((c[{0, 0, 0}]), 0);
    // At 1 bit a pixel the bits index the palette too: 0 black, 1 red, on alternate rows.
    const std::string tile1 = patternHeader(1, 1, 2, 8) + std::string{char(0xFF), 0};
    const std::string job1 = ESC + "*r3U" + ESC + "*c6G" + ESC + "*c" + std::to_string(tile1.size()) + "W" + tile1 +
                             ESC + "*p300x300Y" + ESC + "*c100a100b4P";
    c = colourCounts(job1);
    EXPECT_EQ((c[{255, 0, 0}]), 5000);
    EXPECT_EQ((c[{0, 0, 0}]), 5000);
}
