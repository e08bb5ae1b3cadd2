#pragma once
// Decoders for the raster data of images and patterns: run-length (PackBits style), delta row
// and JPEG. They work a few rows at a time, so that the memory they use follows the rows asked
// for, not what a small, highly compressed block claims to expand to.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace qx::pclxl {

// Run-length data: n = 0..127 copies the next n+1 bytes, n = -127..-1 repeats the next byte
// 1-n times, -128 does nothing.
class RunLengthDecoder {
public:
    RunLengthDecoder(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    // Appends up to n bytes to out; returns how many it appended (fewer at the end of the data).
    size_t read(size_t n, std::vector<uint8_t>& out);
    // The data ended in the middle of a run.
    bool damaged() const { return m_damaged; }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_pos = 0;
    size_t m_literal = 0; // literal bytes still to copy
    size_t m_repeat = 0;  // copies of m_byte still to emit
    uint8_t m_byte = 0;
    bool m_damaged = false;
};

// Delta row data: each row is a two-byte byte count (low byte first) followed by commands that
// replace bytes of the previous row (the seed row, which the caller keeps between blocks).
class DeltaRowDecoder {
public:
    DeltaRowDecoder(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    // Decodes the next row into seed; false at the end of the data.
    bool nextRow(std::vector<uint8_t>& seed);
    bool damaged() const { return m_damaged; }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_pos = 0;
    bool m_damaged = false;
};

// A JPEG stream. Calls `rows` with batches of decoded rows (components 1 = grey, 3 = RGB; no
// padding) as it goes. maxWidth guards against absurd headers.
struct JpegInfo {
    int width = 0;
    int height = 0;
    int components = 0;
};
bool decodeJpeg(const uint8_t* data, size_t size, int maxWidth, JpegInfo& info,
                const std::function<void(const uint8_t* rows, int first, int count)>& rows,
                std::string& error);

} // namespace qx::pclxl
