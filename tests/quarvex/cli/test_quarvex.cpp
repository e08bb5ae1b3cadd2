// The quarvex executable as people and the front end run it: exit statuses, messages, and
// what is (and is not) left on disk, for conversions that work and for every way one fails.

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

const std::string kQuarvex = std::string(QX_STAGE_DIR) + "/bin/quarvex";
const std::string kTwoPages = std::string(QX_TEST_DATA_DIR) + "/two_pages_ljet4_75dpi.pcl";
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

std::string readFile(const fs::path& p) {
    std::ifstream f(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
}

void writeFile(const fs::path& p, const std::string& data) {
    std::ofstream f(p, std::ios::binary);
    f << data;
}

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
Child start(const std::vector<std::string>& args, const fs::path& logDir, rlim_t fileSizeLimit = 0) {
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

Result run(const std::vector<std::string>& args, rlim_t fileSizeLimit = 0) {
    static int counter = 0;
    const fs::path logs = freshDir("logs" + std::to_string(++counter));
    return finish(start(args, logs, fileSizeLimit));
}

struct TiffInfo {
    int pages = 0;
    uint32_t width = 0, height = 0;
    uint16_t bits = 0, samples = 0, photometric = 0, compression = 0, pageTotal = 0;
    float xres = 0, yres = 0;
    std::string software;
    bool hasDateTime = false;
};

[[maybe_unused]] TiffInfo readTiff(const fs::path& path) {
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
        {"page.ps", {"%!PS-Adobe-3.0\n/Helvetica findfont 12 scalefont setfont\nshowpage\n", "PostScript"}},
        {"pjl.ps", {UEL + "@PJL JOB\r\n@PJL ENTER LANGUAGE=POSTSCRIPT\r\n%!PS\nshowpage\n" + UEL, "PostScript"}},
        {"doc.pdf", {"%PDF-1.4\n1 0 obj<<>>endobj\ntrailer<<>>\n%%EOF\n", "PDF"}},
        {"job.emf", {emf, "EMF"}},
        {"job.spl", {spl, "EMF"}},
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
