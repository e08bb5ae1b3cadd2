// Text given as glyph numbers in EMF spool files: fonts the spool file embeds (a whole TrueType
// file as an engine font record; a subset on one page and a delta on the next, inside the
// pages' EMFSPOOL comments), the producer's own font when it is on this system, advances with
// rises (ETO_PDY), escapement, alignment, a world transform and multi-string records. Pages
// are drawn by the raster device at 150 dpi in black and white and compared with Ghostscript's
// rendering of the same glyphs of the same font file at the same places: ink F-score at least
// 0.9 with one pixel of tolerance, no shift. Hostile font records end in warnings, never in a
// crash or in memory out of proportion.
//
// With QX_EMF_TEXT_DUMP set to a folder, the pages compared are written there as PBM files.

#include "emf_writer.h"
#include "emfplus_writer.h"

#include "../fonts/truetype_source.h"
#include "common/diagnostics.h"
#include "common/file_io.h"
#include "common/ink_score.h"
#include "common/pbm.h"
#include "common/render_job.h"
#include "emf/emf.h"
#include "emf/spool.h"
#include "fonts/font_library.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace qx::emf {
namespace {

namespace fs = std::filesystem;
using test::Buffer;
using test::EmfWriter;
using test::SpoolWriter;

const std::string kStageFonts = std::string(QX_STAGE_DIR) + "/fonts";
const std::string kNarrow = kStageFonts + "/LiberationSansNarrow-Regular.ttf";
const std::string kDejaVu = kStageFonts + "/DejaVuSans.ttf";

constexpr double kDpi = 150;
// The test pages: 254 mm square (1500 pixels at 150 dpi) with four logical units a millimetre.
constexpr int kPageMm = 254, kPxPerMm = 4;
constexpr double kPtPerUnit = 72.0 / 25.4 / kPxPerMm;
constexpr double kPi = 3.14159265358979323846;

enum : uint32_t {
    EXTTEXTOUTW = 84, POLYTEXTOUTW = 97, SMALLTEXTOUT = 108, ETO_SMALL_CHARS = 0x200, SELECTOBJECT = 37, SETTEXTALIGN = 22, SETWORLD = 35,
    ETO_NO_RECT = 0x100, ETO_GLYPH_INDEX = 0x10, ETO_PDY = 0x2000, TA_BASELINE = 24, TA_CENTER = 6,
};

int64_t floatBits(float v) {
    int32_t i;
    std::memcpy(&i, &v, 4);
    return i;
}

// Where the last record of a type starts in a metafile.
size_t lastRecord(const Buffer& emf, uint32_t type) {
    size_t found = 0;
    for (size_t pos = 0; pos + 8 <= emf.size();) {
        const uint32_t t = uint32_t(emf[pos]) | uint32_t(emf[pos + 1]) << 8 | uint32_t(emf[pos + 2]) << 16 |
                           uint32_t(emf[pos + 3]) << 24;
        const uint32_t size = uint32_t(emf[pos + 4]) | uint32_t(emf[pos + 5]) << 8 | uint32_t(emf[pos + 6]) << 16 |
                              uint32_t(emf[pos + 7]) << 24;
        if (t == type)
            found = pos;
        if (size < 8)
            break;
        pos += size;
    }
    return found;
}

Buffer readFile(const std::string& path) {
    const std::string data = qx::test::readFile(path);
    return Buffer(data.begin(), data.end());
}

// ------------------------------------------------------------------ a font cut into pieces

uint32_t be32(const Buffer& b, size_t o) {
    return uint32_t(b.at(o)) << 24 | uint32_t(b.at(o + 1)) << 16 | uint32_t(b.at(o + 2)) << 8 | b.at(o + 3);
}
uint16_t be16(const Buffer& b, size_t o) { return uint16_t(b.at(o) << 8 | b.at(o + 1)); }

// The font with every glyph outside keep emptied (glyph numbers stay those of the full font),
// as a printer driver's subset or delta font is made. Composite glyphs bring their parts.
Buffer cutFont(const Buffer& font, const qx::test::TrueTypeSource& src, std::set<uint16_t> keep) {
    for (std::vector<uint16_t> todo(keep.begin(), keep.end()); !todo.empty();) {
        const uint16_t id = todo.back();
        todo.pop_back();
        const std::vector<uint8_t> g = src.glyph(id);
        if (g.size() < 10 || int16_t(g[0] << 8 | g[1]) >= 0)
            continue;
        for (size_t at = 10; at + 4 <= g.size();) {
            const uint16_t flags = uint16_t(g[at] << 8 | g[at + 1]);
            const uint16_t part = uint16_t(g[at + 2] << 8 | g[at + 3]);
            if (keep.insert(part).second)
                todo.push_back(part);
            at += 4 + ((flags & 1) ? 4 : 2) + ((flags & 8) ? 2 : (flags & 0x40) ? 4 : (flags & 0x80) ? 8 : 0);
            if (!(flags & 0x20))
                break;
        }
    }
    std::map<std::string, Buffer> tables;
    const uint16_t n = be16(font, 4);
    for (uint16_t i = 0; i < n; ++i) {
        const size_t rec = 12 + size_t(i) * 16;
        const std::string name(reinterpret_cast<const char*>(&font.at(rec)), 4);
        const uint32_t off = be32(font, rec + 8), len = be32(font, rec + 12);
        tables[name].assign(font.begin() + off, font.begin() + off + len);
    }
    const uint16_t glyphs = be16(tables.at("maxp"), 4);
    Buffer glyf, loca;
    auto putBe32 = [](Buffer& b, uint32_t v) {
        for (int s = 24; s >= 0; s -= 8)
            b.push_back(uint8_t(v >> s));
    };
    for (uint16_t id = 0; id < glyphs; ++id) {
        putBe32(loca, uint32_t(glyf.size()));
        if (keep.count(id)) {
            const std::vector<uint8_t> g = src.glyph(id);
            glyf.insert(glyf.end(), g.begin(), g.end());
            while (glyf.size() % 4)
                glyf.push_back(0);
        }
    }
    putBe32(loca, uint32_t(glyf.size()));
    tables["glyf"] = glyf;
    tables["loca"] = loca;
    tables["head"][50] = 0;
    tables["head"][51] = 1;
    Buffer out;
    putBe32(out, 0x00010000);
    out.push_back(uint8_t(tables.size() >> 8));
    out.push_back(uint8_t(tables.size()));
    for (int i = 0; i < 6; ++i)
        out.push_back(0);
    size_t at = 12 + tables.size() * 16;
    Buffer body;
    for (const auto& [name, data] : tables) {
        out.insert(out.end(), name.begin(), name.end());
        putBe32(out, 0);
        putBe32(out, uint32_t(at + body.size()));
        putBe32(out, uint32_t(data.size()));
        body.insert(body.end(), data.begin(), data.end());
        while (body.size() % 4)
            body.push_back(0);
    }
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

// ------------------------------------------------------------------ text and where it lands

// One glyph where the page puts it: pen position in logical units (y down), the baseline's
// angle in degrees counter-clockwise, the em in logical units.
struct Placed {
    char c;
    double x, y, angle, em;
};

// A string laid out as the player lays it out with TA_BASELINE: advances from the font's own
// widths (rounded to logical units, as a producer writes them), rises when given.
struct Line {
    std::u16string glyphs;
    std::vector<int32_t> dx; // advances, or advance and rise pairs with rises
    std::vector<Point> pens; // each glyph's pen position, spaces included
    std::vector<Placed> placed;
};

Line layout(const qx::test::TrueTypeSource& src, const std::string& text, double x, double y, int em, double angleDeg = 0,
            bool center = false, const std::vector<int>& rises = {}, bool rounded = true) {
    Line l;
    std::vector<double> adv;
    double total = 0;
    for (char c : text) {
        const uint16_t id = src.glyphIndex(char32_t(c));
        l.glyphs.push_back(char16_t(id));
        const double exact = src.metrics(id).first * double(em) / src.unitsPerEm();
        adv.push_back(rounded ? std::round(exact) : exact);
        total += adv.back();
    }
    const double a = angleDeg * kPi / 180;
    const double ux = std::cos(a), uy = -std::sin(a), vx = -std::sin(a), vy = -std::cos(a);
    double s = center ? -total / 2 : 0, up = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        l.pens.push_back({x + ux * s + vx * up, y + uy * s + vy * up});
        if (text[i] != ' ')
            l.placed.push_back({text[i], l.pens.back().x, l.pens.back().y, angleDeg, double(em)});
        s += adv[i];
        l.dx.push_back(int32_t(adv[i]));
        if (!rises.empty()) {
            const int r = rises[i % rises.size()];
            up += r;
            l.dx.push_back(r);
        }
    }
    return l;
}

// Logical placements through a world transform (scale and offset).
std::vector<Placed> transformed(std::vector<Placed> p, double scale, double ox, double oy) {
    for (Placed& g : p) {
        g.x = g.x * scale + ox;
        g.y = g.y * scale + oy;
        g.em *= scale;
    }
    return p;
}

// ------------------------------------------------------------------ rendering both ways

using Ink = qxtest::InkMask;

void dump(const Ink& b, const std::string& name) {
    const char* dir = std::getenv("QX_EMF_TEXT_DUMP");
    if (dir && *dir && b.width > 0)
        qxtest::writePbm(b, fs::path(dir) / (name + ".pbm"));
}

// Ghostscript's rendering of the glyphs in the font file, each at its place.
Ink ghostscript(const std::string& fontFile, const std::vector<Placed>& glyphs) {
    qx::test::ScratchDir s("qx_emf_text");
    if (s.dir.empty())
        return {};
    std::ofstream(s.dir / "Fontmap") << "/QxTestFont (" << fontFile << ") ;\n";
    const double side = kPageMm * 72.0 / 25.4;
    {
        std::ofstream ps(s.dir / "text.ps");
        ps << "%!PS\n<< /PageSize [" << side << " " << side << "] >> setpagedevice\n";
        char line[200];
        for (const Placed& g : glyphs) {
            std::snprintf(line, sizeof line,
                          "gsave %.4f %.4f translate %.4f rotate /QxTestFont findfont %.4f scalefont setfont "
                          "0 0 moveto (%c) show grestore\n",
                          g.x * kPtPerUnit, side - g.y * kPtPerUnit, g.angle, g.em * kPtPerUnit, g.c);
            ps << line;
        }
        ps << "showpage\n";
    }
    const std::string cmd = "gs -q -dNOPAUSE -dBATCH -dSAFER -sFONTMAP=" + (s.dir / "Fontmap").string() +
                            " -sDEVICE=pbmraw -r150 -sOutputFile=" + (s.dir / "ref.pbm").string() + " " +
                            (s.dir / "text.ps").string() + " 2>&1";
    if (std::system(cmd.c_str()) != 0)
        return {};
    return qxtest::readPbm(s.dir / "ref.pbm");
}

struct Rendered {
    std::vector<Ink> pages;
    std::vector<std::string> warnings;
    bool warned(const std::string& part) const {
        for (const std::string& w : warnings)
            if (w.find(part) != std::string::npos)
                return true;
        return false;
    }
    std::string all() const {
        std::string s;
        for (const std::string& w : warnings)
            s += w + "\n";
        return s;
    }
};

Rendered render(const Buffer& job) {
    FontLibrary fonts({kStageFonts}, false);
    qxtest::PageCollector sink;
    Diagnostics diag("emf-text", false);
    qxtest::renderJob(run, job.data(), job.size(), 1, kDpi, &fonts, sink, diag);
    Rendered r{{}, diag.lines()};
    for (const RasterPage& p : sink.pages)
        r.pages.push_back(qxtest::inkOfBilevelPage(p));
    return r;
}

long inkOf(const Ink& b) {
    long n = 0;
    for (uint8_t v : b.ink)
        n += v;
    return n;
}

void expectLikeGhostscript(const Ink& ours, const std::string& fontFile, const std::vector<Placed>& glyphs,
                           const std::string& name, double floor = 0.9) {
    const Ink ref = ghostscript(fontFile, glyphs);
    ASSERT_GT(ref.width, 0) << "Ghostscript did not render " << name;
    dump(ours, name);
    dump(ref, name + "_gs");
    const double f = qxtest::inkFScore(ours, ref);
    std::printf("%s: ink %ld against %ld, F-score %.4f\n", name.c_str(), inkOf(ours), inkOf(ref), f);
    EXPECT_GT(inkOf(ref), 2000) << name;
    EXPECT_GE(f, floor) << name;
}

// A subset font's page and a delta font's page, drawn without a word about fonts.
void expectTwoPages(const Rendered& r, const Line& first, const Line& second, const std::string& name) {
    ASSERT_EQ(r.pages.size(), 2u);
    EXPECT_FALSE(r.warned("font")) << r.all();
    expectLikeGhostscript(r.pages[0], kNarrow, first.placed, name + "_subset_page1");
    expectLikeGhostscript(r.pages[1], kNarrow, second.placed, name + "_delta_page2");
}

// A page header, a font of the face and em (escapement in tenths of a degree) in handle 1,
// selected, and baseline alignment.
EmfWriter page(const std::u16string& face, int em, int escapement = 0, uint32_t align = TA_BASELINE) {
    EmfWriter w(kPageMm, kPageMm, kPxPerMm);
    w.font(1, -em, face, 400, escapement).rec(SELECTOBJECT, {1}).rec(SETTEXTALIGN, {align});
    return w;
}

EmfWriter& glyphText(EmfWriter& w, const Line& l, double x, double y, uint32_t extra = 0) {
    return w.textItems(EXTTEXTOUTW, {{int(x), int(y), l.glyphs, ETO_NO_RECT | ETO_GLYPH_INDEX | extra, l.dx}});
}

struct Fonts {
    qx::test::TrueTypeSource narrow, dejavu;
    Buffer narrowFile;
    bool ok = false;
    Fonts() { ok = narrow.load(kNarrow) && dejavu.load(kDejaVu) && !(narrowFile = readFile(kNarrow)).empty(); }
};

// An EMR_SMALLTEXTOUT body: reference point, count, options, compatible graphics mode, scales,
// bounds unless ETO_NO_RECT, then the characters (8-bit with ETO_SMALL_CHARS).
Buffer smallText(int x, int y, uint32_t options, const std::u16string& chars) {
    Buffer b;
    for (uint32_t v : {uint32_t(x), uint32_t(y), uint32_t(chars.size()), options, 1u, 0u, 0u})
        test::put32(b, v);
    if (!(options & ETO_NO_RECT))
        for (int i = 0; i < 4; ++i)
            test::put32(b, 0);
    for (char16_t c : chars) {
        if (options & ETO_SMALL_CHARS)
            b.push_back(uint8_t(c));
        else
            test::put16(b, uint16_t(c));
    }
    return b;
}

// ------------------------------------------------------------------ the tests

// A whole TrueType file as an engine font record before the page; the stand-in for "Liberation
// Sans Narrow" would be Liberation Sans, whose glyph numbers are not the same font's.
TEST(EmfGlyphText, EngineFontRecordDrawsGlyphNumbers) {
    Fonts f;
    ASSERT_TRUE(f.ok);
    const Line l1 = layout(f.narrow, "Embedded engine font", 120, 300, 60);
    const Line l2 = layout(f.narrow, "glyph numbers 0123", 120, 500, 90);
    EmfWriter w = page(u"Liberation Sans Narrow", 60);
    glyphText(w, l1, 120, 300);
    w.font(2, -90, u"Liberation Sans Narrow").rec(SELECTOBJECT, {2});
    glyphText(w, l2, 120, 500);
    // Characters in the embedded font are drawn with it too.
    const Line l3 = layout(f.narrow, "Characters as well", 120, 700, 90);
    w.textItems(EXTTEXTOUTW, {{120, 700, u"Characters as well", ETO_NO_RECT, l3.dx}});
    const Buffer emf = w.finish();

    SpoolWriter s;
    s.record(EMRI_ENGINE_FONT, test::engineFont({f.narrowFile})).page(emf);
    const Rendered r = render(s.finish());
    ASSERT_EQ(r.pages.size(), 1u);
    EXPECT_FALSE(r.warned("glyph")) << r.all();
    std::vector<Placed> all = l1.placed;
    all.insert(all.end(), l2.placed.begin(), l2.placed.end());
    all.insert(all.end(), l3.placed.begin(), l3.placed.end());
    expectLikeGhostscript(r.pages[0], kNarrow, all, "engine_font");

    // Without the record the glyph numbers have no font: one warning, no ink of theirs; the
    // characters come in the stand-in's wider shapes.
    const Rendered bare = render(test::makeSpool({emf}));
    ASSERT_EQ(bare.pages.size(), 1u);
    EXPECT_TRUE(bare.warned("glyph numbers of \"Liberation Sans Narrow\"")) << bare.all();
    const Ink charactersOnly = ghostscript(kNarrow, l3.placed);
    EXPECT_LT(qxtest::inkFScore(bare.pages[0], charactersOnly), 0.9);
    EXPECT_GT(qxtest::inkFScore(bare.pages[0], charactersOnly), 0.3);
}

// The first page's metafile embeds a subset with its own glyphs; the second page's embeds a
// delta with the glyphs it adds, and its text needs glyphs of both.
TEST(EmfGlyphText, SubsetAndDeltaMergeAcrossPages) {
    Fonts f;
    ASSERT_TRUE(f.ok);
    const std::string first = "Subset page", second = "Delta merged page";
    std::set<uint16_t> firstGlyphs, addedGlyphs;
    for (char c : first)
        firstGlyphs.insert(f.narrow.glyphIndex(char32_t(c)));
    for (char c : second)
        if (!firstGlyphs.count(f.narrow.glyphIndex(char32_t(c))))
            addedGlyphs.insert(f.narrow.glyphIndex(char32_t(c)));
    ASSERT_GE(addedGlyphs.size(), 5u);
    const Buffer subset = cutFont(f.narrowFile, f.narrow, firstGlyphs);
    const Buffer delta = cutFont(f.narrowFile, f.narrow, addedGlyphs);
    ASSERT_LT(subset.size(), f.narrowFile.size() / 2);

    const Line l1 = layout(f.narrow, first, 150, 400, 80);
    const Line l2 = layout(f.narrow, second, 150, 400, 80);
    EmfWriter p1(kPageMm, kPageMm, kPxPerMm);
    p1.fontComment(test::spoolRecord(EMRI_SUBSET_FONT, test::subsetFont(0x1234, 7, subset)));
    p1.font(1, -80, u"Liberation Sans Narrow").rec(SELECTOBJECT, {1}).rec(SETTEXTALIGN, {TA_BASELINE});
    glyphText(p1, l1, 150, 400);
    EmfWriter p2(kPageMm, kPageMm, kPxPerMm);
    p2.fontComment(test::spoolRecord(EMRI_DELTA_FONT, test::subsetFont(0x1234, 7, delta)));
    p2.font(1, -80, u"Liberation Sans Narrow").rec(SELECTOBJECT, {1}).rec(SETTEXTALIGN, {TA_BASELINE});
    glyphText(p2, l2, 150, 400);

    expectTwoPages(render(test::makeSpool({p1.finish(), p2.finish()})), l1, l2, "comment");
}

// Spool-level subset and delta records serve the page open when they come, and those after.
TEST(EmfGlyphText, SpoolLevelSubsetAndDelta) {
    Fonts f;
    ASSERT_TRUE(f.ok);
    std::set<uint16_t> lower, upper;
    for (char c : std::string("abcdefghij"))
        lower.insert(f.narrow.glyphIndex(char32_t(c)));
    for (char c : std::string("ABCDEFGHIJ"))
        upper.insert(f.narrow.glyphIndex(char32_t(c)));
    const Line l1 = layout(f.narrow, "abcdefghij", 100, 300, 80);
    const Line l2 = layout(f.narrow, "ABCDEFGHIJ abcdefghij", 100, 300, 80);
    EmfWriter p1 = page(u"Liberation Sans Narrow", 80);
    glyphText(p1, l1, 100, 300);
    EmfWriter p2 = page(u"Liberation Sans Narrow", 80);
    glyphText(p2, l2, 100, 300);
    SpoolWriter s;
    s.openPage(p1.finish())
        .record(EMRI_SUBSET_FONT, test::subsetFont(1, 0, cutFont(f.narrowFile, f.narrow, lower)))
        .closePage()
        .openPage(p2.finish())
        .record(EMRI_DELTA_FONT, test::subsetFont(1, 0, cutFont(f.narrowFile, f.narrow, upper)))
        .closePage();
    expectTwoPages(render(s.finish()), l1, l2, "spool");
}

// A font definition inside a page content record (after the page's metafile), reached only
// through the font offset record that follows.
TEST(EmfGlyphText, FontOffsetRecordsReachFontsInsidePages) {
    Fonts f;
    ASSERT_TRUE(f.ok);
    const Line l = layout(f.narrow, "Reached by offset", 100, 300, 80);
    EmfWriter w = page(u"Liberation Sans Narrow", 80);
    glyphText(w, l, 100, 300);
    const Buffer emf = w.finish();
    Buffer content = emf;
    const Buffer font = test::spoolRecord(EMRI_ENGINE_FONT, test::engineFont({f.narrowFile}));
    content.insert(content.end(), font.begin(), font.end());
    SpoolWriter s;
    const size_t pageAt = s.size();
    s.openPage(content).offsetRecord(EMRI_ENGINE_FONT_EXT, pageAt + 8 + emf.size()).closePage();
    const Rendered r = render(s.finish());
    ASSERT_EQ(r.pages.size(), 1u);
    EXPECT_FALSE(r.warned("font")) << r.all();
    expectLikeGhostscript(r.pages[0], kNarrow, l.placed, "font_offset_record");
}

// Rises (ETO_PDY), escapement with centred alignment, a multi-string record and small text
// records.
TEST(EmfGlyphText, RisesRotationAlignmentAndPolyText) {
    Fonts f;
    ASSERT_TRUE(f.ok);
    const Line wave = layout(f.narrow, "Rising and falling", 100, 350, 60, 0, false, {8, 8, -8, -8});
    const Line turned = layout(f.narrow, "Turned thirty", 500, 900, 70, 30, true);
    const Line a = layout(f.narrow, "First string", 100, 600, 60);
    const Line b = layout(f.narrow, "Second string", 300, 700, 60);

    EmfWriter w = page(u"Liberation Sans Narrow", 60);
    glyphText(w, wave, 100, 350, ETO_PDY);
    w.textItems(POLYTEXTOUTW, {{100, 600, a.glyphs, ETO_NO_RECT | ETO_GLYPH_INDEX, a.dx},
                               {300, 700, b.glyphs, ETO_GLYPH_INDEX, b.dx}});
    w.font(2, -70, u"Liberation Sans Narrow", 400, 300).rec(SELECTOBJECT, {2}).rec(SETTEXTALIGN, {TA_BASELINE | TA_CENTER});
    glyphText(w, turned, 500, 900);
    // EMR_SMALLTEXTOUT: glyph numbers with the font's own advances, and 8-bit characters.
    const Line small = layout(f.narrow, "Small record", 600, 350, 70, 0, false, {}, false);
    const Line smallChars = layout(f.narrow, "Small chars", 600, 500, 70, 0, false, {}, false);
    w.rec(SELECTOBJECT, {1}).rec(SETTEXTALIGN, {TA_BASELINE});
    w.font(3, -70, u"Liberation Sans Narrow").rec(SELECTOBJECT, {3});
    w.raw(SMALLTEXTOUT, smallText(600, 350, ETO_NO_RECT | ETO_GLYPH_INDEX, small.glyphs));
    w.raw(SMALLTEXTOUT, smallText(600, 500, ETO_SMALL_CHARS, u"Small chars"));
    SpoolWriter s;
    s.record(EMRI_ENGINE_FONT, test::engineFont({f.narrowFile})).page(w.finish());
    const Rendered r = render(s.finish());
    ASSERT_EQ(r.pages.size(), 1u);
    EXPECT_FALSE(r.warned("glyph")) << r.all();
    std::vector<Placed> all;
    for (const Line* l : {&wave, &turned, &a, &b, &small, &smallChars})
        all.insert(all.end(), l->placed.begin(), l->placed.end());
    expectLikeGhostscript(r.pages[0], kNarrow, all, "rises_rotation_poly");
}

// No font in the file: glyph numbers of DejaVu Sans are drawn with DejaVu Sans itself (through
// a world transform here); those of Arial, whose stand-in is another font, are left out.
TEST(EmfGlyphText, ProducersOwnFontWithoutEmbedding) {
    Fonts f;
    ASSERT_TRUE(f.ok);
    const Line l = layout(f.dejavu, "DejaVu by number", 100, 300, 60);
    EmfWriter w = page(u"DejaVu Sans", 60);
    w.rec(SETWORLD, {floatBits(1.25f), 0, 0, floatBits(1.25f), floatBits(40), floatBits(20)});
    glyphText(w, l, 100, 300);
    const Rendered r = render(test::makeSpool({w.finish()}));
    ASSERT_EQ(r.pages.size(), 1u);
    EXPECT_FALSE(r.warned("glyph")) << r.all();
    expectLikeGhostscript(r.pages[0], kDejaVu, transformed(l.placed, 1.25, 40, 20), "dejavu_own_font");

    EmfWriter arial = page(u"Arial", 60);
    glyphText(arial, l, 100, 300);
    const Rendered a = render(test::makeSpool({arial.finish()}));
    ASSERT_EQ(a.pages.size(), 1u);
    EXPECT_TRUE(a.warned("glyph numbers of \"Arial\"")) << a.all();
    EXPECT_EQ(inkOf(a.pages[0]), 0);
}

// ------------------------------------------------------------------ EMF+ driver strings

// The glyphs of lines as one EMF+ DrawDriverString each, in black, on an EMF+-only page: the
// font's em and the positions in reference pixels (which are the logical units of the pages
// above), each glyph at its pen position.
Buffer plusPage(const std::u16string& face, const std::vector<const Line*>& lines, float em, uint32_t options = 0) {
    test::PlusWriter w(false);
    w.font(1, em, 2 /* UnitPixel */, face);
    for (const Line* line : lines) {
        std::vector<std::pair<float, float>> pos;
        for (const Point& p : line->pens)
            pos.emplace_back(float(p.x), float(p.y));
        w.drawDriverString(1, 0xff000000, options, line->glyphs, pos);
    }
    EmfWriter emf(kPageMm, kPageMm, kPxPerMm);
    w.flushInto(emf);
    return emf.finish();
}

// Glyph numbers of the font the spool file embeds, at the positions the record gives them:
// every glyph where Ghostscript puts the same glyph of the same file. With
// DriverStringOptionsRealizedAdvance only the first position counts and the glyphs follow at
// the font's own advances: the same pixels as those advances given as positions. (Against
// Ghostscript that line scores a little under 1: one pen position rounded to the pixel the
// other way puts a stem and a crossbar two pixels apart.)
TEST(EmfPlusGlyphText, DriverStringGlyphNumbersOfAnEmbeddedFont) {
    Fonts f;
    ASSERT_TRUE(f.ok);
    const Line l1 = layout(f.narrow, "Driver string glyphs", 120, 300, 70);
    const Line l2 = layout(f.narrow, "numbered 0123456789", 120, 500, 70);
    SpoolWriter s;
    s.record(EMRI_ENGINE_FONT, test::engineFont({f.narrowFile}))
        .page(plusPage(u"Liberation Sans Narrow", {&l1, &l2}, 70));
    const Rendered r = render(s.finish());
    ASSERT_EQ(r.pages.size(), 1u);
    EXPECT_FALSE(r.warned("glyph")) << r.all();
    std::vector<Placed> all = l1.placed;
    all.insert(all.end(), l2.placed.begin(), l2.placed.end());
    expectLikeGhostscript(r.pages[0], kNarrow, all, "emfplus_driver_string", 1.0);

    constexpr uint32_t RealizedAdvance = 4;
    const Line own = layout(f.narrow, "Advances of the font", 150, 700, 80, 0, false, {}, false);
    Line scattered = own; // positions after the first that must not count
    for (size_t i = 1; i < scattered.pens.size(); ++i)
        scattered.pens[i] = {i % 2 ? 900.0 : 50.0, 100.0 * double(i % 7)};
    auto withFont = [&](const Buffer& page) {
        SpoolWriter s;
        s.record(EMRI_ENGINE_FONT, test::engineFont({f.narrowFile})).page(page);
        return render(s.finish());
    };
    const Rendered realized = withFont(plusPage(u"Liberation Sans Narrow", {&scattered}, 80, RealizedAdvance));
    const Rendered positioned = withFont(plusPage(u"Liberation Sans Narrow", {&own}, 80));
    ASSERT_EQ(realized.pages.size(), 1u);
    ASSERT_EQ(positioned.pages.size(), 1u);
    EXPECT_FALSE(realized.warned("glyph")) << realized.all();
    EXPECT_EQ(realized.pages[0].ink, positioned.pages[0].ink);
    expectLikeGhostscript(realized.pages[0], kNarrow, own.placed, "emfplus_driver_string_advances", 0.99);
}

// Without an embedded font: glyph numbers of DejaVu Sans are drawn with DejaVu Sans itself;
// those of Arial, whose stand-in is another font, are left out with a warning.
TEST(EmfPlusGlyphText, DriverStringGlyphNumbersOfTheProducersOwnFont) {
    Fonts f;
    ASSERT_TRUE(f.ok);
    const Line l = layout(f.dejavu, "DejaVu glyph numbers", 100, 400, 60);
    const Rendered r = render(test::makeSpool({plusPage(u"DejaVu Sans", {&l}, 60)}));
    ASSERT_EQ(r.pages.size(), 1u);
    EXPECT_FALSE(r.warned("glyph")) << r.all();
    expectLikeGhostscript(r.pages[0], kDejaVu, l.placed, "emfplus_driver_string_dejavu", 1.0);

    const Rendered a = render(test::makeSpool({plusPage(u"Arial", {&l}, 60)}));
    ASSERT_EQ(a.pages.size(), 1u);
    EXPECT_TRUE(a.warned("glyph numbers of a font that is not embedded")) << a.all();
    EXPECT_EQ(inkOf(a.pages[0]), 0);
}

// ------------------------------------------------------------------ hostile font records

Buffer spoolWithFont(uint32_t type, const Buffer& body, const Buffer& emf) {
    SpoolWriter s;
    s.record(type, body).page(emf);
    return s.finish();
}

Buffer narrowTextPage(const std::u16string& glyphs) {
    EmfWriter w = page(u"Liberation Sans Narrow", 60);
    return w.textItems(EXTTEXTOUTW, {{100, 300, glyphs, ETO_NO_RECT | ETO_GLYPH_INDEX, {}}}).finish();
}

TEST(EmfGlyphTextHostile, EngineFontLengthsThatDoNotFit) {
    Fonts f;
    ASSERT_TRUE(f.ok);
    const Buffer emf = narrowTextPage(u"\x0024\x0025");
    // A file size past the record's end.
    Buffer body = test::engineFont({f.narrowFile});
    test::set32(body, 8, uint32_t(f.narrowFile.size() + 1000));
    Rendered r = render(spoolWithFont(EMRI_ENGINE_FONT, body, emf));
    EXPECT_EQ(r.pages.size(), 1u);
    EXPECT_TRUE(r.warned("run past its end")) << r.all();
    // A file count no record could hold.
    body = test::engineFont({f.narrowFile});
    test::set32(body, 4, 0xFFFFFFFFu);
    r = render(spoolWithFont(EMRI_ENGINE_FONT, body, emf));
    EXPECT_EQ(r.pages.size(), 1u);
    EXPECT_TRUE(r.warned("file count")) << r.all();
    // Sizes that add up past 4 GiB.
    body = test::engineFont({Buffer(16, 0), Buffer(16, 0)});
    test::set32(body, 8, 0xFFFFFFF0u);
    test::set32(body, 12, 0x40u);
    r = render(spoolWithFont(EMRI_ENGINE_FONT, body, emf));
    EXPECT_TRUE(r.warned("run past its end")) << r.all();
    // Bytes that are no font.
    r = render(spoolWithFont(EMRI_ENGINE_FONT, test::engineFont({Buffer(4096, 0x5a)}), emf));
    EXPECT_TRUE(r.warned("no TrueType font")) << r.all();
    // A font record whose length runs past the file: the spool walk stops there.
    Buffer cut = spoolWithFont(EMRI_ENGINE_FONT, test::engineFont({f.narrowFile}), emf);
    cut.resize(cut.size() - emf.size() - 100);
    r = render(cut);
    EXPECT_TRUE(r.pages.empty());
}

TEST(EmfGlyphTextHostile, SubsetsAndDeltasThatDoNotFit) {
    Fonts f;
    ASSERT_TRUE(f.ok);
    const Buffer emf = narrowTextPage(u"\x0024\x0025");
    // A delta with no subset before it.
    Rendered r = render(spoolWithFont(EMRI_DELTA_FONT, test::subsetFont(5, 5, f.narrowFile), emf));
    EXPECT_TRUE(r.warned("without the subset")) << r.all();
    // A subset record too short to hold a font.
    r = render(spoolWithFont(EMRI_SUBSET_FONT, Buffer(12, 0), emf));
    EXPECT_TRUE(r.warned("too short")) << r.all();
    // A delta whose glyph count is huge and whose offsets table is short: only the glyphs the
    // offsets reach count. Then one whose offsets table runs past the font: not merged.
    auto withTables = [&](uint32_t locaLength) {
        Buffer delta = cutFont(f.narrowFile, f.narrow, {36});
        for (uint16_t i = 0, n = be16(delta, 4); i < n; ++i) {
            const size_t rec = 12 + size_t(i) * 16;
            const std::string name(reinterpret_cast<const char*>(&delta[rec]), 4);
            if (name == "maxp")
                delta[be32(delta, rec + 8) + 4] = 0xFF, delta[be32(delta, rec + 8) + 5] = 0xFF;
            if (name == "loca")
                for (int k = 0; k < 4; ++k)
                    delta[rec + 12 + size_t(k)] = uint8_t(locaLength >> (24 - 8 * k));
        }
        SpoolWriter s;
        s.record(EMRI_SUBSET_FONT, test::subsetFont(5, 5, cutFont(f.narrowFile, f.narrow, {37})))
            .record(EMRI_DELTA_FONT, test::subsetFont(5, 5, delta))
            .page(emf);
        return render(s.finish());
    };
    r = withTables(8);
    EXPECT_EQ(r.pages.size(), 1u);
    EXPECT_FALSE(r.warned("cannot be merged")) << r.all();
    r = withTables(0x08000000u);
    EXPECT_EQ(r.pages.size(), 1u);
    EXPECT_TRUE(r.warned("cannot be merged")) << r.all();
    // An EMFSPOOL comment whose size runs past its record.
    EmfWriter w = page(u"Liberation Sans Narrow", 60);
    Buffer comment;
    test::put32(comment, 0x7FFFFFFF);
    test::put32(comment, 0);
    test::put32(comment, 0x544F4E46);
    w.raw(70, comment);
    r = render(test::makeSpool({w.finish()}));
    EXPECT_EQ(r.pages.size(), 1u);
    EXPECT_TRUE(r.warned("comment whose size")) << r.all();
}

TEST(EmfGlyphTextHostile, GlyphNumbersPastTheFontsEnd) {
    Fonts f;
    ASSERT_TRUE(f.ok);
    std::u16string glyphs;
    for (int i = 0; i < 2000; ++i)
        glyphs.push_back(char16_t(60000 + i % 5000));
    glyphs.push_back(char16_t(f.narrow.glyphIndex(U'A')));
    const Rendered r =
        render(spoolWithFont(EMRI_ENGINE_FONT, test::engineFont({f.narrowFile}), narrowTextPage(glyphs)));
    ASSERT_EQ(r.pages.size(), 1u);
    EXPECT_TRUE(r.warned("past the end of the font")) << r.all();
    // The one real glyph is still drawn.
    EXPECT_GT(inkOf(r.pages[0]), 100);
}

// A character count far beyond the record: nothing read past it.
TEST(EmfGlyphTextHostile, HugeCharacterCounts) {
    Fonts f;
    ASSERT_TRUE(f.ok);
    EmfWriter w = page(u"Liberation Sans Narrow", 60);
    w.textItems(EXTTEXTOUTW, {{100, 300, u"\x0024", ETO_NO_RECT | ETO_GLYPH_INDEX, {}}});
    Buffer emf = w.finish();
    // The record's Chars field (the text record follows header, font, select and align).
    const size_t textAt = lastRecord(emf, EXTTEXTOUTW);
    ASSERT_GT(textAt, 0u);
    test::set32(emf, textAt + 36 + 8, 0x7FFFFFFF);
    const Rendered r = render(spoolWithFont(EMRI_ENGINE_FONT, test::engineFont({f.narrowFile}), emf));
    ASSERT_EQ(r.pages.size(), 1u);
    EXPECT_TRUE(r.warned("run past its end")) << r.all();
    // A multi-string record that claims a million strings.
    EmfWriter p = page(u"Liberation Sans Narrow", 60);
    p.textItems(POLYTEXTOUTW, {{100, 300, u"\x0024", ETO_NO_RECT | ETO_GLYPH_INDEX, {}}});
    Buffer poly = p.finish();
    const size_t polyAt = lastRecord(poly, POLYTEXTOUTW);
    ASSERT_GT(polyAt, 0u);
    test::set32(poly, polyAt + 36, 1000000);
    const Rendered q = render(spoolWithFont(EMRI_ENGINE_FONT, test::engineFont({f.narrowFile}), poly));
    ASSERT_EQ(q.pages.size(), 1u);
    EXPECT_TRUE(q.warned("more strings than it holds")) << q.all();
}

} // namespace
} // namespace qx::emf
