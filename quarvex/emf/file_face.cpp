#include "emf/file_face.h"

#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_TRUETYPE_TABLES_H

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

std::unique_ptr<FileFace> FileFace::open(const std::string& fileName, const std::vector<std::string>& folders) {
    for (const std::string& folder : folders) {
        std::ifstream in(folder + "/" + fileName, std::ios::binary);
        if (!in)
            continue;
        std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::unique_ptr<FileFace> f(new FileFace());
        f->m_map = std::make_unique<CharMap>();
        f->m_map->data = bytes;
        if (FT_Init_FreeType(&f->m_map->ft) != 0 ||
            FT_New_Memory_Face(f->m_map->ft, f->m_map->data.data(), FT_Long(f->m_map->data.size()), 0,
                               &f->m_map->face) != 0 ||
            f->m_map->face->units_per_EM == 0)
            continue;
        FT_Select_Charmap(f->m_map->face, FT_ENCODING_UNICODE);
        f->m_face = MemoryFace::open(std::move(bytes));
        if (!f->m_face)
            continue;
        const FT_Face face = f->m_map->face;
        const double em = face->units_per_EM;
        f->m_metrics.ascent = face->ascender / em;
        f->m_metrics.descent = -face->descender / em;
        f->m_metrics.underlinePosition = -face->underline_position / em;
        f->m_metrics.underlineThickness = face->underline_thickness / em;
        if (const auto* os2 = static_cast<const TT_OS2*>(FT_Get_Sfnt_Table(face, FT_SFNT_OS2)); os2 && os2->sCapHeight > 0)
            f->m_metrics.capHeight = os2->sCapHeight / em;
        return f;
    }
    return nullptr;
}

uint32_t FileFace::glyphFor(char32_t c) const { return FT_Get_Char_Index(m_map->face, FT_ULong(c)); }

double FileFace::advance(char32_t c) const { return m_face->advance(glyphFor(c)); }

std::optional<GlyphBitmap> FileFace::render(char32_t c, const Matrix& fontToDevice) const {
    return m_face->renderGlyph(glyphFor(c), fontToDevice);
}

} // namespace qx::emf
