// Writing through a temporary file: the output appears only when finished, failures and
// signals leave nothing behind, and an output that names the input is recognised.

#include "tiff/output_file.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;
using qx::tiff::OutputFile;

namespace {

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

size_t entries(const fs::path& dir) {
    return static_cast<size_t>(std::distance(fs::directory_iterator(dir), fs::directory_iterator()));
}

} // namespace

TEST(OutputFile, AppearsOnlyOnCommit) {
    const fs::path dir = freshDir("commit");
    const fs::path target = dir / "out.tif";
    OutputFile out;
    ASSERT_TRUE(out.create(target.string()));
    const fs::path temp = out.tempPath();
    EXPECT_EQ(temp.parent_path(), dir);
    EXPECT_EQ(temp.filename().string()[0], '.') << "the temporary file is hidden";
    EXPECT_TRUE(fs::exists(temp));
    EXPECT_FALSE(fs::exists(target));
    writeText(temp, "finished");
    ASSERT_TRUE(out.commit());
    EXPECT_EQ(readText(target), "finished");
    EXPECT_FALSE(fs::exists(temp));
    EXPECT_EQ(entries(dir), 1u);

    // Permissions of an ordinary new file, not the private ones of the temporary file.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    struct stat st {};
    ASSERT_EQ(::stat(target.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0666 & ~mask);
}

TEST(OutputFile, AnExistingOutputIsReplacedOnlyWhenFinished) {
    const fs::path dir = freshDir("replace");
    const fs::path target = dir / "out.tif";
    writeText(target, "old");
    {
        OutputFile out;
        ASSERT_TRUE(out.create(target.string()));
        writeText(out.tempPath(), "half");
        out.discard();
    }
    EXPECT_EQ(readText(target), "old");
    EXPECT_EQ(entries(dir), 1u);
    {
        OutputFile out;
        ASSERT_TRUE(out.create(target.string()));
        writeText(out.tempPath(), "half");
        // Going out of scope without commit() counts as a failure.
    }
    EXPECT_EQ(readText(target), "old");
    EXPECT_EQ(entries(dir), 1u);
    OutputFile out;
    ASSERT_TRUE(out.create(target.string()));
    writeText(out.tempPath(), "new");
    ASSERT_TRUE(out.commit());
    EXPECT_EQ(readText(target), "new");
    EXPECT_EQ(entries(dir), 1u);
}

TEST(OutputFile, TwoRunsUseDifferentTemporaryFiles) {
    const fs::path dir = freshDir("unique");
    OutputFile a, b;
    ASSERT_TRUE(a.create((dir / "x.tif").string()));
    ASSERT_TRUE(b.create((dir / "x.tif").string()));
    EXPECT_NE(a.tempPath(), b.tempPath());
}

TEST(OutputFile, CreateFailsWhereNothingCanBeWritten) {
    const fs::path dir = freshDir("fail");
    OutputFile out;
    EXPECT_FALSE(out.create((dir / "missing" / "out.tif").string()));
    EXPECT_FALSE(out.error().empty());
    // Not even root may create files here.
    EXPECT_FALSE(out.create("/proc/self/out.tif"));
    EXPECT_FALSE(out.commit());
}

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

// A run ended by a signal takes its temporary file with it and dies of that signal.
TEST(OutputFile, SignalsRemoveTheTemporaryFile) {
    for (int sig : {SIGTERM, SIGINT, SIGHUP}) {
        const fs::path dir = freshDir("signal" + std::to_string(sig));
        const fs::path target = dir / "out.tif";
        int fds[2];
        ASSERT_EQ(::pipe(fds), 0);
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::close(fds[0]);
            OutputFile out;
            if (!out.create(target.string()))
                ::_exit(10);
            const std::string path = out.tempPath() + "\n";
            if (::write(fds[1], path.data(), path.size()) != static_cast<ssize_t>(path.size()))
                ::_exit(11);
            for (;;)
                ::pause();
        }
        ::close(fds[1]);
        std::string temp;
        char c;
        while (::read(fds[0], &c, 1) == 1 && c != '\n')
            temp += c;
        ::close(fds[0]);
        ASSERT_FALSE(temp.empty());
        EXPECT_TRUE(fs::exists(temp));
        ASSERT_EQ(::kill(child, sig), 0);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status));
        if (WIFSIGNALED(status)) {
            EXPECT_EQ(WTERMSIG(status), sig);
        }
        EXPECT_FALSE(fs::exists(temp)) << "signal " << sig;
        EXPECT_FALSE(fs::exists(target));
        EXPECT_EQ(entries(dir), 0u);
    }
}
