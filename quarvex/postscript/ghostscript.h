#pragma once
// Ghostscript's library (libgs, the gsapi_* interface) as the engine's PostScript and PDF
// interpreter. One instance serves the whole run: it is started at the first PostScript or PDF
// job, with -dSAFER and without anti-aliasing, and ends with the process.
//
// Pages come back through Ghostscript's display device, which hands over each finished page as
// an RGB pixel buffer in memory (the same pixels as Ghostscript's tiff24nc device). The display device was
// chosen over a file-writing raster device because it needs no temporary files or output
// parsing, and it tells exactly when a page is complete. Each page is rendered at the pixel
// grid that the engine's page geometry asks for (the resolution, -gw/-gh, fax) and drawn one
// pixel to one pixel into the engine's own device, which makes the output depth as for PCL
// pages (grey is the BT.601 luminance of the colours; at one bit greys are halftoned by the
// engine's ordered dither, black stays black and white stays white) and hands the page to the
// TIFF writer, so every output option works as for PCL.

#include "render/device.h"
#include "render/raster_device.h"

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qx::postscript {

struct JobSetup {
    enum class Language : uint8_t { PostScript, Pdf };
    Language language = Language::PostScript;
    std::string path;               // a readable file that holds the job
    double pageWidthPt = 612;       // the page when the job sets none
    double pageHeightPt = 792;
    double declaredDpi = 0;         // PJL RESOLUTION; 0 = none
    std::optional<std::array<double, 4>> epsBox; // an EPS file's bounding box: its page
    int maxPages = 10000;           // pages past this end the job (a program printing forever)
};

struct JobOutcome {
    int pages = 0;
    std::string error;                  // the PostScript error that stopped the job, or empty
    bool tooManyPages = false;          // the job was stopped at JobSetup::maxPages
    std::vector<std::string> complaints; // what the interpreter reported about damaged input
};

class Ghostscript {
public:
    ~Ghostscript();
    Ghostscript(const Ghostscript&) = delete;
    Ghostscript& operator=(const Ghostscript&) = delete;

    // The run's interpreter, started on first use for output with these options. Null when it
    // cannot start; error says why.
    static Ghostscript* get(const RasterOptions& options, std::string& error);

    // Runs one job; every page it prints is drawn on device (beginPage .. endPage).
    JobOutcome run(const JobSetup& job, Device& device);

    // Called by the display device and the standard streams.
    struct Callbacks;

private:
    explicit Ghostscript(const RasterOptions& options);
    bool start(std::string& error);
    void output(const char* text, int length);
    void line(const std::string& text);
    // false: the job has printed its most pages, and the page is refused.
    bool deliverPage();

    RasterOptions m_options;
    void* m_instance = nullptr;
    bool m_initialised = false;
    bool m_dead = false;

    // The display device's current buffer.
    const uint8_t* m_image = nullptr;
    int m_width = 0;
    int m_height = 0;
    int m_raster = 0;

    // The last page report: size in points, resolution, the resolution the job declared.
    struct Report {
        double widthPt = 0, heightPt = 0, xdpi = 0, ydpi = 0, declaredX = 0, declaredY = 0;
    };
    std::optional<Report> m_report;
    std::string m_pending; // standard output not yet split into lines

    // The job in progress.
    Device* m_device = nullptr;
    const JobSetup* m_job = nullptr;
    JobOutcome m_outcome;
};

} // namespace qx::postscript
