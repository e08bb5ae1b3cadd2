// HP-GL/2 on hostile and unusual input: labels in transparent data mode up to their terminator,
// labels without a terminator, polygons of hundreds of thousands of points. Work is counted on
// the device and memory is capped with setrlimit in a child process; nothing here is timed.

#include "test_support.h"

#include "common/job.h"
#include "common/page_collector.h"
#include "fonts/font_library.h"
#include "pcl5/pcl5.h"
#include "render/raster_device.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

using namespace qx;
using namespace qx::hpgl2;
using namespace qx::hpgl2::test;

namespace {

const FontLibrary& fonts() {
    static FontLibrary lib({std::string(QX_STAGE_DIR) + "/fonts"}, false);
    return lib;
}

// A device that only counts what it is given: no memory of its own grows with the input.
class CountingDevice : public Device {
public:
    void beginPage(const PageSpec&) override { ++pages; }
    void endPage() override {}
    void discardPage() override {}
    Matrix pageToDevice() const override { return Matrix::scale(300.0 / 72, 300.0 / 72); }
    void fillPath(const Path& path, FillRule, const Paint&, const RenderState&) override {
        ++fills;
        fillPoints += path.points().size();
    }
    void strokePath(const Path& path, const StrokeStyle&, const Paint&, const RenderState&) override {
        ++strokes;
        strokePoints += path.points().size();
    }
    void drawImage(const Image&, const Matrix&, const Paint&, const RenderState&) override {}
    void fillMask(const Mask&, const Matrix&, const Paint&, const RenderState&) override { ++masks; }

    int pages = 0;
    size_t fills = 0, strokes = 0, masks = 0, fillPoints = 0, strokePoints = 0;
};

struct Counted {
    CountingDevice dev;
    Diagnostics diag{"test", false};
    PageHost host{dev};
    Interpreter gl{dev, diag, &fonts(), &host};
    Counted() {
        PictureFrame f;
        f.frameToPage = Matrix::translate(18, 36);
        f.width = 576;
        f.height = 720;
        gl.setPictureFrame(f);
    }
    size_t run(const std::string& s) { return gl.run(reinterpret_cast<const uint8_t*>(s.data()), s.size()); }
};

size_t virtualMemoryBytes() {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("VmSize:", 0) == 0)
            return static_cast<size_t>(std::stoull(line.substr(7))) * 1024;
    return 0;
}

// Runs work in a child process whose address space may grow by at most `headroom` bytes beyond
// what it has when the work starts; true when the work finished within it.
bool runsWithin(size_t headroom, const std::function<bool()>& work) {
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const rlimit lim{virtualMemoryBytes() + headroom, virtualMemoryBytes() + headroom};
        setrlimit(RLIMIT_AS, &lim);
        bool ok = false;
        try {
            ok = work();
        } catch (...) {
            ok = false;
        }
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

constexpr size_t kMiB = size_t(1) << 20;

std::string zigzagPolygon(int points) {
    // Points zig-zagging across the page, each side crossing the ones before and after it.
    std::string s = "IN;SP1;PA500,500;PM0;PD";
    for (int i = 0; i < points; ++i) {
        s += std::to_string((i % 2) ? 7000 : 500 + (i % 7) * 10) + "," + std::to_string(500 + (i * 7) % 9000);
        s += i + 1 < points ? "," : ";";
    }
    return s + "PM2;FP;";
}

// Runs a PCL job through a rasterising device at its default resolution and the given depth.
struct Rasterised {
    int pages = 0;
    RasterStats stats;
};
Rasterised rasteriseJob(const std::string& job, PageSink& sink, int depth) {
    RasterOptions options;
    options.depth = depth;
    RasterDevice dev(options, sink);
    Diagnostics diag("job", false);
    JobContext ctx{dev, diag, &fonts(), {}};
    pcl5::run(reinterpret_cast<const uint8_t*>(job.data()), job.size(), ctx);
    return {dev.pagesWritten(), dev.stats()};
}

} // namespace

TEST(Hpgl2Bounded, TransparentDataLabelPrintsEveryCodeUpToItsTerminator) {
    // Every code from 0 to 255 but the terminator, ESC included: only the terminator ends it.
    std::string job = "\x1b" "E\x1b%0BIN;DT!;TD1;SP1;SI0.03,0.05;PA1000,1000;LB";
    for (int c = 0; c < 256; ++c)
        if (c != '!')
            job.push_back(static_cast<char>(c));
    job += "!PA0,0;\x1b%0A\x1b" "E";
    CaptureDevice dev;
    Diagnostics diag("job", false);
    JobContext ctx{dev, diag, &fonts(), {}};
    EXPECT_EQ(pcl5::run(reinterpret_cast<const uint8_t*>(job.data()), job.size(), ctx), job.size());
    EXPECT_TRUE(diag.lines().empty()) << diag.lines().front();
    EXPECT_EQ(dev.pageCount(), 1);
    // The printable codes of Roman-8 in both halves: 94 + about 90, less the terminator (small
    // enough for the whole line to fit on the page).
    EXPECT_GE(dev.masks, 170);
}

TEST(Hpgl2Bounded, ControlCodesAreCharactersOnlyInTransparentData) {
    Counted plain, transparent;
    plain.run("IN;SP1;PA1000,1000;LBA\rB\nC\x03");
    transparent.run("IN;TD1;SP1;PA1000,1000;LBA\rB\nC\x03");
    EXPECT_EQ(plain.dev.masks, 3u);
    EXPECT_EQ(transparent.dev.masks, 3u); // CR and LF have no glyph in Roman-8
    // TD;: back to control codes. DF ends transparent data too.
    Counted back;
    back.run("IN;TD1;DF;SP1;PA1000,1000;LBAB\x03");
    EXPECT_EQ(back.dev.masks, 2u);
}

TEST(Hpgl2Bounded, UndefinedCodesPrintNothing) {
    // 0xFF is undefined in Roman-8: nothing is drawn for it (no question mark).
    Counted t;
    t.run("IN;SP1;PA1000,1000;LBA\xff" "B\x03");
    EXPECT_EQ(t.dev.masks, 2u);
}

TEST(Hpgl2Bounded, LabelWithoutTerminatorConvertsInBoundedMemory) {
    // 16 MiB of label text without its terminator, in characters too small to show. Holding
    // the label whole takes 64 MiB as characters and more for their advances; drawing it as it
    // comes needs a line at a time. The engine runs in a fresh process whose address space is
    // capped at 96 MiB: it must finish, with a warning (exit 3).
    const auto dir = std::filesystem::temp_directory_path();
    const std::string input = (dir / ("qx_hpgl2_label_" + std::to_string(getpid()) + ".pcl")).string();
    const std::string output = input + ".tif";
    {
        std::ofstream out(input, std::ios::binary);
        out << "\x1b" "E\x1b%0BIN;SP1;SI0.0005,0.0005;PA100,100;LB" << std::string(16 * kMiB, 'A');
    }
    const std::string quarvex = std::string(QX_STAGE_DIR) + "/bin/quarvex";
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const rlimit lim{96 * kMiB, 96 * kMiB};
        setrlimit(RLIMIT_AS, &lim);
        execl(quarvex.c_str(), "quarvex", "-r", "75x75", "-b", "1", "-o", output.c_str(), "-i", input.c_str(),
              static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3) << status;
    std::filesystem::remove(input);
    std::filesystem::remove(output);
    // A label in a size that shows: every character is drawn.
    Counted t;
    const std::string shown(200, 'A');
    t.run("IN;SP1;SI0.05,0.05;PA100,100;LB" + shown);
    EXPECT_EQ(t.dev.masks, shown.size());
}

TEST(Hpgl2Bounded, PolygonOfTwoHundredThousandPointsIsOneFill) {
    Counted t;
    t.run(zigzagPolygon(200000));
    EXPECT_EQ(t.dev.fills, 1u);
    // The pen position before PM0 and every point, in one path.
    EXPECT_EQ(t.dev.fillPoints, 200001u);
    EXPECT_FALSE(t.diag.hasWarnings());
}

TEST(Hpgl2Bounded, PolygonBufferIsBoundedWithAWarning) {
    // A million points: the buffer keeps what a printer's would and drops the rest, and one
    // instruction of two million numbers is read in pieces.
    const std::string job = zigzagPolygon(1000000);
    EXPECT_TRUE(runsWithin(40 * kMiB, [&] {
        Counted t;
        t.run(job);
        return t.dev.fills == 1 && t.dev.fillPoints <= 500000 && t.dev.fillPoints > 499000 &&
               t.diag.hasWarnings();
    }));
}

TEST(Hpgl2Bounded, GlyphsBeyondThePictureFrameAreNotRendered) {
    // A label a hundred thousand characters long at 12 points: only the ones on the page are
    // rendered, the pen still moves past all of them.
    Counted t;
    const std::string text(100000, 'A');
    t.run("IN;SP1;PA100,100;LB" + text + "\x03");
    EXPECT_GT(t.dev.masks, 20u);
    EXPECT_LT(t.dev.masks, 200u);
    EXPECT_GT(t.gl.penPosition().x, 100000 * 5.0);
}

TEST(Hpgl2Bounded, LongPenDownLineReachesTheDeviceInPieces) {
    std::string job = "IN;SP1;PA0,0;PD";
    for (int i = 0; i < 300000; ++i)
        job += std::to_string(i % 2 ? 5000 : 0) + "," + std::to_string(i % 1000) +
               (i + 1 < 300000 ? "," : ";");
    Counted t;
    t.run(job + "PU;");
    EXPECT_GE(t.dev.strokes, 4u);
    // Every point once, and each piece starts where the one before ended.
    EXPECT_EQ(t.dev.strokePoints, 300001u + t.dev.strokes - 1);
}

TEST(Hpgl2Bounded, TwoHundredThousandPointFillReachesThePage) {
    // Through the rasterising device at 300 dpi: the page comes out, with ink.
    qxtest::PageCollector sink;
    const std::string job = "\x1b" "E\x1b%0B" + zigzagPolygon(200000) + "\x1b%0A\x1b" "E";
    EXPECT_EQ(rasteriseJob(job, sink, 8).pages, 1);
    size_t ink = 0;
    for (const RasterPage& page : sink.pages)
        for (int y = 0; y < page.height; ++y)
            for (int x = 0; x < page.width; ++x)
                ink += page.row(y)[x] < 128;
    EXPECT_GT(ink, 100000u);
}

TEST(Hpgl2Bounded, SelfIntersectingFillCostsItsRowCrossings) {
    // 200,000 points wandering across the page, crossing their own path all the time (a filled
    // scribble), through the rasterising device at 300 dpi. The scan converter's work is the
    // crossings of edges with rows: at most the rows each edge spans, summed, where a fill that
    // grew with the square of the points (every edge tried on every row, or crossings sorted
    // into place one by one) would be hundreds of times more.
    std::mt19937 rng(15);
    std::uniform_int_distribution<int> across(500, 7500), wobble(-60, 60);
    const int n = 200000;
    std::vector<std::pair<int, int>> pts;
    std::string job = "\x1b" "E\x1b%0BIN;SP1;";
    for (int i = 0; i < n; ++i) {
        const int x = across(rng), y = 500 + int(int64_t(i) * 9000 / n) + wobble(rng);
        pts.emplace_back(x, y);
        job += (i == 0 ? "PU" : "") + std::to_string(x) + "," + std::to_string(y) +
               (i == 0 ? ";PM0;PD" : (i + 1 < n ? "," : ";PM2;FP;"));
    }
    job += "PU;\x1b%0A\x1b" "E";
    qxtest::PageCollector sink;
    const Rasterised done = rasteriseJob(job, sink, 1);
    EXPECT_EQ(done.pages, 1);
    EXPECT_EQ(done.stats.scanFills, 1u);
    // Rows each edge spans (plotter units to 300 dpi rows: 1016 units an inch), plus one each,
    // and the closing edge across the whole height.
    uint64_t spans = 0;
    for (int i = 0; i < n; ++i) {
        const int dy = std::abs(pts[size_t(i)].second - pts[size_t((i + 1) % n)].second);
        spans += uint64_t(dy * 300 / 1016 + 2);
    }
    EXPECT_GT(done.stats.scanCrossings, uint64_t(n) / 2); // it did the work
    EXPECT_LE(done.stats.scanCrossings, spans);
    EXPECT_LT(spans, uint64_t(n) * 60); // against about n x 2700 rows for the square
}
