// PostScript and PDF files from real producers (groff, a2ps, enscript, ps2pdf, LibreOffice),
// converted by the quarvex executable and compared pixel for pixel with Ghostscript's own TIFF
// device (tiff24nc) rendering the same file at the same resolution. Grey and black-and-white
// output follow the engine's rules for every language: grey is the BT.601 luminance of the
// colours, and one bit halftones that grey with the engine's ordered dither (black stays black,
// white stays white). Pages of pure black text also match Ghostscript's own one-bit device.

#include "common/file_io.h"
#include "render/raster_ops.h"

#include <gtest/gtest.h>
#include <tiffio.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

const std::string kQuarvex = std::string(QX_STAGE_DIR) + "/bin/quarvex";
const fs::path kData = fs::path(QX_PS_TEST_DATA_DIR);

class RemoveTestFolder : public testing::Environment {
public:
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(fs::temp_directory_path() / ("qx_ps_tests_" + std::to_string(::getpid())), ec);
    }
};
[[maybe_unused]] testing::Environment* const g_cleanup = testing::AddGlobalTestEnvironment(new RemoveTestFolder);

fs::path workDir() {
    const fs::path dir = fs::temp_directory_path() / ("qx_ps_tests_" + std::to_string(::getpid()));
    fs::create_directories(dir);
    return dir;
}

using qx::test::readFile;
using qx::test::writeFile;

struct RunResult {
    int status = -1;
    std::string err;
};

// Runs a program with its standard error kept. cpuSeconds > 0 caps the processor time it may
// use, so that a program that never ends is killed (and the run fails) instead of hanging.
RunResult runProgram(const std::vector<std::string>& args, int cpuSeconds = 0) {
    const fs::path errFile = workDir() / ("stderr_" + std::to_string(::getpid()) + ".txt");
    const pid_t pid = ::fork();
    if (pid == 0) {
        if (cpuSeconds > 0) {
            const rlimit cap{rlim_t(cpuSeconds), rlim_t(cpuSeconds)};
            ::setrlimit(RLIMIT_CPU, &cap);
        }
        const int devnull = ::open("/dev/null", O_WRONLY);
        const int err = ::open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ::dup2(devnull, 1);
        ::dup2(err, 2);
        std::vector<char*> argv;
        for (const std::string& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        ::execvp(argv[0], argv.data());
        ::_exit(127);
    }
    int st = 0;
    ::waitpid(pid, &st, 0);
    RunResult r;
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    r.err = readFile(errFile);
    return r;
}

RunResult quarvex(std::vector<std::string> options, const fs::path& in, const fs::path& out, int cpuSeconds = 0) {
    std::vector<std::string> args{kQuarvex};
    args.insert(args.end(), options.begin(), options.end());
    args.insert(args.end(), {"-o", out.string(), "-i", in.string()});
    return runProgram(args, cpuSeconds);
}

std::string dpiArg(double x, double y) {
    char buf[96];
    std::snprintf(buf, sizeof buf, "-r%.6fx%.6f", x, y);
    return buf;
}

// Ghostscript's own TIFF device on the same file. The engine's instance draws whole pages in
// memory, so the reference does too (-dMaxBitmap): Ghostscript's banded rendering of large
// pages can put a fill's edge pixel differently.
void ghostscript(const std::string& device, const std::string& resolution, const fs::path& in,
                 const fs::path& out, const std::string& paper = "letter", bool epsCrop = false) {
    std::vector<std::string> args{"gs", "-q", "-dSAFER", "-dBATCH", "-dNOPAUSE", "-sDEVICE=" + device,
                                  resolution, "-sPAPERSIZE=" + paper, "-dMaxBitmap=2000000000", "-dTextAlphaBits=1",
                                  "-dGraphicsAlphaBits=1", "-sOutputFile=" + out.string()};
    if (epsCrop)
        args.push_back("-dEPSCrop");
    args.push_back(in.string());
    const RunResult r = runProgram(args);
    ASSERT_EQ(r.status, 0) << r.err;
}

// One page as 8-bit samples: 0 = black, 255 = white (1-bit pages become 0 or 255).
struct Page {
    int width = 0, height = 0, samples = 1, bits = 8;
    float xdpi = 0, ydpi = 0;
    uint16_t compression = 0;
    std::vector<uint8_t> pixels;
    uint8_t at(int x, int y, int s = 0) const { return pixels[(size_t(y) * width + x) * samples + s]; }
};

std::vector<Page> readTiff(const fs::path& path) {
    std::vector<Page> pages;
    TIFF* tif = TIFFOpen(path.c_str(), "r");
    if (!tif)
        return pages;
    do {
        Page p;
        uint32_t w = 0, h = 0;
        uint16_t bps = 1, spp = 1, photometric = 0;
        TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &w);
        TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &h);
        TIFFGetFieldDefaulted(tif, TIFFTAG_BITSPERSAMPLE, &bps);
        TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLESPERPIXEL, &spp);
        TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &photometric);
        TIFFGetField(tif, TIFFTAG_XRESOLUTION, &p.xdpi);
        TIFFGetField(tif, TIFFTAG_YRESOLUTION, &p.ydpi);
        TIFFGetField(tif, TIFFTAG_COMPRESSION, &p.compression);
        p.width = int(w);
        p.height = int(h);
        p.samples = spp;
        p.bits = bps;
        p.pixels.resize(size_t(w) * h * spp);
        std::vector<uint8_t> row(TIFFScanlineSize(tif));
        for (uint32_t y = 0; y < h; ++y) {
            if (TIFFReadScanline(tif, row.data(), y, 0) < 0)
                break;
            uint8_t* dst = p.pixels.data() + size_t(y) * w * spp;
            for (uint32_t i = 0; i < w * spp; ++i) {
                uint8_t v = bps == 1 ? ((row[i / 8] >> (7 - i % 8)) & 1 ? 255 : 0) : row[i];
                if (photometric == PHOTOMETRIC_MINISWHITE)
                    v = uint8_t(255 - v);
                dst[i] = v;
            }
        }
        pages.push_back(std::move(p));
    } while (TIFFReadDirectory(tif));
    TIFFClose(tif);
    return pages;
}

// The engine's grey for an RGB page: the BT.601 luminance of each pixel.
Page grey(const Page& rgb) {
    if (rgb.samples == 1)
        return rgb;
    Page out = rgb;
    out.samples = 1;
    out.pixels.resize(size_t(rgb.width) * rgb.height);
    for (int y = 0; y < rgb.height; ++y)
        for (int x = 0; x < rgb.width; ++x)
            out.pixels[size_t(y) * rgb.width + x] = qx::raster::luminance(rgb.at(x, y, 0), rgb.at(x, y, 1), rgb.at(x, y, 2));
    return out;
}

std::vector<Page> grey(const std::vector<Page>& pages) {
    std::vector<Page> out;
    for (const Page& p : pages)
        out.push_back(grey(p));
    return out;
}

// The engine's halftone of a page: black where its grey is below the threshold.
Page halftoned(const Page& page) {
    const Page grey = ::grey(page);
    Page out = grey;
    const auto& thr = qx::raster::ditherThresholds();
    for (int y = 0; y < grey.height; ++y)
        for (int x = 0; x < grey.width; ++x)
            out.pixels[size_t(y) * grey.width + x] = grey.at(x, y) >= thr[y & 15][x & 15] ? 255 : 0;
    return out;
}

// Pixels that differ, or -1 when the sizes differ.
long differences(const Page& a, const Page& b) {
    if (a.width != b.width || a.height != b.height || a.samples != b.samples)
        return -1;
    long n = 0;
    for (size_t i = 0; i < a.pixels.size(); ++i)
        n += a.pixels[i] != b.pixels[i];
    return n;
}

void expectSamePages(const std::vector<Page>& got, const std::vector<Page>& want, const std::string& what) {
    ASSERT_EQ(got.size(), want.size()) << what;
    ASSERT_FALSE(got.empty()) << what;
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].width, want[i].width) << what << " page " << i + 1;
        EXPECT_EQ(got[i].height, want[i].height) << what << " page " << i + 1;
        EXPECT_EQ(differences(got[i], want[i]), 0) << what << " page " << i + 1;
    }
}

struct Sample {
    const char* file;
    const char* paper; // Ghostscript's page when the file sets none
    int pages;
};

const Sample kSamples[] = {
    {"groff.ps", "letter", 2},    {"a2ps.ps", "a4", 1},        {"enscript.ps", "letter", 1},
    {"shapes.ps", "letter", 2},   {"groff.pdf", "letter", 2},  {"shapes.pdf", "letter", 2},
    {"libreoffice.pdf", "letter", 1},
};

} // namespace

TEST(PostScriptFiles, ColourAndGreyMatchGhostscriptBitForBit) {
    for (const Sample& s : kSamples) {
        const fs::path ref = workDir() / "ref.tif";
        ghostscript("tiff24nc", "-r100", kData / s.file, ref, s.paper);
        const auto colour = readTiff(ref);
        for (const int depth : {24, 8}) {
            const fs::path out = workDir() / "out.tif";
            const RunResult r = quarvex({"-r", "100x100", "-b", std::to_string(depth)}, kData / s.file, out);
            ASSERT_EQ(r.status, 0) << s.file << ": " << r.err;
            EXPECT_EQ(r.err, "") << s.file;
            const auto got = readTiff(out);
            EXPECT_EQ(int(got.size()), s.pages) << s.file;
            expectSamePages(got, depth == 24 ? colour : grey(colour),
                            std::string(s.file) + " at " + std::to_string(depth) + " bits");
            for (const Page& p : got) {
                EXPECT_FLOAT_EQ(p.xdpi, 100);
                EXPECT_FLOAT_EQ(p.ydpi, 100);
            }
        }
    }
}

TEST(PostScriptFiles, BlackAndWhiteIsTheEnginesHalftoneOfGhostscriptsColours) {
    for (const char* file : {"shapes.ps", "shapes.pdf", "libreoffice.pdf"}) {
        const fs::path out = workDir() / "bw.tif";
        const fs::path ref = workDir() / "bw_ref.tif";
        ASSERT_EQ(quarvex({"-r", "150x150", "-b", "1", "-c", "7"}, kData / file, out).status, 0);
        ghostscript("tiff24nc", "-r150", kData / file, ref);
        std::vector<Page> want;
        for (const Page& p : readTiff(ref))
            want.push_back(halftoned(p));
        const auto got = readTiff(out);
        ASSERT_FALSE(got.empty());
        EXPECT_EQ(got[0].bits, 1);
        EXPECT_EQ(got[0].compression, COMPRESSION_CCITTFAX4);
        expectSamePages(got, want, file);
    }
}

TEST(PostScriptFiles, BlackTextMatchesGhostscriptsOwnOneBitDevice) {
    const fs::path out = workDir() / "text.tif";
    const fs::path ref = workDir() / "text_ref.tif";
    ASSERT_EQ(quarvex({"-r", "200x200", "-b", "1", "-c", "4"}, kData / "groff.ps", out).status, 0);
    ghostscript("tiffg4", "-r200", kData / "groff.ps", ref);
    expectSamePages(readTiff(out), readTiff(ref), "groff.ps at one bit");
}

TEST(PostScriptFiles, PixelSizesAreDrawnAtThatSize) {
    // groff.ps is A4 (595 x 842 points): 700 pixels across make 991 down.
    const fs::path out = workDir() / "gw.tif";
    const fs::path ref = workDir() / "gw_ref.tif";
    ASSERT_EQ(quarvex({"-gw", "700", "-b", "8"}, kData / "groff.ps", out).status, 0);
    ghostscript("tiff24nc", dpiArg(700 * 72.0 / 595, 991 * 72.0 / 842), kData / "groff.ps", ref);
    const auto got = readTiff(out);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].width, 700);
    EXPECT_EQ(got[0].height, 991);
    expectSamePages(got, grey(readTiff(ref)), "groff.ps at -gw 700");

    // Both sides given: the Letter page is stretched to 500 x 500, in the PDF as in PostScript.
    for (const char* file : {"shapes.ps", "shapes.pdf"}) {
        ASSERT_EQ(quarvex({"-gw", "500", "-gh", "500", "-b", "24", "-r", "96x96"}, kData / file, out).status, 0);
        ghostscript("tiff24nc", dpiArg(500 * 72.0 / 612, 500 * 72.0 / 792), kData / file, ref);
        const auto pages = readTiff(out);
        ASSERT_EQ(pages.size(), 2u);
        EXPECT_FLOAT_EQ(pages[0].xdpi, 96); // -r is what the file says
        expectSamePages(pages, readTiff(ref), std::string(file) + " at 500 x 500");
    }
}

TEST(PostScriptFiles, FaxIsClassFFromTheSameRendering) {
    const fs::path out = workDir() / "fax.tif";
    const fs::path ref = workDir() / "fax_ref.tif";
    ASSERT_EQ(quarvex({"-faxtif", "1"}, kData / "shapes.ps", out).status, 0);
    ghostscript("tiff24nc", dpiArg(1728 * 72.0 / 612, 196), kData / "shapes.ps", ref);
    std::vector<Page> want;
    for (const Page& p : readTiff(ref))
        want.push_back(halftoned(p));
    const auto got = readTiff(out);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].width, 1728);
    EXPECT_FLOAT_EQ(got[0].xdpi, 204);
    EXPECT_FLOAT_EQ(got[0].ydpi, 196);
    EXPECT_EQ(got[0].compression, COMPRESSION_CCITTFAX3);
    expectSamePages(got, want, "shapes.ps as fax");
}

TEST(PostScriptFiles, EveryCompressionHoldsTheSamePixelsAndRunsRepeatByteForByte) {
    const fs::path first = workDir() / "c_first.tif";
    ASSERT_EQ(quarvex({"-r", "100x100", "-b", "1", "-c", "0"}, kData / "shapes.pdf", first).status, 0);
    const auto base = readTiff(first);
    for (int c = 1; c <= 7; ++c) {
        const fs::path out = workDir() / ("c" + std::to_string(c) + ".tif");
        ASSERT_EQ(quarvex({"-r", "100x100", "-b", "1", "-c", std::to_string(c)}, kData / "shapes.pdf", out).status, 0);
        expectSamePages(readTiff(out), base, "compression " + std::to_string(c));
    }
    const fs::path again = workDir() / "again.tif";
    const fs::path once = workDir() / "once.tif";
    ASSERT_EQ(quarvex({"-r", "100x100", "-b", "24"}, kData / "shapes.ps", once).status, 0);
    ASSERT_EQ(quarvex({"-r", "100x100", "-b", "24"}, kData / "shapes.ps", again).status, 0);
    EXPECT_EQ(readFile(once), readFile(again));
}

TEST(PostScriptFiles, PjlWrappedJobsMixedWithPclKeepTheirOrder) {
    // PostScript (2 Letter pages), PCL (2 pages), PDF (2 A4 pages), in one PJL job.
    const fs::path out = workDir() / "mixed.tif";
    const RunResult r = quarvex({"-r", "100x100", "-b", "8"}, kData / "mixed_jobs.prn", out);
    ASSERT_EQ(r.status, 0) << r.err;
    const auto got = readTiff(out);
    ASSERT_EQ(got.size(), 6u);

    const fs::path ref = workDir() / "mixed_ref.tif";
    ghostscript("tiff24nc", "-r100", kData / "shapes.ps", ref);
    expectSamePages({got[0], got[1]}, grey(readTiff(ref)), "the PostScript job");

    const fs::path pcl = workDir() / "mixed_pcl.tif";
    ASSERT_EQ(quarvex({"-r", "100x100", "-b", "8"}, fs::path(QX_TEST_DATA_DIR) / "two_pages_ljet4_300dpi.pcl", pcl).status, 0);
    expectSamePages({got[2], got[3]}, readTiff(pcl), "the PCL job");

    ghostscript("tiff24nc", "-r100", kData / "groff.pdf", ref);
    expectSamePages({got[4], got[5]}, grey(readTiff(ref)), "the PDF job");
}

TEST(PostScriptFiles, PjlPaperIsThePageWhenTheJobSetsNone) {
    const fs::path out = workDir() / "paper.tif";
    ASSERT_EQ(quarvex({"-r", "72x72", "-b", "8"}, kData / "pjl_paper.prn", out).status, 0);
    const auto got = readTiff(out);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].width, 595);
    EXPECT_EQ(got[0].height, 842);
    // Without PJL the same PostScript prints on Letter.
    const fs::path plain = workDir() / "plain.ps";
    writeFile(plain, "%!PS\n0 0 moveto 100 100 lineto stroke showpage\n");
    ASSERT_EQ(quarvex({"-r", "72x72", "-b", "8"}, plain, out).status, 0);
    const auto letter = readTiff(out);
    ASSERT_EQ(letter.size(), 1u);
    EXPECT_EQ(letter[0].width, 612);
    EXPECT_EQ(letter[0].height, 792);
}

TEST(PostScriptFiles, AnEpsFileIsCutToItsBoundingBox) {
    const fs::path eps = workDir() / "picture.eps";
    writeFile(eps, "%!PS-Adobe-3.0 EPSF-3.0\n%%BoundingBox: 100 100 300 200\n%%EndComments\n"
                   "0.5 setgray 100 100 200 100 rectfill 0 setgray newpath 150 150 20 0 360 arc fill\n");
    const fs::path out = workDir() / "eps.tif";
    const fs::path ref = workDir() / "eps_ref.tif";
    ASSERT_EQ(quarvex({"-r", "72x72", "-b", "8"}, eps, out).status, 0);
    // Ghostscript cuts the page the same way; the picture has no showpage of its own.
    const fs::path withShowpage = workDir() / "picture_showpage.eps";
    writeFile(withShowpage, readFile(eps) + "showpage\n");
    ghostscript("tiff24nc", "-r72", withShowpage, ref, "letter", true);
    const auto got = readTiff(out);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].width, 200);
    EXPECT_EQ(got[0].height, 100);
    expectSamePages(got, grey(readTiff(ref)), "EPS");
}

TEST(PostScriptFiles, AnErrorAfterSomePagesKeepsThemAndExitsThree) {
    const fs::path ps = workDir() / "late_error.ps";
    writeFile(ps, "%!PS\n/Helvetica findfont 20 scalefont setfont\n72 700 moveto (one) show showpage\n"
                  "72 700 moveto (two) show nosuchoperator showpage\n");
    const fs::path out = workDir() / "late.tif";
    const RunResult r = quarvex({"-r", "72x72"}, ps, out);
    EXPECT_EQ(r.status, 3);
    EXPECT_NE(r.err.find("PostScript error /undefined in nosuchoperator after 1 page(s)"), std::string::npos) << r.err;
    EXPECT_EQ(readTiff(out).size(), 1u);
}

TEST(PostScriptFiles, AnErrorBeforeAnyPageWritesNothingAndExitsOne) {
    const fs::path ps = workDir() / "early_error.ps";
    writeFile(ps, "%!PS\n1 0 div showpage\n");
    const fs::path out = workDir() / "early.tif";
    writeFile(out, "an older file");
    const RunResult r = quarvex({"-r", "72x72"}, ps, out);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("PostScript error /undefinedresult in div"), std::string::npos) << r.err;
    EXPECT_EQ(readFile(out), "an older file"); // an existing output stays as it was
    const fs::path pdf = workDir() / "broken.pdf";
    writeFile(pdf, "%PDF-1.4\nthis is not a PDF body\n%%EOF\n");
    const RunResult p = quarvex({"-r", "72x72"}, pdf, workDir() / "broken.tif");
    EXPECT_EQ(p.status, 1) << p.err;
    EXPECT_FALSE(fs::exists(workDir() / "broken.tif"));
}

// A PostScript program that loops forever is stopped when no page is finished within the
// limit; QX_PAGE_TIMEOUT makes the limit short here (still long enough for a small page on a
// busy machine). Without the bound the engine would spin until the processor-time cap kills
// it, and these tests fail.
class ShortPageLimit {
public:
    ShortPageLimit() { ::setenv("QX_PAGE_TIMEOUT", "3", 1); }
    ~ShortPageLimit() { ::unsetenv("QX_PAGE_TIMEOUT"); }
};
constexpr int kEndlessCpuCap = 30;

// The files in a folder: what a stopped run leaves behind.
std::vector<std::string> filesIn(const fs::path& dir) {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(dir))
        names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

TEST(PostScriptFiles, AnEndlessLoopAfterPagesIsStoppedAndTheyAreWritten) {
    const ShortPageLimit limit;
    const fs::path dir = workDir() / "endless_after";
    fs::create_directories(dir);
    const std::string twoPages = "%!PS\n/Helvetica findfont 20 scalefont setfont\n"
                                 "72 700 moveto (one) show showpage\n72 700 moveto (two) show showpage\n";
    writeFile(dir / "two.ps", twoPages);
    ASSERT_EQ(quarvex({"-r", "72x72"}, dir / "two.ps", dir / "two.tif").status, 0);

    // The loop after the last showpage, and inside a page that is never finished.
    writeFile(dir / "after.ps", twoPages + "{ 1 pop } loop\n");
    writeFile(dir / "inside.ps", twoPages + "72 600 moveto (three) show { 1 pop } loop showpage\n");
    const RunResult after = quarvex({"-r", "72x72"}, dir / "after.ps", dir / "after.tif", kEndlessCpuCap);
    EXPECT_EQ(after.status, 3) << after.err;
    EXPECT_NE(after.err.find("the PostScript job finished no page in 3 s (an endless loop?)"), std::string::npos)
        << after.err;
    EXPECT_NE(after.err.find("the 2 page(s) finished before it are written"), std::string::npos) << after.err;
    // The pages kept are the file the same program makes without the loop, byte for byte.
    EXPECT_EQ(readFile(dir / "after.tif"), readFile(dir / "two.tif"));

    const RunResult inside = quarvex({"-r", "72x72"}, dir / "inside.ps", dir / "inside.tif", kEndlessCpuCap);
    EXPECT_EQ(inside.status, 3) << inside.err;
    EXPECT_EQ(readFile(dir / "inside.tif"), readFile(dir / "two.tif"));

    // Pages of a PCL job before the endless PostScript job are kept as well.
    const std::string pcl = readFile(fs::path(QX_TEST_DATA_DIR) / "two_pages_ljet4_300dpi.pcl");
    writeFile(dir / "mixed.prn", "\x1b%-12345X@PJL ENTER LANGUAGE = PCL\r\n" + pcl +
                                     "\x1b%-12345X@PJL ENTER LANGUAGE = POSTSCRIPT\r\n%!PS\n{} loop\n");
    const RunResult mixed = quarvex({"-r", "72x72"}, dir / "mixed.prn", dir / "mixed.tif", kEndlessCpuCap);
    EXPECT_EQ(mixed.status, 3) << mixed.err;
    EXPECT_EQ(readTiff(dir / "mixed.tif").size(), 2u);

    // Nothing but the inputs and the outputs: no temporary file is left behind.
    EXPECT_EQ(filesIn(dir), (std::vector<std::string>{"after.ps", "after.tif", "inside.ps", "inside.tif",
                                                      "mixed.prn", "mixed.tif", "two.ps", "two.tif"}));
}

TEST(PostScriptFiles, AnEndlessLoopBeforeAnyPageWritesNothingAndExitsOne) {
    const ShortPageLimit limit;
    const fs::path dir = workDir() / "endless_before";
    fs::create_directories(dir);
    writeFile(dir / "loop.ps", "%!PS\n{} loop\nshowpage\n");
    writeFile(dir / "old.tif", "an older file");
    const RunResult r = quarvex({"-r", "72x72"}, dir / "loop.ps", dir / "old.tif", kEndlessCpuCap);
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_NE(r.err.find("the PostScript job finished no page in 3 s (an endless loop?)"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("nothing is written"), std::string::npos) << r.err;
    EXPECT_EQ(readFile(dir / "old.tif"), "an older file"); // an existing output stays as it was
    const RunResult fresh = quarvex({"-r", "72x72"}, dir / "loop.ps", dir / "new.tif", kEndlessCpuCap);
    EXPECT_EQ(fresh.status, 1) << fresh.err;
    EXPECT_EQ(filesIn(dir), (std::vector<std::string>{"loop.ps", "old.tif"}));
}

TEST(PostScriptFiles, AJobPrintingPagesForeverIsStoppedAtItsMostPages) {
    // QX_MAX_JOB_PAGES makes the most pages a small job may print 3 here.
    ::setenv("QX_MAX_JOB_PAGES", "3", 1);
    const ShortPageLimit limit;
    const fs::path dir = workDir() / "endless_pages";
    fs::create_directories(dir);
    // The next job in the file still runs, on the same interpreter.
    writeFile(dir / "forever.prn", "\x1b%-12345X@PJL ENTER LANGUAGE = POSTSCRIPT\r\n%!PS\n{ showpage } loop\n"
                                   "\x1b%-12345X@PJL ENTER LANGUAGE = POSTSCRIPT\r\n%!PS\n"
                                   "/Helvetica findfont 20 scalefont setfont 72 700 moveto (next) show showpage\n"
                                   "\x1b%-12345X");
    const RunResult r = quarvex({"-r", "72x72"}, dir / "forever.prn", dir / "forever.tif", kEndlessCpuCap);
    EXPECT_EQ(r.status, 3) << r.err;
    EXPECT_NE(r.err.find("the PostScript job printed more than 3 pages (an endless loop?)"), std::string::npos) << r.err;
    const auto pages = readTiff(dir / "forever.tif");
    ASSERT_EQ(pages.size(), 4u);
    EXPECT_GT(std::count(pages[3].pixels.begin(), pages[3].pixels.end(), 0), 10) << "the next job's page is blank";

    // A job that catches the refusal and goes on printing is stopped by the page watchdog.
    writeFile(dir / "caught.ps", "%!PS\n{ { showpage } stopped pop } loop\n");
    const RunResult c = quarvex({"-r", "72x72"}, dir / "caught.ps", dir / "caught.tif", kEndlessCpuCap);
    ::unsetenv("QX_MAX_JOB_PAGES");
    EXPECT_EQ(c.status, 3) << c.err;
    EXPECT_NE(c.err.find("the 3 page(s) finished before it are written"), std::string::npos) << c.err;
    EXPECT_EQ(readTiff(dir / "caught.tif").size(), 3u);
}

TEST(PostScriptFiles, JobsCannotReadOtherFiles) {
    // Ghostscript runs with -dSAFER: a job may read only itself.
    const fs::path ps = workDir() / "snoop.ps";
    writeFile(ps, "%!PS\n/Helvetica findfont 12 scalefont setfont 72 72 moveto\n"
                  "(/etc/hostname) (r) file 100 string readstring pop show showpage\n");
    const RunResult r = quarvex({"-r", "72x72"}, ps, workDir() / "snoop.tif");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("/invalidfileaccess"), std::string::npos) << r.err;
}
