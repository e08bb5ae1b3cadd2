// Shape records: polygons, polylines, Bezier curves, rectangles, ellipses, arcs, chords, pies,
// lines from the current position and single pixels, drawn or added to the path bracket.

#include "emf/player_state.h"

#include "emf/records.h"

#include <algorithm>
#include <cmath>

namespace qx::emf {

namespace {

constexpr double kPi = 3.14159265358979323846;

// Appends an elliptical arc to path, in logical units mapped by m: centre (cx, cy), radii
// (rx, ry), from parameter angle t0 through sweep (radians; positive turns from +x towards +y).
// The first point is moved to or joined with a line, as asked.
void appendArc(Path& path, const Matrix& m, double cx, double cy, double rx, double ry, double t0, double sweep,
               bool moveFirst) {
    const int segments = std::clamp(int(std::ceil(std::fabs(sweep) / (kPi / 2) - 1e-9)), 1, 8);
    const double step = sweep / segments;
    const double k = 4.0 / 3.0 * std::tan(step / 4);
    auto at = [&](double t) { return Point{cx + rx * std::cos(t), cy + ry * std::sin(t)}; };
    const Point first = m.apply(at(t0));
    if (moveFirst)
        path.moveTo(first);
    else
        path.lineTo(first);
    for (int i = 0; i < segments; ++i) {
        const double a = t0 + step * i, b = a + step;
        const Point p0 = at(a), p3 = at(b);
        const Point c1{p0.x - k * rx * std::sin(a), p0.y + k * ry * std::cos(a)};
        const Point c2{p3.x + k * rx * std::sin(b), p3.y - k * ry * std::cos(b)};
        path.curveTo(m.apply(c1), m.apply(c2), m.apply(p3));
    }
}

// Points of a poly record: 32-bit (x, y) pairs or 16-bit ones.
std::vector<Point> readPoints(Bytes rec, size_t offset, size_t count, bool small) {
    std::vector<Point> pts;
    const size_t each = small ? 4 : 8;
    if (!rec.has(offset, count * each) || count > rec.size / each)
        return pts;
    pts.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        const size_t o = offset + i * each;
        pts.push_back(small ? Point{double(rec.i16(o)), double(rec.i16(o + 2))}
                            : Point{double(rec.i32(o)), double(rec.i32(o + 4))});
    }
    return pts;
}

} // namespace

bool Player::Impl::playShapeRecord(uint32_t type, Bytes rec) {
    const Matrix m = logicalToPage();
    auto boxOf = [&](size_t o, double& l, double& t, double& r, double& b) {
        l = rec.i32(o), t = rec.i32(o + 4), r = rec.i32(o + 8), b = rec.i32(o + 12);
    };
    // Continues the open figure of a path bracket from the current position, or starts one.
    auto figureFrom = [&](Path& p) {
        if (!inPath || !pathHasOpenFigure)
            p.moveTo(m.apply(dc.current));
    };
    // Lines joined to the current position (the "To" records and LINETO) go straight into
    // the path bracket as part of its open figure.
    auto addOpen = [&](Path& p) {
        if (inPath) {
            if (path.points().size() + p.points().size() > kMaxPathPoints) {
                warnOnce("a path too long to keep; the rest of it is left out");
                return;
            }
            path.append(p);
            pathHasOpenFigure = true;
        } else if (penDraws()) {
            device.strokePath(p, strokeStyle(), Paint::solid(dc.pen.color), renderState());
        }
    };
    switch (type) {
    case EMR_POLYGON:
    case EMR_POLYGON16:
    case EMR_POLYLINE:
    case EMR_POLYLINE16:
    case EMR_POLYBEZIER:
    case EMR_POLYBEZIER16:
    case EMR_POLYLINETO:
    case EMR_POLYLINETO16:
    case EMR_POLYBEZIERTO:
    case EMR_POLYBEZIERTO16: {
        const bool small = type >= EMR_POLYBEZIER16;
        const std::vector<Point> pts = readPoints(rec, 28, rec.u32(24), small);
        if (pts.empty())
            return true;
        const bool bezier = type == EMR_POLYBEZIER || type == EMR_POLYBEZIER16 || type == EMR_POLYBEZIERTO ||
                            type == EMR_POLYBEZIERTO16;
        const bool to = type == EMR_POLYLINETO || type == EMR_POLYLINETO16 || type == EMR_POLYBEZIERTO ||
                        type == EMR_POLYBEZIERTO16;
        Path p;
        size_t i = 0;
        if (to) {
            figureFrom(p);
        } else {
            p.moveTo(m.apply(pts[0]));
            i = 1;
        }
        if (bezier) {
            for (; i + 2 < pts.size(); i += 3)
                p.curveTo(m.apply(pts[i]), m.apply(pts[i + 1]), m.apply(pts[i + 2]));
        } else {
            for (; i < pts.size(); ++i)
                p.lineTo(m.apply(pts[i]));
        }
        if (to)
            dc.current = pts.back();
        if (type == EMR_POLYGON || type == EMR_POLYGON16) {
            p.close();
            drawShape(p, true, true);
        } else if (to) {
            addOpen(p);
        } else if (inPath) {
            drawShape(p, false, true);
            pathHasOpenFigure = true;
        } else if (penDraws()) {
            device.strokePath(p, strokeStyle(), Paint::solid(dc.pen.color), renderState());
        }
        return true;
    }
    case EMR_POLYPOLYGON:
    case EMR_POLYPOLYGON16:
    case EMR_POLYPOLYLINE:
    case EMR_POLYPOLYLINE16: {
        const bool small = type == EMR_POLYPOLYGON16 || type == EMR_POLYPOLYLINE16;
        const uint32_t groups = rec.u32(24), total = rec.u32(28);
        if (groups == 0 || groups > rec.size / 4 || !rec.has(32, size_t(groups) * 4))
            return true;
        const std::vector<Point> pts = readPoints(rec, 32 + size_t(groups) * 4, total, small);
        if (pts.size() != total || total == 0)
            return true;
        const bool polygon = type == EMR_POLYPOLYGON || type == EMR_POLYPOLYGON16;
        Path p;
        size_t at = 0;
        for (uint32_t g = 0; g < groups; ++g) {
            const uint32_t n = rec.u32(32 + size_t(g) * 4);
            if (n > pts.size() - at)
                break;
            for (uint32_t k = 0; k < n; ++k)
                (k == 0 ? static_cast<void>(p.moveTo(m.apply(pts[at + k]))) : p.lineTo(m.apply(pts[at + k])));
            if (polygon && n > 0)
                p.close();
            at += n;
        }
        if (polygon) {
            drawShape(p, true, true);
        } else if (inPath) {
            drawShape(p, false, true);
        } else if (penDraws()) {
            device.strokePath(p, strokeStyle(), Paint::solid(dc.pen.color), renderState());
        }
        return true;
    }
    case EMR_POLYDRAW:
    case EMR_POLYDRAW16: {
        const bool small = type == EMR_POLYDRAW16;
        const uint32_t count = rec.u32(24);
        const std::vector<Point> pts = readPoints(rec, 28, count, small);
        const size_t typesAt = 28 + size_t(count) * (small ? 4 : 8);
        if (pts.empty() || !rec.has(typesAt, count))
            return true;
        Path p;
        figureFrom(p);
        for (size_t i = 0; i < pts.size(); ++i) {
            const uint8_t t = rec.u8(typesAt + i);
            if ((t & 0x06) == 0x06) {
                p.moveTo(m.apply(pts[i]));
            } else if ((t & 0x06) == 0x04 && i + 2 < pts.size()) {
                p.curveTo(m.apply(pts[i]), m.apply(pts[i + 1]), m.apply(pts[i + 2]));
                i += 2;
            } else {
                p.lineTo(m.apply(pts[i]));
            }
            if (rec.u8(typesAt + i) & 0x01)
                p.close();
        }
        dc.current = pts.back();
        addOpen(p);
        return true;
    }
    case EMR_LINETO: {
        Path p;
        figureFrom(p);
        dc.current = {double(rec.i32(8)), double(rec.i32(12))};
        p.lineTo(m.apply(dc.current));
        addOpen(p);
        return true;
    }
    case EMR_RECTANGLE: {
        double l, t, r, b;
        boxOf(8, l, t, r, b);
        drawShape(rectPath(m, l, t, r, b), true, true);
        return true;
    }
    case EMR_ROUNDRECT: {
        double l, t, r, b;
        boxOf(8, l, t, r, b);
        if (l > r)
            std::swap(l, r);
        if (t > b)
            std::swap(t, b);
        const double rx = std::min(std::fabs(double(rec.i32(24))) / 2, (r - l) / 2);
        const double ry = std::min(std::fabs(double(rec.i32(28))) / 2, (b - t) / 2);
        Path p;
        appendArc(p, m, r - rx, t + ry, rx, ry, -kPi / 2, kPi / 2, true);
        appendArc(p, m, r - rx, b - ry, rx, ry, 0, kPi / 2, false);
        appendArc(p, m, l + rx, b - ry, rx, ry, kPi / 2, kPi / 2, false);
        appendArc(p, m, l + rx, t + ry, rx, ry, kPi, kPi / 2, false);
        p.close();
        drawShape(p, true, true);
        return true;
    }
    case EMR_ELLIPSE: {
        double l, t, r, b;
        boxOf(8, l, t, r, b);
        Path p;
        appendArc(p, m, (l + r) / 2, (t + b) / 2, std::fabs(r - l) / 2, std::fabs(b - t) / 2, 0, 2 * kPi, true);
        p.close();
        drawShape(p, true, true);
        return true;
    }
    case EMR_ARC:
    case EMR_ARCTO:
    case EMR_CHORD:
    case EMR_PIE: {
        double l, t, r, b;
        boxOf(8, l, t, r, b);
        const double cx = (l + r) / 2, cy = (t + b) / 2;
        const double rx = std::fabs(r - l) / 2, ry = std::fabs(b - t) / 2;
        if (rx == 0 || ry == 0)
            return true;
        const double t0 = std::atan2((rec.i32(28) - cy) / ry, (rec.i32(24) - cx) / rx);
        const double t1 = std::atan2((rec.i32(36) - cy) / ry, (rec.i32(32) - cx) / rx);
        // Counter-clockwise on the page (y down) is towards smaller angles.
        double sweep = t1 - t0;
        if (dc.arcClockwise) {
            while (sweep <= 0)
                sweep += 2 * kPi;
        } else {
            while (sweep >= 0)
                sweep -= 2 * kPi;
        }
        Path p;
        if (type == EMR_ARCTO) {
            figureFrom(p);
            appendArc(p, m, cx, cy, rx, ry, t0, sweep, false);
            dc.current = {cx + rx * std::cos(t0 + sweep), cy + ry * std::sin(t0 + sweep)};
            addOpen(p);
            return true;
        }
        if (type == EMR_PIE)
            p.moveTo(m.apply({cx, cy}));
        appendArc(p, m, cx, cy, rx, ry, t0, sweep, type != EMR_PIE);
        if (type == EMR_ARC) {
            if (inPath)
                drawShape(p, false, true);
            else if (penDraws())
                device.strokePath(p, strokeStyle(), Paint::solid(dc.pen.color), renderState());
            return true;
        }
        p.close();
        drawShape(p, true, true);
        return true;
    }
    case EMR_ANGLEARC: {
        const double cx = rec.i32(8), cy = rec.i32(12), radius = rec.u32(16);
        const float start = rec.f32(20), sweepDeg = rec.f32(24);
        if (!std::isfinite(start) || !std::isfinite(sweepDeg))
            return true;
        const double sweep = std::clamp<double>(sweepDeg, -360, 360) * kPi / 180;
        Path p;
        figureFrom(p);
        // Angles count counter-clockwise, which is up the page.
        appendArc(p, m, cx, cy, radius, radius, -double(std::fmod(start, 360.0f)) * kPi / 180, -sweep, false);
        const double end = -(double(std::fmod(start, 360.0f)) * kPi / 180) - sweep;
        dc.current = {cx + radius * std::cos(end), cy + radius * std::sin(end)};
        addOpen(p);
        return true;
    }
    case EMR_SETPIXELV: {
        const Point c = m.apply({double(rec.i32(8)), double(rec.i32(12))});
        Path p;
        p.addRect(c.x, c.y, devPxToPtX, devPxToPtY);
        device.fillPath(p, FillRule::NonZero, Paint::solid(colorRef(rec.u32(16))), renderState());
        return true;
    }
    default:
        return false;
    }
}

} // namespace qx::emf
