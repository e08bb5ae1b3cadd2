#include "pcl5/patterns.h"

#include <algorithm>

namespace qx::pcl5 {
namespace {

// Bayer ordered-dither thresholds, 0..63.
constexpr int kBayer8[8][8] = {
    {0, 32, 8, 40, 2, 34, 10, 42},  {48, 16, 56, 24, 50, 18, 58, 26},
    {12, 44, 4, 36, 14, 46, 6, 38}, {60, 28, 52, 20, 62, 30, 54, 22},
    {3, 35, 11, 43, 1, 33, 9, 41},  {51, 19, 59, 27, 49, 17, 57, 25},
    {15, 47, 7, 39, 13, 45, 5, 37}, {63, 31, 55, 23, 61, 29, 53, 21},
};

} // namespace

double patternPixelUnits(double dpi, double designDpi) {
    const double design = 7200 / (designDpi > 0 ? designDpi : 300);
    if (dpi <= 0)
        return design;
    return std::max(design, 7200 / dpi);
}

std::shared_ptr<PatternTile> shadingTile(int percent) {
    // Printers have eight levels; a percentage selects the level whose range holds it.
    percent = std::clamp(percent, 0, 100);
    int level; // ink coverage of the level, in 64ths
    if (percent == 0)
        level = 0;
    else if (percent <= 2)
        level = 1;
    else if (percent <= 10)
        level = 6;
    else if (percent <= 20)
        level = 10;
    else if (percent <= 35)
        level = 19;
    else if (percent <= 55)
        level = 29;
    else if (percent <= 80)
        level = 45;
    else if (percent <= 99)
        level = 58;
    else
        level = 64;
    auto tile = std::make_shared<PatternTile>();
    tile->width = 8;
    tile->height = 8;
    tile->pixels.resize(64);
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 8; ++x)
            tile->pixels[static_cast<size_t>(y * 8 + x)] = kBayer8[y][x] < level ? Rgb::black() : Rgb::white();
    return tile;
}

std::shared_ptr<PatternTile> crossHatchTile(int id, int spacing, int width) {
    auto tile = std::make_shared<PatternTile>();
    const int n = std::max(2, spacing);
    width = std::clamp(width, 1, n - 1);
    tile->width = n;
    tile->height = n;
    tile->pixels.assign(static_cast<size_t>(n * n), Rgb::white());
    const auto ink = [&](int x, int y) {
        tile->pixels[static_cast<size_t>(((y % n + n) % n) * n + ((x % n + n) % n))] = Rgb::black();
    };
    for (int i = 0; i < n; ++i)
        for (int k = 0; k < width; ++k) {
            const bool horizontal = id == 1 || id == 5, vertical = id == 2 || id == 5;
            const bool up = id == 3 || id == 6, down = id == 4 || id == 6;
            if (horizontal)
                ink(i, k);
            if (vertical)
                ink(k, i);
            if (up)
                ink(i + k, n - 1 - i); // diagonal up to the right
            if (down)
                ink(i + k, i);         // diagonal down to the right
        }
    return tile;
}

} // namespace qx::pcl5
