#include "pclxl/text_render.h"

#include "fonts/font_library.h"
#include "pclxl/downloaded_font.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <tuple>

namespace qx::pclxl {

namespace {

constexpr double kPi = 3.14159265358979323846;

Matrix linear(const Matrix& m) { return {m.a, m.b, m.c, m.d, 0, 0}; }

// Moves the cursor after glyph i: by the spacing data when given, else by the fallback
// advance (already in page space).
void advance(const TextRun& run, size_t i, const TextStyle& style, Point& cursor, Point fallback) {
    const bool haveX = i < run.dx.size();
    const bool haveY = i < run.dy.size();
    if (haveX || haveY) {
        const Point v = style.ctm.applyVector({haveX ? run.dx[i] : 0, haveY ? run.dy[i] : 0});
        cursor = {cursor.x + v.x, cursor.y + v.y};
    } else {
        cursor = {cursor.x + fallback.x, cursor.y + fallback.y};
    }
}

void put16(std::vector<uint8_t>& v, size_t at, uint16_t x) {
    v[at] = uint8_t(x >> 8);
    v[at + 1] = uint8_t(x);
}
void put32(std::vector<uint8_t>& v, size_t at, uint32_t x) {
    v[at] = uint8_t(x >> 24);
    v[at + 1] = uint8_t(x >> 16);
    v[at + 2] = uint8_t(x >> 8);
    v[at + 3] = uint8_t(x);
}
uint16_t get16(const uint8_t* p) { return uint16_t(p[0] << 8 | p[1]); }
uint32_t get32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }

// Emboldening: the glyph smeared `extra` pixels to the right.
Mask embolden(const Mask& in, int extra) {
    if (extra <= 0 || in.width <= 0)
        return in;
    Mask out;
    out.width = in.width + extra;
    out.height = in.height;
    out.stride = (size_t(out.width) + 7) / 8;
    out.bits.assign(out.stride * size_t(out.height), 0);
    for (int y = 0; y < in.height; ++y) {
        const uint8_t* src = in.bits.data() + size_t(y) * in.stride;
        uint8_t* dst = out.bits.data() + size_t(y) * out.stride;
        int run = -1; // last ink column seen
        for (int x = 0; x < out.width; ++x) {
            if (x < in.width && (src[x >> 3] >> (7 - (x & 7))) & 1)
                run = x;
            if (run >= 0 && x - run <= extra)
                dst[x >> 3] |= uint8_t(0x80 >> (x & 7));
        }
    }
    return out;
}

int boldPixels(double bold, double emPixels) {
    if (!(bold > 0))
        return 0;
    return std::clamp(int(std::lround(bold * emPixels)), 1, 64);
}

// Larger glyphs than this many pixels to the em are not rendered: no page holds one, and the
// bitmap alone would take gigabytes.
constexpr double kMaxEmPixels = 16384;

} // namespace

Matrix TextStyle::charMatrix() const {
    const Matrix rot = Matrix::rotate(angle * kPi / 180.0);
    const Matrix shear{1, shearY, shearX, 1, 0, 0};
    return rot * shear * Matrix::scale(scaleX, scaleY);
}

// A downloaded TrueType font made whole: the global tables of the header plus glyf and loca
// built from the downloaded characters, opened and rendered as the resident fonts are (hinted by
// the font's own instructions, one bit a pixel), so that both come out as printers draw them.
class TrueTypeRenderer {
public:
    bool build(const DownloadedFont& font, std::string& error) {
        const std::vector<uint8_t>& gt = font.globalData;
        if (gt.size() < 12) {
            error = "TrueType global data too short";
            return false;
        }
        const uint16_t numTables = get16(&gt[4]);
        if (12 + size_t(numTables) * 16 > gt.size()) {
            error = "TrueType table directory runs past the global data";
            return false;
        }
        std::map<std::string, std::vector<uint8_t>> tables;
        for (uint16_t i = 0; i < numTables; ++i) {
            const uint8_t* rec = &gt[12 + size_t(i) * 16];
            const std::string tag(reinterpret_cast<const char*>(rec), 4);
            const uint32_t off = get32(rec + 8), len = get32(rec + 12);
            if (off > gt.size() || len > gt.size() - off)
                continue; // tables the header leaves out (glyf is one: its glyphs come later)
            if (tag == "glyf" || tag == "loca" || tag == "gdir")
                continue;
            tables[tag].assign(gt.begin() + off, gt.begin() + off + len);
        }
        if (!tables.count("head") || tables["head"].size() < 54 || !tables.count("maxp") || tables["maxp"].size() < 6) {
            error = "TrueType global data without head or maxp";
            return false;
        }
        // glyf and loca from the characters, by glyph id.
        std::map<uint16_t, const std::vector<uint8_t>*> byId;
        for (const auto& [code, c] : font.ttChars)
            byId[c.glyphId] = &c.glyf;
        uint32_t numGlyphs = get16(&tables["maxp"][4]);
        if (!byId.empty())
            numGlyphs = std::max<uint32_t>(numGlyphs, uint32_t(byId.rbegin()->first) + 1);
        numGlyphs = std::min<uint32_t>(numGlyphs, 65535);
        put16(tables["maxp"], 4, uint16_t(numGlyphs));
        std::vector<uint8_t> glyf, loca((size_t(numGlyphs) + 1) * 4, 0);
        for (uint32_t g = 0; g < numGlyphs; ++g) {
            put32(loca, size_t(g) * 4, uint32_t(glyf.size()));
            auto it = byId.find(uint16_t(g));
            if (it != byId.end()) {
                glyf.insert(glyf.end(), it->second->begin(), it->second->end());
                while (glyf.size() % 4)
                    glyf.push_back(0);
            }
        }
        put32(loca, size_t(numGlyphs) * 4, uint32_t(glyf.size()));
        tables["glyf"] = std::move(glyf);
        tables["loca"] = std::move(loca);
        put16(tables["head"], 50, 1); // long loca offsets
        const uint16_t unitsPerEm = get16(&tables["head"][18]);
        if (!tables.count("hhea") || tables["hhea"].size() < 36) {
            std::vector<uint8_t> hhea(36, 0);
            put32(hhea, 0, 0x00010000);
            put16(hhea, 4, uint16_t(unitsPerEm * 8 / 10));
            put16(hhea, 6, uint16_t(-int(unitsPerEm) * 2 / 10));
            tables["hhea"] = hhea;
            tables.erase("hmtx");
        }
        if (!tables.count("hmtx")) {
            // Horizontal metrics from the characters that carry them, half an em for the rest.
            std::vector<uint8_t> hmtx(size_t(numGlyphs) * 4, 0);
            for (uint32_t g = 0; g < numGlyphs; ++g)
                put16(hmtx, size_t(g) * 4, uint16_t(unitsPerEm / 2));
            for (const auto& [code, c] : font.ttChars)
                if (c.hasMetrics && c.glyphId < numGlyphs) {
                    put16(hmtx, size_t(c.glyphId) * 4, c.advanceWidth);
                    put16(hmtx, size_t(c.glyphId) * 4 + 2, uint16_t(c.leftSideBearing));
                }
            put16(tables["hhea"], 34, uint16_t(numGlyphs));
            tables["hmtx"] = std::move(hmtx);
        }
        // Assemble the sfnt.
        const uint16_t n = uint16_t(tables.size());
        m_sfnt.assign(12 + size_t(n) * 16, 0);
        put32(m_sfnt, 0, 0x00010000);
        put16(m_sfnt, 4, n);
        uint16_t pow2 = 1, log2 = 0;
        while (pow2 * 2 <= n) {
            pow2 *= 2;
            ++log2;
        }
        put16(m_sfnt, 6, uint16_t(pow2 * 16));
        put16(m_sfnt, 8, log2);
        put16(m_sfnt, 10, uint16_t(n * 16 - pow2 * 16));
        size_t i = 0;
        for (const auto& [tag, data] : tables) {
            const size_t rec = 12 + i * 16;
            std::memcpy(&m_sfnt[rec], tag.data(), 4);
            put32(m_sfnt, rec + 8, uint32_t(m_sfnt.size()));
            put32(m_sfnt, rec + 12, uint32_t(data.size()));
            m_sfnt.insert(m_sfnt.end(), data.begin(), data.end());
            while (m_sfnt.size() % 4)
                m_sfnt.push_back(0);
            ++i;
        }
        m_face = MemoryFace::open(std::move(m_sfnt));
        if (!m_face) {
            error = "the downloaded TrueType font does not open";
            return false;
        }
        return true;
    }

    struct Rendered {
        bool ok = false;
        Mask mask;
        int left = 0, top = 0;
        Point advance;
    };

    // Renders a glyph id through fontToDevice (em units, y up, to device pixels, y down); the
    // same glyph at the same size comes from a cache.
    const Rendered& render(uint16_t glyphId, const Matrix& fontToDevice) {
        const Key key{glyphId, fontToDevice.a, fontToDevice.b, fontToDevice.c, fontToDevice.d};
        auto it = m_cache.find(key);
        if (it != m_cache.end())
            return it->second;
        if (m_cache.size() >= 4096 || m_cacheBytes >= (size_t(32) << 20)) {
            m_cache.clear();
            m_cacheBytes = 0;
        }
        Rendered r;
        r.ok = renderUncached(glyphId, fontToDevice, r.mask, r.left, r.top, r.advance);
        m_cacheBytes += r.mask.bits.size() + sizeof(Rendered);
        return m_cache.emplace(key, std::move(r)).first->second;
    }

private:
    struct Key {
        uint16_t glyph;
        double a, b, c, d;
        bool operator<(const Key& o) const {
            return std::tie(glyph, a, b, c, d) < std::tie(o.glyph, o.a, o.b, o.c, o.d);
        }
    };
    std::map<Key, Rendered> m_cache;
    size_t m_cacheBytes = 0;

    bool renderUncached(uint16_t glyphId, const Matrix& fontToDevice, Mask& mask, int& left, int& top, Point& adv) {
        if (!m_face)
            return false;
        std::optional<GlyphBitmap> g = m_face->renderGlyph(glyphId, fontToDevice);
        if (!g)
            return false;
        mask = std::move(g->mask);
        left = g->left;
        top = g->top;
        adv = {g->advanceX, g->advanceY};
        return true;
    }

    std::unique_ptr<MemoryFace> m_face;
    std::vector<uint8_t> m_sfnt;
};

void GlyphOutlineCollector::fillMask(const Mask& mask, const Matrix& m, const Paint&, const RenderState&) {
    // Runs of ink on each row; a run that repeats on the next rows grows into one rectangle.
    struct Open {
        int x0, x1, y0;
    };
    std::vector<Open> open, next;
    auto emit = [&](const Open& o, int y1) {
        if (m_rectangles >= m_maxRectangles) {
            truncated = true;
            return;
        }
        ++m_rectangles;
        path.moveTo(m.apply({double(o.x0), double(o.y0)}));
        path.lineTo(m.apply({double(o.x1), double(o.y0)}));
        path.lineTo(m.apply({double(o.x1), double(y1)}));
        path.lineTo(m.apply({double(o.x0), double(y1)}));
        path.close();
    };
    for (int y = 0; y <= mask.height; ++y) {
        next.clear();
        if (y < mask.height) {
            const uint8_t* row = mask.bits.data() + size_t(y) * mask.stride;
            int x = 0;
            while (x < mask.width) {
                while (x < mask.width && !((row[x >> 3] >> (7 - (x & 7))) & 1))
                    ++x;
                if (x >= mask.width)
                    break;
                const int start = x;
                while (x < mask.width && ((row[x >> 3] >> (7 - (x & 7))) & 1))
                    ++x;
                next.push_back({start, x, y});
            }
        }
        // Runs that continue keep their first row; the others end here.
        for (Open& n : next)
            for (const Open& o : open)
                if (o.x0 == n.x0 && o.x1 == n.x1) {
                    n.y0 = o.y0;
                    break;
                }
        for (const Open& o : open) {
            bool continues = false;
            for (const Open& n : next)
                if (n.x0 == o.x0 && n.x1 == o.x1)
                    continues = true;
            if (!continues)
                emit(o, y);
        }
        open.swap(next);
    }
}

void advanceWithoutGlyphs(const TextRun& run, const TextStyle& style, Point& cursor) {
    const Matrix m = linear(style.ctm) * style.charMatrix();
    const Point fallback = m.applyVector({style.charSize * 0.6, 0});
    for (size_t i = 0; i < run.codes.size(); ++i)
        advance(run, i, style, cursor, fallback);
}

void drawDownloadedText(DownloadedFont& font, const TextRun& run, const TextStyle& style, Point& cursor,
                        const Paint& paint, const RenderState& rs, Device& device, std::string& problem) {
    const Matrix userToPageLinear = linear(style.ctm);
    const Matrix charToPage = userToPageLinear * style.charMatrix();
    if (font.kind == DownloadedFont::Kind::Bitmap) {
        // One bitmap pixel is one dot at the font's resolution.
        const Matrix pixelToPage =
            charToPage * Matrix::scale(style.unitsPerInchX / font.resX, style.unitsPerInchY / font.resY);
        for (size_t i = 0; i < run.codes.size(); ++i) {
            auto it = font.bitmaps.find(run.codes[i]);
            Point fallback{0, 0};
            if (it == font.bitmaps.end()) {
                problem = "character " + std::to_string(run.codes[i]) + " missing from a downloaded font";
            } else {
                const BitmapGlyph& g = it->second;
                if (g.width > 0 && g.height > 0 && paint.kind != Paint::Kind::None) {
                    const Matrix maskToPage =
                        Matrix::translate(cursor.x, cursor.y) * pixelToPage * Matrix::translate(g.left, -g.top);
                    const int extra = boldPixels(style.bold, double(g.height));
                    device.fillMask(extra ? embolden(g.mask, extra) : g.mask, maskToPage, paint, rs);
                }
                fallback = pixelToPage.applyVector({double(g.left + g.width), 0});
            }
            advance(run, i, style, cursor, fallback);
        }
        return;
    }
    // TrueType.
    if (font.rendererStale || !font.renderer) {
        auto r = std::make_shared<TrueTypeRenderer>();
        std::string error;
        if (!r->build(font, error)) {
            problem = error;
            font.renderer.reset();
            font.rendererStale = false;
        } else {
            font.renderer = r;
            font.rendererStale = false;
        }
    }
    const Matrix pageToDevice = device.pageToDevice();
    const Matrix devLinear = linear(pageToDevice);
    const Matrix deviceToPage = pageToDevice.inverted().value_or(Matrix{});
    // em units (y up) to device pixels (y down).
    const Matrix fontToDevice = devLinear * charToPage * Matrix::scale(style.charSize, -style.charSize);
    const double emPixels = std::max(std::hypot(fontToDevice.a, fontToDevice.b), std::hypot(fontToDevice.c, fontToDevice.d));
    if (!(emPixels <= kMaxEmPixels)) {
        problem = "characters too large to draw; skipped";
        advanceWithoutGlyphs(run, style, cursor);
        return;
    }
    for (size_t i = 0; i < run.codes.size(); ++i) {
        Point fallback{0, 0};
        auto it = font.ttChars.find(run.codes[i]);
        if (it == font.ttChars.end()) {
            problem = "character " + std::to_string(run.codes[i]) + " missing from a downloaded font";
        } else if (font.renderer) {
            const TrueTypeRenderer::Rendered& g = font.renderer->render(it->second.glyphId, fontToDevice);
            const Mask& mask = g.mask;
            const int left = g.left, top = g.top;
            const Point adv = g.advance;
            if (g.ok) {
                const Point pen = pageToDevice.apply(cursor);
                if (mask.width > 0 && mask.height > 0 && paint.kind != Paint::Kind::None) {
                    const Matrix maskToPage = deviceToPage * Matrix::translate(std::round(pen.x) + left,
                                                                               std::round(pen.y) + top);
                    const int extra = boldPixels(style.bold, emPixels);
                    device.fillMask(extra ? embolden(mask, extra) : mask, maskToPage, paint, rs);
                }
                fallback = deviceToPage.applyVector(adv);
            }
        }
        advance(run, i, style, cursor, fallback);
    }
}

bool drawResidentText(const FontLibrary& fonts, const std::string& name, const TextRun& run,
                      const TextStyle& style, Point& cursor, const Paint& paint, const RenderState& rs,
                      Device& device, std::string& problem) {
    bool known = true;
    int index = style.residentIndex >= 0 ? style.residentIndex : fonts.selectByName(name);
    if (index < 0) {
        known = false;
        std::string shown = name;
        while (!shown.empty() && (shown.back() == ' ' || shown.back() == '\0'))
            shown.pop_back();
        problem = "unknown resident font \"" + shown + "\"; Courier used";
        index = fonts.selectByName("Courier");
    }
    if (index < 0 || !fonts.available(index)) {
        problem = "no font file for \"" + name + "\"; text skipped";
        advanceWithoutGlyphs(run, style, cursor);
        return false;
    }
    const Matrix pageToDevice = device.pageToDevice();
    const Matrix devLinear = linear(pageToDevice);
    const Matrix deviceToPage = pageToDevice.inverted().value_or(Matrix{});
    const Matrix charToPage = linear(style.ctm) * style.charMatrix();
    const Matrix fontToDevice = devLinear * charToPage * Matrix::scale(style.charSize, -style.charSize);
    const double emPixels = std::max(std::hypot(fontToDevice.a, fontToDevice.b), std::hypot(fontToDevice.c, fontToDevice.d));
    if (!(emPixels <= kMaxEmPixels)) {
        problem = "characters too large to draw; skipped";
        advanceWithoutGlyphs(run, style, cursor);
        return false;
    }
    for (size_t i = 0; i < run.codes.size(); ++i) {
        const char32_t u = symbolSetToUnicode(uint16_t(style.symbolSet), run.codes[i]);
        Point fallback{0, 0};
        if (u != 0) {
            if (auto g = fonts.renderGlyph(index, u, fontToDevice)) {
                const Point pen = pageToDevice.apply(cursor);
                if (g->mask.width > 0 && g->mask.height > 0 && paint.kind != Paint::Kind::None) {
                    const Matrix maskToPage =
                        deviceToPage * Matrix::translate(std::round(pen.x) + g->left, std::round(pen.y) + g->top);
                    const int extra = boldPixels(style.bold, emPixels);
                    device.fillMask(extra ? embolden(g->mask, extra) : g->mask, maskToPage, paint, rs);
                }
                fallback = deviceToPage.applyVector({g->advanceX, g->advanceY});
            }
        }
        advance(run, i, style, cursor, fallback);
    }
    return known;
}

} // namespace qx::pclxl
