#pragma once
// Lengths and limits shared by the PCL 5 interpreter's files. Internal lengths are in 1/7200 inch.

#include <algorithm>
#include <cmath>

namespace qx::pcl5 {

inline constexpr double kUnitsPerInch = 7200;
inline constexpr double kUnitsPerPoint = 100;
inline constexpr double kDecipoint = 10;
// Values of position commands are kept to what fits on any sheet several times over.
inline constexpr double kMaxPosition = 7200.0 * 200;

inline double clampPos(double v) { return std::clamp(v, -kMaxPosition, kMaxPosition); }

// The device pixel a position on it falls to, as a printer puts a cursor on its dot grid: the
// nearest, halves going down the page and to the right. Positions a rounding error short of a
// half count as the half, so that equal positions snap alike however they were computed.
inline double snapToDot(double v) { return std::floor(v + 0.5 + 1e-6); }

} // namespace qx::pcl5
