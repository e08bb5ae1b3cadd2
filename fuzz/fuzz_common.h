#pragma once
// Shared set-up of the fuzz targets: a device to draw on, quiet diagnostics and the resident
// fonts (opened once per process; glyphs are rendered lazily, as in the engine).

#include "common/diagnostics.h"
#include "common/job.h"
#include "fonts/font_library.h"
#include "render/recording_device.h"
#if QX_FUZZ_RASTER
#include "render/raster_device.h"
#endif

#include <cstddef>
#include <cstdint>

namespace qxfuzz {

#if QX_FUZZ_RASTER
// Reads every byte of each finished page (so that a page buffer shorter than its declared size
// shows up under ASan) and drops it.
class NullSink : public qx::PageSink {
public:
    bool writePage(const qx::RasterPage& page) override {
        const size_t rowBytes = page.format == qx::RasterPage::Format::Bilevel ? (page.width + 7) / 8
                                : page.format == qx::RasterPage::Format::Gray8 ? page.width
                                                                               : page.width * 3;
        unsigned sum = 0;
        for (int y = 0; y < page.height; ++y) {
            const uint8_t* row = page.row(y);
            for (size_t x = 0; x < rowBytes; ++x)
                sum += row[x];
        }
        m_checksum += sum;
        return true;
    }
    unsigned m_checksum = 0;
};
#endif

inline const qx::FontLibrary& fonts() {
    static const qx::FontLibrary library;
    return library;
}

// Calls f(device) with the device the targets draw on: 1-bit at 75 dpi (small pages, and the
// halftoning path), or the recording device.
template <class F>
void withDevice(F&& f) {
#if QX_FUZZ_RASTER
    NullSink sink;
    qx::RasterOptions options;
    options.depth = 1;
    options.dpiX = 75;
    options.dpiY = 75;
    qx::RasterDevice device(options, sink);
    f(static_cast<qx::Device&>(device));
#else
    qx::RecordingDevice device;
    device.dpi = 75;
    f(static_cast<qx::Device&>(device));
#endif
}

} // namespace qxfuzz
