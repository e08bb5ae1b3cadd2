// PCL XL paths and painting: points, lines, curves, arcs and shapes added to the path, painting
// with the pen and brush, clipping, and scan lines filled with the brush.
#include "pclxl/interpreter.h"
#include "pclxl/operator_args.h"

#include <cmath>

namespace qx::pclxl {

namespace {

constexpr size_t kMaxClipEntries = 32;

// Appends an elliptical arc, centre (cx, cy), radii (rx, ry), from angle a0 sweeping `sweep`
// radians (positive = towards +y), as Béziers in user space, transformed by m.
void appendArc(Path& path, const Matrix& m, double cx, double cy, double rx, double ry, double a0,
               double sweep, bool moveFirst) {
    const int segments = std::max(1, int(std::ceil(std::fabs(sweep) / (kPi / 2) - 1e-9)));
    const double step = sweep / segments;
    const double k = 4.0 / 3.0 * std::tan(step / 4);
    auto at = [&](double a) { return Point{cx + rx * std::cos(a), cy + ry * std::sin(a)}; };
    Point p0 = at(a0);
    if (moveFirst)
        path.moveTo(m.apply(p0));
    else
        path.lineTo(m.apply(p0));
    double a = a0;
    for (int i = 0; i < segments; ++i) {
        const double b = a + step;
        const Point p1{cx + rx * (std::cos(a) - k * std::sin(a)), cy + ry * (std::sin(a) + k * std::cos(a))};
        const Point p3 = at(b);
        const Point p2{cx + rx * (std::cos(b) + k * std::sin(b)), cy + ry * (std::sin(b) - k * std::cos(b))};
        path.curveTo(m.apply(p1), m.apply(p2), m.apply(p3));
        a = b;
    }
}

} // namespace

void Interpreter::addPoints(const Operator& op, bool relative, bool bezier) {
    std::vector<Point> pts;
    if (const Value* n = op.find(attr::NumberOfPoints)) {
        const size_t count = asSize(n->number());
        const int type = asInt(number(op, attr::PointType, eSInt16));
        const size_t each = type == eUByte || type == eSByte ? 1 : type == eUInt16 || type == eSInt16 ? 2 : 0;
        if (each == 0)
            failOp("unknown PointType " + std::to_string(type));
        if (!op.hasData)
            failOp("missing point data");
        if (count * 2 * each > op.dataSize)
            failOp("point data shorter than NumberOfPoints");
        if (bezier && count % 3 != 0)
            failOp("NumberOfPoints is not a multiple of three");
        pts.reserve(count);
        const uint8_t* p = op.data;
        auto readOne = [&](const uint8_t* q) -> double {
            switch (type) {
            case eUByte: return q[0];
            case eSByte: return int8_t(q[0]);
            case eUInt16: return m_streamLittle ? uint16_t(q[0] | q[1] << 8) : uint16_t(q[0] << 8 | q[1]);
            default: return m_streamLittle ? int16_t(q[0] | q[1] << 8) : int16_t(q[0] << 8 | q[1]);
            }
        };
        for (size_t i = 0; i < count; ++i) {
            pts.push_back({readOne(p), readOne(p + each)});
            p += 2 * each;
        }
    } else if (bezier) {
        const Point c1 = xy(needXy(op, attr::ControlPoint1));
        const Point c2 = xy(needXy(op, attr::ControlPoint2));
        const Point e = xy(needXy(op, attr::EndPoint));
        pts = {c1, c2, e};
    } else {
        pts.push_back(xy(needXy(op, attr::EndPoint)));
    }
    // A cursor move starts a new subpath only when a segment follows it.
    if (m_path.empty() || m_pendingMove)
        m_path.moveTo(m_gs.cursor);
    m_pendingMove = false;
    Point cur = m_gs.cursor;
    if (bezier) {
        for (size_t i = 0; i + 2 < pts.size(); i += 3) {
            Point q[3];
            for (int k = 0; k < 3; ++k) {
                if (relative) {
                    const Point v = userVector(pts[i + k].x, pts[i + k].y);
                    q[k] = {cur.x + v.x, cur.y + v.y};
                } else {
                    q[k] = userToPage(pts[i + k].x, pts[i + k].y);
                }
            }
            m_path.curveTo(q[0], q[1], q[2]);
            cur = q[2];
        }
    } else {
        for (const Point& p : pts) {
            if (relative) {
                const Point v = userVector(p.x, p.y);
                cur = {cur.x + v.x, cur.y + v.y};
            } else {
                cur = userToPage(p.x, p.y);
            }
            m_path.lineTo(cur);
        }
    }
    m_gs.cursor = cur;
}

void Interpreter::addArcShape(const Operator& op, int kind) {
    const Box b = needBox(op, attr::BoundingBox);
    const double cx = (b.x1 + b.x2) / 2, cy = (b.y1 + b.y2) / 2;
    const double rx = (b.x2 - b.x1) / 2, ry = (b.y2 - b.y1) / 2;
    const Matrix& m = m_gs.ctm;
    if (kind == 4) { // rectangle
        m_path.moveTo(m.apply({b.x1, b.y1}));
        m_path.lineTo(m.apply({b.x2, b.y1}));
        m_path.lineTo(m.apply({b.x2, b.y2}));
        m_path.lineTo(m.apply({b.x1, b.y2}));
        m_path.close();
        m_gs.cursor = m.apply({b.x1, b.y1});
        m_subpathStart = m_gs.cursor;
        return;
    }
    if (kind == 3) { // ellipse
        appendArc(m_path, m, cx, cy, rx, ry, 0, 2 * kPi, true);
        m_path.close();
        m_gs.cursor = m.apply({cx + rx, cy});
        m_subpathStart = m_gs.cursor;
        return;
    }
    const Point s = xy(needXy(op, attr::StartPoint));
    const Point e = xy(needXy(op, attr::EndPoint));
    auto angle = [&](Point p) {
        return std::atan2(ry > 0 ? (p.y - cy) / ry : 0, rx > 0 ? (p.x - cx) / rx : 0);
    };
    const double a0 = angle(s), a1 = angle(e);
    // Counter-clockwise as seen on the page (y down) runs towards smaller angles.
    const bool clockwise = number(op, attr::ArcDirection, 1) == 0;
    double sweep;
    if (clockwise) {
        sweep = a1 - a0;
        while (sweep <= 1e-9)
            sweep += 2 * kPi;
    } else {
        sweep = a1 - a0;
        while (sweep >= -1e-9)
            sweep -= 2 * kPi;
    }
    if (kind == 2) {
        m_path.moveTo(m.apply({cx, cy}));
        appendArc(m_path, m, cx, cy, rx, ry, a0, sweep, false);
        m_path.close();
        m_gs.cursor = m.apply({cx, cy});
        m_subpathStart = m_gs.cursor;
        return;
    }
    appendArc(m_path, m, cx, cy, rx, ry, a0, sweep, true);
    const Point end{cx + rx * std::cos(a0 + sweep), cy + ry * std::sin(a0 + sweep)};
    if (kind == 1) {
        m_path.close();
        m_gs.cursor = m.apply({cx + rx * std::cos(a0), cy + ry * std::sin(a0)});
        m_subpathStart = m_gs.cursor;
    } else {
        m_gs.cursor = m.apply(end);
        m_subpathStart = m.apply({cx + rx * std::cos(a0), cy + ry * std::sin(a0)});
    }
}

void Interpreter::addRoundRect(const Operator& op) {
    const Box b = needBox(op, attr::BoundingBox);
    const Point ed = xy(needXy(op, attr::EllipseDimension));
    const double rx = std::min(std::fabs(ed.x) / 2, (b.x2 - b.x1) / 2);
    const double ry = std::min(std::fabs(ed.y) / 2, (b.y2 - b.y1) / 2);
    const Matrix& m = m_gs.ctm;
    Path& p = m_path;
    p.moveTo(m.apply({b.x1 + rx, b.y1}));
    p.lineTo(m.apply({b.x2 - rx, b.y1}));
    appendArc(p, m, b.x2 - rx, b.y1 + ry, rx, ry, -kPi / 2, kPi / 2, false);
    p.lineTo(m.apply({b.x2, b.y2 - ry}));
    appendArc(p, m, b.x2 - rx, b.y2 - ry, rx, ry, 0, kPi / 2, false);
    p.lineTo(m.apply({b.x1 + rx, b.y2}));
    appendArc(p, m, b.x1 + rx, b.y2 - ry, rx, ry, kPi / 2, kPi / 2, false);
    p.lineTo(m.apply({b.x1, b.y1 + ry}));
    appendArc(p, m, b.x1 + rx, b.y1 + ry, rx, ry, kPi, kPi / 2, false);
    p.close();
    m_gs.cursor = m.apply({b.x1 + rx, b.y1});
    m_subpathStart = m_gs.cursor;
}

StrokeStyle Interpreter::currentStroke() const {
    StrokeStyle s = m_gs.stroke;
    const double k = userToPageScale();
    s.width = m_gs.penWidthUser * k;
    s.dashes.clear();
    for (double d : m_gs.dashUser)
        s.dashes.push_back(d * k);
    s.dashOffset = m_gs.dashOffsetUser * k;
    return s;
}

void Interpreter::paintPath() {
    const Path& path = m_path;
    // A path of nothing but moves paints nothing.
    bool hasSegments = false;
    for (Path::Op o : path.ops())
        if (o == Path::Op::Line || o == Path::Op::Curve)
            hasSegments = true;
    if (!hasSegments)
        return;
    for (const Point& p : path.points())
        if (!finite(p))
            failOp("path coordinates out of range");
    if (m_gs.brush.kind != Paint::Kind::None) {
        m_dev.fillPath(path, m_gs.fillRule, m_gs.brush, m_gs.rs);
        drew();
    }
    if (m_gs.pen.kind != Paint::Kind::None) {
        m_dev.strokePath(path, currentStroke(), m_gs.pen, m_gs.rs);
        drew();
    }
}

void Interpreter::clipToPath(const Path& pagePath, FillRule rule, bool exterior, bool replace) {
    for (const Point& p : pagePath.points())
        if (!finite(p))
            failOp("clip path coordinates out of range");
    std::shared_ptr<ClipRegion> clip = std::make_shared<ClipRegion>();
    if (!replace && m_gs.rs.clip)
        *clip = *m_gs.rs.clip;
    // A rectangle that holds the whole page clips nothing: drivers send one before every object.
    if (!exterior && pagePath.ops().size() >= 4) {
        double minX = 1e300, minY = 1e300, maxX = -1e300, maxY = -1e300;
        bool axisAligned = true;
        const auto& pts = pagePath.points();
        for (Path::Op o : pagePath.ops())
            if (o == Path::Op::Curve)
                axisAligned = false;
        if (axisAligned && pts.size() >= 4 && pts.size() <= 5) {
            for (const Point& p : pts) {
                minX = std::min(minX, p.x);
                minY = std::min(minY, p.y);
                maxX = std::max(maxX, p.x);
                maxY = std::max(maxY, p.y);
            }
            for (const Point& p : pts)
                if ((std::fabs(p.x - minX) > 1e-6 && std::fabs(p.x - maxX) > 1e-6) ||
                    (std::fabs(p.y - minY) > 1e-6 && std::fabs(p.y - maxY) > 1e-6))
                    axisAligned = false;
            const double slack = 0.5;
            if (axisAligned && minX <= slack && minY <= slack && maxX >= m_page.widthPt - slack &&
                maxY >= m_page.heightPt - slack) {
                if (clip->entries.empty())
                    m_gs.rs.clip.reset();
                else
                    m_gs.rs.clip = clip;
                return;
            }
        }
    }
    ClipRegion::Entry e;
    if (exterior) {
        // Outside the path: the page with the path cut out of it.
        const double big = std::max(m_page.widthPt, m_page.heightPt) * 4;
        e.path.addRect(-big, -big, 3 * big, 3 * big);
        e.path.append(pagePath);
        e.rule = FillRule::EvenOdd;
    } else {
        e.path = pagePath;
        e.rule = rule;
    }
    if (clip->entries.size() >= kMaxClipEntries) {
        warnOnce("too many nested clip paths; the innermost are ignored");
    } else {
        clip->entries.push_back(std::move(e));
    }
    m_gs.rs.clip = clip;
}

// ---------------------------------------------------------------- scan lines

void Interpreter::scanLineRel(const Operator& op) {
    // Each scan line: y offset (relative to the cursor), x start, the number of x pairs and the
    // pair element type, then the pairs (x offset, length), all in user units.
    if (!op.hasData)
        failOp("missing scan line data");
    const int lines = asInt(number(op, attr::NumberOfScanLines, 1));
    const uint8_t* p = op.data;
    const uint8_t* end = op.data + op.dataSize;
    auto u16 = [&](double& out) {
        if (end - p < 2)
            return false;
        out = m_streamLittle ? uint16_t(p[0] | p[1] << 8) : uint16_t(p[0] << 8 | p[1]);
        p += 2;
        return true;
    };
    auto s16 = [&](double& out) {
        if (end - p < 2)
            return false;
        out = m_streamLittle ? int16_t(p[0] | p[1] << 8) : int16_t(p[0] << 8 | p[1]);
        p += 2;
        return true;
    };
    Path path;
    const Point base = m_gs.cursor;
    const Matrix inv = m_gs.ctm.inverted().value_or(Matrix{});
    const Point baseUser = inv.apply(base);
    for (int line = 0; line < lines; ++line) {
        double dy = 0, x0 = 0, pairs = 0;
        if (!s16(dy) || !s16(x0) || !u16(pairs) || p >= end)
            failOp("scan line data shorter than NumberOfScanLines");
        const int type = *p++;
        double x = baseUser.x + x0;
        const double y = baseUser.y + dy;
        for (int i = 0; i < asInt(pairs); ++i) {
            double off = 0, len = 0;
            if (type == eUByte) {
                if (end - p < 2)
                    failOp("scan line data shorter than its pairs");
                off = p[0];
                len = p[1];
                p += 2;
            } else {
                if (!u16(off) || !u16(len))
                    failOp("scan line data shorter than its pairs");
            }
            x += off;
            if (len > 0) {
                path.moveTo(userToPage(x, y));
                path.lineTo(userToPage(x + len, y));
                path.lineTo(userToPage(x + len, y + 1));
                path.lineTo(userToPage(x, y + 1));
                path.close();
            }
            x += len;
        }
    }
    if (!path.empty() && m_gs.brush.kind != Paint::Kind::None) {
        m_dev.fillPath(path, FillRule::NonZero, m_gs.brush, m_gs.rs);
        drew();
    }
}

} // namespace qx::pclxl
