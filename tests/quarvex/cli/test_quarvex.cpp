// The quarvex executable as people and the front end run it: exit statuses, messages, and
// what is (and is not) left on disk, for conversions that work and for every way one fails.

#include "common/file_io.h"
#include <gtest/gtest.h>
#include <tiffio.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

#ifndef QX_EXPECTED_VERSION
#define QX_EXPECTED_VERSION "unknown"
#endif

namespace {

// Everything a run of these tests writes lies in one folder, removed when the tests end.
class RemoveTestFolder : public testing::Environment {
public:
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(fs::temp_directory_path() / ("qx_cli_tests_" + std::to_string(::getpid())), ec);
    }
};
[[maybe_unused]] testing::Environment* const g_removeTestFolder =
    testing::AddGlobalTestEnvironment(new RemoveTestFolder);

const std::string kQuarvex = std::string(QX_STAGE_DIR) + "/bin/quarvex";
const std::string kTwoPages = std::string(QX_TEST_DATA_DIR) + "/two_pages_ljet4_300dpi.pcl";
// Two Letter pages in PCL XL at 75 dpi wrapped in PJL: a black square, then a grey one.
const std::string kTwoPagesXl = std::string(QX_TEST_DATA_DIR) + "/two_pages_pxlmono_75dpi.pxl";
const std::string UEL = "\x1b%-12345X";

struct Result {
    int status = -1;  // exit status, or -1 when killed by a signal
    int signal = 0;
    std::string out;
    std::string err;

    std::vector<std::string> errLines() const {
        std::vector<std::string> lines;
        size_t start = 0;
        while (start < err.size()) {
            const size_t nl = err.find('\n', start);
            lines.push_back(err.substr(start, nl == std::string::npos ? std::string::npos : nl - start));
            if (nl == std::string::npos)
                break;
            start = nl + 1;
        }
        return lines;
    }
};

using qx::test::readFile;
using qx::test::writeFile;

fs::path freshDir(const std::string& name) {
    fs::path dir = fs::temp_directory_path() / ("qx_cli_tests_" + std::to_string(::getpid())) / name;
    fs::remove_all(dir);
    fs::create_directories(dir);
    return dir;
}

size_t entries(const fs::path& dir) {
    return static_cast<size_t>(std::distance(fs::directory_iterator(dir), fs::directory_iterator()));
}

struct Child {
    pid_t pid = -1;
    fs::path outFile, errFile;
};

// Starts quarvex with stdout and stderr going to files. fileSizeLimit > 0 caps the size of
// any file the child writes, as a full disk would.
Child start(const std::vector<std::string>& args, const fs::path& logDir, rlim_t fileSizeLimit = 0,
            rlim_t memoryLimit = 0) {
    Child c;
    c.outFile = logDir / "stdout.txt";
    c.errFile = logDir / "stderr.txt";
    c.pid = ::fork();
    if (c.pid == 0) {
        const int out = ::open(c.outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = ::open(c.errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (out < 0 || err < 0)
            ::_exit(120);
        ::dup2(out, 1);
        ::dup2(err, 2);
        if (fileSizeLimit > 0) {
            std::signal(SIGXFSZ, SIG_IGN);
            struct rlimit rl {fileSizeLimit, fileSizeLimit};
            ::setrlimit(RLIMIT_FSIZE, &rl);
        }
        if (memoryLimit > 0) {
            struct rlimit rl {memoryLimit, memoryLimit};
            ::setrlimit(RLIMIT_AS, &rl);
        }
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(kQuarvex.c_str()));
        for (const auto& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        ::execv(kQuarvex.c_str(), argv.data());
        ::_exit(127);
    }
    return c;
}

Result finish(const Child& c) {
    Result r;
    int status = 0;
    ::waitpid(c.pid, &status, 0);
    if (WIFEXITED(status))
        r.status = WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        r.signal = WTERMSIG(status);
    r.out = readFile(c.outFile);
    r.err = readFile(c.errFile);
    return r;
}

Result run(const std::vector<std::string>& args, rlim_t fileSizeLimit = 0, rlim_t memoryLimit = 0) {
    static int counter = 0;
    const fs::path logs = freshDir("logs" + std::to_string(++counter));
    return finish(start(args, logs, fileSizeLimit, memoryLimit));
}

struct TiffInfo {
    int pages = 0;
    uint32_t width = 0, height = 0;
    uint16_t bits = 0, samples = 0, photometric = 0, compression = 0, pageTotal = 0;
    float xres = 0, yres = 0;
    std::string software;
    bool hasDateTime = false;
};

TiffInfo readTiff(const fs::path& path) {
    TiffInfo info;
    TIFF* t = TIFFOpen(path.c_str(), "r");
    if (!t)
        return info;
    info.pages = TIFFNumberOfDirectories(t);
    TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &info.width);
    TIFFGetField(t, TIFFTAG_IMAGELENGTH, &info.height);
    TIFFGetFieldDefaulted(t, TIFFTAG_BITSPERSAMPLE, &info.bits);
    TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLESPERPIXEL, &info.samples);
    TIFFGetField(t, TIFFTAG_PHOTOMETRIC, &info.photometric);
    TIFFGetField(t, TIFFTAG_COMPRESSION, &info.compression);
    TIFFGetField(t, TIFFTAG_XRESOLUTION, &info.xres);
    TIFFGetField(t, TIFFTAG_YRESOLUTION, &info.yres);
    uint16_t pageNo = 0;
    TIFFGetField(t, TIFFTAG_PAGENUMBER, &pageNo, &info.pageTotal);
    char* sw = nullptr;
    if (TIFFGetField(t, TIFFTAG_SOFTWARE, &sw) == 1 && sw)
        info.software = sw;
    char* dt = nullptr;
    info.hasDateTime = TIFFGetField(t, TIFFTAG_DATETIME, &dt) == 1;
    TIFFClose(t);
    return info;
}

// A run that refuses: exit 1, one message of the form "quarvex: INPUT: ...", nothing written.
void expectNothingWritten(const Result& r, const std::string& input, const fs::path& outDir,
                          const std::string& mentions) {
    EXPECT_EQ(r.status, 1) << r.err;
    const auto lines = r.errLines();
    ASSERT_FALSE(lines.empty());
    const std::string& last = lines.back();
    EXPECT_EQ(last.rfind("quarvex: " + input + ": ", 0), 0u) << last;
    EXPECT_NE(last.find(mentions), std::string::npos) << last;
    EXPECT_TRUE(r.out.empty());
    EXPECT_EQ(entries(outDir), 0u) << "nothing, not even a temporary file";
}

void expectUsageError(const std::vector<std::string>& args, const std::string& named) {
    const fs::path dir = freshDir("usage");
    std::vector<std::string> full = args;
    for (auto& a : full)
        if (a == "OUT")
            a = (dir / "out.tif").string();
    const Result r = run(full);
    EXPECT_EQ(r.status, 2) << r.err;
    const auto lines = r.errLines();
    ASSERT_EQ(lines.size(), 1u) << r.err;
    EXPECT_EQ(lines[0].rfind("quarvex: ", 0), 0u) << lines[0];
    EXPECT_NE(lines[0].find(named), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].find("--help"), std::string::npos) << lines[0];
    EXPECT_TRUE(r.out.empty());
    EXPECT_EQ(entries(dir), 0u);
}

} // namespace

TEST(Quarvex, HelpAndVersion) {
    for (const char* h : {"-h", "--help"}) {
        const Result r = run({h});
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out.rfind("Usage: quarvex [OPTION VALUE]... -o OUTPUT -i INPUT\n", 0), 0u) << r.out;
        EXPECT_TRUE(r.err.empty());
    }
    const Result v = run({"--version"});
    EXPECT_EQ(v.status, 0);
    EXPECT_EQ(v.out, std::string("quarvex ") + QX_EXPECTED_VERSION + "\n");
}

TEST(Quarvex, UsageErrors) {
    const std::string in = kTwoPages;
    expectUsageError({}, "-o");
    expectUsageError({"-i", in}, "-o");
    expectUsageError({"-o", "OUT"}, "-i");
    expectUsageError({"-o", "OUT", "-i", in, "-q", "1"}, "-q");
    expectUsageError({"-o", "OUT", "-i", in, "extra"}, "extra");
    expectUsageError({"-o", "OUT", "-i", in, "-b"}, "-b");
    expectUsageError({"-o", "OUT", "-i", in, "-b", "16"}, "16");
    expectUsageError({"-o", "OUT", "-i", in, "-c", "9"}, "-c");
    expectUsageError({"-o", "OUT", "-i", in, "-c", "4", "-b", "8"}, "-c 4");
    expectUsageError({"-o", "OUT", "-i", in, "-c", "7"}, "-c 7");
    expectUsageError({"-o", "OUT", "-i", in, "-r", "300"}, "-r");
    expectUsageError({"-o", "OUT", "-i", in, "-r", "2401x2400"}, "2401x2400");
    expectUsageError({"-o", "OUT", "-i", in, "-gw", "65001"}, "65001");
    expectUsageError({"-o", "OUT", "-i", in, "-gh", "0"}, "-gh");
    expectUsageError({"-o", "OUT", "-i", in, "-faxtif", "3"}, "-faxtif");
    expectUsageError({"-o", "OUT", "-i", in, "-writelocal", "maybe"}, "-writelocal");
}

TEST(Quarvex, MissingInput) {
    const fs::path dir = freshDir("missing");
    const std::string input = (dir / "nowhere.pcl").string();
    const fs::path out = freshDir("missing_out");
    expectNothingWritten(run({"-o", (out / "x.tif").string(), "-i", input}), input, out, "No such file");
}

TEST(Quarvex, FolderAsInput) {
    const fs::path dir = freshDir("folder_in");
    const fs::path out = freshDir("folder_out");
    expectNothingWritten(run({"-o", (out / "x.tif").string(), "-i", dir.string()}), dir.string(), out, "folder");
}

TEST(Quarvex, DeviceAsInput) {
    const fs::path out = freshDir("device_out");
    expectNothingWritten(run({"-o", (out / "x.tif").string(), "-i", "/dev/zero"}), "/dev/zero", out, "not a file");
}

TEST(Quarvex, InputFromAPipe) {
    const fs::path dir = freshDir("pipe");
    const fs::path fifo = dir / "job.fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const fs::path out = dir / "x.tif";
    std::thread feeder([&] {
        std::ofstream f(fifo, std::ios::binary);
        f << readFile(kTwoPagesXl);
    });
    const Result r = run({"-o", out.string(), "-i", fifo.string()});
    feeder.join();
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(readTiff(out).pages, 2);
}

TEST(Quarvex, UnreadableInput) {
    if (::geteuid() == 0)
        GTEST_SKIP() << "running as root, which reads files whatever their mode; "
                        "FolderAsInput covers an input that cannot be read as root";
    const fs::path dir = freshDir("unreadable");
    const fs::path input = dir / "locked.pcl";
    fs::copy_file(kTwoPages, input);
    ::chmod(input.c_str(), 0);
    const fs::path out = freshDir("unreadable_out");
    expectNothingWritten(run({"-o", (out / "x.tif").string(), "-i", input.string()}), input.string(), out,
                         "Permission denied");
}

// Damaged EMF and EMF spool files that print nothing are named as EMF in the messages too.
TEST(Quarvex, RefusesWhatIsNotPclWithWhatItLooksLike) {
    const fs::path dir = freshDir("kinds");
    std::string emf(120, '\0');
    emf[0] = 1;
    emf[4] = 108;
    emf.replace(40, 4, " EMF");
    std::string spl = std::string("\x00\x00\x01\x00", 4) + std::string(60, '\x10');
    std::mt19937 rng(7);
    std::string random(20000, '\0');
    for (char& c : random)
        c = static_cast<char>(rng());
    random[0] = '\x9c';
    const std::vector<std::pair<std::string, std::pair<std::string, std::string>>> cases = {
        {"doc.pdf", {"%PDF-1.4\n1 0 obj<<>>endobj\ntrailer<<>>\n%%EOF\n", "no page"}}, // a PDF without pages
        {"job.emf", {emf, "EMF"}},
        {"job.spl", {spl, "EMF"}},
        {"job.xps", {std::string("PK\x03\x04", 4) + std::string(26, '\0') + "FixedDocumentSequence.fdseq", "XPS"}},
        {"noise.prn", {random, "binary"}},
        {"blank.pcl", {"\r\n\r\n", "no printable data"}},
        {"empty.pcl", {"", "no printable data"}},
    };
    for (const auto& [name, content] : cases) {
        const fs::path input = dir / name;
        writeFile(input, content.first);
        const fs::path out = freshDir("kinds_out");
        SCOPED_TRACE(name);
        expectNothingWritten(run({"-o", (out / "x.tif").string(), "-i", input.string()}), input.string(), out,
                             content.second);
        EXPECT_EQ(readFile(input), content.first) << "the input is never written";
    }
}

TEST(Quarvex, PjlWithoutAnyPageWritesNothing) {
    const fs::path dir = freshDir("nopage");
    const fs::path input = dir / "status.pjl";
    writeFile(input, UEL + "@PJL INFO STATUS\r\n@PJL SET RESOL");
    const fs::path out = freshDir("nopage_out");
    expectNothingWritten(run({"-o", (out / "x.tif").string(), "-i", input.string()}), input.string(), out, "no page");
}

TEST(Quarvex, OutputFolderMissing) {
    const fs::path out = freshDir("outmissing");
    const Result r = run({"-o", (out / "sub" / "x.tif").string(), "-i", kTwoPages});
    expectNothingWritten(r, kTwoPages, out, "cannot write");
}

TEST(Quarvex, OutputFolderNotWritable) {
    // /proc refuses new files even to root.
    const Result r = run({"-o", "/proc/self/x.tif", "-i", kTwoPages});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("cannot write /proc/self/x.tif"), std::string::npos) << r.err;
    if (::geteuid() == 0)
        GTEST_SKIP() << "running as root, which may write into read-only folders; /proc was checked instead";
    const fs::path out = freshDir("readonly");
    ::chmod(out.c_str(), 0555);
    const Result r2 = run({"-o", (out / "x.tif").string(), "-i", kTwoPages});
    ::chmod(out.c_str(), 0755);
    expectNothingWritten(r2, kTwoPages, out, "Permission denied");
}

TEST(Quarvex, OutputThatNamesTheInput) {
    const fs::path dir = freshDir("same");
    const fs::path input = dir / "job.pcl";
    fs::copy_file(kTwoPages, input);
    const std::string before = readFile(input);
    for (const std::string& output : {input.string(), (dir / "." / "job.pcl").string()}) {
        const Result r = run({"-o", output, "-i", input.string()});
        EXPECT_EQ(r.status, 1) << r.err;
        EXPECT_NE(r.err.find("is the input file"), std::string::npos) << r.err;
        EXPECT_EQ(readFile(input), before);
        EXPECT_EQ(entries(dir), 1u);
    }
    // -writelocal puts the output beside the input: the same name is the input again.
    const Result r = run({"-writelocal", "y", "-o", "/elsewhere/job.pcl", "-i", input.string()});
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_EQ(readFile(input), before);
}

TEST(Quarvex, ExistingOutputSurvivesAFailedRun) {
    const fs::path dir = freshDir("keep");
    const fs::path out = dir / "x.tif";
    writeFile(out, "previous result");
    const fs::path input = dir / "doc.pdf";
    writeFile(input, "%PDF-1.4\n");
    const Result r = run({"-o", out.string(), "-i", input.string()});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(readFile(out), "previous result");
    EXPECT_EQ(entries(dir), 2u);
}

// ---- Conversions that produce pages ----

TEST(QuarvexConversion, DefaultsGiveRgbDeflateAtTheJobsResolution) {
    const fs::path dir = freshDir("convert");
    const fs::path out = dir / "two.tif";
    const Result r = run({"-o", out.string(), "-i", kTwoPagesXl});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(r.err.empty()) << r.err;
    const TiffInfo t = readTiff(out);
    EXPECT_EQ(t.pages, 2);
    EXPECT_EQ(t.pageTotal, 2);
    EXPECT_EQ(t.width, 638u); // 8.5 x 11 inches at 75 dpi
    EXPECT_EQ(t.height, 825u);
    EXPECT_EQ(t.bits, 8);
    EXPECT_EQ(t.samples, 3);
    EXPECT_EQ(t.photometric, PHOTOMETRIC_RGB);
    EXPECT_EQ(t.compression, COMPRESSION_ADOBE_DEFLATE);
    EXPECT_FLOAT_EQ(t.xres, 75.f);
    EXPECT_FLOAT_EQ(t.yres, 75.f);
    EXPECT_EQ(t.software, std::string("quarvex ") + QX_EXPECTED_VERSION);
    EXPECT_FALSE(t.hasDateTime);
    EXPECT_EQ(entries(dir), 1u) << "no temporary file left";
}

TEST(QuarvexConversion, EveryDepthWithEveryCompression) {
    const fs::path dir = freshDir("matrix");
    const std::pair<int, uint16_t> compressions[] = {
        {0, COMPRESSION_NONE},      {1, COMPRESSION_PACKBITS},  {2, COMPRESSION_LZW},
        {3, COMPRESSION_LZW},       {4, COMPRESSION_CCITTFAX3}, {5, COMPRESSION_CCITTFAX3},
        {6, COMPRESSION_ADOBE_DEFLATE}, {7, COMPRESSION_CCITTFAX4}};
    for (int b : {1, 8, 24}) {
        for (const auto& [c, tag] : compressions) {
            if (b != 1 && (c == 4 || c == 5 || c == 7))
                continue;
            SCOPED_TRACE("-b " + std::to_string(b) + " -c " + std::to_string(c));
            const fs::path out = dir / ("b" + std::to_string(b) + "c" + std::to_string(c) + ".tif");
            const Result r = run({"-b", std::to_string(b), "-c", std::to_string(c), "-o", out.string(), "-i", kTwoPagesXl});
            EXPECT_EQ(r.status, 0) << r.err;
            const TiffInfo t = readTiff(out);
            EXPECT_EQ(t.pages, 2);
            EXPECT_EQ(t.compression, tag);
            EXPECT_EQ(t.bits, b == 1 ? 1 : 8);
            EXPECT_EQ(t.samples, b == 24 ? 3 : 1);
            EXPECT_EQ(t.photometric, b == 1 ? PHOTOMETRIC_MINISWHITE : b == 8 ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_RGB);
        }
    }
}

TEST(QuarvexConversion, ResolutionAndPageSize) {
    const fs::path dir = freshDir("sizes");
    const fs::path a = dir / "a.tif", b = dir / "b.tif", c = dir / "c.tif";
    EXPECT_EQ(run({"-r", "150x100", "-o", a.string(), "-i", kTwoPagesXl}).status, 0);
    TiffInfo t = readTiff(a);
    EXPECT_EQ(t.width, 1275u);
    EXPECT_EQ(t.height, 1100u);
    EXPECT_FLOAT_EQ(t.xres, 150.f);
    EXPECT_FLOAT_EQ(t.yres, 100.f);

    EXPECT_EQ(run({"-gw", "300", "-gh", "200", "-o", b.string(), "-i", kTwoPagesXl}).status, 0);
    t = readTiff(b);
    EXPECT_EQ(t.width, 300u);
    EXPECT_EQ(t.height, 200u);

    EXPECT_EQ(run({"-gw", "425", "-o", c.string(), "-i", kTwoPagesXl}).status, 0);
    t = readTiff(c);
    EXPECT_EQ(t.width, 425u);
    EXPECT_NEAR(static_cast<double>(t.height), 550.0, 1.0) << "the height follows the page's proportions";
}

TEST(QuarvexConversion, FaxTiff) {
    const fs::path dir = freshDir("fax");
    const fs::path fine = dir / "fine.tif", normal = dir / "normal.tif";
    const Result r = run({"-faxtif", "1", "-b", "1", "-c", "7", "-o", fine.string(), "-i", kTwoPagesXl});
    EXPECT_EQ(r.status, 0) << r.err;
    TiffInfo t = readTiff(fine);
    EXPECT_EQ(t.pages, 2);
    EXPECT_EQ(t.width, 1728u);
    EXPECT_EQ(t.bits, 1);
    EXPECT_EQ(t.photometric, PHOTOMETRIC_MINISWHITE);
    EXPECT_EQ(t.compression, COMPRESSION_CCITTFAX4);
    EXPECT_FLOAT_EQ(t.xres, 204.f);
    EXPECT_FLOAT_EQ(t.yres, 196.f);
    EXPECT_NEAR(static_cast<double>(t.height), 11 * 196.0, 2.0);

    // Ignored options are named, each with a warning, and the status says so.
    const Result w = run({"-faxtif", "0", "-b", "24", "-r", "600x600", "-c", "6", "-o", normal.string(), "-i", kTwoPagesXl});
    EXPECT_EQ(w.status, 3) << w.err;
    EXPECT_EQ(w.errLines().size(), 3u) << w.err;
    EXPECT_NE(w.err.find("-b 24"), std::string::npos) << w.err;
    EXPECT_NE(w.err.find("-r 600x600"), std::string::npos) << w.err;
    EXPECT_NE(w.err.find("-c 6"), std::string::npos) << w.err;
    t = readTiff(normal);
    EXPECT_EQ(t.width, 1728u);
    EXPECT_EQ(t.compression, COMPRESSION_CCITTFAX3);
    EXPECT_FLOAT_EQ(t.yres, 98.f);
}

TEST(QuarvexConversion, SameInputGivesTheSameBytes) {
    const fs::path dir = freshDir("determinism");
    for (const std::vector<std::string>& opts : std::vector<std::vector<std::string>>{
             {}, {"-b", "1", "-c", "5"}, {"-b", "8", "-c", "3"}, {"-faxtif", "0"}}) {
        std::vector<std::string> a = opts, b = opts;
        a.insert(a.end(), {"-o", (dir / "a.tif").string(), "-i", kTwoPagesXl});
        b.insert(b.end(), {"-o", (dir / "b.tif").string(), "-i", kTwoPagesXl});
        ASSERT_EQ(run(a).status, 0);
        ASSERT_EQ(run(b).status, 0);
        const std::string first = readFile(dir / "a.tif");
        EXPECT_FALSE(first.empty());
        EXPECT_TRUE(first == readFile(dir / "b.tif"));
    }
}

TEST(QuarvexConversion, WriteLocalPutsTheOutputBesideTheInput) {
    const fs::path dir = freshDir("local");
    const fs::path input = dir / "job.pxl";
    fs::copy_file(kTwoPagesXl, input);
    const Result r = run({"-writelocal", "y", "-o", "/no/such/folder/result.tif", "-i", input.string()});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(readTiff(dir / "result.tif").pages, 2);
    EXPECT_EQ(entries(dir), 2u);
}

TEST(QuarvexConversion, AnExistingOutputIsReplaced) {
    const fs::path dir = freshDir("replace");
    const fs::path out = dir / "x.tif";
    writeFile(out, "previous result");
    const Result r = run({"-o", out.string(), "-i", kTwoPagesXl});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(readTiff(out).pages, 2);
    EXPECT_EQ(entries(dir), 1u);
}

TEST(QuarvexConversion, SeveralJobsInOneFile) {
    const fs::path dir = freshDir("jobs");
    const std::string xl = readFile(kTwoPagesXl);
    writeFile(dir / "twice.prn", xl + xl);
    const Result r = run({"-o", (dir / "twice.tif").string(), "-i", (dir / "twice.prn").string()});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(readTiff(dir / "twice.tif").pages, 4);

    // A PostScript job among them prints its (blank) page between the others.
    writeFile(dir / "mixed.prn", xl + UEL + "@PJL ENTER LANGUAGE=POSTSCRIPT\n%!PS\nshowpage\n" + xl);
    const Result m = run({"-o", (dir / "mixed.tif").string(), "-i", (dir / "mixed.prn").string()});
    EXPECT_EQ(m.status, 0) << m.err;
    EXPECT_EQ(readTiff(dir / "mixed.tif").pages, 5);
}

TEST(QuarvexConversion, TruncatedInputIsWrittenWithWarnings) {
    const fs::path dir = freshDir("truncated");
    const std::string xl = readFile(kTwoPagesXl);
    // Cut inside the second page: the first page is whole.
    const std::string cut = xl.substr(0, xl.size() - 60);
    writeFile(dir / "cut.pxl", cut);
    const Result r = run({"-o", (dir / "cut.tif").string(), "-i", (dir / "cut.pxl").string()});
    EXPECT_EQ(r.status, 3) << r.err;
    ASSERT_FALSE(r.errLines().empty());
    EXPECT_EQ(r.errLines()[0].rfind("quarvex: " + (dir / "cut.pxl").string() + ": ", 0), 0u) << r.err;
    EXPECT_GE(readTiff(dir / "cut.tif").pages, 1);
}

TEST(QuarvexConversion, AFailedWriteLeavesNothing) {
    const fs::path dir = freshDir("full");
    const fs::path out = dir / "x.tif";
    // Files may grow to 20 KB only, as on a full disk; an uncompressed RGB page needs 1.5 MB.
    const Result r = run({"-c", "0", "-o", out.string(), "-i", kTwoPagesXl}, 20000);
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_NE(r.err.find("cannot write " + out.string()), std::string::npos) << r.err;
    EXPECT_EQ(entries(dir), 0u);
}

TEST(QuarvexConversion, APageTooLargeForMemoryFailsCleanly) {
    const fs::path dir = freshDir("huge");
    const fs::path out = dir / "x.tif";
    // The largest page the options allow, in colour, is 12.7 GB; with 2 GB of address space
    // the run must say so and stop, not crash.
    const Result r = run({"-gw", "65000", "-gh", "65000", "-b", "24", "-o", out.string(), "-i", kTwoPagesXl}, 0,
                         rlim_t(2) << 30);
    EXPECT_EQ(r.signal, 0) << r.err;
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_NE(r.err.find("not enough memory"), std::string::npos) << r.err;
    EXPECT_EQ(entries(dir), 0u);
}

// Whether the process has a file open in folder (under any name, or none).
bool hasFileOpenIn(pid_t pid, const fs::path& folder) {
    std::error_code ec;
    for (const auto& e : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec)) {
        const fs::path target = fs::read_symlink(e.path(), ec);
        if (!ec && target.string().rfind(folder.string() + "/", 0) == 0)
            return true;
    }
    return false;
}

// A run stopped in the middle - as the front end's Stop does with SIGKILL, or a user with
// SIGTERM or Ctrl-C - leaves neither a partial output nor a temporary file.
TEST(QuarvexConversion, AKilledRunLeavesNothing) {
    const fs::path dir = freshDir("killed");
    const fs::path input = dir / "long.prn";
    const std::string xl = readFile(kTwoPagesXl);
    std::string many;
    for (int i = 0; i < 200; ++i)
        many += xl;
    writeFile(input, many);
    for (int sig : {SIGKILL, SIGTERM, SIGINT}) {
        SCOPED_TRACE("signal " + std::to_string(sig));
        const fs::path outDir = freshDir("killed_out");
        const fs::path out = outDir / "long.tif";
        writeFile(out, "previous result");

        const fs::path logs = freshDir("killed_logs");
        const Child c = start({"-r", "600x600", "-c", "3", "-o", out.string(), "-i", input.string()}, logs);
        // Wait until the conversion is writing its output, then stop it.
        bool writing = false;
        for (int i = 0; i < 6000 && !writing; ++i) {
            writing = hasFileOpenIn(c.pid, outDir);
            if (!writing)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        EXPECT_TRUE(writing);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        ::kill(c.pid, sig);
        const Result r = finish(c);
        EXPECT_EQ(r.signal, sig) << r.err;
        EXPECT_EQ(entries(outDir), 1u) << "no temporary file";
        EXPECT_EQ(readFile(out), "previous result") << "the old output is untouched";
    }
}

// The bounding box of the pixels darker than mid-grey on one page of an 8-bit grey TIFF.
struct InkBox {
    int pixels = 0;
    uint32_t x0 = UINT32_MAX, y0 = UINT32_MAX, x1 = 0, y1 = 0;
};

InkBox inkOnPage(const fs::path& path, int page, uint8_t darkerThan) {
    InkBox box;
    TIFF* t = TIFFOpen(path.c_str(), "r");
    if (!t)
        return box;
    if (TIFFSetDirectory(t, static_cast<tdir_t>(page)) == 1) {
        uint32_t w = 0, h = 0;
        uint16_t bps = 0;
        TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &w);
        TIFFGetField(t, TIFFTAG_IMAGELENGTH, &h);
        TIFFGetFieldDefaulted(t, TIFFTAG_BITSPERSAMPLE, &bps);
        std::vector<uint8_t> row(TIFFScanlineSize(t));
        for (uint32_t y = 0; bps == 8 && y < h; ++y) {
            if (TIFFReadScanline(t, row.data(), y, 0) != 1)
                break;
            for (uint32_t x = 0; x < w && x < row.size(); ++x) {
                if (row[x] < darkerThan) {
                    ++box.pixels;
                    box.x0 = std::min(box.x0, x);
                    box.y0 = std::min(box.y0, y);
                    box.x1 = std::max(box.x1, x);
                    box.y1 = std::max(box.y1, y);
                }
            }
        }
    }
    TIFFClose(t);
    return box;
}

TEST(QuarvexConversion, PclRasterPages) {
    const fs::path dir = freshDir("pcl5");
    const fs::path out = dir / "pcl.tif";
    const Result r = run({"-b", "8", "-r", "75x75", "-o", out.string(), "-i", kTwoPages});
    EXPECT_EQ(r.status, 0) << r.err;
    const TiffInfo t = readTiff(out);
    EXPECT_EQ(t.pages, 2);
    EXPECT_EQ(t.width, 638u);
    EXPECT_EQ(t.height, 825u);
    EXPECT_EQ(t.photometric, PHOTOMETRIC_MINISBLACK);
    // Page one: a black square of 228 points, 72 points in from the left and bottom edges,
    // moved down by the top registration the job sends (ESC&l36Z: 36 decipoints, 3.75 pixels).
    const InkBox square = inkOnPage(out, 0, 64);
    const double down = 36.0 / 720 * 75;
    EXPECT_NEAR(square.x0, 75.0, 3);
    EXPECT_NEAR(square.x1, 312.0, 3);
    EXPECT_NEAR(square.y0, 512.0 + down, 1);
    EXPECT_NEAR(square.y1, 749.0 + down, 1);
    // Page two: a grey square, which the job itself halftoned into black dots.
    EXPECT_GT(inkOnPage(out, 1, 64).pixels, 0);
}

TEST(QuarvexConversion, PjlWrappedPclAndPclXlInOneFile) {
    const fs::path dir = freshDir("mixed_languages");
    const fs::path input = dir / "both.prn";
    writeFile(input, UEL + "@PJL JOB\r\n@PJL ENTER LANGUAGE=PCL\r\n" + readFile(kTwoPages) + readFile(kTwoPagesXl) +
                         UEL + "@PJL EOJ\r\n" + UEL);
    const fs::path out = dir / "both.tif";
    const Result r = run({"-r", "75x75", "-o", out.string(), "-i", input.string()});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(readTiff(out).pages, 4);
}

TEST(QuarvexConversion, PjlSettingsReachTheJobAndEndWithIt) {
    const fs::path dir = freshDir("pjl");
    const fs::path input = dir / "jobs.prn";
    writeFile(input, UEL + "@PJL JOB NAME=\"first\"\r\n@PJL SET PAPER=A4\r\n@PJL SET ORIENTATION=LANDSCAPE\r\n"
                           "@PJL ENTER LANGUAGE=PCL\r\n\x1b" "EHello world\r\n\f" +
                     UEL + "@PJL EOJ\r\n" + UEL + "@PJL ENTER LANGUAGE=PCL\r\n\x1b" "ESecond job\r\n\f" + UEL);
    const fs::path out = dir / "jobs.tif";
    const Result r = run({"-r", "100x100", "-b", "8", "-o", out.string(), "-i", input.string()});
    EXPECT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(readTiff(out).pages, 2);
    TIFF* t = TIFFOpen(out.c_str(), "r");
    ASSERT_NE(t, nullptr);
    uint32_t w = 0, h = 0;
    TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &w);
    TIFFGetField(t, TIFFTAG_IMAGELENGTH, &h);
    EXPECT_EQ(w, 1169u) << "A4 landscape";
    EXPECT_EQ(h, 827u);
    ASSERT_EQ(TIFFSetDirectory(t, 1), 1);
    TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &w);
    TIFFGetField(t, TIFFTAG_IMAGELENGTH, &h);
    EXPECT_EQ(w, 850u) << "Letter portrait again after the end of the PJL job";
    EXPECT_EQ(h, 1100u);
    TIFFClose(t);
    EXPECT_GT(inkOnPage(out, 0, 128).pixels, 0) << "the text is printed";
}

TEST(QuarvexConversion, PlainTextPrintsAsText) {
    const fs::path dir = freshDir("text");
    const fs::path input = dir / "notes.prn";
    writeFile(input, "Plain text, as a printer prints it.\r\nSecond line.\r\n");
    const fs::path out = dir / "notes.tif";
    const Result r = run({"-r", "100x100", "-b", "8", "-o", out.string(), "-i", input.string()});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(readTiff(out).pages, 1);
    const InkBox ink = inkOnPage(out, 0, 128);
    EXPECT_GT(ink.pixels, 0);
    EXPECT_LT(ink.y1, 200u) << "two lines at the top of the page";
}

TEST(QuarvexConversion, JobsAfterAForeignStartAreConverted) {
    const fs::path dir = freshDir("foreign_start");
    const std::string xl = readFile(kTwoPagesXl);
    std::mt19937 rng(11);
    std::string junk(3000, '\0');
    for (char& c : junk)
        c = static_cast<char>(rng());
    junk[0] = '\x9c';
    writeFile(dir / "junk.prn", junk + xl);
    const Result r = run({"-o", (dir / "junk.tif").string(), "-i", (dir / "junk.prn").string()});
    EXPECT_EQ(r.status, 3) << r.err;
    EXPECT_NE(r.err.find("skipped 1 job"), std::string::npos) << r.err;
    EXPECT_EQ(readTiff(dir / "junk.tif").pages, 2);

    // A PostScript job at the start is converted too: its page, then the PCL XL pages.
    writeFile(dir / "ps_then_pcl.prn", "%!PS-Adobe-3.0\nshowpage\n" + xl);
    const Result ps = run({"-o", (dir / "ps.tif").string(), "-i", (dir / "ps_then_pcl.prn").string()});
    EXPECT_EQ(ps.status, 0) << ps.err;
    EXPECT_EQ(readTiff(dir / "ps.tif").pages, 3);
}

TEST(QuarvexConversion, TheClosingMessageSurvivesManyWarnings) {
    const fs::path dir = freshDir("many_warnings");
    std::string file;
    for (int i = 0; i < 80; ++i)
        file += UEL + "@PJL ENTER LANGUAGE=PCLXL\r\n) HP-PCL XL;2;0\n\xff\xff";
    writeFile(dir / "broken.prn", file);
    const fs::path outDir = freshDir("many_warnings_out");
    const std::string input = (dir / "broken.prn").string();
    const Result r = run({"-o", (outDir / "x.tif").string(), "-i", input});
    EXPECT_GT(r.errLines().size(), 40u) << "every broken job says so, up to a limit";
    expectNothingWritten(r, input, outDir, "no page");
}
