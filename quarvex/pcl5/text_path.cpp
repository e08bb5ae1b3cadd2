#include "pcl5/text_path.h"

#include <algorithm>
#include <array>
#include <utility>

namespace qx::pcl5 {

bool isFullWidth(char32_t uc) {
    static constexpr std::pair<char32_t, char32_t> kRanges[] = {
        {0x1100, 0x115F},   // hangul leading consonants
        {0x2E80, 0x303E},   // CJK radicals, ideographic description, CJK symbols and punctuation
        {0x3041, 0x33FF},   // hiragana, katakana, bopomofo, compatibility jamo, CJK compatibility
        {0x3400, 0x4DBF},   // CJK extension A
        {0x4E00, 0x9FFF},   // CJK unified ideographs
        {0xA000, 0xA4CF},   // Yi
        {0xAC00, 0xD7A3},   // hangul syllables
        {0xF900, 0xFAFF},   // CJK compatibility ideographs
        {0xFE10, 0xFE19},   // vertical forms
        {0xFE30, 0xFE4F},   // CJK compatibility forms
        {0xFF01, 0xFF60},   // full-width ASCII forms
        {0xFFE0, 0xFFE6},   // full-width signs
        {0x20000, 0x2FFFD}, // CJK extensions B and later
        {0x30000, 0x3FFFD},
    };
    return std::any_of(std::begin(kRanges), std::end(kRanges),
                       [uc](const auto& r) { return uc >= r.first && uc <= r.second; });
}

char32_t verticalSubstitute(char32_t uc) {
    // Unicode's vertical presentation forms for the characters that turn or move in vertical
    // writing.
    static constexpr std::array<std::pair<char32_t, char32_t>, 27> kForms = {{
        {0x2014, 0xFE31}, {0x2025, 0xFE30}, {0x2026, 0xFE19}, {0x3001, 0xFE11}, {0x3002, 0xFE12},
        {0x3008, 0xFE3F}, {0x3009, 0xFE40}, {0x300A, 0xFE3D}, {0x300B, 0xFE3E}, {0x300C, 0xFE41},
        {0x300D, 0xFE42}, {0x300E, 0xFE43}, {0x300F, 0xFE44}, {0x3010, 0xFE3B}, {0x3011, 0xFE3C},
        {0x3014, 0xFE39}, {0x3015, 0xFE3A}, {0x3016, 0xFE17}, {0x3017, 0xFE18}, {0xFF08, 0xFE35},
        {0xFF09, 0xFE36}, {0xFF0C, 0xFE10}, {0xFF1A, 0xFE13}, {0xFF1B, 0xFE14}, {0xFF3F, 0xFE33},
        {0xFF5B, 0xFE37}, {0xFF5D, 0xFE38},
    }};
    for (const auto& [from, to] : kForms)
        if (from == uc)
            return to;
    return uc;
}

Matrix sidewaysInCell(double advance, double em) {
    const double cx = advance / 2, cy = -0.38 * em; // the cell's centre from the pen
    const Matrix quarterTurn{0, -1, 1, 0, 0, 0};   // x along the text turns to up the page
    return Matrix::translate(cx, cy) * quarterTurn * Matrix::translate(-cx, -cy);
}

} // namespace qx::pcl5
