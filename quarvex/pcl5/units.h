#pragma once
// Lengths and limits shared by the PCL 5 interpreter's files. Internal lengths are in 1/7200 inch.

#include <algorithm>

namespace qx::pcl5 {

inline constexpr double kUnitsPerInch = 7200;
inline constexpr double kUnitsPerPoint = 100;
inline constexpr double kDecipoint = 10;
// Values of position commands are kept to what fits on any sheet several times over.
inline constexpr double kMaxPosition = 7200.0 * 200;

inline double clampPos(double v) { return std::clamp(v, -kMaxPosition, kMaxPosition); }

} // namespace qx::pcl5
