#pragma once
// Paper sizes of ESC&l#A and PJL PAPER, with the printer's logical page offsets.

#include <optional>
#include <string_view>

namespace qx::pcl5 {

struct PaperSize {
    int code;             // ESC&l#A value
    const char* name;     // PJL PAPER name
    double widthPt;       // portrait sheet
    double heightPt;
    bool metric;          // a metric size (millimetres)
};

// ESC&l#A's custom size: its width and length come from ESC&f#I and ESC&f#J.
constexpr int kCustomPaperCode = 101;

// The size for an ESC&l#A code; nullopt when the printer does not know the code.
std::optional<PaperSize> paperByCode(int code);
// The size for a PJL PAPER name (LETTER, A4, ...); nullopt when unknown.
std::optional<PaperSize> paperByName(std::string_view name);

// The distance, in 1/7200 inch, from the sheet's left edge to the logical page's left edge, for
// portrait (orientation 0/2) or landscape (1/3).
double logicalPageOffset(const PaperSize& paper, bool landscape);

} // namespace qx::pcl5
