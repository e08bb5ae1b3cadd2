// HP-GL/2 instructions: the loop that reads them and what each one does (the label
// instructions are in labels.cpp).
#include "hpgl2/hpgl2.h"

#include "common/diagnostics.h"
#include "hpgl2/internal.h"
#include "hpgl2/reader.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace qx::hpgl2 {

using namespace internal;

size_t Interpreter::run(const uint8_t* data, size_t size) {
    Reader reader(data, size);
    std::vector<double> p;
    char a = 0, b = 0;
    while (reader.nextMnemonic(a, b)) {
        if (a == 'P' && b == 'E') {
            size_t pos = reader.position();
            const auto items = decodePolylineEncoded(data, size, pos);
            reader.setPosition(pos);
            bool down = m_penDown;
            if (items.empty())
                m_labelStart = m_pen; // PE alone sets the carriage return point
            for (const EncodedItem& it : items) {
                if (it.kind == EncodedItem::Kind::Pen) {
                    // A pen select is ignored in polygon mode, as SP has no effect there.
                    if (!m_polygonMode) {
                        flush();
                        m_selectedPen = it.pen;
                    }
                    continue;
                }
                m_penDown = !it.penUp;
                down = m_penDown;
                const Point v{it.x, it.y};
                if (it.absolute) {
                    moveTo(userToPlu(v));
                } else {
                    const Point d = userDeltaToPlu(v);
                    moveTo({m_pen.x + d.x, m_pen.y + d.y});
                }
                if (m_symbol != 0 && !m_polygonMode)
                    drawSymbol();
            }
            m_penDown = down;
            continue;
        }
        if ((a == 'W' && b == 'D') || (a == 'B' && b == 'L')) {
            // Text for a front panel or for a buffered label: read to the terminator, not drawn.
            size_t pos = reader.position();
            while (pos < size && data[pos] != kEsc && data[pos] != m_terminator)
                ++pos;
            if (pos < size && data[pos] == m_terminator)
                ++pos;
            reader.setPosition(pos);
            continue;
        }
        if (a == 'L' && b == 'B') {
            // The label runs to its terminator and nothing else ends it, not even ESC: in
            // transparent data every code is text.
            flush();
            const size_t from = reader.position();
            size_t pos = from;
            while (pos < size && data[pos] != m_terminator)
                ++pos;
            const bool terminated = pos < size;
            if (!terminated)
                warnOnce("HP-GL/2: a label has no terminator; it runs to the end of the data");
            label(data + from, pos - from, terminated);
            reader.setPosition(terminated ? pos + 1 : pos);
            continue;
        }
        if (a == 'D' && b == 'T') {
            size_t pos = reader.position();
            // DT t[,mode]; "DT;" restores ETX.
            if (pos < size && data[pos] != ';' && data[pos] != kEsc && data[pos] != 0 && data[pos] != '\n') {
                m_terminator = data[pos++];
                reader.setPosition(pos);
                reader.numbers(p);
                m_terminatorPrinted = !p.empty() && toInt(p[0]) == 0;
            } else {
                m_terminator = 3;
                m_terminatorPrinted = false;
                if (pos < size && data[pos] == ';')
                    reader.setPosition(pos + 1);
            }
            continue;
        }
        if ((a == 'B' && b == 'P') || (a == 'C' && b == 'O') || (a == 'M' && b == 'G')) {
            reader.skipParameters(); // begin plot, comments and messages carry nothing to draw
            continue;
        }
        if (a == 'S' && b == 'M') {
            // Symbol mode: a character to mark each point that follows; none ends it.
            size_t pos = reader.position();
            m_symbol = 0;
            if (pos < size && data[pos] > 0x20 && data[pos] < 0x7F && data[pos] != ';')
                m_symbol = data[pos++];
            if (pos < size && data[pos] == ';')
                ++pos;
            reader.setPosition(pos);
            continue;
        }
        // Parameters are taken in pieces, so that an instruction of millions of points needs
        // no more memory than one piece: the pen moves take each piece as an instruction of
        // its own, the others only the first (no other instruction has more parameters).
        bool more = reader.numbers(p, kMaxParameters);
        execute(a, b, p);
        const bool continues = (a == 'P' && (b == 'A' || b == 'R' || b == 'D' || b == 'U')) ||
                               (a == 'B' && (b == 'Z' || b == 'R'));
        while (more) {
            more = reader.numbers(p, kMaxParameters);
            if (continues && !p.empty())
                execute(a, b, p);
        }
    }
    flush();
    if (reader.strayBytes() > 0)
        warnOnce("HP-GL/2: stray characters between instructions skipped");
    return reader.position();
}

void Interpreter::execute(char a, char b, const std::vector<double>& p) {
    const int code = (a << 8) | b;
    auto is = [&](const char* m) { return code == ((m[0] << 8) | m[1]); };
    auto at = [&](size_t i, double fallback) { return i < p.size() && std::isfinite(p[i]) ? p[i] : fallback; };

    // Moves and arcs keep the stroke being gathered; everything else ends it first.
    if (is("PA")) {
        m_relative = false;
        plotPairs(p, false);
        return;
    }
    if (is("PR")) {
        m_relative = true;
        plotPairs(p, true);
        return;
    }
    if (is("PD")) {
        m_penDown = true;
        plotPairs(p, m_relative);
        return;
    }
    if (is("PU")) {
        m_penDown = false;
        flush();
        plotPairs(p, m_relative);
        return;
    }
    if (is("AA") || is("AR")) {
        if (p.size() < 3)
            return;
        Point c{p[0], p[1]};
        if (is("AR")) {
            const Point d = userDeltaToPlu(c);
            c = {m_pen.x + d.x, m_pen.y + d.y};
        } else {
            c = userToPlu(c);
        }
        if (!m_polygonMode && !m_penDown) {
            // With the pen up the arc only moves the pen to its end.
            const bool down = m_penDown;
            const double radius = std::hypot(m_pen.x - c.x, m_pen.y - c.y);
            const double start = std::atan2(m_pen.y - c.y, m_pen.x - c.x);
            const double sweep = std::clamp(p[2], -360.0, 360.0) * kPi / 180.0;
            moveTo({c.x + radius * std::cos(start + sweep), c.y + radius * std::sin(start + sweep)});
            m_penDown = down;
            return;
        }
        arcTo(c, p[2], chordAngle(p, 3));
        return;
    }
    if (is("AT") || is("RT")) {
        if (p.size() < 4)
            return;
        Point mid{p[0], p[1]}, end{p[2], p[3]};
        if (is("RT")) {
            const Point dm = userDeltaToPlu(mid), de = userDeltaToPlu(end);
            mid = {m_pen.x + dm.x, m_pen.y + dm.y};
            end = {m_pen.x + de.x, m_pen.y + de.y};
        } else {
            mid = userToPlu(mid);
            end = userToPlu(end);
        }
        if (!m_polygonMode && !m_penDown) {
            moveTo(end);
            return;
        }
        threePointArc(mid, end, chordAngle(p, 4));
        return;
    }
    if (is("BZ") || is("BR")) {
        // Cubic Béziers from the pen: control, control, end; flattened into short lines.
        const bool relative = is("BR");
        for (size_t i = 0; i + 5 < p.size(); i += 6) {
            Point c[3];
            for (int k = 0; k < 3; ++k) {
                const Point v{p[i + 2 * k], p[i + 2 * k + 1]};
                if (relative) {
                    const Point d = userDeltaToPlu(v);
                    c[k] = {m_pen.x + d.x, m_pen.y + d.y};
                } else {
                    c[k] = userToPlu(v);
                }
            }
            const Point s = m_pen;
            if (!m_polygonMode && !m_penDown) {
                moveTo(c[2]);
                continue;
            }
            const double length = std::hypot(c[0].x - s.x, c[0].y - s.y) +
                                  std::hypot(c[1].x - c[0].x, c[1].y - c[0].y) +
                                  std::hypot(c[2].x - c[1].x, c[2].y - c[1].y);
            // About one line every quarter millimetre of control polygon, 4 to 64 of them.
            const int n = std::clamp(static_cast<int>(length / 10), 4, 64);
            for (int j = 1; j <= n; ++j) {
                const double t = static_cast<double>(j) / n, u = 1 - t;
                const double b0 = u * u * u, b1 = 3 * u * u * t, b2 = 3 * u * t * t, b3 = t * t * t;
                moveTo({b0 * s.x + b1 * c[0].x + b2 * c[1].x + b3 * c[2].x,
                        b0 * s.y + b1 * c[0].y + b2 * c[1].y + b3 * c[2].y});
            }
        }
        return;
    }

    flush();

    if (is("IN")) {
        // IN sets up the eight-pen palette of a colour printer: white, black, red, green,
        // yellow, blue, magenta, cyan.
        m_pens.resize(8);
        for (size_t i = 0; i < m_pens.size(); ++i)
            m_pens[i] = defaultPenColour(static_cast<int>(i));
        defaults(true);
        return;
    }
    if (is("DF")) {
        defaults(false);
        return;
    }
    if (is("SP")) {
        m_selectedPen = std::max(0, toInt(at(0, 0)));
        return;
    }
    if (is("PW")) {
        const double w = std::max(0.0, at(0, m_relativeWidths ? 0.1 : 0.35));
        if (p.size() >= 2) {
            const int pen = toInt(p[1]);
            if (pen >= 0 && static_cast<size_t>(pen) < m_penWidths.size())
                m_penWidths[static_cast<size_t>(pen)] = w;
        } else {
            std::fill(m_penWidths.begin(), m_penWidths.end(), w);
        }
        return;
    }
    if (is("WU")) {
        m_relativeWidths = toInt(at(0, 0)) == 1;
        std::fill(m_penWidths.begin(), m_penWidths.end(), m_relativeWidths ? 0.1 : 0.35);
        return;
    }
    if (is("LA")) {
        if (p.empty()) {
            m_cap = StrokeStyle::Cap::Butt;
            m_join = StrokeStyle::Join::Miter;
            m_miterLimit = 5;
            return;
        }
        for (size_t i = 0; i + 1 < p.size(); i += 2) {
            const int kind = toInt(p[i]);
            const int v = toInt(p[i + 1]);
            if (kind == 1) {
                switch (v) {
                case 2: m_cap = StrokeStyle::Cap::Square; break;
                case 3: case 4: m_cap = StrokeStyle::Cap::Round; break;
                default: m_cap = StrokeStyle::Cap::Butt; break;
                }
            } else if (kind == 2) {
                switch (v) {
                case 1: case 2: m_join = StrokeStyle::Join::Miter; break;
                case 4: m_join = StrokeStyle::Join::Round; break;
                default: m_join = StrokeStyle::Join::Bevel; break;
                }
            } else if (kind == 3) {
                m_miterLimit = std::clamp(p[i + 1], 1.0, 32767.0);
            }
        }
        return;
    }
    if (is("LT")) {
        if (p.empty()) {
            m_lineType = 0;
            m_lineTypeSet = false;
            return;
        }
        const int type = toInt(p[0]);
        if (type == 99)
            return; // the previous type stays
        if (type < -8 || type > 8) {
            warnOnce("HP-GL/2: line types beyond 8 ignored");
            return;
        }
        m_lineType = type;
        m_lineTypeSet = true;
        if (p.size() >= 2 && p[1] > 0)
            m_patternLength = p[1];
        if (p.size() >= 3)
            m_patternAbsolute = toInt(p[2]) == 1;
        else if (p.size() >= 2 && p[1] > 0)
            m_patternAbsolute = false;
        return;
    }
    if (is("UL")) {
        if (p.empty()) {
            m_userLineTypes.clear();
            return;
        }
        const int index = std::abs(toInt(p[0]));
        if (p.size() == 1) {
            m_userLineTypes.erase(index);
            return;
        }
        std::vector<double> pattern;
        for (size_t i = 1; i < p.size() && pattern.size() < 20; ++i)
            pattern.push_back(std::max(0.0, p[i]));
        m_userLineTypes[index] = pattern;
        return;
    }
    if (is("SC")) {
        if (p.size() < 4) {
            m_scaled = false;
            m_scale.clear();
            updateTransforms();
            return;
        }
        const int type = p.size() >= 5 ? toInt(p[4]) : 0;
        const bool degenerate = type == 2 ? (p[1] == 0 || p[3] == 0) : (p[0] == p[1] || p[2] == p[3]);
        if (degenerate || type < 0 || type > 2) {
            warnOnce("HP-GL/2: scaling with an empty range ignored");
            return;
        }
        m_scaled = true;
        m_scale = p;
        updateTransforms();
        return;
    }
    if (is("IP") || is("IR")) {
        if (p.empty()) {
            defaultP1P2();
        } else {
            Point n1{p[0], at(1, 0)};
            Point n2{0, 0};
            const bool both = p.size() >= 4;
            if (both)
                n2 = {p[2], p[3]};
            if (is("IR")) {
                // Percentages of the frame's extent in the current rotation.
                const Point oldP1 = m_p1, oldP2 = m_p2;
                defaultP1P2();
                const Point ext = m_p2;
                m_p1 = oldP1;
                m_p2 = oldP2;
                auto pct = [&](double v, double e) { return std::clamp(v, -1e4, 1e4) / 100.0 * e; };
                n1 = {pct(n1.x, ext.x), pct(n1.y, ext.y)};
                n2 = {pct(n2.x, ext.x), pct(n2.y, ext.y)};
            }
            if (both) {
                m_p1 = clampPlu(n1);
                m_p2 = clampPlu(n2);
            } else {
                const Point d{m_p2.x - m_p1.x, m_p2.y - m_p1.y};
                m_p1 = clampPlu(n1);
                m_p2 = clampPlu(Point{n1.x + d.x, n1.y + d.y});
            }
        }
        updateTransforms();
        return;
    }
    if (is("RO")) {
        int r = toInt(at(0, 0));
        r = ((r % 360) + 360) % 360;
        if (r % 90 != 0) {
            warnOnce("HP-GL/2: rotation other than a multiple of 90 degrees ignored");
            return;
        }
        // The pen keeps its place on the page.
        const Point page = pluToPage(m_pen);
        m_rotation = r;
        updateTransforms();
        defaultP1P2();
        updateTransforms();
        if (auto inv = m_pluToPage.inverted())
            m_pen = clampPlu(inv->apply(page));
        return;
    }
    if (is("IW")) {
        if (p.size() < 4) {
            m_window.reset();
        } else {
            const Point q1 = userToPlu({p[0], p[1]}), q2 = userToPlu({p[2], p[3]});
            m_window = std::array<Point, 2>{Point{std::min(q1.x, q2.x), std::min(q1.y, q2.y)},
                                            Point{std::max(q1.x, q2.x), std::max(q1.y, q2.y)}};
        }
        m_clip.reset();
        return;
    }
    if (is("CI")) {
        if (p.empty())
            return;
        const double r = userDeltaToPlu({p[0], 0}).x;
        const double radius = std::fabs(r);
        if (radius <= 0)
            return;
        const double start = r < 0 ? kPi : 0;
        std::vector<Point> pts{{m_pen.x + radius * std::cos(start), m_pen.y + radius * std::sin(start)}};
        for (Point q : arcPoints(m_pen, radius, start, 2 * kPi, chordAngle(p, 1)))
            pts.push_back(q);
        if (m_polygonMode) {
            if (!polygonHasRoom(pts.size()))
                return;
            m_polygonPoints += pts.size();
            m_polygon.push_back(Subpoly{pts, true, true});
            m_polyNewSub = true;
        } else {
            strokePlu({pts}, {true});
        }
        return;
    }
    if (is("EA") || is("ER") || is("RA") || is("RR")) {
        if (p.size() < 2)
            return;
        Point c{p[0], p[1]};
        if (is("ER") || is("RR")) {
            const Point d = userDeltaToPlu(c);
            c = {m_pen.x + d.x, m_pen.y + d.y};
        } else {
            c = userToPlu(c);
        }
        const Point o = m_pen;
        edgeOrFill({o, {c.x, o.y}, c, {o.x, c.y}}, is("RA") || is("RR"));
        return;
    }
    if (is("EW") || is("WG")) {
        if (p.size() < 3)
            return;
        const double radius = std::fabs(userDeltaToPlu({p[0], 0}).x);
        if (radius <= 0)
            return;
        double startDeg = p[1], sweepDeg = std::clamp(p[2], -360.0, 360.0);
        if (p[0] < 0)
            startDeg += 180;
        const double start = startDeg * kPi / 180.0;
        std::vector<Point> pts;
        const bool full = std::fabs(sweepDeg) >= 360;
        if (!full)
            pts.push_back(m_pen);
        pts.push_back({m_pen.x + radius * std::cos(start), m_pen.y + radius * std::sin(start)});
        for (Point q : arcPoints(m_pen, radius, start, sweepDeg * kPi / 180.0, chordAngle(p, 3)))
            pts.push_back(q);
        edgeOrFill(pts, is("WG"));
        return;
    }
    if (is("PM")) {
        const int mode = toInt(at(0, 0));
        if (mode == 0) {
            m_polygonMode = true;
            m_polygon.clear();
            m_polygon.push_back(Subpoly{{m_pen}, false, false});
            m_polygonPoints = 1;
            m_polyNewSub = false;
        } else if (m_polygonMode) {
            // The closing side is edged only when the pen is down as the subpolygon closes.
            if (!m_polygon.empty() && !m_polyNewSub)
                m_polygon.back().closed = m_penDown;
            m_polyNewSub = true;
            if (mode == 2)
                m_polygonMode = false;
        }
        return;
    }
    if (is("EP")) {
        std::vector<std::vector<Point>> lines;
        std::vector<bool> closed;
        for (const Subpoly& s : m_polygon) {
            if (!s.edged)
                continue;
            lines.push_back(s.pts);
            closed.push_back(s.closed);
        }
        strokePlu(lines, closed);
        return;
    }
    if (is("FP")) {
        std::vector<std::vector<Point>> polys;
        for (const Subpoly& s : m_polygon)
            polys.push_back(s.pts);
        fillPlu(polys, toInt(at(0, 0)) != 1);
        return;
    }
    if (is("FT")) {
        if (p.empty()) {
            m_fillType = 1;
            m_fillOption1 = m_fillOption2 = 0;
            return;
        }
        const int type = toInt(p[0]);
        switch (type) {
        case 1: case 2: case 3: case 4: case 10: case 11: case 21: case 22:
            m_fillType = type;
            if (type >= 3) {
                m_fillOption1 = at(1, type == 10 ? 100 : type == 11 || type == 21 ? 1 : 0);
                m_fillOption2 = at(2, 0);
            }
            break;
        default:
            warnOnce("HP-GL/2: unknown fill types are drawn solid");
            m_fillType = 1;
            break;
        }
        return;
    }
    if (is("AC")) {
        m_anchor = p.size() >= 2 ? userToPlu({p[0], p[1]}) : Point{0, 0};
        return;
    }
    if (is("RF")) {
        if (p.empty()) {
            m_rasterFills.clear();
            return;
        }
        const int index = toInt(p[0]);
        if (p.size() < 3) {
            m_rasterFills.erase(index);
            return;
        }
        const int w = toInt(p[1]), h = toInt(p[2]);
        if (index < 1 || index > 8 || w < 1 || h < 1 || w > 255 || h > 255) {
            warnOnce("HP-GL/2: raster fill pattern out of range ignored");
            return;
        }
        RasterFill rf;
        rf.width = w;
        rf.height = h;
        rf.pens.assign(static_cast<size_t>(w) * static_cast<size_t>(h), 0);
        for (size_t i = 0; i < rf.pens.size() && i + 3 < p.size(); ++i)
            rf.pens[i] = std::max(0, toInt(p[i + 3]));
        m_rasterFills[index] = std::move(rf);
        return;
    }
    if (is("SV")) {
        // Screened vectors: 0 solid, 1 a shade in percent; other screens are drawn solid.
        m_screenType = p.empty() ? 0 : toInt(p[0]);
        m_screenLevel = at(1, 100);
        if (m_screenType != 0 && m_screenType != 1) {
            warnOnce("HP-GL/2: screened vectors other than shading are drawn solid");
            m_screenType = 0;
        }
        return;
    }
    if (is("TR")) {
        m_transparent = p.empty() || toInt(p[0]) != 0;
        return;
    }
    if (is("NP")) {
        int n = p.empty() ? 8 : toInt(p[0]);
        n = std::clamp(n, 2, 32768);
        m_pens.resize(static_cast<size_t>(n));
        for (int i = 0; i < n; ++i)
            m_pens[static_cast<size_t>(i)] = defaultPenColour(i);
        m_penWidths.resize(m_pens.size(), m_relativeWidths ? 0.1 : 0.35);
        return;
    }
    if (is("PC")) {
        if (p.empty()) {
            for (size_t i = 0; i < m_pens.size(); ++i)
                m_pens[i] = defaultPenColour(static_cast<int>(i));
            return;
        }
        const int pen = toInt(p[0]);
        if (pen < 0 || static_cast<size_t>(pen) >= m_pens.size())
            return;
        if (p.size() >= 4) {
            // Components in the colour range of CR, black to white.
            auto c = [&](double v, int k) {
                const double lo = m_colourRange[2 * k], hi = m_colourRange[2 * k + 1];
                const double f = hi != lo ? (v - lo) / (hi - lo) : 0;
                return static_cast<uint8_t>(std::clamp(std::lround(f * 255), 0L, 255L));
            };
            m_pens[static_cast<size_t>(pen)] = {c(p[1], 0), c(p[2], 1), c(p[3], 2)};
        } else {
            m_pens[static_cast<size_t>(pen)] = defaultPenColour(pen);
        }
        return;
    }
    if (is("MC")) {
        // Merge control: the raster operation of HP-GL/2 drawing.
        if (toInt(at(0, 0)) == 1)
            m_mergeRop = static_cast<int>(std::clamp(toInt(at(1, 252)), 0, 255));
        else
            m_mergeRop = -1;
        return;
    }
    if (is("CR")) {
        if (p.size() >= 6)
            for (size_t i = 0; i < 6; ++i)
                m_colourRange[i] = p[i];
        else
            m_colourRange = {0, 255, 0, 255, 0, 255};
        return;
    }
    if (is("CT")) {
        if (toInt(at(0, 0)) != 0)
            warnOnce("HP-GL/2: chord tolerance by deviation taken as an angle");
        return;
    }
    if (executeLabelInstruction(code, p))
        return;
    // Accepted without effect here: plot size and page advance belong to PCL, the rest changes
    // nothing this engine draws.
    static const char* const kIgnored[] = {"PS", "PG", "RP", "PP", "CF", "DV", "LM",
                                           "QL", "VS", "FS", "IV", "OI", "OP", "OS", "OE",
                                           "OW", "OH", "OF", "OD", "OA", "OC", "OG", "NR", "AF", "AH",
                                           "PB", "SB", "EC", "FR"};
    for (const char* m : kIgnored)
        if (is(m))
            return;
    warnOnce(std::string("HP-GL/2: instruction ") + a + b + " not supported, skipped");
}

} // namespace qx::hpgl2
