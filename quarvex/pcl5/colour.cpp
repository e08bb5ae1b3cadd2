// PCL 5 colour: the palette, simple colour mode, configure image data, colour components and
// the foreground colour.
#include "pcl5/interpreter.h"

#include <algorithm>

namespace qx::pcl5 {


void Interpreter::defaultPalette() {
    m_palette = {Rgb::white(), Rgb::black()};
}

void Interpreter::setSimpleColour(int mode) {
    // 1: black and white; 3: eight device RGB colours (bits are light); -3: eight device CMY
    // colours (bits are ink); -4: black plane first, then cyan, magenta, yellow.
    if (m_raster.active)
        endRaster();
    m_simpleColour = mode;
    m_pixelEncoding = 0;
    m_colourSpaceCmy = mode < 0;
    const auto primaries = [](int i, bool ink) {
        const bool b0 = i & 1, b1 = i & 2, b2 = i & 4;
        if (ink)
            return Rgb{static_cast<uint8_t>(b0 ? 0 : 255), static_cast<uint8_t>(b1 ? 0 : 255),
                       static_cast<uint8_t>(b2 ? 0 : 255)};
        return Rgb{static_cast<uint8_t>(b0 ? 255 : 0), static_cast<uint8_t>(b1 ? 255 : 0),
                   static_cast<uint8_t>(b2 ? 255 : 0)};
    };
    if (mode == 3 || mode == -3) {
        m_bitsPerIndex = 3;
        m_palette.resize(8);
        for (int i = 0; i < 8; ++i)
            m_palette[static_cast<size_t>(i)] = primaries(i, mode == -3);
        m_foreground = mode == 3 ? 0 : 7;
    } else if (mode == -4) {
        m_bitsPerIndex = 4;
        m_palette.resize(16);
        for (int i = 0; i < 16; ++i)
            m_palette[static_cast<size_t>(i)] = (i & 1) ? Rgb::black() : primaries(i >> 1, true);
        m_foreground = 1;
    } else {
        m_bitsPerIndex = 1;
        defaultPalette();
        m_foreground = 1;
    }
    m_foregroundRgb = Rgb::black();
}

void Interpreter::configureImageData(std::span<const uint8_t> data) {
    if (data.size() < 6) {
        warnOnce("PCL 5: short configure image data command ignored");
        return;
    }
    if (m_raster.active)
        endRaster();
    const int space = data[0];
    const int encoding = data[1];
    const int bits = data[2];
    m_simpleColour = 0;
    m_colourSpaceCmy = space == 1;
    if (space > 1)
        warnOnce("PCL 5: colour space " + std::to_string(space) + " treated as RGB");
    m_pixelEncoding = std::clamp(encoding, 0, 3);
    if (m_pixelEncoding == 3)
        m_bitsPerIndex = 24;
    else if (m_pixelEncoding == 2)
        m_bitsPerIndex = 3;
    else
        m_bitsPerIndex = std::clamp(bits, 1, 8);
    // The default palette of an indexed configuration: black and white for one bit, the eight
    // primaries for more, the rest black.
    const int entries = m_pixelEncoding <= 1 ? (1 << m_bitsPerIndex) : 8;
    m_palette.assign(static_cast<size_t>(entries), Rgb::black());
    if (m_bitsPerIndex == 1 && m_pixelEncoding <= 1) {
        m_palette[0] = Rgb::white();
        m_palette[1] = Rgb::black();
    } else {
        for (int i = 0; i < std::min(entries, 8); ++i) {
            const bool r = i & 1, g = i & 2, b = i & 4;
            Rgb c{static_cast<uint8_t>(r ? 255 : 0), static_cast<uint8_t>(g ? 255 : 0), static_cast<uint8_t>(b ? 255 : 0)};
            if (m_colourSpaceCmy)
                c = Rgb{static_cast<uint8_t>(255 - c.r), static_cast<uint8_t>(255 - c.g), static_cast<uint8_t>(255 - c.b)};
            m_palette[static_cast<size_t>(i)] = c;
        }
    }
    m_foreground = -1;
    m_foregroundRgb = Rgb::black();
}

void Interpreter::colourCommand(const Command& cmd) {
    const double v = cmd.value;
    const int iv = cmd.intValue();
    switch (cmd.final) {
    case 'A': m_componentValues[0] = v; break;
    case 'B': m_componentValues[1] = v; break;
    case 'C': m_componentValues[2] = v; break;
    case 'I':
        if (iv >= 0 && static_cast<size_t>(iv) < m_palette.size()) {
            const auto comp = [&](double c) {
                const double x = std::clamp(c, 0.0, 255.0);
                return static_cast<uint8_t>(m_colourSpaceCmy ? 255 - x : x);
            };
            m_palette[static_cast<size_t>(iv)] =
                Rgb{comp(m_componentValues[0]), comp(m_componentValues[1]), comp(m_componentValues[2])};
        }
        m_componentValues = {0, 0, 0};
        break;
    case 'S':
        if (iv >= 0 && static_cast<size_t>(iv) < m_palette.size()) {
            m_foreground = iv;
            m_foregroundRgb = m_palette[static_cast<size_t>(iv)];
        }
        break;
    default: break;
    }
}

} // namespace qx::pcl5
