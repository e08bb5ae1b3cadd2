#pragma once
// Downloaded PCL bitmap fonts: the font header of ESC)s#W and the character data of ESC(s#W.

#include "fonts/font_library.h"
#include "render/device.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace qx::pcl5 {

struct SoftGlyph {
    Mask mask;        // 1 = ink
    int left = 0;     // dots from the reference point to the bitmap's left edge
    int top = 0;      // dots from the baseline up to the bitmap's top edge
    double deltaX = 0; // advance in dots
};

struct SoftFont {
    int headerFormat = 0;   // 0 bitmap, 20 bitmap with resolution
    int fontType = 1;       // 0: 7 bit, 1: 8 bit, 2: all 256 codes
    bool proportional = false;
    bool landscape = false;
    uint16_t symbolSet = 0;
    double pitchDots = 0;   // the fixed advance, dots
    double heightDots = 0;
    int style = 0;
    int weight = 0;
    int typeface = 0;
    double resolution = 300; // dots per inch of the bitmaps
    std::map<uint32_t, SoftGlyph> glyphs;
    size_t bytes = 0;        // memory the glyphs hold

    // Scalable (TrueType) fonts: the tables of the font header's global data, and the glyph
    // outlines downloaded character by character.
    bool scalable = false;
    std::vector<uint8_t> globalTables;              // an sfnt without glyph outlines
    std::map<uint32_t, uint16_t> glyphIds;          // character code -> glyph index
    std::map<uint16_t, std::vector<uint8_t>> outlines; // glyph index -> 'glyf' entry
    std::shared_ptr<MemoryFace> face;               // built from the above when needed
    bool faceDirty = true;
    std::vector<bool> builtGlyphs;                  // the outlines the face was built with
    size_t outlineBytes = 0;                        // bytes of all outlines now
    size_t builtBytes = 0;                          // ... when the face was last built
    size_t rebuildBytes = 0;                        // bytes copied by all builds so far

    // The face for the downloaded outlines that holds glyph `glyphId`, rebuilt when new outlines
    // came since; null if unusable. Builds are rationed so that a job that downloads and prints
    // one character at a time cannot make them cost more than a constant times its own size.
    MemoryFace* scalableFace(uint16_t glyphId);
};

// A TrueType character download (class 15): the glyph index and its outline.
struct TrueTypeCharacter {
    uint16_t glyphId = 0;
    std::vector<uint8_t> outline;
};
std::optional<TrueTypeCharacter> parseTrueTypeCharacter(std::span<const uint8_t> data, std::string* why = nullptr);

// Builds a TrueType file from global tables and outlines (exposed for tests).
std::vector<uint8_t> buildTrueType(std::span<const uint8_t> globalTables,
                                   const std::map<uint16_t, std::vector<uint8_t>>& outlines);

// Reads a font header. nullopt for a header too short or of a format this engine does not
// take (scalable formats); `why` says what was wrong.
std::optional<SoftFont> parseFontHeader(std::span<const uint8_t> data, std::string* why = nullptr);

// A character download may come in several blocks: the first carries the descriptor, the
// continuations only more bitmap bytes. The assembler gathers them and yields the glyph once
// the bitmap is complete.
class CharacterAssembler {
public:
    // Returns the finished glyph, if this block completed one. `why` is set for a block that is
    // damaged or of a kind not supported.
    std::optional<SoftGlyph> add(std::span<const uint8_t> block, std::string* why = nullptr);

private:
    bool m_pending = false;
    bool m_compressed = false;
    SoftGlyph m_glyph;
    std::vector<uint8_t> m_data;
    size_t m_needed = 0;
};

// The largest bitmap a downloaded character may have, in pixels.
constexpr long kMaxSoftGlyphPixels = 4L * 1024 * 1024;

} // namespace qx::pcl5
