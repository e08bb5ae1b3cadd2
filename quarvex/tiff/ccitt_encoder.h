#pragma once
// CCITT Group 4 (T.6) and Group 3 (T.4, with fill bits) compression of 1-bit strips, written for
// speed and giving the same bytes as libtiff's own codec: two-dimensional rows are coded against
// the row above (white above the first row of a strip), bits are packed first bit in the high
// end of each byte, a Group 4 strip ends with the end-of-facsimile-block code (two EOLs) and
// every strip is padded with zero bits to a byte. Group 3 rows each start with an EOL placed so
// that it ends on a byte boundary.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace qx::tiff {

class CcittEncoder {
public:
    enum class Scheme { G3OneD, G3TwoD, G4 };
    // Compresses `rows` rows of `width` pixels (1 = black, first pixel in a byte's high bit; bits
    // past the width are ignored), each row `stride` bytes after the last, into out (replaced).
    // G3TwoD codes a row in one dimension, then rowsPerGroup - 1 rows in two, and so on.
    // With fixedRoom, out is never reallocated: the codes must fit in its capacity, and false
    // (out's contents undefined) says they might not have. When stop turns true, coding gives
    // up (false) at the next row.
    bool encodeStrip(Scheme scheme, int rowsPerGroup, const uint8_t* rows, int width, size_t stride,
                     uint32_t count, std::vector<uint8_t>& out, bool fixedRoom = false,
                     const std::atomic<bool>* stop = nullptr);
    // Makes room for rows of width pixels, so that coding them allocates nothing.
    void reserve(int width);

private:
    // Positions where a row changes colour (from white at its left edge), then the width
    // several times as a sentinel.
    std::vector<int32_t> m_ref, m_cur;
};

// Appends to changes the positions in row where its colour differs from the pixel before (the
// pixel before the first being white), ignoring bits at and past width; returns their number.
size_t rowChanges(const uint8_t* row, int width, int32_t* changes);
// The number of those positions, without listing them.
size_t countChanges(const uint8_t* row, int width);

} // namespace qx::tiff
