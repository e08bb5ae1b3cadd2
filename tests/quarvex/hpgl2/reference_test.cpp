// HP-GL/2 plots against an independent reference of the same document: plotutils and gnuplot
// write each plot as a PCL job and as PostScript (tools/corpus/hpgl2_corpus.sh); Ghostscript
// renders the PostScript. The engine's page must carry the same ink in the same place: an ink
// F-score of at least the pair's floor in the manifest (never below 0.9), a pixel counting as
// matched when the other side has ink within one pixel, with no shift (both sides are placed on
// the Letter page by the producer itself).

#include "common/diagnostics.h"
#include "common/ink_score.h"
#include "common/pgm.h"
#include "common/job.h"
#include "common/page_collector.h"
#include "common/render_job.h"
#include "fonts/font_library.h"
#include "pcl5/pcl5.h"
#include "render/raster_device.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

using namespace qx;

namespace {

// Ink is darker than this, on both sides.
constexpr int kInkBelow = 200;

const FontLibrary& fonts() {
    static FontLibrary lib({std::string(QX_STAGE_DIR) + "/fonts"}, false);
    return lib;
}

} // namespace

TEST(Hpgl2Reference, PlotsMatchTheirPostScript) {
    const auto dir = std::filesystem::temp_directory_path() / ("qx_hpgl2_ref_" + std::to_string(getpid()));
    const std::string command =
        std::string("'") + QX_HPGL2_CORPUS_SCRIPT + "' '" + dir.string() + "' > /dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
    std::ifstream manifest(dir / "hpgl2" / "manifest.tsv");
    std::string name;
    int dpi = 0, pairs = 0;
    double floor = 0;
    while (manifest >> name >> dpi >> floor) {
        SCOPED_TRACE(name);
        ++pairs;
        std::ifstream in(dir / "hpgl2" / (name + ".pcl"), std::ios::binary);
        const std::string job{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        const qxtest::GreyPage ref = qxtest::readPgm((dir / "hpgl2" / (name + ".ref.pgm")).string());
        ASSERT_GT(ref.width, 0);
        qxtest::PageCollector sink;
        Diagnostics diag(name, false);
        qxtest::renderJob(pcl5::run, reinterpret_cast<const uint8_t*>(job.data()), job.size(), 8, dpi, &fonts(),
                          sink, diag);
        ASSERT_EQ(sink.pages.size(), 1u);
        const RasterPage& page = sink.pages[0];
        ASSERT_EQ(page.width, ref.width);
        ASSERT_EQ(page.height, ref.height);
        EXPECT_GE(floor, 0.9);
        const double f = qxtest::inkFScore(qxtest::inkOfGreyPage(page, kInkBelow), qxtest::inkOfGrey(ref.pixels.data(), ref.width, ref.height, size_t(ref.width), kInkBelow));
        std::printf("%s: ink F-score %.4f (floor %.2f)\n", name.c_str(), f, floor);
        EXPECT_GE(f, floor);
    }
    EXPECT_GE(pairs, 5);
    std::filesystem::remove_all(dir);
}
