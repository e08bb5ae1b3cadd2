// Outline glyphs against Ghostscript. Text set in a TrueType font that the job downloads (PCL XL
// and PCL 5) or in a resident TrueType font must come out as Ghostscript draws the same
// characters from the same font file at the same places: glyph by glyph, where the page puts
// them (no shift allowed), at 300 and 600 dpi. Every glyph stands in a cell of its own, its
// origin a sixth or a third of a pixel off the pixel grid, so that the rounding of the origin
// counts too.

#include "../pclxl/xl_writer.h"
#include "common/diagnostics.h"
#include "common/file_io.h"
#include "common/ink_score.h"
#include "common/pbm.h"
#include "common/render_job.h"
#include "fonts/font_library.h"
#include "pcl5/pcl5.h"
#include "pclxl/pclxl.h"
#include "render/raster_device.h"
#include "truetype_source.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace qx {
namespace {

namespace fs = std::filesystem;
using pclxl::test::XlWriter;
using test::TrueTypeSource;

constexpr const char* kLiberationSans = "/usr/share/fonts/truetype/liberation/LiberationSans-Regular.ttf";
constexpr const char* kLiberationSerif = "/usr/share/fonts/truetype/liberation/LiberationSerif-Regular.ttf";
constexpr const char* kDejaVuSans = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";
constexpr const char* kCharacters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
const std::vector<double> kSizes = {8, 10, 12}; // points

// Placement in units of 1/1800 inch (a third of a pixel at 600 dpi, a sixth at 300): one cell of
// 30 points a glyph, 16 to a row, each size on rows of its own.
constexpr int kUnits = 1800;
constexpr int kCell = 750;
constexpr int kColumns = 16;

struct Placed {
    char c;
    double size;
    int x, y; // the origin, in units from the top-left corner of the logical page
};

std::vector<Placed> layout(const std::string& chars) {
    std::vector<Placed> out;
    int row = 0;
    for (double size : kSizes) {
        for (size_t i = 0; i < chars.size(); ++i)
            out.push_back({chars[i], size, 900 + int(i % kColumns) * kCell + 1, 1800 + (row + int(i / kColumns)) * kCell + 1});
        row += int((chars.size() + kColumns - 1) / kColumns);
    }
    return out;
}

// The characters of kCharacters whose glyphs stand alone (a composite glyph would need its
// components downloaded as well).
std::string simpleCharacters(const TrueTypeSource& src) {
    std::string out;
    for (const char* c = kCharacters; *c; ++c) {
        const uint16_t id = src.glyphIndex(char32_t(*c));
        if (id != 0 && !src.composite(id))
            out += *c;
    }
    return out;
}

using Bitmap = qxtest::InkMask;

// With QX_GLYPH_DUMP set to a folder, the pages compared are written there to be looked at.
void dump(const Bitmap& b, const std::string& name) {
    const char* dir = std::getenv("QX_GLYPH_DUMP");
    if (dir && *dir && b.width > 0)
        qxtest::writePbm(b, fs::path(dir) / (name + ".pbm"));
}

// Ghostscript's rendering of the placed characters in the font file, on a Letter page whose
// logical page starts leftOffsetPt from the sheet's left edge.
Bitmap ghostscript(const std::string& fontFile, const std::vector<Placed>& glyphs, double dpi, double leftOffsetPt) {
    qx::test::ScratchDir s("qx_glyph_weight");
    if (s.dir.empty())
        return {};
    std::ofstream(s.dir / "Fontmap") << "/QxTestFont (" << fontFile << ") ;\n";
    {
        std::ofstream ps(s.dir / "text.ps");
        ps << "%!PS\n<< /PageSize [612 792] >> setpagedevice\n";
        char line[160];
        double size = 0;
        for (const Placed& g : glyphs) {
            if (g.size != size) {
                size = g.size;
                ps << "/QxTestFont findfont " << size << " scalefont setfont\n";
            }
            std::snprintf(line, sizeof line, "%.6f %.6f moveto (%c) show\n", leftOffsetPt + g.x * 72.0 / kUnits,
                          792 - g.y * 72.0 / kUnits, g.c);
            ps << line;
        }
        ps << "showpage\n";
    }
    const std::string cmd = "gs -q -dNOPAUSE -dBATCH -dSAFER -sFONTMAP=" + (s.dir / "Fontmap").string() +
                            " -sDEVICE=pbmraw -r" + std::to_string(int(dpi)) + " -sOutputFile=" +
                            (s.dir / "ref.pbm").string() + " " + (s.dir / "text.ps").string() + " 2>&1";
    if (std::system(cmd.c_str()) != 0)
        return {};
    return qxtest::readPbm(s.dir / "ref.pbm");
}

Bitmap render(const std::vector<uint8_t>& job, qxtest::Interpret interpret, double dpi, const FontLibrary* fonts,
              std::string& warnings) {
    qxtest::PageCollector sink;
    Diagnostics diag("glyphs", false);
    qxtest::renderJob(interpret, job.data(), job.size(), 1, dpi, fonts, sink, diag);
    for (const std::string& l : diag.lines())
        warnings += l + "\n";
    return sink.pages.size() == 1 ? qxtest::inkOfBilevelPage(sink.pages[0]) : Bitmap{};
}

// How the engine's glyphs compare with Ghostscript's, cell by cell.
struct Comparison {
    long inkOurs = 0, inkRef = 0, differing = 0;
    double worstF = 1;
    std::string worst;
    std::string report() const {
        std::ostringstream s;
        s << "ink " << inkOurs << " against " << inkRef << " (ratio " << double(inkOurs) / double(inkRef)
          << "), pixels differing " << differing << " (" << 100.0 * double(differing) / double(inkRef)
          << " % of the ink), lowest F-score " << worstF << " (" << worst << ")";
        return s.str();
    }
};

Comparison compare(const Bitmap& ours, const Bitmap& ref, const std::vector<Placed>& glyphs, double dpi,
                   double leftOffsetUnits) {
    Comparison c;
    const double px = dpi / kUnits;
    for (const Placed& g : glyphs) {
        const int x0 = int(std::floor((leftOffsetUnits + g.x - kCell / 4) * px));
        const int x1 = int(std::floor((leftOffsetUnits + g.x + kCell * 3 / 4) * px));
        const int y0 = int(std::floor((g.y - kCell * 3 / 4) * px));
        const int y1 = int(std::floor((g.y + kCell / 4) * px));
        for (int y = y0; y < y1; ++y)
            for (int x = x0; x < x1; ++x)
                c.differing += ours.at(x, y) != ref.at(x, y);
        const qxtest::InkMatch a = qxtest::matchInk(ours, ref, x0, y0, x1, y1);
        const qxtest::InkMatch b = qxtest::matchInk(ref, ours, x0, y0, x1, y1);
        c.inkOurs += a.ink;
        c.inkRef += b.ink;
        const double f = qxtest::inkFScore(a, b);
        if (f < c.worstF) {
            c.worstF = f;
            c.worst = std::string(1, g.c) + " at " + std::to_string(int(g.size)) + " pt";
        }
    }
    // Nothing may stand outside the cells either.
    long total = 0;
    for (uint8_t v : ours.ink)
        total += v;
    c.differing += total - c.inkOurs;
    return c;
}

// The share of the ink that may differ: none to speak of for TrueType, where both grid-fit by
// the font's instructions with FreeType; a little for PostScript outlines, which Ghostscript
// fills with a rasteriser of its own.
constexpr double kTrueTypeDifference = 0.005;
constexpr double kPostScriptDifference = 0.02;

void expectLikeGhostscript(const Bitmap& ours, const Bitmap& ref, const Comparison& c, std::string what,
                           double allowed = kTrueTypeDifference) {
    SCOPED_TRACE(what);
    std::replace(what.begin(), what.end(), ' ', '_');
    dump(ours, what);
    dump(ref, what + "_gs");
    std::printf("%s: %s\n", what.c_str(), c.report().c_str());
    ASSERT_GT(c.inkRef, 1000) << c.report();
    EXPECT_LE(double(c.differing), allowed * double(c.inkRef)) << c.report();
    EXPECT_NEAR(double(c.inkOurs) / double(c.inkRef), 1.0, allowed) << c.report();
    EXPECT_GE(c.worstF, 0.95) << c.report();
}

// ---------------------------------------------------------------- the jobs

std::vector<uint8_t> pclxlDownloadJob(const TrueTypeSource& src, const std::string& chars, const std::vector<Placed>& glyphs) {
    const std::vector<uint8_t> header = src.pclxlFontHeader(true, uint16_t(chars.size()));

    XlWriter w;
    w.beginSession(kUnits).openData().beginPage();
    w.str("QxTestFont").a(pclxl::attr::FontName).ub(0).a(pclxl::attr::FontFormat).op(pclxl::op::BeginFontHeader);
    for (size_t at = 0; at < header.size(); at += 16000) {
        const std::vector<uint8_t> piece(header.begin() + long(at), header.begin() + long(std::min(header.size(), at + 16000)));
        w.u16(uint16_t(piece.size())).a(pclxl::attr::FontHeaderLength).op(pclxl::op::ReadFontHeader).data(piece);
    }
    w.op(pclxl::op::EndFontHeader);
    w.str("QxTestFont").a(pclxl::attr::FontName).op(pclxl::op::BeginChar);
    for (char c : chars) {
        const uint16_t id = src.glyphIndex(char32_t(c));
        const std::vector<uint8_t> g = src.glyph(id);
        std::vector<uint8_t> ch = {1, 0};
        TrueTypeSource::put16(ch, uint16_t(g.size() + 2));
        TrueTypeSource::put16(ch, id);
        ch.insert(ch.end(), g.begin(), g.end());
        w.u16(uint16_t(c)).a(pclxl::attr::CharCode).u16(uint16_t(ch.size())).a(pclxl::attr::CharDataSize);
        w.op(pclxl::op::ReadChar).data(ch);
    }
    w.op(pclxl::op::EndChar);
    double size = 0;
    for (const Placed& g : glyphs) {
        if (g.size != size) {
            size = g.size;
            w.str("QxTestFont").a(pclxl::attr::FontName).r32(float(size * kUnits / 72)).a(pclxl::attr::CharSize);
            w.u16(629).a(pclxl::attr::SymbolSet).op(pclxl::op::SetFont);
        }
        w.u16Xy(uint16_t(g.x), uint16_t(g.y)).a(pclxl::attr::Point).op(pclxl::op::SetCursor);
        w.str(std::string(1, g.c)).a(pclxl::attr::TextData).op(pclxl::op::Text);
    }
    w.endPage().endSession();
    return w.bytes;
}

std::vector<uint8_t> pclxlResidentJob(const std::string& fontName, const std::vector<Placed>& glyphs) {
    XlWriter w;
    w.beginSession(kUnits).openData().beginPage();
    double size = 0;
    for (const Placed& g : glyphs) {
        if (g.size != size) {
            size = g.size;
            w.str(fontName).a(pclxl::attr::FontName).r32(float(size * kUnits / 72)).a(pclxl::attr::CharSize);
            w.u16(629).a(pclxl::attr::SymbolSet).op(pclxl::op::SetFont);
        }
        w.u16Xy(uint16_t(g.x), uint16_t(g.y)).a(pclxl::attr::Point).op(pclxl::op::SetCursor);
        w.str(std::string(1, g.c)).a(pclxl::attr::TextData).op(pclxl::op::Text);
    }
    w.endPage().endSession();
    return w.bytes;
}

void append(std::vector<uint8_t>& v, const std::string& s) { v.insert(v.end(), s.begin(), s.end()); }

// A format 15 font header with the global tables in its GT segment, class 15 characters, then
// every glyph placed with the cursor.
std::vector<uint8_t> pcl5DownloadJob(const TrueTypeSource& src, const std::string& chars, const std::vector<Placed>& glyphs) {
    std::vector<uint8_t> header(72, 0);
    header[1] = 72;
    header[2] = 15; // TrueType
    header[3] = 1;  // 8-bit codes
    header[13] = 1; // proportional
    header[14] = 277 >> 8; // Roman-8
    header[15] = 277 & 0xFF;
    header[64] = uint8_t(src.unitsPerEm() >> 8);
    header[65] = uint8_t(src.unitsPerEm());
    header[70] = 1;
    const std::vector<uint8_t> gt = src.globalData(true);
    header.push_back('G');
    header.push_back('T');
    TrueTypeSource::put16(header, uint16_t(gt.size()));
    header.insert(header.end(), gt.begin(), gt.end());
    header.insert(header.end(), {0xFF, 0xFF, 0, 0});

    std::vector<uint8_t> job;
    // Units of 1/1800 inch, and no top margin: the cursor's y counts from the top of the page.
    append(job, "\x1b" "E\x1b&u1800D\x1b&l0E\x1b*c7D\x1b)s" + std::to_string(header.size()) + "W");
    job.insert(job.end(), header.begin(), header.end());
    for (char c : chars) {
        const uint16_t id = src.glyphIndex(char32_t(c));
        const std::vector<uint8_t> g = src.glyph(id);
        std::vector<uint8_t> ch = {15, 0, 2, 15};
        TrueTypeSource::put16(ch, uint16_t(g.size() + 4));
        TrueTypeSource::put16(ch, id);
        ch.insert(ch.end(), g.begin(), g.end());
        append(job, "\x1b*c" + std::to_string(int(c)) + "E\x1b(s" + std::to_string(ch.size()) + "W");
        job.insert(job.end(), ch.begin(), ch.end());
    }
    append(job, "\x1b(7X");
    double size = 0;
    for (const Placed& g : glyphs) {
        if (g.size != size) {
            size = g.size;
            append(job, "\x1b(s" + std::to_string(int(size)) + "V");
        }
        append(job, "\x1b*p" + std::to_string(g.x) + "x" + std::to_string(g.y) + "Y" + std::string(1, g.c));
    }
    append(job, "\x1b" "E");
    return job;
}

// The logical page of a PCL 5 Letter portrait page begins a quarter inch from the sheet's edge.
constexpr double kPcl5LeftOffsetPt = 18;

class DownloadedTrueType : public ::testing::TestWithParam<std::tuple<const char*, int>> {};

TEST_P(DownloadedTrueType, PclXlGlyphsAreGhostscriptsGlyphs) {
    const auto [file, dpi] = GetParam();
    TrueTypeSource src;
    ASSERT_TRUE(src.load(file)) << file;
    const std::string chars = simpleCharacters(src);
    ASSERT_GE(chars.size(), 50u);
    const std::vector<Placed> glyphs = layout(chars);
    std::string warnings;
    const Bitmap ours = render(pclxlDownloadJob(src, chars, glyphs), pclxl::run, dpi, nullptr, warnings);
    EXPECT_TRUE(warnings.empty()) << warnings;
    const Bitmap ref = ghostscript(file, glyphs, dpi, 0);
    ASSERT_GT(ref.width, 0) << "Ghostscript did not render the reference";
    ASSERT_EQ(ours.width, ref.width);
    ASSERT_EQ(ours.height, ref.height);
    expectLikeGhostscript(ours, ref, compare(ours, ref, glyphs, dpi, 0),
                          "PCL XL " + fs::path(file).filename().string() + " " + std::to_string(dpi) + " dpi");
}

TEST_P(DownloadedTrueType, Pcl5GlyphsAreGhostscriptsGlyphs) {
    const auto [file, dpi] = GetParam();
    TrueTypeSource src;
    ASSERT_TRUE(src.load(file)) << file;
    const std::string chars = simpleCharacters(src);
    const std::vector<Placed> glyphs = layout(chars);
    std::string warnings;
    const Bitmap ours = render(pcl5DownloadJob(src, chars, glyphs), pcl5::run, dpi, nullptr, warnings);
    EXPECT_TRUE(warnings.empty()) << warnings;
    const Bitmap ref = ghostscript(file, glyphs, dpi, kPcl5LeftOffsetPt);
    ASSERT_GT(ref.width, 0) << "Ghostscript did not render the reference";
    ASSERT_EQ(ours.width, ref.width);
    ASSERT_EQ(ours.height, ref.height);
    expectLikeGhostscript(ours, ref, compare(ours, ref, glyphs, dpi, kPcl5LeftOffsetPt / 72 * kUnits),
                          "PCL 5 " + fs::path(file).filename().string() + " " + std::to_string(dpi) + " dpi");
}

INSTANTIATE_TEST_SUITE_P(Fonts, DownloadedTrueType,
                         ::testing::Combine(::testing::Values(kLiberationSans, kLiberationSerif, kDejaVuSans),
                                            ::testing::Values(300, 600)),
                         [](const auto& info) {
                             std::string name = fs::path(std::get<0>(info.param)).stem().string();
                             std::erase(name, '-');
                             return name + "_" + std::to_string(std::get<1>(info.param));
                         });

// Resident fonts by PCL XL name, from the font files that supply them: TrueType (Liberation)
// and PostScript outlines in OpenType files (URW).
void expectResidentLikeGhostscript(const std::string& folder, std::initializer_list<const char*> names, double allowed) {
    const FontLibrary fonts({folder}, false);
    for (const char* name : names) {
        const int index = fonts.selectByName(name);
        ASSERT_GE(index, 0) << name;
        const std::string file = fonts.filePath(index);
        ASSERT_FALSE(file.empty()) << name;
        const std::vector<Placed> glyphs = layout(kCharacters);
        for (int dpi : {300, 600}) {
            std::string warnings;
            const Bitmap ours = render(pclxlResidentJob(name, glyphs), pclxl::run, dpi, &fonts, warnings);
            EXPECT_TRUE(warnings.empty()) << warnings;
            const Bitmap ref = ghostscript(file, glyphs, dpi, 0);
            ASSERT_GT(ref.width, 0) << "Ghostscript did not render the reference";
            ASSERT_EQ(ours.width, ref.width);
            expectLikeGhostscript(ours, ref, compare(ours, ref, glyphs, dpi, 0),
                                  std::string("resident ") + name + " (" + fs::path(file).filename().string() + ") " +
                                      std::to_string(dpi) + " dpi",
                                  allowed);
        }
    }
}

TEST(ResidentOutlines, TrueTypeGlyphsAreGhostscriptsGlyphs) {
    expectResidentLikeGhostscript("/usr/share/fonts/truetype/liberation", {"Arial", "TimesNewRmn"}, kTrueTypeDifference);
}

TEST(ResidentOutlines, PostScriptGlyphsAreGhostscriptsGlyphs) {
    expectResidentLikeGhostscript("/usr/share/fonts/opentype/urw-base35", {"Helvetica", "CGTimes", "Courier"},
                                  kPostScriptDifference);
}

} // namespace
} // namespace qx
