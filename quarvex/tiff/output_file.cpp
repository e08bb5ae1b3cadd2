#include "tiff/output_file.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qx::tiff {

namespace {

// The temporary file of the running conversion, kept where a signal handler may read it
// without allocating. Empty = nothing to remove.
char g_tempPath[PATH_MAX + 1];
volatile sig_atomic_t g_tempSet = 0;

extern "C" void removeTempAndDie(int sig) {
    if (g_tempSet)
        ::unlink(g_tempPath);
    // Die of the same signal, so that the parent sees how the run ended.
    std::signal(sig, SIG_DFL);
    ::raise(sig);
}

void rememberTemp(const std::string& path) {
    g_tempSet = 0;
    if (path.size() > PATH_MAX)
        return;
    std::memcpy(g_tempPath, path.c_str(), path.size() + 1);
    g_tempSet = 1;
}

void forgetTemp() { g_tempSet = 0; }

} // namespace

std::string folderOf(const std::string& path) {
    const auto slash = path.find_last_of('/');
    if (slash == std::string::npos)
        return ".";
    if (slash == 0)
        return "/";
    return path.substr(0, slash);
}

std::string fileNameOf(const std::string& path) {
    const auto slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool namesSameFile(const std::string& input, const std::string& output) {
    struct stat in {}, out {};
    if (::stat(input.c_str(), &in) != 0)
        return false;
    if (::stat(output.c_str(), &out) == 0)
        return in.st_dev == out.st_dev && in.st_ino == out.st_ino;
    // The output does not exist yet: compare where it would be with where the input is.
    char inReal[PATH_MAX], dirReal[PATH_MAX];
    if (!::realpath(input.c_str(), inReal))
        return false;
    if (!::realpath(folderOf(output).c_str(), dirReal))
        return false;
    std::string outCanonical = dirReal;
    if (outCanonical != "/")
        outCanonical += '/';
    outCanonical += fileNameOf(output);
    return outCanonical == inReal;
}

void OutputFile::installSignalCleanup() {
    static bool installed = false;
    if (installed)
        return;
    installed = true;
    struct sigaction sa {};
    sa.sa_handler = removeTempAndDie;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction old {};
        // A signal the caller chose to ignore (nohup) stays ignored.
        if (::sigaction(sig, nullptr, &old) == 0 && old.sa_handler == SIG_IGN)
            continue;
        ::sigaction(sig, &sa, nullptr);
    }
}

OutputFile::~OutputFile() { discard(); }

bool OutputFile::create(const std::string& target) {
    discard();
    m_target = target;
    m_error.clear();
    installSignalCleanup();

    std::string folder = folderOf(target);
    std::string pattern = folder == "/" ? "/" : folder + "/";
    pattern += "." + fileNameOf(target) + ".quarvex-XXXXXX";
    if (pattern.size() > PATH_MAX) {
        m_error = "the output path is too long";
        return false;
    }
    std::string buf = pattern;
    // Block the cleanup signals while the name is being recorded, so that a signal cannot
    // arrive between creating the file and remembering it.
    sigset_t block, old;
    sigemptyset(&block);
    sigaddset(&block, SIGINT);
    sigaddset(&block, SIGTERM);
    sigaddset(&block, SIGHUP);
    ::sigprocmask(SIG_BLOCK, &block, &old);
    const int fd = ::mkostemp(buf.data(), O_CLOEXEC);
    const int err = errno;
    if (fd >= 0) {
        m_temp = buf;
        m_active = true;
        rememberTemp(m_temp);
    }
    ::sigprocmask(SIG_SETMASK, &old, nullptr);
    if (fd < 0) {
        m_error = std::strerror(err);
        return false;
    }
    ::close(fd);
    return true;
}

bool OutputFile::commit() {
    if (!m_active) {
        m_error = "no output in progress";
        return false;
    }
    // mkstemp makes the file private; a finished output gets the permissions of any new file.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    ::chmod(m_temp.c_str(), 0666 & ~mask);
    const int fd = ::open(m_temp.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
    if (::rename(m_temp.c_str(), m_target.c_str()) != 0) {
        m_error = std::strerror(errno);
        discard();
        return false;
    }
    forgetTemp();
    m_active = false;
    m_temp.clear();
    return true;
}

void OutputFile::discard() {
    if (!m_active)
        return;
    forgetTemp();
    ::unlink(m_temp.c_str());
    m_active = false;
    m_temp.clear();
}

} // namespace qx::tiff
