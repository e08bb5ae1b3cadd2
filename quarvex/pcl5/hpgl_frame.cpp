// HP-GL/2 inside PCL 5: the picture frame and plot size, entering and leaving HP-GL/2 with the
// pen and the PCL cursor, and the PCL patterns HP-GL/2 fills may use.
#include "pcl5/interpreter.h"
#include "pcl5/units.h"

#include <algorithm>

namespace qx::pcl5 {


hpgl2::PictureFrame Interpreter::pictureFrame() const {
    // The default picture frame is the logical page's width by the text length, from the left
    // edge at the top margin.
    const double w = m_frameWidth > 0 ? m_frameWidth : m_logicalWidth;
    double h = m_frameHeight;
    if (h <= 0)
        h = m_textLength > 0 && m_vmi > 0 ? m_textLength * m_vmi : m_logicalHeight - kUnitsPerInch;
    if (h <= 0)
        h = m_logicalHeight;
    const double ax = m_frameAnchorX;
    const double ay = m_frameAnchorY >= 0 ? m_frameAnchorY : m_topMargin;
    hpgl2::PictureFrame f;
    f.frameToPage = logicalToPage() * Matrix::translate(ax, ay) * Matrix::scale(kUnitsPerPoint, kUnitsPerPoint);
    f.width = w / kUnitsPerPoint;
    f.height = h / kUnitsPerPoint;
    f.plotWidth = m_plotWidth;
    f.plotHeight = m_plotHeight;
    return f;
}

void Interpreter::updatePictureFrame() {
    if (m_gl)
        m_gl->setPictureFrame(pictureFrame());
}

std::optional<Paint> Interpreter::GlHost::pclPattern(int fillType, int id) const {
    if (fillType == 21)
        return m_pcl.paintForPattern(3, std::clamp(id, 1, 6));
    if (fillType == 22 && m_pcl.m_userPatterns.count(id))
        return m_pcl.paintForPattern(4, id);
    return std::nullopt;
}

void Interpreter::enterHpgl(int mode) {
    if (m_raster.active)
        endRaster();
    if (!m_gl) {
        m_gl = std::make_unique<hpgl2::Interpreter>(m_dev, m_ctx.diag, m_fonts, &m_glHost);
        m_gl->setPictureFrame(pictureFrame());
    }
    m_inHpgl = true;
    // ESC%1B: the pen starts at the PCL cursor.
    if (mode == 1 || mode == 3)
        m_gl->enterMode(textToPage().apply({m_x, m_y}));
    else
        m_gl->enterMode(std::nullopt);
}

void Interpreter::leaveHpgl(int mode) {
    if (!m_inHpgl)
        return;
    m_inHpgl = false;
    if (mode == 1 && m_gl) {
        // ESC%1A: the PCL cursor moves to the pen.
        if (auto inv = textToPage().inverted()) {
            const Point p = inv->apply(m_gl->penPosition());
            m_x = clampPos(p.x);
            m_y = clampPos(p.y);
        }
    }
}

void Interpreter::pictureFrameCommand(const Command& cmd) {
    const double v = cmd.value;
    const int iv = cmd.intValue();
    switch (cmd.final) {
    case 'X':
        m_frameWidth = std::clamp(v, 0.0, 1e6) * kDecipoint;
        updatePictureFrame();
        break;
    case 'Y':
        m_frameHeight = std::clamp(v, 0.0, 1e6) * kDecipoint;
        updatePictureFrame();
        break;
    case 'T':
        if (iv == 0) {
            m_frameAnchorX = m_x;
            m_frameAnchorY = std::max(0.0, m_y);
            updatePictureFrame();
        }
        break;
    case 'K': // plot size, inches
        m_plotWidth = std::clamp(v, 0.0, 1000.0) * 72;
        updatePictureFrame();
        break;
    case 'L':
        m_plotHeight = std::clamp(v, 0.0, 1000.0) * 72;
        updatePictureFrame();
        break;
    default: break;
    }
}

} // namespace qx::pcl5
