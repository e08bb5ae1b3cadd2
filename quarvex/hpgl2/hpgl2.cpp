#include "hpgl2/hpgl2.h"

#include "common/diagnostics.h"
#include "hpgl2/internal.h"

#include <algorithm>
#include <cmath>

namespace qx::hpgl2 {

using namespace internal;

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
    m_polygonPoints = 0;
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
        m_polygonPoints = 0;
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
    m_transparentData = false;
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

} // namespace qx::hpgl2
