#pragma once
// Builds EMF+ records (the GDI+ records that EMR_COMMENT records carry) for tests, in the
// published layouts: a 12-byte record header (type, flags, size, data size) and little-endian
// fields, objects starting with a graphics version.

#include "emf_writer.h"

#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace qx::emf::test {

inline void putF(Buffer& b, float f) {
    uint32_t v;
    std::memcpy(&v, &f, 4);
    put32(b, v);
}

// UTF-16 code units (or glyph numbers), two bytes each.
inline void putUnits(Buffer& b, const std::u16string& s) {
    for (char16_t c : s)
        put16(b, uint16_t(c));
}

enum : uint16_t {
    EmfPlusHeader = 0x4001, EmfPlusEof = 0x4002, EmfPlusObject = 0x4008, EmfPlusClear = 0x4009,
    EmfPlusFillRects = 0x400A, EmfPlusDrawRects = 0x400B, EmfPlusFillPolygon = 0x400C, EmfPlusDrawLines = 0x400D,
    EmfPlusFillEllipse = 0x400E, EmfPlusDrawEllipse = 0x400F, EmfPlusFillPie = 0x4010, EmfPlusDrawPie = 0x4011,
    EmfPlusDrawArc = 0x4012, EmfPlusFillPath = 0x4014, EmfPlusDrawPath = 0x4015, EmfPlusFillClosedCurve = 0x4016,
    EmfPlusDrawBeziers = 0x4019, EmfPlusDrawImage = 0x401A, EmfPlusDrawImagePoints = 0x401B,
    EmfPlusDrawString = 0x401C, EmfPlusDrawDriverString = 0x4036, EmfPlusSave = 0x4025, EmfPlusRestore = 0x4026, EmfPlusSetWorldTransform = 0x402A,
    EmfPlusResetWorldTransform = 0x402B, EmfPlusMultiplyWorldTransform = 0x402C, EmfPlusTranslateWorldTransform = 0x402D,
    EmfPlusScaleWorldTransform = 0x402E, EmfPlusRotateWorldTransform = 0x402F, EmfPlusSetPageTransform = 0x4030,
    EmfPlusResetClip = 0x4031, EmfPlusSetClipRect = 0x4032, EmfPlusSetClipPath = 0x4033,
};

constexpr uint32_t kGraphicsVersion = 0xDBC01002;

// EMF+ records, gathered and then written into an EMF as one EMR_COMMENT.
class PlusWriter {
public:
    // The EMF+ header: dual (GDI records draw the page too) or EMF+ only, at dpi.
    explicit PlusWriter(bool dual = false, uint32_t dpi = 96) {
        Buffer b;
        put32(b, kGraphicsVersion);
        put32(b, 0);
        put32(b, dpi);
        put32(b, dpi);
        rec(EmfPlusHeader, dual ? 1 : 0, b);
    }

    PlusWriter& rec(uint16_t type, uint16_t flags, Buffer body) {
        while (body.size() % 4)
            body.push_back(0);
        put16(m_data, type);
        put16(m_data, flags);
        put32(m_data, uint32_t(body.size() + 12));
        put32(m_data, uint32_t(body.size()));
        m_data.insert(m_data.end(), body.begin(), body.end());
        return *this;
    }
    // A record of 32-bit fields (floats given as floats).
    PlusWriter& fields(uint16_t type, uint16_t flags, std::initializer_list<double> values, bool asFloat) {
        Buffer b;
        for (double v : values)
            asFloat ? putF(b, float(v)) : put32(b, uint32_t(int64_t(v)));
        return rec(type, flags, b);
    }

    // --- objects
    PlusWriter& object(uint8_t id, uint8_t kind, const Buffer& data) {
        Buffer b;
        put32(b, kGraphicsVersion);
        b.insert(b.end(), data.begin(), data.end());
        return rec(EmfPlusObject, uint16_t(kind << 8 | id), b);
    }
    PlusWriter& solidBrush(uint8_t id, uint32_t argb) {
        Buffer b;
        put32(b, 0);
        put32(b, argb);
        return object(id, 1, b);
    }
    PlusWriter& hatchBrush(uint8_t id, uint32_t style, uint32_t fore, uint32_t back) {
        Buffer b;
        for (uint32_t v : {1u, style, fore, back})
            put32(b, v);
        return object(id, 1, b);
    }
    // A linear gradient from start (left edge) to end (right edge) of a rectangle.
    PlusWriter& linearBrush(uint8_t id, float x, float y, float w, float h, uint32_t start, uint32_t end) {
        Buffer b;
        for (uint32_t v : {4u, 0u, 0u})
            put32(b, v); // type, flags, wrap mode
        for (float v : {x, y, w, h})
            putF(b, v);
        for (uint32_t v : {start, end, 0u, 0u})
            put32(b, v);
        return object(id, 1, b);
    }
    // A pen of width in unit (0 world, 2 pixel, ...), with a solid brush; lineStyle 0 is solid.
    PlusWriter& pen(uint8_t id, float width, uint32_t argb, uint32_t unit = 0, int lineStyle = 0) {
        Buffer b;
        put32(b, 0);                            // type
        put32(b, lineStyle ? 0x20 : 0);         // pen data flags
        put32(b, unit);
        putF(b, width);
        if (lineStyle)
            put32(b, uint32_t(lineStyle));
        put32(b, kGraphicsVersion);             // the brush
        put32(b, 0);
        put32(b, argb);
        return object(id, 2, b);
    }
    // A path of float points with their types (0 start, 1 line, 3 Bézier, | 0x80 close).
    PlusWriter& path(uint8_t id, const std::vector<std::pair<float, float>>& pts, const std::vector<uint8_t>& types) {
        Buffer b;
        put32(b, uint32_t(pts.size()));
        put32(b, 0);
        for (auto [x, y] : pts) {
            putF(b, x);
            putF(b, y);
        }
        b.insert(b.end(), types.begin(), types.end());
        return object(id, 3, b);
    }
    PlusWriter& font(uint8_t id, float em, uint32_t unit, const std::u16string& family, uint32_t style = 0) {
        Buffer b;
        putF(b, em);
        put32(b, unit);
        put32(b, style);
        put32(b, 0);
        put32(b, uint32_t(family.size()));
        putUnits(b, family);
        return object(id, 6, b);
    }
    // A 24-bit bitmap of w x h pixels (rows top-down, 0xRRGGBB each).
    PlusWriter& image(uint8_t id, int w, int h, const std::vector<uint32_t>& rgb) {
        return object(id, 5, imageData(w, h, rgb));
    }
    // A texture brush tiling such a bitmap.
    PlusWriter& textureBrush(uint8_t id, int w, int h, const std::vector<uint32_t>& rgb) {
        Buffer b;
        for (uint32_t v : {2u, 0u, 0u, kGraphicsVersion})
            put32(b, v); // type, flags, wrap mode, the image's version
        const Buffer image = imageData(w, h, rgb);
        b.insert(b.end(), image.begin(), image.end());
        return object(id, 1, b);
    }
    static Buffer imageData(int w, int h, const std::vector<uint32_t>& rgb) {
        Buffer b;
        const uint32_t stride = (uint32_t(w) * 3 + 3) & ~3u;
        put32(b, 1); // bitmap
        put32(b, uint32_t(w));
        put32(b, uint32_t(h));
        put32(b, stride);
        put32(b, 0x00021808); // 24 bits RGB
        put32(b, 0);          // pixels
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                const uint32_t c = rgb[size_t(y) * size_t(w) + size_t(x)];
                b.push_back(uint8_t(c));
                b.push_back(uint8_t(c >> 8));
                b.push_back(uint8_t(c >> 16));
            }
            for (uint32_t i = uint32_t(w) * 3; i < stride; ++i)
                b.push_back(0);
        }
        return b;
    }

    // --- drawing
    // Rectangles (x, y, w, h) as floats, filled with a colour (argb) or brush object.
    PlusWriter& fillRects(uint32_t brush, bool isColor, const std::vector<std::vector<float>>& rects) {
        Buffer b;
        put32(b, brush);
        put32(b, uint32_t(rects.size()));
        for (const auto& r : rects)
            for (float v : r)
                putF(b, v);
        return rec(EmfPlusFillRects, isColor ? 0x8000 : 0, b);
    }
    PlusWriter& points(uint16_t type, uint16_t flags, std::initializer_list<uint32_t> lead,
                       const std::vector<std::pair<float, float>>& pts, bool compressed = false) {
        Buffer b;
        for (uint32_t v : lead)
            put32(b, v);
        put32(b, uint32_t(pts.size()));
        for (auto [x, y] : pts) {
            if (compressed) {
                put16(b, uint16_t(int16_t(x)));
                put16(b, uint16_t(int16_t(y)));
            } else {
                putF(b, x);
                putF(b, y);
            }
        }
        return rec(type, uint16_t(flags | (compressed ? 0x4000 : 0)), b);
    }
    PlusWriter& drawString(uint8_t font, uint32_t argb, float x, float y, const std::u16string& s) {
        Buffer b;
        put32(b, argb);
        put32(b, 0xffffffff); // no string format
        put32(b, uint32_t(s.size()));
        for (float v : {x, y, 0.0f, 0.0f})
            putF(b, v);
        putUnits(b, s);
        return rec(EmfPlusDrawString, uint16_t(0x8000 | font), b);
    }
    // Glyph numbers (or characters, with DriverStringOptionsCmapLookup in options), each at its
    // baseline position, in a colour; no matrix.
    PlusWriter& drawDriverString(uint8_t font, uint32_t argb, uint32_t options, const std::u16string& glyphs,
                                 const std::vector<std::pair<float, float>>& positions) {
        Buffer b;
        for (uint32_t v : {argb, options, 0u, uint32_t(glyphs.size())})
            put32(b, v);
        putUnits(b, glyphs);
        for (auto [x, y] : positions) {
            putF(b, x);
            putF(b, y);
        }
        return rec(EmfPlusDrawDriverString, uint16_t(0x8000 | font), b);
    }

    const Buffer& bytes() const { return m_data; }

    // Writes the records gathered so far into emf as one comment and starts afresh.
    void flushInto(EmfWriter& emf) {
        Buffer b;
        put32(b, uint32_t(m_data.size() + 4));
        put32(b, 0x2B464D45); // "EMF+"
        b.insert(b.end(), m_data.begin(), m_data.end());
        emf.raw(70, b);
        m_data.clear();
    }

private:
    Buffer m_data;
};

} // namespace qx::emf::test
