#include "postscript/postscript.h"

#include "common/diagnostics.h"
#include "postscript/ghostscript.h"

#if QX_HAVE_PCL5
#include "pcl5/page_formats.h"
#endif

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace qx::postscript {

namespace {

constexpr char kUel[] = "\x1b%-12345X";
constexpr size_t kUelSize = 9;

// Where the job ends: at the next Universal Exit Language sequence, else at the end.
size_t jobEnd(const uint8_t* data, size_t size) {
    const uint8_t* hit = std::search(data, data + size, kUel, kUel + kUelSize);
    return static_cast<size_t>(hit - data);
}

uint32_t le32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// The job's bytes as Ghostscript should see them: without the Ctrl-D end-of-job marks that
// spoolers put around PostScript, and only the PostScript section of a DOS EPS binary file.
void trim(const uint8_t*& begin, const uint8_t*& end) {
    if (end - begin >= 12 && std::memcmp(begin, "\xc5\xd0\xd3\xc6", 4) == 0) {
        const uint64_t offset = le32(begin + 4), length = le32(begin + 8);
        const uint64_t total = static_cast<uint64_t>(end - begin);
        if (offset <= total && length <= total - offset) {
            end = begin + offset + length;
            begin += offset;
        }
    }
    while (begin < end && (*begin == 0x04 || *begin == ' ' || *begin == '\r' || *begin == '\n' || *begin == '\t'))
        ++begin;
    while (end > begin && (end[-1] == 0x04 || end[-1] == 0 || end[-1] == ' ' || end[-1] == '\r' ||
                           end[-1] == '\n' || end[-1] == '\t'))
        --end;
}

// What the job's header comments say about its page. An EPS file's %%BoundingBox is its page
// (the picture is moved to the page's corner); other documents name their paper in
// %%DocumentMedia, or give a %%BoundingBox from the page's corner that is the whole sheet.
struct HeaderPage {
    std::optional<std::array<double, 4>> epsBox;
    std::optional<std::array<double, 2>> size;
};

HeaderPage headerPage(const uint8_t* data, size_t size) {
    HeaderPage out;
    const size_t head = std::min<size_t>(size, 16384);
    std::string text(reinterpret_cast<const char*>(data), head);
    const size_t endComments = text.find("%%EndComments");
    if (endComments != std::string::npos)
        text.resize(endComments);
    const bool eps = text.substr(0, text.find_first_of("\r\n")).find("EPSF") != std::string::npos;

    std::optional<std::array<double, 4>> box;
    for (size_t pos = 0; (pos = text.find("%%BoundingBox:", pos)) != std::string::npos; pos += 14) {
        std::array<double, 4> b{};
        if (std::sscanf(text.c_str() + pos + 14, "%lf %lf %lf %lf", &b[0], &b[1], &b[2], &b[3]) == 4 &&
            b[2] > b[0] && b[3] > b[1]) {
            box = b; // "(atend)" or a damaged line: look on
            break;
        }
    }
    if (eps) {
        out.epsBox = box;
        return out;
    }
    const size_t media = text.find("%%DocumentMedia:");
    if (media != std::string::npos) {
        char name[64];
        double w = 0, h = 0;
        if (std::sscanf(text.c_str() + media + 16, "%63s %lf %lf", name, &w, &h) == 3 && w > 0 && h > 0 &&
            w < 14400 && h < 14400) {
            out.size = std::array<double, 2>{w, h};
            return out;
        }
    }
    if (box && (*box)[0] == 0 && (*box)[1] == 0 && (*box)[2] < 14400 && (*box)[3] < 14400)
        out.size = std::array<double, 2>{(*box)[2], (*box)[3]};
    return out;
}

// The page a job prints on when it sets none: PJL PAPER, else Letter.
void defaultPage(const JobContext& ctx, JobSetup& job) {
    job.pageWidthPt = 612;
    job.pageHeightPt = 792;
#if QX_HAVE_PCL5
    if (!ctx.pjl.paper.empty()) {
        if (const auto paper = pcl5::paperByName(ctx.pjl.paper)) {
            job.pageWidthPt = paper->widthPt;
            job.pageHeightPt = paper->heightPt;
        } else {
            ctx.diag.warning("PJL PAPER=" + ctx.pjl.paper + " is not a known paper; Letter is used");
        }
    }
#endif
    job.declaredDpi = ctx.pjl.resolution > 0 ? ctx.pjl.resolution : 0;
}

// The job in a file that Ghostscript may read: an anonymous memory file where the system has
// them, else an unlinked-on-close temporary file.
class JobFile {
public:
    ~JobFile() {
        if (m_fd >= 0)
            ::close(m_fd);
        if (!m_unlink.empty())
            ::unlink(m_unlink.c_str());
    }

    bool write(const uint8_t* data, size_t size, std::string& error) {
        m_fd = ::memfd_create("quarvex-job", MFD_CLOEXEC);
        if (m_fd >= 0) {
            m_path = "/proc/self/fd/" + std::to_string(m_fd);
        } else {
            const char* tmp = std::getenv("TMPDIR");
            std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/quarvex-job-XXXXXX";
            m_fd = ::mkstemp(pattern.data());
            if (m_fd < 0) {
                error = std::string("cannot make a temporary file for the job: ") + std::strerror(errno);
                return false;
            }
            m_path = m_unlink = pattern;
        }
        while (size > 0) {
            const ssize_t n = ::write(m_fd, data, size);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0) {
                error = std::string("cannot hold the job for Ghostscript: ") + std::strerror(errno);
                return false;
            }
            data += n;
            size -= static_cast<size_t>(n);
        }
        return true;
    }

    const std::string& path() const { return m_path; }

private:
    int m_fd = -1;
    std::string m_path;
    std::string m_unlink;
};

// The most pages a job may print. Every page of a document takes some bytes of the file (a
// PDF page object, a PostScript page's drawing and showpage), but a small PostScript program
// can print pages forever ("{ showpage } loop"), which would grow the output without end.
// Jobs may print 10000 pages, or one page per 16 bytes when that is more;
// QX_MAX_JOB_PAGES sets another floor.
int maxPages(size_t jobBytes) {
    long floor = 10000;
    if (const char* text = std::getenv("QX_MAX_JOB_PAGES")) {
        char* end = nullptr;
        const long v = std::strtol(text, &end, 10);
        if (end != text && *end == '\0' && v > 0)
            floor = v;
    }
    const size_t byBytes = jobBytes / 16;
    return int(std::min<size_t>(std::max<size_t>(size_t(floor), byBytes), 1u << 30));
}

size_t runJob(const uint8_t* data, size_t size, JobContext& ctx, JobSetup::Language language) {
    const size_t end = jobEnd(data, size);
    const char* name = language == JobSetup::Language::Pdf ? "PDF" : "PostScript";
    const uint8_t* begin = data;
    const uint8_t* stop = data + end;
    trim(begin, stop);
    const size_t used = std::max<size_t>(end, 1);
    if (begin == stop)
        return used;

    static const RasterOptions defaults;
    const RasterOptions& options = ctx.raster ? *ctx.raster : defaults;
    std::string error;
    Ghostscript* gs = Ghostscript::get(options, error);
    if (!gs) {
        ctx.diag.warning(std::string("skipped a ") + name + " job: " + error);
        return used;
    }

    JobFile file;
    if (!file.write(begin, size_t(stop - begin), error)) {
        ctx.diag.warning(std::string("skipped a ") + name + " job: " + error);
        return used;
    }
    JobSetup job;
    job.language = language;
    job.path = file.path();
    defaultPage(ctx, job);
    if (language == JobSetup::Language::PostScript) {
        const HeaderPage page = headerPage(begin, size_t(stop - begin));
        job.epsBox = page.epsBox;
        if (page.size) {
            job.pageWidthPt = (*page.size)[0];
            job.pageHeightPt = (*page.size)[1];
        }
    }

    job.maxPages = maxPages(size_t(stop - begin));

    const JobOutcome outcome = gs->run(job, ctx.device);
    if (outcome.tooManyPages) {
        ctx.diag.warning(std::string("the ") + name + " job printed more than " + std::to_string(job.maxPages) +
                         " pages (an endless loop?); the rest of the job is skipped");
    } else if (!outcome.error.empty()) {
        ctx.diag.warning(std::string(name) + " error " + outcome.error + " after " +
                         std::to_string(outcome.pages) + " page(s); the rest of the job is skipped");
    } else if (!outcome.complaints.empty()) {
        ctx.diag.warning(std::string("the ") + name + " job is damaged: " + outcome.complaints.front());
    }
    return used;
}

} // namespace

size_t runPostScript(const uint8_t* data, size_t size, JobContext& ctx) {
    return runJob(data, size, ctx, JobSetup::Language::PostScript);
}

size_t runPdf(const uint8_t* data, size_t size, JobContext& ctx) {
    return runJob(data, size, ctx, JobSetup::Language::Pdf);
}

} // namespace qx::postscript
