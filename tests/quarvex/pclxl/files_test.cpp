// Real PCL XL files from other producers, interpreted into a recording device.
//
// The files in data/ were made with Ghostscript's PCL XL output devices and with netpbm:
//   gs -q -dNOPAUSE -dBATCH -sDEVICE=pxlmono  -r300 -sOutputFile=shapes_mono.pxl shapes.ps
//   gs -q -dNOPAUSE -dBATCH -sDEVICE=pxlcolor -r300 -sOutputFile=shapes_color.pxl shapes.ps
//   gs ... -sDEVICE=pxlcolor -r300 -dCompressMode=3 -sOutputFile=shapes_color_delta.pxl shapes.ps
//   gs ... -sDEVICE=pxlcolor -r150 -dCompressMode=1|2|3 -sOutputFile=landscape_rgb_rle|jpeg|delta.pxl landscape_rgb.ps
//   pnmtopclxl checker.pbm > checker_pbm.pxl
//   pnmtopclxl -colorok gradient.ppm > gradient_ppm.pxl

#include "common/diagnostics.h"
#include "fonts/font_library.h"
#include "pclxl/pclxl.h"
#include "render/recording_device.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <map>

namespace qx::pclxl {
namespace {

class KeepingDevice : public RecordingDevice {
public:
    void drawImage(const Image& image, const Matrix& m, const Paint& t, const RenderState& rs) override {
        images.push_back(image);
        RecordingDevice::drawImage(image, m, t, rs);
    }
    std::vector<Image> images;
};

struct PageSummary {
    std::string begin;
    std::map<std::string, int> kinds;
    std::vector<std::string> calls;
};

struct FileRun {
    KeepingDevice dev;
    Diagnostics diag{"file", false};
    std::vector<uint8_t> bytes;
    size_t headerAt = 0;
    size_t used = 0;
    std::vector<PageSummary> pages;
};

void runFile(FileRun& r, const std::string& name, const FontLibrary* fonts) {
    std::ifstream f(std::string(PCLXL_TEST_DATA) + "/" + name, std::ios::binary);
    ASSERT_TRUE(f) << name;
    r.bytes.assign(std::istreambuf_iterator<char>(f), {});
    // The job loop hands over the data from the stream header on, past the PJL in front of it.
    const char* mark = " HP-PCL XL";
    size_t at = std::string::npos;
    for (size_t i = 1; i + 10 <= r.bytes.size(); ++i)
        if (std::memcmp(r.bytes.data() + i, mark, 10) == 0) {
            at = i - 1;
            break;
        }
    ASSERT_NE(at, std::string::npos);
    r.headerAt = at;
    JobContext ctx{r.dev, r.diag, fonts, {}};
    r.used = run(r.bytes.data() + at, r.bytes.size() - at, ctx);
    for (const std::string& c : r.dev.calls()) {
        if (c.rfind("beginPage", 0) == 0) {
            r.pages.push_back({c, {}, {}});
            continue;
        }
        if (c == "endPage" || r.pages.empty())
            continue;
        r.pages.back().kinds[c.substr(0, c.find(' '))]++;
        r.pages.back().calls.push_back(c);
    }
}

std::string warnings(const Diagnostics& d) {
    std::string s;
    for (const std::string& l : d.lines())
        s += l + "\n";
    return s;
}

using Kinds = std::map<std::string, int>;

// Everything up to the Universal Exit Language sequence at the end is used.
void expectUsedUpToTrailingUel(const FileRun& r) {
    const size_t end = r.headerAt + r.used;
    ASSERT_LE(end + 9, r.bytes.size());
    EXPECT_EQ(std::memcmp(r.bytes.data() + end, "\x1b%-12345X", 9), 0);
}

class GhostscriptShapes : public ::testing::TestWithParam<const char*> {};

TEST_P(GhostscriptShapes, TwoPagesOfTextLinesShapesAndAnImage) {
    FontLibrary fonts;
    FileRun r;
    runFile(r, GetParam(), &fonts);
    EXPECT_FALSE(r.diag.hasWarnings()) << warnings(r.diag);
    expectUsedUpToTrailingUel(r);
    ASSERT_EQ(r.pages.size(), 2u);
    EXPECT_EQ(r.pages[0].begin, "beginPage 595.28x841.89 dpi=300x300");
    EXPECT_EQ(r.pages[1].begin, "beginPage 595.28x841.89 dpi=300x300");
    // "Hello PCL XL": ten glyphs from a downloaded bitmap font; the rule, the grey box, the disc
    // and the 8x8 grey image.
    EXPECT_EQ(r.pages[0].kinds, (Kinds{{"mask", 10}, {"stroke", 1}, {"fill", 2}, {"image", 1}}));
    // "Second page" and a green square.
    EXPECT_EQ(r.pages[1].kinds, (Kinds{{"mask", 10}, {"fill", 1}}));
    // The rule: 72 pt from the left, 2 pt wide, 600 pt from the bottom of A4 at 300 dpi.
    EXPECT_EQ(r.pages[0].calls[10], "stroke w=1.92 #000000 rop=252 srcO patO M72,192 L499.92,192");
    EXPECT_EQ(r.pages[0].calls[11].substr(0, 15), "fill nz #7f7f7f");
    EXPECT_NE(r.pages[0].calls[11].find("M99.84,291.84 L300,291.84 L300,442.08 L99.84,442.08 Z"), std::string::npos);
    // The image: 8x8 grey, 64 pt square at (300, 200) from the bottom left.
    ASSERT_EQ(r.dev.images.size(), 1u);
    EXPECT_EQ(r.dev.images[0].format, Image::Format::Gray8);
    EXPECT_EQ(r.dev.images[0].data[1], 0x20);
    EXPECT_EQ(r.dev.images[0].data[56], 0xFF);
    EXPECT_EQ(r.dev.images[0].data[63], 0x88);
    EXPECT_NE(r.pages[0].calls[13].find("image 8x8 gray [8.01 0 0 8.01 300 577.92]"), std::string::npos);
    // All glyphs sit on the first line, between 72 and 220 pt across.
    for (int i = 0; i < 10; ++i) {
        const std::string& m = r.pages[0].calls[size_t(i)];
        ASSERT_EQ(m.rfind("mask", 0), 0u) << m;
        EXPECT_NE(m.find("[0.24 0 0 0.24 "), std::string::npos) << m;
    }
}

INSTANTIATE_TEST_SUITE_P(Files, GhostscriptShapes,
                         ::testing::Values("shapes_mono.pxl", "shapes_color.pxl", "shapes_color_delta.pxl"));

TEST(Files, MonoAndColourDifferOnlyInColour) {
    FontLibrary fonts;
    FileRun mono, color;
    runFile(mono, "shapes_mono.pxl", &fonts);
    runFile(color, "shapes_color.pxl", &fonts);
    ASSERT_EQ(mono.pages.size(), 2u);
    ASSERT_EQ(color.pages.size(), 2u);
    EXPECT_EQ(mono.pages[0].calls[12].substr(0, 15), "fill nz #464646");
    EXPECT_EQ(color.pages[0].calls[12].substr(0, 15), "fill nz #0000ff");
    EXPECT_EQ(color.pages[1].calls[10].substr(0, 15), "fill nz #00ff00");
    // The same geometry in both.
    EXPECT_EQ(mono.pages[0].calls[12].substr(15), color.pages[0].calls[12].substr(15));
}

class GhostscriptLandscape : public ::testing::TestWithParam<const char*> {};

TEST_P(GhostscriptLandscape, ColourImageAndCurveOnALandscapeLetterPage) {
    FileRun r;
    runFile(r, GetParam(), nullptr);
    EXPECT_FALSE(r.diag.hasWarnings()) << warnings(r.diag);
    expectUsedUpToTrailingUel(r);
    ASSERT_EQ(r.pages.size(), 1u);
    EXPECT_EQ(r.pages[0].begin, "beginPage 792x612 dpi=150x150");
    EXPECT_EQ(r.pages[0].kinds, (Kinds{{"stroke", 1}, {"image", 1}}));
    EXPECT_EQ(r.pages[0].calls[1], "stroke w=3.84 #ff0000 rop=252 srcO patO M399.84,312 C500.16,212.16 600,411.84 699.84,312");
    ASSERT_EQ(r.dev.images.size(), 1u);
    const Image& img = r.dev.images[0];
    ASSERT_EQ(img.format, Image::Format::Rgb24);
    ASSERT_EQ(img.width, 16);
    ASSERT_EQ(img.height, 12);
    // Every row runs from red to pale pink.
    for (int y = 0; y < 12; ++y) {
        const uint8_t* row = img.data.data() + img.stride * size_t(y);
        EXPECT_NEAR(row[0], 255, 12);
        EXPECT_NEAR(row[1], 0, 16);
        EXPECT_NEAR(row[15 * 3 + 1], 0xF0, 16);
    }
}

INSTANTIATE_TEST_SUITE_P(Files, GhostscriptLandscape,
                         ::testing::Values("landscape_rgb_rle.pxl", "landscape_rgb_jpeg.pxl", "landscape_rgb_delta.pxl"));

TEST(Files, NetpbmBitmapIsACheckerboard) {
    FileRun r;
    runFile(r, "checker_pbm.pxl", nullptr);
    EXPECT_FALSE(r.diag.hasWarnings()) << warnings(r.diag);
    ASSERT_EQ(r.pages.size(), 1u);
    EXPECT_EQ(r.pages[0].begin, "beginPage 612x792 dpi=300x300");
    // netpbm sends two blocks of 20 and 10 rows; they are drawn as one strip of 30.
    EXPECT_EQ(r.pages[0].kinds, (Kinds{{"image", 1}}));
    ASSERT_EQ(r.dev.images.size(), 1u);
    // Black squares of five pixels where (x/5 + y/5) is even.
    int wrong = 0;
    const Image& img = r.dev.images[0];
    ASSERT_EQ(img.height, 30);
    for (int y = 0; y < img.height; ++y)
        for (int x = 0; x < img.width; ++x) {
            const uint8_t want = (x / 5 + y / 5) % 2 == 0 ? 0 : 255;
            wrong += img.data[size_t(y) * img.stride + size_t(x)] != want;
        }
    EXPECT_EQ(wrong, 0);
}

TEST(Files, NetpbmColourImage) {
    FileRun r;
    runFile(r, "gradient_ppm.pxl", nullptr);
    EXPECT_FALSE(r.diag.hasWarnings()) << warnings(r.diag);
    ASSERT_EQ(r.dev.images.size(), 1u);
    const Image& img = r.dev.images[0];
    ASSERT_EQ(img.width, 20);
    ASSERT_EQ(img.height, 10);
    // Pixel (x, y) is (12x, 25y, 128).
    const uint8_t* p = img.data.data() + img.stride * 7 + 3 * 9;
    EXPECT_EQ(p[0], 108);
    EXPECT_EQ(p[1], 175);
    EXPECT_EQ(p[2], 128);
}

TEST(Files, TruncatedRealFileKeepsWhatCameBefore) {
    FontLibrary fonts;
    FileRun whole;
    runFile(whole, "shapes_color.pxl", &fonts);
    // Cut the file in the middle of the second page's text.
    FileRun cut;
    cut.bytes = whole.bytes;
    const size_t secondPage = whole.headerAt + 8156 - 1500;
    std::vector<uint8_t> part(cut.bytes.begin() + long(whole.headerAt), cut.bytes.begin() + long(secondPage));
    JobContext ctx{cut.dev, cut.diag, &fonts, {}};
    const size_t used = run(part.data(), part.size(), ctx);
    EXPECT_EQ(used, part.size());
    EXPECT_TRUE(cut.diag.hasWarnings());
    EXPECT_EQ(cut.dev.pageCount(), 2);
    EXPECT_NE(cut.diag.lines()[0].find("PCL XL: "), std::string::npos);
    EXPECT_NE(cut.diag.lines()[0].find(" at byte "), std::string::npos);
}

} // namespace
} // namespace qx::pclxl
