#pragma once
// Drawing PCL XL text: downloaded bitmap and TrueType fonts, and resident fonts through the
// FontLibrary. Glyphs reach the device as masks; the cursor moves by the spacing data of the
// Text operator, or by the glyphs' own advances when there is none.

#include "render/device.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qx {
class FontLibrary;
}

namespace qx::pclxl {

struct DownloadedFont;

struct TextRun {
    std::vector<uint16_t> codes;
    std::vector<double> dx; // user units, after each character; may be shorter than codes
    std::vector<double> dy;
};

struct TextStyle {
    Matrix ctm;                  // user space to page space
    double charSize = 0;         // the em in user units (scalable fonts)
    double scaleX = 1, scaleY = 1;
    double shearX = 0, shearY = 0;
    double angle = 0;            // degrees
    double bold = 0;
    double unitsPerInchX = 300, unitsPerInchY = 300;
    int symbolSet = 0;
    int residentIndex = -1;      // a resident font chosen by PCL attributes; -1 = by name

    // Character space (y down, one unit = one user unit before CharSize) to user space.
    Matrix charMatrix() const;
};

void drawDownloadedText(DownloadedFont& font, const TextRun& run, const TextStyle& style, Point& cursor,
                        const Paint& paint, const RenderState& rs, Device& device, std::string& problem);

// Resident fonts by PCL XL name; false (with problem set) when the name is unknown and the
// text was drawn in a stand-in face.
bool drawResidentText(const FontLibrary& fonts, const std::string& name, const TextRun& run,
                      const TextStyle& style, Point& cursor, const Paint& paint, const RenderState& rs,
                      Device& device, std::string& problem);

// A device that keeps the glyph masks it is given as a path of pixel rectangles, in page space:
// the outlines TextPath adds to the current path, exact at the device's resolution.
class GlyphOutlineCollector : public Device {
public:
    explicit GlyphOutlineCollector(const Device& target, size_t maxRectangles = 200000)
        : m_target(target), m_maxRectangles(maxRectangles) {}
    void beginPage(const PageSpec&) override {}
    void endPage() override {}
    void discardPage() override {}
    Matrix pageToDevice() const override { return m_target.pageToDevice(); }
    void fillPath(const Path&, FillRule, const Paint&, const RenderState&) override {}
    void strokePath(const Path&, const StrokeStyle&, const Paint&, const RenderState&) override {}
    void drawImage(const Image&, const Matrix&, const Paint&, const RenderState&) override {}
    void fillMask(const Mask& mask, const Matrix& maskToPage, const Paint& paint, const RenderState& rs) override;

    Path path;
    bool truncated = false; // more rectangles than allowed; the rest were dropped

private:
    const Device& m_target;
    size_t m_maxRectangles;
    size_t m_rectangles = 0;
};

// Moves the cursor as the text would, drawing nothing.
void advanceWithoutGlyphs(const TextRun& run, const TextStyle& style, Point& cursor);

} // namespace qx::pclxl
