#pragma once
// Raster row decompression: the methods of ESC*b#M.
//
// Each decoder writes one row into `row` (already sized to the row's byte width; bytes past the
// data are zero, data past the width is dropped). Methods 3 and 9 change the seed row in place,
// so `row` must hold the previous row (the seed) when they are called.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace qx::pcl5 {

enum class Compression : int {
    Unencoded = 0,
    RunLength = 1,
    Tiff = 2,
    DeltaRow = 3,
    Adaptive = 5,
    ReplacementDelta = 9,
};

bool knownCompression(int method);

// Method 0: the bytes themselves.
void decodeUnencoded(std::span<const uint8_t> in, std::vector<uint8_t>& row);
// Method 1: (count, byte) pairs, each byte repeated count + 1 times.
void decodeRunLength(std::span<const uint8_t> in, std::vector<uint8_t>& row);
// Method 2: PackBits: control 0..127 = that many plus one literal bytes, 129..255 = the next
// byte repeated 257 - control times, 128 = nothing.
void decodeTiff(std::span<const uint8_t> in, std::vector<uint8_t>& row);
// Method 3: delta row against the seed in `row`.
void decodeDeltaRow(std::span<const uint8_t> in, std::vector<uint8_t>& row);
// Method 9: replacement delta row against the seed in `row`.
void decodeReplacementDelta(std::span<const uint8_t> in, std::vector<uint8_t>& row);

// One row by method 0, 1, 2, 3 or 9. Returns false for another method (row left alone).
bool decodeRow(int method, std::span<const uint8_t> in, std::vector<uint8_t>& row);

// Method 5: a block of rows. Every finished row is handed to emit (which may stop the block by
// returning false); `row` carries the seed from row to row and holds the last row afterwards.
void decodeAdaptive(std::span<const uint8_t> in, std::vector<uint8_t>& row,
                    const std::function<bool(const std::vector<uint8_t>&)>& emit);

} // namespace qx::pcl5
