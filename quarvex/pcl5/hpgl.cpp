#include "pcl5/hpgl.h"

#include <algorithm>
#include <cctype>
#include <cmath>

namespace qx::pcl5 {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kDefaultPenMm = 0.35;
constexpr size_t kMaxArgs = 1 << 16;
// Coordinates far outside any sheet are pulled in, so arithmetic stays finite.
constexpr double kMaxCoordinate = 1e8;

bool isNumberStart(uint8_t c) { return (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.'; }
bool isSeparator(uint8_t c) { return c == ' ' || c == ',' || c == '\r' || c == '\n' || c == '\t'; }

double clampCoord(double v) {
    if (!std::isfinite(v))
        return 0;
    return std::clamp(v, -kMaxCoordinate, kMaxCoordinate);
}

// Dash patterns of the fixed line types, in percent of the pattern length (on, off, ...).
const std::vector<double>& dashPattern(int type) {
    static const std::vector<double> k[9] = {
        {},
        {1, 99},
        {50, 50},
        {70, 30},
        {80, 10, 1, 9},
        {70, 10, 10, 10},
        {50, 10, 10, 10, 10, 10},
        {70, 10, 1, 9, 1, 9},
        {50, 10, 1, 9, 10, 10, 1, 9},
    };
    return k[std::clamp(type, 0, 8)];
}

} // namespace

Hpgl::Hpgl(Device& device, Hooks hooks) : m_dev(device), m_hooks(std::move(hooks)) { initialise(); }

void Hpgl::setFrame(const HpglFrame& frame) {
    m_frame = frame;
    const bool turned = m_rotation == 90 || m_rotation == 270;
    m_p1 = {0, 0};
    m_p2 = turned ? Point{frame.heightPlu, frame.widthPlu} : Point{frame.widthPlu, frame.heightPlu};
}

void Hpgl::initialise() {
    m_path.clear();
    m_pen = {0, 0};
    m_penDown = false;
    m_relative = false;
    m_pen_number = 1;
    m_penWidthMm.assign(8, kDefaultPenMm);
    m_widthRelative = false;
    m_rotation = 0;
    m_scaling = false;
    m_lineType = 0;
    m_patternLength = 4;
    m_polygonMode = false;
    m_polygon.clear();
    m_labelTerminator = 0x03;
    // The default label font: fixed 9 pitch, 11.5 point (a stick font, stood in for by a plain
    // monospace face).
    m_labelRequest = FontRequest{};
    m_labelRequest.pitch = 9;
    m_labelRequest.height = 11.5;
    m_labelRequest.typeface = 4102;
    m_labelFont = -1;
    m_charWidthPlu = m_charHeightPlu = 0;
    m_direction = 0;
    setFrame(m_frame);
}

void Hpgl::selectLabelFont() {
    m_labelFont = m_hooks.fonts ? m_hooks.fonts->selectPcl(m_labelRequest) : -1;
}

void Hpgl::label(const uint8_t* text, size_t length) {
    if (!m_hooks.fonts) {
        if (!m_warnedLabel && m_hooks.warn) {
            m_warnedLabel = true;
            m_hooks.warn("PCL 5: no fonts available, HP-GL/2 labels skipped");
        }
        return;
    }
    if (m_labelFont < 0)
        selectLabelFont();
    if (m_labelFont < 0)
        return;
    flushPath();
    const FontLibrary& fonts = *m_hooks.fonts;
    const bool fixed = !fonts.info(m_labelFont).proportional;
    const double fixedAdv = fonts.metrics(m_labelFont).fixedAdvance > 0 ? fonts.metrics(m_labelFont).fixedAdvance : 0.6;
    // The em and the fixed advance in plotter units.
    double em, step;
    if (m_charHeightPlu > 0) {
        em = m_charHeightPlu / 0.7;  // SI gives the capital height
        step = m_charWidthPlu * 1.5; // ... and the character width, the cell being half again wider
    } else if (fixed) {
        step = 1016.0 / std::clamp(m_labelRequest.pitch, 0.1, 200.0);
        em = step / fixedAdv;
    } else {
        em = std::clamp(m_labelRequest.height, 0.25, 999.75) / 72.0 * 1016.0;
        step = 0;
    }
    const Matrix turn = Matrix::rotate(m_direction);
    const Point along = turn.applyVector({1, 0});
    const Point down = turn.applyVector({0, -1});
    const Matrix toDevice = m_dev.pageToDevice() * plotterToPage();
    const double lineStep = (m_charHeightPlu > 0 ? m_charHeightPlu * 2 : em * 1.33);
    m_labelStart = m_pen;
    double lastAdvance = step;
    for (size_t i = 0; i < length; ++i) {
        const uint8_t c = text[i];
        if (c == '\r') {
            m_pen = m_labelStart;
            continue;
        }
        if (c == '\n') {
            m_labelStart = {m_labelStart.x + down.x * lineStep, m_labelStart.y + down.y * lineStep};
            m_pen = {m_pen.x + down.x * lineStep, m_pen.y + down.y * lineStep};
            continue;
        }
        if (c == '\b') {
            m_pen = {m_pen.x - along.x * lastAdvance, m_pen.y - along.y * lastAdvance};
            continue;
        }
        if (c < 0x20)
            continue;
        const char32_t uc = symbolSetToUnicode(m_labelRequest.symbolSet, c);
        double adv = step;
        if (!fixed || step <= 0)
            adv = (uc ? fonts.advance(m_labelFont, uc) : 0) * em;
        if (m_charHeightPlu > 0 && step > 0)
            adv = step;
        if (uc && uc != U' ') {
            const Matrix fontToDevice = toDevice * turn * Matrix::scale(em, em);
            if (auto g = fonts.renderGlyph(m_labelFont, uc, Matrix{fontToDevice.a, fontToDevice.b, fontToDevice.c,
                                                                    fontToDevice.d, 0, 0})) {
                if (g->mask.width > 0 && g->mask.height > 0) {
                    const Point pen = toDevice.apply(m_pen);
                    if (auto inv = m_dev.pageToDevice().inverted()) {
                        mark();
                        m_dev.fillMask(g->mask,
                                       *inv * Matrix::translate(std::round(pen.x) + g->left, std::round(pen.y) + g->top),
                                       penPaint(), m_hooks.renderState ? m_hooks.renderState() : RenderState{});
                    }
                }
            }
        }
        m_pen = {clampCoord(m_pen.x + along.x * adv), clampCoord(m_pen.y + along.y * adv)};
        lastAdvance = adv;
    }
}

Matrix Hpgl::plotterToPage() const {
    const double W = m_frame.widthPlu, H = m_frame.heightPlu;
    Matrix r; // rotated plotter coordinates to frame coordinates
    switch (m_rotation) {
    case 90: r = Matrix{0, 1, -1, 0, W, 0}; break;
    case 180: r = Matrix{-1, 0, 0, -1, W, H}; break;
    case 270: r = Matrix{0, -1, 1, 0, 0, H}; break;
    default: break;
    }
    return m_frame.plotterToPage * r;
}

Point Hpgl::userToPlotter(Point p) const {
    if (!m_scaling)
        return {clampCoord(p.x), clampCoord(p.y)};
    const double dx = m_scale[1] - m_scale[0], dy = m_scale[3] - m_scale[2];
    if (dx == 0 || dy == 0)
        return m_pen;
    return {clampCoord(m_p1.x + (p.x - m_scale[0]) * (m_p2.x - m_p1.x) / dx),
            clampCoord(m_p1.y + (p.y - m_scale[2]) * (m_p2.y - m_p1.y) / dy)};
}

Point Hpgl::plotterDelta(Point d) const {
    if (!m_scaling)
        return {clampCoord(d.x), clampCoord(d.y)};
    const double dx = m_scale[1] - m_scale[0], dy = m_scale[3] - m_scale[2];
    if (dx == 0 || dy == 0)
        return {0, 0};
    return {clampCoord(d.x * (m_p2.x - m_p1.x) / dx), clampCoord(d.y * (m_p2.y - m_p1.y) / dy)};
}

Paint Hpgl::penPaint() const {
    // Pen 0 is white, every other pen black.
    return Paint::solid(m_pen_number == 0 ? Rgb::white() : Rgb::black());
}

StrokeStyle Hpgl::penStyle() const {
    StrokeStyle s;
    const size_t i = static_cast<size_t>(std::clamp(m_pen_number, 0, 7));
    double mm = m_penWidthMm[i];
    if (m_widthRelative) {
        // Relative widths are per mille of the P1-P2 diagonal.
        const double diag = std::hypot(m_p2.x - m_p1.x, m_p2.y - m_p1.y);
        mm = mm / 100.0 * diag * 25.4 / 1016.0;
    }
    s.width = std::max(0.0, mm) * 72.0 / 25.4;
    s.cap = StrokeStyle::Cap::Butt;
    s.join = StrokeStyle::Join::Miter;
    if (m_lineType != 0) {
        const double diag = std::hypot(m_p2.x - m_p1.x, m_p2.y - m_p1.y);
        const double lengthPt = std::max(0.5, m_patternLength / 100.0 * diag * 72.0 / 1016.0);
        for (double pct : dashPattern(std::abs(m_lineType)))
            s.dashes.push_back(pct / 100.0 * lengthPt);
    }
    return s;
}

void Hpgl::mark() {
    if (m_hooks.ensurePage)
        m_hooks.ensurePage();
}

void Hpgl::flushPath() {
    if (m_path.empty())
        return;
    bool hasLine = false;
    for (Path::Op op : m_path.ops())
        if (op != Path::Op::Move)
            hasLine = true;
    if (hasLine) {
        mark();
        m_dev.strokePath(m_path, penStyle(), penPaint(), m_hooks.renderState ? m_hooks.renderState() : RenderState{});
    }
    m_path.clear();
}

void Hpgl::moveTo(Point target, bool relative) {
    const Point next = relative ? Point{clampCoord(m_pen.x + plotterDelta(target).x), clampCoord(m_pen.y + plotterDelta(target).y)}
                                : userToPlotter(target);
    const Matrix m = plotterToPage();
    Path& path = m_polygonMode ? m_polygon : m_path;
    if (m_penDown) {
        if (path.empty())
            path.moveTo(m.apply(m_pen));
        path.lineTo(m.apply(next));
    } else if (m_polygonMode) {
        path.moveTo(m.apply(next));
    } else {
        flushPath();
    }
    m_pen = next;
}

void Hpgl::plot(const std::vector<double>& args, bool relative) {
    for (size_t i = 0; i + 1 < args.size(); i += 2)
        moveTo({args[i], args[i + 1]}, relative);
}

void Hpgl::rectangle(double x, double y, bool relative, bool fill) {
    const Point corner = relative ? Point{m_pen.x + plotterDelta({x, y}).x, m_pen.y + plotterDelta({x, y}).y}
                                  : userToPlotter({x, y});
    const Matrix m = plotterToPage();
    Path p;
    p.moveTo(m.apply(m_pen));
    p.lineTo(m.apply({corner.x, m_pen.y}));
    p.lineTo(m.apply(corner));
    p.lineTo(m.apply({m_pen.x, corner.y}));
    p.close();
    if (m_polygonMode) {
        m_polygon.append(p);
        return;
    }
    flushPath();
    mark();
    const RenderState rs = m_hooks.renderState ? m_hooks.renderState() : RenderState{};
    if (fill)
        m_dev.fillPath(p, FillRule::NonZero, penPaint(), rs);
    else
        m_dev.strokePath(p, penStyle(), penPaint(), rs);
}

void Hpgl::circle(double radius) {
    const double r = std::abs(plotterDelta({radius, 0}).x);
    if (!(r > 0))
        return;
    const Matrix m = plotterToPage();
    Path p;
    const double k = 0.5522847498 * r;
    const Point c = m_pen;
    p.moveTo(m.apply({c.x + r, c.y}));
    p.curveTo(m.apply({c.x + r, c.y + k}), m.apply({c.x + k, c.y + r}), m.apply({c.x, c.y + r}));
    p.curveTo(m.apply({c.x - k, c.y + r}), m.apply({c.x - r, c.y + k}), m.apply({c.x - r, c.y}));
    p.curveTo(m.apply({c.x - r, c.y - k}), m.apply({c.x - k, c.y - r}), m.apply({c.x, c.y - r}));
    p.curveTo(m.apply({c.x + k, c.y - r}), m.apply({c.x + r, c.y - k}), m.apply({c.x + r, c.y}));
    p.close();
    if (m_polygonMode) {
        m_polygon.append(p);
        return;
    }
    flushPath();
    mark();
    m_dev.strokePath(p, penStyle(), penPaint(), m_hooks.renderState ? m_hooks.renderState() : RenderState{});
}

void Hpgl::arc(Point centre, double sweep) {
    sweep = std::clamp(sweep, -360.0, 360.0);
    const double dx = m_pen.x - centre.x, dy = m_pen.y - centre.y;
    const double r = std::hypot(dx, dy);
    const double start = std::atan2(dy, dx);
    const int steps = std::max(1, static_cast<int>(std::ceil(std::abs(sweep) / 5.0)));
    const double step = sweep * kPi / 180.0 / steps;
    for (int i = 1; i <= steps; ++i) {
        const double a = start + step * i;
        const Point p{centre.x + r * std::cos(a), centre.y + r * std::sin(a)};
        const Matrix m = plotterToPage();
        Path& path = m_polygonMode ? m_polygon : m_path;
        if (m_penDown) {
            if (path.empty())
                path.moveTo(m.apply(m_pen));
            path.lineTo(m.apply(p));
        }
        m_pen = p;
    }
    if (!m_penDown && !m_polygonMode)
        flushPath();
}

void Hpgl::command(char a, char b, const std::vector<double>& args) {
    const auto arg = [&](size_t i, double fallback) { return i < args.size() ? args[i] : fallback; };
    const std::string mn{a, b};
    if (mn == "IN") {
        flushPath();
        initialise();
    } else if (mn == "DF") {
        flushPath();
        m_relative = false;
        m_scaling = false;
        m_lineType = 0;
        m_polygonMode = false;
        m_polygon.clear();
    } else if (mn == "SP") {
        flushPath();
        m_pen_number = static_cast<int>(std::clamp(arg(0, 0), 0.0, 255.0));
    } else if (mn == "PW") {
        flushPath();
        const double w = std::clamp(arg(0, kDefaultPenMm), 0.0, 100.0);
        if (args.size() >= 2) {
            const int pen = static_cast<int>(std::clamp(args[1], 0.0, 7.0));
            m_penWidthMm[static_cast<size_t>(pen)] = w;
        } else {
            std::fill(m_penWidthMm.begin(), m_penWidthMm.end(), w);
        }
    } else if (mn == "WU") {
        flushPath();
        m_widthRelative = arg(0, 0) == 1;
        std::fill(m_penWidthMm.begin(), m_penWidthMm.end(), m_widthRelative ? 0.1 : kDefaultPenMm);
    } else if (mn == "LT") {
        flushPath();
        m_lineType = args.empty() ? 0 : static_cast<int>(std::clamp(args[0], -8.0, 8.0));
        if (args.size() >= 2 && args[1] > 0)
            m_patternLength = std::min(args[1], 100.0);
    } else if (mn == "RO") {
        flushPath();
        const int r = static_cast<int>(std::lround(arg(0, 0))) % 360;
        m_rotation = (r == 90 || r == 180 || r == 270) ? r : 0;
        setFrame(m_frame);
    } else if (mn == "IP") {
        if (args.size() >= 4) {
            m_p1 = {clampCoord(args[0]), clampCoord(args[1])};
            m_p2 = {clampCoord(args[2]), clampCoord(args[3])};
        } else if (args.size() >= 2) {
            const Point d{m_p2.x - m_p1.x, m_p2.y - m_p1.y};
            m_p1 = {clampCoord(args[0]), clampCoord(args[1])};
            m_p2 = {m_p1.x + d.x, m_p1.y + d.y};
        } else {
            setFrame(m_frame);
        }
    } else if (mn == "SC") {
        if (args.size() >= 4) {
            for (int i = 0; i < 4; ++i)
                m_scale[i] = clampCoord(args[static_cast<size_t>(i)]);
            m_scaling = true;
        } else {
            m_scaling = false;
        }
    } else if (mn == "PA") {
        m_relative = false;
        plot(args, false);
    } else if (mn == "PR") {
        m_relative = true;
        plot(args, true);
    } else if (mn == "PU") {
        m_penDown = false;
        if (!m_polygonMode)
            flushPath();
        plot(args, m_relative);
    } else if (mn == "PD") {
        m_penDown = true;
        plot(args, m_relative);
    } else if (mn == "CI") {
        circle(arg(0, 0));
    } else if (mn == "AA" || mn == "AR") {
        if (args.size() >= 3) {
            Point c = mn == "AA" ? userToPlotter({args[0], args[1]})
                                 : Point{m_pen.x + plotterDelta({args[0], args[1]}).x,
                                         m_pen.y + plotterDelta({args[0], args[1]}).y};
            arc(c, args[2]);
        }
    } else if (mn == "EA" || mn == "ER" || mn == "RA" || mn == "RR") {
        if (args.size() >= 2)
            rectangle(args[0], args[1], b == 'R', a == 'R');
    } else if (mn == "PM") {
        const int op = static_cast<int>(arg(0, 0));
        if (op == 0) {
            flushPath();
            m_polygonMode = true;
            m_polygon.clear();
            m_polygon.moveTo(plotterToPage().apply(m_pen));
        } else if (op == 1) {
            m_polygon.close();
        } else if (op == 2) {
            m_polygonMode = false;
        }
    } else if (mn == "FP" || mn == "EP") {
        if (!m_polygon.empty()) {
            mark();
            const RenderState rs = m_hooks.renderState ? m_hooks.renderState() : RenderState{};
            if (mn == "FP")
                m_dev.fillPath(m_polygon, arg(0, 0) == 1 ? FillRule::NonZero : FillRule::EvenOdd, penPaint(), rs);
            else
                m_dev.strokePath(m_polygon, penStyle(), penPaint(), rs);
        }
    } else if (mn == "SD" || mn == "AD") {
        // Font definition: kind, value pairs.
        for (size_t i = 0; i + 1 < args.size(); i += 2) {
            const int kind = static_cast<int>(args[i]);
            const double v = args[i + 1];
            switch (kind) {
            case 1: m_labelRequest.symbolSet = static_cast<uint16_t>(std::clamp(v, 0.0, 65535.0)); break;
            case 2: m_labelRequest.proportional = v == 1; break;
            case 3: if (v > 0) m_labelRequest.pitch = std::min(v, 999.0); break;
            case 4: if (v > 0) m_labelRequest.height = std::min(v, 999.0); break;
            case 5: m_labelRequest.style = static_cast<int>(std::clamp(v, 0.0, 32767.0)); break;
            case 6: m_labelRequest.weight = static_cast<int>(std::clamp(v, -7.0, 9999.0)); break;
            case 7: m_labelRequest.typeface = static_cast<int>(std::clamp(v, 0.0, 65535.0)); break;
            default: break;
            }
        }
        if (m_labelRequest.typeface == 48)
            m_labelRequest.typeface = 4102; // the stick font
        selectLabelFont();
    } else if (mn == "SI") {
        // Absolute character size in centimetres (400 plotter units each).
        if (args.size() >= 2 && args[0] > 0 && args[1] > 0) {
            m_charWidthPlu = std::min(args[0], 1000.0) * 400;
            m_charHeightPlu = std::min(args[1], 1000.0) * 400;
        } else {
            m_charWidthPlu = m_charHeightPlu = 0;
        }
    } else if (mn == "SR") {
        // Relative size: percent of the P1-P2 distances.
        const double w = arg(0, 0.75), h = arg(1, 1.5);
        if (w > 0 && h > 0) {
            m_charWidthPlu = std::abs(m_p2.x - m_p1.x) * std::min(w, 100.0) / 100.0;
            m_charHeightPlu = std::abs(m_p2.y - m_p1.y) * std::min(h, 100.0) / 100.0;
        }
    } else if (mn == "DI" || mn == "DR") {
        const double run = arg(0, 1), rise = arg(1, 0);
        m_direction = (run == 0 && rise == 0) ? 0 : std::atan2(rise, run);
    } else if (mn == "CP") {
        if (m_labelFont < 0)
            selectLabelFont();
        const double em = m_charHeightPlu > 0 ? m_charHeightPlu / 0.7 : m_labelRequest.height / 72.0 * 1016.0;
        const double step = m_charWidthPlu > 0 ? m_charWidthPlu * 1.5 : 1016.0 / std::max(0.1, m_labelRequest.pitch);
        const Matrix turn = Matrix::rotate(m_direction);
        const Point along = turn.applyVector({1, 0}), down = turn.applyVector({0, -1});
        if (args.size() >= 2) {
            const double sx = std::clamp(args[0], -1000.0, 1000.0) * step;
            const double ly = std::clamp(args[1], -1000.0, 1000.0) * em * 1.33;
            m_pen = {clampCoord(m_pen.x + along.x * sx - down.x * ly), clampCoord(m_pen.y + along.y * sx - down.y * ly)};
        } else {
            m_pen = {m_labelStart.x + down.x * em * 1.33, m_labelStart.y + down.y * em * 1.33};
            m_labelStart = m_pen;
        }
    } else if (mn == "DT") {
        // The label terminator is read by the parser itself.
    } else if (mn == "WG" || mn == "EW" || mn == "PE" || mn == "BR" || mn == "BZ" || mn == "RF" || mn == "FT") {
        if (m_hooks.warn)
            m_hooks.warn("PCL 5: HP-GL/2 command " + mn + " not supported, skipped");
    }
    // Everything else (character sizes, plot settings, comments) does not change what is drawn here.
}

size_t Hpgl::run(const uint8_t* data, size_t pos, size_t size) {
    std::vector<double> args;
    while (pos < size) {
        const uint8_t c = data[pos];
        if (c == 0x1B) {
            flushPath();
            return pos;
        }
        if (!std::isalpha(c)) {
            ++pos;
            continue;
        }
        if (pos + 1 >= size) {
            pos = size;
            break;
        }
        const uint8_t c2 = data[pos + 1];
        if (c2 == 0x1B) {
            ++pos;
            continue;
        }
        const char a = static_cast<char>(std::toupper(c));
        const char b = static_cast<char>(std::toupper(c2));
        pos += 2;
        if (a == 'L' && b == 'B') {
            // A label runs to its terminator.
            const size_t start = pos;
            while (pos < size && data[pos] != m_labelTerminator && data[pos] != 0x1B)
                ++pos;
            label(data + start, pos - start);
            if (pos < size && data[pos] == m_labelTerminator)
                ++pos;
            continue;
        }
        if (a == 'D' && b == 'T') {
            if (pos < size && data[pos] != ';' && data[pos] != 0x1B)
                m_labelTerminator = data[pos++];
            continue;
        }
        if ((a == 'P' && b == 'E') || (a == 'C' && b == 'O')) {
            // Encoded polylines and comments: skipped to their end.
            const uint8_t end = a == 'C' ? '"' : ';';
            if (a == 'C') {
                while (pos < size && data[pos] != '"' && data[pos] != 0x1B)
                    ++pos;
                if (pos < size && data[pos] == '"')
                    ++pos;
            }
            while (pos < size && data[pos] != end && data[pos] != 0x1B)
                ++pos;
            if (pos < size && data[pos] == end)
                ++pos;
            if (a == 'P')
                command(a, b, {});
            continue;
        }
        args.clear();
        for (;;) {
            while (pos < size && isSeparator(data[pos]))
                ++pos;
            if (pos >= size || !isNumberStart(data[pos]))
                break;
            const size_t start = pos;
            double sign = 1;
            if (data[pos] == '+' || data[pos] == '-')
                sign = data[pos++] == '-' ? -1 : 1;
            double v = 0;
            bool digits = false;
            while (pos < size && std::isdigit(data[pos])) {
                if (v < 1e15)
                    v = v * 10 + (data[pos] - '0');
                ++pos;
                digits = true;
            }
            if (pos < size && data[pos] == '.') {
                ++pos;
                double scale = 0.1;
                while (pos < size && std::isdigit(data[pos])) {
                    v += (data[pos] - '0') * scale;
                    scale *= 0.1;
                    ++pos;
                    digits = true;
                }
            }
            if (!digits && pos == start + 1 && start + 1 <= size) {
                // A lone sign: nothing.
            }
            args.push_back(sign * v);
            if (args.size() >= kMaxArgs) {
                // Very long coordinate lists are handed on in pieces.
                command(a, b, args);
                args.clear();
            }
        }
        if (pos < size && data[pos] == ';')
            ++pos;
        command(a, b, args);
    }
    flushPath();
    return pos;
}

} // namespace qx::pcl5
