#include "pclxl/downloaded_font.h"

namespace qx::pclxl {

namespace {

uint16_t be16(const uint8_t* p) { return uint16_t(p[0] << 8 | p[1]); }
uint32_t be32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }

constexpr uint16_t kSegBitmapResolution = 0x4252; // "BR"
constexpr uint16_t kSegGlobalTrueType = 0x4754;   // "GT"
constexpr uint16_t kSegNull = 0xFFFF;

constexpr int kMaxGlyphSide = 16384;

} // namespace

std::shared_ptr<DownloadedFont> parseFontHeader(const std::vector<uint8_t>& h, std::string& error) {
    if (h.size() < 8) {
        error = "font header shorter than 8 bytes";
        return nullptr;
    }
    if (h[0] != 0) {
        error = "unknown font header format " + std::to_string(h[0]);
        return nullptr;
    }
    auto font = std::make_shared<DownloadedFont>();
    font->symbolSet = be16(&h[2]);
    const uint8_t technology = h[4];
    if (technology == 254)
        font->kind = DownloadedFont::Kind::Bitmap;
    else if (technology == 0 || technology == 1)
        font->kind = DownloadedFont::Kind::TrueType;
    else {
        error = "unknown font scaling technology " + std::to_string(technology);
        return nullptr;
    }
    // Segments: two-byte identifier, four-byte size, data; the null segment ends the list. Some
    // drivers write two-byte sizes; when four-byte sizes do not fit the header, those are tried.
    for (const int sizeBytes : {4, 2}) {
        bool fits = true;
        font->globalData.clear();
        size_t pos = 8;
        while (pos + 2 + size_t(sizeBytes) <= h.size()) {
            const uint16_t id = be16(&h[pos]);
            const uint32_t size = sizeBytes == 4 ? be32(&h[pos + 2]) : be16(&h[pos + 2]);
            pos += 2 + size_t(sizeBytes);
            if (size > h.size() - pos) {
                fits = false;
                break;
            }
            const uint8_t* seg = h.data() + pos;
            if (id == kSegNull)
                break;
            if (id == kSegBitmapResolution && size >= 4) {
                font->resX = be16(seg);
                font->resY = be16(seg + 2);
                if (font->resX <= 0 || font->resY <= 0) {
                    error = "bitmap font resolution of zero";
                    return nullptr;
                }
            } else if (id == kSegGlobalTrueType) {
                font->globalData.insert(font->globalData.end(), seg, seg + size);
            }
            pos += size;
        }
        if (fits)
            break;
        if (sizeBytes == 2) {
            error = "font header segment runs past the header";
            return nullptr;
        }
    }
    if (font->kind == DownloadedFont::Kind::TrueType && font->globalData.empty()) {
        error = "TrueType font header without global data";
        return nullptr;
    }
    return font;
}

bool addCharacter(DownloadedFont& font, uint16_t code, const uint8_t* d, size_t size, std::string& error) {
    if (size < 2) {
        error = "character data shorter than its descriptor";
        return false;
    }
    const uint8_t format = d[0];
    const uint8_t cls = d[1];
    if (font.kind == DownloadedFont::Kind::Bitmap) {
        if (format != 0 || cls != 0 || size < 10) {
            error = "unknown bitmap character format " + std::to_string(format) + "/" + std::to_string(cls);
            return false;
        }
        BitmapGlyph g;
        g.left = int16_t(be16(d + 2));
        g.top = int16_t(be16(d + 4));
        g.width = be16(d + 6);
        g.height = be16(d + 8);
        if (g.width > kMaxGlyphSide || g.height > kMaxGlyphSide) {
            error = "character bitmap larger than 16384 pixels";
            return false;
        }
        const size_t stride = (size_t(g.width) + 7) / 8;
        if (stride * g.height > size - 10) {
            error = "character bitmap shorter than its width and height";
            return false;
        }
        g.mask.width = g.width;
        g.mask.height = g.height;
        g.mask.stride = stride;
        g.mask.bits.assign(d + 10, d + 10 + stride * g.height);
        font.bitmaps[code] = std::move(g);
        return true;
    }
    // TrueType: format 1; class 0 has no metrics, class 1 horizontal, class 2 both.
    if (format != 1 || cls > 2 || size < 6) {
        error = "unknown TrueType character format " + std::to_string(format) + "/" + std::to_string(cls);
        return false;
    }
    size_t pos = 4;
    DownloadedFont::TrueTypeChar c;
    if (cls >= 1) {
        if (size < 8) {
            error = "TrueType character shorter than its descriptor";
            return false;
        }
        c.hasMetrics = true;
        c.leftSideBearing = int16_t(be16(d + 4));
        c.advanceWidth = be16(d + 6);
        pos += 4;
    }
    if (cls == 2)
        pos += 2; // top side bearing
    if (pos + 2 > size) {
        error = "TrueType character shorter than its descriptor";
        return false;
    }
    c.glyphId = be16(d + pos);
    c.glyf.assign(d + pos + 2, d + size);
    font.ttChars[code] = std::move(c);
    font.rendererStale = true;
    return true;
}

} // namespace qx::pclxl
