#include "pcl5/interpreter.h"

#include "common/diagnostics.h"
#include "pcl5/patterns.h"
#include "pcl5/raster_decode.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace qx::pcl5 {

namespace {

constexpr double kUnitsPerInch = 7200;
constexpr double kUnitsPerPoint = 100;
constexpr double kDecipoint = 10;
constexpr size_t kMaxCursorStack = 20;
constexpr int kStripRows = 128;
// Values of position commands are kept to what fits on any sheet several times over.
constexpr double kMaxPosition = 7200.0 * 200;

double clampPos(double v) { return std::clamp(v, -kMaxPosition, kMaxPosition); }


} // namespace

Interpreter::Interpreter(JobContext& ctx) : m_ctx(ctx), m_dev(ctx.device), m_fonts(ctx.fonts) {
    m_paper = *paperByCode(2);
    reset();
}

Interpreter::~Interpreter() = default;

void Interpreter::warnOnce(const std::string& message) {
    if (std::find(m_warned.begin(), m_warned.end(), message) != m_warned.end())
        return;
    m_warned.push_back(message);
    m_ctx.diag.warning(message);
}

// ---------------------------------------------------------------------------------------------
// Reset and page setup

void Interpreter::reset() {
    if (m_raster.active)
        endRaster();
    const PjlDefaults& pjl = m_ctx.pjl;
    PaperSize paper = *paperByCode(2);
    if (!pjl.paper.empty()) {
        if (auto p = paperByName(pjl.paper))
            paper = *p;
    }
    int orientation = 0;
    if (!pjl.orientation.empty() && (pjl.orientation[0] == 'L' || pjl.orientation[0] == 'l'))
        orientation = 1;
    m_regLeft = 0;
    m_regTop = 0;
    m_cursorStack.clear();
    m_userPatterns.clear();
    m_raster = RasterState{};
    m_displayFunctions = false;
    fontControl(1); // a reset deletes the temporary downloaded fonts
    resetMacros();
    defaultEnvironment();
    applyPageSetup(paper, orientation);
}

void Interpreter::defaultEnvironment() {
    const PjlDefaults& pjl = m_ctx.pjl;
    m_unitsPerInch = 300;
    m_perfSkip = true;
    m_wrap = false;
    m_lineTermination = 0;
    m_underline = false;
    m_rectWidth = m_rectHeight = 0;
    m_patternId = 0;
    m_currentPatternType = 0;
    m_currentPatternId = 0;
    m_rop = 252;
    m_sourceTransparent = true;
    m_patternTransparent = true;
    m_patternRefX = m_patternRefY = 0;
    m_simpleColour = 0;
    m_pixelEncoding = 0;
    m_bitsPerIndex = 1;
    m_colourSpaceCmy = false;
    defaultPalette();
    m_foreground = -1;
    m_foregroundRgb = Rgb::black();
    m_rasterResolution = 75;
    m_compression = 0;
    m_presentation = 0;
    m_destWidth = m_destHeight = 0;
    m_frameWidth = m_frameHeight = 0;
    m_plotWidth = m_plotHeight = 0;
    m_frameAnchorX = 0;
    m_frameAnchorY = -1;

    // The default font: Courier 10 pitch 12 point Roman-8, or what PJL set.
    FontRequest rq;
    if (pjl.fontNumber >= 0 && m_fonts && (pjl.fontSource.empty() || pjl.fontSource == "I")) {
        const int idx = m_fonts->selectByNumber(pjl.fontNumber);
        if (idx >= 0) {
            const ResidentFontInfo& info = m_fonts->info(idx);
            rq.typeface = info.typeface;
            rq.proportional = info.proportional;
            rq.weight = info.bold ? 3 : 0;
            rq.style = info.italic ? 1 : 0;
        }
    }
    if (pjl.pitch > 0)
        rq.pitch = std::clamp(pjl.pitch, 0.44, 99.99);
    if (pjl.pointSize > 0)
        rq.height = std::clamp(pjl.pointSize, 4.0, 999.75);
    if (!pjl.symbolSet.empty())
        if (auto s = parseSymbolSet(pjl.symbolSet))
            rq.symbolSet = *s;
    m_primary = FontState{};
    m_primary.request = rq;
    m_secondary = m_primary;
    m_secondaryActive = false;
}

void Interpreter::applyPageSetup(const PaperSize& paper, int orientation) {
    m_paper = paper;
    m_orientation = orientation & 3;
    const bool landscape = (m_orientation & 1) != 0;
    const double w = paper.widthPt * kUnitsPerPoint;
    const double h = paper.heightPt * kUnitsPerPoint;
    m_sheetWidth = landscape ? h : w;
    m_sheetHeight = landscape ? w : h;
    m_offsetX = logicalPageOffset(paper, landscape);
    m_logicalWidth = std::max(0.0, m_sheetWidth - 2 * m_offsetX);
    m_logicalHeight = m_sheetHeight;
    m_direction = 0;
    defaultTextArea();
    updatePictureFrame();
}

void Interpreter::defaultTextArea() {
    // Form lines from PJL give the VMI that fits them between half-inch margins.
    if (m_ctx.pjl.formLines > 0 && m_ctx.pjl.formLines <= 128)
        m_vmi = (m_logicalHeight - kUnitsPerInch) / m_ctx.pjl.formLines;
    else
        m_vmi = kUnitsPerInch / 6;
    m_topMargin = kUnitsPerInch / 2;
    m_textLength = m_vmi > 0 ? static_cast<int>((m_logicalHeight - kUnitsPerInch) / m_vmi + 1e-6) : 0;
    m_leftMargin = 0;
    m_rightMargin = m_logicalWidth;
    selectFont(m_primary);
    selectFont(m_secondary);
    m_hmi = currentFont().hmi;
    m_x = m_leftMargin;
    m_y = firstBaseline();
}

double Interpreter::firstBaseline() const { return m_topMargin + 0.75 * m_vmi; }

void Interpreter::setPaper(int code) {
    auto paper = paperByCode(code);
    if (!paper) {
        warnOnce("PCL 5: unknown page size " + std::to_string(code) + " ignored");
        return;
    }
    ejectPage();
    applyPageSetup(*paper, m_orientation);
}

void Interpreter::setOrientation(int orientation) {
    if (orientation < 0 || orientation > 3)
        return;
    ejectPage();
    applyPageSetup(m_paper, orientation);
}

Matrix Interpreter::frameToLogical() const {
    const double W = m_logicalWidth, H = m_logicalHeight;
    switch (m_direction) {
    case 1: return Matrix{0, -1, 1, 0, 0, H};   // text runs up the page
    case 2: return Matrix{-1, 0, 0, -1, W, H};  // upside down
    case 3: return Matrix{0, 1, -1, 0, W, 0};   // text runs down the page
    default: return Matrix{};
    }
}

void Interpreter::setPrintDirection(int quarterTurns) {
    quarterTurns &= 3;
    if (quarterTurns == m_direction)
        return;
    if (m_underline)
        drawUnderline();
    const Point logical = frameToLogical().apply({m_x, m_y});
    m_direction = quarterTurns;
    if (auto inv = frameToLogical().inverted()) {
        const Point p = inv->apply(logical);
        m_x = p.x;
        m_y = p.y;
    }
    // The horizontal margins follow the new direction; the text length fits its height.
    m_leftMargin = 0;
    m_rightMargin = frameWidth();
    if (m_vmi > 0)
        m_textLength = std::max(0, static_cast<int>((frameHeight() - m_topMargin - kUnitsPerInch / 2) / m_vmi));
    if (m_underline)
        startUnderline();
}

Matrix Interpreter::logicalToPage() const {
    // Logical units to page points on the oriented sheet; orientations 2 and 3 turn the logical
    // page half a turn.
    const double s = 1.0 / kUnitsPerPoint;
    const double ox = (m_offsetX + m_regLeft) * s;
    const double oy = m_regTop * s;
    if (m_orientation >= 2) {
        const double W = m_sheetWidth * s, H = m_sheetHeight * s;
        return Matrix{-s, 0, 0, -s, W - ox, H - oy};
    }
    return Matrix{s, 0, 0, s, ox, oy};
}

// ---------------------------------------------------------------------------------------------
// Pages

void Interpreter::ensurePage() {
    if (m_pageOpen)
        return;
    PageSpec spec;
    spec.widthPt = m_sheetWidth / kUnitsPerPoint;
    spec.heightPt = m_sheetHeight / kUnitsPerPoint;
    if (m_ctx.pjl.resolution > 0) {
        spec.declaredDpiX = spec.declaredDpiY = m_ctx.pjl.resolution;
    } else {
        // The unit of measure and the raster resolution say what the job was made for; finer
        // units than 1200 a inch are only a coordinate grid.
        double dpi = m_rasterResolution > 300 ? m_rasterResolution : 0;
        if (m_unitsPerInch != 300 && m_unitsPerInch <= 1200)
            dpi = std::max(dpi, m_unitsPerInch);
        if (dpi > 0)
            spec.declaredDpiX = spec.declaredDpiY = dpi;
    }
    m_dev.beginPage(spec);
    m_pageOpen = true;
}

void Interpreter::closePage() {
    if (m_underline)
        drawUnderline();
    if (m_pageOpen) {
        if (m_overlayId >= 0)
            runOverlay();
        m_dev.endPage();
        m_pageOpen = false;
    }
}

void Interpreter::ejectPage() {
    if (m_inOverlay)
        return; // an overlay draws on the page being printed; it cannot print one itself
    if (m_raster.active)
        flushStrip();
    closePage();
    m_x = m_leftMargin;
    m_y = firstBaseline();
    if (m_raster.active)
        m_raster.y = frameToLogical().apply({m_x, m_y}).y;
    if (m_underline)
        startUnderline();
}

// ---------------------------------------------------------------------------------------------
// Text

void Interpreter::selectFont(FontState& f) {
    if (f.softId >= 0) {
        auto it = m_softFonts.find(f.softId);
        if (it != m_softFonts.end()) {
            SoftFont& sf = it->second.font;
            const double unitsPerDot = kUnitsPerInch / sf.resolution;
            f.fixed = !sf.proportional;
            if (sf.scalable) {
                // Downloaded TrueType: sized by the current height; fixed pitch by the pitch.
                f.emPt = std::clamp(f.request.height, 0.25, 999.75);
                f.hmi = f.fixed ? kUnitsPerInch / std::clamp(f.request.pitch, 0.1, 200.0) : 0;
                if (!f.fixed) {
                    auto sp = sf.glyphIds.find(' ');
                    MemoryFace* face = sp != sf.glyphIds.end() ? sf.scalableFace(sp->second) : nullptr;
                    if (face && sp != sf.glyphIds.end())
                        f.hmi = face->advance(sp->second) * f.emPt * kUnitsPerPoint;
                    if (f.hmi <= 0)
                        f.hmi = 0.25 * f.emPt * kUnitsPerPoint;
                }
                return;
            }
            f.hmi = sf.pitchDots * unitsPerDot;
            if (sf.proportional) {
                auto sp = sf.glyphs.find(' ');
                if (sp != sf.glyphs.end() && sp->second.deltaX > 0)
                    f.hmi = sp->second.deltaX * unitsPerDot;
            }
            if (f.hmi <= 0)
                f.hmi = kUnitsPerInch / 10;
            return;
        }
        f.softId = -1;
    }
    f.fixed = !f.request.proportional;
    if (m_fonts) {
        f.index = m_fonts->selectPcl(f.request);
        if (f.index >= 0)
            f.fixed = !m_fonts->info(f.index).proportional;
    } else {
        f.index = -1;
    }
    if (f.fixed) {
        const double pitch = std::clamp(f.request.pitch, 0.1, 200.0);
        const double adv = (f.index >= 0 && m_fonts) ? m_fonts->metrics(f.index).fixedAdvance : 0.6;
        f.hmi = kUnitsPerInch / pitch;
        f.emPt = 72.0 / (pitch * (adv > 0 ? adv : 0.6));
    } else {
        f.emPt = std::clamp(f.request.height, 0.25, 999.75);
        double space = 0.25;
        if (f.index >= 0 && m_fonts) {
            const double a = m_fonts->advance(f.index, U' ');
            if (a > 0)
                space = a;
        }
        f.hmi = space * f.emPt * kUnitsPerPoint;
    }
}

void Interpreter::fontChanged(FontState& f) {
    selectFont(f);
    if (&f == &currentFont())
        m_hmi = f.hmi;
}

void Interpreter::startUnderline() {
    m_underlineStart = m_x;
    m_underlineY = m_y;
}

void Interpreter::drawUnderline() {
    const double x0 = std::min(m_underlineStart, m_x);
    const double x1 = std::max(m_underlineStart, m_x);
    if (x1 - x0 > 0.5 && m_underlineY == m_y) {
        ensurePage();
        // Three dots thick, a little below the baseline.
        const double top = m_y + 5 * 24;
        Path p;
        p.addRect(x0, top, x1 - x0, 3 * 24);
        m_dev.fillPath(p.transformed(textToPage()), FillRule::NonZero, currentPaint(), renderState());
    }
    m_underlineStart = m_x;
    m_underlineY = m_y;
}

void Interpreter::carriageReturn() {
    if (m_underline)
        drawUnderline();
    m_x = m_leftMargin;
    if (m_underline)
        startUnderline();
}

void Interpreter::lineFeed() {
    if (m_underline)
        drawUnderline();
    m_y += m_vmi;
    // Perforation skip: past the text area's bottom, go on to the next page.
    if (m_perfSkip && m_vmi > 0) {
        const double bottom = m_topMargin + m_textLength * m_vmi;
        if (m_y > bottom + 0.75 * m_vmi + 1e-6 && m_textLength > 0) {
            const double x = m_x;
            formFeed();
            m_x = x;
        }
    }
    if (m_y > kMaxPosition)
        m_y = kMaxPosition;
    if (m_underline)
        startUnderline();
}

void Interpreter::formFeed() {
    // A form feed always ends the sheet that has been started; an untouched one stays unprinted.
    ejectPage();
}

void Interpreter::printCode(uint32_t code) {
    FontState& f = currentFont();
    if (f.softId >= 0 && printSoftCode(f, code))
        return;
    if (f.index < 0) {
        // No font library, or not one font file found: the text cannot be drawn.
        warnOnce(m_fonts ? "PCL 5: no font file found for the text, text skipped" : "PCL 5: no fonts available, text skipped");
        if (code >= 0x20)
            ensurePage();
        m_x = clampPos(m_x + m_hmi);
        return;
    }
    const char32_t uc = symbolSetToUnicode(f.request.symbolSet, code);
    double advance;
    if (code == ' ' || (uc == U' '))
        advance = m_hmi;
    else if (f.fixed)
        advance = m_hmi;
    else if (uc != 0 && f.index >= 0)
        advance = m_fonts->advance(f.index, uc) * f.emPt * kUnitsPerPoint;
    else
        advance = 0;

    if (m_wrap && m_x + advance > m_rightMargin + 0.5 && m_x > m_leftMargin) {
        carriageReturn();
        lineFeed();
    }
    ensurePage(); // printing has started on this sheet
    if (uc != 0 && uc != U' ' && f.index >= 0) {
        const Matrix toDevice = m_dev.pageToDevice() * textToPage();
        const double em = f.emPt * kUnitsPerPoint;
        const Matrix fontToDevice = toDevice * Matrix::scale(em, -em);
        // A character the face lacks (line drawing in Courier, say) is taken from a face with a
        // wide repertoire of the same spacing.
        int face = f.index;
        if (!m_fonts->hasGlyph(face, uc)) {
            FontRequest wide;
            wide.typeface = f.fixed ? 0 : 16602; // Line Printer or Arial
            wide.proportional = !f.fixed;
            const int other = m_fonts->selectPcl(wide);
            if (other >= 0 && m_fonts->hasGlyph(other, uc))
                face = other;
        }
        if (auto g = m_fonts->renderGlyph(face, uc, Matrix{fontToDevice.a, fontToDevice.b, fontToDevice.c,
                                                            fontToDevice.d, 0, 0})) {
            if (g->mask.width > 0 && g->mask.height > 0) {
                const Point pen = toDevice.apply({m_x, m_y});
                const double ox = std::round(pen.x) + g->left;
                const double oy = std::round(pen.y) + g->top;
                if (auto inv = m_dev.pageToDevice().inverted())
                    m_dev.fillMask(g->mask, *inv * Matrix::translate(ox, oy), currentPaint(), renderState());
            }
        }
    }
    m_x = clampPos(m_x + advance);
    m_lastAdvance = advance;
}

void Interpreter::handleText(const uint8_t* text, size_t length) {
    for (size_t i = 0; i < length; ++i) {
        const uint8_t c = text[i];
        if (m_displayFunctions) {
            printCode(c);
            if (c == '\r') {
                carriageReturn();
            } else if (c == '\n') {
                lineFeed();
            }
            continue;
        }
        switch (c) {
        case '\r':
            carriageReturn();
            if (m_lineTermination == 1 || m_lineTermination == 3)
                lineFeed();
            break;
        case '\n':
            if (m_lineTermination == 2 || m_lineTermination == 3)
                carriageReturn();
            lineFeed();
            break;
        case '\f':
            if (m_lineTermination == 2 || m_lineTermination == 3)
                carriageReturn();
            formFeed();
            break;
        case '\b':
            m_x = std::max(m_leftMargin, m_x - (m_lastAdvance > 0 ? m_lastAdvance : m_hmi));
            break;
        case '\t': {
            const double tab = 8 * m_hmi;
            if (tab > 0) {
                const double col = std::floor((m_x - m_leftMargin) / tab + 1e-9) + 1;
                m_x = clampPos(m_leftMargin + col * tab);
            }
            break;
        }
        case 0x0E:
            m_secondaryActive = true;
            m_hmi = m_secondary.hmi;
            break;
        case 0x0F:
            m_secondaryActive = false;
            m_hmi = m_primary.hmi;
            break;
        default:
            if (c >= 0x20)
                printCode(c);
            break;
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Downloaded fonts

namespace {
// All downloaded fonts together may hold this much glyph memory.
constexpr size_t kSoftFontBudget = 64u * 1024 * 1024;
} // namespace

void Interpreter::selectSoftFont(FontState& f, int id) {
    auto it = m_softFonts.find(id);
    if (it == m_softFonts.end()) {
        warnOnce("PCL 5: font ID " + std::to_string(id) + " selected but never downloaded");
        return;
    }
    const SoftFont& sf = it->second.font;
    f.softId = id;
    // The font's attributes become the current ones, so that later changes start from them.
    if (sf.symbolSet)
        f.request.symbolSet = sf.symbolSet;
    f.request.proportional = sf.proportional;
    f.request.style = sf.style;
    f.request.weight = sf.weight;
    f.request.typeface = sf.typeface;
    if (sf.pitchDots > 0)
        f.request.pitch = sf.resolution / sf.pitchDots;
    if (sf.heightDots > 0)
        f.request.height = sf.heightDots * 72.0 / sf.resolution;
    fontChanged(f);
}

int Interpreter::matchSoftFont(const FontRequest& rq) const {
    for (const auto& [id, stored] : m_softFonts) {
        const SoftFont& sf = stored.font;
        if (sf.symbolSet != rq.symbolSet || sf.proportional != rq.proportional || sf.typeface != rq.typeface ||
            sf.style != rq.style || sf.weight != rq.weight)
            continue;
        if (!sf.scalable) {
            // Bitmap fonts come in one size.
            if (!sf.proportional && (sf.pitchDots <= 0 || std::abs(sf.resolution / sf.pitchDots - rq.pitch) > 0.05 * rq.pitch))
                continue;
            if (sf.proportional && std::abs(sf.heightDots * 72.0 / sf.resolution - rq.height) > 0.25)
                continue;
        }
        return id;
    }
    return -1;
}

void Interpreter::fontControl(int operation) {
    const auto erase = [&](std::map<int, StoredFont>::iterator it) {
        m_softFontBytes -= std::min(m_softFontBytes, it->second.font.bytes);
        return m_softFonts.erase(it);
    };
    switch (operation) {
    case 0: // delete all
        m_softFonts.clear();
        m_softFontBytes = 0;
        break;
    case 1: // delete the temporary ones
        for (auto it = m_softFonts.begin(); it != m_softFonts.end();)
            it = it->second.permanent ? std::next(it) : erase(it);
        break;
    case 2:
        if (auto it = m_softFonts.find(m_fontId); it != m_softFonts.end())
            erase(it);
        break;
    case 3:
        if (auto it = m_softFonts.find(m_fontId); it != m_softFonts.end()) {
            auto g = it->second.font.glyphs.find(m_charCode);
            if (g != it->second.font.glyphs.end()) {
                const size_t b = g->second.mask.bits.size();
                it->second.font.bytes -= std::min(it->second.font.bytes, b);
                m_softFontBytes -= std::min(m_softFontBytes, b);
                it->second.font.glyphs.erase(g);
            }
        }
        break;
    case 4:
    case 5:
        if (auto it = m_softFonts.find(m_fontId); it != m_softFonts.end())
            it->second.permanent = operation == 5;
        break;
    default: break;
    }
    for (FontState* f : {&m_primary, &m_secondary})
        if (f->softId >= 0 && !m_softFonts.count(f->softId)) {
            f->softId = -1;
            selectFont(*f);
        }
}

void Interpreter::defineFont(std::span<const uint8_t> data) {
    std::string why;
    auto font = parseFontHeader(data, &why);
    if (!font) {
        warnOnce("PCL 5: downloaded font skipped: " + why);
        return;
    }
    if (auto it = m_softFonts.find(m_fontId); it != m_softFonts.end()) {
        m_softFontBytes -= std::min(m_softFontBytes, it->second.font.bytes);
        m_softFonts.erase(it);
    }
    m_softFonts[m_fontId] = StoredFont{std::move(*font), false};
}

void Interpreter::defineCharacter(std::span<const uint8_t> data) {
    auto it = m_softFonts.find(m_fontId);
    std::string why;
    if (!data.empty() && data[0] == 15) {
        auto c = parseTrueTypeCharacter(data, &why);
        if (!c) {
            warnOnce("PCL 5: downloaded character skipped: " + why);
            return;
        }
        if (it == m_softFonts.end() || !it->second.font.scalable)
            return;
        if (m_softFontBytes + c->outline.size() > kSoftFontBudget) {
            warnOnce("PCL 5: downloaded fonts exceed the memory budget; further characters skipped");
            return;
        }
        SoftFont& font = it->second.font;
        if (auto old = font.outlines.find(c->glyphId); old != font.outlines.end()) {
            font.outlineBytes -= std::min(font.outlineBytes, old->second.size());
            if (c->glyphId < font.builtGlyphs.size())
                font.builtGlyphs[c->glyphId] = false; // a new outline for it: build again
        }
        m_softFontBytes += c->outline.size();
        font.bytes += c->outline.size();
        font.outlineBytes += c->outline.size();
        font.glyphIds[m_charCode] = c->glyphId;
        font.outlines[c->glyphId] = std::move(c->outline);
        font.faceDirty = true;
        for (FontState* f : {&m_primary, &m_secondary})
            if (f->softId == m_fontId && m_charCode == ' ')
                fontChanged(*f);
        return;
    }
    auto glyph = m_assembler.add(data, &why);
    if (!why.empty())
        warnOnce("PCL 5: downloaded character skipped: " + why);
    if (!glyph || it == m_softFonts.end())
        return;
    const size_t bytes = glyph->mask.bits.size();
    if (m_softFontBytes + bytes > kSoftFontBudget) {
        warnOnce("PCL 5: downloaded fonts exceed the memory budget; further characters skipped");
        return;
    }
    SoftFont& font = it->second.font;
    if (auto old = font.glyphs.find(m_charCode); old != font.glyphs.end()) {
        const size_t b = old->second.mask.bits.size();
        font.bytes -= std::min(font.bytes, b);
        m_softFontBytes -= std::min(m_softFontBytes, b);
    }
    font.glyphs[m_charCode] = std::move(*glyph);
    font.bytes += bytes;
    m_softFontBytes += bytes;
    for (FontState* f : {&m_primary, &m_secondary})
        if (f->softId == m_fontId && m_charCode == ' ')
            fontChanged(*f);
}

bool Interpreter::printSoftCode(FontState& f, uint32_t code) {
    auto it = m_softFonts.find(f.softId);
    if (it == m_softFonts.end())
        return false;
    SoftFont& sf = it->second.font;
    if (sf.scalable) {
        auto id = sf.glyphIds.find(code);
        MemoryFace* face = id != sf.glyphIds.end() ? sf.scalableFace(id->second) : nullptr;
        const double em = f.emPt * kUnitsPerPoint;
        double advance = m_hmi;
        if (!f.fixed && code != ' ')
            advance = (face && id != sf.glyphIds.end()) ? face->advance(id->second) * em : 0;
        if (m_wrap && m_x + advance > m_rightMargin + 0.5 && m_x > m_leftMargin) {
            carriageReturn();
            lineFeed();
        }
        ensurePage();
        if (face && id != sf.glyphIds.end() && code != ' ') {
            const Matrix toDevice = m_dev.pageToDevice() * textToPage();
            const Matrix fontToDevice = toDevice * Matrix::scale(em, -em);
            if (auto g = face->renderGlyph(id->second, Matrix{fontToDevice.a, fontToDevice.b, fontToDevice.c,
                                                               fontToDevice.d, 0, 0})) {
                if (g->mask.width > 0 && g->mask.height > 0) {
                    const Point pen = toDevice.apply({m_x, m_y});
                    if (auto inv = m_dev.pageToDevice().inverted())
                        m_dev.fillMask(g->mask,
                                       *inv * Matrix::translate(std::round(pen.x) + g->left, std::round(pen.y) + g->top),
                                       currentPaint(), renderState());
                }
            }
        }
        m_x = clampPos(m_x + advance);
        m_lastAdvance = advance;
        return true;
    }
    const double unitsPerDot = kUnitsPerInch / sf.resolution;
    auto g = sf.glyphs.find(code);
    double advance = m_hmi;
    if (g != sf.glyphs.end() && sf.proportional && code != ' ')
        advance = g->second.deltaX * unitsPerDot;
    if (m_wrap && m_x + advance > m_rightMargin + 0.5 && m_x > m_leftMargin) {
        carriageReturn();
        lineFeed();
    }
    ensurePage();
    if (g != sf.glyphs.end() && g->second.mask.width > 0 && g->second.mask.height > 0) {
        const SoftGlyph& glyph = g->second;
        const Matrix toDevice = m_dev.pageToDevice() * textToPage() *
                                Matrix::translate(m_x + glyph.left * unitsPerDot, m_y - glyph.top * unitsPerDot) *
                                Matrix::scale(unitsPerDot, unitsPerDot);
        Matrix snapped = toDevice;
        snapped.e = std::round(toDevice.e);
        snapped.f = std::round(toDevice.f);
        if (auto inv = m_dev.pageToDevice().inverted())
            m_dev.fillMask(glyph.mask, *inv * snapped, currentPaint(), renderState());
    }
    m_x = clampPos(m_x + advance);
    m_lastAdvance = advance;
    return true;
}

// ---------------------------------------------------------------------------------------------
// Paint

RenderState Interpreter::renderState() const {
    RenderState rs;
    rs.rop3 = m_rop;
    rs.sourceTransparent = m_sourceTransparent;
    rs.patternTransparent = m_patternTransparent;
    return rs;
}

std::shared_ptr<PatternTile> Interpreter::placeTile(std::shared_ptr<PatternTile> tile, double pixelUnits) const {
    tile->tileToPage = logicalToPage() * Matrix::translate(m_patternRefX, m_patternRefY) *
                       Matrix::scale(pixelUnits, pixelUnits);
    return tile;
}

Paint Interpreter::paintForPattern(int type, int id) const {
    switch (type) {
    case 0: return Paint::solid(m_foregroundRgb);
    case 1: return Paint::solid(Rgb::white());
    case 2:
        if (id <= 0)
            return Paint::solid(Rgb::white());
        if (id >= 100)
            return Paint::solid(m_foregroundRgb);
        return Paint::tiled(placeTile(shadingTile(id), 24));
    case 3: return Paint::tiled(placeTile(crossHatchTile(std::clamp(id, 1, 6)), 24));
    case 4: {
        auto it = m_userPatterns.find(id);
        if (it == m_userPatterns.end())
            return Paint::solid(m_foregroundRgb);
        auto copy = std::make_shared<PatternTile>(*it->second);
        return Paint::tiled(placeTile(copy, 24));
    }
    default: return Paint::solid(m_foregroundRgb);
    }
}

Paint Interpreter::currentPaint() const { return paintForPattern(m_currentPatternType, m_currentPatternId); }

void Interpreter::fillRect() {
    double w = m_rectWidth, h = m_rectHeight;
    if (w <= 0 || h <= 0)
        return;
    // Rectangles are clipped to the logical page.
    double x0 = std::max(0.0, m_x), y0 = std::max(0.0, m_y);
    double x1 = std::min(frameWidth(), m_x + w), y1 = std::min(frameHeight(), m_y + h);
    if (x1 <= x0 || y1 <= y0)
        return;
    ensurePage();
    Path p;
    p.addRect(x0, y0, x1 - x0, y1 - y0);
    const Path onPage = p.transformed(textToPage());
    RenderState rs = renderState();
    // Erase (white) rules and solid fills are painted like text; patterns follow the ROP too.
    m_dev.fillPath(onPage, FillRule::NonZero, paintForPattern(m_patternTypeForRect, m_patternId), rs);
}

// ---------------------------------------------------------------------------------------------
// Colour

void Interpreter::defaultPalette() {
    m_palette = {Rgb::white(), Rgb::black()};
}

void Interpreter::setSimpleColour(int mode) {
    // 1: black and white; 3: eight device RGB colours (bits are light); -3: eight device CMY
    // colours (bits are ink); -4: black plane first, then cyan, magenta, yellow.
    if (m_raster.active)
        endRaster();
    m_simpleColour = mode;
    m_pixelEncoding = 0;
    m_colourSpaceCmy = mode < 0;
    const auto primaries = [](int i, bool ink) {
        const bool b0 = i & 1, b1 = i & 2, b2 = i & 4;
        if (ink)
            return Rgb{static_cast<uint8_t>(b0 ? 0 : 255), static_cast<uint8_t>(b1 ? 0 : 255),
                       static_cast<uint8_t>(b2 ? 0 : 255)};
        return Rgb{static_cast<uint8_t>(b0 ? 255 : 0), static_cast<uint8_t>(b1 ? 255 : 0),
                   static_cast<uint8_t>(b2 ? 255 : 0)};
    };
    if (mode == 3 || mode == -3) {
        m_bitsPerIndex = 3;
        m_palette.resize(8);
        for (int i = 0; i < 8; ++i)
            m_palette[static_cast<size_t>(i)] = primaries(i, mode == -3);
        m_foreground = mode == 3 ? 0 : 7;
    } else if (mode == -4) {
        m_bitsPerIndex = 4;
        m_palette.resize(16);
        for (int i = 0; i < 16; ++i)
            m_palette[static_cast<size_t>(i)] = (i & 1) ? Rgb::black() : primaries(i >> 1, true);
        m_foreground = 1;
    } else {
        m_bitsPerIndex = 1;
        defaultPalette();
        m_foreground = 1;
    }
    m_foregroundRgb = Rgb::black();
}

void Interpreter::configureImageData(std::span<const uint8_t> data) {
    if (data.size() < 6) {
        warnOnce("PCL 5: short configure image data command ignored");
        return;
    }
    if (m_raster.active)
        endRaster();
    const int space = data[0];
    const int encoding = data[1];
    const int bits = data[2];
    m_simpleColour = 0;
    m_colourSpaceCmy = space == 1;
    if (space > 1)
        warnOnce("PCL 5: colour space " + std::to_string(space) + " treated as RGB");
    m_pixelEncoding = std::clamp(encoding, 0, 3);
    if (m_pixelEncoding == 3)
        m_bitsPerIndex = 24;
    else if (m_pixelEncoding == 2)
        m_bitsPerIndex = 3;
    else
        m_bitsPerIndex = std::clamp(bits, 1, 8);
    // The default palette of an indexed configuration: black and white for one bit, the eight
    // primaries for more, the rest black.
    const int entries = m_pixelEncoding <= 1 ? (1 << m_bitsPerIndex) : 8;
    m_palette.assign(static_cast<size_t>(entries), Rgb::black());
    if (m_bitsPerIndex == 1 && m_pixelEncoding <= 1) {
        m_palette[0] = Rgb::white();
        m_palette[1] = Rgb::black();
    } else {
        for (int i = 0; i < std::min(entries, 8); ++i) {
            const bool r = i & 1, g = i & 2, b = i & 4;
            Rgb c{static_cast<uint8_t>(r ? 255 : 0), static_cast<uint8_t>(g ? 255 : 0), static_cast<uint8_t>(b ? 255 : 0)};
            if (m_colourSpaceCmy)
                c = Rgb{static_cast<uint8_t>(255 - c.r), static_cast<uint8_t>(255 - c.g), static_cast<uint8_t>(255 - c.b)};
            m_palette[static_cast<size_t>(i)] = c;
        }
    }
    m_foreground = -1;
    m_foregroundRgb = Rgb::black();
}

// ---------------------------------------------------------------------------------------------
// Raster graphics

int Interpreter::planes() const {
    if (m_simpleColour == 3 || m_simpleColour == -3)
        return 3;
    if (m_simpleColour == -4)
        return 4;
    if (m_pixelEncoding == 0)
        return m_bitsPerIndex;
    if (m_pixelEncoding == 2)
        return 3;
    return 1;
}

int Interpreter::rasterWidthPixels() const {
    // The raster may not reach past the logical page's right edge.
    const double room = std::max(0.0, m_logicalWidth - m_raster.left);
    const int maxPixels = static_cast<int>(std::ceil(room / m_raster.scaleX));
    if (m_raster.width > 0)
        return std::min(m_raster.width, maxPixels);
    return maxPixels;
}

void Interpreter::startRaster(int mode) {
    if (m_raster.active)
        return;
    m_raster.active = true;
    // Raster follows the orientation, not the print direction: it starts at the cursor's place
    // on the logical page.
    const Point cursor = frameToLogical().apply({m_x, m_y});
    m_raster.left = (mode == 1 || mode == 3) ? cursor.x : 0;
    // Modes 2 and 3 scale the source (width by height pixels) to the destination size.
    m_raster.scaleX = m_raster.scaleY = rasterPixelUnits();
    if ((mode == 2 || mode == 3) && m_raster.width > 0 && m_raster.height > 0 &&
        (m_destWidth > 0 || m_destHeight > 0)) {
        double sx = m_destWidth > 0 ? m_destWidth * kDecipoint / m_raster.width : 0;
        double sy = m_destHeight > 0 ? m_destHeight * kDecipoint / m_raster.height : 0;
        if (sx <= 0)
            sx = sy;
        if (sy <= 0)
            sy = sx;
        // At least a hundredth of a pixel of the 7200 dpi grid, at most the page.
        m_raster.scaleX = std::clamp(sx, 0.01, kUnitsPerInch * 20);
        m_raster.scaleY = std::clamp(sy, 0.01, kUnitsPerInch * 20);
    }
    m_raster.y = cursor.y;
    m_raster.rowsDone = 0;
    m_raster.planeIndex = 0;
    m_raster.stripRows = 0;
    m_raster.strip.clear();
    m_raster.stripWidth = rasterWidthPixels();
    const bool colour = !(m_simpleColour == 0 && m_pixelEncoding <= 1 && m_bitsPerIndex == 1 &&
                          m_palette.size() == 2 && m_palette[0] == Rgb::white() && m_palette[1] == Rgb::black());
    m_raster.stripColour = colour;
    m_raster.seeds.assign(static_cast<size_t>(planes()), {});
    if (m_raster.stripWidth <= 0)
        return;
    if (m_rasterResolution <= 0)
        m_rasterResolution = 75;
}

void Interpreter::endRaster() {
    if (!m_raster.active)
        return;
    flushStrip();
    m_raster.active = false;
    if (m_direction == 0)
        m_y = m_raster.y;
}

void Interpreter::flushStrip() {
    RasterState& r = m_raster;
    if (r.stripRows <= 0 || r.stripWidth <= 0) {
        r.stripRows = 0;
        r.strip.clear();
        return;
    }
    ensurePage();
    const Matrix toPage = logicalToPage() * Matrix::translate(r.left, r.stripTop) * Matrix::scale(r.scaleX, r.scaleY);
    if (!r.stripColour) {
        Mask m;
        m.width = r.stripWidth;
        m.height = r.stripRows;
        m.stride = static_cast<size_t>((r.stripWidth + 7) / 8);
        m.bits = std::move(r.strip);
        bool any = false;
        for (uint8_t b : m.bits)
            if (b) {
                any = true;
                break;
            }
        if (!m_sourceTransparent) {
            // Opaque source: the white pixels are painted white too.
            Mask inverse = m;
            for (uint8_t& b : inverse.bits)
                b = static_cast<uint8_t>(~b);
            RenderState rs = renderState();
            m_dev.fillMask(inverse, toPage, Paint::solid(Rgb::white()), rs);
        }
        if (any)
            m_dev.fillMask(m, toPage, currentPaint(), renderState());
        r.strip = std::move(m.bits); // the next strip reuses the room
    } else {
        Image img;
        img.width = r.stripWidth;
        img.height = r.stripRows;
        img.format = Image::Format::Rgb24;
        img.stride = static_cast<size_t>(r.stripWidth) * 3;
        img.data = std::move(r.strip);
        m_dev.drawImage(img, toPage, currentPaint(), renderState());
        r.strip = std::move(img.data);
    }
    r.strip.clear();
    r.stripRows = 0;
}

void Interpreter::rasterYOffset(int rows) {
    if (!m_raster.active)
        startRaster(0);
    flushStrip();
    if (rows <= 0)
        return;
    const double maxRows = m_logicalHeight / m_raster.scaleY + 1;
    rows = static_cast<int>(std::min<double>(rows, maxRows));
    m_raster.y += rows * m_raster.scaleY;
    m_raster.rowsDone += rows;
    for (auto& s : m_raster.seeds)
        std::fill(s.begin(), s.end(), 0);
}

void Interpreter::emitRow(const std::vector<std::vector<uint8_t>>& planeRows) {
    RasterState& r = m_raster;
    if (r.height > 0 && r.rowsDone >= r.height)
        return;
    const double px = r.scaleY;
    const bool visible = r.y < m_logicalHeight + px && r.y > -kMaxPosition && r.stripWidth > 0;
    if (visible) {
        if (r.stripRows == 0)
            r.stripTop = r.y;
        const int w = r.stripWidth;
        if (!r.stripColour) {
            const size_t stride = static_cast<size_t>((w + 7) / 8);
            const size_t at = r.strip.size();
            r.strip.resize(at + stride, 0);
            const auto& row = planeRows[0];
            std::memcpy(r.strip.data() + at, row.data(), std::min(stride, row.size()));
            if (w % 8)
                r.strip[at + stride - 1] &= static_cast<uint8_t>(0xFF << (8 - w % 8));
        } else {
            const size_t at = r.strip.size();
            r.strip.resize(at + static_cast<size_t>(w) * 3, 255);
            uint8_t* out = r.strip.data() + at;
            const auto bit = [](const std::vector<uint8_t>& row, int x) -> int {
                const size_t byte = static_cast<size_t>(x) / 8;
                return byte < row.size() ? (row[byte] >> (7 - x % 8)) & 1 : 0;
            };
            for (int x = 0; x < w; ++x) {
                Rgb c;
                if (m_pixelEncoding == 3 && m_simpleColour == 0) {
                    const auto& row = planeRows[0];
                    const size_t o = static_cast<size_t>(x) * 3;
                    if (o + 2 < row.size())
                        c = Rgb{row[o], row[o + 1], row[o + 2]};
                    else
                        c = Rgb::white();
                    if (m_colourSpaceCmy)
                        c = Rgb{static_cast<uint8_t>(255 - c.r), static_cast<uint8_t>(255 - c.g),
                                static_cast<uint8_t>(255 - c.b)};
                } else if (m_pixelEncoding == 2 && m_simpleColour == 0) {
                    const int rb = bit(planeRows[0], x), gb = bit(planeRows[1], x), bb = bit(planeRows[2], x);
                    c = Rgb{static_cast<uint8_t>(rb ? 255 : 0), static_cast<uint8_t>(gb ? 255 : 0),
                            static_cast<uint8_t>(bb ? 255 : 0)};
                    if (m_colourSpaceCmy)
                        c = Rgb{static_cast<uint8_t>(255 - c.r), static_cast<uint8_t>(255 - c.g),
                                static_cast<uint8_t>(255 - c.b)};
                } else if (m_pixelEncoding == 1 && m_simpleColour == 0) {
                    const auto& row = planeRows[0];
                    const int bpi = m_bitsPerIndex;
                    const size_t bitPos = static_cast<size_t>(x) * static_cast<size_t>(bpi);
                    int index = 0;
                    if ((bitPos + static_cast<size_t>(bpi) + 7) / 8 <= row.size() + 1) {
                        for (int k = 0; k < bpi; ++k) {
                            const size_t b = bitPos + static_cast<size_t>(k);
                            const size_t byte = b / 8;
                            index = (index << 1) | (byte < row.size() ? (row[byte] >> (7 - b % 8)) & 1 : 0);
                        }
                    }
                    c = static_cast<size_t>(index) < m_palette.size() ? m_palette[static_cast<size_t>(index)]
                                                                       : Rgb::black();
                } else {
                    int index = 0;
                    for (size_t p = 0; p < planeRows.size(); ++p)
                        index |= bit(planeRows[p], x) << p;
                    c = static_cast<size_t>(index) < m_palette.size() ? m_palette[static_cast<size_t>(index)]
                                                                       : Rgb::black();
                }
                out[x * 3] = c.r;
                out[x * 3 + 1] = c.g;
                out[x * 3 + 2] = c.b;
            }
        }
        ++r.stripRows;
        if (r.stripRows >= kStripRows)
            flushStrip();
    }
    r.y += px;
    ++r.rowsDone;
}

void Interpreter::rasterData(std::span<const uint8_t> data, bool lastPlane) {
    if (!m_raster.active)
        startRaster(0);
    RasterState& r = m_raster;
    const int nPlanes = static_cast<int>(r.seeds.size());
    if (nPlanes <= 0)
        return;
    // Bytes of one row of one plane.
    size_t rowBytes;
    const size_t w = static_cast<size_t>(std::max(r.stripWidth, 0));
    if (m_pixelEncoding == 3 && m_simpleColour == 0)
        rowBytes = w * 3;
    else if (m_pixelEncoding == 1 && m_simpleColour == 0)
        rowBytes = (w * static_cast<size_t>(m_bitsPerIndex) + 7) / 8;
    else
        rowBytes = (w + 7) / 8;
    for (auto& s : r.seeds)
        if (s.size() != rowBytes)
            s.resize(rowBytes, 0);

    if (m_compression == 5) {
        // A block of rows for a single plane job.
        decodeAdaptive(data, r.seeds[0], [&](const std::vector<uint8_t>&) {
            if (r.height > 0 && r.rowsDone >= r.height)
                return false;
            if (r.y > m_logicalHeight + r.scaleY)
                return false;
            emitRow(r.seeds);
            return true;
        });
        r.planeIndex = 0;
        return;
    }
    if (r.planeIndex >= nPlanes) {
        // More planes than the configuration has: the extra ones are dropped.
        if (lastPlane)
            r.planeIndex = 0;
        return;
    }
    auto& row = r.seeds[static_cast<size_t>(r.planeIndex)];
    if (!decodeRow(m_compression, data, row)) {
        warnOnce("PCL 5: raster compression method " + std::to_string(m_compression) + " not supported");
        std::fill(row.begin(), row.end(), 0);
    }
    ++r.planeIndex;
    if (lastPlane) {
        // Planes not sent in this row are zero.
        for (int p = r.planeIndex; p < nPlanes; ++p)
            std::fill(r.seeds[static_cast<size_t>(p)].begin(), r.seeds[static_cast<size_t>(p)].end(), 0);
        emitRow(r.seeds);
        r.planeIndex = 0;
    }
}

// ---------------------------------------------------------------------------------------------
// Commands

void Interpreter::handleEscape2(uint8_t c) {
    switch (c) {
    case 'E': // reset
        if (m_macroDepth > 0)
            break; // not from inside a macro
        ejectPage();
        reset();
        m_inHpgl = false;
        if (m_gl) {
            m_gl->reset();
            updatePictureFrame();
        }
        break;
    case '9': // clear horizontal margins
        m_leftMargin = 0;
        m_rightMargin = frameWidth();
        break;
    case '=': // half line feed
        m_y = clampPos(m_y + m_vmi / 2);
        break;
    case 'Y': m_displayFunctions = true; break;
    case 'Z': m_displayFunctions = false; break;
    case 'z': break; // self test
    default: break;
    }
}

void Interpreter::handleFontCommand(const Command& cmd, bool secondary) {
    FontState& f = secondary ? m_secondary : m_primary;
    const double v = cmd.value;
    if (cmd.group == 0) {
        if (cmd.final == '@') {
            // ESC(3@: the default font.
            if (cmd.intValue() == 3) {
                f.request = FontRequest{};
                f.softId = -1;
                fontChanged(f);
            }
            return;
        }
        if (cmd.final == 'X') {
            selectSoftFont(f, cmd.intValue());
            return;
        }
        const int number = cmd.intValue();
        if (number >= 0 && number <= 2047) {
            f.request.symbolSet = symbolSetId(number, static_cast<char>(cmd.final));
            f.softId = matchSoftFont(f.request);
            fontChanged(f);
        }
        return;
    }
    if (cmd.group != 's')
        return;
    if (f.softId >= 0 && (cmd.final == 'V' || cmd.final == 'H')) {
        // A scalable downloaded font stays selected when only its size changes.
        auto it = m_softFonts.find(f.softId);
        if (it != m_softFonts.end() && it->second.font.scalable) {
            if (cmd.final == 'V' && v > 0)
                f.request.height = std::clamp(v, 0.25, 999.75);
            if (cmd.final == 'H' && v > 0)
                f.request.pitch = std::clamp(v, 0.44, 999.99);
            fontChanged(f);
            return;
        }
    }
    switch (cmd.final) {
    case 'P': f.request.proportional = cmd.intValue() == 1; break;
    case 'H':
        if (v > 0)
            f.request.pitch = std::clamp(v, 0.44, 999.99);
        break;
    case 'V':
        if (v > 0)
            f.request.height = std::clamp(v, 0.25, 999.75);
        break;
    case 'S': f.request.style = std::clamp(cmd.intValue(), 0, 32767); break;
    case 'B': f.request.weight = std::clamp(cmd.intValue(), -7, 7); break;
    case 'T': f.request.typeface = std::clamp(cmd.intValue(), 0, 65535); break;
    default: return;
    }
    f.softId = matchSoftFont(f.request);
    fontChanged(f);
}

void Interpreter::handleParam(Parser& parser, const Command& cmd) {
    const uint8_t p = cmd.parameter, g = cmd.group, f = cmd.final;
    const double v = cmd.value;
    const int iv = cmd.intValue();
    const bool relative = cmd.sign != 0;

    if (carriesData(cmd)) {
        handleDataCommand(parser, cmd);
        return;
    }

    if (p == '(' || p == ')') {
        handleFontCommand(cmd, p == ')');
        return;
    }

    if (p == '&' && g == 'l') {
        switch (f) {
        case 'A': setPaper(iv); break;
        case 'O': setOrientation(iv); break;
        case 'E': // top margin in lines; the default picture frame hangs from it
            if (iv >= 0 && m_vmi * iv < m_logicalHeight) {
                m_topMargin = iv * m_vmi;
                m_textLength = m_vmi > 0 ? static_cast<int>((m_logicalHeight - m_topMargin - kUnitsPerInch / 2) / m_vmi) : 0;
                updatePictureFrame();
            }
            break;
        case 'F':
            if (iv >= 0 && m_vmi * iv <= m_logicalHeight) {
                m_textLength = iv;
                updatePictureFrame();
            }
            break;
        case 'D':
            if (v == 0 || v == 1 || v == 2 || v == 3 || v == 4 || v == 6 || v == 8 || v == 12 || v == 16 ||
                v == 24 || v == 48)
                m_vmi = v == 0 ? 0 : kUnitsPerInch / v;
            break;
        case 'C':
            if (v >= 0 && v <= 336)
                m_vmi = v * kUnitsPerInch / 48;
            break;
        case 'L': m_perfSkip = iv != 0; break;
        case 'U': m_regLeft = std::clamp(v, -32767.0, 32767.0) * kDecipoint; break;
        case 'Z':
            // Top registration trims a printer's paper path to its drivers' expectation (they
            // send +36 decipoints); the sheet here already starts where they expect it.
            break;
        case 'P': break; // page length in lines: the paper decides here
        case 'H': // paper source: the started sheet goes out first (0 only ejects it)
        case 'S': // simplex / duplex: likewise
            ejectPage();
            break;
        case 'X': case 'G': case 'M': case 'T': break; // copies, bins, media type, job separation
        default: break;
        }
        return;
    }
    if (p == '&' && g == 'a') {
        switch (f) {
        case 'R': {
            const double dy = v * m_vmi;
            m_y = clampPos(relative ? m_y + dy : m_topMargin + 0.75 * m_vmi + dy);
            break;
        }
        case 'C': {
            const double dx = v * m_hmi;
            m_x = clampPos(relative ? m_x + dx : m_leftMargin + dx);
            break;
        }
        case 'H': m_x = clampPos(relative ? m_x + v * kDecipoint : v * kDecipoint); break;
        case 'V': m_y = clampPos(relative ? m_y + v * kDecipoint : m_topMargin + v * kDecipoint); break;
        case 'L':
            if (iv >= 0 && iv * m_hmi < m_rightMargin)
                m_leftMargin = iv * m_hmi;
            break;
        case 'M':
            if (iv >= 0 && (iv + 1) * m_hmi > m_leftMargin)
                m_rightMargin = std::min(frameWidth(), (iv + 1) * m_hmi);
            break;
        case 'P':
            if (iv == 0 || iv == 90 || iv == 180 || iv == 270)
                setPrintDirection(iv / 90);
            break;
        case 'G': ejectPage(); break; // duplex page side
        default: break;
        }
        return;
    }
    if (p == '&' && g == 'k') {
        switch (f) {
        case 'H':
            if (v >= 0 && v <= 32767)
                m_hmi = v * kUnitsPerInch / 120;
            break;
        case 'G': m_lineTermination = std::clamp(iv, 0, 3); break;
        case 'S': {
            // Pitch mode: 0 = 10, 2 = compressed 16.67, 4 = elite 12.
            double pitch = 10;
            if (iv == 2)
                pitch = 16.67;
            else if (iv == 4)
                pitch = 12;
            else if (iv != 0)
                return;
            m_primary.request.pitch = pitch;
            fontChanged(m_primary);
            break;
        }
        default: break;
        }
        return;
    }
    if (p == '&' && g == 's' && f == 'C') {
        m_wrap = iv == 0;
        return;
    }
    if (p == '&' && g == 'f' && f == 'Y') {
        m_macroId = iv;
        return;
    }
    if (p == '&' && g == 'f' && f == 'X') {
        macroControl(iv);
        return;
    }
    if (p == '&' && g == 'f' && f == 'S') {
        if (iv == 0) {
            if (m_cursorStack.size() < kMaxCursorStack)
                m_cursorStack.emplace_back(m_x, m_y);
        } else if (iv == 1 && !m_cursorStack.empty()) {
            m_x = m_cursorStack.back().first;
            m_y = m_cursorStack.back().second;
            m_cursorStack.pop_back();
        }
        return;
    }
    if (p == '&' && g == 'd') {
        if (f == 'D') {
            if (m_underline)
                drawUnderline();
            m_underline = true;
            startUnderline();
        } else if (f == '@') {
            if (m_underline)
                drawUnderline();
            m_underline = false;
        }
        return;
    }
    if (p == '&' && g == 'u' && f == 'D') {
        // Printers list 96 to 7200 units an inch, but drivers for low resolutions send their
        // own (75 for a 75-dpi job) and place everything in those units: take any whole
        // positive count up to 7200.
        if (v >= 1 && v <= 7200)
            m_unitsPerInch = std::floor(v);
        return;
    }
    if (p == '*' && g == 'p') {
        const double unit = kUnitsPerInch / m_unitsPerInch;
        // Raster rows move the cursor down as they are printed: a relative move inside a raster
        // block counts from the row after the last one sent, not from where the block began.
        if (m_raster.active && m_direction == 0)
            m_y = m_raster.y;
        if (f == 'X')
            m_x = clampPos(relative ? m_x + v * unit : v * unit);
        else if (f == 'Y')
            m_y = clampPos(relative ? m_y + v * unit : m_topMargin + v * unit);
        else if (f == 'R') {
            m_patternRefX = m_x;
            m_patternRefY = m_y;
        }
        if (m_raster.active && (f == 'X' || f == 'Y')) {
            // Moving the cursor inside a raster block restarts the rows there.
            flushStrip();
            m_raster.y = frameToLogical().apply({m_x, m_y}).y;
        }
        return;
    }
    if (p == '*' && g == 'c') {
        const double unit = kUnitsPerInch / m_unitsPerInch;
        switch (f) {
        case 'A': m_rectWidth = std::clamp(v, 0.0, 1e6) * unit; break;
        case 'B': m_rectHeight = std::clamp(v, 0.0, 1e6) * unit; break;
        case 'H': m_rectWidth = std::clamp(v, 0.0, 1e6) * kDecipoint; break;
        case 'V': m_rectHeight = std::clamp(v, 0.0, 1e6) * kDecipoint; break;
        case 'G': m_patternId = iv; break;
        case 'P': {
            int type;
            switch (iv) {
            case 0: type = 0; break;
            case 1: type = 1; break;
            case 2: type = 2; break;
            case 3: type = 3; break;
            case 4: type = 4; break;
            case 5: type = m_currentPatternType; break;
            default: return;
            }
            m_patternTypeForRect = type;
            const int savedId = m_patternId;
            if (iv == 5)
                m_patternId = m_currentPatternId;
            if (iv == 1) {
                // Erase: white, always opaque.
                const auto savedRop = m_rop;
                const bool st = m_sourceTransparent, pt = m_patternTransparent;
                m_rop = 252;
                m_sourceTransparent = m_patternTransparent = false;
                fillRect();
                m_rop = savedRop;
                m_sourceTransparent = st;
                m_patternTransparent = pt;
            } else {
                fillRect();
            }
            m_patternId = savedId;
            break;
        }
        case 'Q': break; // pattern control
        case 'D': m_fontId = std::clamp(iv, 0, 32767); break;
        case 'E': m_charCode = static_cast<uint32_t>(std::clamp(iv, 0, 65535)); break;
        case 'F': fontControl(iv); break;
        case 'X':
            m_frameWidth = std::clamp(v, 0.0, 1e6) * kDecipoint;
            updatePictureFrame();
            break;
        case 'Y':
            m_frameHeight = std::clamp(v, 0.0, 1e6) * kDecipoint;
            updatePictureFrame();
            break;
        case 'T':
            if (iv == 0) {
                m_frameAnchorX = m_x;
                m_frameAnchorY = std::max(0.0, m_y);
                updatePictureFrame();
            }
            break;
        case 'K': // plot size, inches
            m_plotWidth = std::clamp(v, 0.0, 1000.0) * 72;
            updatePictureFrame();
            break;
        case 'L':
            m_plotHeight = std::clamp(v, 0.0, 1000.0) * 72;
            updatePictureFrame();
            break;
        case 'R': case 'S': break;
        default: break;
        }
        return;
    }
    if (p == '*' && g == 't') {
        if (f == 'R') {
            if (m_raster.active)
                return;
            if (iv == 75 || iv == 100 || iv == 150 || iv == 200 || iv == 300 || iv == 600 || iv == 1200)
                m_rasterResolution = iv;
            else if (iv > 0)
                warnOnce("PCL 5: raster resolution " + std::to_string(iv) + " not supported");
        } else if (f == 'H') {
            m_destWidth = std::max(0.0, v);
        } else if (f == 'V') {
            m_destHeight = std::max(0.0, v);
        }
        return;
    }
    if (p == '*' && g == 'r') {
        switch (f) {
        case 'A': startRaster(iv); break;
        case 'B': endRaster(); break;
        case 'C':
            endRaster();
            m_compression = 0;
            break;
        case 'S':
            if (!m_raster.active)
                m_raster.width = std::clamp(iv, 0, 65535);
            break;
        case 'T':
            if (!m_raster.active)
                m_raster.height = std::clamp(iv, 0, 65535);
            break;
        case 'F':
            if (!m_raster.active && (iv == 0 || iv == 3))
                m_presentation = iv;
            break;
        case 'U':
            if (iv == 1 || iv == 3 || iv == -3 || iv == -4)
                setSimpleColour(iv);
            break;
        default: break;
        }
        return;
    }
    if (p == '*' && g == 'b') {
        switch (f) {
        case 'M':
            if (knownCompression(iv))
                m_compression = iv;
            else
                warnOnce("PCL 5: raster compression method " + std::to_string(iv) + " not supported");
            break;
        case 'Y': rasterYOffset(std::clamp(iv, 0, 1 << 20)); break;
        case 'V': handleDataCommand(parser, cmd); break;
        default: break;
        }
        return;
    }
    if (p == '*' && g == 'v') {
        switch (f) {
        case 'A': m_componentValues[0] = v; break;
        case 'B': m_componentValues[1] = v; break;
        case 'C': m_componentValues[2] = v; break;
        case 'I':
            if (iv >= 0 && static_cast<size_t>(iv) < m_palette.size()) {
                const auto comp = [&](double c) {
                    const double x = std::clamp(c, 0.0, 255.0);
                    return static_cast<uint8_t>(m_colourSpaceCmy ? 255 - x : x);
                };
                m_palette[static_cast<size_t>(iv)] =
                    Rgb{comp(m_componentValues[0]), comp(m_componentValues[1]), comp(m_componentValues[2])};
            }
            m_componentValues = {0, 0, 0};
            break;
        case 'S':
            if (iv >= 0 && static_cast<size_t>(iv) < m_palette.size()) {
                m_foreground = iv;
                m_foregroundRgb = m_palette[static_cast<size_t>(iv)];
            }
            break;
        case 'N': m_sourceTransparent = iv == 0; break;
        case 'O': m_patternTransparent = iv == 0; break;
        case 'T':
            if (iv >= 0 && iv <= 4) {
                m_currentPatternType = iv;
                m_currentPatternId = m_patternId;
            }
            break;
        default: break;
        }
        return;
    }
    if (p == '*' && g == 'l' && f == 'O') {
        if (iv >= 0 && iv <= 255)
            m_rop = static_cast<uint8_t>(iv);
        return;
    }
}

bool Interpreter::carriesData(const Command& cmd) {
    const uint8_t p = cmd.parameter, g = cmd.group, f = cmd.final;
    return (f == 'W' && !(p == '&' && g == 'k')) || (p == '&' && g == 'p' && f == 'X');
}

void Interpreter::handleDataCommand(Parser& parser, const Command& cmd) {
    const uint8_t p = cmd.parameter, g = cmd.group, f = cmd.final;
    const int count = std::max(0, cmd.intValue());
    std::span<const uint8_t> data = parser.takeData(static_cast<size_t>(count));
    if (data.size() < static_cast<size_t>(count))
        warnOnce("PCL 5: data of a command is cut short (truncated input)");

    if (p == '*' && g == 'b') {
        rasterData(data, f == 'W');
        return;
    }
    if (p == '*' && g == 'v' && f == 'W') {
        configureImageData(data);
        return;
    }
    if (p == '&' && g == 'p' && f == 'X') {
        for (uint8_t c : data)
            printCode(c);
        return;
    }
    if (p == '*' && g == 'c' && f == 'W') {
        // User-defined pattern: format, continuation, pixel encoding, reserved, height, width, bits.
        if (data.size() < 8) {
            warnOnce("PCL 5: short pattern definition ignored");
            return;
        }
        // Format 0 (and 20, with a resolution) is one bit a pixel in the foreground colour;
        // format 1 is colour, 1 or 8 bits a pixel (byte 2) indexing the current palette.
        const int format = data[0];
        const int height = (data[4] << 8) | data[5];
        const int width = (data[6] << 8) | data[7];
        const size_t header = format == 20 ? 12 : 8;
        const int bitsPerPixel = format == 1 ? data[2] : 1;
        if (format != 0 && format != 1 && format != 20) {
            warnOnce("PCL 5: user pattern format " + std::to_string(format) + " ignored");
            return;
        }
        if (bitsPerPixel != 1 && bitsPerPixel != 8) {
            warnOnce("PCL 5: colour user pattern of " + std::to_string(bitsPerPixel) + " bits a pixel ignored");
            return;
        }
        if (width <= 0 || height <= 0 || width > 4096 || height > 4096)
            return;
        const size_t stride = static_cast<size_t>((width * bitsPerPixel + 7) / 8);
        auto tile = std::make_shared<PatternTile>();
        tile->width = width;
        tile->height = height;
        tile->pixels.assign(static_cast<size_t>(width) * static_cast<size_t>(height), Rgb::white());
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                Rgb& px = tile->pixels[static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)];
                const size_t row = header + static_cast<size_t>(y) * stride;
                if (bitsPerPixel == 8) {
                    const size_t byte = row + static_cast<size_t>(x);
                    const size_t index = byte < data.size() ? data[byte] : 0;
                    px = index < m_palette.size() ? m_palette[index] : Rgb::black();
                    continue;
                }
                const size_t byte = row + static_cast<size_t>(x / 8);
                const int bit = byte < data.size() ? (data[byte] >> (7 - x % 8)) & 1 : 0;
                if (format == 1)
                    px = static_cast<size_t>(bit) < m_palette.size() ? m_palette[static_cast<size_t>(bit)] : Rgb::black();
                else if (bit)
                    px = m_foregroundRgb;
            }
        m_userPatterns[m_patternId] = tile;
        return;
    }
    if (p == ')' && g == 's' && f == 'W') {
        defineFont(data);
        return;
    }
    if (p == '(' && g == 's' && f == 'W') {
        defineCharacter(data);
        return;
    }
    // Everything else that carries data (configurations, palettes, lookup tables) is skipped.
}

hpgl2::PictureFrame Interpreter::pictureFrame() const {
    // The default picture frame is the logical page's width by the text length, from the left
    // edge at the top margin.
    const double w = m_frameWidth > 0 ? m_frameWidth : m_logicalWidth;
    double h = m_frameHeight;
    if (h <= 0)
        h = m_textLength > 0 && m_vmi > 0 ? m_textLength * m_vmi : m_logicalHeight - kUnitsPerInch;
    if (h <= 0)
        h = m_logicalHeight;
    const double ax = m_frameAnchorX;
    const double ay = m_frameAnchorY >= 0 ? m_frameAnchorY : m_topMargin;
    hpgl2::PictureFrame f;
    f.frameToPage = logicalToPage() * Matrix::translate(ax, ay) * Matrix::scale(kUnitsPerPoint, kUnitsPerPoint);
    f.width = w / kUnitsPerPoint;
    f.height = h / kUnitsPerPoint;
    f.plotWidth = m_plotWidth;
    f.plotHeight = m_plotHeight;
    return f;
}

void Interpreter::updatePictureFrame() {
    if (m_gl)
        m_gl->setPictureFrame(pictureFrame());
}

std::optional<Paint> Interpreter::GlHost::pclPattern(int fillType, int id) const {
    if (fillType == 21)
        return m_pcl.paintForPattern(3, std::clamp(id, 1, 6));
    if (fillType == 22 && m_pcl.m_userPatterns.count(id))
        return m_pcl.paintForPattern(4, id);
    return std::nullopt;
}

void Interpreter::enterHpgl(int mode) {
    if (m_raster.active)
        endRaster();
    if (!m_gl) {
        m_gl = std::make_unique<hpgl2::Interpreter>(m_dev, m_ctx.diag, m_fonts, &m_glHost);
        m_gl->setPictureFrame(pictureFrame());
    }
    m_inHpgl = true;
    // ESC%1B: the pen starts at the PCL cursor.
    if (mode == 1 || mode == 3)
        m_gl->enterMode(textToPage().apply({m_x, m_y}));
    else
        m_gl->enterMode(std::nullopt);
}

void Interpreter::leaveHpgl(int mode) {
    if (!m_inHpgl)
        return;
    m_inHpgl = false;
    if (mode == 1 && m_gl) {
        // ESC%1A: the PCL cursor moves to the pen.
        if (auto inv = textToPage().inverted()) {
            const Point p = inv->apply(m_gl->penPosition());
            m_x = clampPos(p.x);
            m_y = clampPos(p.y);
        }
    }
}

size_t Interpreter::run(const uint8_t* data, size_t size) {
    // Macros may run 2 MB of commands, plus 16 times the job's size: overlays on every page of a
    // long job, but no endless repetition from a short one.
    m_macroWorkBudget = (size_t(2) << 20) + 16 * size;
    const size_t used = interpret(data, size);
    if (m_raster.active)
        endRaster();
    closePage();
    return used;
}

size_t Interpreter::interpret(const uint8_t* data, size_t size) {
    Parser parser(data, size);
    size_t stop = size;
    // A macro definition being stored: where its body starts (kNotDefining: none).
    constexpr size_t kNotDefining = SIZE_MAX;
    size_t defineFrom = kNotDefining;
    for (;;) {
        if (m_inHpgl && defineFrom == kNotDefining) {
            const size_t at = parser.position();
            parser.setPosition(at + m_gl->run(data + at, size - at));
            if (parser.atEnd())
                break;
        }
        const Command cmd = parser.next();
        if (cmd.kind == Command::Kind::End)
            break;
        if (cmd.kind == Command::Kind::Param && cmd.parameter == '%' && cmd.group == 0 && cmd.final == 'X' &&
            cmd.value == -12345) {
            stop = cmd.offset;
            break;
        }
        if (defineFrom != kNotDefining) {
            // Inside a definition nothing runs: commands are only stepped over, with their data,
            // up to the end of the definition.
            if (cmd.is('&', 'f', 'X') && cmd.intValue() == 1) {
                const size_t end = std::max(defineFrom, cmd.offset);
                defineMacro(std::vector<uint8_t>(data + defineFrom, data + end));
                defineFrom = kNotDefining;
            } else if (cmd.kind == Command::Kind::Param && carriesData(cmd)) {
                parser.takeData(static_cast<size_t>(std::max(0, cmd.intValue())));
            }
            continue;
        }
        if (m_inHpgl) {
            // Inside HP-GL/2 only the way back to PCL and a reset count.
            const bool leave = (cmd.kind == Command::Kind::Escape2 && cmd.final == 'E') ||
                               (cmd.kind == Command::Kind::Param && cmd.parameter == '%' && cmd.group == 0 &&
                                cmd.final == 'A');
            if (!leave)
                continue;
        }
        if (cmd.kind == Command::Kind::Text) {
            handleText(cmd.text, cmd.textLength);
            continue;
        }
        if (cmd.kind == Command::Kind::Escape2) {
            handleEscape2(cmd.final);
            continue;
        }
        if (cmd.parameter == '%' && cmd.group == 0) {
            if (cmd.final == 'B')
                enterHpgl(cmd.intValue());
            else if (cmd.final == 'A')
                leaveHpgl(cmd.intValue());
            continue;
        }
        if (cmd.is('&', 'f', 'X') && cmd.intValue() == 0) {
            defineFrom = parser.position();
            continue;
        }
        handleParam(parser, cmd);
    }
    if (defineFrom != kNotDefining)
        warnOnce("PCL 5: a macro definition has no end; it is dropped");
    if (parser.truncated())
        warnOnce("PCL 5: the data ends inside a command (truncated input)");
    if (parser.malformed() > 0)
        warnOnce("PCL 5: malformed escape sequences skipped");
    return stop;
}

} // namespace qx::pcl5
