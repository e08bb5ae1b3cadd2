#include "render/raster_ops.h"

#include <gtest/gtest.h>

#include <vector>

using namespace qx;

TEST(RasterOps, Rop3NamedOperations) {
    const uint8_t D = 0xF0, S = 0xCC, T = 0xAA;
    EXPECT_EQ(raster::rop3(0, D, S, T), 0x00);
    EXPECT_EQ(raster::rop3(255, D, S, T), 0xFF);
    EXPECT_EQ(raster::rop3(204, D, S, T), S);
    EXPECT_EQ(raster::rop3(240, D, S, T), T);
    EXPECT_EQ(raster::rop3(170, D, S, T), D);
    EXPECT_EQ(raster::rop3(252, D, S, T), T | S);
    EXPECT_EQ(raster::rop3(136, D, S, T), D & S);
    EXPECT_EQ(raster::rop3(238, D, S, T), D | S);
    EXPECT_EQ(raster::rop3(102, D, S, T), D ^ S);
    EXPECT_EQ(raster::rop3(90, D, S, T), D ^ T);
    EXPECT_EQ(raster::rop3(51, D, S, T), uint8_t(~S));
    EXPECT_EQ(raster::rop3(85, D, S, T), uint8_t(~D));
}

TEST(RasterOps, Rop3RunMatchesPerByteForEveryRop) {
    std::vector<uint8_t> d(37), s(37), t(37), out(37);
    for (size_t i = 0; i < d.size(); ++i) {
        d[i] = uint8_t(i * 37 + 11);
        s[i] = uint8_t(i * 91 + 3);
        t[i] = uint8_t(i * 53 + 200);
    }
    for (int rop = 0; rop < 256; ++rop) {
        raster::rop3Run(uint8_t(rop), d.data(), s.data(), t.data(), out.data(), out.size());
        for (size_t i = 0; i < d.size(); ++i)
            ASSERT_EQ(out[i], raster::rop3(uint8_t(rop), d[i], s[i], t[i])) << rop << " " << i;
    }
}

TEST(RasterOps, RopUsesDest) {
    EXPECT_FALSE(raster::ropUsesDest(252));
    EXPECT_FALSE(raster::ropUsesDest(0));
    EXPECT_FALSE(raster::ropUsesDest(204));
    EXPECT_TRUE(raster::ropUsesDest(136));
    EXPECT_TRUE(raster::ropUsesDest(90));
    EXPECT_TRUE(raster::ropUsesDest(170));
}

TEST(RasterOps, Luminance) {
    EXPECT_EQ(raster::luminance(0, 0, 0), 0);
    EXPECT_EQ(raster::luminance(255, 255, 255), 255);
    EXPECT_EQ(raster::luminance(255, 0, 0), 76);
    EXPECT_EQ(raster::luminance(0, 255, 0), 150);
    EXPECT_EQ(raster::luminance(0, 0, 255), 29);
}

TEST(RasterOps, DitherThresholdsCoverTheRangeOnce) {
    const auto& thr = raster::ditherThresholds();
    int below128 = 0;
    std::vector<int> seen(256, 0);
    for (int y = 0; y < 16; ++y)
        for (int x = 0; x < 16; ++x) {
            EXPECT_GE(thr[y][x], 1);
            ++seen[thr[y][x]];
            below128 += thr[y][x] <= 128;
        }
    EXPECT_EQ(seen[0], 0);
    EXPECT_EQ(below128, 128);
    // Neighbours differ a lot (dispersed dots), so flat greys do not clump.
    EXPECT_GT(std::abs(int(thr[0][0]) - int(thr[0][1])), 64);
}
