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
    // The stop signals, and the crashes: a run that dies of a fault takes its temporary
    // file with it too (the process still dies of the signal, core dump and all).
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL}) {
        struct sigaction old {};
        // A signal the caller chose to ignore (nohup) stays ignored.
        if (::sigaction(sig, nullptr, &old) == 0 && old.sa_handler == SIG_IGN)
            continue;
        ::sigaction(sig, &sa, nullptr);
    }
}

OutputFile::~OutputFile() { discard(); }

namespace {

// Runs f with SIGINT, SIGTERM, SIGHUP and SIGQUIT held back, so that a signal cannot come between
// creating a temporary name and recording it for the cleanup handler.
template <typename F>
auto withCleanupSignalsBlocked(F f) {
    sigset_t block, old;
    sigemptyset(&block);
    sigaddset(&block, SIGINT);
    sigaddset(&block, SIGTERM);
    sigaddset(&block, SIGHUP);
    sigaddset(&block, SIGQUIT);
    ::sigprocmask(SIG_BLOCK, &block, &old);
    auto result = f();
    ::sigprocmask(SIG_SETMASK, &old, nullptr);
    return result;
}

} // namespace

bool OutputFile::create(const std::string& target, bool allowUnnamed) {
    discard();
    m_target = target;
    m_error.clear();
    installSignalCleanup();

    const std::string folder = folderOf(target);
    std::string pattern = folder == "/" ? "/" : folder + "/";
    pattern += "." + fileNameOf(target) + ".quarvex-XXXXXX";
    if (pattern.size() > PATH_MAX) {
        m_error = "the output path is too long";
        return false;
    }

#ifdef O_TMPFILE
    // The unnamed file is given its name through /proc when it is finished.
    if (allowUnnamed && ::access("/proc/self/fd", X_OK) == 0) {
        const int fd = ::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0666);
        if (fd >= 0) {
            m_fd = fd;
            m_active = true;
            return true;
        }
        // Folders on file systems without unnamed files fall back to a named one; any other
        // failure (no such folder, no permission) is the answer.
        if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) {
            m_error = std::strerror(errno);
            return false;
        }
    }
#else
    (void)allowUnnamed;
#endif
    return createNamed(pattern);
}

bool OutputFile::createNamed(const std::string& pattern) {
    std::string buf = pattern;
    int err = 0;
    const int fd = withCleanupSignalsBlocked([&] {
        const int f = ::mkostemp(buf.data(), O_CLOEXEC);
        err = errno;
        if (f >= 0)
            rememberTemp(buf);
        return f;
    });
    if (fd < 0) {
        m_error = std::strerror(err);
        return false;
    }
    m_fd = fd;
    m_temp = buf;
    m_active = true;
    // mkstemp makes the file private; a finished output gets the permissions of any new file.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    ::fchmod(fd, 0666 & ~mask);
    return true;
}

// Gives the unnamed file a hidden temporary name beside the target, from where it is renamed.
bool OutputFile::linkUnnamed() {
    const std::string folder = folderOf(m_target);
    const std::string procPath = "/proc/self/fd/" + std::to_string(m_fd);
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::string pattern = (folder == "/" ? "/" : folder + "/") + "." + fileNameOf(m_target) + ".quarvex-XXXXXX";
        // mkstemp finds a free name; the placeholder goes again at once, and linkat() takes
        // the name unless someone else just did.
        const int probe = ::mkostemp(pattern.data(), O_CLOEXEC);
        if (probe < 0)
            break;
        ::close(probe);
        ::unlink(pattern.c_str());
        const int rc = withCleanupSignalsBlocked([&] {
            const int r = ::linkat(AT_FDCWD, procPath.c_str(), AT_FDCWD, pattern.c_str(), AT_SYMLINK_FOLLOW);
            if (r == 0)
                rememberTemp(pattern);
            return r;
        });
        if (rc == 0) {
            m_temp = pattern;
            return true;
        }
        if (errno != EEXIST)
            break;
    }
    m_error = std::strerror(errno);
    return false;
}

bool OutputFile::commit() {
    if (!m_active) {
        m_error = "no output in progress";
        return false;
    }
    if (::fsync(m_fd) != 0) {
        m_error = std::strerror(errno);
        discard();
        return false;
    }
    if (m_temp.empty() && !linkUnnamed()) {
        const std::string why = m_error;
        discard();
        m_error = why;
        return false;
    }
    if (::rename(m_temp.c_str(), m_target.c_str()) != 0) {
        m_error = std::strerror(errno);
        discard();
        return false;
    }
    forgetTemp();
    ::close(m_fd);
    m_fd = -1;
    m_active = false;
    m_temp.clear();
    return true;
}

void OutputFile::discard() {
    if (!m_active)
        return;
    forgetTemp();
    if (!m_temp.empty())
        ::unlink(m_temp.c_str());
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
    m_active = false;
    m_temp.clear();
}

} // namespace qx::tiff
