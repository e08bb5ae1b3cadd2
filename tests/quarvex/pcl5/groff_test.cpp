// Man pages set by groff for a LaserJet 4, against the place groff gave every glyph.
//
// tools/corpus/groff_corpus.sh (run as this test's fixture) makes each job with groff -Tlj4 and
// its reference: groff's layout of the same document drawn by Ghostscript, glyph by glyph, with
// the URW faces the engine also draws with. The job moves between words by relative amounts, so
// a glyph printed as the wrong character, with the wrong advance or not at all moves the rest of
// its line. Every page must reach an ink F-score of 0.9 with a one-pixel tolerance, with no
// shift: both sides are Letter pages at 300 dpi and groff's commands place the text.

#include "pcl5/pcl5.h"

#include "common/diagnostics.h"
#include "common/ink_score.h"
#include "common/render_job.h"
#include "fonts/font_library.h"
#include "render/raster_device.h"

#include <gtest/gtest.h>
#include <tiffio.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

using namespace qx;
namespace fs = std::filesystem;

namespace {

using Bitmap = qxtest::InkMask;

std::vector<Bitmap> readTiff(const std::string& path) {
    std::vector<Bitmap> pages;
    TIFF* tif = TIFFOpen(path.c_str(), "r");
    if (!tif)
        return pages;
    do {
        uint32_t w = 0, h = 0;
        uint16_t photometric = PHOTOMETRIC_MINISWHITE;
        TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &w);
        TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &h);
        TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &photometric);
        Bitmap b(static_cast<int>(w), static_cast<int>(h));
        std::vector<uint8_t> row(TIFFScanlineSize(tif));
        for (uint32_t y = 0; y < h; ++y) {
            TIFFReadScanline(tif, row.data(), y);
            qxtest::unpackInkBits(row.data(), b.width, b.row(int(y)), photometric == PHOTOMETRIC_MINISWHITE);
        }
        pages.push_back(std::move(b));
    } while (TIFFReadDirectory(tif));
    TIFFClose(tif);
    return pages;
}

std::vector<Bitmap> renderJob(const std::string& path, double dpi = 300) {
    std::ifstream in(path, std::ios::binary);
    const std::string job{std::istreambuf_iterator<char>(in), {}};
    static FontLibrary fonts({std::string(QX_STAGE_DIR) + "/fonts"}, false);
    qxtest::PageCollector sink;
    Diagnostics diag(path, false);
    qxtest::renderJob(pcl5::run, reinterpret_cast<const uint8_t*>(job.data()), job.size(), 1, dpi, &fonts, sink, diag);
    std::vector<Bitmap> pages;
    for (const RasterPage& p : sink.pages)
        pages.push_back(qxtest::inkOfBilevelPage(p));
    return pages;
}

} // namespace

// Each page of the job at a resolution against the reference pages made at it.
void expectPagesMatch(const std::string& job, const std::string& reference, double dpi) {
    const std::vector<Bitmap> want = readTiff(reference);
    const std::vector<Bitmap> got = renderJob(job, dpi);
    ASSERT_FALSE(want.empty()) << reference;
    ASSERT_EQ(got.size(), want.size()) << job;
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].width, want[i].width) << job << " page " << i + 1;
        EXPECT_EQ(got[i].height, want[i].height) << job << " page " << i + 1;
        const double f = qxtest::inkFScore(got[i], want[i], 1.0); // two blank pages agree
        EXPECT_GE(f, 0.9) << job << " page " << i + 1 << " at " << dpi << " dpi";
        std::printf("%s page %zu at %g dpi: ink F-score %.4f\n", fs::path(job).stem().c_str(), i + 1, dpi, f);
    }
}

TEST(Pcl5Groff, ManPagesPutEveryGlyphWhereGroffPlacedIt) {
    const fs::path dir = QX_GROFF_CORPUS_DIR;
    std::vector<fs::path> refs;
    if (fs::is_directory(dir / "ref"))
        for (const auto& e : fs::directory_iterator(dir / "ref"))
            if (e.path().filename().string().rfind("groff-", 0) == 0 && e.path().extension() == ".tif")
                refs.push_back(e.path());
    std::sort(refs.begin(), refs.end());
    // ls(1), cp(1) and groff_char(7), whose tables show every character groff knows; the
    // fixture skips a man page the system does not have, but not all of them.
    ASSERT_FALSE(refs.empty()) << "the fixture made no documents in " << dir;
    for (const fs::path& ref : refs)
        expectPagesMatch((dir / "pcl5" / (ref.stem().string() + ".pcl")).string(), ref.string(), 300);
}

TEST(Pcl5Groff, LowestAndHighestResolutions) {
    const fs::path dir = QX_GROFF_CORPUS_DIR;
    const std::string job = (dir / "pcl5" / "groff-ls.pcl").string();
    if (!fs::exists(job))
        GTEST_SKIP() << "the system has no ls(1) man page";
    for (int dpi : {75, 600})
        expectPagesMatch(job, (dir / "src" / ("groff-ls-at" + std::to_string(dpi) + ".tif")).string(), dpi);
}
