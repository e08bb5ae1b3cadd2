#pragma once
// A scalable font file that is not one of the resident fonts, addressed by Unicode: the DejaVu
// faces that stand in for Verdana-like sans serifs and for documents that name DejaVu itself.
// Glyphs are rendered by the font library's MemoryFace; this adds the character map and the
// face-wide metrics.

#include "fonts/font_library.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qx::emf {

class FileFace {
public:
    // The file of that name in the first of folders that has it; null when none opens.
    static std::unique_ptr<FileFace> open(const std::string& fileName, const std::vector<std::string>& folders);
    ~FileFace();

    FontMetrics metrics() const { return m_metrics; }
    double advance(char32_t c) const;
    std::optional<GlyphBitmap> render(char32_t c, const Matrix& fontToDevice) const;

private:
    FileFace() = default;
    uint32_t glyphFor(char32_t c) const;

    std::unique_ptr<MemoryFace> m_face;
    struct CharMap;
    std::unique_ptr<CharMap> m_map;
    FontMetrics m_metrics;
};

} // namespace qx::emf
