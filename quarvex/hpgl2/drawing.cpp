// HP-GL/2 drawing: strokes gathered while the pen is down, polygon edges and fills, and the
// paints, line styles and clip they are drawn with.
#include "hpgl2/hpgl2.h"

#include "common/diagnostics.h"
#include "hpgl2/internal.h"

#include <algorithm>
#include <cmath>

namespace qx::hpgl2 {

using namespace internal;

void Interpreter::ensurePage() {
    if (m_host)
        m_host->ensurePage();
}

std::shared_ptr<const ClipRegion> Interpreter::clipRegion() const {
    if (m_clip)
        return m_clip;
    auto region = std::make_shared<ClipRegion>();
    ClipRegion::Entry frame;
    frame.path.addRect(0, 0, m_frame.width, m_frame.height);
    frame.path = frame.path.transformed(m_frame.frameToPage);
    region->entries.push_back(std::move(frame));
    if (m_window) {
        const Point a = (*m_window)[0], b = (*m_window)[1];
        ClipRegion::Entry w;
        w.path.moveTo(pluToPage({a.x, a.y}));
        w.path.lineTo(pluToPage({b.x, a.y}));
        w.path.lineTo(pluToPage({b.x, b.y}));
        w.path.lineTo(pluToPage({a.x, b.y}));
        w.path.close();
        region->entries.push_back(std::move(w));
    }
    m_clip = region;
    return m_clip;
}

RenderState Interpreter::renderState(bool forFill) const {
    RenderState rs = m_host ? m_host->renderState() : RenderState{};
    if (forFill)
        rs.patternTransparent = m_transparent;
    if (m_mergeRop >= 0)
        rs.rop3 = static_cast<uint8_t>(m_mergeRop);
    auto own = clipRegion();
    if (rs.clip && !rs.clip->entries.empty()) {
        auto both = std::make_shared<ClipRegion>(*rs.clip);
        both->entries.insert(both->entries.end(), own->entries.begin(), own->entries.end());
        rs.clip = both;
    } else {
        rs.clip = own;
    }
    return rs;
}

Paint Interpreter::penPaint() const {
    if (m_pens.empty())
        return Paint::solid(Rgb::black());
    const size_t index = static_cast<size_t>(std::max(0, m_selectedPen)) % m_pens.size();
    return Paint::solid(m_pens[index]);
}

// The paint of lines: the pen's colour, screened to a shade by SV.
Paint Interpreter::linePaint() const {
    const Paint pen = penPaint();
    if (m_screenType != 1)
        return pen;
    const double level = std::clamp(m_screenLevel, 0.0, 100.0) / 100.0;
    auto mix = [&](uint8_t c) { return static_cast<uint8_t>(std::lround(255.0 - (255.0 - c) * level)); };
    return Paint::solid({mix(pen.color.r), mix(pen.color.g), mix(pen.color.b)});
}

// The size of a device pixel in page space.
double Interpreter::devicePixel() const {
    const Matrix ptd = m_dev.pageToDevice();
    const double scale = std::sqrt(std::fabs(ptd.a * ptd.d - ptd.b * ptd.c));
    return scale > 1e-9 && std::isfinite(scale) ? 1.0 / scale : 1.0;
}

StrokeStyle Interpreter::strokeStyle() const {
    StrokeStyle s;
    const size_t index = m_penWidths.empty()
                             ? 0
                             : static_cast<size_t>(std::max(0, m_selectedPen)) % m_penWidths.size();
    const double w = m_penWidths.empty() ? 0.35 : m_penWidths[index];
    if (m_relativeWidths)
        s.width = w / 100.0 * diagonalPlu() * pluScaleToPage();
    else
        s.width = w * 72.0 / 25.4;
    if (!std::isfinite(s.width) || s.width < 0)
        s.width = 0;
    // A printer draws pens a whole number of dots wide, the thinnest one dot: the width is
    // rounded to device pixels, and a pen of less than one and a half is the device's thinnest.
    const double pixel = devicePixel();
    const double dots = std::round(s.width / pixel);
    s.width = dots <= 1 ? 0 : dots * pixel;
    s.cap = m_cap;
    s.join = m_join;
    s.miterLimit = std::max(1.0, m_miterLimit);
    if (m_lineTypeSet && m_lineType != 0) {
        const int type = std::abs(m_lineType);
        std::vector<double> pattern;
        auto it = m_userLineTypes.find(type);
        if (it != m_userLineTypes.end())
            pattern = it->second;
        else if (type <= 8)
            pattern = fixedLineType(type);
        double sum = 0;
        for (double v : pattern)
            sum += v;
        const double length = m_patternAbsolute ? m_patternLength * 72.0 / 25.4
                                                : m_patternLength / 100.0 * diagonalPlu() * pluScaleToPage();
        if (sum > 0 && length > 0 && std::isfinite(length) && pattern.size() >= 2) {
            // Dots (dashes of no length) are drawn as dashes as long as the pen is wide, at
            // least one device pixel, so that butt ends show them.
            const double dot = std::max(s.width, pixel);
            for (size_t i = 0; i < pattern.size(); ++i) {
                double v = pattern[i] / sum * length;
                if (i % 2 == 0 && v < dot) {
                    const double extra = dot - v;
                    v = dot;
                    // Taken from the gap that follows, when it has room.
                    if (i + 1 < pattern.size())
                        pattern[i + 1] = std::max(0.0, pattern[i + 1] - extra / length * sum);
                }
                s.dashes.push_back(v);
            }
            if (pattern.size() % 2 == 1)
                s.dashes.push_back(0);
        }
    }
    return s;
}

void Interpreter::flush() {
    if (!m_strokeHasSegments) {
        m_stroke.clear();
        return;
    }
    ensurePage();
    const StrokeStyle style = strokeStyle();
    const auto& pts = m_stroke.points();
    if (m_lineTypeSet && m_lineType == 0) {
        // Line type 0: a dot at each point, nothing between them.
        const double side = std::max(style.width, devicePixel());
        Path dots;
        for (Point q : pts)
            dots.addRect(q.x - side / 2, q.y - side / 2, side, side);
        m_dev.fillPath(dots, FillRule::NonZero, linePaint(), renderState(false));
    } else if (m_lineType < 0 && !style.dashes.empty()) {
        // Adaptive line types: each segment holds a whole number of patterns, so that every
        // segment starts and ends with a dash.
        double patternLength = 0;
        for (double d : style.dashes)
            patternLength += d;
        for (size_t i = 1; i < pts.size(); ++i) {
            const double len = std::hypot(pts[i].x - pts[i - 1].x, pts[i].y - pts[i - 1].y);
            if (len <= 0)
                continue;
            const double n = std::max(1.0, std::round(len / patternLength));
            StrokeStyle segStyle = style;
            for (double& d : segStyle.dashes)
                d *= len / (n * patternLength);
            Path seg;
            seg.moveTo(pts[i - 1]);
            seg.lineTo(pts[i]);
            m_dev.strokePath(seg, segStyle, linePaint(), renderState(false));
        }
    } else {
        m_dev.strokePath(m_stroke, style, linePaint(), renderState(false));
    }
    m_stroke.clear();
    m_strokeHasSegments = false;
}

void Interpreter::strokePlu(const std::vector<std::vector<Point>>& lines, const std::vector<bool>& closed) {
    Path path;
    for (size_t i = 0; i < lines.size(); ++i) {
        const auto& line = lines[i];
        if (line.size() < 2)
            continue;
        path.moveTo(pluToPage(line[0]));
        for (size_t j = 1; j < line.size(); ++j)
            path.lineTo(pluToPage(line[j]));
        if (i < closed.size() && closed[i])
            path.close();
    }
    if (path.empty())
        return;
    ensurePage();
    m_dev.strokePath(path, strokeStyle(), linePaint(), renderState(false));
}

void Interpreter::fillPlu(const std::vector<std::vector<Point>>& polys, bool evenOdd) {
    Path path;
    for (const auto& poly : polys) {
        if (poly.size() < 3)
            continue;
        path.moveTo(pluToPage(poly[0]));
        for (size_t j = 1; j < poly.size(); ++j)
            path.lineTo(pluToPage(poly[j]));
        path.close();
    }
    if (path.empty())
        return;
    const FillRule rule = evenOdd ? FillRule::EvenOdd : FillRule::NonZero;
    ensurePage();
    switch (m_fillType) {
    case 3:
    case 4: {
        // Hatching: lines at the given spacing and angle, clipped to the shape. The spacing is
        // in current units (1% of the P1-P2 diagonal when 0), the lines run through the
        // anchor at the origin.
        double spacing = m_fillOption1;
        if (spacing > 0 && m_scaled)
            spacing = std::fabs(userDeltaToPlu({spacing, 0}).x);
        if (!(spacing > 0))
            spacing = 0.01 * diagonalPlu();
        if (!(spacing > 0))
            break;
        RenderState rs = renderState(true);
        auto region = std::make_shared<ClipRegion>(*rs.clip);
        region->entries.push_back({path, rule});
        rs.clip = region;
        // The shape's extent in plotter units.
        double x0 = 1e300, y0 = 1e300, x1 = -1e300, y1 = -1e300;
        for (const auto& poly : polys)
            for (Point p : poly) {
                x0 = std::min(x0, p.x), y0 = std::min(y0, p.y);
                x1 = std::max(x1, p.x), y1 = std::max(y1, p.y);
            }
        const double reach = std::hypot(x1 - x0, y1 - y0) + spacing;
        const Point centre{(x0 + x1) / 2, (y0 + y1) / 2};
        Path lines;
        const int sets = m_fillType == 4 ? 2 : 1;
        for (int set = 0; set < sets; ++set) {
            const double angle = (m_fillOption2 + 90.0 * set) * kPi / 180.0;
            const Point dir{std::cos(angle), std::sin(angle)};
            const Point normal{-dir.y, dir.x};
            // Lines at offsets k * spacing from the origin along the normal.
            const double c = (centre.x - m_anchor.x) * normal.x + (centre.y - m_anchor.y) * normal.y;
            const double kFirst = std::floor((c - reach / 2) / spacing);
            const double kLast = std::ceil((c + reach / 2) / spacing);
            if (kLast - kFirst > 20000)
                continue;
            for (double k = kFirst; k <= kLast; ++k) {
                const double off = k * spacing;
                const double along = (centre.x - m_anchor.x) * dir.x + (centre.y - m_anchor.y) * dir.y;
                const Point base{m_anchor.x + normal.x * off + dir.x * along, m_anchor.y + normal.y * off + dir.y * along};
                lines.moveTo(pluToPage({base.x - dir.x * reach, base.y - dir.y * reach}));
                lines.lineTo(pluToPage({base.x + dir.x * reach, base.y + dir.y * reach}));
            }
        }
        StrokeStyle style = strokeStyle();
        style.dashes.clear();
        if (!lines.empty())
            m_dev.strokePath(lines, style, penPaint(), rs);
        return;
    }
    case 10: {
        // Shading: the pen colour at the level in percent, over white.
        const double level = std::clamp(m_fillOption1, 0.0, 100.0) / 100.0;
        const Rgb pen = penPaint().color;
        auto mix = [&](uint8_t c) {
            return static_cast<uint8_t>(std::lround(255.0 - (255.0 - c) * level));
        };
        m_dev.fillPath(path, rule, Paint::solid({mix(pen.r), mix(pen.g), mix(pen.b)}), renderState(true));
        return;
    }
    case 11: {
        // A raster fill pattern of RF: pen numbers a pixel, pen 0 white; the others in the
        // current pen's colour, or in their own with the second option 1.
        auto it = m_rasterFills.find(toInt(m_fillOption1));
        if (it == m_rasterFills.end())
            break;
        const RasterFill& rf = it->second;
        auto tile = std::make_shared<PatternTile>();
        tile->width = rf.width;
        tile->height = rf.height;
        tile->pixels.resize(static_cast<size_t>(rf.width) * static_cast<size_t>(rf.height));
        const Rgb current = penPaint().color;
        for (size_t i = 0; i < tile->pixels.size(); ++i) {
            const int pen = rf.pens[i];
            if (pen == 0)
                tile->pixels[i] = Rgb::white();
            else if (toInt(m_fillOption2) == 1 && !m_pens.empty())
                tile->pixels[i] = m_pens[static_cast<size_t>(pen) % m_pens.size()];
            else
                tile->pixels[i] = current;
        }
        // One pattern pixel is one 300 dpi dot, laid from the anchor corner (AC), in the
        // directions of the frame.
        const Point corner = pluToPage(m_anchor);
        const Matrix& fp = m_frame.frameToPage;
        tile->tileToPage = Matrix{fp.a, fp.b, fp.c, fp.d, corner.x, corner.y} * Matrix::scale(0.24, 0.24);
        m_dev.fillPath(path, rule, Paint::tiled(std::move(tile)), renderState(true));
        return;
    }
    case 21:
    case 22:
        // PCL's own cross-hatch and user-defined patterns.
        if (m_host) {
            if (auto paint = m_host->pclPattern(m_fillType, toInt(m_fillOption1))) {
                m_dev.fillPath(path, rule, *paint, renderState(true));
                return;
            }
        }
        warnOnce("HP-GL/2: PCL patterns as fill types are drawn solid here");
        break;
    default: break;
    }
    m_dev.fillPath(path, rule, penPaint(), renderState(true));
}

void Interpreter::edgeOrFill(const std::vector<Point>& poly, bool fill) {
    flush();
    if (fill)
        fillPlu({poly}, true);
    else
        strokePlu({poly}, {true});
}

} // namespace qx::hpgl2
