// EMF+ records on pages drawn in EMF+ only: the geometry the player hands to the recording
// device, hostile records, and the pixels of a page of shapes against Ghostscript's rendering
// of a PostScript page that draws the same shapes.

#include "emfplus_writer.h"
#include "played.h"

#include "common/diagnostics.h"
#include "common/ink_score.h"
#include "common/pgm.h"
#include "common/job.h"
#include "common/render_job.h"
#include "emf/emf.h"
#include "fonts/font_library.h"
#include "render/raster_device.h"
#include "render/recording_device.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <unistd.h>

namespace qx::emf {
namespace {

using test::Buffer;
using test::EmfWriter;
using test::Played;
using test::PlusWriter;

// One EMF of a 100 x 50 mm page (4 reference pixels a millimetre) holding the records of w.
Buffer page(PlusWriter& w, int widthMm = 100, int heightMm = 50) {
    EmfWriter emf(widthMm, heightMm, 4);
    w.flushInto(emf);
    return emf.finish();
}

// 1 reference pixel = 0.25 mm = 0.70866 pt.
TEST(EmfPlus, APageInEmfPlusOnlyIsDrawn) {
    PlusWriter w;
    w.fillRects(0xffff0000, true, {{10, 20, 40, 30}});
    Played r(page(w));
    EXPECT_EQ(r.device.pageCount(), 1);
    EXPECT_TRUE(r.has("fill nz #ff0000 rop=252 srcO patO M7.09,14.17 L35.43,14.17 L35.43,35.43 L7.09,35.43 Z"))
        << r.calls;
    EXPECT_FALSE(r.diag.hasWarnings()) << r.calls;
}

TEST(EmfPlus, ADualPageIsDrawnFromItsGdiRecordsOnly) {
    PlusWriter w(true);
    w.fillRects(0xffff0000, true, {{10, 20, 40, 30}});
    EmfWriter emf(100, 50, 4);
    w.flushInto(emf);
    emf.rec(43, {0, 0, 40, 40}); // EMR_RECTANGLE with the default white brush
    Played r(emf.finish());
    EXPECT_FALSE(r.has("#ff0000")) << r.calls;
    EXPECT_EQ(r.count("fill"), 1u) << r.calls;
}

TEST(EmfPlus, BrushAndPenObjectsWithTheirWidths) {
    PlusWriter w;
    w.solidBrush(1, 0xff0000ff)
        .pen(2, 4, 0xff00ff00) // 4 world units
        .fields(test::EmfPlusScaleWorldTransform, 0, {2, 2}, true)
        .fillRects(1, false, {{0, 0, 10, 10}})
        .points(test::EmfPlusDrawLines, 2, {}, {{0, 0}, {20, 0}, {20, 10}});
    Played r(page(w));
    EXPECT_TRUE(r.has("fill nz #0000ff rop=252 srcO patO M0,0 L14.17,0 L14.17,14.17 L0,14.17 Z")) << r.calls;
    // 4 units, doubled, are 8 pixels: 5.67 pt.
    EXPECT_TRUE(r.has("stroke w=5.67 #00ff00 rop=252 srcO patO M0,0 L28.35,0 L28.35,14.17")) << r.calls;
}

TEST(EmfPlus, HatchBrushesAndTransparentColours) {
    PlusWriter w;
    w.hatchBrush(1, 4, 0xff000000, 0xffffffff)
        .fillRects(1, false, {{0, 0, 10, 10}})
        .fillRects(0x00ff0000, true, {{0, 0, 10, 10}})  // fully transparent: nothing
        .fillRects(0x80000000, true, {{0, 0, 10, 10}}) // half black on white paper
        .textureBrush(2, 2, 3, {0, 0xffffff, 0xffffff, 0, 0, 0})
        .fillRects(2, false, {{0, 0, 10, 10}});
    Played r(page(w));
    EXPECT_TRUE(r.has("fill nz pattern(2x3) rop=252 srcO patO M0,0")) << r.calls;
    EXPECT_TRUE(r.has("fill nz pattern(8x8)")) << r.calls;
    EXPECT_TRUE(r.has("fill nz #7f7f7f")) << r.calls;
    EXPECT_EQ(r.count("fill"), 3u) << r.calls;
}

TEST(EmfPlus, LinearGradientsAreBandsClippedToTheShape) {
    PlusWriter w;
    w.linearBrush(1, 0, 0, 100, 10, 0xff000000, 0xffffffff).fillRects(1, false, {{0, 0, 100, 10}});
    Played r(page(w));
    EXPECT_EQ(r.count("fill nz"), 128u) << r.calls;
    // The first band is nearly black, the last nearly white, each clipped to the rectangle.
    EXPECT_EQ(r.device.calls()[1].rfind("fill nz #010101 rop=252 srcO patO clip=1", 0), 0u) << r.calls;
    EXPECT_TRUE(r.has("fill nz #fefefe rop=252 srcO patO clip=1")) << r.calls;
    EXPECT_FALSE(r.diag.hasWarnings()) << r.calls;
}

TEST(EmfPlus, WorldAndPageTransforms) {
    PlusWriter w;
    w.fields(test::EmfPlusTranslateWorldTransform, 0, {100, 0}, true)
        .fields(test::EmfPlusRotateWorldTransform, 0, {90}, true) // turned a quarter, clockwise on paper
        .fillRects(0xff000000, true, {{0, 0, 10, 20}})
        .fields(test::EmfPlusResetWorldTransform, 0, {}, true)
        .fields(test::EmfPlusSetPageTransform, 4, {0.5}, true) // half inches, at 96 dpi
        .fillRects(0xff000000, true, {{1, 1, 1, 1}})
        .fields(test::EmfPlusSetPageTransform, 2, {1}, true)
        .fields(test::EmfPlusSetWorldTransform, 0, {1, 0, 0, 1, 0, 0}, true)
        .fields(test::EmfPlusTranslateWorldTransform, 0, {10, 10}, true)
        .fields(test::EmfPlusScaleWorldTransform, 0x2000, {2, 2}, true) // appended: scales the move too
        .fillRects(0xff000000, true, {{0, 0, 1, 1}});
    Played r(page(w));
    EXPECT_TRUE(r.has("M70.87,0 L70.87,7.09 L56.69,7.09 L56.69,0 Z")) << r.calls;
    // 48 pixels a half inch: 34.02 pt.
    EXPECT_TRUE(r.has("M34.02,34.02 L68.03,34.02 L68.03,68.03 L34.02,68.03 Z")) << r.calls;
    EXPECT_TRUE(r.has("M14.17,14.17 L15.59,14.17 L15.59,15.59 L14.17,15.59 Z")) << r.calls;
}

TEST(EmfPlus, SaveRestoreAndClipping) {
    PlusWriter w;
    w.fields(test::EmfPlusSave, 0, {7}, false)
        .fields(test::EmfPlusSetClipRect, 0, {0, 0, 10, 10}, true)
        .fields(test::EmfPlusTranslateWorldTransform, 0, {10, 0}, true)
        .fillRects(0xff000000, true, {{0, 0, 1, 1}})
        .fields(test::EmfPlusRestore, 0, {7}, false)
        .fillRects(0xff000000, true, {{0, 0, 1, 1}})
        .fields(test::EmfPlusSetClipRect, 0x100, {0, 0, 10, 10}, true) // intersect
        .fields(test::EmfPlusSetClipRect, 0x100, {5, 5, 10, 10}, true)
        .fillRects(0xff000000, true, {{0, 0, 1, 1}})
        .fields(test::EmfPlusResetClip, 0, {}, true)
        .fillRects(0xff000000, true, {{0, 0, 1, 1}});
    Played r(page(w));
    const auto& c = r.device.calls();
    std::vector<std::string> fills;
    std::copy_if(c.begin(), c.end(), std::back_inserter(fills), [](const std::string& s) { return s.rfind("fill", 0) == 0; });
    ASSERT_EQ(fills.size(), 4u) << r.calls;
    EXPECT_NE(fills[0].find("clip=1 M7.09,0"), std::string::npos) << fills[0];
    EXPECT_EQ(fills[1].find("clip="), std::string::npos) << fills[1];
    EXPECT_NE(fills[1].find("M0,0"), std::string::npos) << fills[1];
    EXPECT_NE(fills[2].find("clip=2"), std::string::npos) << fills[2];
    EXPECT_EQ(fills[3].find("clip="), std::string::npos) << fills[3];
}

TEST(EmfPlus, EllipsesPiesArcsAndCurves) {
    // FillEllipse's body is the colour then a rectangle of floats.
    test::Buffer b;
    test::put32(b, 0xff00ff00);
    for (float v : {0.f, 0.f, 40.f, 20.f})
        test::putF(b, v);
    PlusWriter w2;
    w2.rec(test::EmfPlusFillEllipse, 0x8000, b);
    test::Buffer pie;
    test::put32(pie, 0xff0000ff);
    for (float v : {0.f, 90.f, 0.f, 0.f, 40.f, 40.f})
        test::putF(pie, v);
    w2.rec(test::EmfPlusFillPie, 0x8000, pie);
    test::Buffer arc;
    for (float v : {180.f, 180.f, 0.f, 0.f, 40.f, 40.f})
        test::putF(arc, v);
    w2.pen(1, 1, 0xff000000).rec(test::EmfPlusDrawArc, 1, arc);
    w2.points(test::EmfPlusDrawBeziers, 1, {}, {{0, 0}, {10, 10}, {20, 10}, {30, 0}});
    test::Buffer curve;
    test::put32(curve, 0xff000000);
    test::putF(curve, 0.5f);
    test::put32(curve, 3);
    for (float v : {0.f, 0.f, 40.f, 0.f, 20.f, 30.f})
        test::putF(curve, v);
    w2.rec(test::EmfPlusFillClosedCurve, 0x8000, curve);
    Played r(page(w2));
    const auto& c = r.device.calls();
    ASSERT_GE(c.size(), 6u) << r.calls;
    // The ellipse: four quarter Béziers from its rightmost point.
    EXPECT_TRUE(r.has("fill nz #00ff00 rop=252 srcO patO M28.35,7.09 C")) << r.calls;
    // The pie: centre, the arc from 0 to 90 degrees (down on paper), back.
    EXPECT_TRUE(r.has("fill nz #0000ff rop=252 srcO patO M14.17,14.17 L28.35,14.17 C")) << r.calls;
    EXPECT_TRUE(r.has(" 14.17,28.35 Z")) << r.calls;
    // The arc: the upper half, from the left.
    EXPECT_TRUE(r.has("stroke w=0.71 #000000 rop=252 srcO patO M0,14.17 C")) << r.calls;
    EXPECT_TRUE(r.has("M0,0 C7.09,7.09 14.17,7.09 21.26,0")) << r.calls;
    EXPECT_TRUE(r.has("fill eo #000000 rop=252 srcO patO M0,0 C")) << r.calls;
}

TEST(EmfPlus, PathObjectsFilledAndStroked) {
    PlusWriter w;
    w.pen(1, 2, 0xff000000)
        .path(2, {{0, 0}, {40, 0}, {40, 40}, {30, 40}, {10, 40}, {0, 20}}, {0, 1, 3, 3, 3 | 0x80, 0})
        .rec(test::EmfPlusFillPath, 0x8000 | 2, [] {
            test::Buffer b;
            test::put32(b, 0xffff0000);
            return b;
        }())
        .rec(test::EmfPlusDrawPath, 2, [] {
            test::Buffer b;
            test::put32(b, 1);
            return b;
        }());
    Played r(page(w));
    EXPECT_TRUE(r.has("fill eo #ff0000 rop=252 srcO patO M0,0 L28.35,0 C28.35,28.35 21.26,28.35 7.09,28.35 Z M0,14.17"))
        << r.calls;
    EXPECT_TRUE(r.has("stroke w=1.42 #000000")) << r.calls;
}

TEST(EmfPlus, CompressedAndRelativePoints) {
    PlusWriter w;
    w.points(test::EmfPlusFillPolygon, 0x8000, {0xff000000}, {{0, 0}, {40, 0}, {0, 40}}, true);
    // Relative points: (10, 10) as 7-bit steps, then (+200, -1) as a 15-bit and a 7-bit step.
    test::Buffer rel;
    test::put32(rel, 0xff000000);
    test::put32(rel, 2);
    for (uint8_t v : {uint8_t(10), uint8_t(10), uint8_t(0x80), uint8_t(200), uint8_t(0x7f)})
        rel.push_back(v);
    w.rec(test::EmfPlusFillPolygon, 0x8000 | 0x0800, rel);
    Played r(page(w));
    EXPECT_TRUE(r.has("fill eo #000000 rop=252 srcO patO M0,0 L28.35,0 L0,28.35 Z")) << r.calls;
    EXPECT_TRUE(r.has("M7.09,7.09 L148.82,6.38 Z")) << r.calls;
}

TEST(EmfPlus, ImagesByRectangleAndByPoints) {
    PlusWriter w;
    w.image(3, 2, 2, {0xff0000, 0x00ff00, 0x0000ff, 0xffffff});
    test::Buffer b;
    test::put32(b, 0xffffffff); // no image attributes
    test::put32(b, 2);          // source unit: pixels
    for (float v : {0.f, 0.f, 2.f, 2.f, 10.f, 10.f, 20.f, 20.f})
        test::putF(b, v);
    w.rec(test::EmfPlusDrawImage, 3, b);
    test::Buffer p;
    test::put32(p, 0xffffffff);
    test::put32(p, 2);
    for (float v : {1.f, 0.f, 1.f, 2.f})
        test::putF(p, v);
    test::put32(p, 3);
    for (float v : {0.f, 0.f, 0.f, 20.f, -20.f, 0.f}) // turned a quarter
        test::putF(p, v);
    w.rec(test::EmfPlusDrawImagePoints, 3, p);
    Played r(page(w));
    EXPECT_TRUE(r.has("image 2x2 rgb [7.09 0 0 7.09 7.09 7.09]")) << r.calls;
    EXPECT_TRUE(r.has("image 1x2 rgb [0 14.17 -7.09 0 0 0]")) << r.calls;
}

TEST(EmfPlus, ObjectsSpreadOverSeveralRecordsAreJoined) {
    // An image object's data cut in two, each part after the whole object's size.
    PlusWriter whole;
    whole.image(4, 3, 2, {0, 0xffffff, 0, 0xffffff, 0, 0xffffff});
    const Buffer& b = whole.bytes();
    const size_t objectAt = 28 + 12; // after the EMF+ header record and this record's header
    const Buffer data(b.begin() + long(objectAt), b.end());
    PlusWriter w;
    for (size_t start : {size_t(0), size_t(20)}) {
        Buffer part;
        test::put32(part, uint32_t(data.size()));
        part.insert(part.end(), data.begin() + long(start), start == 0 ? data.begin() + 20 : data.end());
        w.rec(test::EmfPlusObject, 0x8000 | 5 << 8 | 4, part);
    }
    Buffer draw;
    test::put32(draw, 0xffffffff);
    test::put32(draw, 2);
    for (float v : {0.f, 0.f, 3.f, 2.f, 0.f, 0.f, 30.f, 20.f})
        test::putF(draw, v);
    w.rec(test::EmfPlusDrawImage, 4, draw);
    Played r(page(w));
    EXPECT_TRUE(r.has("image 3x2 rgb [7.09 0 0 7.09 0 0]")) << r.calls;
    EXPECT_FALSE(r.diag.hasWarnings()) << r.calls;
}

TEST(EmfPlus, StringsWithTheStandInFonts) {
    static FontLibrary fonts({std::string(QX_STAGE_DIR) + "/fonts"}, false);
    PlusWriter w;
    w.font(1, 12, 3, u"Arial").drawString(1, 0xff000000, 10, 10, u"Hi\nyo");
    w.font(2, 12, 3, u"Times New Roman", 1).drawString(2, 0xffff0000, 10, 100, u"Bold");
    Played r(page(w), &fonts);
    EXPECT_EQ(r.count("mask"), 8u) << r.calls;
    EXPECT_TRUE(r.has("#ff0000")) << r.calls;
    EXPECT_FALSE(r.diag.hasWarnings()) << r.calls;
}

TEST(EmfPlus, HostileRecordsWarnAndNeverCrash) {
    {
        PlusWriter w;
        // Objects out of range and never made, a record size past its comment.
        w.rec(test::EmfPlusObject, uint16_t(1 << 8 | 200), {})
            .fillRects(9, false, {{0, 0, 1, 1}})
            .rec(test::EmfPlusDrawPath, 63, {0, 0, 0, 0})
            .rec(0x40ff, 0, {});
        Buffer emf = page(w);
        Played r(emf);
        EXPECT_TRUE(r.warned("never made")) << r.calls;
        EXPECT_TRUE(r.warned("records of type 16639")) << r.calls;
    }
    {
        // Huge counts: rectangles, points and string lengths that their records do not hold.
        PlusWriter w;
        w.fields(test::EmfPlusFillRects, 0x8000, {0, 0x7fffffff}, false)
            .fields(test::EmfPlusFillPolygon, 0x8000, {0, 0xffffffffu}, false)
            .fields(test::EmfPlusDrawLines, 0x4800, {0x40000000}, false)
            .fields(test::EmfPlusDrawString, 0x8000, {0, 0, 0x7fffffff, 0, 0, 0, 0}, false);
        Played r(page(w));
        EXPECT_EQ(r.count("fill"), 0u) << r.calls;
        EXPECT_TRUE(r.warned("run past")) << r.calls;
    }
    {
        // Transforms that are not finite are ignored.
        PlusWriter w;
        w.fields(test::EmfPlusTranslateWorldTransform, 0, {std::nan(""), 1}, true)
            .fields(test::EmfPlusScaleWorldTransform, 0, {1e39, 1}, true)
            .fields(test::EmfPlusMultiplyWorldTransform, 0, {1, 0, 0, std::nan(""), 0, 0}, true)
            .fillRects(0xff000000, true, {{10, 20, 40, 30}});
        Played r(page(w));
        EXPECT_TRUE(r.has("M7.09,14.17 L35.43,14.17")) << r.calls;
        EXPECT_TRUE(r.warned("not finite")) << r.calls;
    }
    {
        // Gradients drawn as bands up to a page's budget, then in one colour each.
        PlusWriter w;
        w.linearBrush(1, 0, 0, 10, 10, 0xff000000, 0xffffffff);
        for (int i = 0; i < 300; ++i)
            w.fillRects(1, false, {{0, 0, 10, 10}});
        Played r(page(w));
        EXPECT_EQ(r.count("fill"), 256u * 128u + 44u);
        EXPECT_TRUE(r.warned("too many gradients"));
    }
    {
        // Saved states far deeper than kept, then restored in a loop.
        PlusWriter w;
        for (int i = 0; i < 2000; ++i)
            w.fields(test::EmfPlusSave, 0, {double(i)}, false);
        for (int i = 0; i < 2000; ++i)
            w.fields(test::EmfPlusRestore, 0, {double(i)}, false);
        Played r(page(w));
        EXPECT_TRUE(r.warned("saved more than")) << r.calls;
    }
    {
        // An object spread over records that claims 4 GB: gathered only as far as it goes.
        PlusWriter w;
        test::Buffer part;
        test::put32(part, 0xffffffff);
        test::put32(part, test::kGraphicsVersion);
        w.rec(test::EmfPlusObject, 0x8000 | 5 << 8 | 1, part);
        Played r(page(w));
        EXPECT_TRUE(r.warned("too large to gather")) << r.calls;
    }
    // Every cut and every corrupted byte of a page with objects and drawing.
    PlusWriter w;
    w.solidBrush(1, 0xff00ff00).pen(2, 3, 0xff000000)
        .path(3, {{0, 0}, {40, 0}, {40, 40}}, {0, 1, 0x81})
        .fillRects(1, false, {{0, 0, 10, 10}})
        .rec(test::EmfPlusDrawPath, 3, {2, 0, 0, 0})
        .image(4, 2, 1, {0, 0xffffff});
    const Buffer emf = page(w);
    // From the comment's data size on (a damaged EMF record size is the GDI player's matter).
    for (size_t at = 116; at < emf.size(); ++at) {
        Buffer bad = emf;
        bad[at] ^= 0xff;
        Played r(bad);
        EXPECT_EQ(r.device.pageCount(), 1) << at;
        Buffer cut(emf.begin(), emf.begin() + long(at));
        Played c(cut);
        EXPECT_LE(c.device.pageCount(), 1);
    }
}

// --- pixels against Ghostscript

qxtest::InkMask readPgmInk(const std::string& path) {
    const qxtest::GreyPage g = qxtest::readPgm(path);
    return qxtest::inkOfGrey(g.pixels.data(), g.width, g.height, size_t(g.width), 128);
}

TEST(EmfPlusPixels, ShapesMatchGhostscriptDrawingTheSamePostScript) {
    // A 100 x 80 mm page at 254 dpi: 1000 x 800 pixels, one EMF+ unit 2.5 of them.
    PlusWriter w;
    w.pen(1, 3, 0xff000000)
        .fillRects(0xff000000, true, {{10, 10, 60, 30}})
        .rec(test::EmfPlusDrawEllipse, 1, [] {
            test::Buffer b;
            for (float v : {100.f, 10.f, 80.f, 80.f})
                test::putF(b, v);
            return b;
        }())
        .rec(test::EmfPlusFillPie, 0x8000, [] {
            test::Buffer b;
            test::put32(b, 0xff000000);
            for (float v : {30.f, 120.f, 220.f, 10.f, 80.f, 80.f})
                test::putF(b, v);
            return b;
        }())
        .points(test::EmfPlusFillPolygon, 0x8000, {0xff000000}, {{20, 180}, {120, 200}, {40, 300}})
        .points(test::EmfPlusDrawBeziers, 1, {}, {{150, 150}, {200, 100}, {250, 300}, {350, 200}})
        .image(5, 4, 4, {0, 0xffffff, 0, 0xffffff, 0xffffff, 0, 0xffffff, 0, 0, 0, 0xffffff, 0xffffff, 0, 0xffffff, 0xffffff, 0})
        .rec(test::EmfPlusDrawImage, 5, [] {
            test::Buffer b;
            test::put32(b, 0xffffffff);
            test::put32(b, 2);
            for (float v : {0.f, 0.f, 4.f, 4.f, 300.f, 150.f, 40.f, 40.f})
                test::putF(b, v);
            return b;
        }())
        .fields(test::EmfPlusSave, 0, {1}, false)
        .fields(test::EmfPlusSetClipRect, 0, {360, 150, 20, 100}, true)
        .fillRects(0xff000000, true, {{340, 180, 60, 20}})
        .fields(test::EmfPlusRestore, 0, {1}, false)
        .linearBrush(7, 240, 270, 150, 45, 0xff000000, 0xffffffff)
        .fillRects(7, false, {{240, 270, 150, 45}})
        .fields(test::EmfPlusTranslateWorldTransform, 0, {300, 40}, true)
        .fields(test::EmfPlusRotateWorldTransform, 0, {30}, true)
        .fillRects(0xff000000, true, {{0, 0, 50, 20}});
    const Buffer emf = page(w, 100, 80);

    const std::string ps = R"(%!PS
0 226.7717 translate 0.708661 -0.708661 scale
newpath 10 10 moveto 70 10 lineto 70 40 lineto 10 40 lineto closepath fill
3 setlinewidth newpath 140 50 40 0 360 arc closepath stroke
newpath 260 50 moveto 260 50 40 30 150 arc closepath fill
newpath 20 180 moveto 120 200 lineto 40 300 lineto closepath fill
newpath 150 150 moveto 200 100 250 300 350 200 curveto stroke
gsave 300 150 translate 40 40 scale 4 4 8 [4 0 0 4 0 0] {<00ff00ffff00ff000000ffff00ffff00>} image grestore
newpath 360 180 moveto 380 180 lineto 380 200 lineto 360 200 lineto closepath fill
gsave newpath 240 270 moveto 390 270 lineto 390 315 lineto 240 315 lineto closepath clip
<< /ShadingType 2 /ColorSpace /DeviceGray /Coords [240 0 390 0] /Extend [true true]
   /Function << /FunctionType 2 /Domain [0 1] /C0 [0] /C1 [1] /N 1 >> >> shfill grestore
gsave 300 40 translate 30 rotate newpath 0 0 moveto 50 0 lineto 50 20 lineto 0 20 lineto closepath fill grestore
showpage
)";
    const auto dir = std::filesystem::temp_directory_path() / ("qx_emfplus_" + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    std::ofstream(dir / "shapes.ps") << ps;
    const std::string command = "gs -q -dSAFER -dBATCH -dNOPAUSE -sDEVICE=pgmraw -r254 -g1000x800 "
                                "-dGraphicsAlphaBits=1 -dTextAlphaBits=1 -sOutputFile='" +
                                (dir / "ref.pgm").string() + "' '" + (dir / "shapes.ps").string() + "'";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
    const qxtest::InkMask ref = readPgmInk((dir / "ref.pgm").string());
    if (!std::getenv("QX_KEEP_PICTURES"))
        std::filesystem::remove_all(dir);

    qxtest::PageCollector sink;
    Diagnostics diag("emfplus", false);
    qxtest::renderJob(run, emf.data(), emf.size(), 8, 254, nullptr, sink, diag);
    ASSERT_EQ(sink.pages.size(), 1u);
    if (const char* keep = std::getenv("QX_KEEP_PICTURES"))
        qxtest::writePgm(sink.pages[0], std::string(keep) + "/emfplus_ours.pgm");
    const qxtest::InkMask ours = qxtest::inkOfGreyPage(sink.pages[0], 128);
    ASSERT_EQ(ours.width, ref.width);
    ASSERT_EQ(ours.height, ref.height);
    const double f = qxtest::inkFScore(ours, ref);
    std::printf("EMF+ shapes: ink F-score %.4f\n", f);
    EXPECT_GE(f, 0.9);
    EXPECT_FALSE(diag.hasWarnings());
}

} // namespace
} // namespace qx::emf
