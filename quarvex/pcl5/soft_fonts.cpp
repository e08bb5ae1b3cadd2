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

namespace {

uint32_t u32(std::span<const uint8_t> d, size_t at) {
    return (static_cast<uint32_t>(d[at]) << 24) | (static_cast<uint32_t>(d[at + 1]) << 16) |
           (static_cast<uint32_t>(d[at + 2]) << 8) | d[at + 3];
}

void put16(std::vector<uint8_t>& v, size_t at, uint32_t x) {
    v[at] = static_cast<uint8_t>(x >> 8);
    v[at + 1] = static_cast<uint8_t>(x);
}
void put32(std::vector<uint8_t>& v, size_t at, uint32_t x) {
    v[at] = static_cast<uint8_t>(x >> 24);
    v[at + 1] = static_cast<uint8_t>(x >> 16);
    v[at + 2] = static_cast<uint8_t>(x >> 8);
    v[at + 3] = static_cast<uint8_t>(x);
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
    if (f.headerFormat == 15 || f.headerFormat == 16) {
        // TrueType: the descriptor, then segments (two-byte ID and a two-byte size for format 15,
        // four-byte size for format 16) up to the null segment; 'GT' holds the font's tables.
        f.scalable = true;
        f.fontType = d[3];
        f.proportional = d[13] != 0;
        f.symbolSet = u16(d, 14);
        f.style = (d[4] << 8) | d[23];
        f.weight = static_cast<int8_t>(d[24]);
        f.typeface = (d[26] << 8) | d[25];
        size_t at = std::max<size_t>(u16(d, 0), 64);
        const size_t sizeBytes = f.headerFormat == 16 ? 4 : 2;
        while (at + 2 + sizeBytes <= d.size()) {
            const uint16_t id = u16(d, at);
            const size_t size = sizeBytes == 4 ? u32(d, at + 2) : u16(d, at + 2);
            at += 2 + sizeBytes;
            if (id == 0xFFFF)
                break;
            if (size > d.size() - at)
                break;
            if (id == (('G' << 8) | 'T'))
                f.globalTables.assign(d.begin() + static_cast<ptrdiff_t>(at),
                                      d.begin() + static_cast<ptrdiff_t>(at + size));
            at += size;
        }
        if (f.globalTables.size() < 12) {
            if (why)
                *why = "TrueType font header without its global tables";
            return std::nullopt;
        }
        return f;
    }
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

std::optional<TrueTypeCharacter> parseTrueTypeCharacter(std::span<const uint8_t> b, std::string* why) {
    // Format 15, continuation, descriptor size, class 15; then the character data: its size, the
    // glyph index and the outline.
    if (b.size() < 4 || b[0] != 15 || b[3] != 15) {
        if (why)
            *why = "not a TrueType character";
        return std::nullopt;
    }
    if (b[1] != 0) {
        if (why)
            *why = "TrueType character continuations not supported";
        return std::nullopt;
    }
    const size_t start = 2 + static_cast<size_t>(b[2]);
    if (start + 4 > b.size()) {
        if (why)
            *why = "TrueType character too short";
        return std::nullopt;
    }
    const size_t size = u16(b, start);
    TrueTypeCharacter c;
    c.glyphId = u16(b, start + 2);
    const size_t end = std::min(b.size(), start + std::max<size_t>(size, 4));
    c.outline.assign(b.begin() + static_cast<ptrdiff_t>(start + 4), b.begin() + static_cast<ptrdiff_t>(end));
    return c;
}

std::vector<uint8_t> buildTrueType(std::span<const uint8_t> gt, const std::map<uint16_t, std::vector<uint8_t>>& outlines) {
    struct Table {
        uint32_t tag;
        std::vector<uint8_t> data;
    };
    std::vector<Table> tables;
    if (gt.size() < 12)
        return {};
    const size_t count = u16(gt, 4);
    for (size_t i = 0; i < count && 12 + i * 16 + 16 <= gt.size(); ++i) {
        const size_t rec = 12 + i * 16;
        const uint32_t tag = u32(gt, rec);
        const size_t off = u32(gt, rec + 8), len = u32(gt, rec + 12);
        if (off > gt.size() || len > gt.size() - off)
            continue;
        // The outlines come with the characters; 'gdir' is only the header's placeholder for them.
        if (tag == 0x676C7966 /*glyf*/ || tag == 0x6C6F6361 /*loca*/ || tag == 0x67646972 /*gdir*/)
            continue;
        tables.push_back({tag, std::vector<uint8_t>(gt.begin() + static_cast<ptrdiff_t>(off),
                                                    gt.begin() + static_cast<ptrdiff_t>(off + len))});
    }
    const uint32_t numGlyphs = outlines.empty() ? 1 : static_cast<uint32_t>(outlines.rbegin()->first) + 1;
    std::vector<uint8_t> glyf, loca((numGlyphs + 1) * 4, 0);
    for (uint32_t g = 0; g < numGlyphs; ++g) {
        put32(loca, g * 4, static_cast<uint32_t>(glyf.size()));
        auto it = outlines.find(static_cast<uint16_t>(g));
        if (it != outlines.end()) {
            glyf.insert(glyf.end(), it->second.begin(), it->second.end());
            while (glyf.size() % 4)
                glyf.push_back(0);
        }
    }
    put32(loca, numGlyphs * 4, static_cast<uint32_t>(glyf.size()));
    bool haveHead = false;
    for (Table& t : tables) {
        if (t.tag == 0x68656164 /*head*/ && t.data.size() >= 54) {
            put16(t.data, 50, 1); // long offsets in 'loca'
            haveHead = true;
        }
        if (t.tag == 0x6D617870 /*maxp*/ && t.data.size() >= 6 && u16(t.data, 4) < numGlyphs)
            put16(t.data, 4, numGlyphs);
    }
    if (!haveHead)
        return {};
    tables.push_back({0x676C7966, std::move(glyf)});
    tables.push_back({0x6C6F6361, std::move(loca)});
    std::sort(tables.begin(), tables.end(), [](const Table& a, const Table& b) { return a.tag < b.tag; });

    std::vector<uint8_t> out(12 + tables.size() * 16, 0);
    put32(out, 0, 0x00010000);
    put16(out, 4, static_cast<uint32_t>(tables.size()));
    uint32_t pow2 = 1, log2 = 0;
    while (pow2 * 2 <= tables.size()) {
        pow2 *= 2;
        ++log2;
    }
    put16(out, 6, pow2 * 16);
    put16(out, 8, log2);
    put16(out, 10, static_cast<uint32_t>(tables.size()) * 16 - pow2 * 16);
    for (size_t i = 0; i < tables.size(); ++i) {
        const size_t rec = 12 + i * 16;
        put32(out, rec, tables[i].tag);
        put32(out, rec + 8, static_cast<uint32_t>(out.size()));
        put32(out, rec + 12, static_cast<uint32_t>(tables[i].data.size()));
        out.insert(out.end(), tables[i].data.begin(), tables[i].data.end());
        while (out.size() % 4)
            out.push_back(0);
    }
    return out;
}

MemoryFace* SoftFont::scalableFace(uint16_t glyphId) {
    if (!scalable)
        return nullptr;
    const bool built = glyphId < builtGlyphs.size() && builtGlyphs[glyphId];
    if (faceDirty && !built) {
        // Past a generous allowance, a new build waits until the outlines have grown by half.
        constexpr size_t kFreeRebuildBytes = 256u * 1024 * 1024;
        if (rebuildBytes > kFreeRebuildBytes && outlineBytes < builtBytes + builtBytes / 2)
            return face.get();
        faceDirty = false;
        face.reset();
        builtGlyphs.clear();
        std::vector<uint8_t> sfnt = buildTrueType(globalTables, outlines);
        rebuildBytes += sfnt.size();
        builtBytes = outlineBytes;
        if (!sfnt.empty())
            face = MemoryFace::open(std::move(sfnt));
        if (face) {
            builtGlyphs.assign(outlines.empty() ? 0 : outlines.rbegin()->first + 1u, false);
            for (const auto& o : outlines)
                builtGlyphs[o.first] = true;
        }
    }
    return face.get();
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
