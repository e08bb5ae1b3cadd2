// HP-GL/2 plots against an independent reference of the same document: plotutils and gnuplot
// write each plot as a PCL job and as PostScript (tools/corpus/hpgl2_corpus.sh); Ghostscript
// renders the PostScript. The engine's page must carry the same ink in the same place: an ink F-score of
// at least the pair's floor in the manifest (never below 0.9), a pixel counting as matched when the other side has ink within one pixel, with no
// shift (both sides are placed on the Letter page by the producer itself).

#include "common/diagnostics.h"
#include "common/ink_score.h"
#include "common/pgm.h"
#include "common/job.h"
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

struct Grey {
    int width = 0, height = 0;
    std::vector<uint8_t> pixels;
    // Ink is darker than 200.
    qxtest::InkMask ink() const { return qxtest::inkOfGrey(pixels.data(), width, height, size_t(width), 200); }
};

Grey readPgm(const std::string& path) {
    qxtest::GreyPage g = qxtest::readPgm(path);
    return Grey{g.width, g.height, std::move(g.pixels)};
}

struct PageGrabber : PageSink {
    std::vector<Grey> pages;
    bool writePage(const RasterPage& page) override {
        Grey g;
        g.width = page.width;
        g.height = page.height;
        g.pixels.resize(size_t(g.width) * g.height);
        for (int y = 0; y < page.height; ++y)
            std::copy(page.row(y), page.row(y) + page.width, g.pixels.begin() + size_t(y) * g.width);
        pages.push_back(std::move(g));
        return true;
    }
};

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
        const Grey ref = readPgm((dir / "hpgl2" / (name + ".ref.pgm")).string());
        ASSERT_GT(ref.width, 0);
        PageGrabber sink;
        Diagnostics diag(name, false);
        qxtest::renderJob(pcl5::run, reinterpret_cast<const uint8_t*>(job.data()), job.size(), 8, dpi, &fonts(),
                          sink, diag);
        ASSERT_EQ(sink.pages.size(), 1u);
        const Grey& page = sink.pages[0];
        ASSERT_EQ(page.width, ref.width);
        ASSERT_EQ(page.height, ref.height);
        EXPECT_GE(floor, 0.9);
        const double f = qxtest::inkFScore(page.ink(), ref.ink());
        std::printf("%s: ink F-score %.4f (floor %.2f)\n", name.c_str(), f, floor);
        EXPECT_GE(f, floor);
    }
    EXPECT_GE(pairs, 5);
    std::filesystem::remove_all(dir);
}
