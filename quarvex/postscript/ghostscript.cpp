#include "postscript/ghostscript.h"

#include "common/stall_guard.h"
#include "postscript/prologue.h"

#include <ghostscript/gdevdsp.h>
#include <ghostscript/gserrors.h>
#include <ghostscript/iapi.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <type_traits>
#include <mutex>

namespace qx::postscript {

namespace {

// Ghostscript's library is loaded when the first PostScript or PDF job comes, not when the
// engine starts: it brings several dozen libraries with it, whose loading would cost every job
// time and memory (about 10 MB) whether it holds PostScript or not.
struct GsApi {
    decltype(&gsapi_new_instance) new_instance = nullptr;
    decltype(&gsapi_delete_instance) delete_instance = nullptr;
    decltype(&gsapi_set_stdio_with_handle) set_stdio_with_handle = nullptr;
    decltype(&gsapi_register_callout) register_callout = nullptr;
    decltype(&gsapi_set_arg_encoding) set_arg_encoding = nullptr;
    decltype(&gsapi_init_with_args) init_with_args = nullptr;
    decltype(&gsapi_run_string) run_string = nullptr;
    decltype(&gsapi_exit) exit = nullptr;
    decltype(&gsapi_add_control_path) add_control_path = nullptr;
    decltype(&gsapi_remove_control_path) remove_control_path = nullptr;
};

// The library's functions, or null (with why in error) when it cannot be loaded.
const GsApi* loadGs(std::string& error) {
    static GsApi api;
    static std::string failure;
    static const bool loaded = [] {
        void* lib = nullptr;
        for (const char* name : {QX_GS_SONAME, "libgs.so"}) {
            lib = ::dlopen(name, RTLD_NOW | RTLD_LOCAL);
            if (lib)
                break;
        }
        if (!lib) {
            const char* why = ::dlerror();
            failure = std::string("cannot load Ghostscript's library (") + QX_GS_SONAME + "): " +
                      (why ? why : "not found");
            return false;
        }
        bool ok = true;
        auto get = [&](auto& fn, const char* symbol) {
            fn = reinterpret_cast<std::remove_reference_t<decltype(fn)>>(::dlsym(lib, symbol));
            ok = ok && fn;
        };
        get(api.new_instance, "gsapi_new_instance");
        get(api.delete_instance, "gsapi_delete_instance");
        get(api.set_stdio_with_handle, "gsapi_set_stdio_with_handle");
        get(api.register_callout, "gsapi_register_callout");
        get(api.set_arg_encoding, "gsapi_set_arg_encoding");
        get(api.init_with_args, "gsapi_init_with_args");
        get(api.run_string, "gsapi_run_string");
        get(api.exit, "gsapi_exit");
        get(api.add_control_path, "gsapi_add_control_path");
        get(api.remove_control_path, "gsapi_remove_control_path");
        if (!ok)
            failure = "Ghostscript's library lacks functions the engine needs";
        return ok;
    }();
    if (!loaded) {
        error = failure;
        return nullptr;
    }
    return &api;
}

// Only called once loadGs() has succeeded (an instance exists).
const GsApi& gs() {
    std::string unused;
    return *loadGs(unused);
}

// A PostScript string literal for text (paths).
std::string psString(const std::string& text) {
    std::string out = "(";
    for (char c : text) {
        if (c == '(' || c == ')' || c == '\\')
            out += '\\';
        out += c;
    }
    return out + ")";
}

std::string number(double v) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.6f", v);
    return buf;
}

bool usable(double v) { return v > 0 && v < 1e7; }

// Rows handed to the engine's device at a time: small enough to keep the copy small, large
// enough to keep the calls few.
constexpr int kStripRows = 128;

} // namespace

struct Ghostscript::Callbacks {
    static Ghostscript* self(void* handle) { return static_cast<Ghostscript*>(handle); }

    static int open(void*, void*) { return 0; }
    static int preclose(void*, void*) { return 0; }
    static int close(void* handle, void*) {
        self(handle)->m_image = nullptr;
        return 0;
    }
    static int presize(void*, void*, int, int, int, unsigned int) { return 0; }
    static int size(void* handle, void*, int width, int height, int raster, unsigned int,
                    unsigned char* image) {
        Ghostscript* gs = self(handle);
        gs->m_image = image;
        gs->m_width = width;
        gs->m_height = height;
        gs->m_raster = raster;
        return 0;
    }
    static int sync(void*, void*) { return 0; }
    static int page(void* handle, void*, int, int) {
        // A refused page fails the job's showpage, which ends the job as a PostScript error.
        return self(handle)->deliverPage() ? 0 : gs_error_limitcheck;
    }

    static int callout(void*, void* handle, const char* deviceName, int id, int bytes, void* data) {
        if (deviceName == nullptr || std::strcmp(deviceName, "display") != 0 ||
            id != DISPLAY_CALLOUT_GET_CALLBACK || bytes < static_cast<int>(sizeof(gs_display_get_callback_t)))
            return -1;
        static display_callback table = [] {
            display_callback t{};
            t.size = sizeof(display_callback);
            t.version_major = DISPLAY_VERSION_MAJOR;
            t.version_minor = DISPLAY_VERSION_MINOR;
            t.display_open = &open;
            t.display_preclose = &preclose;
            t.display_close = &close;
            t.display_presize = &presize;
            t.display_size = &Callbacks::size;
            t.display_sync = &sync;
            t.display_page = &page;
            return t;
        }();
        auto* out = static_cast<gs_display_get_callback_t*>(data);
        out->callback = &table;
        out->caller_handle = handle;
        return 0;
    }

    static int in(void*, char*, int) { return 0; }
    static int out(void* handle, const char* text, int length) {
        self(handle)->output(text, length);
        return length;
    }
};

namespace {
std::unique_ptr<Ghostscript>& theInstance() {
    static std::unique_ptr<Ghostscript> instance;
    return instance;
}
} // namespace

Ghostscript::Ghostscript(const RasterOptions& options) : m_options(options) {}

Ghostscript::~Ghostscript() {
    if (m_instance) {
        if (m_initialised)
            gs().exit(m_instance);
        gs().delete_instance(m_instance);
    }
}

Ghostscript* Ghostscript::get(const RasterOptions& options, std::string& error) {
    auto& instance = theInstance();
    if (!instance) {
        instance.reset(new Ghostscript(options));
        if (!instance->start(error)) {
            instance->m_dead = true;
            return nullptr;
        }
    }
    if (instance->m_dead) {
        error = "Ghostscript is not available";
        return nullptr;
    }
    return instance.get();
}

bool Ghostscript::start(std::string& error) {
    if (!loadGs(error))
        return false;
    if (gs().new_instance(&m_instance, this) < 0) {
        m_instance = nullptr;
        error = "cannot start Ghostscript's library";
        return false;
    }
    gs().set_stdio_with_handle(m_instance, &Callbacks::in, &Callbacks::out, &Callbacks::out, this);
    gs().register_callout(m_instance, &Callbacks::callout, this);
    gs().set_arg_encoding(m_instance, GS_ARG_ENCODING_UTF8);

    const unsigned format = unsigned(DISPLAY_COLORS_RGB) | unsigned(DISPLAY_ALPHA_NONE) | unsigned(DISPLAY_DEPTH_8) |
                            unsigned(DISPLAY_BIGENDIAN) | unsigned(DISPLAY_TOPFIRST) |
                            unsigned(DISPLAY_ROW_ALIGN_DEFAULT);
    const std::string formatArg = "-dDisplayFormat=" + std::to_string(format);
    // Ghostscript sets up its graphics state for the resolution it starts at (stroke adjustment
    // below 150 dpi), so it starts at the resolution most pages will have. -r would fix the
    // resolution for good, which the pixel-size and fax rules cannot have.
    const bool fax = m_options.fax == 0 || m_options.fax == 1;
    const double startX = fax ? 204 : usable(m_options.dpiX) ? m_options.dpiX : 300;
    const double startY = fax ? (m_options.fax == 0 ? 98 : 196) : usable(m_options.dpiY) ? m_options.dpiY : 300;
    std::vector<std::string> args = {"quarvex", "-q", "-dSAFER", "-dNOPAUSE", "-dBATCH", "-dNOPROMPT",
                                     "-sDEVICE=display", formatArg,
                                     "-dDEVICEXRESOLUTION=" + number(startX),
                                     "-dDEVICEYRESOLUTION=" + number(startY),
                                     "-dTextAlphaBits=1", "-dGraphicsAlphaBits=1"};
    std::vector<char*> argv;
    for (std::string& a : args)
        argv.push_back(a.data());
    const int code = gs().init_with_args(m_instance, static_cast<int>(argv.size()), argv.data());
    if (code < 0 && code != gs_error_Quit) {
        error = "cannot start Ghostscript (error " + std::to_string(code) + ")";
        return false;
    }
    m_initialised = true;
    int exitCode = 0;
    if (gs().run_string(m_instance, prologue(), 0, &exitCode) < 0) {
        error = "Ghostscript did not accept the engine's set-up";
        return false;
    }
    m_report.reset();
    return true;
}

void Ghostscript::output(const char* text, int length) {
    m_pending.append(text, static_cast<size_t>(std::max(length, 0)));
    size_t start = 0;
    for (size_t nl; (nl = m_pending.find('\n', start)) != std::string::npos; start = nl + 1)
        line(m_pending.substr(start, nl - start));
    m_pending.erase(0, start);
    // A job that prints without line ends must not make this grow without bound.
    if (m_pending.size() > 65536)
        m_pending.erase(0, m_pending.size() - 4096);
}

void Ghostscript::line(const std::string& text) {
    // QX_GS_TRACE=1 shows every line Ghostscript writes (page reports included), for diagnosis.
    if (std::getenv("QX_GS_TRACE"))
        std::fprintf(stderr, "gs: %s\n", text.c_str());
    const size_t report = text.find("%%[QX ");
    if (report != std::string::npos) {
        Report r;
        if (std::sscanf(text.c_str() + report + 6, "%lf %lf %lf %lf %lf %lf", &r.widthPt, &r.heightPt,
                        &r.xdpi, &r.ydpi, &r.declaredX, &r.declaredY) == 6)
            m_report = r;
        return;
    }
    const size_t err = text.find("%%[QXERR ");
    if (err != std::string::npos) {
        std::string what = text.substr(err + 9);
        const size_t close = what.rfind("]%%");
        if (close != std::string::npos)
            what.erase(close);
        while (!what.empty() && what.back() == ' ')
            what.pop_back();
        // "/undefined foo" -> "/undefined in foo"
        const size_t space = what.find(' ');
        if (space != std::string::npos)
            what = what.substr(0, space) + " in " + what.substr(space + 1);
        m_outcome.error = what;
        return;
    }
    // The interpreters' own complaints about damaged files ("   **** Error: ...").
    const size_t complaint = text.find("**** ");
    if (complaint != std::string::npos && m_device && m_outcome.complaints.size() < 20) {
        std::string what = text.substr(complaint + 5);
        while (!what.empty() && (what.back() == ' ' || what.back() == '\r'))
            what.pop_back();
        if (!what.empty())
            m_outcome.complaints.push_back(what);
    }
}

bool Ghostscript::deliverPage() {
    if (!m_device || !m_image || m_width <= 0 || m_height <= 0)
        return true;
    if (m_outcome.pages >= m_job->maxPages) {
        m_outcome.tooManyPages = true;
        return false;
    }
    // The whole hand-over, down to the TIFF writer, is one step for the stall watchdog: it
    // never ends the run with a page half written.
    std::lock_guard<std::mutex> handOver(stall::pageLock());
    PageSpec spec;
    if (m_report && usable(m_report->widthPt) && usable(m_report->heightPt)) {
        spec.widthPt = m_report->widthPt;
        spec.heightPt = m_report->heightPt;
        spec.declaredDpiX = usable(m_report->declaredX) ? m_report->declaredX : m_job->declaredDpi;
        spec.declaredDpiY = usable(m_report->declaredY) ? m_report->declaredY : m_job->declaredDpi;
    } else {
        // No report (a job that replaced the page device's procedures without ours): the
        // size follows from the pixels at the resolution the rule gives.
        const double dx = usable(m_options.dpiX) ? m_options.dpiX : usable(m_job->declaredDpi) ? m_job->declaredDpi : 300;
        const double dy = usable(m_options.dpiY) ? m_options.dpiY : usable(m_job->declaredDpi) ? m_job->declaredDpi : 300;
        spec.widthPt = m_width * 72.0 / dx;
        spec.heightPt = m_height * 72.0 / dy;
        spec.declaredDpiX = spec.declaredDpiY = m_job->declaredDpi;
    }

    m_device->beginPage(spec);
    // Rendered at the engine's pixel grid, one raster pixel is one device pixel. A raster of
    // another size (a job that changed its page behind the resolution rule's back) is
    // stretched over the sheet instead.
    const Matrix ptd = m_device->pageToDevice();
    double sx = spec.widthPt / m_width;
    double sy = spec.heightPt / m_height;
    if (ptd.a > 0 && ptd.d > 0 && ptd.b == 0 && ptd.c == 0 &&
        std::lround(spec.widthPt * ptd.a) == m_width && std::lround(spec.heightPt * ptd.d) == m_height) {
        sx = 1 / ptd.a;
        sy = 1 / ptd.d;
    }
    RenderState rs;
    rs.rop3 = 0xCC; // the source as it is
    // The page starts white, so only the inked part of the raster is handed over: runs of rows
    // with ink, up to kStripRows at a time, each cut to the columns that have ink.
    const size_t rowBytes = size_t(m_width) * 3;
    auto row = [&](int y) { return m_image + size_t(y) * size_t(m_raster); };
    auto inkSpan = [&](int y, size_t& first, size_t& last) { // byte offsets; false when blank
        const uint8_t* p = row(y);
        size_t a = 0;
        while (a < rowBytes && p[a] == 255)
            ++a;
        if (a == rowBytes)
            return false;
        size_t b = rowBytes;
        while (p[b - 1] == 255)
            --b;
        first = a;
        last = b;
        return true;
    };
    Image strip;
    strip.format = Image::Format::Rgb24;
    int y = 0;
    while (y < m_height) {
        size_t first = 0, last = 0;
        if (!inkSpan(y, first, last)) {
            ++y;
            continue;
        }
        const int y0 = y;
        size_t lo = first, hi = last;
        for (++y; y < m_height && y - y0 < kStripRows && inkSpan(y, first, last); ++y) {
            lo = std::min(lo, first);
            hi = std::max(hi, last);
        }
        const int x0 = int(lo / 3);
        const int x1 = int((hi + 2) / 3);
        strip.width = x1 - x0;
        strip.height = y - y0;
        strip.stride = size_t(strip.width) * 3;
        strip.data.resize(strip.stride * size_t(strip.height));
        for (int r = 0; r < strip.height; ++r)
            std::memcpy(strip.data.data() + size_t(r) * strip.stride, row(y0 + r) + size_t(x0) * 3, strip.stride);
        const Matrix toPage{sx, 0, 0, sy, x0 * sx, y0 * sy};
        m_device->drawImage(strip, toPage, Paint::solid(Rgb::black()), rs);
    }
    m_device->endPage();
    ++m_outcome.pages;
    stall::progress();
    return true;
}

JobOutcome Ghostscript::run(const JobSetup& job, Device& device) {
    m_outcome = JobOutcome{};
    if (m_dead) {
        m_outcome.error = "Ghostscript stopped working";
        return m_outcome;
    }
    m_device = &device;
    m_job = &job;
    m_report.reset();

    auto pair = [](double x, double y) { return "[" + number(x) + " " + number(y) + "]"; };
    std::string ps = "QX begin\n";
    ps += "/fixed " + (usable(m_options.dpiX) && usable(m_options.dpiY) ? pair(m_options.dpiX, m_options.dpiY)
                                                                         : std::string("null")) + " def\n";
    ps += "/fallback " + (usable(job.declaredDpi) ? pair(job.declaredDpi, job.declaredDpi) : pair(300, 300)) + " def\n";
    ps += "/gw " + std::to_string(std::max(m_options.pageWidthPx, 0)) + " def\n";
    ps += "/gh " + std::to_string(std::max(m_options.pageHeightPx, 0)) + " def\n";
    ps += "/fax " + std::to_string(m_options.fax == 0 || m_options.fax == 1 ? m_options.fax : -1) + " def\n";
    ps += "/declared null def\n";
    double w = job.pageWidthPt, h = job.pageHeightPt;
    if (job.epsBox) {
        const auto& b = *job.epsBox;
        ps += "/eps [" + number(b[0]) + " " + number(b[1]) + " " + number(b[2]) + " " + number(b[3]) + "] def\n";
        w = b[2] - b[0];
        h = b[3] - b[1];
    } else {
        ps += "/eps null def\n";
    }
    ps += "end\n";
    ps += "<< /PageSize " + pair(w, h) + " >> setpagedevice\n";
    ps += "{ " + psString(job.path) +
          (job.language == JobSetup::Language::Pdf ? " QX /runpdf get exec" : " QX /runps get exec") +
          " } QX /runjob get exec\n";

    gs().add_control_path(m_instance, GS_PERMIT_FILE_READING, job.path.c_str());
    int exitCode = 0;
    int code = 0;
    {
        // A job that never finishes a page (an endless loop) is ended by the watchdog.
        const stall::Section guarded(job.language == JobSetup::Language::Pdf ? "PDF job" : "PostScript job");
        code = gs().run_string(m_instance, ps.c_str(), 0, &exitCode);
    }
    gs().remove_control_path(m_instance, GS_PERMIT_FILE_READING, job.path.c_str());
    if (!m_pending.empty()) {
        line(m_pending);
        m_pending.clear();
    }
    if (code < 0) {
        // The job runner catches every PostScript error; this is the interpreter itself (or a
        // job that quit it), which cannot run another job.
        if (code != gs_error_Quit && m_outcome.error.empty())
            m_outcome.error = "Ghostscript failed (error " + std::to_string(code) + ")";
        if (code <= gs_error_Fatal)
            m_dead = true;
    }
    m_device = nullptr;
    m_job = nullptr;
    return m_outcome;
}

} // namespace qx::postscript
