// EMF+ drawing records: rectangles, polygons, lines, ellipses, pies and arcs, Béziers and
// cardinal splines, paths, regions, images and strings, filled with brushes and stroked with
// pens from the object table (or a colour given in the record itself).

#include "emf/plus_player.h"

#include "emf/dib.h"
#include "emf/player_state.h"
#include "emf/plus_objects.h"

#include <algorithm>
#include <cmath>

namespace qx::emf {

namespace {

constexpr double kPi = 3.14159265358979323846;

enum : uint16_t {
    Clear = 0x4009, FillRects = 0x400A, DrawRects = 0x400B, FillPolygon = 0x400C, DrawLines = 0x400D,
    FillEllipse = 0x400E, DrawEllipse = 0x400F, FillPie = 0x4010, DrawPie = 0x4011, DrawArc = 0x4012,
    FillRegion = 0x4013, FillPath = 0x4014, DrawPath = 0x4015, FillClosedCurve = 0x4016,
    DrawClosedCurve = 0x4017, DrawCurve = 0x4018, DrawBeziers = 0x4019, DrawImage = 0x401A,
    DrawImagePoints = 0x401B, DrawString = 0x401C, DrawDriverString = 0x4036,
};

constexpr uint16_t kColorFlag = 0x8000;   // S: the brush is a colour in the record
constexpr uint16_t kCompressed = 0x4000;  // C: 16-bit integer coordinates
constexpr uint16_t kRelative = 0x0800;    // P: relative run-length points

// The most figures one record may draw (rectangles, glyphs); more are left out.
constexpr uint32_t kMaxFigures = 1u << 20;

// Part of the ellipse in rect from angle start sweeping by sweep (degrees, clockwise on the
// page), as Béziers of at most a quarter turn each. The angles are those of the points on the
// ellipse, as GDI+ takes them.
void addArc(Path& p, const PlusRect& r, double start, double sweep, bool moveFirst) {
    const double rx = r.w / 2, ry = r.h / 2, cx = r.x + rx, cy = r.y + ry;
    auto param = [&](double deg) {
        const double a = deg * kPi / 180;
        // From the geometric angle to the ellipse's parameter, keeping whole turns.
        const double turns = std::floor(a / (2 * kPi));
        double t = (rx == 0 || ry == 0) ? a - turns * 2 * kPi
                                        : std::atan2(std::fabs(rx) * std::sin(a), std::fabs(ry) * std::cos(a));
        if (t < 0)
            t += 2 * kPi;
        return t + turns * 2 * kPi;
    };
    sweep = std::clamp(sweep, -360.0, 360.0);
    const double t0 = param(start);
    double t1 = param(start + sweep);
    if (sweep > 0 && t1 < t0)
        t1 += 2 * kPi;
    if (sweep < 0 && t1 > t0)
        t1 -= 2 * kPi;
    if (std::fabs(sweep) >= 360)
        t1 = t0 + (sweep > 0 ? 2 * kPi : -2 * kPi);
    const int parts = std::max(1, int(std::ceil(std::fabs(t1 - t0) / (kPi / 2) - 1e-9)));
    const double step = (t1 - t0) / parts;
    const double k = 4.0 / 3.0 * std::tan(step / 4);
    auto at = [&](double t) { return Point{cx + rx * std::cos(t), cy + ry * std::sin(t)}; };
    if (moveFirst)
        p.moveTo(at(t0));
    else
        p.lineTo(at(t0));
    for (int i = 0; i < parts; ++i) {
        const double a = t0 + step * i, b = a + step;
        const Point p0 = at(a), p3 = at(b);
        p.curveTo({p0.x - k * rx * std::sin(a), p0.y + k * ry * std::cos(a)},
                  {p3.x + k * rx * std::sin(b), p3.y - k * ry * std::cos(b)}, p3);
    }
}

// A cardinal spline through pts with the given tension, as Béziers.
Path splinePath(const std::vector<Point>& pts, double tension, bool closed, size_t first = 0, size_t segments = 0) {
    Path p;
    const size_t n = pts.size();
    if (n < 2)
        return p;
    const double t = tension / 3;
    auto pt = [&](long i) {
        if (closed)
            return pts[size_t((i % long(n) + long(n)) % long(n))];
        return pts[size_t(std::clamp(i, 0L, long(n) - 1))];
    };
    const size_t count = closed ? n : n - 1;
    const size_t last = segments ? std::min(count, first + segments) : count;
    p.moveTo(pt(long(first)));
    for (size_t i = first; i < last; ++i) {
        const Point a = pt(long(i) - 1), b = pt(long(i)), c = pt(long(i) + 1), d = pt(long(i) + 2);
        p.curveTo({b.x + t * (c.x - a.x), b.y + t * (c.y - a.y)}, {c.x - t * (d.x - b.x), c.y - t * (d.y - b.y)}, c);
    }
    if (closed)
        p.close();
    return p;
}

Path polyPath(const std::vector<Point>& pts, bool closed) {
    Path p;
    for (size_t i = 0; i < pts.size(); ++i)
        i == 0 ? p.moveTo(pts[i]) : p.lineTo(pts[i]);
    if (closed && !pts.empty())
        p.close();
    return p;
}

} // namespace

void PlusPlayer::fillGradient(const Path& shape, FillRule rule, const PlusBrush& b, const RenderState& rs) {
    // Bands of even colour across the gradient's rectangle, clipped to the shape; beyond the
    // rectangle the end colours go on (GDI+ would repeat the gradient there).
    constexpr int kBands = 128;
    gradientBands += kBands;
    auto clip = std::make_shared<ClipRegion>();
    if (rs.clip)
        clip->entries = rs.clip->entries;
    clip->entries.push_back({shape, rule});
    RenderState brs = rs;
    brs.clip = std::move(clip);
    const Matrix toPage = worldToPage() * b.gradient;
    const double far = 1000 * std::max({std::fabs(b.w), std::fabs(b.h), 1.0});
    const Rgb s = b.color.onWhite(), e = b.back.onWhite();
    for (int i = 0; i < kBands; ++i) {
        const double t = (i + 0.5) / kBands;
        const Rgb c{uint8_t(std::lround(s.r + (e.r - s.r) * t)), uint8_t(std::lround(s.g + (e.g - s.g) * t)),
                    uint8_t(std::lround(s.b + (e.b - s.b) * t))};
        const double x0 = i == 0 ? b.x - far : b.x + b.w * i / kBands;
        const double x1 = i == kBands - 1 ? b.x + b.w + far : b.x + b.w * (i + 1) / kBands;
        gdi.device.fillPath(rectPath(toPage, x0, b.y - far, x1, b.y + b.h + far), FillRule::NonZero, Paint::solid(c),
                            brs);
    }
}

bool PlusPlayer::playDrawRecord(uint16_t type, uint16_t flags, Bytes data) {
    if (!((type >= Clear && type <= DrawString) || type == DrawDriverString))
        return false;
    if (gdi.inPath) // inside a GDI path bracket nothing is drawn
        return true;
    const Matrix m = worldToPage();
    const RenderState rs = gdi.renderState();
    const uint8_t id = flags & 0xff;
    const bool compressed = flags & kCompressed;
    const size_t rectSize = compressed ? 8 : 16;
    PlusObjects& table = *objects;

    // The object of that number and kind, else null (with a warning).
    auto object = [&](uint32_t n, PlusObject::Kind kind) -> const PlusObject* {
        if (n < kPlusObjectSlots && table.slots[n].kind == kind)
            return &table.slots[n];
        warn("a drawing record names an object that was never made");
        return nullptr;
    };
    auto paintOf = [&](const PlusBrush& b) -> Paint {
        if (b.kind == PlusBrush::Kind::Hatch && b.hatch <= 5) {
            // Drawn as a GDI hatch: the fore colour on the back colour, 8 reference pixels a cell.
            const DcState kept = gdi.dc;
            gdi.dc.bkColor = b.back.onWhite();
            gdi.dc.bkOpaque = b.back.a > 0;
            BrushObject h;
            h.style = 2;
            h.color = b.color.onWhite();
            h.hatch = b.hatch;
            Paint p = gdi.brushPaint(h);
            gdi.dc = kept;
            return p;
        }
        if (b.kind == PlusBrush::Kind::Hatch) {
            // The other hatch styles are fine textures: their mean colour.
            const Rgb f = b.color.onWhite(), k = b.back.onWhite();
            return Paint::solid({uint8_t((f.r + k.r) / 2), uint8_t((f.g + k.g) / 2), uint8_t((f.b + k.b) / 2)});
        }
        if (b.kind == PlusBrush::Kind::Texture && b.texture) {
            auto tile = std::make_shared<PatternTile>(imageTile(*b.texture));
            tile->tileToPage = m * b.gradient;
            return Paint::tiled(std::move(tile));
        }
        if (b.kind == PlusBrush::Kind::Linear) {
            // Lines in a gradient: its middle colour.
            const Rgb f = b.color.onWhite(), k = b.back.onWhite();
            return Paint::solid({uint8_t((f.r + k.r) / 2), uint8_t((f.g + k.g) / 2), uint8_t((f.b + k.b) / 2)});
        }
        return b.color.a == 0 ? Paint::none() : Paint::solid(b.color.onWhite());
    };
    // The brush of a fill record: a colour in the record or a brush object.
    auto brushOf = [&](uint32_t value, PlusBrush& out) {
        if (flags & kColorFlag) {
            out.kind = PlusBrush::Kind::Solid;
            out.color = Argb::of(value);
            return true;
        }
        const PlusObject* o = object(value, PlusObject::Kind::Brush);
        if (o)
            out = o->brush;
        return o != nullptr;
    };
    auto fill = [&](const Path& world, FillRule rule, uint32_t brushValue) {
        PlusBrush b;
        if (world.empty() || !brushOf(brushValue, b))
            return;
        if (b.kind == PlusBrush::Kind::Linear && gradientBands < kMaxGradientBands) {
            fillGradient(world.transformed(m), rule, b, rs);
            return;
        }
        if (b.kind == PlusBrush::Kind::Linear)
            warn("too many gradients on one page; the rest are drawn in one colour");
        const Paint paint = paintOf(b);
        if (paint.kind == Paint::Kind::None)
            return;
        RenderState frs = rs;
        frs.patternTransparent = b.kind == PlusBrush::Kind::Hatch && b.back.a == 0;
        gdi.device.fillPath(world.transformed(m), rule, paint, frs);
    };
    auto stroke = [&](const Path& world, uint32_t penId) {
        const PlusObject* o = object(penId, PlusObject::Kind::Pen);
        if (!o || world.empty())
            return;
        const PlusPen& pen = o->pen;
        const Paint paint = paintOf(pen.brush);
        if (paint.kind == Paint::Kind::None)
            return;
        StrokeStyle s;
        // The width in world units (a pen in other units is converted through the page unit),
        // then through the world and page transforms.
        const double toWorld = pen.unit == 0 ? 1
                                             : unitToPixelsX(pen.unit) / (unitToPixelsX(state.pageUnit) * state.pageScale);
        s.width = pen.width * toWorld * std::sqrt(std::fabs(m.a * m.d - m.b * m.c));
        if (!std::isfinite(s.width) || s.width > 1e4)
            s.width = 0;
        s.cap = pen.startCap == 1 ? StrokeStyle::Cap::Square
                : pen.startCap == 2 ? StrokeStyle::Cap::Round
                                    : StrokeStyle::Cap::Butt;
        s.join = pen.join == 1 ? StrokeStyle::Join::Bevel
                 : pen.join == 2 ? StrokeStyle::Join::Round
                                 : StrokeStyle::Join::Miter;
        s.miterLimit = pen.miterLimit;
        const double unit = std::max(s.width, gdi.devPxToPtX);
        std::vector<double> pattern;
        switch (pen.lineStyle) {
        case 1: pattern = {3, 1}; break;
        case 2: pattern = {1, 1}; break;
        case 3: pattern = {3, 1, 1, 1}; break;
        case 4: pattern = {3, 1, 1, 1, 1, 1}; break;
        case 5: pattern = pen.dashes; break;
        default: break;
        }
        if (pattern.size() % 2)
            pattern.push_back(pattern.back());
        for (double v : pattern)
            s.dashes.push_back(v * unit);
        s.dashOffset = pen.dashOffset * unit;
        gdi.device.strokePath(world.transformed(m), s, paint, rs);
    };
    auto points = [&](size_t offset, uint32_t count, std::vector<Point>& pts) {
        if (count == 0 || count > kMaxFigures || readPlusPoints(data, offset, count, flags, pts) == 0) {
            if (count != 0)
                warn("a drawing record whose points run past its end is left out");
            return false;
        }
        return true;
    };
    auto rectArray = [&](size_t offset, uint32_t count) {
        Path p;
        if (count > kMaxFigures || count > data.size / rectSize || !data.has(offset, size_t(count) * rectSize)) {
            warn("a drawing record whose rectangles run past its end is left out");
            return p;
        }
        for (uint32_t i = 0; i < count; ++i) {
            const PlusRect r = readPlusRect(data, offset + size_t(i) * rectSize, compressed);
            p.addRect(r.x, r.y, r.w, r.h);
        }
        return p;
    };
    auto ellipseOrArc = [&](size_t rectAt, double start, double sweep, int shape) {
        // shape 0: whole ellipse, 1: pie, 2: open arc
        Path p;
        if (!data.has(rectAt, rectSize)) {
            warn("a drawing record cut short is left out");
            return p;
        }
        const PlusRect r = readPlusRect(data, rectAt, compressed);
        if (!std::isfinite(start) || !std::isfinite(sweep))
            return p;
        if (shape == 0) {
            addArc(p, r, 0, 360, true);
            p.close();
        } else if (shape == 1) {
            p.moveTo({r.x + r.w / 2, r.y + r.h / 2});
            addArc(p, r, start, sweep, false);
            p.close();
        } else {
            addArc(p, r, start, sweep, true);
        }
        return p;
    };

    switch (type) {
    case Clear: {
        Path all;
        all.addRect(-1e5, -1e5, 2e5, 2e5);
        const Argb c = Argb::of(data.u32(0));
        gdi.device.fillPath(all, FillRule::NonZero, Paint::solid(c.onWhite()), rs);
        return true;
    }
    case FillRects: fill(rectArray(8, data.u32(4)), FillRule::NonZero, data.u32(0)); return true;
    case DrawRects: stroke(rectArray(4, data.u32(0)), id); return true;
    case FillPolygon: {
        std::vector<Point> pts;
        if (points(8, data.u32(4), pts))
            fill(polyPath(pts, true), FillRule::EvenOdd, data.u32(0));
        return true;
    }
    case DrawLines: {
        std::vector<Point> pts;
        if (points(4, data.u32(0), pts))
            stroke(polyPath(pts, flags & 0x2000), id);
        return true;
    }
    case DrawBeziers: {
        std::vector<Point> pts;
        if (!points(4, data.u32(0), pts))
            return true;
        Path p;
        p.moveTo(pts[0]);
        for (size_t i = 1; i + 2 < pts.size(); i += 3)
            p.curveTo(pts[i], pts[i + 1], pts[i + 2]);
        stroke(p, id);
        return true;
    }
    case FillEllipse: fill(ellipseOrArc(4, 0, 360, 0), FillRule::NonZero, data.u32(0)); return true;
    case DrawEllipse: stroke(ellipseOrArc(0, 0, 360, 0), id); return true;
    case FillPie: fill(ellipseOrArc(12, data.f32(4), data.f32(8), 1), FillRule::NonZero, data.u32(0)); return true;
    case DrawPie: stroke(ellipseOrArc(8, data.f32(0), data.f32(4), 1), id); return true;
    case DrawArc: stroke(ellipseOrArc(8, data.f32(0), data.f32(4), 2), id); return true;
    case FillPath:
        if (const PlusObject* o = object(id, PlusObject::Kind::Path))
            fill(o->path.path, FillRule::EvenOdd, data.u32(0));
        return true;
    case DrawPath:
        if (const PlusObject* o = object(id, PlusObject::Kind::Path))
            stroke(o->path.path, data.u32(0));
        return true;
    case FillRegion:
        if (const PlusObject* o = object(id, PlusObject::Kind::Region)) {
            if (o->regionInfinite) {
                Path all;
                all.addRect(-1e5, -1e5, 2e5, 2e5);
                fill(all.transformed(m.inverted().value_or(Matrix{})), FillRule::NonZero, data.u32(0));
            } else if (o->region.size() == 1) {
                fill(o->region[0], FillRule::NonZero, data.u32(0));
            } else {
                // An intersection: the first part, clipped by the others.
                const std::shared_ptr<const ClipRegion> kept = gdi.dc.clip;
                for (size_t i = 1; i < o->region.size(); ++i)
                    gdi.intersectClip(o->region[i].transformed(m), FillRule::NonZero);
                RenderState crs = rs;
                crs.clip = gdi.dc.clip;
                gdi.dc.clip = kept;
                PlusBrush b;
                if (brushOf(data.u32(0), b))
                    gdi.device.fillPath(o->region[0].transformed(m), FillRule::NonZero, paintOf(b), crs);
            }
        }
        return true;
    case FillClosedCurve: {
        std::vector<Point> pts;
        if (points(12, data.u32(8), pts))
            fill(splinePath(pts, data.f32(4), true), (flags & 0x2000) ? FillRule::NonZero : FillRule::EvenOdd,
                 data.u32(0));
        return true;
    }
    case DrawClosedCurve: {
        std::vector<Point> pts;
        if (points(8, data.u32(4), pts))
            stroke(splinePath(pts, data.f32(0), true), id);
        return true;
    }
    case DrawCurve: {
        std::vector<Point> pts;
        if (points(16, data.u32(12), pts))
            stroke(splinePath(pts, data.f32(0), false, data.u32(4), data.u32(8)), id);
        return true;
    }
    case DrawImage:
    case DrawImagePoints: {
        const PlusObject* o = object(id, PlusObject::Kind::Image);
        if (!o || !o->image)
            return true;
        // Image attributes, the source unit, the source rectangle (pixels), then the
        // destination: a rectangle, or three points for its upper-left, upper-right and
        // lower-left corners.
        const PlusRect src = readPlusRect(data, 8, false);
        Point p0, p1, p2;
        if (type == DrawImage) {
            if (!data.has(24, rectSize))
                return true;
            const PlusRect d = readPlusRect(data, 24, compressed);
            p0 = {d.x, d.y}, p1 = {d.x + d.w, d.y}, p2 = {d.x, d.y + d.h};
        } else {
            std::vector<Point> pts;
            if (data.u32(24) != 3 || !points(28, 3, pts))
                return true;
            p0 = pts[0], p1 = pts[1], p2 = pts[2];
        }
        Image img = cropImage(*o->image, int(std::lround(src.x)), int(std::lround(src.y)),
                              src.w > 0 ? int(std::lround(src.w)) : o->image->width,
                              src.h > 0 ? int(std::lround(src.h)) : o->image->height);
        if (img.width == 0 || img.height == 0)
            return true;
        const Matrix imageToWorld{(p1.x - p0.x) / img.width,  (p1.y - p0.y) / img.width, (p2.x - p0.x) / img.height,
                                  (p2.y - p0.y) / img.height, p0.x,                      p0.y};
        RenderState irs = rs;
        irs.sourceTransparent = o->imageHasAlpha;
        gdi.device.drawImage(img, m * imageToWorld, Paint::solid(Rgb::black()), irs);
        return true;
    }
    case DrawString:
    case DrawDriverString:
        drawStringRecord(type == DrawDriverString, flags, data);
        return true;
    default:
        return false;
    }
}

} // namespace qx::emf
