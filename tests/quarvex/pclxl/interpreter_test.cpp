// The interpreter on hand-assembled streams, drawing into a recording device.

#include "common/diagnostics.h"
#include "common/page_collector.h"
#include "fonts/font_library.h"
#include "pclxl/pclxl.h"
#include "render/raster_device.h"
#include "render/recording_device.h"
#include "xl_writer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>

namespace qx::pclxl {
namespace {

using test::XlWriter;

// Records like RecordingDevice and keeps the images and masks for a closer look.
class CaptureDevice : public RecordingDevice {
public:
    void drawImage(const Image& image, const Matrix& m, const Paint& t, const RenderState& rs) override {
        images.push_back(image);
        RecordingDevice::drawImage(image, m, t, rs);
    }
    void fillMask(const Mask& mask, const Matrix& m, const Paint& p, const RenderState& rs) override {
        masks.push_back(mask);
        maskMatrices.push_back(m);
        RecordingDevice::fillMask(mask, m, p, rs);
    }
    void strokePath(const Path& path, const StrokeStyle& style, const Paint& p, const RenderState& rs) override {
        strokes.push_back(style);
        RecordingDevice::strokePath(path, style, p, rs);
    }
    std::vector<Image> images;
    std::vector<Mask> masks;
    std::vector<Matrix> maskMatrices;
    std::vector<StrokeStyle> strokes;

    std::vector<std::string> matching(const std::string& prefix) const {
        std::vector<std::string> out;
        for (const std::string& c : calls())
            if (c.rfind(prefix, 0) == 0)
                out.push_back(c);
        return out;
    }
};

struct Outcome {
    CaptureDevice dev;
    Diagnostics diag{"in.pxl", false};
    size_t used = 0;
    std::string warnings() const {
        std::string s;
        for (const std::string& l : diag.lines())
            s += l + "\n";
        return s;
    }
};

void interpret(Outcome& r, const std::vector<uint8_t>& bytes, const FontLibrary* fonts = nullptr) {
    JobContext ctx{r.dev, r.diag, fonts, {}};
    r.used = run(bytes.data(), bytes.size(), ctx);
}

// ------------------------------------------------------------------ sessions and pages

TEST(Pages, LetterPortraitDeclaresTheSessionResolution) {
    XlWriter w;
    w.start().endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_FALSE(r.diag.hasWarnings()) << r.warnings();
    EXPECT_EQ(r.dev.joined(), "beginPage 612x792 dpi=300x300\nendPage\n");
    EXPECT_EQ(r.used, w.bytes.size());
}

TEST(Pages, ZeroCopiesPrintNoPageAndMoreCopiesStillOne) {
    XlWriter w;
    w.beginSession().openData();
    w.beginPage().ub(0).a(attr::NullPen).op(op::SetPenSource);
    w.u16Box(0, 0, 30, 30).a(attr::BoundingBox).op(op::Rectangle);
    w.u16(0).a(attr::PageCopies).op(op::EndPage);
    w.beginPage().u16(3).a(attr::PageCopies).op(op::EndPage);
    w.beginPage().ub(1).a(attr::PageCopies).op(op::EndPage);
    // A job that closes on an empty page of zero copies, as some drivers end theirs.
    w.beginPage().ub(0).a(attr::PageCopies).op(op::EndPage);
    w.endSession();
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_FALSE(r.diag.hasWarnings()) << r.warnings();
    EXPECT_EQ(r.dev.pageCount(), 2);
    EXPECT_EQ(r.dev.matching("endPage").size(), 2u);
    EXPECT_EQ(r.dev.matching("discardPage").size(), 2u);
    // The rectangle was drawn on the page that is thrown away.
    ASSERT_GE(r.dev.calls().size(), 3u);
    EXPECT_EQ(r.dev.calls()[1].rfind("fill ", 0), 0u) << r.dev.joined();
    EXPECT_EQ(r.dev.calls()[2], "discardPage");
}

TEST(Pages, AZeroCopyPageLeavesNothingOnTheNextOne) {
    qxtest::PageCollector counter;
    RasterOptions o;
    o.depth = 8;
    o.dpiX = o.dpiY = 30;
    RasterDevice dev(o, counter);
    XlWriter w;
    w.beginSession().openData();
    w.beginPage().ub(0).a(attr::NullPen).op(op::SetPenSource);
    w.u16Box(0, 0, 1200, 1200).a(attr::BoundingBox).op(op::Rectangle);
    w.ub(0).a(attr::PageCopies).op(op::EndPage);
    w.beginPage().ub(2).a(attr::PageCopies).op(op::EndPage);
    w.endSession();
    Diagnostics diag("in.pxl", false);
    JobContext ctx{dev, diag, nullptr, {}};
    run(w.bytes.data(), w.bytes.size(), ctx);
    EXPECT_EQ(dev.pagesWritten(), 1);
    // The pages that reach the output, and the grey pixels that are not white on them.
    EXPECT_EQ(counter.pages.size(), 1u);
    size_t inked = 0;
    for (const RasterPage& p : counter.pages)
        inked += size_t(std::count_if(p.data.begin(), p.data.end(), [](uint8_t v) { return v != 255; }));
    EXPECT_EQ(inked, 0u);
}

TEST(Pages, NamedAndCustomSizesAndOrientations) {
    XlWriter w;
    w.beginSession(600).openData();
    w.beginPage(2).endPage();                                                   // A4
    w.beginPage(1, 1).endPage();                                                // Legal landscape
    w.str("A3").a(attr::MediaSize).ub(0).a(attr::Orientation).op(op::BeginPage).endPage();
    w.r32Xy(8.5f, 5.5f).a(attr::CustomMediaSize).ub(eInch).a(attr::CustomMediaSizeUnits).op(op::BeginPage).endPage();
    w.u16Xy(100, 200).a(attr::CustomMediaSize).ub(eMillimeter).a(attr::CustomMediaSizeUnits).ub(3).a(attr::Orientation)
        .op(op::BeginPage).endPage();
    w.endSession();
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_FALSE(r.diag.hasWarnings()) << r.warnings();
    EXPECT_EQ(r.dev.matching("beginPage"),
              (std::vector<std::string>{"beginPage 595.28x841.89 dpi=600x600", "beginPage 1008x612 dpi=600x600",
                                        "beginPage 841.89x1190.55 dpi=600x600", "beginPage 612x396 dpi=600x600",
                                        "beginPage 566.93x283.46 dpi=600x600"}));
    EXPECT_EQ(r.dev.pageCount(), 5);
}

TEST(Pages, MetricSessionUnitsDeclareNoResolution) {
    XlWriter w;
    w.u16Xy(10, 10).a(attr::UnitsPerMeasure).ub(eMillimeter).a(attr::Measure).op(op::BeginSession);
    w.beginPage(0);
    // 10 units per mm: a box 254 x 254 units is one inch square.
    w.ub(0).a(attr::NullPen).op(op::SetPenSource);
    w.u16Box(0, 0, 254, 254).a(attr::BoundingBox).op(op::Rectangle).endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_FALSE(r.diag.hasWarnings()) << r.warnings();
    ASSERT_EQ(r.dev.calls().size(), 3u);
    EXPECT_EQ(r.dev.calls()[0], "beginPage 612x792");
    EXPECT_EQ(r.dev.calls()[1], "fill nz #000000 rop=252 srcO patO M0,0 L72,0 L72,72 L0,72 Z");
}

TEST(Pages, ReversePortraitTurnsTheUserSpace) {
    XlWriter w;
    w.beginSession(72).openData().beginPage(0, 2);
    w.ub(0).a(attr::NullPen).op(op::SetPenSource).u16Box(0, 0, 10, 20).a(attr::BoundingBox).op(op::Rectangle);
    w.endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_EQ(r.dev.calls()[1], "fill nz #000000 rop=252 srcO patO M612,792 L602,792 L602,772 L612,772 Z");
}

TEST(Pages, PageTransformsApplyToLaterCoordinates) {
    XlWriter w;
    w.beginSession(72).openData().beginPage();
    w.ub(0).a(attr::NullPen).op(op::SetPenSource);
    w.s16Xy(100, 50).a(attr::PageOrigin).op(op::SetPageOrigin);
    w.r32Xy(2, 3).a(attr::PageScale).op(op::SetPageScale);
    w.u16Box(0, 0, 10, 10).a(attr::BoundingBox).op(op::Rectangle);
    w.op(op::SetPageDefaultCTM);
    w.s16(90).a(attr::PageAngle).op(op::SetPageRotation);
    w.u16Box(0, 0, 10, 10).a(attr::BoundingBox).op(op::Rectangle);
    w.endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_FALSE(r.diag.hasWarnings()) << r.warnings();
    const auto fills = r.dev.matching("fill");
    ASSERT_EQ(fills.size(), 2u);
    EXPECT_EQ(fills[0], "fill nz #000000 rop=252 srcO patO M100,50 L120,50 L120,80 L100,80 Z");
    EXPECT_EQ(fills[1], "fill nz #000000 rop=252 srcO patO M0,0 L0,10 L-10,10 L-10,0 Z");
}

TEST(Pages, PjlPaperAndOrientationFillInWhatBeginPageLeavesOut) {
    XlWriter w;
    w.beginSession().openData().op(op::BeginPage).endPage();
    w.ub(eLandscape).a(attr::Orientation).op(op::BeginPage).endPage();
    w.ub(0).a(attr::MediaSize).op(op::BeginPage).endPage();
    w.endSession();
    Outcome r;
    JobContext ctx{r.dev, r.diag, nullptr, {}};
    ctx.pjl.paper = "A4";
    ctx.pjl.orientation = "LANDSCAPE";
    run(w.bytes.data(), w.bytes.size(), ctx);
    EXPECT_FALSE(r.diag.hasWarnings()) << r.warnings();
    EXPECT_EQ(r.dev.matching("beginPage"),
              (std::vector<std::string>{"beginPage 841.89x595.28 dpi=300x300", "beginPage 841.89x595.28 dpi=300x300",
                                        "beginPage 792x612 dpi=300x300"}));
}

TEST(Pages, PageScaleByUnitsOfMeasure) {
    XlWriter w;
    w.beginSession(72).openData().beginPage();
    w.ub(0).a(attr::NullPen).op(op::SetPenSource);
    // From points to tenths of a millimetre: 254 units are one inch.
    w.ub(eTenthsOfAMillimeter).a(attr::Measure).u16Xy(1, 1).a(attr::UnitsPerMeasure).op(op::SetPageScale);
    w.u16Box(0, 0, 254, 127).a(attr::BoundingBox).op(op::Rectangle);
    w.endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_FALSE(r.diag.hasWarnings()) << r.warnings();
    EXPECT_EQ(r.dev.matching("fill")[0], "fill nz #000000 rop=252 srcO patO M0,0 L72,0 L72,36 L0,36 Z");
}

TEST(Pages, EndSessionEjectsAnOpenPage) {
    XlWriter w;
    w.start().u16Box(0, 0, 10, 10).a(attr::BoundingBox).op(op::Rectangle).endSession();
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_EQ(r.dev.pageCount(), 1);
}

// ------------------------------------------------------------------ colour and painting

TEST(Paint, BrushPenAndRasterOperation) {
    XlWriter w;
    w.start();
    w.ub(eRGB).a(attr::ColorSpace).op(op::SetColorSpace);
    w.ubArray({255, 0, 0}).a(attr::RGBColor).op(op::SetBrushSource);
    w.r32Array({0, 0, 1}).a(attr::RGBColor).op(op::SetPenSource);
    w.ub(10).a(attr::PenWidth).op(op::SetPenWidth);
    w.ub(0x66).a(attr::ROP3).op(op::SetROP);
    w.ub(1).a(attr::TxMode).op(op::SetSourceTxMode);
    w.ub(1).a(attr::TxMode).op(op::SetPaintTxMode);
    w.u16Box(300, 300, 600, 600).a(attr::BoundingBox).op(op::Rectangle);
    w.ub(eGray).a(attr::ColorSpace).op(op::SetColorSpace);
    w.r32(0.5f).a(attr::GrayLevel).op(op::SetBrushSource);
    w.ub(0).a(attr::NullPen).op(op::SetPenSource);
    w.u16Box(0, 0, 30, 30).a(attr::BoundingBox).op(op::Rectangle);
    w.ub(eGray).a(attr::ColorSpace).ub(e8Bit).a(attr::PaletteDepth).ubArray({0, 100, 200}).a(attr::PaletteData)
        .op(op::SetColorSpace);
    w.ub(2).a(attr::PaletteIndex).op(op::SetBrushSource);
    w.u16Box(0, 0, 30, 30).a(attr::BoundingBox).op(op::Rectangle);
    w.ub(eRGB).a(attr::ColorSpace).op(op::SetColorSpace);
    w.ubArray({10, 20, 30}).a(attr::PrimaryArray).ub(e8Bit).a(attr::PrimaryDepth).op(op::SetBrushSource);
    w.u16Box(0, 0, 30, 30).a(attr::BoundingBox).op(op::Rectangle);
    w.endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_FALSE(r.diag.hasWarnings()) << r.warnings();
    const auto& c = r.dev.calls();
    ASSERT_EQ(c.size(), 7u) << r.dev.joined();
    EXPECT_EQ(c[1], "fill nz #ff0000 rop=102 srcT patT M72,72 L144,72 L144,144 L72,144 Z");
    EXPECT_EQ(c[2], "stroke w=2.4 #0000ff rop=102 srcT patT M72,72 L144,72 L144,144 L72,144 Z");
    EXPECT_EQ(c[3].substr(0, 21), "fill nz #808080 rop=1");
    EXPECT_EQ(c[4].substr(0, 15), "fill nz #c8c8c8");
    EXPECT_EQ(c[5].substr(0, 15), "fill nz #0a141e");
}

TEST(Paint, PushAndPopRestoreTheGraphicsState) {
    XlWriter w;
    w.start().ub(0).a(attr::NullPen).op(op::SetPenSource);
    w.op(op::PushGS).ub(128).a(attr::GrayLevel).op(op::SetBrushSource).ub(1).a(attr::FillMode).op(op::SetFillMode);
    w.u16Box(0, 0, 30, 30).a(attr::BoundingBox).op(op::Rectangle);
    w.op(op::PopGS).u16Box(0, 0, 30, 30).a(attr::BoundingBox).op(op::Rectangle);
    w.endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    const auto fills = r.dev.matching("fill");
    ASSERT_EQ(fills.size(), 2u);
    EXPECT_EQ(fills[0].substr(0, 15), "fill eo #808080");
    EXPECT_EQ(fills[1].substr(0, 15), "fill nz #000000");
}

TEST(Paint, PopWithoutPushIsAnErrorWithItsPosition) {
    XlWriter w;
    w.start();
    const size_t at = w.offset();
    w.op(op::PopGS).endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    ASSERT_EQ(r.diag.lines().size(), 1u);
    EXPECT_EQ(r.diag.lines()[0],
              "quarvex: in.pxl: PCL XL: graphics state stack underflow in PopGS at byte " + std::to_string(at));
}

// ------------------------------------------------------------------ paths

TEST(Paths, LinesRelativeLinesAndStrokes) {
    XlWriter w;
    w.beginSession(72).openData().beginPage();
    w.ub(0).a(attr::NullBrush).op(op::SetBrushSource).ub(2).a(attr::PenWidth).op(op::SetPenWidth);
    w.ub(1).a(attr::LineCapStyle).op(op::SetLineCap).ub(2).a(attr::LineJoinStyle).op(op::SetLineJoin);
    w.ubArray({3, 1}).a(attr::LineDashStyle).op(op::SetLineDash);
    w.op(op::NewPath).s16Xy(10, 10).a(attr::Point).op(op::SetCursor);
    w.s16Xy(50, 10).a(attr::EndPoint).op(op::LinePath);
    // Three relative points as signed bytes, in embedded data.
    w.ub(3).a(attr::NumberOfPoints).ub(eSByte).a(attr::PointType).op(op::LineRelPath).data({0, 10, 256 - 40, 0, 0, 256 - 10});
    w.op(op::CloseSubPath).op(op::PaintPath);
    // Absolute points as uint16, in embedded data.
    std::vector<uint8_t> pts;
    for (uint16_t v : {100, 100, 200, 100}) {
        auto b = w.word(v);
        pts.insert(pts.end(), b.begin(), b.end());
    }
    w.op(op::NewPath).s16Xy(100, 50).a(attr::Point).op(op::SetCursor);
    w.ub(2).a(attr::NumberOfPoints).ub(eUInt16).a(attr::PointType).op(op::LinePath).data(pts);
    w.ub(0).a(attr::SolidLine).op(op::SetLineDash).op(op::PaintPath);
    w.endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_FALSE(r.diag.hasWarnings()) << r.warnings();
    const auto strokes = r.dev.matching("stroke");
    ASSERT_EQ(strokes.size(), 2u) << r.dev.joined();
    EXPECT_EQ(strokes[0], "stroke w=2 #000000 rop=252 srcO patO M10,10 L50,10 L50,20 L10,20 L10,10 Z");
    EXPECT_EQ(strokes[1], "stroke w=2 #000000 rop=252 srcO patO M100,50 L100,100 L200,100");
    EXPECT_TRUE(r.dev.matching("fill").empty());
}

TEST(Paths, LineStyleReachesTheDeviceInPageUnits) {
    XlWriter w;
    w.start(); // 300 units per inch: 0.24 pt a unit
    w.ub(0).a(attr::NullBrush).op(op::SetBrushSource);
    w.u16(50).a(attr::PenWidth).op(op::SetPenWidth);
    w.ub(2).a(attr::LineCapStyle).op(op::SetLineCap).ub(1).a(attr::LineJoinStyle).op(op::SetLineJoin);
    w.ub(4).a(attr::MiterLength).op(op::SetMiterLimit);
    w.u16Array({100, 50}).a(attr::LineDashStyle).u16(25).a(attr::DashOffset).op(op::SetLineDash);
    w.u16Box(0, 0, 300, 300).a(attr::BoundingBox).op(op::Rectangle);
    w.ub(0).a(attr::SolidLine).op(op::SetLineDash);
    w.u16Box(0, 0, 300, 300).a(attr::BoundingBox).op(op::Rectangle);
    w.endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_FALSE(r.diag.hasWarnings()) << r.warnings();
    ASSERT_EQ(r.dev.strokes.size(), 2u);
    const StrokeStyle& a = r.dev.strokes[0];
    EXPECT_DOUBLE_EQ(a.width, 12);
    EXPECT_EQ(a.cap, StrokeStyle::Cap::Square);
    EXPECT_EQ(a.join, StrokeStyle::Join::Round);
    EXPECT_DOUBLE_EQ(a.miterLimit, 4);
    ASSERT_EQ(a.dashes.size(), 2u);
    EXPECT_DOUBLE_EQ(a.dashes[0], 24);
    EXPECT_DOUBLE_EQ(a.dashes[1], 12);
    EXPECT_DOUBLE_EQ(a.dashOffset, 6);
    EXPECT_TRUE(r.dev.strokes[1].dashes.empty());
}

TEST(Paths, CurvesAndShapes) {
    XlWriter w;
    w.beginSession(72).openData().beginPage();
    w.ub(0).a(attr::NullPen).op(op::SetPenSource);
    w.op(op::NewPath).s16Xy(0, 0).a(attr::Point).op(op::SetCursor);
    w.s16Xy(10, 0).a(attr::ControlPoint1).s16Xy(20, 10).a(attr::ControlPoint2).s16Xy(20, 20).a(attr::EndPoint)
        .op(op::BezierPath);
    w.s16Xy(0, 10).a(attr::ControlPoint1).s16Xy(-10, 10).a(attr::ControlPoint2).s16Xy(-20, 0).a(attr::EndPoint)
        .op(op::BezierRelPath);
    w.op(op::PaintPath);
    w.u16Box(0, 0, 100, 50).a(attr::BoundingBox).op(op::Ellipse);
    w.u16Box(0, 0, 100, 100).a(attr::BoundingBox).u16Xy(20, 20).a(attr::EllipseDimension).op(op::RoundRectangle);
    w.u16Box(0, 0, 100, 100).a(attr::BoundingBox).u16Xy(100, 50).a(attr::StartPoint).u16Xy(50, 0)
        .a(attr::EndPoint).op(op::Pie);
    w.u16Box(0, 0, 100, 100).a(attr::BoundingBox).u16Xy(100, 50).a(attr::StartPoint).u16Xy(50, 0)
        .a(attr::EndPoint).op(op::Chord);
    w.op(op::NewPath).u16Box(0, 0, 100, 100).a(attr::BoundingBox).u16Xy(100, 50).a(attr::StartPoint).u16Xy(50, 0)
        .a(attr::EndPoint).ub(0).a(attr::ArcDirection).op(op::ArcPath).op(op::PaintPath);
    w.endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_FALSE(r.diag.hasWarnings()) << r.warnings();
    const auto fills = r.dev.matching("fill");
    ASSERT_EQ(fills.size(), 6u) << r.dev.joined();
    EXPECT_EQ(fills[0], "fill nz #000000 rop=252 srcO patO M0,0 C10,0 20,10 20,20 C20,30 10,30 0,20");
    // A full ellipse: four quarter curves from its right end.
    EXPECT_EQ(fills[1].substr(fills[1].find(" M")), " M100,25 C100,38.81 77.61,50 50,50 C22.39,50 0,38.81 0,25 "
                                                    "C0,11.19 22.39,0 50,0 C77.61,0 100,11.19 100,25 Z");
    // Counter-clockwise (on the page) from the right to the top: one quarter.
    EXPECT_EQ(fills[3].substr(fills[3].find(" M")), " M50,50 L100,50 C100,22.39 77.61,0 50,0 Z");
    EXPECT_EQ(fills[4].substr(fills[4].find(" M")), " M100,50 C100,22.39 77.61,0 50,0 Z");
    // Clockwise: the other three quarters.
    EXPECT_EQ(std::count(fills[5].begin(), fills[5].end(), 'C'), 3);
}

TEST(Paths, ClippingRegions) {
    XlWriter w;
    w.beginSession(72).openData().beginPage();
    w.ub(0).a(attr::NullPen).op(op::SetPenSource);
    w.ub(0).a(attr::ClipRegion).u16Box(10, 10, 100, 100).a(attr::BoundingBox).op(op::SetClipRectangle);
    w.u16Box(0, 0, 50, 50).a(attr::BoundingBox).op(op::Rectangle);
    w.op(op::NewPath).u16Box(20, 20, 60, 60).a(attr::BoundingBox).op(op::EllipsePath);
    w.ub(1).a(attr::ClipMode).op(op::SetClipMode).ub(0).a(attr::ClipRegion).op(op::SetClipIntersect);
    w.u16Box(0, 0, 50, 50).a(attr::BoundingBox).op(op::Rectangle);
    w.op(op::SetClipToPage).u16Box(0, 0, 50, 50).a(attr::BoundingBox).op(op::Rectangle);
    // A page-sized rectangle clips nothing.
    w.op(op::NewPath).u16Box(0, 0, 612, 792).a(attr::BoundingBox).op(op::RectanglePath);
    w.ub(0).a(attr::ClipRegion).op(op::SetClipReplace);
    w.u16Box(0, 0, 50, 50).a(attr::BoundingBox).op(op::Rectangle);
    w.ub(1).a(attr::ClipRegion).u16Box(10, 10, 100, 100).a(attr::BoundingBox).op(op::SetClipRectangle);
    w.u16Box(0, 0, 50, 50).a(attr::BoundingBox).op(op::Rectangle);
    w.endPage().endSession();
    CaptureDevice* dev = nullptr;
    Outcome r;
    dev = &r.dev;
    interpret(r, w.bytes);
    EXPECT_FALSE(r.diag.hasWarnings()) << r.warnings();
    const auto fills = dev->matching("fill");
    ASSERT_EQ(fills.size(), 5u);
    EXPECT_NE(fills[0].find("clip=1"), std::string::npos);
    EXPECT_NE(fills[1].find("clip=2"), std::string::npos);
    EXPECT_EQ(fills[2].find("clip"), std::string::npos);
    EXPECT_EQ(fills[3].find("clip"), std::string::npos);
    EXPECT_NE(fills[4].find("clip=1"), std::string::npos);
}

// ------------------------------------------------------------------ images

XlWriter& beginImage(XlWriter& w, uint8_t mapping, uint8_t depth, uint16_t width, uint16_t height, uint16_t dw,
                     uint16_t dh) {
    return w.ub(mapping).a(attr::ColorMapping).ub(depth).a(attr::ColorDepth).u16(width).a(attr::SourceWidth)
        .u16(height).a(attr::SourceHeight).u16Xy(dw, dh).a(attr::DestinationSize).op(op::BeginImage);
}

XlWriter& readImage(XlWriter& w, uint16_t start, uint16_t rows, uint8_t compress, const std::vector<uint8_t>& d) {
    return w.u16(start).a(attr::StartLine).u16(rows).a(attr::BlockHeight).ub(compress).a(attr::CompressMode)
        .op(op::ReadImage).data(d);
}

TEST(Images, DirectGrayRowsArePaddedToFourBytes) {
    XlWriter w;
    w.beginSession(72).openData().beginPage();
    w.s16Xy(100, 200).a(attr::Point).op(op::SetCursor);
    beginImage(w, eDirectPixel, e8Bit, 3, 2, 30, 20);
    readImage(w, 0, 2, eNoCompression, {10, 20, 30, 0, 40, 50, 60, 0});
    w.op(op::EndImage).endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_FALSE(r.diag.hasWarnings()) << r.warnings();
    ASSERT_EQ(r.dev.images.size(), 1u);
    EXPECT_EQ(r.dev.matching("image")[0], "image 3x2 gray [10 0 0 10 100 200] #000000 rop=252 srcO patO");
    EXPECT_EQ(r.dev.images[0].data, (std::vector<uint8_t>{10, 20, 30, 40, 50, 60}));
}

TEST(Images, RunLengthIndexedRgbInTwoBlocks) {
    XlWriter w;
    w.beginSession(72).openData().beginPage();
    w.ub(eRGB).a(attr::ColorSpace).ub(e8Bit).a(attr::PaletteDepth).ubArray({255, 0, 0, 0, 0, 255})
        .a(attr::PaletteData).op(op::SetColorSpace);
    beginImage(w, eIndexedPixel, e4Bit, 4, 2, 4, 2);
    // Row 0: 0x01 0x10 and padding; row 1 (second block): 0x11 0x11 and padding.
    readImage(w, 0, 1, eRLECompression, {1, 0x01, 0x10, 0xFF, 0});
    readImage(w, 1, 1, eRLECompression, {0xFF, 0x11, 0xFF, 0});
    w.op(op::EndImage).endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_FALSE(r.diag.hasWarnings()) << r.warnings();
    // The two blocks are drawn as one strip.
    ASSERT_EQ(r.dev.images.size(), 1u);
    EXPECT_EQ(r.dev.images[0].format, Image::Format::Rgb24);
    EXPECT_EQ(r.dev.images[0].data, (std::vector<uint8_t>{255, 0, 0, 0, 0, 255, 0, 0, 255, 255, 0, 0,
                                                          0, 0, 255, 0, 0, 255, 0, 0, 255, 0, 0, 255}));
    EXPECT_EQ(r.dev.matching("image")[0], "image 4x2 rgb [1 0 0 1 0 0] #000000 rop=252 srcO patO");
}

TEST(Images, DeltaRowKeepsItsSeedAcrossBlocks) {
    XlWriter w;
    w.beginSession(72).openData().beginPage();
    w.ub(eRGB).a(attr::ColorSpace).op(op::SetColorSpace);
    beginImage(w, eDirectPixel, e8Bit, 2, 3, 2, 3);
    // Row 0 sets bytes 0..2; row 1 repeats it; row 2 (next block) changes byte 4.
    readImage(w, 0, 2, eDeltaRowCompression, {4, 0, 0x40, 1, 2, 3, 0, 0});
    readImage(w, 2, 1, eDeltaRowCompression, {2, 0, 0x04, 9});
    w.op(op::EndImage).endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_FALSE(r.diag.hasWarnings()) << r.warnings();
    ASSERT_EQ(r.dev.images.size(), 1u);
    EXPECT_EQ(r.dev.images[0].data,
              (std::vector<uint8_t>{1, 2, 3, 0, 0, 0, 1, 2, 3, 0, 0, 0, 1, 2, 3, 0, 9, 0}));
}

TEST(Images, JpegBlock) {
    std::ifstream f(PCLXL_TEST_DATA "/red_8x8.jpg", std::ios::binary);
    std::vector<uint8_t> jpeg((std::istreambuf_iterator<char>(f)), {});
    ASSERT_GT(jpeg.size(), 100u);
    XlWriter w;
    w.beginSession(72).openData().beginPage();
    w.ub(eRGB).a(attr::ColorSpace).op(op::SetColorSpace);
    beginImage(w, eDirectPixel, e8Bit, 8, 8, 16, 16);
    readImage(w, 0, 8, eJPEGCompression, jpeg);
    w.op(op::EndImage).endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_FALSE(r.diag.hasWarnings()) << r.warnings();
    ASSERT_EQ(r.dev.images.size(), 1u);
    const Image& img = r.dev.images[0];
    EXPECT_EQ(img.width, 8);
    EXPECT_EQ(img.height, 8);
    for (size_t i = 0; i < img.data.size(); i += 3) {
        EXPECT_GT(img.data[i], 230);
        EXPECT_LT(img.data[i + 1], 30);
        EXPECT_LT(img.data[i + 2], 30);
    }
}

TEST(Images, OneBitWithTransparentSourceIsAMask) {
    XlWriter w;
    w.beginSession(72).openData().beginPage();
    w.ub(1).a(attr::TxMode).op(op::SetSourceTxMode);
    w.ub(0).a(attr::GrayLevel).op(op::SetBrushSource);
    w.ub(eGray).a(attr::ColorSpace).ub(e8Bit).a(attr::PaletteDepth).ubArray({255, 0}).a(attr::PaletteData)
        .op(op::SetColorSpace);
    beginImage(w, eIndexedPixel, e1Bit, 10, 2, 10, 2);
    readImage(w, 0, 2, eNoCompression, {0xFF, 0xC0, 0, 0, 0x80, 0x00, 0, 0});
    w.op(op::EndImage).endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_FALSE(r.diag.hasWarnings()) << r.warnings();
    EXPECT_TRUE(r.dev.images.empty());
    ASSERT_EQ(r.dev.masks.size(), 1u);
    EXPECT_EQ(r.dev.matching("mask")[0], "mask 10x2 ink=11 [1 0 0 1 0 0] #000000 rop=252 srcT patO");
}

TEST(Images, ShortDataIsReportedAfterDrawingWhatCame) {
    XlWriter w;
    w.beginSession(72).openData().beginPage();
    beginImage(w, eDirectPixel, e8Bit, 4, 4, 4, 4);
    const size_t at = w.offset();
    readImage(w, 0, 4, eNoCompression, {1, 2, 3, 4, 5, 6, 7, 8});
    w.op(op::EndImage).endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    ASSERT_EQ(r.diag.lines().size(), 1u);
    EXPECT_EQ(r.diag.lines()[0], "quarvex: in.pxl: PCL XL: image data shorter than BlockHeight in ReadImage at byte " +
                                     std::to_string(at + 14));
    ASSERT_EQ(r.dev.images.size(), 1u);
    EXPECT_EQ(r.dev.images[0].height, 2);
    EXPECT_EQ(r.dev.pageCount(), 1); // the page with the image is still ejected
}

TEST(Images, HugeDeclaredImageWithTinyDataStaysSmall) {
    XlWriter w;
    w.beginSession(72).openData().beginPage();
    beginImage(w, eDirectPixel, e8Bit, 65535, 65535, 100, 100);
    readImage(w, 0, 65535, eRLECompression, {0x81, 0, 0x81, 0});
    w.op(op::EndImage).endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_TRUE(r.diag.hasWarnings());
    size_t pixels = 0;
    for (const Image& i : r.dev.images)
        pixels += i.data.size();
    EXPECT_LE(pixels, 256u);
}

TEST(Images, RasterPatternFillsThroughTheBrush) {
    XlWriter w;
    w.beginSession(72).openData().beginPage();
    w.ub(eDirectPixel).a(attr::ColorMapping).ub(e8Bit).a(attr::ColorDepth).u16(2).a(attr::SourceWidth).u16(2)
        .a(attr::SourceHeight).u16Xy(8, 8).a(attr::DestinationSize).s16(7).a(attr::PatternDefineID).ub(1)
        .a(attr::PatternPersistence).op(op::BeginRastPattern);
    w.u16(0).a(attr::StartLine).u16(2).a(attr::BlockHeight).ub(eNoCompression).a(attr::CompressMode)
        .op(op::ReadRastPattern).data({0, 255, 0, 0, 255, 0, 0, 0});
    w.op(op::EndRastPattern);
    w.s16(7).a(attr::PatternSelectID).op(op::SetBrushSource).ub(0).a(attr::NullPen).op(op::SetPenSource);
    w.u16Box(0, 0, 50, 50).a(attr::BoundingBox).op(op::Rectangle);
    w.s16(8).a(attr::PatternSelectID).op(op::SetBrushSource);
    w.endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_EQ(r.dev.matching("fill")[0].substr(0, 22), "fill nz pattern(2x2) r");
    ASSERT_EQ(r.diag.lines().size(), 1u);
    EXPECT_NE(r.diag.lines()[0].find("pattern 8 is not defined in SetBrushSource"), std::string::npos);
}

TEST(Images, ScanLinesFillRunsWithTheBrush) {
    XlWriter w;
    w.beginSession(72).openData().beginPage();
    w.s16Xy(100, 200).a(attr::Point).op(op::SetCursor).op(op::BeginScan);
    // Two lines: y +0, x +10, one pair (offset 0, length 5); y +2, x +0, two byte pairs.
    std::vector<uint8_t> d;
    for (uint16_t v : {0, 10, 1}) {
        auto b = w.word(v);
        d.insert(d.end(), b.begin(), b.end());
    }
    d.push_back(eUInt16);
    for (uint16_t v : {0, 5}) {
        auto b = w.word(v);
        d.insert(d.end(), b.begin(), b.end());
    }
    for (uint16_t v : {2, 0, 2}) {
        auto b = w.word(v);
        d.insert(d.end(), b.begin(), b.end());
    }
    d.push_back(eUByte);
    d.insert(d.end(), {1, 2, 3, 4});
    w.u16(2).a(attr::NumberOfScanLines).op(op::ScanLineRel).data(d).op(op::EndScan);
    w.endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_FALSE(r.diag.hasWarnings()) << r.warnings();
    const auto fills = r.dev.matching("fill");
    ASSERT_EQ(fills.size(), 1u);
    EXPECT_EQ(fills[0], "fill nz #000000 rop=252 srcO patO M110,200 L115,200 L115,201 L110,201 Z "
                        "M101,202 L103,202 L103,203 L101,203 Z M106,202 L110,202 L110,203 L106,203 Z");
}

// ------------------------------------------------------------------ text

std::vector<uint8_t> bitmapFontHeader() {
    return {0, 0, 0x02, 0x75, 254, 0, 0, 2, 'B', 'R', 0, 0, 0, 4, 0x01, 0x2C, 0x01, 0x2C, 0xFF, 0xFF, 0, 0, 0, 0};
}

std::vector<uint8_t> bitmapChar(int16_t left, int16_t top, uint16_t width, uint16_t height, uint8_t fill) {
    std::vector<uint8_t> d = {0, 0, uint8_t(uint16_t(left) >> 8), uint8_t(left), uint8_t(uint16_t(top) >> 8),
                              uint8_t(top), uint8_t(width >> 8), uint8_t(width), uint8_t(height >> 8), uint8_t(height)};
    d.insert(d.end(), size_t((width + 7) / 8) * height, fill);
    return d;
}

TEST(Text, DownloadedBitmapFont) {
    XlWriter w;
    w.start();
    w.str("Dot").a(attr::FontName).ub(0).a(attr::FontFormat).op(op::BeginFontHeader);
    w.u16(24).a(attr::FontHeaderLength).op(op::ReadFontHeader).data(bitmapFontHeader());
    w.op(op::EndFontHeader);
    w.str("Dot").a(attr::FontName).op(op::BeginChar);
    const auto a = bitmapChar(1, 8, 8, 8, 0xFF);
    w.u16('A').a(attr::CharCode).u16(uint16_t(a.size())).a(attr::CharDataSize).op(op::ReadChar).data(a);
    const auto b = bitmapChar(0, 4, 4, 4, 0xF0);
    w.u16('B').a(attr::CharCode).u16(uint16_t(b.size())).a(attr::CharDataSize).op(op::ReadChar).data(b);
    w.op(op::EndChar);
    w.str("Dot").a(attr::FontName).r32(1).a(attr::CharSize).u16(277).a(attr::SymbolSet).op(op::SetFont);
    w.s16Xy(300, 600).a(attr::Point).op(op::SetCursor);
    w.str("AB").a(attr::TextData).ubArray({20, 20}).a(attr::XSpacingData).op(op::Text);
    w.str("A").a(attr::TextData).op(op::Text);
    w.endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_FALSE(r.diag.hasWarnings()) << r.warnings();
    const auto masks = r.dev.matching("mask");
    ASSERT_EQ(masks.size(), 3u) << r.dev.joined();
    // 300 units per inch: one unit is 0.24 pt; the cursor (300, 600) is (72, 144).
    EXPECT_EQ(masks[0], "mask 8x8 ink=64 [0.24 0 0 0.24 72.24 142.08] #000000 rop=252 srcO patO");
    EXPECT_EQ(masks[1], "mask 4x4 ink=16 [0.24 0 0 0.24 76.8 143.04] #000000 rop=252 srcO patO");
    EXPECT_EQ(masks[2], "mask 8x8 ink=64 [0.24 0 0 0.24 81.84 142.08] #000000 rop=252 srcO patO");
}

TEST(Text, BitmapFontAtItsOwnResolutionWithTwoByteSegmentSizes) {
    XlWriter w;
    w.start();
    w.str("Fine").a(attr::FontName).ub(0).a(attr::FontFormat).op(op::BeginFontHeader);
    // 600 dpi bitmaps; this header writes its segment sizes in two bytes.
    const std::vector<uint8_t> header = {0, 0, 0x02, 0x75, 254, 0, 0, 1, 'B', 'R', 0, 4, 0x02, 0x58, 0x02, 0x58, 0xFF, 0xFF, 0, 0};
    w.u16(uint16_t(header.size())).a(attr::FontHeaderLength).op(op::ReadFontHeader).data(header);
    w.op(op::EndFontHeader);
    w.str("Fine").a(attr::FontName).op(op::BeginChar);
    const auto a = bitmapChar(0, 8, 8, 8, 0xFF);
    w.u16('A').a(attr::CharCode).u16(uint16_t(a.size())).a(attr::CharDataSize).op(op::ReadChar).data(a);
    w.op(op::EndChar);
    w.str("Fine").a(attr::FontName).r32(1).a(attr::CharSize).u16(277).a(attr::SymbolSet).op(op::SetFont);
    w.s16Xy(300, 600).a(attr::Point).op(op::SetCursor);
    w.str("AA").a(attr::TextData).op(op::Text);
    w.endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_FALSE(r.diag.hasWarnings()) << r.warnings();
    const auto masks = r.dev.matching("mask");
    ASSERT_EQ(masks.size(), 2u) << r.dev.joined();
    EXPECT_EQ(masks[0], "mask 8x8 ink=64 [0.12 0 0 0.12 72 143.04] #000000 rop=252 srcO patO");
    // Without spacing data the cursor moves by the bitmap's width.
    EXPECT_EQ(masks[1], "mask 8x8 ink=64 [0.12 0 0 0.12 72.96 143.04] #000000 rop=252 srcO patO");
}

TEST(Text, CharacterScaleAngleAndBoldness) {
    XlWriter w;
    w.start();
    w.str("Dot").a(attr::FontName).ub(0).a(attr::FontFormat).op(op::BeginFontHeader);
    w.u16(24).a(attr::FontHeaderLength).op(op::ReadFontHeader).data(bitmapFontHeader());
    w.op(op::EndFontHeader);
    w.str("Dot").a(attr::FontName).op(op::BeginChar);
    const auto a = bitmapChar(1, 8, 8, 8, 0xFF);
    w.u16('A').a(attr::CharCode).u16(uint16_t(a.size())).a(attr::CharDataSize).op(op::ReadChar).data(a);
    w.op(op::EndChar);
    w.str("Dot").a(attr::FontName).r32(1).a(attr::CharSize).u16(277).a(attr::SymbolSet).op(op::SetFont);
    w.s16Xy(300, 600).a(attr::Point).op(op::SetCursor);
    w.r32Xy(2, 1).a(attr::CharScale).op(op::SetCharScale);
    w.str("A").a(attr::TextData).ubArray({0}).a(attr::XSpacingData).op(op::Text);
    w.r32Xy(1, 1).a(attr::CharScale).op(op::SetCharScale).s16(90).a(attr::CharAngle).op(op::SetCharAngle);
    w.str("A").a(attr::TextData).ubArray({0}).a(attr::XSpacingData).op(op::Text);
    w.s16(0).a(attr::CharAngle).op(op::SetCharAngle).r32(0.25f).a(attr::CharBoldValue).op(op::SetCharBoldValue);
    w.str("A").a(attr::TextData).ubArray({0}).a(attr::XSpacingData).op(op::Text);
    w.endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_FALSE(r.diag.hasWarnings()) << r.warnings();
    const auto masks = r.dev.matching("mask");
    ASSERT_EQ(masks.size(), 3u) << r.dev.joined();
    EXPECT_EQ(masks[0], "mask 8x8 ink=64 [0.48 0 0 0.24 72.48 142.08] #000000 rop=252 srcO patO");
    EXPECT_EQ(masks[1], "mask 8x8 ink=64 [0 0.24 -0.24 0 73.92 144.24] #000000 rop=252 srcO patO");
    // A quarter of the glyph's height, two pixels, more ink to the right.
    EXPECT_EQ(masks[2], "mask 10x8 ink=80 [0.24 0 0 0.24 72.24 142.08] #000000 rop=252 srcO patO");
}

TEST(Text, TextPathAddsTheGlyphPixelsToThePath) {
    XlWriter w;
    w.start();
    w.str("Dot").a(attr::FontName).ub(0).a(attr::FontFormat).op(op::BeginFontHeader);
    w.u16(24).a(attr::FontHeaderLength).op(op::ReadFontHeader).data(bitmapFontHeader());
    w.op(op::EndFontHeader);
    w.str("Dot").a(attr::FontName).op(op::BeginChar);
    // An L: a column of two pixels over a bar of four.
    std::vector<uint8_t> l = {0, 0, 0, 0, 0, 3, 0, 4, 0, 3, 0xC0, 0xC0, 0xF0};
    w.u16('L').a(attr::CharCode).u16(uint16_t(l.size())).a(attr::CharDataSize).op(op::ReadChar).data(l);
    w.op(op::EndChar);
    w.str("Dot").a(attr::FontName).r32(1).a(attr::CharSize).u16(277).a(attr::SymbolSet).op(op::SetFont);
    w.ub(0).a(attr::NullPen).op(op::SetPenSource);
    w.op(op::NewPath).s16Xy(300, 600).a(attr::Point).op(op::SetCursor);
    w.str("L").a(attr::TextData).op(op::TextPath).op(op::PaintPath);
    w.endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_FALSE(r.diag.hasWarnings()) << r.warnings();
    EXPECT_TRUE(r.dev.matching("mask").empty());
    const auto fills = r.dev.matching("fill");
    ASSERT_EQ(fills.size(), 1u) << r.dev.joined();
    EXPECT_EQ(fills[0], "fill nz #000000 rop=252 srcO patO M72,143.28 L72.48,143.28 L72.48,143.76 "
                        "L72,143.76 Z M72,143.76 L72.96,143.76 L72.96,144 L72,144 Z");
}

TEST(Paint, SavedStatesAreBounded) {
    XlWriter w;
    w.start();
    for (int i = 0; i < 300; ++i)
        w.op(op::PushGS);
    w.endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    ASSERT_EQ(r.diag.lines().size(), 1u);
    EXPECT_NE(r.diag.lines()[0].find("graphics state stack overflow in PushGS"), std::string::npos);
}

TEST(Text, ResidentFontByName) {
    FontLibrary fonts;
    const int courier = fonts.selectByName("Courier");
    ASSERT_GE(courier, 0);
    ASSERT_TRUE(fonts.available(courier)) << "no font file for Courier on this system";
    XlWriter w;
    w.start();
    w.str("Courier         ").a(attr::FontName).r32(120).a(attr::CharSize).u16(629).a(attr::SymbolSet).op(op::SetFont);
    w.s16Xy(300, 600).a(attr::Point).op(op::SetCursor);
    w.str("Hi").a(attr::TextData).op(op::Text);
    w.str("Hi").a(attr::TextData).s16Array({100, 100}).a(attr::XSpacingData).op(op::Text);
    w.str("Nowhere").a(attr::FontName).r32(120).a(attr::CharSize).u16(629).a(attr::SymbolSet).op(op::SetFont);
    w.str("x").a(attr::TextData).op(op::Text);
    w.endPage().endSession();
    Outcome r;
    interpret(r, w.bytes, &fonts);
    ASSERT_EQ(r.diag.lines().size(), 1u) << r.warnings();
    EXPECT_EQ(r.diag.lines()[0], "quarvex: in.pxl: PCL XL: unknown resident font \"Nowhere\"; Courier used");
    ASSERT_EQ(r.dev.masks.size(), 5u) << r.dev.joined();
    for (const Mask& m : r.dev.masks) {
        size_t ink = 0;
        for (uint8_t b : m.bits)
            ink += size_t(__builtin_popcount(b));
        EXPECT_GT(ink, 20u);
    }
    // A 120-unit (0.4 inch) Courier advances 0.6 em = 72 units = 17.28 pt a character; the second
    // run starts where the first ended, its characters 100 units (24 pt) apart.
    const double x0 = r.dev.maskMatrices[0].e, x1 = r.dev.maskMatrices[1].e;
    const double x2 = r.dev.maskMatrices[2].e, x3 = r.dev.maskMatrices[3].e;
    EXPECT_NEAR(x2 - x0, 2 * 17.28, 0.5);
    EXPECT_NEAR((x3 - x2) - (x1 - x0), 24 - 17.28, 0.5);
}

TEST(Text, PclFontSelectionPicksAResidentFontAndItsSize) {
    FontLibrary fonts;
    XlWriter w;
    w.start();
    // Courier, fixed pitch, 10 characters an inch, Windows Latin 1.
    w.str("\x1b(19U\x1b(s0p10h0s0b4099T").a(attr::PCLSelectFont).op(op::SetFont);
    w.s16Xy(300, 600).a(attr::Point).op(op::SetCursor);
    w.str("HH").a(attr::TextData).op(op::Text);
    w.endPage().endSession();
    Outcome r;
    interpret(r, w.bytes, &fonts);
    EXPECT_FALSE(r.diag.hasWarnings()) << r.warnings();
    ASSERT_EQ(r.dev.masks.size(), 2u) << r.dev.joined();
    EXPECT_NEAR(r.dev.maskMatrices[1].e - r.dev.maskMatrices[0].e, 7.2, 0.3);
    // A 12-point Courier capital is about 7 points tall: some 29 pixels at 300 dpi.
    EXPECT_NEAR(r.dev.masks[0].height, 29, 5);
}

TEST(Text, HugeCharactersAreSkippedNotRendered) {
    FontLibrary fonts;
    XlWriter w;
    w.start();
    w.str("Courier").a(attr::FontName).r32(3e6f).a(attr::CharSize).u16(629).a(attr::SymbolSet).op(op::SetFont);
    w.str("Hi").a(attr::TextData).op(op::Text);
    w.endPage().endSession();
    Outcome r;
    interpret(r, w.bytes, &fonts);
    ASSERT_EQ(r.diag.lines().size(), 1u);
    EXPECT_NE(r.diag.lines()[0].find("characters too large to draw; skipped"), std::string::npos);
    EXPECT_TRUE(r.dev.masks.empty());
}

TEST(Text, WithoutFontsTextIsSkippedWithOneWarning) {
    XlWriter w;
    w.start();
    w.str("Courier").a(attr::FontName).r32(120).a(attr::CharSize).u16(629).a(attr::SymbolSet).op(op::SetFont);
    w.str("Hi").a(attr::TextData).op(op::Text).str("Ho").a(attr::TextData).op(op::Text);
    w.endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    ASSERT_EQ(r.diag.lines().size(), 1u);
    EXPECT_NE(r.diag.lines()[0].find("no resident fonts available"), std::string::npos);
    EXPECT_EQ(r.dev.pageCount(), 1);
}

// ------------------------------------------------------------------ errors and job boundaries

TEST(Errors, MissingAttributeNamesOperatorAndPosition) {
    XlWriter w;
    const size_t at = w.offset();
    w.ub(eInch).a(attr::Measure).op(op::BeginSession);
    Outcome r;
    interpret(r, w.bytes);
    ASSERT_EQ(r.diag.lines().size(), 1u);
    EXPECT_EQ(r.diag.lines()[0],
              "quarvex: in.pxl: PCL XL: missing attribute UnitsPerMeasure in BeginSession at byte " +
                  std::to_string(at + 4));
}

TEST(Errors, TruncatedStreamKeepsEarlierPagesAndEjectsTheMarkedOne) {
    XlWriter w;
    w.start().u16Box(0, 0, 10, 10).a(attr::BoundingBox).op(op::Rectangle).endPage();
    w.beginPage().u16Box(0, 0, 10, 10).a(attr::BoundingBox).op(op::Rectangle);
    w.raw({0xD1, 0x01});
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_EQ(r.dev.pageCount(), 2);
    ASSERT_EQ(r.diag.lines().size(), 1u);
    EXPECT_NE(r.diag.lines()[0].find("PCL XL: truncated uint16_xy value in attribute list at byte"), std::string::npos);
    EXPECT_EQ(r.used, w.bytes.size());
}

TEST(Errors, AnEmptyOpenPageIsDropped) {
    XlWriter w;
    w.start().endPage().beginPage();
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_EQ(r.dev.pageCount(), 1);
    EXPECT_FALSE(r.diag.hasWarnings());
}

TEST(Errors, DrawingOutsideAPage) {
    XlWriter w;
    w.beginSession().openData();
    const size_t at = w.offset();
    w.u16Box(0, 0, 10, 10).a(attr::BoundingBox).op(op::Rectangle);
    Outcome r;
    interpret(r, w.bytes);
    ASSERT_EQ(r.diag.lines().size(), 1u);
    EXPECT_EQ(r.diag.lines()[0], "quarvex: in.pxl: PCL XL: drawing operator outside a page in Rectangle at byte " +
                                     std::to_string(at + 11));
}

TEST(Errors, RunStopsInFrontOfTheNextJob) {
    XlWriter w;
    w.start().endPage().endSession();
    const size_t end = w.offset();
    w.raw("\x1b%-12345X@PJL EOJ\n");
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_EQ(r.used, end);
    EXPECT_FALSE(r.diag.hasWarnings());
}

TEST(Errors, AfterAnErrorTheRestUpToTheNextJobIsSkipped) {
    XlWriter w;
    w.start().raw({0x45, 0x41, 0x42, 0x43});
    const size_t uel = w.offset();
    w.raw("\x1b%-12345X@PJL EOJ\n");
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_EQ(r.used, uel);
    ASSERT_EQ(r.diag.lines().size(), 1u);
    EXPECT_NE(r.diag.lines()[0].find("unknown operator 0x45 in stream at byte"), std::string::npos);
    // Not a PCL XL stream at all: nothing up to the next job is used.
    XlWriter bad(true, "2;0", false);
    bad.raw("%!PS\n");
    const size_t uel2 = bad.offset();
    bad.raw("\x1b%-12345X");
    Outcome r2;
    interpret(r2, bad.bytes);
    EXPECT_EQ(r2.used, uel2);
    ASSERT_EQ(r2.diag.lines().size(), 1u);
    EXPECT_EQ(r2.diag.lines()[0], "quarvex: in.pxl: PCL XL: not a PCL XL stream header in stream header at byte 0");
}

TEST(Streams, HighByteFirstDrawsTheSame) {
    auto build = [](bool little) {
        XlWriter w(little);
        w.start().s16Xy(300, 300).a(attr::Point).op(op::SetCursor);
        std::vector<uint8_t> pts;
        for (int16_t v : {-100, 50, 400, -25}) {
            auto b = w.word(uint16_t(v));
            pts.insert(pts.end(), b.begin(), b.end());
        }
        w.ub(2).a(attr::NumberOfPoints).ub(eSInt16).a(attr::PointType).op(op::LineRelPath).data(pts);
        w.u16(1000).a(attr::PenWidth).op(op::SetPenWidth).op(op::PaintPath).endPage().endSession();
        return w.bytes;
    };
    Outcome a, b;
    interpret(a, build(true));
    interpret(b, build(false));
    EXPECT_FALSE(a.diag.hasWarnings()) << a.warnings();
    EXPECT_FALSE(b.diag.hasWarnings()) << b.warnings();
    EXPECT_EQ(a.dev.joined(), b.dev.joined());
    EXPECT_NE(a.dev.joined().find("M72,72 L48,84 L144,78"), std::string::npos) << a.dev.joined();
}

TEST(Streams, UserDefinedStreamRunsWhenExecuted) {
    XlWriter inner;
    inner.ub(0).a(attr::NullPen).op(op::SetPenSource).u16Box(0, 0, 300, 300).a(attr::BoundingBox).op(op::Rectangle);
    XlWriter w;
    w.start();
    w.str("box").a(attr::StreamName).op(op::BeginStream);
    w.u32(uint32_t(inner.bytes.size())).a(attr::StreamDataLength).op(op::ReadStream).data(inner.bytes);
    w.op(op::EndStream);
    w.str("box").a(attr::StreamName).op(op::ExecStream).str("box").a(attr::StreamName).op(op::ExecStream);
    w.endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    EXPECT_FALSE(r.diag.hasWarnings()) << r.warnings();
    EXPECT_EQ(r.dev.matching("fill").size(), 2u);
}

TEST(Streams, SelfExecutingStreamIsStopped) {
    XlWriter inner;
    inner.str("loop").a(attr::StreamName).op(op::ExecStream);
    XlWriter w;
    w.start();
    w.str("loop").a(attr::StreamName).op(op::BeginStream);
    w.u32(uint32_t(inner.bytes.size())).a(attr::StreamDataLength).op(op::ReadStream).data(inner.bytes);
    w.op(op::EndStream).str("loop").a(attr::StreamName).op(op::ExecStream).endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    ASSERT_EQ(r.diag.lines().size(), 1u);
    EXPECT_NE(r.diag.lines()[0].find("streams nested too deeply"), std::string::npos) << r.warnings();
}

TEST(Streams, StreamsCallingStreamsCannotRunForever) {
    // Each level calls the next 3000 times: 27 billion calls if nothing stopped it.
    auto caller = [](const std::string& callee) {
        XlWriter s;
        for (int i = 0; i < 3000; ++i)
            s.str(callee).a(attr::StreamName).op(op::ExecStream);
        return s.bytes;
    };
    XlWriter leaf;
    leaf.op(op::NewPath);
    XlWriter w;
    w.start();
    const std::vector<std::pair<std::string, std::vector<uint8_t>>> streams = {
        {"c", leaf.bytes}, {"b", caller("c")}, {"a", caller("b")}, {"top", caller("a")}};
    for (const auto& [name, bytes] : streams) {
        w.str(name).a(attr::StreamName).op(op::BeginStream);
        w.u32(uint32_t(bytes.size())).a(attr::StreamDataLength).op(op::ReadStream).data(bytes, true);
        w.op(op::EndStream);
    }
    w.str("top").a(attr::StreamName).op(op::ExecStream).endPage().endSession();
    Outcome r;
    interpret(r, w.bytes);
    ASSERT_EQ(r.diag.lines().size(), 1u);
    EXPECT_NE(r.diag.lines()[0].find("user-defined streams run too long"), std::string::npos) << r.warnings();
}

} // namespace
} // namespace qx::pclxl
