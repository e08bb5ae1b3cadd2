// Ink agreement of two pages, as the engine's fidelity tests measure it: a page of ours against
// a reference of the same document from another producer, placed where the page lands (no
// shift). A pixel of ink on one side counts as matched when the other side has ink within one
// pixel (the 3 x 3 block around it); precision is the matched share of our ink, recall the
// matched share of the reference's, and the F-score their harmonic mean.
//
// Header only: each test reads its pages in its own way (TIFF, PBM, PGM, the raster device's
// pages) and turns them into an InkMask with one of the helpers here.

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qxtest {

// Ink of one page, one byte a pixel (1 = ink).
struct InkMask {
    int width = 0, height = 0;
    std::vector<uint8_t> ink;

    InkMask() = default;
    InkMask(int w, int h) : width(w), height(h), ink(size_t(w > 0 ? w : 0) * size_t(h > 0 ? h : 0), 0) {}

    // Outside the page there is no ink.
    bool at(int x, int y) const {
        return x >= 0 && y >= 0 && x < width && y < height && ink[size_t(y) * size_t(width) + size_t(x)];
    }
    uint8_t* row(int y) { return ink.data() + size_t(y) * size_t(width); }
};

// One row of packed pixels, most significant bit first, as ink: a set bit is ink when setIsInk
// (min-is-white pages, PBM), a clear bit otherwise (min-is-black).
inline void unpackInkBits(const uint8_t* bits, int width, uint8_t* ink, bool setIsInk = true) {
    for (int x = 0; x < width; ++x)
        ink[x] = uint8_t(((bits[x >> 3] >> (7 - (x & 7))) & 1) == (setIsInk ? 1 : 0));
}

// A page of one-bit rows (stride bytes apart) as ink.
inline InkMask inkOfBits(const uint8_t* bits, int width, int height, size_t stride, bool setIsInk = true) {
    InkMask m(width, height);
    for (int y = 0; y < height; ++y)
        unpackInkBits(bits + size_t(y) * stride, width, m.row(y), setIsInk);
    return m;
}

// A grey page (0 = black, rows stride bytes apart) as ink: every pixel darker than threshold.
inline InkMask inkOfGrey(const uint8_t* grey, int width, int height, size_t stride, int threshold) {
    InkMask m(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            m.row(y)[x] = grey[size_t(y) * stride + size_t(x)] < threshold;
    return m;
}

// How much of a's ink in a region has b's ink within one pixel (b looked at beyond the region).
struct InkMatch {
    long ink = 0, matched = 0;
};

inline InkMatch matchInk(const InkMask& a, const InkMask& b, int x0, int y0, int x1, int y1) {
    InkMatch m;
    for (int y = y0; y < y1; ++y)
        for (int x = x0; x < x1; ++x) {
            if (!a.at(x, y))
                continue;
            ++m.ink;
            bool near = false;
            for (int dy = -1; dy <= 1 && !near; ++dy)
                for (int dx = -1; dx <= 1 && !near; ++dx)
                    near = b.at(x + dx, y + dy);
            m.matched += near;
        }
    return m;
}

inline InkMatch matchInk(const InkMask& a, const InkMask& b) { return matchInk(a, b, 0, 0, a.width, a.height); }

// The F-score of our ink against the reference's. A side without ink scores 0, except that two
// blank pages score bothBlank (a test for which a blank page is a right answer passes 1).
inline double inkFScore(const InkMatch& ours, const InkMatch& reference, double bothBlank = 0) {
    if (ours.ink == 0 && reference.ink == 0)
        return bothBlank;
    if (ours.ink == 0 || reference.ink == 0)
        return 0;
    const double precision = double(ours.matched) / double(ours.ink);
    const double recall = double(reference.matched) / double(reference.ink);
    return precision + recall > 0 ? 2 * precision * recall / (precision + recall) : 0;
}

inline double inkFScore(const InkMask& ours, const InkMask& reference, double bothBlank = 0) {
    return inkFScore(matchInk(ours, reference), matchInk(reference, ours), bothBlank);
}

} // namespace qxtest
