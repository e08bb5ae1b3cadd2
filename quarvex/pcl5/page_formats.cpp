#include "pcl5/page_formats.h"

#include <cctype>
#include <string>

namespace qx::pcl5 {
namespace {

constexpr double mm(double v) { return v * 72.0 / 25.4; }

constexpr PaperSize kPapers[] = {
    {1, "EXECUTIVE", 522, 756, false},
    {2, "LETTER", 612, 792, false},
    {3, "LEGAL", 612, 1008, false},
    {6, "LEDGER", 792, 1224, false},
    {11, "TABLOID", 792, 1224, false},
    {25, "A5", mm(148), mm(210), true},
    {26, "A4", mm(210), mm(297), true},
    {27, "A3", mm(297), mm(420), true},
    {45, "JISB5", mm(182), mm(257), true},
    {46, "JISB4", mm(257), mm(364), true},
    {65, "B5", mm(176), mm(250), true},
    {71, "JPOST", mm(100), mm(148), true},
    {72, "JPOSTD", mm(148), mm(200), true},
    {80, "MONARCH", 279, 540, false},
    {81, "COM10", 297, 684, false},
    {90, "DL", mm(110), mm(220), true},
    {91, "C5", mm(162), mm(229), true},
    {100, "B5ENV", mm(176), mm(250), true},
    {101, "CUSTOM", 612, 792, false},
};

} // namespace

std::optional<PaperSize> paperByCode(int code) {
    for (const PaperSize& p : kPapers)
        if (p.code == code)
            return p;
    return std::nullopt;
}

std::optional<PaperSize> paperByName(std::string_view name) {
    std::string upper;
    for (char c : name)
        if (!std::isspace(static_cast<unsigned char>(c)))
            upper += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (upper == "B5JIS")
        upper = "JISB5";
    if (upper == "ENVELOPE10" || upper == "COM-10")
        upper = "COM10";
    for (const PaperSize& p : kPapers)
        if (upper == p.name)
            return p;
    return std::nullopt;
}

double logicalPageOffset(const PaperSize& paper, bool landscape) {
    // HP's logical page tables: on the inch sizes the logical page starts 75 dots (300 dpi) in
    // from the sheet's left edge in portrait and 60 in landscape; on the metric sizes 71 and 59.
    // The logical page is centred: the same distance is left on the right.
    constexpr double kDot = 24; // a 300 dpi dot in 1/7200 inch
    if (paper.metric)
        return (landscape ? 59 : 71) * kDot;
    return (landscape ? 60 : 75) * kDot;
}

} // namespace qx::pcl5
