// EMF+ strings (DrawString and DrawDriverString), drawn by the GDI player's text code: the
// EMF+ font becomes a LOGFONT-like font object, the world-to-device transform becomes the GDI
// world transform, so the same stand-in fonts and glyph rendering serve both kinds of record.
// A DrawDriverString given as glyph numbers (DriverStringOptionsCmapLookup clear) is drawn the
// way ETO_GLYPH_INDEX text is: with the font the spool file embeds under the face name, or the
// font on this system when it is that very face; otherwise it is left out with a warning.

#include "emf/plus_player.h"

#include "emf/player_state.h"
#include "emf/plus_objects.h"

#include <algorithm>
#include <cmath>

namespace qx::emf {

namespace {

// A line's height in em, for strings of several lines: the common sans serif faces' spacing.
constexpr double kLineSpacing = 1.15;
// Logical units per em handed to the text code (whose font heights are whole numbers).
constexpr double kUnitsPerEm = 1024;
constexpr uint32_t kMaxGlyphs = 1u << 16;

} // namespace

void PlusPlayer::drawStringRecord(bool driverString, uint16_t flags, Bytes data) {
    const uint32_t fontId = flags & 0xff;
    if (fontId >= kPlusObjectSlots || objects->slots[fontId].kind != PlusObject::Kind::Font) {
        warn("a string names a font that was never made");
        return;
    }
    const PlusFont& font = objects->slots[fontId].font;
    Argb color;
    if (flags & 0x8000) {
        color = Argb::of(data.u32(0));
    } else {
        const uint32_t b = data.u32(0);
        if (b >= kPlusObjectSlots || objects->slots[b].kind != PlusObject::Kind::Brush) {
            warn("a string names a brush that was never made");
            return;
        }
        color = objects->slots[b].brush.color;
    }
    if (color.a == 0)
        return;

    // The em in world units: a font in world units is scaled by the page transform as well.
    const double em = font.emSize * (font.unit == 0 ? 1
                                                    : unitToPixelsY(font.unit) /
                                                          (unitToPixelsY(state.pageUnit) * state.pageScale));
    if (!(em > 0) || !std::isfinite(em))
        return;
    const double k = kUnitsPerEm / em; // logical units per world unit

    // The font as the GDI text code takes it.
    FontObject gdiFont;
    gdiFont.height = -int32_t(kUnitsPerEm);
    gdiFont.weight = (font.style & 1) ? 700 : 400;
    gdiFont.italic = font.style & 2;
    gdiFont.underline = font.style & 4;
    gdiFont.strikeOut = font.style & 8;
    gdiFont.face = font.family;

    std::vector<std::pair<Point, std::u32string>> runs; // reference point in world units, text
    bool glyphNumbers = false;                           // the runs hold glyph numbers
    uint32_t align = 0;                                  // TA_* for the text code
    Matrix extra;                                        // a glyph transform of the record
    if (!driverString) {
        // Brush, string format, length, layout rectangle, then the characters.
        const uint32_t formatId = data.u32(4), length = data.u32(8);
        if (length > kMaxGlyphs || !data.has(28, size_t(length) * 2)) {
            warn("a string whose characters run past its record is left out");
            return;
        }
        const PlusRect r = readPlusRect(data, 12, false);
        PlusStringFormat format;
        if (formatId < kPlusObjectSlots && objects->slots[formatId].kind == PlusObject::Kind::StringFormat)
            format = objects->slots[formatId].format;
        std::vector<std::u32string> lines(1);
        for (uint32_t i = 0; i < length; ++i) {
            const char16_t c = data.u16(28 + size_t(i) * 2);
            if (c == u'\n')
                lines.emplace_back();
            else if (c != u'\r')
                lines.back().push_back(c);
        }
        // Near, centre and far alignment, with the sixth of an em that GDI+ leaves at each side.
        double x = r.x + em / 6;
        if (format.alignment == 1)
            x = r.x + r.w / 2, align = 6; // TA_CENTER
        else if (format.alignment == 2)
            x = r.x + r.w - em / 6, align = 2; // TA_RIGHT
        const double total = kLineSpacing * em * double(lines.size());
        double top = r.y;
        if (r.h > 0 && format.lineAlignment == 1)
            top = r.y + (r.h - total) / 2;
        else if (r.h > 0 && format.lineAlignment == 2)
            top = r.y + r.h - total;
        for (size_t i = 0; i < lines.size(); ++i)
            runs.push_back({{x, top + kLineSpacing * em * double(i)}, std::move(lines[i])});
    } else {
        // Brush, options, whether a matrix follows, the glyph count, the glyphs, their
        // baseline positions, and the matrix.
        constexpr uint32_t CmapLookup = 1, RealizedAdvance = 4;
        const uint32_t options = data.u32(4), hasMatrix = data.u32(8), count = data.u32(12);
        if (count > kMaxGlyphs || !data.has(16, size_t(count) * 10 + (hasMatrix ? 24 : 0))) {
            warn("a string whose glyphs run past its record is left out");
            return;
        }
        glyphNumbers = !(options & CmapLookup);
        if (glyphNumbers && !gdi.glyphFaceFor(gdiFont)) {
            warn("strings given as glyph numbers of a font that is not embedded are left out");
            return;
        }
        const size_t positions = 16 + size_t(count) * 2;
        if (hasMatrix)
            extra = readPlusMatrix(data, positions + size_t(count) * 8).value_or(Matrix{});
        align = 24; // TA_BASELINE
        auto glyph = [&](uint32_t i) { return char32_t(data.u16(16 + size_t(i) * 2)); };
        auto position = [&](uint32_t i) {
            return Point{data.f32(positions + size_t(i) * 8), data.f32(positions + size_t(i) * 8 + 4)};
        };
        if (options & RealizedAdvance) {
            // Only the first glyph's position counts; the others follow at the font's advances.
            std::u32string all;
            for (uint32_t i = 0; i < count; ++i)
                all.push_back(glyph(i));
            if (count > 0 && std::isfinite(position(0).x) && std::isfinite(position(0).y))
                runs.push_back({position(0), std::move(all)});
        } else {
            for (uint32_t i = 0; i < count; ++i) {
                const Point p = position(i);
                if (std::isfinite(p.x) && std::isfinite(p.y))
                    runs.push_back({p, std::u32string(1, glyph(i))});
            }
        }
    }

    // The text code draws in the GDI state: set it up for these strings and put it back.
    const DcState kept = gdi.dc;
    DcState& dc = gdi.dc;
    dc.mapMode = 1;
    dc.windowOrgX = dc.windowOrgY = dc.viewportOrgX = dc.viewportOrgY = 0;
    dc.windowExtX = dc.windowExtY = dc.viewportExtX = dc.viewportExtY = 1;
    dc.world = worldToDevice() * extra * Matrix::scale(1 / k, 1 / k);
    dc.font = gdiFont;
    dc.textColor = color.onWhite();
    dc.bkOpaque = false;
    dc.textAlign = align;
    for (const auto& [at, text] : runs)
        if (!text.empty())
            gdi.drawText({at.x * k, at.y * k}, text, glyphNumbers, {}, {}, 0x100 /* no rectangle */, nullptr, true);
    gdi.dc = kept;
}

} // namespace qx::emf
