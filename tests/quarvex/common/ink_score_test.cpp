// The ink F-score the fidelity tests rely on, on small pages whose answer is known by hand.

#include "common/ink_score.h"

#include <gtest/gtest.h>

using qxtest::InkMask;

namespace {

// A page with a filled box of ink.
InkMask box(int width, int height, int x0, int y0, int x1, int y1) {
    InkMask m(width, height);
    for (int y = y0; y < y1; ++y)
        for (int x = x0; x < x1; ++x)
            m.row(y)[x] = 1;
    return m;
}

} // namespace

TEST(InkScore, OnePixelOfShiftIsTolerated) {
    const InkMask a = box(20, 20, 5, 5, 10, 10);
    EXPECT_EQ(qxtest::inkFScore(a, a), 1.0);
    EXPECT_EQ(qxtest::inkFScore(a, box(20, 20, 6, 4, 11, 9)), 1.0);
}

TEST(InkScore, TwoPixelsOfShiftAreNot) {
    // A 1-pixel vertical line against one two pixels to its right: nothing matches.
    EXPECT_EQ(qxtest::inkFScore(box(20, 20, 5, 2, 6, 12), box(20, 20, 7, 2, 8, 12)), 0.0);
    // A 5 x 5 box against one moved two pixels right: 4 of 5 columns match on each side.
    EXPECT_DOUBLE_EQ(qxtest::inkFScore(box(20, 20, 5, 5, 10, 10), box(20, 20, 7, 5, 12, 10)), 0.8);
}

TEST(InkScore, PrecisionAndRecallAreWeighedApart) {
    // Ours is a 2 x 10 bar; the reference adds a far 2 x 10 bar: precision 1, recall 1/2.
    const InkMask ours = box(30, 30, 2, 2, 4, 12);
    InkMask ref = ours;
    for (int y = 2; y < 12; ++y)
        ref.row(y)[20] = ref.row(y)[21] = 1;
    const qxtest::InkMatch p = qxtest::matchInk(ours, ref), r = qxtest::matchInk(ref, ours);
    EXPECT_EQ(p.ink, 20);
    EXPECT_EQ(p.matched, 20);
    EXPECT_EQ(r.ink, 40);
    EXPECT_EQ(r.matched, 20);
    EXPECT_DOUBLE_EQ(qxtest::inkFScore(p, r), 2 * 1 * 0.5 / 1.5);
}

TEST(InkScore, BlankPages) {
    const InkMask blank(10, 10), ink = box(10, 10, 2, 2, 4, 4);
    EXPECT_EQ(qxtest::inkFScore(blank, ink), 0.0);
    EXPECT_EQ(qxtest::inkFScore(ink, blank, 1.0), 0.0);
    EXPECT_EQ(qxtest::inkFScore(blank, blank), 0.0);
    EXPECT_EQ(qxtest::inkFScore(blank, blank, 1.0), 1.0);
}

TEST(InkScore, RegionLooksAcrossItsEdge) {
    // Ours ends at x = 5 where the region ends; the reference's ink at x = 5 lies outside it
    // but still matches ours at x = 4.
    const InkMask ours = box(10, 10, 0, 0, 5, 5), ref = box(10, 10, 5, 0, 6, 5);
    const qxtest::InkMatch m = qxtest::matchInk(ours, ref, 0, 0, 5, 5);
    EXPECT_EQ(m.ink, 25);
    EXPECT_EQ(m.matched, 5);
}

TEST(InkScore, PackedAndGreyRowsBecomeInk) {
    const uint8_t bits[] = {0xA0, 0x00, 0x80, 0x00}; // two rows, 9 pixels, stride 2
    const InkMask set = qxtest::inkOfBits(bits, 9, 2, 2);
    EXPECT_TRUE(set.at(0, 0));
    EXPECT_FALSE(set.at(1, 0));
    EXPECT_TRUE(set.at(2, 0));
    EXPECT_TRUE(set.at(0, 1));
    EXPECT_FALSE(set.at(8, 1));
    const InkMask clear = qxtest::inkOfBits(bits, 9, 2, 2, false);
    EXPECT_FALSE(clear.at(0, 0));
    EXPECT_TRUE(clear.at(1, 0));
    EXPECT_TRUE(clear.at(8, 1));
    const uint8_t grey[] = {0, 199, 200, 9, 255, 255, 100, 9}; // two rows of 3, stride 4
    const InkMask g = qxtest::inkOfGrey(grey, 3, 2, 4, 200);
    EXPECT_TRUE(g.at(0, 0));
    EXPECT_TRUE(g.at(1, 0));
    EXPECT_FALSE(g.at(2, 0));
    EXPECT_FALSE(g.at(0, 1));
    EXPECT_TRUE(g.at(2, 1));
    EXPECT_FALSE(g.at(3, 0)); // beyond the page
}
