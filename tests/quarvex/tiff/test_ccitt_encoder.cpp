// The CCITT encoder gives exactly the bytes libtiff's own codec gives for the same strip, on
// every kind of 1-bit content, and libtiff reads its strips back to the same pixels.

#include "common/file_io.h"
#include "tiff/ccitt_encoder.h"
#include "tiff/strip_encoder.h"

#include <gtest/gtest.h>
#include <tiffio.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using qx::tiff::CcittEncoder;
using Scheme = qx::tiff::CcittEncoder::Scheme;

namespace {

// Files in one scratch folder for the whole run, removed at exit.
fs::path tempFile(const std::string& name) {
    static const qx::test::ScratchDir scratch("qx_g4_tests");
    return scratch.dir / name;
}

struct Bitmap {
    int width = 0, height = 0;
    size_t stride = 0;
    std::vector<uint8_t> data;
    Bitmap(int w, int h, size_t extra = 0) : width(w), height(h), stride((size_t(w) + 7) / 8 + extra) {
        data.assign(stride * size_t(h), 0);
    }
    void set(int x, int y, bool black) {
        uint8_t& b = data[size_t(y) * stride + size_t(x) / 8];
        const uint8_t bit = uint8_t(0x80 >> (x & 7));
        b = black ? uint8_t(b | bit) : uint8_t(b & ~bit);
    }
    bool get(int x, int y) const { return (data[size_t(y) * stride + size_t(x) / 8] >> (7 - (x & 7))) & 1; }
};

uint32_t nextRandom(uint32_t& s) {
    s = s * 1103515245u + 12345u;
    return s >> 8;
}

void setTags(TIFF* t, const Bitmap& b, uint32_t rowsPerStrip) {
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, uint32_t(b.width));
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, uint32_t(b.height));
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, uint16_t(1));
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, uint16_t(1));
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISWHITE);
    TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(t, TIFFTAG_FILLORDER, FILLORDER_MSB2LSB);
    TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_CCITTFAX4);
    TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, rowsPerStrip);
}

// The strips libtiff's codec makes of the bitmap, written row by row.
std::vector<std::vector<uint8_t>> libtiffStrips(const Bitmap& b, uint32_t rowsPerStrip) {
    const fs::path file = tempFile("libtiff.tif");
    std::vector<std::vector<uint8_t>> out;
    TIFF* t = TIFFOpen(file.c_str(), "w");
    if (!t)
        return out;
    setTags(t, b, rowsPerStrip);
    std::vector<uint8_t> row(b.stride);
    for (int y = 0; y < b.height; ++y) {
        std::memcpy(row.data(), b.data.data() + size_t(y) * b.stride, row.size());
        if (TIFFWriteScanline(t, row.data(), uint32_t(y), 0) != 1) {
            TIFFClose(t);
            return out;
        }
    }
    TIFFClose(t);
    t = TIFFOpen(file.c_str(), "r");
    if (!t)
        return out;
    for (uint32_t s = 0; s < TIFFNumberOfStrips(t); ++s) {
        std::vector<uint8_t> bytes(size_t(TIFFRawStripSize(t, s)));
        TIFFReadRawStrip(t, s, bytes.data(), tmsize_t(bytes.size()));
        out.push_back(std::move(bytes));
    }
    TIFFClose(t);
    return out;
}

std::vector<std::vector<uint8_t>> ourStrips(const Bitmap& b, uint32_t rowsPerStrip) {
    std::vector<std::vector<uint8_t>> out;
    CcittEncoder enc;
    for (uint32_t first = 0; first < uint32_t(b.height); first += rowsPerStrip) {
        std::vector<uint8_t> bytes;
        enc.encodeStrip(Scheme::G4, 1, b.data.data() + size_t(first) * b.stride, b.width, b.stride,
                        std::min<uint32_t>(rowsPerStrip, uint32_t(b.height) - first), bytes);
        out.push_back(std::move(bytes));
    }
    return out;
}

// Stores our strips as they are and reads the pixels back through libtiff's decoder.
bool decodesTo(const Bitmap& b, uint32_t rowsPerStrip, const std::vector<std::vector<uint8_t>>& strips) {
    const fs::path file = tempFile("ours.tif");
    TIFF* t = TIFFOpen(file.c_str(), "w");
    if (!t)
        return false;
    setTags(t, b, rowsPerStrip);
    for (uint32_t s = 0; s < strips.size(); ++s)
        TIFFWriteRawStrip(t, s, const_cast<uint8_t*>(strips[s].data()), tmsize_t(strips[s].size()));
    TIFFClose(t);
    t = TIFFOpen(file.c_str(), "r");
    if (!t)
        return false;
    std::vector<uint8_t> row(size_t(TIFFScanlineSize(t)));
    bool same = true;
    for (int y = 0; same && y < b.height; ++y) {
        same = TIFFReadScanline(t, row.data(), uint32_t(y), 0) == 1;
        for (int x = 0; same && x < b.width; ++x)
            same = bool((row[size_t(x) / 8] >> (7 - (x & 7))) & 1) == b.get(x, y);
    }
    TIFFClose(t);
    return same;
}

void expectSameAsLibtiff(const Bitmap& b, const std::string& what, uint32_t rowsPerStrip = 0) {
    if (rowsPerStrip == 0)
        rowsPerStrip = uint32_t(b.height);
    const auto theirs = libtiffStrips(b, rowsPerStrip);
    const auto ours = ourStrips(b, rowsPerStrip);
    ASSERT_EQ(theirs.size(), ours.size()) << what;
    ASSERT_FALSE(ours.empty()) << what;
    for (size_t s = 0; s < ours.size(); ++s) {
        ASSERT_EQ(ours[s].size(), theirs[s].size()) << what << ", strip " << s;
        ASSERT_TRUE(ours[s] == theirs[s]) << what << ", strip " << s;
    }
    EXPECT_TRUE(decodesTo(b, rowsPerStrip, ours)) << what;
}

// Random pixels, each black with probability percent / 100.
Bitmap noise(int w, int h, int percent, uint32_t seed) {
    Bitmap b(w, h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            b.set(x, y, int(nextRandom(seed) % 100) < percent);
    return b;
}

// Rectangles of random size and place, black and white: long runs and edges that move a little
// or a lot from row to row.
Bitmap shapes(int w, int h, int count, uint32_t seed) {
    Bitmap b(w, h);
    for (int i = 0; i < count; ++i) {
        const int x0 = int(nextRandom(seed) % uint32_t(w)), y0 = int(nextRandom(seed) % uint32_t(h));
        const int x1 = std::min(w, x0 + 1 + int(nextRandom(seed) % uint32_t(w))),
                  y1 = std::min(h, y0 + 1 + int(nextRandom(seed) % 60));
        const bool black = nextRandom(seed) % 3 != 0;
        const int slant = int(nextRandom(seed) % 9) - 4; // edges that drift by up to 4 a row
        for (int y = y0; y < y1; ++y)
            for (int x = std::max(0, x0 + slant * (y - y0)); x < std::min(w, x1 + slant * (y - y0)); ++x)
                b.set(x, y, black);
    }
    return b;
}

// An ordered-dither halftone of a grey ramp across the page with circles of other grey levels:
// the kind of page a grey-filled drawing gives at one bit.
Bitmap halftone(int w, int h) {
    static const int bayer[4][4] = {{0, 8, 2, 10}, {12, 4, 14, 6}, {3, 11, 1, 9}, {15, 7, 13, 5}};
    Bitmap b(w, h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            int level = x * 17 / std::max(1, w);
            const int dx = x % 200 - 100, dy = y % 200 - 100;
            if (dx * dx + dy * dy < 70 * 70)
                level = (x / 200 + y / 200) % 17;
            b.set(x, y, bayer[y & 3][x & 3] < level);
        }
    return b;
}

// Group 3 strips as libtiff's codec makes them, fed row by row and flushed at the strip's end.
std::vector<std::vector<uint8_t>> libtiffG3Strips(const Bitmap& b, uint32_t rowsPerStrip, bool twoD, float ydpi) {
    qx::tiff::StripLayout l;
    l.rowsPerStrip = rowsPerStrip;
    l.height = uint32_t(b.height);
    l.rowBytes = (size_t(b.width) + 7) / 8;
    l.stride = b.stride;
    l.bilevel = true;
    l.width = b.width;
    l.codecWritesRows = true;
    qx::tiff::ScratchEncoder enc;
    std::vector<std::vector<uint8_t>> out;
    const bool begun = enc.begin([&](TIFF* t) {
        setTags(t, b, rowsPerStrip);
        TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_CCITTFAX3);
        TIFFSetField(t, TIFFTAG_GROUP3OPTIONS, uint32_t(GROUP3OPT_FILLBITS | (twoD ? GROUP3OPT_2DENCODING : 0)));
        TIFFSetField(t, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
        TIFFSetField(t, TIFFTAG_XRESOLUTION, ydpi);
        TIFFSetField(t, TIFFTAG_YRESOLUTION, ydpi);
        return true;
    });
    if (!begun)
        return out;
    for (uint32_t s = 0; s < l.strips(); ++s) {
        std::vector<uint8_t> bytes;
        if (!enc.encode(l, s, b.data.data() + size_t(s) * rowsPerStrip * b.stride, bytes))
            return {};
        out.push_back(std::move(bytes));
    }
    return out;
}

void expectG3SameAsLibtiff(const Bitmap& b, const std::string& what, uint32_t rowsPerStrip) {
    for (bool twoD : {false, true})
        for (float ydpi : {98.f, 196.f, 300.f}) {
            const auto theirs = libtiffG3Strips(b, rowsPerStrip, twoD, ydpi);
            ASSERT_FALSE(theirs.empty()) << what;
            CcittEncoder enc;
            const uint32_t strips = (uint32_t(b.height) + rowsPerStrip - 1) / rowsPerStrip;
            ASSERT_EQ(theirs.size(), strips);
            for (uint32_t s = 0; s < strips; ++s) {
                std::vector<uint8_t> ours;
                enc.encodeStrip(twoD ? Scheme::G3TwoD : Scheme::G3OneD, ydpi > 150 ? 4 : 2,
                                b.data.data() + size_t(s) * rowsPerStrip * b.stride, b.width, b.stride,
                                std::min(rowsPerStrip, uint32_t(b.height) - s * rowsPerStrip), ours);
                ASSERT_TRUE(ours == theirs[s]) << what << (twoD ? ", 2-D" : ", 1-D") << " at " << ydpi
                                               << " dpi, strip " << s << ": " << ours.size() << " bytes, libtiff "
                                               << theirs[s].size();
            }
        }
}

} // namespace

TEST(CcittEncoder, G3StripsAreLibtiffsBytes) {
    uint32_t seed = 5;
    for (int w : {1, 13, 64, 1203, 2550})
        for (int percent : {2, 50, 97})
            expectG3SameAsLibtiff(noise(w, 23, percent, seed++), "noise width " + std::to_string(w), 10);
    expectG3SameAsLibtiff(halftone(2550, 120), "halftone", 50);
    expectG3SameAsLibtiff(shapes(5104, 90, 20, 2), "shapes", 90);
    Bitmap white(1728, 9);
    expectG3SameAsLibtiff(white, "white", 4);
    Bitmap black(1729, 9);
    std::fill(black.data.begin(), black.data.end(), 0xFF);
    expectG3SameAsLibtiff(black, "black", 9);
}

TEST(CcittEncoder, G4RandomPagesAreLibtiffsBytes) {
    uint32_t seed = 7;
    for (int percent : {1, 10, 50, 90, 99})
        for (int w : {64, 100, 1203, 2551}) {
            expectSameAsLibtiff(noise(w, 37, percent, seed++), "noise " + std::to_string(percent) + "% width " +
                                                                  std::to_string(w));
        }
}

TEST(CcittEncoder, G4ShapesAreLibtiffsBytes) {
    for (uint32_t seed = 1; seed <= 6; ++seed)
        for (int w : {333, 2550, 5104})
            expectSameAsLibtiff(shapes(w, 300, 40, seed), "shapes seed " + std::to_string(seed) + " width " +
                                                            std::to_string(w));
}

TEST(CcittEncoder, G4HalftonesAreLibtiffsBytes) {
    expectSameAsLibtiff(halftone(2550, 400), "halftone 2550");
    expectSameAsLibtiff(halftone(1001, 250), "halftone 1001");
    // In strips, as the TIFF writer stores a page: each strip starts again below a white row.
    expectSameAsLibtiff(halftone(2550, 400), "halftone in strips", 64);
}

TEST(CcittEncoder, G4AllWhiteAndAllBlack) {
    for (int w : {1, 7, 8, 9, 64, 65, 2550, 2623, 2624, 2625, 5120, 7000}) {
        Bitmap white(w, 5);
        expectSameAsLibtiff(white, "white width " + std::to_string(w));
        Bitmap black(w, 5);
        std::fill(black.data.begin(), black.data.end(), 0xFF);
        expectSameAsLibtiff(black, "black width " + std::to_string(w));
        // A white row between black ones and black between white ones.
        Bitmap stripes(w, 6);
        for (int y : {0, 2, 3, 5})
            for (int x = 0; x < w; ++x)
                stripes.set(x, y, true);
        expectSameAsLibtiff(stripes, "stripes width " + std::to_string(w));
    }
}

TEST(CcittEncoder, G4BitsPastTheWidthAreIgnored) {
    // Widths that are not a multiple of 8 with the spare bits of each row set, and rows that
    // are followed by unrelated bytes in memory.
    for (int w : {1, 3, 9, 13, 71, 1203}) {
        Bitmap b = noise(w, 20, 40, uint32_t(w));
        Bitmap padded(w, 20, 3);
        for (int y = 0; y < 20; ++y) {
            std::memcpy(padded.data.data() + size_t(y) * padded.stride, b.data.data() + size_t(y) * b.stride, b.stride);
            for (size_t i = b.stride - 1; i < padded.stride; ++i)
                padded.data[size_t(y) * padded.stride + i] |= i + 1 == b.stride ? uint8_t(0xFF >> (w % 8 ? w % 8 : 8)) : 0xA5;
        }
        const auto theirs = libtiffStrips(b, 20);
        std::vector<uint8_t> ours;
        CcittEncoder enc;
        enc.encodeStrip(Scheme::G4, 1, padded.data.data(), w, padded.stride, 20, ours);
        ASSERT_EQ(theirs.size(), 1u);
        EXPECT_TRUE(ours == theirs[0]) << "width " << w;
    }
}

TEST(CcittEncoder, G4OnePixelWide) {
    Bitmap b(1, 200);
    uint32_t seed = 3;
    for (int y = 0; y < 200; ++y)
        b.set(0, y, nextRandom(seed) % 2);
    expectSameAsLibtiff(b, "one pixel wide");
    expectSameAsLibtiff(b, "one pixel wide, strips of 7 rows", 7);
}

TEST(CcittEncoder, G4VeryWidePages) {
    // Runs far longer than the longest make-up code, both colours, and runs of exactly the
    // lengths where make-up codes change.
    Bitmap b(30000, 12);
    int x = 0;
    bool black = false;
    for (int run : {2560, 2623, 2624, 2625, 5184, 63, 64, 65, 1728, 1792, 127, 1, 12000}) {
        for (int i = 0; i < run && x < b.width; ++i, ++x)
            for (int y = 0; y < b.height; y += 2)
                b.set(x, y, black);
        black = !black;
    }
    for (int y = 1; y < b.height; y += 2)
        for (int i = 0; i < b.width; ++i)
            b.set(i, y, (i / (y * 997)) % 2);
    expectSameAsLibtiff(b, "wide runs");
    expectSameAsLibtiff(noise(20000, 8, 3, 11), "wide noise");
}

TEST(CcittEncoder, RenderedPagesAreLibtiffsBytes) {
    // Real pages rendered from documents: text, lines and a rotated page, each read back from
    // its file and compressed again, whole and in strips of 64 rows.
    int pages = 0;
    for (const char* name : {"lo_inkscape_4pages.ref.tif", "lo_rotated.ref.tif"}) {
        const std::string path = std::string(QX_RENDERED_PAGES) + "/" + name;
        TIFF* t = TIFFOpen(path.c_str(), "r");
        ASSERT_NE(t, nullptr) << path;
        do {
            uint32_t w = 0, h = 0;
            uint16_t bits = 0;
            TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &w);
            TIFFGetField(t, TIFFTAG_IMAGELENGTH, &h);
            TIFFGetFieldDefaulted(t, TIFFTAG_BITSPERSAMPLE, &bits);
            ASSERT_EQ(bits, 1) << path;
            Bitmap b{int(w), int(h)};
            for (uint32_t y = 0; y < h; ++y)
                ASSERT_EQ(TIFFReadScanline(t, b.data.data() + size_t(y) * b.stride, y, 0), 1);
            size_t ink = 0;
            for (uint8_t v : b.data)
                ink += v != 0;
            EXPECT_GT(ink, 0u) << path;
            const std::string what = std::string(name) + " page " + std::to_string(pages);
            expectSameAsLibtiff(b, what);
            expectSameAsLibtiff(b, what + " in strips", 64);
            expectG3SameAsLibtiff(b, what, 200);
            ++pages;
        } while (TIFFReadDirectory(t));
        TIFFClose(t);
    }
    EXPECT_EQ(pages, 5);
}

TEST(CcittEncoder, FixedRoomCodesInPlaceOrSaysItDoesNotFit) {
    const Bitmap b = noise(1203, 64, 40, 11);
    CcittEncoder enc;
    std::vector<uint8_t> grown;
    ASSERT_TRUE(enc.encodeStrip(Scheme::G4, 1, b.data.data(), b.width, b.stride, 64, grown));
    for (Scheme s : {Scheme::G4, Scheme::G3OneD, Scheme::G3TwoD}) {
        std::vector<uint8_t> free, room;
        ASSERT_TRUE(enc.encodeStrip(s, 4, b.data.data(), b.width, b.stride, 64, free));
        // Room for the codes and the longest row besides: the same bytes, in the same buffer.
        room.reserve(free.size() + 16 * 1024);
        const uint8_t* buffer = room.data();
        ASSERT_TRUE(enc.encodeStrip(s, 4, b.data.data(), b.width, b.stride, 64, room, true));
        EXPECT_EQ(room.data(), buffer);
        EXPECT_TRUE(room == free) << int(s);
        // Too little room: refused, without taking more.
        std::vector<uint8_t> small;
        small.reserve(free.size() / 2);
        const size_t capacity = small.capacity();
        EXPECT_FALSE(enc.encodeStrip(s, 4, b.data.data(), b.width, b.stride, 64, small, true));
        EXPECT_EQ(small.capacity(), capacity);
    }
    // Coding stops when asked to.
    std::atomic<bool> stop{true};
    std::vector<uint8_t> stopped;
    EXPECT_FALSE(enc.encodeStrip(Scheme::G4, 1, b.data.data(), b.width, b.stride, 64, stopped, false, &stop));
    stop = false;
    ASSERT_TRUE(enc.encodeStrip(Scheme::G4, 1, b.data.data(), b.width, b.stride, 64, stopped, false, &stop));
    EXPECT_TRUE(stopped == grown);
}

TEST(CcittEncoder, ChangesAreCounted) {
    const Bitmap b = noise(1203, 8, 40, 5);
    std::vector<int32_t> changes(1210);
    for (int y = 0; y < 8; ++y) {
        const uint8_t* row = b.data.data() + size_t(y) * b.stride;
        EXPECT_EQ(qx::tiff::countChanges(row, b.width), qx::tiff::rowChanges(row, b.width, changes.data()));
    }
}
