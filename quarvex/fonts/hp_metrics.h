#pragma once
// The advance widths of the LaserJet's resident proportional typefaces, as HP's font metrics
// give them. Drivers lay text out with these widths and move the cursor between words by
// relative amounts, so the engine advances by them and draws with the face that stands in.

namespace qx {

// The advance of a character in ems for a resident typeface (PCL typeface number, bold, italic);
// 0 when the metrics do not know the typeface or the character.
double hpAdvance(int typeface, bool bold, bool italic, char32_t unicode);

} // namespace qx
