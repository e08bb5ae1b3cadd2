// HP-GL/2 from real plotting programs (GNU plotutils' graph and pic2plot with -T pcl, gnuplot's
// pcl5 terminal), taken out of its PCL wrapper the way the PCL interpreter hands it over:
// from each ESC%#B to the ESC%#A that ends it, other escape sequences skipped.

#include "test_support.h"

#include "fonts/font_library.h"

#include <gtest/gtest.h>

#include <fstream>
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
