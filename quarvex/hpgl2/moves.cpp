// HP-GL/2 pen moves: plotted points, the polygon buffer, symbol mode, arcs.
#include "hpgl2/hpgl2.h"

#include "hpgl2/internal.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace qx::hpgl2 {

using namespace internal;

// Whether n more points fit in the polygon buffer. It fills up as a printer's does: the points
// beyond are dropped, with a warning.
bool Interpreter::polygonHasRoom(size_t n) {
    if (m_polygonPoints + n <= kMaxPolygonPoints)
        return true;
    warnOnce("HP-GL/2: the polygon buffer is full; the points beyond " + std::to_string(kMaxPolygonPoints) +
             " are dropped");
    return false;
}

void Interpreter::moveTo(Point target) {
    target = clampPlu(target);
    if (m_polygonMode) {
        if (polygonHasRoom(2)) {
            if (m_polygon.empty() || m_polyNewSub) {
                m_polygon.push_back(Subpoly{{m_pen}, false, false});
                m_polyNewSub = false;
                ++m_polygonPoints;
            }
            if (!m_penDown) {
                Subpoly& sub = m_polygon.back();
                if (sub.pts.size() <= 1) {
                    sub.pts = {target};
                } else {
                    m_polygon.push_back(Subpoly{{target}, false, false});
                    ++m_polygonPoints;
                }
            } else {
                m_polygon.back().pts.push_back(target);
                m_polygon.back().edged = true;
                ++m_polygonPoints;
            }
        }
    } else if (m_penDown) {
        if (!m_strokeHasSegments) {
            m_stroke.clear();
            m_stroke.moveTo(pluToPage(m_pen));
        }
        m_stroke.lineTo(pluToPage(target));
        m_strokeHasSegments = true;
        // A long line goes to the device in pieces, so that it needs no more memory than that.
        if (m_stroke.points().size() >= kMaxStrokePoints)
            flush();
    } else {
        flush();
    }
    m_pen = target;
    m_labelStart = target;
}

void Interpreter::plotPairs(const std::vector<double>& p, bool relative) {
    for (size_t i = 0; i + 1 < p.size(); i += 2) {
        const Point v{p[i], p[i + 1]};
        if (relative) {
            const Point d = userDeltaToPlu(v);
            moveTo({m_pen.x + d.x, m_pen.y + d.y});
        } else {
            moveTo(userToPlu(v));
        }
        if (m_symbol != 0 && !m_polygonMode)
            drawSymbol();
    }
}

// The character of symbol mode, centred on the pen; the pen stays.
void Interpreter::drawSymbol() {
    if (!m_fonts || selectFont() < 0) {
        warnOnce("HP-GL/2: symbol mode needs fonts; points are not marked");
        return;
    }
    const Point pen = m_pen, start = m_labelStart;
    const int origin = m_labelOrigin;
    m_labelOrigin = 5;
    labelLine(std::u32string(1, static_cast<char32_t>(m_symbol)), pen);
    m_labelOrigin = origin;
    m_pen = pen;
    m_labelStart = start;
}

double Interpreter::chordAngle(const std::vector<double>& p, size_t index) const {
    double chord = index < p.size() ? p[index] : m_chordTolerance;
    if (!std::isfinite(chord))
        chord = 5;
    chord = std::fabs(chord);
    return std::clamp(chord, 0.5, 180.0);
}

std::vector<Point> Interpreter::arcPoints(Point centre, double radius, double startRad, double sweepRad,
                                          double chordDeg) const {
    std::vector<Point> pts;
    const double chord = chordDeg * kPi / 180.0;
    const int n = std::clamp(static_cast<int>(std::ceil(std::fabs(sweepRad) / chord - 1e-9)), 1, 4000);
    for (int i = 1; i <= n; ++i) {
        const double a = startRad + sweepRad * i / n;
        pts.push_back({centre.x + radius * std::cos(a), centre.y + radius * std::sin(a)});
    }
    return pts;
}

// An arc from the pen around centre (plotter units), sweep in degrees counterclockwise.
void Interpreter::arcTo(Point centre, double sweepDeg, double chordDeg) {
    const double radius = std::hypot(m_pen.x - centre.x, m_pen.y - centre.y);
    if (!std::isfinite(sweepDeg))
        return;
    sweepDeg = std::clamp(sweepDeg, -360.0, 360.0);
    if (radius <= 0 || sweepDeg == 0)
        return;
    const double start = std::atan2(m_pen.y - centre.y, m_pen.x - centre.x);
    for (Point p : arcPoints(centre, radius, start, sweepDeg * kPi / 180.0, chordDeg))
        moveTo(p);
}

void Interpreter::threePointArc(Point mid, Point end, double chordDeg) {
    const Point a = m_pen;
    const double d = 2 * (a.x * (mid.y - end.y) + mid.x * (end.y - a.y) + end.x * (a.y - mid.y));
    const double scale = std::max({std::fabs(a.x), std::fabs(a.y), std::fabs(end.x), std::fabs(end.y), 1.0});
    if (std::fabs(d) < 1e-9 * scale * scale) {
        // Collinear points: a straight line.
        moveTo(end);
        return;
    }
    const double a2 = a.x * a.x + a.y * a.y, m2 = mid.x * mid.x + mid.y * mid.y,
                 e2 = end.x * end.x + end.y * end.y;
    const Point c{(a2 * (mid.y - end.y) + m2 * (end.y - a.y) + e2 * (a.y - mid.y)) / d,
                  (a2 * (end.x - mid.x) + m2 * (a.x - end.x) + e2 * (mid.x - a.x)) / d};
    const double sa = std::atan2(a.y - c.y, a.x - c.x);
    const double sm = std::atan2(mid.y - c.y, mid.x - c.x);
    const double se = std::atan2(end.y - c.y, end.x - c.x);
    auto ccw = [](double from, double to) {
        double v = to - from;
        while (v < 0)
            v += 2 * kPi;
        while (v >= 2 * kPi)
            v -= 2 * kPi;
        return v;
    };
    // Counterclockwise from a to the end when the middle point lies on the way, else clockwise.
    double sweep = ccw(sa, se);
    if (ccw(sa, sm) > sweep)
        sweep = sweep - 2 * kPi;
    const double radius = std::hypot(a.x - c.x, a.y - c.y);
    auto pts = arcPoints(c, radius, sa, sweep, chordDeg);
    if (!pts.empty())
        pts.back() = end;
    for (Point p : pts)
        moveTo(p);
}

} // namespace qx::hpgl2
