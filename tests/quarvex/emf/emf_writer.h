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
    // EXTTEXTOUTW or POLYTEXTOUTW's EmrText objects: each string at its reference point, with
    // its options, and its advances (pairs of advance and rise with ETO_PDY) when given.
    struct TextItem {
        int x = 0, y = 0;
        std::u16string chars;        // characters, or glyph numbers with ETO_GLYPH_INDEX
        uint32_t options = 0x100;    // ETO_NO_RECT unless told
        std::vector<int32_t> dx;     // empty: none
    };
    EmfWriter& textItems(uint32_t type, const std::vector<TextItem>& items, uint32_t graphicsMode = 1) {
        Buffer b;
        for (int v : {0, 0, 0, 0})
            put32(b, uint32_t(v)); // bounds
        put32(b, graphicsMode);
        put32(b, 0);
        put32(b, 0); // scales
        if (type == 97)
            put32(b, uint32_t(items.size()));
        // The EmrText objects first, then each one's characters and advances.
        size_t fixed = 8 + b.size();
        for (const TextItem& t : items)
            fixed += (t.options & 0x100) ? 24 : 40;
        size_t extra = fixed;
        Buffer tail;
        for (const TextItem& t : items) {
            const size_t offString = extra;
            for (char16_t c : t.chars)
                put16(tail, uint16_t(c));
            while (tail.size() % 4)
                tail.push_back(0);
            const size_t offDx = t.dx.empty() ? 0 : fixed + tail.size();
            for (int32_t d : t.dx)
                put32(tail, uint32_t(d));
            extra = fixed + tail.size();
            put32(b, uint32_t(t.x));
            put32(b, uint32_t(t.y));
            put32(b, uint32_t(t.chars.size()));
            put32(b, uint32_t(offString));
            put32(b, t.options);
            if (!(t.options & 0x100))
                for (int v : {0, 0, 0, 0})
                    put32(b, uint32_t(v));
            put32(b, uint32_t(offDx));
        }
        b.insert(b.end(), tail.begin(), tail.end());
        return raw(type, b);
    }
    // An EMFSPOOL comment holding font definition records (each a whole spool record).
    EmfWriter& fontComment(const Buffer& records) {
        Buffer b;
        put32(b, uint32_t(records.size() + 8)); // DataSize: identifier, signature, records
        put32(b, 0);                            // EMR_COMMENT_EMFSPOOL
        put32(b, 0x544F4E46);                   // font definitions
        b.insert(b.end(), records.begin(), records.end());
        return raw(70, b);
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

// A spool record: type, length, data, padding to 4 bytes.
inline Buffer spoolRecord(uint32_t type, const Buffer& body) {
    Buffer out;
    put32(out, type);
    put32(out, uint32_t(body.size()));
    out.insert(out.end(), body.begin(), body.end());
    while (out.size() % 4)
        out.push_back(0);
    return out;
}

// EMRI_ENGINE_FONT's data: TrueType, the file count and sizes, padding to 8 bytes, the files.
inline Buffer engineFont(const std::vector<Buffer>& files) {
    Buffer b;
    put32(b, 0);
    put32(b, uint32_t(files.size()));
    for (const Buffer& f : files)
        put32(b, uint32_t(f.size()));
    while ((b.size() + 8) % 8)
        b.push_back(0);
    for (const Buffer& f : files)
        b.insert(b.end(), f.begin(), f.end());
    return b;
}

// EMRI_SUBSET_FONT's or EMRI_DELTA_FONT's data: the UniversalFontId, then the font.
inline Buffer subsetFont(uint32_t checksum, uint32_t index, const Buffer& font) {
    Buffer b;
    put32(b, checksum);
    put32(b, index);
    b.insert(b.end(), font.begin(), font.end());
    while (b.size() % 4)
        b.push_back(0);
    return b;
}

// A spool file record by record: the header, then records; a page is its content record
// (EMRI_METAFILE_DATA) and, when closed, its page offset record (EMRI_METAFILE_EXT).
class SpoolWriter {
public:
    SpoolWriter() {
        put32(m_out, 0x10000);
        put32(m_out, 20);
        put32(m_out, 16);
        put32(m_out, 0);
        put16(m_out, 'D');
        put16(m_out, 0);
    }
    SpoolWriter& record(uint32_t type, const Buffer& body) {
        const Buffer r = spoolRecord(type, body);
        m_out.insert(m_out.end(), r.begin(), r.end());
        return *this;
    }
    SpoolWriter& openPage(const Buffer& emf) {
        m_pageStart = m_out.size();
        return record(12, emf);
    }
    SpoolWriter& closePage() {
        Buffer ext;
        const uint64_t back = m_out.size() - m_pageStart;
        put32(ext, uint32_t(back));
        put32(ext, uint32_t(back >> 32));
        return record(13, ext);
    }
    SpoolWriter& page(const Buffer& emf) { return openPage(emf).closePage(); }
    // A font offset record (EMRI_ENGINE_FONT_EXT and its kind) pointing back at byte at.
    SpoolWriter& offsetRecord(uint32_t type, size_t at) {
        Buffer ext;
        const uint64_t back = m_out.size() - at;
        put32(ext, uint32_t(back));
        put32(ext, uint32_t(back >> 32));
        return record(type, ext);
    }
    size_t size() const { return m_out.size(); }
    Buffer finish() const { return m_out; }

private:
    Buffer m_out;
    size_t m_pageStart = 0;
};

// A spool file: header, an optional devmode, then each page as EMRI_METAFILE_DATA followed by
// its EMRI_METAFILE_EXT.
inline Buffer makeSpool(const std::vector<Buffer>& pages, const Buffer* devmode = nullptr) {
    SpoolWriter w;
    if (devmode)
        w.record(3, *devmode);
    for (const Buffer& p : pages)
        w.page(p);
    return w.finish();
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
