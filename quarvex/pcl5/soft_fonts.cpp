#include "pcl5/soft_fonts.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace qx::pcl5 {
namespace {

uint16_t u16(std::span<const uint8_t> d, size_t at) { return static_cast<uint16_t>((d[at] << 8) | d[at + 1]); }
int16_t s16(std::span<const uint8_t> d, size_t at) { return static_cast<int16_t>(u16(d, at)); }

// Class 2 bitmaps: each row is a repeat count, then alternating white and black run lengths
// until the row is full.
bool decodeCompressedBitmap(std::span<const uint8_t> in, Mask& m) {
    size_t i = 0;
    int y = 0;
    std::vector<uint8_t> row(m.stride);
    while (y < m.height && i < in.size()) {
        const int repeat = in[i++];
        std::fill(row.begin(), row.end(), 0);
        int x = 0;
        bool black = false;
        while (x < m.width && i < in.size()) {
            const int run = in[i++];
            if (black)
                for (int k = 0; k < run && x + k < m.width; ++k)
                    row[static_cast<size_t>((x + k) / 8)] |= static_cast<uint8_t>(0x80 >> ((x + k) % 8));
            x += run;
            black = !black;
        }
        for (int r = 0; r <= repeat && y < m.height; ++r, ++y)
            std::memcpy(m.bits.data() + static_cast<size_t>(y) * m.stride, row.data(), m.stride);
    }
    return y >= m.height;
}

} // namespace

std::optional<SoftFont> parseFontHeader(std::span<const uint8_t> d, std::string* why) {
    if (d.size() < 64) {
        if (why)
            *why = "font header too short";
        return std::nullopt;
    }
    SoftFont f;
    f.headerFormat = d[2];
    if (f.headerFormat != 0 && f.headerFormat != 20) {
        if (why)
            *why = "scalable downloaded fonts (format " + std::to_string(f.headerFormat) + ") not supported";
        return std::nullopt;
    }
    f.fontType = d[3];
    f.landscape = d[12] != 0;
    f.proportional = d[13] != 0;
    f.symbolSet = u16(d, 14);
    f.pitchDots = u16(d, 16) / 4.0;
    f.heightDots = u16(d, 18) / 4.0;
    f.style = (d[4] << 8) | d[23];
    f.weight = static_cast<int8_t>(d[24]);
    f.typeface = (d[26] << 8) | d[25];
    if (f.headerFormat == 20 && d.size() >= 68) {
        const int xres = u16(d, 64);
        if (xres >= 75 && xres <= 2400)
            f.resolution = xres;
    }
    return f;
}

std::optional<SoftGlyph> CharacterAssembler::add(std::span<const uint8_t> b, std::string* why) {
    if (b.size() < 2) {
        if (why)
            *why = "character data too short";
        return std::nullopt;
    }
    const bool continuation = b[1] != 0;
    if (continuation) {
        if (!m_pending) {
            if (why)
                *why = "character continuation without a character";
            return std::nullopt;
        }
        m_data.insert(m_data.end(), b.begin() + 2, b.end());
    } else {
        m_pending = false;
        m_data.clear();
        if (b[0] != 4) {
            if (why)
                *why = "character format " + std::to_string(b[0]) + " not supported";
            return std::nullopt;
        }
        if (b.size() < 16) {
            if (why)
                *why = "character descriptor too short";
            return std::nullopt;
        }
        const size_t descriptor = std::max<size_t>(b[2], 14);
        const int cls = b[3];
        if (cls != 1 && cls != 2) {
            if (why)
                *why = "character class " + std::to_string(cls) + " not supported";
            return std::nullopt;
        }
        SoftGlyph g;
        g.left = s16(b, 6);
        g.top = s16(b, 8);
        const int w = u16(b, 10), h = u16(b, 12);
        g.deltaX = s16(b, 14) / 4.0;
        if (static_cast<long>(w) * h > kMaxSoftGlyphPixels) {
            if (why)
                *why = "downloaded character too large";
            return std::nullopt;
        }
        g.mask.width = w;
        g.mask.height = h;
        g.mask.stride = static_cast<size_t>((w + 7) / 8);
        g.mask.bits.assign(g.mask.stride * static_cast<size_t>(h), 0);
        m_glyph = std::move(g);
        m_compressed = cls == 2;
        m_needed = m_compressed ? 0 : m_glyph.mask.bits.size();
        const size_t start = std::min(b.size(), 2 + descriptor);
        m_data.assign(b.begin() + static_cast<ptrdiff_t>(start), b.end());
        m_pending = true;
    }
    // An uncompressed bitmap is complete when all its bytes are there; a compressed one when its
    // rows fill the height.
    if (!m_compressed) {
        if (m_data.size() < m_needed)
            return std::nullopt;
        std::memcpy(m_glyph.mask.bits.data(), m_data.data(), m_needed);
    } else {
        if (!decodeCompressedBitmap(m_data, m_glyph.mask))
            return std::nullopt;
    }
    m_pending = false;
    m_data.clear();
    return std::move(m_glyph);
}

} // namespace qx::pcl5
