// PCL 5 page and cursor model: paper size and orientation, the logical page on the sheet, print
// direction, margins and text length, cursor positioning, and when a page starts and ends.
#include "pcl5/interpreter.h"
#include "pcl5/units.h"

#include <algorithm>
#include <cmath>

namespace qx::pcl5 {

namespace {
constexpr size_t kMaxCursorStack = 20;
} // namespace

void Interpreter::applyPageSetup(const PaperSize& paper, int orientation) {
    m_paper = paper;
    m_orientation = orientation & 3;
    const bool landscape = (m_orientation & 1) != 0;
    const double w = paper.widthPt * kUnitsPerPoint;
    const double h = paper.heightPt * kUnitsPerPoint;
    m_sheetWidth = landscape ? h : w;
    m_sheetHeight = landscape ? w : h;
    m_offsetX = logicalPageOffset(paper, landscape);
    m_logicalWidth = std::max(0.0, m_sheetWidth - 2 * m_offsetX);
    m_logicalHeight = m_sheetHeight;
    m_direction = 0;
    defaultTextArea();
    updatePictureFrame();
}

void Interpreter::defaultTextArea() {
    // Form lines from PJL give the VMI that fits them between half-inch margins.
    if (m_ctx.pjl.formLines > 0 && m_ctx.pjl.formLines <= 128)
        m_vmi = (m_logicalHeight - kUnitsPerInch) / m_ctx.pjl.formLines;
    else
        m_vmi = kUnitsPerInch / 6;
    m_topMargin = kUnitsPerInch / 2;
    m_textLength = m_vmi > 0 ? static_cast<int>((m_logicalHeight - kUnitsPerInch) / m_vmi + 1e-6) : 0;
    m_leftMargin = 0;
    m_rightMargin = m_logicalWidth;
    selectFont(m_primary);
    selectFont(m_secondary);
    m_hmi = currentFont().hmi;
    m_x = m_leftMargin;
    m_y = firstBaseline();
}

double Interpreter::firstBaseline() const { return m_topMargin + 0.75 * m_vmi; }

void Interpreter::setPaper(int code) {
    auto paper = paperByCode(code);
    if (!paper) {
        warnOnce("PCL 5: unknown page size " + std::to_string(code) + " ignored");
        return;
    }
    // The custom size takes the width and length given before it (ESC&f#I, ESC&f#J); without
    // them it stays the table's.
    if (paper->code == kCustomPaperCode) {
        if (m_customWidthPt > 0)
            paper->widthPt = m_customWidthPt;
        if (m_customHeightPt > 0)
            paper->heightPt = m_customHeightPt;
    }
    // Selecting the size already in use changes nothing: the page goes on.
    if (paper->code == m_paper.code && paper->widthPt == m_paper.widthPt && paper->heightPt == m_paper.heightPt)
        return;
    ejectPage();
    applyPageSetup(*paper, m_orientation);
}

void Interpreter::setCustomPaperDimension(char which, double decipoints) {
    // Decipoints, within what a sheet can be (1 to 100 inches); other values are ignored.
    if (!(decipoints >= 720 && decipoints <= 72000))
        return;
    (which == 'I' ? m_customWidthPt : m_customHeightPt) = decipoints / 10;
}

void Interpreter::setOrientation(int orientation) {
    // An orientation repeating the current one is ignored (it neither ejects nor resets).
    if (orientation < 0 || orientation > 3 || orientation == m_orientation)
        return;
    ejectPage();
    applyPageSetup(m_paper, orientation);
}

Matrix Interpreter::quarterTurnFrame(int quarterTurns) const {
    const double W = m_logicalWidth, H = m_logicalHeight;
    switch (quarterTurns & 3) {
    case 1: return Matrix{0, -1, 1, 0, 0, H};   // text runs up the page
    case 2: return Matrix{-1, 0, 0, -1, W, H};  // upside down
    case 3: return Matrix{0, 1, -1, 0, W, 0};   // text runs down the page
    default: return Matrix{};
    }
}

void Interpreter::setPrintDirection(int quarterTurns) {
    quarterTurns &= 3;
    if (quarterTurns == m_direction)
        return;
    if (m_underline)
        drawUnderline();
    // Raster graphics in progress end at a change of direction.
    if (m_raster.active)
        endRaster();
    // The cursor keeps its place on the page, and the text area (margins and text length) turns
    // with the frame: at a quarter turn the left margin becomes the top margin, the top margin
    // the right margin, the bottom of the text area the left margin, and the right margin the
    // bottom of the text area.
    const Matrix oldToLogical = frameToLogical();
    const Point logical = oldToLogical.apply({m_x, m_y});
    const double bottom = m_topMargin + (m_textLength > 0 ? m_textLength * m_vmi : frameHeight() - m_topMargin);
    const Point a = oldToLogical.apply({m_leftMargin, m_topMargin});
    const Point b = oldToLogical.apply({m_rightMargin, bottom});
    m_direction = quarterTurns;
    if (auto inv = frameToLogical().inverted()) {
        const Point p = inv->apply(logical);
        m_x = p.x;
        m_y = p.y;
        const Point na = inv->apply(a), nb = inv->apply(b);
        m_leftMargin = std::max(0.0, std::min(na.x, nb.x));
        m_rightMargin = std::min(frameWidth(), std::max(na.x, nb.x));
        m_topMargin = std::max(0.0, std::min(na.y, nb.y));
        const double height = std::max(na.y, nb.y) - m_topMargin;
        m_textLength = m_vmi > 0 ? std::max(0, static_cast<int>(height / m_vmi + 1e-6)) : 0;
    }
    if (m_underline)
        startUnderline();
}

Matrix Interpreter::logicalToPage() const {
    // Logical units to page points on the oriented sheet; orientations 2 and 3 turn the logical
    // page half a turn.
    const double s = 1.0 / kUnitsPerPoint;
    const Point reg = registrationShift();
    if (m_orientation >= 2) {
        const double W = m_sheetWidth * s, H = m_sheetHeight * s;
        return Matrix{-s, 0, 0, -s, W - m_offsetX * s + reg.x, H + reg.y};
    }
    return Matrix{s, 0, 0, s, m_offsetX * s + reg.x, reg.y};
}

Point Interpreter::registrationShift() const {
    // The left offset moves the logical page across the width of the physical sheet (to the
    // right when positive), the top offset along its length (down when positive), whatever the
    // orientation. On the back of a sheet the offset along the binding edge works the other way
    // round (long-edge binding: the left offset; short-edge binding: the top offset), so that a
    // driver's mirrored values put both sides in the same place.
    const double s = 1.0 / kUnitsPerPoint;
    const double across = (m_backSide && m_duplex == 1 ? -m_regLeft : m_regLeft) * s;
    const double along = (m_backSide && m_duplex == 2 ? -m_regTop : m_regTop) * s;
    // A landscape page is the sheet turned a quarter turn clockwise for reading: the sheet's
    // width runs down the page and its length from right to left.
    if (m_orientation & 1)
        return {-along, across};
    return {across, along};
}

// ---------------------------------------------------------------------------------------------
// Pages

void Interpreter::ensurePage() {
    if (m_pageOpen)
        return;
    PageSpec spec;
    spec.widthPt = m_sheetWidth / kUnitsPerPoint;
    spec.heightPt = m_sheetHeight / kUnitsPerPoint;
    if (m_ctx.pjl.resolution > 0) {
        spec.declaredDpiX = spec.declaredDpiY = m_ctx.pjl.resolution;
    } else {
        // The unit of measure and the raster resolution say what the job was made for; finer
        // units than 1200 a inch are only a coordinate grid.
        double dpi = m_rasterResolution > 300 ? m_rasterResolution : 0;
        if (m_unitsPerInch != 300 && m_unitsPerInch <= 1200)
            dpi = std::max(dpi, m_unitsPerInch);
        if (dpi > 0)
            spec.declaredDpiX = spec.declaredDpiY = dpi;
    }
    m_dev.beginPage(spec);
    m_pageOpen = true;
}

void Interpreter::closePage() {
    if (m_underline)
        drawUnderline();
    if (m_pageOpen) {
        if (m_overlayId >= 0)
            runOverlay();
        m_dev.endPage();
        m_pageOpen = false;
        // The next page of a duplex job goes on the other side of the sheet.
        if (m_duplex != 0)
            m_backSide = !m_backSide;
    }
}

void Interpreter::ejectPage() {
    if (m_inOverlay)
        return; // an overlay draws on the page being printed; it cannot print one itself
    if (m_raster.active)
        flushStrip();
    closePage();
    m_x = m_leftMargin;
    m_y = firstBaseline();
    if (m_raster.active) {
        m_raster.y = cursorInRaster().y;
        m_raster.placed = false;
    }
    if (m_underline)
        startUnderline();
}

void Interpreter::carriageReturn() {
    if (m_underline)
        drawUnderline();
    m_x = m_leftMargin;
    if (m_underline)
        startUnderline();
}

void Interpreter::lineFeed() {
    if (m_underline)
        drawUnderline();
    m_y += m_vmi;
    // Perforation skip: past the text area's bottom, go on to the next page.
    if (m_perfSkip && m_vmi > 0) {
        const double bottom = m_topMargin + m_textLength * m_vmi;
        if (m_y > bottom + 0.75 * m_vmi + 1e-6 && m_textLength > 0) {
            const double x = m_x;
            formFeed();
            m_x = x;
        }
    }
    if (m_y > kMaxPosition)
        m_y = kMaxPosition;
    if (m_underline)
        startUnderline();
}

void Interpreter::formFeed() {
    // A form feed always ends the sheet that has been started; an untouched one stays unprinted.
    ejectPage();
}

// ---------------------------------------------------------------------------------------------
// Commands

void Interpreter::pageCommand(const Command& cmd) {
    const double v = cmd.value;
    const int iv = cmd.intValue();
    switch (cmd.final) {
    case 'A': setPaper(iv); break;
    case 'O': setOrientation(iv); break;
    case 'E': // top margin in lines; the default picture frame hangs from it
        // Ignored at a VMI of 0 or past the logical page's length.
        if (iv >= 0 && m_vmi > 0 && m_vmi * iv < m_logicalHeight) {
            // The floating cursor: on a page nothing has marked yet, a cursor still at its first
            // position moves down (or up) with the top margin.
            const bool floating = !m_pageOpen && m_x == m_leftMargin && m_y == firstBaseline();
            m_topMargin = iv * m_vmi;
            if (floating)
                m_y = firstBaseline();
            m_textLength = m_vmi > 0 ? static_cast<int>((m_logicalHeight - m_topMargin - kUnitsPerInch / 2) / m_vmi) : 0;
            updatePictureFrame();
        }
        break;
    case 'F':
        if (iv >= 0 && m_vmi * iv <= m_logicalHeight) {
            m_textLength = iv;
            updatePictureFrame();
        }
        break;
    case 'D':
        if (v == 0 || v == 1 || v == 2 || v == 3 || v == 4 || v == 6 || v == 8 || v == 12 || v == 16 ||
            v == 24 || v == 48)
            m_vmi = v == 0 ? 0 : kUnitsPerInch / v;
        break;
    case 'C':
        if (v >= 0 && v <= 336)
            m_vmi = v * kUnitsPerInch / 48;
        break;
    case 'L': m_perfSkip = iv != 0; break;
    case 'U': m_regLeft = std::clamp(v, -32767.0, 32767.0) * kDecipoint; break;
    case 'Z': m_regTop = std::clamp(v, -32767.0, 32767.0) * kDecipoint; break;
    case 'P': break; // page length in lines: the paper decides here
    case 'H': // paper source: the started sheet goes out first (0 only ejects it)
        ejectPage();
        break;
    case 'S': // simplex / duplex: the started sheet goes out; the next page is a front side
        ejectPage();
        if (iv >= 0 && iv <= 2) {
            m_duplex = iv;
            m_backSide = false;
        }
        break;
    case 'X': case 'G': case 'M': case 'T': break; // copies, bins, media type, job separation
    default: break;
    }
}

void Interpreter::cursorCommand(const Command& cmd) {
    const uint8_t p = cmd.parameter, g = cmd.group, f = cmd.final;
    const double v = cmd.value;
    const int iv = cmd.intValue();
    const bool relative = cmd.sign != 0;
    // A move past the logical page's edge stops at the edge.
    const auto toX = [this](double x) { return std::clamp(x, 0.0, frameWidth()); };
    const auto toY = [this](double y) { return std::clamp(y, 0.0, frameHeight()); };
    if (p == '&' && g == 'a') {
        switch (f) {
        case 'R': {
            const double dy = v * m_vmi;
            m_y = toY(relative ? m_y + dy : m_topMargin + 0.75 * m_vmi + dy);
            break;
        }
        case 'C': {
            const double dx = v * m_hmi;
            m_x = toX(relative ? m_x + dx : m_leftMargin + dx);
            break;
        }
        case 'H': m_x = toX(relative ? m_x + v * kDecipoint : v * kDecipoint); break;
        case 'V': m_y = toY(relative ? m_y + v * kDecipoint : m_topMargin + v * kDecipoint); break;
        case 'L':
            if (iv >= 0 && iv * m_hmi < m_rightMargin)
                m_leftMargin = iv * m_hmi;
            break;
        case 'M':
            if (iv >= 0 && (iv + 1) * m_hmi > m_leftMargin)
                m_rightMargin = std::min(frameWidth(), (iv + 1) * m_hmi);
            break;
        case 'P':
            if (iv == 0 || iv == 90 || iv == 180 || iv == 270)
                setPrintDirection(iv / 90);
            break;
        case 'G': // duplex page side: 0 the next side, 1 the front, 2 the back
            ejectPage();
            if (m_duplex != 0 && (iv == 1 || iv == 2))
                m_backSide = iv == 2;
            break;
        default: break;
        }
        return;
    }
    if (p == '&' && g == 'f' && f == 'S') {
        // The stack keeps places on the logical page: a position pushed in one print direction
        // pops to the same place in another.
        if (iv == 0) {
            if (m_cursorStack.size() < kMaxCursorStack) {
                const Point at = frameToLogical().apply({m_x, m_y});
                m_cursorStack.emplace_back(at.x, at.y);
            }
        } else if (iv == 1 && !m_cursorStack.empty()) {
            if (auto inv = frameToLogical().inverted()) {
                const Point at = inv->apply({m_cursorStack.back().first, m_cursorStack.back().second});
                m_x = at.x;
                m_y = at.y;
            }
            m_cursorStack.pop_back();
        }
        return;
    }
    if (p == '&' && g == 'u' && f == 'D') {
        // Printers list 96 to 7200 units an inch, but drivers for low resolutions send their
        // own (75 for a 75-dpi job) and place everything in those units: take any whole
        // positive count up to 7200.
        if (v >= 1 && v <= 7200)
            m_unitsPerInch = std::floor(v);
        return;
    }
    if (p == '*' && g == 'p') {
        const double unit = kUnitsPerInch / m_unitsPerInch;
        // Raster rows move the cursor down as they are printed: a relative move inside a raster
        // block counts from the row after the last one sent, not from where the block began.
        if (m_raster.active && m_raster.direction == m_direction)
            m_y = m_raster.y;
        if (f == 'X')
            m_x = toX(relative ? m_x + v * unit : v * unit);
        else if (f == 'Y')
            m_y = toY(relative ? m_y + v * unit : m_topMargin + v * unit);
        else if (f == 'R' && (iv == 0 || iv == 1)) {
            // The pattern reference point goes to the cursor; 0 turns the patterns with the
            // print direction, 1 keeps them as the logical page has them.
            const Point ref = frameToLogical().apply({m_x, m_y});
            m_patternRefX = ref.x;
            m_patternRefY = ref.y;
            m_patternRotates = iv == 0;
        }
        if (m_raster.active && (f == 'X' || f == 'Y')) {
            // Moving the cursor inside a raster block restarts the rows there.
            flushStrip();
            m_raster.y = cursorInRaster().y;
            m_raster.placed = false;
        }
    }
}

} // namespace qx::pcl5
