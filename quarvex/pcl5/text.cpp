// PCL 5 text: font selection, the characters of the text and the control codes among them,
// underline, and the commands that set spacing, pitch, line termination and wrap.
#include "pcl5/interpreter.h"
#include "pcl5/text_path.h"
#include "pcl5/units.h"

#include "fonts/hp_metrics.h"

#include <algorithm>
#include <cmath>

namespace qx::pcl5 {
namespace {

// The face that draws a character: the selected one, or, for a character it lacks (line drawing
// in Courier, a math sign in CG Times), a face with a wide repertoire of the same spacing, and
// last the Unicode face that stands in for Wingdings, which covers most symbols.
int faceWithGlyph(const FontLibrary& fonts, int face, bool fixed, char32_t uc) {
    if (fonts.hasGlyph(face, uc))
        return face;
    FontRequest wide;
    wide.typeface = fixed ? 0 : 16602; // Line Printer or Arial
    wide.proportional = !fixed;
    const int other = fonts.selectPcl(wide);
    if (other >= 0 && fonts.hasGlyph(other, uc))
        return other;
    const int symbols = fonts.selectByName("Wingdings");
    if (symbols >= 0 && fonts.hasGlyph(symbols, uc))
        return symbols;
    return face;
}

// The advance of a character in ems: the printer's own width for the resident typeface where
// HP's metrics give one, else the width of the face that draws it.
double emAdvance(const FontLibrary& fonts, int index, char32_t uc) {
    const ResidentFontInfo& info = fonts.info(index);
    if (info.proportional)
        if (const double hp = hpAdvance(info.typeface, info.bold, info.italic, uc); hp > 0)
            return hp;
    return fonts.advance(faceWithGlyph(fonts, index, !info.proportional, uc), uc);
}

} // namespace

void Interpreter::selectFont(FontState& f) {
    f.setKnown = symbolSetKnown(f.request.symbolSet);
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
        f.hmi = kUnitsPerInch / std::clamp(f.request.pitch, 0.1, 200.0);
        f.emPt = 0; // from the face's advance, when a character is set in it (emOf())
    } else {
        f.emPt = std::clamp(f.request.height, 0.25, 999.75);
        double space = 0.25;
        if (f.index >= 0 && m_fonts) {
            const double a = emAdvance(*m_fonts, f.index, U' ');
            if (a > 0)
                space = a;
        }
        f.hmi = space * f.emPt * kUnitsPerPoint;
    }
}

double Interpreter::emOf(FontState& f) {
    if (f.emPt <= 0) {
        // A fixed-pitch face is scaled so that its advance is the pitch's.
        const double pitch = std::clamp(f.request.pitch, 0.1, 200.0);
        const double adv = (f.index >= 0 && m_fonts) ? m_fonts->metrics(f.index).fixedAdvance : 0.6;
        f.emPt = 72.0 / (pitch * (adv > 0 ? adv : 0.6));
    }
    return f.emPt;
}

void Interpreter::fontChanged(FontState& f) {
    selectFont(f);
    if (&f == &currentFont())
        m_hmi = f.hmi;
}

void Interpreter::startUnderline() {
    m_underlineStart = m_x;
    m_underlineY = m_y;
    m_underlineDepth = 0;
}

void Interpreter::drawUnderline() {
    const double x0 = std::min(m_underlineStart, m_x);
    const double x1 = std::max(m_underlineStart, m_x);
    if (x1 - x0 > 0.5 && m_underlineY == m_y) {
        ensurePage();
        // Three dots thick: the fixed underline 5 dots below the baseline, the floating one where
        // the fonts printed under it put their underlines (the deepest of them).
        const double dot = kUnitsPerInch / 300;
        const double top = m_y + (m_underlineFloating && m_underlineDepth > 0 ? m_underlineDepth - 1.5 * dot : 5 * dot);
        Path p;
        p.addRect(x0, top, x1 - x0, 3 * dot);
        m_dev.fillPath(p.transformed(textToPage()), FillRule::NonZero, currentPaint(), renderState());
    }
    m_underlineStart = m_x;
    m_underlineY = m_y;
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
    if (code > ' ' && !f.setKnown)
        warnOnce("PCL 5: symbol set " + symbolSetName(f.request.symbolSet) +
                 " is not available; its text is printed through Roman-8");
    char32_t uc = symbolSetToUnicode(f.request.symbolSet, code);
    // On the vertical rotated path full-width characters are set on their sides.
    const bool sideways = m_textPath == -1 && isFullWidth(uc);
    double advance;
    if (code == ' ' || (uc == U' '))
        advance = m_hmi;
    else if (f.fixed)
        advance = m_hmi;
    else if (uc != 0 && f.index >= 0)
        advance = emAdvance(*m_fonts, f.index, uc) * emOf(f) * kUnitsPerPoint;
    else
        advance = 0;

    if (m_wrap && m_x + advance > m_rightMargin + 0.5 && m_x > m_leftMargin) {
        carriageReturn();
        lineFeed();
    }
    ensurePage(); // printing has started on this sheet
    if (uc != 0 && uc != U' ' && f.index >= 0) {
        const double em = emOf(f) * kUnitsPerPoint;
        Matrix toDevice = m_dev.pageToDevice() * textToPage() * Matrix::translate(m_x, m_y);
        if (sideways) {
            toDevice = toDevice * sidewaysInCell(advance, em);
            if (const char32_t vertical = verticalSubstitute(uc);
                vertical != uc && m_fonts->hasGlyph(faceWithGlyph(*m_fonts, f.index, f.fixed, vertical), vertical))
                uc = vertical;
        }
        const Matrix fontToDevice = toDevice * Matrix::scale(em, -em);
        const int face = faceWithGlyph(*m_fonts, f.index, f.fixed, uc);
        if (auto g = m_fonts->renderGlyph(face, uc, Matrix{fontToDevice.a, fontToDevice.b, fontToDevice.c,
                                                            fontToDevice.d, 0, 0})) {
            if (g->mask.width > 0 && g->mask.height > 0) {
                const Point pen = toDevice.apply({0, 0});
                const double ox = std::round(pen.x) + g->left;
                const double oy = std::round(pen.y) + g->top;
                if (auto inv = m_dev.pageToDevice().inverted())
                    m_dev.fillMask(g->mask, *inv * Matrix::translate(ox, oy), currentPaint(), renderState());
            }
        }
    }
    if (m_underline && m_underlineFloating && uc != 0) {
        const FontMetrics fm = m_fonts->metrics(f.index);
        m_underlineDepth = std::max(m_underlineDepth, (fm.underlinePosition + fm.underlineThickness / 2) * emOf(f) * kUnitsPerPoint);
    }
    m_x = clampPos(m_x + advance);
    m_lastAdvance = advance;
}

size_t Interpreter::printDisplayFunctions(const uint8_t* data, size_t from, size_t size) {
    static constexpr char kUel[] = "\x1b%-12345X";
    size_t end = from;
    while (end < size) {
        if (data[end] == 0x1B && size - end >= sizeof kUel - 1 && std::equal(kUel, kUel + sizeof kUel - 1, data + end))
            break;
        if (data[end] == 0x1B && end + 1 < size && data[end + 1] == 'Z') {
            end += 2;
            handleText(data + from, end - from);
            m_displayFunctions = false;
            return end;
        }
        ++end;
    }
    handleText(data + from, end - from);
    return end;
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

void Interpreter::textCommand(const Command& cmd) {
    const uint8_t g = cmd.group, f = cmd.final;
    const double v = cmd.value;
    const int iv = cmd.intValue();
    if (g == 'k') {
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
    if (g == 's' && f == 'C') {
        m_wrap = iv == 0;
        return;
    }
    if (g == 'c' && f == 'T') {
        // Text path: 0 horizontal, -1 vertical rotated; other values are ignored.
        if (iv == 0 || iv == -1)
            m_textPath = iv;
        return;
    }
    if (g == 'd') {
        if (f == 'D') {
            if (m_underline)
                drawUnderline();
            m_underline = true;
            m_underlineFloating = iv == 3;
            m_underlineDepth = 0;
            startUnderline();
        } else if (f == '@') {
            if (m_underline)
                drawUnderline();
            m_underline = false;
        }
    }
}

} // namespace qx::pcl5
