#include "tiff/ccitt_encoder.h"

#include <algorithm>
#include <cstring>

namespace qx::tiff {

namespace {

struct Code {
    uint16_t bits;
    uint8_t length;
};

// Run-length codes of T.4: terminating codes for runs 0..63, then make-up codes for multiples
// of 64 (index run / 64, 1..40; from 1792 on both colours share them).
constexpr Code kWhiteTerm[64] = {
    {0x35, 8}, {0x07, 6}, {0x07, 4}, {0x08, 4}, {0x0B, 4}, {0x0C, 4}, {0x0E, 4}, {0x0F, 4},
    {0x13, 5}, {0x14, 5}, {0x07, 5}, {0x08, 5}, {0x08, 6}, {0x03, 6}, {0x34, 6}, {0x35, 6},
    {0x2A, 6}, {0x2B, 6}, {0x27, 7}, {0x0C, 7}, {0x08, 7}, {0x17, 7}, {0x03, 7}, {0x04, 7},
    {0x28, 7}, {0x2B, 7}, {0x13, 7}, {0x24, 7}, {0x18, 7}, {0x02, 8}, {0x03, 8}, {0x1A, 8},
    {0x1B, 8}, {0x12, 8}, {0x13, 8}, {0x14, 8}, {0x15, 8}, {0x16, 8}, {0x17, 8}, {0x28, 8},
    {0x29, 8}, {0x2A, 8}, {0x2B, 8}, {0x2C, 8}, {0x2D, 8}, {0x04, 8}, {0x05, 8}, {0x0A, 8},
    {0x0B, 8}, {0x52, 8}, {0x53, 8}, {0x54, 8}, {0x55, 8}, {0x24, 8}, {0x25, 8}, {0x58, 8},
    {0x59, 8}, {0x5A, 8}, {0x5B, 8}, {0x4A, 8}, {0x4B, 8}, {0x32, 8}, {0x33, 8}, {0x34, 8},
};
constexpr Code kBlackTerm[64] = {
    {0x37, 10}, {0x02, 3},  {0x03, 2},  {0x02, 2},  {0x03, 3},  {0x03, 4},  {0x02, 4},  {0x03, 5},
    {0x05, 6},  {0x04, 6},  {0x04, 7},  {0x05, 7},  {0x07, 7},  {0x04, 8},  {0x07, 8},  {0x18, 9},
    {0x17, 10}, {0x18, 10}, {0x08, 10}, {0x67, 11}, {0x68, 11}, {0x6C, 11}, {0x37, 11}, {0x28, 11},
    {0x17, 11}, {0x18, 11}, {0xCA, 12}, {0xCB, 12}, {0xCC, 12}, {0xCD, 12}, {0x68, 12}, {0x69, 12},
    {0x6A, 12}, {0x6B, 12}, {0xD2, 12}, {0xD3, 12}, {0xD4, 12}, {0xD5, 12}, {0xD6, 12}, {0xD7, 12},
    {0x6C, 12}, {0x6D, 12}, {0xDA, 12}, {0xDB, 12}, {0x54, 12}, {0x55, 12}, {0x56, 12}, {0x57, 12},
    {0x64, 12}, {0x65, 12}, {0x52, 12}, {0x53, 12}, {0x24, 12}, {0x37, 12}, {0x38, 12}, {0x27, 12},
    {0x28, 12}, {0x58, 12}, {0x59, 12}, {0x2B, 12}, {0x2C, 12}, {0x5A, 12}, {0x66, 12}, {0x67, 12},
};
constexpr Code kWhiteMakeup[41] = {
    {0, 0},     {0x1B, 5},  {0x12, 5},  {0x17, 6},  {0x37, 7},  {0x36, 8},  {0x37, 8},  {0x64, 8},
    {0x65, 8},  {0x68, 8},  {0x67, 8},  {0xCC, 9},  {0xCD, 9},  {0xD2, 9},  {0xD3, 9},  {0xD4, 9},
    {0xD5, 9},  {0xD6, 9},  {0xD7, 9},  {0xD8, 9},  {0xD9, 9},  {0xDA, 9},  {0xDB, 9},  {0x98, 9},
    {0x99, 9},  {0x9A, 9},  {0x18, 6},  {0x9B, 9},  {0x08, 11}, {0x0C, 11}, {0x0D, 11}, {0x12, 12},
    {0x13, 12}, {0x14, 12}, {0x15, 12}, {0x16, 12}, {0x17, 12}, {0x1C, 12}, {0x1D, 12}, {0x1E, 12},
    {0x1F, 12},
};
constexpr Code kBlackMakeup[41] = {
    {0, 0},     {0x0F, 10}, {0xC8, 12}, {0xC9, 12}, {0x5B, 12}, {0x33, 12}, {0x34, 12}, {0x35, 12},
    {0x6C, 13}, {0x6D, 13}, {0x4A, 13}, {0x4B, 13}, {0x4C, 13}, {0x4D, 13}, {0x72, 13}, {0x73, 13},
    {0x74, 13}, {0x75, 13}, {0x76, 13}, {0x77, 13}, {0x52, 13}, {0x53, 13}, {0x54, 13}, {0x55, 13},
    {0x5A, 13}, {0x5B, 13}, {0x64, 13}, {0x65, 13}, {0x08, 11}, {0x0C, 11}, {0x0D, 11}, {0x12, 12},
    {0x13, 12}, {0x14, 12}, {0x15, 12}, {0x16, 12}, {0x17, 12}, {0x1C, 12}, {0x1D, 12}, {0x1E, 12},
    {0x1F, 12},
};
// Vertical mode codes by b1 - a1 + 3: VR3, VR2, VR1, V0, VL1, VL2, VL3.
constexpr Code kVertical[7] = {{0x03, 7}, {0x03, 6}, {0x03, 3}, {0x1, 1}, {0x2, 3}, {0x02, 6}, {0x02, 7}};
constexpr Code kPass = {0x1, 4};
constexpr Code kHorizontal = {0x1, 3};
constexpr Code kEol = {0x001, 12};
constexpr int kSentinels = 4;
// Bytes a strip's buffer is lengthened by past what the next row may need.
constexpr size_t kGrowthStep = 16 * 1024;

// Codes packed into bytes first bit highest, through a 64-bit accumulator whose low `fill`
// bits are pending (bits above them are stale and never written); whole 32-bit words go out as
// soon as they are complete.
struct BitWriter {
    uint8_t* p;
    uint64_t acc = 0;
    int fill = 0;
    void put(Code c) { put(c.bits, c.length); }
    // Up to 32 bits at once.
    void put(uint32_t bits, int length) {
        acc = (acc << length) | bits;
        fill += length;
        if (fill >= 32) {
            fill -= 32;
            const uint32_t word = __builtin_bswap32(uint32_t(acc >> fill));
            std::memcpy(p, &word, 4);
            p += 4;
        }
    }
    // A run of `span` pixels: make-up codes of 2560 while more than 2623 remain (as libtiff
    // does), one more make-up code when 64 or more remain, then the terminating code.
    void span(int32_t span, const Code* term, const Code* makeup) {
        while (span >= 2624) {
            put(makeup[40]);
            span -= 2560;
        }
        if (span >= 64) {
            put(makeup[span >> 6]);
            span &= 63;
        }
        put(term[span]);
    }
    // Pads the last byte with zero bits and writes out what is pending.
    void flush() {
        if (fill % 8)
            put(Code{0, uint8_t(8 - fill % 8)});
        while (fill > 0) {
            fill -= 8;
            *p++ = uint8_t(acc >> fill);
        }
    }
};

inline uint64_t loadBig(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    return __builtin_bswap64(v);
}

} // namespace

namespace {

// Calls f(base, diff) for each 64-pixel word of row: diff has a bit set (from bit 63 down) at
// every pixel whose colour differs from the one before, pixels at and past width cleared.
template <typename F>
inline void forEachChangeWord(const uint8_t* row, int width, F&& f) {
    const size_t bytes = (size_t(width) + 7) / 8;
    uint64_t before = 0; // the pixel left of the word, at bit 63
    for (size_t at = 0; at < bytes; at += 8) {
        uint64_t w;
        if (at + 8 <= bytes) {
            w = loadBig(row + at);
        } else {
            w = 0;
            for (size_t i = at; i < bytes; ++i)
                w |= uint64_t(row[i]) << (56 - 8 * (i - at));
        }
        uint64_t diff = w ^ ((w >> 1) | before);
        before = w << 63;
        const int32_t base = int32_t(at * 8);
        const int32_t valid = width - base;
        if (valid < 64)
            diff &= ~uint64_t(0) << (64 - valid);
        f(base, diff);
    }
}

} // namespace

size_t rowChanges(const uint8_t* row, int width, int32_t* changes) {
    int32_t* out = changes;
    forEachChangeWord(row, width, [&](int32_t base, uint64_t diff) {
        while (diff) {
            const int k = __builtin_clzll(diff);
            *out++ = base + k;
            diff &= ~(uint64_t(1) << 63 >> k);
        }
    });
    return size_t(out - changes);
}

size_t countChanges(const uint8_t* row, int width) {
    size_t n = 0;
    forEachChangeWord(row, width, [&](int32_t, uint64_t diff) { n += size_t(__builtin_popcountll(diff)); });
    return n;
}

namespace {

// Codes one row two-dimensionally (T.4 2-D / T.6) from its changes C against the row above's R,
// both ending in sentinels at the width.
// (The writer is passed by value and returned so that its state stays in registers.)
BitWriter codeRow2D(BitWriter bw, const int32_t* C, const int32_t* R, int32_t width) {
    // C[ia] is a1, the next change of this row after a0 (so the colour at a0 is the
    // parity of ia: the number of changes up to a0); R[ib] is b1, the next change of the
    // row above after a0 to the other colour (ib of the same parity as ia).
    int32_t a0 = 0;
    size_t ia = 0, ib = 0;
    for (;;) {
        const int32_t a1 = C[ia], b1 = R[ib], b2 = R[ib + 1];
        if (b2 < a1) {
            // Pass: a0 moves under b2, the colour stays; the row above's next change of
            // the same kind is two further on.
            bw.put(kPass);
            a0 = b2;
            ib += 2;
        } else if (const int32_t d = b1 - a1; d >= -3 && d <= 3) {
            // Vertical: a0 moves to a1 and the colour changes. The change of the row above
            // before b1 (of the new kind) may still lie right of a1; else look on from b1.
            bw.put(kVertical[d + 3]);
            a0 = a1;
            if (a0 >= width)
                break;
            ++ia;
            if (ib > 0 && R[ib - 1] > a0) {
                --ib;
            } else {
                ++ib;
                while (R[ib] <= a0)
                    ib += 2;
            }
            continue;
        } else {
            // Horizontal: the runs a0..a1 and a1..a2; a0 moves to a2, the colour stays.
            const int32_t a2 = C[ia + 1];
            const int32_t r1 = a1 - a0, r2 = a2 - a1;
            if (r1 < 64 && r2 < 64) {
                // Two short runs, as on busy pages: the mode and both terminating codes (at
                // most 3 + 8 + 12 bits) go in at once.
                const Code c1 = (ia & 1) == 0 ? kWhiteTerm[r1] : kBlackTerm[r1];
                const Code c2 = (ia & 1) == 0 ? kBlackTerm[r2] : kWhiteTerm[r2];
                bw.put((((uint32_t(kHorizontal.bits) << c1.length) | c1.bits) << c2.length) | c2.bits,
                       kHorizontal.length + c1.length + c2.length);
            } else if ((ia & 1) == 0) {
                bw.put(kHorizontal);
                bw.span(a1 - a0, kWhiteTerm, kWhiteMakeup);
                bw.span(a2 - a1, kBlackTerm, kBlackMakeup);
            } else {
                bw.put(kHorizontal);
                bw.span(a1 - a0, kBlackTerm, kBlackMakeup);
                bw.span(a2 - a1, kWhiteTerm, kWhiteMakeup);
            }
            a0 = a2;
            ia += 2;
        }
        if (a0 >= width)
            break;
        while (R[ib] <= a0)
            ib += 2;
    }
    return bw;
}

// Codes one row as alternating white and black runs, starting white.
BitWriter codeRow1D(BitWriter bw, const int32_t* C, int32_t width) {
    int32_t at = 0;
    for (size_t i = 0;; i += 2) {
        const int32_t white = C[i] - at, black = C[i + 1] - C[i];
        if (white < 64 && black < 64 && C[i + 1] < width) {
            // Two short runs, the next white one to follow: both codes at once.
            const Code w = kWhiteTerm[white], b = kBlackTerm[black];
            bw.put((uint32_t(w.bits) << b.length) | b.bits, w.length + b.length);
            at = C[i + 1];
            continue;
        }
        bw.span(white, kWhiteTerm, kWhiteMakeup);
        if (C[i] >= width)
            break;
        bw.span(C[i + 1] - C[i], kBlackTerm, kBlackMakeup);
        at = C[i + 1];
        if (at >= width)
            break;
    }
    return bw;
}

// The EOL that starts each Group 3 row, after zero bits that make a plain EOL end on a byte
// boundary (libtiff aligns the 13-bit EOL of 2-D coding the same way); with 2-D coding it is
// followed by a bit that says whether the row is coded in one dimension.
void putEol(BitWriter& bw, bool twoD, bool oneDRow) {
    const int free = 8 - bw.fill % 8; // unused bits of the last byte
    if (free != 4)
        bw.put(Code{0, uint8_t(free > 4 ? free - 4 : free + 4)});
    if (twoD)
        bw.put(Code{uint16_t((kEol.bits << 1) | (oneDRow ? 1 : 0)), uint8_t(kEol.length + 1)});
    else
        bw.put(kEol);
}

} // namespace

void CcittEncoder::reserve(int width) {
    const size_t most = size_t(std::max(width, 0)) + 1 + kSentinels;
    if (m_ref.size() < most) {
        m_ref.resize(most);
        m_cur.resize(most);
    }
}

bool CcittEncoder::encodeStrip(Scheme scheme, int rowsPerGroup, const uint8_t* rows, int width, size_t stride,
                               uint32_t count, std::vector<uint8_t>& out, bool fixedRoom,
                               const std::atomic<bool>* stop) {
    reserve(width);
    // The row above the first is white: no changes.
    size_t nref = 0;
    std::fill(m_ref.begin(), m_ref.begin() + kSentinels, width);
    out.clear();
    size_t used = 0;
    BitWriter bw{nullptr};
    // Group 3 2-D: a row in one dimension, then rowsPerGroup - 1 rows in two, over again.
    int twoDLeft = 0;
    for (uint32_t r = 0; r < count; ++r) {
        if (stop && stop->load(std::memory_order_relaxed))
            return false;
        const uint8_t* row = rows + size_t(r) * stride;
        int32_t* C = m_cur.data();
        const size_t ncur = rowChanges(row, width, C);
        std::fill(C + ncur, C + ncur + kSentinels, width);

        // Room for the row's codes at their longest: at most one horizontal mode (3 bits and
        // two runs of at most 25 bits plus 12 per 2560 pixels) or vertical mode per change of
        // this row and a pass code per two changes of the row above; an EOL; the strip's end.
        const size_t bound = ((ncur + 2) * 56 + (nref + 2) * 4 + size_t(width) / 200 + 192) / 8 + 16;
        if (out.size() < used + bound) {
            // The buffer grows by doubling its allocation (never with fixed room), but its size
            // only by a step past what is needed: a resize fills and so makes resident what it
            // adds, and a strip's codes stay far below a doubling's worth.
            const size_t need = used + bound;
            if (need > out.capacity()) {
                if (fixedRoom)
                    return false;
                out.reserve(std::max(out.capacity() * 2, need));
            }
            out.resize(std::min(out.capacity(), need + kGrowthStep));
        }
        bw.p = out.data() + used;

        switch (scheme) {
        case Scheme::G4:
            bw = codeRow2D(bw, C, m_ref.data(), width);
            break;
        case Scheme::G3OneD:
            putEol(bw, false, true);
            bw = codeRow1D(bw, C, width);
            break;
        case Scheme::G3TwoD:
            putEol(bw, true, twoDLeft == 0);
            if (twoDLeft == 0) {
                bw = codeRow1D(bw, C, width);
                twoDLeft = rowsPerGroup - 1;
            } else {
                bw = codeRow2D(bw, C, m_ref.data(), width);
                --twoDLeft;
            }
            break;
        }
        used = size_t(bw.p - out.data());
        m_ref.swap(m_cur);
        nref = ncur;
    }
    if (out.size() < used + 16) {
        if (fixedRoom && used + 16 > out.capacity())
            return false;
        out.resize(used + 16);
    }
    bw.p = out.data() + used;
    // A Group 4 strip ends with the end-of-facsimile-block: two EOLs. Then the last byte is
    // padded.
    if (scheme == Scheme::G4) {
        bw.put(kEol);
        bw.put(kEol);
    }
    bw.flush();
    out.resize(size_t(bw.p - out.data()));
    return true;
}

} // namespace qx::tiff
