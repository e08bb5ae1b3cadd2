// Strips compressed apart from the file: the bytes are the ones libtiff writes row by row, with
// or without the helper thread, and strips of one colour are compressed once however many pages
// repeat them.

#include "tiff/strip_encoder.h"
#include "tiff/tiff_writer.h"

#include <gtest/gtest.h>
#include <tiffio.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;
using qx::RasterPage;
using namespace qx::tiff;

namespace {

fs::path tempFile(const std::string& name) {
    fs::path dir = fs::temp_directory_path() / ("qx_strip_tests_" + std::to_string(::getpid()));
    fs::create_directories(dir);
    return dir / name;
}

struct RemoveFolder : testing::Environment {
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(fs::temp_directory_path() / ("qx_strip_tests_" + std::to_string(::getpid())), ec);
    }
};
[[maybe_unused]] testing::Environment* const g_remove = testing::AddGlobalTestEnvironment(new RemoveFolder);

RasterPage page(RasterPage::Format f, int w, int h, bool blank, int seed = 1) {
    RasterPage p;
    p.format = f;
    p.width = w;
    p.height = h;
    p.stride = f == RasterPage::Format::Bilevel ? size_t(w + 7) / 8 : size_t(w) * (f == RasterPage::Format::Gray8 ? 1 : 3);
    p.data.assign(p.stride * size_t(h), f == RasterPage::Format::Bilevel ? 0 : 255);
    if (!blank) {
        uint32_t s = 99u + uint32_t(seed);
        // Ink in the middle third only: blank strips above and below, busy ones between.
        for (int y = h / 3; y < 2 * h / 3; ++y)
            for (size_t i = 0; i < p.stride; ++i) {
                s = s * 1103515245u + 12345u;
                if ((s >> 20) % 4 == 0)
                    p.data[size_t(y) * p.stride + i] = uint8_t(s >> 24);
            }
        if (f == RasterPage::Format::Bilevel && w % 8)
            for (int y = 0; y < h; ++y)
                p.data[size_t(y) * p.stride + p.stride - 1] &= uint8_t(0xFF << (8 - w % 8));
    }
    return p;
}

// Every strip of every page of a TIFF file, as stored.
std::vector<std::vector<uint8_t>> rawStrips(const fs::path& file) {
    std::vector<std::vector<uint8_t>> out;
    TIFF* t = TIFFOpen(file.c_str(), "r");
    if (!t)
        return out;
    do {
        for (uint32_t s = 0; s < TIFFNumberOfStrips(t); ++s) {
            std::vector<uint8_t> b(size_t(TIFFRawStripSize(t, s)));
            TIFFReadRawStrip(t, s, b.data(), tmsize_t(b.size()));
            out.push_back(std::move(b));
        }
    } while (TIFFReadDirectory(t));
    TIFFClose(t);
    return out;
}

// The same pages written row by row with libtiff alone, with the tags that shape the strips.
void writeByRows(const fs::path& file, const std::vector<RasterPage>& pages, Compression c) {
    TIFF* t = TIFFOpen(file.c_str(), "w");
    ASSERT_NE(t, nullptr);
    for (const RasterPage& p : pages) {
        const bool bilevel = p.format == RasterPage::Format::Bilevel;
        const int samples = p.format == RasterPage::Format::Rgb24 ? 3 : 1;
        const size_t rowBytes = bilevel ? size_t(p.width + 7) / 8 : size_t(p.width) * samples;
        TIFFSetField(t, TIFFTAG_IMAGEWIDTH, uint32_t(p.width));
        TIFFSetField(t, TIFFTAG_IMAGELENGTH, uint32_t(p.height));
        TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, uint16_t(bilevel ? 1 : 8));
        TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, uint16_t(samples));
        TIFFSetField(t, TIFFTAG_PHOTOMETRIC, bilevel ? PHOTOMETRIC_MINISWHITE
                                           : samples == 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK);
        TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
        TIFFSetField(t, TIFFTAG_FILLORDER, FILLORDER_MSB2LSB);
        switch (c) {
        case Compression::PackBits: TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_PACKBITS); break;
        case Compression::LzwPredictor:
            TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_LZW);
            if (!bilevel)
                TIFFSetField(t, TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL);
            break;
        case Compression::Deflate:
            TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
            TIFFSetField(t, TIFFTAG_ZIPQUALITY, 6);
            break;
        case Compression::G4: TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_CCITTFAX4); break;
        default: FAIL() << "compression not covered here";
        }
        const size_t perStrip = std::max<size_t>(1, 65536 / rowBytes);
        TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, uint32_t(std::min<size_t>(perStrip, size_t(p.height))));
        std::vector<uint8_t> row(rowBytes);
        for (int y = 0; y < p.height; ++y) {
            std::memcpy(row.data(), p.row(y), rowBytes);
            ASSERT_EQ(TIFFWriteScanline(t, row.data(), uint32_t(y), 0), 1);
        }
        TIFFWriteDirectory(t);
    }
    TIFFClose(t);
}

struct Case {
    RasterPage::Format format;
    Compression compression;
};

} // namespace

TEST(StripEncoder, StripsAreTheBytesLibtiffWritesRowByRow) {
    const Case cases[] = {{RasterPage::Format::Rgb24, Compression::Deflate},
                          {RasterPage::Format::Rgb24, Compression::LzwPredictor},
                          {RasterPage::Format::Gray8, Compression::PackBits},
                          {RasterPage::Format::Gray8, Compression::Deflate},
                          {RasterPage::Format::Bilevel, Compression::G4},
                          {RasterPage::Format::Bilevel, Compression::Deflate}};
    for (const Case& c : cases) {
        std::vector<RasterPage> pages = {page(c.format, 1203, 700, false, 1), page(c.format, 1203, 700, true),
                                         page(c.format, 1203, 700, false, 2)};
        const fs::path reference = tempFile("rows.tif");
        writeByRows(reference, pages, c.compression);
        for (bool threads : {false, true}) {
            const fs::path mine = tempFile("strips.tif");
            TiffOptions o;
            o.compression = c.compression;
            TiffWriter w(o);
            w.setThreads(threads);
            ASSERT_TRUE(w.open(mine.string()));
            for (const RasterPage& p : pages)
                ASSERT_TRUE(w.writePage(p));
            ASSERT_TRUE(w.finish());
            const auto a = rawStrips(mine), b = rawStrips(reference);
            ASSERT_EQ(a.size(), b.size());
            for (size_t i = 0; i < a.size(); ++i)
                ASSERT_TRUE(a[i] == b[i]) << "strip " << i << " format " << int(c.format) << " compression "
                                          << int(c.compression) << (threads ? " threads" : "");
            if (c.format != RasterPage::Format::Bilevel) { // 1-bit pages here: two strips, both inked
                EXPECT_GT(w.stripStats().stripsReused, 0u);
            }
        }
    }
}

TEST(StripEncoder, BlankPagesCompressEachStripOnce) {
    for (Compression c : {Compression::Deflate, Compression::PackBits}) {
        TiffOptions o;
        o.compression = c;
        TiffWriter w(o);
        ASSERT_TRUE(w.open(tempFile("blank.tif").string()));
        const RasterPage blank = page(RasterPage::Format::Rgb24, 2550, 3300, true); // Letter at 300 dpi
        for (int i = 0; i < 60; ++i)
            ASSERT_TRUE(w.writePage(blank));
        ASSERT_TRUE(w.finish());
        const uint64_t strips = 60 * ((3300 + 7) / 8); // 8 rows of 7650 bytes a strip
        // One strip of 8 white rows and the shorter last one: compressed once each.
        EXPECT_LE(w.stripStats().stripsEncoded, 2u);
        EXPECT_EQ(w.stripStats().stripsEncoded + w.stripStats().stripsReused, strips);
        EXPECT_LE(w.stripStats().bytesEncoded, uint64_t(16) * 7650);
    }
}

TEST(StripEncoder, PagesSayWhichRowsAreBlank) {
    TiffOptions o;
    o.compression = Compression::Deflate;
    TiffWriter w(o);
    ASSERT_TRUE(w.open(tempFile("ink.tif").string()));
    RasterPage p = page(RasterPage::Format::Gray8, 1000, 2000, false);
    p.inkTop = 2000 / 3;
    p.inkBottom = 2 * 2000 / 3;
    ASSERT_TRUE(w.writePage(p));
    ASSERT_TRUE(w.finish());
    // 65 rows a strip: the eleven strips that reach into rows 666 to 1332 run through the codec,
    // and of the blank ones only the first full strip and the short last one (50 rows).
    EXPECT_EQ(w.stripStats().bytesEncoded, uint64_t(11 * 65 + 65 + 50) * 1000);
}

TEST(StripEncoder, OneColourStripsAreFound) {
    StripLayout l;
    l.rowsPerStrip = 4;
    l.height = 4;
    l.width = 5;
    l.rowBytes = l.stride = 15;
    l.pixelBytes = 3;
    std::vector<uint8_t> rows(60);
    for (size_t i = 0; i < rows.size(); i += 3) {
        rows[i] = 10;
        rows[i + 1] = 20;
        rows[i + 2] = 30;
    }
    UniformKey k;
    EXPECT_TRUE(uniformStrip(l, rows.data(), 4, k));
    EXPECT_EQ(k.pixel[2], 30);
    rows[50] = 11; // one pixel of another colour
    EXPECT_FALSE(uniformStrip(l, rows.data(), 4, k));
    EXPECT_TRUE(uniformStrip(l, rows.data(), 3, k));

    StripLayout b; // 1-bit rows of 12 pixels: the last byte holds four
    b.rowsPerStrip = b.height = 2;
    b.width = 12;
    b.rowBytes = b.stride = 2;
    b.bilevel = true;
    std::vector<uint8_t> bits = {0xFF, 0xF0, 0xFF, 0xF0};
    EXPECT_TRUE(uniformStrip(b, bits.data(), 2, k));
    EXPECT_EQ(k.last, 0xF0);
    bits[3] = 0xE0;
    EXPECT_FALSE(uniformStrip(b, bits.data(), 2, k));
}

namespace {

// A Letter page at 300 dpi that is busy all over, as a halftoned drawing is: random bits in one
// byte of three. The strip from row 1025 is far busier (random bits everywhere) except in the
// rows the coding work is estimated from (one in eight), which are white there: its codes run
// past the room made for them.
RasterPage busyPage() {
    RasterPage p = page(RasterPage::Format::Bilevel, 2550, 3300, true);
    uint32_t s = 7;
    for (int y = 0; y < p.height; ++y) {
        const bool busiest = y >= 1025 && y < 1230;
        if (busiest && y % 8 == 0)
            continue;
        for (size_t i = 0; i < p.stride; ++i) {
            s = s * 1103515245u + 12345u;
            if (busiest || (s >> 16) % 3 == 0)
                p.data[size_t(y) * p.stride + i] = uint8_t(s >> 24);
        }
        p.data[size_t(y) * p.stride + p.stride - 1] &= 0xC0; // 2550 pixels: 6 in the last byte
    }
    return p;
}

std::vector<uint8_t> fileBytes(const fs::path& file) {
    std::vector<uint8_t> out(fs::file_size(file));
    FILE* f = std::fopen(file.c_str(), "rb");
    if (f) {
        out.resize(std::fread(out.data(), 1, out.size(), f));
        std::fclose(f);
    }
    return out;
}

} // namespace

TEST(StripEncoder, BusyBilevelPagesGiveTheSameBytesOnTwoThreads) {
    const RasterPage busy = busyPage();
    const RasterPage text = page(RasterPage::Format::Bilevel, 2550, 3300, false); // ink in a third
    for (Compression c : {Compression::G4, Compression::G3OneD, Compression::G3TwoD}) {
        std::vector<uint8_t> files[2];
        for (bool threads : {false, true}) {
            const fs::path file = tempFile(threads ? "busy2.tif" : "busy1.tif");
            TiffOptions o;
            o.compression = c;
            TiffWriter w(o);
            w.setThreads(threads);
            ASSERT_TRUE(w.open(file.string()));
            for (const RasterPage* p : {&busy, &text, &busy})
                ASSERT_TRUE(w.writePage(*p));
            ASSERT_TRUE(w.finish());
            // Only the busy pages are worth a second thread; the one with sparse ink stays on one.
            EXPECT_EQ(w.stripStats().pagesShared, threads ? 2u : 0u) << int(c);
            files[threads] = fileBytes(file);
        }
        ASSERT_GT(files[0].size(), 1000000u);
        EXPECT_TRUE(files[0] == files[1]) << "compression " << int(c);
    }
    // And the Group 4 strips are libtiff's.
    const fs::path reference = tempFile("busyrows.tif");
    writeByRows(reference, {busy}, Compression::G4);
    const fs::path mine = tempFile("busy.tif");
    TiffOptions o;
    o.compression = Compression::G4;
    TiffWriter w(o);
    ASSERT_TRUE(w.open(mine.string()));
    ASSERT_TRUE(w.writePage(busy));
    ASSERT_TRUE(w.finish());
    EXPECT_TRUE(rawStrips(mine) == rawStrips(reference));
}
