// Jobs that fill their page over and over, through the interpreters into the raster device:
// however many fills, the device draws about one page of pixels and asks cairo about the
// rectangle only a few times.

#include "common/diagnostics.h"
#include "common/job.h"
#include "common/page_collector.h"
#include "pcl5/pcl5.h"
#include "pclxl/pclxl.h"
#include "render/raster_device.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

using namespace qx;
using qxtest::PageCollector;

namespace {

using Run = size_t (*)(const uint8_t*, size_t, JobContext&);

RasterStats runJob(Run run, const std::string& job, int depth, PageCollector& sink) {
    RasterOptions options;
    options.depth = depth;
    options.dpiX = options.dpiY = 300;
    RasterDevice dev(options, sink);
    Diagnostics diag("test", false);
    JobContext ctx{dev, diag, nullptr, {}};
    run(reinterpret_cast<const uint8_t*>(job.data()), job.size(), ctx);
    return dev.stats();
}

// One page came out, every fill was a rectangle, and between half a page and a page of pixels
// was drawn, without coverage bands.
void expectOnePageDrawnOnce(const RasterStats& s, const PageCollector& sink, uint64_t fills, int depth) {
    ASSERT_EQ(sink.pages.size(), 1u) << depth;
    EXPECT_EQ(s.rectangles, fills) << depth;
    EXPECT_LE(s.rectProbes, 2u) << depth;
    EXPECT_GT(s.rectPixels, sink.pixels() / 2) << depth;
    EXPECT_LE(s.rectPixels, sink.pixels()) << depth;
    EXPECT_EQ(s.bandPixels, 0u) << depth;
}

// A little-endian PCL XL stream, as far as these jobs need one.
struct Xl {
    std::string b = ") HP-PCL XL;2;0;Test\n";
    Xl& ub(uint8_t v) { return raw({0xC0, v}); }
    Xl& u16(uint16_t v) { return raw({0xC1, uint8_t(v), uint8_t(v >> 8)}); }
    Xl& s16(int16_t v) { return u16(uint16_t(v)).retag(0xC3); }
    Xl& xy(uint16_t x, uint16_t y) { return raw({0xD1, uint8_t(x), uint8_t(x >> 8), uint8_t(y), uint8_t(y >> 8)}); }
    Xl& box(uint16_t a, uint16_t c, uint16_t d, uint16_t e) {
        return raw({0xE1, uint8_t(a), uint8_t(a >> 8), uint8_t(c), uint8_t(c >> 8), uint8_t(d), uint8_t(d >> 8),
                    uint8_t(e), uint8_t(e >> 8)});
    }
    Xl& a(uint8_t attr) { return raw({0xF8, attr}); }
    Xl& op(uint8_t tag) { return raw({tag}); }
    Xl& data(const std::string& d) {
        const uint32_t n = uint32_t(d.size());
        raw({0xFA, uint8_t(n), uint8_t(n >> 8), uint8_t(n >> 16), uint8_t(n >> 24)});
        b += d;
        return *this;
    }
    Xl& raw(std::initializer_list<uint8_t> bytes) {
        for (uint8_t v : bytes)
            b += char(v);
        return *this;
    }
    Xl& retag(uint8_t tag) {
        b[b.size() - 3] = char(tag);
        return *this;
    }
};

} // namespace

// ESC*c32767a32767b0P ten thousand times: rectangles of the whole logical page in black.
TEST(FillJobs, TenThousandPcl5PageRectanglesDrawThePageOnce) {
    std::string job = "\x1b" "E";
    for (int i = 0; i < 10000; ++i)
        job += "\x1b*c32767a32767b0P";
    job += "\x0c\x1b" "E";
    for (int depth : {1, 8, 24}) {
        PageCollector sink;
        const RasterStats s = runJob(pcl5::run, job, depth, sink);
        expectOnePageDrawnOnce(s, sink, 10000, depth);
    }
}

// Two thousand page-sized rectangles painted with a PCL XL raster pattern brush of four greys
// and white.
TEST(FillJobs, TwoThousandPclXlPatternFillsDrawThePageOnce) {
    Xl xl;
    xl.xy(300, 300).a(137).ub(0).a(134).op(0x41);            // BeginSession
    xl.ub(0).a(136).ub(1).a(130).op(0x48);                   // OpenDataSource
    xl.ub(0).a(40).ub(0).a(37).op(0x43);                     // BeginPage: portrait Letter
    xl.ub(1).a(3).op(0x6A);                                  // SetColorSpace: grey
    xl.ub(0).a(100).ub(2).a(98).u16(8).a(108).u16(8).a(107); // 8 x 8, 8 bits a pixel
    xl.xy(32, 32).a(103).s16(1).a(105).ub(0).a(104).op(0xB3); // drawn 32 x 32 units; BeginRastPattern
    std::string rows;
    for (int r = 0; r < 8; ++r)
        rows += std::string("\x00\x40\x80\xc0\xff\xc0\x80\x40", 8);
    xl.u16(0).a(109).u16(8).a(99).ub(0).a(101).op(0xB4).data(rows); // ReadRastPattern
    xl.op(0xB5);                                                     // EndRastPattern
    xl.s16(1).a(8).op(0x63);                                         // SetBrushSource: the pattern
    xl.ub(1).a(5).op(0x79);                                          // SetPenSource: none
    for (int i = 0; i < 2000; ++i)
        xl.box(0, 0, 2550, 3300).a(66).op(0xA0); // Rectangle over the whole page
    xl.op(0x44).op(0x49).op(0x42);               // EndPage, CloseDataSource, EndSession
    for (int depth : {1, 8, 24}) {
        PageCollector sink;
        const RasterStats s = runJob(pclxl::run, xl.b, depth, sink);
        expectOnePageDrawnOnce(s, sink, 2000, depth);
    }
}
