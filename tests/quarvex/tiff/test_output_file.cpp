// Writing through a temporary file: the output appears only when finished, failures and
// signals leave nothing behind, and an output that names the input is recognised. Both ways
// of holding the unfinished data are tested: an unnamed file, and a hidden named one.

#include "tiff/output_file.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;
using qx::tiff::OutputFile;

namespace {

// Everything a run of these tests writes lies in one folder, removed when the tests end.
class RemoveTestFolder : public testing::Environment {
public:
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(fs::temp_directory_path() / ("qx_output_tests_" + std::to_string(::getpid())), ec);
    }
};
[[maybe_unused]] testing::Environment* const g_removeTestFolder =
    testing::AddGlobalTestEnvironment(new RemoveTestFolder);

fs::path freshDir(const std::string& name) {
    fs::path dir = fs::temp_directory_path() / ("qx_output_tests_" + std::to_string(::getpid())) / name;
    fs::remove_all(dir);
    fs::create_directories(dir);
    return dir;
}

void writeText(const fs::path& p, const std::string& text) {
    std::ofstream f(p, std::ios::binary);
    f << text;
}

std::string readText(const fs::path& p) {
    std::ifstream f(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
}

bool writeFd(int fd, const std::string& text) {
    return ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

size_t entries(const fs::path& dir) {
    return static_cast<size_t>(std::distance(fs::directory_iterator(dir), fs::directory_iterator()));
}

class OutputFileModes : public testing::TestWithParam<bool> {
protected:
    bool unnamed() const { return GetParam(); }
    std::string dirName(const std::string& base) const { return base + (unnamed() ? "_unnamed" : "_named"); }
};

} // namespace

TEST_P(OutputFileModes, AppearsOnlyOnCommit) {
    const fs::path dir = freshDir(dirName("commit"));
    const fs::path target = dir / "out.tif";
    OutputFile out;
    ASSERT_TRUE(out.create(target.string(), unnamed())) << out.error();
    ASSERT_GE(out.fd(), 0);
    if (out.tempPath().empty()) {
        EXPECT_EQ(entries(dir), 0u) << "an unnamed file has no entry in the folder";
    } else {
        EXPECT_FALSE(unnamed()) << "a named file only when asked for";
        const fs::path temp = out.tempPath();
        EXPECT_EQ(temp.parent_path(), dir);
        EXPECT_EQ(temp.filename().string()[0], '.') << "the temporary file is hidden";
        EXPECT_TRUE(fs::exists(temp));
    }
    EXPECT_FALSE(fs::exists(target));
    ASSERT_TRUE(writeFd(out.fd(), "finished"));
    ASSERT_TRUE(out.commit()) << out.error();
    EXPECT_EQ(readText(target), "finished");
    EXPECT_EQ(entries(dir), 1u);
    EXPECT_TRUE(out.tempPath().empty());

    // Permissions of an ordinary new file.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    struct stat st {};
    ASSERT_EQ(::stat(target.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0666 & ~mask);
}

TEST_P(OutputFileModes, AnExistingOutputIsReplacedOnlyWhenFinished) {
    const fs::path dir = freshDir(dirName("replace"));
    const fs::path target = dir / "out.tif";
    writeText(target, "old");
    {
        OutputFile out;
        ASSERT_TRUE(out.create(target.string(), unnamed()));
        ASSERT_TRUE(writeFd(out.fd(), "half"));
        out.discard();
        EXPECT_EQ(out.fd(), -1);
    }
    EXPECT_EQ(readText(target), "old");
    EXPECT_EQ(entries(dir), 1u);
    {
        OutputFile out;
        ASSERT_TRUE(out.create(target.string(), unnamed()));
        ASSERT_TRUE(writeFd(out.fd(), "half"));
        // Going out of scope without commit() counts as a failure.
    }
    EXPECT_EQ(readText(target), "old");
    EXPECT_EQ(entries(dir), 1u);
    OutputFile out;
    ASSERT_TRUE(out.create(target.string(), unnamed()));
    ASSERT_TRUE(writeFd(out.fd(), "new"));
    ASSERT_TRUE(out.commit());
    EXPECT_EQ(readText(target), "new");
    EXPECT_EQ(entries(dir), 1u);
}

TEST_P(OutputFileModes, TwoRunsForOneOutput) {
    const fs::path dir = freshDir(dirName("two"));
    OutputFile a, b;
    ASSERT_TRUE(a.create((dir / "x.tif").string(), unnamed()));
    ASSERT_TRUE(b.create((dir / "x.tif").string(), unnamed()));
    if (!unnamed()) {
        EXPECT_NE(a.tempPath(), b.tempPath());
    }
    ASSERT_TRUE(writeFd(a.fd(), "a"));
    ASSERT_TRUE(writeFd(b.fd(), "b"));
    ASSERT_TRUE(a.commit());
    ASSERT_TRUE(b.commit());
    EXPECT_EQ(readText(dir / "x.tif"), "b") << "the last one to finish wins";
    EXPECT_EQ(entries(dir), 1u);
}

TEST_P(OutputFileModes, CreateFailsWhereNothingCanBeWritten) {
    const fs::path dir = freshDir(dirName("fail"));
    OutputFile out;
    EXPECT_FALSE(out.create((dir / "missing" / "out.tif").string(), unnamed()));
    EXPECT_FALSE(out.error().empty());
    EXPECT_EQ(out.fd(), -1);
    // Not even root may create files here.
    EXPECT_FALSE(out.create("/proc/self/out.tif", unnamed()));
    EXPECT_FALSE(out.commit());
    EXPECT_EQ(entries(dir), 0u);
}

// A run that is stopped or crashes leaves nothing. An unnamed file goes with the process
// however it ends; a named one is removed by the signal handlers, and the process still dies
// of the signal.
TEST_P(OutputFileModes, StoppedRunsLeaveNothing) {
    std::vector<int> signals = {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGSEGV, SIGABRT};
    if (unnamed())
        signals.push_back(SIGKILL);
    for (int sig : signals) {
        const fs::path dir = freshDir(dirName("signal" + std::to_string(sig)));
        const fs::path target = dir / "out.tif";
        writeText(target, "old");
        int fds[2];
        ASSERT_EQ(::pipe(fds), 0);
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::close(fds[0]);
            struct rlimit noCore {0, 0}; // the crash signals would dump core
            ::setrlimit(RLIMIT_CORE, &noCore);
            OutputFile out;
            if (!out.create(target.string(), unnamed()) || !writeFd(out.fd(), "partial data"))
                ::_exit(10);
            const std::string ready = out.tempPath() + "\n";
            if (::write(fds[1], ready.data(), ready.size()) != static_cast<ssize_t>(ready.size()))
                ::_exit(11);
            for (;;)
                ::pause();
        }
        ::close(fds[1]);
        std::string temp;
        char c;
        bool ready = false;
        while (::read(fds[0], &c, 1) == 1) {
            if (c == '\n') {
                ready = true;
                break;
            }
            temp += c;
        }
        ::close(fds[0]);
        ASSERT_TRUE(ready);
        EXPECT_EQ(temp.empty(), unnamed());
        if (!temp.empty()) {
            EXPECT_TRUE(fs::exists(temp));
        }
        ASSERT_EQ(::kill(child, sig), 0);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status));
        if (WIFSIGNALED(status)) {
            EXPECT_EQ(WTERMSIG(status), sig);
        }
        EXPECT_EQ(entries(dir), 1u) << "signal " << sig;
        EXPECT_EQ(readText(target), "old");
    }
}

INSTANTIATE_TEST_SUITE_P(Both, OutputFileModes, testing::Values(true, false),
                         [](const testing::TestParamInfo<bool>& i) { return i.param ? "Unnamed" : "Named"; });

TEST(OutputFile, FolderAndFileNameOfAPath) {
    EXPECT_EQ(qx::tiff::folderOf("a/b/c.tif"), "a/b");
    EXPECT_EQ(qx::tiff::folderOf("c.tif"), ".");
    EXPECT_EQ(qx::tiff::folderOf("/c.tif"), "/");
    EXPECT_EQ(qx::tiff::fileNameOf("a/b/c.tif"), "c.tif");
    EXPECT_EQ(qx::tiff::fileNameOf("c.tif"), "c.tif");
}

TEST(OutputFile, RecognisesAnOutputThatNamesTheInput) {
    const fs::path dir = freshDir("same");
    const fs::path input = dir / "in.pcl";
    writeText(input, "data");
    fs::create_directories(dir / "sub");
    EXPECT_TRUE(qx::tiff::namesSameFile(input.string(), input.string()));
    EXPECT_TRUE(qx::tiff::namesSameFile(input.string(), (dir / "sub" / ".." / "in.pcl").string()));
    fs::create_symlink(input, dir / "link.tif");
    EXPECT_TRUE(qx::tiff::namesSameFile(input.string(), (dir / "link.tif").string()));
    fs::create_hard_link(input, dir / "hard.tif");
    EXPECT_TRUE(qx::tiff::namesSameFile(input.string(), (dir / "hard.tif").string()));
    // A symlinked folder leads to the same file too.
    fs::create_directory_symlink(dir, dir / "sub" / "up");
    EXPECT_TRUE(qx::tiff::namesSameFile(input.string(), (dir / "sub" / "up" / "in.pcl").string()));

    EXPECT_FALSE(qx::tiff::namesSameFile(input.string(), (dir / "in.tif").string()));
    writeText(dir / "other.tif", "data");
    EXPECT_FALSE(qx::tiff::namesSameFile(input.string(), (dir / "other.tif").string()));
    EXPECT_FALSE(qx::tiff::namesSameFile((dir / "missing.pcl").string(), (dir / "missing.pcl").string()));
}
