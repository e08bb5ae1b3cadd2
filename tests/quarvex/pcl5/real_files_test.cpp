// Real jobs made by Ghostscript's PCL drivers from small PostScript files, rendered through the
// rasterising device. The expected ink positions were measured on Ghostscript's own 300 dpi
// rendering of the same PostScript, so the raster must land where the page put it, moved by
// the registration the driver sends: its LaserJet 4 drivers register the page 36 decipoints
// down (ESC&l36Z), a twentieth of an inch, 15 dots at 300 dpi and 30 at 600 dpi.

#include "pcl5/pcl5.h"

#include "common/diagnostics.h"
#include "common/page_collector.h"
#include "fonts/font_library.h"
#include "render/raster_device.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

using namespace qx;

namespace {

struct InkBox {
    int x0 = -1, y0 = -1, x1 = -1, y1 = -1; // inclusive
    long count = 0;
};

InkBox inkBox(const RasterPage& p) {
    InkBox b;
    for (int y = 0; y < p.height; ++y) {
        const uint8_t* row = p.row(y);
        for (int x = 0; x < p.width; ++x) {
            bool ink;
            if (p.format == RasterPage::Format::Bilevel)
                ink = (row[x / 8] >> (7 - x % 8)) & 1;
            else if (p.format == RasterPage::Format::Gray8)
                ink = row[x] < 128;
            else
                ink = row[x * 3] < 128 || row[x * 3 + 1] < 128 || row[x * 3 + 2] < 128;
            if (!ink)
                continue;
            ++b.count;
            if (b.x0 < 0 || x < b.x0)
                b.x0 = x;
            if (b.y0 < 0)
                b.y0 = y;
            if (x > b.x1)
                b.x1 = x;
            b.y1 = y;
        }
    }
    return b;
}

std::string readFile(const std::string& name) {
    std::ifstream in(std::string(QX_PCL5_DATA_DIR) + "/" + name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

struct Rendered {
    std::vector<RasterPage> pages;
    bool warnings = false;
    std::vector<std::string> messages;
};

Rendered render(const std::string& name, int depth = 1, double dpi = 300) {
    const std::string job = readFile(name);
    EXPECT_FALSE(job.empty()) << name;
    static FontLibrary fonts({std::string(QX_STAGE_DIR) + "/fonts"}, false);
    qxtest::PageCollector sink;
    RasterOptions opt;
    opt.depth = depth;
    opt.dpiX = opt.dpiY = dpi;
    RasterDevice dev(opt, sink);
    Diagnostics diag(name, false);
    JobContext ctx{dev, diag, &fonts, {}};
    // Skip a PJL header the way the job loop would: the PCL starts after ENTER LANGUAGE.
    size_t start = 0;
    if (const size_t at = job.find("ENTER LANGUAGE"); at != std::string::npos)
        start = job.find('\n', at) + 1;
    pcl5::run(reinterpret_cast<const uint8_t*>(job.data()) + start, job.size() - start, ctx);
    return {sink.pages, diag.hasWarnings(), diag.lines()};
}

} // namespace

// The PostScript behind small-ljet4.pcl (Letter, 300 dpi): Helvetica text, a filled triangle
// and a 50 % grey box. Ghostscript's own rendering has its ink in columns 303..1666 and rows
// 321..1633, 204632 black pixels; the job's top registration puts it 15 rows lower.
constexpr int kTopRegistration300 = 15;
TEST(Pcl5RealFiles, Ljet4LetterLandsWhereThePageDrewIt) {
    Rendered r = render("small-ljet4.pcl");
    ASSERT_EQ(r.pages.size(), 1u);
    const RasterPage& p = r.pages[0];
    EXPECT_EQ(p.width, 2550);
    EXPECT_EQ(p.height, 3300);
    EXPECT_FALSE(r.warnings);
    const InkBox b = inkBox(p);
    EXPECT_EQ(b.x0, 303);
    EXPECT_EQ(b.y0, 321 + kTopRegistration300);
    EXPECT_EQ(b.x1, 1666);
    EXPECT_EQ(b.y1, 1633 + kTopRegistration300);
    EXPECT_EQ(b.count, 204632);
}

TEST(Pcl5RealFiles, Ljet4PjlIsTheSamePage) {
    Rendered r = render("small-ljet4pjl.pcl");
    ASSERT_EQ(r.pages.size(), 1u);
    const InkBox b = inkBox(r.pages[0]);
    EXPECT_EQ(b.x0, 303);
    EXPECT_EQ(b.y0, 321 + kTopRegistration300);
    EXPECT_EQ(b.count, 204632);
}

// Two A4 pages; Ghostscript's rendering: page 1 ink 251..2083 x 290..3091 (102060 pixels),
// page 2 ink 422..1008 x 1771..1863 (8577 pixels). The driver registers its raster 180
// decipoints (75 dots) left, for a logical page inset a quarter inch; HP's A4 logical page is
// inset 71 dots, so on the printer everything lands 4 dots left of Ghostscript's rendering
// (and 15 dots down, the top registration).
TEST(Pcl5RealFiles, Ljet4A4TwoPages) {
    Rendered r = render("a4-ljet4.pcl");
    ASSERT_EQ(r.pages.size(), 2u);
    EXPECT_EQ(r.pages[0].width, 2480);
    EXPECT_EQ(r.pages[0].height, 3508);
    InkBox b = inkBox(r.pages[0]);
    EXPECT_EQ(b.x0, 251 - 4);
    EXPECT_EQ(b.y0, 290 + kTopRegistration300);
    EXPECT_EQ(b.x1, 2083 - 4);
    EXPECT_EQ(b.y1, 3091 + kTopRegistration300);
    EXPECT_EQ(b.count, 102060);
    b = inkBox(r.pages[1]);
    EXPECT_EQ(b.x0, 422 - 4);
    EXPECT_EQ(b.y0, 1771 + kTopRegistration300);
    EXPECT_EQ(b.x1, 1008 - 4);
    EXPECT_EQ(b.y1, 1863 + kTopRegistration300);
    EXPECT_EQ(b.count, 8577);
}

// A triangle at 600 dpi: Ghostscript puts it in 833..1666 x 766..1599, 348612 pixels; the top
// registration moves it 30 rows down.
TEST(Pcl5RealFiles, Ljet4At600Dpi) {
    Rendered r = render("tiny-ljet4-600.pcl", 1, 600);
    ASSERT_EQ(r.pages.size(), 1u);
    EXPECT_EQ(r.pages[0].width, 5100);
    const InkBox b = inkBox(r.pages[0]);
    EXPECT_EQ(b.x0, 833);
    EXPECT_EQ(b.y0, 766 + 2 * kTopRegistration300);
    EXPECT_EQ(b.x1, 1666);
    EXPECT_EQ(b.y1, 1599 + 2 * kTopRegistration300);
    EXPECT_EQ(b.count, 348612);
}

// Plain text in the default font: ten lines of Courier from the first baseline (0.5 inch top
// margin + 3/4 of a 1/6 inch line = 187.5 pixels) at the logical page's left edge (75 pixels),
// then a second page.
TEST(Pcl5RealFiles, PlainTextInTheDefaultFont) {
    Rendered r = render("text-default.pcl");
    ASSERT_EQ(r.pages.size(), 2u);
    EXPECT_FALSE(r.warnings);
    InkBox b = inkBox(r.pages[0]);
    EXPECT_GE(b.x0, 75);
    EXPECT_LE(b.x0, 82);
    EXPECT_GT(b.y0, 150);  // cap height of 12 point Courier is about 28 pixels
    EXPECT_LT(b.y0, 165);
    // 64 characters of 30 pixels each.
    EXPECT_GT(b.x1, 75 + 63 * 30);
    EXPECT_LE(b.x1, 75 + 64 * 30);
    // The tenth baseline is nine lines (50 pixels each) below the first; descenders go below.
    EXPECT_GT(b.y1, 187 + 9 * 50);
    EXPECT_LT(b.y1, 187 + 9 * 50 + 15);
    b = inkBox(r.pages[1]);
    EXPECT_GT(b.count, 100);
    EXPECT_LT(b.x1, 75 + 8 * 30 + 1);
}

TEST(Pcl5RealFiles, PlainTextInSelectedResidentFonts) {
    Rendered r = render("text-fonts.pcl");
    ASSERT_EQ(r.pages.size(), 1u);
    EXPECT_FALSE(r.warnings);
    EXPECT_EQ(r.pages[0].width, 2480); // A4
    const InkBox b = inkBox(r.pages[0]);
    EXPECT_GE(b.x0, 65);
    EXPECT_LT(b.x0, 85);
    // Seven lines at 6 lines an inch: the last baseline at 187.5 + 6 * 50 pixels, with an
    // underline a few pixels below it.
    EXPECT_GT(b.y1, 187 + 6 * 50);
    EXPECT_LT(b.y1, 187 + 6 * 50 + 15);
    EXPECT_GT(b.count, 5000);
}

// Ghostscript's driver for the first LaserJet sends unencoded rows and assumes that printer's
// own margins, so its page sits 60 dots right and 75 dots higher than on the LaserJets of the
// PCL 5 era; the shape itself must come out whole: Ghostscript draws the triangle in
// 83..249 x 216..383, 14195 pixels.
TEST(Pcl5RealFiles, LaserjetUnencodedRows) {
    Rendered r = render("corner-laserjet.pcl");
    ASSERT_EQ(r.pages.size(), 1u);
    EXPECT_FALSE(r.warnings);
    const InkBox b = inkBox(r.pages[0]);
    EXPECT_EQ(b.count, 14195);
    EXPECT_EQ(b.x1 - b.x0, 249 - 83);
    EXPECT_EQ(b.y1 - b.y0, 383 - 216);
    EXPECT_EQ(b.x0, 83 + 60);
    EXPECT_EQ(b.y0, 216 - 75);
}

// A downloaded TrueType font (made by tools/make_truetype_job.py from Liberation Sans): "HELLO"
// at 24 point (100 pixels to the em) on the first baseline (187.5 pixels) from the logical
// page's left edge (75 pixels); H's left bearing is about 8 pixels, the capitals stand about
// 69 pixels high and the word is about 3.28 em wide.
TEST(Pcl5RealFiles, DownloadedTrueTypeFont) {
    Rendered r = render("truetype-softfont.pcl");
    ASSERT_EQ(r.pages.size(), 1u);
    EXPECT_FALSE(r.warnings) << (r.messages.empty() ? "" : r.messages[0]);
    const InkBox b = inkBox(r.pages[0]);
    EXPECT_GE(b.x0, 80);
    EXPECT_LE(b.x0, 86);
    EXPECT_GE(b.y0, 114);
    EXPECT_LE(b.y0, 121);
    EXPECT_GE(b.y1, 186);
    EXPECT_LE(b.y1, 190);
    EXPECT_GE(b.x1, 390);
    EXPECT_LE(b.x1, 405);
    EXPECT_GT(b.count, 3000);
}
