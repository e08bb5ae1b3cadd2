#pragma once
// A TrueType font file cut into the pieces a printer driver downloads: the global tables of
// the font header (glyph outlines left out) and one glyph's outline per character.

#include <ft2build.h>
#include FT_FREETYPE_H

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace qx::test {

class TrueTypeSource {
public:
    static void put16(std::vector<uint8_t>& v, uint16_t x) {
        v.push_back(uint8_t(x >> 8));
        v.push_back(uint8_t(x));
    }
    static void put32(std::vector<uint8_t>& v, uint32_t x) {
        put16(v, uint16_t(x >> 16));
        put16(v, uint16_t(x));
    }

    bool load(const std::string& path) {
        m_path = path;
        std::ifstream f(path, std::ios::binary);
        if (!f)
            return false;
        m_file.assign(std::istreambuf_iterator<char>(f), {});
        if (m_file.size() < 12)
            return false;
        const uint16_t n = be16(4);
        for (uint16_t i = 0; i < n; ++i) {
            const size_t rec = 12 + size_t(i) * 16;
            m_tables[std::string(reinterpret_cast<const char*>(&m_file.at(rec)), 4)] = {be32(rec + 8), be32(rec + 12)};
        }
        return m_tables.count("glyf") && m_tables.count("loca") && m_tables.count("head");
    }

    // The global data a driver sends: a table directory of its own with the tables the printer
    // needs (the hinting programs among them), without glyph outlines.
    std::vector<uint8_t> globalData(bool withMetrics) const {
        std::vector<std::string> wanted = {"cvt ", "fpgm", "head", "hhea", "hmtx", "maxp", "prep"};
        if (!withMetrics)
            wanted = {"cvt ", "fpgm", "head", "maxp", "prep"};
        std::vector<std::string> present;
        for (const std::string& t : wanted)
            if (m_tables.count(t))
                present.push_back(t);
        std::vector<uint8_t> out;
        put32(out, 0x00010000);
        put16(out, uint16_t(present.size()));
        put16(out, 0);
        put16(out, 0);
        put16(out, 0);
        const size_t dataAt = 12 + present.size() * 16;
        std::vector<uint8_t> body;
        for (const std::string& t : present) {
            const auto [off, len] = m_tables.at(t);
            out.insert(out.end(), t.begin(), t.end());
            put32(out, 0);
            put32(out, uint32_t(dataAt + body.size()));
            put32(out, len);
            body.insert(body.end(), m_file.begin() + off, m_file.begin() + off + len);
            while (body.size() % 4)
                body.push_back(0);
        }
        out.insert(out.end(), body.begin(), body.end());
        return out;
    }

    // A PCL XL font header (format 0, TrueType, symbol set 19U) for charCount characters, with
    // the global data in its GT segment.
    std::vector<uint8_t> pclxlFontHeader(bool withMetrics, uint16_t charCount) const {
        std::vector<uint8_t> header = {0, 0, 0x02, 0x75, 1, 0};
        put16(header, charCount);
        const std::vector<uint8_t> gt = globalData(withMetrics);
        header.push_back('G');
        header.push_back('T');
        put32(header, uint32_t(gt.size()));
        header.insert(header.end(), gt.begin(), gt.end());
        header.insert(header.end(), {0xFF, 0xFF, 0, 0, 0, 0});
        return header;
    }

    // Advance width and left side bearing of a glyph.
    std::pair<uint16_t, int16_t> metrics(uint16_t id) const {
        const uint16_t count = be16(m_tables.at("hhea").first + 34);
        const uint32_t hmtx = m_tables.at("hmtx").first;
        const uint16_t advance = be16(hmtx + size_t(std::min<uint16_t>(id, uint16_t(count - 1))) * 4);
        const int16_t lsb = int16_t(id < count ? be16(hmtx + size_t(id) * 4 + 2)
                                               : be16(hmtx + size_t(count) * 4 + size_t(id - count) * 2));
        return {advance, lsb};
    }

    std::vector<uint8_t> glyph(uint16_t id) const {
        const bool longLoca = be16(m_tables.at("head").first + 50) == 1;
        const uint32_t loca = m_tables.at("loca").first, glyf = m_tables.at("glyf").first;
        uint32_t a, b;
        if (longLoca) {
            a = be32(loca + size_t(id) * 4);
            b = be32(loca + size_t(id) * 4 + 4);
        } else {
            a = uint32_t(be16(loca + size_t(id) * 2)) * 2;
            b = uint32_t(be16(loca + size_t(id) * 2 + 2)) * 2;
        }
        return std::vector<uint8_t>(m_file.begin() + glyf + a, m_file.begin() + glyf + b);
    }

    uint16_t unitsPerEm() const { return be16(m_tables.at("head").first + 18); }

    // The glyph index of a character, through the font's own character map; 0 when it has none.
    uint16_t glyphIndex(char32_t c) const {
        FT_Library lib;
        if (FT_Init_FreeType(&lib) != 0)
            return 0;
        FT_Face face;
        uint16_t id = 0;
        if (FT_New_Face(lib, m_path.c_str(), 0, &face) == 0) {
            id = uint16_t(FT_Get_Char_Index(face, c));
            FT_Done_Face(face);
        }
        FT_Done_FreeType(lib);
        return id;
    }

    // A composite glyph's data refers to its components by glyph index.
    bool composite(uint16_t id) const {
        const std::vector<uint8_t> g = glyph(id);
        return g.size() >= 2 && int16_t(g[0] << 8 | g[1]) < 0;
    }

private:
    uint16_t be16(size_t at) const { return uint16_t(m_file.at(at) << 8 | m_file.at(at + 1)); }
    uint32_t be32(size_t at) const {
        return uint32_t(m_file.at(at)) << 24 | uint32_t(m_file.at(at + 1)) << 16 | uint32_t(m_file.at(at + 2)) << 8 |
               m_file.at(at + 3);
    }

    std::string m_path;
    std::vector<uint8_t> m_file;
    std::map<std::string, std::pair<uint32_t, uint32_t>> m_tables; // offset, length
};

} // namespace qx::test
