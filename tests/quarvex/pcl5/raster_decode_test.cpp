#include "pcl5/raster_decode.h"

#include <gtest/gtest.h>

#include <vector>

using namespace qx::pcl5;
using Bytes = std::vector<uint8_t>;

TEST(RasterDecode, Unencoded) {
    Bytes row(4, 0x55);
    decodeUnencoded(Bytes{0xAA, 0xBB}, row);
    EXPECT_EQ(row, (Bytes{0xAA, 0xBB, 0, 0}));
    decodeUnencoded(Bytes{1, 2, 3, 4, 5, 6}, row);
    EXPECT_EQ(row, (Bytes{1, 2, 3, 4}));
}

TEST(RasterDecode, RunLength) {
    Bytes row(6, 0x55);
    // 3 x 0xFF, then 1 x 0x0F; the rest is zero.
    decodeRunLength(Bytes{2, 0xFF, 0, 0x0F}, row);
    EXPECT_EQ(row, (Bytes{0xFF, 0xFF, 0xFF, 0x0F, 0, 0}));
    // Runs past the row's end are cut; an odd trailing byte is ignored.
    decodeRunLength(Bytes{255, 0x81, 7}, row);
    EXPECT_EQ(row, (Bytes(6, 0x81)));
}

TEST(RasterDecode, TiffPackBits) {
    Bytes row(8, 0x55);
    // Literal run of 2 (control 1), repeat 0xCC four times (control -3 = 253), no-op (128),
    // literal of 1.
    decodeTiff(Bytes{1, 0x11, 0x22, 253, 0xCC, 128, 0, 0x33}, row);
    EXPECT_EQ(row, (Bytes{0x11, 0x22, 0xCC, 0xCC, 0xCC, 0xCC, 0x33, 0}));
    // A literal run that claims more bytes than there are takes what is there.
    decodeTiff(Bytes{5, 0x01, 0x02}, row);
    EXPECT_EQ(row, (Bytes{0x01, 0x02, 0, 0, 0, 0, 0, 0}));
}

TEST(RasterDecode, DeltaRow) {
    Bytes row{1, 2, 3, 4, 5, 6, 7, 8};
    // Replace 2 bytes at offset 1: command (2-1)<<5 | 1 = 0x21; then 1 byte 2 further on:
    // command 0<<5 | 2 = 0x02.
    decodeDeltaRow(Bytes{0x21, 0xA0, 0xA1, 0x02, 0xB0}, row);
    EXPECT_EQ(row, (Bytes{1, 0xA0, 0xA1, 4, 5, 0xB0, 7, 8}));
    // An empty delta repeats the seed row.
    decodeDeltaRow(Bytes{}, row);
    EXPECT_EQ(row, (Bytes{1, 0xA0, 0xA1, 4, 5, 0xB0, 7, 8}));
}

TEST(RasterDecode, DeltaRowWithExtendedOffset) {
    Bytes row(300, 0);
    // Offset 31 + 255 + 4 = 290, one byte.
    decodeDeltaRow(Bytes{0x1F, 255, 4, 0xEE}, row);
    EXPECT_EQ(row[290], 0xEE);
    EXPECT_EQ(row[289], 0);
    EXPECT_EQ(row[291], 0);
    // Writing past the end is ignored.
    decodeDeltaRow(Bytes{0xFF, 255, 255, 0x01, 0x02}, row);
    EXPECT_EQ(row.size(), 300u);
}

TEST(RasterDecode, ReplacementDeltaLiteral) {
    // Seed 55 x 13; bytes 5..12 become 11 11 22 33 44 55 66 77: offset 5, count 8 (7 in the
    // command with an extension byte of 0).
    Bytes row(13, 0x55);
    decodeReplacementDelta(Bytes{0x2F, 0x00, 0x11, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77}, row);
    EXPECT_EQ(row, (Bytes{0x55, 0x55, 0x55, 0x55, 0x55, 0x11, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77}));
}

TEST(RasterDecode, ReplacementDeltaRepeated) {
    // Seed 55 x 13; 3 x 11 at offset 3 (offset field 3 needs an extension byte), then 4 x 66 two
    // bytes further on.
    Bytes row(13, 0x55);
    decodeReplacementDelta(Bytes{0xE1, 0x00, 0x11, 0xC2, 0x66}, row);
    EXPECT_EQ(row, (Bytes{0x55, 0x55, 0x55, 0x11, 0x11, 0x11, 0x55, 0x55, 0x66, 0x66, 0x66, 0x66, 0x55}));
}

TEST(RasterDecode, AdaptiveBlock) {
    Bytes row(4, 0);
    std::vector<Bytes> rows;
    const Bytes block{
        0, 0, 2, 0xF0, 0x0F,             // unencoded row
        5, 0, 2,                         // two duplicates
        1, 0, 2, 3, 0xAA,                // run-length row: 4 x AA
        3, 0, 2, 0x01, 0x55,             // delta: byte 1 becomes 55
        4, 0, 1,                         // one empty row
        2, 0, 3, 253, 0x77, 128,         // TIFF: 4 x 77
    };
    decodeAdaptive(block, row, [&](const Bytes& r) {
        rows.push_back(r);
        return true;
    });
    ASSERT_EQ(rows.size(), 7u);
    EXPECT_EQ(rows[0], (Bytes{0xF0, 0x0F, 0, 0}));
    EXPECT_EQ(rows[1], rows[0]);
    EXPECT_EQ(rows[2], rows[0]);
    EXPECT_EQ(rows[3], (Bytes(4, 0xAA)));
    EXPECT_EQ(rows[4], (Bytes{0xAA, 0x55, 0xAA, 0xAA}));
    EXPECT_EQ(rows[5], (Bytes(4, 0)));
    EXPECT_EQ(rows[6], (Bytes(4, 0x77)));
}

TEST(RasterDecode, AdaptiveStopsWhenAsked) {
    Bytes row(2, 0);
    int n = 0;
    decodeAdaptive(Bytes{4, 0xFF, 0xFF}, row, [&](const Bytes&) { return ++n < 10; });
    EXPECT_EQ(n, 10);
}

TEST(RasterDecode, Dispatch) {
    Bytes row(2, 0);
    EXPECT_TRUE(decodeRow(1, Bytes{1, 0x0F}, row));
    EXPECT_EQ(row, (Bytes{0x0F, 0x0F}));
    EXPECT_FALSE(decodeRow(4, Bytes{1, 2}, row));
    EXPECT_TRUE(knownCompression(9));
    EXPECT_FALSE(knownCompression(7));
}
