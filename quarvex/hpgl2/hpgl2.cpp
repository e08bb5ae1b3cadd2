#include "hpgl2/hpgl2.h"

#include "common/diagnostics.h"
#include "fonts/font_library.h"
#include "hpgl2/reader.h"

#include <algorithm>
#include <cmath>

namespace qx::hpgl2 {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kPointsPerPlu = 72.0 / 1016.0;
constexpr uint8_t kEsc = 0x1B;
// Coordinates are kept within a range that no page reaches, so that nothing overflows.
constexpr double kMaxPlu = 1e8;
// The largest em, in device pixels, that labels are rendered at.
constexpr double kMaxGlyphPixels = 6000;

double clampPlu(double v) {
    if (!std::isfinite(v))
        return 0;
    return std::clamp(v, -kMaxPlu, kMaxPlu);
}

Point clampPlu(Point p) { return {clampPlu(p.x), clampPlu(p.y)}; }

int toInt(double v) {
    if (!std::isfinite(v))
        return 0;
    return static_cast<int>(std::lround(std::clamp(v, -1e9, 1e9)));
}

// The fixed line types, in percent of the pattern length: dash, gap, dash, gap...
const std::vector<double>& fixedLineType(int type) {
    static const std::vector<double> kTypes[9] = {
        {},
        {0, 100},
        {50, 50},
        {70, 30},
        {80, 10, 0, 10},
        {70, 10, 10, 10},
        {50, 10, 10, 10, 10, 10},
        {70, 10, 0, 10, 0, 10},
        {50, 10, 0, 10, 10, 10, 0, 10},
    };
    return kTypes[std::clamp(type, 0, 8)];
}

// The default colours of the pens when NP or a reset sets them: white, black, red, green,
// yellow, blue, magenta, cyan, then the same again.
Rgb defaultPenColour(int pen) {
    static const Rgb kColours[8] = {{255, 255, 255}, {0, 0, 0},     {255, 0, 0},   {0, 255, 0},
                                    {255, 255, 0},   {0, 0, 255},   {255, 0, 255}, {0, 255, 255}};
    return kColours[static_cast<size_t>(pen) % 8];
}

bool isStickTypeface(int typeface) { return typeface == 48 || typeface == 50; }

} // namespace

Interpreter::Interpreter(Device& device, Diagnostics& diag, const FontLibrary* fonts, Host* host)
    : m_dev(device), m_diag(diag), m_fonts(fonts), m_host(host) {
    m_frame.frameToPage = Matrix{};
    reset();
}

Interpreter::~Interpreter() = default;

void Interpreter::warnOnce(const std::string& message) {
    if (m_warned.insert(message).second)
        m_diag.warning(message);
}

// ---------------------------------------------------------------------------------------------
// State

void Interpreter::reset() {
    m_stroke.clear();
    m_strokeHasSegments = false;
    m_pens = {Rgb::white(), Rgb::black()};
    m_penWidths.assign(m_pens.size(), 0.35);
    defaults(true);
}

void Interpreter::setPictureFrame(const PictureFrame& frame) {
    PictureFrame f = frame;
    if (!(f.width > 0) || !std::isfinite(f.width))
        f.width = 612;
    if (!(f.height > 0) || !std::isfinite(f.height))
        f.height = 792;
    if (!(f.plotWidth > 0) || !std::isfinite(f.plotWidth))
        f.plotWidth = 0;
    if (!(f.plotHeight > 0) || !std::isfinite(f.plotHeight))
        f.plotHeight = 0;
    // The same frame again (PCL renews it after commands that may move it) changes nothing;
    // the same frame with another plot size only changes the scaling.
    const Matrix& a = f.frameToPage;
    const Matrix& b = m_frame.frameToPage;
    const bool sameFrame = a.a == b.a && a.b == b.b && a.c == b.c && a.d == b.d && a.e == b.e &&
                           a.f == b.f && f.width == m_frame.width && f.height == m_frame.height;
    if (sameFrame) {
        if (f.plotWidth != m_frame.plotWidth || f.plotHeight != m_frame.plotHeight)
            setPlotSize(f.plotWidth, f.plotHeight);
        return;
    }
    flush();
    m_frame = f;
    m_window.reset();
    updateTransforms();
    defaultP1P2();
    updateTransforms();
    // A new frame also empties the polygon buffer and puts the pen on P1.
    m_polygonMode = false;
    m_polygon.clear();
    m_pen = m_p1;
    m_labelStart = m_pen;
}

void Interpreter::setPlotSize(double widthPt, double heightPt) {
    flush();
    m_frame.plotWidth = widthPt > 0 && std::isfinite(widthPt) ? widthPt : 0;
    m_frame.plotHeight = heightPt > 0 && std::isfinite(heightPt) ? heightPt : 0;
    updateTransforms();
}

// IN (full) and DF (not full): back to the default state. IN also puts P1/P2, the rotation and
// the pen back.
void Interpreter::defaults(bool full) {
    flush();
    if (full) {
        m_rotation = 0;
        m_penDown = false;
        m_polygonMode = false;
        m_polygon.clear();
        m_selectedPen = 1;
        m_pen = {0, 0};
        m_penWidths.assign(std::max<size_t>(m_pens.size(), 2), 0.35);
        m_relativeWidths = false;
        updateTransforms();
        defaultP1P2();
        m_labelStart = m_pen;
    }
    m_scaled = false;
    m_scale.clear();
    m_window.reset();
    m_relative = false;
    m_cap = StrokeStyle::Cap::Butt;
    m_join = StrokeStyle::Join::Miter;
    m_miterLimit = 5;
    m_lineType = 0;
    m_lineTypeSet = false;
    m_patternLength = 4;
    m_patternAbsolute = false;
    m_userLineTypes.clear();
    m_chordTolerance = 5;
    m_fillType = 1;
    m_fillOption1 = m_fillOption2 = 0;
    m_rasterFills.clear();
    m_anchor = {0, 0};
    m_symbol = 0;
    m_transparent = true;
    m_screenType = 0;
    m_screenLevel = 100;
    m_colourRange = {0, 255, 0, 255, 0, 255};
    m_mergeRop = -1;
    m_standard = Font{};
    m_alternate = Font{};
    m_alternateSelected = false;
    m_charWidthCm = m_charHeightCm = 0;
    m_relativeSize = false;
    m_relWidthPct = m_relHeightPct = 0;
    m_direction = {1, 0};
    m_directionRelative = false;
    m_extraSpace = {0, 0};
    m_labelOrigin = 1;
    m_terminator = 3;
    m_terminatorPrinted = false;
    updateTransforms();
}

void Interpreter::enterMode(std::optional<Point> penAtPage) {
    if (!penAtPage)
        return;
    if (auto inv = m_pluToPage.inverted()) {
        m_pen = clampPlu(inv->apply(*penAtPage));
        m_labelStart = m_pen;
    }
}

void Interpreter::setPens(std::vector<Rgb> pens) {
    flush();
    if (pens.size() < 2)
        pens.resize(2, Rgb::black());
    m_pens = std::move(pens);
    m_penWidths.resize(m_pens.size(), m_penWidths.empty() ? 0.35 : m_penWidths.back());
}

Point Interpreter::penPosition() const { return pluToPage(m_pen); }

// ---------------------------------------------------------------------------------------------
// Coordinates

void Interpreter::defaultP1P2() {
    const double plotW = (m_frame.plotWidth > 0 ? m_frame.plotWidth : m_frame.width) / kPointsPerPlu;
    const double plotH = (m_frame.plotHeight > 0 ? m_frame.plotHeight : m_frame.height) / kPointsPerPlu;
    const bool turned = m_rotation == 90 || m_rotation == 270;
    m_p1 = {0, 0};
    m_p2 = turned ? Point{plotH, plotW} : Point{plotW, plotH};
}

void Interpreter::updateTransforms() {
    const double plotWpt = m_frame.plotWidth > 0 ? m_frame.plotWidth : m_frame.width;
    const double plotHpt = m_frame.plotHeight > 0 ? m_frame.plotHeight : m_frame.height;
    const double wp = plotWpt / kPointsPerPlu, hp = plotHpt / kPointsPerPlu;
    // Plotter units to frame space: the plot size is stretched onto the frame, y turns down.
    const Matrix toFrame{kPointsPerPlu * m_frame.width / plotWpt, 0, 0,
                         -kPointsPerPlu * m_frame.height / plotHpt, 0, m_frame.height};
    // The rotated coordinate system (RO) to the unrotated one; the origin moves to the corner
    // that keeps the plot on the frame.
    Matrix rot;
    switch (m_rotation) {
    case 90: rot = Matrix{0, 1, -1, 0, wp, 0}; break;
    case 180: rot = Matrix{-1, 0, 0, -1, wp, hp}; break;
    case 270: rot = Matrix{0, -1, 1, 0, 0, hp}; break;
    default: break;
    }
    m_pluToPage = m_frame.frameToPage * toFrame * rot;

    // User scaling (SC) against the current P1/P2.
    m_userToPlu = Matrix{};
    if (m_scaled && m_scale.size() >= 4) {
        const double dx = m_p2.x - m_p1.x, dy = m_p2.y - m_p1.y;
        const int type = m_scale.size() >= 5 ? toInt(m_scale[4]) : 0;
        const double xmin = m_scale[0], ymin = m_scale[2];
        if (type == 2) {
            const double fx = m_scale[1], fy = m_scale[3];
            m_userToPlu = Matrix{fx, 0, 0, fy, m_p1.x - xmin * fx, m_p1.y - ymin * fy};
        } else {
            const double xmax = m_scale[1], ymax = m_scale[3];
            double sx = dx / (xmax - xmin), sy = dy / (ymax - ymin);
            double ox = 0, oy = 0;
            if (type == 1) {
                const double s = std::min(std::fabs(sx), std::fabs(sy));
                sx = std::copysign(s, sx);
                sy = std::copysign(s, sy);
                const double left = m_scale.size() >= 6 ? m_scale[5] : 50;
                const double bottom = m_scale.size() >= 7 ? m_scale[6] : 50;
                ox = (dx - sx * (xmax - xmin)) * std::clamp(left, 0.0, 100.0) / 100.0;
                oy = (dy - sy * (ymax - ymin)) * std::clamp(bottom, 0.0, 100.0) / 100.0;
            }
            m_userToPlu = Matrix{sx, 0, 0, sy, m_p1.x + ox - xmin * sx, m_p1.y + oy - ymin * sy};
        }
        if (!m_userToPlu.inverted())
            m_userToPlu = Matrix{};
    }
    m_clip.reset();
}

Point Interpreter::userToPlu(Point u) const { return clampPlu(m_userToPlu.apply(u)); }
Point Interpreter::userDeltaToPlu(Point u) const { return clampPlu(m_userToPlu.applyVector(u)); }

Point Interpreter::pluToPage(Point p) const { return m_pluToPage.apply(p); }

double Interpreter::pluScaleToPage() const {
    return std::sqrt(std::fabs(m_pluToPage.a * m_pluToPage.d - m_pluToPage.b * m_pluToPage.c));
}

double Interpreter::diagonalPlu() const { return std::hypot(m_p2.x - m_p1.x, m_p2.y - m_p1.y); }

// ---------------------------------------------------------------------------------------------
// Drawing

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
            // Dots (dashes of no length) are drawn as short dashes so that butt ends show them.
            const double dot = std::max(s.width, 0.5);
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
        const Matrix ptd = m_dev.pageToDevice();
        const double pixel = 1.0 / std::max(1e-9, std::sqrt(std::fabs(ptd.a * ptd.d - ptd.b * ptd.c)));
        const double side = std::max(style.width, pixel);
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

// ---------------------------------------------------------------------------------------------
// Pen moves

void Interpreter::moveTo(Point target) {
    target = clampPlu(target);
    if (m_polygonMode) {
        if (m_polygon.empty() || m_polyNewSub) {
            m_polygon.push_back(Subpoly{{m_pen}, false, false});
            m_polyNewSub = false;
        }
        if (!m_penDown) {
            Subpoly& sub = m_polygon.back();
            if (sub.pts.size() <= 1)
                sub.pts = {target};
            else
                m_polygon.push_back(Subpoly{{target}, false, false});
        } else {
            m_polygon.back().pts.push_back(target);
            m_polygon.back().edged = true;
        }
    } else if (m_penDown) {
        if (!m_strokeHasSegments) {
            m_stroke.clear();
            m_stroke.moveTo(pluToPage(m_pen));
        }
        m_stroke.lineTo(pluToPage(target));
        m_strokeHasSegments = true;
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

// ---------------------------------------------------------------------------------------------
// Labels

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

void Interpreter::label(const std::string& text) {
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
    std::u32string line;
    Point start = m_pen;
    auto drawLine = [&] {
        if (!line.empty())
            labelLine(line, start);
        line.clear();
    };
    for (unsigned char c : text) {
        if (c == '\r') {
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
            start = m_pen;
            m_alternateSelected = c == 0x0E;
            if (selectFont() < 0)
                return;
        } else if (c >= 0x20) {
            const Font& f = m_alternateSelected ? m_alternate : m_standard;
            char32_t u = symbolSetToUnicode(static_cast<uint16_t>(std::clamp(f.symbolSet, 0, 65535)), c);
            if (u == 0)
                u = c < 0x80 ? c : U'?';
            line.push_back(u);
        }
    }
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
    const FontMetrics fm = m_fonts->metrics(font);
    const double capEm = fm.capHeight > 0.2 ? fm.capHeight : 0.7;
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
    for (size_t i = 0; i < line.size(); ++i) {
        const char32_t u = line[i];
        if (u != U' ' && inv && render) {
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

// ---------------------------------------------------------------------------------------------
// Instructions

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
            std::string text;
            size_t pos = reader.position();
            while (pos < size && data[pos] != kEsc && data[pos] != m_terminator)
                text.push_back(static_cast<char>(data[pos++]));
            if (pos < size && data[pos] == m_terminator) {
                if (m_terminatorPrinted)
                    text.push_back(static_cast<char>(m_terminator));
                ++pos;
            }
            reader.setPosition(pos);
            flush();
            label(text);
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
        reader.numbers(p);
        execute(a, b, p);
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
    if (is("SD") || is("AD")) {
        Font& f = is("SD") ? m_standard : m_alternate;
        if (p.empty()) {
            f = Font{};
            return;
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
        return;
    }
    if (is("ES")) {
        // Extra space between characters and between lines, in cells and lines.
        m_extraSpace = {std::clamp(at(0, 0), -10.0, 10.0), std::clamp(at(1, 0), -10.0, 10.0)};
        return;
    }
    if (is("SS")) {
        m_alternateSelected = false;
        return;
    }
    if (is("SA")) {
        m_alternateSelected = true;
        return;
    }
    if (is("SI")) {
        m_relativeSize = false;
        if (p.size() >= 2 && p[0] > 0 && p[1] > 0) {
            m_charWidthCm = p[0];
            m_charHeightCm = p[1];
        } else {
            m_charWidthCm = m_charHeightCm = 0;
        }
        return;
    }
    if (is("SR")) {
        m_relativeSize = true;
        m_relWidthPct = p.size() >= 2 ? p[0] : 0.75;
        m_relHeightPct = p.size() >= 2 ? p[1] : 1.5;
        return;
    }
    if (is("DI") || is("DR")) {
        m_directionRelative = is("DR");
        if (p.size() >= 2 && (p[0] != 0 || p[1] != 0))
            m_direction = {p[0], p[1]};
        else
            m_direction = {1, 0};
        return;
    }
    if (is("LO")) {
        const int lo = toInt(at(0, 1));
        m_labelOrigin = (lo >= 1 && lo <= 9) || (lo >= 11 && lo <= 19) || lo == 21 ? lo : 1;
        if (m_labelOrigin == 21)
            m_labelOrigin = 1;
        return;
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
        return;
    }
    // Accepted without effect here: plot size and page advance belong to PCL, the rest changes
    // nothing this engine draws.
    static const char* const kIgnored[] = {"PS", "PG", "RP", "PP", "CF", "DV", "LM",
                                           "QL", "TD", "VS", "FS", "IV", "OI", "OP", "OS", "OE",
                                           "OW", "OH", "OF", "OD", "OA", "OC", "OG", "NR", "AF", "AH",
                                           "PB", "SB", "EC", "FR"};
    for (const char* m : kIgnored)
        if (is(m))
            return;
    warnOnce(std::string("HP-GL/2: instruction ") + a + b + " not supported, skipped");
}

} // namespace qx::hpgl2
