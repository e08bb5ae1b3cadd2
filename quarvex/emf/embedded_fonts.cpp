#include "emf/embedded_fonts.h"

#include "emf/spool.h"

#include <algorithm>
#include <cctype>
#include <map>

namespace qx::emf {

namespace {

std::string lower(std::string s) {
    for (char& c : s)
        c = char(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

uint32_t be32(Bytes b, size_t o) {
    return b.has(o, 4) ? uint32_t(b.data[o]) << 24 | uint32_t(b.data[o + 1]) << 16 | uint32_t(b.data[o + 2]) << 8 |
                             uint32_t(b.data[o + 3])
                       : 0;
}
uint16_t be16(Bytes b, size_t o) { return b.has(o, 2) ? uint16_t(b.data[o] << 8 | b.data[o + 1]) : 0; }

void putBe32(std::vector<uint8_t>& v, uint32_t x) {
    for (int s = 24; s >= 0; s -= 8)
        v.push_back(uint8_t(x >> s));
}
void putBe16(std::vector<uint8_t>& v, uint16_t x) {
    v.push_back(uint8_t(x >> 8));
    v.push_back(uint8_t(x));
}
void setBe32(std::vector<uint8_t>& v, size_t at, uint32_t x) {
    for (int i = 0; i < 4; ++i)
        v[at + size_t(i)] = uint8_t(x >> (24 - 8 * i));
}

constexpr uint32_t tag(const char (&t)[5]) {
    return uint32_t(uint8_t(t[0])) << 24 | uint32_t(uint8_t(t[1])) << 16 | uint32_t(uint8_t(t[2])) << 8 |
           uint32_t(uint8_t(t[3]));
}

// Whether data starts like a TrueType or OpenType font (or a collection of them).
bool looksLikeFont(Bytes b) {
    const uint32_t v = be32(b, 0);
    return b.size >= 12 && (v == 0x00010000 || v == tag("true") || v == tag("OTTO") || v == tag("ttcf"));
}

// The tables of an sfnt, by tag; each checked to lie inside the data.
struct Sfnt {
    std::map<uint32_t, Bytes> tables;
    bool read(Bytes b) {
        const uint32_t v = be32(b, 0);
        if (b.size < 12 || (v != 0x00010000 && v != tag("true")))
            return false;
        const size_t n = be16(b, 4);
        if (!b.has(12, n * 16))
            return false;
        for (size_t i = 0; i < n; ++i) {
            const size_t at = 12 + i * 16;
            const uint32_t offset = be32(b, at + 8), length = be32(b, at + 12);
            if (!b.has(offset, length))
                return false;
            tables[be32(b, at)] = b.sub(offset, length);
        }
        return true;
    }
    Bytes table(uint32_t t) const {
        auto it = tables.find(t);
        return it == tables.end() ? Bytes{} : it->second;
    }
};

// Glyph i's bytes in glyf, by loca; empty when out of range.
struct Glyphs {
    Bytes glyf, loca;
    bool longOffsets = false;
    size_t count = 0;
    bool read(const Sfnt& f) {
        const Bytes head = f.table(tag("head")), maxp = f.table(tag("maxp"));
        glyf = f.table(tag("glyf"));
        loca = f.table(tag("loca"));
        if (!head.has(50, 2) || !maxp.has(4, 2) || !loca.data || !glyf.data)
            return false;
        longOffsets = be16(head, 50) != 0;
        count = be16(maxp, 4);
        // The offsets there are limit the glyphs there are.
        const size_t slots = loca.size / (longOffsets ? 4 : 2);
        count = std::min(count, slots > 0 ? slots - 1 : 0);
        return true;
    }
    Bytes glyph(size_t i) const {
        if (i >= count)
            return {};
        const size_t a = longOffsets ? be32(loca, i * 4) : size_t(be16(loca, i * 2)) * 2;
        const size_t b = longOffsets ? be32(loca, i * 4 + 4) : size_t(be16(loca, i * 2 + 2)) * 2;
        return b > a ? glyf.sub(a, b - a) : Bytes{};
    }
};

uint32_t tableChecksum(const std::vector<uint8_t>& v, size_t at, size_t length) {
    uint32_t sum = 0;
    for (size_t i = 0; i < length; i += 4) {
        uint32_t word = 0;
        for (size_t k = 0; k < 4; ++k)
            word = word << 8 | (i + k < length ? v[at + i + k] : 0);
        sum += word;
    }
    return sum;
}

} // namespace

struct EmbeddedFonts::Entry {
    std::unique_ptr<FileFace> face;
    std::string family; // lower case
    bool subset = false;
    uint64_t ufi = 0;
    std::vector<uint8_t> data; // kept for subsets, which deltas merge into
};

EmbeddedFonts::EmbeddedFonts() = default;
EmbeddedFonts::~EmbeddedFonts() = default;

size_t EmbeddedFonts::count() const { return m_entries.size(); }

std::vector<uint8_t> EmbeddedFonts::mergeDelta(Bytes subsetData, Bytes deltaData) {
    Sfnt base, delta;
    Glyphs bg, dg;
    if (!base.read(subsetData) || !delta.read(deltaData) || !bg.read(base) || !dg.read(delta))
        return {};
    const size_t count = std::max(bg.count, dg.count);
    // The new glyph table, each glyph on a 4-byte boundary, and its long offsets.
    std::vector<uint8_t> glyf, loca;
    for (size_t i = 0; i < count; ++i) {
        putBe32(loca, uint32_t(glyf.size()));
        const Bytes d = dg.glyph(i);
        const Bytes g = d.size > 0 ? d : bg.glyph(i);
        glyf.insert(glyf.end(), g.data, g.data + g.size);
        while (glyf.size() % 4)
            glyf.push_back(0);
    }
    putBe32(loca, uint32_t(glyf.size()));

    std::map<uint32_t, std::vector<uint8_t>> tables;
    for (const auto& [t, b] : base.tables)
        tables[t].assign(b.data, b.data + b.size);
    tables[tag("glyf")] = std::move(glyf);
    tables[tag("loca")] = std::move(loca);
    std::vector<uint8_t>& head = tables[tag("head")];
    head[50] = 0, head[51] = 1; // long offsets
    setBe32(head, 8, 0);        // the whole-font checksum is not kept up
    std::vector<uint8_t>& maxp = tables[tag("maxp")];
    maxp[4] = uint8_t(count >> 8), maxp[5] = uint8_t(count);

    // Table directory, then the tables in tag order, each padded to 4 bytes.
    std::vector<uint8_t> out;
    const uint16_t n = uint16_t(tables.size());
    uint16_t pow = 1, log = 0;
    while (pow * 2 <= n)
        pow = uint16_t(pow * 2), ++log;
    putBe32(out, 0x00010000);
    putBe16(out, n);
    putBe16(out, uint16_t(pow * 16));
    putBe16(out, log);
    putBe16(out, uint16_t(n * 16 - pow * 16));
    const size_t directory = out.size();
    out.resize(directory + size_t(n) * 16);
    size_t i = 0;
    for (const auto& [t, body] : tables) {
        const size_t at = out.size();
        out.insert(out.end(), body.begin(), body.end());
        while (out.size() % 4)
            out.push_back(0);
        const size_t e = directory + i * 16;
        setBe32(out, e, t);
        setBe32(out, e + 4, tableChecksum(out, at, body.size()));
        setBe32(out, e + 8, uint32_t(at));
        setBe32(out, e + 12, uint32_t(body.size()));
        ++i;
    }
    return out;
}

std::string EmbeddedFonts::keep(std::vector<uint8_t> data, bool subset, uint64_t ufi) {
    // Twice: FreeType's copy and the character map's.
    const size_t cost = data.size() * (subset ? 3 : 2);
    if (cost > kMaxFontBytes - m_bytes)
        return "embedded fonts too large in all; the rest are not used";
    auto e = std::make_unique<Entry>();
    e->face = FileFace::fromData(data);
    if (!e->face)
        return "an embedded font that is no TrueType font is not used";
    m_bytes += cost;
    e->family = lower(e->face->family());
    e->subset = subset;
    e->ufi = ufi;
    if (subset)
        e->data = std::move(data);
    m_entries.push_back(std::move(e));
    return "";
}

std::string EmbeddedFonts::add(uint32_t type, Bytes body) {
    if (body.data && !m_seen.insert(body.data).second)
        return "";
    switch (type) {
    case EMRI_ENGINE_FONT: {
        // Type1ID (0 for TrueType), NumFiles, the file sizes, padding to 8 bytes, the files.
        const uint64_t files = body.u32(4);
        if (files == 0 || !body.has(8, files * 4))
            return "an embedded font record whose file count does not fit it is not used";
        uint64_t total = 0;
        for (uint64_t i = 0; i < files; ++i)
            total += body.u32(8 + i * 4);
        const size_t sizesEnd = 8 + size_t(files) * 4;
        // The files start on an 8-byte boundary; writers that leave the padding out are read too.
        size_t start = (sizesEnd + 7) & ~size_t(7);
        if (!body.has(start, total) || !looksLikeFont(body.sub(start, body.size - start)))
            start = sizesEnd;
        if (!body.has(start, total))
            return "an embedded font record whose files run past its end is not used";
        std::string problem;
        size_t at = start;
        for (uint64_t i = 0; i < files; ++i) {
            const size_t size = body.u32(8 + i * 4);
            const Bytes file = body.sub(at, size);
            at += size;
            const std::string p = keep(std::vector<uint8_t>(file.data, file.data + file.size), false, 0);
            if (problem.empty())
                problem = p;
        }
        return problem;
    }
    case EMRI_SUBSET_FONT:
    case EMRI_DELTA_FONT: {
        // UniversalFontId (checksum, index), then the font data.
        if (body.size < 8 + 12)
            return "an embedded font record too short for its font is not used";
        const uint64_t ufi = uint64_t(body.u32(0)) << 32 | body.u32(4);
        const Bytes data = body.sub(8, body.size - 8);
        if (type == EMRI_SUBSET_FONT)
            return keep(std::vector<uint8_t>(data.data, data.data + data.size), true, ufi);
        // The latest subset of the same font takes the delta.
        for (auto it = m_entries.rbegin(); it != m_entries.rend(); ++it) {
            Entry& e = **it;
            if (!e.subset || e.ufi != ufi)
                continue;
            if (data.size + e.data.size() > kMaxFontMergeBytes - m_mergeBytes)
                return "embedded font deltas too large in all; the rest are not used";
            m_mergeBytes += data.size + e.data.size();
            std::vector<uint8_t> merged = mergeDelta(Bytes{e.data.data(), e.data.size()}, data);
            if (merged.empty())
                return "an embedded font delta that cannot be merged with its subset is not used";
            const size_t before = e.data.size() * 3;
            std::unique_ptr<FileFace> face = FileFace::fromData(merged);
            if (!face)
                return "an embedded font delta that cannot be merged with its subset is not used";
            const size_t after = merged.size() * 3;
            if (after > before && after - before > kMaxFontBytes - m_bytes)
                return "embedded fonts too large in all; the rest are not used";
            m_bytes = m_bytes - before + after;
            e.face = std::move(face);
            e.data = std::move(merged);
            return "";
        }
        return "an embedded font delta without the subset font before it is not used";
    }
    case EMRI_TYPE1_FONT:
        return "an embedded PostScript Type 1 font is not used";
    default:
        return "";
    }
}

std::vector<std::string> EmbeddedFonts::addRecords(Bytes records) {
    std::vector<std::string> problems;
    size_t pos = 0;
    while (records.size - pos >= 8) {
        const uint32_t type = records.u32(pos);
        const uint32_t length = records.u32(pos + 4);
        if (length > records.size - pos - 8) {
            problems.push_back("an embedded font record claims more bytes than its comment holds");
            break;
        }
        if (!isFontDefinitionRecord(type)) {
            problems.push_back("an embedded record of type " + std::to_string(type) + " is no font definition");
            break;
        }
        if (std::string p = add(type, records.sub(pos + 8, length)); !p.empty())
            problems.push_back(p);
        pos += 8 + ((size_t(length) + 3) & ~size_t(3));
    }
    return problems;
}

const FileFace* EmbeddedFonts::find(const std::string& faceName, bool bold, bool italic) const {
    const std::string want = lower(faceName);
    const FileFace* named = nullptr;
    for (auto it = m_entries.rbegin(); it != m_entries.rend(); ++it) {
        const Entry& e = **it;
        if (want.empty() || e.family != want)
            continue;
        if (e.face->bold() == bold && e.face->italic() == italic)
            return e.face.get();
        if (!named)
            named = e.face.get();
    }
    return named;
}

} // namespace qx::emf
