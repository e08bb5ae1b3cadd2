// Each family of instructions through the recording device, in page space.
//
// The picture frame of these tests is 10 by 5 inches with its top-left corner at (36, 72) on the
// page, so plotter unit (x, y) lands on page point (36 + x * 72 / 1016, 432 - y * 72 / 1016):
// (0, 0) is (36, 432) and (1016, 1016) is (108, 360).

#include "test_support.h"

#include "fonts/font_library.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

using namespace qx;
using namespace qx::hpgl2;
using namespace qx::hpgl2::test;

namespace {

struct Gl {
    CaptureDevice dev;
    Diagnostics diag{"test", false};
    PageHost host{dev};
    Interpreter gl;

    explicit Gl(const FontLibrary* fonts = nullptr) : gl(dev, diag, fonts, &host) {
        PictureFrame f;
        f.frameToPage = Matrix::translate(36, 72);
        f.width = 720;
        f.height = 360;
        gl.setPictureFrame(f);
    }
    size_t run(const std::string& s) { return runText(gl, s); }
    std::string stroke(size_t i) const { return RecordingDevice::describe(dev.strokes.at(i).path); }
    std::string fill(size_t i) const { return RecordingDevice::describe(dev.fills.at(i).path); }
};

const FontLibrary& fonts() {
    static FontLibrary lib({std::string(QX_STAGE_DIR) + "/fonts"}, false);
    return lib;
}

Point lastPoint(const Path& p) { return p.points().back(); }

} // namespace

TEST(Hpgl2Interpreter, PenDownAbsoluteLine) {
    Gl t;
    t.run("IN;SP1;PD;PA1016,1016;PU;");
    ASSERT_EQ(t.dev.strokes.size(), 1u);
    EXPECT_EQ(t.stroke(0), "M36,432 L108,360");
    EXPECT_NEAR(t.dev.strokes[0].style.width, printedWidth(0.35 * 72 / 25.4), 1e-9);
    EXPECT_EQ(RecordingDevice::describe(t.dev.strokes[0].paint), "#000000");
    EXPECT_TRUE(t.host.open);
    EXPECT_TRUE(t.diag.lines().empty());
}

TEST(Hpgl2Interpreter, RelativeMovesGatherOnePolyline) {
    Gl t;
    t.run("IN;PA1016,0;PD;PR1016,0,0,1016;PR-1016,0;PU;PR0,-1016;PD;PR1016,0;PU;");
    ASSERT_EQ(t.dev.strokes.size(), 2u);
    EXPECT_EQ(t.stroke(0), "M108,432 L180,432 L180,360 L108,360");
    EXPECT_EQ(t.stroke(1), "M108,432 L180,432");
}

TEST(Hpgl2Interpreter, PenMovesWithThePenUpDrawNothing) {
    Gl t;
    t.run("IN;PU1016,1016,2032,0;PA0,0;");
    EXPECT_TRUE(t.dev.strokes.empty());
    EXPECT_FALSE(t.host.open);
    const Point p = t.gl.penPosition();
    EXPECT_DOUBLE_EQ(p.x, 36);
    EXPECT_DOUBLE_EQ(p.y, 432);
}

TEST(Hpgl2Interpreter, StopsAtEscapeAndFlushes) {
    Gl t;
    const std::string s = "IN;PD;PA1016,0\x1b%0A";
    EXPECT_EQ(t.run(s), s.find('\x1b'));
    ASSERT_EQ(t.dev.strokes.size(), 1u);
    EXPECT_EQ(t.stroke(0), "M36,432 L108,432");
}

TEST(Hpgl2Interpreter, AnisotropicScaling) {
    Gl t;
    t.run("IN;IP0,0,1016,1016;SC0,10,0,10;PA5,5;PD;PA10,10;PU;");
    ASSERT_EQ(t.dev.strokes.size(), 1u);
    EXPECT_EQ(t.stroke(0), "M72,396 L108,360");
}

TEST(Hpgl2Interpreter, IsotropicScalingCentresTheSpareRoom) {
    Gl t;
    t.run("IN;IP0,0,2032,1016;SC0,10,0,10,1;PA0,0;PD;PA10,10;PU;");
    ASSERT_EQ(t.dev.strokes.size(), 1u);
    EXPECT_EQ(t.stroke(0), "M72,432 L144,360");
    // Left-aligned spare room.
    t.run("SC0,10,0,10,1,0,0;PA0,0;PD;PA10,10;PU;");
    ASSERT_EQ(t.dev.strokes.size(), 2u);
    EXPECT_EQ(t.stroke(1), "M36,432 L108,360");
}

TEST(Hpgl2Interpreter, PointFactorScalingAndScalingOff) {
    Gl t;
    t.run("IN;IP1016,0,2032,1016;SC-10,101.6,0,101.6,2;PA-10,0;PD;PA0,10;PU;SC;PA0,0;PD;PA1016,0;PU;");
    ASSERT_EQ(t.dev.strokes.size(), 2u);
    EXPECT_EQ(t.stroke(0), "M108,432 L180,360");
    EXPECT_EQ(t.stroke(1), "M36,432 L108,432");
}

TEST(Hpgl2Interpreter, InputRelativeP1P2) {
    Gl t;
    // P1/P2 at 10% and 20% of the frame: (1016, 508) and (2032, 1016).
    t.run("IN;IR10,10,20,20;SC0,1,0,1;PA0,0;PD;PA1,1;PU;");
    ASSERT_EQ(t.dev.strokes.size(), 1u);
    EXPECT_EQ(t.stroke(0), "M108,396 L180,360");
}

TEST(Hpgl2Interpreter, RotationTurnsTheCoordinateSystem) {
    Gl t;
    t.run("IN;RO90;PA0,0;PD;PA1016,0;PU;");
    ASSERT_EQ(t.dev.strokes.size(), 1u);
    // The origin is now at the frame's lower-right corner and x runs up.
    EXPECT_EQ(t.stroke(0), "M756,432 L756,360");
    t.run("RO180;PA0,0;PD;PA1016,0;PU;");
    EXPECT_EQ(t.stroke(1), "M756,72 L684,72");
    t.run("RO270;PA0,0;PD;PA1016,0;PU;");
    EXPECT_EQ(t.stroke(2), "M36,72 L36,144");
}

TEST(Hpgl2Interpreter, PlotSizeScalesOntoTheFrame) {
    Gl t;
    PictureFrame f;
    f.frameToPage = Matrix::translate(36, 72);
    f.width = 720;
    f.height = 360;
    f.plotWidth = 1440;
    f.plotHeight = 720;
    t.gl.setPictureFrame(f);
    t.run("IN;PD;PA1016,1016;PU;");
    ASSERT_EQ(t.dev.strokes.size(), 1u);
    EXPECT_EQ(t.stroke(0), "M36,432 L72,396");
}

TEST(Hpgl2Interpreter, EnterModeAtThePclCursorAndPenPosition) {
    Gl t;
    t.gl.enterMode(Point{180, 432});
    t.run("PD;PR1016,0;PU;");
    ASSERT_EQ(t.dev.strokes.size(), 1u);
    EXPECT_EQ(t.stroke(0), "M180,432 L252,432");
    const Point p = t.gl.penPosition();
    EXPECT_NEAR(p.x, 252, 1e-9);
    EXPECT_NEAR(p.y, 432, 1e-9);
    // ESC%0B keeps the pen where it was.
    t.gl.enterMode();
    EXPECT_NEAR(t.gl.penPosition().x, 252, 1e-9);
}

TEST(Hpgl2Interpreter, PolygonModeFillAndEdge) {
    Gl t;
    t.run("IN;PA0,0;PM0;PD1016,0,1016,1016;PM1;PU2032,0;PD3048,0,3048,1016;PM2;PU;FP;FP1;EP;");
    ASSERT_EQ(t.dev.fills.size(), 2u);
    EXPECT_EQ(t.fill(0), "M36,432 L108,432 L108,360 Z M180,432 L252,432 L252,360 Z");
    EXPECT_EQ(t.dev.fills[0].rule, FillRule::EvenOdd);
    EXPECT_EQ(t.dev.fills[1].rule, FillRule::NonZero);
    ASSERT_EQ(t.dev.strokes.size(), 1u);
    EXPECT_EQ(t.stroke(0), "M36,432 L108,432 L108,360 Z M180,432 L252,432 L252,360 Z");
}

TEST(Hpgl2Interpreter, PolygonEdgesLeavePenUpSidesOut) {
    Gl t;
    // Only the pen-down side is edged; the polygon mode draws nothing by itself.
    t.run("IN;PA0,0;PM0;PD;PA0,1016;PU;PM2;");
    EXPECT_TRUE(t.dev.strokes.empty());
    t.run("EP;");
    ASSERT_EQ(t.dev.strokes.size(), 1u);
    EXPECT_EQ(t.stroke(0), "M36,432 L36,360");
    // Closed with the pen down, the closing side is edged too.
    t.run("PA0,0;PM0;PD;PA0,1016,1016,1016;PM2;PU;EP;");
    ASSERT_EQ(t.dev.strokes.size(), 2u);
    EXPECT_EQ(t.stroke(1), "M36,432 L36,360 L108,360 Z");
}

TEST(Hpgl2Interpreter, Rectangles) {
    Gl t;
    t.run("IN;PA0,0;RA1016,1016;ER1016,1016;PA1016,0;EA0,1016;RR-1016,1016;");
    ASSERT_EQ(t.dev.fills.size(), 2u);
    ASSERT_EQ(t.dev.strokes.size(), 2u);
    EXPECT_EQ(t.fill(0), "M36,432 L108,432 L108,360 L36,360 Z");
    EXPECT_EQ(t.stroke(0), "M36,432 L108,432 L108,360 L36,360 Z");
    EXPECT_EQ(t.stroke(1), "M108,432 L36,432 L36,360 L108,360 Z");
    EXPECT_EQ(t.fill(1), "M108,432 L36,432 L36,360 L108,360 Z");
    // The pen stays where the rectangles started.
    EXPECT_NEAR(t.gl.penPosition().x, 108, 1e-9);
}

TEST(Hpgl2Interpreter, CircleAroundThePen) {
    Gl t;
    t.run("IN;PA1016,1016;CI508;");
    ASSERT_EQ(t.dev.strokes.size(), 1u);
    const Path& p = t.dev.strokes[0].path;
    EXPECT_EQ(p.points().size(), 73u); // start + 72 chords of 5 degrees
    EXPECT_EQ(p.ops().back(), Path::Op::Close);
    Box b;
    b.add(p);
    EXPECT_NEAR(b.x0, 72, 1e-6);
    EXPECT_NEAR(b.x1, 144, 1e-6);
    EXPECT_NEAR(b.y0, 324, 1e-6);
    EXPECT_NEAR(b.y1, 396, 1e-6);
    // The pen is back at the centre; a coarser chord gives fewer sides.
    EXPECT_NEAR(t.gl.penPosition().x, 108, 1e-9);
    t.run("CI508,45;");
    EXPECT_EQ(t.dev.strokes[1].path.points().size(), 9u);
}

TEST(Hpgl2Interpreter, ArcsAbsoluteRelativeAndThreePoint) {
    Gl t;
    t.run("IN;PA1016,0;PD;AA0,0,90;PU;");
    ASSERT_EQ(t.dev.strokes.size(), 1u);
    EXPECT_EQ(t.dev.strokes[0].path.points().size(), 19u);
    Point e = lastPoint(t.dev.strokes[0].path);
    EXPECT_NEAR(e.x, 36, 1e-9);
    EXPECT_NEAR(e.y, 360, 1e-9);

    t.run("PA1016,0;PD;AR-1016,0,-90,10;PU;");
    ASSERT_EQ(t.dev.strokes.size(), 2u);
    EXPECT_EQ(t.dev.strokes[1].path.points().size(), 10u);
    e = lastPoint(t.dev.strokes[1].path);
    EXPECT_NEAR(e.x, 36, 1e-9);
    EXPECT_NEAR(e.y, 504, 1e-9);

    t.run("PA0,0;PD;AT1016,1016,2032,0;PU;");
    ASSERT_EQ(t.dev.strokes.size(), 3u);
    Box b;
    b.add(t.dev.strokes[2].path);
    EXPECT_NEAR(b.y0, 360, 1e-6); // over the top of the half circle
    e = lastPoint(t.dev.strokes[2].path);
    EXPECT_NEAR(e.x, 180, 1e-9);
    EXPECT_NEAR(e.y, 432, 1e-9);

    // RT: the same arc given relative to the pen, the other way round (below).
    t.run("PA0,0;PD;RT1016,-1016,2032,0;PU;");
    Box c;
    c.add(t.dev.strokes[3].path);
    EXPECT_NEAR(c.y1, 504, 1e-6);
}

TEST(Hpgl2Interpreter, ArcWithThePenUpOnlyMoves) {
    Gl t;
    t.run("IN;PA1016,0;AA0,0,90;");
    EXPECT_TRUE(t.dev.strokes.empty());
    EXPECT_NEAR(t.gl.penPosition().x, 36, 1e-9);
    EXPECT_NEAR(t.gl.penPosition().y, 360, 1e-9);
}

TEST(Hpgl2Interpreter, Wedges) {
    Gl t;
    t.run("IN;PA1016,1016;WG508,0,90;EW508,90,90,45;");
    ASSERT_EQ(t.dev.fills.size(), 1u);
    const Path& w = t.dev.fills[0].path;
    EXPECT_EQ(w.points().size(), 20u); // centre, start, 18 chords of 5 degrees
    EXPECT_EQ(w.ops().back(), Path::Op::Close);
    EXPECT_EQ(t.fill(0).substr(0, 17), "M108,360 L144,360");
    EXPECT_NEAR(lastPoint(w).x, 108, 1e-9);
    EXPECT_NEAR(lastPoint(w).y, 324, 1e-9);
    ASSERT_EQ(t.dev.strokes.size(), 1u);
    EXPECT_EQ(t.stroke(0), "M108,360 L108,324 L82.54,334.54 L72,360 Z");
}

TEST(Hpgl2Interpreter, BezierCurves) {
    Gl t;
    t.run("IN;PA0,0;PD;BZ0,1016,2032,1016,2032,0;PU;");
    ASSERT_EQ(t.dev.strokes.size(), 1u);
    const Path& p = t.dev.strokes[0].path;
    EXPECT_GE(p.points().size(), 5u);
    const Point e = lastPoint(p);
    EXPECT_NEAR(e.x, 180, 1e-9);
    EXPECT_NEAR(e.y, 432, 1e-9);
    Box b;
    b.add(p);
    EXPECT_NEAR(b.y0, 432 - 0.75 * 72, 0.5); // the curve peaks at three quarters of its controls
}

TEST(Hpgl2Interpreter, PolylineEncodedDrawing) {
    Gl t;
    // "<=" pen-up absolute to (1016, 0), then relative pen-down moves (1016, 0) and (0, 1016);
    // base 64 with the sign in the lowest bit: 1016 -> 2032 = 47 + 31 * 64.
    const std::string n1016 = std::string(1, char(63 + 2032 % 64)) + char(191 + 2032 / 64);
    const std::string zero = std::string(1, char(191));
    t.run("IN;SP1;PE<=" + n1016 + zero + n1016 + zero + zero + n1016 + ";PU;");
    ASSERT_EQ(t.dev.strokes.size(), 1u);
    EXPECT_EQ(t.stroke(0), "M108,432 L180,432 L180,360");
}

TEST(Hpgl2Interpreter, PenWidthsMetricAndRelative) {
    Gl t;
    t.run("IN;PW1;PD;PA1016,0;PU;WU1;PW1;PD;PA0,0;PU;WU0;NP4;PW0.5,2;SP2;PD;PA1016,0;PU;");
    ASSERT_EQ(t.dev.strokes.size(), 3u);
    EXPECT_NEAR(t.dev.strokes[0].style.width, printedWidth(72 / 25.4), 1e-9);
    // 1% of the P1-P2 diagonal (the frame's, 10 by 5 inches).
    EXPECT_NEAR(t.dev.strokes[1].style.width, printedWidth(0.01 * std::hypot(720.0, 360.0)), 1e-9);
    EXPECT_NEAR(t.dev.strokes[2].style.width, printedWidth(0.5 * 72 / 25.4), 1e-9);
}

TEST(Hpgl2Interpreter, LineAttributes) {
    Gl t;
    t.run("IN;LA1,4,2,4;PD;PA1016,0;PU;LA1,2,2,5,3,8;PD;PA0,0;PU;LA;PD;PA1016,0;PU;");
    ASSERT_EQ(t.dev.strokes.size(), 3u);
    EXPECT_EQ(t.dev.strokes[0].style.cap, StrokeStyle::Cap::Round);
    EXPECT_EQ(t.dev.strokes[0].style.join, StrokeStyle::Join::Round);
    EXPECT_EQ(t.dev.strokes[1].style.cap, StrokeStyle::Cap::Square);
    EXPECT_EQ(t.dev.strokes[1].style.join, StrokeStyle::Join::Bevel);
    EXPECT_EQ(t.dev.strokes[1].style.miterLimit, 8);
    EXPECT_EQ(t.dev.strokes[2].style.cap, StrokeStyle::Cap::Butt);
    EXPECT_EQ(t.dev.strokes[2].style.join, StrokeStyle::Join::Miter);
}

TEST(Hpgl2Interpreter, LineTypes) {
    Gl t;
    t.run("IN;LT2,10,1;PD;PA2032,0;PU;LT3;PD;PA0,0;PU;UL3,1,1;PD;PA2032,0;PU;LT;PD;PA0,0;PU;");
    ASSERT_EQ(t.dev.strokes.size(), 4u);
    const double mm10 = 10 * 72 / 25.4;
    ASSERT_EQ(t.dev.strokes[0].style.dashes.size(), 2u);
    EXPECT_NEAR(t.dev.strokes[0].style.dashes[0], mm10 / 2, 1e-9);
    EXPECT_NEAR(t.dev.strokes[0].style.dashes[1], mm10 / 2, 1e-9);
    // LT3 keeps the pattern length: 70% dash, 30% gap.
    ASSERT_EQ(t.dev.strokes[1].style.dashes.size(), 2u);
    EXPECT_NEAR(t.dev.strokes[1].style.dashes[0], 0.7 * mm10, 1e-9);
    // A user line type replaces the fixed one.
    ASSERT_EQ(t.dev.strokes[2].style.dashes.size(), 2u);
    EXPECT_NEAR(t.dev.strokes[2].style.dashes[0], 0.5 * mm10, 1e-9);
    EXPECT_TRUE(t.dev.strokes[3].style.dashes.empty());
}

TEST(Hpgl2Interpreter, RelativePatternLengthIsAShareOfTheDiagonal) {
    Gl t;
    t.run("IN;LT2;PD;PA2032,0;PU;");
    ASSERT_EQ(t.dev.strokes.size(), 1u);
    ASSERT_EQ(t.dev.strokes[0].style.dashes.size(), 2u);
    EXPECT_NEAR(t.dev.strokes[0].style.dashes[0], 0.02 * std::hypot(720.0, 360.0), 1e-9);
}

TEST(Hpgl2Interpreter, PenColours) {
    Gl t;
    t.run("IN;SP0;PD;PA1016,0;PU;SP2;PD;PA0,0;PU;NP8;SP2;PD;PA1016,0;PU;PC2,148,0,211;PD;PA0,0;PU;");
    ASSERT_EQ(t.dev.strokes.size(), 4u);
    EXPECT_EQ(RecordingDevice::describe(t.dev.strokes[0].paint), "#ffffff");
    EXPECT_EQ(RecordingDevice::describe(t.dev.strokes[1].paint), "#ff0000"); // IN's eight pens: 2 is red
    EXPECT_EQ(RecordingDevice::describe(t.dev.strokes[2].paint), "#ff0000");
    EXPECT_EQ(RecordingDevice::describe(t.dev.strokes[3].paint), "#9400d3");
}

TEST(Hpgl2Interpreter, FillTypes) {
    Gl t;
    t.run("IN;PA0,0;FT10,50;RA1016,1016;FT3,100,45;RA1016,1016;FT;TR0;RA1016,1016;");
    ASSERT_EQ(t.dev.fills.size(), 2u);
    EXPECT_EQ(RecordingDevice::describe(t.dev.fills[0].paint), "#808080");
    EXPECT_TRUE(t.dev.fills[0].rs.patternTransparent);
    EXPECT_EQ(RecordingDevice::describe(t.dev.fills[1].paint), "#000000");
    EXPECT_FALSE(t.dev.fills[1].rs.patternTransparent);
    // Hatching: lines 100 plotter units apart, clipped to the rectangle.
    ASSERT_EQ(t.dev.strokes.size(), 1u);
    const size_t lines = t.dev.strokes[0].path.points().size() / 2;
    EXPECT_GE(lines, 14u);
    EXPECT_LE(lines, 24u);
    const std::string call = t.dev.calls()[2];
    EXPECT_NE(call.find("clip=2"), std::string::npos) << call;
}

TEST(Hpgl2Interpreter, EverythingIsClippedToTheFrameAndTheWindow) {
    Gl t;
    t.host.state.rop3 = 136;
    t.run("IN;PD;PA1016,0;PU;IW0,0,1016,1016;PD;PA0,0;PU;IW;PD;PA1016,0;PU;");
    ASSERT_EQ(t.dev.calls().size(), 4u);
    EXPECT_NE(t.dev.calls()[1].find("rop=136 srcT patT clip=1 "), std::string::npos) << t.dev.calls()[1];
    EXPECT_NE(t.dev.calls()[2].find("clip=2 "), std::string::npos) << t.dev.calls()[2];
    EXPECT_NE(t.dev.calls()[3].find("clip=1 "), std::string::npos) << t.dev.calls()[3];
}

TEST(Hpgl2Interpreter, DefaultsKeepTheCoordinateSystem) {
    Gl t;
    t.run("IN;IP0,0,1016,1016;SC0,10,0,10;PW2;DF;PA1016,0;PD;PA0,0;PU;");
    ASSERT_EQ(t.dev.strokes.size(), 1u);
    // DF ends the scaling but keeps P1/P2 and the pen widths.
    EXPECT_EQ(t.stroke(0), "M108,432 L36,432");
    EXPECT_NEAR(t.dev.strokes[0].style.width, printedWidth(2 * 72 / 25.4), 1e-9);
}

TEST(Hpgl2Interpreter, UnknownInstructionsWarnOnceEach) {
    Gl t;
    t.run("IN;ZZ1,2;QX;ZZ;PD;PA1016,0;ZZ;PU;");
    ASSERT_EQ(t.diag.lines().size(), 2u);
    EXPECT_NE(t.diag.lines()[0].find("ZZ"), std::string::npos);
    EXPECT_NE(t.diag.lines()[1].find("QX"), std::string::npos);
    EXPECT_EQ(t.dev.strokes.size(), 1u);
}

TEST(Hpgl2Interpreter, GarbageNeverHangs) {
    std::mt19937 rng(12345);
    for (int round = 0; round < 20; ++round) {
        Gl t;
        std::string data(20000, '\0');
        for (char& c : data) {
            const unsigned r = rng() % 100;
            // Mostly instruction letters, digits and separators, so that instructions happen.
            c = r < 40 ? char("PAPDPUPRCIAAATRAEAWGPMFPEPLTPWSCIPROIWLB"[rng() % 40])
                : r < 75 ? char('0' + rng() % 10)
                : r < 90 ? char(",;-. "[rng() % 5])
                          : char(rng() % 256);
        }
        size_t pos = 0;
        int calls = 0;
        while (pos < data.size()) {
            const size_t used = t.gl.run(reinterpret_cast<const uint8_t*>(data.data()) + pos, data.size() - pos);
            ASSERT_LE(used, data.size() - pos);
            pos += used + 1; // skip the ESC, as PCL would skip its escape sequence
            ++calls;
        }
        EXPECT_GT(calls, 0);
    }
}

TEST(Hpgl2Interpreter, LabelsDrawGlyphsAndMoveThePen) {
    Gl t(&fonts());
    t.run("IN;SP1;PA1016,1016;LBAB\x03");
    EXPECT_EQ(t.dev.masks, 2);
    EXPECT_GT(t.gl.penPosition().x, 108);
    EXPECT_NEAR(t.gl.penPosition().y, 360, 1e-6);
    // A terminator of the job's own choosing; centred labels start left of the pen.
    t.run("DT#;PA1016,1016;LO5;LBHI#");
    EXPECT_EQ(t.dev.masks, 4);
    EXPECT_TRUE(t.diag.lines().empty()) << t.diag.lines().front();
}

TEST(Hpgl2Interpreter, LabelDirectionAndSize) {
    Gl t(&fonts());
    t.run("IN;SI0.5,1;DI0,1;PA1016,1016;LBABC\x03");
    EXPECT_EQ(t.dev.masks, 3);
    // Three cells of 1.5 * 0.5 cm up the page.
    const Point p = t.gl.penPosition();
    EXPECT_NEAR(p.x, 108, 1e-6);
    EXPECT_NEAR(p.y, 360 - 3 * 0.75 / 2.54 * 72, 1e-6);
}

TEST(Hpgl2Interpreter, LabelsWithoutFontsWarnOnce) {
    Gl t;
    t.run("IN;LBAB\x03LBCD\x03");
    EXPECT_EQ(t.diag.lines().size(), 1u);
    EXPECT_EQ(t.dev.masks, 0);
}

TEST(Hpgl2Interpreter, ColourRangeAndMergeControl) {
    Gl t;
    t.run("IN;NP4;CR0,100,0,100,0,100;PC2,100,50,0;SP2;MC1,90;PD;PA1016,0;PU;MC0;PD;PA0,0;PU;");
    ASSERT_EQ(t.dev.strokes.size(), 2u);
    EXPECT_EQ(RecordingDevice::describe(t.dev.strokes[0].paint), "#ff8000");
    EXPECT_NE(t.dev.calls()[1].find("rop=90 "), std::string::npos) << t.dev.calls()[1];
    EXPECT_NE(t.dev.calls()[2].find("rop=252 "), std::string::npos) << t.dev.calls()[2];
}

TEST(Hpgl2Interpreter, CharacterPlotMovesByCells) {
    Gl t;
    // Cells of 1.5 * 1 cm across and lines of 2 * 1 cm.
    t.run("IN;SI1,1;PA1016,1016;CP2,0;");
    const double cm = 72 / 2.54;
    EXPECT_NEAR(t.gl.penPosition().x, 108 + 3 * cm, 1e-6);
    t.run("CP0,-1;");
    EXPECT_NEAR(t.gl.penPosition().y, 360 + 2 * cm, 1e-6);
    // CP without parameters: back to the label start, one line down.
    t.run("PA1016,1016;CP;");
    EXPECT_NEAR(t.gl.penPosition().x, 108, 1e-6);
    EXPECT_NEAR(t.gl.penPosition().y, 360 + 2 * cm, 1e-6);
    EXPECT_TRUE(t.dev.strokes.empty());
}

TEST(Hpgl2Interpreter, RelativeDirectionFollowsP1P2) {
    Gl t(&fonts());
    // DR takes run and rise as shares of P1-P2: with a square P1-P2, DR1,1 runs at 45 degrees.
    t.run("IN;IP0,0,2032,2032;SI1,1;DR1,1;PA0,0;LBA\x03");
    const double cell = 1.5 * 72 / 2.54;
    EXPECT_NEAR(t.gl.penPosition().x, 36 + cell / std::sqrt(2.0), 1e-6);
    EXPECT_NEAR(t.gl.penPosition().y, 432 - cell / std::sqrt(2.0), 1e-6);
    EXPECT_EQ(t.dev.masks, 1);
}

TEST(Hpgl2Interpreter, RasterFillPatterns) {
    Gl t;
    // A 2x2 checker of pens 1 and 0, used with the current pen (2: red) and with its own pens.
    t.run("IN;NP4;SP2;RF1,2,2,1,0,0,1;FT11,1;PA0,0;RA1016,1016;FT11,1,1;RA1016,1016;");
    ASSERT_EQ(t.dev.fills.size(), 2u);
    for (const auto& f : t.dev.fills) {
        ASSERT_EQ(f.paint.kind, Paint::Kind::Pattern);
        ASSERT_EQ(f.paint.pattern->width, 2);
        ASSERT_EQ(f.paint.pattern->height, 2);
        EXPECT_EQ(f.paint.pattern->pixels[1], Rgb::white());
        EXPECT_NEAR(f.paint.pattern->tileToPage.a, 0.24, 1e-12);
        EXPECT_NEAR(f.paint.pattern->tileToPage.e, 36, 1e-12);
    }
    EXPECT_EQ(t.dev.fills[0].paint.pattern->pixels[0], (Rgb{255, 0, 0}));
    EXPECT_EQ(t.dev.fills[1].paint.pattern->pixels[0], Rgb::black());
    EXPECT_TRUE(t.diag.lines().empty());
}

TEST(Hpgl2Interpreter, PclPatternsComeFromTheHost) {
    struct PatternHost : PageHost {
        using PageHost::PageHost;
        std::optional<Paint> pclPattern(int type, int id) const override {
            if (type == 21 && id == 3)
                return Paint::solid({1, 2, 3});
            return std::nullopt;
        }
    };
    CaptureDevice dev;
    Diagnostics diag("test", false);
    PatternHost host(dev);
    Interpreter gl(dev, diag, nullptr, &host);
    runText(gl, "IN;FT21,3;PA0,0;RA1016,1016;FT22,7;RA1016,1016;");
    ASSERT_EQ(dev.fills.size(), 2u);
    EXPECT_EQ(RecordingDevice::describe(dev.fills[0].paint), "#010203");
    // The host has no such pattern: solid, with one warning.
    EXPECT_EQ(RecordingDevice::describe(dev.fills[1].paint), "#000000");
    EXPECT_EQ(diag.lines().size(), 1u);
}

TEST(Hpgl2Interpreter, MessagesAndCommentsWithQuotedText) {
    Gl t;
    t.run("IN;MG\"PD;PA9999,9999\";CO\"LB oops\";WDPD PA\x03" "BLPD RA\x03" "PD;PA1016,0;PU;");
    ASSERT_EQ(t.dev.strokes.size(), 1u);
    EXPECT_EQ(t.stroke(0), "M36,432 L108,432");
    EXPECT_TRUE(t.diag.lines().empty());
}

TEST(Hpgl2Interpreter, SymbolModeMarksEveryPoint) {
    Gl t(&fonts());
    t.run("IN;SM*;PA1016,1016;PD2032,1016,2032,0;PU;SM;PA0,0;");
    EXPECT_EQ(t.dev.masks, 3);
    ASSERT_EQ(t.dev.strokes.size(), 1u);
    EXPECT_EQ(t.stroke(0), "M108,360 L180,360 L180,432");
    EXPECT_NEAR(t.gl.penPosition().x, 36, 1e-9);
    EXPECT_TRUE(t.diag.lines().empty());
}

TEST(Hpgl2Interpreter, AnchorCornerShiftsHatching) {
    Gl t;
    // Horizontal hatching 100 plotter units apart, through y = 50 after AC.
    t.run("IN;AC0,50;FT3,100,0;PA0,0;RA1016,1016;");
    ASSERT_EQ(t.dev.strokes.size(), 1u);
    bool through50 = false, through0 = false;
    for (Point q : t.dev.strokes[0].path.points()) {
        through50 = through50 || std::fabs(q.y - (432 - 50 * 72.0 / 1016)) < 1e-6;
        through0 = through0 || std::fabs(q.y - 432) < 1e-6;
    }
    EXPECT_TRUE(through50);
    EXPECT_FALSE(through0);
}

TEST(Hpgl2Interpreter, LineTypeZeroDotsThePoints) {
    Gl t;
    t.run("IN;LT0;PD;PA1016,0,1016,1016;PU;");
    EXPECT_TRUE(t.dev.strokes.empty());
    ASSERT_EQ(t.dev.fills.size(), 1u);
    // Three points, a square of the pen width on each.
    const Path& p = t.dev.fills[0].path;
    EXPECT_EQ(p.points().size(), 12u);
    Box b;
    b.add(p);
    const double w = printedWidth(0.35 * 72 / 25.4);
    EXPECT_NEAR(b.x0, 36 - w / 2, 1e-9);
    EXPECT_NEAR(b.y0, 360 - w / 2, 1e-9);
}

TEST(Hpgl2Interpreter, AdaptiveLineTypesFitEachSegment) {
    Gl t;
    // Pattern length 10 mm; segments of one inch (2.54 patterns -> 3) and half an inch (1.27 -> 1).
    t.run("IN;LT-2,10,1;PD;PA1016,0,1016,508;PU;");
    ASSERT_EQ(t.dev.strokes.size(), 2u);
    ASSERT_EQ(t.dev.strokes[0].style.dashes.size(), 2u);
    EXPECT_NEAR(t.dev.strokes[0].style.dashes[0] * 2 * 3, 72, 1e-9);
    EXPECT_NEAR(t.dev.strokes[1].style.dashes[0] * 2, 36, 1e-9);
    EXPECT_EQ(t.stroke(1), "M108,432 L108,396");
}

TEST(Hpgl2Interpreter, ANewFrameDefaultsP1P2AndMovesThePen) {
    Gl t;
    t.run("IN;IP0,0,1016,1016;SC0,1,0,1;IW0,0,1,1;PA1,1;PM0;PD2,2;");
    PictureFrame f;
    f.frameToPage = Matrix::translate(0, 0);
    f.width = 360;
    f.height = 360;
    t.gl.setPictureFrame(f);
    EXPECT_NEAR(t.gl.penPosition().x, 0, 1e-9);
    EXPECT_NEAR(t.gl.penPosition().y, 360, 1e-9);
    // The window is gone and the polygon buffer empty.
    t.run("PU;SC;PD;PA1016,0;PU;FP;");
    ASSERT_EQ(t.dev.strokes.size(), 1u);
    EXPECT_EQ(t.stroke(0), "M0,360 L72,360");
    EXPECT_NE(t.dev.calls()[1].find("clip=1 "), std::string::npos);
    EXPECT_TRUE(t.dev.fills.empty());
}

TEST(Hpgl2Interpreter, PlotSizeOnlyChangesTheScaling) {
    Gl t;
    t.run("IN;PA1016,1016;");
    t.gl.setPlotSize(1440, 720); // twice the frame: plotter units count half
    EXPECT_NEAR(t.gl.penPosition().x, 72, 1e-9);
    EXPECT_NEAR(t.gl.penPosition().y, 396, 1e-9);
    t.run("IN;PA0,0;PD;PA20320,10160;PU;"); // P2 of the plot, the frame's top-right corner
    ASSERT_EQ(t.dev.strokes.size(), 1u);
    EXPECT_EQ(t.stroke(0), "M36,432 L756,72");
}

TEST(Hpgl2Interpreter, TheSameFrameAgainChangesNothing) {
    Gl t;
    t.run("IN;IP0,0,1016,1016;SC0,1,0,1;PA1,1;");
    PictureFrame f = t.gl.pictureFrame();
    t.gl.setPictureFrame(f);
    EXPECT_NEAR(t.gl.penPosition().x, 108, 1e-9);
    // The same frame with a plot size twice as large: the scaling halves, P1/P2 stay.
    f.plotWidth = 1440;
    f.plotHeight = 720;
    t.gl.setPictureFrame(f);
    EXPECT_NEAR(t.gl.penPosition().x, 72, 1e-9);
    t.run("PD;PA0,0;PU;");
    ASSERT_EQ(t.dev.strokes.size(), 1u);
    EXPECT_EQ(t.stroke(0), "M72,396 L36,432");
}

TEST(Hpgl2Interpreter, ScreenedVectorsShadeLines) {
    Gl t;
    t.run("IN;SV1,25;PD;PA1016,0;PU;SV;PD;PA0,0;PU;");
    ASSERT_EQ(t.dev.strokes.size(), 2u);
    EXPECT_EQ(RecordingDevice::describe(t.dev.strokes[0].paint), "#bfbfbf");
    EXPECT_EQ(RecordingDevice::describe(t.dev.strokes[1].paint), "#000000");
}

TEST(Hpgl2Interpreter, ShiftOutAndInSwitchFontsInALabel) {
    Gl t(&fonts());
    // Standard: fixed 10 pitch; alternate: fixed 5 pitch. "A" in each then "A" again.
    t.run("IN;SD1,277,2,0,3,10,4,12,7,4099;AD1,277,2,0,3,5,4,24,7,4099;PA0,0;LBA\x0E" "A\x0F" "A\x03");
    EXPECT_EQ(t.dev.masks, 3);
    // 0.1 + 0.2 + 0.1 inch.
    EXPECT_NEAR(t.gl.penPosition().x, 36 + 0.4 * 72, 1e-6);
}

TEST(Hpgl2Interpreter, ExtraSpaceWidensLabels) {
    Gl t(&fonts());
    // Cells of 1.5 cm; half a cell more after each of two characters.
    t.run("IN;SI1,1;ES0.5;PA0,0;LBAB\x03");
    const double cm = 72 / 2.54;
    EXPECT_NEAR(t.gl.penPosition().x, 36 + 2 * 1.5 * 1.5 * cm, 1e-6);
    EXPECT_EQ(t.dev.masks, 2);
}

TEST(Hpgl2Interpreter, ThinPensAreOneDeviceDotAndDotsOneDotLong) {
    // gnuplot's dotted grid: a 0.12 mm pen (1.4 dots at 300 dpi) with line type 1 (dots).
    Gl t;
    t.run("IN;PW0.12;LT1,.25;PD;PA1016,0;PU;PW0.25;LT;PD;PA0,0;PU;");
    ASSERT_EQ(t.dev.strokes.size(), 2u);
    // The thinnest pen: the device's one-pixel line; each dot one pixel (0.24 pt) long.
    EXPECT_EQ(t.dev.strokes[0].style.width, 0);
    ASSERT_EQ(t.dev.strokes[0].style.dashes.size(), 2u);
    EXPECT_NEAR(t.dev.strokes[0].style.dashes[0], 72.0 / 300, 1e-9);
    // 0.25 mm is 2.95 dots: three.
    EXPECT_NEAR(t.dev.strokes[1].style.width, 3 * 72.0 / 300, 1e-9);
    // At 75 dpi the 0.25 mm pen is less than one and a half dots: the thinnest.
    Gl low;
    low.dev.dpi = 75;
    low.run("IN;PW0.25;PD;PA1016,0;PU;");
    ASSERT_EQ(low.dev.strokes.size(), 1u);
    EXPECT_EQ(low.dev.strokes[0].style.width, 0);
}
