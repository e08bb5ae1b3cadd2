// PCL 5 rectangles and patterns: rectangle size and fill, the current pattern (shading,
// cross-hatch, user-defined), user pattern downloads, pattern transparency and reference point,
// source transparency and the raster operation.
#include "pcl5/interpreter.h"
#include "pcl5/patterns.h"
#include "pcl5/units.h"

#include <algorithm>
#include <cmath>

namespace qx::pcl5 {


RenderState Interpreter::renderState() const {
    RenderState rs;
    rs.rop3 = m_rop;
    rs.sourceTransparent = m_sourceTransparent;
    rs.patternTransparent = m_patternTransparent;
    return rs;
}

double Interpreter::deviceDpi() const {
    if (!m_pageOpen)
        return 300;
    const Matrix m = m_dev.pageToDevice();
    const double dpi = std::hypot(m.a, m.b) * 72;
    return dpi > 0 ? dpi : 300;
}

std::shared_ptr<PatternTile> Interpreter::placeTile(std::shared_ptr<PatternTile> tile, double unitsX, double unitsY) const {
    // The tile starts at the pattern reference point, put on a device pixel so that every pixel
    // of the output takes exactly one pixel of the tile, and turns with the print direction
    // unless the reference point was set to keep it fixed.
    const Matrix toPage = logicalToPage();
    Point ref{m_patternRefX, m_patternRefY};
    if (m_pageOpen) {
        const Matrix toDevice = m_dev.pageToDevice() * toPage;
        const Point d = toDevice.apply(ref);
        if (auto back = toDevice.inverted())
            ref = back->apply({snapToDot(d.x), snapToDot(d.y)});
    }
    Matrix turn;
    if (m_patternRotates) {
        const Matrix f = frameToLogical();
        turn = Matrix{f.a, f.b, f.c, f.d, 0, 0};
    }
    tile->tileToPage = toPage * Matrix::translate(ref.x, ref.y) * turn * Matrix::scale(unitsX, unitsY);
    return tile;
}

Paint Interpreter::paintForPattern(int type, int id) const {
    switch (type) {
    case 0: return Paint::solid(m_foregroundRgb);
    case 1: return Paint::solid(Rgb::white());
    case 2: {
        if (id <= 0)
            return Paint::solid(Rgb::white());
        if (id >= 100)
            return Paint::solid(m_foregroundRgb);
        const double units = patternPixelUnits(deviceDpi());
        return Paint::tiled(placeTile(shadingTile(id), units, units));
    }
    case 3: {
        // Cross-hatch lines are two 300 dpi dots wide, 16 dots apart; below 300 dpi they are
        // drawn on the output's own pixels at the same spacing, at least a pixel wide.
        const double dpi = deviceDpi();
        const int spacing = dpi >= 300 ? 16 : std::max(4, static_cast<int>(std::lround(16 * dpi / 300)));
        const int width = dpi >= 300 ? 2 : std::max(1, static_cast<int>(std::lround(2 * dpi / 300)));
        const double units = patternPixelUnits(dpi);
        return Paint::tiled(placeTile(crossHatchTile(std::clamp(id, 1, 6), spacing, width), units, units));
    }
    case 4: {
        auto it = m_userPatterns.find(id);
        if (it == m_userPatterns.end())
            return Paint::solid(m_foregroundRgb);
        // Drawn at the resolution it was designed for (300 dpi unless its header says).
        auto copy = std::make_shared<PatternTile>(*it->second.tile);
        const double dpi = deviceDpi();
        return Paint::tiled(placeTile(copy, patternPixelUnits(dpi, it->second.dpiX), patternPixelUnits(dpi, it->second.dpiY)));
    }
    default: return Paint::solid(m_foregroundRgb);
    }
}

Paint Interpreter::currentPaint() const { return paintForPattern(m_currentPatternType, m_currentPatternId); }

void Interpreter::fillRect() {
    double w = m_rectWidth, h = m_rectHeight;
    if (w <= 0 || h <= 0)
        return;
    // Rectangles are clipped to the logical page.
    double x0 = std::max(0.0, m_x), y0 = std::max(0.0, m_y);
    double x1 = std::min(frameWidth(), m_x + w), y1 = std::min(frameHeight(), m_y + h);
    if (x1 <= x0 || y1 <= y0)
        return;
    ensurePage();
    // Printers fill whole dots: the rectangle starts on the dot nearest the cursor and its size
    // is rounded up to whole dots (a rule of one decipoint still prints one dot). In every
    // print direction the rectangle is upright on the device.
    const Matrix toDevice = m_dev.pageToDevice() * textToPage();
    const Point a = toDevice.apply({x0, y0}), b = toDevice.apply({x1, y1});
    const double left = snapToDot(std::min(a.x, b.x)), top = snapToDot(std::min(a.y, b.y));
    const double width = std::ceil(std::fabs(b.x - a.x) - 1e-6), height = std::ceil(std::fabs(b.y - a.y) - 1e-6);
    const auto fromDevice = m_dev.pageToDevice().inverted();
    if (!fromDevice || width <= 0 || height <= 0)
        return;
    Path p;
    p.addRect(left, top, width, height);
    const Path onPage = p.transformed(*fromDevice);
    RenderState rs = renderState();
    // Erase (white) rules and solid fills are painted like text; patterns follow the ROP too.
    m_dev.fillPath(onPage, FillRule::NonZero, paintForPattern(m_patternTypeForRect, m_patternId), rs);
}

void Interpreter::rectangleCommand(const Command& cmd) {
    const double v = cmd.value;
    const int iv = cmd.intValue();
    const double unit = kUnitsPerInch / m_unitsPerInch;
    switch (cmd.final) {
    case 'A': m_rectWidth = std::clamp(v, 0.0, 1e6) * unit; break;
    case 'B': m_rectHeight = std::clamp(v, 0.0, 1e6) * unit; break;
    case 'H': m_rectWidth = std::clamp(v, 0.0, 1e6) * kDecipoint; break;
    case 'V': m_rectHeight = std::clamp(v, 0.0, 1e6) * kDecipoint; break;
    case 'G': m_patternId = iv; break;
    case 'P': {
        int type;
        switch (iv) {
        case 0: type = 0; break;
        case 1: type = 1; break;
        case 2: type = 2; break;
        case 3: type = 3; break;
        case 4: type = 4; break;
        case 5: type = m_currentPatternType; break;
        default: return;
        }
        m_patternTypeForRect = type;
        const int savedId = m_patternId;
        if (iv == 5)
            m_patternId = m_currentPatternId;
        if (iv == 1) {
            // Erase: white, always opaque.
            const auto savedRop = m_rop;
            const bool st = m_sourceTransparent, pt = m_patternTransparent;
            m_rop = 252;
            m_sourceTransparent = m_patternTransparent = false;
            fillRect();
            m_rop = savedRop;
            m_sourceTransparent = st;
            m_patternTransparent = pt;
        } else {
            fillRect();
        }
        m_patternId = savedId;
        break;
    }
    case 'Q': break; // pattern control
    default: break;
    }
}

void Interpreter::patternCommand(const Command& cmd) {
    const int iv = cmd.intValue();
    if (cmd.is('*', 'l', 'O')) {
        if (iv >= 0 && iv <= 255)
            m_rop = static_cast<uint8_t>(iv);
        return;
    }
    switch (cmd.final) {
    case 'N': m_sourceTransparent = iv == 0; break;
    case 'O': m_patternTransparent = iv == 0; break;
    case 'T':
        if (iv >= 0 && iv <= 4) {
            m_currentPatternType = iv;
            m_currentPatternId = m_patternId;
        }
        break;
    default: break;
    }
}

void Interpreter::defineUserPattern(std::span<const uint8_t> data) {
    // User-defined pattern: format, continuation, pixel encoding, reserved, height, width, bits.
    if (data.size() < 8) {
        warnOnce("PCL 5: short pattern definition ignored");
        return;
    }
    // Format 0 (and 20, with a resolution) is one bit a pixel in the foreground colour;
    // format 1 is colour, 1 or 8 bits a pixel (byte 2) indexing the current palette.
    const int format = data[0];
    const int height = (data[4] << 8) | data[5];
    const int width = (data[6] << 8) | data[7];
    const size_t header = format == 20 ? 12 : 8;
    const int bitsPerPixel = format == 1 ? data[2] : 1;
    if (format != 0 && format != 1 && format != 20) {
        warnOnce("PCL 5: user pattern format " + std::to_string(format) + " ignored");
        return;
    }
    if (bitsPerPixel != 1 && bitsPerPixel != 8) {
        warnOnce("PCL 5: colour user pattern of " + std::to_string(bitsPerPixel) + " bits a pixel ignored");
        return;
    }
    if (width <= 0 || height <= 0 || width > 4096 || height > 4096)
        return;
    const size_t stride = static_cast<size_t>((width * bitsPerPixel + 7) / 8);
    auto tile = std::make_shared<PatternTile>();
    tile->width = width;
    tile->height = height;
    tile->pixels.assign(static_cast<size_t>(width) * static_cast<size_t>(height), Rgb::white());
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            Rgb& px = tile->pixels[static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)];
            const size_t row = header + static_cast<size_t>(y) * stride;
            if (bitsPerPixel == 8) {
                const size_t byte = row + static_cast<size_t>(x);
                const size_t index = byte < data.size() ? data[byte] : 0;
                px = index < m_palette.size() ? m_palette[index] : Rgb::black();
                continue;
            }
            const size_t byte = row + static_cast<size_t>(x / 8);
            const int bit = byte < data.size() ? (data[byte] >> (7 - x % 8)) & 1 : 0;
            if (format == 1)
                px = static_cast<size_t>(bit) < m_palette.size() ? m_palette[static_cast<size_t>(bit)] : Rgb::black();
            else if (bit)
                px = m_foregroundRgb;
        }
    UserPattern pattern{tile};
    if (format == 20 && data.size() >= 12) {
        // The resolution-specified header: the X and Y resolutions the pattern was designed at.
        const int dpiX = (data[8] << 8) | data[9], dpiY = (data[10] << 8) | data[11];
        if (dpiX > 0)
            pattern.dpiX = dpiX;
        if (dpiY > 0)
            pattern.dpiY = dpiY;
    }
    m_userPatterns[m_patternId] = pattern;
}

} // namespace qx::pcl5
