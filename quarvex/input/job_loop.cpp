#include "input/job_loop.h"

#include "common/diagnostics.h"
#include "render/device.h"

#if QX_HAVE_PCL5
#include "pcl5/pcl5.h"
#endif
#if QX_HAVE_PCLXL
#include "pclxl/pclxl.h"
#endif
#if QX_HAVE_POSTSCRIPT
#include "postscript/postscript.h"
#endif
#if QX_HAVE_EMF
#include "emf/emf.h"
#endif

namespace qx::input {

namespace {

// Passes every call on and counts the pages that end.
class CountingDevice : public Device {
public:
    explicit CountingDevice(Device& inner) : m_inner(inner) {}

    void beginPage(const PageSpec& page) override { m_inner.beginPage(page); }
    void endPage() override {
        m_inner.endPage();
        ++pages;
    }
    void discardPage() override { m_inner.discardPage(); }
    Matrix pageToDevice() const override { return m_inner.pageToDevice(); }
    void fillPath(const Path& path, FillRule rule, const Paint& paint, const RenderState& rs) override {
        m_inner.fillPath(path, rule, paint, rs);
    }
    void strokePath(const Path& path, const StrokeStyle& style, const Paint& paint,
                    const RenderState& rs) override {
        m_inner.strokePath(path, style, paint, rs);
    }
    void drawImage(const Image& image, const Matrix& imageToPage, const Paint& texture,
                   const RenderState& rs) override {
        m_inner.drawImage(image, imageToPage, texture, rs);
    }
    void fillMask(const Mask& mask, const Matrix& maskToPage, const Paint& paint,
                  const RenderState& rs) override {
        m_inner.fillMask(mask, maskToPage, paint, rs);
    }

    int pages = 0;

private:
    Device& m_inner;
};

bool isBlank(uint8_t c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == 0; }

// The kind of job that an ENTER LANGUAGE name announces.
Kind kindOfLanguage(const std::string& name) {
    if (name == "PCL" || name == "PCL5" || name == "PCL5C" || name == "PCL5E" || name == "HPGL2")
        return Kind::Pcl5;
    if (name == "PCLXL" || name == "PCL6" || name == "PCLXL3")
        return Kind::PclXl;
    if (name == "POSTSCRIPT" || name == "PS" || name == "BR-SCRIPT")
        return Kind::PostScript;
    if (name == "PDF")
        return Kind::Pdf;
    return Kind::Binary;
}

} // namespace

Interpreters Interpreters::builtIn() {
    Interpreters in;
#if QX_HAVE_PCL5
    in.pcl5 = &qx::pcl5::run;
#endif
#if QX_HAVE_PCLXL
    in.pclxl = &qx::pclxl::run;
#endif
#if QX_HAVE_POSTSCRIPT
    in.postscript = &qx::postscript::runPostScript;
    in.pdf = &qx::postscript::runPdf;
#endif
#if QX_HAVE_EMF
    in.emf = &qx::emf::run;
#endif
    return in;
}

JobLoop::JobLoop(Device& device, Diagnostics& diag, const FontLibrary* fonts, Interpreters interpreters)
    : m_device(device), m_diag(diag), m_fonts(fonts), m_interpreters(interpreters) {}

JobLoopResult JobLoop::run(const uint8_t* data, size_t size) {
    JobLoopResult result;
    CountingDevice device(m_device);
    std::string language; // set by ENTER LANGUAGE for the data that follows
    size_t pos = 0;

    auto skipJob = [&](Kind kind, const std::string& what, size_t from) {
        ++result.skippedJobs;
        if (result.skippedJobs == 1) {
            result.firstSkipped = kind;
            result.firstSkippedWhat = what;
        }
        const size_t next = findUel(data, size, from);
        return next;
    };

    while (pos < size) {
        size_t p = pos;
        while (p < size && isBlank(data[p]))
            ++p;
        if (p >= size)
            break;
        if (startsWithUel(data + p, size - p)) {
            pos = p + kUelSize;
            language.clear();
            continue;
        }
        if (language.empty() && recognise(data + p, size - p) == Kind::Pjl) {
            const PjlState::Lines lines = m_pjl.parseLines(data, size, p);
            pos = lines.end > p ? lines.end : p + 1;
            language = lines.language;
            continue;
        }

        Kind kind = language.empty() ? recognise(data + pos, size - pos) : kindOfLanguage(language);
        std::string what = describe(kind);
        if (!language.empty() && kind == Kind::Binary)
            what = "the printer language " + language;
        language.clear();

        Interpreter interpreter = nullptr;
        size_t start = pos;
        if (kind == Kind::Pcl5) {
            interpreter = m_interpreters.pcl5;
        } else if (kind == Kind::PclXl) {
            interpreter = m_interpreters.pclxl;
            start = p; // the stream header is the first thing the PCL XL reader sees
        } else if (kind == Kind::PostScript || kind == Kind::Pdf) {
            interpreter = kind == Kind::PostScript ? m_interpreters.postscript : m_interpreters.pdf;
            start = p;
        } else if (kind == Kind::EmfSpool || kind == Kind::Emf) {
            interpreter = m_interpreters.emf; // the header's leading NULs belong to it
        } else {
            // Reported by the caller, which knows whether anything else was converted.
            pos = skipJob(kind, what, p);
            continue;
        }
        if (!interpreter) {
            const size_t next = skipJob(kind, what, p);
            m_diag.warning("skipped a " + what + " job: no interpreter for it in this build");
            pos = next;
            continue;
        }

        JobContext ctx{device, m_diag, m_fonts, m_pjl.current()};
        ctx.raster = m_raster;
        ++result.jobs;
        size_t used = interpreter(data + start, size - start, ctx);
        if (used > size - start)
            used = size - start;
        if (used == 0) {
            // No progress: give the rest of this job up and carry on with the next one.
            m_diag.warning("could not read the " + what + " job; skipped to the next job");
            pos = findUel(data, size, start + 1);
            continue;
        }
        pos = start + used;
    }
    result.pages = device.pages;
    return result;
}

} // namespace qx::input
