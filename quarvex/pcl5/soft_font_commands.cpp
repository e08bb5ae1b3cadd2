// PCL 5 downloaded fonts: the font and character downloads, font ID and character code, font
// control (deleting and making fonts permanent), selection by ID or by attributes, and printing
// with a downloaded font.
#include "pcl5/interpreter.h"
#include "pcl5/units.h"

#include <algorithm>
#include <cmath>

namespace qx::pcl5 {

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

void Interpreter::softFontCommand(const Command& cmd) {
    const int iv = cmd.intValue();
    switch (cmd.final) {
    case 'D': m_fontId = std::clamp(iv, 0, 32767); break;
    case 'E': m_charCode = static_cast<uint32_t>(std::clamp(iv, 0, 65535)); break;
    case 'F': fontControl(iv); break;
    default: break;
    }
}

} // namespace qx::pcl5
