#pragma once
// A scalable font file that is not one of the resident fonts: the DejaVu faces that stand in for
// Verdana-like sans serifs and for documents that name DejaVu itself, the files behind resident
// fonts when a metafile addresses their glyphs by number, and TrueType fonts that a spool file
// embeds. Glyphs are rendered by the font library's MemoryFace; this adds the character map,
// the family name and the face-wide metrics.

#include "fonts/font_library.h"

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qx::emf {

class FileFace {
public:
    // The file of that name in the first of folders that has it; null when none opens.
    static std::unique_ptr<FileFace> open(const std::string& fileName, const std::vector<std::string>& folders);
    // The file at path; null when it does not open.
    static std::unique_ptr<FileFace> openPath(const std::string& path);
    // Font data in memory (TrueType or OpenType); null when FreeType cannot read it.
    static std::unique_ptr<FileFace> fromData(std::vector<uint8_t> data);
    ~FileFace();

    FontMetrics metrics() const { return m_metrics; }
    // The family name the font gives itself ("DejaVu Sans"); may be empty.
    const std::string& family() const { return m_family; }
    bool bold() const { return m_bold; }
    bool italic() const { return m_italic; }

    // By character, through the font's Unicode map.
    bool hasChar(char32_t c) const { return glyphFor(c) != 0; }
    double advance(char32_t c) const;
    std::optional<GlyphBitmap> render(char32_t c, const Matrix& fontToDevice) const;

    // By glyph index, as the font numbers its glyphs.
    uint32_t glyphCount() const;
    double glyphAdvance(uint32_t glyph) const { return m_face->advance(glyph); }
    // Rendered glyphs are kept (a few megabytes at most) for the next time they are asked for
    // at the same size and angle: documents repeat their letters.
    std::optional<GlyphBitmap> renderGlyph(uint32_t glyph, const Matrix& fontToDevice) const;

private:
    FileFace() = default;
    uint32_t glyphFor(char32_t c) const;

    std::unique_ptr<MemoryFace> m_face;
    struct CharMap;
    std::unique_ptr<CharMap> m_map;
    FontMetrics m_metrics;
    using GlyphKey = std::array<long, 5>; // glyph, then the matrix in 1/1024ths
    mutable std::map<GlyphKey, std::optional<GlyphBitmap>> m_glyphs;
    mutable size_t m_glyphBytes = 0;
    std::string m_family;
    bool m_bold = false, m_italic = false;
};

} // namespace qx::emf
