// Text records: EMR_EXTTEXTOUTW/A, EMR_POLYTEXTOUTW/A and EMR_SMALLTEXTOUT, drawn with the resident fonts, or
// with the fonts the spool file embeds when the text is given as glyph numbers.
//
// Metafiles name their fonts (LOGFONT face names); the faces Windows documents use most have
// metric-compatible stand-ins in Debian, which the font library carries as resident fonts:
// Arial and other sans serif faces are drawn with Liberation Sans, Times New Roman and other
// serif faces with Liberation Serif, Courier New and other fixed-pitch faces with a Courier
// metric face (Nimbus Mono PS or Liberation Mono). Faces that name DejaVu, and Verdana-like
// sans serifs (Verdana, Tahoma, Segoe UI, Bitstream Vera), whose shapes and widths DejaVu Sans
// follows most closely, are drawn with the DejaVu files beside the resident fonts. Where the record gives the advance of each
// character (the Dx array, which printer drivers and office programs always write) the
// characters land exactly where the document put them, whatever the stand-in's own widths.
//
// Text given as glyph numbers (ETO_GLYPH_INDEX, which Windows programs print very often) names
// glyphs of the producer's own font file. It is drawn with the font the spool file embeds
// under the logical font's face name; failing that, with the stand-in when that is the very
// font named (a file made where DejaVu or Liberation fonts were used); otherwise it is left
// out with a warning, as any other font's glyph numbers would draw the wrong letters. Text
// given as characters in an embedded font is drawn with that font too.

#include "emf/player_state.h"

#include "common/diagnostics.h"
#include "emf/records.h"
#include "fonts/font_library.h"

#include <algorithm>
#include <cctype>
#include <cmath>

namespace qx::emf {

namespace {

constexpr double kPi = 3.14159265358979323846;
// Glyphs bigger than this many device pixels a side are not rendered.
constexpr double kMaxEmPixels = 4000;

std::string lower(std::string s) {
    for (char& c : s)
        c = char(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// The resident font that stands in for a LOGFONT.
int pickFont(const FontLibrary& fonts, const FontObject& f) {
    const std::string face = lower(f.face);
    auto has = [&](const char* w) { return face.find(w) != std::string::npos; };
    std::string base;
    if (has("symbol"))
        return fonts.selectByName("Symbol");
    if (has("wingding") || has("dingbat"))
        return fonts.selectByName("Wingdings");
    const int family = f.pitchAndFamily & 0xf0;
    if (has("courier") || has("mono") || has("consol") || has("console") || has("fixed") ||
        (face.empty() && (f.pitchAndFamily & 3) == 1) || (face.empty() && family == 0x30))
        base = "Courier";
    else if ((has("times") || has("serif") || has("roman") || has("georgia") || has("cambria") || has("garamond") ||
              has("book") || has("palatino") || has("century") || (face.empty() && family == 0x10)) &&
             !has("sans"))
        base = "Times New";
    else
        base = "Arial";
    const bool bold = f.weight >= 600;
    const std::string suffix = bold && f.italic ? "BdIt" : bold ? "Bd" : f.italic ? "It" : "";
    int index = fonts.selectByName(base + suffix);
    if (index < 0)
        index = fonts.selectByName(base);
    return index;
}

// The DejaVu file for a face, or "" when a resident font stands in for it.
std::string dejaVuFile(const FontObject& f) {
    const std::string face = lower(f.face);
    auto has = [&](const char* w) { return face.find(w) != std::string::npos; };
    const bool dejavu = has("dejavu");
    if (!dejavu && !has("verdana") && !has("tahoma") && !has("segoe") && !has("vera"))
        return "";
    std::string base = "DejaVuSans", slant = "Oblique";
    if (has("mono"))
        base = "DejaVuSansMono";
    else if (dejavu && has("serif") && !has("sans"))
        base = "DejaVuSerif", slant = "Italic";
    const bool bold = f.weight >= 600;
    const std::string suffix = bold && f.italic ? "-Bold" + slant : bold ? "-Bold" : f.italic ? "-" + slant : "";
    return base + suffix + ".ttf";
}

// Windows-1252's characters in 0x80..0x9f; the rest of the code page is Latin-1.
char32_t fromCp1252(uint8_t c) {
    static constexpr char16_t k80[32] = {0x20ac, 0,      0x201a, 0x0192, 0x201e, 0x2026, 0x2020, 0x2021,
                                         0x02c6, 0x2030, 0x0160, 0x2039, 0x0152, 0,      0x017d, 0,
                                         0,      0x2018, 0x2019, 0x201c, 0x201d, 0x2022, 0x2013, 0x2014,
                                         0x02dc, 0x2122, 0x0161, 0x203a, 0x0153, 0,      0x017e, 0x0178};
    if (c >= 0x80 && c < 0xa0)
        return k80[c - 0x80];
    return c;
}

Matrix linear(const Matrix& m) { return {m.a, m.b, m.c, m.d, 0, 0}; }

} // namespace

bool Player::Impl::playTextRecord(uint32_t type, Bytes rec) {
    switch (type) {
    case EMR_EXTTEXTOUTW:
    case EMR_EXTTEXTOUTA:
        // Bounds, graphics mode, two scales, then one EmrText.
        playEmrText(rec, 36, type == EMR_EXTTEXTOUTW, rec.u32(24) == 2);
        return true;
    case EMR_POLYTEXTOUTA:
    case EMR_POLYTEXTOUTW: {
        // Bounds, graphics mode, two scales, the count, then that many EmrText objects, each
        // drawn as EMR_EXTTEXTOUT draws its one.
        const uint32_t strings = rec.u32(36);
        size_t at = 40;
        uint32_t i = 0;
        for (; i < strings && rec.has(at, 24); ++i)
            at += playEmrText(rec, at, type == EMR_POLYTEXTOUTW, rec.u32(24) == 2);
        if (i < strings)
            warnOnce("a text record with more strings than it holds is cut short");
        return true;
    }
    case EMR_SMALLTEXTOUT: {
        // Reference point, count, options, graphics mode, two scales, the bounds (device units,
        // nothing to draw) unless ETO_NO_RECT, then 8-bit characters with ETO_SMALL_CHARS, else
        // 16-bit characters or glyph numbers. No advances: the font's own.
        constexpr uint32_t ETO_GLYPH_INDEX = 0x10, ETO_NO_RECT = 0x100, ETO_SMALL_CHARS = 0x200;
        const uint32_t chars = rec.u32(16), options = rec.u32(20);
        const bool narrow = options & ETO_SMALL_CHARS;
        const size_t at = (options & ETO_NO_RECT) ? 36 : 52;
        if (!rec.has(at, size_t(chars) * (narrow ? 1 : 2))) {
            warnOnce("a text record whose characters run past its end is left out");
            return true;
        }
        std::u32string text;
        text.reserve(chars);
        for (uint32_t i = 0; i < chars; ++i)
            text.push_back(narrow ? rec.u8(at + i) : rec.u16(at + size_t(i) * 2));
        drawText({double(rec.i32(8)), double(rec.i32(12))}, text, !narrow && (options & ETO_GLYPH_INDEX), {}, {},
                 options & (ETO_GLYPH_INDEX | ETO_NO_RECT), nullptr, rec.u32(24) == 2);
        return true;
    }
    default:
        return false;
    }
}

size_t Player::Impl::playEmrText(Bytes rec, size_t at, bool wide, bool advanced) {
    // Reference point, character count, string offset, options, the rectangle unless
    // ETO_NO_RECT, the offset of the advances; offsets count from the record's start.
    constexpr uint32_t ETO_GLYPH_INDEX = 0x10, ETO_NO_RECT = 0x100, ETO_PDY = 0x2000;
    const Point reference{double(rec.i32(at)), double(rec.i32(at + 4))};
    const uint32_t chars = rec.u32(at + 8);
    const uint32_t offString = rec.u32(at + 12);
    const uint32_t options = rec.u32(at + 16);
    const bool hasRect = !(options & ETO_NO_RECT);
    const int32_t rect[4] = {rec.i32(at + 20), rec.i32(at + 24), rec.i32(at + 28), rec.i32(at + 32)};
    const uint32_t offDx = rec.u32(at + (hasRect ? 36 : 20));
    const size_t objectSize = hasRect ? 40 : 24;
    if (!rec.has(offString, size_t(chars) * (wide ? 2 : 1))) {
        warnOnce("a text record whose characters run past its end is left out");
        return objectSize;
    }
    // Glyph numbers are kept by the wide records only; the narrow ones hold characters.
    const bool glyphIndices = wide && (options & ETO_GLYPH_INDEX);
    const size_t per = (options & ETO_PDY) ? 2 : 1;
    const bool haveDx = offDx != 0 && rec.has(offDx, size_t(chars) * per * 4);
    auto dxAt = [&](size_t i) { return double(rec.i32(offDx + i * per * 4)); };
    auto dyAt = [&](size_t i) { return per == 2 ? double(rec.i32(offDx + i * 8 + 4)) : 0.0; };

    std::u32string text;
    std::vector<double> dx, dy;
    text.reserve(chars);
    for (uint32_t i = 0; i < chars; ++i) {
        char32_t c;
        double adx = haveDx ? dxAt(i) : 0, ady = haveDx ? dyAt(i) : 0;
        if (!wide) {
            c = fromCp1252(rec.u8(offString + i));
        } else {
            c = rec.u16(offString + size_t(i) * 2);
            // A surrogate pair is one character that takes two advances.
            if (!glyphIndices && c >= 0xd800 && c < 0xdc00 && i + 1 < chars) {
                const char32_t lo = rec.u16(offString + size_t(i + 1) * 2);
                if (lo >= 0xdc00 && lo < 0xe000) {
                    c = 0x10000 + ((c - 0xd800) << 10) + (lo - 0xdc00);
                    ++i;
                    if (haveDx)
                        adx += dxAt(i), ady += dyAt(i);
                }
            }
        }
        text.push_back(c);
        if (haveDx) {
            dx.push_back(adx);
            if (per == 2)
                dy.push_back(ady);
        }
    }
    drawText(reference, text, glyphIndices, dx, dy, options, hasRect ? rect : nullptr, advanced);
    return objectSize;
}

const FileFace* Player::Impl::fileFaceFor(const FontObject& font) {
    const std::string file = dejaVuFile(font);
    if (file.empty() || !fonts)
        return nullptr;
    auto it = fileFaces.find(file);
    if (it == fileFaces.end()) {
        std::vector<std::string> folders = fonts->folders();
        folders.push_back("/usr/share/fonts/truetype/dejavu");
        it = fileFaces.emplace(file, FileFace::open(file, folders)).first;
    }
    return it->second.get();
}

const FileFace* Player::Impl::glyphFaceFor(const FontObject& font) {
    if (const FileFace* e = embedded.find(font.face, font.weight >= 600, font.italic))
        return e;
    // Without the font in the file, glyph numbers mean something only in the producer's own
    // font: the stand-in serves when it is that font (a document made with DejaVu or
    // Liberation fonts).
    const FileFace* f = fileFaceFor(font);
    if (!f && fonts) {
        const int index = pickFont(*fonts, font);
        const std::string path = index >= 0 ? fonts->filePath(index) : std::string();
        if (!path.empty()) {
            auto it = residentFiles.find(path);
            if (it == residentFiles.end())
                it = residentFiles.emplace(path, FileFace::openPath(path)).first;
            f = it->second.get();
        }
    }
    return f && !font.face.empty() && lower(f->family()) == lower(font.face) ? f : nullptr;
}

void Player::Impl::drawText(Point reference, const std::u32string& text, bool glyphIndices,
                            const std::vector<double>& dx, const std::vector<double>& dy, uint32_t options,
                            const int32_t* rect, bool graphicsAdvanced) {
    constexpr uint32_t ETO_OPAQUE = 0x2, ETO_CLIPPED = 0x4;
    const Matrix m = logicalToPage();
    const Matrix lin = linear(m);
    RenderState rs;
    rs.sourceTransparent = false;
    rs.patternTransparent = false;
    rs.clip = dc.clip;

    if (rect && (options & ETO_OPAQUE) && !inPath)
        device.fillPath(rectPath(m, rect[0], rect[1], rect[2], rect[3]), FillRule::NonZero, Paint::solid(dc.bkColor), rs);
    if (rect && (options & ETO_CLIPPED)) {
        // The clip of this record only: made like any other and put back afterwards.
        const std::shared_ptr<const ClipRegion> kept = dc.clip;
        intersectClip(rectPath(m, rect[0], rect[1], rect[2], rect[3]), FillRule::NonZero);
        rs.clip = dc.clip;
        dc.clip = kept;
    }
    if (text.empty())
        return;
    if (inPath) {
        warnOnce("text inside a path is left out of the path");
        return;
    }
    // Characters in a font the file embeds are drawn with it when its character map has them
    // all; otherwise a stand-in draws them.
    const FileFace* file = glyphIndices ? glyphFaceFor(dc.font) : nullptr;
    if (!glyphIndices) {
        file = embedded.find(dc.font.face, dc.font.weight >= 600, dc.font.italic);
        if (file && !std::all_of(text.begin(), text.end(), [&](char32_t c) { return c == ' ' || file->hasChar(c); }))
            file = nullptr;
        if (!file)
            file = fileFaceFor(dc.font);
    }
    if (glyphIndices && !file) {
        warnOnce("text given as glyph numbers of \"" + dc.font.face +
                 "\", a font neither embedded in the file nor on this system, is left out");
        return;
    }
    if (!file && !fonts) {
        warnOnce("text is left out: no fonts");
        return;
    }
    const int font = file ? -1 : pickFont(*fonts, dc.font);
    if (!file && (font < 0 || !fonts->available(font))) {
        warnOnce("no font file stands in for \"" + dc.font.face + "\"; its text is left out");
        return;
    }
    if (glyphIndices && std::any_of(text.begin(), text.end(), [&](char32_t g) { return g >= file->glyphCount(); }))
        warnOnce("glyph numbers past the end of the font \"" + dc.font.face + "\" are left out");
    const FontMetrics metrics = file ? file->metrics() : fonts->metrics(font);
    auto advanceOf = [&](char32_t c) {
        return glyphIndices ? file->glyphAdvance(c) : file ? file->advance(c) : fonts->advance(font, c);
    };
    auto render = [&](char32_t c, const Matrix& m) {
        return glyphIndices ? file->renderGlyph(c, m) : file ? file->render(c, m) : fonts->renderGlyph(font, c, m);
    };
    // The em size in logical units.
    double em;
    if (dc.font.height < 0)
        em = -double(dc.font.height);
    else if (dc.font.height > 0)
        em = dc.font.height / std::max(metrics.ascent + metrics.descent, 0.5);
    else
        em = 12 / std::max(lengthScale(), 1e-9);

    // Baseline direction and up direction in logical units. GDI keeps text upright on the
    // device when the mapping turns the y axis over, unless the advanced graphics mode is on.
    const double esc = dc.font.escapement / 10.0 * kPi / 180;
    Point u{std::cos(esc), -std::sin(esc)};
    Point v{-std::sin(esc), -std::cos(esc)};
    if (lin.a * lin.d - lin.b * lin.c < 0 && !graphicsAdvanced)
        u.y = -u.y, v.y = -v.y;

    // Advances: the record's, else the stand-in font's own.
    std::vector<double> adv(text.size());
    for (size_t i = 0; i < text.size(); ++i)
        adv[i] = i < dx.size() ? dx[i] : advanceOf(text[i]) * em;
    double total = 0;
    for (double a : adv)
        total += a;

    Point start = (dc.textAlign & 1) ? dc.current : reference; // TA_UPDATECP
    const uint32_t horizontal = dc.textAlign & 6;
    double shift = 0;
    if (horizontal == 6)
        shift = -total / 2;
    else if (horizontal == 2)
        shift = -total;
    double lift = 0; // along v
    const uint32_t vertical = dc.textAlign & 24;
    if (vertical == 0)
        lift = -metrics.ascent * em;
    else if (vertical == 8)
        lift = metrics.descent * em;
    Point origin{start.x + u.x * shift + v.x * lift, start.y + u.y * shift + v.y * lift};
    // With ETO_PDY each character also rises along the font's up direction.
    double rise = 0;
    for (double d : dy)
        rise += d;
    if (dc.textAlign & 1)
        dc.current = {start.x + u.x * total + v.x * rise, start.y + u.y * total + v.y * rise};

    auto along = [&](double s, double up) { return Point{origin.x + u.x * s + v.x * up, origin.y + u.y * s + v.y * up}; };
    auto band = [&](double up0, double up1) {
        Path p;
        p.moveTo(m.apply(along(0, up0)));
        p.lineTo(m.apply(along(total, up0)));
        p.lineTo(m.apply(along(total, up1)));
        p.lineTo(m.apply(along(0, up1)));
        p.close();
        return p;
    };
    if (dc.bkOpaque && !(options & ETO_OPAQUE))
        device.fillPath(band(-metrics.descent * em, metrics.ascent * em), FillRule::NonZero, Paint::solid(dc.bkColor), rs);

    const Matrix pageToDevice = device.pageToDevice();
    const Matrix deviceToPage = pageToDevice.inverted().value_or(Matrix{});
    const Point uPage = lin.apply(u), vPage = lin.apply(v);
    const Matrix fontToPage{uPage.x * em, uPage.y * em, vPage.x * em, vPage.y * em, 0, 0};
    const Matrix fontToDevice = linear(pageToDevice) * fontToPage;
    const double emPixels = std::max(std::hypot(fontToDevice.a, fontToDevice.b), std::hypot(fontToDevice.c, fontToDevice.d));
    if (!(emPixels <= kMaxEmPixels)) {
        warnOnce("characters too large to draw are left out");
        return;
    }
    const Paint paint = Paint::solid(dc.textColor);
    double s = 0, up = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        const Point pen = pageToDevice.apply(m.apply(along(s, up)));
        s += adv[i];
        up += i < dy.size() ? dy[i] : 0;
        if (auto g = render(text[i], fontToDevice)) {
            if (g->mask.width > 0 && g->mask.height > 0) {
                const Matrix maskToPage =
                    deviceToPage * Matrix::translate(std::round(pen.x) + g->left, std::round(pen.y) + g->top);
                device.fillMask(g->mask, maskToPage, paint, rs);
            }
        }
    }
    const double thickness = std::max(metrics.underlineThickness, 0.04) * em;
    if (dc.font.underline) {
        const double y = -metrics.underlinePosition * em;
        device.fillPath(band(y - thickness / 2, y + thickness / 2), FillRule::NonZero, paint, rs);
    }
    if (dc.font.strikeOut) {
        const double y = metrics.capHeight * em * 0.45;
        device.fillPath(band(y - thickness / 2, y + thickness / 2), FillRule::NonZero, paint, rs);
    }
}

} // namespace qx::emf
