#pragma once
// Builds small EMF metafiles and EMF spool files in memory for tests, record by record, in the
// published layouts (little-endian, every record a multiple of 4 bytes).

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace qx::emf::test {

using Buffer = std::vector<uint8_t>;

inline void put32(Buffer& b, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        b.push_back(uint8_t(v >> (8 * i)));
}
inline void put16(Buffer& b, uint16_t v) {
    b.push_back(uint8_t(v));
    b.push_back(uint8_t(v >> 8));
}
inline void set32(Buffer& b, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        b[at + size_t(i)] = uint8_t(v >> (8 * i));
}

class EmfWriter {
public:
    // A header for a page of widthMm x heightMm whose reference device has pxPerMm pixels a
    // millimetre (MM_TEXT logical units are those pixels).
    EmfWriter(int widthMm = 216, int heightMm = 279, int pxPerMm = 4) {
        Buffer h;
        put32(h, 1);
        put32(h, 108);
        for (int v : {0, 0, widthMm * pxPerMm - 1, heightMm * pxPerMm - 1})
            put32(h, uint32_t(v)); // bounds
        for (int v : {0, 0, widthMm * 100 - 1, heightMm * 100 - 1})
            put32(h, uint32_t(v)); // frame
        put32(h, 0x464D4520);
        put32(h, 0x10000);
        put32(h, 0); // bytes, patched in finish()
        put32(h, 0); // records
        put16(h, 16);
        put16(h, 0);
        put32(h, 0);
        put32(h, 0);
        put32(h, 0);
        put32(h, uint32_t(widthMm * pxPerMm));
        put32(h, uint32_t(heightMm * pxPerMm));
        put32(h, uint32_t(widthMm));
        put32(h, uint32_t(heightMm));
        put32(h, 0);
        put32(h, 0);
        put32(h, 0);
        put32(h, uint32_t(widthMm * 1000));
        put32(h, uint32_t(heightMm * 1000));
        m_data = h;
        m_records = 1;
    }

    // A record of 32-bit fields.
    EmfWriter& rec(uint32_t type, std::initializer_list<int64_t> fields) {
        Buffer b;
        for (int64_t f : fields)
            put32(b, uint32_t(f));
        return raw(type, b);
    }
    // A record with a raw body (padded to 4 bytes).
    EmfWriter& raw(uint32_t type, Buffer body) {
        while (body.size() % 4)
            body.push_back(0);
        put32(m_data, type);
        put32(m_data, uint32_t(body.size() + 8));
        m_data.insert(m_data.end(), body.begin(), body.end());
        ++m_records;
        return *this;
    }
    // EXTTEXTOUTW at (x, y) with no Dx array.
    EmfWriter& text(int x, int y, const std::u16string& s) {
        Buffer b;
        for (int v : {0, 0, 0, 0})
            put32(b, uint32_t(v)); // bounds
        put32(b, 1);               // GM_COMPATIBLE
        put32(b, 0);
        put32(b, 0);               // scales
        put32(b, uint32_t(x));
        put32(b, uint32_t(y));
        put32(b, uint32_t(s.size()));
        put32(b, 76);              // offString from the record's start
        put32(b, 0);               // options
        for (int v : {0, 0, 0, 0})
            put32(b, uint32_t(v)); // rectangle
        put32(b, 0);               // offDx: none
        for (char16_t c : s)
            put16(b, uint16_t(c));
        return raw(84, b);
    }
    // EXTCREATEFONTINDIRECTW with a LOGFONTW of the given height and face.
    EmfWriter& font(uint32_t handle, int height, const std::u16string& face, int weight = 400, int escapement = 0) {
        Buffer b;
        put32(b, handle);
        put32(b, uint32_t(height));
        put32(b, 0);
        put32(b, uint32_t(escapement));
        put32(b, uint32_t(escapement));
        put32(b, uint32_t(weight));
        for (int i = 0; i < 8; ++i)
            b.push_back(0);
        for (size_t i = 0; i < 32; ++i)
            put16(b, i < face.size() ? uint16_t(face[i]) : 0);
        return raw(82, b);
    }

    Buffer finish() {
        Buffer out = m_data;
        put32(out, 14); // EMR_EOF
        put32(out, 20);
        put32(out, 0);
        put32(out, 0x10);
        put32(out, 20);
        set32(out, 48, uint32_t(out.size()));
        set32(out, 52, m_records + 1);
        return out;
    }

private:
    Buffer m_data;
    uint32_t m_records = 0;
};

// A spool file: header, an optional devmode, then each page as EMRI_METAFILE_DATA followed by
// its EMRI_METAFILE_EXT.
inline Buffer makeSpool(const std::vector<Buffer>& pages, const Buffer* devmode = nullptr) {
    Buffer out;
    put32(out, 0x10000);
    put32(out, 20);
    put32(out, 16);
    put32(out, 0);
    put16(out, 'D');
    put16(out, 0);
    auto record = [&](uint32_t type, const Buffer& body) {
        put32(out, type);
        put32(out, uint32_t(body.size()));
        out.insert(out.end(), body.begin(), body.end());
        while (out.size() % 4)
            out.push_back(0);
    };
    if (devmode)
        record(3, *devmode);
    for (const Buffer& p : pages) {
        const size_t start = out.size();
        record(12, p);
        Buffer ext;
        const uint64_t back = out.size() - start;
        put32(ext, uint32_t(back));
        put32(ext, uint32_t(back >> 32));
        record(13, ext);
    }
    return out;
}

// A DEVMODEW naming a paper number and orientation (1 portrait, 2 landscape).
inline Buffer makeDevMode(int paper, int orientation) {
    Buffer dm(220, 0);
    set32(dm, 72, 0x3); // DM_ORIENTATION | DM_PAPERSIZE
    dm[76] = uint8_t(orientation);
    dm[78] = uint8_t(paper);
    return dm;
}

} // namespace qx::emf::test
