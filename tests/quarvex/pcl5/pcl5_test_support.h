#pragma once
// Runs PCL 5 jobs on a recording device for the interpreter tests.

#include "pcl5/pcl5.h"

#include "common/diagnostics.h"
#include "common/page_collector.h"
#include "fonts/font_library.h"
#include "render/raster_device.h"
#include "render/recording_device.h"

#include <string>
#include <vector>

using namespace qx;

namespace {

const std::string kStageFonts = std::string(QX_STAGE_DIR) + "/fonts";

const FontLibrary& fonts() {
    static FontLibrary lib({kStageFonts}, false);
    return lib;
}

struct Result {
    std::vector<std::string> calls;
    std::vector<std::string> messages;
    size_t used = 0;
    bool warnings = false;
    int pages = 0;

    std::vector<std::string> starting(const std::string& prefix) const {
        std::vector<std::string> out;
        for (const auto& c : calls)
            if (c.rfind(prefix, 0) == 0)
                out.push_back(c);
        return out;
    }
};

Result runPcl(const std::string& job, PjlDefaults pjl = {}, bool withFonts = true) {
    RecordingDevice dev;
    Diagnostics diag("test", false);
    JobContext ctx{dev, diag, withFonts ? &fonts() : nullptr, pjl};
    Result r;
    r.used = pcl5::run(reinterpret_cast<const uint8_t*>(job.data()), job.size(), ctx);
    r.calls = dev.calls();
    r.messages = diag.lines();
    r.warnings = diag.hasWarnings();
    r.pages = dev.pageCount();
    return r;
}

const std::string ESC = "\x1b";

// The job's pages drawn by the rasterising device at `dpi` in `depth` bits.
[[maybe_unused]] std::vector<RasterPage> renderPcl(const std::string& job, double dpi = 300, int depth = 8) {
    qxtest::PageCollector sink;
    RasterOptions opt;
    opt.depth = depth;
    opt.dpiX = opt.dpiY = dpi;
    RasterDevice dev(opt, sink);
    Diagnostics diag("test", false);
    JobContext ctx{dev, diag, &fonts(), {}};
    pcl5::run(reinterpret_cast<const uint8_t*>(job.data()), job.size(), ctx);
    return sink.pages;
}

// Whether the pixel (x, y) of a grey or bilevel page is black (darker than mid-grey).
[[maybe_unused]] bool inked(const RasterPage& p, int x, int y) {
    const uint8_t* row = p.row(y);
    if (p.format == RasterPage::Format::Bilevel)
        return (row[x / 8] >> (7 - x % 8)) & 1;
    if (p.format == RasterPage::Format::Gray8)
        return row[x] < 128;
    return row[x * 3] < 128 || row[x * 3 + 1] < 128 || row[x * 3 + 2] < 128;
}

} // namespace
