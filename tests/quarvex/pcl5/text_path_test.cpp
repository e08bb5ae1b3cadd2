// The character text path (ESC&c#T): on the vertical rotated path full-width characters are set
// on their sides in their cells and take their vertical forms; every other character prints as
// on the horizontal path and the cursor still advances along the print direction.

#include "pcl5/pcl5.h"
#include "pcl5/text_path.h"

#include "common/diagnostics.h"
#include "fonts/font_library.h"
#include "render/recording_device.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace qx;

namespace {

const FontLibrary& pathFonts() {
    static FontLibrary lib({std::string(QX_STAGE_DIR) + "/fonts"}, false);
    return lib;
}

std::vector<std::string> recorded(const std::string& job) {
    RecordingDevice dev;
    Diagnostics diag("test", false);
    JobContext ctx{dev, diag, &pathFonts(), {}};
    pcl5::run(reinterpret_cast<const uint8_t*>(job.data()), job.size(), ctx);
    return dev.calls();
}

const std::string kEsc = "\x1b";

} // namespace

TEST(Pcl5TextPath, OtherCharactersPrintAsOnTheHorizontalPath) {
    // Latin text and a rule after it (which shows where the cursor went): the same calls on
    // both paths, in every print direction.
    const std::string text = "Vertical 123" + kEsc + "*c3a3b0P";
    for (const std::string direction : {"0", "90", "180", "270"}) {
        const std::string turn = kEsc + "&a" + direction + "P";
        const auto horizontal = recorded(turn + text);
        ASSERT_GT(horizontal.size(), 5u) << direction;
        EXPECT_EQ(recorded(turn + kEsc + "&c-1T" + text), horizontal) << direction;
        // Back to the horizontal path, and values other than 0 and -1 change nothing.
        EXPECT_EQ(recorded(turn + kEsc + "&c-1T" + kEsc + "&c0T" + text), horizontal) << direction;
        EXPECT_EQ(recorded(turn + kEsc + "&c5T" + text), horizontal) << direction;
    }
}

TEST(Pcl5TextPath, FullWidthCharactersAreTheOnesTurned) {
    EXPECT_TRUE(pcl5::isFullWidth(U'\u4E00'));  // an ideograph
    EXPECT_TRUE(pcl5::isFullWidth(U'\u3042'));  // hiragana
    EXPECT_TRUE(pcl5::isFullWidth(U'\uAC00'));  // hangul
    EXPECT_TRUE(pcl5::isFullWidth(U'\uFF21'));  // full-width A
    EXPECT_TRUE(pcl5::isFullWidth(U'\u3001'));  // ideographic comma
    EXPECT_FALSE(pcl5::isFullWidth(U'A'));
    EXPECT_FALSE(pcl5::isFullWidth(U'\u00E9'));
    EXPECT_FALSE(pcl5::isFullWidth(U'\uFF61')); // half-width katakana punctuation
    EXPECT_FALSE(pcl5::isFullWidth(U'\u2500')); // box drawing
}

TEST(Pcl5TextPath, PunctuationTakesItsVerticalForm) {
    EXPECT_EQ(pcl5::verticalSubstitute(U'\u3001'), U'\uFE11'); // ideographic comma
    EXPECT_EQ(pcl5::verticalSubstitute(U'\u3002'), U'\uFE12'); // ideographic full stop
    EXPECT_EQ(pcl5::verticalSubstitute(U'\uFF08'), U'\uFE35'); // full-width parentheses
    EXPECT_EQ(pcl5::verticalSubstitute(U'\uFF09'), U'\uFE36');
    EXPECT_EQ(pcl5::verticalSubstitute(U'\u300C'), U'\uFE41'); // corner brackets
    EXPECT_EQ(pcl5::verticalSubstitute(U'\u4E00'), U'\u4E00'); // ideographs stay as they are
    EXPECT_EQ(pcl5::verticalSubstitute(U'A'), U'A');
}

TEST(Pcl5TextPath, SidewaysCharactersTurnCounterclockwiseInTheirCell) {
    // A full-width cell one em wide, from 0.88 em above the baseline to 0.12 below (y down).
    const Matrix m = pcl5::sidewaysInCell(1, 1);
    const auto near = [](Point a, Point b) { return std::abs(a.x - b.x) < 1e-9 && std::abs(a.y - b.y) < 1e-9; };
    // The baseline now runs up the cell's right side...
    EXPECT_TRUE(near(m.apply({0, 0}), {0.88, 0.12}));
    EXPECT_TRUE(near(m.apply({1, 0}), {0.88, -0.88}));
    // ... and the top of the glyph faces left: the cell's top left corner goes to its bottom left.
    EXPECT_TRUE(near(m.apply({0, -0.88}), {0, 0.12}));
    // The cell maps onto itself: its centre stays.
    EXPECT_TRUE(near(m.apply({0.5, -0.38}), {0.5, -0.38}));
    // A quarter turn counterclockwise as seen on the page (y down): x goes to -y.
    EXPECT_TRUE(near(m.applyVector({1, 0}), {0, -1}));
    EXPECT_TRUE(near(m.applyVector({0, 1}), {1, 0}));
}
