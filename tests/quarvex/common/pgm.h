// Reads the 8-bit binary PGM pages that Ghostscript's pgmraw device writes, for the tests that
// compare the engine's pages with Ghostscript's rendering of the same document.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace qxtest {

struct GreyPage {
    int width = 0, height = 0;
    std::vector<uint8_t> pixels; // rows top to bottom, 0 = black
};

// An empty page when the file is not an 8-bit binary PGM of a sensible size.
inline GreyPage readPgm(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    // The header's fields, skipping comment lines (Ghostscript writes one).
    auto field = [&] {
        std::string token;
        while (in >> token && token[0] == '#')
            in.ignore(1 << 20, '\n');
        return token;
    };
    GreyPage g;
    const std::string magic = field();
    g.width = std::atoi(field().c_str());
    g.height = std::atoi(field().c_str());
    const int maxval = std::atoi(field().c_str());
    in.get();
    if (g.width <= 0 || g.height <= 0 || g.width > 20000 || g.height > 20000)
        return GreyPage{};
    g.pixels.resize(size_t(g.width) * size_t(g.height));
    in.read(reinterpret_cast<char*>(g.pixels.data()), std::streamsize(g.pixels.size()));
    if (magic != "P5" || maxval != 255 || !in)
        g = GreyPage{};
    return g;
}

} // namespace qxtest
