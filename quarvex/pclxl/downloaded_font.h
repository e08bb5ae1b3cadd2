#pragma once
// Fonts downloaded in a PCL XL stream: bitmap fonts (one bitmap per character, drawn as is) and
// TrueType fonts (outlines assembled into an sfnt and rendered through FreeType).

#include "render/device.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace qx::pclxl {

struct BitmapGlyph {
    int left = 0;   // from the reference point to the left edge, in bitmap pixels
    int top = 0;    // from the reference point up to the top edge
    int width = 0;
    int height = 0;
    Mask mask;
};

class TrueTypeRenderer;

struct DownloadedFont {
    enum class Kind : uint8_t { Bitmap, TrueType };
    Kind kind = Kind::Bitmap;
    int symbolSet = 0;
    int resX = 300, resY = 300; // bitmap fonts: the resolution the bitmaps were made for
    std::map<uint16_t, BitmapGlyph> bitmaps;

    // TrueType: the global tables from the header, and per character code its glyph id and data.
    std::vector<uint8_t> globalData;
    struct TrueTypeChar {
        uint16_t glyphId = 0;
        std::vector<uint8_t> glyf;
        bool hasMetrics = false; // class 1 and 2 characters carry their horizontal metrics
        int16_t leftSideBearing = 0;
        uint16_t advanceWidth = 0;
    };
    std::map<uint16_t, TrueTypeChar> ttChars;
    std::shared_ptr<TrueTypeRenderer> renderer; // rebuilt when characters were added
    bool rendererStale = true;
};

// Parses a font header (format 0). Returns nullptr and sets error when it is unusable.
std::shared_ptr<DownloadedFont> parseFontHeader(const std::vector<uint8_t>& header, std::string& error);

// Parses one character's data into the font. false and error when it is malformed.
bool addCharacter(DownloadedFont& font, uint16_t code, const uint8_t* data, size_t size, std::string& error);

} // namespace qx::pclxl
