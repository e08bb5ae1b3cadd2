#include "fonts/font_library.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>
#include <string>

#include <unistd.h>

using namespace qx;
namespace fs = std::filesystem;

namespace {

const std::string kStageFonts = std::string(QX_STAGE_DIR) + "/fonts";

FontLibrary stagedOnly() { return FontLibrary({kStageFonts}, false); }

int fontFor(const FontLibrary& lib, int typeface, bool proportional, int weight = 0, int style = 0) {
    FontRequest rq;
    rq.typeface = typeface;
    rq.proportional = proportional;
    rq.weight = weight;
    rq.style = style;
    return lib.selectPcl(rq);
}

int bits(const Mask& m) {
    int n = 0;
    for (uint8_t b : m.bits)
        n += __builtin_popcount(b);
    return n;
}

} // namespace

TEST(FontLibrary, DefaultCourierComesFromTheStagedFolder) {
    FontLibrary lib = stagedOnly();
    const int i = lib.selectPcl(FontRequest{});
    ASSERT_GE(i, 0);
    EXPECT_EQ(lib.info(i).family, "Courier");
    EXPECT_FALSE(lib.info(i).proportional);
    EXPECT_EQ(lib.filePath(i), kStageFonts + "/NimbusMonoPS-Regular.otf");
    EXPECT_NEAR(lib.metrics(i).fixedAdvance, 0.6, 0.001);
}

TEST(FontLibrary, SelectsByPclAttributes) {
    FontLibrary lib = stagedOnly();
    const int arialBold = fontFor(lib, 16602, true, 3);
    ASSERT_GE(arialBold, 0);
    EXPECT_EQ(lib.info(arialBold).family, "Arial");
    EXPECT_TRUE(lib.info(arialBold).bold);
    EXPECT_EQ(fs::path(lib.filePath(arialBold)).filename(), "LiberationSans-Bold.ttf");

    const int timesItalic = fontFor(lib, 4101, true, 0, 1);
    EXPECT_EQ(lib.info(timesItalic).family, "CG Times");
    EXPECT_TRUE(lib.info(timesItalic).italic);

    // Spacing outranks typeface: a proportional request for Courier gets a proportional face.
    const int prop = fontFor(lib, 4099, true);
    EXPECT_TRUE(lib.info(prop).proportional);
    // An unknown typeface falls back to the first face of the right spacing.
    EXPECT_EQ(lib.info(fontFor(lib, 12345, false)).family, "Courier");
    EXPECT_EQ(lib.info(fontFor(lib, 0, false)).family, "Line Printer");
    EXPECT_EQ(lib.info(fontFor(lib, 4102, false, 3)).family, "Letter Gothic");
    EXPECT_TRUE(lib.info(fontFor(lib, 4102, false, 3)).bold);
}

TEST(FontLibrary, SelectsByPclXlName) {
    FontLibrary lib = stagedOnly();
    int i = lib.selectByName("Courier       Bd");
    ASSERT_GE(i, 0);
    EXPECT_EQ(lib.info(i).family, "Courier");
    EXPECT_TRUE(lib.info(i).bold);
    EXPECT_FALSE(lib.info(i).italic);
    i = lib.selectByName("Arial");
    EXPECT_EQ(lib.info(i).family, "Arial");
    EXPECT_FALSE(lib.info(i).bold);
    i = lib.selectByName("TimesNewRmnBdIt");
    EXPECT_EQ(lib.info(i).family, "Times New Roman");
    EXPECT_TRUE(lib.info(i).bold);
    EXPECT_TRUE(lib.info(i).italic);
    i = lib.selectByName("Helvetica       ");
    EXPECT_EQ(lib.info(i).family, "Helvetica");
    EXPECT_EQ(lib.selectByName("NoSuchFace"), -1);
    EXPECT_EQ(lib.selectByName(""), -1);
}

TEST(FontLibrary, SelectsByPjlFontNumber) {
    FontLibrary lib = stagedOnly();
    EXPECT_EQ(lib.info(lib.selectByNumber(0)).family, "Courier");
    EXPECT_EQ(lib.info(lib.selectByNumber(29)).family, "Arial");
    EXPECT_EQ(lib.selectByNumber(-1), -1);
    EXPECT_EQ(lib.selectByNumber(9999), -1);
}

TEST(FontLibrary, BundledFolderIsTwoFoldersUpFromTheExecutable) {
    // <prefix>/bin/quarvex looks in <prefix>/fonts; this test runs as <build>/tests/<name>/<name>.
    ::unsetenv("PCLFONTSOURCE");
    FontLibrary lib;
    ASSERT_EQ(lib.folders().size(), 1u);
    const fs::path exe = fs::read_symlink("/proc/self/exe");
    EXPECT_EQ(lib.folders().back(), (exe.parent_path().parent_path() / "fonts").string());
}

TEST(FontLibrary, FontSourceFolderComesFirst) {
    // A folder that holds a different file under Courier's file name wins over the staged one.
    const fs::path dir = fs::temp_directory_path() / ("qx_fontsource_" + std::to_string(::getpid()));
    fs::create_directories(dir);
    fs::copy_file(kStageFonts + "/DejaVuSansMono.ttf", dir / "NimbusMonoPS-Regular.otf",
                  fs::copy_options::overwrite_existing);
    ::setenv("PCLFONTSOURCE", dir.c_str(), 1);
    {
        FontLibrary lib;
        ASSERT_FALSE(lib.folders().empty());
        EXPECT_EQ(lib.folders().front(), dir.string());
        const int i = lib.selectPcl(FontRequest{});
        EXPECT_EQ(lib.filePath(i), (dir / "NimbusMonoPS-Regular.otf").string());
        // A face the folder lacks is found further down the order.
        const int arial = fontFor(lib, 16602, true);
        EXPECT_FALSE(lib.filePath(arial).empty());
        EXPECT_NE(fs::path(lib.filePath(arial)).parent_path(), dir);
    }
    ::unsetenv("PCLFONTSOURCE");
    fs::remove_all(dir);
}

TEST(FontLibrary, FontconfigStandsInWhenNoFolderHasTheFile) {
    FontLibrary lib({"/nonexistent/folder"}, true);
    const int i = lib.selectPcl(FontRequest{});
    ASSERT_GE(i, 0);
    EXPECT_FALSE(lib.filePath(i).empty());
    FontLibrary none({"/nonexistent/folder"}, false);
    EXPECT_EQ(none.selectPcl(FontRequest{}), -1);
    EXPECT_FALSE(none.available(0));
}

TEST(FontLibrary, RendersMonochromeGlyphsAtDeviceSize) {
    FontLibrary lib = stagedOnly();
    const int courier = lib.selectPcl(FontRequest{});
    // 12 point at 300 dpi: 50 pixels to the em, y flipped to device space.
    const Matrix m{50, 0, 0, -50, 0, 0};
    auto g = lib.renderGlyph(courier, U'H', m);
    ASSERT_TRUE(g.has_value());
    EXPECT_NEAR(g->advanceX, 30.0, 0.01);
    EXPECT_NEAR(g->advanceY, 0.0, 0.01);
    EXPECT_GT(g->mask.width, 10);
    EXPECT_LT(g->mask.width, 30);
    EXPECT_GT(g->mask.height, 20);
    EXPECT_LT(g->mask.height, 40);
    EXPECT_LT(g->top, -20); // the capital stands above the baseline
    EXPECT_GT(g->top + g->mask.height, -3);
    EXPECT_GT(bits(g->mask), 50);
    for (uint8_t b : g->mask.bits) // monochrome: the mask is whole bits, nothing more to check
        (void)b;

    // Twice the size, about twice the height.
    auto big = lib.renderGlyph(courier, U'H', Matrix{100, 0, 0, -100, 0, 0});
    ASSERT_TRUE(big.has_value());
    EXPECT_NEAR(big->mask.height, 2 * g->mask.height, 3);

    // Rotated a quarter turn: width and height swap.
    auto rot = lib.renderGlyph(courier, U'H', Matrix{0, -50, -50, 0, 0, 0});
    ASSERT_TRUE(rot.has_value());
    EXPECT_NEAR(rot->mask.width, g->mask.height, 2);
    EXPECT_NEAR(rot->mask.height, g->mask.width, 2);
    EXPECT_NEAR(rot->advanceY, -30.0, 0.01);

    // A space has an advance and no ink.
    auto space = lib.renderGlyph(courier, U' ', m);
    ASSERT_TRUE(space.has_value());
    EXPECT_EQ(bits(space->mask), 0);
    EXPECT_NEAR(space->advanceX, 30.0, 0.01);

    // No glyph: nothing.
    EXPECT_FALSE(lib.renderGlyph(courier, U'\U0001F600', m).has_value());
    EXPECT_FALSE(lib.renderGlyph(-1, U'H', m).has_value());
}

TEST(FontLibrary, ProportionalAdvancesDiffer) {
    FontLibrary lib = stagedOnly();
    const int arial = fontFor(lib, 16602, true);
    EXPECT_LT(lib.advance(arial, U'i'), lib.advance(arial, U'W'));
    EXPECT_NEAR(lib.advance(arial, U'W'), 0.944, 0.01);
    EXPECT_GT(lib.metrics(arial).ascent, 0.5);
    EXPECT_EQ(lib.metrics(arial).fixedAdvance, 0.0);
}

TEST(MemoryFace, OpensFontDataAndRendersByGlyphIndex) {
    std::ifstream in(kStageFonts + "/LiberationSans-Regular.ttf", std::ios::binary);
    std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), {});
    ASSERT_FALSE(data.empty());
    auto face = MemoryFace::open(data);
    ASSERT_TRUE(face);
    EXPECT_GT(face->glyphCount(), 100);
    // Some glyph past .notdef has an outline and an advance.
    bool drawn = false;
    for (uint32_t g = 1; g < 80 && !drawn; ++g) {
        auto bmp = face->renderGlyph(g, Matrix{50, 0, 0, -50, 0, 0});
        if (bmp && bmp->mask.width > 0 && bits(bmp->mask) > 20) {
            drawn = true;
            EXPECT_NEAR(bmp->advanceX, face->advance(g) * 50, 0.01);
        }
    }
    EXPECT_TRUE(drawn);
    EXPECT_FALSE(face->renderGlyph(1000000, Matrix{50, 0, 0, -50, 0, 0}).has_value());
    EXPECT_EQ(face->advance(1000000), 0.0);

    EXPECT_FALSE(MemoryFace::open({}));
    EXPECT_FALSE(MemoryFace::open(std::vector<uint8_t>(1000, 0x42)));
}
