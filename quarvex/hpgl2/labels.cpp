// HP-GL/2 labels: fonts, sizes, direction and origin of LB text, and symbol mode marks.
#include "hpgl2/hpgl2.h"

#include "fonts/font_library.h"
#include "hpgl2/internal.h"

#include <algorithm>
#include <cmath>

namespace qx::hpgl2 {

using namespace internal;

int Interpreter::selectFont() const {
    if (!m_fonts)
        return -1;
    const Font& f = m_alternateSelected ? m_alternate : m_standard;
    FontRequest r;
    r.symbolSet = static_cast<uint16_t>(std::clamp(f.symbolSet, 0, 65535));
    r.proportional = f.proportional;
    r.pitch = f.pitch > 0 ? f.pitch : 10;
    r.height = f.height > 0 ? f.height : 12;
    r.style = f.style;
    r.weight = f.weight;
    // The stick and arc fonts are drawn with a plain sans face.
    r.typeface = isStickTypeface(f.typeface) ? 4148 : f.typeface;
    if (isStickTypeface(f.typeface))
        r.proportional = true;
    return m_fonts->selectPcl(r);
}

// The character cell width and the cap height in plotter units.
double Interpreter::charWidthPlu() const {
    if (m_relativeSize)
        return m_relWidthPct / 100.0 * std::fabs(m_p2.x - m_p1.x);
    if (m_charWidthCm > 0)
        return m_charWidthCm * 10 * 1016.0 / 25.4;
    const Font& f = m_alternateSelected ? m_alternate : m_standard;
    // A fixed font's pitch gives the cell; a character is two thirds of it.
    return (f.pitch > 0 ? 1016.0 / f.pitch : 1016.0 / 10) / 1.5;
}

double Interpreter::charHeightPlu() const {
    if (m_relativeSize)
        return m_relHeightPct / 100.0 * std::fabs(m_p2.y - m_p1.y);
    if (m_charHeightCm > 0)
        return m_charHeightCm * 10 * 1016.0 / 25.4;
    const Font& f = m_alternateSelected ? m_alternate : m_standard;
    return (f.height > 0 ? f.height : 12) / 72.0 * 1016.0 * 0.7;
}

Point Interpreter::labelDirection() const {
    Point dir = m_direction;
    if (m_directionRelative)
        dir = {dir.x * (m_p2.x - m_p1.x), dir.y * (m_p2.y - m_p1.y)};
    const double len = std::hypot(dir.x, dir.y);
    return len > 0 && std::isfinite(len) ? Point{dir.x / len, dir.y / len} : Point{1, 0};
}

// The distance of one line feed in plotter units.
double Interpreter::lineFeedPlu() const {
    double line;
    if (m_relativeSize || m_charWidthCm > 0) {
        line = 2 * charHeightPlu();
    } else {
        const Font& f = m_alternateSelected ? m_alternate : m_standard;
        line = (f.height > 0 ? f.height : 12) / 72.0 * 1016.0 * 4.0 / 3.0;
    }
    return line * (1 + m_extraSpace.y); // ES: extra lines
}

void Interpreter::label(const uint8_t* text, size_t size, bool terminated) {
    if (!m_fonts) {
        warnOnce("HP-GL/2: labels need fonts; skipped");
        return;
    }
    if (selectFont() < 0) {
        warnOnce("HP-GL/2: no font for labels; skipped");
        return;
    }
    const Point dir = labelDirection();
    const Point down{dir.y, -dir.x};
    // The text is drawn as it comes, a line (or a piece of a line no page can hold whole) at a
    // time, so that a label of any length needs no more memory than one line.
    std::u32string line;
    Point start = m_pen;
    auto drawLine = [&] {
        if (!line.empty())
            labelLine(line, start);
        line.clear();
        start = m_pen;
    };
    auto print = [&](uint8_t c) {
        const Font& f = m_alternateSelected ? m_alternate : m_standard;
        // A code that the symbol set leaves undefined prints nothing.
        const char32_t u = symbolSetToUnicode(static_cast<uint16_t>(std::clamp(f.symbolSet, 0, 65535)), c);
        if (u == 0)
            return;
        line.push_back(u);
        if (line.size() >= kMaxLabelLine)
            drawLine();
    };
    for (size_t i = 0; i < size; ++i) {
        const uint8_t c = text[i];
        if (m_transparentData) {
            // Transparent data (TD1): control codes are characters like the others.
            print(c);
        } else if (c == '\r') {
            // Back to the carriage return point of this line.
            drawLine();
            m_pen = start = m_labelStart;
        } else if (c == '\n') {
            drawLine();
            const double step = lineFeedPlu();
            m_pen = start = clampPlu(Point{m_pen.x + down.x * step, m_pen.y + down.y * step});
            m_labelStart = clampPlu(Point{m_labelStart.x + down.x * step, m_labelStart.y + down.y * step});
        } else if (c == 0x0E || c == 0x0F) {
            // Shift out: the alternate font; shift in: the standard font.
            drawLine();
            m_alternateSelected = c == 0x0E;
            if (selectFont() < 0)
                return;
        } else if (c >= 0x20) {
            print(c);
        }
    }
    // DT's mode 0 prints the terminator as the label's last character.
    if (terminated && m_terminatorPrinted && (m_transparentData || m_terminator >= 0x20))
        print(m_terminator);
    drawLine();
}

// Draws one line of a label from start (plotter units) with the label origin applied; the pen
// ends after its last character.
void Interpreter::labelLine(const std::u32string& line, Point start) {
    if (line.empty())
        return;
    const int font = selectFont();
    if (font < 0)
        return;
    const Font& f = m_alternateSelected ? m_alternate : m_standard;
    // SI and SR scale the printer's own faces, whose cap height is 0.7 of the em (and whose
    // nominal character is half an em wide), whatever face stands in for them here.
    const double capEm = 0.7;
    const bool sized = m_relativeSize || m_charWidthCm > 0;
    const bool stick = isStickTypeface(f.typeface);
    // SI / SR give the cap height and the character width: a scalable font's em is twice that
    // width across; the stick font keeps fixed cells of one and a half widths. Without them the
    // font's point size is its em and a fixed font's pitch its cell.
    double emV, emH;
    if (sized) {
        emV = charHeightPlu() / capEm;
        emH = stick ? 1.5 * charWidthPlu() / 0.6 : 2 * charWidthPlu();
    } else {
        emV = emH = (f.height > 0 ? f.height : 12) / 72.0 * 1016.0;
    }
    const double capHeight = emV * capEm;
    const bool fixedCells = stick || (!sized && !f.proportional);
    const double cell = sized ? 1.5 * charWidthPlu() : 1016.0 / (f.pitch > 0 ? f.pitch : 10);

    const Point dir = labelDirection();
    const Point up{-dir.y, dir.x};

    std::vector<double> advances;
    double total = 0;
    for (char32_t u : line) {
        // ES adds a share of a character cell (of an average letter for proportional faces).
        const double extra = m_extraSpace.x * (fixedCells ? cell : 0.6 * emH);
        const double adv = (fixedCells ? cell : m_fonts->advance(font, u) * emH) + extra;
        advances.push_back(adv);
        total += adv;
    }

    // Label origin: 1-3 left, 4-6 centre, 7-9 right; bottom, centre, top of the cap height;
    // 11-19 the same a little away from the point.
    int lo = m_labelOrigin;
    const bool offset = lo >= 11 && lo <= 19;
    if (offset)
        lo -= 10;
    if (lo < 1 || lo > 9)
        lo = 1;
    const int column = (lo - 1) / 3, row = (lo - 1) % 3;
    double ox = column == 0 ? 0 : column == 1 ? -total / 2 : -total;
    double oy = row == 0 ? 0 : row == 1 ? -capHeight / 2 : -capHeight;
    if (offset) {
        const double hx = cell / 2, hy = capHeight / 2;
        ox += column == 0 ? hx : column == 2 ? -hx : 0;
        oy += row == 0 ? hy : row == 2 ? -hy : 0;
    }
    Point pen{start.x + dir.x * ox + up.x * oy, start.y + dir.y * ox + up.y * oy};

    ensurePage();
    const Matrix toDevice = m_dev.pageToDevice() * m_pluToPage;
    const Point ex = toDevice.applyVector({dir.x * emH, dir.y * emH});
    const Point ey = toDevice.applyVector({up.x * emV, up.y * emV});
    const Matrix fontToDevice{ex.x, ex.y, ey.x, ey.y, 0, 0};
    // Glyphs too large for any page are not rendered (their masks would not fit in memory);
    // ones too small to show are left out. The pen moves on either way.
    const double emPixels = std::max(std::hypot(ex.x, ex.y), std::hypot(ey.x, ey.y));
    bool render = std::isfinite(emPixels) && emPixels >= 0.5;
    if (render && emPixels > kMaxGlyphPixels) {
        warnOnce("HP-GL/2: labels too large to render skipped");
        render = false;
    }
    const auto inv = m_dev.pageToDevice().inverted();
    const Paint paint = penPaint();
    const RenderState rs = renderState(false);
    // The picture frame in device pixels, widened by an em: glyphs beyond it are clipped away
    // whole, so they are not rendered at all.
    double fx0 = 1e300, fy0 = 1e300, fx1 = -1e300, fy1 = -1e300;
    const Matrix frameToDevice = m_dev.pageToDevice() * m_frame.frameToPage;
    const Point corners[4] = {
        {0, 0}, {m_frame.width, 0}, {0, m_frame.height}, {m_frame.width, m_frame.height}};
    for (Point c : corners) {
        const Point q = frameToDevice.apply(c);
        fx0 = std::min(fx0, q.x - emPixels), fx1 = std::max(fx1, q.x + emPixels);
        fy0 = std::min(fy0, q.y - emPixels), fy1 = std::max(fy1, q.y + emPixels);
    }
    for (size_t i = 0; i < line.size(); ++i) {
        const char32_t u = line[i];
        const Point here = toDevice.apply(pen);
        const bool inFrame = here.x >= fx0 && here.x <= fx1 && here.y >= fy0 && here.y <= fy1;
        if (u != U' ' && inv && render && inFrame) {
            if (auto g = m_fonts->renderGlyph(font, u, fontToDevice)) {
                if (g->mask.width > 0 && g->mask.height > 0) {
                    // A fixed cell centres its glyph.
                    Point at = pen;
                    if (fixedCells) {
                        const double shift = (advances[i] - m_fonts->advance(font, u) * emH) / 2;
                        at = {pen.x + dir.x * shift, pen.y + dir.y * shift};
                    }
                    const Point d = toDevice.apply(at);
                    m_dev.fillMask(g->mask,
                                   *inv * Matrix::translate(std::round(d.x) + g->left, std::round(d.y) + g->top),
                                   paint, rs);
                }
            }
        }
        pen = {pen.x + dir.x * advances[i], pen.y + dir.y * advances[i]};
    }
    m_pen = clampPlu({start.x + dir.x * total, start.y + dir.y * total});
}

// The label instructions: fonts, sizes, direction, origin, spacing and character plot.
// true when the instruction was one of them.
bool Interpreter::executeLabelInstruction(int code, const std::vector<double>& p) {
    auto is = [&](const char* m) { return code == ((m[0] << 8) | m[1]); };
    auto at = [&](size_t i, double fallback) { return i < p.size() && std::isfinite(p[i]) ? p[i] : fallback; };

    if (is("SD") || is("AD")) {
        Font& f = is("SD") ? m_standard : m_alternate;
        if (p.empty()) {
            f = Font{};
            return true;
        }
        for (size_t i = 0; i + 1 < p.size(); i += 2) {
            const double v = p[i + 1];
            switch (toInt(p[i])) {
            case 1: f.symbolSet = toInt(v); break;
            case 2: f.proportional = toInt(v) == 1; break;
            case 3: if (v > 0) f.pitch = v; break;
            case 4: if (v > 0) f.height = v; break;
            case 5: f.style = toInt(v); break;
            case 6: f.weight = std::clamp(toInt(v), -7, 7); break;
            case 7: f.typeface = toInt(v); break;
            default: break;
            }
        }
        return true;
    }
    if (is("TD")) {
        // Transparent data: 1 prints control codes in labels as characters.
        m_transparentData = toInt(at(0, 0)) == 1;
        return true;
    }
    if (is("ES")) {
        // Extra space between characters and between lines, in cells and lines.
        m_extraSpace = {std::clamp(at(0, 0), -10.0, 10.0), std::clamp(at(1, 0), -10.0, 10.0)};
        return true;
    }
    if (is("SS")) {
        m_alternateSelected = false;
        return true;
    }
    if (is("SA")) {
        m_alternateSelected = true;
        return true;
    }
    if (is("SI")) {
        m_relativeSize = false;
        if (p.size() >= 2 && p[0] > 0 && p[1] > 0) {
            m_charWidthCm = p[0];
            m_charHeightCm = p[1];
        } else {
            m_charWidthCm = m_charHeightCm = 0;
        }
        return true;
    }
    if (is("SR")) {
        m_relativeSize = true;
        m_relWidthPct = p.size() >= 2 ? p[0] : 0.75;
        m_relHeightPct = p.size() >= 2 ? p[1] : 1.5;
        return true;
    }
    if (is("DI") || is("DR")) {
        m_directionRelative = is("DR");
        if (p.size() >= 2 && (p[0] != 0 || p[1] != 0))
            m_direction = {p[0], p[1]};
        else
            m_direction = {1, 0};
        return true;
    }
    if (is("LO")) {
        const int lo = toInt(at(0, 1));
        m_labelOrigin = (lo >= 1 && lo <= 9) || (lo >= 11 && lo <= 19) || lo == 21 ? lo : 1;
        if (m_labelOrigin == 21)
            m_labelOrigin = 1;
        return true;
    }
    if (is("CP")) {
        // Character plot: spaces and lines in character cells, from the label direction.
        double spaces = at(0, 0), lines = at(1, 0);
        if (p.empty()) {
            spaces = 0;
            lines = -1;
        }
        const Point dir = labelDirection();
        const Point up{-dir.y, dir.x};
        const double cw = 1.5 * charWidthPlu(), lh = lineFeedPlu();
        Point target{m_pen.x + dir.x * spaces * cw + up.x * lines * lh,
                     m_pen.y + dir.y * spaces * cw + up.y * lines * lh};
        if (p.empty())
            target = {m_labelStart.x + up.x * lines * lh, m_labelStart.y + up.y * lines * lh};
        const Point keep = m_labelStart;
        const bool down = m_penDown;
        m_penDown = false;
        moveTo(target);
        m_penDown = down;
        m_labelStart = p.empty() ? target : keep;
        return true;
    }
    return false;
}

} // namespace qx::hpgl2
