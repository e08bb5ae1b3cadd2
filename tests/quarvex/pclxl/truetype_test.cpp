// Downloaded TrueType fonts: a real font file is cut into the pieces a driver sends (the global
// tables in the font header, one glyph per character) and drawn back.

#include "common/diagnostics.h"
#include "pclxl/pclxl.h"
#include "render/recording_device.h"
#include "../fonts/truetype_source.h"
#include "xl_writer.h"

#include <gtest/gtest.h>


namespace qx::pclxl {
namespace {

using test::XlWriter;
using qx::test::TrueTypeSource;

constexpr const char* kFontFile = "/usr/share/fonts/truetype/liberation/LiberationSans-Regular.ttf";

// Class 0 characters rely on the metrics tables of the header; class 1 characters bring their
// own metrics to a header without them.
class TrueType : public ::testing::TestWithParam<int> {};

TEST_P(TrueType, DownloadedGlyphsAreDrawnWithTheirAdvances) {
    const int charClass = GetParam();
    TrueTypeSource src;
    ASSERT_TRUE(src.load(kFontFile)) << kFontFile << " is missing";
    const std::vector<uint8_t> header = src.pclxlFontHeader(charClass == 0, 2);

    XlWriter w;
    w.start();
    w.str("Liberation").a(attr::FontName).ub(0).a(attr::FontFormat).op(op::BeginFontHeader);
    // The header in two pieces, as drivers split long ones.
    const size_t half = header.size() / 2;
    std::vector<uint8_t> first(header.begin(), header.begin() + long(half)), second(header.begin() + long(half), header.end());
    w.u16(uint16_t(first.size())).a(attr::FontHeaderLength).op(op::ReadFontHeader).data(first);
    w.u16(uint16_t(second.size())).a(attr::FontHeaderLength).op(op::ReadFontHeader).data(second);
    w.op(op::EndFontHeader);
    w.str("Liberation").a(attr::FontName).op(op::BeginChar);
    for (char c : {'H', 'o'}) {
        const uint16_t id = src.glyphIndex(char32_t(c));
        ASSERT_NE(id, 0);
        const std::vector<uint8_t> g = src.glyph(id);
        std::vector<uint8_t> ch = {1, uint8_t(charClass)};
        TrueTypeSource::put16(ch, uint16_t(g.size() + (charClass == 1 ? 6 : 2)));
        if (charClass == 1) {
            const auto [advance, lsb] = src.metrics(id);
            TrueTypeSource::put16(ch, uint16_t(lsb));
            TrueTypeSource::put16(ch, advance);
        }
        TrueTypeSource::put16(ch, id);
        ch.insert(ch.end(), g.begin(), g.end());
        w.u16(uint16_t(c)).a(attr::CharCode).u16(uint16_t(ch.size())).a(attr::CharDataSize).op(op::ReadChar).data(ch);
    }
    w.op(op::EndChar);
    w.str("Liberation").a(attr::FontName).r32(120).a(attr::CharSize).u16(629).a(attr::SymbolSet).op(op::SetFont);
    w.s16Xy(300, 600).a(attr::Point).op(op::SetCursor);
    w.str("HoH").a(attr::TextData).op(op::Text);
    w.endPage().endSession();

    RecordingDevice dev;
    Diagnostics diag("tt.pxl", false);
    JobContext ctx{dev, diag, nullptr, {}};
    run(w.bytes.data(), w.bytes.size(), ctx);
    std::string lines;
    for (const std::string& l : diag.lines())
        lines += l + "\n";
    EXPECT_FALSE(diag.hasWarnings()) << lines;
    std::vector<std::string> masks;
    for (const std::string& c : dev.calls())
        if (c.rfind("mask", 0) == 0)
            masks.push_back(c);
    ASSERT_EQ(masks.size(), 3u) << dev.joined();
    // 120 units at 300 per inch is a 120-pixel em at 300 dpi: an H is about 86 x 86 pixels.
    int w0 = 0, h0 = 0, ink0 = 0;
    ASSERT_EQ(std::sscanf(masks[0].c_str(), "mask %dx%d ink=%d", &w0, &h0, &ink0), 3);
    EXPECT_NEAR(w0, 75, 8);
    EXPECT_NEAR(h0, 86, 4);
    EXPECT_GT(ink0, 1500);
    EXPECT_EQ(masks[0].substr(0, masks[0].find(" [")), masks[2].substr(0, masks[2].find(" [")));
    // The cursor moves by the font's advances: H (1479/2048 em) then o (1139/2048 em).
    double x0 = 0, x2 = 0, y0 = 0;
    ASSERT_EQ(std::sscanf(masks[0].c_str() + masks[0].find('[') + 1, "%*f %*f %*f %*f %lf %lf", &x0, &y0), 2);
    ASSERT_EQ(std::sscanf(masks[2].c_str() + masks[2].find('[') + 1, "%*f %*f %*f %*f %lf", &x2), 1);
    EXPECT_NEAR(x2 - x0, (1479.0 + 1139.0) / 2048.0 * 120 * 0.24, 0.5);
    // The glyph stands on the baseline at y = 144 pt: its top is about 0.69 em above.
    EXPECT_NEAR(y0, 144 - 0.69 * 28.8, 1.0);
}

INSTANTIATE_TEST_SUITE_P(Download, TrueType, ::testing::Values(0, 1),
                         [](const auto& info) { return "Class" + std::to_string(info.param); });

} // namespace
} // namespace qx::pclxl
