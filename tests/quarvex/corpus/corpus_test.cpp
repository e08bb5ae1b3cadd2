// Converts every file of the generated corpus (tools/corpus/make_corpus.sh) with the staged
// quarvex, as a child process at the producer's resolution in 8-bit grey with Deflate
// (-r DPIxDPI -b 8 -c 6), and compares the result with the reference rendering.
//
// Measures, per file:
//  - exit status: 0, or the one the manifest's optional ninth field gives (3 for a producer whose
//    jobs carry commands the engine reports skipping, with the reason where they are made).
//  - pages: the number of TIFF pages must equal the reference's (or the manifest's count for
//    jobs without a reference).
//  - size: each page's width and height must agree with the reference within 2 pixels, or
//    0.1 % when that is more: the reference renderer truncates the page size in points to
//    whole pixels while a printer's page sizes are exact (A4 is 2479 or 2480 pixels wide at
//    300 dpi depending on who rounds).
//  - pixels: both images are brought to 8-bit luminance (1-bit: 0/255; RGB: ITU-R 601
//    weights) and thresholded at 128; "agree" is the share of pixels on which both sides are
//    equally black or white, over the union of the two page areas (outside a page counts as
//    white). Raster PCL 5 from a driver must agree on at least 99.9 % of pixels: the driver
//    sent exactly these pixels. The pages are compared where they land, with no shift found by
//    searching. A PCL 5 reference holds the producer's page with its origin (its pixel 0, 0) at
//    the sheet's corner; on the printer that origin lands where the job's own commands put it:
//    at the left edge of the logical page of the paper and orientation the job selects (HP's
//    table: 75 or 60 dots at 300 dpi on inch sizes, 71 or 59 on metric ones), moved by the
//    job's left and top offset registration (ESC&l#U across, ESC&l#Z down, decipoints). The
//    test reads those commands from the job and compares at that offset (so an A4 job from a driver that registers for a
//    quarter-inch inset lands 4 dots left of its source). A producer that lays its page out for
//    one printer model's geometry beyond its commands says so in the manifest, as
//    "SHARE@DX,DY" (pixels, engine to reference), with the reason in make_corpus.sh. Vector
//    PCL XL (and PCL XL images) must agree on at least 99 % as the pages lie, since edge and
//    glyph rounding differ between rasterisers.
//  - ink: the number of black pixels after thresholding. For PCL XL it must be within 10 % of
//    the reference's (plus 0.01 % of the page area, so that near-blank pages are not judged on
//    a handful of pixels).
//  - jobs without a reference (plain text wrapped in PJL/PCL by hand, and drivers whose sheet
//    has no exact reference): the page count, the page size when the manifest gives one, and
//    at least 100 black pixels on every page.
//
// Every corpus file is its own test case; a table of the measures is printed at the end and
// written to corpus/results.tsv in the build tree. Driver raster made at 600 dpi is also
// converted at 300 dpi and checked for its tone (see HalfResolution below).

#include <gtest/gtest.h>

#include <tiffio.h>

#include <algorithm>
#include <iterator>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <mutex>
#include <optional>
#include <signal.h>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <fcntl.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

struct Entry {
    std::string input;     // relative to the corpus folder
    std::string producer;
    int dpi = 300;
    std::string reference; // relative; "-" = none
    int pages = 0;
    std::string kind;      // pcl5 or pclxl
    std::string measure;   // a minimum share (0.999) or "ink"
    std::string size;      // WxH in points, or "-"
    int exitStatus = 0;    // quarvex's expected exit status (3: the job has commands it skips)
    std::string name;      // test case name
};

// gtest prints a failing parameter with this; the input path says which file it was.
void PrintTo(const Entry& e, std::ostream* os) {
    *os << e.input;
}

std::string caseName(const std::string& input) {
    std::string out;
    for (char c : input)
        out += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return out;
}

std::vector<std::string> split(const std::string& line, char sep) {
    std::vector<std::string> parts;
    std::string cur;
    std::istringstream in(line);
    while (std::getline(in, cur, sep))
        parts.push_back(cur);
    return parts;
}

// Reads the manifest; generates the corpus first when it is not there (a run of the test
// executable by hand, outside CTest's fixture).
std::vector<Entry> loadManifest() {
    const fs::path dir = QX_CORPUS_DIR;
    const fs::path manifest = dir / "manifest.tsv";
    if (!fs::exists(manifest)) {
        const std::string cmd = std::string("bash '") + QX_CORPUS_SCRIPT + "' '" + dir.string() + "'";
        if (std::system(cmd.c_str()) != 0)
            std::cerr << "corpus generation failed: " << cmd << "\n";
    }
    std::vector<Entry> entries;
    std::ifstream in(manifest);
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#')
            continue;
        const auto f = split(line, '\t');
        if (f.size() < 8)
            continue;
        Entry e;
        e.input = f[0];
        e.producer = f[1];
        e.dpi = std::atoi(f[2].c_str());
        e.reference = f[3];
        e.pages = std::atoi(f[4].c_str());
        e.kind = f[5];
        e.measure = f[6];
        e.size = f[7];
        if (f.size() > 8)
            e.exitStatus = std::atoi(f[8].c_str());
        e.name = caseName(e.input);
        entries.push_back(e);
    }
    return entries;
}

// One page brought to 8-bit luminance, 0 = black.
struct GrayPage {
    int width = 0;
    int height = 0;
    double xdpi = 0;
    double ydpi = 0;
    std::vector<uint8_t> pixels;
    uint8_t at(int x, int y) const {
        if (x >= width || y >= height)
            return 255;
        return pixels[static_cast<size_t>(y) * width + x];
    }
};

void silenceTiff() {
    TIFFSetWarningHandler(nullptr);
}

// Reads every page of a TIFF as grey. Returns nullopt (and an error text) when it cannot.
std::optional<std::vector<GrayPage>> readTiff(const std::string& path, std::string& error) {
    silenceTiff();
    TIFF* tif = TIFFOpen(path.c_str(), "r");
    if (!tif) {
        error = "cannot open " + path;
        return std::nullopt;
    }
    std::vector<GrayPage> pages;
    do {
        uint32_t w = 0, h = 0;
        uint16_t bps = 1, spp = 1, photo = PHOTOMETRIC_MINISWHITE, planar = PLANARCONFIG_CONTIG;
        TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &w);
        TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &h);
        TIFFGetFieldDefaulted(tif, TIFFTAG_BITSPERSAMPLE, &bps);
        TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLESPERPIXEL, &spp);
        TIFFGetFieldDefaulted(tif, TIFFTAG_PLANARCONFIG, &planar);
        if (!TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &photo))
            photo = PHOTOMETRIC_MINISWHITE;
        float xr = 0, yr = 0;
        TIFFGetField(tif, TIFFTAG_XRESOLUTION, &xr);
        TIFFGetField(tif, TIFFTAG_YRESOLUTION, &yr);
        GrayPage page;
        page.width = static_cast<int>(w);
        page.height = static_cast<int>(h);
        page.xdpi = xr;
        page.ydpi = yr;
        page.pixels.assign(static_cast<size_t>(w) * h, 255);
        const bool simple = !TIFFIsTiled(tif) && planar == PLANARCONFIG_CONTIG &&
                            ((bps == 1 && spp == 1) || (bps == 8 && (spp == 1 || spp == 3 || spp == 4))) &&
                            (photo == PHOTOMETRIC_MINISWHITE || photo == PHOTOMETRIC_MINISBLACK ||
                             photo == PHOTOMETRIC_RGB);
        if (simple) {
            std::vector<uint8_t> line(TIFFScanlineSize(tif));
            for (uint32_t y = 0; y < h; ++y) {
                if (TIFFReadScanline(tif, line.data(), y, 0) < 0) {
                    error = path + ": cannot read line " + std::to_string(y);
                    TIFFClose(tif);
                    return std::nullopt;
                }
                uint8_t* out = page.pixels.data() + static_cast<size_t>(y) * w;
                for (uint32_t x = 0; x < w; ++x) {
                    int v;
                    if (bps == 1) {
                        const bool bit = (line[x >> 3] >> (7 - (x & 7))) & 1;
                        // min-is-white: 1 = black; min-is-black: 1 = white.
                        v = (bit == (photo == PHOTOMETRIC_MINISWHITE)) ? 0 : 255;
                    } else if (spp == 1) {
                        v = line[x];
                        if (photo == PHOTOMETRIC_MINISWHITE)
                            v = 255 - v;
                    } else {
                        const uint8_t* p = line.data() + static_cast<size_t>(x) * spp;
                        v = (299 * p[0] + 587 * p[1] + 114 * p[2] + 500) / 1000;
                    }
                    out[x] = static_cast<uint8_t>(v);
                }
            }
        } else {
            std::vector<uint32_t> rgba(static_cast<size_t>(w) * h);
            if (!TIFFReadRGBAImageOriented(tif, w, h, rgba.data(), ORIENTATION_TOPLEFT, 0)) {
                error = path + ": unreadable page layout";
                TIFFClose(tif);
                return std::nullopt;
            }
            for (size_t i = 0; i < rgba.size(); ++i) {
                const uint32_t p = rgba[i];
                page.pixels[i] = static_cast<uint8_t>(
                    (299 * TIFFGetR(p) + 587 * TIFFGetG(p) + 114 * TIFFGetB(p) + 500) / 1000);
            }
        }
        pages.push_back(std::move(page));
    } while (TIFFReadDirectory(tif));
    TIFFClose(tif);
    return pages;
}

struct RunResult {
    int status = -1;     // exit status; -1 = killed or did not start
    bool timedOut = false;
    double seconds = 0;
    std::string stderrText;
};

// Runs quarvex as a child process; a run that does not finish within the watchdog time is
// killed (a hang is a defect, not a slow result).
RunResult runQuarvex(const std::vector<std::string>& args, const fs::path& errFile) {
    RunResult r;
    const std::string exe = std::string(QX_STAGE_DIR) + "/bin/quarvex";
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(exe.c_str()));
    for (const auto& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    const auto start = std::chrono::steady_clock::now();
    const pid_t pid = fork();
    if (pid == 0) {
        const int fd = open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd >= 0) {
            dup2(fd, 2);
            dup2(fd, 1);
        }
        execv(exe.c_str(), argv.data());
        _exit(127);
    }
    if (pid < 0)
        return r;
    int wstatus = 0;
    const auto limit = start + std::chrono::seconds(300);
    for (;;) {
        const pid_t done = waitpid(pid, &wstatus, WNOHANG);
        if (done == pid)
            break;
        if (std::chrono::steady_clock::now() > limit) {
            kill(pid, SIGKILL);
            waitpid(pid, &wstatus, 0);
            r.timedOut = true;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (!r.timedOut && WIFEXITED(wstatus))
        r.status = WEXITSTATUS(wstatus);
    std::ifstream err(errFile);
    std::ostringstream ss;
    ss << err.rdbuf();
    r.stderrText = ss.str();
    return r;
}

struct Row {
    std::string name;
    std::string producer;
    int dpi = 0;
    int status = -1;
    int pagesGot = -1;
    int pagesWant = 0;
    double agree = -1;     // worst page as the pages lie; -1 = not measured
    double agreeBest = -1; // worst page at the offset the job's commands give (PCL 5)
    int dx = 0, dy = 0;    // that offset
    double inkRatio = -1;  // engine ink / reference ink over all pages; -1 = not measured
    std::string verdict;
};

std::mutex g_rowsMutex;
std::vector<Row> g_rows;

std::string fmt(double v, int digits) {
    if (v < 0)
        return "-";
    std::ostringstream s;
    s << std::fixed << std::setprecision(digits) << v;
    return s.str();
}

class TableEnvironment : public ::testing::Environment {
public:
    void TearDown() override {
        std::ostringstream table;
        table << std::left << std::setw(40) << "file" << std::setw(16) << "producer" << std::setw(5)
              << "dpi" << std::setw(7) << "exit" << std::setw(9) << "pages" << std::setw(10)
              << "agree%" << std::setw(10) << "shifted%" << std::setw(12) << "shift" << std::setw(8) << "ink"
              << "verdict\n";
        std::ofstream tsv(fs::path(QX_CORPUS_DIR) / "results.tsv");
        tsv << "#file\tproducer\tdpi\texit\tpages\twant\tagree\tagree_shifted\tdx\tdy\tink_ratio\tverdict\n";
        for (const Row& r : g_rows) {
            table << std::setw(40) << r.name << std::setw(16) << r.producer << std::setw(5) << r.dpi
                  << std::setw(7) << r.status << std::setw(9)
                  << (std::to_string(r.pagesGot) + "/" + std::to_string(r.pagesWant)) << std::setw(10)
                  << (r.agree < 0 ? std::string("-") : fmt(r.agree * 100, 3)) << std::setw(10)
                  << (r.agreeBest < 0 ? std::string("-") : fmt(r.agreeBest * 100, 3)) << std::setw(12)
                  << (r.agree < 0 ? std::string("-") : std::to_string(r.dx) + "," + std::to_string(r.dy))
                  << std::setw(8)
                  << fmt(r.inkRatio, 3) << r.verdict << "\n";
            tsv << r.name << '\t' << r.producer << '\t' << r.dpi << '\t' << r.status << '\t' << r.pagesGot
                << '\t' << r.pagesWant << '\t' << fmt(r.agree, 6) << '\t' << fmt(r.agreeBest, 6) << '\t' << r.dx
                << '\t' << r.dy << '\t' << fmt(r.inkRatio, 4) << '\t'
                << r.verdict << '\n';
        }
        std::cout << "\nCorpus measures (agree = pixels equally black/white at threshold 128, worst page;"
                     " shifted = the same at the offset the job's commands give (PCL 5); shift = that"
                     " offset, engine to reference in pixels; ink = black pixels, engine / reference)\n"
                  << table.str() << std::flush;
    }
};

[[maybe_unused]] ::testing::Environment* const g_env =
    ::testing::AddGlobalTestEnvironment(new TableEnvironment);

bool sizeClose(int got, int want) {
    const int tol = std::max(2, static_cast<int>(std::ceil(want * 0.001)));
    return std::abs(got - want) <= tol;
}

struct Match {
    double agreeAtZero = 0; // share of agreeing pixels as the pages lie
    double agreeBest = 0;   // the same at the offset asked for
    int dx = 0, dy = 0;     // that offset: the engine's pixel (x, y) meets the reference's (x+dx, y+dy)
    size_t inkGot = 0, inkRef = 0, area = 0;
};

// Black/white agreement of two pages. Disagreeing pixels are those black on one side only:
// inkGot + inkRef - 2 * overlap, over the area of the larger page; as the pages lie and with
// the engine's page moved by (dx, dy).
Match compare(const GrayPage& g, const GrayPage& r, int dx, int dy) {
    Match m;
    const int w = std::max(g.width, r.width), h = std::max(g.height, r.height);
    m.area = static_cast<size_t>(w) * h;
    std::vector<std::pair<int, int>> black; // the engine's black pixels
    for (int y = 0; y < g.height; ++y) {
        const uint8_t* row = g.pixels.data() + static_cast<size_t>(y) * g.width;
        for (int x = 0; x < g.width; ++x)
            if (row[x] < 128)
                black.emplace_back(x, y);
    }
    m.inkRef = static_cast<size_t>(std::count_if(r.pixels.begin(), r.pixels.end(), [](uint8_t v) { return v < 128; }));
    m.inkGot = black.size();
    auto agreementAt = [&](int dx, int dy) {
        size_t overlap = 0;
        for (const auto& [x, y] : black) {
            const int rx = x + dx, ry = y + dy;
            if (rx >= 0 && ry >= 0 && rx < r.width && ry < r.height &&
                r.pixels[static_cast<size_t>(ry) * r.width + rx] < 128)
                ++overlap;
        }
        const double disagree = static_cast<double>(m.inkGot + m.inkRef - 2 * overlap);
        return 1.0 - disagree / static_cast<double>(m.area);
    };
    m.agreeAtZero = m.agreeBest = agreementAt(0, 0);
    if (dx != 0 || dy != 0)
        m.agreeBest = agreementAt(dx, dy);
    m.dx = dx;
    m.dy = dy;
    return m;
}

// Where a PCL 5 job's commands put its page on the sheet, as an offset in pixels at `dpi`
// from the engine's page to a reference that has the producer's origin at the sheet's corner:
// the logical page's left edge for the paper size and orientation the job selects (HP's
// logical page table, in 300 dpi dots) plus its left and top offset registration (Ghostscript's
// LaserJet 4 drivers send 36 decipoints down, a twentieth of an inch). The commands in
// force when the job starts its first raster or prints its first page count.
// Executive, Letter, Legal, Ledger, Tabloid, Monarch, Com-10 and custom are inch sizes; the
// others HP's page size command knows are metric. Any other value is ignored by the printer
// (MuPDF sends ESC&l0A on Letter).
constexpr int kInchSizes[] = {1, 2, 3, 6, 11, 80, 81, 101};
constexpr int kMetricSizes[] = {25, 26, 27, 45, 46, 65, 71, 72, 90, 91, 100};
bool knownPaper(int code) {
    return std::find(std::begin(kInchSizes), std::end(kInchSizes), code) != std::end(kInchSizes) ||
           std::find(std::begin(kMetricSizes), std::end(kMetricSizes), code) != std::end(kMetricSizes);
}

std::pair<int, int> commandOffset(const fs::path& job, int dpi) {
    std::ifstream in(job, std::ios::binary);
    const std::string d((std::istreambuf_iterator<char>(in)), {});
    int paper = 2, orientation = 0;
    double registration = 0, topRegistration = 0; // decipoints
    for (size_t i = 0; i + 2 < d.size(); ++i) {
        if (d[i] == '\f')
            break;
        if (d[i] != '\x1b' || (d[i + 1] != '&' && d[i + 1] != '*'))
            continue;
        const char parameter = d[i + 1], group = d[i + 2];
        size_t j = i + 3;
        bool stop = false;
        // A combined sequence: values each ended by a letter, lower case until the last.
        while (j < d.size()) {
            const size_t start = j;
            while (j < d.size() && (std::isdigit(static_cast<unsigned char>(d[j])) || d[j] == '+' || d[j] == '-' || d[j] == '.'))
                ++j;
            if (j >= d.size() || !std::isalpha(static_cast<unsigned char>(d[j])))
                break;
            const double value = std::atof(d.substr(start, j - start).c_str());
            const char final = static_cast<char>(std::toupper(static_cast<unsigned char>(d[j])));
            if (parameter == '&' && group == 'l') {
                if (final == 'A' && knownPaper(static_cast<int>(value)))
                    paper = static_cast<int>(value);
                else if (final == 'O')
                    orientation = static_cast<int>(value);
                else if (final == 'U')
                    registration = value;
                else if (final == 'Z')
                    topRegistration = value;
            }
            if (parameter == '*' && group == 'r' && final == 'A')
                stop = true;
            const bool last = std::isupper(static_cast<unsigned char>(d[j]));
            ++j;
            if (final == 'W') // the command's data follows; it is not looked into
                j += static_cast<size_t>(std::max(0.0, value));
            if (last || final == 'W')
                break;
        }
        if (stop)
            break;
        i = std::min(j, d.size()) - 1;
    }
    const bool inch = std::find(std::begin(kInchSizes), std::end(kInchSizes), paper) != std::end(kInchSizes);
    const bool landscape = orientation & 1;
    const double inset = inch ? (landscape ? 60 : 75) : (landscape ? 59 : 71);
    const double dots = (inset + registration * 300.0 / 720.0) * dpi / 300.0;
    const double down = topRegistration * dpi / 720.0;
    return {-static_cast<int>(std::lround(dots)), -static_cast<int>(std::lround(down))};
}

// The offset a file is compared at: for PCL 5, where its commands put it plus what the
// manifest adds ("SHARE@DX,DY"); PCL XL none. "SHARE@sheet" marks a reference that was drawn
// on the sheet where the job's own commands put each mark (groff's LaserJet layout), so it is
// compared as it lies.
std::pair<int, int> expectedOffset(const Entry& e) {
    if (e.kind != "pcl5" || e.measure.ends_with("@sheet"))
        return {0, 0};
    auto [dx, dy] = commandOffset(fs::path(QX_CORPUS_DIR) / e.input, e.dpi);
    if (const auto at = e.measure.find('@'); at != std::string::npos) {
        int ax = 0, ay = 0;
        if (std::sscanf(e.measure.c_str() + at + 1, "%d,%d", &ax, &ay) == 2) {
            dx += ax;
            dy += ay;
        }
    }
    return {dx, dy};
}

class Corpus : public ::testing::TestWithParam<Entry> {};

TEST_P(Corpus, ConvertsLikeTheReference) {
    const Entry& e = GetParam();
    Row row;
    row.name = e.input;
    row.producer = e.producer;
    row.dpi = e.dpi;
    row.pagesWant = e.pages;
    struct Recorder {
        Row& row;
        ~Recorder() {
            if (row.verdict.empty())
                row.verdict = ::testing::Test::HasFailure() ? "FAIL" : "ok";
            std::lock_guard<std::mutex> lock(g_rowsMutex);
            g_rows.push_back(row);
        }
    } recorder{row};

    const fs::path corpus = QX_CORPUS_DIR;
    const fs::path input = corpus / e.input;
    ASSERT_TRUE(fs::exists(input)) << input;
    const fs::path exe = fs::path(QX_STAGE_DIR) / "bin" / "quarvex";
    if (!fs::exists(exe)) {
        row.verdict = "no quarvex";
        FAIL() << "the staged engine is missing: " << exe;
    }

    const fs::path outDir = corpus / "out";
    fs::create_directories(outDir);
    const fs::path output = outDir / (e.name + ".tif");
    const fs::path errFile = outDir / (e.name + ".stderr");
    fs::remove(output);
    const std::string res = std::to_string(e.dpi) + "x" + std::to_string(e.dpi);
    const RunResult run = runQuarvex({"-r", res, "-b", "8", "-c", "6", "-o", output.string(), "-i", input.string()},
                                     errFile);
    row.status = run.status;
    ASSERT_FALSE(run.timedOut) << "quarvex did not finish within 300 s";
    EXPECT_EQ(run.status, e.exitStatus) << "quarvex said:\n" << run.stderrText;
    if (!fs::exists(output)) {
        row.verdict = "no output";
        FAIL() << "no output written; quarvex said:\n" << run.stderrText;
    }

    std::string error;
    const auto got = readTiff(output.string(), error);
    ASSERT_TRUE(got.has_value()) << error;
    row.pagesGot = static_cast<int>(got->size());

    if (e.reference == "-") {
        EXPECT_EQ(static_cast<int>(got->size()), e.pages) << "page count";
        double wPt = 0, hPt = 0;
        const bool hasSize = e.size != "-" && std::sscanf(e.size.c_str(), "%lfx%lf", &wPt, &hPt) == 2;
        for (size_t i = 0; i < got->size(); ++i) {
            const GrayPage& p = (*got)[i];
            if (hasSize) {
                EXPECT_TRUE(sizeClose(p.width, static_cast<int>(std::lround(wPt * e.dpi / 72.0))))
                    << "page " << i + 1 << " width " << p.width << " for " << wPt << " pt at " << e.dpi << " dpi";
                EXPECT_TRUE(sizeClose(p.height, static_cast<int>(std::lround(hPt * e.dpi / 72.0))))
                    << "page " << i + 1 << " height " << p.height << " for " << hPt << " pt at " << e.dpi << " dpi";
            }
            const size_t ink = std::count_if(p.pixels.begin(), p.pixels.end(), [](uint8_t v) { return v < 128; });
            EXPECT_GE(ink, 100u) << "page " << i + 1 << " is blank";
        }
        return;
    }

    const auto ref = readTiff((corpus / e.reference).string(), error);
    ASSERT_TRUE(ref.has_value()) << error;
    row.pagesWant = static_cast<int>(ref->size());
    EXPECT_EQ(got->size(), ref->size()) << "page count";

    // The measure is "SHARE" or "SHARE@DX,DY": the least share of agreeing pixels, and an
    // offset the producer builds in beyond its commands. PCL 5 pages are compared where the
    // job's commands put them; PCL XL positions are absolute.
    const double minAgree = std::atof(e.measure.c_str());
    const auto [offsetX, offsetY] = expectedOffset(e);
    double worst0 = 1.0, worstBest = 1.0;
    size_t inkGot = 0, inkRef = 0, area = 0;
    const size_t n = std::min(got->size(), ref->size());
    for (size_t i = 0; i < n; ++i) {
        const GrayPage& g = (*got)[i];
        const GrayPage& r = (*ref)[i];
        EXPECT_TRUE(sizeClose(g.width, r.width) && sizeClose(g.height, r.height))
            << "page " << i + 1 << " is " << g.width << "x" << g.height << ", the reference "
            << r.width << "x" << r.height;
        const Match m = compare(g, r, offsetX, offsetY);
        inkGot += m.inkGot;
        inkRef += m.inkRef;
        area += m.area;
        worst0 = std::min(worst0, m.agreeAtZero);
        if (m.agreeBest <= worstBest) {
            worstBest = m.agreeBest;
            row.dx = m.dx;
            row.dy = m.dy;
        }
        EXPECT_GE(m.agreeBest, minAgree)
            << "page " << i + 1 << ": " << fmt(m.agreeBest * 100, 3) << " % of pixels agree at the job's offset "
            << m.dx << "," << m.dy << " px (" << fmt(m.agreeAtZero * 100, 3) << " % as the pages lie)";
    }
    if (n > 0) {
        row.agree = worst0;
        row.agreeBest = worstBest;
    }
    if (inkRef > 0)
        row.inkRatio = static_cast<double>(inkGot) / static_cast<double>(inkRef);
    if (e.kind == "pclxl" && n > 0) {
        const double slack = 0.10 * static_cast<double>(inkRef) + 0.0001 * static_cast<double>(area);
        EXPECT_LE(std::fabs(static_cast<double>(inkGot) - static_cast<double>(inkRef)), slack)
            << "ink: " << inkGot << " black pixels, the reference " << inkRef;
    }
}

std::string paramName(const ::testing::TestParamInfo<Entry>& info) {
    return info.param.name;
}

// Driver raster converted at half its resolution, in black and white (a 600 dpi job asked for
// at 300 dpi, as the front end's resolution setting does): every device pixel stands for 2 x 2
// of the driver's dots, halftoned or not. The page must keep the driver's tone (ink within 3 %
// of a quarter of the reference's) and agree on 98.5 % of pixels with the reference reduced
// 2 x 2 (a block is black when at least half of it is), at half the job's offset.
// PCL 5 drivers send mask raster, the LaserJet 5 PCL XL driver one-bit images.
class HalfResolution : public ::testing::TestWithParam<Entry> {};

GrayPage halve(const GrayPage& p) {
    GrayPage h;
    h.width = p.width / 2;
    h.height = p.height / 2;
    h.pixels.resize(static_cast<size_t>(h.width) * h.height);
    for (int y = 0; y < h.height; ++y)
        for (int x = 0; x < h.width; ++x) {
            int black = 0;
            for (int k = 0; k < 4; ++k)
                black += p.at(2 * x + (k & 1), 2 * y + (k >> 1)) < 128;
            h.pixels[static_cast<size_t>(y) * h.width + x] = black >= 2 ? 0 : 255;
        }
    return h;
}

TEST_P(HalfResolution, KeepsTheDriversTone) {
    const Entry& e = GetParam();
    const fs::path corpus = QX_CORPUS_DIR;
    const fs::path outDir = corpus / "out";
    fs::create_directories(outDir);
    const fs::path output = outDir / (e.name + "_half.tif");
    const fs::path errFile = outDir / (e.name + "_half.stderr");
    fs::remove(output);
    const std::string res = std::to_string(e.dpi / 2) + "x" + std::to_string(e.dpi / 2);
    const RunResult run = runQuarvex(
        {"-r", res, "-b", "1", "-c", "7", "-o", output.string(), "-i", (corpus / e.input).string()}, errFile);
    ASSERT_FALSE(run.timedOut);
    ASSERT_EQ(run.status, 0) << run.stderrText;
    std::string error;
    const auto got = readTiff(output.string(), error);
    ASSERT_TRUE(got.has_value()) << error;
    const auto ref = readTiff((corpus / e.reference).string(), error);
    ASSERT_TRUE(ref.has_value()) << error;
    ASSERT_EQ(got->size(), ref->size());
    for (size_t i = 0; i < got->size(); ++i) {
        const GrayPage& g = (*got)[i];
        const size_t refInk = std::count_if((*ref)[i].pixels.begin(), (*ref)[i].pixels.end(),
                                            [](uint8_t v) { return v < 128; });
        const auto [offsetX, offsetY] = expectedOffset(e);
        const Match m = compare(g, halve((*ref)[i]), offsetX / 2, offsetY / 2);
        const double want = static_cast<double>(refInk) / 4;
        EXPECT_NEAR(static_cast<double>(m.inkGot), want, 0.03 * want + 0.0001 * static_cast<double>(m.area))
            << "page " << i + 1 << ": " << m.inkGot << " black pixels, a quarter of the reference's is " << want;
        EXPECT_GE(m.agreeBest, 0.985) << "page " << i + 1 << ": " << fmt(m.agreeBest * 100, 3)
                                      << " % of pixels agree with the reduced reference";
    }
}

std::vector<Entry> halfResolutionEntries() {
    std::vector<Entry> out;
    for (const Entry& e : loadManifest())
        if (e.dpi == 600 && e.reference != "-" && (e.kind == "pcl5" || e.producer == "lj5mono"))
            out.push_back(e);
    return out;
}

INSTANTIATE_TEST_SUITE_P(Files, HalfResolution, ::testing::ValuesIn(halfResolutionEntries()), paramName);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(HalfResolution);

// The generator must have produced the corpus; an empty manifest would otherwise pass silently.
TEST(CorpusManifest, ListsTheGeneratedFiles) {
    const auto entries = loadManifest();
    EXPECT_GE(entries.size(), 15u); // fewer only when the system lacks most sources
    for (const Entry& e : entries) {
        EXPECT_TRUE(fs::exists(fs::path(QX_CORPUS_DIR) / e.input)) << e.input;
        if (e.reference != "-") {
            EXPECT_TRUE(fs::exists(fs::path(QX_CORPUS_DIR) / e.reference)) << e.reference;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Files, Corpus, ::testing::ValuesIn(loadManifest()), paramName);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(Corpus);

} // namespace
