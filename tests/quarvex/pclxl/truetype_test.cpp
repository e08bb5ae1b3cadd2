// Downloaded TrueType fonts: a real font file is cut into the pieces a driver sends (the global
// tables in the font header, one glyph per character) and drawn back.

#include "common/diagnostics.h"
#include "pclxl/pclxl.h"
#include "render/recording_device.h"
#include "xl_writer.h"

#include <ft2build.h>
#include FT_FREETYPE_H

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>

namespace qx::pclxl {
namespace {

using test::XlWriter;

constexpr const char* kFontFile = "/usr/share/fonts/truetype/liberation/LiberationSans-Regular.ttf";

uint16_t be16(const std::vector<uint8_t>& v, size_t at) { return uint16_t(v.at(at) << 8 | v.at(at + 1)); }
uint32_t be32(const std::vector<uint8_t>& v, size_t at) {
    return uint32_t(v.at(at)) << 24 | uint32_t(v.at(at + 1)) << 16 | uint32_t(v.at(at + 2)) << 8 | v.at(at + 3);
}
void put16(std::vector<uint8_t>& v, uint16_t x) {
    v.push_back(uint8_t(x >> 8));
    v.push_back(uint8_t(x));
}
void put32(std::vector<uint8_t>& v, uint32_t x) {
    put16(v, uint16_t(x >> 16));
    put16(v, uint16_t(x));
}

struct SourceFont {
    std::vector<uint8_t> file;
    std::map<std::string, std::pair<uint32_t, uint32_t>> tables; // offset, length

    bool load() {
        std::ifstream f(kFontFile, std::ios::binary);
        if (!f)
            return false;
        file.assign(std::istreambuf_iterator<char>(f), {});
        const uint16_t n = be16(file, 4);
        for (uint16_t i = 0; i < n; ++i) {
            const size_t rec = 12 + size_t(i) * 16;
            tables[std::string(reinterpret_cast<const char*>(&file[rec]), 4)] = {be32(file, rec + 8), be32(file, rec + 12)};
        }
        return true;
    }

    // The global TrueType data a driver sends: a table directory of its own with the tables
    // the printer needs, glyph outlines left out.
    std::vector<uint8_t> globalData(bool withMetrics) const {
        std::vector<std::string> wanted = {"cvt ", "fpgm", "head", "hhea", "hmtx", "maxp", "prep"};
        if (!withMetrics)
            wanted = {"cvt ", "fpgm", "head", "maxp", "prep"};
        std::vector<std::string> present;
        for (const std::string& t : wanted)
            if (tables.count(t))
                present.push_back(t);
        std::vector<uint8_t> out;
        put32(out, 0x00010000);
        put16(out, uint16_t(present.size()));
        put16(out, 0);
        put16(out, 0);
        put16(out, 0);
        size_t dataAt = 12 + present.size() * 16;
        std::vector<uint8_t> body;
        for (const std::string& t : present) {
            const auto [off, len] = tables.at(t);
            out.insert(out.end(), t.begin(), t.end());
            put32(out, 0);
            put32(out, uint32_t(dataAt + body.size()));
            put32(out, len);
            body.insert(body.end(), file.begin() + off, file.begin() + off + len);
            while (body.size() % 4)
                body.push_back(0);
        }
        out.insert(out.end(), body.begin(), body.end());
        return out;
    }

    // Advance width and left side bearing of a glyph.
    std::pair<uint16_t, int16_t> metrics(uint16_t id) const {
        const uint16_t count = be16(file, tables.at("hhea").first + 34);
        const uint32_t hmtx = tables.at("hmtx").first;
        const uint16_t advance = be16(file, hmtx + size_t(std::min<uint16_t>(id, uint16_t(count - 1))) * 4);
        const int16_t lsb = int16_t(id < count ? be16(file, hmtx + size_t(id) * 4 + 2)
                                               : be16(file, hmtx + size_t(count) * 4 + size_t(id - count) * 2));
        return {advance, lsb};
    }

    std::vector<uint8_t> glyph(uint16_t id) const {
        const auto [headOff, headLen] = tables.at("head");
        (void)headLen;
        const bool longLoca = be16(file, headOff + 50) == 1;
        const uint32_t loca = tables.at("loca").first, glyf = tables.at("glyf").first;
        uint32_t a, b;
        if (longLoca) {
            a = be32(file, loca + size_t(id) * 4);
            b = be32(file, loca + size_t(id) * 4 + 4);
        } else {
            a = uint32_t(be16(file, loca + size_t(id) * 2)) * 2;
            b = uint32_t(be16(file, loca + size_t(id) * 2 + 2)) * 2;
        }
        return std::vector<uint8_t>(file.begin() + glyf + a, file.begin() + glyf + b);
    }
};

uint16_t glyphIndex(char32_t c) {
    FT_Library lib;
    FT_Init_FreeType(&lib);
    FT_Face face;
    uint16_t id = 0;
    if (FT_New_Face(lib, kFontFile, 0, &face) == 0) {
        id = uint16_t(FT_Get_Char_Index(face, c));
        FT_Done_Face(face);
    }
    FT_Done_FreeType(lib);
    return id;
}

// Class 0 characters rely on the metrics tables of the header; class 1 characters bring their
// own metrics to a header without them.
class TrueType : public ::testing::TestWithParam<int> {};

TEST_P(TrueType, DownloadedGlyphsAreDrawnWithTheirAdvances) {
    const int charClass = GetParam();
    SourceFont src;
    ASSERT_TRUE(src.load()) << kFontFile << " is missing";
    std::vector<uint8_t> header = {0, 0, 0x02, 0x75, 1, 0, 0, 2};
    const std::vector<uint8_t> gt = src.globalData(charClass == 0);
    header.push_back('G');
    header.push_back('T');
    put32(header, uint32_t(gt.size()));
    header.insert(header.end(), gt.begin(), gt.end());
    header.insert(header.end(), {0xFF, 0xFF, 0, 0, 0, 0});

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
        const uint16_t id = glyphIndex(char32_t(c));
        ASSERT_NE(id, 0);
        const std::vector<uint8_t> g = src.glyph(id);
        std::vector<uint8_t> ch = {1, uint8_t(charClass)};
        put16(ch, uint16_t(g.size() + (charClass == 1 ? 6 : 2)));
        if (charClass == 1) {
            const auto [advance, lsb] = src.metrics(id);
            put16(ch, uint16_t(lsb));
            put16(ch, advance);
        }
        put16(ch, id);
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
