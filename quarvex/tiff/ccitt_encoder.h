#pragma once
// CCITT Group 4 (T.6) compression of 1-bit strips, written for speed and giving the same bytes
// as libtiff's own codec: rows are coded two-dimensionally against the row above (white above
// the first row of a strip), bits are packed first bit in the high end of each byte, and the
// strip ends with the end-of-facsimile-block code (two EOLs) padded with zero bits to a byte.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qx::tiff {

class G4Encoder {
public:
    // Compresses `rows` rows of `width` pixels (1 = black, first pixel in a byte's high bit; bits
    // past the width are ignored), each row `stride` bytes after the last, into out (replaced).
    void encodeStrip(const uint8_t* rows, int width, size_t stride, uint32_t count, std::vector<uint8_t>& out);

private:
    // Positions where a row changes colour (from white at its left edge), then the width
    // several times as a sentinel.
    std::vector<int32_t> m_ref, m_cur;
};

// Appends to changes the positions in row where its colour differs from the pixel before (the
// pixel before the first being white), ignoring bits at and past width; returns their number.
size_t rowChanges(const uint8_t* row, int width, int32_t* changes);

} // namespace qx::tiff
