#pragma once
// What an interpreter gets for one job: where to draw, where to complain, which fonts there
// are, and the defaults that PJL set for the job.
//
// Every language interpreter has the same entry point, in its own namespace:
//     size_t run(const uint8_t* data, size_t size, JobContext& ctx);
// It interprets data from the start, draws each page it prints through ctx.device (beginPage ..
// endPage), and returns how many bytes it used: it stops in front of a Universal Exit Language
// sequence (ESC %-12345X), which belongs to the job loop, or at the end of the data. A page
// still open at the end of the data is ejected if anything was drawn on it.

#include <cstddef>
#include <cstdint>
#include <string>

namespace qx {

class Device;
class Diagnostics;
class FontLibrary;
struct RasterOptions;

// Job defaults that PJL may set before the language starts (@PJL SET / DEFAULT).
struct PjlDefaults {
    std::string paper;            // PJL PAPER name as written (LETTER, A4, LEGAL, ...); empty = none
    std::string orientation;      // PORTRAIT or LANDSCAPE; empty = none
    int resolution = 0;           // PJL RESOLUTION in dpi; 0 = none
    int formLines = 0;            // PJL FORMLINES; 0 = none
    std::string fontSource;       // PJL FONTSOURCE / FONTNUMBER, as written
    int fontNumber = -1;
    double pitch = 0;             // PJL PITCH; 0 = none
    double pointSize = 0;         // PJL PTSIZE; 0 = none
    std::string symbolSet;        // PJL SYMSET; empty = none
};

struct JobContext {
    Device& device;
    Diagnostics& diag;
    const FontLibrary* fonts = nullptr; // null: text is skipped with a warning
    PjlDefaults pjl;
    const RasterOptions* raster = nullptr; // the output's pixel rules; null = the defaults
};

} // namespace qx
