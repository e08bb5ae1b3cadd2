// The pages a job writes, kept for the test to look at: the sink every engine test hands to the
// rasterising device, with the ways the tests read a page (as ink, as grey) beside it.
// Header only; the test links the raster device itself.

#pragma once

#include "common/ink_score.h"
#include "render/raster_device.h"

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

namespace qxtest {

struct PageCollector : qx::PageSink {
    std::vector<qx::RasterPage> pages; // a copy of every page accepted, in order
    int offered = 0;                   // pages the device handed over, refused ones included
    int refuseFrom = -1;               // the page (counted from 0) from which writes fail; -1 never

    bool writePage(const qx::RasterPage& page) override {
        const int index = offered++;
        if (refuseFrom >= 0 && index >= refuseFrom)
            return false;
        pages.push_back(page);
        return true;
    }

    // The pixels of all pages accepted.
    uint64_t pixels() const {
        uint64_t n = 0;
        for (const qx::RasterPage& p : pages)
            n += uint64_t(p.width) * uint64_t(p.height);
        return n;
    }
};

// A black-and-white page of the raster device as ink.
inline InkMask inkOfBilevelPage(const qx::RasterPage& p) {
    return inkOfBits(p.data.data(), p.width, p.height, p.stride);
}

// A grey page of the raster device as ink: pixels darker than `threshold`.
inline InkMask inkOfGreyPage(const qx::RasterPage& p, int threshold) {
    return inkOfGrey(p.data.data(), p.width, p.height, p.stride, threshold);
}

// A grey page as an 8-bit binary PGM file, to look at beside the reference.
inline void writePgm(const qx::RasterPage& p, const std::string& path) {
    std::ofstream out(path, std::ios::binary);
    out << "P5\n" << p.width << " " << p.height << "\n255\n";
    for (int y = 0; y < p.height; ++y)
        out.write(reinterpret_cast<const char*>(p.row(y)), p.width);
}

} // namespace qxtest
