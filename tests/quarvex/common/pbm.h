// Binary PBM files (P4) as ink: Ghostscript's pbmraw pages read for comparison, and pages of
// ours written out to be looked at.
#pragma once

#include "common/ink_score.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace qxtest {

// An empty mask when the file is not a P4 PBM.
inline InkMask readPbm(const std::filesystem::path& path) {
    std::ifstream f(path, std::ios::binary);
    std::string magic;
    int width = 0, height = 0;
    f >> magic >> std::ws;
    while (f.peek() == '#') // Ghostscript names itself in a comment
        f.ignore(1 << 16, '\n');
    f >> width >> height;
    f.get();
    if (magic != "P4" || !f || width <= 0 || height <= 0)
        return {};
    InkMask b(width, height);
    std::vector<uint8_t> row(size_t(width + 7) / 8);
    for (int y = 0; y < height && f.read(reinterpret_cast<char*>(row.data()), long(row.size())); ++y)
        unpackInkBits(row.data(), width, b.row(y));
    return b;
}

inline void writePbm(const InkMask& b, const std::filesystem::path& path) {
    std::ofstream f(path, std::ios::binary);
    f << "P4\n" << b.width << " " << b.height << "\n";
    std::vector<char> row(size_t(b.width + 7) / 8);
    for (int y = 0; y < b.height; ++y) {
        std::fill(row.begin(), row.end(), 0);
        for (int x = 0; x < b.width; ++x)
            if (b.at(x, y))
                row[size_t(x >> 3)] = char(row[size_t(x >> 3)] | (0x80 >> (x & 7)));
        f.write(row.data(), long(row.size()));
    }
}

} // namespace qxtest
