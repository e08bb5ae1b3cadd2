// HP-GL/2 from real plotting programs (GNU plotutils' graph and pic2plot with -T pcl, gnuplot's
// pcl5 terminal), taken out of its PCL wrapper the way the PCL interpreter hands it over:
// from each ESC%#B to the ESC%#A that ends it, other escape sequences skipped; and the whole
// jobs through the PCL 5 interpreter.

#include "test_support.h"

#include "common/job.h"
#include "common/page_collector.h"
#include "fonts/font_library.h"
#include "pcl5/pcl5.h"
#include "render/raster_device.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <set>
#include <iterator>

using namespace qx;
using namespace qx::hpgl2;
using namespace qx::hpgl2::test;

namespace {

std::string readFile(const std::string& name) {
    std::ifstream in(std::string(QX_HPGL2_DATA_DIR) + "/" + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

const FontLibrary& fonts() {
    static FontLibrary lib({std::string(QX_STAGE_DIR) + "/fonts"}, false);
    return lib;
}

// The length of the PCL escape sequence at data[pos] (an ESC): ESC x, or ESC p [g] values final.
size_t escapeLength(const std::string& d, size_t pos) {
    size_t i = pos + 1;
    if (i >= d.size())
        return 1;
    const unsigned char p = static_cast<unsigned char>(d[i]);
    if (p < 0x21 || p > 0x2F)
        return 2;
    ++i;
    while (i < d.size()) {
        const unsigned char c = static_cast<unsigned char>(d[i++]);
        if (c >= 0x40 && c <= 0x5E)
            break;
    }
    return i - pos;
}

struct Job {
    CaptureDevice dev;
    Diagnostics diag{"job", false};
    PageHost host{dev};
    Interpreter gl{dev, diag, &fonts(), &host};
    int modeSwitches = 0;
    std::string pclBetween; // escape sequences outside HP-GL/2, for the record

    // Letter paper; the default picture frame of a portrait or landscape logical page.
    explicit Job(bool landscape) {
        PictureFrame f;
        if (landscape) {
            host.width = 792;
            host.height = 612;
            f.frameToPage = Matrix::translate(18, 36);
            f.width = 756;
            f.height = 540;
        } else {
            f.frameToPage = Matrix::translate(18, 36);
            f.width = 576;
            f.height = 720;
        }
        gl.setPictureFrame(f);
    }

    void run(const std::string& d) {
        size_t pos = 0;
        bool inGl = false;
        while (pos < d.size()) {
            if (inGl) {
                pos += gl.run(reinterpret_cast<const uint8_t*>(d.data()) + pos, d.size() - pos);
                if (pos >= d.size())
                    break;
                const size_t n = escapeLength(d, pos);
                const std::string seq = d.substr(pos, n);
                if (seq.size() >= 3 && seq[1] == '%' && seq.back() == 'A')
                    inGl = false;
                pos += n;
                continue;
            }
            const size_t esc = d.find('\x1b', pos);
            if (esc == std::string::npos)
                break;
            const size_t n = escapeLength(d, esc);
            const std::string seq = d.substr(esc, n);
            if (seq.size() >= 3 && seq[1] == '%' && seq.back() == 'B') {
                inGl = true;
                ++modeSwitches;
                gl.enterMode();
            } else {
                pclBetween += seq;
            }
            pos = esc + n;
        }
    }

    Box box() const {
        Box b;
        for (const auto& s : dev.strokes)
            b.add(s.path);
        for (const auto& f : dev.fills)
            b.add(f.path);
        return b;
    }
};

} // namespace

TEST(Hpgl2RealFiles, PlotutilsGraph) {
    Job job(false);
    job.run(readFile("graph_plotutils.pcl"));
    EXPECT_EQ(job.modeSwitches, 1);
    EXPECT_TRUE(job.diag.lines().empty()) << job.diag.lines().front();
    // The frame box, the curve and a short stroke for every tick mark; five numbers along
    // each axis.
    EXPECT_GT(job.dev.strokes.size(), 100u);
    EXPECT_GT(job.dev.masks, 10);
    const Box b = job.box();
    EXPECT_GE(b.x0, 18);
    EXPECT_LE(b.x1, 18 + 576);
    EXPECT_GE(b.y0, 36);
    EXPECT_LE(b.y1, 36 + 720);
}

TEST(Hpgl2RealFiles, PlotutilsGraphGeometry) {
    Job job(false);
    job.run(readFile("graph_plotutils.pcl"));
    // The frame of the plot, user units 2000..8000 scaled onto P1 (0, 1016), P2 (8128, 9144).
    const auto& calls = job.dev.calls();
    const bool frame = std::any_of(calls.begin(), calls.end(), [](const std::string& c) {
        return c.find("M133.2,568.8 L478.8,568.8 L478.8,223.2 L133.2,223.2 Z") != std::string::npos;
    });
    EXPECT_TRUE(frame);
    // The curve: five points, not closed (the pen is up when its polygon closes).
    const auto& last = job.dev.strokes.back();
    EXPECT_EQ(last.path.points().size(), 5u);
    EXPECT_NE(last.path.ops().back(), Path::Op::Close);
    EXPECT_NEAR(last.path.points().front().x, 133.2, 1e-9);
    EXPECT_NEAR(last.path.points().back().y, 756 - 6800 * 0.8128 * 72 / 1016 - 72, 1e-9);
    // Relative pen width: 0.0832% of the P1-P2 diagonal.
    EXPECT_NEAR(last.style.width, printedWidth(0.000832 * std::hypot(8128.0, 8128.0) * 72 / 1016), 1e-9);
}

TEST(Hpgl2RealFiles, GnuplotSineMonochrome) {
    Job job(true);
    job.run(readFile("sine_gnuplot.pcl"));
    EXPECT_EQ(job.modeSwitches, 1); // its second ESC%0B comes while HP-GL/2 already runs
    EXPECT_TRUE(job.diag.lines().empty()) << job.diag.lines().front();
    // Border, tics, the curve and the key line, all from polyline-encoded data.
    EXPECT_GT(job.dev.strokes.size(), 20u);
    size_t longest = 0;
    for (const auto& s : job.dev.strokes) {
        longest = std::max(longest, s.path.points().size());
        EXPECT_NEAR(s.style.width, printedWidth(0.25 * 72 / 25.4), 1e-9);
    }
    EXPECT_GT(longest, 90u); // the sampled sine
    EXPECT_GT(job.dev.masks, 20); // tic labels and the key
    const Box b = job.box();
    EXPECT_GE(b.x0, 18);
    EXPECT_LE(b.x1, 18 + 756);
    EXPECT_GE(b.y0, 36);
    EXPECT_LE(b.y1, 36 + 540);
    EXPECT_GT(b.x1 - b.x0, 500); // the plot spans most of the frame
    EXPECT_GT(b.y1 - b.y0, 350);
}

TEST(Hpgl2RealFiles, GnuplotColourCurves) {
    Job job(true);
    job.run(readFile("curves_gnuplot_colour.pcl"));
    EXPECT_TRUE(job.diag.lines().empty()) << job.diag.lines().front();
    std::set<std::string> colours;
    for (const auto& s : job.dev.strokes)
        colours.insert(RecordingDevice::describe(s.paint));
    // Black for the border, and the two curves' own colours set with PC.
    EXPECT_TRUE(colours.count("#000000"));
    EXPECT_TRUE(colours.count("#9400d3"));
    EXPECT_GE(colours.size(), 3u);
    const Box b = job.box();
    EXPECT_GE(b.x0, 18);
    EXPECT_LE(b.x1, 18 + 756);
    EXPECT_GE(b.y0, 36);
    EXPECT_LE(b.y1, 36 + 540);
}

TEST(Hpgl2RealFiles, Pic2plotShapes) {
    Job job(false);
    job.run(readFile("shapes_pic2plot.pcl"));
    EXPECT_TRUE(job.diag.lines().empty()) << job.diag.lines().front();
    // Box, two arrows with filled heads, a circle, an ellipse of Béziers, an arc and a spline.
    EXPECT_EQ(job.dev.fills.size(), 2u);
    EXPECT_GE(job.dev.strokes.size(), 8u);
    EXPECT_EQ(job.dev.masks, 11); // "Start", "Mid", "End"
    // The circle: CI313 user units around (4219, 5000).
    const double r = 313 * 0.8128 * 72 / 1016;
    const bool circle = std::any_of(job.dev.strokes.begin(), job.dev.strokes.end(), [&](const CaptureDevice::Stroke& s) {
        Box b;
        b.add(s.path);
        return s.path.points().size() == 73 && std::fabs((b.x1 - b.x0) - 2 * r) < 0.01;
    });
    EXPECT_TRUE(circle);
    // "Start" is centred in its box: its glyphs lie between the box's sides.
    const Box b = job.box();
    EXPECT_GE(b.x0, 18);
    EXPECT_LE(b.x1, 18 + 576);
}

TEST(Hpgl2RealFiles, BareHpgl2WithDashesAndStrokedLettering) {
    // Plain HP-GL/2 (no PCL around it), run whole.
    Job job(false);
    const std::string d = readFile("graph_dashed_plotutils.hpgl");
    ASSERT_FALSE(d.empty());
    EXPECT_EQ(runText(job.gl, d), d.size());
    EXPECT_TRUE(job.diag.lines().empty()) << job.diag.lines().front();
    size_t dashed = 0;
    for (const auto& s : job.dev.strokes)
        if (!s.style.dashes.empty())
            ++dashed;
    EXPECT_EQ(dashed, 1u); // the curve, line type 8
    EXPECT_GT(job.dev.strokes.size(), 50u); // the lettering is drawn with strokes
    const Box b = job.box();
    EXPECT_GE(b.x0, 18);
    EXPECT_LE(b.x1, 18 + 576);
    EXPECT_GE(b.y0, 36);
    EXPECT_LE(b.y1, 36 + 720);
}

TEST(Hpgl2RealFiles, PlotutilsGraphRasterised) {
    // The same job drawn into pixels at 100 dpi: the frame of the plot lands on its rows and
    // columns, and nothing is drawn outside the picture frame.
    qxtest::PageCollector sink;
    RasterOptions options;
    options.depth = 8;
    options.dpiX = options.dpiY = 100;
    RasterDevice dev(options, sink);
    Diagnostics diag("job", false);
    PageHost host(dev);
    Interpreter gl(dev, diag, &fonts(), &host);
    PictureFrame f;
    f.frameToPage = Matrix::translate(18, 36);
    f.width = 576;
    f.height = 720;
    gl.setPictureFrame(f);
    const std::string d = readFile("graph_plotutils.pcl");
    const size_t start = d.find("\x1b%0B") + 4;
    const size_t used = gl.run(reinterpret_cast<const uint8_t*>(d.data()) + start, d.size() - start);
    EXPECT_EQ(d.substr(start + used, 4), "\x1b%0A");
    ASSERT_TRUE(host.open);
    dev.endPage();
    ASSERT_EQ(sink.pages.size(), 1u);
    const RasterPage& page = sink.pages[0];
    ASSERT_EQ(page.width, 850);
    ASSERT_EQ(page.height, 1100);
    auto dark = [&](int x, int y) { return page.row(y)[x] < 128; };
    int x0 = page.width, y0 = page.height, x1 = -1, y1 = -1;
    long ink = 0;
    for (int y = 0; y < page.height; ++y)
        for (int x = 0; x < page.width; ++x)
            if (dark(x, y)) {
                ++ink;
                x0 = std::min(x0, x), y0 = std::min(y0, y), x1 = std::max(x1, x), y1 = std::max(y1, y);
            }
    EXPECT_GT(ink, 3000);
    // Inside the picture frame: 18..594 by 36..756 points.
    EXPECT_GE(x0, 25);
    EXPECT_LE(x1, 825);
    EXPECT_GE(y0, 50);
    EXPECT_LE(y1, 1050);
    // The plot's frame: 133.2 to 478.8 points across (185 to 665 px), 223.2 to 568.8 down
    // (310 to 790 px). Its left and right sides are dark half way down.
    const int mid = 550;
    auto darkNear = [&](int x, int y) { return dark(x - 1, y) || dark(x, y) || dark(x + 1, y); };
    EXPECT_TRUE(darkNear(185, mid));
    EXPECT_TRUE(darkNear(665, mid));
    EXPECT_FALSE(darkNear(425, 320)); // inside the plot, above the curve
    int topRow = 0;
    for (int x = 200; x < 650; ++x)
        topRow += dark(x, 310) || dark(x, 309) || dark(x, 311);
    EXPECT_GT(topRow, 440);
}

TEST(Hpgl2RealFiles, AbsurdValuesThroughTheRasterisingDevice) {
    // Huge and tiny sizes, far coordinates and degenerate shapes: drawn or skipped, never a hang
    // or a crash; the page still comes out.
    qxtest::PageCollector sink;
    RasterOptions options;
    options.depth = 1;
    options.dpiX = options.dpiY = 300;
    RasterDevice dev(options, sink);
    Diagnostics diag("job", false);
    PageHost host(dev);
    Interpreter gl(dev, diag, &fonts(), &host);
    PictureFrame f;
    f.frameToPage = Matrix::translate(18, 36);
    f.width = 576;
    f.height = 720;
    gl.setPictureFrame(f);
    const std::string job =
        "IN;SI10000,10000;PA100,100;LBBIG\x03SI0.00001,0.00001;LBsmall\x03SI;"
        "PA99999999,99999999;PD;PA-99999999,-99999999;PU;PA0,0;CI99999999;CI0;CI-5,0.001;"
        "PW99999;PD;PA1000,1000;PU;PW0;LT8,0.00001;PD;PA5000,5000;PU;LT;"
        "FT3,0.0001,45;RA99999999,99999999;FT4,1,30;WG100,0,360;FT11,9;RF1,255,255;FT11,1;RA500,500;"
        "SC0,0,0,0;SC0,1e9,0,1,1;IP0,0,0,0;PA1,1;PD;PA2,2;PU;IN;"
        "AT0,0,0,0;RT1,1,2,2;AA0,0,0;BZ0,0,0,0,0,0;PM0;PM0;PM1;PM2;FP;EP;PM2;EP;FP1;"
        "PE7>" "\x7e\x7e\x7e\x7e\x7e\x7e\x7e\x7e\x7e\x7e\x7e\x7e\x7e_" "__;DI0,0;DR0,0;LO99;LBx\x03";
    EXPECT_EQ(runText(gl, job), job.size());
    ASSERT_TRUE(host.open);
    dev.endPage();
    EXPECT_EQ(sink.pages.size(), 1u);
}

// The same jobs whole, through the PCL 5 interpreter that hands HP-GL/2 to this module.
TEST(Hpgl2RealFiles, WholeJobsThroughPcl5) {
    struct Case {
        const char* file;
        size_t minStrokes;
        int minMasks;
    };
    const Case cases[] = {
        {"graph_plotutils.pcl", 100, 10},
        {"sine_gnuplot.pcl", 20, 20},
        {"curves_gnuplot_colour.pcl", 20, 20},
        {"shapes_pic2plot.pcl", 8, 11},
        {"boxes_gnuplot.pcl", 10, 10},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        const std::string d = readFile(c.file);
        CaptureDevice dev;
        Diagnostics diag(c.file, false);
        JobContext ctx{dev, diag, &fonts(), {}};
        EXPECT_EQ(pcl5::run(reinterpret_cast<const uint8_t*>(d.data()), d.size(), ctx), d.size());
        EXPECT_TRUE(diag.lines().empty()) << diag.lines().front();
        EXPECT_EQ(dev.pageCount(), 1);
        EXPECT_GE(dev.strokes.size(), c.minStrokes);
        EXPECT_GE(dev.masks, c.minMasks);
        // Everything on the sheet (Letter, either way round).
        const Box b = [&] {
            Box box;
            for (const auto& s : dev.strokes)
                box.add(s.path);
            for (const auto& f : dev.fills)
                box.add(f.path);
            return box;
        }();
        EXPECT_GE(b.x0, 0);
        EXPECT_GE(b.y0, 0);
        EXPECT_LE(b.x1, 792);
        EXPECT_LE(b.y1, 792);
    }
}

TEST(Hpgl2RealFiles, GnuplotShadedBoxesAndDashes) {
    Job job(true);
    job.run(readFile("boxes_gnuplot.pcl"));
    EXPECT_TRUE(job.diag.lines().empty()) << job.diag.lines().front();
    // Three boxes and the key's sample, filled at half shade (FT10,50) of the first line colour.
    size_t shaded = 0;
    for (const auto& f : job.dev.fills) {
        const Rgb c = f.paint.color;
        if (f.paint.kind == Paint::Kind::Solid && c.r > 100 && c.r < 255 && !(c == Rgb::white()))
            ++shaded;
    }
    EXPECT_EQ(shaded, 4u);
    // The curve with dash type 2 (gnuplot's own line type 2 of UL) is dashed.
    const bool dashed = std::any_of(job.dev.strokes.begin(), job.dev.strokes.end(),
                                    [](const CaptureDevice::Stroke& s) { return !s.style.dashes.empty(); });
    EXPECT_TRUE(dashed);
    const Box b = job.box();
    EXPECT_GE(b.x0, 18);
    EXPECT_LE(b.x1, 18 + 756);
    EXPECT_GE(b.y0, 36);
    EXPECT_LE(b.y1, 36 + 540);
}
