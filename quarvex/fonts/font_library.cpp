// Resident font lookup and monochrome glyph rendering with FreeType.

#include "fonts/font_library.h"

#include "fonts/font_table.h"

#include <fontconfig/fontconfig.h>
#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_ADVANCES_H
#include FT_FONT_FORMATS_H

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <tuple>

#include <sys/stat.h>
#include <unistd.h>

namespace qx {
namespace {

std::string normalisedName(std::string_view name) {
    std::string out;
    for (char c : name) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (u == 0 || std::isspace(u) || c == '-' || c == '_')
            continue;
        out += static_cast<char>(std::tolower(u));
    }
    return out;
}

// Plain system calls rather than std::filesystem here: these run at start-up in every job, and
// the library code std::filesystem brings in is several pages of resident memory more.
bool fileExists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string lower(std::string s) {
    for (char& c : s)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// The folder of the fonts that ship beside the engine: <exe dir>/../fonts.
std::string bundledFontFolder() {
    char buf[4096];
    const ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf);
    if (n <= 0 || size_t(n) >= sizeof buf)
        return {};
    std::string dir(buf, size_t(n));
    // Two folders up from the executable: <prefix>/bin/quarvex to <prefix>.
    for (int up = 0; up < 2; ++up) {
        const size_t slash = dir.find_last_of('/');
        if (slash == std::string::npos)
            return {};
        dir.erase(slash == 0 ? 1 : slash);
    }
    return (dir == "/" ? dir : dir + "/") + "fonts";
}

struct GlyphKey {
    int index;
    char32_t code;
    long a, b, c, d;
    bool operator<(const GlyphKey& o) const {
        return std::tie(index, code, a, b, c, d) < std::tie(o.index, o.code, o.a, o.b, o.c, o.d);
    }
};

constexpr size_t kGlyphCacheLimit = 8192;
// The cache also stays under this many bytes of bitmaps: big glyphs at high resolutions add up.
constexpr size_t kGlyphCacheBytes = 64u * 1024 * 1024;

} // namespace

struct FontLibrary::Impl {
    std::vector<std::string> folders;
    bool useFontconfig = true;
    FT_Library ft = nullptr;
    // A configuration of our own, loaded on first use and released with the library, so that
    // the process-wide one stays untouched.
    FcConfig* fc = nullptr;
    bool fcTried = false;

    struct Face {
        ResidentFontInfo info;
        const fonts::FaceEntry* entry = nullptr;
        bool resolved = false;
        FT_Face face = nullptr;
        FontMetrics metrics;
    };
    std::vector<Face> faces;
    std::map<GlyphKey, std::optional<GlyphBitmap>> glyphCache;
    size_t glyphCacheBytes = 0;

    ~Impl() {
        for (Face& f : faces)
            if (f.face)
                FT_Done_Face(f.face);
        if (ft)
            FT_Done_FreeType(ft);
        if (fc)
            FcConfigDestroy(fc);
    }

    std::string fontconfigMatch(const fonts::FaceFile& file, bool requireFamily) {
        if (!fcTried) {
            fcTried = true;
            fc = FcInitLoadConfigAndFonts();
        }
        if (!fc)
            return {};
        FcPattern* pattern = FcPatternCreate();
        FcPatternAddString(pattern, FC_FAMILY, reinterpret_cast<const FcChar8*>(file.fcFamily));
        FcPatternAddString(pattern, FC_STYLE, reinterpret_cast<const FcChar8*>(file.fcStyle));
        FcConfigSubstitute(fc, pattern, FcMatchPattern);
        FcDefaultSubstitute(pattern);
        FcResult result = FcResultNoMatch;
        FcPattern* match = FcFontMatch(fc, pattern, &result);
        std::string path;
        if (match) {
            FcChar8* family = nullptr;
            FcChar8* filePath = nullptr;
            const bool familyOk =
                FcPatternGetString(match, FC_FAMILY, 0, &family) == FcResultMatch && family &&
                lower(reinterpret_cast<const char*>(family)) == lower(file.fcFamily);
            if ((familyOk || !requireFamily) &&
                FcPatternGetString(match, FC_FILE, 0, &filePath) == FcResultMatch && filePath)
                path = reinterpret_cast<const char*>(filePath);
            FcPatternDestroy(match);
        }
        FcPatternDestroy(pattern);
        return path;
    }

    bool open(Face& f, const std::string& path) {
        if (!ft && FT_Init_FreeType(&ft) != 0) {
            ft = nullptr;
            return false;
        }
        FT_Face face = nullptr;
        if (FT_New_Face(ft, path.c_str(), 0, &face) != 0 || !face)
            return false;
        if (!FT_IS_SCALABLE(face) || face->units_per_EM == 0) {
            FT_Done_Face(face);
            return false;
        }
        if (FT_Select_Charmap(face, FT_ENCODING_UNICODE) != 0 && face->num_charmaps > 0)
            FT_Set_Charmap(face, face->charmaps[0]);
        f.face = face;
        f.info.file = path;
        computeMetrics(f);
        return true;
    }

    void computeMetrics(Face& f) {
        FT_Face face = f.face;
        const double em = face->units_per_EM;
        FontMetrics m;
        m.ascent = face->ascender / em;
        m.descent = -face->descender / em;
        if (face->underline_thickness > 0) {
            m.underlinePosition = -face->underline_position / em;
            m.underlineThickness = face->underline_thickness / em;
        }
        m.capHeight = m.ascent * 0.85;
        if (FT_UInt gi = FT_Get_Char_Index(face, 'H')) {
            if (FT_Load_Glyph(face, gi, FT_LOAD_NO_SCALE) == 0)
                m.capHeight = face->glyph->metrics.height / em;
        }
        if (!f.info.proportional) {
            FT_Fixed adv = 0;
            FT_UInt gi = FT_Get_Char_Index(face, '0');
            if (gi && FT_Get_Advance(face, gi, FT_LOAD_NO_SCALE, &adv) == 0)
                m.fixedAdvance = adv / em;
            else
                m.fixedAdvance = 0.6;
        }
        f.metrics = m;
    }

    // Calls use(path) for each file of face f found in our own folders, in order of preference,
    // until it returns true; returns whether one did.
    template <class Use>
    bool ownFiles(const Face& f, Use&& use) const {
        for (const fonts::FaceFile* file = f.entry->files; file->fileName; ++file)
            for (const std::string& folder : folders) {
                const std::string path = folder + "/" + file->fileName;
                if (fileExists(path) && use(path))
                    return true;
            }
        return false;
    }

    void resolve(Face& f) {
        if (f.resolved)
            return;
        f.resolved = true;
        if (ownFiles(f, [&](const std::string& path) { return open(f, path); }))
            return;
        if (!useFontconfig)
            return;
        for (const fonts::FaceFile* file = f.entry->files; file->fileName; ++file) {
            const std::string path = fontconfigMatch(*file, true);
            if (!path.empty() && open(f, path))
                return;
        }
        // Whatever fontconfig considers closest to the first choice.
        const std::string path = fontconfigMatch(f.entry->files[0], false);
        if (!path.empty())
            open(f, path);
    }

    Face* ready(int index) {
        if (index < 0 || index >= static_cast<int>(faces.size()))
            return nullptr;
        Face& f = faces[static_cast<size_t>(index)];
        resolve(f);
        return f.face ? &f : nullptr;
    }

    // Whether face index can be had, without opening it when one of our own folders holds its
    // file: selecting a font costs no font file until a character is set in it.
    bool located(int index) {
        if (index < 0 || index >= static_cast<int>(faces.size()))
            return false;
        const Face& f = faces[static_cast<size_t>(index)];
        if (!f.resolved && ownFiles(f, [](const std::string&) { return true; }))
            return true;
        return ready(index) != nullptr;
    }

    std::optional<GlyphBitmap> render(Face& f, char32_t code, const Matrix& m);
};

FontLibrary::FontLibrary() : FontLibrary([] {
    std::vector<std::string> folders;
    if (const char* env = std::getenv("PCLFONTSOURCE"); env && *env)
        folders.emplace_back(env);
    if (std::string bundled = bundledFontFolder(); !bundled.empty())
        folders.push_back(bundled);
    return folders;
}(), true) {}

FontLibrary::FontLibrary(std::vector<std::string> folders, bool useFontconfig) : d(std::make_unique<Impl>()) {
    d->folders = std::move(folders);
    d->useFontconfig = useFontconfig;
    int i = 0;
    for (const fonts::FaceEntry& e : fonts::residentFaces()) {
        Impl::Face f;
        f.entry = &e;
        f.info.index = i++;
        f.info.family = e.family;
        f.info.pclxlName = e.pclxlName;
        f.info.typeface = e.typeface;
        f.info.proportional = e.proportional;
        f.info.bold = e.bold;
        f.info.italic = e.italic;
        f.info.pclFontNumber = e.pjlFontNumber;
        d->faces.push_back(std::move(f));
    }
}

FontLibrary::~FontLibrary() = default;

const std::vector<std::string>& FontLibrary::folders() const { return d->folders; }

int FontLibrary::count() const { return static_cast<int>(d->faces.size()); }

const ResidentFontInfo& FontLibrary::info(int index) const {
    static const ResidentFontInfo none;
    if (index < 0 || index >= count())
        return none;
    return d->faces[static_cast<size_t>(index)].info;
}

int FontLibrary::selectPcl(const FontRequest& rq) const {
    const bool wantItalic = (rq.style % 4) != 0;
    const bool wantSymbol = rq.symbolSet == symsets::Symbol;
    const bool wantDingbat = rq.symbolSet == symsets::Wingdings;
    const int wantTypeface = rq.typeface;

    struct Candidate {
        long score;
        int index;
    };
    std::vector<Candidate> ranked;
    for (const Impl::Face& f : d->faces) {
        const fonts::FaceEntry& e = *f.entry;
        long score = 0;
        // Symbol set support comes first.
        if (wantSymbol || wantDingbat) {
            const bool fits = e.symbolic && ((wantSymbol && e.typeface == 16686) ||
                                             (wantDingbat && e.typeface == 31402));
            score += fits ? 0 : 1000000;
        } else if (e.symbolic) {
            score += 1000000;
        }
        // Then spacing.
        if (e.proportional != rq.proportional)
            score += 100000;
        // Then style (posture).
        if (e.italic != wantItalic)
            score += 10000;
        // Then stroke weight: the nearest.
        const int faceWeight = e.bold ? 3 : 0;
        score += 1000 * std::min(7, std::abs(faceWeight - std::clamp(rq.weight, -7, 7)));
        // Then typeface; failing that, the table's order (Courier, then CG Times).
        if (e.typeface != wantTypeface) {
            score += 100;
            if ((e.typeface & 0xFFF) == (wantTypeface & 0xFFF))
                score -= 50;
        }
        ranked.push_back({score, f.info.index});
    }
    std::stable_sort(ranked.begin(), ranked.end(),
                     [](const Candidate& a, const Candidate& b) { return a.score < b.score; });
    for (const Candidate& c : ranked)
        if (d->located(c.index))
            return c.index;
    return -1;
}

int FontLibrary::selectByName(std::string_view name) const {
    const std::string want = normalisedName(name);
    if (want.empty())
        return -1;
    for (const Impl::Face& f : d->faces)
        if (normalisedName(f.entry->pclxlName) == want)
            return f.info.index;
    // A family name followed by style abbreviations ("TimesNewRmnBdIt", "ArialBold").
    size_t bestLen = 0;
    for (const Impl::Face& f : d->faces) {
        for (const std::string& key : {normalisedName(f.entry->family), normalisedName(f.entry->pclxlName)}) {
            if (key.size() > bestLen && want.compare(0, key.size(), key) == 0 && !f.entry->bold &&
                !f.entry->italic)
                bestLen = key.size();
        }
    }
    if (bestLen == 0) {
        // The family part of regular faces may carry a weight word ("Univers Md").
        for (const Impl::Face& f : d->faces) {
            const std::string key = normalisedName(f.entry->family);
            if (key.size() > bestLen && want.compare(0, key.size(), key) == 0)
                bestLen = key.size();
        }
    }
    if (bestLen == 0)
        return -1;
    const std::string family = want.substr(0, bestLen);
    const std::string rest = want.substr(bestLen);
    const auto has = [&](const char* s) { return rest.find(s) != std::string::npos; };
    const bool bold = has("bd") || has("bold") || has("xb") || has("dm") || has("demi") || has("hlb") ||
                      has("blk") || has("black") || has("heavy");
    const bool italic = has("it") || has("ob") || has("krsv") || has("obl") || has("slant");
    int best = -1;
    int bestScore = 1 << 20;
    for (const Impl::Face& f : d->faces) {
        const std::string fam = normalisedName(f.entry->family);
        const std::string xl = normalisedName(f.entry->pclxlName);
        if (fam.compare(0, family.size(), family) != 0 && xl.compare(0, family.size(), family) != 0 &&
            family.compare(0, fam.size(), fam) != 0)
            continue;
        // Faces named by the matched key come first; a family that only begins the key
        // ("Times" for "TimesNew...") is a last resort. Ties keep the table's order.
        const bool direct = fam == family || xl.compare(0, family.size(), family) == 0;
        const int score = (f.entry->bold != bold ? 2 : 0) + (f.entry->italic != italic ? 1 : 0) + (direct ? 0 : 4);
        if (score < bestScore) {
            bestScore = score;
            best = f.info.index;
        }
    }
    return best;
}

int FontLibrary::selectByNumber(int pjlFontNumber) const {
    if (pjlFontNumber < 0)
        return -1;
    for (const Impl::Face& f : d->faces)
        if (f.entry->pjlFontNumber == pjlFontNumber)
            return f.info.index;
    return -1;
}

bool FontLibrary::available(int index) const { return d->ready(index) != nullptr; }

std::string FontLibrary::filePath(int index) const {
    Impl::Face* f = d->ready(index);
    return f ? f->info.file : std::string();
}

FontMetrics FontLibrary::metrics(int index) const {
    Impl::Face* f = d->ready(index);
    if (!f) {
        FontMetrics m;
        if (index >= 0 && index < count() && !info(index).proportional)
            m.fixedAdvance = 0.6;
        return m;
    }
    return f->metrics;
}

double FontLibrary::advance(int index, char32_t unicode) const {
    Impl::Face* f = d->ready(index);
    if (!f)
        return 0;
    const FT_UInt gi = FT_Get_Char_Index(f->face, unicode);
    if (gi == 0)
        return f->info.proportional ? 0 : f->metrics.fixedAdvance;
    FT_Fixed adv = 0;
    if (FT_Get_Advance(f->face, gi, FT_LOAD_NO_SCALE, &adv) != 0)
        return 0;
    return static_cast<double>(adv) / f->face->units_per_EM;
}

bool FontLibrary::hasGlyph(int index, char32_t unicode) const {
    Impl::Face* f = d->ready(index);
    return f && FT_Get_Char_Index(f->face, unicode) != 0;
}

namespace {

// Renders glyph gi of face through m (em units, y up, to device pixels, y down), monochrome.
GlyphBitmap renderFaceGlyph(FT_Face face, FT_UInt gi, const Matrix& m) {
    FT_Fixed advUnits = 0;
    FT_Get_Advance(face, gi, FT_LOAD_NO_SCALE, &advUnits);
    const double advEm = static_cast<double>(advUnits) / face->units_per_EM;

    GlyphBitmap out;
    out.advanceX = m.a * advEm;
    out.advanceY = m.b * advEm;

    const double det = std::abs(m.a * m.d - m.b * m.c);
    const double s = std::sqrt(det);
    // Below a pixel nothing shows; above this the glyph would be out of all proportion to a page.
    if (!(s >= 1.0) || s > 20000.0)
        return out;

    if (FT_Set_Char_Size(face, 0, static_cast<FT_F26Dot6>(std::lround(s * 64.0)), 72, 72) != 0)
        return out;
    // Font space (y up) to FreeType's output space (y up): flip the device's y.
    FT_Matrix tm;
    tm.xx = static_cast<FT_Fixed>(std::lround(m.a / s * 65536.0));
    tm.xy = static_cast<FT_Fixed>(std::lround(m.c / s * 65536.0));
    tm.yx = static_cast<FT_Fixed>(std::lround(-m.b / s * 65536.0));
    tm.yy = static_cast<FT_Fixed>(std::lround(-m.d / s * 65536.0));
    FT_Set_Transform(face, &tm, nullptr);
    // TrueType outlines are grid-fitted by the font's own instructions, as printers and
    // Ghostscript do; PostScript outlines (CFF, Type 1) are filled as designed, since their
    // hints snapped for one-bit output shift stems and heights by whole pixels.
    const bool trueType = std::strcmp(FT_Get_Font_Format(face), "TrueType") == 0;
    const FT_Int32 hinting = trueType ? FT_LOAD_TARGET_MONO : FT_LOAD_NO_HINTING;
    const FT_Error err = FT_Load_Glyph(face, gi, hinting | FT_LOAD_NO_BITMAP);
    if (err == 0)
        FT_Render_Glyph(face->glyph, FT_RENDER_MODE_MONO);
    FT_Set_Transform(face, nullptr, nullptr);
    if (err != 0)
        return out;
    const FT_Bitmap& bm = face->glyph->bitmap;
    if (bm.pixel_mode != FT_PIXEL_MODE_MONO || bm.width == 0 || bm.rows == 0)
        return out;
    out.left = face->glyph->bitmap_left;
    out.top = -face->glyph->bitmap_top;
    out.mask.width = static_cast<int>(bm.width);
    out.mask.height = static_cast<int>(bm.rows);
    out.mask.stride = (bm.width + 7) / 8;
    out.mask.bits.resize(out.mask.stride * bm.rows);
    for (unsigned y = 0; y < bm.rows; ++y) {
        const unsigned char* src =
            bm.pitch >= 0 ? bm.buffer + static_cast<ptrdiff_t>(y) * bm.pitch
                          : bm.buffer + static_cast<ptrdiff_t>(bm.rows - 1 - y) * -bm.pitch;
        std::memcpy(out.mask.bits.data() + y * out.mask.stride, src, out.mask.stride);
    }
    return out;
}

} // namespace

std::optional<GlyphBitmap> FontLibrary::Impl::render(Face& f, char32_t code, const Matrix& m) {
    const FT_UInt gi = FT_Get_Char_Index(f.face, code);
    if (gi == 0)
        return std::nullopt;
    return renderFaceGlyph(f.face, gi, m);
}

struct MemoryFace::Impl {
    FT_Library ft = nullptr;
    FT_Face face = nullptr;
    std::vector<uint8_t> data; // FreeType reads the face from here for as long as it lives
    ~Impl() {
        if (face)
            FT_Done_Face(face);
        if (ft)
            FT_Done_FreeType(ft);
    }
};

MemoryFace::MemoryFace() : d(std::make_unique<Impl>()) {}
MemoryFace::~MemoryFace() = default;

std::unique_ptr<MemoryFace> MemoryFace::open(std::vector<uint8_t> fontData) {
    std::unique_ptr<MemoryFace> mf(new MemoryFace());
    mf->d->data = std::move(fontData);
    if (FT_Init_FreeType(&mf->d->ft) != 0) {
        mf->d->ft = nullptr;
        return nullptr;
    }
    if (FT_New_Memory_Face(mf->d->ft, mf->d->data.data(), static_cast<FT_Long>(mf->d->data.size()), 0,
                           &mf->d->face) != 0) {
        mf->d->face = nullptr;
        return nullptr;
    }
    if (!FT_IS_SCALABLE(mf->d->face) || mf->d->face->units_per_EM == 0)
        return nullptr;
    return mf;
}

int MemoryFace::glyphCount() const { return static_cast<int>(d->face->num_glyphs); }

double MemoryFace::advance(uint32_t glyphIndex) const {
    FT_Fixed adv = 0;
    if (glyphIndex >= static_cast<uint32_t>(d->face->num_glyphs) ||
        FT_Get_Advance(d->face, glyphIndex, FT_LOAD_NO_SCALE, &adv) != 0)
        return 0;
    return static_cast<double>(adv) / d->face->units_per_EM;
}

std::optional<GlyphBitmap> MemoryFace::renderGlyph(uint32_t glyphIndex, const Matrix& fontToDevice) const {
    if (glyphIndex >= static_cast<uint32_t>(d->face->num_glyphs))
        return std::nullopt;
    return renderFaceGlyph(d->face, glyphIndex, fontToDevice);
}

std::optional<GlyphBitmap> FontLibrary::renderGlyph(int index, char32_t unicode, const Matrix& m) const {
    Impl::Face* f = d->ready(index);
    if (!f)
        return std::nullopt;
    const auto q = [](double v) { return std::lround(v * 1024.0); };
    const GlyphKey key{index, unicode, q(m.a), q(m.b), q(m.c), q(m.d)};
    if (auto it = d->glyphCache.find(key); it != d->glyphCache.end())
        return it->second;
    std::optional<GlyphBitmap> g = d->render(*f, unicode, m);
    const size_t bytes = g ? g->mask.bits.size() : 0;
    if (d->glyphCache.size() >= kGlyphCacheLimit || d->glyphCacheBytes + bytes > kGlyphCacheBytes) {
        d->glyphCache.clear();
        d->glyphCacheBytes = 0;
    }
    if (bytes <= kGlyphCacheBytes / 4) {
        d->glyphCache.emplace(key, g);
        d->glyphCacheBytes += bytes;
    }
    return g;
}

} // namespace qx
