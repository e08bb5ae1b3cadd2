#pragma once
// The player's inner state, shared by the files that play the different kinds of record
// (player.cpp: state, objects and paths; player_shapes.cpp: shapes; player_text.cpp: text;
// player_bitmap.cpp: bitmaps and regions; the EMF+ player in plus_*.cpp borrows it too).

#include "emf/embedded_fonts.h"
#include "emf/file_face.h"
#include "emf/player.h"
#include "emf/plus_player.h"

#include <array>
#include <map>
#include <set>
#include <string>

namespace qx::emf {

struct PenObject {
    uint32_t style = 0;     // PS_* style, end cap, join and type bits
    double width = 0;       // logical units; 0 = cosmetic (the thinnest line)
    Rgb color = Rgb::black();
    std::vector<double> userDashes; // PS_USERSTYLE entries, logical units

    static PenObject cosmetic(uint32_t style, Rgb c) {
        PenObject p;
        p.style = style;
        p.color = c;
        return p;
    }
};

struct BrushObject {
    uint32_t style = 0;     // BS_SOLID, BS_NULL, BS_HATCHED, BS_PATTERN/DIBPATTERN
    Rgb color = Rgb::black();
    uint32_t hatch = 0;
    std::shared_ptr<const Image> pattern; // for pattern brushes
    bool monoPattern = false;             // a one-bit pattern: drawn in text and background colour

    static BrushObject solid(Rgb c) {
        BrushObject b;
        b.color = c;
        return b;
    }
    static BrushObject null() {
        BrushObject b;
        b.style = 1;
        return b;
    }
};

struct FontObject {
    int32_t height = 0;     // logical units: < 0 the em size, > 0 the cell height, 0 default
    int32_t width = 0;
    int32_t escapement = 0; // tenths of a degree, counter-clockwise
    int32_t weight = 400;
    bool italic = false, underline = false, strikeOut = false;
    uint8_t charSet = 0;
    uint8_t pitchAndFamily = 0;
    std::string face;       // the face name as ASCII (others as '?')
};

struct GdiObject {
    enum class Kind : uint8_t { None, Pen, Brush, Font, Other };
    Kind kind = Kind::None;
    PenObject pen;
    BrushObject brush;
    FontObject font;
};

// Everything SaveDC saves.
struct DcState {
    int mapMode = 1; // MM_TEXT
    double windowOrgX = 0, windowOrgY = 0, windowExtX = 1, windowExtY = 1;
    double viewportOrgX = 0, viewportOrgY = 0, viewportExtX = 1, viewportExtY = 1;
    Matrix world;
    PenObject pen;
    BrushObject brush = BrushObject::solid(Rgb::white());
    FontObject font;
    Rgb textColor = Rgb::black();
    Rgb bkColor = Rgb::white();
    bool bkOpaque = true;
    uint32_t textAlign = 0;
    FillRule polyFill = FillRule::EvenOdd;
    int rop2 = 13;               // R2_COPYPEN
    bool arcClockwise = false;
    bool advancedGraphics = false;
    double miterLimit = 10;
    Point current;               // logical units
    std::shared_ptr<const ClipRegion> clip; // page space
};

struct Player::Impl {
    Impl(Device& dev, Diagnostics& dg, const FontLibrary* f) : device(dev), diag(dg), fonts(f) {}

    Device& device;
    Diagnostics& diag;
    const FontLibrary* fonts;

    EmfHeader header;
    PagePlacement placement;
    double devPxToPtX = 1, devPxToPtY = 1; // reference device pixels to points
    DcState dc;
    std::vector<DcState> saved;
    std::vector<GdiObject> objects;
    // Path bracket: points in page space.
    bool inPath = false;
    Path path;
    bool pathHasOpenFigure = false;
    size_t records = 0;
    size_t clipPointsUsed = 0;    // clip path points made on this page
    size_t patternBytesUsed = 0;  // pattern brush pixels decoded on this page
    bool damaged = false;
    std::set<std::string> warned;
    // Font files opened for faces that no resident font stands in for, by file name (null:
    // not found); kept for the whole job.
    std::map<std::string, std::unique_ptr<FileFace>> fileFaces;
    const FileFace* fileFaceFor(const FontObject& font); // player_text.cpp
    // The files behind resident fonts, opened to draw their glyphs by number, by path.
    std::map<std::string, std::unique_ptr<FileFace>> residentFiles;
    // Fonts the spool file embeds, from its records and from EMFSPOOL comments; kept for the
    // whole job, as later pages use them too.
    EmbeddedFonts embedded;
    // The face that draws glyph numbers in a logical font: the embedded one of its name, else
    // the stand-in when that is the very font named; null when neither.
    const FileFace* glyphFaceFor(const FontObject& font); // player_text.cpp
    void addFonts(const std::vector<std::string>& problems);
    // The EMF+ records of the page (made at its first EMF+ comment).
    std::unique_ptr<PlusPlayer> plus;

    // --- coordinates (player.cpp)
    Matrix pageToDeviceUnits() const;     // logical -> reference device pixels
    Matrix logicalToPage() const;         // world -> our page points
    Point toPage(Point logical) const { return logicalToPage().apply(logical); }
    double lengthScale() const;           // page points per logical unit, on average
    void warnOnce(const std::string& message);

    // --- drawing helpers (player.cpp)
    RenderState renderState() const;
    Paint brushPaint(const BrushObject& brush) const;
    bool penDraws() const { return (dc.pen.style & 0x0f) != 5; } // PS_NULL
    StrokeStyle strokeStyle() const;
    // Fills (with the brush) and strokes (with the pen) a closed shape, or adds it to the path.
    void drawShape(const Path& pagePath, bool fill, bool stroke);
    // The clip becomes the intersection of entries, when the page's budget of clip path
    // points allows (every clip region made counts, since saved states keep theirs).
    bool setClipEntries(std::vector<ClipRegion::Entry> entries);
    void intersectClip(const Path& pagePath, FillRule rule);
    // Combines a page-space path with the clip as a region mode (RGN_AND, RGN_COPY, ...) says.
    void combineClip(Path pagePath, FillRule rule, uint32_t mode);

    // --- record groups
    void playRecord(uint32_t type, Bytes rec);
    bool playShapeRecord(uint32_t type, Bytes rec);
    bool playStateRecord(uint32_t type, Bytes rec);
    bool playObjectRecord(uint32_t type, Bytes rec);
    bool playPathRecord(uint32_t type, Bytes rec);
    bool playTextRecord(uint32_t type, Bytes rec);   // player_text.cpp
    bool playBitmapRecord(uint32_t type, Bytes rec); // player_bitmap.cpp
    bool playRegionRecord(uint32_t type, Bytes rec); // player_bitmap.cpp

    // One EmrText object at offset at of a text record: its characters (or glyph numbers) drawn.
    // Returns the size of the object.
    size_t playEmrText(Bytes rec, size_t at, bool wide, bool graphicsAdvanced); // player_text.cpp
    // Characters, or glyph numbers with glyphIndices, at reference; dx holds the advances, dy
    // the rises (ETO_PDY), in logical units, either possibly empty.
    void drawText(Point reference, const std::u32string& text, bool glyphIndices, const std::vector<double>& dx,
                  const std::vector<double>& dy, uint32_t options, const int32_t* rect,
                  bool graphicsAdvanced); // player_text.cpp
    // A RGNDATA region (rectangles in reference device pixels) as a page path.
    bool regionPath(Bytes rgnData, Path& out) const;     // player_bitmap.cpp
    // The set bits of a monochrome mask DIB, from (x0, y0) over width x height pixels of the
    // image it goes with, as rectangles through imageToPage. False when the mask is unusable.
    bool maskPath(Bytes info, Bytes bits, int32_t x0, int32_t y0, int width, int height, const Matrix& imageToPage,
                  Path& out); // player_bitmap.cpp
};

// The rectangle with corners (l, t) and (r, b), mapped by m, as a closed path.
inline Path rectPath(const Matrix& m, double l, double t, double r, double b) {
    Path p;
    p.moveTo(m.apply({l, t}));
    p.lineTo(m.apply({r, t}));
    p.lineTo(m.apply({r, b}));
    p.lineTo(m.apply({l, b}));
    p.close();
    return p;
}

// A COLORREF (0x00bbggrr).
inline Rgb colorRef(uint32_t v) { return {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16)}; }

// The ROP3 that a binary raster operation (R2_*) makes: the pen or brush is the texture.
uint8_t rop3FromRop2(int rop2);

} // namespace qx::emf
