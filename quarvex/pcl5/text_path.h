#pragma once
// The vertical rotated text path (ESC&c-1T): full-width characters are set on their sides,
// turned a quarter turn counterclockwise in their cell, and characters that look different in
// vertical writing (ideographic punctuation, brackets) are replaced by their vertical forms.
// Every other character prints as on the horizontal path, and the cursor still advances along
// the print direction: with ESC&a270P the text then runs down the page as vertical writing.

#include "render/device.h"

namespace qx::pcl5 {

// Whether a character takes a full (square) cell: ideographs, kana, hangul and the full-width
// forms.
bool isFullWidth(char32_t uc);

// The vertical form of a character that has one, else the character itself.
char32_t verticalSubstitute(char32_t uc);

// Where a character set on its side goes: from the upright glyph's coordinates (origin on the
// baseline at the pen, x along the text, y down, in the units of `em`) to the same coordinates
// with the glyph turned a quarter turn counterclockwise about the centre of its cell, `advance`
// wide and spanning the ideographic em box (0.88 em above the baseline, 0.12 em below).
Matrix sidewaysInCell(double advance, double em);

} // namespace qx::pcl5
