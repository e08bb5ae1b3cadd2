// FreeType is opened with the first glyph: a process that has only set up its font library and
// chosen a font has not loaded it (a job that prints no text never does), drawing a glyph does,
// and the glyph comes out through the forwarders.

#include "fonts/font_library.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

using namespace qx;

namespace {

bool mapped(const std::string& soname) {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line))
        if (line.find(soname) != std::string::npos)
            return true;
    return false;
}

} // namespace

TEST(FreeTypeLibrary, OpenedByTheFirstGlyph) {
    ASSERT_FALSE(mapped("libfreetype.so")) << "the test itself must not link FreeType";
    FontLibrary lib({std::string(QX_STAGE_DIR) + "/fonts"}, false);
    EXPECT_FALSE(mapped("libfreetype.so")) << "setting up the font library opened FreeType";
    const int courier = lib.selectPcl(FontRequest{});
    ASSERT_GE(courier, 0);
    EXPECT_FALSE(mapped("libfreetype.so")) << "choosing a font opened FreeType";
    // A face whose file is in none of the folders is passed over (fontconfig is not asked).
    FontLibrary empty({"/nonexistent"}, false);
    EXPECT_LT(empty.selectPcl(FontRequest{}), 0);

    auto glyph = lib.renderGlyph(courier, U'H', Matrix{50, 0, 0, -50, 0, 0});
    EXPECT_TRUE(mapped("libfreetype.so"));
    ASSERT_TRUE(glyph.has_value());
    int ink = 0;
    for (uint8_t b : glyph->mask.bits)
        ink += __builtin_popcount(b);
    EXPECT_GT(ink, 50);
    // The font files were found in the folder, so fontconfig was never asked.
    EXPECT_FALSE(mapped("libfontconfig.so"));
}
