// Real EMF input: metafiles that LibreOffice Draw and Inkscape exported from documents of ours,
// wrapped in an EMF spool file by tools/emf/make_spool.py (see tools/emf/make_emf_corpus.sh).
// The staged quarvex converts them at 150 dpi in grey; the references are Ghostscript's
// renderings of the PDF that the same program exported from the same document. Ink (darker than
// half grey) must agree with an F-score of at least 0.9 on every page, a pixel of tolerance
// either way, the pages lying where they are (no shift). The stand-in fonts have the same
// advance widths as the ones named, and the metafiles place each character, so what differs is
// glyph outline detail and edge rounding.

#include "common/ink_score.h"

#include <gtest/gtest.h>

#include <tiffio.h>
#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

const fs::path kData = fs::path(EMF_TEST_DATA);
const std::string kQuarvex = std::string(QX_STAGE_DIR) + "/bin/quarvex";

using InkPage = qxtest::InkMask;

// Every page of a TIFF as ink: 1-bit pages as they are, 8-bit grey below 128.
std::vector<InkPage> readInk(const fs::path& path) {
    std::vector<InkPage> pages;
    TIFFSetWarningHandler(nullptr);
    TIFF* tif = TIFFOpen(path.c_str(), "r");
    if (!tif)
        return pages;
    do {
        uint32_t w = 0, h = 0;
        uint16_t bps = 1, spp = 1, photometric = PHOTOMETRIC_MINISWHITE;
        TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &w);
        TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &h);
        TIFFGetFieldDefaulted(tif, TIFFTAG_BITSPERSAMPLE, &bps);
        TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLESPERPIXEL, &spp);
        TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &photometric);
        InkPage page{int(w), int(h)};
        std::vector<uint8_t> row(size_t(TIFFScanlineSize(tif)));
        for (uint32_t y = 0; y < h; ++y) {
            if (TIFFReadScanline(tif, row.data(), y) < 0)
                break;
            for (uint32_t x = 0; x < w; ++x) {
                int grey;
                if (bps == 1) {
                    const bool bit = (row[x >> 3] >> (7 - (x & 7))) & 1;
                    grey = (bit == (photometric == PHOTOMETRIC_MINISWHITE)) ? 0 : 255;
                } else if (spp >= 3) {
                    const uint8_t* p = row.data() + size_t(x) * spp;
                    grey = (299 * p[0] + 587 * p[1] + 114 * p[2]) / 1000;
                } else {
                    grey = photometric == PHOTOMETRIC_MINISWHITE ? 255 - row[x] : row[x];
                }
                page.ink[size_t(y) * w + x] = grey < 128;
            }
        }
        pages.push_back(std::move(page));
    } while (TIFFReadDirectory(tif));
    TIFFClose(tif);
    return pages;
}

fs::path scratchRoot() { return fs::temp_directory_path() / ("qx_emf_files_" + std::to_string(::getpid())); }

fs::path scratch() {
    fs::create_directories(scratchRoot());
    return scratchRoot();
}

struct RemoveScratch : testing::Environment {
    void TearDown() override { fs::remove_all(scratchRoot()); }
};
[[maybe_unused]] testing::Environment* const g_removeScratch = testing::AddGlobalTestEnvironment(new RemoveScratch);

// Unpacks a .gz data file into the scratch folder.
fs::path gunzip(const fs::path& gz) {
    const fs::path out = scratch() / gz.stem();
    gzFile in = gzopen(gz.c_str(), "rb");
    EXPECT_NE(in, nullptr);
    std::ofstream o(out, std::ios::binary);
    char buf[65536];
    int got;
    while (in && (got = gzread(in, buf, sizeof buf)) > 0)
        o.write(buf, got);
    if (in)
        gzclose(in);
    return out;
}

int convert(const fs::path& input, const fs::path& output, const std::vector<std::string>& options) {
    std::string cmd = "'" + kQuarvex + "'";
    for (const std::string& o : options)
        cmd += " " + o;
    cmd += " -o '" + output.string() + "' -i '" + input.string() + "' 2>'" + output.string() + ".log'";
    const int status = std::system(cmd.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void compareAll(const fs::path& input, const fs::path& reference, size_t expectedPages) {
    const fs::path out = scratch() / (input.filename().string() + ".tif");
    ASSERT_EQ(convert(input, out, {"-r", "150x150", "-b", "8"}), 0) << input;
    const std::vector<InkPage> ours = readInk(out), ref = readInk(reference);
    ASSERT_EQ(ours.size(), expectedPages);
    ASSERT_EQ(ref.size(), expectedPages);
    for (size_t i = 0; i < ours.size(); ++i) {
        EXPECT_NEAR(ours[i].width, ref[i].width, 2) << "page " << i + 1;
        EXPECT_NEAR(ours[i].height, ref[i].height, 2) << "page " << i + 1;
        const double f = qxtest::inkFScore(ours[i], ref[i], 1.0); // two blank pages agree
        std::printf("%s page %zu: ink F-score %.4f\n", input.filename().c_str(), i + 1, f);
        EXPECT_GE(f, 0.9) << input << " page " << i + 1;
    }
}

TEST(EmfFiles, SpoolOfLibreOfficeAndInkscapePagesMatchesTheirPdfs) {
    compareAll(gunzip(kData / "lo_inkscape_4pages.spl.gz"), kData / "lo_inkscape_4pages.ref.tif", 4);
}

TEST(EmfFiles, PlainEmfMatchesItsPdf) {
    compareAll(kData / "lo_rotated.emf", kData / "lo_rotated.ref.tif", 1);
}

TEST(EmfFiles, EveryOutputOptionWorks) {
    // Black and white with Group 4, fax, a given page width: all convert with status 0.
    const fs::path in = kData / "lo_rotated.emf";
    const fs::path dir = scratch();
    EXPECT_EQ(convert(in, dir / "bw.tif", {"-b", "1", "-c", "7"}), 0);
    EXPECT_EQ(convert(in, dir / "fax.tif", {"-faxtif", "1"}), 0);
    EXPECT_EQ(convert(in, dir / "gw.tif", {"-gw", "500"}), 0);
    const std::vector<InkPage> gw = readInk(dir / "gw.tif");
    ASSERT_EQ(gw.size(), 1u);
    EXPECT_EQ(gw[0].width, 500);
    EXPECT_EQ(gw[0].height, 647); // Letter's proportions
}

TEST(EmfFiles, XpsIsRefusedByName) {
    const fs::path dir = scratch();
    const fs::path xps = dir / "job.spl";
    std::ofstream(xps, std::ios::binary) << std::string("PK\x03\x04", 4) << std::string(26, '\0')
                                         << "FixedDocumentSequence.fdseq" << std::string(100, 'x');
    EXPECT_EQ(convert(xps, dir / "xps.tif", {}), 1);
    std::ifstream log(dir / "xps.tif.log");
    const std::string message((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>());
    EXPECT_NE(message.find("XPS"), std::string::npos) << message;
    EXPECT_FALSE(fs::exists(dir / "xps.tif"));
}

} // namespace
