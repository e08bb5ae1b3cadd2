// FreeType, opened when the first font is: pages of raster graphics and vector drawings without
// text never need it, nor the PNG and Brotli libraries it brings. Each FreeType function the
// engine calls is forwarded here.

#include "common/lazy_library.h"

#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_ADVANCES_H
#include FT_FONT_FORMATS_H
#include FT_TRUETYPE_TABLES_H

namespace {
qx::LazyLibrary freetypeLibrary(QX_FREETYPE_SONAME, "FreeType");
} // namespace

QX_LAZY_FORWARD(freetypeLibrary, FT_Error, FT_Init_FreeType, (FT_Library * library), (library))
QX_LAZY_FORWARD(freetypeLibrary, FT_Error, FT_Done_FreeType, (FT_Library library), (library))
QX_LAZY_FORWARD(freetypeLibrary, FT_Error, FT_New_Face,
                (FT_Library library, const char* path, FT_Long index, FT_Face* face),
                (library, path, index, face))
QX_LAZY_FORWARD(freetypeLibrary, FT_Error, FT_New_Memory_Face,
                (FT_Library library, const FT_Byte* base, FT_Long size, FT_Long index, FT_Face* face),
                (library, base, size, index, face))
QX_LAZY_FORWARD(freetypeLibrary, FT_Error, FT_Done_Face, (FT_Face face), (face))
QX_LAZY_FORWARD(freetypeLibrary, FT_Error, FT_Select_Charmap, (FT_Face face, FT_Encoding encoding),
                (face, encoding))
QX_LAZY_FORWARD(freetypeLibrary, FT_Error, FT_Set_Charmap, (FT_Face face, FT_CharMap charmap),
                (face, charmap))
QX_LAZY_FORWARD(freetypeLibrary, FT_UInt, FT_Get_Char_Index, (FT_Face face, FT_ULong code), (face, code))
QX_LAZY_FORWARD(freetypeLibrary, FT_Error, FT_Set_Char_Size,
                (FT_Face face, FT_F26Dot6 width, FT_F26Dot6 height, FT_UInt xres, FT_UInt yres),
                (face, width, height, xres, yres))
QX_LAZY_FORWARD(freetypeLibrary, void, FT_Set_Transform, (FT_Face face, FT_Matrix* matrix, FT_Vector* delta),
                (face, matrix, delta))
QX_LAZY_FORWARD(freetypeLibrary, FT_Error, FT_Load_Glyph, (FT_Face face, FT_UInt glyph, FT_Int32 flags),
                (face, glyph, flags))
QX_LAZY_FORWARD(freetypeLibrary, FT_Error, FT_Render_Glyph, (FT_GlyphSlot slot, FT_Render_Mode mode),
                (slot, mode))
QX_LAZY_FORWARD(freetypeLibrary, FT_Error, FT_Get_Advance,
                (FT_Face face, FT_UInt glyph, FT_Int32 flags, FT_Fixed* advance), (face, glyph, flags, advance))
QX_LAZY_FORWARD(freetypeLibrary, const char*, FT_Get_Font_Format, (FT_Face face), (face))
QX_LAZY_FORWARD(freetypeLibrary, void*, FT_Get_Sfnt_Table, (FT_Face face, FT_Sfnt_Tag tag), (face, tag))
