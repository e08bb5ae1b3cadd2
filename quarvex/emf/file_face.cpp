#include "emf/file_face.h"

#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_TRUETYPE_TABLES_H

#include <algorithm>
#include <cmath>
#include <fstream>
#include <iterator>

namespace qx::emf {

// FreeType's own view of the same bytes, for the character map and the metrics.
struct FileFace::CharMap {
    std::vector<uint8_t> data;
    FT_Library ft = nullptr;
    FT_Face face = nullptr;
    ~CharMap() {
        if (face)
            FT_Done_Face(face);
        if (ft)
            FT_Done_FreeType(ft);
    }
};

FileFace::~FileFace() = default;

std::unique_ptr<FileFace> FileFace::fromData(std::vector<uint8_t> bytes) {
    std::unique_ptr<FileFace> f(new FileFace());
    f->m_map = std::make_unique<CharMap>();
    f->m_map->data = bytes;
    if (FT_Init_FreeType(&f->m_map->ft) != 0) {
        f->m_map->ft = nullptr;
        return nullptr;
    }
    if (FT_New_Memory_Face(f->m_map->ft, f->m_map->data.data(), FT_Long(f->m_map->data.size()), 0,
                           &f->m_map->face) != 0) {
        f->m_map->face = nullptr;
        return nullptr;
    }
    if (f->m_map->face->units_per_EM == 0)
        return nullptr;
    FT_Select_Charmap(f->m_map->face, FT_ENCODING_UNICODE);
    f->m_face = MemoryFace::open(std::move(bytes));
    if (!f->m_face)
        return nullptr;
    const FT_Face face = f->m_map->face;
    const double em = face->units_per_EM;
    f->m_metrics.ascent = face->ascender / em;
    f->m_metrics.descent = -face->descender / em;
    f->m_metrics.underlinePosition = -face->underline_position / em;
    f->m_metrics.underlineThickness = face->underline_thickness / em;
    if (const auto* os2 = static_cast<const TT_OS2*>(FT_Get_Sfnt_Table(face, FT_SFNT_OS2)); os2 && os2->sCapHeight > 0)
        f->m_metrics.capHeight = os2->sCapHeight / em;
    if (face->family_name)
        f->m_family = face->family_name;
    f->m_bold = (face->style_flags & FT_STYLE_FLAG_BOLD) != 0;
    f->m_italic = (face->style_flags & FT_STYLE_FLAG_ITALIC) != 0;
    return f;
}

std::unique_ptr<FileFace> FileFace::openPath(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return nullptr;
    return fromData(std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>()));
}

std::unique_ptr<FileFace> FileFace::open(const std::string& fileName, const std::vector<std::string>& folders) {
    for (const std::string& folder : folders)
        if (std::unique_ptr<FileFace> f = openPath(folder + "/" + fileName))
            return f;
    return nullptr;
}

uint32_t FileFace::glyphCount() const { return uint32_t(std::max(m_face->glyphCount(), 0)); }

uint32_t FileFace::glyphFor(char32_t c) const { return FT_Get_Char_Index(m_map->face, FT_ULong(c)); }

double FileFace::advance(char32_t c) const { return m_face->advance(glyphFor(c)); }

std::optional<GlyphBitmap> FileFace::render(char32_t c, const Matrix& fontToDevice) const {
    return renderGlyph(glyphFor(c), fontToDevice);
}

std::optional<GlyphBitmap> FileFace::renderGlyph(uint32_t glyph, const Matrix& m) const {
    constexpr size_t kMaxGlyphs = 4096, kMaxBytes = size_t(8) << 20;
    const auto q = [](double v) { return std::lround(v * 1024.0); };
    const GlyphKey key{long(glyph), q(m.a), q(m.b), q(m.c), q(m.d)};
    if (auto it = m_glyphs.find(key); it != m_glyphs.end())
        return it->second;
    std::optional<GlyphBitmap> g = m_face->renderGlyph(glyph, m);
    const size_t bytes = g ? g->mask.bits.size() : 0;
    if (m_glyphs.size() >= kMaxGlyphs || bytes > kMaxBytes - m_glyphBytes) {
        m_glyphs.clear();
        m_glyphBytes = 0;
    }
    if (bytes <= kMaxBytes / 4) {
        m_glyphs.emplace(key, g);
        m_glyphBytes += bytes;
    }
    return g;
}

} // namespace qx::emf
