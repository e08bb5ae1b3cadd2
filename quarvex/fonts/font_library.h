#pragma once
// Resident fonts: the typefaces a printer carries, stood in for by font files on this system.
//
// A FontLibrary knows a fixed table of resident fonts (see font_table.cpp). Each entry names the
// PCL typeface it stands for (typeface number, spacing, style, stroke weight, the PCL XL font
// name) and the font files that may supply it, in order of preference. Files are looked for in
// the folders given to the constructor; the default order is the folder named by the
// environment variable PCLFONTSOURCE, then ../fonts/ beside the running executable, then
// fontconfig. Faces are opened lazily, the first time a glyph or a metric is asked for.
//
// Interpreters select a font either by PCL attributes (selectPcl) or by PCL XL font name
// (selectByName), and then ask for glyphs by character code in a symbol set, or directly by
// Unicode. Glyphs are rendered with FreeType in monochrome mode (no anti-aliasing) through a
// 2x2 transform from font space (one unit = one em, x right, y up, as fonts are designed) to
// device pixels (x right, y down). The result is a qx::Mask and the offset of its top-left
// corner from the pen position, in device pixels.

#include "render/device.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qx {

// PCL symbol set identifiers use the printer's encoding: number * 32 + (letter - 64),
// so "8U" (Roman-8) is 277, "0N" (ISO Latin-1) is 14, "10U" (PC-8) is 341.
constexpr uint16_t symbolSetId(int number, char letter) {
    return static_cast<uint16_t>(number * 32 + (letter - 64));
}

namespace symsets {
constexpr uint16_t Roman8 = symbolSetId(8, 'U');     // 277
constexpr uint16_t PC8 = symbolSetId(10, 'U');       // 341
constexpr uint16_t Latin1 = symbolSetId(0, 'N');     // 14   ISO 8859-1
constexpr uint16_t Win31Latin1 = symbolSetId(19, 'U'); // 629 Windows 3.1 Latin 1 (cp1252)
constexpr uint16_t Win30Latin1 = symbolSetId(9, 'U');  // 309 Windows 3.0 Latin 1
constexpr uint16_t Ascii = symbolSetId(0, 'U');      // 21
constexpr uint16_t Legal = symbolSetId(1, 'U');      // 53
constexpr uint16_t Latin2 = symbolSetId(2, 'N');     // 78   ISO 8859-2
constexpr uint16_t PC850 = symbolSetId(12, 'U');     // 405
constexpr uint16_t Unicode = symbolSetId(18, 'N');   // 590  codes are Unicode code points
constexpr uint16_t Symbol = symbolSetId(19, 'M');    // 621  PS Symbol
constexpr uint16_t Wingdings = symbolSetId(579, 'L'); // 18540
} // namespace symsets

// "8U" -> 277; also accepts PJL SYMSET names (ROMAN8, PC8, ISOL1, WIN30, WINL1, ...).
std::optional<uint16_t> parseSymbolSet(std::string_view text);
// 277 -> "8U".
std::string symbolSetName(uint16_t id);
// Whether this library has a table for the symbol set.
bool symbolSetKnown(uint16_t id);
// The Unicode character for a code in a symbol set; 0 when the code has no character there.
// Codes of an unknown symbol set are taken as Roman-8; Unicode (18N) passes codes through, and
// so does Symbol (19M), whose face's character map uses the Symbol font's own codes (only those
// the Symbol font's layout fills).
char32_t symbolSetToUnicode(uint16_t id, uint32_t code);

// PCL attributes, as ESC ( s ... sets them.
struct FontRequest {
    uint16_t symbolSet = symsets::Roman8;
    bool proportional = false; // spacing: 0 fixed, 1 proportional
    double pitch = 10;         // characters per inch, for fixed spacing
    double height = 12;        // points, for proportional spacing
    int style = 0;             // PCL style word: 0 upright, 1 italic, 2 condensed, 3 cond. italic...
    int weight = 0;            // -7 (thinnest) .. 0 (medium) .. 3 (bold) .. 7 (blackest)
    int typeface = 4099;       // PCL typeface family number; 4099 = Courier
};

// One resident font as the table describes it.
struct ResidentFontInfo {
    int index = -1;             // position in the library, the handle used below
    std::string family;         // "Courier", "CG Times", ...
    std::string pclxlName;      // the 16-character PCL XL name, e.g. "Courier       Bd"
    int typeface = 0;           // PCL typeface family number
    bool proportional = false;
    bool bold = false;          // stroke weight 3
    bool italic = false;        // style 1
    int pclFontNumber = 0;      // PJL FONTNUMBER of the internal font list (I source)
    std::string file;           // the file that was found for it; empty until resolved / missing
};

// A rendered glyph. The mask's top-left pixel lies at pen + (left, top) in device pixels
// (y down). advanceX/Y is the pen movement in device pixels, from unhinted metrics.
struct GlyphBitmap {
    Mask mask;
    int left = 0;
    int top = 0;
    double advanceX = 0;
    double advanceY = 0;
};

// Font-wide metrics in ems (fractions of the em size).
struct FontMetrics {
    double ascent = 0.8;
    double descent = 0.2;           // positive below the baseline
    double fixedAdvance = 0;        // the advance of every glyph of a fixed-pitch face; 0 otherwise
    double underlinePosition = 0.1; // below the baseline, positive down
    double underlineThickness = 0.05;
    double capHeight = 0.7;
};

class FontLibrary {
public:
    // The default search order: $PCLFONTSOURCE, ../fonts/ beside /proc/self/exe, fontconfig.
    FontLibrary();
    // Explicit folders, searched in order, then fontconfig if useFontconfig.
    FontLibrary(std::vector<std::string> folders, bool useFontconfig);
    ~FontLibrary();
    FontLibrary(const FontLibrary&) = delete;
    FontLibrary& operator=(const FontLibrary&) = delete;

    // The folders searched, in order (for messages and tests).
    const std::vector<std::string>& folders() const;

    int count() const;
    const ResidentFontInfo& info(int index) const;

    // The best resident font for PCL attributes (printer-like priority: symbol set support,
    // spacing, pitch/height, style, weight, typeface). Never fails while the table is not empty;
    // returns -1 only if no font file at all can be found.
    int selectPcl(const FontRequest& request) const;
    // A resident font by PCL XL font name ("Courier       Bd", "Arial", "TimesNewRmnBdIt");
    // trailing blanks and inner spacing do not matter. -1 when the name is unknown.
    int selectByName(std::string_view name) const;
    // A resident font by PJL FONTNUMBER (internal font list numbering); -1 when unknown.
    int selectByNumber(int pjlFontNumber) const;

    // Whether the font's file was found and opens.
    bool available(int index) const;
    // The file path that supplies the font (after resolution); empty when none.
    std::string filePath(int index) const;

    FontMetrics metrics(int index) const;
    // The unhinted advance of one character in ems; 0 if the face has no glyph for it.
    double advance(int index, char32_t unicode) const;
    bool hasGlyph(int index, char32_t unicode) const;

    // Renders a character through fontToDevice (only a, b, c, d are used: em units, y up, to
    // device pixel offsets, y down). nullopt when the face or glyph is missing; a glyph without
    // ink (space) comes back with an empty mask and its advance.
    std::optional<GlyphBitmap> renderGlyph(int index, char32_t unicode, const Matrix& fontToDevice) const;

private:
    struct Impl;
    std::unique_ptr<Impl> d;
};

// A scalable face made from font data in memory: the TrueType fonts that jobs download. Glyphs
// are addressed by glyph index; rendering is the same as for resident fonts.
class MemoryFace {
public:
    // nullopt-like null when FreeType cannot read the data as a scalable face.
    static std::unique_ptr<MemoryFace> open(std::vector<uint8_t> fontData);
    ~MemoryFace();
    MemoryFace(const MemoryFace&) = delete;
    MemoryFace& operator=(const MemoryFace&) = delete;

    int glyphCount() const;
    // The advance in ems; 0 for a glyph index the face does not have.
    double advance(uint32_t glyphIndex) const;
    std::optional<GlyphBitmap> renderGlyph(uint32_t glyphIndex, const Matrix& fontToDevice) const;

private:
    MemoryFace();
    struct Impl;
    std::unique_ptr<Impl> d;
};

} // namespace qx
