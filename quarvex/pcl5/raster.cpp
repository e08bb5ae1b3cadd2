// PCL 5 raster graphics: resolution, presentation, width and height, compression, the rows
// (decoded, gathered into strips and drawn as masks or images) and the raster block's start and end.
#include "pcl5/interpreter.h"
#include "pcl5/raster_decode.h"
#include "pcl5/units.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace qx::pcl5 {

namespace {
constexpr int kStripRows = 128;
} // namespace


int Interpreter::planes() const {
    if (m_simpleColour == 3 || m_simpleColour == -3)
        return 3;
    if (m_simpleColour == -4)
        return 4;
    if (m_pixelEncoding == 0)
        return m_bitsPerIndex;
    if (m_pixelEncoding == 2)
        return 3;
    return 1;
}

Point Interpreter::cursorInRaster() const {
    const Point logical = frameToLogical().apply({m_x, m_y});
    if (auto back = rasterToLogical().inverted())
        return back->apply(logical);
    return logical;
}

int Interpreter::rasterWidthPixels() const {
    // The raster may not reach past the logical page's edge.
    const double room = std::max(0.0, rasterFrameWidth() - m_raster.left);
    const int maxPixels = static_cast<int>(std::ceil(room / m_raster.scaleX));
    if (m_raster.width > 0)
        return std::min(m_raster.width, maxPixels);
    return maxPixels;
}

void Interpreter::startRaster(int mode) {
    if (m_raster.active)
        return;
    m_raster.active = true;
    // Presentation mode 0 lays the rows along the print direction; mode 3 along the width of the
    // physical sheet whatever the orientation and print direction (on a landscape page they run
    // down it, the next row to the left of the last). Either way the picture starts at the
    // cursor's place.
    m_raster.direction = m_presentation == 3 ? (4 - m_orientation) & 3 : m_direction;
    const Point cursor = cursorInRaster();
    m_raster.left = (mode == 1 || mode == 3) ? cursor.x : 0;
    // Modes 2 and 3 scale the source (width by height pixels) to the destination size.
    m_raster.scaleX = m_raster.scaleY = rasterPixelUnits();
    if ((mode == 2 || mode == 3) && m_raster.width > 0 && m_raster.height > 0 &&
        (m_destWidth > 0 || m_destHeight > 0)) {
        double sx = m_destWidth > 0 ? m_destWidth * kDecipoint / m_raster.width : 0;
        double sy = m_destHeight > 0 ? m_destHeight * kDecipoint / m_raster.height : 0;
        if (sx <= 0)
            sx = sy;
        if (sy <= 0)
            sy = sx;
        // At least a hundredth of a pixel of the 7200 dpi grid, at most the page.
        m_raster.scaleX = std::clamp(sx, 0.01, kUnitsPerInch * 20);
        m_raster.scaleY = std::clamp(sy, 0.01, kUnitsPerInch * 20);
    }
    m_raster.y = cursor.y;
    m_raster.placed = false;
    m_raster.rowsDone = 0;
    m_raster.planeIndex = 0;
    m_raster.stripRows = 0;
    m_raster.strip.clear();
    m_raster.stripWidth = rasterWidthPixels();
    const bool colour = !(m_simpleColour == 0 && m_pixelEncoding <= 1 && m_bitsPerIndex == 1 &&
                          m_palette.size() == 2 && m_palette[0] == Rgb::white() && m_palette[1] == Rgb::black());
    m_raster.stripColour = colour;
    m_raster.seeds.assign(static_cast<size_t>(planes()), {});
    if (m_raster.stripWidth <= 0)
        return;
    if (m_rasterResolution <= 0)
        m_rasterResolution = 75;
}

void Interpreter::endRaster() {
    if (!m_raster.active)
        return;
    flushStrip();
    m_raster.active = false;
    // The cursor goes to the row after the picture when the picture lies in the print
    // direction's frame.
    if (m_raster.direction == m_direction)
        m_y = m_raster.y;
}

void Interpreter::flushStrip() {
    RasterState& r = m_raster;
    if (r.stripRows <= 0 || r.stripWidth <= 0) {
        r.stripRows = 0;
        r.strip.clear();
        return;
    }
    ensurePage();
    if (!r.placed) {
        // The block's first row starts on a device pixel, as a printer starts it on one of its
        // dots: every strip after it then lies on whole pixels too, with no seam between
        // strips however fractional the cursor was (a start at row 187.5 stays one picture).
        const Matrix toDevice = m_dev.pageToDevice() * logicalToPage() * rasterToLogical();
        const Point at = toDevice.apply({r.left, r.stripTop});
        if (auto back = toDevice.inverted()) {
            const Point snapped = back->apply({snapToDot(at.x), snapToDot(at.y)});
            r.left = snapped.x;
            r.y += snapped.y - r.stripTop;
            r.stripTop = snapped.y;
        }
        r.placed = true;
    }
    const Matrix toPage =
        logicalToPage() * rasterToLogical() * Matrix::translate(r.left, r.stripTop) * Matrix::scale(r.scaleX, r.scaleY);
    if (!r.stripColour) {
        Mask m;
        m.width = r.stripWidth;
        m.height = r.stripRows;
        m.stride = static_cast<size_t>((r.stripWidth + 7) / 8);
        m.bits = std::move(r.strip);
        bool any = false;
        for (uint8_t b : m.bits)
            if (b) {
                any = true;
                break;
            }
        if (!m_sourceTransparent) {
            // Opaque source: the white pixels are painted white too.
            Mask inverse = m;
            for (uint8_t& b : inverse.bits)
                b = static_cast<uint8_t>(~b);
            RenderState rs = renderState();
            m_dev.fillMask(inverse, toPage, Paint::solid(Rgb::white()), rs);
        }
        if (any)
            m_dev.fillMask(m, toPage, currentPaint(), renderState());
        r.strip = std::move(m.bits); // the next strip reuses the room
    } else {
        Image img;
        img.width = r.stripWidth;
        img.height = r.stripRows;
        img.format = Image::Format::Rgb24;
        img.stride = static_cast<size_t>(r.stripWidth) * 3;
        img.data = std::move(r.strip);
        m_dev.drawImage(img, toPage, currentPaint(), renderState());
        r.strip = std::move(img.data);
    }
    r.strip.clear();
    r.stripRows = 0;
}

void Interpreter::rasterYOffset(int rows) {
    if (!m_raster.active)
        startRaster(0);
    flushStrip();
    if (rows <= 0)
        return;
    const double maxRows = rasterFrameHeight() / m_raster.scaleY + 1;
    rows = static_cast<int>(std::min<double>(rows, maxRows));
    m_raster.y += rows * m_raster.scaleY;
    m_raster.rowsDone += rows;
    for (auto& s : m_raster.seeds)
        std::fill(s.begin(), s.end(), 0);
}

void Interpreter::emitRow(const std::vector<std::vector<uint8_t>>& planeRows) {
    RasterState& r = m_raster;
    if (r.height > 0 && r.rowsDone >= r.height)
        return;
    const double px = r.scaleY;
    const bool visible = r.y < rasterFrameHeight() + px && r.y > -kMaxPosition && r.stripWidth > 0;
    if (visible) {
        if (r.stripRows == 0)
            r.stripTop = r.y;
        const int w = r.stripWidth;
        if (!r.stripColour) {
            const size_t stride = static_cast<size_t>((w + 7) / 8);
            const size_t at = r.strip.size();
            r.strip.resize(at + stride, 0);
            const auto& row = planeRows[0];
            std::memcpy(r.strip.data() + at, row.data(), std::min(stride, row.size()));
            if (w % 8)
                r.strip[at + stride - 1] &= static_cast<uint8_t>(0xFF << (8 - w % 8));
        } else {
            const size_t at = r.strip.size();
            r.strip.resize(at + static_cast<size_t>(w) * 3, 255);
            uint8_t* out = r.strip.data() + at;
            const auto bit = [](const std::vector<uint8_t>& row, int x) -> int {
                const size_t byte = static_cast<size_t>(x) / 8;
                return byte < row.size() ? (row[byte] >> (7 - x % 8)) & 1 : 0;
            };
            for (int x = 0; x < w; ++x) {
                Rgb c;
                if (m_pixelEncoding == 3 && m_simpleColour == 0) {
                    const auto& row = planeRows[0];
                    const size_t o = static_cast<size_t>(x) * 3;
                    if (o + 2 < row.size())
                        c = Rgb{row[o], row[o + 1], row[o + 2]};
                    else
                        c = Rgb::white();
                    if (m_colourSpaceCmy)
                        c = Rgb{static_cast<uint8_t>(255 - c.r), static_cast<uint8_t>(255 - c.g),
                                static_cast<uint8_t>(255 - c.b)};
                } else if (m_pixelEncoding == 2 && m_simpleColour == 0) {
                    const int rb = bit(planeRows[0], x), gb = bit(planeRows[1], x), bb = bit(planeRows[2], x);
                    c = Rgb{static_cast<uint8_t>(rb ? 255 : 0), static_cast<uint8_t>(gb ? 255 : 0),
                            static_cast<uint8_t>(bb ? 255 : 0)};
                    if (m_colourSpaceCmy)
                        c = Rgb{static_cast<uint8_t>(255 - c.r), static_cast<uint8_t>(255 - c.g),
                                static_cast<uint8_t>(255 - c.b)};
                } else if (m_pixelEncoding == 1 && m_simpleColour == 0) {
                    const auto& row = planeRows[0];
                    const int bpi = m_bitsPerIndex;
                    const size_t bitPos = static_cast<size_t>(x) * static_cast<size_t>(bpi);
                    int index = 0;
                    if ((bitPos + static_cast<size_t>(bpi) + 7) / 8 <= row.size() + 1) {
                        for (int k = 0; k < bpi; ++k) {
                            const size_t b = bitPos + static_cast<size_t>(k);
                            const size_t byte = b / 8;
                            index = (index << 1) | (byte < row.size() ? (row[byte] >> (7 - b % 8)) & 1 : 0);
                        }
                    }
                    c = static_cast<size_t>(index) < m_palette.size() ? m_palette[static_cast<size_t>(index)]
                                                                       : Rgb::black();
                } else {
                    int index = 0;
                    for (size_t p = 0; p < planeRows.size(); ++p)
                        index |= bit(planeRows[p], x) << p;
                    c = static_cast<size_t>(index) < m_palette.size() ? m_palette[static_cast<size_t>(index)]
                                                                       : Rgb::black();
                }
                out[x * 3] = c.r;
                out[x * 3 + 1] = c.g;
                out[x * 3 + 2] = c.b;
            }
        }
        ++r.stripRows;
        if (r.stripRows >= kStripRows)
            flushStrip();
    }
    r.y += px;
    ++r.rowsDone;
}

void Interpreter::rasterData(std::span<const uint8_t> data, bool lastPlane) {
    if (!m_raster.active)
        startRaster(0);
    RasterState& r = m_raster;
    const int nPlanes = static_cast<int>(r.seeds.size());
    if (nPlanes <= 0)
        return;
    // Bytes of one row of one plane.
    size_t rowBytes;
    const size_t w = static_cast<size_t>(std::max(r.stripWidth, 0));
    if (m_pixelEncoding == 3 && m_simpleColour == 0)
        rowBytes = w * 3;
    else if (m_pixelEncoding == 1 && m_simpleColour == 0)
        rowBytes = (w * static_cast<size_t>(m_bitsPerIndex) + 7) / 8;
    else
        rowBytes = (w + 7) / 8;
    for (auto& s : r.seeds)
        if (s.size() != rowBytes)
            s.resize(rowBytes, 0);

    if (m_compression == 5) {
        // A block of rows for a single plane job.
        decodeAdaptive(data, r.seeds[0], [&](const std::vector<uint8_t>&) {
            if (r.height > 0 && r.rowsDone >= r.height)
                return false;
            if (r.y > rasterFrameHeight() + r.scaleY)
                return false;
            emitRow(r.seeds);
            return true;
        });
        r.planeIndex = 0;
        return;
    }
    if (r.planeIndex >= nPlanes) {
        // More planes than the configuration has: the extra ones are dropped.
        if (lastPlane)
            r.planeIndex = 0;
        return;
    }
    auto& row = r.seeds[static_cast<size_t>(r.planeIndex)];
    if (!decodeRow(m_compression, data, row)) {
        warnOnce("PCL 5: raster compression method " + std::to_string(m_compression) + " not supported");
        std::fill(row.begin(), row.end(), 0);
    }
    ++r.planeIndex;
    if (lastPlane) {
        // Planes not sent in this row are zero.
        for (int p = r.planeIndex; p < nPlanes; ++p)
            std::fill(r.seeds[static_cast<size_t>(p)].begin(), r.seeds[static_cast<size_t>(p)].end(), 0);
        emitRow(r.seeds);
        r.planeIndex = 0;
    }
}

void Interpreter::rasterCommand(Parser& parser, const Command& cmd) {
    const uint8_t g = cmd.group, f = cmd.final;
    const double v = cmd.value;
    const int iv = cmd.intValue();
    if (g == 't') {
        if (f == 'R') {
            if (m_raster.active)
                return;
            if (iv == 75 || iv == 100 || iv == 150 || iv == 200 || iv == 300 || iv == 600 || iv == 1200)
                m_rasterResolution = iv;
            else if (iv > 0)
                warnOnce("PCL 5: raster resolution " + std::to_string(iv) + " not supported");
        } else if (f == 'H') {
            m_destWidth = std::max(0.0, v);
        } else if (f == 'V') {
            m_destHeight = std::max(0.0, v);
        }
        return;
    }
    if (g == 'r') {
        switch (f) {
        case 'A': startRaster(iv); break;
        case 'B': endRaster(); break;
        case 'C':
            endRaster();
            m_compression = 0;
            break;
        case 'S':
            if (!m_raster.active)
                m_raster.width = std::clamp(iv, 0, 65535);
            break;
        case 'T':
            if (!m_raster.active)
                m_raster.height = std::clamp(iv, 0, 65535);
            break;
        case 'F':
            if (!m_raster.active && (iv == 0 || iv == 3))
                m_presentation = iv;
            break;
        case 'U':
            if (iv == 1 || iv == 3 || iv == -3 || iv == -4)
                setSimpleColour(iv);
            break;
        default: break;
        }
        return;
    }
    if (g == 'b') {
        switch (f) {
        case 'M':
            if (knownCompression(iv))
                m_compression = iv;
            else
                warnOnce("PCL 5: raster compression method " + std::to_string(iv) + " not supported");
            break;
        case 'Y': rasterYOffset(std::clamp(iv, 0, 1 << 20)); break;
        case 'V': handleDataCommand(parser, cmd); break;
        default: break;
        }
    }
}

} // namespace qx::pcl5
