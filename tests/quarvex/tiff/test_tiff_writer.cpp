// The TIFF writer, read back with libtiff: every depth with every compression, the tags, the
// page numbers of multi-page files, fax files and byte-identical repeats.

#include "tiff/tiff_writer.h"

#include <gtest/gtest.h>
#include <tiffio.h>

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using qx::RasterPage;
using qx::tiff::Compression;
using qx::tiff::TiffOptions;
using qx::tiff::TiffWriter;

namespace {

// Everything a run of these tests writes lies in one folder, removed when the tests end.
class RemoveTestFolder : public testing::Environment {
public:
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(fs::temp_directory_path() / ("qx_tiff_tests_" + std::to_string(::getpid())), ec);
    }
};
[[maybe_unused]] testing::Environment* const g_removeTestFolder =
    testing::AddGlobalTestEnvironment(new RemoveTestFolder);

fs::path tempDir() {
    fs::path dir = fs::temp_directory_path() / ("qx_tiff_tests_" + std::to_string(::getpid()));
    fs::create_directories(dir);
    return dir;
}

// A page with content that every codec has to keep: stripes, a gradient and noise.
RasterPage makePage(RasterPage::Format format, int width, int height, int seed) {
    RasterPage p;
    p.format = format;
    p.width = width;
    p.height = height;
    p.xdpi = 150;
    p.ydpi = 75;
    p.stride = format == RasterPage::Format::Bilevel ? (width + 7) / 8
             : format == RasterPage::Format::Gray8   ? width
                                                     : width * 3;
    p.stride += 3; // rows with padding: the writer must only take the pixels
    p.data.assign(p.stride * height, 0);
    uint32_t state = 12345u + seed;
    for (int y = 0; y < height; ++y) {
        uint8_t* row = p.data.data() + p.stride * y;
        for (int x = 0; x < width; ++x) {
            state = state * 1103515245u + 12345u;
            const uint8_t noise = static_cast<uint8_t>(state >> 16);
            const uint8_t v = (y / 7) % 3 == 0 ? static_cast<uint8_t>(x * 255 / width) : noise;
            switch (format) {
            case RasterPage::Format::Bilevel:
                if ((x / 5 + y / 3 + seed) % 2 == 0 || (y % 11 == 0 && noise & 1))
                    row[x / 8] |= static_cast<uint8_t>(0x80 >> (x % 8));
                break;
            case RasterPage::Format::Gray8:
                row[x] = v;
                break;
            case RasterPage::Format::Rgb24:
                row[x * 3] = v;
                row[x * 3 + 1] = static_cast<uint8_t>(255 - v);
                row[x * 3 + 2] = static_cast<uint8_t>(x ^ y ^ seed);
                break;
            }
        }
    }
    return p;
}

size_t rowBytes(const RasterPage& p) {
    switch (p.format) {
    case RasterPage::Format::Bilevel: return (p.width + 7) / 8;
    case RasterPage::Format::Gray8: return p.width;
    case RasterPage::Format::Rgb24: return p.width * 3;
    }
    return 0;
}

std::vector<uint8_t> fileBytes(const fs::path& path) {
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
}

uint16_t expectedCompressionTag(Compression c) {
    switch (c) {
    case Compression::None: return COMPRESSION_NONE;
    case Compression::PackBits: return COMPRESSION_PACKBITS;
    case Compression::Lzw:
    case Compression::LzwPredictor: return COMPRESSION_LZW;
    case Compression::G3OneD:
    case Compression::G3TwoD: return COMPRESSION_CCITTFAX3;
    case Compression::Deflate: return COMPRESSION_ADOBE_DEFLATE;
    case Compression::G4: return COMPRESSION_CCITTFAX4;
    }
    return 0;
}

bool write(const fs::path& path, const TiffOptions& options, const std::vector<RasterPage>& pages,
           std::string* error = nullptr) {
    TiffWriter w(options);
    if (!w.open(path.string()))
        return false;
    for (const RasterPage& p : pages)
        if (!w.writePage(p))
            return false;
    const bool ok = w.finish();
    if (error)
        *error = w.error();
    return ok && w.pageCount() == static_cast<int>(pages.size());
}

struct Case {
    RasterPage::Format format;
    int compression;
};

std::string caseName(const testing::TestParamInfo<Case>& info) {
    const char* f = info.param.format == RasterPage::Format::Bilevel ? "b1"
                  : info.param.format == RasterPage::Format::Gray8   ? "b8"
                                                                     : "b24";
    return std::string(f) + "_c" + std::to_string(info.param.compression);
}

class DepthCompression : public testing::TestWithParam<Case> {};

} // namespace

TEST_P(DepthCompression, RoundTripsPixelsAndTags) {
    const Case c = GetParam();
    const fs::path path = tempDir() / ("rt_" + caseName({c, 0}) + ".tif");
    TiffOptions opt;
    opt.compression = static_cast<Compression>(c.compression);
    opt.software = "quarvex 9.8.7";
    // Odd sizes: rows that do not fill whole bytes, strips that do not divide the page.
    std::vector<RasterPage> pages = {makePage(c.format, 203, 157, 1), makePage(c.format, 97, 311, 2),
                                     makePage(c.format, 64, 40, 3)};
    const std::vector<RasterPage> before = pages;
    ASSERT_TRUE(write(path, opt, pages));
    // The codecs read the page's own rows; none may write into them.
    for (size_t n = 0; n < pages.size(); ++n)
        EXPECT_TRUE(pages[n].data == before[n].data) << "page " << n;

    TIFF* t = TIFFOpen(path.string().c_str(), "r");
    ASSERT_NE(t, nullptr);
    ASSERT_EQ(TIFFNumberOfDirectories(t), 3);
    for (int n = 0; n < 3; ++n) {
        ASSERT_EQ(TIFFSetDirectory(t, static_cast<tdir_t>(n)), 1);
        const RasterPage& p = pages[n];
        uint32_t w = 0, h = 0, subfile = 99;
        uint16_t bps = 0, spp = 0, photo = 99, comp = 0, unit = 0, pageNo = 99, pageTotal = 99;
        float xres = 0, yres = 0;
        char* software = nullptr;
        char* datetime = nullptr;
        EXPECT_EQ(TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &w), 1);
        EXPECT_EQ(TIFFGetField(t, TIFFTAG_IMAGELENGTH, &h), 1);
        EXPECT_EQ(w, static_cast<uint32_t>(p.width));
        EXPECT_EQ(h, static_cast<uint32_t>(p.height));
        TIFFGetFieldDefaulted(t, TIFFTAG_BITSPERSAMPLE, &bps);
        TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLESPERPIXEL, &spp);
        EXPECT_EQ(TIFFGetField(t, TIFFTAG_PHOTOMETRIC, &photo), 1);
        EXPECT_EQ(TIFFGetField(t, TIFFTAG_COMPRESSION, &comp), 1);
        EXPECT_EQ(comp, expectedCompressionTag(opt.compression));
        switch (c.format) {
        case RasterPage::Format::Bilevel:
            EXPECT_EQ(bps, 1);
            EXPECT_EQ(spp, 1);
            EXPECT_EQ(photo, PHOTOMETRIC_MINISWHITE);
            break;
        case RasterPage::Format::Gray8:
            EXPECT_EQ(bps, 8);
            EXPECT_EQ(spp, 1);
            EXPECT_EQ(photo, PHOTOMETRIC_MINISBLACK);
            break;
        case RasterPage::Format::Rgb24:
            EXPECT_EQ(bps, 8);
            EXPECT_EQ(spp, 3);
            EXPECT_EQ(photo, PHOTOMETRIC_RGB);
            break;
        }
        if (opt.compression == Compression::G3OneD || opt.compression == Compression::G3TwoD) {
            uint32_t g3 = 0;
            EXPECT_EQ(TIFFGetField(t, TIFFTAG_GROUP3OPTIONS, &g3), 1);
            EXPECT_EQ(g3, opt.compression == Compression::G3OneD
                              ? uint32_t(GROUP3OPT_FILLBITS)
                              : uint32_t(GROUP3OPT_FILLBITS | GROUP3OPT_2DENCODING));
        }
        if (opt.compression == Compression::LzwPredictor && c.format != RasterPage::Format::Bilevel) {
            uint16_t pred = 0;
            EXPECT_EQ(TIFFGetField(t, TIFFTAG_PREDICTOR, &pred), 1);
            EXPECT_EQ(pred, PREDICTOR_HORIZONTAL);
        }
        EXPECT_EQ(TIFFGetField(t, TIFFTAG_RESOLUTIONUNIT, &unit), 1);
        EXPECT_EQ(unit, RESUNIT_INCH);
        EXPECT_EQ(TIFFGetField(t, TIFFTAG_XRESOLUTION, &xres), 1);
        EXPECT_EQ(TIFFGetField(t, TIFFTAG_YRESOLUTION, &yres), 1);
        EXPECT_FLOAT_EQ(xres, 150.f);
        EXPECT_FLOAT_EQ(yres, 75.f);
        EXPECT_EQ(TIFFGetField(t, TIFFTAG_PAGENUMBER, &pageNo, &pageTotal), 1);
        EXPECT_EQ(pageNo, n);
        EXPECT_EQ(pageTotal, 3);
        EXPECT_EQ(TIFFGetField(t, TIFFTAG_SUBFILETYPE, &subfile), 1);
        EXPECT_EQ(subfile, uint32_t(FILETYPE_PAGE));
        ASSERT_EQ(TIFFGetField(t, TIFFTAG_SOFTWARE, &software), 1);
        EXPECT_STREQ(software, "quarvex 9.8.7");
        EXPECT_EQ(TIFFGetField(t, TIFFTAG_DATETIME, &datetime), 0);

        std::vector<uint8_t> line(TIFFScanlineSize(t));
        ASSERT_EQ(line.size(), rowBytes(p));
        for (int y = 0; y < p.height; ++y) {
            ASSERT_EQ(TIFFReadScanline(t, line.data(), static_cast<uint32_t>(y), 0), 1);
            ASSERT_EQ(0, std::memcmp(line.data(), p.row(y), rowBytes(p))) << "page " << n << " row " << y;
        }
    }
    TIFFClose(t);
}

INSTANTIATE_TEST_SUITE_P(
    AllAllowed, DepthCompression,
    testing::Values(Case{RasterPage::Format::Bilevel, 0}, Case{RasterPage::Format::Bilevel, 1},
                    Case{RasterPage::Format::Bilevel, 2}, Case{RasterPage::Format::Bilevel, 3},
                    Case{RasterPage::Format::Bilevel, 4}, Case{RasterPage::Format::Bilevel, 5},
                    Case{RasterPage::Format::Bilevel, 6}, Case{RasterPage::Format::Bilevel, 7},
                    Case{RasterPage::Format::Gray8, 0}, Case{RasterPage::Format::Gray8, 1},
                    Case{RasterPage::Format::Gray8, 2}, Case{RasterPage::Format::Gray8, 3},
                    Case{RasterPage::Format::Gray8, 6}, Case{RasterPage::Format::Rgb24, 0},
                    Case{RasterPage::Format::Rgb24, 1}, Case{RasterPage::Format::Rgb24, 2},
                    Case{RasterPage::Format::Rgb24, 3}, Case{RasterPage::Format::Rgb24, 6}),
    caseName);

TEST(TiffWriter, SameInputGivesByteIdenticalFiles) {
    const fs::path dir = tempDir();
    for (int comp : {0, 2, 3, 5, 6, 7}) {
        const auto format = comp == 5 || comp == 7 ? RasterPage::Format::Bilevel : RasterPage::Format::Rgb24;
        TiffOptions opt;
        opt.compression = static_cast<Compression>(comp);
        opt.software = "quarvex 1.0";
        std::vector<RasterPage> pages = {makePage(format, 120, 80, 4), makePage(format, 120, 80, 5)};
        ASSERT_TRUE(write(dir / "a.tif", opt, pages));
        ASSERT_TRUE(write(dir / "b.tif", opt, pages));
        const auto a = fileBytes(dir / "a.tif");
        EXPECT_FALSE(a.empty());
        EXPECT_EQ(a, fileBytes(dir / "b.tif")) << "compression " << comp;
    }
}

TEST(TiffWriter, FaxFilesCarryTheClassFTags) {
    const fs::path dir = tempDir();
    for (int fax : {0, 1}) {
        for (int comp : {4, 5, 7, 6}) {
            TiffOptions opt;
            opt.compression = static_cast<Compression>(comp);
            opt.fax = fax;
            opt.software = "quarvex 1.0";
            RasterPage page = makePage(RasterPage::Format::Bilevel, 1728, 50, 6);
            page.xdpi = 300; // the fax resolution wins over what the page says
            page.ydpi = 300;
            const fs::path path = dir / "fax.tif";
            ASSERT_TRUE(write(path, opt, {page, page}));
            TIFF* t = TIFFOpen(path.string().c_str(), "r");
            ASSERT_NE(t, nullptr);
            ASSERT_EQ(TIFFNumberOfDirectories(t), 2);
            for (int n = 0; n < 2; ++n) {
                ASSERT_EQ(TIFFSetDirectory(t, static_cast<tdir_t>(n)), 1);
                uint16_t compTag = 0, photo = 0, unit = 0, pageNo = 0, total = 0, clean = 99;
                uint32_t width = 0, subfile = 0, bad = 99, consecutive = 99;
                float xres = 0, yres = 0;
                TIFFGetField(t, TIFFTAG_COMPRESSION, &compTag);
                TIFFGetField(t, TIFFTAG_PHOTOMETRIC, &photo);
                TIFFGetField(t, TIFFTAG_RESOLUTIONUNIT, &unit);
                TIFFGetField(t, TIFFTAG_PAGENUMBER, &pageNo, &total);
                TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &width);
                TIFFGetField(t, TIFFTAG_SUBFILETYPE, &subfile);
                TIFFGetField(t, TIFFTAG_XRESOLUTION, &xres);
                TIFFGetField(t, TIFFTAG_YRESOLUTION, &yres);
                EXPECT_EQ(compTag, comp == 7 ? COMPRESSION_CCITTFAX4 : COMPRESSION_CCITTFAX3)
                    << "-c " << comp << " (non-CCITT values fall back to Group 3 1-D)";
                if (comp != 7) {
                    uint32_t g3 = 0;
                    TIFFGetField(t, TIFFTAG_GROUP3OPTIONS, &g3);
                    EXPECT_EQ(g3 & GROUP3OPT_2DENCODING, comp == 5 ? uint32_t(GROUP3OPT_2DENCODING) : 0u);
                    EXPECT_NE(g3 & GROUP3OPT_FILLBITS, 0u);
                    EXPECT_EQ(TIFFGetField(t, TIFFTAG_BADFAXLINES, &bad), 1);
                    EXPECT_EQ(TIFFGetField(t, TIFFTAG_CLEANFAXDATA, &clean), 1);
                    EXPECT_EQ(TIFFGetField(t, TIFFTAG_CONSECUTIVEBADFAXLINES, &consecutive), 1);
                    EXPECT_EQ(bad, 0u);
                    EXPECT_EQ(clean, CLEANFAXDATA_CLEAN);
                    EXPECT_EQ(consecutive, 0u);
                }
                EXPECT_EQ(photo, PHOTOMETRIC_MINISWHITE);
                EXPECT_EQ(unit, RESUNIT_INCH);
                EXPECT_EQ(width, 1728u);
                EXPECT_EQ(subfile, uint32_t(FILETYPE_PAGE));
                EXPECT_EQ(pageNo, n);
                EXPECT_EQ(total, 2);
                EXPECT_FLOAT_EQ(xres, 204.f);
                EXPECT_FLOAT_EQ(yres, fax == 1 ? 196.f : 98.f);
                uint32_t rowsPerStrip = 0;
                TIFFGetField(t, TIFFTAG_ROWSPERSTRIP, &rowsPerStrip);
                EXPECT_EQ(rowsPerStrip, 50u) << "a fax page is one strip";
            }
            TIFFClose(t);
        }
    }
}

TEST(TiffWriter, ManyPagesAreNumberedInOrder) {
    const fs::path path = tempDir() / "many.tif";
    TiffOptions opt;
    opt.compression = Compression::G4;
    std::vector<RasterPage> pages;
    for (int i = 0; i < 40; ++i)
        pages.push_back(makePage(RasterPage::Format::Bilevel, 33 + i, 20, i));
    ASSERT_TRUE(write(path, opt, pages));
    TIFF* t = TIFFOpen(path.string().c_str(), "r");
    ASSERT_NE(t, nullptr);
    ASSERT_EQ(TIFFNumberOfDirectories(t), 40);
    for (int n = 0; n < 40; ++n) {
        ASSERT_EQ(TIFFSetDirectory(t, static_cast<tdir_t>(n)), 1);
        uint16_t pageNo = 0, total = 0;
        uint32_t w = 0;
        TIFFGetField(t, TIFFTAG_PAGENUMBER, &pageNo, &total);
        TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &w);
        EXPECT_EQ(pageNo, n);
        EXPECT_EQ(total, 40);
        EXPECT_EQ(w, uint32_t(33 + n));
    }
    TIFFClose(t);
}

TEST(TiffWriter, RefusesCcittForGreyAndColourPages) {
    const fs::path path = tempDir() / "bad.tif";
    for (int comp : {4, 5, 7}) {
        TiffOptions opt;
        opt.compression = static_cast<Compression>(comp);
        TiffWriter w(opt);
        ASSERT_TRUE(w.open(path.string()));
        EXPECT_FALSE(w.writePage(makePage(RasterPage::Format::Gray8, 10, 10, 0)));
        EXPECT_FALSE(w.error().empty());
        EXPECT_FALSE(w.finish());
        EXPECT_EQ(w.pageCount(), 0);
    }
}

TEST(TiffWriter, RefusesAPageWhoseBufferIsShort) {
    const fs::path path = tempDir() / "short.tif";
    TiffWriter w(TiffOptions{});
    ASSERT_TRUE(w.open(path.string()));
    RasterPage p = makePage(RasterPage::Format::Rgb24, 10, 10, 0);
    p.data.resize(p.data.size() / 2);
    EXPECT_FALSE(w.writePage(p));
    // Once failed, the writer takes no further pages.
    EXPECT_FALSE(w.writePage(makePage(RasterPage::Format::Rgb24, 10, 10, 0)));
    EXPECT_FALSE(w.finish());
}

TEST(TiffWriter, OpenFailsInAMissingFolder) {
    TiffWriter w(TiffOptions{});
    EXPECT_FALSE(w.open((tempDir() / "no" / "such" / "folder" / "x.tif").string()));
    EXPECT_FALSE(w.error().empty());
}

TEST(TiffWriter, WritesThroughADescriptorThatStaysOpen) {
    const fs::path path = tempDir() / "fd.tif";
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    TiffOptions opt;
    opt.compression = Compression::PackBits;
    TiffWriter w(opt);
    ASSERT_TRUE(w.open(fd, "fd.tif"));
    ASSERT_TRUE(w.writePage(makePage(RasterPage::Format::Gray8, 50, 40, 1)));
    ASSERT_TRUE(w.writePage(makePage(RasterPage::Format::Gray8, 60, 30, 2)));
    ASSERT_TRUE(w.finish()) << w.error();
    EXPECT_NE(::fcntl(fd, F_GETFD), -1) << "the caller's descriptor is still open";
    ::close(fd);
    TIFF* t = TIFFOpen(path.string().c_str(), "r");
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(TIFFNumberOfDirectories(t), 2);
    ASSERT_EQ(TIFFSetDirectory(t, 1), 1);
    uint16_t pageNo = 0, total = 0;
    TIFFGetField(t, TIFFTAG_PAGENUMBER, &pageNo, &total);
    EXPECT_EQ(pageNo, 1);
    EXPECT_EQ(total, 2);
    TIFFClose(t);
}

TEST(TiffWriter, BigTiffPagesAndTotals) {
    const fs::path dir = tempDir();
    for (int comp : {0, 3, 6, 7}) {
        const auto format = comp == 7 ? RasterPage::Format::Bilevel : RasterPage::Format::Rgb24;
        TiffOptions opt;
        opt.compression = static_cast<Compression>(comp);
        opt.software = "quarvex 1.0";
        opt.bigTiff = true;
        std::vector<RasterPage> pages = {makePage(format, 70, 30, 1), makePage(format, 80, 20, 2),
                                         makePage(format, 90, 10, 3)};
        const fs::path path = dir / "big.tif";
        ASSERT_TRUE(write(path, opt, pages));
        TIFF* t = TIFFOpen(path.string().c_str(), "r");
        ASSERT_NE(t, nullptr);
        EXPECT_TRUE(TIFFIsBigTIFF(t));
        ASSERT_EQ(TIFFNumberOfDirectories(t), 3);
        for (int n = 0; n < 3; ++n) {
            ASSERT_EQ(TIFFSetDirectory(t, static_cast<tdir_t>(n)), 1);
            uint16_t pageNo = 0, total = 0;
            TIFFGetField(t, TIFFTAG_PAGENUMBER, &pageNo, &total);
            EXPECT_EQ(pageNo, n);
            EXPECT_EQ(total, 3);
            std::vector<uint8_t> line(TIFFScanlineSize(t));
            for (int y = 0; y < pages[n].height; ++y) {
                ASSERT_EQ(TIFFReadScanline(t, line.data(), static_cast<uint32_t>(y), 0), 1);
                ASSERT_EQ(0, std::memcmp(line.data(), pages[n].row(y), rowBytes(pages[n])));
            }
        }
        TIFFClose(t);
    }
}
