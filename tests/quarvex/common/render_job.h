// Runs one job through an interpreter into the raster device, the way the fidelity tests do:
// a given depth and resolution, the staged fonts or none, every page to the test's sink
// (a PageCollector, page_collector.h).
// Header only; the test links the interpreter and the raster device itself.

#pragma once

#include "common/diagnostics.h"
#include "common/job.h"
#include "common/page_collector.h"
#include "render/raster_device.h"

#include <cstddef>
#include <cstdint>

namespace qxtest {

using Interpret = size_t (*)(const uint8_t*, size_t, qx::JobContext&);

inline void renderJob(Interpret interpret, const uint8_t* data, size_t size, int depth, double dpi,
                      const qx::FontLibrary* fonts, qx::PageSink& sink, qx::Diagnostics& diag) {
    qx::RasterOptions options;
    options.depth = depth;
    options.dpiX = options.dpiY = dpi;
    qx::RasterDevice dev(options, sink);
    qx::JobContext ctx{dev, diag, fonts, {}};
    interpret(data, size, ctx);
}

} // namespace qxtest
