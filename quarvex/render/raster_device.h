#pragma once
// The rasterising device: draws each page into a pixel buffer at the resolution and size the
// command line asks for, and hands every finished page, already in the output depth, to a
// PageSink (the TIFF writer).

#include "render/device.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace qx {

struct RasterOptions {
    int depth = 24;          // 1 (black and white, halftoned), 8 (grey) or 24 (RGB)
    double dpiX = 0;         // -r; 0 = the resolution the job declares, else 300
    double dpiY = 0;
    int pageWidthPx = 0;     // -gw; 0 = the page's own width at the resolution
    int pageHeightPx = 0;    // -gh; 0 = the page's own height at the resolution
    int fax = -1;            // -1 = ordinary TIFF; 0 = Class F 204x98; 1 = Class F 204x196
};

// One finished page in the output depth.
struct RasterPage {
    enum class Format : uint8_t { Bilevel, Gray8, Rgb24 };
    Format format = Format::Rgb24;
    int width = 0;
    int height = 0;
    size_t stride = 0;       // bytes per row
    double xdpi = 300;       // the resolution to write into the file
    double ydpi = 300;
    // Bilevel: 1 bit a pixel, most significant bit first, 1 = black (min-is-white).
    // Gray8: 0 = black. Rgb24: r, g, b.
    std::vector<uint8_t> data;
    // Rows outside [inkTop, inkBottom) are white (no ink was put there); by default none is
    // known to be.
    int inkTop = 0;
    int inkBottom = 1 << 30;

    const uint8_t* row(int y) const { return data.data() + static_cast<size_t>(y) * stride; }
};

class PageSink {
public:
    virtual ~PageSink() = default;
    // false: the page could not be written; the device stops drawing further pages.
    virtual bool writePage(const RasterPage& page) = 0;
};

// Counts of the device's work, for tests and benchmarks.
struct RasterStats {
    uint64_t bandPixels = 0;    // pixels of coverage rendered by cairo, band by band
    uint64_t rectangles = 0;    // fills of rectangles drawn row by row without coverage bands
    uint64_t scanFills = 0;     // fills drawn stretch by stretch by the scan converter
    uint64_t scanCrossings = 0; // edge crossings of rows the scan converter computed for them
    uint64_t pixelsBlended = 0; // pixels of pictures composited one by one with their source
    uint64_t rectProbes = 0;    // rectangles whose pixels were found by asking cairo
    uint64_t rectPixels = 0;    // pixels of rectangle fills drawn (not those put off and hidden)
};

class RasterDevice : public Device {
public:
    RasterDevice(const RasterOptions& options, PageSink& sink);
    ~RasterDevice() override;

    void beginPage(const PageSpec& page) override;
    void endPage() override;
    void discardPage() override;
    Matrix pageToDevice() const override;

    void fillPath(const Path& path, FillRule rule, const Paint& paint, const RenderState& rs) override;
    void strokePath(const Path& path, const StrokeStyle& style, const Paint& paint,
                    const RenderState& rs) override;
    void drawImage(const Image& image, const Matrix& imageToPage, const Paint& texture,
                   const RenderState& rs) override;
    void fillMask(const Mask& mask, const Matrix& maskToPage, const Paint& paint,
                  const RenderState& rs) override;

    int pagesWritten() const;
    const RasterStats& stats() const;
    bool sinkFailed() const;

private:
    struct Impl;
    std::unique_ptr<Impl> d;
};

} // namespace qx
