#include "fonts/hp_metrics.h"

#include <algorithm>
#include <cstdint>

namespace qx {
namespace {

struct HpWidth {
    char32_t unicode;
    uint16_t width;
};

struct HpFont {
    int typeface;
    bool bold;
    bool italic;
    const HpWidth* widths;
    int count;
};

#include "fonts/hp_metrics.inc"

} // namespace

double hpAdvance(int typeface, bool bold, bool italic, char32_t unicode) {
    for (const HpFont& f : kHpFonts) {
        if (f.typeface != typeface || f.bold != bold || f.italic != italic)
            continue;
        const HpWidth* end = f.widths + f.count;
        const HpWidth* it = std::lower_bound(f.widths, end, unicode,
                                             [](const HpWidth& w, char32_t u) { return w.unicode < u; });
        return it != end && it->unicode == unicode ? it->width / kHpUnitsPerEm : 0;
    }
    return 0;
}

} // namespace qx
